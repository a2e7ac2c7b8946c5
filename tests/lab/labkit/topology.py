"""What a topology is made of, and the assertions that its test is written in."""

import json
import re
import unittest

from . import architecture, machine
from . import build as builds
from . import kernel as kernels
from .problem import Problem

RECORD_FIELDS = ("vendor", "product", "device_type", "serial_number", "firmware_revision",
                 "port", "target", "bus", "lun")

# Status codes with the names that go with them.
OK = {"code": 0, "name": "DEVICE_RESULT_OK"}
NONE = {"code": 6, "name": "DEVICE_RESULT_NONE"}

DISK = "Direct Access Device"
TAPE = "Sequential Access Device"
OPTICAL = "CD-ROM Device"
CHANGER = "Medium Changer Device"
ENCLOSURE = "Enclosure Device"

# The guest's directory in its own order, what the kernel says of the devices, and one scan of everything.
# find(1) of busybox prints names as readdir(3) yields them. The lists are the library's own.
INVENTORY_STEPS = {
    "dev": "find /dev -maxdepth 1 | sed -n 's,^/dev/,,p'",
    "addresses": "addresses",
    "merged": "zddevices --as-library --format json",
    "tape": "zddevices --as-library --type tape --format json",
    "scsi": "zddevices --as-library --type scsi --format json",
    "disk": "zddevices --as-library --type disk --format json",
    "optical": "zddevices --as-library --type optical --format json",
}

# What the program says of the devices, and what the tools say that ask nobody but the kernel.
KERNEL_STEPS = {
    "rows": "zddevices --format json",
    "lsblk": "lsblk -J -b -d -o NAME,HCTL,SIZE,TRAN",
    "lsscsi": "/usr/bin/lsscsi -g",
}
KERNEL_PROGRAMS = ("lsblk", "lsscsi")

# The address of a device for which no SCSI address was found: zeros in the list of a class, nothing in the merged list.
ZEROS = (0, 0, 0, 0)
NO_ADDRESS = (None, None, None, None)


def device_record(vendor, product, type, serial, firmware, address):
    """One device as zddevices shows it in JSON. The address is the kernel's order: host, channel, target, LUN."""
    host, channel, target, lun = address
    return {"vendor": vendor, "product": product, "device_type": type, "serial_number": serial,
            "firmware_revision": firmware, "port": host, "target": target, "bus": channel, "lun": lun}


def qemu_device(driver, **properties):
    """One `-device` of qemu, whose `scsi-id` is Python's scsi_id; other names of properties are the same."""
    return ["-device", ",".join([driver, *(f"{name.replace('scsi_id', 'scsi-id')}={_quoted(value)}"
                                           for name, value in properties.items())])]


def empty_disk(name, size=16 << 20, read_only=False):
    """A backend of so many bytes that reads as zeros and costs no file."""
    return ["-blockdev", f"driver=null-co,node-name={name},size={size},read-zeroes=on,"
                         f"read-only={'on' if read_only else 'off'}"]


def timed(command):
    """Runs a command; the seconds that it took by the guest's clock go to a file of its own."""
    return f"""
        begin=$(cut -d ' ' -f 1 /proc/uptime)
        {command}
        status=$?
        echo "$begin $(cut -d ' ' -f 1 /proc/uptime)" >/tmp/times
        exit "$status"
    """


def _quoted(value):
    return str(value).replace(",", ",,")


