"""Boots a guest in qemu and brings back what its steps wrote."""

import os
import re
import shlex
import shutil
import subprocess
import tarfile
import tempfile
from dataclasses import dataclass
from pathlib import Path

from . import kernel as kernels
from . import programs
from .image import Image
from .problem import Problem

CONSOLE_TAIL = 80


@dataclass
class StepResult:
    status: int
    stdout: bytes
    stderr: bytes


class GuestFailure(Exception):
    """The guest did not come to its end. The text holds the reason, qemu's messages and the console's last lines."""


def boot(topology, build, steps, *, time_limit=None):
    """Runs the steps (name -> shell text) in a guest of the topology, in order; returns name -> StepResult."""
    with tempfile.TemporaryDirectory(prefix="zendra-lab-") as scratch:
        scratch = Path(scratch)
        image = _image(topology, build, scratch)
        image.add_text("lab/environment", _environment(topology, "run"))
        image.add_text("lab/steps/000-setup", f"set -e\n. /lab/functions\n{topology.setup}\n")
        files = {}
        for number, (name, text) in enumerate(steps.items(), start=1):
            files[name] = f"{number:03d}-{name}"
            image.add_text(f"lab/steps/{files[name]}", f". /lab/functions\n{text}\n")
        image.write(scratch / "initrd")

        console, results = scratch / "console", scratch / "results"
        command = _command(topology, scratch / "initrd", "loglevel=5") + [
            "-chardev", f"file,id=console,path={console}", "-serial", "chardev:console",
            "-device", f"virtio-serial-{topology.machine().bus},id=lab{topology.machine().address}",
            "-chardev", f"file,id=results,path={results}",
            "-device", "virtserialport,bus=lab.0,nr=1,chardev=results,name=lab.results",
        ]
        limit = time_limit or topology.time_limit
        reason = None
        with open(scratch / "qemu", "wb") as messages:
            with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=messages, stderr=messages) as qemu:
                try:
                    if qemu.wait(timeout=limit) != 0:
                        reason = f"qemu ended with status {qemu.returncode}"
                except subprocess.TimeoutExpired:
                    reason = f"the guest was still running after {limit} seconds and was ended"
                finally:
                    qemu.kill()
        received = _received(results)
        if reason is None and "end" not in received:
            reason = "the guest went down before its last step"
        if reason is not None:
            wanted = ["000-setup", *files.values(), "end"]
            raise GuestFailure(_report(reason, command, wanted, received, console, scratch / "qemu"))
        return {name: received[file] for name, file in files.items()}


def shell(topology, build):
    """Boots the topology with this terminal as its console; returns when the guest is down."""
    with tempfile.TemporaryDirectory(prefix="zendra-lab-") as scratch:
        scratch = Path(scratch)
        image = _image(topology, build, scratch)
        image.add_prompt()
        size = shutil.get_terminal_size()
        image.add_text("lab/environment",
                       _environment(topology, "shell") + f"labColumns={size.columns} labRows={size.lines}\n")
        image.add_text("lab/setup", topology.setup)
        image.write(scratch / "initrd")
        command = _command(topology, scratch / "initrd", "quiet loglevel=3") + ["-serial", "mon:stdio"]
        return subprocess.run(command, check=False).returncode


def _image(topology, build, scratch):
    # First of all: with the kernel of another architecture come the programs that the image begins with.
    kernel = kernels.get(topology.machine())
    image = Image(scratch / "root", topology.machine())
    image.add_modules(kernel, extra=topology.modules, without=topology.without_modules)
    for program in build.programs:
        image.add_program(program)
    for name in topology.programs:
        found = programs.find(name)
        if found is not None and not topology.machine().is_native:
            raise Problem(f"topology {topology.name} takes {name} of this host, which does not run on "
                          f"{topology.machine().name}")
        if found is None:
            raise Problem(f"topology {topology.name} needs the program {name} on this host")
        image.add_program(found)
    if topology.systemd:
        image.add_systemd()
        image.add_tree(build.install(scratch / "installed"))
    for name in topology.built_programs:
        built = build.programs[0].parents[3] / "tests" / "lab" / "programs" / name
        if not built.is_file():
            raise Problem(f"{built} is not there: build the tests, or name a build that has them with --build")
        image.add_program(built)
    for source, guest_path in topology.additions:
        image.add_program(source, guest_path)
    return image


