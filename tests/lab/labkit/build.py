"""Finds what we built: the programs that go into the guest."""

import os
import subprocess
from dataclasses import dataclass
from pathlib import Path

from . import architecture
from .problem import Problem

ROOT = Path(__file__).resolve().parents[3]
PROGRAM = "zddevices"


@dataclass(frozen=True)
class Build:
    programs: tuple  # their shared libraries come along

    @property
    def tree(self):
        """The build tree that the program is in; None for an installation."""
        return next((path for path in self.programs[0].parents if (path / "CMakeCache.txt").exists()), None)

    def install(self, root):
        """Puts what a host gets below `root`, and returns that."""
        if self.tree is None:
            raise Problem(f"{self.programs[0]} is in no build tree, from which all could be installed")
        for component in ("tools", "collector", "logger"):
            done = subprocess.run(["cmake", "--install", self.tree, "--component", component], capture_output=True,
                                  text=True, check=False, env={**os.environ, "DESTDIR": str(root)})
            if done.returncode != 0:
                raise Problem(f"cmake --install failed:\n{done.stderr}")
        return root


def find(directory=None, arch=None):
    """The build in `directory` (a build tree or an installation), or the best one for `arch` below the repository."""
    if directory is None and arch is not None and arch != architecture.native():
        directory = ROOT / "build" / "cross" / arch
        if _program(directory) is None:
            raise Problem(f"{directory} holds no {PROGRAM}: run scripts/cross {arch}")
    if directory is not None:
        program = _program(Path(directory))
        if program is None:
            raise Problem(f"{directory} holds no {PROGRAM}")
        return Build((program,))
    places = (ROOT / "build", *ROOT.glob("build/*"), *ROOT.glob("build-*"))
    found = [program for program in map(_program, places) if program is not None]
    if not found:
        raise Problem(f"no build of {PROGRAM} below {ROOT}: build one, or name it with --build")
    return Build((max(found, key=lambda program: program.stat().st_mtime),))


def _program(directory):
    for place in ("src/tools/zddevices", "sbin", "usr/sbin", "."):
        candidate = directory / place / PROGRAM
        if candidate.is_file():
            return candidate.resolve()
    return None
