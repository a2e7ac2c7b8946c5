#!/usr/bin/python3
"""What becomes of answers that are not what they should be: of the host itself, and of the hosts beside it."""
import copy
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
import collection  # noqa: E402

SCRATCH = tempfile.TemporaryDirectory()
collection.place(SCRATCH.name)
from ansible_collections.zendra.devices.plugins.module_utils import answers, documents, page  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
FRAME = (HERE / "../../fleet/ansible/roles/report/files/fleet.html").read_text(encoding="ascii")
EXAMPLE = json.loads((HERE / "example.json").read_text(encoding="ascii"))
FACT = {name: EXAMPLE["hosts"][0][name] for name in answers.DOCUMENTS}
MOMENT = "2026-01-02T03:04:05Z"

MUTATIONS = 2000
MEBIBYTE = 1 << 20


def answer(fact, name="bad", refused=None):
    return answers.host_answer(name, "192.0.2.1", *answers.judge({"zddevices": fact}, refused))


def changed(change):
    fact = copy.deepcopy(FACT)
    change(fact)
    return fact


class AnswerTest(unittest.TestCase):
    def check_failed(self, fact, document, message):
        found = answer(fact)
        self.assertEqual(found["status"], "failed")
        self.assertEqual([found[name] for name in answers.DOCUMENTS], [None] * 3)
        self.assertEqual([(one["reason"], one["document"]) for one in found["problems"]], [("error", document)])
        self.assertRegex(found["problems"][0]["message"], message)

    def test_a_good_fact_is_ok(self):
        found = answer(dict(FACT, problems=[]))
        self.assertEqual((found["status"], found["problems"]), ("ok", []))
        self.assertEqual({name: found[name] for name in answers.DOCUMENTS}, FACT)

    def test_a_document_that_does_not_hold_fails_its_host_and_says_where(self):
        for change, document, message in (
            (lambda f: f["inventory"].pop("devices"), "inventory", "^inventory: 'devices' is a required property"),
            (lambda f: f["inventory"]["devices"][3].update(lun="0"), "inventory", "^inventory/devices/3/lun: '0' is not"),
            (lambda f: f["inventory"].update(schema="zddevices/2"), "inventory", "^inventory/schema: "),
            (lambda f: f["inventory"].update(devices={}), "inventory", "^inventory/devices: "),
            (lambda f: f["inventory"]["devices"].append(None), "inventory", "^inventory/devices/5: None"),
            (lambda f: f["inventory"].update(status={"code": True, "name": "x"}), "inventory", "^inventory/status"),
            (lambda f: f.update(firmware=[]), "firmware", r"^firmware: \[\] is not of type 'object'"),
            (lambda f: f["optical"]["drives"][0].update(vendor=7), "optical", "^optical/drives/0/vendor: 7"),
            (lambda f: f.update(problems=[{"reason": "error"}]), None, "^problems/0: 'document' is a required"),
            (lambda f: f.update(problems=[dict(answers.problem("error", "x"), message=[1])]), None, "^problems/0/message"),
            (lambda f: f.update(problems=[answers.problem("bad luck", "x")]), None, "^problems/0/reason"),
            (lambda f: f["inventory"].update(more=float("nan")), None, "not JSON compliant"),
            (lambda f: f["inventory"]["devices"][0].update(port=1.0), "inventory", "^inventory/devices/0/port: 1.0 is not"),
            (lambda f: f["inventory"]["devices"][0].update(port=True), "inventory", "^inventory/devices/0/port: True is not"),
            (lambda f: f["inventory"]["devices"][0].update(size_bytes=2 ** 64), None, r"^18446744073709551616\.\.\. is no number"),
            (lambda f: f["inventory"].update(more=10 ** 400), None, r"^10{19}\.\.\. is no number of 64 bits$"),
            (lambda f: f["inventory"].update(more=10 ** 5000), None, "integer string conversion"),
            (lambda f: f["inventory"]["devices"][0].update(vendor="half \ud800"), None, "surrogates not allowed"),
            (lambda f: f["inventory"].update({"\udc00": 1}), None, "surrogates not allowed"),
        ):
            with self.subTest(message=message):
                self.check_failed(changed(change), document, message)

    def test_a_document_nested_too_deep_fails_its_host(self):
        deep = []
        for _ in range(100000):
            deep = [deep]
        self.check_failed(dict(FACT, inventory=deep), None, "recursion")

    def test_an_answer_larger_than_the_limit_fails_its_host(self):
        text = "x" * (documents.SIZE_LIMIT - 10000)
        self.assertEqual(answer(changed(lambda f: f["inventory"].update(host=text)))["status"], "ok")
        self.check_failed(changed(lambda f: f["inventory"].update(host=text + "x" * 10000)), None, "^the fact has 16")

    def test_a_message_is_cut(self):
        found = answer(changed(lambda f: f["inventory"].update(devices="x" * MEBIBYTE)))
        self.assertEqual(len(found["problems"][0]["message"]), answers.MESSAGE_LIMIT)

    def test_a_message_holds_nothing_that_a_terminal_or_a_reader_of_the_file_stumbles_over(self):
        found = answer("half \ud800, \x1b]0;title\x07, \x9b31m, \u202e, back\rover,\r\nnext\tline")
        self.assertEqual(found["problems"][0]["message"], "the fact zddevices: half \ufffd, \ufffd]0;title\ufffd, \ufffd31m, "
                         "\ufffd, back\ufffdover,\nnext\tline")

    def test_keys_that_a_newer_program_has_are_let_through(self):
        fact = changed(lambda f: f["inventory"]["devices"][0].update(colour="green"))
        self.assertEqual(answer(fact)["status"], "ok")
        self.assertEqual(answer(fact)["inventory"], fact["inventory"])

    def test_what_the_fact_says_is_wrong_is_kept(self):
        problems = [answers.problem("time_limit", "no answer in time", "inventory")]
        found = answer(dict(FACT, problems=problems))
        self.assertEqual((found["status"], found["problems"]), ("incomplete", problems))

    def test_a_fact_without_a_document_says_which(self):
        found = answer(dict(FACT, optical=None))
        self.assertEqual((found["status"], [(one["reason"], one["document"]) for one in found["problems"]]),
                         ("incomplete", [("error", "optical")]))
        self.check_failed({}, None, "^the fact holds nothing$")

    def test_no_fact_is_not_installed_and_a_broken_one_an_error(self):
        for local, reason in (({}, "not_installed"), ([], "not_installed"), ({"zddevices": "no JSON"}, "error"),
                              ({"zddevices": [1]}, "error")):
            fact, problems = answers.judge(local)
            self.assertEqual((fact, [one["reason"] for one in problems]), ({}, [reason]))

    def test_that_root_was_refused_is_said_where_something_is_missing(self):
        self.assertEqual(answer(FACT, refused="no")["problems"], [])
        fact = dict(FACT, problems=[answers.problem("not_root", "run as root", "inventory")])
        self.assertEqual([one["message"] for one in answer(fact, refused="no")["problems"]], ["no", "run as root"])


