"""Finds what we built: the programs that go into the guest."""

from dataclasses import dataclass
from pathlib import Path

from .problem import Problem

ROOT = Path(__file__).resolve().parents[3]
PROGRAM = "zddevices"


@dataclass(frozen=True)
class Build:
    programs: tuple  # their shared libraries come along


def find(directory=None):
    """The build in `directory` (a build tree or an installation), or the best one below the repository."""
    if directory is not None:
        program = _program(Path(directory))
        if program is None:
            raise Problem(f"{directory} holds no {PROGRAM}")
        return Build((program,))
    release = _program(ROOT / "build" / "release")
    if release is not None:
        return Build((release,))
    others = [_program(path) for path in (ROOT / "build", *ROOT.glob("build/*"), *ROOT.glob("build-*"))]
    found = [program for program in others if program is not None]
    if not found:
        raise Problem(f"no build of {PROGRAM} below {ROOT}: build one, or name it with --build")
    return Build((max(found, key=lambda program: program.stat().st_mtime),))


def _program(directory):
    for place in ("src/tools/zddevices", "sbin", "usr/sbin", "."):
        candidate = directory / place / PROGRAM
        if candidate.is_file():
            return candidate.resolve()
    return None
