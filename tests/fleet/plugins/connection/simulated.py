"""An Ansible connection that ends on the controller: each host answers with a fact that a real zddevices once printed.

Whatever module is sent, what comes back is what ansible.builtin.setup says of such a host. The variable simulated_host
says which fact, from the directory SIMULATED_FACTS, and which number the host has: see tests/fleet/scale. Where that
directory has a file "asked", each request is a line in it.
"""
import os
import time

from ansible.errors import AnsibleConnectionFailure
from ansible.plugins.connection import ConnectionBase

DOCUMENTATION = """
    name: simulated
    short_description: answers from a file
    description: [answers from a file]
    options:
      simulated_host:
        description: kind and number of the host
        vars: [{name: simulated_host}]
"""

# As tests/fleet/scale wrote it in the place of what is the host's own.
NAME, SERIAL = "NAME-OF-HOST", "SERIAL-OF-HOST"


class Connection(ConnectionBase):
    transport = "simulated"
    has_pipelining = True
    always_pipeline_modules = True

    def _connect(self):
        return self

    def exec_command(self, cmd, in_data=None, sudoable=True):
        super().exec_command(cmd, in_data=in_data, sudoable=sudoable)
        if in_data is None:
            raise AssertionError("more is asked for than a module's answer: %s" % cmd)
        kind, number = self.get_option("simulated_host").split(":")
        directory = os.environ["SIMULATED_FACTS"]
        if os.path.exists(os.path.join(directory, "asked")):
            with open(os.path.join(directory, "asked"), "a", encoding="ascii") as file:
                file.write(kind + "\n")
        if kind == "unreachable":
            raise AnsibleConnectionFailure("Failed to connect to the host: no route to host")
        if kind == "hangs":
            time.sleep(60)
        if kind == "endless":
            return 0, b"x" * (3 << 30), b""
        if kind == "rootless":
            if "sudo" in cmd:
                return 1, b"", b"sudo: a password is required\n"
            kind = "fact"
        if kind == "says":
            # Byte by byte what a host's Python would have written.
            with open(os.path.join(directory, "says." + number), "rb") as file:
                said = file.read()
            if said.startswith(b"unreachable"):
                raise AnsibleConnectionFailure(said.decode())
            return 0, said, b""
        if kind == "fails":
            return 0, b'{"failed": true, "msg": "the module broke"}', b""
        huge, kind = kind == "huge", kind.replace("huge", "disks")
        with open(os.path.join(directory, kind + ".json"), encoding="ascii") as file:
            fact = file.read().replace(NAME, "host%s" % number).replace(SERIAL, "S%s" % number)
        if huge:
            fact = fact.replace('"HALVARD"', '"%s"' % ("x" * (100 << 20)), 1)
        answer = '{"ansible_facts":{"ansible_local":{"zddevices":%s}},"changed":false}' % fact
        return 0, answer.encode(), b""

    def put_file(self, in_path, out_path):
        raise AssertionError("a file is sent: %s" % in_path)

    def fetch_file(self, in_path, out_path):
        raise AssertionError("a file is fetched: %s" % in_path)

    def close(self):
        pass
