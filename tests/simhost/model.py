#!/usr/bin/python3
"""What the device library must say about a simulated host.

An executable model, written independently of the library: it reads a host description, works out every log
line, ioctl, pause, status and record of the library's calls in order, and prints them as golden text. The
library's harness prints the same text from real calls, so the two can be compared line by line.

    model.py HOSTFILE        print the golden text of that host

All texts are Python strings that hold one character per byte (latin-1), since devices send any byte.
"""

import dataclasses
import re
import sys
import typing

# --- numbers of the kernel interfaces ------------------------------------------------------------------------

HDIO_DRIVE_CMD = 0x031F
SG_GET_SCSI_ID = 0x2276
SG_GET_VERSION_NUM = 0x2282
SG_IO = 0x2285
SCSI_IOCTL_GET_IDLUN = 0x5382
SCSI_IOCTL_GET_BUS_NUMBER = 0x5386
NVME_IOCTL_ADMIN_CMD = 0xC0484E41

SG_INFO_CHECK = 1

# --- status codes --------------------------------------------------------------------------------------------

RESULT_OK = 0
OPEN_FAILED = 3
SUCCESS = 4
FAILURE = 5
RESULT_NONE = 6

TAPE, SCSI, DISK, OPTICAL = 0, 1, 2, 3

DEVICE_TYPES = {
    0: "Direct Access Device",
    1: "Sequential Access Device",
    2: "Printer Device",
    3: "Processor Device",
    4: "Write-Once Device",
    5: "CD-ROM Device",
    6: "Scanner Device",
    7: "Optical Memory Device",
    8: "Medium Changer Device",
    9: "Communications Device",
    10: "Graphic Arts Device",
    11: "Graphic Arts Device",
    12: "Storage Array Controller",
    13: "Enclosure Device",
    14: "Simple Direct Access Device",
    15: "Optical Card Reader Device",
    17: "Optical Based Storage Device",
}

# The white space of the C locale.
WHITE = " \t\n\v\f\r"

INQUIRY_BLOCK = bytes([0x12, 0x00, 0x00, 0x00, 0x80, 0x00])
SERIAL_BLOCK = bytes([0x12, 0x01, 0x80, 0x00, 0xFF, 0x00])

# What one pass-through command may bring back, whatever the device has to say.
DATA_IN_LENGTH = 255
SENSE_LENGTH = 32


def latin(data: bytes) -> str:
    return data.decode("latin-1")


def text_of(data: bytes) -> str:
    """The bytes up to the first NUL, as C reads them."""
    return latin(data.split(b"\0", 1)[0])


def unsigned16(number: int) -> str:
    return str(number & 0xFFFF)


# --- the host ------------------------------------------------------------------------------------------------


@dataclasses.dataclass
class Reply:
    """What the host answers to one ioctl."""

    result: int = 0
    # SG_GET_VERSION_NUM, SCSI_IOCTL_GET_IDLUN (first number), SCSI_IOCTL_GET_BUS_NUMBER
    number: int = 0
    # SG_GET_SCSI_ID: host_no, channel, scsi_id, lun
    address: tuple = (0, 0, 0, 0)
    # data-in of SG_IO, the identify data of HDIO_DRIVE_CMD (behind its header) or of NVMe
    data: bytes = b""
    # SG_IO
    sense: bytes = b""
    sense_written: int = 0
    info: int = 0
    masked_status: int = 0
    status: int = 0
    host_status: int = 0
    driver_status: int = 0


@dataclasses.dataclass
class Answer:
    """One line of answers of a node: the same reply `times` times (None: as often as asked)."""

    reply: Reply
    times: typing.Optional[int]
    line: str
    used: int = 0  # in the running call
    most: int = 0  # in any one call


class HostError(Exception):
    """A host file that cannot be read, or that gives no answer to something that is asked."""


# The keyword of the host file for each request.
REQUESTS = {
    SG_GET_VERSION_NUM: "sg_version",
    SG_GET_SCSI_ID: "scsi_id",
    SCSI_IOCTL_GET_IDLUN: "idlun",
    SCSI_IOCTL_GET_BUS_NUMBER: "bus_number",
    HDIO_DRIVE_CMD: "ata_identify",
    NVME_IOCTL_ADMIN_CMD: "nvme_identify",
    (SG_IO, INQUIRY_BLOCK): "inquiry",
    (SG_IO, SERIAL_BLOCK): "serial",
}
PLAIN_ANSWERS = ("sg_version", "scsi_id", "idlun", "bus_number")


class Device:
    """One entry of the device directory."""

    def __init__(self, name: str, kind: str = "node", target: str = ""):
        self.name = name
        self.kind = kind
        self.target = target
        self.answers: dict = {}  # keyword of the request -> list of Answer

    @property
    def opens(self) -> bool:
        return self.kind in ("node", "file", "directory")

    def answer(self, code: int, command: bytes) -> Reply:
        if self.kind != "node":
            return Reply(result=-1)
        keyword = REQUESTS[(code, command) if code == SG_IO else code]
        for answer in self.answers.get(keyword, []):
            if answer.times is None or answer.used < answer.times:
                answer.used += 1
                answer.most = max(answer.most, answer.used)
                return answer.reply
        raise HostError("/dev/%s has no answer (left) for %s" % (self.name, keyword))


@dataclasses.dataclass
class BlockEntry:
    """One entry of the block directory of sysfs: its two revision files (None: not there)."""

    name: str
    firmware_rev: typing.Optional[str] = None
    rev: typing.Optional[str] = None


