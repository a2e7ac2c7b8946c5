#!/usr/bin/python3
"""Holds scripts/record-host to its promises, on machines that are host files themselves.

Every host file is taken for a machine, recorded, and asked again: the model must say the same about both.
"""

import errno
import importlib.machinery
import importlib.util
import os
import re
import sys
import unittest
from pathlib import Path

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

import model  # noqa: E402


def _load(path):
    loader = importlib.machinery.SourceFileLoader("recordHost", str(path))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("recordHost", loader))
    loader.exec_module(module)
    return module


recorder = _load(HERE.parents[1] / "scripts" / "record-host")

# What a recording lets the library do, whatever the host file it was taken from does.
CALLS = [("all",), *(("individual", number) for number in range(4)), ("optical",), ("firmware",)]

OPEN_ERRORS = {"dangling": errno.ENOENT, "unreadable": errno.EACCES, "unopenable": errno.ENXIO}


class ScriptedKernel:
    """A host file in place of a machine."""

    REQUESTS = {
        "sg_version": (model.SG_GET_VERSION_NUM, b""),
        "scsi_id": (model.SG_GET_SCSI_ID, b""),
        "idlun": (model.SCSI_IOCTL_GET_IDLUN, b""),
        "bus_number": (model.SCSI_IOCTL_GET_BUS_NUMBER, b""),
        "ata_identify": (model.HDIO_DRIVE_CMD, b""),
        "nvme_identify": (model.NVME_IOCTL_ADMIN_CMD, b""),
        "inquiry": (model.SG_IO, model.INQUIRY_BLOCK),
        "serial": (model.SG_IO, model.SERIAL_BLOCK),
    }

    def __init__(self, host):
        self.host = host
        self.slept = []

    @staticmethod
    def _bytes(name):
        """As the model writes a name: one character for each byte."""
        return os.fsencode(name).decode("latin-1")

    def load_sg(self):
        return None if self.host.modprobe < 0 else self.host.modprobe >> 8

    def device_names(self):
        return [os.fsdecode(entry.name.encode("latin-1")) for entry in self.host.dev]

    def target_of(self, name):
        entry = next(entry for entry in self.host.dev if entry.name == self._bytes(name))
        return entry.target if entry.kind == "link" else None

    def block_names(self):
        return None if self.host.sys_block is None else [entry.name for entry in self.host.sys_block]

    def revision(self, block_name, file):
        entry = next(entry for entry in self.host.sys_block if entry.name == block_name)
        content = getattr(entry, file)
        return None if content is None else content.encode("latin-1")

    def optical_table(self):
        return None if self.host.cdrom is None else self.host.cdrom.encode("latin-1")

    def sleep(self, seconds):
        self.slept.append(seconds)

    def ask(self, name, request):
        device = self.host.device("/dev/" + self._bytes(name))
        if device is None or not device.opens:
            raise recorder.CannotOpen(errno.ENOENT if device is None else OPEN_ERRORS[device.kind])
        reply = device.answer(*self.REQUESTS[request])
        if reply.result < 0:
            return recorder.Answer(error=errno.EIO)
        numbers = {"scsi_id": reply.address, "sg_version": (reply.number,), "idlun": (reply.number,),
                   "bus_number": (reply.number,)}.get(request, ())
        return recorder.Answer(
            result=reply.result, numbers=numbers, data=reply.data[:recorder.DATA_IN_LENGTH]
            if request in recorder.COMMAND_BLOCKS else reply.data, sense=reply.sense, sense_length=reply.sense_written,
            info=reply.info, status=reply.status, masked_status=reply.masked_status, host_status=reply.host_status,
            driver_status=reply.driver_status)


def parse(text):
    return model.parse_host(text if isinstance(text, str) else text.decode("latin-1"))


def record_host(host, scrubber=None):
    """The recorded host file, in bytes."""
    recording = recorder.Recording(ScriptedKernel(host))
    return recorder.host_file(recording, scrubber or recorder.Scrubber(recording.serials()))


def golden_text(host):
    host.calls = CALLS
    return model.golden_text(host)


def serials_of(golden):
    quoted = "  serial_number "
    return [model.read_quoted(line, len(quoted))[0] for line in golden.splitlines() if line.startswith(quoted)]


