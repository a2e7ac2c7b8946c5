#!/usr/bin/python3
"""Every text that the library's sources quote stands in a golden text, or is named here with the reason.

    log_texts_test.py SOURCES HOSTS
"""

import pathlib
import re
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import model  # noqa: E402

# What no simulated host can bring the library to say.
NEVER_SHOWN = {
    "SG_GET_SCSI_ID answers in 32 bytes": "checked while the library is built",
    "NVME_IOCTL_ADMIN_CMD takes 72 bytes": "checked while the library is built",
    "Optical Based Storage Device": "type 17, while four bits of the type are looked at",
    "DataProxy::DataProxy()  error due to catch an exception bad_alloc": "memory has run out (tests/faults)",
    "makeDataProxy error due to catch an exception bad_alloc": "memory has run out (tests/faults)",
    "Entry DataProxy::GetCDDVDOptList()": "every class of devices that the facade makes has its own",
}

COMMENT_OR_LITERAL = re.compile(r'//[^\n]*|/\*.*?\*/|^\s*#[^\n]*|"((?:[^"\\\n]|\\.)*)"', re.DOTALL | re.MULTILINE)


def texts_of(source: str) -> set:
    """The quoted texts; a word without a blank or a bracket is the name of something."""
    literals = [found[1] for found in COMMENT_OR_LITERAL.finditer(source) if found[1]]
    return {model.read_quoted('"%s"' % literal, 0)[0] for literal in literals if re.search("[ (]", literal)}


def quoted_words(lines: list) -> str:
    return "\n".join(word for line in lines for word in model.split_line(line)[0])


def main() -> int:
    sources, hosts = (pathlib.Path(argument) for argument in sys.argv[1:])
    texts = set()
    for path in sorted(sources.rglob("*.cpp")):
        texts |= texts_of(path.read_text(encoding="utf-8"))
    golden = [line for path in hosts.glob("*.golden") for line in path.read_text(encoding="latin-1").splitlines()]
    shown = quoted_words([line for line in golden if line.startswith(("log ", "system "))])
    # Of records it is enough that a person's line shows the text.
    for path in hosts.glob("*.host"):
        lines = path.read_text(encoding="latin-1").splitlines()
        seen = [line for line in lines if line.lstrip().startswith("see ")]
        shown += "\n" + "\n".join(value for line in seen for _, value in model.split_line(line)[1])
    missing = sorted(text for text in texts if text not in shown and text not in NEVER_SHOWN)
    for text in missing:
        print("no golden text shows " + model.quoted(text))
    idle = sorted(text for text in NEVER_SHOWN if text not in texts or text in shown)
    for text in idle:
        print("named here without need: " + model.quoted(text))
    print("%d texts, %d not shown" % (len(texts), len(missing)))
    return 1 if missing or idle or len(texts) < 60 else 0


if __name__ == "__main__":
    sys.exit(main())
