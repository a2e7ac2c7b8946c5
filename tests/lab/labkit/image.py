"""The guest's initial file system: dash, kmod, busybox, the kernel modules that the lab needs, our programs and scripts."""

import lzma
import os
import re
import shutil
import subprocess
import uuid
from pathlib import Path

from . import architecture, programs
from . import kernel as kernels
from .problem import Problem

# What a guest can load. Their dependencies come along.
MODULES = ("sg", "sd_mod", "sr_mod", "st", "ses", "ch", "virtio_scsi", "virtio_console", "nvme")

# Of the package, what is not configuration, documentation or for another shell.
SYSTEMD_FILES = ("/bin/", "/sbin/", "/lib/systemd/", "/usr/bin/", "/usr/sbin/", "/usr/lib/systemd/",
                 "/usr/lib/tmpfiles.d/")

GUEST_FILES = Path(__file__).resolve().parent.parent / "guest"


class Image:
    """Gathers the files below `root`; write() makes the archive that the kernel unpacks."""

    def __init__(self, root, machine=None):
        self.root = Path(root)
        self.machine = machine or architecture.find()
        self.host = kernels.guest_root(self.machine)
        for directory in ("usr", "etc", "dev", "proc", "sys", "tmp", "root", "lab/steps"):
            (self.root / directory).mkdir(parents=True, exist_ok=True)
        # As on every Debian host: a file has both names.
        for directory in ("bin", "sbin", "lib", "lib64"):
            (self.root / "usr" / directory).mkdir()
            (self.root / directory).symlink_to(f"usr/{directory}")
        busybox = self._program_of_guest("busybox")
        if _is_dynamic(busybox):
            raise Problem("a static busybox is needed: install busybox-static")
        shutil.copy2(busybox, self.root / "bin" / "busybox")
        # As on a user's host. The shell of busybox runs its own modprobe and lsscsi, whatever PATH finds.
        self.add_program(self._program_of_guest("dash"), "bin/sh")
        for name in ("init", "functions", "run-steps"):
            self.add_file(GUEST_FILES / name, f"lab/{name}")
        os.symlink("lab/init", self.root / "init")
        self.add_text("etc/passwd", "root:x:0:0:root:/root:/bin/sh\nguest:x:1000:1000:guest:/tmp:/bin/sh\n")
        self.add_text("etc/group", "root:x:0:\ndisk:x:6:\nguest:x:1000:\n")
        # The kernel asks for its modules through /sbin/modprobe, as the library does through the shell.
        self.add_program(self._program_of_guest("kmod"), "sbin/modprobe")

    def _program_of_guest(self, name):
        if self.machine.is_native:
            return programs.need(name)
        return next(path for path in (self.host / "bin" / name, self.host / "usr/bin" / name) if path.exists())

    def add_prompt(self):
        """Adds the shell that people type at."""
        self.add_program(self._program_of_guest("bash"), "bin/bash")

    def add_file(self, source, guest_path):
        target = self.root / guest_path
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(source, target)

    def add_text(self, guest_path, text, mode=0o644):
        target = self.root / guest_path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text(text, encoding="utf-8")
        target.chmod(mode)

    def add_program(self, source, guest_path=None):
        """Adds a program with every shared library that it loads, and the dynamic loader."""
        source = Path(source)
        if not source.is_file():
            raise Problem(f"{source} does not exist")
        self.add_file(source, guest_path or f"usr/bin/{source.name}")
        needed = _needed_here(source) if self.machine.is_native else _needed_elsewhere(source, self.machine)
        for path, guest_library in needed.items():
            self.add_file(path, guest_library)

    def add_tree(self, directory):
        """Adds what stands below a directory, with the shared libraries of its programs."""
        for path in Path(directory).rglob("*"):
            if path.is_symlink() or path.is_file():
                self._add_as_it_is(path, path.relative_to(directory))

    def add_systemd(self):
        """Adds systemd as its package on this host has it; it runs the steps in place of the lab's own first process."""
        listed = subprocess.run(["dpkg-query", "--listfiles", "systemd"], capture_output=True, text=True, check=False)
        files = [Path(line) for line in listed.stdout.splitlines() if line.startswith(SYSTEMD_FILES)]
        if not files:
            raise Problem("the package systemd is needed: install it")
        for path in files:
            if path.is_symlink() or path.is_file():
                self._add_as_it_is(path, path.relative_to("/"))
        self.add_file(GUEST_FILES / "lab.service", "etc/systemd/system/lab.service")
        self.add_text("etc/systemd/system/default.target", "[Unit]\nWants=lab.service\n")
        self.add_text("etc/machine-id", f"{uuid.uuid4().hex}\n")
        self.add_text("etc/os-release", "ID=lab\n")

    def _add_as_it_is(self, path, guest_path):
        if path.is_symlink():
            target = self.root / guest_path
            target.parent.mkdir(parents=True, exist_ok=True)
            os.symlink(os.readlink(path), target)
        else:
            self.add_program(path, str(guest_path))

    def add_modules(self, kernel, extra=(), without=()):
        """Adds the lab's modules; those of `without` are on no disk of the guest, as if the kernel had none."""
        dependencies = {}
        for line in (kernel.modules / "modules.dep").read_text(encoding="ascii").splitlines():
            path, _, needed = line.partition(":")
            dependencies[_module_name(path)] = [path, *needed.split()]
        builtin = {_module_name(path) for path in (kernel.modules / "modules.builtin").read_text("ascii").splitlines()}
        target = Path("lib/modules") / kernel.release
        for module in (*MODULES, *self.machine.modules, *extra):
            # Debian 13's kernel has virtio_console in itself.
            if module in without or module in builtin:
                continue
            if module not in dependencies:
                raise Problem(f"{kernel.package} has no module {module}")
            for path in dependencies[module]:
                if _module_name(path) not in without:
                    self._add_module(kernel.modules / path, target / path)
        for name in ("modules.builtin", "modules.builtin.modinfo", "modules.order"):
            self.add_file(kernel.modules / name, target / name)
        programs.run("depmod", "-b", str(self.root), kernel.release)

    def _add_module(self, source, guest_path):
        self.add_file(source, guest_path)
        # As Debian has them from release 13 on. The guest has no library that modprobe could unpack them with.
        if guest_path.suffix == ".xz":
            compressed = self.root / guest_path
            compressed.with_suffix("").write_bytes(lzma.decompress(compressed.read_bytes()))
            compressed.unlink()

    def write(self, archive):
        names = sorted(str(path.relative_to(self.root)) for path in self.root.rglob("*"))
        with open(archive, "wb") as output:
            done = subprocess.run([programs.need("cpio"), "--quiet", "-o", "-H", "newc", "-R", "0:0"], cwd=self.root,
                                  input="\n".join(names).encode(), stdout=output, stderr=subprocess.PIPE, check=False)
        if done.returncode != 0:
            raise Problem(f"cpio failed:\n{done.stderr.decode(errors='replace')}")


