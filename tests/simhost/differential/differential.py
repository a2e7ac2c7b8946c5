#!/usr/bin/python3
"""Compares the library with the model of it on random hosts.

Every seed makes one host, always the same one, with as many odd names, hostile answers and failing requests as
fit. The harness program runs the real library on it; the model says what the library must say; every line has to
agree. The answers of a host are cut to exactly those that the model asks for, so a request too many or too few is a
difference as well.

    differential.py --harness BUILD/tests/simhost/simhostShow                      # the seeds that ctest runs
    differential.py --harness BUILD/tests/simhost/simhostShow --first 1000 --seeds 5000
    differential.py --hosts ../hosts              # what a person expects of the hosts in the tree against the model
    differential.py --print 17                    # the host of one seed
"""

import argparse
import concurrent.futures
import difflib
import os
import pathlib
import random
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
sys.dont_write_bytecode = True

import model  # noqa: E402  (found through the path above)

SKIPPED = 77  # what ctest takes for a skipped test

ERRNOS = ("EACCES", "EBUSY", "EINTR", "EINVAL", "EIO", "ENODEV", "ENOMEM", "ENOSYS", "ENOTTY", "ENXIO", "EPERM")

WORDS = (
    "ATA",
    "xATAx",
    "ata",
    "AT",
    "A TA",
    "NVMe",
    "Zendra",
    "Disk",
    "RAID",
    "MegaRaid5",
    "rAiD",
    "M.2",
    "m.2-SSD",
    "M2",
    "DVD-RW",
    "Drive",
    "0",
    "-",
    "1.02",
)

PRODUCTS = (
    "MegaRaid5",
    "a RAID b",
    "xm.2y",
    "SSD M.2",
    "M2 SSD",
    " DISK\t",
    "\r\nDISK\v\f",
    "\xa0DISK\x85",
    "DISK\xa0",
    " ",
    "  \t",
    "\t",
    "R AID",
)

ODD_BYTES = " \t\n\v\f\r\0\x01\x1b\x7f\x80\x85\xa0\xc3\xff\"\\|:%"


class Chance:
    """Random choices of one seed."""

    def __init__(self, seed: int):
        self.random = random.Random(seed)
        # On half of the hosts little fails, so that the long ways through the library are gone to their end.
        self.calm = self.one_in(2)

    def one_in(self, number: int) -> bool:
        return self.random.randrange(number) == 0

    def mishap(self, number: int) -> bool:
        return self.one_in(number * 8 if self.calm else number)

    def pick(self, choices):
        return self.random.choice(choices)

    def below(self, number: int) -> int:
        return self.random.randrange(number)

    def between(self, low: int, high: int) -> int:
        return self.random.randint(low, high)

    def data(self, length: int) -> bytes:
        return self.random.randbytes(length)

    def text(self, length: int) -> str:
        """At most `length` characters of what a device might call itself."""
        style = self.below(30 if self.calm else 13)
        if style == 0:
            text = ""
        elif style == 1:
            text = " " * self.between(1, max(length, 1))
        elif style == 2:
            text = "".join(self.pick(" \t") for _ in range(self.between(1, max(length, 1))))
        elif style == 3:
            text = "\0" * self.between(1, max(length, 1))
        elif style == 4:
            text = "".join(self.pick("AZaz09 .") for _ in range(length))
        elif style == 5:
            text = model.latin(self.data(self.between(0, length)))
        elif style in (6, 7):
            text = "".join(self.pick(WORDS + tuple(ODD_BYTES)) for _ in range(self.between(1, 6)))
        elif style == 8:
            text = self.pick(WORDS) + "\0" + self.pick(WORDS)
        else:
            text = self.pick((" ", "  ", "\t", "", "", "")) + self.pick(WORDS)
            text += self.pick(("", "", " ", "  ", "\t ", "-")) + self.pick(WORDS + ("", "", ""))
            text += self.pick(("", "", " ", "\n"))
        return text[:length]


def hex_value(data: bytes) -> str:
    return data.hex() or '""'


