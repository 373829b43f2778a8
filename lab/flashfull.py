"""A full flash without filling anything: an overlay over "/mnt/flash" whose writable layer is full.

What is stored there can be read as before; every change fails as on a full file system. The layer
is a small file system in the device's memory, so nothing of the real flash is touched.
"""

from lab.device import Device

_LAYER = "/run/full-flash"
_FILL = f"""
mkdir {_LAYER}
mount -t tmpfs -o size=64k,nr_inodes=32 none {_LAYER}
mkdir {_LAYER}/upper {_LAYER}/work
mount -t overlay -o lowerdir=/mnt/flash,upperdir={_LAYER}/upper,workdir={_LAYER}/work \
    none /mnt/flash
head -c 1000000 /dev/zero > {_LAYER}/filling 2> /dev/null || :
n=0
while true > {_LAYER}/file$n; do n=$((n + 1)); done 2> /dev/null
true
"""
_FREE = f"umount -l /mnt/flash; umount -l {_LAYER}; rmdir {_LAYER}"


def fill(device: Device) -> None:
    """Makes the (running) device's flash full; CalledProcessError if it cannot be."""
    device.run(["sh", "-ec", _FILL], check=True)


def free(device: Device) -> None:
    """Undoes `fill`; the stored files are those from before it."""
    device.run(["sh", "-c", _FREE], check=True)
