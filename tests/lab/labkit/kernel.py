"""Debian's kernel, unpacked into a cache directory and never installed on this host.

The cache is ${XDG_CACHE_HOME:-~/.cache}/zendra-lab/PACKAGE_VERSION/ with boot/vmlinuz-* and lib/modules/*. An entry
is prepared under another name and renamed into place, so whoever finds it finds it whole. What was downloaded stays
until then, for the next try. A kernel of another architecture comes with programs for its guest: guest-ARCH/ holds
shells, busybox, kmod and the libraries that our own programs take.
"""

import contextlib
import fcntl
import os
import re
import shutil
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

from . import architecture, programs
from .problem import Problem

# What a guest of another architecture takes besides our programs, with all that it depends on.
GUEST_PACKAGES = ("bash", "busybox-static", "dash", "kmod", "libstdc++6", "libsmartcols1", "libudev1")

# Knows the mirror of this host.
DEBIAN_ROOT = Path(__file__).resolve().parents[3] / "scripts" / "debian-root"

# No topology has use for these; together they are most of the 400 MB.
LEFT_OUT = ("drivers/net", "drivers/gpu", "drivers/media", "drivers/infiniband", "drivers/staging", "sound")


@dataclass(frozen=True)
class Kernel:
    package: str
    release: str  # what uname -r says in the guest
    image: Path
    root: Path  # holds lib/modules/RELEASE
    machine: architecture.Architecture

    @property
    def modules(self):
        return self.root / "lib" / "modules" / self.release


def cache_directory():
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return Path(base) / "zendra-lab"


def cached(machine=None):
    """The kernel of the newest complete cache entry, or None."""
    machine = machine or architecture.find()
    entries = [entry for entry in cache_directory().glob(f"linux-image-*-{machine.name}_*")
               if (entry / "complete").exists()]
    if not entries or not (machine.is_native or _has_guest(machine)):
        return None
    newest = max(entries, key=lambda entry: (entry / "complete").stat().st_mtime)
    return _load(newest, machine)


def get(machine=None):
    """The cached kernel; downloads one first where there is none."""
    return cached(machine) or prepare(machine)


def guest_root(machine):
    """The directory that holds programs and libraries for a guest: this host's own root, or that of its kind."""
    return Path("/") if machine.is_native else cache_directory() / f"guest-{machine.name}"


def _has_guest(machine):
    complete = guest_root(machine) / "complete"
    return complete.exists() and complete.read_text(encoding="ascii").split() == list(GUEST_PACKAGES)