# --- one node's answers --------------------------------------------------------------------------------------


def sense_keys(chance: Chance, retry: bool) -> list:
    """What a command may bring back besides its data; `retry` asks for one of the three retry conditions."""
    sense = bytearray(chance.data(chance.pick((14, 18, 32, 32, chance.between(0, 32)))))
    if retry:
        sense = sense.ljust(14, b"\0")
        condition = chance.below(3)
        if condition == 0:
            sense[2] = chance.pick((0x06, 0x16, 0xE6, 0xF6))
        else:
            sense[2] = chance.pick((0x02, 0x00, 0x07, 0x46 ^ 0x01))
            sense[12:14] = (b"\x04\x01", b"\x28\x00")[condition - 1]
    elif len(sense) >= 14 and not chance.one_in(4):
        # near misses, and sense bytes with few digits
        sense[2] = chance.pick((0x00, 0x02, 0x05, 0x07, 0x60, 0x0E))
        sense[12:14] = chance.pick((b"\x04\x02", b"\x04\x00", b"\x28\x01", b"\x01\x04", b"\x00\x28", b"\x3a\x00"))
    keys = [("sense", hex_value(bytes(sense)))]
    if chance.one_in(3):
        keys = []
    if chance.one_in(3):
        keys.append(("sb_len", str(chance.between(0, 32))))
    checked = retry or not chance.one_in(3)
    keys.append(("info", str(chance.pick((1, 1, 3, 0x7FFFFFFF) if checked else (0, 2, 4)))))
    for key, choices in (
        ("status", (0, 2, 8, 10, 0x22, 0x5C, 0xFF, chance.below(256))),
        ("masked_status", (0, 1, chance.below(256))),
        ("host_status", (0, 0, 1, 10, 16, chance.below(65536))),
        ("driver_status", (0, 0, 8, 10, 0x28, chance.below(65536))),
    ):
        if not chance.one_in(3):
            keys.append((key, str(chance.pick(choices))))
    return keys


def patches(chance: Chance, length: int, areas) -> list:
    if not chance.one_in(5):
        return []
    keys = []
    for _ in range(chance.between(1, 3)):
        first, last = chance.pick(areas)
        patch = chance.data(chance.between(1, 12))
        # Only an INQUIRY answer may grow.
        offset = chance.between(first, min(last, length if length == 36 else length - len(patch)))
        keys.append(("at", "%d:%s" % (offset, patch.hex())))
    return keys


def inquiry_data(chance: Chance) -> list:
    style = chance.below(60 if chance.calm else 12)
    if style == 0:
        return []
    if style == 1:
        return [("data", hex_value(chance.data(chance.pick((0, 1, 8, 9, 16, 31, 32, 33, 36, 96, 255, 256, 300)))))]
    keys = [("type", "0x%02x" % chance.pick((0, 0, 0, 0, 1, 1, 5, 8, 13, 0x1F, 0x20, 0x7F, 0x10, chance.below(256))))]
    for key, length in (("vendor", 8), ("product", 16), ("revision", 4)):
        if key == "vendor" and chance.one_in(3):
            keys.append((key, chance.pick(("ATA", '"  ATA"', "xATAx", "ata", '"ATA\\tx"', "SATA"))))
        elif key == "product" and chance.one_in(3):
            keys.append((key, model.quoted(chance.pick(PRODUCTS))))
        elif not chance.mishap(10):
            keys.append((key, model.quoted(chance.text(length))))
    if chance.one_in(6):
        keys.append(("pad", chance.pick(("0", "9", "0x41"))))
    return keys + patches(chance, 36, ((0, 36), (6, 34)))


def serial_data(chance: Chance) -> list:
    style = chance.below(10)
    if style == 0:
        return []
    if style == 1:
        return [("data", hex_value(chance.data(chance.pick((0, 3, 4, 5, 36, 37, 255, 260)))))]
    length = chance.pick((0, 1, 2, 3, 20, 31, 32, 33, 34, 255, chance.between(0, 255), chance.between(2, 32)))
    text = "".join(chance.pick((chance.text(20), chance.text(8), "S%d" % chance.below(1000))) for _ in range(length))
    keys = [("text", model.quoted(text[:length]))]
    if chance.one_in(3):
        keys.append(("length", str(chance.pick((0, 1, 2, 31, 32, 33, 255, chance.below(256))))))
    if chance.one_in(4):
        keys.append(("type", str(chance.below(256))))
    return keys


