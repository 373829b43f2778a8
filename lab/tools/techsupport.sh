#!/bin/sh
# techsupport.sh: writes a tar with what helps to understand this device's troubles to standard output.
#
# No secrets: passphrases, passwords, shared keys, account tokens, private keys and what gives a URL its permission are
# taken out of every text, and the files that hold nothing else are not collected at all.
set -u
work=$(mktemp -d /tmp/support-work.XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
top=$work/techsupport
mkdir -p "$top/logs" "$top/state" "$top/config" "$top/network" "$top/system"

# A secret may be quoted, escaped or cut off, so what stands behind its name in a line goes, and so does every piece of a
# received message ("rx") but the first: where the message is cut, name and secret may be in two lines. Of a URL its
# permission goes: the query, and a name with a password.
without_secrets() {
    sed -E -e '/PRIVATE KEY-----.*-----END/s/-----BEGIN.*/[removed]/' -e '/-----BEGIN .*PRIVATE KEY/,/-----END/d' \
        -e 's/(:rx [0-9]+ \[)[^{].*/\1removed]/' \
        -e 's/(pass(phrase|word|wd)|secret|pre[-_]?shared|shared[-_]?key|account_?id|psk"?[:= ]).*/\1 [removed]/I' \
        -e 's/(velmoraId=)[^& ]*/\1[removed]/g' -e 's/((S3 upload url =|str_upd_link=)[^?]*\?).*/\1[removed]/' \
        -e 's#(:(//|\\/\\/))[^]/@ "\\]*@#\1[removed]@#g' -e 's#(:(//|\\/\\/)[^]? "]*\?)[^] "]*#\1[removed]#g'
}

# file FOLDER PATH...: those of the files that are there
file() {
    folder=$1
    shift
    for path in "$@"; do
        [ -f "$path" ] && without_secrets <"$path" >"$top/$folder/${path##*/}"
    done
}

# output FOLDER/NAME COMMAND...: what a command says, complaints too
output() {
    name=$1
    shift
    "$@" 2>&1 | without_secrets >"$top/$name"
}

file logs /var/log/device-agent.log /var/log/device-agent.log.old /var/log/lws.log /var/log/lws.log.old
file state /tmp/orv_state /tmp/restarts /tmp/DA_VERSION /tmp/firmware.progress /mnt/flash/.last_close_reason \
    /mnt/flash/.last_reboot_reason /mnt/flash/boot
output state/files ls -la --full-time /tmp /mnt/flash /mnt/flash/config
file config /mnt/flash/config/config.txt /mnt/flash/config/bkup-config.txt /mnt/flash/config/confver \
    /mnt/flash/config/db.json /mnt/flash/config/orv_static_url /tmp/orv_dhcp_43_url /tmp/orv_dhcp_15_domain
file network /etc/resolv.conf /etc/hosts /proc/net/dev /proc/net/tcp
output network/addresses ip address
output network/routes ip route
output network/neighbours ip neighbour
file system /etc/version /etc/velmora/board.json /proc/meminfo /proc/loadavg /proc/mounts
output system/date /bin/date -u +%FT%TZ
output system/uptime cat /proc/uptime
output system/disks df -k
output system/processes ps -ef
tar -cf - -C "$work" techsupport
