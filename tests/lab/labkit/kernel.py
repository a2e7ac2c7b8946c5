"""Debian's kernel, unpacked into a cache directory and never installed on this host.

The cache is ${XDG_CACHE_HOME:-~/.cache}/zendra-lab/PACKAGE_VERSION/ with boot/vmlinuz-* and lib/modules/*. An entry
is prepared under another name and renamed into place, so whoever finds it finds it whole.
"""

import fcntl
import os
import re
import shutil
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

from .problem import Problem

METAPACKAGE = "linux-image-amd64"

# No topology has use for these; together they are most of the 400 MB.
LEFT_OUT = ("drivers/net", "drivers/gpu", "drivers/media", "drivers/infiniband", "drivers/staging", "sound")


@dataclass(frozen=True)
class Kernel:
    package: str
    release: str  # what uname -r says in the guest
    image: Path
    root: Path  # holds lib/modules/RELEASE

    @property
    def modules(self):
        return self.root / "lib" / "modules" / self.release


def cache_directory():
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return Path(base) / "zendra-lab"


def cached():
    """The kernel of the newest complete cache entry, or None."""
    cache = cache_directory()
    entries = [entry for entry in cache.glob("linux-image-*") if (entry / "complete").exists()]
    if not entries:
        return None
    newest = max(entries, key=lambda entry: (entry / "complete").stat().st_mtime)
    return _load(newest)


def get():
    """The cached kernel; downloads one first where there is none."""
    return cached() or prepare()


def prepare():
    """Makes sure that the kernel that apt offers now is in the cache, and returns it."""
    cache = cache_directory()
    cache.mkdir(parents=True, exist_ok=True)
    with open(cache / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        for abandoned in cache.glob("preparing-*"):
            shutil.rmtree(abandoned, ignore_errors=True)
        package, version = _candidate()
        entry = cache / f"{package}_{version.replace(':', '%3a')}"
        if not (entry / "complete").exists():
            _unpack(package, version, cache, entry)
        return _load(entry)


def _candidate():
    package = _real_package()
    if package is None:
        _update_lists()
        package = _real_package()
    if package is None:
        raise Problem(f"apt knows no {METAPACKAGE}: are Debian's package lists configured?")
    shown = _run("apt-cache", "show", "--no-all-versions", package)
    version = re.search(r"^Version: (\S+)$", shown, re.MULTILINE)
    if version is None:
        raise Problem(f"apt-cache shows no version of {package}")
    return package, version.group(1)


def _real_package():
    # The metapackage is empty; it depends on the package that holds the kernel.
    known = subprocess.run(["apt-cache", "depends", "--important", METAPACKAGE], capture_output=True, text=True,
                           check=False)
    found = re.search(r"^\s*Depends: (linux-image-\d\S*)$", known.stdout, re.MULTILINE)
    return found.group(1) if found else None


def _update_lists():
    if os.geteuid() != 0:
        return
    subprocess.run(["apt-get", "-q", "-o", "DPkg::Lock::Timeout=300", "update"], stdout=subprocess.DEVNULL, check=False)


def _unpack(package, version, cache, entry):
    with tempfile.TemporaryDirectory(dir=cache, prefix="preparing-") as scratch:
        scratch = Path(scratch)
        # apt hands the download to its own user, who must be able to write here.
        download = scratch / "download"
        download.mkdir()
        os.chmod(scratch, 0o755)
        os.chmod(download, 0o777)
        for attempt in (1, 2):
            got = subprocess.run(["apt-get", "-q", "download", f"{package}={version}"], cwd=download,
                                 capture_output=True, text=True, check=False)
            archives = list(download.glob("*.deb"))
            if got.returncode == 0 and len(archives) == 1:
                break
            if attempt == 2:
                raise Problem(f"apt-get download {package}={version} failed:\n{got.stdout}{got.stderr}")
            # The lists may be older than what the mirror still holds.
            _update_lists()
            package, version = _candidate()
        unpacked = scratch / "unpacked"
        unpacked.mkdir()
        _run("dpkg-deb", "-x", str(archives[0]), str(unpacked))
        releases = [path.name for path in (unpacked / "lib" / "modules").iterdir()]
        if len(releases) != 1:
            raise Problem(f"{package} holds modules of {releases}, not of one kernel")
        modules = unpacked / "lib" / "modules" / releases[0]
        for part in LEFT_OUT:
            shutil.rmtree(modules / "kernel" / part, ignore_errors=True)
        shutil.rmtree(unpacked / "usr", ignore_errors=True)
        _run("depmod", "-b", str(unpacked), releases[0])
        (unpacked / "package").write_text(f"{package} {version}\n", encoding="ascii")
        (unpacked / "complete").touch()
        if entry.exists():
            shutil.rmtree(entry)  # an entry without its "complete" is nobody's
        os.rename(unpacked, entry)


def _load(entry):
    images = list((entry / "boot").glob("vmlinuz-*"))
    if len(images) != 1:
        raise Problem(f"{entry} holds {len(images)} kernel images; remove it and run 'lab prepare'")
    package = (entry / "package").read_text(encoding="ascii").strip()
    return Kernel(package=package, release=images[0].name[len("vmlinuz-"):], image=images[0], root=entry)


def _run(*command):
    try:
        done = subprocess.run(command, capture_output=True, text=True, check=False)
    except FileNotFoundError as missing:
        raise Problem(f"{command[0]} is not installed") from missing
    if done.returncode != 0:
        raise Problem(f"{' '.join(command)} failed:\n{done.stdout}{done.stderr}")
    return done.stdout
