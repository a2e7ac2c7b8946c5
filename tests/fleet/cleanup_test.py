#!/usr/bin/python3
"""Test hosts leave nothing behind, however the test that has them ends.

    cleanup_test.py --devices LIBRARY --make-devices PROGRAM
"""
import os
import pathlib
import re
import signal
import subprocess
import sys
import time
import unittest

sys.dont_write_bytecode = True
import network  # noqa: E402
import test_hosts  # noqa: E402

SKIP = 77


def hold():
    """Has two hosts until its input ends; then ends as its argument says."""
    network.enter()
    ending, devices, make_devices = sys.argv[2:5]
    with network.Network(devices, make_devices) as hosts:
        hosts.start([test_hosts.TestHost("one"), test_hosts.TestHost("two")])
        print(os.environ[network.INSIDE], flush=True)
        sys.stdin.read()
        if ending == "fails":
            raise network.Failure("as asked for")


def processes_of(directory):
    """The processes of these hosts, in whatever namespace they are: they see the directory among their mounts."""
    found = []
    for process in pathlib.Path("/proc").iterdir():
        if process.name.isdigit():
            try:
                # sshd writes its title over its environment; unshare itself stays outside.
                if any(directory.encode() in (process / file).read_bytes() for file in ("environ", "mountinfo")):
                    found.append(int(process.name))
            except OSError:
                pass
    return found


class CleanupTest(unittest.TestCase):
    def setUp(self):
        self.interfaces = pathlib.Path("/proc/net/dev").read_text(encoding="ascii").count(":")

    def start(self, ending):
        holder = subprocess.Popen(
            ["/usr/bin/python3", __file__, "hold", ending] + PROGRAMS,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
        )
        self.addCleanup(holder.stdout.close)
        self.addCleanup(holder.stdin.close)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.kill)
        directory = holder.stdout.readline().strip()
        self.assertRegex(directory, r"/fleet\.\w+$")
        # Two hosts with an sshd each, and those that keep them.
        self.assertGreaterEqual(len(processes_of(directory)), 6)
        return holder, directory

    def check_nothing_is_left(self, directory):
        # Killed processes take a moment to be gone.
        for _ in range(300):
            if not processes_of(directory):
                break
            time.sleep(0.1)
        self.assertEqual(processes_of(directory), [])
        mounts = pathlib.Path("/proc/self/mountinfo").read_text(encoding="utf-8")
        self.assertIsNone(re.search(re.escape(directory), mounts))
        interfaces = pathlib.Path("/proc/net/dev").read_text(encoding="ascii").count(":")
        self.assertEqual(interfaces, self.interfaces)

    def test_an_end_as_usual_leaves_nothing(self):
        holder, directory = self.start("ends")
        holder.stdin.close()
        self.assertEqual(holder.wait(), 0)
        self.check_nothing_is_left(directory)
        self.assertFalse(os.path.exists(directory))

    def test_a_failure_leaves_nothing(self):
        holder, directory = self.start("fails")
        holder.stdin.close()
        self.assertNotEqual(holder.wait(), 0)
        self.check_nothing_is_left(directory)
        self.assertFalse(os.path.exists(directory))

    def test_an_interrupted_test_leaves_nothing(self):
        holder, directory = self.start("ends")
        holder.terminate()
        self.assertNotEqual(holder.wait(), 0)
        self.check_nothing_is_left(directory)
        self.assertFalse(os.path.exists(directory))

    def test_a_killed_test_leaves_an_empty_directory(self):
        holder, directory = self.start("ends")
        holder.send_signal(signal.SIGKILL)
        holder.wait()
        self.check_nothing_is_left(directory)
        # Fails unless it is empty.
        os.rmdir(directory)


if __name__ == "__main__":
    if sys.argv[1] == "hold":
        hold()
        sys.exit(0)
    WHY_NOT = network.missing()
    if WHY_NOT:
        print("skipped: " + WHY_NOT)
        sys.exit(1 if os.environ.get("CI") == "true" else SKIP)
    PROGRAMS = [os.path.abspath(sys.argv[index]) for index in (2, 4)]
    unittest.main(argv=sys.argv[:1], verbosity=2)
