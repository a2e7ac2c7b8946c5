#!/usr/bin/python3
"""The writer of the metrics: what it promises, what it does when it is ended or a call fails, and those who mean harm.

METRICS_WRITER names the program. Some of it needs root: there is somebody who owns the directory and is not root.
"""
import os
import re
import shutil
import stat
import struct
import subprocess
import sys
import tempfile
import time
import unittest

WRITER = os.environ["METRICS_WRITER"]
OLD = "zendra_old 1\n"
NEW = "zendra_new 1\n"
NEW_FILE = ".zddevices.prom.new"
NOBODY = 65534

# What the program does before its own first step is the loader's; nothing can go wrong for the file there.
FIRST_STEP = "O_PATH"
LAST_STEP = "exit_group"


class Case(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.directory)
        os.chmod(self.directory, 0o755)
        os.mkdir(self.path("out"))
        self.target = self.path("out", "zddevices.prom")
        self.fake = self.write("fake", "#!/bin/sh\necho zendra_new 1\n", 0o755)

    def path(self, *parts):
        return os.path.join(self.directory, *parts)

    def write(self, name, text, mode=0o644):
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(self.path(name), mode)
        return self.path(name)

    def write_old(self):
        return self.write(self.target, OLD)

    def read(self):
        with open(self.target, encoding="utf-8") as file:
            return file.read()

    def files(self):
        return sorted(os.listdir(self.path("out")))

    def environment(self, program=None, **more):
        return {**os.environ, "LC_ALL": "C", "ASAN_OPTIONS": "detect_leaks=0", "RUNTIME_DIRECTORY": self.path("run"),
                "ZDDEVICES": program or self.fake, **more}

    def run_writer(self, *arguments, directory=None, under=(), **environment):
        return subprocess.run([*under, WRITER, directory or self.path("out"), *arguments], capture_output=True,
                              text=True, check=False, stdin=subprocess.DEVNULL, timeout=60,
                              env=self.environment(**environment))

    def assert_written(self, result):
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))

    def assert_refused(self, result, reason, code=1):
        self.assertEqual((result.returncode, result.stdout), (code, ""))
        self.assertIn(reason, result.stderr)
        self.assertTrue(result.stderr.endswith("zddevices.prom stays as it was\n"), result.stderr)