@dataclasses.dataclass
class Host:
    # in directory order
    dev: list = dataclasses.field(default_factory=list)
    dev_readable: bool = True
    # in directory order; None: there is no such directory
    sys_block: typing.Optional[list] = dataclasses.field(default_factory=list)
    # what `system` returns for the modprobe command
    modprobe: int = 0
    # content of the kernel's optical table, None: no such file
    cdrom: typing.Optional[str] = None
    # the calls to make, each ("all",), ("individual", type), ("optical",) or ("firmware",)
    calls: list = dataclasses.field(default_factory=list)
    # for each call, what a person expects: the lines of a golden text that are not logs, commands or pauses
    seen: list = dataclasses.field(default_factory=list)

    def device(self, path: str) -> typing.Optional[Device]:
        """The entry that opening the path leads to."""
        name = path[len("/dev/") :]
        for _ in range(len(self.dev) + 1):
            found = [entry for entry in self.dev if entry.name == name]
            if not found:
                return None
            if found[0].kind != "link":
                return found[0]
            name = found[0].target
        return None

    def rewind(self):
        for entry in self.dev:
            for answers in entry.answers.values():
                for answer in answers:
                    answer.used = 0

    def never_asked(self) -> list:
        return [
            "/dev/%s: %s" % (entry.name, answer.line)
            for entry in self.dev
            for answers in entry.answers.values()
            for answer in answers
            if answer.most < (answer.times or 1)
        ]


# --- records -------------------------------------------------------------------------------------------------

SYSTEM_DEVICE_FIELDS = (
    "vendor",
    "product",
    "device_type",
    "serial_number",
    "firmware_revision",
    "port",
    "target",
    "bus",
    "lun",
)

OPTICAL_FIELDS = (
    "drive_name_",
    "vendor_",
    "product_",
    "dvd_ram_write_",
    "cd_rw_write_",
    "cd_r_write_",
    "dvd_read_",
    "dvd_r_write_",
    "mrw_r_",
    "mrw_w_",
    "ram_w_",
)

IDENTITY_FIELDS = (
    "Description",
    "ElementName",
    "ProductName",
    "Manufacturer",
    "Name",
    "VersionString",
    "Classifications",
    "ClassificationDescriptions",
    "IdentityInfoValue",
    "SoftwareID",
    "SubDeviceID",
    "ReleaseDate",
    "SoftwareStatus",
    "SoftwareRole",
    "IdentityInfoType",
    "IsPLDMUpdateSupported",
    "InstanceID",
    "AssociatedAdapterSlot",
    "LastUpdateError",
    "LastUpdateErrorString",
    "SerialNumber",
    "ExtraInfo",
    "Category",
)


class BusDevice:
    def __init__(self):
        self.host_adapter = self.bus = self.target_id = self.lun = 0
        self.dev_id = ""
        self.product_id = self.vendor_id = self.revision = self.serial_num = ""
        self.other_ident_info = ""
        self.device_type = ""

    def names_empty(self) -> bool:
        return self.vendor_id == "" and self.product_id == ""

    def identity_text(self) -> str:
        return "Port:%d|Target:%d|Bus:%d|Lun:%d" % (self.host_adapter, self.target_id, self.bus, self.lun)


def cut_blanks(text: str) -> str:
    """Cut blanks and tabs from both ends; a text of nothing else stays as it is."""
    return text.strip(" \t") or text


def swapped(identify: bytes, first: int, length: int) -> bytes:
    field = bytearray(identify[first : first + length])
    field[0::2], field[1::2] = field[1::2], field[0::2]
    return bytes(field)


# --- the calls -----------------------------------------------------------------------------------------------


