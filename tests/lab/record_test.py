#!/usr/bin/python3
"""Records guests as simulated hosts, and holds what the library says there against what it said in the guest."""

import argparse
import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
sys.path.insert(1, str(HERE.parent / "simhost"))

import model  # noqa: E402
from labkit import build, machine  # noqa: E402
from labkit.topology import IDENTITY_PROPERTIES, OPTICAL_ROWS, RECORD_FIELDS  # noqa: E402
from topologies.odd import Odd  # noqa: E402
from topologies.one_of_each import OneOfEach  # noqa: E402

RECORDER = HERE.parents[1] / "scripts" / "record-host"
PYTHON = "/usr/bin/python3"
SKIPPED = 77

# The calls of a recording, in its order, and how zddevices is asked for the same.
CALLS = {
    "all": "zddevices --as-library --format json",
    "individual 0": "zddevices --type tape --as-library --format json",
    "individual 1": "zddevices --type scsi --as-library --format json",
    "individual 2": "zddevices --type disk --as-library --format json",
    "individual 3": "zddevices --type optical --as-library --format json",
    "optical": "zddevices optical --as-library --format json",
    "firmware": "zddevices firmware --as-library --format json",
}

# In C++ the names end with an underscore, in JSON they do not.
OPTICAL_FIELDS = [name + "_" for name in ("drive_name", "vendor", "product", *OPTICAL_ROWS)]


def recorder_files():
    """The recorder, Debian's interpreter and the modules that it loads: (file of this host, path in the guest)."""
    # The interpreter complains where it does not find the directory of its own shared objects.
    script = f"import json, os, runpy, sys; runpy.run_path({str(RECORDER)!r}); " \
             "files = [m.__file__ for m in sys.modules.values() if getattr(m, '__file__', None)]; " \
             "objects = next(path for path in sys.path if path.endswith('lib-dynload')); " \
             "print(json.dumps([*files, os.path.join(objects, os.listdir(objects)[0])]))"
    loaded = subprocess.run([PYTHON, "-I", "-S", "-c", script], capture_output=True, text=True, check=True).stdout
    yield PYTHON, "usr/bin/python3"
    for path in sorted({*json.loads(loaded)}):
        yield path, path.lstrip("/")
    yield RECORDER, "root/record-host"


class Golden:
    """What simhostShow wrote: per call its status and its records."""

    def __init__(self, text):
        self.status, self.records = {}, {}
        for line in text.splitlines():
            word, _, rest = line.strip().partition(" ")
            if line.startswith("call "):
                call = rest
                self.records[call] = []
            elif line.startswith("status "):
                self.status[call] = int(rest)
            elif line in ("device", "optical", "identity"):
                self.records[call].append({})
            elif line.startswith("  "):
                value = model.read_quoted(rest, 0)[0].encode("latin-1") if rest.startswith('"') else rest.encode()
                self.records[call][-1][word] = value.decode("utf-8", errors="replace")


