"""The guest's initial file system: busybox, kmod, the kernel modules that the lab needs, our programs and scripts."""

import os
import re
import shutil
import subprocess
import uuid
from pathlib import Path

from . import programs
from .problem import Problem

# What a guest can load. Their dependencies come along.
MODULES = (
    "sg", "sd_mod", "sr_mod", "st", "ses", "ch",
    "scsi_debug", "virtio_pci", "virtio_scsi", "virtio_console", "ahci", "ata_piix", "nvme",
)

# Of the package, what is not configuration, documentation or for another shell.
SYSTEMD_FILES = ("/bin/", "/sbin/", "/lib/systemd/", "/usr/bin/", "/usr/lib/systemd/", "/usr/lib/tmpfiles.d/")

GUEST_FILES = Path(__file__).resolve().parent.parent / "guest"


class Image:
    """Gathers the files below `root`; write() makes the archive that the kernel unpacks."""

    def __init__(self, root):
        self.root = Path(root)
        for directory in ("bin", "sbin", "usr/bin", "usr/sbin", "usr/lib", "lib64", "etc", "dev", "proc", "sys",
                          "tmp", "root", "lab/steps"):
            (self.root / directory).mkdir(parents=True, exist_ok=True)
        busybox = programs.find("busybox")
        if busybox is None or _interpreter(busybox) is not None:
            raise Problem("a static busybox is needed: install busybox-static")
        shutil.copy2(busybox, self.root / "bin" / "busybox")
        os.symlink("busybox", self.root / "bin" / "sh")
        for name in ("init", "functions", "run-steps"):
            self.add_file(GUEST_FILES / name, f"lab/{name}")
        os.symlink("lab/init", self.root / "init")
        self.add_text("etc/passwd", "root:x:0:0:root:/root:/bin/sh\nguest:x:1000:1000:guest:/tmp:/bin/sh\n")
        self.add_text("etc/group", "root:x:0:\nguest:x:1000:\n")
        # The kernel asks for its modules through /sbin/modprobe, as the library does through the shell.
        self.add_program(programs.need("kmod"), "sbin/modprobe")

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
        interpreter = _interpreter(source)
        if interpreter is None:
            return
        self.add_file(interpreter, interpreter.lstrip("/"))
        for name, path in _libraries(source):
            self.add_file(path, f"usr/lib/{name}")

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
        target = Path("lib/modules") / kernel.release
        for module in (*MODULES, *extra):
            if module in without:
                continue
            if module not in dependencies:
                raise Problem(f"{kernel.package} has no module {module}")
            for path in dependencies[module]:
                if _module_name(path) not in without:
                    self.add_file(kernel.modules / path, target / path)
        for name in ("modules.builtin", "modules.builtin.modinfo", "modules.order"):
            self.add_file(kernel.modules / name, target / name)
        programs.run("depmod", "-b", str(self.root), kernel.release)

    def write(self, archive):
        names = sorted(str(path.relative_to(self.root)) for path in self.root.rglob("*"))
        with open(archive, "wb") as output:
            done = subprocess.run([programs.need("cpio"), "--quiet", "-o", "-H", "newc", "-R", "0:0"], cwd=self.root,
                                  input="\n".join(names).encode(), stdout=output, stderr=subprocess.PIPE, check=False)
        if done.returncode != 0:
            raise Problem(f"cpio failed:\n{done.stderr.decode(errors='replace')}")


def _module_name(path):
    return Path(path).name.partition(".")[0].replace("-", "_")


def _interpreter(program):
    """The path of the dynamic loader that a program names, or None for a static program or a script."""
    with open(program, "rb") as stream:
        if stream.read(4) != b"\x7fELF":
            return None
    listed = subprocess.run([programs.need("ldd"), str(program)], capture_output=True, text=True, check=False)
    if listed.returncode != 0:
        return None
    found = re.search(r"(/\S*/ld-linux\S*)", listed.stdout)
    return found.group(1) if found else None


def _libraries(program):
    listed = subprocess.run([programs.need("ldd"), str(program)], capture_output=True, text=True, check=False)
    for line in listed.stdout.splitlines():
        if "not found" in line:
            raise Problem(f"{program}: {line.strip()}")
        found = re.match(r"\s*(\S+) => (/\S+)", line)
        if found:
            yield found.group(1), found.group(2)