class Library:
    """The library on one host. `events` collects what it says and does, in order."""

    def __init__(self, host: Host):
        self.host = host
        self.events: list = []
        self.sg_ko_loaded = False

    def log(self, level: int, text: str):
        self.events.append(("log", level, text))

    def trace(self, text: str):
        self.log(4, text)

    # --- the executor of ioctls -----------------------------------------------------------------------------

    def exec_ioctl(self, path: str, code: int, command: bytes = b""):
        """One opened, asked and closed device file: status, and the reply where there is one."""
        self.trace("Enter DataOperator::ExecIoCtl().")
        self.trace("Enter DataOperator::OpenDriveFile() driveName = " + path)
        device = self.host.device(path)
        opened = device is not None and device.opens
        if not opened:
            self.trace("DataOperator::ExecIoCtl(" + path + ")  invalid")
            return OPEN_FAILED, None
        reply = device.answer(code, command)
        self.trace("Exit DataOperator::ExecIoCtl(), ret = %d" % reply.result)
        return (SUCCESS if reply.result >= 0 else FAILURE), reply

    def exec_pass_through(self, path: str, command: bytes, buffer: bytearray) -> int:
        self.trace("Enter DataOperator::ExecPassThruCmd()")
        sense = bytearray(SENSE_LENGTH)
        version = 0
        status, reply = self.exec_ioctl(path, SG_GET_VERSION_NUM)
        if reply is not None and reply.result >= 0:
            version = reply.number
        if status != SUCCESS or version < 30000:
            self.trace("Device do not compat with SCSI")
            return status

        for attempt in range(5, 0, -1):
            header = Reply()
            status, reply = self.exec_ioctl(path, SG_IO, command)
            if status == SUCCESS:
                header = reply
                data = reply.data[:DATA_IN_LENGTH]
                buffer[: len(data)] = data
                sent = reply.sense[:SENSE_LENGTH]
                sense[: len(sent)] = sent
            else:
                self.trace("SG IOCTL error.")
                if attempt == 1:
                    return status

            retry = False
            if header.info & SG_INFO_CHECK:
                if sense[2] & 0x0F == 6:
                    retry = True
                elif sense[12] == 0x04 and sense[13] == 0x01:
                    retry = True
                elif sense[12] == 0x28 and sense[13] == 0x00:
                    retry = True
            if retry:
                self.trace("Retry condition...")
                self.events.append(("sleep", 5))

            if header.info & SG_INFO_CHECK:
                base = "%d"
                if header.sense_written != 0:
                    # The kernel never claims more than the room it was given.
                    shown = sense[: min(header.sense_written, SENSE_LENGTH)]
                    self.trace("SCSI sense data: " + "".join("%x" % byte for byte in shown))
                    base = "%x"
                if header.masked_status != 0:
                    self.trace("SG SCSI status=" + chr(header.status))
                if header.host_status != 0:
                    self.trace("SG Host status=" + base % header.host_status)
                if header.driver_status != 0:
                    self.trace("SG Driver status=" + base % header.driver_status)
            if not retry:
                break
        self.trace("Exit scsiPassThrough::execSCSICommand().")
        return status

    # --- identity queries -----------------------------------------------------------------------------------

    def process_inquiry(self, data: bytes, bus: BusDevice):
        bus.vendor_id = cut_blanks(text_of(bytes(data[8:16])))
        product = text_of(bytes(data[16:32]))
        if product == "":
            product = bus.vendor_id
        bus.product_id = cut_blanks(product)
        bus.revision = text_of(bytes(data[32:36]))
        bus.device_type = DEVICE_TYPES.get(data[0] & 0x0F, "")

    def pass_through_serial(self, path: str, bus: BusDevice):
        buffer = bytearray(4096)
        status = self.exec_pass_through(path, SERIAL_BLOCK, buffer)
        if status != SUCCESS:
            return
        length = buffer[3]
        if length > 32:
            self.trace("Size pointer is too large.")
        elif length <= 1:
            bus.serial_num = ""
            self.trace("Size pointer is too small, size<=1")
        else:
            bus.serial_num = text_of(bytes(buffer[4 : 4 + length]))
            self.trace("Serial Number: " + bus.serial_num)

    def decode_drive_cmd(self, identify: bytes, bus: BusDevice):
        identify = identify[:512].ljust(512, b"\0")
        model = text_of(swapped(identify, 54, 40))
        self.trace(model)
        words = [word for word in re.split("[" + WHITE + "]+", model) if word]
        if len(words) > 0:
            bus.vendor_id = words[0]
        if len(words) > 1:
            bus.product_id = words[1]
        bus.revision = text_of(swapped(identify, 46, 8))
        bus.serial_num = text_of(swapped(identify, 20, 20))
        bus.other_ident_info = bus.identity_text()

    def decode_nvme(self, data: bytes, bus: BusDevice):
        answer = bytearray(data[:4096].ljust(4096, b"\0"))
        bus.vendor_id = "NVMe"
        answer[63] = 0
        bus.product_id = text_of(bytes(answer[24:64]))
        bus.revision = text_of(bytes(answer[64:]))
        answer[23] = 0
        bus.serial_num = text_of(bytes(answer[4:24]))
        bus.device_type = DEVICE_TYPES[0]

    def generic_device_data(self, path: str, bus: BusDevice, is_sg: bool) -> int:
        self.trace("Entry  GetGenericDeviceData() is_sg = %d" % is_sg)
        buffer = bytearray(4096)
        status = self.exec_pass_through(path, INQUIRY_BLOCK, buffer)
        if status != SUCCESS:
            self.log(1, "Exit  GetGenericDeviceData()")
            return FAILURE
        self.process_inquiry(buffer, bus)
        if bus.vendor_id == "" or bus.product_id == "":
            self.trace("Exit  GetGenericDeviceData() due to vendorId and productId is empty")
            return SUCCESS
        self.trace("GetGenericDeviceData() dataOper->ExecPassThruCmd vendorID and productID is not empty ")
        if is_sg:
            status, reply = self.exec_ioctl(path, SG_GET_SCSI_ID)
            if status == SUCCESS:
                host_no, channel, scsi_id, lun = reply.address
                bus.host_adapter = host_no & 0xFFFF
                bus.bus = channel & 0xFFFF
                bus.target_id = scsi_id & 0xFFFF
                bus.lun = lun & 0xFFFF
            self.trace("GetGenericDeviceData() dataOper->ExecPassThruCmdSG_GET_SCSI_ID ret = %d" % status)
            if status != SUCCESS:
                self.trace("GetGenericDeviceData() SG_GET_SCSI_ID failed ret = %d" % status)
                bus.other_ident_info = ""
            else:
                bus.other_ident_info = bus.identity_text()
                self.trace("Get SCSI ID passed... otherIdentInfo = " + bus.other_ident_info)
        else:
            status, reply = self.exec_ioctl(path, SCSI_IOCTL_GET_IDLUN)
            if status == SUCCESS:
                bus.target_id = reply.number & 0xFF
                bus.lun = reply.number >> 8 & 0xFF
                bus.bus = reply.number >> 16 & 0xFF
            status, reply = self.exec_ioctl(path, SCSI_IOCTL_GET_BUS_NUMBER)
            if status == SUCCESS:
                bus.host_adapter = reply.number & 0xFFFF
            bus.other_ident_info = bus.identity_text()
            self.trace("Get SCSI_IOCTL_GET_IDLUN passed.. otherIdentInfo = " + bus.other_ident_info)
        if buffer[0] in (0, 1):
            self.pass_through_serial(path, bus)
        self.trace("Exit normally GetGenericDeviceData() ")
        return SUCCESS

    def driver_data(self, path: str, bus: BusDevice) -> int:
        self.trace("Entry  GetDriverData() ")
        status, reply = self.exec_ioctl(path, HDIO_DRIVE_CMD)
        if status == SUCCESS:
            self.decode_drive_cmd(reply.data, bus)
        self.trace("Get HDIO_DRIVE_CMD|HDIO_DRIVE_TASK Inquiry passed.. otherIdentInfo = " + bus.other_ident_info)
        self.trace("Entry  GetDriverData() ")
        return status

    def nvme_info(self, path: str, bus: BusDevice) -> int:
        self.trace("Entry PhysicalDriveProxy::GetNVMEInfo()")
        self.trace("Exit PhysicalDriveProxy::GetNVMEInfo()")
        status, reply = self.exec_ioctl(path, NVME_IOCTL_ADMIN_CMD)
        if status == SUCCESS:
            self.decode_nvme(reply.data, bus)
        return status

    # --- firmware revision ----------------------------------------------------------------------------------

    def firmware_directory(self, path: str) -> typing.Optional[BlockEntry]:
        self.trace("Entry  DataProxy::GetFirmwareVersionFile() ")
        name = path[len("/dev/") :]
        if self.host.sys_block is None:
            return None
        # Every directory begins with itself and its parent, and a device name may hold a dot.
        for entry in [BlockEntry("."), BlockEntry("..")] + self.host.sys_block:
            if entry.name in name:
                return entry
        self.trace("Exit  DataProxy::GetFirmwareVersionFile() ")
        return None

    def firmware_from_file(self, path: str) -> str:
        entry = self.firmware_directory(path)
        if entry is None:
            return ""
        base = "/sys/block/" + entry.name + "/"
        for name, content in (("device/firmware_rev", entry.firmware_rev), ("device/rev", entry.rev)):
            if content is not None:
                return content
            self.log(1, "Fail in get firmware version from " + base + name + ".")
        return ""

    def take_firmware_from_file(self, path: str, bus: BusDevice):
        revision = self.firmware_from_file(path)
        if revision != "":
            bus.revision = revision

    def firmware_of_sd_disk(self, path: str, bus: BusDevice) -> int:
        self.trace("Entry  UpdateFirmwareVersionForSdDisk() ")
        status, reply = self.exec_ioctl(path, HDIO_DRIVE_CMD)
        if status != SUCCESS:
            return status
        identify = reply.data[:512].ljust(512, b"\0")
        bus.revision = text_of(swapped(identify, 46, 8)).replace(" ", "")
        bus.product_id = text_of(swapped(identify, 54, 40)).split(" ", 1)[0]
        return SUCCESS

    # --- scan -----------------------------------------------------------------------------------------------

    def scan(self, prefix: str, files: list):
        self.trace("Entry  DataProxy::ScanDeviceFiles() ")
        if not self.host.dev_readable:
            return
        for entry in self.host.dev:
            name = entry.name
            last = name[-1]
            if prefix == "st":
                if name in ("stderr", "stdin", "sdtout"):
                    continue
                if last.isascii() and last.isalpha():
                    continue
            if prefix == "sd" and last in "0123456789":
                continue
            if prefix == "nvme" and (len(name) == 5 or len(name) > 7):
                continue
            if not name.startswith(prefix):
                continue
            self.trace("DataProxy::ScanDeviceFiles() detect file : " + name)
            files.append("/dev/" + name)
        self.trace("Exit  DataProxy::ScanDeviceFiles() ")

    # --- probes ---------------------------------------------------------------------------------------------

    def probe_optical(self, path: str, bus: BusDevice) -> int:
        self.trace("Entry CDDVDProxy::GetDeviceInfo()")
        status = self.generic_device_data(path, bus, False)
        if status != SUCCESS or bus.names_empty():
            status = self.driver_data(path, bus)
        self.take_firmware_from_file(path, bus)
        self.trace("Exit CDDVDProxy::GetDeviceInfo()")
        return status

    def probe_tape(self, path: str, bus: BusDevice) -> int:
        self.trace("Entry TapeProxy::GetDeviceInfo()")
        status = self.generic_device_data(path, bus, False)
        if status != SUCCESS:
            status = self.driver_data(path, bus)
        elif bus.names_empty():
            self.driver_data(path, bus)
        self.take_firmware_from_file(path, bus)
        self.trace("Exit TapeProxy::GetDeviceInfo()")
        return status

    def probe_scsi(self, path: str, bus: BusDevice) -> int:
        self.trace("Entry SCSIProxy::GetDeviceInfo()")
        if self.sg_ko_loaded:
            status = self.generic_device_data(path, bus, True)
            self.trace("GetGenericDeviceData() ret = %d" % status)
            if status == SUCCESS and bus.names_empty():
                status = self.driver_data(path, bus)
        else:
            status = self.driver_data(path, bus)
        self.take_firmware_from_file(path, bus)
        return status

    def probe_disk(self, path: str, bus: BusDevice, use_generic: bool) -> int:
        self.trace("Entry PhysicalDriveProxy::GetDeviceInfo()")
        status = FAILURE
        if use_generic:
            status = self.generic_device_data(path, bus, False)
        if not use_generic or status != SUCCESS or bus.names_empty():
            status = self.driver_data(path, bus)
        if "ATA" not in bus.vendor_id:
            return status
        if path.startswith("/dev/sd"):
            return self.firmware_of_sd_disk(path, bus)
        self.take_firmware_from_file(path, bus)
        return status

    # --- records --------------------------------------------------------------------------------------------

    def store(self, bus: BusDevice, devices: list):
        self.trace(
            "DataProxy::StoreBusDev   "
            + "vendor id: %s productId: %s deviceType: %s serialNum: %s rev: %s "
            % (bus.vendor_id, bus.product_id, bus.device_type, bus.serial_num, bus.revision)
            + "host adapter: %d target ID: %d bus %d lun %d " % (bus.host_adapter, bus.target_id, bus.bus, bus.lun)
            + "devId: %s  otherIdentInfo: %s\n" % (bus.dev_id, bus.other_ident_info)
        )
        revision = bus.revision
        if revision.endswith("\n"):
            revision = revision[:-1]
        devices.append(
            {
                "vendor": bus.vendor_id,
                "product": bus.product_id,
                "device_type": bus.device_type,
                "serial_number": bus.serial_num,
                "firmware_revision": revision,
                "port": unsigned16(bus.host_adapter),
                "target": unsigned16(bus.target_id),
                "bus": unsigned16(bus.bus),
                "lun": unsigned16(bus.lun),
            }
        )

    # --- proxies --------------------------------------------------------------------------------------------

    PROXIES = {TAPE: "TapeProxy", SCSI: "SCSIProxy", DISK: "PhysicalDriveProxy", OPTICAL: "CDDVDProxy"}

    def make_proxy(self, kind: int) -> str:
        self.events.append(("system", "modprobe sg >/dev/null 2>&1"))
        self.sg_ko_loaded = self.host.modprobe == 0
        self.trace("Entry constructure DataProxy() sg_ko_loaded = %d" % self.sg_ko_loaded)
        name = self.PROXIES.get(kind, "SCSIProxy")
        self.trace("Entry %s::%s()" % (name, name))
        return name

    def delete_proxy(self, name: str):
        self.trace("Entry %s::~%s()" % (name, name))
        self.trace("Entry destructure ~DataProxy() ")

    def probe_all(self, files: list, probe, devices: list, after_probe=None):
        for path in files:
            bus = BusDevice()
            status = probe(path, bus)
            if after_probe:
                after_probe(status)
            if status == SUCCESS:
                self.store(bus, devices)

    def list_devices(self, proxy: str, devices: list) -> int:
        self.trace("Entry DataProxy::GetDeviceList()")
        files: list = []
        if proxy == "CDDVDProxy":
            self.scan("sr", files)
            if not files:
                return RESULT_NONE
            self.probe_all(files, self.probe_optical, devices)
        elif proxy == "TapeProxy":
            self.scan("st", files)
            if not files:
                self.scan("nst", files)
            if not files:
                return RESULT_NONE
            self.probe_all(files, self.probe_tape, devices)
        elif proxy == "SCSIProxy":
            if self.sg_ko_loaded:
                self.scan("sg", files)
                self.probe_all(files, self.probe_scsi, devices)
            else:
                self.scan("sd", files)
                self.probe_all(
                    files, self.probe_scsi, devices, lambda status: self.trace("GetDriverData() ret = %d" % status)
                )
            return RESULT_OK if files else RESULT_NONE
        else:
            hd: list = []
            sd: list = []
            nvme: list = []
            self.scan("hd", hd)
            self.scan("sd", sd)
            self.scan("nvme", nvme)
            if not hd and not sd and not nvme:
                return RESULT_NONE
            self.probe_all(hd, lambda path, bus: self.probe_disk(path, bus, False), devices)
            self.probe_all(sd, lambda path, bus: self.probe_disk(path, bus, True), devices)
            self.probe_all(nvme, self.nvme_info, devices)
        self.trace("Exit DataProxy::GetDeviceList()")
        return RESULT_OK

    # --- optical table --------------------------------------------------------------------------------------

    def captured_table(self) -> str:
        """What `cat` writes, the way the reader of the pipe keeps it."""
        if self.host.cdrom is None:
            return "cat: /proc/sys/dev/cdrom/info: No such file or directory\n"
        content = self.host.cdrom
        kept = ""
        for first in range(0, len(content), 4095):
            kept += content[first : first + 4095].split("\0", 1)[0]
        return kept

    @staticmethod
    def table_lines(text: str) -> list:
        """The lines, and behind them the empty one of the read that meets the end, also where the last line has
        no newline. A line that is too long is cut, and ends the reading."""
        lines = []
        rest = text
        while rest:
            line, _, rest = rest.partition("\n")
            lines.append(line[:255])
            if len(line) > 255:
                return lines
        return lines + [""]

    def list_optical(self, options: list) -> int:
        self.trace("Entry CDDVDProxy::GetCDDVDOptList()")
        files: list = []
        self.scan("sr", files)
        if not files:
            return RESULT_NONE
        kept = []
        for path in files:
            bus = BusDevice()
            if self.probe_optical(path, bus) == SUCCESS:
                kept.append((path, bus))
        self.log(3, "SpawnProcess: process cat\n")
        text = self.captured_table()
        lines = self.table_lines(text)
        self.trace("cat cdrom info result =      " + text)
        self.trace("cat cdrom lines =      %d" % len(lines))
        if len(lines) < 20:
            self.trace("reading cdrom information is incomplete.")
        rows: dict = {}
        for line in lines:
            parts = re.split(":+", line)
            if len(parts) == 2:
                rows.setdefault(parts[0].strip(" \t"), parts[1].strip(" \t"))
        if not rows:
            return RESULT_OK
        prop = {field: "" if field in OPTICAL_FIELDS[:3] else "No" for field in OPTICAL_FIELDS}
        if "drive name" in rows:
            prop["drive_name_"] = "/dev/" + rows["drive name"]
            for path, bus in kept:
                if path == prop["drive_name_"]:
                    prop["vendor_"] = bus.vendor_id
                    prop["product_"] = bus.product_id
        for row, field in (
            ("Can write CD-R", "cd_r_write_"),
            ("Can write CD-RW", "cd_rw_write_"),
            ("Can read DVD", "dvd_read_"),
            ("Can write DVD-R", "dvd_r_write_"),
            ("Can write DVD-RAM", "dvd_ram_write_"),
            ("Can read MRW", "mrw_r_"),
            ("Can write MRW", "mrw_w_"),
            ("Can write RAM", "ram_w_"),
        ):
            prop[field] = "Yes" if rows.get(row) == "1" else "No"
        self.trace(
            "cddvd   dvd_read_ = %(dvd_read_)s  dvd_ram_write_ = %(dvd_ram_write_)s"
            "cddvd   dvd_r_write_ = %(dvd_r_write_)s  cd_rw_write_ = %(cd_rw_write_)s"
            "cddvd   cd_r_write_ = %(cd_r_write_)sread MRW mrw_r_= %(mrw_r_)s"
            "write MRW mrw_w_=%(mrw_w_)sRAM write cddvd.ram_w_= %(ram_w_)s" % prop
        )
        self.trace("Exit CDDVDProxy::GetCDDVDOptList()")
        options.append(prop)
        return RESULT_OK

    # --- worker ---------------------------------------------------------------------------------------------

    def worker_data(self, kind: int, devices: list) -> int:
        self.trace("Enter construct SysDevice device type is %d" % kind)
        self.trace("Enter SysDevice::GetData()  device_type = %d" % kind)
        proxy = self.make_proxy(kind)
        status = self.list_devices(proxy, devices)
        self.delete_proxy(proxy)
        return status

    def worker_optical(self, options: list) -> int:
        self.trace("Enter construct SysDevice device type is %d" % OPTICAL)
        proxy = self.make_proxy(OPTICAL)
        status = self.list_optical(options)
        self.delete_proxy(proxy)
        return status

    # --- facade ---------------------------------------------------------------------------------------------

    def construct_collector(self):
        self.trace("Enter construct DeviceCollector ")

    def individual_device(self, kind: int, devices: list) -> int:
        self.trace("Enter DeviceCollector::GetIndividualDevice() device type = %d" % kind)
        return self.worker_data(kind, devices)

    NONE_FOUND = (
        (TAPE, " There has none tape device file."),
        (SCSI, " There has none scsi device file."),
        (DISK, " There has none physical driver device file. "),
        (OPTICAL, " There has none cddvd device file. "),
    )

    def all_device(self, devices: list) -> int:
        self.trace("Enter DeviceCollector::GetAllDevice()")
        scratch: list = []
        accumulated: list = []
        for kind, message in self.NONE_FOUND:
            if self.individual_device(kind, scratch) == RESULT_NONE:
                self.trace(message)
                continue
            accumulated += scratch
            scratch = []
        merged: dict = {}
        counter = 1
        for record in accumulated:
            address = [record[field] for field in ("port", "target", "bus", "lun")]
            if address == ["0"] * 4:
                address = [str(counter)] * 4
                counter += 1
                record = dict(record, port="", target="", bus="", lun="")
            merged.setdefault("Port:%s|Target:%s|Bus:%s|Lun:%s" % tuple(address), record)
        devices += [merged[key] for key in sorted(merged)]
        self.trace("Leave DeviceCollector::GetAllDevice()")
        return RESULT_OK

    def optical_properties(self, options: list) -> int:
        self.trace("Enter DeviceCollector::GetOpticalProperties()")
        status = self.worker_optical(options)
        if status == RESULT_NONE:
            self.trace("DeviceCollector::GetOpticalPropertys() has none cddvd devices")
        self.trace("Leave DeviceCollector::GetOpticalProperties()")
        return status

    def software_identities(self, identities: list) -> int:
        self.trace("Enter DeviceCollector::GetSoftwareIdentities()")
        disks: list = []
        status = self.worker_data(DISK, disks)
        if status == RESULT_NONE:
            self.trace("DeviceCollector::GetDiskDriverSoftwareIdentities() has none disk devices")
        for disk in disks:
            lowered = disk["product"].encode("latin-1").lower()  # the C locale knows ASCII letters only
            if b"raid" in lowered or b"m.2" in lowered:
                continue
            record = {field: "" for field in IDENTITY_FIELDS}
            record["IsPLDMUpdateSupported"] = "0"
            record["Category"] = "3"
            software_id = disk["product"]
            if software_id.strip(" ") == "":
                self.trace("GetSoftwareIdentities vendor_id_ is empty ")
                software_id = disk["vendor"]
            software_id = software_id.strip(WHITE)
            record["SoftwareID"] = software_id
            record["SerialNumber"] = disk["serial_number"]
            record["Name"] = software_id
            record["VersionString"] = disk["firmware_revision"]
            record["Classifications"] = "10"
            self.trace(
                "GetSoftwareIdentities software id = "
                + software_id
                + "  version string = "
                + record["VersionString"]
            )
            identities.append(record)
        self.trace("Leave DeviceCollector::GetSoftwareIdentities()")
        return status


