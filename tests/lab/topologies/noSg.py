"""The devices of "one of each" and one disk more, on a kernel that has no generic SCSI driver."""

from labkit.topology import DISK, INVENTORY_STEPS, NO_ADDRESS, OK, ZEROS, Device, EmptyDisk, Record, Topology

from . import oneOfEach


def Generic(vendor, product, serial, revision, address):
    """An ATA disk as its identity alone shows it: no type and no address."""
    return Record(vendor, product, None, serial, revision, address)


class NoSg(Topology):
    name = "no-sg"
    about = "one of each without the sg module: the generic class goes through /dev/sd*"

    withoutModules = ("sg",)

    setup = """
        modprobe sd_mod; modprobe sr_mod; modprobe st
        modprobe ahci; appear /dev/sda /dev/sdb /dev/sr0
        modprobe virtio_scsi; appear /dev/sdc /dev/sdd
        modprobe nvme; appear /dev/nvme0n1
        modprobe scsi_debug ptype=1 inq_vendor=LABTAPE inq_product='Streamer 6' inq_rev=T104
        appear /dev/st0 /dev/nst0a
    """

    steps = {
        "modprobe": "modprobe sg",
        **INVENTORY_STEPS,
        "nvme-revision": "cat /sys/class/nvme/nvme0/firmware_rev",
        "trace": "zddevices --type scsi --format json --log-level 4",
        "failures": "zddevices --type scsi --format json --log-level 1",
        "doctor": "zddevices doctor --format json",
    }

    @classmethod
    def Hardware(cls):
        return [
            *oneOfEach.Hardware(),
            *EmptyDisk("word"),
            *Device("ide-hd", bus="ahci.4", drive="word", model="MONOLITH", serial="M1", ver="0.9"),
        ]

    # The model's first word is taken for the vendor, the second for the product; one disk has no second. The
    # revision is the kernel's: the last four characters of the drive's eight, and the first four where those are blank.
    def Seaview(self, address):
        return Generic("SEAVIEW", "ST4000X", "ZC1 8LQ 0042        ", "CD34", address)

    def Monolith(self, address):
        return Generic("MONOLITH", None, f"{'M1':20}", "0.9 ", address)

    MONOLITH_DISK = Record("ATA", "MONOLITH", DISK, f"{'M1':20}", "0.9", (4, 0, 0, 0))

    def Flash(self, address):
        return oneOfEach.Flash(self.Stdout("nvme-revision").rstrip(), address)

    def Disks(self):
        """(kernel's address, file) of the /dev/sd* files in directory order."""
        address = dict(line.split() for line in self.Stdout("addresses").splitlines())
        return [(address[file], file) for file in self.DeviceFiles("sd")]

    def GenericRecords(self, addresses):
        # Only ATA disks answer the command; of the virtio-scsi disks nothing is listed.
        known = {"1:0:0:0": self.Seaview, "4:0:0:0": self.Monolith}
        answering = [known[address] for address, _ in self.Disks() if address in known]
        self.assertEqual(2, len(answering))
        return [record(address) for record, address in zip(answering, addresses)]

    def testTheModuleIsNotThere(self):
        self.assertNotEqual(0, self.results["modprobe"].status)
        self.assertEqual([], self.DeviceFiles("sg"))

    def testGenericClassListsTheAtaDisksThroughTheirDiskFiles(self):
        self.AssertInventory("scsi", OK, self.GenericRecords((ZEROS, ZEROS)))

    def testTapeAndOpticalScansNeedNoGenericDriver(self):
        self.AssertInventory("tape", OK, [oneOfEach.STREAMER])
        self.AssertInventory("optical", OK, [oneOfEach.DVD])

    def testDiskScanNeedsNoGenericDriver(self):
        self.AssertInventory("disk", OK, [
            *self.InDirectoryOrder("sd", {(1, 0, 0, 0): oneOfEach.ATA_DISK, (4, 0, 0, 0): self.MONOLITH_DISK,
                                          (6, 0, 0, 0): oneOfEach.PLAIN, (6, 0, 3, 0): oneOfEach.RAID}),
            self.Flash(ZEROS)])

    def testMergedListHoldsAtaDisksTwiceOnceWithoutAddress(self):
        first, second = self.GenericRecords((NO_ADDRESS, NO_ADDRESS))
        # The devices without address are counted in the order of the scans: the generic class's two, then NVMe.
        self.AssertInventory("merged", OK, [
            oneOfEach.ATA_DISK,  # Port:1|Target:0|Bus:0|Lun:0
            first,  # Port:1|Target:1|Bus:1|Lun:1
            oneOfEach.DVD,  # Port:2|Target:0|Bus:0|Lun:0
            second,  # Port:2|Target:2|Bus:2|Lun:2
            self.Flash(NO_ADDRESS),  # Port:3|Target:3|Bus:3|Lun:3
            self.MONOLITH_DISK,  # Port:4|Target:0|Bus:0|Lun:0
            oneOfEach.PLAIN, oneOfEach.RAID, oneOfEach.STREAMER])

    def testGenericClassLogsTheStatusOfEachFile(self):
        expected = [
            (4, "Entry constructure DataProxy() sg_ko_loaded = 0"),
            (4, "Entry SCSIProxy::SCSIProxy()"),
            (4, "Entry DataProxy::GetDeviceList()"),
            (4, "Entry  DataProxy::ScanDeviceFiles() "),
            *((4, f"DataProxy::ScanDeviceFiles() detect file : {file}") for _, file in self.Disks()),
            (4, "Exit  DataProxy::ScanDeviceFiles() "),
        ]
        for address, file in self.Disks():
            isAta = address in ("1:0:0:0", "4:0:0:0")
            expected += [
                (4, "Entry SCSIProxy::GetDeviceInfo()"),
                (4, "Entry  GetDriverData() "),
                (4, f"Enter DataOperator::OpenDriveFile() driveName = /dev/{file}"),
                (4, f"Exit DataOperator::ExecIoCtl(), ret = {0 if isAta else -1}"),
                (4, "Get HDIO_DRIVE_CMD|HDIO_DRIVE_TASK Inquiry passed.. otherIdentInfo = "
                    f"{'Port:0|Target:0|Bus:0|Lun:0' if isAta else ''}"),
                (4, "Entry  GetDriverData() "),
                (1, f"Fail in get firmware version from /sys/block/{file}/device/firmware_rev."),
                (4, f"GetDriverData() ret = {4 if isAta else 5}"),
            ]
        expected += [(4, "Entry SCSIProxy::~SCSIProxy()"), (4, "Entry destructure ~DataProxy() ")]
        self.AssertLogs("trace", expected)
        self.assertIn((4, f"{'SEAVIEW ST4000X':40}"), self.Messages("trace"))

    def testDoctorSaysThatTheDriverIsMissingAndWhatFollows(self):
        document, files = self.Diagnosis("doctor")
        self.assertEqual({"loaded": False, "modprobe_finds_it": False, "may_be_loaded": True, "used": False},
                         document["sg_driver"])
        advice, = document["advice"]
        self.assertIn('"modprobe sg" finds none', advice)
        for address, file in self.Disks():
            isAta = address in ("1:0:0:0", "4:0:0:0")
            generic = files["scsi"]["/dev/" + file]
            self.assertEqual("visible" if isAta else "no_usable_answer", generic["visibility"])
            self.AssertFailures(generic, [] if isAta else [("HDIO_DRIVE_CMD", "EINVAL")])
            self.assertEqual("visible", files["disk"]["/dev/" + file]["visibility"])

    def testEveryDiskLacksTheRevisionFileThatIsLookedForFirst(self):
        self.AssertWholeLog("failures", [
            (1, f"Fail in get firmware version from /sys/block/{file}/device/firmware_rev.")
            for _, file in self.Disks()])