def scsi_answers(chance: Chance, keyword: str) -> list:
    data = inquiry_data if keyword == "inquiry" else serial_data
    lines = []
    if chance.mishap(4):
        # retries: seldom so many that the command is given up
        for _ in range(chance.pick((1, 1, 2, 3, 4, 5))):
            keys = data(chance) if chance.one_in(2) else []
            lines.append((keyword, keys + sense_keys(chance, True), chance.between(1, 2)))
        if chance.one_in(3):
            lines.append((keyword, [("errno", chance.pick(ERRNOS))], 1))
    style = chance.below(60 if chance.calm else 12)
    if style == 0:
        last = [("errno", chance.pick(ERRNOS))]
    elif style == 1:
        last = data(chance) + sense_keys(chance, True)
    elif style <= 4:
        last = data(chance) + sense_keys(chance, False)
    else:
        last = data(chance)
    if style and chance.one_in(15):
        last = last + [("result", str(chance.between(1, 99)))]
    lines.append((keyword, last, None))
    return lines


def ata_model(chance: Chance) -> str:
    if chance.one_in(4):
        return chance.text(40)
    spaces = (" ", " ", " ", "  ", "\t", "\n", "\v\f", "\r", "\0", "\xa0", "\x85", "")
    text = chance.pick(("", "", " ", "\t\n"))
    for _ in range(chance.pick((0, 1, 2, 2, 3, 5))):
        text += chance.pick(WORDS + ("%dGB" % chance.below(9999), "A" * chance.between(1, 40))) + chance.pick(spaces)
    return text[:40]


def ata_answers(chance: Chance) -> list:
    lines = []
    for index in range(chance.pick((1, 1, 1, 2, 3))):
        if chance.mishap(4):
            keys = [("errno", chance.pick(ERRNOS))]
        elif chance.mishap(8):
            keys = [("data", hex_value(chance.data(chance.pick((0, 1, 45, 47, 53, 55, 93, 94, 255, 511, 512)))))]
        else:
            keys = [("model", model.quoted(ata_model(chance)))]
            keys.append(("revision", model.quoted(chance.text(8))))
            keys.append(("serial", model.quoted(chance.text(20))))
            keys = [key for key in keys if not chance.one_in(10)]
            if chance.one_in(6):
                keys.append(("pad", chance.pick(("0", "9", "0x41"))))
            keys += patches(chance, 512, ((18, 42), (44, 96), (0, 512)))
            if chance.one_in(10):
                keys.append(("result", str(chance.between(1, 9999))))
        lines.append(["ata_identify", keys, 1 if index == 0 else chance.between(1, 2)])
    lines[-1][2] = None
    return [tuple(line) for line in lines]


def nvme_answers(chance: Chance) -> list:
    lines = []
    for _ in range(chance.pick((1, 1, 2))):
        style = chance.below(12)
        if style == 0:
            keys = [("errno", chance.pick(ERRNOS))]
        elif style <= 2:
            length = chance.pick((0, 4, 23, 24, 25, 63, 64, 65, 72, 100, 4095, 4096, 4096))
            keys = [("data", hex_value(bytes(byte or 1 for byte in chance.data(length))))]
        else:
            keys = [("serial", model.quoted(chance.text(20))), ("model", model.quoted(chance.text(40)))]
            keys.append(("revision", model.quoted(chance.text(8))))
            keys = [key for key in keys if not chance.one_in(10)]
            if chance.one_in(2):
                behind = bytes(byte or 7 for byte in chance.data(chance.pick((1, 2, 5, 30))))
                keys.append(("at", "72:" + behind.hex()))
            keys += patches(chance, 4096, ((2, 26), (60, 80), (0, 4096)))
            if chance.one_in(8):
                keys.append(("result", str(chance.pick((1, 2, 0x2002)))))
        lines.append(["nvme_identify", keys, 1])
    lines[-1][2] = None
    return [tuple(line) for line in lines]