def _module_name(path):
    return Path(path).name.partition(".")[0].replace("-", "_")


def _is_elf(program):
    with open(program, "rb") as stream:
        return stream.read(4) == b"\x7fELF"


def _is_dynamic(program):
    return _is_elf(program) and _dynamic_section(program) != {}


def _dynamic_section(program):
    """Of a program of any architecture: tag -> values. Empty for a static one."""
    listed = programs.run("readelf", "--dynamic", "--program-headers", "--wide", str(program))
    section = {}
    for tag, value in re.findall(r"\((NEEDED|RUNPATH|RPATH)\).*\[(.*)\]", listed):
        section.setdefault(tag, []).append(value)
    for value in re.findall(r"Requesting program interpreter: (.*)\]", listed):
        section["loader"] = [value]
    return section


def _needed_here(program):
    """What a program of this host loads: path -> path in the guest."""
    if not _is_elf(program):
        return {}
    listed = subprocess.run([programs.need("ldd"), str(program)], capture_output=True, text=True, check=False)
    needed = {}
    for line in listed.stdout.splitlines() if listed.returncode == 0 else ():
        if "not found" in line:
            raise Problem(f"{program}: {line.strip()}")
        library = re.match(r"\s*(\S+) => (/\S+)", line)
        loader = re.search(r"(/\S*/ld-linux\S*)", line)
        if library:
            needed[library.group(2)] = f"usr/lib/{library.group(1)}"
        elif loader:
            needed[loader.group(1)] = loader.group(1).lstrip("/")
    return needed


def _needed_elsewhere(program, machine):
    """The same of a program that this host cannot run: looked for as its loader would do it."""
    root = kernels.guest_root(machine)
    defaults = [root / directory for directory in (f"lib/{machine.libraries}", f"usr/lib/{machine.libraries}",
                                                   "lib", "usr/lib")]
    needed, waiting = {}, [Path(program)]
    while waiting:
        file = waiting.pop()
        section = _dynamic_section(file) if _is_elf(file) else {}
        for loader in section.get("loader", ()):
            place = root / loader.lstrip("/")
            # On some architectures the well-known name is a link with a path from the root.
            needed[root / os.readlink(place).lstrip("/") if place.is_symlink() and os.readlink(place).startswith("/")
                   else place] = loader.lstrip("/")
        own = [Path(directory.replace("$ORIGIN", str(file.parent)))
               for paths in section.get("RUNPATH", section.get("RPATH", [])) for directory in paths.split(":")]
        for name in section.get("NEEDED", ()):
            if f"usr/lib/{name}" in needed.values():
                continue
            found = next((place / name for place in (*own, *defaults) if (place / name).is_file()), None)
            if found is None:
                raise Problem(f"{file} needs {name}, which is neither beside it nor in {root}")
            needed[found] = f"usr/lib/{name}"
            waiting.append(found)
    return needed
