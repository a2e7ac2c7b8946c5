"""Begins a collection: makes its directory, drops answers of an earlier one, notes who is asked.

    zendra.devices.begin: output=DIRECTORY hosts=PATTERN

Runs on the controller. Who is asked are the hosts that a play over the pattern has, --limit included. That play itself is no
place for it: over ten thousand hosts a play takes minutes, whatever little it does.
"""
from __future__ import annotations

import os

from ansible.plugins.action import ActionBase
from ansible_collections.zendra.devices.plugins.module_utils import answers


class ActionModule(ActionBase):
    TRANSFERS_FILES = False
    _requires_connection = False
    _VALID_ARGS = frozenset(("output", "hosts"))

    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        output = self._task.args["output"]
        directory = answers.hosts_directory(output)
        os.makedirs(directory, exist_ok=True)
        for name in os.listdir(directory):
            if name.endswith(".json") or name.startswith(".new."):
                os.unlink(os.path.join(directory, name))
        asked = {"collected_at": answers.now(), "hosts": {}}
        # No variable holds the hosts of another play.
        for host in task_vars["hostvars"]._inventory.get_hosts(self._task.args["hosts"], ignore_restrictions=True):
            # Templates in an address are resolved where the host is asked; here it only says where to look.
            asked["hosts"][host.name] = str(host.get_vars().get("ansible_host", host.name))
        answers.write_whole(answers.asked_path(output), [answers.compact(asked)])
        result.update(changed=False, asked=len(asked["hosts"]))
        return result
