"""Begins a collection: makes its directory, drops answers of an earlier one, notes who is asked.

    zendra.devices.begin: output=DIRECTORY

Runs on the controller, once a play: who is asked are the hosts of the play, --limit included.
"""
from __future__ import annotations

import os

from ansible.plugins.action import ActionBase
from ansible_collections.zendra.devices.plugins.module_utils import answers


class ActionModule(ActionBase):
    TRANSFERS_FILES = False
    _requires_connection = False
    _VALID_ARGS = frozenset(("output",))

    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        output = self._task.args["output"]
        directory = answers.hosts_directory(output)
        os.makedirs(directory, exist_ok=True)
        for name in os.listdir(directory):
            if name.endswith(".json") or name.startswith(".new."):
                os.unlink(os.path.join(directory, name))
        names = sorted(task_vars["ansible_play_hosts_all"])
        asked = {"collected_at": answers.now(), "hosts": {}}
        for name in names:
            # Templates in an address are resolved where the host is asked; here it only says where to look.
            address = task_vars["hostvars"].raw_get(name).get("ansible_host", name)
            asked["hosts"][name] = str(address)
        answers.write_whole(answers.asked_path(output), [answers.compact(asked)])
        result.update(changed=False, asked=len(names))
        return result
