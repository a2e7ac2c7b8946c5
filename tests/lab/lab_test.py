#!/usr/bin/python3
"""The lab's own promises: what a person or a test gets back from a guest, above all from one that fails."""

import argparse
import dataclasses
import lzma
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import unittest.mock
from pathlib import Path

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

from labkit import build, kernel, machine, programs  # noqa: E402
from labkit.image import Image  # noqa: E402
from labkit.machine import StepResult  # noqa: E402
from labkit.problem import Problem  # noqa: E402
from labkit.topology import Topology, device_record, qemu_device  # noqa: E402
from topologies import one_of_each  # noqa: E402

BUILD = None


class Bare(Topology):
    """Nothing attached, nothing set up: the quickest guest."""

    name = "bare"
    about = "for the tests of the lab itself"


class BareWithBrokenSetup(Bare):
    setup = "echo 'about to fail' >&2; modprobe no_such_module"


class GuestTest(unittest.TestCase):
    def test_steps_come_back_byte_for_byte_with_their_status(self):
        results = machine.boot(Bare, BUILD, {
            "bytes": r"printf '\000\377\r\n'; printf 'to the other stream' >&2; exit 7",
            "large": "head -c 3000000 /dev/zero | tr '\\0' x",
            "silent": "true",
        })
        self.assertEqual(StepResult(7, b"\x00\xff\r\n", b"to the other stream"), results["bytes"])
        self.assertEqual(StepResult(0, b"x" * 3000000, b""), results["large"])
        self.assertEqual(StepResult(0, b"", b""), results["silent"])

    def test_the_shell_modprobe_and_what_is_added_are_as_on_a_host_and_not_busybox(self):
        class Added(Bare):
            pass

        with tempfile.TemporaryDirectory() as directory:
            program = Path(directory) / "lsscsi"  # busybox has one, too
            program.write_text("#!/bin/sh\necho 'the one that was added'\n", encoding="ascii")
            program.chmod(0o755)
            Added.additions = [(program, None)]
            results = machine.boot(Added, BUILD, {
                "shells": "readlink /proc/$$/exe; sh -c 'readlink /proc/$$/exe'",
                "modprobe": "modprobe --version",
                "added": "lsscsi",
            })
        self.assertEqual(b"/usr/bin/sh\n/usr/bin/sh\n", results["shells"].stdout)
        self.assertRegex(results["modprobe"].stdout, b"^kmod version")
        self.assertEqual(b"the one that was added\n", results["added"].stdout)

    def test_a_guest_that_hangs_is_ended_and_its_console_shown(self):
        steps = {"first": "echo ok", "hang": "echo still here >/dev/console; sleep 100000"}
        # A guest on a busy machine may be slower than the limit; then it is ended before it hangs.
        for limit in (30, 60, 120, 240):
            with self.assertRaises(machine.GuestFailure) as caught:
                machine.boot(Bare, BUILD, steps, time_limit=limit)
            report = str(caught.exception)
            self.assertIn(f"still running after {limit} seconds and was ended", report)
            if "still here" in report:
                break
        self.assertIn("steps that came back: 000-setup, 001-first; missing: 002-hang, end", report)
        self.assertIn("still here", report.partition("the guest's console")[2])

    def test_a_guest_that_dies_in_a_step_is_a_failure(self):
        with self.assertRaises(machine.GuestFailure) as caught:
            machine.boot(Bare, BUILD, {"die": "echo c >/proc/sysrq-trigger"})
        report = str(caught.exception)
        self.assertIn("went down before its last step", report)
        self.assertIn("Kernel panic", report.partition("the guest's console")[2])

    def test_a_set_up_that_fails_ends_the_guest_and_says_why(self):
        with self.assertRaises(machine.GuestFailure) as caught:
            machine.boot(BareWithBrokenSetup, BUILD, {"never": "echo reached"})
        report = str(caught.exception)
        self.assertIn("missing: 001-never, end", report)
        self.assertIn("about to fail", report.partition("the guest's console")[2])
        self.assertIn("no_such_module", report.partition("the guest's console")[2])