# --- the host file -------------------------------------------------------------------------------------------

ERRNO_NAMES = (
    "EACCES EBUSY EINTR EINVAL EIO ENODEV ENOENT ENOMEM ENOSYS ENOTTY ENXIO EPERM ETIMEDOUT EAGAIN EFAULT EOPNOTSUPP"
).split()
SENSE_KEYS = ("sense", "sb_len", "info", "status", "masked_status", "host_status", "driver_status")
ESCAPES = {"n": "\n", "t": "\t", "r": "\r", '"': '"', "\\": "\\"}


ESCAPE = re.compile(r'\\(?:x([0-9a-fA-F]{2})|([ntr"\\]))')
WORD = re.compile(r'([A-Za-z_]+=)?(?:(?P<quote>")|([^ \t"\\]*))')


def read_quoted(line: str, at: int):
    """The text whose opening quote stands at `at`, and the position behind its closing quote."""
    text = ""
    at += 1
    while at < len(line) and line[at] != '"':
        if line[at] != "\\":
            text += line[at]
            at += 1
            continue
        escape = ESCAPE.match(line, at)
        if not escape:
            raise HostError("unknown escape in: " + line)
        text += chr(int(escape[1], 16)) if escape[1] else ESCAPES[escape[2]]
        at = escape.end()
    if at >= len(line):
        raise HostError("no closing quote in: " + line)
    return text, at + 1


