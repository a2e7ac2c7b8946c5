#!/usr/bin/python3
"""The manual page: it is well-formed, says what the program takes, and its examples do what it shows.

Usage: manual_test.py. Environment: ZDDEVICES and ZDDEVICES_SCRIPTED, the program with and without the library;
ZDDEVICES_MANUAL, the page.
"""
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

PROGRAM = os.environ["ZDDEVICES"]
SCRIPTED = os.environ["ZDDEVICES_SCRIPTED"]
PAGE = os.environ["ZDDEVICES_MANUAL"]


def run(*command, **options):
    result = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            check=False, **options)
    return result.returncode, result.stdout.decode(), result.stderr.decode()


def rendered():
    """The page as a reader's terminal shows it, without bold and underlined type."""
    code, out, err = run("mandoc", "-Tutf8", "-Owidth=78", PAGE)
    assert (code, err) == (0, ""), err
    return re.sub(".\b", "", out)


def section(text, name):
    found = re.search(rf"(?ms)^{name}\n(.*?)(?=^\S)", text)
    assert found, name
    return found.group(1)


class FormTest(unittest.TestCase):
    def test_mandoc_has_nothing_to_say(self):
        self.assertEqual(run("mandoc", "-Tlint", "-Wwarning", PAGE), (0, "", ""))

    def test_groff_and_man_have_nothing_to_say(self):
        environment = {**os.environ, "LC_ALL": "C.UTF-8", "MANROFFSEQ": ""}
        for command in (("groff", "-ww", "-mdoc", "-Tutf8", PAGE), ("man", "--warnings", "-l", PAGE)):
            code, out, err = run(*command, env=environment)
            self.assertEqual((code, err), (0, ""), command)
            self.assertIn("zddevices", out)

    def test_no_line_is_wider_than_a_terminal(self):
        self.assertEqual([line for line in rendered().splitlines() if len(line) > 80], [])


class WordsTest(unittest.TestCase):
    def setUp(self):
        self.help = run(PROGRAM, "--help")[1]
        self.page = rendered()

    def test_the_options_are_those_of_the_help(self):
        helped = set(re.findall(r"(?<![-\w])--?[a-zA-Z][-a-z]*", re.search(r"(?ms)^Options:(.*?)^\n", self.help).group(1)))
        entries = re.findall(r"(?m)^     (-.*)$", section(self.page, "OPTIONS"))
        described = set(re.findall(r"(?<![-\w])--?[a-zA-Z][-a-z]*", " ".join(entries)))
        self.assertIn("--columns", helped)
        self.assertEqual(helped, described)
        mentioned = set(re.findall(r"(?<![-\w])--[a-z][-a-z]*", self.page))
        self.assertEqual(mentioned - helped - set(re.findall(r"jq (--?\w+)", self.page)), set())

    def test_the_subcommands_are_those_of_the_help(self):
        helped = re.findall(r"(?m)^  ([a-z]+) ", re.search(r"(?ms)^Subcommands:(.*?)^\n", self.help).group(1))
        self.assertIn("doctor", helped)
        described = re.findall(r"(?m)^     ([a-z]+)(?:  .*)?$", section(self.page, "DESCRIPTION"))
        self.assertEqual(set(helped), set(described))

    def test_classes_formats_and_columns_are_those_that_the_program_takes(self):
        options = " ".join(section(self.page, "OPTIONS").replace("-\n", "-").split()).replace("\u2010 ", "")
        for arguments in (["--type"], ["--format"], ["--columns"]):
            words = re.split(", | or ", re.search(r'unknown .*"\?" \((.*)\)', run(PROGRAM, *arguments, "?")[2]).group(1))
            self.assertGreater(len(words), 1, arguments)
            for word in words:
                self.assertRegex(options, rf"\b{word.lower()}\b")

    def test_the_exit_codes_are_those_of_the_help(self):
        helped = re.findall(r"(?m)^  (\d)  ", self.help.partition("Exit codes:")[2])
        self.assertEqual(re.findall(r"(?m)^     (\d)  ", section(self.page, "EXIT STATUS")), helped)


def hexadecimal(*texts):
    return [text.encode().hex() for text in texts]


DISK = hexadecimal("HALVARD ", "HX 900          ", "Direct Access Device", "HX-00017", "0102", "6", "0", "0", "0")
FLASH = hexadecimal("NVMe", "FLASH ONE   ", "Direct Access Device", "NV-5510", "7.2", "0", "0", "0", "0")
DVD = hexadecimal("QEMU    ", "QEMU DVD-ROM    ", "CD-ROM Device", "", "1.07", "2", "0", "0", "0")
DRIVE = hexadecimal("/dev/sr0", "QEMU    ", "QEMU DVD-ROM    ", "No", "Yes", "Yes", "Yes", "No", "No", "No", "No")
FOUND, NONE = 0, 6
HOST = {
    "0": {"status": NONE, "records": []},
    "1": {"status": NONE, "records": []},
    # Names that this host hardly has: what the kernel says of its own devices must not stand in the manual.
    "2": {"status": FOUND, "records": [DISK, FLASH], "files": ["/dev/sdx", "/dev/nvme7n1"]},
    "3": {"status": FOUND, "records": [DVD], "files": ["/dev/sr7"]},
    "optical": {"status": FOUND, "records": [DRIVE]},
}


class ExamplesTest(unittest.TestCase):
    maxDiff = None

    def examples(self):
        """(command, what the page shows as its output); the page's own words stand less far to the right."""
        lines = re.findall(r"(?m)^ {11}(.*)$", section(rendered(), "EXAMPLES"))
        found = []
        for line in lines:
            if line.startswith("$ "):
                found.append((line[2:], ""))
            else:
                command, output = found.pop()
                found.append((command, output + line + "\n"))
        return found

    def test_every_example_shows_what_the_program_says(self):
        with tempfile.TemporaryDirectory() as directory:
            os.symlink(SCRIPTED, os.path.join(directory, "zddevices"))
            script = os.path.join(directory, "script.json")
            with open(script, "w", encoding="ascii") as file:
                json.dump(HOST, file)
            environment = {**os.environ, "LC_ALL": "C.UTF-8", "ZDDEVICES_SCRIPT": script,
                           "PATH": directory + ":" + os.environ["PATH"]}
            # What the examples call the old inventory: a disk more.
            document = json.loads(run(SCRIPTED, "--format", "json", env=environment)[1])
            document["devices"].append({"vendor": "HALVARD", "product": "HX 900", "serial_number": "HX-00018",
                                        "device": "sdb", "port": 6, "bus": 0, "target": 1, "lun": 0})
            with open(os.path.join(directory, "old.json"), "w", encoding="ascii") as file:
                json.dump(document, file)
            examples = self.examples()
            self.assertGreaterEqual(len(examples), 6)
            for command, output in examples:
                code, out, err = run("bash", "-euo", "pipefail", "-c", command, env=environment, cwd=directory)
                if "> new.json" in command:
                    self.assertEqual((code, out, err), (0, "", ""), command)
                elif "diff" in command:
                    self.assertEqual((code, out, err), (1, output, ""), command)
                elif output:
                    self.assertEqual((code, out.replace("\r\n", "\n"), err), (0, output, ""), command)
                else:
                    # What the doctor says depends on the host.
                    self.assertIn(code, (0, 3), command)
                    self.assertEqual(err, "", command)
                    self.assertIn("Optical drives: ", out)


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
