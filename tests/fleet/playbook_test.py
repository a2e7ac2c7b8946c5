#!/usr/bin/python3
"""The playbooks with programs in the place of apt-get, dpkg and zddevices that write down what they are asked.

Hosts are this machine, or connections that answer from files (plugins/connection/simulated.py): what a play does on a host,
and what it makes of what the host says, is seen in seconds. That real packages come and go is fleet_test.py's. Takes root,
and a mount namespace, in which the programs' files are covered.
"""
import json
import os
import pathlib
import re
import stat
import sys
import unittest

sys.dont_write_bytecode = True
import controller  # noqa: E402
import network  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parents[1]
EXAMPLE = json.loads((HERE / "example.json").read_text(encoding="ascii"))
DOCUMENTS = ("inventory", "firmware", "optical")
FACT = {**{name: EXAMPLE["hosts"][0][name] for name in DOCUMENTS}, "problems": []}
PACKAGES = ["liblogger2", "libdevicecollector1", "zddevices"]
FACTS = pathlib.Path("/etc/ansible/facts.d")

# One line for each call: the program, its arguments, where and in which environment, and the files that lie there.
CALLED = r"""#!/bin/sh
printf '%s|%s|%s|%s|%s\n' "${0##*/} $*" "$PWD" "$DEBIAN_FRONTEND" "$LC_ALL" "$(stat -c '%n %a' *.deb 2>/dev/null | tr '\n' ' ')" >>DIRECTORY/CALLS
"""
APT_GET = CALLED + r"""
case "$*" in *broken*) echo "E: no such package" >&2; exit 100 ;; esac
[ -e DIRECTORY/INSTALLED ] || echo "Setting up zddevices (1.0) ..."
: >DIRECTORY/INSTALLED
"""
DPKG = CALLED + r"""
[ ! -e DIRECTORY/INSTALLED ] || echo "$(cat DIRECTORY/INSTALLED)zddevices (1.0) ..."
rm -f DIRECTORY/INSTALLED
"""
ZDDEVICES = r"""#!/bin/sh
case "$*" in
diff*) exec REAL "$@" ;;
*firmware) cat DIRECTORY/firmware.json ;;
*optical) cat DIRECTORY/optical.json ;;
*) cat DIRECTORY/inventory.json ;;
esac
"""

# What a terminal acts on, or what turns the texts around it.
UNSAFE = re.compile("[\x00-\x08\x0b-\x1f\x7f-\x9f\u202a-\u202e\ud800-\udfff]")


def recap(output):
    lines = re.findall(r"^(\S+) +: (ok=.*)$", output.rpartition("PLAY RECAP")[2], re.MULTILINE)
    return {name: {key: int(number) for key, number in re.findall(r"(\w+)=(\d+)", counts)} for name, counts in lines}


