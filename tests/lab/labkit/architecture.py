"""What differs between the machines that a guest can be: qemu's program, its board, the console, the bus of devices."""

import functools
from dataclasses import dataclass

from . import programs
from .problem import Problem


@dataclass(frozen=True)
class Architecture:
    name: str  # as Debian says it
    qemu: str
    machine: tuple  # the board, and nothing on it that is not named: no disk, no optical drive, no network card
    console: str
    bus: str  # what qemu's names of virtio devices end in
    address: str  # of the device that brings results back, out of the way of a topology's own
    libraries: str  # Debian's directory for them in /lib and /usr/lib
    modules: tuple = ()  # drivers that only this board has use for
    parameters: str = ""  # for the kernel

    @property
    def is_native(self):
        return self.name == native()


BARE = ("-nodefaults", "-no-user-config", "-display", "none", "-no-reboot")

KNOWN = {known.name: known for known in (
    # The PC with its PIIX bus.
    Architecture("amd64", "qemu-system-x86_64", ("-machine", "pc", *BARE), "ttyS0", "pci", ",addr=1f.0",
                 "x86_64-linux-gnu", ("scsi_debug", "virtio_pci", "ahci", "ata_piix"),
                 # On a busy host the kernel's test of the timer ends in a panic.
                 "no_timer_check"),
    Architecture("arm64", "qemu-system-aarch64", ("-machine", "virt", "-cpu", "cortex-a57", *BARE), "ttyAMA0", "pci",
                 ",addr=1f.0", "aarch64-linux-gnu", ("virtio_pci", "ahci")),
    # The kernel's driver of the channel bus is built in.
    Architecture("s390x", "qemu-system-s390x", ("-machine", "s390-ccw-virtio", *BARE), "ttysclp0", "ccw", "",
                 "s390x-linux-gnu"),
)}


@functools.lru_cache
def native():
    """The architecture of this host."""
    return programs.run("dpkg", "--print-architecture").strip()


def find(name=None):
    """The architecture of that name, or this host's."""
    name = name or native()
    if name not in KNOWN:
        raise Problem(f"the lab knows no machine of architecture '{name}'; it knows {', '.join(sorted(KNOWN))}")
    return KNOWN[name]