class Recording(unittest.TestCase):
    """A guest, its recording, and the library on both."""

    topology = None  # set by the classes below
    build = None
    show = None
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        steps = {call.replace(" ", "-"): command for call, command in CALLS.items()}
        steps["record"] = "python3 -I -S /root/record-host"
        cls.topology.additions = list(recorder_files())
        cls.results = machine.boot(cls.topology, cls.build, steps)
        cls.text = cls.results["record"].stdout
        if not cls.text:
            raise AssertionError(f"nothing was recorded: {cls.results['record'].stderr.decode(errors='replace')}")
        with tempfile.NamedTemporaryFile(suffix=".host") as file:
            file.write(cls.text)
            file.flush()
            cls.shown = subprocess.run([cls.show, file.name], capture_output=True, check=False)

    def guest_answer(self, call):
        """What zddevices said in the guest; absent values are empty texts, as in the records."""
        document = json.loads(self.results[call.replace(" ", "-")].stdout)
        records = document.get("devices", document.get("drives", document.get("identities")))
        return document["status"]["code"], [
            {key: "" if value is None else str(value) for key, value in record.items()} for record in records]

    def simulated_answer(self, call):
        golden = Golden(self.shown.stdout.decode("latin-1"))
        fields = {"optical": OPTICAL_FIELDS, "firmware": IDENTITY_PROPERTIES}.get(call, RECORD_FIELDS)
        return golden.status[call], [{field.rstrip("_"): record[field] for field in fields if field in record}
                                     for record in golden.records[call]]

    def test_the_recorder_had_nothing_to_complain_of(self):
        result = self.results["record"]
        self.assertEqual((0, ""), (result.status, result.stderr.decode()))

    def test_the_library_asks_everything_that_was_recorded_and_nothing_else(self):
        self.assertEqual((0, b""), (self.shown.returncode, self.shown.stderr), self.text.decode())

    def test_records_are_the_guests_but_for_serial_numbers(self):
        compared = 0
        for call in CALLS:
            with self.subTest(call):
                status, records = self.guest_answer(call)
                simulated_status, simulated = self.simulated_answer(call)
                self.assertEqual(status, simulated_status)
                self.assertEqual(len(records), len(simulated))
                for record, other in zip(records, simulated):
                    record, other = dict(record), dict(other)
                    record.pop("serial_number", None), other.pop("serial_number", None)
                    shared = record.keys() & other.keys()
                    self.assertGreaterEqual(len(shared), 5)
                    self.assertEqual({key: record[key] for key in shared}, {key: other[key] for key in shared})
                    compared += 1
        self.assertGreater(compared, 10)

    def serials(self):
        """(serial number in the guest, serial number of the recording) of every record."""
        for call in list(CALLS)[:5]:
            for record, other in zip(self.guest_answer(call)[1], self.simulated_answer(call)[1]):
                yield record["serial_number"], other["serial_number"]

    def test_serial_numbers_are_replaced_by_others_of_the_same_length(self):
        for serial, other in self.serials():
            self.assertEqual(len(serial), len(other))
            if serial.strip():
                self.assertNotEqual(serial, other)
                self.assertNotIn(serial.strip().encode(), self.text)

    def test_a_device_has_one_serial_number_whatever_file_it_is_seen_through(self):
        pairs = {(serial.strip(), other.strip()) for serial, other in self.serials()}
        self.assertGreater(len(pairs), 3)
        self.assertEqual(len(pairs), len({serial for serial, _ in pairs}))
        self.assertEqual(len(pairs), len({other for _, other in pairs}))


class RecordingOfOneOfEach(Recording):
    topology = OneOfEach

    def test_the_optical_table_is_recorded(self):
        self.assertIn(b'cdrom_info "drive name:\\t\\tsr0\\n"\n', self.text)


class RecordingOfOdd(Recording):
    topology = Odd

    def test_a_dangling_node_is_recorded_as_one_that_cannot_be_opened(self):
        self.assertIn(b"dev unopenable sdzz\n", self.text)

    def test_the_sense_of_a_disk_without_serial_page_is_recorded(self):
        self.assertRegex(self.text, rb"\n  serial sense=70000500000000[0-9a-f]* .*info=1 .*masked_status=1 ")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", metavar="DIR", help="build tree with zddevices")
    parser.add_argument("--show", metavar="FILE", required=True, help="the program simhostShow")
    arguments = parser.parse_args()
    # Without a mount namespace the recording cannot be tried; found out before a guest is booted.
    with tempfile.NamedTemporaryFile(mode="w", suffix=".host") as file:
        file.write("modprobe exit=0\ncall all\n")
        file.flush()
        tried = subprocess.run([arguments.show, file.name], capture_output=True, text=True, check=False)
    if tried.returncode != 0:
        print(f"cannot show a simulated host here: {tried.stderr}")
        return SKIPPED
    Recording.build = build.find(arguments.build)
    Recording.show = arguments.show
    suite = unittest.TestSuite()
    for case in (RecordingOfOneOfEach, RecordingOfOdd):
        suite.addTests(unittest.defaultTestLoader.loadTestsFromTestCase(case))
    return 0 if unittest.TextTestRunner(stream=sys.stdout, verbosity=2).run(suite).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