def prepare(machine=None):
    """Makes sure that the kernel that apt offers now is in the cache, and returns it."""
    machine = machine or architecture.find()
    # Before the download, which takes a while.
    for program in ("apt-cache", "apt-get", "dpkg-deb", "depmod"):
        programs.need(program)
    cache = cache_directory()
    cache.mkdir(parents=True, exist_ok=True)
    with open(cache / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        for abandoned in cache.glob("preparing-*"):
            shutil.rmtree(abandoned, ignore_errors=True)
        with _apt_options(machine) as apt:
            if not machine.is_native:
                _prepare_guest(machine, apt)
            package, version = _candidate(machine, apt)
            if not (_entry(package, version) / "complete").exists():
                archive = _archive(package, version)
                if not archive.exists():
                    package, version = _download(machine, apt, package, version)
                    archive = _archive(package, version)
                _unpack(package, version, archive)
                for done in cache.glob("*.deb"):
                    done.unlink()
            return _load(_entry(package, version), machine)


@contextlib.contextmanager
def _apt_options(machine):
    """What makes apt know the packages of a machine: nothing, or lists and an empty system of their own."""
    if machine.is_native:
        yield []
        return
    with tempfile.TemporaryDirectory(dir=cache_directory(), prefix="preparing-") as scratch:
        scratch = Path(scratch)
        for directory in ("lists/partial", "empty"):
            (scratch / directory).mkdir(parents=True)
        (scratch / "status").touch()
        sources = programs.run(str(DEBIAN_ROOT), "--arch", machine.name, "--print-sources")
        (scratch / "sources.list").write_text(sources, encoding="ascii")
        settings = {
            "APT::Architecture": machine.name, "APT::Architectures": machine.name, "Dir::State": scratch,
            "Dir::State::status": scratch / "status", "Dir::State::lists": scratch / "lists",
            "Dir::Cache": scratch / "cache", "Dir::Etc::sourcelist": scratch / "sources.list",
            "Dir::Etc::sourceparts": scratch / "empty", "Dir::Etc::preferencesparts": scratch / "empty",
            "APT::Sandbox::User": "root", "Acquire::Languages": "none",
        }
        options = [word for name, value in settings.items() for word in ("-o", f"{name}={value}")]
        programs.run("apt-get", *options, "-q", "update")
        yield options


def _prepare_guest(machine, apt):
    if _has_guest(machine):
        return
    with tempfile.TemporaryDirectory(dir=cache_directory(), prefix="preparing-") as scratch:
        unpacked = Path(scratch) / "unpacked"
        unpacked.mkdir()
        archives = Path(scratch) / "archives"
        (archives / "partial").mkdir(parents=True)
        programs.run("apt-get", *apt, "-o", f"Dir::Cache::archives={archives}", "-q", "-y",
                     "--no-install-recommends", "--download-only", "install", *GUEST_PACKAGES)
        for archive in archives.glob("*.deb"):
            programs.run("dpkg-deb", "-x", str(archive), str(unpacked))
        (unpacked / "complete").write_text(" ".join(GUEST_PACKAGES), encoding="ascii")
        if guest_root(machine).exists():
            shutil.rmtree(guest_root(machine))
        os.rename(unpacked, guest_root(machine))


def _entry(package, version):
    return cache_directory() / f"{package}_{version.replace(':', '%3a')}"


def _archive(package, version):
    return _entry(package, version + ".deb")


def _candidate(machine, apt):
    package = _real_package(machine, apt)
    if package is None:
        _update_lists(apt)
        package = _real_package(machine, apt)
    if package is None:
        raise Problem(f"apt knows no linux-image-{machine.name}: are Debian's package lists configured?")
    shown = programs.run("apt-cache", *apt, "show", "--no-all-versions", package)
    version = re.search(r"^Version: (\S+)$", shown, re.MULTILINE)
    if version is None:
        raise Problem(f"apt-cache shows no version of {package}")
    return package, version.group(1)


def _real_package(machine, apt):
    # The metapackage is empty; it depends on the package that holds the kernel.
    known = subprocess.run([programs.need("apt-cache"), *apt, "depends", "--important", f"linux-image-{machine.name}"],
                           capture_output=True, text=True, check=False)
    found = re.search(r"^\s*Depends: (linux-image-\d\S*)$", known.stdout, re.MULTILINE)
    return found.group(1) if found else None


def _update_lists(apt):
    if os.geteuid() != 0 and not apt:
        return
    subprocess.run([programs.need("apt-get"), *apt, "-q", "-o", "DPkg::Lock::Timeout=300", "update"],
                   stdout=subprocess.DEVNULL, check=False)


def _download(machine, apt, package, version):
    """Puts the package into the cache; returns its name and version, which may have changed meanwhile."""
    with tempfile.TemporaryDirectory(dir=cache_directory(), prefix="preparing-") as scratch:
        # apt hands the download to its own user, who must be able to write here.
        download = Path(scratch) / "download"
        download.mkdir()
        os.chmod(scratch, 0o755)
        os.chmod(download, 0o777)
        for attempt in (1, 2):
            got = subprocess.run([programs.need("apt-get"), *apt, "-q", "download", f"{package}={version}"],
                                 cwd=download, capture_output=True, text=True, check=False)
            archives = list(download.glob("*.deb"))
            if got.returncode == 0 and len(archives) == 1:
                os.rename(archives[0], _archive(package, version))
                return package, version
            if attempt == 1:
                # The lists may be older than what the mirror still holds.
                _update_lists(apt)
                package, version = _candidate(machine, apt)
    raise Problem(f"apt-get download {package}={version} failed:\n{got.stdout}{got.stderr}")


def _unpack(package, version, archive):
    with tempfile.TemporaryDirectory(dir=cache_directory(), prefix="preparing-") as scratch:
        unpacked = Path(scratch) / "unpacked"
        unpacked.mkdir()
        programs.run("dpkg-deb", "-x", str(archive), str(unpacked))
        # From Debian 13 on, packages have all of /lib below /usr.
        if not (unpacked / "lib").exists():
            os.rename(unpacked / "usr" / "lib", unpacked / "lib")
        releases = [path.name for path in (unpacked / "lib" / "modules").iterdir()]
        if len(releases) != 1:
            raise Problem(f"{package} holds modules of {releases}, not of one kernel")
        modules = unpacked / "lib" / "modules" / releases[0]
        for part in LEFT_OUT:
            shutil.rmtree(modules / "kernel" / part, ignore_errors=True)
        shutil.rmtree(unpacked / "usr", ignore_errors=True)
        programs.run("depmod", "-b", str(unpacked), releases[0])
        (unpacked / "package").write_text(f"{package} {version}\n", encoding="ascii")
        (unpacked / "complete").touch()
        entry = _entry(package, version)
        if entry.exists():
            shutil.rmtree(entry)  # an entry without its "complete" is nobody's
        os.rename(unpacked, entry)


def _load(entry, machine):
    images = list((entry / "boot").glob("vmlinuz-*"))
    if len(images) != 1:
        raise Problem(f"{entry} holds {len(images)} kernel images; remove it and run 'lab prepare'")
    package = (entry / "package").read_text(encoding="ascii").strip()
    return Kernel(package=package, release=images[0].name[len("vmlinuz-"):], image=images[0], root=entry,
                  machine=machine)