def without_serials(golden):
    """Status and records, with no serial number in them."""
    return [line for line in golden.splitlines() if not re.match(r"log |  serial_number |  SerialNumber ", line)]


class RoundTrip(unittest.TestCase):
    """The machines are those of hosts/."""

    @classmethod
    def setUpClass(cls):
        cls.machines = {}
        for path in sorted((HERE / "hosts").glob("*.host")):
            text = path.read_text(encoding="latin-1")
            host = parse(text)
            # Some files answer only the calls that they make themselves; a machine always answers.
            try:
                golden = golden_text(host)
            except model.HostError:
                continue
            if host.dev_readable:
                cls.machines[path.stem] = (text, golden)

    def test_most_hosts_serve_as_machines(self):
        self.assertGreater(len(self.machines), 60)

    def test_a_machine_and_its_recording_say_the_same(self):
        for name, (text, golden) in self.machines.items():
            with self.subTest(name):
                recorded = record_host(parse(text), recorder.Unscrubbed())
                again = parse(recorded)
                self.assertEqual(golden, golden_text(again), recorded.decode())
                self.assertEqual([], again.never_asked(), recorded.decode())

    def test_a_scrubbed_recording_differs_in_serial_numbers_only(self):
        compared = changed = 0
        for name, (text, golden) in self.machines.items():
            with self.subTest(name):
                scrubbed = golden_text(parse(record_host(parse(text))))
                before, after = serials_of(golden), serials_of(scrubbed)
                others = "\n".join(without_serials(golden))
                if not any(len(serial) >= recorder.SHORTEST_SERIAL_TO_SEEK and serial in others for serial in before):
                    self.assertEqual(others, "\n".join(without_serials(scrubbed)))
                    compared += 1
                replaced = dict(zip(before, after))
                self.assertEqual(after, [replaced[serial] for serial in before], "one serial number became two")
                self.assertEqual(len(set(before)), len(set(after)), "two serial numbers became one")
                for serial, other in replaced.items():
                    self.assertEqual(len(serial), len(other))
                    if len(serial.strip()) > 1:
                        self.assertNotEqual(serial, other)
                        changed += 1
        # A machine whose products are named like its serial numbers loses these names as well.
        self.assertGreater(compared, len(self.machines) - 5)
        self.assertGreater(changed, 60)


class Scrubbing(unittest.TestCase):
    def scrub(self, serial, *others):
        return recorder.Scrubber([serial, *others]).serial(serial)

    def test_the_replacement_is_as_long_and_is_recognisable(self):
        self.assertEqual(b"SN0000000001", self.scrub(b"ZC18LQ0042AB"))

    def test_blanks_and_control_characters_stay_where_they_were(self):
        self.assertEqual(b"  SN0 000 0001\t\0\0", self.scrub(b"  ZC1 8LQ 0042\t\0\0"))
        self.assertEqual(b"SN0\x07\x001", self.scrub(b"ABC\x07\x00D"))

    def test_bytes_beyond_ascii_are_replaced_too(self):
        self.assertEqual(b"SN01", self.scrub(b"\xc3\xa9\xffA"))

    def test_devices_stay_distinct(self):
        for length in (2, 3, 4, 20):
            serials = [b"%0*d" % (length, number) for number in range(1, 100)]
            scrubber = recorder.Scrubber(serials)
            self.assertEqual(len(serials), len({scrubber.serial(serial) for serial in serials}), length)
            self.assertEqual({length}, {len(scrubber.serial(serial)) for serial in serials})

    def test_the_same_serial_number_in_a_wider_field_becomes_the_same(self):
        scrubber = recorder.Scrubber([b"AA-1", b"AA-2", b"AA-2    "])
        self.assertEqual(b"SN02", scrubber.serial(b"AA-2"))
        self.assertEqual(b"    SN02", scrubber.serial(b"    AA-2"))

    def test_an_empty_field_stays_empty(self):
        self.assertEqual(b"    ", self.scrub(b"    "))
        self.assertEqual(b"", self.scrub(b""))

    def test_a_serial_number_within_another_text_is_replaced(self):
        scrubber = recorder.Scrubber([b"WX12345", b"123"])
        self.assertEqual(b"DISK SN00001", scrubber.text(b"DISK WX12345"))
        # Three digits may be part of any product's name.
        self.assertEqual(b"DISK 1234", scrubber.text(b"DISK 1234"))

    def test_no_place_of_an_answer_keeps_the_serial_number(self):
        secret = "ZC18LQ0042"
        tail = secret.encode().hex()
        swapped_tail = bytes(byte for pair in zip(secret.encode()[1::2], secret.encode()[0::2]) for byte in pair).hex()
        text = record_host(parse(f"""
            modprobe exit=0
            dev node sda
              sg_version 30536
              inquiry vendor=ATA product="DISK {secret}" revision=1 at=36:{"00" * 60} at=36:{tail} at=96:{tail}
              serial text="{secret}"
              idlun 0
              bus_number 2
              ata_identify model="DISK {secret}" serial="          {secret}" at=216:{swapped_tail} at=300:{swapped_tail}
            dev node sg0
              sg_version 30536
              inquiry vendor=ATA product="DISK" revision=1 at=36:{tail}
              serial text="          {secret}"
              scsi_id host=2
            dev node nvme0n1
              nvme_identify serial="{secret}" model="FLASH {secret}" at=768:{tail} at=3072:{tail}
            block sda
            call all
            """)).decode()
        self.assertNotIn(secret, text)
        self.assertNotIn(tail, text)
        self.assertNotIn(swapped_tail, text)
        # One device, whatever it was asked through.
        self.assertEqual(7, text.count("SN00000001"), text)


