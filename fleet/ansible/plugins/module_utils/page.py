"""What the page shows of a merged file, as compact as JSON is, and the page with it."""
from __future__ import annotations

import base64
import hashlib

from ansible_collections.zendra.devices.plugins.module_utils import answers
from ansible_collections.zendra.devices.plugins.module_utils.texts import shown

# In words; the others are words already.
REASONS = {"not_root": "not root", "time_limit": "time limit", "not_installed": "not installed"}


def address(device):
    numbers = tuple(device[key] for key in ("port", "bus", "target", "lun"))
    # Programs that did not tell the device's file wrote zeros for an address that they did not know.
    known = None not in numbers and ("device" in device or any(numbers))
    return "%d:%d:%d:%d" % numbers if known else ""


def described(rows):
    """A device of which something has changed: what it is, its firmware, and where it is."""
    if not rows:
        return ""
    device = rows[0]
    words = [shown(device[key]) for key in ("vendor", "product", "serial_number")]
    firmware = shown(device["firmware_revision"])
    place = shown(device.get("slot")) or address(device)
    words += ["firmware " + firmware] * bool(firmware) + ["at " + place] * bool(place)
    return " ".join(filter(None, words))


def changes_of(difference):
    """Host, what happened, device before and now: of each line of what "zddevices diff" said."""
    for one in difference["hosts"]:
        devices = "one device" if one["devices"] == 1 else "%d devices" % one["devices"]
        gone = one["change"] in ("removed", "not_seen")
        yield shown(one["host"]), "host " + one["change"].replace("_", " "), devices * gone, devices * (not gone)
    for one in difference["devices"]:
        words = ", ".join(one["changes"]).replace("_", " ")
        yield shown(one["host"]), words, described(one["old"]), described(one["new"])


def silent_devices(host):
    """What gave no answer: device file, reason, message."""
    for document in answers.DOCUMENTS:
        for one in (host[document] or {}).get("unanswered", ()):
            yield shown(one["device_file"]), shown(one["reason"]).replace("_", " "), shown(one["message"])


class Contents:
    """The data of the page. What many devices have in common, their kind, is there once."""

    def __init__(self):
        self.hosts = []
        self.problems = []
        self.silent = []
        self.kinds = {}
        self.changes = []
        self.before = None
        self.devices = {"kind": [], "file": [], "address": [], "serial": []}

    def add(self, host):
        number = len(self.hosts)
        inventory = host["inventory"]
        count = len(inventory["devices"]) if inventory else None
        itself = shown(inventory["host"]) if inventory else ""
        self.hosts.append(
            [shown(host["name"]), shown(host["address"]), itself, host["status"], count, shown(host["answered_at"])]
        )
        for problem in host["problems"]:
            missing = problem["document"] or "everything"
            reason = REASONS.get(problem["reason"], problem["reason"])
            self.problems.append([number, reason, shown(missing), shown(problem["message"])])
        self.silent += ([number, *one] for one in dict.fromkeys(silent_devices(host)))
        for device in inventory["devices"] if inventory else ():
            self._add_device(device)

    def _add_device(self, device):
        texts = [shown(device[key]) for key in ("device_type", "vendor", "product", "firmware_revision")]
        kind = (*texts, device.get("size_bytes"))
        self.devices["kind"].append(self.kinds.setdefault(kind, len(self.kinds)))
        self.devices["file"].append(shown(device.get("device")))
        self.devices["address"].append(address(device))
        self.devices["serial"].append(shown(device["serial_number"]))

    def json(self, fleet):
        self.problems.sort(key=lambda problem: self.hosts[problem[0]][3] != "failed")
        data = {
            "collected_at": shown(fleet["collected_at"]),
            "totals": fleet["totals"],
            "hosts": self.hosts,
            "problems": self.problems,
            "silent": self.silent,
            "before": self.before,
            "changes": self.changes,
            "kinds": list(self.kinds),
            "devices": self.devices,
        }
        # No text may end the element that holds the data, or begin a comment in it.
        return answers.compact(data).replace("<", "\\u003c")


def pieces(path, frame, difference=None):
    """The page of the merged file in `path`. `frame` is the page without its data and without its script's hash;
    `difference` what "zddevices diff" says of the last collection and this one."""
    fleet, hosts = answers.read_fleet(path)
    contents = Contents()
    if difference:
        contents.before = shown(difference["old"]["collected_at"])
        contents.changes = list(changes_of(difference))
    for host in hosts:
        contents.add(host)
    script = frame.rpartition("<script>")[2].partition("</script>")[0]
    digest = base64.b64encode(hashlib.sha256(script.encode()).digest()).decode()
    before, after = frame.replace("SCRIPT_HASH", digest, 1).split("PAGE_DATA")
    return before, contents.json(fleet), after
