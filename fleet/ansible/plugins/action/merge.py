"""Puts the answers of all hosts that were asked into fleet.json.

    zendra.devices.merge: output=DIRECTORY

Runs on the controller. One host at a time is in memory. A host of which nothing was recorded is in the file too. The
file of the last collection stays as fleet.before.json.
"""
from __future__ import annotations

import contextlib
import json
import os

from ansible.plugins.action import ActionBase
from ansible_collections.zendra.devices.plugins.module_utils import answers


class ActionModule(ActionBase):
    TRANSFERS_FILES = False
    _requires_connection = False
    _VALID_ARGS = frozenset(("output",))

    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        output = os.path.abspath(self._task.args["output"])
        with open(answers.asked_path(output), encoding="ascii") as file:
            asked = json.load(file)
        path = os.path.join(output, "fleet.json")
        self._keep_the_last(path, os.path.join(output, "fleet.before.json"))
        hosts = (answers.read_answer(output, *host) for host in sorted(asked["hosts"].items()))
        answers.write_whole(path, answers.fleet_pieces(asked["collected_at"], hosts))
        result.update(changed=True, path=path, totals=answers.read_fleet(path)[0]["totals"])
        return result

    @staticmethod
    def _keep_the_last(path, before):
        """A second name for the file, so that there is a whole one under its own at every moment."""
        with contextlib.suppress(FileNotFoundError):
            os.unlink(before)
        with contextlib.suppress(FileNotFoundError):
            os.link(path, before)
