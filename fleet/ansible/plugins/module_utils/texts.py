"""Texts of devices and hosts as a page may show them."""
from __future__ import annotations

import re

# Characters that show nothing or change how their neighbours are shown: the same as the program's, in output/text.cpp.
UNSEEN = (
    (0x00AD, 0x00AD),
    (0x034F, 0x034F),
    (0x061C, 0x061C),
    (0x115F, 0x1160),
    (0x17B4, 0x17B5),
    (0x180B, 0x180F),
    (0x200B, 0x200F),
    (0x2028, 0x202E),
    (0x2060, 0x206F),
    (0x3164, 0x3164),
    (0xFE00, 0xFE0F),
    (0xFEFF, 0xFEFF),
    (0xFFA0, 0xFFA0),
    (0xFFF0, 0xFFFB),
    (0x1BCA0, 0x1BCA3),
    (0x1D173, 0x1D17A),
    (0xE0000, 0xE0FFF),
)
# Control characters and halves of characters, which no file can hold.
CONTROL = ((0x00, 0x1F), (0x7F, 0x9F), (0xD800, 0xDFFF))

HIDDEN = re.compile("[%s]" % "".join("%s-%s" % (chr(first), chr(last)) for first, last in CONTROL + UNSEEN))
PADDING = "".join(map(chr, range(0x21))) + "\x7f"

# No device has a name as long as this; one that means harm may.
LONGEST = 300


def printable(text):
    """The text with U+FFFD in place of what a terminal acts on, no eye sees or no file holds. Lines stay lines."""
    return HIDDEN.sub(lambda found: found[0] if found[0] in "\n\t" else "\ufffd", text.replace("\r\n", "\n"))


def shown(value):
    """The text without its padding, U+FFFD in place of what cannot be seen; empty when there is none."""
    if value is None:
        return ""
    text = str(value).lstrip(" \t\n\v\f\r").rstrip(PADDING)
    if text.isascii() and text.isprintable() and len(text) <= LONGEST:
        return text
    text = HIDDEN.sub("\ufffd", text)
    return text if len(text) <= LONGEST else text[: LONGEST - 1] + "\u2026"