def address_number(chance: Chance) -> int:
    return chance.pick(
        (0, 0, 0, 0, 1, 1, 2, 3, 10, 11, 255, 256, 65535, 65536, 65537, -1, -65536, 0x7FFFFFFF, chance.below(70000))
    )


def node_answers(chance: Chance) -> list:
    if chance.mishap(15):
        version = [("errno", chance.pick(ERRNOS))]
    elif chance.calm:
        version = [("", chance.pick(("30000", "30536", "40000")))]
    else:
        version = [
            ("", str(chance.pick((30536, 30536, 40000, 30000, 30000, 29999, 30001, 0, -1, -30000, 2**31 - 1)))),
        ]
    lines = [("sg_version", version, None)]
    lines += scsi_answers(chance, "inquiry")
    lines += scsi_answers(chance, "serial")
    if chance.mishap(8):
        lines.append(("scsi_id", [("errno", chance.pick(ERRNOS))], None))
    else:
        numbers = [("host", 1), ("channel", 1), ("id", 1), ("lun", 1)]
        if chance.one_in(3):
            same = chance.pick((0, 0, 1, 2))
            keys = [(key, str(same)) for key, _ in numbers]
        else:
            keys = [(key, str(address_number(chance))) for key, _ in numbers if not chance.one_in(6)]
        lines.append(("scsi_id", keys or [("host", "0")], None))
    if chance.mishap(8):
        lines.append(("idlun", [("errno", chance.pick(ERRNOS))], None))
    else:
        idlun = chance.pick((0, 0, 0, 1, 0x010101, 0x01010101, 0xFFFFFFFF, 0x80000000, chance.below(2**32)))
        lines.append(("idlun", [("", chance.pick(("0x%08x", "%d")) % idlun)], None))
    if chance.mishap(8):
        lines.append(("bus_number", [("errno", chance.pick(ERRNOS))], None))
    else:
        lines.append(("bus_number", [("", str(address_number(chance)))], None))
    return lines + ata_answers(chance) + nvme_answers(chance)


# --- a whole host --------------------------------------------------------------------------------------------

NAMES = {
    "st": ("st0", "st1", "st0a", "st0l", "st0m", "st", "stderr", "stdin", "stdout", "sdtout", "st.1", "st\xe9", "st-"),
    "nst": ("nst0", "nst0a", "nst0l", "nst", "nst1", "nst10"),
    "sd": ("sda", "sdb", "sda1", "sdab", "sd", "sd.1", "sda0", "sdz9", "sda-", "sd1a", "sd\xb2", "sd a", "sdc"),
    "hd": ("hda", "hdb", "hda1", "hd", "hd.bak", "hdparm"),
    "nvme": ("nvme", "nvme0", "nvme9", "nvme10", "nvme100", "nvme0n1", "nvme1n1", "nvme0n1p1", "nvme10n1")
    + ("nvme-fabrics", "nvme-fa", "nvmes"),
    "sg": ("sg0", "sg1", "sg10", "sg", "sg0.old", "sga", "sg\n0", "sg\t", "sg 1", 'sg"', "sg\\", "sg\xff"),
    "sr": ("sr0", "sr1", "sr0.bak", "sr", "sr10", "srX"),
    "": ("null", "ssd", "asda", "s", "n", "snd", "SDA", "sr".upper(), "scd0", "tty0", "h", ".sda", "..sg", "random"),
}


def device_names(chance: Chance) -> list:
    classes = [name for name in NAMES if chance.one_in(2)] or ["sd", "sg"]
    if chance.one_in(25):
        return []
    count = chance.pick((1, 1, 2, 3, 4, 6, 8, 12))
    if chance.one_in(40):
        count = 60
    names = []
    for _ in range(count):
        prefix = chance.pick(classes)
        if chance.one_in(3):
            odd = "".join(chance.pick("ab01n.- ") for _ in range(3))
            name = prefix + chance.pick((str(chance.below(120)), chance.pick("abcxyz"), odd))
        else:
            name = chance.pick(NAMES[prefix])
        if name.strip(".") and name not in names:
            names.append(name)
    return names


