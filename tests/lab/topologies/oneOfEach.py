"""One device of every kind that a plain server has."""

from labkit.topology import (DISK, IDENTITY_PROPERTIES, INVENTORY_STEPS, NO_ADDRESS, OK, OPTICAL, OPTICAL_ROWS, TAPE,
                             ZEROS, Device, EmptyDisk, Identity, Record, Topology)


def Hardware():
    return [
        # A port of an AHCI controller is a SCSI host of its own: ports 0 to 5 are hosts 0 to 5.
        *Device("ahci", id="ahci", addr="05.0"),
        *EmptyDisk("ata"),
        *Device("ide-hd", bus="ahci.1", drive="ata", model="SEAVIEW ST4000X", serial="ZC1 8LQ 0042", ver="AB12CD34"),
        *EmptyDisk("disc", readOnly=True),
        *Device("ide-cd", bus="ahci.2", drive="disc", ver="1.07", serial="DVD-0001"),
        *Device("virtio-scsi-pci", id="scsi", addr="06.0"),
        *EmptyDisk("plain"),
        *Device("scsi-hd", bus="scsi.0", drive="plain", channel=0, scsi_id=0, lun=0,
                vendor="HALVARD", product="HX 900", ver="0102", serial="HX-00017"),
        *EmptyDisk("raid"),
        *Device("scsi-hd", bus="scsi.0", drive="raid", channel=0, scsi_id=3, lun=0,
                vendor="HALVARD", product="RAID 5 Volume", ver="7.20", serial="VOL000000003"),
        *EmptyDisk("flash"),
        *Device("nvme", id="nvme0", drive="flash", serial="NV-5510-A", addr="07.0"),
    ]


# Through the generic driver an ATA disk shows 16 characters of its model and the last 4 of its revision, which is
# what the kernel's translation has room for. An ATA serial number is 20 characters, filled with blanks.
ATA_GENERIC = Record("ATA", "SEAVIEW ST4000X", DISK, "ZC1 8LQ 0042        ", "CD34", (1, 0, 0, 0))
# The disk scan asks the drive itself: whole revision, and the first word of the model.
ATA_DISK = Record("ATA", "SEAVIEW", DISK, "ZC1 8LQ 0042        ", "AB12CD34", (1, 0, 0, 0))
# qemu's ATAPI drive calls itself this; serial numbers are asked of disks and tapes only.
DVD = Record("QEMU", "QEMU DVD-ROM", OPTICAL, None, "1.07", (2, 0, 0, 0))
PLAIN = Record("HALVARD", "HX 900", DISK, "HX-00017", "0102", (6, 0, 0, 0))
RAID = Record("HALVARD", "RAID 5 Volume", DISK, "VOL000000003", "7.20", (6, 0, 3, 0))
# scsi_debug numbers its units 2000 * (host + 1) + 1000 * target + LUN.
STREAMER = Record("LABTAPE", "Streamer 6", TAPE, "16000", "T104", (7, 0, 0, 0))


def Flash(kernelsRevision, address):
    # Model and serial number fill 40 and 20 characters, of which all but the last are taken. The revision has eight
    # and runs on into the next byte: qemu recommends an arbitration burst of 6, and a zero stands behind that.
    return Record("NVMe", f"{'QEMU NVMe Ctrl':39}", DISK, f"{'NV-5510-A':19}", f"{kernelsRevision:8}\x06", address)