class Case(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = pathlib.Path(os.environ[network.INSIDE])
        network.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", str(cls.directory))
        cls.addClassCleanup(network.run, "umount", "--lazy", str(cls.directory))
        FACTS.parent.mkdir(exist_ok=True)
        network.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", str(FACTS.parent))
        cls.addClassCleanup(network.run, "umount", "--lazy", str(FACTS.parent))
        programs = cls.directory / "programs"
        programs.mkdir()
        for name, script in (("apt-get", APT_GET), ("dpkg", DPKG), ("zddevices", ZDDEVICES)):
            script = script.replace("DIRECTORY", str(cls.directory)).replace("REAL", os.environ["ZDDEVICES"])
            (programs / name).write_text(script, encoding="ascii")
            (programs / name).chmod(0o755)
        # zddevices is where root's programs are, which not everybody's PATH names.
        for program, place in ((programs / "apt-get", "/usr/bin/apt-get"), (programs / "dpkg", "/usr/bin/dpkg"),
                               (programs, "/usr/local/sbin")):
            network.run("mount", "--bind", str(program), place)
            cls.addClassCleanup(network.run, "umount", "--lazy", place)
        cls.ansible = controller.Ansible(cls.directory, SOURCE)
        # What the roles set is seen only where nobody else has.
        del cls.ansible.environment["LC_ALL"]
        cls.ansible.environment.update(
            LANG="C.UTF-8",
            PATH="/usr/bin:/bin",
            ANSIBLE_CONNECTION_PLUGINS=str(HERE / "plugins/connection"),
            SIMULATED_FACTS=str(cls.directory),
            ANSIBLE_REMOTE_TMP=str(cls.directory / "remote"),
            TMPDIR=str(cls.directory / "tmp"),
        )

    def setUp(self):
        for name in ("CALLS", "asked"):
            (self.directory / name).write_text("", encoding="ascii")
        (self.directory / "INSTALLED").unlink(missing_ok=True)
        network.run("rm", "-rf", str(FACTS), str(self.directory / "report"), str(self.directory / "tmp"))
        (self.directory / "tmp").mkdir()
        self.output = self.directory / "report"
        self.inventory("one ansible_connection=local")
        self.answer(FACT)

    def inventory(self, *lines):
        settings = "\n[all:vars]\nansible_python_interpreter=/usr/bin/python3\n"
        self.ansible.inventory.write_text("\n".join(lines) + settings, encoding="utf-8")

    def answer(self, fact):
        """What this machine's zddevices prints."""
        for name in DOCUMENTS:
            (self.directory / (name + ".json")).write_text(json.dumps(fact[name]), encoding="ascii")

    def packages(self, *names):
        directory = self.directory / "packages"
        network.run("rm", "-rf", str(directory))
        directory.mkdir()
        for name in names:
            (directory / name).write_text(name, encoding="ascii")
        return directory

    def play(self, name, **settings):
        return self.ansible.playbook(name, zendra_output=self.output, **{"zendra_become": "false", **settings})

    def calls(self):
        lines = (self.directory / "CALLS").read_text(encoding="utf-8").splitlines()
        return [line.split("|") for line in lines]

    def fleet(self):
        return json.loads((self.output / "fleet.json").read_text(encoding="ascii"))["hosts"]

    def assert_nothing_left(self):
        left = [path.name for path in (self.directory / "tmp").iterdir() if path.name.startswith("zddevices.")]
        self.assertEqual(left, [])


class RoleTest(Case):
    FILES = [name + "_1.0_amd64.deb" for name in PACKAGES]

    def install(self, *more, **settings):
        directory = self.packages(*self.FILES, "zddevices-dbgsym_1.0_amd64.deb", *more)
        return self.play("install", zddevices_packages_directory=directory, **settings)

    def mode(self, path):
        found = os.stat(path)
        return stat.S_IMODE(found.st_mode), found.st_uid, found.st_gid

    def test_the_packages_are_installed_in_one_call_and_the_fact_is_placed(self):
        self.addCleanup(os.umask, os.umask(0o077))
        counts = recap(self.install())["one"]
        self.assertEqual((counts["failed"], counts["rescued"], counts["changed"]), (0, 0, 3))
        [(command, where, frontend, language, files)] = self.calls()
        self.assertEqual(command, "apt-get install --yes --no-install-recommends --allow-downgrades -qq "
                         + " ".join("./" + name for name in self.FILES))
        self.assertRegex(where, r"/tmp/zddevices\.[^/]*$")
        self.assertEqual((frontend, language), ("noninteractive", "C.UTF-8"))
        self.assertEqual(files, "".join("%s 644 " % name for name in sorted(self.FILES)))
        self.assert_nothing_left()
        self.assertEqual(os.listdir(FACTS), ["zddevices.fact"])
        self.assertEqual(self.mode(FACTS), (0o755, 0, 0))
        self.assertEqual(self.mode(FACTS / "zddevices.fact"), (0o755, 0, 0))
        self.assertIn("\nSECONDS = 7.0\n", (FACTS / "zddevices.fact").read_text(encoding="utf-8"))

    def test_a_second_installation_changes_nothing_and_mends_what_somebody_has_changed(self):
        self.install()
        self.assertEqual(recap(self.install())["one"]["changed"], 0)
        os.chmod(FACTS, 0o777)
        os.chown(FACTS / "zddevices.fact", 65534, 65534)
        os.chmod(FACTS / "zddevices.fact", 0o666)
        self.assertEqual(recap(self.install())["one"]["changed"], 2)
        self.assertEqual((self.mode(FACTS), self.mode(FACTS / "zddevices.fact")), ((0o755, 0, 0),) * 2)

    def test_hosts_that_fail_say_why_and_stand_in_nobody_s_way(self):
        self.inventory("a ansible_connection=local zddevices_packages='[\"broken\"]'",
                       "b ansible_connection=simulated simulated_host=unreachable:1",
                       "c ansible_connection=local zddevices_fact_directory=/etc/ansible/c",
                       "d ansible_connection=local zddevices_fact_directory=/etc/ansible/d")
        done = self.install("broken_1.0_all.deb", zendra_batch=1, zendra_hosts="a:b:c")
        counts = {name: (one["failed"], one["unreachable"], one["rescued"]) for name, one in recap(done).items()}
        self.assertEqual(counts["a"], (0, 0, 1))
        self.assertEqual((counts["c"], sorted(counts)), ((0, 0, 0), ["a", "b", "c"]))
        # What Ansible says of it, and no more.
        self.assertEqual(counts["b"], (0, 0, 0))
        self.assertIn("fatal: [b]: UNREACHABLE!", done)
        self.assertIn("Packages are installed: non-zero return code", done)
        self.assertEqual(len(self.calls()), 2)
        self.assertTrue(os.path.exists("/etc/ansible/c/zddevices.fact"))
        self.assert_nothing_left()

    def test_two_files_of_a_package_or_none_are_not_guessed_at(self):
        for files in ([*self.FILES, "zddevices_1.1_amd64.deb"], self.FILES[:2]):
            done = self.play("install", zddevices_packages_directory=self.packages(*files))
            self.assertEqual(recap(done)["one"]["rescued"], 1)
            self.assertIn("Packages are found on the controller: ", done)
            self.assertEqual((self.calls(), FACTS.exists()), ([], False))

    def test_a_state_that_nobody_knows_does_nothing(self):
        done = self.install(zddevices_state="latest")
        self.assertEqual((recap(done)["one"]["rescued"], self.calls()), (1, []))
        self.assertIn("State is known: ", done)

    def test_removal_purges_the_packages_and_leaves_the_facts_of_others(self):
        self.install()
        (FACTS / "others.fact").write_text("{}", encoding="ascii")
        for word, changed in (("Removing ", 2), ("Purging configuration files for ", 1), (None, 0)):
            (self.directory / "CALLS").write_text("", encoding="ascii")
            if word:
                (self.directory / "INSTALLED").write_text(word, encoding="ascii")
            counts = recap(self.play("remove"))["one"]
            self.assertEqual((counts["failed"], counts["rescued"], counts["changed"]), (0, 0, changed), word)
            self.assertEqual([(call[0], *call[2:4]) for call in self.calls()],
                             [("dpkg --purge zddevices libdevicecollector1 liblogger2", "noninteractive", "C.UTF-8")])
            self.assertEqual(os.listdir(FACTS), ["others.fact"])
        (FACTS / "others.fact").unlink()
        for _ in range(2):
            self.assertEqual(recap(self.play("remove"))["one"]["rescued"], 0)
            self.assertFalse(FACTS.exists())

    def test_site_installs_and_then_collects(self):
        done = self.play("site", zddevices_packages_directory=self.packages(*self.FILES))
        self.assertEqual([name for name in ("Packages and fact", "Answers") if "PLAY [%s]" % name not in done], [])
        [answer] = self.fleet()
        self.assertEqual((answer["status"], {name: answer[name] for name in DOCUMENTS}),
                         ("ok", {name: FACT[name] for name in DOCUMENTS}))


class ChangesTest(Case):
    """The same host, asked again and again."""

    def setUp(self):
        super().setUp()
        self.inventory("host00001 ansible_connection=simulated simulated_host=fact:00001")
        self.fact(FACT)

    def fact(self, fact):
        (self.directory / "fact.json").write_text(json.dumps(fact), encoding="ascii")

    def changes(self):
        return self.play("changes")

    def test_without_an_earlier_collection_it_fails_and_says_so_but_has_collected(self):
        with self.assertRaisesRegex(AssertionError, "there is no earlier collection"):
            self.changes()
        self.assertEqual([one["status"] for one in self.fleet()], ["ok"])
        self.assertEqual(sorted(os.listdir(self.output)), ["asked.json", "fleet.html", "fleet.json", "hosts"])
        # Neither is there one for the controller that cannot compare.
        self.play("collect")
        program = self.directory / "programs/zddevices"
        program.rename(program.with_name("aside"))
        self.addCleanup(program.with_name("aside").rename, program)
        with self.assertRaisesRegex(AssertionError, "what has changed is not known: .*No such file"):
            self.changes()
        self.assertFalse((self.output / "changes.json").exists())

    def test_a_run_without_any_change_says_so(self):
        self.play("collect")
        done = self.changes()
        difference = json.loads((self.output / "changes.json").read_text(encoding="ascii"))
        self.assertEqual((difference["devices"], difference["hosts"]), ([], []))
        self.assertRegex(done, r'"zendra_table.stdout_lines": \[\]')
        # The merged file and the page.
        self.assertEqual(recap(done)["localhost"]["changed"], 2)
        self.assertNotIn('"firmware changed"', (self.output / "fleet.html").read_text(encoding="ascii"))

    def test_a_comparison_that_fails_fails_the_play(self):
        self.play("collect")
        program = self.directory / "programs/zddevices"
        script = program.read_text(encoding="ascii")
        self.addCleanup(program.write_text, script, encoding="ascii")
        program.write_text(script.replace("diff*)", "diff\\ fleet*) echo out of order >&2; exit 2 ;;\ndiff*)"), encoding="ascii")
        with self.assertRaisesRegex(AssertionError, "out of order"):
            self.changes()

    def test_what_has_changed_is_told_in_lines_that_are_not_cut(self):
        self.play("collect")
        long = "W" * 150
        fact = json.loads(json.dumps(FACT))
        fact["inventory"]["devices"][0].update(firmware_revision=long, revision=long)
        self.fact(fact)
        done = self.changes()
        self.assertIn(long, done)
        self.assertIn("firmware changed", done)
        self.assertRegex(done, "0102.*" + long)
        self.assertEqual(recap(done)["localhost"]["changed"], 3)


class HostileTest(Case):
    """Hosts whose root means harm to the controller."""

    ESCAPES = "\x1b]0;owned\x07\x9b31m\x7f\u202egnp\r"

    def says(self, number, text):
        (self.directory / ("says.%d" % number)).write_bytes(text.encode("utf-8", "surrogatepass"))
        return "h%d ansible_connection=simulated simulated_host=says:%d" % (number, number)

    def setting(self, fact, **more):
        return json.dumps({"ansible_facts": {"ansible_local": {"zddevices": fact}}, "changed": False, **more})

    def test_no_text_reaches_the_terminal_raw_or_is_taken_for_a_template(self):
        planted = self.directory / "planted"
        template = "{{ lookup('ansible.builtin.pipe', 'touch %s') }}" % planted
        said = [
            self.setting(FACT) + "\n" + template + self.ESCAPES,
            self.ESCAPES + template + "\n" + self.setting(FACT),
            json.dumps({"failed": True, "msg": template + self.ESCAPES}, ensure_ascii=False),
            json.dumps({"failed": True, "msg": template, "module_stderr": {"a": template}, "exception": self.ESCAPES}),
            "no JSON " + self.ESCAPES + template,
            "Traceback " + self.ESCAPES + template,
            self.setting(FACT, warnings=[self.ESCAPES + template], deprecations=[{"msg": self.ESCAPES}],
                         invocation={"module_args": template}, _ansible_verbose_always=True),
            self.setting(template + self.ESCAPES),
            "unreachable, says ssh: " + template + self.ESCAPES,
            self.setting(FACT, _ansible_no_log=self.ESCAPES, add_host={"host_name": self.ESCAPES}, **{
                "_ansible_" + self.ESCAPES: self.ESCAPES}),
            json.dumps({"ansible_facts": {"ansible_" + self.ESCAPES + "_interpreter": "x", "ansible_ssh_" + self.ESCAPES: 1,
                                          "ansible_local": {"zddevices": FACT}}}),
            self.setting({**FACT, "problems": [
                {"reason": "device", "document": "inventory", "message": template + self.ESCAPES}]}),
            '{"ansible_facts": {"inventory_hostname": "h0", "ansible_connection": "local", "ansible_local": {"zddevices": '
            + json.dumps(template) + "}}}",
            '{"ansible_facts": [1]}', "{}", "[]", "null", '{"failed": ' + "[" * 100000, '{"ansible_facts": ' + "9" * 10000 + "}",
            self.setting({**FACT, "inventory": dict(FACT["inventory"], host="\ud800")}),
            '{"ansible_facts": {"ansible_local": {"zddevices": {"inventory": 1, "inventory": NaN}}}}',
            '{"deep": ' + "[" * 100000 + "]" * 100000 + "}",
        ]
        lines = [self.says(number, text) for number, text in enumerate(said)]
        self.inventory(*lines, "good ansible_connection=simulated simulated_host=fact:00001",
                       "../../up ansible_connection=simulated simulated_host=fact:00002")
        (self.directory / "fact.json").write_text(json.dumps(FACT), encoding="ascii")
        done = self.play("collect")
        self.assertIn("junk", done, "Ansible does not tell what stands around an answer: this test has no object")
        self.assertEqual([text for text in UNSAFE.findall(done)], [])
        self.assertFalse(planted.exists())
        hosts = {one["name"]: one for one in self.fleet()}
        whole = ["h%d" % number for number in (0, 1, 6, 9, 10)]
        self.assertEqual({name: hosts[name]["status"] for name in ("good", "../../up", *whole)},
                         dict.fromkeys(("good", "../../up", *whole), "ok"))
        self.assertEqual(hosts["h11"]["status"], "incomplete")
        self.assertEqual({hosts["h%d" % n]["status"] for n in range(len(said)) if "h%d" % n not in [*whole, "h11"]}, {"failed"})
        for one in hosts.values():
            self.assertEqual(UNSAFE.findall("".join(problem["message"] for problem in one["problems"])), [])
        self.assertIn(template, hosts["h2"]["problems"][0]["message"])
        no_facts = hosts["h%d" % said.index('{"ansible_facts": [1]}')]
        self.assertEqual([one["reason"] for one in no_facts["problems"]], ["not_installed"])
        self.assertIn("recursion", hosts["h%d" % (len(said) - 1)]["problems"][0]["message"])
        self.assertEqual(len(os.listdir(self.output / "hosts")), len(hosts))

    def test_a_host_that_says_more_than_memory_holds_fails(self):
        (self.directory / "fact.json").write_text(json.dumps(FACT), encoding="ascii")
        self.inventory("endless ansible_connection=simulated simulated_host=endless:1",
                       "good ansible_connection=simulated simulated_host=fact:00001")
        self.play("collect")
        endless, good = self.fleet()
        self.assertEqual((endless["status"], [(one["reason"], one["message"]) for one in endless["problems"]]),
                         ("failed", [("error", "the answer is larger than the memory that a host may take")]))
        self.assertEqual(good["status"], "ok")

    def test_where_root_is_refused_the_host_is_asked_again_without_and_one_that_hangs_is_not(self):
        fact = {**FACT, "problems": [{"reason": "not_root", "document": "inventory", "message": "run as root"}]}
        (self.directory / "fact.json").write_text(json.dumps(fact), encoding="ascii")
        self.inventory("r ansible_connection=simulated simulated_host=rootless:00001",
                       "s ansible_connection=simulated simulated_host=hangs:00002",
                       "t ansible_connection=simulated simulated_host=fails:00003")
        done = self.play("collect", zendra_become="true", zendra_host_seconds=5)
        rootless, silent, failing = self.fleet()
        self.assertEqual([one["reason"] for one in failing["problems"]], ["error"])
        self.assertEqual([(one["reason"], one["message"]) for one in rootless["problems"]][1:], [("not_root", "run as root")])
        self.assertEqual((rootless["status"], rootless["problems"][0]["reason"]), ("incomplete", "not_root"))
        self.assertIn("a password is required", rootless["problems"][0]["message"])
        self.assertEqual([(one["reason"], one["message"]) for one in silent["problems"]],
                         [("time_limit", "the host did not answer within 5 seconds")])
        asked = (self.directory / "asked").read_text(encoding="ascii").split()
        self.assertEqual((asked.count("rootless"), asked.count("hangs"), asked.count("fails")), (2, 1, 2))
        self.assertEqual({name: one["failed"] for name, one in recap(done).items()}, dict.fromkeys(("r", "s", "t", "localhost"), 0))
        # Also where the controller's own settings ask for root.
        self.addCleanup(self.ansible.environment.pop, "ANSIBLE_BECOME")
        self.ansible.environment["ANSIBLE_BECOME"] = "true"
        self.inventory("r ansible_connection=simulated simulated_host=rootless:00001")
        self.play("collect", zendra_become="true")
        self.assertEqual([one["status"] for one in self.fleet()], ["incomplete"])
        # Who is not root by choice is not asked twice.
        (self.directory / "asked").write_text("", encoding="ascii")
        self.inventory("f ansible_connection=simulated simulated_host=fails:00001")
        self.play("collect")
        self.assertEqual((self.directory / "asked").read_text(encoding="ascii").split(), ["fails"])
        self.assertEqual([one["status"] for one in self.fleet()], ["failed"])


if __name__ == "__main__":
    WHY_NOT = network.missing()
    if WHY_NOT:
        print("skipped: " + WHY_NOT)
        sys.exit(1 if os.environ.get("CI") == "true" else 77)
    network.enter()
    unittest.main(verbosity=2)
