"""The hosts of the fleet test: what each of them holds, and what the collection must say about it.

What a host answers is a host file (tests/simhost/README.md); what must come back is worked out from it by the model in
tests/simhost, never by the library.
"""
import codecs
import dataclasses
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "simhost"))
import model  # noqa: E402  (its directory has just been made known)

MODPROBE_WORKS, MODPROBE_FAILS = "modprobe exit=0", "modprobe exit=1"

STATUS_NAMES = {0: "DEVICE_RESULT_OK", 5: "DEV_FAILURE", 6: "DEVICE_RESULT_NONE"}

# The classes of devices as zddevices names them, and the beginnings of their device files' names.
CLASSES = {"tape": ("st", "nst"), "scsi": ("sg",), "disk": ("sd", "hd", "nvme"), "optical": ("sr",)}

DRIVE_TABLE = (
    r"CD-ROM information, Id: cdrom.c 3.20 2003/12/17\n\n"
    r"drive name:\t\tsr0\ndrive speed:\t\t48\ndrive # of slots:\t1\nCan close tray:\t\t1\nCan open tray:\t\t1\n"
    r"Can lock tray:\t\t1\nCan change speed:\t1\nCan select disk:\t0\nCan read multisession:\t1\nCan read MCN:\t\t1\n"
    r"Reports media changed:\t1\nCan play audio:\t\t1\nCan write CD-R:\t\t1\nCan write CD-RW:\t0\nCan read DVD:\t\t1\n"
    r"Can write DVD-R:\t1\nCan write DVD-RAM:\t0\nCan read MRW:\t\t1\nCan write MRW:\t\t0\nCan write RAM:\t\t1\n\n\n"
)


@dataclasses.dataclass
class Node:
    """A device file and what it answers."""

    name: str
    answers: list


def text(value):
    """A text in double quotes, as host files write it; `value` is bytes or a str of ASCII."""
    data = value if isinstance(value, bytes) else value.encode("ascii")
    return '"%s"' % "".join(
        chr(byte) if 0x20 <= byte <= 0x7E and byte not in b'"\\' else "\\x%02x" % byte for byte in data
    )


def scsi(name, kind=0, vendor="HALVARD", product="HX 900", revision="0102", serial=None, at=(0, 0, 0, 0), more=()):
    """A SCSI device by the name of its own driver; at: host, channel, target, LUN."""
    host, channel, target, lun = at
    answers = [
        "sg_version 30536",
        "inquiry times=any type=%d vendor=%s product=%s revision=%s" % (kind, text(vendor), text(product), text(revision)),
        "idlun 0x%02x%02x%02x%02x" % (host, channel, lun, target),
        "bus_number %d" % host,
    ]
    if serial is not None:
        answers.append("serial times=any text=%s" % text(serial))
    return Node(name, answers + list(more))


def generic(name, device, at):
    """The same device as the generic driver shows it."""
    answers = [line for line in device.answers if line.split()[0] in ("sg_version", "inquiry", "serial")]
    return Node(name, answers + ["scsi_id host=%d channel=%d id=%d lun=%d" % at])


def nvme(name, model_name, serial, revision):
    identify = "nvme_identify times=any serial=%s model=%s revision=%s" % (text(serial), text(model_name), text(revision))
    return Node(name, [identify])


def disk_name(index):
    """sda, sdb, ... sdz, sdaa, ..."""
    letters = ""
    index += 1
    while index > 0:
        index, letter = divmod(index - 1, 26)
        letters = chr(ord("a") + letter) + letters
    return "sd" + letters


def with_generic(devices):
    """Devices with their sg nodes: (node, address) pairs to nodes."""
    return [device for device, _ in devices] + [
        generic("sg%d" % index, device, at) for index, (device, at) in enumerate(devices)
    ]


