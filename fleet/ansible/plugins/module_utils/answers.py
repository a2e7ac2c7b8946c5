"""Files of a collection: one answer for each host, and the list of those that are asked."""
from __future__ import annotations

import contextlib
import json
import os
import tempfile
import time
import urllib.parse

from ansible_collections.zendra.devices.plugins.module_utils import documents
from ansible_collections.zendra.devices.plugins.module_utils.documents import compact
from ansible_collections.zendra.devices.plugins.module_utils.texts import printable

DOCUMENTS = tuple(documents.SCHEMAS)

# Enough for a reason; a module that fails can say a great deal.
MESSAGE_LIMIT = 2000


def now():
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())


@contextlib.contextmanager
def whole_file(path):
    """A file to write that appears under its name when it is whole, and not at all when that fails."""
    descriptor, temporary = tempfile.mkstemp(dir=os.path.dirname(path), prefix=".new.")
    try:
        with os.fdopen(descriptor, "w", encoding="ascii") as file:
            yield file
        os.chmod(temporary, 0o644)
        os.replace(temporary, path)
    except BaseException:
        os.unlink(temporary)
        raise


def write_whole(path, pieces):
    with whole_file(path) as file:
        for piece in pieces:
            file.write(piece)


def hosts_directory(output):
    return os.path.join(output, "hosts")


def host_path(output, name):
    """A name is any text, also an IPv6 address or one with a slash."""
    return os.path.join(hosts_directory(output), urllib.parse.quote(name, safe="") + ".json")


def asked_path(output):
    return os.path.join(output, "asked.json")


# The file of the last collection, that of this one, and what has changed between them.
CHANGE_FILES = ("fleet.before.json", "fleet.json", "changes.json")


def problem(reason, message, document=None):
    return {"reason": reason, "document": document, "message": printable(str(message).strip()[:MESSAGE_LIMIT])}


def judge(local, refused=None):
    """The fact out of a host's ansible_local, of which nothing is known, and the problems that it does not know of.

    `refused` is why root was refused, if it was.
    """
    problems = []
    fact = local.get("zddevices") if isinstance(local, dict) else None
    if fact is None:
        problems.append(problem("not_installed", "the host has no fact zddevices"))
    elif not isinstance(fact, dict):
        problems.append(problem("error", "the fact zddevices: %s" % str(fact)))
    if not isinstance(fact, dict):
        fact = {}
    if refused and (problems or fact.get("problems")):
        problems.insert(0, problem("not_root", refused))
    return fact, problems


def host_answer(name, address, fact, problems):
    """What is kept of one host. `fact` is its ansible_local.zddevices, of which nothing is known, or empty."""
    problems = list(problems)
    wrong = documents.complaint(fact)
    if wrong:
        document, message = wrong
        problems.append(problem("error", message, document if document in DOCUMENTS else None))
        fact = {}
    for one in fact.get("problems") or []:
        problems.append(problem(one["reason"], one["message"], one["document"]))
    missing = [document for document in DOCUMENTS if fact.get(document) is None]
    if len(missing) == len(DOCUMENTS):
        status = "failed"
        problems = problems or [problem("error", "the fact holds nothing")]
    else:
        problems = problems or [problem("error", "the fact holds no such document", document) for document in missing]
        status = "incomplete" if problems else "ok"
    answer = {"name": name, "address": address, "answered_at": now(), "status": status, "problems": problems}
    answer.update((document, fact.get(document)) for document in DOCUMENTS)
    return answer


def unrecorded(name, address, message="nothing was recorded of this host"):
    answer = host_answer(name, address, {}, [problem("error", message)])
    answer["answered_at"] = None
    return answer


def read_answer(output, name, address):
    """What was kept of a host, whatever became of the file."""
    try:
        with open(host_path(output, name), encoding="ascii") as file:
            return json.load(file)
    except FileNotFoundError:
        return unrecorded(name, address)
    except (OSError, ValueError, RecursionError) as error:
        return unrecorded(name, address, "the file of this host: %s" % error)


def fleet_pieces(collected_at, hosts):
    """The merged file, a host a line; `hosts` are answers in the order of their names. The last piece has the totals."""
    totals = {"hosts": 0, "ok": 0, "incomplete": 0, "failed": 0, "devices": 0}
    yield '{"schema":"zendra-fleet/1","collected_at":%s,"hosts":[' % compact(collected_at)
    for answer in hosts:
        yield ("," if totals["hosts"] else "") + "\n" + compact(answer)
        totals["hosts"] += 1
        totals[answer["status"]] += 1
        if answer["inventory"]:
            totals["devices"] += len(answer["inventory"]["devices"])
    yield '\n],"totals":%s}\n' % compact(totals)


def read_fleet(path):
    """The merged file as fleet_pieces() writes it: all but the hosts, and what gives the hosts one by one."""
    with open(path, "rb") as file:
        head = file.readline()
        size = file.seek(0, os.SEEK_END)
        file.seek(max(0, size - 4096))
        tail = file.read().rpartition(b"\n]")[2]
    rest = json.loads(head + b"]" + tail)

    def hosts():
        with open(path, encoding="ascii") as lines:
            next(lines)
            for line in lines:
                if not line.startswith("]"):
                    yield json.loads(line.rstrip(",\n"))

    return rest, hosts()
