#!/usr/bin/python3
"""The lab's own promises: what a person or a test gets back from a guest, above all from one that fails."""

import argparse
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

from labkit import build, kernel, machine  # noqa: E402
from labkit.image import Image  # noqa: E402
from labkit.machine import StepResult  # noqa: E402
from labkit.problem import Problem  # noqa: E402
from labkit.topology import Device, Record, Topology  # noqa: E402

BUILD = None


class Bare(Topology):
    """Nothing attached, nothing set up: the quickest guest."""

    name = "bare"
    about = "for the tests of the lab itself"


class BareWithBrokenSetup(Bare):
    setup = "echo 'about to fail' >&2; modprobe no_such_module"


class GuestTest(unittest.TestCase):
    def testStepsComeBackByteForByteWithTheirStatus(self):
        results = machine.Boot(Bare, BUILD, {
            "bytes": r"printf '\000\377\r\n'; printf 'to the other stream' >&2; exit 7",
            "large": "head -c 3000000 /dev/zero | tr '\\0' x",
            "silent": "true",
        })
        self.assertEqual(StepResult(7, b"\x00\xff\r\n", b"to the other stream"), results["bytes"])
        self.assertEqual(StepResult(0, b"x" * 3000000, b""), results["large"])
        self.assertEqual(StepResult(0, b"", b""), results["silent"])

    def testAGuestThatHangsIsEndedAndItsConsoleShown(self):
        steps = {"first": "echo ok", "hang": "echo still here >/dev/console; sleep 100000"}
        # A guest on a busy machine may be slower than the limit; then it is ended before it hangs.
        for limit in (30, 60, 120, 240):
            with self.assertRaises(machine.GuestFailure) as caught:
                machine.Boot(Bare, BUILD, steps, timeLimit=limit)
            report = str(caught.exception)
            self.assertIn(f"still running after {limit} seconds and was ended", report)
            if "still here" in report:
                break
        self.assertIn("steps that came back: 000-setup, 001-first; missing: 002-hang, end", report)
        self.assertIn("still here", report.partition("the guest's console")[2])

    def testAGuestThatDiesInAStepIsAFailure(self):
        with self.assertRaises(machine.GuestFailure) as caught:
            machine.Boot(Bare, BUILD, {"die": "echo c >/proc/sysrq-trigger"})
        report = str(caught.exception)
        self.assertIn("went down before its last step", report)
        self.assertIn("Kernel panic", report.partition("the guest's console")[2])

    def testASetUpThatFailsEndsTheGuestAndSaysWhy(self):
        with self.assertRaises(machine.GuestFailure) as caught:
            machine.Boot(BareWithBrokenSetup, BUILD, {"never": "echo reached"})
        report = str(caught.exception)
        self.assertIn("missing: 001-never, end", report)
        self.assertIn("about to fail", report.partition("the guest's console")[2])
        self.assertIn("no_such_module", report.partition("the guest's console")[2])


class CommandLineTest(unittest.TestCase):
    def testATestTakesNothingIntoTheGuestThatItsTopologyDoesNotName(self):
        done = subprocess.run([HERE / "lab", "test", "one-of-each", "--add", "/bin/true"], capture_output=True, text=True,
                              check=False)
        self.assertEqual(2, done.returncode)
        self.assertIn("unrecognized arguments: --add /bin/true", done.stderr)

    def testAnUnknownTopologyIsAFailureOfTheLab(self):
        done = subprocess.run([HERE / "lab", "run", "nowhere"], capture_output=True, text=True, check=False)
        self.assertEqual(125, done.returncode)
        self.assertIn("there is no topology 'nowhere'", done.stderr)
        self.assertEqual("", done.stdout)

    def testEveryTopologyIsATest(self):
        listed = subprocess.run([HERE / "lab", "list"], capture_output=True, text=True, check=True).stdout
        names = {line.split()[0] for line in listed.splitlines()}
        registered = re.search(r"foreach\(topology ([^)]*)\)", (HERE / "CMakeLists.txt").read_text(encoding="ascii"))
        self.assertEqual(names, set(registered.group(1).split()))

    def testABuildWithoutTheProgramIsRefused(self):
        with tempfile.TemporaryDirectory() as empty, self.assertRaises(Problem):
            build.Find(empty)


class ImageTest(unittest.TestCase):
    def Modules(self, **choice):
        with tempfile.TemporaryDirectory() as root:
            Image(root).AddModules(kernel.Get(), **choice)
            return {path.name for path in Path(root).rglob("*.ko")}

    def testModulesComeWithTheirDependencies(self):
        self.assertTrue({"sg.ko", "nvme.ko", "nvme-core.ko", "sr_mod.ko", "cdrom.ko"} <= self.Modules())

    def testAModuleLeftOutIsNowhere(self):
        without = self.Modules(without=("sg",))
        self.assertNotIn("sg.ko", without)
        self.assertIn("sd_mod.ko", without)

    def testAModuleThatTheKernelLacksIsRefused(self):
        with self.assertRaises(Problem):
            self.Modules(extra=("no_such_module",))


class CacheTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.cache = Path(scratch.name) / "zendra-lab"
        before = os.environ.get("XDG_CACHE_HOME")
        self.addCleanup(lambda: os.environ.pop("XDG_CACHE_HOME") if before is None
                        else os.environ.update(XDG_CACHE_HOME=before))
        os.environ["XDG_CACHE_HOME"] = scratch.name

    def Entry(self, name, release, complete=True):
        boot = self.cache / name / "boot"
        boot.mkdir(parents=True)
        (boot / f"vmlinuz-{release}").touch()
        (self.cache / name / "package").write_text(name, encoding="ascii")
        if complete:
            (self.cache / name / "complete").touch()

    def testAnEntryThatIsNotCompleteIsNotUsed(self):
        self.Entry("linux-image-9-amd64_9-1", "9-amd64", complete=False)
        self.assertIsNone(kernel.Cached())
        self.Entry("linux-image-8-amd64_8-1", "8-amd64")
        self.assertEqual("8-amd64", kernel.Cached().release)

    def testTheNewestOfSeveralIsUsed(self):
        self.Entry("linux-image-10-amd64_10-1", "10-amd64")
        self.Entry("linux-image-9-amd64_9-1", "9-amd64")
        os.utime(self.cache / "linux-image-9-amd64_9-1" / "complete", (1, 1))
        self.assertEqual("10-amd64", kernel.Cached().release)


def Topological(steps):
    """A topology of which the guest has been run."""
    topology = Bare()
    topology.results = {name: StepResult(status, stdout.encode(), stderr.encode())
                        for name, (status, stdout, stderr) in steps.items()}
    return topology


class AssertionTest(unittest.TestCase):
    RECORD = Record("V", "P", "T", None, "1", (1, 0, 2, 0))

    def Document(self, **changes):
        record = {**self.RECORD, **changes}
        texts = ", ".join(f'"{name}": ' + ("null" if value is None else f'"{value}"' if isinstance(value, str)
                                           else str(value)) for name, value in record.items())
        return (f'{{"schema": "zddevices/1", "host": "lab-bare", "status": {{"code": 0, "name": "DEVICE_RESULT_OK"}}, '
                f'"devices": [{{{texts}}}]}}')

    def Check(self, document, status=0):
        topology = Topological({"scan": (status, document, "")})
        topology.AssertInventory("scan", {"code": 0, "name": "DEVICE_RESULT_OK"}, [self.RECORD])

    def testAnInventoryAsRequiredPasses(self):
        self.Check(self.Document())

    def testEveryDeviationOfAnInventoryFails(self):
        for name, document, status in (
                ("another text", self.Document(product="P "), 0),
                ("a number as text", self.Document(port="1"), 0),
                ("no JSON", "devices: 1", 0),
                ("an exit status", self.Document(), 1),
                ("a field too many", self.Document(colour="red"), 0),
                ("another status", self.Document().replace('"code": 0', '"code": 6'), 0),
                ("another host", self.Document().replace("lab-bare", "elsewhere"), 0)):
            with self.subTest(name), self.assertRaises(AssertionError):
                self.Check(document, status)

    def testLogEntriesAreFoundOnlyInOrder(self):
        topology = Topological({"scan": (0, "", "[4] a.cpp:1 first \n[1] a.cpp:2 second\nand its second line\n")})
        self.assertEqual([(4, "first "), (1, "second\nand its second line")], topology.Messages("scan"))
        topology.AssertLogs("scan", [(4, "first "), (1, "second\nand its second line")])
        for wrong in ([(1, "second\nand its second line"), (4, "first ")], [(4, "first")], [(1, "first ")]):
            with self.assertRaises(AssertionError):
                topology.AssertLogs("scan", wrong)
            with self.assertRaises(AssertionError):
                topology.AssertWholeLog("scan", wrong)

    def testRecordsFollowTheDirectory(self):
        topology = Topological({"dev": (0, "sg1\nsda1\nsg0\nsgx\n", ""),
                                "addresses": (0, "sg0 1:0:0:0\nsg1 2:0:0:0\nsda 1:0:0:0\n", "")})
        self.assertEqual(["two", "one"], topology.InDirectoryOrder("sg", {(1, 0, 0, 0): "one", (2, 0, 0, 0): "two"}))
        with self.assertRaises(AssertionError):
            topology.InDirectoryOrder("sg", {(1, 0, 0, 0): "one"})

    def testQemuSeesCommasInATextAsText(self):
        self.assertEqual(["-device", "scsi-hd,scsi-id=3,product=A,,B"], Device("scsi-hd", scsi_id=3, product="A,B"))


if __name__ == "__main__":
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--build", metavar="DIR")
    mine, rest = options.parse_known_args()
    BUILD = build.Find(mine.build)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