class WriterTest(Case):
    def test_the_file_is_what_the_program_printed_and_readable_by_all(self):
        self.addCleanup(os.umask, os.umask(0o077))
        self.assert_written(self.run_writer())
        self.assertEqual(self.read(), NEW)
        self.assertEqual(stat.S_IMODE(os.stat(self.target).st_mode), 0o644)
        self.assertEqual(self.files(), ["zddevices.prom"])

    def test_a_long_exposition_is_written_whole(self):
        fake = self.write("long", "#!/bin/sh\nseq 1000000\n", 0o755)
        self.assert_written(self.run_writer(program=fake))
        self.assertEqual(self.read().split(), [str(number) for number in range(1, 1000001)])

    def test_the_program_is_asked_for_metrics_within_a_limit(self):
        fake = self.write("arguments", "#!/bin/sh\nprintf '%s\\n' \"$@\"\n", 0o755)
        self.run_writer("--type", "disk", program=fake, ZDDEVICES_SECONDS="7")
        self.assertEqual(self.read().split(), ["--format", "prometheus", "--timeout", "7", "--type", "disk"])

    def test_an_incomplete_answer_is_written(self):
        fake = self.write("incomplete", "#!/bin/sh\necho zendra_part 1\nexit 3\n", 0o755)
        self.assert_written(self.run_writer(program=fake))
        self.assertEqual(self.read(), "zendra_part 1\n")

    def test_a_failure_leaves_the_old_file_and_nothing_else(self):
        self.write_old()
        failing = self.write("failing", "#!/bin/sh\necho zendra_half\nexit 1\n", 0o755)
        killed = self.write("killed", "#!/bin/sh\necho zendra_half\nkill -KILL $$\n", 0o755)
        for program, code in ((failing, 1), (self.path("absent"), 127), ("/bin/false", 1), (killed, 137)):
            self.assert_refused(self.run_writer(program=program), f"zddevices failed with exit code {code}", code)
            self.assertEqual(self.read(), OLD)
            self.assertEqual(self.files(), ["zddevices.prom"])

    def test_what_is_no_directory_is_a_failure(self):
        self.assert_refused(self.run_writer(directory=self.path("absent")), "No such file or directory")
        self.assert_refused(self.run_writer(directory=self.fake), "Not a directory")

    def test_without_a_directory_it_says_what_it_takes(self):
        usage = subprocess.run([WRITER], capture_output=True, text=True, check=False)
        self.assertEqual((usage.returncode, usage.stderr), (1, "usage: zddevices-textfile DIRECTORY [ARGUMENT ...]\n"))

    def test_a_directory_may_be_named_from_where_one_stands(self):
        os.chdir(self.directory)
        self.addCleanup(os.chdir, "/")
        self.assert_written(self.run_writer(directory="./out//"))
        self.assertEqual(self.read(), NEW)

    def test_a_process_that_hangs_does_not_keep_the_next_run_waiting(self):
        fake = self.write("hanging", "#!/bin/sh\n"
                                     f"sleep 600 >/dev/null 2>&1 & echo $! >{self.path('pid')}\necho a 1\n", 0o755)
        try:
            self.assert_written(self.run_writer(program=fake))
            self.assert_written(self.run_writer(ZDDEVICES_SECONDS="0"))
        finally:
            with open(self.path("pid"), encoding="ascii") as file:
                os.kill(int(file.read()), 9)

    def hold_lock(self, seconds):
        os.makedirs(self.path("run"), exist_ok=True)
        holder = subprocess.Popen(["flock", "--no-fork", self.path("run", "lock"), "sh", "-c", f"echo held; exec sleep {seconds}"],
                                  stdout=subprocess.PIPE)
        self.addCleanup(holder.stdout.close)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.kill)
        self.assertEqual(holder.stdout.readline(), b"held\n")

    def test_another_run_is_waited_for(self):
        self.hold_lock(1)
        self.assert_written(self.run_writer())

    def test_another_run_is_waited_for_no_longer_than_its_scan_may_take(self):
        self.write_old()
        self.hold_lock(600)
        begun = time.monotonic()
        self.assert_refused(self.run_writer(ZDDEVICES_SECONDS="1"), "another run holds")
        self.assertTrue(1 <= time.monotonic() - begun < 20)
        self.assertEqual(self.read(), OLD)