def block_lines(chance: Chance, names: list) -> list:
    if chance.one_in(20):
        return ["sysblock absent"]
    entries = []
    for _ in range(chance.pick((0, 1, 2, 3, 6, 10))):
        name = chance.pick(names + ["sda", "sr0", "loop0", "s", "0"])
        if chance.one_in(2):
            first = chance.below(len(name))
            name = name[first : chance.between(first + 1, len(name))]
        if name.strip(".") and name not in entries:
            entries.append(name)
    lines = []
    for name in entries:
        line = "block " + model.quoted(name)
        for key in ("firmware_rev", "rev"):
            if not chance.one_in(3):
                revision = chance.pick(("1.02\n", "1.02", "1.02\n\n", "\n", "", "  1 \n", "A\0B\n", chance.text(30)))
                if chance.one_in(40):
                    revision = "long " * 2000 + "\n"
                line += " %s=%s" % (key, model.quoted(revision))
        lines.append(line)
    return lines


TABLE_ROWS = (
    "drive speed",
    "drive # of slots",
    "Can close tray",
    "Can open tray",
    "Can lock tray",
    "Can change speed",
    "Can select disk",
    "Can read multisession",
    "Can read MCN",
    "Reports media changed",
    "Can play audio",
    "Can write CD-R",
    "Can write CD-RW",
    "Can read DVD",
    "Can write DVD-R",
    "Can write DVD-RAM",
    "Can read MRW",
    "Can write MRW",
    "Can write RAM",
)


def optical_table(chance: Chance, names: list) -> list:
    if chance.one_in(6):
        return []
    drives = [name for name in names if name.startswith("sr")][-chance.pick((1, 1, 1, 2, 3)) :] or ["sr0"]
    rows = ["CD-ROM information, Id: cdrom.c 3.20 2003/12/17", "", "drive name:\t\t" + "\t".join(drives)]
    for row in TABLE_ROWS:
        values = [chance.pick("01") for _ in drives]
        if chance.mishap(10):
            values = [chance.pick(("1", "0", "", "11", "01", "1 ", "yes")) for _ in drives]
        rows.append(row + ":" + chance.pick(("\t\t", " ", "")) + "\t".join(values))
    rows += ["", ""]
    end = "\n"
    for _ in range(chance.pick((0, 1) if chance.calm else (1, 2, 4, 6))):
        at = chance.below(len(rows)) if rows else 0
        change = chance.below(11)
        if change == 0 and rows:
            del rows[at]
        elif change <= 2:
            rows.insert(at, chance.pick(TABLE_ROWS[-8:]) + ":" + chance.pick("01"))
        elif change == 3 and rows:
            rows[at] = rows[at].ljust(chance.pick((253, 254, 255, 255, 256, 256, 257, 300)), chance.pick("x \t"))
        elif change == 4 and rows:
            at = chance.pick([2, -3, -4, at]) if len(rows) > 4 else at
            rows[at] = rows[at].replace(":", chance.pick(("::", "::", ":::", " : ", ": :", "")))
        elif change == 5:
            odd = (":", "::", ":x", "x:", " : ", "drive name:sr0", "a:b:c", "\xff:\x80", "n\r:1\r")
            rows.insert(at, chance.pick(odd))
        elif change == 6:
            end = "\r\n"
        elif change == 7:
            rows = rows[: chance.pick((0, 1, 17, 18, 18, 19, 19, 20, at))]
        elif change == 8 and rows:
            rows[at] = chance.pick(("", "\t ", "  ", "\r")) + rows[at] + chance.pick(("\t ", " ", "\v", "\r"))
        elif change == 9 and chance.one_in(3):
            rows.insert(at, "a\0b")
        elif chance.one_in(10):
            rows += ["row %d: %d" % (number, number % 2) for number in range(500)]
    text = end.join(rows)
    if chance.one_in(8):
        text = text.rstrip("\r\n")
    return ["cdrom_info " + model.quoted(line) for line in text.splitlines(keepends=True)] or ['cdrom_info ""']


