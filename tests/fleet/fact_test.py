#!/usr/bin/python3
"""The custom fact with programs in the place of zddevices that do what it should never do.

    fact_test.py TEMPLATE
"""
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import jinja2

TEMPLATE = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8")

# Ample for those that answer; those that do not are waited for as long as this.
SECONDS = 60

GOOD = 'printf \'{"schema":"%s","complete":true}\' "${5-inventory}"'


class FactTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.directory = pathlib.Path(scratch.name)

    def place(self, script=None, mode=0o755, seconds=SECONDS):
        """The fact, and this script as zddevices."""
        fact = self.directory / "zddevices.fact"
        content = jinja2.Template(TEMPLATE, keep_trailing_newline=True).render(zddevices_fact_seconds=seconds)
        fact.write_text(content, encoding="utf-8")
        if script is not None:
            program = self.directory / "zddevices"
            program.write_text("#!/bin/sh\n" + script + "\n", encoding="utf-8")
            program.chmod(mode)

    def start(self):
        return subprocess.Popen(
            ["/usr/bin/python3", str(self.directory / "zddevices.fact")],
            env={"PATH": "%s:/usr/bin:/bin" % self.directory, "LC_ALL": "C"},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )

    def ask(self, *arguments, **options):
        """What the fact says when zddevices is this script."""
        self.place(*arguments, **options)
        with self.start() as fact:
            answer, complaints = fact.communicate()
        self.assertEqual((fact.returncode, complaints), (0, b""))
        return json.loads(answer)

    @staticmethod
    def reasons(answer):
        return [(one["reason"], one["document"]) for one in answer["problems"]]

    def all_documents(self, reason):
        return [(reason, document) for document in ("inventory", "firmware", "optical")]

    def test_three_documents_are_asked_for_with_the_limit(self):
        answer = self.ask('printf \'{"asked":"%s"}\' "$*"')
        for document, word in (("inventory", ""), ("firmware", " firmware"), ("optical", " optical")):
            self.assertEqual(answer[document], {"asked": "--timeout 60.0 --format json" + word})
        self.assertEqual(answer["problems"], [])

    def test_the_program_is_looked_for_where_roots_programs_are(self):
        answer = self.ask('printf \'{"path":"%s"}\' "$PATH"')
        self.assertEqual(answer["inventory"]["path"].split(":")[-3:], ["/usr/local/sbin", "/usr/sbin", "/sbin"])

    def test_it_answers_before_ansible_gives_up(self):
        grace = float(re.search(r"^GRACE = (.*)$", TEMPLATE, re.MULTILINE)[1])
        defaults = pathlib.Path(sys.argv[1]).parents[1] / "defaults/main.yml"
        seconds = float(re.search(r"^zddevices_fact_seconds: (.*)$", defaults.read_text("ascii"), re.MULTILINE)[1])
        # Ansible waits for 10 seconds, and Python has to start in them.
        self.assertLessEqual(seconds + grace, 9)

    def test_a_program_that_is_not_there_is_not_installed(self):
        # Where the machine has the program itself, its directories are searched behind PATH.
        if any(os.path.exists(place + "/zddevices") for place in ("/usr/local/sbin", "/usr/sbin", "/sbin", "/usr/bin")):
            self.skipTest("zddevices is installed on this machine")
        answer = self.ask()
        self.assertEqual(self.reasons(answer), self.all_documents("not_installed"))
        self.assertEqual([answer[name] for name in ("inventory", "firmware", "optical")], [None] * 3)

    def test_devices_that_gave_no_answer_have_their_reason(self):
        def answer_with(*reasons):
            text = json.dumps({"unanswered": [{"device_file": "/dev/sda", "reason": one} for one in reasons]})
            return self.reasons(self.ask("echo '%s'; exit 3" % text))

        self.assertEqual(answer_with("denied", "refused"), self.all_documents("not_root"))
        self.assertEqual(answer_with("denied", "offline"), self.all_documents("device"))
        self.assertEqual(answer_with("offline", "no_answer_in_time"), self.all_documents("time_limit"))
        self.assertEqual(answer_with(), self.all_documents("not_root"))

    def test_lack_of_privilege_keeps_the_document_and_the_message(self):
        answer = self.ask("echo 'run as root' >&2; %s; exit 3" % GOOD)
        self.assertEqual(self.reasons(answer), self.all_documents("not_root"))
        self.assertEqual(answer["problems"][0]["message"], "run as root")
        self.assertEqual(answer["optical"], {"schema": "optical", "complete": True})

    def test_a_failed_scan_keeps_the_document(self):
        answer = self.ask("%s; exit 1" % GOOD)
        self.assertEqual(self.reasons(answer), self.all_documents("error"))
        self.assertEqual(answer["firmware"]["schema"], "firmware")

    def test_output_that_is_no_json_is_an_error_with_what_was_said(self):
        answer = self.ask("echo broken; echo 'cannot: \\377' >&2; exit 1")
        self.assertEqual(self.reasons(answer), self.all_documents("error"))
        self.assertIn("cannot: ", answer["problems"][0]["message"])
        self.assertIsNone(answer["inventory"])

    def test_a_program_that_never_ends_is_given_up(self):
        numbers = self.directory / "started"
        begun = time.monotonic()
        answer = self.ask("sleep infinity & echo $! >>%s; wait" % numbers, seconds=5)
        # All three together, not one after the other.
        self.assertLess(time.monotonic() - begun, 12)
        self.assertEqual(self.reasons(answer), self.all_documents("time_limit"))
        self.check_gone(numbers)

    def test_one_that_hangs_takes_nothing_from_the_others(self):
        answer = self.ask('[ "${5-}" != firmware ] || exec sleep infinity; ' + GOOD, seconds=8)
        self.assertEqual(self.reasons(answer), [("time_limit", "firmware")])
        self.assertEqual(answer["optical"]["schema"], "optical")
        self.assertEqual(answer["inventory"]["schema"], "inventory")

    def test_a_process_left_behind_with_the_output_open_is_not_waited_for(self):
        # In a session of its own it is not ended with the rest.
        numbers = self.directory / "left"
        answer = self.ask("setsid sleep infinity & echo $! >>%s; %s" % (numbers, GOOD))
        left = [int(number) for number in numbers.read_text(encoding="ascii").split()]
        self.assertEqual(len(left), 3)
        for number in left:
            # Fails when it is gone already.
            os.kill(number, signal.SIGKILL)
        self.assertEqual(answer["problems"], [])
        self.assertEqual(answer["inventory"]["schema"], "inventory")

    def test_a_json_that_is_no_document_is_an_error(self):
        for text in ("[1]", "null", "7"):
            self.assertEqual(self.reasons(self.ask("echo '%s'" % text)), self.all_documents("error"))
        deep = self.ask("head -c 100000 /dev/zero | tr '\\0' '['")
        self.assertEqual(self.reasons(deep), self.all_documents("error"))

    def test_a_fact_that_is_stopped_leaves_no_process(self):
        numbers = self.directory / "started"
        for how in (signal.SIGTERM, signal.SIGHUP, signal.SIGKILL):
            numbers.write_text("", encoding="ascii")
            # One that takes no hint.
            self.place("trap '' TERM HUP; echo $$ >>%s; exec sleep infinity" % numbers, seconds=SECONDS)
            fact = self.start()
            while len(numbers.read_text(encoding="ascii").split()) < 3:
                time.sleep(0.02)
            fact.send_signal(how)
            fact.communicate()
            self.check_gone(numbers)

    def check_gone(self, numbers):
        """That three processes, whose numbers are in a file, have ended, or do so within some seconds."""
        started = [int(number) for number in numbers.read_text(encoding="ascii").split()]
        self.assertEqual(len(started), 3)
        for number in started:
            self.addCleanup(self.end, number)
        for _ in range(200):
            left = [number for number in started if os.path.exists("/proc/%d" % number)]
            if not left:
                break
            time.sleep(0.05)
        self.assertEqual(left, [])

    @staticmethod
    def end(number):
        try:
            os.kill(number, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def test_a_program_that_may_not_be_run_is_an_error(self):
        answer = self.ask(GOOD, mode=0o644)
        self.assertEqual(self.reasons(answer), self.all_documents("error"))

    def test_an_answer_of_many_megabytes_is_taken(self):
        answer = self.ask('printf \'{"text":"\'; head -c 20000000 /dev/zero | tr "\\0" x; printf \'"}\'')
        self.assertEqual(len(answer["inventory"]["text"]), 20000000)

    def test_an_output_of_a_gigabyte_is_an_error_and_takes_little_memory(self):
        self.place('[ "${5-}" != firmware ] || exec head -c 1000000000 /dev/zero; ' + GOOD)
        begun = time.monotonic()
        with self.start() as fact:
            answer = json.loads(fact.stdout.read())
            _, status, usage = os.wait4(fact.pid, 0)
            fact.returncode = os.waitstatus_to_exitcode(status)
            self.assertEqual((fact.returncode, fact.stderr.read()), (0, b""))
        self.assertLess(time.monotonic() - begun, SECONDS)
        self.assertEqual(self.reasons(answer), [("error", "firmware")])
        self.assertEqual(answer["inventory"]["schema"], "inventory")
        self.assertLess(usage.ru_maxrss, 300 << 10)

    def test_an_answer_that_nobody_reads_leaves_no_process(self):
        numbers = self.directory / "started"
        self.place("echo $$ >>%s; sleep 1; %s" % (numbers, GOOD))
        with self.start() as fact:
            fact.stdout.close()
            self.assertNotEqual(fact.wait(), 0)
            self.check_gone(numbers)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
