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


def _Load(path):
    loader = importlib.machinery.SourceFileLoader("recordHost", str(path))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("recordHost", loader))
    loader.exec_module(module)
    return module


recorder = _Load(HERE.parents[1] / "scripts" / "record-host")

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
    def _Bytes(name):
        """As the model writes a name: one character for each byte."""
        return os.fsencode(name).decode("latin-1")

    def LoadSg(self):
        return None if self.host.modprobe < 0 else self.host.modprobe >> 8

    def DeviceNames(self):
        return [os.fsdecode(entry.name.encode("latin-1")) for entry in self.host.dev]

    def TargetOf(self, name):
        entry = next(entry for entry in self.host.dev if entry.name == self._Bytes(name))
        return entry.target if entry.kind == "link" else None

    def BlockNames(self):
        return None if self.host.sys_block is None else [entry.name for entry in self.host.sys_block]

    def Revision(self, blockName, file):
        entry = next(entry for entry in self.host.sys_block if entry.name == blockName)
        content = getattr(entry, file)
        return None if content is None else content.encode("latin-1")

    def OpticalTable(self):
        return None if self.host.cdrom is None else self.host.cdrom.encode("latin-1")

    def Sleep(self, seconds):
        self.slept.append(seconds)

    def Ask(self, name, request):
        device = self.host.device("/dev/" + self._Bytes(name))
        if device is None or not device.opens:
            raise recorder.CannotOpen(errno.ENOENT if device is None else OPEN_ERRORS[device.kind])
        reply = device.answer(*self.REQUESTS[request])
        if reply.result < 0:
            return recorder.Answer(error=errno.EIO)
        numbers = {"scsi_id": reply.address, "sg_version": (reply.number,), "idlun": (reply.number,),
                   "bus_number": (reply.number,)}.get(request, ())
        return recorder.Answer(
            result=reply.result, numbers=numbers, data=reply.data[:recorder.DATA_IN_LENGTH]
            if request in recorder.COMMAND_BLOCKS else reply.data, sense=reply.sense, senseLength=reply.sense_written,
            info=reply.info, status=reply.status, maskedStatus=reply.masked_status, hostStatus=reply.host_status,
            driverStatus=reply.driver_status)


def Parse(text):
    return model.parse_host(text if isinstance(text, str) else text.decode("latin-1"))


def Record(host, scrubber=None):
    """The recorded host file, in bytes."""
    recording = recorder.Recording(ScriptedKernel(host))
    return recorder.HostFile(recording, scrubber or recorder.Scrubber(recording.Serials()))


def Golden(host):
    host.calls = CALLS
    return model.golden_text(host)


def SerialsOf(golden):
    quoted = "  serial_number "
    return [model.read_quoted(line, len(quoted))[0] for line in golden.splitlines() if line.startswith(quoted)]


def WithoutSerials(golden):
    """Status and records, with no serial number in them."""
    return [line for line in golden.splitlines() if not re.match(r"log |  serial_number |  SerialNumber ", line)]


