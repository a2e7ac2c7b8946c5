#!/usr/bin/python3
"""One run of the playbooks over many hosts, of all kinds; then what the collection holds against what the hosts hold.

    fleet_test.py --source TREE --packages DIR --devices LIBRARY --make-devices PROGRAM [unittest's arguments]

Takes root. The hosts are namespaces of this machine (network.py, test_hosts.py); what is installed on them are the real
packages, what reaches them is the real ssh and the real Ansible.
"""
import argparse
import json
import os
import pathlib
import sys
import unittest

import jsonschema

sys.dont_write_bytecode = True
import controller  # noqa: E402
import network  # noqa: E402
import test_hosts  # noqa: E402

SKIP = 77

# Longer than what answers at all takes, on a machine that is busy with other things: a scan, and a host with its scans.
SCAN_SECONDS = 20
HOST_SECONDS = 60


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", type=pathlib.Path, required=True)
    parser.add_argument("--packages", type=pathlib.Path, required=True)
    parser.add_argument("--devices", type=pathlib.Path, required=True)
    parser.add_argument("--make-devices", type=pathlib.Path, required=True)
    return parser.parse_known_args()


OPTIONS, REST = arguments()


def validator(source):
    """The schema of a fleet with those of the documents put into it: jsonschema resolves nothing below a URN."""
    schema, documents = None, {}
    for path in (source / "share/schema").glob("*.schema.json"):
        text = path.read_text(encoding="utf-8")
        found = json.loads(text)
        name = found.pop("$id")
        if name == "urn:zendra:schema:fleet:1":
            schema = text
        else:
            inner = json.dumps(found).replace('"#/$defs/', '"#/$defs/%s/$defs/' % name)
            documents[name] = json.loads(inner)
    for name in documents:
        schema = schema.replace('"$ref": "%s"' % name, '"$ref": "#/$defs/%s"' % name)
    schema = json.loads(schema)
    schema["$defs"].update(documents)
    jsonschema.Draft202012Validator.check_schema(schema)
    return jsonschema.Draft202012Validator(schema)


def differences(found, expected, path=""):
    """Where two values differ, each place in a line. unittest's own way takes minutes for 200 disks."""
    if isinstance(found, dict) and isinstance(expected, dict):
        for key in sorted(found.keys() | expected.keys()):
            missing = "nothing there"
            yield from differences(found.get(key, missing), expected.get(key, missing), path + "/" + key)
    elif isinstance(found, list) and isinstance(expected, list) and len(found) == len(expected):
        for index, pair in enumerate(zip(found, expected)):
            yield from differences(*pair, "%s/%d" % (path, index))
    elif found != expected or type(found) is not type(expected):
        yield "%s: %.300r instead of %.300r" % (path, found, expected)


def comparable(document, like=None):
    """The document with its records in one order, and without the keys that the model knows nothing of."""
    result = dict(document)
    lacking = [(one["device_file"], one["reason"]) for one in document["unanswered"]]
    result["unanswered"] = sorted(lacking, key=str)
    for key in ("devices", "identities", "drives"):
        if key in document:
            keys = set((like or document)[key][0]) if (like or document)[key] else set()
            records = [{name: value for name, value in one.items() if not keys or name in keys} for one in document[key]]
            result[key] = sorted(records, key=lambda one: json.dumps(one, sort_keys=True))
    return result


def recap(output):
    """What the last lines of a playbook's output say: counts for each host."""
    lines = output.split("PLAY RECAP", 1)[1].splitlines()[1:]
    found = {}
    for line in lines:
        if ":" in line:
            name, counts = line.split(":", 1)
            found[name.strip()] = {key: int(number) for key, number in (pair.split("=") for pair in counts.split())}
    return found