class CommandLineTest(unittest.TestCase):
    def test_a_file_to_add_that_is_not_there_is_named_by_every_command(self):
        for command in ("run", "shell", "test"):
            done = subprocess.run([HERE / "lab", command, "empty", "--build", BUILD.programs[0].parent,
                                   "--add", "/no/such/file"], capture_output=True, text=True, check=False)
            self.assertNotEqual(0, done.returncode)
            self.assertIn("/no/such/file does not exist", done.stdout + done.stderr)

    def test_a_host_without_the_programs_of_a_topologys_test_can_run_its_inventory(self):
        with tempfile.TemporaryDirectory() as others:
            for program in Path("/usr/bin").iterdir():
                if program.name not in one_of_each.OneOfEach.programs:
                    (Path(others) / program.name).symlink_to(program)
            done = subprocess.run([HERE / "lab", "run", "--build", BUILD.programs[0].parent, "one-of-each"],
                                  capture_output=True, text=True, check=False, env={**os.environ, "PATH": others})
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        self.assertIn("HX-00017", done.stdout)

    def test_an_unknown_topology_is_a_failure_of_the_lab(self):
        done = subprocess.run([HERE / "lab", "run", "nowhere"], capture_output=True, text=True, check=False)
        self.assertEqual(125, done.returncode)
        self.assertIn("there is no topology 'nowhere'", done.stderr)
        self.assertEqual("", done.stdout)

    def test_a_topology_is_refused_on_an_architecture_that_lacks_its_devices(self):
        done = subprocess.run([HERE / "lab", "run", "--arch", "s390x", "one-of-each"], capture_output=True, text=True,
                              check=False)
        self.assertEqual(125, done.returncode)
        self.assertIn("topology one-of-each is for amd64, not for s390x", done.stderr)

    def test_every_topology_is_a_test(self):
        listed = subprocess.run([HERE / "lab", "list"], capture_output=True, text=True, check=True).stdout
        names = {line.split()[0] for line in listed.splitlines()}
        registered = re.search(r"foreach\(topology ([^)]*)\)", (HERE / "CMakeLists.txt").read_text(encoding="ascii"))
        self.assertEqual(names, set(registered.group(1).split()))

    def test_a_build_without_the_program_is_refused(self):
        with tempfile.TemporaryDirectory() as empty, self.assertRaises(Problem):
            build.find(empty)


class ImageTest(unittest.TestCase):
    def modules(self, **choice):
        with tempfile.TemporaryDirectory() as root:
            Image(root).add_modules(kernel.get(), **choice)
            return {path.name for path in Path(root).rglob("*.ko")}

    def test_modules_come_with_their_dependencies(self):
        self.assertTrue({"sg.ko", "nvme.ko", "nvme-core.ko", "sr_mod.ko", "cdrom.ko"} <= self.modules())

    def test_a_module_left_out_is_nowhere(self):
        without = self.modules(without=("sg",))
        self.assertNotIn("sg.ko", without)
        self.assertIn("sd_mod.ko", without)

    def test_compressed_modules_are_as_others_in_the_guest(self):
        debian = kernel.get()
        with tempfile.TemporaryDirectory() as root:
            modules = Path(root) / "lib/modules" / debian.release
            shutil.copytree(debian.modules, modules)
            for path in modules.rglob("*.ko"):
                path.with_suffix(".ko.xz").write_bytes(lzma.compress(path.read_bytes(), preset=0))
                path.unlink()
            dependencies = (modules / "modules.dep").read_text(encoding="ascii")
            (modules / "modules.dep").write_text(re.sub(r"\.ko\b(?!\.)", ".ko.xz", dependencies), encoding="ascii")
            with unittest.mock.patch.object(kernel, "get", lambda: dataclasses.replace(debian, root=Path(root))):
                self.assertTrue({"sg.ko", "nvme.ko", "nvme-core.ko"} <= self.modules())

    def test_a_module_that_the_kernel_lacks_is_refused(self):
        with self.assertRaises(Problem):
            self.modules(extra=("no_such_module",))


class CacheTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.cache = Path(scratch.name) / "zendra-lab"
        before = os.environ.get("XDG_CACHE_HOME")
        self.addCleanup(lambda: os.environ.pop("XDG_CACHE_HOME") if before is None
                        else os.environ.update(XDG_CACHE_HOME=before))
        os.environ["XDG_CACHE_HOME"] = scratch.name

    def entry(self, name, release, complete=True):
        boot = self.cache / name / "boot"
        boot.mkdir(parents=True)
        (boot / f"vmlinuz-{release}").touch()
        (self.cache / name / "package").write_text(name, encoding="ascii")
        if complete:
            (self.cache / name / "complete").touch()

    def program(self, name, text):
        path = Path(self.programs.name) / name
        path.write_text(f"#!/bin/sh\n{text}\n", encoding="ascii")
        path.chmod(0o755)

    def make_mirror(self):
        """A directory for programs in place of the host's, among them one that knows a kernel."""
        self.programs = tempfile.TemporaryDirectory()
        self.addCleanup(self.programs.cleanup)
        self.program("apt-cache", """case $1 in
            depends) echo '  Depends: linux-image-9-amd64' ;;
            show) echo 'Version: 9-1' ;;
            esac""")

    def test_a_try_that_fails_keeps_what_it_has_downloaded(self):
        self.make_mirror()
        downloads = Path(self.programs.name) / "downloads"
        self.program("apt-get", f"echo once >>{downloads}; touch linux-image.deb")
        self.program("depmod", "true")
        with unittest.mock.patch.dict(os.environ, PATH=f"{self.programs.name}:{os.environ['PATH']}"):
            self.program("dpkg-deb", "echo 'no space left'; exit 1")
            with self.assertRaisesRegex(Problem, "no space left"):
                kernel.prepare()
            self.assertIsNone(kernel.cached())
            self.program("dpkg-deb", 'mkdir -p "$3/lib/modules/9-amd64" "$3/boot" && touch "$3/boot/vmlinuz-9-amd64"')
            self.assertEqual("9-amd64", kernel.prepare().release)
        self.assertEqual("once\n", downloads.read_text(encoding="ascii"))
        self.assertEqual({"linux-image-9-amd64_9-1", "lock"}, {path.name for path in self.cache.iterdir()})

    def test_a_package_may_have_its_modules_below_usr(self):
        self.make_mirror()
        self.program("apt-get", "touch linux-image.deb")
        self.program("depmod", 'test -e "$2/lib/modules/$3/modules.order"')
        self.program("dpkg-deb", 'mkdir -p "$3/usr/lib/modules/9-amd64" "$3/boot" && touch "$3/boot/vmlinuz-9-amd64" '
                                 '"$3/usr/lib/modules/9-amd64/modules.order"')
        with unittest.mock.patch.dict(os.environ, PATH=f"{self.programs.name}:{os.environ['PATH']}"):
            prepared = kernel.prepare()
        self.assertTrue((prepared.modules / "modules.order").exists())

    def test_nothing_is_downloaded_for_a_host_that_lacks_a_program(self):
        with unittest.mock.patch.object(programs, "find", lambda name: None if name == "depmod" else "/bin/false"):
            with self.assertRaisesRegex(Problem, "depmod is not installed"):
                kernel.prepare()

    def test_an_entry_that_is_not_complete_is_not_used(self):
        self.entry("linux-image-9-amd64_9-1", "9-amd64", complete=False)
        self.assertIsNone(kernel.cached())
        self.entry("linux-image-8-amd64_8-1", "8-amd64")
        self.assertEqual("8-amd64", kernel.cached().release)

    def test_the_newest_of_several_is_used(self):
        self.entry("linux-image-10-amd64_10-1", "10-amd64")
        self.entry("linux-image-9-amd64_9-1", "9-amd64")
        os.utime(self.cache / "linux-image-9-amd64_9-1" / "complete", (1, 1))
        self.assertEqual("10-amd64", kernel.cached().release)