class OneOfEach(Topology):
    name = "one-of-each"
    about = "an AHCI disk, an ATAPI drive, two virtio-scsi disks, an NVMe disk, a tape drive"

    # One driver after the other, so that the host numbers are what they are: 0-5 AHCI, 6 virtio-scsi, 7 scsi_debug.
    setup = """
        modprobe sg; modprobe sd_mod; modprobe sr_mod; modprobe st
        modprobe ahci; appear /dev/sda /dev/sr0 /dev/sg1
        modprobe virtio_scsi; appear /dev/sdb /dev/sdc /dev/sg3
        modprobe nvme; appear /dev/nvme0n1
        modprobe scsi_debug ptype=1 inq_vendor=LABTAPE inq_product='Streamer 6' inq_rev=T104
        appear /dev/st0 /dev/nst0a /dev/sg4
    """

    steps = {
        **INVENTORY_STEPS,
        "nvme-revision": "cat /sys/class/nvme/nvme0/firmware_rev",
        "limited": "zddevices --timeout 300 --format json",
        "table": "zddevices",
        "cdrom": "cat /proc/sys/dev/cdrom/info",
        "optical-record": "zddevices optical --format json",
        "firmware": "zddevices firmware --format json",
        "optical-trace": "zddevices --type optical --format json --log-level 4",
        "optical-failures": "zddevices --type optical --format json --log-level 1",
        "scsi-trace": "zddevices --type scsi --format json --log-level 4",
        "disk-trace": "zddevices --type disk --format json --log-level 4",
        "tape-trace": "zddevices --type tape --format json --log-level 4",
        "doctor": "zddevices doctor --format json",
        "doctor-words": "zddevices doctor",
        "doctor-user": """
            chmod 644 /dev/sda /dev/sdb /dev/nvme0n1
            start-stop-daemon -S -c guest:guest -x /usr/bin/zddevices -- doctor --format json
            status=$?
            chmod 600 /dev/sda /dev/sdb /dev/nvme0n1
            exit "$status"
        """,
        "doctor-without-sg": """
            rmmod sg
            zddevices doctor --format json
            status=$?
            [ ! -e /sys/module/sg ] || status=99
            modprobe sg; appear /dev/sg4
            exit "$status"
        """,
        "ordinary-user": "start-stop-daemon -S -c guest:guest -x /usr/bin/zddevices -- --format json",
    }

    @classmethod
    def Hardware(cls):
        return Hardware()

    def Flash(self, address):
        return Flash(self.Stdout("nvme-revision").rstrip(), address)

    def testTapeScanListsTheRewindingDeviceOnce(self):
        self.assertIn("nst0a", self.DeviceFiles("nst"))
        self.assertIn("st0a", self.DeviceFiles("st"))
        self.AssertInventory("tape", OK, [STREAMER])

    def testScsiScanListsEveryGenericDeviceInDirectoryOrder(self):
        self.AssertInventory("scsi", OK, self.InDirectoryOrder("sg", {
            (1, 0, 0, 0): ATA_GENERIC, (2, 0, 0, 0): DVD, (6, 0, 0, 0): PLAIN, (6, 0, 3, 0): RAID,
            (7, 0, 0, 0): STREAMER}))

    def testDiskScanListsScsiDisksInDirectoryOrderAndThenNvme(self):
        self.AssertInventory("disk", OK, [
            *self.InDirectoryOrder("sd", {(1, 0, 0, 0): ATA_DISK, (6, 0, 0, 0): PLAIN, (6, 0, 3, 0): RAID}),
            self.Flash(ZEROS)])

    def testOpticalScanListsTheDrive(self):
        self.AssertInventory("optical", OK, [DVD])

    def testMergedListHoldsEachDeviceOnceInKeyOrder(self):
        # The NVMe disk has no address; its place is that of Port:1|Target:1|Bus:1|Lun:1. The ATA disk is the one of
        # the generic scan, which came first.
        self.AssertInventory("merged", OK, [ATA_GENERIC, self.Flash(NO_ADDRESS), DVD, PLAIN, RAID, STREAMER])

    def testClassesThatAreAskedSideBySideAnswerTheSame(self):
        merged, limited = self.Inventory("merged"), self.Inventory("limited")
        for document in merged, limited:
            del document["collected_at"]
        self.assertEqual(merged, limited)

    def testOpticalRecordFollowsTheKernelsTable(self):
        table = self.OpticalTable()
        self.assertEqual(["sr0"], table["drive name"])
        self.assertEqual(["1"], table["Can read DVD"])
        document = self.Inventory("optical-record")
        self.assertEqual(OK, document["status"])
        self.assertEqual([{
            "drive_name_": "/dev/sr0", "vendor_": "QEMU", "product_": "QEMU DVD-ROM",
            **{field: "Yes" if table.get(row) == ["1"] else "No" for field, row in OPTICAL_ROWS.items()},
        }], document["drives"])

    def testFirmwareLeavesOutTheDiskWhoseProductHoldsRaid(self):
        # In the order of the disk scan; an ATA disk is known by the first word of its model.
        document = self.Inventory("firmware")
        self.assertEqual(OK, document["status"])
        disks = self.InDirectoryOrder("sd", {
            (1, 0, 0, 0): Identity("SEAVIEW", "AB12CD34"), (6, 0, 0, 0): Identity("HX 900", "0102"),
            (6, 0, 3, 0): None})
        flash = self.Flash(ZEROS)
        self.assertEqual([disk for disk in disks if disk] + [
            Identity(flash["product"].strip(), flash["firmware_revision"])], document["identities"])
        for identity in document["identities"]:
            self.assertEqual(IDENTITY_PROPERTIES, list(identity))

    def testScansAreSilentWithoutALogLevel(self):
        for step in ("merged", "tape", "scsi", "disk", "optical", "table"):
            self.assertEqual("", self.Stderr(step), step)

    def testTableShowsTheMergedList(self):
        result = self.results["table"]
        self.assertEqual(0, result.status)
        lines = self.Stdout("table").splitlines()
        self.assertEqual(["ADDRESS", "1:0:0:0", "-", "2:0:0:0", "6:0:0:0", "6:0:3:0", "7:0:0:0"],
                         [line.split()[0] for line in lines])
        self.assertNotIn("\x06", self.Stdout("table"))

    def testDoctorSeesEveryDeviceAndRewindsNoTape(self):
        document, files = self.Diagnosis("doctor")
        self.assertEqual({"loaded": True, "modprobe_finds_it": True, "may_be_loaded": True, "used": True},
                         document["sg_driver"])
        self.assertEqual([], document["advice"])
        self.assertEqual({"tape": ["/dev/st0"], "scsi": [f"/dev/sg{number}" for number in range(5)],
                          "disk": ["/dev/nvme0n1", "/dev/sda", "/dev/sdb", "/dev/sdc"], "optical": ["/dev/sr0"]},
                         {word: list(found) for word, found in files.items()})
        for found in files.values():
            for file in found.values():
                self.assertEqual("visible", file["visibility"], file)
                self.AssertFailures(file, [])
                self.assertEqual("/dev/nst0" if file["path"] == "/dev/st0" else None, file["asked_through"])
        self.assertEqual(("LABTAPE", "Streamer 6"),
                         (files["tape"]["/dev/st0"]["vendor"], files["tape"]["/dev/st0"]["product"]))
        ataDisk, = (file for file in files["disk"].values() if (file["vendor"] or "").startswith("ATA"))
        self.assertEqual("HDIO_DRIVE_CMD", ataDisk["questions"][-1]["request"])

    def testDoctorSaysInWordsThatAllIsWell(self):
        self.assertEqual(0, self.results["doctor-words"].status)
        words = self.Stdout("doctor-words")
        self.assertIn("  /dev/sr0  visible: QEMU QEMU DVD-ROM\n", words)
        self.assertTrue(words.endswith("\nThe library sees everything that has a device file.\n"), words)

    def testDoctorTellsAnOrdinaryUserWhatTheKernelKeepsFromHim(self):
        document, files = self.Diagnosis("doctor-user", exitStatus=3)
        # Even where the files may be read: SCSI INQUIRY is free for all, the others are for root.
        self.assertEqual("no_usable_answer", files["disk"]["/dev/nvme0n1"]["visibility"])
        self.AssertFailures(files["disk"]["/dev/nvme0n1"], [("NVME_IOCTL_ADMIN_CMD", "EACCES")])
        for path in ("/dev/sda", "/dev/sdb"):
            file = files["disk"][path]
            isAta = file["vendor"] == "ATA     "
            self.AssertFailures(file, [("HDIO_DRIVE_CMD", "EACCES")] if isAta else [])
            self.assertEqual("no_usable_answer" if isAta else "visible", file["visibility"])
        self.assertEqual(["denied"], [files["optical"]["/dev/sr0"]["visibility"]])
        self.assertEqual("EACCES", files["optical"]["/dev/sr0"]["open_error"]["name"])
        self.assertFalse(document["sg_driver"]["may_be_loaded"])
        advice = "\n".join(document["advice"])
        self.assertRegex(advice, r"8 device files could not be opened .*; run zddevices as root\.")
        self.assertIn("Membership of the group is not enough", advice)

    def testDoctorLoadsNoDriver(self):
        document, files = self.Diagnosis("doctor-without-sg")
        self.assertEqual({"loaded": False, "modprobe_finds_it": True, "may_be_loaded": True, "used": True},
                         document["sg_driver"])
        self.assertEqual({}, files["scsi"])

    def testOpticalScanLogsEveryStep(self):
        inputOutput = ["Enter DataOperator::ExecIoCtl().",
                       "Enter DataOperator::OpenDriveFile() driveName = /dev/sr0",
                       "Exit DataOperator::ExecIoCtl(), ret = 0"]
        self.AssertWholeLog("optical-trace", [(4, text) for text in [
            "Enter construct DeviceCollector ",
            "Enter DeviceCollector::GetIndividualDevice() device type = 3",
            "Enter construct SysDevice device type is 3",
            "Enter SysDevice::GetData()  device_type = 3",
            "Entry constructure DataProxy() sg_ko_loaded = 1",
            "Entry CDDVDProxy::CDDVDProxy()",
            "Entry DataProxy::GetDeviceList()",
            "Entry  DataProxy::ScanDeviceFiles() ",
            "DataProxy::ScanDeviceFiles() detect file : sr0",
            "Exit  DataProxy::ScanDeviceFiles() ",
            "Entry CDDVDProxy::GetDeviceInfo()",
            "Entry  GetGenericDeviceData() is_sg = 0",
            "Enter DataOperator::ExecPassThruCmd()",
            *inputOutput,
            *inputOutput,
            "Exit scsiPassThrough::execSCSICommand().",
            "GetGenericDeviceData() dataOper->ExecPassThruCmd vendorID and productID is not empty ",
            *inputOutput,
            *inputOutput,
            "Get SCSI_IOCTL_GET_IDLUN passed.. otherIdentInfo = Port:2|Target:0|Bus:0|Lun:0",
            "Exit normally GetGenericDeviceData() ",
            "Entry  DataProxy::GetFirmwareVersionFile() ",
        ]] + [
            (1, "Fail in get firmware version from /sys/block/sr0/device/firmware_rev."),
            (4, "Exit CDDVDProxy::GetDeviceInfo()"),
            (4, "DataProxy::StoreBusDev   vendor id: QEMU productId: QEMU DVD-ROM deviceType: CD-ROM Device "
                "serialNum:  rev: 1.07\n host adapter: 2 target ID: 0 bus 0 lun 0 devId:   "
                "otherIdentInfo: Port:2|Target:0|Bus:0|Lun:0"),
            (4, "Exit DataProxy::GetDeviceList()"),
            (4, "Entry CDDVDProxy::~CDDVDProxy()"),
            (4, "Entry destructure ~DataProxy() "),
        ])

    def testAMissingRevisionFileIsTheOnlyFailureOfTheOpticalScan(self):
        self.AssertWholeLog("optical-failures", [
            (1, "Fail in get firmware version from /sys/block/sr0/device/firmware_rev.")])

    def testGenericDevicesAnswerWithTheirAddressAndSerialNumber(self):
        # No block device is called sg0: the search for a revision file ends without one.
        for file, address in (line.split() for line in self.Stdout("addresses").splitlines()):
            if address != "6:0:3:0" or not file.startswith("sg"):
                continue
            self.AssertLogs("scsi-trace", [
                (4, "Entry SCSIProxy::SCSIProxy()"),
                (4, f"DataProxy::ScanDeviceFiles() detect file : {file}"),
                (4, "Entry SCSIProxy::GetDeviceInfo()"),
                (4, "Entry  GetGenericDeviceData() is_sg = 1"),
                (4, f"Enter DataOperator::OpenDriveFile() driveName = /dev/{file}"),
                (4, "GetGenericDeviceData() dataOper->ExecPassThruCmdSG_GET_SCSI_ID ret = 4"),
                (4, "Get SCSI ID passed... otherIdentInfo = Port:6|Target:3|Bus:0|Lun:0"),
                (4, "Serial Number: VOL000000003"),
                (4, "Exit normally GetGenericDeviceData() "),
                (4, "GetGenericDeviceData() ret = 4"),
                (4, "Entry  DataProxy::GetFirmwareVersionFile() "),
                (4, "Exit  DataProxy::GetFirmwareVersionFile() "),
                (4, "DataProxy::StoreBusDev   vendor id: HALVARD productId: RAID 5 Volume deviceType: "
                    "Direct Access Device serialNum: VOL000000003 rev: 7.20 host adapter: 6 target ID: 3 bus 0 lun 0 "
                    "devId:   otherIdentInfo: Port:6|Target:3|Bus:0|Lun:0"),
                (4, "Entry SCSIProxy::~SCSIProxy()"),
            ])
            break
        else:
            self.fail("the guest has no generic device at 6:0:3:0")
        # This class alone ends its list without a line of its own.
        self.assertNotIn((4, "Exit DataProxy::GetDeviceList()"), self.Messages("scsi-trace"))

    def testDiskScanAsksAtaDisksForTheirIdentityAndLeavesTheExitLineOfNvmeAheadOfItsCommand(self):
        self.AssertLogs("disk-trace", [
            (4, "Entry  UpdateFirmwareVersionForSdDisk() "),
            (4, "Exit DataOperator::ExecIoCtl(), ret = 0"),
        ])
        messages = self.Messages("disk-trace")
        self.assertEqual(1, messages.count((4, "Entry  UpdateFirmwareVersionForSdDisk() ")))
        entry = messages.index((4, "Entry PhysicalDriveProxy::GetNVMEInfo()"))
        self.assertEqual([
            (4, "Exit PhysicalDriveProxy::GetNVMEInfo()"),
            (4, "Enter DataOperator::ExecIoCtl()."),
            (4, "Enter DataOperator::OpenDriveFile() driveName = /dev/nvme0n1"),
            (4, "Exit DataOperator::ExecIoCtl(), ret = 0"),
        ], messages[entry + 1:entry + 5])

    def testTapeScanLogsItsOneDeviceFileAndNoNonRewindingOne(self):
        self.AssertLogs("tape-trace", [
            (4, "Entry TapeProxy::TapeProxy()"),
            (4, "DataProxy::ScanDeviceFiles() detect file : st0"),
            (4, "Entry TapeProxy::GetDeviceInfo()"),
            (4, "Get SCSI_IOCTL_GET_IDLUN passed.. otherIdentInfo = Port:7|Target:0|Bus:0|Lun:0"),
            (4, "Serial Number: 16000"),
            (4, "Exit  DataProxy::GetFirmwareVersionFile() "),
            (4, "Exit TapeProxy::GetDeviceInfo()"),
            (4, "Exit DataProxy::GetDeviceList()"),
            (4, "Entry TapeProxy::~TapeProxy()"),
        ])
        detected = [text for _, text in self.Messages("tape-trace") if "detect file" in text]
        self.assertEqual(["DataProxy::ScanDeviceFiles() detect file : st0"], detected)

    def testAnOrdinaryUserLearnsThatTheDevicesMayNotBeOpened(self):
        self.AssertInventory("ordinary-user", OK, [], exitStatus=3)
        lines = self.Stderr("ordinary-user").splitlines()
        self.assertEqual(1, len(lines), lines)
        self.assertIn("privilege", lines[0])