def calls(chance: Chance, focus: str) -> list:
    if focus:
        return ["call " + focus]
    chosen = []
    for _ in range(chance.pick((1, 1, 2, 3))):
        kind = chance.below(10)
        if kind < 5:
            chosen.append("call all")
        elif kind < 8:
            kinds = (0, 1, 2, 3, 0, 1, 2, 3, 4, 7, 42, -1, 2**31 - 1, -(2**31))
            chosen.append("call individual %d" % chance.pick(kinds))
        elif kind == 8:
            chosen.append("call optical")
        else:
            chosen.append("call firmware")
    return chosen


def write_host(top: list, nodes: list) -> str:
    """`nodes` holds (dev line, answer lines); an answer line is (keyword, keys, times)."""
    lines = list(top)
    for head, answers in nodes:
        lines.append(head)
        for keyword, keys, times in answers:
            words = [keyword] + [key + "=" + value if key else value for key, value in keys]
            if keyword not in model.PLAIN_ANSWERS and times != 1:
                words.append("times=any" if times is None else "times=%d" % times)
            lines.append("  " + " ".join(words))
    return "\n".join(lines) + "\n"


def random_host(seed: int) -> str:
    chance = Chance(seed)
    top = ["# seed %d" % seed]
    top.append("modprobe " + chance.pick(("exit=0",) * 6 + ("exit=1", "exit=%d" % chance.between(1, 255), "noshell")))
    # The two calls with texts of their own to make get hosts of their own.
    focus = {0: "optical", 1: "firmware"}.get(seed % 5, "")
    top += calls(chance, focus)
    if chance.one_in(40):
        top.append("devdir unreadable")
    names = device_names(chance)
    if focus:
        for name in chance.pick((("sr0",), ("sr0", "sr1")) if focus == "optical" else (("sda", "nvme0n1"), ("sda",))):
            if name not in names:
                names.append(name)
    elif chance.one_in(3):
        # one device under two names, and drives for the optical table
        for name in chance.pick((("sg0", "sda"), ("sg0", "sr0"), ("sr0",), ("st0", "sg1", "sg0"))):
            if name not in names:
                names.insert(chance.below(len(names) + 1), name)
    top += block_lines(chance, names)
    if any("optical" in line for line in top):
        top += optical_table(chance, names)
    nodes = []
    openable = [name for name in names if not chance.mishap(10)]
    for name in names:
        if name in openable:
            nodes.append(("dev node " + model.quoted(name), node_answers(chance)))
        elif openable and chance.one_in(3):
            target = model.quoted(chance.pick(openable))
            nodes.append(("dev link %s target=%s" % (model.quoted(name), target), []))
        else:
            kind = chance.pick(("file", "directory", "dangling", "unreadable", "unopenable"))
            nodes.append(("dev %s %s" % (kind, model.quoted(name)), []))

    # What is never asked would be an error of the host file: keep the answers that the model needs, no more.
    rich = model.parse_host(write_host(top, nodes))
    model.golden_text(rich)
    kept = []
    for (head, answers), entry in zip(nodes, rich.dev):
        used = {keyword: iter(lines) for keyword, lines in entry.answers.items()}
        asked = [(keyword, keys, next(used[keyword]).most) for keyword, keys, _ in answers]
        kept.append((head, [line for line in asked if line[2] > 0]))
    return write_host(top, kept)


# --- comparison ----------------------------------------------------------------------------------------------


def expected_text(content: str) -> str:
    host = model.parse_host(content)
    text = model.golden_text(host)
    left = host.never_asked()
    if left:
        raise model.HostError("never asked: " + "; ".join(left))
    return text


def difference(expected: str, actual: str) -> str:
    lines = difflib.unified_diff(
        expected.split("\n"), actual.split("\n"), "model", "compared with it", lineterm="", n=4
    )
    return "\n".join(lines)