class Recordings(unittest.TestCase):
    def test_names_that_do_not_concern_the_library_are_left_out(self):
        text = record_host(parse("modprobe exit=0\ndev node null\ndev node customer-vg\ndev node stdin\ncall all\n"))
        self.assertNotIn(b"customer", text)
        self.assertNotIn(b"null", text)
        self.assertIn(b"dev node stdin\n", text)

    def test_a_device_that_becomes_ready_is_given_its_time(self):
        kernel = ScriptedKernel(parse("""
            modprobe exit=0
            dev node sg0
              sg_version 30536
              inquiry info=1 sense=70000600000000000000000029000000 masked_status=1 status=2 times=2
              inquiry type=8 vendor=ARM product=ROBOT revision=1
              scsi_id host=1
            call all
            """))
        text = recorder.host_file(recorder.Recording(kernel), recorder.Scrubber()).decode()
        self.assertEqual([5, 5], kernel.slept)
        self.assertIn("  inquiry sense=70000600000000000000000029000000 info=1 status=2 masked_status=1 times=2\n"
                      '  inquiry type=0x08 vendor="ARM" product="ROBOT" revision="1" times=any\n', text)

    def test_an_error_that_simulated_hosts_do_not_know_is_written_as_another(self):
        kernel = ScriptedKernel(parse("modprobe exit=0\ndev node sr0\ncall all\n"))
        kernel.ask = lambda name, request: recorder.Answer(error=errno.ENOMEDIUM if request == "sg_version"
                                                           else errno.ENOTTY)
        text = recorder.host_file(recorder.Recording(kernel), recorder.Scrubber()).decode()
        self.assertIn("  sg_version errno=EIO\n  ata_identify errno=ENOTTY times=any\n", text)

    def test_a_device_that_goes_away_meanwhile_is_a_failure(self):
        kernel = ScriptedKernel(parse("modprobe exit=0\ndev node sr0\n  sg_version 30536\ncall all\n"))
        asked = []

        def ask(name, request):
            asked.append(request)
            if len(asked) > 1:
                raise recorder.CannotOpen(errno.ENXIO)
            return recorder.Answer(numbers=(30536,))

        kernel.ask = ask
        with self.assertRaisesRegex(recorder.Problem, "^/dev/sr0 went away while it was recorded$"):
            recorder.Recording(kernel)

    def test_without_a_shell_modprobe_is_recorded_as_such(self):
        self.assertTrue(record_host(parse("modprobe noshell\ncall all\n")).startswith(b"modprobe noshell\n"))


if __name__ == "__main__":
    unittest.main()
