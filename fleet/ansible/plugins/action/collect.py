"""Asks one host for its custom fact and keeps the answer, or the reason why there is none, in a file.

    zendra.devices.collect: output=DIRECTORY [refused=TEXT]

Fails, or says unreachable, like any task, so that a playbook may try again in another way; the last answer is kept.
`refused` is why root was refused when this try is one without become.

The answer goes from the connection into the file and not into Ansible's variables: the controller need not hold the
devices of all hosts at once, and no text of a device is ever taken for a template.
"""
from __future__ import annotations

import os

from ansible.errors import AnsibleConnectionFailure
from ansible.executor.task_executor import TaskTimeoutError
from ansible.module_utils.common.text.converters import to_text
from ansible.plugins.action import ActionBase
from ansible_collections.zendra.devices.plugins.module_utils import answers


class ActionModule(ActionBase):
    TRANSFERS_FILES = False
    _VALID_ARGS = frozenset(("output", "refused"))

    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        try:
            gathered = self._execute_module(
                module_name="ansible.builtin.setup",
                module_args={"gather_subset": ["!all", "!min", "local"], "filter": ["ansible_local"]},
                task_vars=task_vars,
            )
            if gathered.get("failed"):
                message = self._why(gathered)
                self._keep(task_vars, {}, [answers.problem("error", message)])
                result.update(failed=True, msg=message)
                return result
            local = gathered["ansible_facts"].get("ansible_local", {})
            status = self._keep(task_vars, *answers.judge(local, self._task.args.get("refused")))
        except AnsibleConnectionFailure as error:
            self._keep(task_vars, {}, [answers.problem("unreachable", to_text(error))])
            raise
        except TaskTimeoutError:
            message = "the host did not answer within %s seconds" % self._task.timeout
            self._keep(task_vars, {}, [answers.problem("time_limit", message)])
            result.update(failed=True, time_limit=True, msg=message)
            return result
        except Exception as error:
            self._keep(task_vars, {}, [answers.problem("error", to_text(error))])
            raise
        result.update(changed=False, status=status)
        return result

    @staticmethod
    def _why(gathered):
        told = [gathered.get(key) for key in ("msg", "module_stderr", "module_stdout")]
        return "\n".join(to_text(text).strip() for text in told if text)

    def _keep(self, task_vars, fact, problems):
        name = task_vars["inventory_hostname"]
        address = self._play_context.remote_addr
        answer = answers.host_answer(name, to_text(address) if address else None, fact, problems)
        path = answers.host_path(self._task.args["output"], name)
        answers.write_whole(os.path.abspath(path), [answers.compact(answer), "\n"])
        return answer["status"]