class FleetTest(unittest.TestCase):
    """Each test finds the hosts as the ones before have left them: the names order them."""

    @classmethod
    def setUpClass(cls):
        cls.hosts = test_hosts.all_hosts()
        cls.network = network.Network(OPTIONS.devices, OPTIONS.make_devices)
        cls.enterClassContext(cls.network)
        cls.network.start(cls.hosts)
        directory = cls.network.directory
        cls.network.inventory(directory / "inventory", cls.hosts)
        cls.ansible = controller.Ansible(directory, OPTIONS.source)
        prepared = [host for host in cls.hosts if host.prepared]
        # Their own administrator has installed everything before.
        cls.network.inventory(directory / "prepared", prepared, user="root")
        cls.installation = {
            "zddevices_packages_directory": OPTIONS.packages,
            "zddevices_fact_seconds": SCAN_SECONDS,
        }
        cls.ansible.playbook("install", directory / "prepared", **cls.installation)
        cls.network.inventory(directory / "inventory", cls.hosts)
        cls.output = directory / "report"
        cls.done = cls.ansible.playbook(
            "site", zendra_output=cls.output, zendra_host_seconds=HOST_SECONDS, **cls.installation
        )
        cls.fleet = json.loads((cls.output / "fleet.json").read_text(encoding="ascii"))
        cls.answers = {answer["name"]: answer for answer in cls.fleet["hosts"]}

    def reachable_as_root(self):
        return [h for h in self.hosts if not (h.absent or h.deaf or (h.user != "root" and not h.may_sudo))]

    def check_documents(self, host, answer):
        """Field by field, but for the time, which is that of the collection."""
        for document, expected in host.expected().items():
            found = dict(answer[document])
            when = found.pop("collected_at")
            self.assertEqual(list(differences(comparable(found, expected), comparable(expected), document))[:10], [])
            self.assertLessEqual(self.fleet["collected_at"], when)
            self.assertLessEqual(when, answer["answered_at"])

    def test_01_every_host_is_in_the_fleet_file_once_and_sorted(self):
        self.assertEqual([answer["name"] for answer in self.fleet["hosts"]], sorted(host.name for host in self.hosts))

    def test_02_every_field_of_every_answer_is_what_the_host_holds(self):
        answering = [host for host in self.hosts if host.status != "failed"]
        self.assertGreaterEqual(len(answering), 11)
        for host in answering:
            with self.subTest(host=host.name):
                self.check_documents(host, self.answers[host.name])

    def test_03_every_problem_has_its_reason(self):
        for host in self.hosts:
            with self.subTest(host=host.name):
                answer = self.answers[host.name]
                found = [(one["reason"], one["document"]) for one in answer["problems"]]
                self.assertEqual((answer["status"], found), (host.status, list(host.problems)), answer["problems"])
                for one in answer["problems"]:
                    self.assertNotEqual(one["message"], "")

    def test_04_hosts_that_failed_hold_no_document(self):
        failed = [host for host in self.hosts if host.status == "failed"]
        for host in failed:
            with self.subTest(host=host.name):
                answer = self.answers[host.name]
                self.assertEqual([answer["inventory"], answer["firmware"], answer["optical"]], [None] * 3)

    def test_05_totals_count_the_hosts_and_their_devices(self):
        devices = 0
        for host in self.hosts:
            if host.status != "failed":
                devices += len(host.expected()["inventory"]["devices"])
        counts = {status: sum(host.status == status for host in self.hosts) for status in ("ok", "incomplete", "failed")}
        self.assertEqual(self.fleet["totals"], dict(counts, hosts=len(self.hosts), devices=devices))

    def test_06_the_file_of_each_host_is_its_part_of_the_fleet_file(self):
        files = {path.name: path for path in (self.output / "hosts").iterdir()}
        self.assertEqual(sorted(files), sorted(host.name + ".json" for host in self.hosts))
        for host in self.hosts:
            with self.subTest(host=host.name):
                kept = json.loads(files[host.name + ".json"].read_text(encoding="ascii"))
                self.assertEqual(list(differences(kept, self.answers[host.name]))[:10], [])

    def test_07_addresses_are_those_of_the_hosts(self):
        for host in self.hosts:
            with self.subTest(host=host.name):
                self.assertEqual(self.answers[host.name]["address"], self.network.addresses[host.name])

    def test_08_the_fleet_file_follows_its_schema(self):
        check = validator(OPTIONS.source)
        self.assertEqual([error.message for error in check.iter_errors(self.fleet)], [])

    def test_09_the_example_follows_the_schema_and_a_wrong_one_does_not(self):
        check = validator(OPTIONS.source)
        example = json.loads((OPTIONS.source / "tests/fleet/example.json").read_text(encoding="ascii"))
        self.assertEqual([error.message for error in check.iter_errors(example)], [])
        for change in (
            lambda fleet: fleet["hosts"][0].update(status="failed"),
            lambda fleet: fleet["hosts"][0].update(inventory=None),
            lambda fleet: fleet["hosts"][-1].update(problems=[]),
            lambda fleet: fleet["hosts"][-1]["problems"][0].update(reason="bad luck"),
            lambda fleet: fleet["hosts"][0]["inventory"]["devices"][0].update(lun="0"),
            lambda fleet: fleet.pop("totals"),
        ):
            wrong = json.loads(json.dumps(example))
            change(wrong)
            self.assertFalse(check.is_valid(wrong))

    def test_10_one_bad_host_fails_neither_the_playbook_nor_another_host(self):
        for name, counts in recap(self.done).items():
            with self.subTest(host=name):
                self.assertEqual((counts["failed"], counts["unreachable"]), (0, 0))

    def test_11_the_devices_were_asked_as_they_must_be(self):
        for host in [host for host in self.hosts if not host.absent]:
            with self.subTest(host=host.name):
                self.assertEqual(self.network.complaints(host.name), "")

    def test_12_the_page_names_every_host_and_holds_no_markup_of_a_device(self):
        page = (self.output / "fleet.html").read_text(encoding="ascii")
        for host in self.hosts:
            with self.subTest(host=host.name):
                self.assertIn('"%s"' % host.name, page)
        self.assertNotIn("<img src=x>", page)
        self.assertIn("\\u003cimg src=x>", page)
        # No template is looked for in a text.
        self.assertIn("{{7*7}}", page)

    def test_13_the_fact_holds_the_documents(self):
        tree = self.network.directory / "facts"
        wanted = [host for host in self.hosts if host.name in ("each", "hostile", "stuck", "guest")]
        self.ansible.run(
            *("ansible", ":".join(host.name for host in wanted), "-i", str(self.ansible.inventory)),
            *("-m", "setup", "-a", "gather_subset=!all,!min,local filter=ansible_local", "--tree", str(tree)),
        )
        for host in wanted:
            with self.subTest(host=host.name):
                gathered = json.loads((tree / host.name).read_text(encoding="utf-8"))
                fact = gathered["ansible_facts"]["ansible_local"]["zddevices"]
                self.assertEqual(sorted(fact), ["firmware", "inventory", "optical", "problems"])
                for document, expected in host.expected().items():
                    fact[document].pop("collected_at")
                    found = comparable(fact[document], expected)
                    self.assertEqual(list(differences(found, comparable(expected), document))[:10], [])

    def test_14_nothing_that_hung_is_left_on_a_host(self):
        listed = self.network.inside("stuck", "ps", "-e", "-o", "comm=").stdout.split()
        self.assertIn("sshd", listed)
        self.assertNotIn("zddevices", listed)

    def test_15_a_second_installation_changes_nothing(self):
        done = self.ansible.playbook("install", **self.installation)
        counts = recap(done)
        for host in self.reachable_as_root():
            with self.subTest(host=host.name):
                self.assertGreater(counts[host.name]["ok"], 5)
                self.assertEqual(counts[host.name]["changed"], 0)

    def test_15a_a_failed_installation_leaves_nothing_in_tmp(self):
        broken = self.network.directory / "broken"
        broken.mkdir()
        for package in ("zddevices", "libdevicecollector1", "liblogger2"):
            (broken / (package + "_9.deb")).write_text("no package", encoding="ascii")
        done = self.ansible.playbook("install", zendra_hosts="lags", zddevices_packages_directory=broken)
        self.assertEqual(recap(done)["lags"]["rescued"], 1)
        self.assertIn("Packages are installed: ", done)
        self.assertEqual(os.listdir(self.network.root("lags") / "tmp"), [])

    def test_16_a_host_that_falls_silent_loses_its_old_answer(self):
        lost = self.network.hosts["four"]
        lost.kill()
        lost.wait()
        self.ansible.playbook(
            "collect", zendra_output=self.output, zendra_hosts="four:lags", zendra_host_seconds=HOST_SECONDS
        )
        fleet = json.loads((self.output / "fleet.json").read_text(encoding="ascii"))
        self.assertEqual([(one["name"], one["status"]) for one in fleet["hosts"]], [("four", "failed"), ("lags", "ok")])
        self.assertEqual([one["reason"] for one in fleet["hosts"][0]["problems"]], ["unreachable"])
        self.assertEqual(sorted(os.listdir(self.output / "hosts")), ["four.json", "lags.json"])

    def test_17_removal_leaves_nothing(self):
        installed = {}
        for package in ("zddevices", "libdevicecollector1", "liblogger2"):
            listed = self.network.inside("each", "dpkg-query", "--listfiles", package)
            self.assertEqual(listed.returncode, 0, listed.stderr)
            installed[package] = [path for path in listed.stdout.split() if "zddevices" in path or ".so" in path]
            self.assertTrue(installed[package])
        self.ansible.playbook("remove")
        hosts = [host for host in self.reachable_as_root() if host.name != "four"]
        for host in hosts:
            with self.subTest(host=host.name):
                root = self.network.root(host.name)
                for package, files in installed.items():
                    state = self.network.inside(host.name, "dpkg-query", "--show", package)
                    self.assertEqual((state.returncode, state.stdout), (1, ""))
                    for path in files:
                        self.assertFalse(os.path.lexists(str(root) + path), path)
                self.assertFalse((root / "etc/ansible/facts.d/zddevices.fact").exists())
                # The facts of others stay.
                self.assertEqual((root / "etc/ansible/facts.d/asleep.fact").exists(), host.endless_fact)
        self.assertTrue((self.network.root("guest") / "usr/sbin/zddevices").exists())

    def test_17a_a_second_removal_is_a_removal(self):
        counts = recap(self.ansible.playbook("remove"))
        for host in [host for host in self.reachable_as_root() if host.name != "four"]:
            with self.subTest(host=host.name):
                found = {key: counts[host.name][key] for key in ("changed", "failed", "rescued")}
                self.assertEqual(found, {"changed": 0, "failed": 0, "rescued": 0})

    def test_18_a_host_without_the_fact_says_so(self):
        self.ansible.playbook("collect", zendra_output=self.output, zendra_hosts="lags")
        fleet = json.loads((self.output / "fleet.json").read_text(encoding="ascii"))
        self.assertEqual([(one["name"], one["status"]) for one in fleet["hosts"]], [("lags", "failed")])
        self.assertEqual([one["reason"] for one in fleet["hosts"][0]["problems"]], ["not_installed"])


if __name__ == "__main__":
    WHY_NOT = network.missing()
    if WHY_NOT:
        print("skipped: " + WHY_NOT)
        sys.exit(1 if os.environ.get("CI") == "true" else SKIP)
    network.enter()
    unittest.main(argv=[sys.argv[0]] + REST, verbosity=2)