def split_line(line: str):
    """The plain words of a line, and its key=value pairs in order."""
    plain = []
    pairs = []
    at = 0
    while at < len(line):
        if line[at] in " \t":
            at += 1
            continue
        word = WORD.match(line, at)
        at = word.end()
        value = word[3] or ""
        if word["quote"]:
            value, at = read_quoted(line, at - 1)
        if at < len(line) and line[at] not in " \t":
            raise HostError("not understood: " + line)
        if word[1]:
            key = word[1][:-1]
            if key != "at" and key in [known for known, _ in pairs]:
                raise HostError("key given twice: " + line)
            pairs.append((key, value))
        else:
            plain.append(value)
    return plain, pairs


def number(text: str) -> int:
    if re.fullmatch(r"-?[0-9]+|0x[0-9a-fA-F]+", text) is None:
        raise HostError("not a number: " + text)
    return int(text, 16 if text.startswith("0x") else 10)


def place(answer: bytearray, keys: dict, pad: int, key: str, first: int, length: int):
    if key in keys:
        field = keys[key].encode("latin-1")
        if len(field) > length:
            raise HostError("text too long for its field: " + keys[key])
        answer[first : first + length] = field.ljust(length, bytes([pad]))


def compose_data(keyword: str, keys: dict, patches: list) -> bytes:
    """The raw answer that the keys of a line describe."""
    pad = number(keys.get("pad", "0x20"))
    if "data" in keys:
        answer = bytearray(bytes.fromhex(keys["data"]))
    elif keyword == "inquiry" and keys.keys() & {"type", "vendor", "product", "revision"}:
        answer = bytearray(36)
        answer[0], answer[2], answer[3], answer[4] = number(keys.get("type", "0")), 5, 2, 31
        for key, first, length in (("vendor", 8, 8), ("product", 16, 16), ("revision", 32, 4)):
            keys.setdefault(key, "")  # unlike the other kinds of answers, a field that is not given is filled
            place(answer, keys, pad, key, first, length)
    elif keyword == "serial" and keys.keys() & {"text", "length", "type"}:
        serial = keys.get("text", "").encode("latin-1")
        length = number(keys["length"]) if "length" in keys else len(serial) % 256
        answer = bytearray([number(keys.get("type", "0")), 0x80, 0, length]) + serial
    elif keyword == "ata_identify":
        answer = bytearray(512)
        for key, first, length in (("model", 54, 40), ("revision", 46, 8), ("serial", 20, 20)):
            place(answer, keys, pad, key, first, length)
            answer[first : first + length] = swapped(answer, first, length)
    elif keyword == "nvme_identify":
        answer = bytearray(4096)
        for key, first, length in (("serial", 4, 20), ("model", 24, 40), ("revision", 64, 8)):
            place(answer, keys, pad, key, first, length)
    else:
        answer = bytearray()
    full = {"ata_identify": 512, "nvme_identify": 4096}.get(keyword, 0)
    answer = answer.ljust(full, b"\0")
    for patch in patches:
        offset, _, data = patch.partition(":")
        first, new = number(offset), bytes.fromhex(data)
        if first > len(answer) or (full and first + len(new) > full):
            raise HostError("patch beyond the answer: " + patch)
        answer[first : first + len(new)] = new
    return bytes(answer)


