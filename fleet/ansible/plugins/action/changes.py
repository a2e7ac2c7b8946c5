"""Tells what has changed since the last collection: keeps in changes.json what "zddevices diff" says of the two files.

    zendra.devices.changes: output=DIRECTORY

Runs on the controller. Where there is no earlier collection, or no zddevices on the controller, there is no changes.json,
and the result says why.
"""
from __future__ import annotations

import os
import subprocess

from ansible.module_utils.common.text.converters import to_text
from ansible.plugins.action import ActionBase
from ansible_collections.zendra.devices.plugins.module_utils import answers

# As diff has it.
SAME, DIFFERENT = 0, 1


class ActionModule(ActionBase):
    TRANSFERS_FILES = False
    _requires_connection = False
    _VALID_ARGS = frozenset(("output",))

    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        output = os.path.abspath(self._task.args["output"])
        before, now, path = (os.path.join(output, name) for name in answers.CHANGE_FILES)
        if os.path.exists(path):
            os.unlink(path)
        result.update(changed=False)
        if not os.path.exists(before):
            result.update(msg="there is no earlier collection")
            return result
        try:
            with answers.whole_file(path) as file:
                done = subprocess.run(
                    ["zddevices", "diff", "--format", "json", before, now],
                    stdin=subprocess.DEVNULL,
                    stdout=file,
                    stderr=subprocess.PIPE,
                    env=dict(os.environ, PATH=os.environ.get("PATH", "") + ":/usr/local/sbin:/usr/sbin"),
                    check=False,
                )
                if done.returncode not in (SAME, DIFFERENT):
                    raise OSError(to_text(done.stderr).strip()[: answers.MESSAGE_LIMIT])
        except OSError as error:
            result.update(msg="what has changed is not known: %s" % to_text(error))
            return result
        result.update(changed=done.returncode == DIFFERENT, path=path)
        return result