class Topology(unittest.TestCase):
    """A guest, what is attached to it, and what our programs must say about it.

    The guest boots once per class: `steps` run in order, and each test method looks at what they wrote.
    """

    name = ""
    about = ""
    memory = 512  # MiB
    time_limit = 240  # seconds; a guest under software emulation needs about 15
    kernel_parameters = ""
    modules = ()  # beyond those of image.MODULES
    without_modules = ()  # the guest has no file of these
    programs = ()  # of this host, for the guest's /usr/bin
    systemd = False  # it is the guest's first process, and what "cmake --install" puts on a host is there
    built_programs = ()  # of tests/lab/programs
    setup = ""  # shell text; guest/functions is at hand
    steps = {}  # name -> shell text

    build = None  # set by the command line
    arch = None  # the same; None: this host's
    additions = ()  # files of this host: (path, path in the guest or None for /usr/bin); the command line may add some
    architectures = ("amd64",)  # that have what the topology is made of
    maxDiff = None

    @classmethod
    def qemu_arguments(cls):
        """Arguments for qemu."""
        return []

    @classmethod
    def machine(cls):
        """The kind of machine that the guest is."""
        machine = architecture.find(cls.arch)
        if machine.name not in cls.architectures:
            raise Problem(f"topology {cls.name} is for {', '.join(cls.architectures)}, not for {machine.name}")
        return machine

    @classmethod
    def nvme_identifies_itself_to_all(cls):
        """Whether the kernel lets whoever may open an NVMe disk ask it who it is; before Linux 6.2 only root."""
        return [int(part) for part in kernels.get(cls.machine()).release.split(".")[:2]] >= [6, 2]

    @classmethod
    def setUpClass(cls):
        cls.results = machine.boot(cls, cls.build or builds.find(arch=cls.arch), cls.steps)

    # What a step wrote.

    def stdout(self, step):
        return self.results[step].stdout.decode()

    def stderr(self, step):
        return self.results[step].stderr.decode()

    def inventory(self, step, exit_status=0):
        result = self.results[step]
        self.assertEqual(exit_status, result.status,
                         f"exit status of step '{step}', which said:\n{result.stderr.decode(errors='replace')}")
        try:
            inventory = json.loads(result.stdout)
        except ValueError as error:
            self.fail(f"step '{step}' wrote no JSON ({error}):\n{result.stdout!r}\n{result.stderr!r}")
        return inventory

    def diagnosis(self, step, exit_status=0):
        """The document of 'zddevices doctor', and its device files as class -> path -> file."""
        document = self.inventory(step, exit_status)
        self.assertEqual("zddevices-doctor/1", document["schema"])
        self.assertEqual(exit_status == 0, document["all_visible"])
        return document, {one["type"]: {file["path"]: file for file in one["device_files"]}
                          for one in document["classes"]}

    def assert_failures(self, file, expected):
        """The requests that failed or drew a remark, as (name, error or remark)."""
        self.assertEqual(expected, [(one["request"], one["error"]["name"] if one["error"] else one["remark"])
                                    for one in file["questions"] if one["error"] or one["remark"]], file["path"])

    def optical_table(self, step="cdrom"):
        """The guest's own /proc/sys/dev/cdrom/info: name of the row -> its columns."""
        rows = {}
        for line in self.stdout(step).splitlines():
            name, colon, columns = line.partition(":")
            if colon:
                rows[name] = columns.split()
        return rows

    # Assertions.

    def assert_firmware(self, step, expected):
        """The identities in the order of their devices, each of which this guest has."""
        document = self.inventory(step)
        self.assertEqual(OK, document["status"])
        devices = [identity.pop("device") for identity in document["identities"]]
        self.assertEqual(expected, document["identities"])
        self.assertEqual(sorted(set(devices)), devices)
        self.assertLessEqual(set(devices), set(self.stdout("dev").split()))
        for identity in document["identities"]:
            self.assertEqual([*IDENTITY_PROPERTIES, "SerialNumber", "model", "revision"], list(identity))

    def assert_inventory(self, step, status, devices, exit_status=0):
        """The whole document: status and every record, field by field and in order."""
        inventory = self.inventory(step, exit_status)
        self.assertEqual("zddevices/1", inventory["schema"])
        self.assertEqual(f"lab-{self.name}", inventory["host"])
        self.assertEqual(status, inventory["status"], f"status in step '{step}'")
        for record in inventory["devices"]:
            self.assertEqual(sorted(RECORD_FIELDS), sorted(record), f"names of the fields in step '{step}'")
        self.assertMultiLineEqual(_lines(devices), _lines(inventory["devices"]),
                                  f"devices in step '{step}' (-: required, +: seen)")
        # The lines above are for the reader; the values themselves decide (1 is not "1").
        self.assertEqual(devices, inventory["devices"], f"devices in step '{step}'")

    def assert_rows_are_the_kernels(self):
        """Each device that lsblk or lsscsi knows is one row, with their name, address, size and transport; and no more.

        To lsscsi all device files of an address belong together. An NVMe namespace is a disk to both tools.
        """
        rows = self.inventory("rows")["devices"]
        addresses = {row["device"]: None if row["port"] is None else
                     ":".join(str(row[part]) for part in ("port", "bus", "target", "lun")) for row in rows}
        self.assertEqual(len(rows), len(addresses), "two rows of one name")
        disks = {disk["name"]: disk for disk in json.loads(self.stdout("lsblk"))["blockdevices"]
                 if not disk["name"].startswith(("loop", "ram", "zram"))}
        self.assertGreater(len(disks), 0)
        files = dict(_units(self.stdout("lsscsi")))
        self.assertGreater(len(files), 0)

        seen = set()
        for row in rows:
            name, address = row["device"], addresses[row["device"]]
            mine = [disks[file[5:]] for file in row["device_files"] if file[5:] in disks]
            seen.update(disk["name"] for disk in mine)
            if mine:
                # A namespace that two controllers reach gives its name to one of them.
                self.assertTrue(name == mine[0]["name"] or
                                row["transport"] == "nvme" and f"/dev/{name}" in row["device_files"], name)
                self.assertEqual({address}, {disk["hctl"] for disk in mine}, name)
                self.assertEqual(sum(disk["size"] for disk in mine), row["size_bytes"], name)
                self.assertEqual({row["transport"]}, {disk["tran"] for disk in mine}, name)
            else:
                self.assertIsNone(row["size_bytes"], name)
            if address is not None:
                own, generic = files.pop(address)
                self.assertEqual(own or generic, f"/dev/{name}")
                self.assertLessEqual({file for file in (own, generic) if file}, set(row["device_files"]), name)
        self.assertEqual(set(disks), seen)
        self.assertEqual([], [address for address in files if not address.startswith("N:")])

    def assert_rows(self, step, devices, exit_status=0):
        """The library's texts of every row, in order."""
        rows = [{field: row[field] for field in RECORD_FIELDS}
                for row in self.inventory(step, exit_status)["devices"]]
        self.assertMultiLineEqual(_lines(devices), _lines(rows), f"rows in step '{step}' (-: required, +: seen)")
        self.assertEqual(devices, rows, f"rows in step '{step}'")

    def device_files(self, prefix, listing="dev"):
        return [node for node in self.stdout(listing).split() if node.startswith(prefix)]

    def in_directory_order(self, prefix, records_by_address, listing="dev", addresses="addresses"):
        """The records in the order in which the guest's /dev yields the files of that prefix.

        `records_by_address` names every device that must be there, by host, channel, target and LUN; the step
        `listing` holds the directory, the step `addresses` which file the kernel gave to which address.
        """
        address = dict(line.split() for line in self.stdout(addresses).splitlines())
        # A partition has no address of its own and is nobody's device file.
        nodes = [node for node in self.device_files(prefix, listing) if node in address]
        by_text = {":".join(map(str, key)): record for key, record in records_by_address.items()}
        self.assertEqual(sorted(by_text), sorted(address[node] for node in nodes),
                         f"the guest's devices with a file /dev/{prefix}*")
        return [by_text[address[node]] for node in nodes]

    def messages(self, step):
        """What the step logged: (level, message) per line, without the place in the source."""
        entries = []
        for line in self.stderr(step).splitlines():
            head, _, rest = line.partition(" ")
            if len(head) == 3 and head[0] == "[" and head[2] == "]":
                entries.append((int(head[1]), rest.partition(" ")[2]))
            elif not line.startswith("zddevices: "):
                self.fail(f"step '{step}' wrote '{line}', which is no log line")
        return entries

    def assert_whole_log(self, step, expected):
        """Exactly these (level, message), and no others."""
        self.assertEqual(expected, self.messages(step), f"log of step '{step}'")

    def assert_logs(self, step, expected):
        """Every expected (level, message) is there, in this order; others may stand between them."""
        messages = self.messages(step)
        position = 0
        for entry in expected:
            try:
                position = messages.index(entry, position) + 1
            except ValueError:
                seen = "\n".join(f"{level} '{message}'" for level, message in messages)
                self.fail(f"step '{step}' did not log {entry} after its {position}. message. It logged:\n{seen}")