FIELD_KEYS = {
    "inquiry": {"type", "vendor", "product", "revision", "data", "at", "pad", *SENSE_KEYS},
    "serial": {"text", "length", "type", "data", "at", "pad", *SENSE_KEYS},
    "ata_identify": {"model", "revision", "serial", "data", "at", "pad"},
    "nvme_identify": {"model", "revision", "serial", "data", "at", "pad"},
}


def parse_answer(line: str, keyword: str, plain: list, pairs: list) -> Answer:
    keys = dict(pairs)
    patches = [value for key, value in pairs if key == "at"]
    reply = Reply()
    if keyword in PLAIN_ANSWERS:
        if keyword == "scsi_id":
            if plain or not keys.keys() <= {"host", "channel", "id", "lun", "errno"}:
                raise HostError("not understood: " + line)
            reply.address = tuple(number(keys.get(key, "0")) for key in ("host", "channel", "id", "lun"))
        elif len(plain) + len(keys) != 1 or not keys.keys() <= {"errno"}:
            raise HostError("not understood: " + line)
        elif plain:
            reply.number = number(plain[0])
        times = None
    else:
        if plain or not keys.keys() <= FIELD_KEYS[keyword] | {"times", "errno", "result"}:
            raise HostError("not understood: " + line)
        if "errno" in keys and not keys.keys() <= {"errno", "times"}:
            raise HostError("errno beside other keys: " + line)
        times = None if keys.get("times") == "any" else number(keys.get("times", "1"))
        reply.result = number(keys.get("result", "0"))
        reply.data = compose_data(keyword, keys, patches)
        reply.sense = bytes.fromhex(keys.get("sense", ""))
        reply.sense_written = number(keys["sb_len"]) if "sb_len" in keys else len(reply.sense)
        reply.info = number(keys.get("info", "0"))
        reply.status = number(keys.get("status", "0"))
        reply.masked_status = number(keys.get("masked_status", "0"))
        reply.host_status = number(keys.get("host_status", "0"))
        reply.driver_status = number(keys.get("driver_status", "0"))
    if "errno" in keys:
        if keys["errno"] not in ERRNO_NAMES:
            raise HostError("unknown errno: " + line)
        reply = Reply(result=-1)
    return Answer(reply, times, line)


