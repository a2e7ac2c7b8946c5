"""Asks one host for its custom fact and keeps the answer, or the reason why there is none, in a file.

    zendra.devices.collect: output=DIRECTORY [refused=TEXT]

Fails, or says unreachable, like any task, so that a playbook may try again in another way; the last answer is kept.
`refused` is why root was refused when this try is one without become.

The answer goes from the connection into the file and not into Ansible's variables: the controller need not hold the
devices of all hosts at once, and no text of a device is ever taken for a template.
"""
from __future__ import annotations

import contextlib
import os
import resource

from ansible.errors import AnsibleConnectionFailure
from ansible.module_utils.common.text.converters import to_text
from ansible.plugins.action import ActionBase
from ansible_collections.zendra.devices.plugins.module_utils import answers, texts


# Of memory, for one host's answer. An answer of a hundred megabytes, which is refused, takes half of it.
LARGEST = 1 << 30

# Where a module says why it failed.
TOLD = ("msg", "module_stderr", "module_stdout")


@contextlib.contextmanager
def bounded_memory():
    """Each host is asked by a process of its own. A host that says something without end must not take the controller's memory."""
    before = resource.getrlimit(resource.RLIMIT_AS)
    with open("/proc/self/statm", encoding="ascii") as file:
        now = int(file.read().split()[0]) * resource.getpagesize()
    wanted = now + LARGEST
    resource.setrlimit(resource.RLIMIT_AS, (wanted if before[1] == resource.RLIM_INFINITY else min(wanted, before[1]), before[1]))
    try:
        yield
    finally:
        resource.setrlimit(resource.RLIMIT_AS, before)


class ActionModule(ActionBase):
    TRANSFERS_FILES = False
    _VALID_ARGS = frozenset(("output", "refused"))

    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        try:
            with bounded_memory():
                gathered = self._execute_module(
                    module_name="ansible.builtin.setup",
                    module_args={"gather_subset": ["!all", "!min", "local"], "filter": ["ansible_local"]},
                    task_vars=task_vars,
                )
            if gathered.get("failed"):
                return self._failed(task_vars, result, "error", self._why(gathered))
            local = gathered["ansible_facts"]["ansible_local"]
            status = self._keep(task_vars, *answers.judge(local, self._task.args.get("refused")))
        except AnsibleConnectionFailure as error:
            raise AnsibleConnectionFailure(self._failed(task_vars, result, "unreachable", error)["msg"]) from None
        except MemoryError:
            return self._failed(task_vars, result, "error", "the answer is larger than the memory that a host may take")
        except Exception as error:
            return self._failed(task_vars, result, "error", error)
        except BaseException as error:
            # No Exception, and each release of Ansible keeps it in another module.
            if type(error).__name__ != "TaskTimeoutError":
                raise
            result["time_limit"] = True
            message = "the host did not answer within %s seconds" % self._task.timeout
            return self._failed(task_vars, result, "time_limit", message)
        result.update(changed=False, status=status)
        return result

    def _parse_returned_data(self, res, *more):
        """What is looked at, and nothing else: the rest would become warnings of Ansible's, and a terminal acts on those."""
        said = super()._parse_returned_data({**res, "stdout": texts.printable(res.get("stdout", ""))}, *more)
        facts = said.get("ansible_facts")
        local = facts.get("ansible_local") if isinstance(facts, dict) else None
        kept = {key: said[key] for key in ("_ansible_parsed", "failed", *TOLD) if key in said}
        return {**kept, "ansible_facts": {"ansible_local": local}}

    def _failed(self, task_vars, result, reason, message):
        problem = answers.problem(reason, to_text(message))
        self._keep(task_vars, {}, [problem])
        result.update(failed=True, msg=problem["message"])
        return result

    @staticmethod
    def _why(gathered):
        told = [gathered.get(key) for key in TOLD]
        return "\n".join(to_text(text).strip() for text in told if text)

    def _keep(self, task_vars, fact, problems):
        name = task_vars["inventory_hostname"]
        address = self._play_context.remote_addr
        answer = answers.host_answer(name, to_text(address) if address else None, fact, problems)
        path = answers.host_path(self._task.args["output"], name)
        answers.write_whole(os.path.abspath(path), [answers.compact(answer), "\n"])
        return answer["status"]
