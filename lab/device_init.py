"""The first process of a simulated access point.

Run by `lab.device` with a JSON description on standard input. It forks: the parent is the keeper,
which ends the device when the lab is gone (even by kill -9); the child makes itself a root file
system and a namespace of every kind, reports through the status pipe and then is the device's
process 1: it reaps orphans and does nothing else.
"""

import errno
import json
import os
import select
import shutil
import signal
import sys
from typing import Any

from lab import linux

_DEVICE_NODES = ("null", "zero", "full", "random", "urandom", "tty")


def _make_folder(path: str) -> None:
    os.makedirs(path, exist_ok=True)


def _write(root: str, entry: dict[str, Any]) -> None:
    """Puts one file of the description into the new root, in place of any of the host's."""
    path = root + entry["path"]
    _make_folder(os.path.dirname(path))
    if os.path.lexists(path):
        os.unlink(path)
    if "copy" in entry:
        shutil.copy(root + entry["copy"], path)
        return
    with open(path, "w", encoding="utf-8") as file:
        file.write(entry["text"])
    os.chmod(path, entry["mode"])


def _mount_devices(root: str) -> None:
    """A private /dev: the harmless nodes, terminals and shared memory of its own."""
    host_nodes = {name: f"/dev/{name}" for name in _DEVICE_NODES}
    linux.mount("tmpfs", root + "/dev", "tmpfs", linux.MS_NOSUID, "mode=755,size=1m")
    for name, source in host_nodes.items():
        target = f"{root}/dev/{name}"
        with open(target, "w", encoding="utf-8"):
            pass
        linux.mount(source, target, "", linux.MS_BIND)
    _make_folder(root + "/dev/pts")
    linux.mount("devpts", root + "/dev/pts", "devpts", linux.MS_NOSUID | linux.MS_NOEXEC,
                "newinstance,ptmxmode=0666,mode=620")
    _make_folder(root + "/dev/shm")
    linux.mount("tmpfs", root + "/dev/shm", "tmpfs", linux.MS_NOSUID | linux.MS_NODEV, "mode=1777")
    os.symlink("pts/ptmx", root + "/dev/ptmx")
    for number, name in enumerate(("stdin", "stdout", "stderr")):
        os.symlink(f"/proc/self/fd/{number}", f"{root}/dev/{name}")
    os.symlink("/proc/self/fd", root + "/dev/fd")


def _mount_kernel_views(root: str) -> None:
    """Own /proc and /sys; the host-wide switches in /proc are read-only, the network's are ours."""
    linux.mount("proc", root + "/proc", "proc",
                linux.MS_NOSUID | linux.MS_NODEV | linux.MS_NOEXEC)
    net, everything = root + "/proc/sys/net", root + "/proc/sys"
    linux.mount(net, net, "", linux.MS_BIND)
    linux.mount(everything, everything, "", linux.MS_BIND | linux.MS_REC)
    remount = linux.MS_BIND | linux.MS_REMOUNT | linux.MS_NOSUID | linux.MS_NODEV | linux.MS_NOEXEC
    linux.mount("", everything, "", remount | linux.MS_RDONLY)
    trigger = root + "/proc/sysrq-trigger"
    if os.path.exists(trigger):
        linux.mount(trigger, trigger, "", linux.MS_BIND)
        linux.mount("", trigger, "", remount | linux.MS_RDONLY)
    linux.mount("sysfs", root + "/sys", "sysfs",
                linux.MS_NOSUID | linux.MS_NODEV | linux.MS_NOEXEC)


def _bind(root: str, entry: dict[str, Any]) -> None:
    """Shows a folder (or pipe) of the host inside the device, read-only unless told otherwise."""
    target = root + entry["path"]
    if os.path.isdir(entry["source"]):
        _make_folder(target)
    else:
        _make_folder(os.path.dirname(target))
        with open(target, "a", encoding="utf-8"):
            pass
    linux.mount(entry["source"], target, "", linux.MS_BIND | linux.MS_REC)
    if not entry["writable"]:
        linux.mount("", target, "", linux.MS_BIND | linux.MS_REMOUNT | linux.MS_RDONLY)


