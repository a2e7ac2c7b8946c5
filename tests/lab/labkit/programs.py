"""Programs of this host: where they are, and running one whose failure is the lab's."""

import os
import shutil
import subprocess

from .problem import Problem

# Debian's ordinary users have none of these in their PATH; depmod stands in one of them.
SYSTEM_DIRECTORIES = ("/usr/local/sbin", "/usr/sbin", "/sbin")


def find(name):
    """The path of a program, or None."""
    return shutil.which(name, path=os.pathsep.join((os.environ.get("PATH", os.defpath), *SYSTEM_DIRECTORIES)))


def need(name):
    """The path of a program that the lab cannot do without."""
    found = find(name)
    if found is None:
        raise Problem(f"{name} is not installed: run scripts/install-packages run")
    return found


def run(name, *arguments):
    """What the program wrote to standard output."""
    done = subprocess.run([need(name), *arguments], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Problem(f"{' '.join((name, *arguments))} failed:\n{done.stdout}{done.stderr}")
    return done.stdout
