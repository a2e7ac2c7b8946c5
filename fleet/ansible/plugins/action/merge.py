"""Puts the answers of all hosts that were asked into fleet.json.

    zendra.devices.merge: output=DIRECTORY

Runs on the controller. One host at a time is in memory. A host of which nothing was recorded is in the file too.
"""
from __future__ import annotations

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
        totals = {"hosts": 0, "ok": 0, "incomplete": 0, "failed": 0, "devices": 0}
        path = os.path.join(output, "fleet.json")
        answers.write_whole(path, self._pieces(output, asked, totals))
        result.update(changed=True, path=path, totals=totals)
        return result

    @staticmethod
    def _pieces(output, asked, totals):
        yield '{"schema":"zendra-fleet/1","collected_at":%s,"hosts":[' % answers.compact(asked["collected_at"])
        for name, address in sorted(asked["hosts"].items()):
            try:
                with open(answers.host_path(output, name), encoding="ascii") as file:
                    answer = json.load(file)
            except FileNotFoundError:
                answer = answers.unrecorded(name, address)
            yield ("," if totals["hosts"] else "") + "\n" + answers.compact(answer)
            totals["hosts"] += 1
            totals[answer["status"]] += 1
            if answer["inventory"]:
                totals["devices"] += len(answer["inventory"]["devices"])
        yield '\n],"totals":%s}\n' % answers.compact(totals)