def topological(steps):
    """A topology of which the guest has been run."""
    topology = Bare()
    topology.results = {name: StepResult(status, stdout.encode(), stderr.encode())
                        for name, (status, stdout, stderr) in steps.items()}
    return topology


class AssertionTest(unittest.TestCase):
    RECORD = device_record("V", "P", "T", None, "1", (1, 0, 2, 0))

    def make_document(self, **changes):
        record = {**self.RECORD, **changes}
        texts = ", ".join(f'"{name}": ' + ("null" if value is None else f'"{value}"' if isinstance(value, str)
                                           else str(value)) for name, value in record.items())
        return (f'{{"schema": "zddevices/1", "host": "lab-bare", "status": {{"code": 0, "name": "DEVICE_RESULT_OK"}}, '
                f'"devices": [{{{texts}}}]}}')

    def check(self, document, status=0):
        topology = topological({"scan": (status, document, "")})
        topology.assert_inventory("scan", {"code": 0, "name": "DEVICE_RESULT_OK"}, [self.RECORD])

    def test_an_inventory_as_required_passes(self):
        self.check(self.make_document())

    def test_every_deviation_of_an_inventory_fails(self):
        for name, document, status in (
                ("another text", self.make_document(product="P "), 0),
                ("a number as text", self.make_document(port="1"), 0),
                ("no JSON", "devices: 1", 0),
                ("an exit status", self.make_document(), 1),
                ("a field too many", self.make_document(colour="red"), 0),
                ("another status", self.make_document().replace('"code": 0', '"code": 6'), 0),
                ("another host", self.make_document().replace("lab-bare", "elsewhere"), 0)):
            with self.subTest(name), self.assertRaises(AssertionError):
                self.check(document, status)

    def test_log_entries_are_found_only_in_order(self):
        topology = topological({"scan": (0, "", "[4] a.cpp:1 first \n[1] a.cpp:2 second\nzddevices: it ran\n"),
                                "torn": (0, "", "[4] a.cpp:1 first \nand its second line\n")})
        self.assertEqual([(4, "first "), (1, "second")], topology.messages("scan"))
        topology.assert_logs("scan", [(4, "first "), (1, "second")])
        with self.assertRaises(AssertionError):
            topology.messages("torn")
        for wrong in ([(1, "second"), (4, "first ")], [(4, "first")], [(1, "first ")]):
            with self.assertRaises(AssertionError):
                topology.assert_logs("scan", wrong)
            with self.assertRaises(AssertionError):
                topology.assert_whole_log("scan", wrong)

    def test_records_follow_the_directory(self):
        topology = topological({"dev": (0, "sg1\nsda1\nsg0\nsgx\n", ""),
                                "addresses": (0, "sg0 1:0:0:0\nsg1 2:0:0:0\nsda 1:0:0:0\n", "")})
        self.assertEqual(["two", "one"], topology.in_directory_order("sg", {(1, 0, 0, 0): "one", (2, 0, 0, 0): "two"}))
        with self.assertRaises(AssertionError):
            topology.in_directory_order("sg", {(1, 0, 0, 0): "one"})

    def test_qemu_sees_commas_in_a_text_as_text(self):
        self.assertEqual(["-device", "scsi-hd,scsi-id=3,product=A,,B"],
                         qemu_device("scsi-hd", scsi_id=3, product="A,B"))


if __name__ == "__main__":
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--build", metavar="DIR")
    mine, rest = options.parse_known_args()
    BUILD = build.find(mine.build)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