def _environment(topology, mode):
    values = {"labMode": mode, "labTopology": topology.name, "labHost": f"lab-{topology.name}",
              "labSystemd": "yes" if topology.systemd else "no"}
    return "".join(f"{name}={shlex.quote(value)}\n" for name, value in values.items())


def _command(topology, initrd, parameters):
    machine, kernel = topology.machine(), kernels.get(topology.machine())
    qemu = programs.need(machine.qemu)
    guard = programs.find("setpriv")
    # Whatever ends us, the test runner's time limit included, ends the guest too.
    prefix = [guard, "--pdeathsig", "KILL"] if guard else []
    return [*prefix, qemu, *machine.machine, *accelerator(machine), "-m", str(topology.memory),
            "-kernel", str(kernel.image), "-initrd", str(initrd),
            "-append", " ".join((f"console={machine.console}", parameters, "panic=-1", machine.parameters,
                                 topology.kernel_parameters)),
            *topology.qemu_arguments()]


def accelerator(machine):
    """KVM where it really runs a guest, software emulation everywhere else. ZENDRA_LAB_ACCEL=tcg|kvm overrides."""
    choice = os.environ.get("ZENDRA_LAB_ACCEL", "")
    if choice not in ("", "tcg", "kvm"):
        raise Problem("ZENDRA_LAB_ACCEL is tcg or kvm")
    if choice == "kvm" or (choice == "" and machine.is_native and _kvm_works(machine)):
        return ["-accel", "kvm"]
    return ["-accel", "tcg"]


def _kvm_works(machine):
    if not os.access("/dev/kvm", os.R_OK | os.W_OK):
        return False
    if not re.search(r"\b(vmx|svm)\b", Path("/proc/cpuinfo").read_text(encoding="ascii", errors="replace")):
        return False
    # Some hosts show /dev/kvm, create a machine and then never run it. So ask for a real boot: without a root file
    # system Debian's kernel panics within a second or two, and a panic ends qemu. Asked once per boot of this host.
    boot_id = Path("/proc/sys/kernel/random/boot_id").read_text(encoding="ascii").strip()
    kernel = kernels.get(machine)
    remembered = kernels.cache_directory() / f"kvm-{boot_id}"
    try:
        return remembered.read_text(encoding="ascii") == "works"
    except FileNotFoundError:
        pass
    command = [programs.need(machine.qemu), *machine.machine, "-accel", "kvm", "-m", "256",
               "-kernel", str(kernel.image), "-append", "panic=-1"]
    try:
        works = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               timeout=15, check=False).returncode == 0
    except subprocess.TimeoutExpired:
        works = False
    for old in kernels.cache_directory().glob("kvm-*"):
        old.unlink(missing_ok=True)
    remembered.write_text("works" if works else "does not work", encoding="ascii")
    return works


def _received(path):
    """The steps that arrived whole."""
    steps = {}
    if not path.exists():
        return steps
    parts = {}
    try:
        with tarfile.open(path, "r:", ignore_zeros=True) as archive:
            for member in archive:
                step, _, part = member.name.partition("/")
                parts.setdefault(step, {})[part] = archive.extractfile(member).read()
    except tarfile.TarError:
        pass  # the guest ended in the middle of a step; those before it count
    for step, part in parts.items():
        if part.keys() == {"stdout", "stderr", "status"} and part["status"].endswith(b"\n"):
            steps[step] = StepResult(int(part["status"]), part["stdout"], part["stderr"])
    return steps


def _report(reason, command, steps, received, console, messages):
    arrived = [step for step in steps if step in received]
    missing = [step for step in steps if step not in received]
    lines = [reason,
             f"steps that came back: {', '.join(arrived) or 'none'}; missing: {', '.join(missing)}",
             "", "--- qemu was run as ---", shlex.join(command),
             "--- qemu said ---", messages.read_text(errors="replace").rstrip(),
             f"--- the guest's console (last {CONSOLE_TAIL} lines) ---"]
    if console.exists():
        lines += console.read_text(errors="replace").splitlines()[-CONSOLE_TAIL:]
    lines.append("--- end of the console ---")
    return "\n".join(lines)