class Merged(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.output = scratch.name
        os.mkdir(answers.hosts_directory(self.output))
        self.path = os.path.join(self.output, "fleet.json")

    def keep(self, name, content):
        text = content if isinstance(content, str) else answers.compact(content)
        answers.write_whole(answers.host_path(self.output, name), [text])

    def merge(self, *names):
        """What the playbook's last steps do; the merged file's hosts, and the page's data. The program can read the file."""
        hosts = (answers.read_answer(self.output, name, "192.0.2.1") for name in names)
        answers.write_whole(self.path, answers.fleet_pieces(MOMENT, hosts))
        content = "".join(page.pieces(self.path, FRAME))
        data = json.loads(re.search(r'id="data">(.*?)</script>', content, re.DOTALL)[1])
        merged = json.loads(pathlib.Path(self.path).read_text(encoding="ascii"))
        self.assertEqual(merged["totals"], data["totals"])
        compared = subprocess.run([os.environ["ZDDEVICES"], "diff", self.path, self.path], capture_output=True, check=False)
        self.assertEqual((compared.returncode, compared.stderr), (0, b""))
        return merged["hosts"], data


class MergeTest(Merged):
    def test_a_file_that_cannot_be_written_leaves_the_old_one_and_nothing_else(self):
        answers.write_whole(self.path, ["old"])

        def pieces():
            yield "new"
            raise ValueError("no more")

        with self.assertRaises(ValueError):
            answers.write_whole(self.path, pieces())
        self.assertEqual(pathlib.Path(self.path).read_text(encoding="ascii"), "old")
        self.assertEqual(sorted(os.listdir(self.output)), ["fleet.json", "hosts"])

    def test_a_name_is_any_text(self):
        names = ["../../outside", "a b", "fe80::1%eth0", "h\u00f6st", "rack/1"]
        for name in names:
            self.keep(name, answer(FACT, name))
        hosts, _ = self.merge(*names)
        self.assertEqual([one["name"] for one in hosts], names)
        self.assertEqual(len(os.listdir(answers.hosts_directory(self.output))), len(names))

    def test_a_file_that_is_not_there_or_broken_is_an_error_of_its_host(self):
        self.keep("a", answer(FACT, "a"))
        self.keep("b", '{"name":"b"')
        self.keep("c", "[" * 100000)
        os.mkdir(answers.host_path(self.output, "d"))
        long = "x" * 300
        hosts, data = self.merge("a", "b", "c", "d", "e", long)
        self.assertEqual([one["name"] for one in hosts], ["a", "b", "c", "d", "e", long])
        self.assertEqual([one["status"] for one in hosts], ["ok"] + ["failed"] * 5)
        self.assertEqual([one["problems"][0]["reason"] for one in hosts[1:]], ["error"] * 5)
        self.assertEqual([one["answered_at"] for one in hosts[1:]], [None] * 5)
        self.assertEqual([row[0] for row in data["problems"]], [1, 2, 3, 4, 5])

    def test_the_merged_file_is_read_as_it_was_written(self):
        for count in (0, 1, 3):
            names = ["host%d" % number for number in range(count)]
            for name in names:
                self.keep(name, answer(FACT, name))
            hosts, _ = self.merge(*names)
            rest, read = answers.read_fleet(self.path)
            self.assertEqual((rest["collected_at"], rest["totals"]["hosts"], rest["hosts"]), (MOMENT, count, []))
            self.assertEqual(rest["totals"]["devices"], count * len(FACT["inventory"]["devices"]))
            self.assertEqual(list(read), hosts)


class Mutator:
    """Changes facts in ways that their schemas may or may not allow."""

    def __init__(self, seed):
        self.random = random.Random(seed)

    def places(self, value, found, depth=0):
        """Every object and list in a value, with each of its keys."""
        if isinstance(value, (dict, list)) and len(value) < 1000 and depth < 20:
            for key in value if isinstance(value, dict) else range(len(value)):
                found.append((value, key))
                self.places(value[key], found, depth + 1)
        return found

    def text(self):
        return self.random.choice(["", "\ud800", "a\udfffb\ud83d", "\u0000", "</script>", "\u202e", "{{ 7 * 7 }}", "\x85",
                                   "9" * 400, "\U000e0001", "disk", "null"])

    def value(self):
        choose = self.random.choice
        return choose([
            lambda: None, lambda: choose([True, False]), lambda: choose([0, -1, 65536, 10 ** 300, -(2 ** 63)]),
            lambda: choose([0.5, 1e308, float("inf"), float("nan")]), self.text, list, dict,
            lambda: [self.value() for _ in range(self.random.randrange(4))],
            lambda: {self.text(): self.value() for _ in range(self.random.randrange(4))},
            lambda: copy.deepcopy(choose([FACT["inventory"], FACT["firmware"], FACT["optical"]])),
            lambda: {"device_file": self.text(), "reason": "denied", "errno": 13, "message": self.text()},
        ])()

    def deep(self):
        value = self.value()
        for _ in range(self.random.choice([10, 500, 900, 1000, 5000, 200000])):
            value = [value] if self.random.random() < 0.9 else {"": value}
        return value

    def large(self, number):
        size = 100 * MEBIBYTE if number % 500 == 0 else self.random.choice([1000, 100000, MEBIBYTE])
        return self.random.choice([lambda: "x" * size, lambda: "\ud800" * (size // 6), lambda: [0] * (size // 2)])()

    def mutated(self, number):
        fact = copy.deepcopy(FACT)
        fact["problems"] = [answers.problem("time_limit", "slow", "inventory")][: self.random.randrange(2)]
        for _ in range(self.random.choice([1, 1, 1, 2, 5])):
            container, key = self.random.choice(self.places(fact, []) or [(fact, "inventory")])
            kind = number % 5
            if kind == 0:
                container[key] = self.value()
            elif kind == 1:
                del container[key]
            elif kind == 2 and isinstance(container, dict):
                container[self.text()] = self.value()
            elif kind == 2:
                container.insert(key, self.value())
            elif kind == 3:
                container[key] = self.text()
            elif self.random.random() < 0.3 or number % 500 == 499:
                container[key] = self.large(number + 1)
            else:
                container[key] = self.deep()
        return fact


class FuzzTest(Merged):
    def test_one_bad_answer_costs_no_other_host_its_own(self):
        good = [host for host in EXAMPLE["hosts"] if host["status"] != "failed"][:3]
        names = ["bad"] + [host["name"] for host in good]
        for host in good:
            self.keep(host["name"], host)
        mutator = Mutator(20261122)
        counts = {"ok": 0, "incomplete": 0, "failed": 0}
        largest = 0
        for number in range(MUTATIONS):
            fact = mutator.mutated(number)
            self.keep("bad", answer(fact))
            hosts, data = self.merge(*names)
            self.assertEqual(hosts[1:], good, number)
            self.assertEqual([row[0] for row in data["hosts"]], names)
            bad = hosts[0]
            counts[bad["status"]] += 1
            largest = max(largest, os.path.getsize(self.path))
            if bad["status"] == "failed":
                self.assertEqual([bad[name] for name in answers.DOCUMENTS], [None] * 3)
                self.assertIn("error", [one["reason"] for one in bad["problems"]])
                self.assertTrue(all(one["message"] for one in bad["problems"]))
            else:
                for name in answers.DOCUMENTS:
                    if bad[name] is not None:
                        self.assertTrue(documents.VALIDATORS[name].is_valid(bad[name]), number)
        print(counts, "largest merged file:", largest)
        # The mutations are neither all harmless nor all refused.
        self.assertGreater(counts["failed"], MUTATIONS // 3)
        self.assertGreater(counts["ok"] + counts["incomplete"], MUTATIONS // 20)
        self.assertLess(largest, documents.SIZE_LIMIT + MEBIBYTE)


if __name__ == "__main__":
    unittest.main(verbosity=2)
