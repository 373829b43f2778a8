#!/bin/sh
# apt_install.sh PACKAGE...: installs Debian packages, as root and in silence. Those that bring a service along
# (nginx, haproxy, lldpd) are wanted as programs: the service is neither started now nor at the next boot.
set -eu
export DEBIAN_FRONTEND=noninteractive

policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
    trap 'rm -f "$policy"' EXIT
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod 755 "$policy"
fi

install() { apt-get install -o DPkg::Lock::Timeout=300 -y --no-install-recommends "$@" >/dev/null; }

# An up-to-date machine needs no new lists; where the install fails they are fetched first.
install "$@" 2>/dev/null || { apt-get update >/dev/null && install "$@"; }

for name in "$@"; do
    case $name in
    nginx | haproxy | lldpd) ! command -v systemctl >/dev/null 2>&1 || systemctl -q disable "$name" || : ;;
    esac
done
