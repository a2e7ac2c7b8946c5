"""Ansible as the tests use it: the collection built and installed, and nothing of the user's own settings."""
import json
import os
import subprocess

SETTINGS = """\
[defaults]
forks = {forks}
nocows = true
timeout = 10
localhost_warning = false
deprecation_warnings = false
[ssh_connection]
pipelining = true
control_path_dir = {directory}/cp
"""


class Ansible:
    """Commands that see this directory as home; inventory is the file that they use."""

    def __init__(self, directory, source, forks=20):
        self.directory = directory
        self.inventory = directory / "inventory"
        self.environment = {name: os.environ[name] for name in ("PATH", "LANG") if name in os.environ}
        self.environment.update(
            LC_ALL="C.UTF-8",
            HOME=str(directory),
            ANSIBLE_HOME=str(directory / "home"),
            ANSIBLE_CONFIG=str(directory / "ansible.cfg"),
            ANSIBLE_COLLECTIONS_PATH=str(directory / "collections"),
        )
        self.set_forks(forks)
        built = directory / "built"
        self.run("ansible-galaxy", "collection", "build", str(source / "fleet/ansible"), "--output-path", str(built))
        archive = next(built.glob("zendra-devices-*.tar.gz"))
        self.run("ansible-galaxy", "collection", "install", str(archive), "-p", str(directory / "collections"))

    def set_forks(self, forks):
        settings = SETTINGS.format(forks=forks, directory=self.directory)
        (self.directory / "ansible.cfg").write_text(settings, encoding="ascii")

    def start(self, program, *arguments, **options):
        # Debian's own, whatever else PATH may hold.
        command = ["/usr/bin/" + program, *arguments]
        return subprocess.Popen(
            command, env=self.environment, cwd=self.directory, stdin=subprocess.DEVNULL, text=True, **options
        )

    def run(self, program, *arguments):
        """What the program printed; fails when it does."""
        with self.start(program, *arguments, stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as process:
            output = process.communicate()[0]
        if process.returncode != 0:
            raise AssertionError("%s: exit code %d\n%s" % (program, process.returncode, output))
        return output

    @staticmethod
    def playbook_arguments(name, inventory, variables):
        settings = ["-i", str(inventory), "zendra.devices." + name]
        for variable, value in variables.items():
            settings += ["-e", json.dumps({variable: value}) if isinstance(value, list) else "%s=%s" % (variable, value)]
        return settings

    def playbook(self, name, inventory=None, **variables):
        return self.run("ansible-playbook", *self.playbook_arguments(name, inventory or self.inventory, variables))
