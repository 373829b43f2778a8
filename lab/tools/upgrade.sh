#!/bin/sh
# upgrade.sh IMAGE: checks a firmware image and writes it to the bank that the device does not run from.
#
# An image is a tar of "manifest", "manifest.sig", "firmware.bin" and, where there is one, "bootloader.bin" with
# "bootloader.sig". The manifest has lines KEY=VALUE: version, skus (with blanks between), sha256 of the firmware.
# Nothing is written before all of it has been checked. The exit status tells the agent what came of it.
set -u
flash=/mnt/flash
key=/etc/velmora/firmware-key.pem
board=/etc/velmora/board.json
image=${1:-}

# fail STATUS WORDS...
fail() {
    status=$1
    shift
    echo "upgrade.sh: $*" >&2
    exit "$status"
}

# value KEY: what the manifest says
value() { sed -n "s/^$1=//p" "$work/manifest" | head -n 1; }

# signed FILE SIGNATURE: whether the maker has signed it
signed() { openssl dgst -sha256 -verify "$key" -signature "$work/$2" "$work/$1" >/dev/null 2>&1; }

# plain FILE...: whether these parts of the image are there, and files
plain() {
    for part in "$@"; do
        [ -f "$work/$part" ] && [ ! -L "$work/$part" ] || return 1
    done
}

# start_from BANK: the next start is from there, power may fail at any moment; it is on the medium when this returns
start_from() {
    { echo "$1" >"$flash/boot.new" && sync && mv "$flash/boot.new" "$flash/boot" && sync; } 2>/dev/null
}

work=$(mktemp -d /tmp/upgrade.XXXXXX) || fail 1 "no room to unpack the image"
trap 'rm -rf "$work" "$image"' EXIT

echo "unpacking"
[ -f "$image" ] || fail 3 "there is no image at $image"
tar -xf "$image" -C "$work" manifest manifest.sig firmware.bin 2>/dev/null || fail 4 "this is no image, or not all of it"
tar -xf "$image" -C "$work" bootloader.bin bootloader.sig 2>/dev/null
plain manifest manifest.sig firmware.bin || fail 4 "the image has parts that are no files"

echo "checking signatures"
signed manifest manifest.sig || fail 5 "the manifest is not signed by the maker"
sum=$(sha256sum "$work/firmware.bin")
[ "${sum%% *}" = "$(value sha256)" ] || fail 5 "the firmware is not the one that was signed"
if [ -e "$work/bootloader.bin" ]; then
    plain bootloader.bin bootloader.sig && signed bootloader.bin bootloader.sig || fail 6 "the boot loader is not signed by the maker"
fi

sku=$(sed -n 's/.*"sku": *\([0-9]*\).*/\1/p' "$board")
[ -n "$sku" ] || fail 10 "the board does not know its SKU"
case " $(value skus) " in
*" $sku "*) ;;
*) fail 10 "this firmware is for SKU $(value skus), the board is $sku" ;;
esac
version=$(value version)
case $version in
'' | *[!0-9A-Za-z.+-]*) fail 11 "the manifest has no version" ;;
esac

case $(cat /etc/velmora/bank 2>/dev/null) in
a) running=a standby=b ;;
b) running=b standby=a ;;
*) fail 9 "it is not known which bank the device runs from" ;;
esac
# An earlier image may be waiting there for the next start: it goes, and nothing may start from half a bank.
start_from "$running" || fail 9 "bank $running could not be kept as the one to start from"
echo "writing $version to bank $standby"
bank=$flash/bank-$standby
rm -rf "$bank" "$bank.new"
if ! { mkdir "$bank.new" && cp "$work/firmware.bin" "$bank.new/" && printf '%s\n' "$version" >"$bank.new/version" &&
    sync && mv "$bank.new" "$bank"; } 2>/dev/null; then
    rm -rf "$bank.new"
    fail 7 "bank $standby could not be written; the device stays with bank $running"
fi
if [ -e "$work/bootloader.bin" ]; then
    { cp "$work/bootloader.bin" "$flash/bootloader.new" && sync && mv "$flash/bootloader.new" "$flash/bootloader.bin"; } \
        2>/dev/null || fail 8 "the boot loader could not be written"
fi
start_from "$standby" || fail 9 "bank $standby could not be made the one to start from"
echo "the device starts $version from bank $standby next time"