class RoundTrip(unittest.TestCase):
    """The machines are those of hosts/."""

    @classmethod
    def setUpClass(cls):
        cls.machines = {}
        for path in sorted((HERE / "hosts").glob("*.host")):
            text = path.read_text(encoding="latin-1")
            host = Parse(text)
            # Some files answer only the calls that they make themselves; a machine always answers.
            try:
                golden = Golden(host)
            except model.HostError:
                continue
            if host.dev_readable:
                cls.machines[path.stem] = (text, golden)

    def testMostHostsServeAsMachines(self):
        self.assertGreater(len(self.machines), 60)

    def testAMachineAndItsRecordingSayTheSame(self):
        for name, (text, golden) in self.machines.items():
            with self.subTest(name):
                recorded = Record(Parse(text), recorder.Unscrubbed())
                again = Parse(recorded)
                self.assertEqual(golden, Golden(again), recorded.decode())
                self.assertEqual([], again.never_asked(), recorded.decode())

    def testAScrubbedRecordingDiffersInSerialNumbersOnly(self):
        compared = changed = 0
        for name, (text, golden) in self.machines.items():
            with self.subTest(name):
                scrubbed = Golden(Parse(Record(Parse(text))))
                before, after = SerialsOf(golden), SerialsOf(scrubbed)
                others = "\n".join(WithoutSerials(golden))
                if not any(len(serial) >= recorder.SHORTEST_SERIAL_TO_SEEK and serial in others for serial in before):
                    self.assertEqual(others, "\n".join(WithoutSerials(scrubbed)))
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
    def Scrub(self, serial, *others):
        return recorder.Scrubber([serial, *others]).Serial(serial)

    def testTheReplacementIsAsLongAndIsRecognisable(self):
        self.assertEqual(b"SN0000000001", self.Scrub(b"ZC18LQ0042AB"))

    def testBlanksAndControlCharactersStayWhereTheyWere(self):
        self.assertEqual(b"  SN0 000 0001\t\0\0", self.Scrub(b"  ZC1 8LQ 0042\t\0\0"))
        self.assertEqual(b"SN0\x07\x001", self.Scrub(b"ABC\x07\x00D"))

    def testBytesBeyondAsciiAreReplacedToo(self):
        self.assertEqual(b"SN01", self.Scrub(b"\xc3\xa9\xffA"))

    def testDevicesStayDistinct(self):
        for length in (2, 3, 4, 20):
            serials = [b"%0*d" % (length, number) for number in range(1, 100)]
            scrubber = recorder.Scrubber(serials)
            self.assertEqual(len(serials), len({scrubber.Serial(serial) for serial in serials}), length)
            self.assertEqual({length}, {len(scrubber.Serial(serial)) for serial in serials})

    def testTheSameSerialNumberInAWiderFieldBecomesTheSame(self):
        scrubber = recorder.Scrubber([b"AA-1", b"AA-2", b"AA-2    "])
        self.assertEqual(b"SN02", scrubber.Serial(b"AA-2"))
        self.assertEqual(b"    SN02", scrubber.Serial(b"    AA-2"))

    def testAnEmptyFieldStaysEmpty(self):
        self.assertEqual(b"    ", self.Scrub(b"    "))
        self.assertEqual(b"", self.Scrub(b""))

    def testASerialNumberWithinAnotherTextIsReplaced(self):
        scrubber = recorder.Scrubber([b"WX12345", b"123"])
        self.assertEqual(b"DISK SN00001", scrubber.Text(b"DISK WX12345"))
        # Three digits may be part of any product's name.
        self.assertEqual(b"DISK 1234", scrubber.Text(b"DISK 1234"))

    def testNoPlaceOfAnAnswerKeepsTheSerialNumber(self):
        secret = "ZC18LQ0042"
        tail = secret.encode().hex()
        swappedTail = bytes(byte for pair in zip(secret.encode()[1::2], secret.encode()[0::2]) for byte in pair).hex()
        text = Record(Parse(f"""
            modprobe exit=0
            dev node sda
              sg_version 30536
              inquiry vendor=ATA product="DISK {secret}" revision=1 at=36:{"00" * 60} at=36:{tail} at=96:{tail}
              serial text="{secret}"
              idlun 0
              bus_number 2
              ata_identify model="DISK {secret}" serial="          {secret}" at=216:{swappedTail} at=300:{swappedTail}
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
        self.assertNotIn(swappedTail, text)
        # One device, whatever it was asked through.
        self.assertEqual(7, text.count("SN00000001"), text)


class Recordings(unittest.TestCase):
    def testNamesThatDoNotConcernTheLibraryAreLeftOut(self):
        text = Record(Parse("modprobe exit=0\ndev node null\ndev node customer-vg\ndev node stdin\ncall all\n"))
        self.assertNotIn(b"customer", text)
        self.assertNotIn(b"null", text)
        self.assertIn(b"dev node stdin\n", text)

    def testADeviceThatBecomesReadyIsGivenItsTime(self):
        kernel = ScriptedKernel(Parse("""
            modprobe exit=0
            dev node sg0
              sg_version 30536
              inquiry info=1 sense=70000600000000000000000029000000 masked_status=1 status=2 times=2
              inquiry type=8 vendor=ARM product=ROBOT revision=1
              scsi_id host=1
            call all
            """))
        text = recorder.HostFile(recorder.Recording(kernel), recorder.Scrubber()).decode()
        self.assertEqual([5, 5], kernel.slept)
        self.assertIn("  inquiry sense=70000600000000000000000029000000 info=1 status=2 masked_status=1 times=2\n"
                      '  inquiry type=0x08 vendor="ARM" product="ROBOT" revision="1" times=any\n', text)

    def testAnErrorThatSimulatedHostsDoNotKnowIsWrittenAsAnother(self):
        kernel = ScriptedKernel(Parse("modprobe exit=0\ndev node sr0\ncall all\n"))
        kernel.Ask = lambda name, request: recorder.Answer(error=errno.ENOMEDIUM if request == "sg_version"
                                                           else errno.ENOTTY)
        text = recorder.HostFile(recorder.Recording(kernel), recorder.Scrubber()).decode()
        self.assertIn("  sg_version errno=EIO\n  ata_identify errno=ENOTTY times=any\n", text)

    def testADeviceThatGoesAwayMeanwhileIsAFailure(self):
        kernel = ScriptedKernel(Parse("modprobe exit=0\ndev node sr0\n  sg_version 30536\ncall all\n"))
        asked = []

        def Ask(name, request):
            asked.append(request)
            if len(asked) > 1:
                raise recorder.CannotOpen(errno.ENXIO)
            return recorder.Answer(numbers=(30536,))

        kernel.Ask = Ask
        with self.assertRaisesRegex(recorder.Problem, "^/dev/sr0 went away while it was recorded$"):
            recorder.Recording(kernel)

    def testWithoutAShellModprobeIsRecordedAsSuch(self):
        self.assertTrue(Record(Parse("modprobe noshell\ncall all\n")).startswith(b"modprobe noshell\n"))


if __name__ == "__main__":
    unittest.main()