def disks(count, product="HX 900", revision="0102", adapter=6, first=0):
    pairs = []
    for index in range(first, first + count):
        at = (adapter, 0, index % 100, index // 100)
        serial = "HX-%d-%05d" % (adapter, index)
        pairs.append((scsi(disk_name(index), product=product, revision=revision, serial=serial, at=at), at))
    return pairs


@dataclasses.dataclass
class TestHost:
    """One host: its devices, how it is reached, and what must be said of it."""

    name: str
    nodes: list = dataclasses.field(default_factory=list)
    blocks: list = dataclasses.field(default_factory=list)
    modprobe: str = MODPROBE_WORKS
    drive_table: str = ""
    # Device files that never answer.
    stuck: tuple = ()
    # Who Ansible logs in as; any other than root is made.
    user: str = "root"
    may_sudo: bool = False
    # Nobody has the address.
    absent: bool = False
    # Connections are taken and nothing ever said.
    deaf: bool = False
    # Another fact of the host never ends.
    endless_fact: bool = False
    # The packages and the fact are there before Ansible comes.
    prepared: bool = False
    # What must be said: the status, and reason and document of each problem.
    status: str = "ok"
    problems: tuple = ()

    def host_file(self, readable=True, without=()):
        """The host as a file. Not readable: as a user sees it who may open no device file."""
        lines = [self.modprobe]
        for node in self.nodes:
            if node.name in without:
                continue
            lines.append("dev %s %s" % ("node" if readable else "unreadable", node.name))
            if readable:
                lines += ["  " + answer for answer in node.answers]
        lines += self.blocks + self.plain_blocks(without)
        if self.drive_table:
            lines.append('cdrom_info "%s"' % self.drive_table)
        # A host file has at least one call; the tests make theirs by themselves.
        return "\n".join(lines + ["call all"]) + "\n"

    def plain_blocks(self, without):
        """What the kernel has of each disk of which nothing else is said."""
        told = {line.split()[1] for line in self.blocks}
        disks = [node.name for node in self.nodes if node.name.startswith(("sd", "nvme")) and node.name not in told]
        return [
            "block %s%s" % (name, "" if name.startswith("nvme") else r' rev="0102\n"')
            for name in disks
            if name not in without
        ]

    def lacking(self, classes, readable):
        """The device files of these classes that give no record, and why."""
        prefixes = tuple(prefix for name in classes for prefix in CLASSES[name])
        names = [node.name for node in self.nodes] if not readable else self.stuck
        reason = "no_answer_in_time" if readable else "denied"
        return sorted(("/dev/" + name, reason) for name in names if name.startswith(prefixes))

    def expected(self):
        """What the three documents must hold besides time: a dict, or None where there is no answer."""
        readable = self.user == "root" or self.may_sudo
        host = model.parse_host(self.host_file(readable, self.stuck))
        documents = {}
        for document, schema, key, ask, records_of in (
            ("inventory", "zddevices/1", "devices", "all_device", device_record),
            ("firmware", "zddevices-firmware/1", "identities", "software_identities", identity_record),
            ("optical", "zddevices-optical/1", "drives", "optical_properties", optical_record),
        ):
            host.rewind()
            library = model.Library(host)
            library.construct_collector()
            records = []
            status = getattr(library, ask)(records)
            asked = {"inventory": list(CLASSES), "firmware": ["disk"], "optical": ["optical"]}[document]
            unanswered = self.lacking(asked, readable)
            documents[document] = {
                "schema": schema,
                "host": self.name,
                "status": {"code": status, "name": STATUS_NAMES[status]},
                key: [records_of(record) for record in records],
                "complete": not unanswered,
                "unanswered": [{"device_file": file, "reason": reason} for file, reason in unanswered],
            }
        return documents


def replace_byte(error):
    """For bytes that are no UTF-8: a replacement character for each of them."""
    return "\ufffd", error.start + 1


codecs.register_error("fleet-replace", replace_byte)


def known(value):
    """A text of the model (one character a byte) as JSON has it."""
    return value.encode("latin-1").decode("utf-8", "fleet-replace") or None


def device_record(record):
    result = {field: known(record[field]) for field in model.SYSTEM_DEVICE_FIELDS[:5]}
    result.update({field: int(record[field]) if record[field] else None for field in model.SYSTEM_DEVICE_FIELDS[5:]})
    return result


def identity_record(record):
    """The CIM properties: all but the record's own three fields."""
    own = ("SerialNumber", "ExtraInfo", "Category")
    return {field: known(value) for field, value in record.items() if field not in own and isinstance(value, str)}


def optical_record(record):
    return {field.rstrip("_"): known(record[field]) for field in model.OPTICAL_FIELDS}


def everything():
    """One of each kind, as a small server has them."""
    sata, sas = (2, 0, 0, 0), (6, 0, 0, 2)
    drive, tape, changer = (1, 0, 0, 0), (7, 0, 4, 0), (7, 0, 4, 1)
    identify = 'ata_identify times=any model="SEAVIEW ST4000X" revision=CD34 serial="ZC18LQ0042"'
    pairs = [
        (scsi("sda", 0, "ATA", "SEAVIEW ST4000X", "CD3", "ZC18LQ0042", sata, [identify]), sata),
        (scsi("sdb", 0, "HALVARD", "RAID 5 Volume", "7.20", "VOL000000003", sas), sas),
        (scsi("sr0", 5, "ZENDISC", "DVD-ROM", "D001", None, drive), drive),
        (scsi("st0", 1, "LABTAPE", "Streamer 6", "T104", "16000", tape), tape),
    ]
    nodes = with_generic(pairs)
    nodes.append(generic("sg4", scsi("-", 8, "LABTAPE", "Changer 6", "C001", None, changer), changer))
    nodes.append(nvme("nvme0n1", "QEMU NVMe Ctrl", "NV-5510-A", "7.2.22"))
    blocks = [r'block sr0 rev="D001\n"', r'block sda firmware_rev="CD34\n"', r'block sdb rev="7.20\n"', "block nvme0n1"]
    return {"nodes": nodes, "blocks": blocks, "drive_table": DRIVE_TABLE}


def plain():
    """Disks without the generic driver, which are no ATA disks and say so."""
    devices = [device for device, _ in disks(2, adapter=3)]
    for device in devices:
        device.answers.append("ata_identify times=any errno=ENOTTY")
    return devices


HOSTILE = (
    ("<script>", "<img src=x>", "1</b", b"\"'`&amp;<!--"),
    ("{{7*7}}", "{% raw %}{{", "{#x#", "{{ lookup('pipe','id') }}"),
    (b"\x1b[31m\x07\r\n", b"a\x00b\x01\x7f", b"\xff\xfe\xc3", b"\xe2\x80\xae\xe2\x80\xa8 \xf0\x9f\x92\xbe \xed\xa0\x80"),
    ("=1+1", "!unsafe '", "null", "---\n- x: &a *a"),
)


def hostile():
    pairs = []
    for index, (vendor, product, revision, serial) in enumerate(HOSTILE):
        at = (1, 0, index, 0)
        pairs.append((scsi(disk_name(index), 0, vendor, product, revision, serial, at), at))
    return with_generic(pairs)


def all_hosts():
    stuck_pairs = disks(3)
    drive = (1, 0, 0, 0)
    stuck_nodes = with_generic(stuck_pairs + [(scsi("sr0", 5, "ZENDISC", "DVD-ROM", "D001", None, drive), drive)])
    return [
        TestHost("each", **everything()),
        TestHost("four", nodes=with_generic(disks(4))),
        TestHost("lags", nodes=with_generic(disks(3) + disks(1, revision="0099", first=3))),
        TestHost("flash", nodes=[nvme("nvme%dn1" % n, "ZEN FLASH 2", "NVM%04d" % n, "F%03d" % n) for n in range(3)]),
        # The generic driver is not there, and the generic class takes the disks.
        TestHost("plain", nodes=plain(), modprobe=MODPROBE_FAILS),
        TestHost("empty"),
        TestHost("many", nodes=with_generic(disks(200))),
        TestHost("hostile", nodes=hostile()),
        TestHost("sudoer", nodes=with_generic(disks(2, adapter=4)), user="ops", may_sudo=True),
        TestHost(
            "stuck",
            nodes=stuck_nodes,
            drive_table=DRIVE_TABLE,
            stuck=("sdb",),
            status="incomplete",
            problems=(("time_limit", "inventory"), ("time_limit", "firmware")),
        ),
        TestHost(
            "guest",
            **everything(),
            user="visitor",
            prepared=True,
            status="incomplete",
            problems=(("not_root", None),) + tuple(("not_root", d) for d in ("inventory", "firmware", "optical")),
        ),
        TestHost(
            "locked",
            **everything(),
            user="visitor",
            status="failed",
            problems=(("not_root", None), ("not_installed", None)),
        ),
        TestHost("gone", absent=True, status="failed", problems=(("unreachable", None),)),
        TestHost("deaf", deaf=True, status="failed", problems=(("unreachable", None),)),
        TestHost("asleep", endless_fact=True, status="failed", problems=(("time_limit", None),)),
    ]