class StepTest(Case):
    """The writer, ended before each of its system calls, or with each of them failing."""

    def setUp(self):
        super().setUp()
        self.write_old()
        trace = self.path("trace")
        self.assert_written(self.run_writer(under=["strace", "-o", trace]))
        calls = []
        with open(trace, encoding="utf-8") as file:
            for line in file:
                name = re.match(r"\w+(?=\()", line)
                if name:
                    calls.append((name[0], line))
        seen = {}
        self.steps = []
        begun = False
        for name, line in calls:
            seen[name] = seen.get(name, 0) + 1
            begun = begun or FIRST_STEP in line
            if begun:
                self.steps.append((name, seen[name]))
        self.assertEqual(self.steps[-1][0], LAST_STEP)

    def inject(self, step, what):
        name, number = step
        return self.run_writer(under=["strace", "-o", "/dev/null", "-e", f"inject={name}:{what}:when={number}"])

    def test_the_content_is_on_the_disk_before_the_file_has_its_name(self):
        names = [name for name, _ in self.steps if name in ("unlinkat", "sendfile", "fchmod", "fsync", "renameat")]
        self.assertEqual(names, ["unlinkat", "sendfile", "fchmod", "fsync", "renameat", "fsync"])

    def test_ended_at_any_step_it_leaves_the_old_file_or_the_new_one_whole(self):
        seen, left = set(), set()
        for step in self.steps:
            self.write_old()
            self.assertEqual(self.inject(step, "signal=KILL").returncode, -9, step)
            seen.add(self.read())
            self.assertIn(self.read(), (OLD, NEW), step)
            left.update(self.files())
            self.assert_written(self.run_writer())
            self.assertEqual(self.files(), ["zddevices.prom"], "what was left behind")
        self.assertEqual(seen, {OLD, NEW})
        self.assertEqual(left, {"zddevices.prom", NEW_FILE})

    def test_a_call_that_fails_leaves_the_old_file_or_the_new_one_whole(self):
        codes = set()
        for step in self.steps[:-1]:
            self.write_old()
            result = self.inject(step, "error=EIO")
            codes.add(result.returncode)
            if result.returncode == 0:
                self.assert_written(result)
            else:
                self.assertIn("stays as it was", result.stderr, step)
            self.assertEqual(self.read(), OLD if result.returncode else NEW, step)
            self.assertEqual(self.files(), ["zddevices.prom"], step)
        self.assertEqual(codes, {0, 1, 127})

    def test_a_full_disk_leaves_the_old_file_and_nothing_else(self):
        fake = self.write("long", "#!/bin/sh\nseq 100000\n", 0o755)
        # Other rights are enough for a mount of one's own.
        alone = ["unshare", "--mount"] if os.geteuid() == 0 else ["unshare", "--mount", "--user", "--map-root-user"]
        if subprocess.run([*alone, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("a mount namespace takes root here")
        script = ('mount -t tmpfs -o size=64k tmpfs "$2" && printf "zendra_old 1\\n" >"$2/zddevices.prom" || exit 99\n'
                  '"$1" "$2"; code=$?\n'
                  'ls -A "$2"; cat "$2/zddevices.prom"; exit $code\n')
        result = subprocess.run([*alone, "sh", "-c", script, "sh", WRITER, self.path("out")], capture_output=True,
                                text=True, check=False, env=self.environment(program=fake), timeout=60)
        self.assertEqual((result.returncode, result.stdout), (1, "zddevices.prom\n" + OLD))
        self.assertIn("No space left on device", result.stderr)


@unittest.skipUnless(os.geteuid() == 0, "root is needed, whom somebody else could harm")
class AttackTest(Case):
    """The directory and the one above it belong to somebody who wants root to write elsewhere."""

    def setUp(self):
        super().setUp()
        os.mkdir(self.path("home"))
        os.rename(self.path("out"), self.path("home", "out"))
        self.target = self.path("home", "out", "zddevices.prom")
        self.write_old()
        self.secret = self.write("secret", "keep me", 0o600)
        os.mkdir(self.path("system"), 0o755)
        for name in ("home", "home/out"):
            os.chown(self.path(name), NOBODY, NOBODY)
        self.before = self.look()

    def look(self):
        """What the attacker must not change."""
        secret = os.stat(self.secret)
        with open(self.secret, encoding="utf-8") as file:
            return (file.read(), secret.st_mode, secret.st_uid, secret.st_mtime_ns, os.listdir(self.path("system")),
                    os.stat(self.path("system")).st_mode)

    def out(self, *parts):
        return self.path("home", "out", *parts)

    def as_nobody(self, script, **more):
        return subprocess.Popen(["sh", "-c", script, "sh", self.directory], user=NOBODY, group=NOBODY, extra_groups=[],
                                cwd="/", **more)

    def attack(self, script):
        self.assertEqual(self.as_nobody("set -e; cd $1/home; " + script).wait(), 0)

    def run_here(self, **more):
        return self.run_writer(directory=self.path("home", "out"), **more)

    def assert_no_harm(self):
        self.assertEqual(self.look(), self.before)

    # Before the scan.

    def test_links_in_place_of_the_files_are_replaced(self):
        for name in (NEW_FILE, "zddevices.prom"):
            for link in ("ln -sf ../../secret", "ln -sf ../../system/new"):
                self.attack(f"{link} out/{name}")
                self.assert_written(self.run_here())
                self.assert_no_harm()
                self.assertFalse(os.path.islink(self.target))
                self.assertEqual(self.read(), NEW)
                self.assertEqual(os.listdir(self.out()), ["zddevices.prom"])

    def test_a_second_name_of_another_file_is_replaced(self):
        # The kernel lets nobody make one of a file of root's, unless it is told otherwise.
        for name in (NEW_FILE, "zddevices.prom"):
            if os.path.exists(self.out(name)):
                os.unlink(self.out(name))
            os.link(self.secret, self.out(name))
            self.assert_written(self.run_here())
            self.assert_no_harm()
            self.assertEqual(self.read(), NEW)

    def test_a_directory_or_a_pipe_in_place_of_a_file_holds_nobody_up(self):
        self.attack(f"mkfifo out/{NEW_FILE}; rm out/zddevices.prom; mkfifo out/zddevices.prom")
        self.assert_written(self.run_here())
        self.assertEqual(self.read(), NEW)
        self.attack(f"mkdir out/{NEW_FILE}")
        self.assert_refused(self.run_here(), "cannot make the new file: File exists")
        self.attack(f"rmdir out/{NEW_FILE}; rm -f out/zddevices.prom; mkdir out/zddevices.prom")
        self.assert_refused(self.run_here(), "cannot rename the new file: Is a directory")
        self.assertEqual(os.listdir(self.out()), ["zddevices.prom"])

    def test_a_link_in_place_of_the_directory_is_refused(self):
        self.attack("mv out aside; ln -s ../system out")
        self.assert_refused(self.run_here(), "of which no part may be a link")
        self.assert_no_harm()

    def test_a_link_above_the_directory_is_refused(self):
        os.mkdir(self.path("system", "out"))
        self.before = self.look()
        self.attack("mkdir sub; mv out sub; mv sub aside; ln -s ../system sub")
        self.assert_refused(self.run_writer(directory=self.path("home", "sub", "out")), "of which no part may be a link")
        self.assert_no_harm()
        self.assertEqual(os.listdir(self.path("system", "out")), [])

    # During and after it.

    def run_attacked(self, script, step=None):
        """The writer with a scan in which somebody runs a script, or with one that somebody runs before a system call."""
        script = "cd $1/home; " + script
        self.write("attack", script, 0o755)
        attack = f"setpriv --reuid {NOBODY} --regid {NOBODY} --clear-groups sh {self.path('attack')} {self.directory}"
        if step is None:
            return self.run_here(program=self.write("attacked", f"#!/bin/sh\n{attack} || exit 9\necho zendra_new 1\n",
                                                    0o755))
        trace = self.path("trace")
        with self.as_nobody(f"until [ -e $1/home/out/{NEW_FILE} ]; do sleep 0.01; done; {script}") as attacker:
            try:
                result = self.run_here(under=["strace", "-o", trace, "-e", f"inject={step}:delay_enter=1000000"])
                self.assertEqual(attacker.wait(timeout=20), 0)
            finally:
                attacker.kill()
        return result

    MOVED_AWAY = "mv out aside && ln -s ../system out"
    PLANTED = f"rm -f out/{NEW_FILE} && ln -s ../../secret out/{NEW_FILE}"

    def test_a_directory_that_is_moved_away_during_the_scan_is_the_one_that_is_written(self):
        self.assert_written(self.run_attacked(self.MOVED_AWAY))
        self.assert_no_harm()
        with open(self.path("home", "aside", "zddevices.prom"), encoding="utf-8") as file:
            self.assertEqual(file.read(), NEW)

    def test_a_link_that_is_laid_during_the_scan_is_replaced(self):
        self.assert_written(self.run_attacked(self.PLANTED))
        self.assert_no_harm()
        self.assertEqual(self.read(), NEW)

    def test_whatever_happens_between_the_steps_nothing_else_is_written(self):
        for step in ("sendfile", "fchmod", "fsync", "renameat"):
            for script in (self.MOVED_AWAY, self.PLANTED, f"rm -f out/{NEW_FILE}"):
                with self.subTest(step=step, script=script):
                    self.run_attacked(script, step)
                    self.assert_no_harm()
                    self.restore()

    def restore(self):
        if os.path.islink(self.out()):
            os.unlink(self.out())
            os.rename(self.path("home", "aside"), self.out())
        for name in os.listdir(self.out()):
            os.unlink(self.out(name))

    def test_the_directory_s_access_list_opens_the_file_to_nobody(self):
        # Version 2; tag, permissions and user of: the owner, nobody, the group, the mask, others. All may do all.
        entries = [(0x01, 7, -1), (0x02, 7, NOBODY), (0x04, 7, -1), (0x10, 7, -1), (0x20, 7, -1)]
        access = struct.pack("<I", 2) + b"".join(struct.pack("<HHi", *entry) for entry in entries)
        try:
            os.setxattr(self.out(), "system.posix_acl_default", access)
        except OSError as error:
            self.skipTest(f"no access lists here: {error}")
        script = "! (: >>out/%s) 2>/dev/null"
        self.assert_written(self.run_attacked(script % NEW_FILE, "sendfile"))
        self.assert_written(self.run_attacked(script % NEW_FILE, "fsync"))
        self.attack(script % "zddevices.prom")
        self.assertEqual(self.read(), NEW)

    def test_nobody_wins_a_race(self):
        script = (f"cd $1/home; echo begun; while :; do {self.MOVED_AWAY}; rm out; mv aside out; "
                  f"ln -s ../../secret out/{NEW_FILE}; ln -sf ../../secret out/zddevices.prom; done 2>/dev/null")
        with self.as_nobody(script, stdout=subprocess.PIPE) as attacker:
            try:
                attacker.stdout.readline()
                codes = {self.run_here().returncode for _ in range(150)}
            finally:
                attacker.kill()
                # Ends when the command that the shell was at has ended, too.
                attacker.stdout.read()
        self.assertLessEqual(codes, {0, 1})
        self.assert_no_harm()

    # The lock.

    def test_a_lock_on_what_somebody_may_open_holds_nobody_up(self):
        script = ("cd $1/home; exec 7<. 8<out 9<out/zddevices.prom; flock 7; flock 8; flock 9; echo held; "
                  "exec sleep 60")
        with self.as_nobody(script, stdout=subprocess.PIPE) as attacker:
            try:
                self.assertEqual(attacker.stdout.readline(), b"held\n")
                self.assert_written(self.run_here(ZDDEVICES_SECONDS="0"))
            finally:
                attacker.kill()

    def test_the_lock_is_root_s_alone(self):
        self.assert_written(self.run_here())
        self.assertEqual(stat.S_IMODE(os.stat(self.path("run")).st_mode), 0o700)
        self.assertNotEqual(self.as_nobody("flock -n $1/run/lock true 2>/dev/null").wait(), 0)
        self.assertNotEqual(self.as_nobody("flock -n $1/run true 2>/dev/null").wait(), 0)
        os.chmod(self.path("run"), 0o755)
        self.assertNotEqual(self.as_nobody("flock -n $1/run/lock true 2>/dev/null").wait(), 0)


if __name__ == "__main__":
    outcome = unittest.main(verbosity=2, exit=False).result
    sys.exit(1 if not outcome.wasSuccessful() else 77 if len(outcome.skipped) == outcome.testsRun else 0)
