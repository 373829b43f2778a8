"""Everything that can be asked for, by name: the one list.

`docs/statistics.md` is made from it by `python3 -m lab.scmd.stats.describe`.
"""

from collections.abc import Callable
from typing import Any, NamedTuple

from lab.scmd.stats import (cpu, interfaces, network, processes, sensors, storage, system)
from lab.scmd.stats.sample import Device

FIELD_NAME_LIMIT = 15
"""The agent cuts longer names."""


class Field(NamedTuple):
    """One value of the device as a whole."""

    unit: str
    meaning: str
    read: Callable[[Device], Any]


class Table(NamedTuple):
    """A list of rows that all have the same columns."""

    meaning: str
    columns: dict[str, tuple[str, str]]
    """Unit and meaning of each, in the order of a row."""
    read: Callable[[Device], list[dict[str, Any]]]


_BOOT, _COUNT, _LAST = "since the kernel started", "counter", "since this slot's last report"

FIELDS = {
    "uptime": Field("s", "time " + _BOOT, system.uptime),
    "clock": Field("s", "the device's clock, since the epoch", system.clock),
    "hostname": Field("text", "the device's own name", system.hostname),
    "kernel": Field("text", "release of the kernel", system.kernel),
    "load1": Field("number", "load average over 1 minute", system.load(1)),
    "load5": Field("number", "load average over 5 minutes", system.load(5)),
    "load15": Field("number", "load average over 15 minutes", system.load(15)),
    "processes": Field("number", "processes that exist", processes.count),
    "cpuCount": Field("number", "processor cores", cpu.count),
    "cpuUse": Field("%", "busy share of all cores, " + _LAST, cpu.use),
    "contextSwitches": Field(_COUNT, "context switches " + _BOOT, cpu.context_switches),
    "interrupts": Field(_COUNT, "interrupts " + _BOOT, cpu.interrupts),
    "memTotal": Field("bytes", "memory", system.memory("MemTotal")),
    "memFree": Field("bytes", "memory that nothing uses", system.memory("MemFree")),
    "memAvailable": Field("bytes", "memory that programs could get",
                          system.memory("MemAvailable")),
    "memUsed": Field("bytes", "memTotal without memAvailable",
                     system.memory("MemTotal", "MemAvailable")),
    "memBuffers": Field("bytes", "buffers of block devices", system.memory("Buffers")),
    "memCached": Field("bytes", "file contents kept in memory", system.memory("Cached")),
    "swapTotal": Field("bytes", "swap space", system.memory("SwapTotal")),
    "swapFree": Field("bytes", "swap space that nothing uses", system.memory("SwapFree")),
    "rxBytes": Field(_COUNT, "bytes received, all interfaces but the loopback",
                     interfaces.total("rxBytes")),
    "txBytes": Field(_COUNT, "bytes sent, all interfaces but the loopback",
                     interfaces.total("txBytes")),
    "rxErrors": Field(_COUNT, "receive errors, all interfaces but the loopback",
                      interfaces.total("rxErrors")),
    "txErrors": Field(_COUNT, "send errors, all interfaces but the loopback",
                      interfaces.total("txErrors")),
    "gateway": Field("text", "the default route's gateway", network.gateway),
    "tcpSockets": Field("number", "TCP sockets in use", network.sockets("TCP", "inuse")),
    "udpSockets": Field("number", "UDP sockets in use", network.sockets("UDP", "inuse")),
    "temperature": Field("celsius", "the warmest sensor", sensors.temperature),
}

TABLES = {
    "interfaces": Table("network interfaces, the loopback too", {
        "name": ("text", "of the interface"),
        "state": ("text", "as the kernel calls it: up, down, unknown, ..."),
        "mac": ("text", "hardware address"),
        "mtu": ("bytes", "largest packet"),
        "speed": ("Mbit/s", "of the link"),
        "duplex": ("text", "full, half or unknown"),
        "ipv4": ("text", "first address"),
        "ipv6": ("text", "address, a global one if there is one"),
        "rxBytes": (_COUNT, "bytes received"),
        "rxPackets": (_COUNT, "packets received"),
        "rxErrors": (_COUNT, "packets received that were bad"),
        "rxDropped": (_COUNT, "packets received that were dropped"),
        "txBytes": (_COUNT, "bytes sent"),
        "txPackets": (_COUNT, "packets sent"),
        "txErrors": (_COUNT, "packets that could not be sent"),
        "txDropped": (_COUNT, "packets to send that were dropped"),
        "multicast": (_COUNT, "multicast packets received"),
        "collisions": (_COUNT, "collisions"),
    }, interfaces.table),
    "cpus": Table("processor cores", {
        "core": ("number", "of the core"),
        "use": ("%", "busy share, " + _LAST),
        "user": ("ms", "time in programs " + _BOOT),
        "nice": ("ms", "time in programs of low priority"),
        "system": ("ms", "time in the kernel"),
        "idle": ("ms", "time with nothing to do"),
        "iowait": ("ms", "time idle while a disk was busy"),
        "irq": ("ms", "time in interrupts"),
        "softirq": ("ms", "time in deferred interrupt work"),
        "steal": ("ms", "time taken by the host of a virtual machine"),
    }, cpu.table),
    "processes": Table(f"the {processes.SHOWN} busiest processes, then the largest", {
        "pid": ("number", "process id"),
        "name": ("text", "of the program"),
        "state": ("text", "the kernel's letter: R, S, D, Z, ..."),
        "cpu": ("%", "share of one core, " + _LAST),
        "cpuTime": ("ms", "processor time since its start"),
        "rss": ("bytes", "resident memory"),
        "threads": ("number", "of threads"),
    }, processes.table),
    "storage": Table("mounted file systems that hold something", {
        "mount": ("text", "where it is mounted"),
        "device": ("text", "what is mounted"),
        "type": ("text", "kind of file system"),
        "size": ("bytes", "in all"),
        "used": ("bytes", "in use"),
        "available": ("bytes", "that programs could get"),
        "inodesFree": ("number", "files that could still be made"),
    }, storage.table),
    "neighbours": Table("the ARP table", {
        "address": ("text", "IPv4 address"),
        "mac": ("text", "hardware address"),
        "interface": ("text", "where it is"),
        "state": ("text", "complete, incomplete or permanent"),
    }, network.neighbours),
    "routes": Table("IPv4 routes in force", {
        "destination": ("text", "network with its prefix length"),
        "gateway": ("text", "address, null on the link itself"),
        "interface": ("text", "where it leads"),
        "metric": ("number", "lower goes first"),
    }, network.routes),
    "wireless": Table("wireless interfaces that the kernel reports on", {
        "name": ("text", "of the interface"),
        "link": ("number", "quality of the link"),
        "level": ("dBm", "signal"),
        "noise": ("dBm", "noise"),
        "retries": (_COUNT, "packets given up after retries"),
        "missed": (_COUNT, "beacons missed"),
    }, network.wireless),
    "sensors": Table("thermal zones and monitoring chips", {
        "name": ("text", "of the sensor"),
        "value": ("number", "in its unit"),
        "unit": ("text", "celsius, rpm or volt"),
    }, sensors.table),
}
