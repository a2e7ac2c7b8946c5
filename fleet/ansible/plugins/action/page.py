"""Makes one page of a merged file.

    zendra.devices.page: fleet=FILE frame=FILE page=FILE [changes=FILE]

Runs on the controller. The page reads the file by itself: a device's text in an Ansible variable would be templated once
more.
"""
from __future__ import annotations

import json
import os

from ansible.plugins.action import ActionBase
from ansible_collections.zendra.devices.plugins.module_utils import answers, page


class ActionModule(ActionBase):
    TRANSFERS_FILES = False
    _requires_connection = False
    _VALID_ARGS = frozenset(("fleet", "frame", "page", "changes"))

    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        arguments = self._task.args
        with open(self._find_needle("files", arguments["frame"]), encoding="utf-8") as file:
            frame = file.read()
        path = os.path.abspath(arguments["page"])
        difference = None
        if os.path.exists(arguments.get("changes") or ""):
            with open(arguments["changes"], encoding="ascii") as file:
                difference = json.load(file)
        answers.write_whole(path, page.pieces(arguments["fleet"], frame, difference))
        result.update(changed=True, path=path)
        return result