def parse_host(content: str) -> Host:
    """`content` holds one character per byte."""
    host = Host(modprobe=None)
    node: typing.Optional[Device] = None
    for raw in content.split("\n"):
        line = raw.strip(" \t")
        if line == "" or line.startswith("#"):
            continue
        words, pairs = split_line(line)
        keys = dict(pairs)
        keyword, plain = words[0], words[1:]
        if keyword in FIELD_KEYS or keyword in PLAIN_ANSWERS:
            if node is None:
                raise HostError("an answer outside a node: " + line)
            answers = node.answers.setdefault(keyword, [])
            if answers and answers[-1].times is None:
                raise HostError("an answer behind one that has no end: " + line)
            answers.append(parse_answer(line, keyword, plain, pairs))
            continue
        node = None
        if keyword == "modprobe" and plain == ["noshell"] and not keys:
            host.modprobe = -1
        elif keyword == "modprobe" and not plain and keys.keys() == {"exit"}:
            host.modprobe = number(keys["exit"]) << 8
        elif keyword == "call" and len(plain) == 2 and plain[0] == "individual" and not keys:
            host.calls.append(("individual", number(plain[1])))
        elif keyword == "call" and len(plain) == 1 and plain[0] in ("all", "optical", "firmware") and not keys:
            host.calls.append((plain[0],))
        elif keyword == "see" and len(plain) == 2 and plain[0] == "status" and not keys and host.calls:
            host.seen.append(["call " + " ".join(str(word) for word in host.calls[-1]), "status " + plain[1]])
        elif keyword == "see" and len(plain) == 1 and len(host.seen) == len(host.calls) > 0:
            host.seen[-1] += [plain[0], *("  %s %s" % (key, quoted(value)) for key, value in pairs)]
        elif keyword == "devdir" and plain == ["unreadable"] and not keys:
            host.dev_readable = False
        elif keyword == "dev" and len(plain) == 2 and plain[0] == "link" and keys.keys() == {"target"}:
            host.dev.append(Device(plain[1], "link", keys["target"]))
        elif keyword == "dev" and len(plain) == 2 and not keys:
            if plain[0] not in ("node", "file", "directory", "dangling", "unreadable", "unopenable"):
                raise HostError("unknown kind: " + line)
            host.dev.append(Device(plain[1], plain[0]))
            if plain[0] == "node":
                node = host.dev[-1]
        elif keyword == "block" and len(plain) == 1 and keys.keys() <= {"firmware_rev", "rev"}:
            host.sys_block.append(BlockEntry(plain[0], keys.get("firmware_rev"), keys.get("rev")))
        elif keyword == "sysblock" and plain == ["absent"] and not keys and not host.sys_block:
            host.sys_block = None
        elif keyword == "cdrom_info" and len(plain) == 1 and not keys:
            host.cdrom = (host.cdrom or "") + plain[0]
        else:
            raise HostError("not understood: " + line)
    if host.modprobe is None or not host.calls:
        raise HostError("a host needs a modprobe line and a call")
    return host


