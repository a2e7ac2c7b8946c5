#!/usr/bin/python3
"""Unpacks Debian's Prometheus and node exporter below a directory, for their programs.

Usage: fetch_tools.py DIRECTORY. They are not installed: their packages would start services on this machine, and start
them again with every boot. Does nothing when the programs are there already.
"""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

PROGRAMS = ("promtool", "prometheus-node-exporter")


def packages():
    """promtool has a package of its own since Debian 13."""
    known = subprocess.run(["apt-cache", "pkgnames", "promtool"], capture_output=True, text=True, check=False).stdout
    return ["promtool" if known else "prometheus", "prometheus-node-exporter"]


def download(directory):
    command = ["apt-get", "-q", "download", *packages()]
    result = subprocess.run(command, cwd=directory, capture_output=True, text=True, check=False)
    if result.returncode != 0 and os.geteuid() == 0:
        # The lists may be older than what the archive still holds, or not there at all.
        subprocess.run(["apt-get", "-q", "-o", "DPkg::Lock::Timeout=300", "update"], capture_output=True, check=False)
        command[3:] = packages()
        result = subprocess.run(command, cwd=directory, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        sys.exit(f"{' '.join(command)} failed:\n{result.stdout}{result.stderr}")


def missing(directory):
    return [program for program in PROGRAMS if not (directory / "usr/bin" / program).exists()]


def main(target):
    if not missing(target):
        return
    target.parent.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=target.parent, prefix="metrics-tools-") as scratch:
        # apt hands the download to a user of its own.
        os.chmod(scratch, 0o777)
        download(scratch)
        unpacked = pathlib.Path(scratch) / "unpacked"
        for archive in pathlib.Path(scratch).glob("*.deb"):
            subprocess.run(["dpkg-deb", "-x", archive, unpacked], check=True)
        if missing(unpacked):
            sys.exit(f"{' '.join(packages())}: no {' and no '.join(missing(unpacked))} in these packages")
        shutil.rmtree(target, ignore_errors=True)
        unpacked.rename(target)


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]).resolve())