# Which row of the kernel's table decides which field of an optical record.
OPTICAL_ROWS = {
    "dvd_ram_write": "Can write DVD-RAM",
    "cd_rw_write": "Can write CD-RW",
    "cd_r_write": "Can write CD-R",
    "dvd_read": "Can read DVD",
    "dvd_r_write": "Can write DVD-R",
    "mrw_r": "Can read MRW",
    "mrw_w": "Can write MRW",
    "ram_w": "Can write RAM",
}

# The CIM properties of a firmware identity, in order.
IDENTITY_PROPERTIES = [
    "Description", "ElementName", "ProductName", "Manufacturer", "Name", "VersionString", "Classifications",
    "ClassificationDescriptions", "IdentityInfoValue", "SoftwareID", "SubDeviceID", "ReleaseDate", "SoftwareStatus",
    "SoftwareRole", "IdentityInfoType", "IsPLDMUpdateSupported", "InstanceID", "AssociatedAdapterSlot",
    "LastUpdateError", "LastUpdateErrorString",
]


def identity_record(software_id, version, serial, model=None):
    """A firmware identity as JSON holds it, without the name of its device. `model` where the identity has part of it."""
    return {**dict.fromkeys(IDENTITY_PROPERTIES), "Name": software_id, "SoftwareID": software_id,
            "VersionString": version, "Classifications": "10", "IsPLDMUpdateSupported": "0", "SerialNumber": serial,
            "model": model or software_id, "revision": version.rstrip(" \x06")}


def _units(listing):
    """What 'lsscsi -g' lists: address -> (its own device file, its generic one); None for one that is not there."""
    for line in listing.splitlines():
        address = re.match(r"\[(\S+)\]", line).group(1)
        own, generic = (None if file == "-" else file for file in line.split()[-2:])
        yield address, (own, generic)


def _lines(records):
    return "".join(f"{number}. " + " ".join(f"{field}={record.get(field)!r}" for field in RECORD_FIELDS) + "\n"
                   for number, record in enumerate(records, start=1))