# --- the golden text -----------------------------------------------------------------------------------------


def quoted(text: str) -> str:
    known = {"\n": "\\n", "\t": "\\t", "\r": "\\r", '"': '\\"', "\\": "\\\\"}
    return '"%s"' % "".join(
        known.get(letter) or (letter if " " <= letter <= "~" else "\\x%02x" % ord(letter)) for letter in text
    )


GOLDEN_IDENTITY_FIELDS = (
    "Name",
    "SoftwareID",
    "VersionString",
    "SerialNumber",
    "Classifications",
    "IsPLDMUpdateSupported",
    "Category",
)


def golden_text(host: Host) -> str:
    lines = []
    for call in host.calls:
        lines.append("call " + " ".join(str(word) for word in call))
        host.rewind()
        library = Library(host)
        library.construct_collector()
        records: list = []
        if call[0] == "all":
            status = library.all_device(records)
            name, fields = "device", SYSTEM_DEVICE_FIELDS
        elif call[0] == "individual":
            status = library.individual_device(call[1], records)
            name, fields = "device", SYSTEM_DEVICE_FIELDS
        elif call[0] == "optical":
            status = library.optical_properties(records)
            name, fields = "optical", OPTICAL_FIELDS
        else:
            status = library.software_identities(records)
            name, fields = "identity", GOLDEN_IDENTITY_FIELDS
        for event in library.events:
            if event[0] == "log":
                lines.append("log %d %s" % (event[1], quoted(event[2])))
            elif event[0] == "system":
                lines.append("system " + quoted(event[1]))
            else:
                lines.append("sleep %d" % event[1])
        lines.append("status %d" % status)
        for record in records:
            lines.append(name)
            for field in fields:
                lines.append("  %s %s" % (field, quoted(record[field])))
    return "\n".join(lines) + "\n"


def results_in(golden: str) -> list:
    """The calls, statuses and records of a golden text."""
    return [line for line in golden.splitlines() if not line.startswith(("log ", "system ", "sleep "))]


def main(arguments: list) -> int:
    if len(arguments) != 1:
        print("usage: model.py HOSTFILE", file=sys.stderr)
        return 2
    try:
        with open(arguments[0], encoding="latin-1", newline="") as file:
            host = parse_host(file.read())
        sys.stdout.write(golden_text(host))
    except (OSError, HostError) as error:
        print("model.py: %s: %s" % (arguments[0], error), file=sys.stderr)
        return 1
    left = host.never_asked()
    for line in left:
        print("model.py: %s: never asked: %s" % (arguments[0], line), file=sys.stderr)
    return 1 if left else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
