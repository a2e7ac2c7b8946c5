"""Files of a collection: one answer for each host, and the list of those that are asked."""
from __future__ import annotations

import json
import os
import tempfile
import time
import urllib.parse

DOCUMENTS = ("inventory", "firmware", "optical")

# Enough for a reason; a module that fails can say a great deal.
MESSAGE_LIMIT = 2000


def now():
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())


def write_whole(path, pieces):
    """Writes a file that appears under its name when it is whole."""
    descriptor, temporary = tempfile.mkstemp(dir=os.path.dirname(path), prefix=".new.")
    try:
        with os.fdopen(descriptor, "w", encoding="ascii") as file:
            for piece in pieces:
                file.write(piece)
        os.chmod(temporary, 0o644)
        os.replace(temporary, path)
    except BaseException:
        os.unlink(temporary)
        raise


def hosts_directory(output):
    return os.path.join(output, "hosts")


def host_path(output, name):
    """A name is any text, also an IPv6 address or one with a slash."""
    return os.path.join(hosts_directory(output), urllib.parse.quote(name, safe="") + ".json")


def asked_path(output):
    return os.path.join(output, "asked.json")


def problem(reason, message, document=None, classes=()):
    return {
        "reason": reason,
        "document": document,
        "classes": list(classes),
        "message": str(message).strip()[:MESSAGE_LIMIT],
    }


def host_answer(name, address, fact, problems):
    """What is kept of one host. `fact` is its ansible_local.zddevices, or empty."""
    documents = {document: fact.get(document) for document in DOCUMENTS}
    problems = list(problems) + [
        problem(one["reason"], one["message"], one["document"], one["classes"]) for one in fact.get("problems", [])
    ]
    if all(document is None for document in documents.values()):
        status = "failed"
        problems = problems or [problem("error", "the fact holds nothing")]
    else:
        if not problems:
            problems = [
                problem("error", "the fact holds no such document", document)
                for document in DOCUMENTS
                if documents[document] is None
            ]
        status = "incomplete" if problems else "ok"
    answer = {"name": name, "address": address, "answered_at": now(), "status": status, "problems": problems}
    answer.update(documents)
    return answer


def unrecorded(name, address):
    answer = host_answer(name, address, {}, [problem("error", "nothing was recorded of this host")])
    answer["answered_at"] = None
    return answer


def compact(value):
    return json.dumps(value, separators=(",", ":"))