def run_harness(harness: str, path: str):
    return subprocess.run([harness, path], capture_output=True, check=False, timeout=120)


def compare_seed(harness: str, seed: int, directory: str) -> str:
    """An empty text when library and model agree, otherwise the whole story."""
    content = random_host(seed)
    expected = expected_text(content)
    path = os.path.join(directory, "seed%d.host" % seed)
    with open(path, "w", encoding="latin-1", newline="") as file:
        file.write(content)
    done = run_harness(harness, path)
    actual = done.stdout.decode("latin-1")
    if actual == expected and done.returncode == 0:
        os.remove(path)
        return ""
    report = ["seed %d differs (%s)" % (seed, path), content, difference(expected, actual)]
    report.append("exit status %d, standard error:" % done.returncode)
    report.append(done.stderr.decode("latin-1"))
    return "\n".join(report)


def no_hosts_here() -> str:
    """Why simulated hosts cannot be made, or nothing."""
    alone = ["unshare", "--mount"] if os.geteuid() == 0 else ["unshare", "--mount", "--user", "--map-root-user"]
    done = subprocess.run([*alone, "true"], capture_output=True, check=False, text=True)
    return "" if done.returncode == 0 else "simulated hosts take root, or a user namespace: " + done.stderr.strip()


def compare_seeds(options) -> int:
    reason = no_hosts_here()
    if reason:
        print(reason)
        return 1 if os.environ.get("CI") == "true" else SKIPPED
    directory = options.keep or tempfile.mkdtemp(prefix="simhost-differential-")
    os.makedirs(directory, exist_ok=True)
    seeds = range(options.first, options.first + options.seeds)
    differing = 0
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for report in pool.map(lambda seed: compare_seed(options.harness, seed, directory), seeds):
            if report:
                differing += 1
                if differing <= options.show:
                    print(report, flush=True)
    if not options.keep and not differing:
        os.rmdir(directory)
    print("%d hosts, %d differ (seeds %d to %d)" % (len(seeds), differing, seeds[0], seeds[-1]))
    return 1 if differing else 0


def compare_hosts(directory: str) -> int:
    hosts = sorted(pathlib.Path(directory).glob("*.host"))
    goldens = differing = 0
    for path in hosts:
        content = path.read_text(encoding="latin-1")
        seen = "\n".join(line for call in model.parse_host(content).seen for line in call)
        try:
            expected = expected_text(content)
        except model.HostError as error:
            print("%s: %s" % (path, error))
            differing += 1
            continue
        report = difference("\n".join(model.results_in(expected)), seen)
        golden = path.with_suffix(".golden")
        if golden.exists():
            goldens += 1
            report += difference(expected, golden.read_text(encoding="latin-1"))
        if report:
            print("%s differs from the model" % path)
            print(report)
            differing += 1
    print("%d hosts, %d golden texts, %d differ" % (len(hosts), goldens, differing))
    return 1 if differing or not goldens else 0


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--harness", help="the program that prints what the library says about a host file")
    parser.add_argument("--seeds", type=int, default=600, help="how many (default 600)")
    parser.add_argument("--first", type=int, default=1, help="the first seed (default 1)")
    parser.add_argument("--show", type=int, default=3, help="how many differing hosts to print (default 3)")
    parser.add_argument("--keep", help="directory for the hosts that differ")
    parser.add_argument("--jobs", type=int, default=2, help="harness programs at a time (default 2)")
    parser.add_argument("--hosts", help="compare the see lines and golden texts of this directory with the model instead")
    parser.add_argument("--print", type=int, dest="one", metavar="SEED", help="print the host of one seed")
    options = parser.parse_args()
    if options.one is not None:
        sys.stdout.write(random_host(options.one))
        return 0
    if options.hosts:
        return compare_hosts(options.hosts)
    if not options.harness or options.seeds < 1:
        parser.error("one of --harness, --hosts and --print is needed, and at least one seed")
    return compare_seeds(options)


if __name__ == "__main__":
    sys.exit(main())