def _make_root(spec: dict[str, Any]) -> str:
    """Builds the device's whole tree beside the host's and returns where it is."""
    linux.mount("", "/", "", linux.MS_REC | linux.MS_PRIVATE)
    base = spec["base"]
    linux.mount("tmpfs", base, "tmpfs", 0, "mode=755")
    root = base + "/root"
    for folder in (root, base + "/upper", base + "/work"):
        os.mkdir(folder)
    try:
        linux.mount("overlay", root, "overlay", 0,
                    f"lowerdir=/,upperdir={base}/upper,workdir={base}/work")
    except OSError as error:
        if error.errno == errno.ENODEV:
            raise OSError(error.errno, "this kernel has no overlay file system; "
                          "load it with: modprobe overlay") from error
        raise
    for path, options in spec["tmpfs"].items():
        _make_folder(root + path)
        linux.mount("tmpfs", root + path, "tmpfs", linux.MS_NOSUID | linux.MS_NODEV, options)
    _mount_devices(root)
    _mount_kernel_views(root)
    for entry in spec["binds"]:
        _bind(root, entry)
    for path in spec["folders"]:
        _make_folder(root + path)
    for entry in spec["files"]:
        _write(root, entry)
    return root


def _become_device(spec: dict[str, Any], status_fd: int) -> None:
    """Makes this process the device's process 1; never returns."""
    linux.die_with_parent(signal.SIGKILL)
    os.setsid()
    linux.setns(spec["network_fd"], linux.CLONE_NEWNET)
    os.close(spec["network_fd"])
    linux.unshare(linux.CLONE_NEWNS | linux.CLONE_NEWUTS | linux.CLONE_NEWIPC)
    root = _make_root(spec)
    linux.sethostname(spec["hostname"])
    linux.pivot_root_here(root)
    for capability in (linux.CAP_SYS_TIME, linux.CAP_SYS_MODULE, linux.CAP_SYS_RAWIO):
        linux.drop_capability(capability)
    null = os.open("/dev/null", os.O_RDWR)
    for number in (0, 1, 2):
        os.dup2(null, number)
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGCHLD})
    os.write(status_fd, b"ready")
    os.close(status_fd)
    while True:
        signal.sigwait({signal.SIGCHLD})
        try:
            while os.waitpid(-1, os.WNOHANG)[0] > 0:
                pass
        except ChildProcessError:
            pass


def _keep(spec: dict[str, Any], pid: int) -> None:
    """Waits for the device's end; if the lab goes first, ends the device and clears its folder."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    watched = os.pidfd_open(pid)
    poller = select.poll()
    poller.register(watched, select.POLLIN)
    poller.register(spec["lifeline_fd"], select.POLLIN | select.POLLHUP)
    ready = {fd for fd, _ in poller.poll()}
    abandoned = spec["lifeline_fd"] in ready
    if abandoned:
        os.kill(pid, signal.SIGKILL)
    os.waitpid(pid, 0)
    if abandoned:
        shutil.rmtree(spec["folder"], ignore_errors=True)


def main() -> int:
    """Reads the description and splits into keeper and device."""
    spec = json.load(sys.stdin)
    status_fd = spec["status_fd"]
    linux.unshare(linux.CLONE_NEWPID)
    numbered, number_told = os.pipe()
    pid = os.fork()
    if pid == 0:
        os.close(number_told)
        os.read(numbered, 1)  # its number is told before its "ready", however busy the machine is
        os.close(numbered)
        try:
            _become_device(spec, status_fd)
        except BaseException as error:  # told to the lab, which raises it
            os.write(status_fd, f"error {error}".encode())
        os._exit(1)
    os.close(numbered)
    os.write(status_fd, f"pid {pid}\n".encode())
    os.close(number_told)
    os.close(status_fd)
    _keep(spec, pid)
    return 0


if __name__ == "__main__":
    sys.exit(main())
