"""One device of every kind that a plain server has."""

from labkit.topology import (DISK, INVENTORY_STEPS, KERNEL_PROGRAMS, KERNEL_STEPS, NO_ADDRESS, OK, OPTICAL, OPTICAL_ROWS,
                             TAPE, ZEROS, Topology, device_record, empty_disk, identity_record, qemu_device)


def qemu_arguments():
    return [
        # A port of an AHCI controller is a SCSI host of its own: ports 0 to 5 are hosts 0 to 5.
        *qemu_device("ahci", id="ahci", addr="05.0"),
        *empty_disk("ata"),
        *qemu_device("ide-hd", bus="ahci.1", drive="ata", model="SEAVIEW ST4000X", serial="ZC1 8LQ 0042",
                     ver="AB12CD34"),
        *empty_disk("disc", read_only=True),
        *qemu_device("ide-cd", bus="ahci.2", drive="disc", ver="1.07", serial="DVD-0001"),
        *qemu_device("virtio-scsi-pci", id="scsi", addr="06.0"),
        *empty_disk("plain"),
        *qemu_device("scsi-hd", bus="scsi.0", drive="plain", channel=0, scsi_id=0, lun=0,
                     vendor="HALVARD", product="HX 900", ver="0102", serial="HX-00017"),
        *empty_disk("raid"),
        *qemu_device("scsi-hd", bus="scsi.0", drive="raid", channel=0, scsi_id=3, lun=0,
                     vendor="HALVARD", product="RAID 5 Volume", ver="7.20", serial="VOL000000003"),
        *empty_disk("flash"),
        *qemu_device("nvme", id="nvme0", drive="flash", serial="NV-5510-A", addr="07.0"),
    ]


# Through the generic driver an ATA disk shows 16 characters of its model and the last 4 of its revision, which is
# what the kernel's translation has room for. An ATA serial number is 20 characters, filled with blanks.
ATA_GENERIC = device_record("ATA", "SEAVIEW ST4000X", DISK, "ZC1 8LQ 0042        ", "CD34", (1, 0, 0, 0))
# The disk scan asks the drive itself: whole revision, and the first word of the model.
ATA_DISK = device_record("ATA", "SEAVIEW", DISK, "ZC1 8LQ 0042        ", "AB12CD34", (1, 0, 0, 0))
# qemu's ATAPI drive calls itself this; serial numbers are asked of disks and tapes only.
DVD = device_record("QEMU", "QEMU DVD-ROM", OPTICAL, None, "1.07", (2, 0, 0, 0))
PLAIN = device_record("HALVARD", "HX 900", DISK, "HX-00017", "0102", (6, 0, 0, 0))
RAID = device_record("HALVARD", "RAID 5 Volume", DISK, "VOL000000003", "7.20", (6, 0, 3, 0))
# scsi_debug numbers its units 2000 * (host + 1) + 1000 * target + LUN.
STREAMER = device_record("LABTAPE", "Streamer 6", TAPE, "16000", "T104", (7, 0, 0, 0))


def flash_record(kernels_revision, address):
    # Model and serial number fill 40 and 20 characters, of which all but the last are taken. The revision has eight
    # and runs on into the next byte: qemu recommends an arbitration burst of 6, and a zero stands behind that.
    return device_record("NVMe", f"{'QEMU NVMe Ctrl':39}", DISK, f"{'NV-5510-A':19}", f"{kernels_revision:8}\x06",
                         address)


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

    programs = KERNEL_PROGRAMS

    steps = {
        **INVENTORY_STEPS,
        **KERNEL_STEPS,
        "nvme-revision": "cat /sys/class/nvme/nvme0/firmware_rev",
        "limited": "zddevices --timeout 300 --format json",
        "table": "zddevices",
        "cdrom": "cat /proc/sys/dev/cdrom/info",
        "optical-record": "zddevices optical --format json",
        "firmware": "zddevices firmware --format json",
        "optical-trace": "zddevices --as-library --type optical --format json --log-level 4",
        "optical-failures": "zddevices --type optical --format json --log-level 1",
        "scsi-trace": "zddevices --type scsi --format json --log-level 4",
        "disk-trace": "zddevices --type disk --format json --log-level 4",
        "tape-trace": "zddevices --type tape --format json --log-level 4",
        "tape-of-modes": """
            mkdir /tmp/rewinding && mv /dev/st* /tmp/rewinding
            zddevices --type tape --format json
            status=$?
            mv /tmp/rewinding/* /dev
            exit "$status"
        """,
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
            [ -e /sys/module/sg ] || status=99
            exit "$status"
        """,
        "ordinary-user": "start-stop-daemon -S -c guest:guest -x /usr/bin/zddevices -- --format json",
    }

    @classmethod
    def qemu_arguments(cls):
        return qemu_arguments()

    def flash_record(self, address):
        return flash_record(self.stdout("nvme-revision").rstrip(), address)

    def test_tape_scan_lists_the_rewinding_device_once(self):
        self.assertIn("nst0a", self.device_files("nst"))
        self.assertIn("st0a", self.device_files("st"))
        self.assert_inventory("tape", OK, [STREAMER])

    def test_files_of_modes_that_are_not_set_up_lack_nothing_where_the_tape_answers_by_another(self):
        self.assert_rows("tape-of-modes", [STREAMER])

    def test_scsi_scan_lists_every_generic_device_in_directory_order(self):
        self.assert_inventory("scsi", OK, self.in_directory_order("sg", {
            (1, 0, 0, 0): ATA_GENERIC, (2, 0, 0, 0): DVD, (6, 0, 0, 0): PLAIN, (6, 0, 3, 0): RAID,
            (7, 0, 0, 0): STREAMER}))

    def test_disk_scan_lists_scsi_disks_in_directory_order_and_then_nvme(self):
        self.assert_inventory("disk", OK, [
            *self.in_directory_order("sd", {(1, 0, 0, 0): ATA_DISK, (6, 0, 0, 0): PLAIN, (6, 0, 3, 0): RAID}),
            self.flash_record(ZEROS)])

    def test_optical_scan_lists_the_drive(self):
        self.assert_inventory("optical", OK, [DVD])

    def test_merged_list_holds_each_device_once_in_key_order(self):
        # The NVMe disk has no address; its place is that of Port:1|Target:1|Bus:1|Lun:1. The ATA disk is the one of
        # the generic scan, which came first.
        self.assert_inventory("merged", OK, [ATA_GENERIC, self.flash_record(NO_ADDRESS), DVD, PLAIN, RAID, STREAMER])

    def test_every_row_is_what_the_kernels_tools_say(self):
        self.assert_rows_are_the_kernels()

    def test_each_row_has_the_librarys_texts_and_what_the_kernel_adds(self):
        rows = self.inventory("rows")["devices"]
        tape = rows[-1]
        self.assertEqual(["nvme0n1", "sda", "sdb", "sdc", "sr0", "st0"], [row["device"] for row in rows])
        self.assertEqual({**STREAMER, "device": "st0", "size_bytes": None, "transport": None, "wwn": tape["wwn"],
                          "state": "running", "driver": "scsi_debug", "slot": None, "model": "Streamer 6",
                          "revision": "T104", "device_files": tape["device_files"]}, tape)
        self.assertEqual(["/dev/st0", "/dev/st0a", "/dev/st0l", "/dev/st0m", "/dev/nst0", "/dev/nst0a", "/dev/nst0l",
                          "/dev/nst0m", "/dev/sg4", "/dev/bsg/7:0:0:0"], tape["device_files"])
        ata = rows[1]
        self.assertEqual(ATA_GENERIC, {key: ata[key] for key in ATA_GENERIC})
        self.assertEqual(("SEAVIEW ST4000X", "AB12CD34"), (ata["model"], ata["revision"]))

    def test_a_limit_that_is_not_reached_changes_nothing(self):
        rows, limited = self.inventory("rows"), self.inventory("limited")
        for document in rows, limited:
            del document["collected_at"]
        self.assertEqual(rows, limited)

    def test_optical_record_follows_the_kernels_table(self):
        table = self.optical_table()
        self.assertEqual(["sr0"], table["drive name"])
        self.assertEqual(["1"], table["Can read DVD"])
        document = self.inventory("optical-record")
        self.assertEqual(OK, document["status"])
        self.assertEqual([{
            "drive_name": "/dev/sr0", "vendor": "QEMU", "product": "QEMU DVD-ROM",
            **{field: "Yes" if table.get(row) == ["1"] else "No" for field, row in OPTICAL_ROWS.items()},
        }], document["drives"])

    def test_firmware_leaves_out_the_disk_whose_product_holds_raid(self):
        # By device; an ATA disk is known by the first word of its model.
        flash = self.flash_record(ZEROS)
        expected = {
            "nvme0n1": identity_record(flash["product"].strip(), flash["firmware_revision"], flash["serial_number"]),
            self.file_at("1:0:0:0"): identity_record("SEAVIEW", "AB12CD34", ATA_DISK["serial_number"],
                                                     "SEAVIEW ST4000X"),
            self.file_at("6:0:0:0"): identity_record("HX 900", "0102", "HX-00017")}
        self.assert_firmware("firmware", [expected[device] for device in sorted(expected)])

    def file_at(self, address):
        """The disk's file of an address."""
        file, = (file for file, where in (line.split() for line in self.stdout("addresses").splitlines())
                 if where == address and file.startswith("sd"))
        return file

    def test_scans_are_silent_without_a_log_level(self):
        for step in ("merged", "tape", "scsi", "disk", "optical", "table"):
            self.assertEqual("", self.stderr(step), step)

    def test_table_shows_each_device_once(self):
        result = self.results["table"]
        self.assertEqual(0, result.status)
        lines = self.stdout("table").splitlines()
        self.assertEqual(["DEVICE", "nvme0n1", "sda", "sdb", "sdc", "sr0", "st0"],
                         [line.split()[0] for line in lines])
        self.assertNotIn("\x06", self.stdout("table"))

    def test_doctor_sees_every_device_and_rewinds_no_tape(self):
        document, files = self.diagnosis("doctor")
        self.assertEqual({"loaded": True, "modprobe_finds_it": True, "may_be_loaded": True, "used": True},
                         document["sg_driver"])
        self.assertEqual([], document["advice"])
        self.assertEqual({"tape": ["/dev/st0"], "scsi": [f"/dev/sg{number}" for number in range(5)],
                          "disk": ["/dev/nvme0n1", "/dev/sda", "/dev/sdb", "/dev/sdc"], "optical": ["/dev/sr0"]},
                         {word: list(found) for word, found in files.items()})
        for found in files.values():
            for file in found.values():
                self.assertEqual("visible", file["visibility"], file)
                self.assert_failures(file, [])
                self.assertEqual("/dev/nst0" if file["path"] == "/dev/st0" else None, file["asked_through"])
        self.assertEqual(("LABTAPE", "Streamer 6"),
                         (files["tape"]["/dev/st0"]["vendor"], files["tape"]["/dev/st0"]["product"]))
        ata_disk, = (file for file in files["disk"].values() if (file["vendor"] or "").startswith("ATA"))
        self.assertEqual("HDIO_DRIVE_CMD", ata_disk["questions"][-1]["request"])

    def test_doctor_says_in_words_that_all_is_well(self):
        self.assertEqual(0, self.results["doctor-words"].status)
        words = self.stdout("doctor-words")
        self.assertIn("  /dev/sr0  visible: QEMU QEMU DVD-ROM\n", words)
        self.assertTrue(words.endswith("\nThe library sees everything that has a device file.\n"), words)

    def test_doctor_tells_an_ordinary_user_what_the_kernel_keeps_from_him(self):
        document, files = self.diagnosis("doctor-user", exit_status=3)
        _, roots_files = self.diagnosis("doctor")
        # Even where the files may be read: SCSI INQUIRY is free for all, the others are for root.
        flash = files["disk"]["/dev/nvme0n1"]
        answers = self.nvme_identifies_itself_to_all()
        self.assertEqual("visible" if answers else "no_usable_answer", flash["visibility"])
        self.assert_failures(flash, [] if answers else [("NVME_IOCTL_ADMIN_CMD", "EACCES")])
        for path in ("/dev/sda", "/dev/sdb"):
            file = files["disk"][path]
            is_ata = roots_files["disk"][path]["vendor"].startswith("ATA")
            self.assert_failures(file, [("HDIO_DRIVE_CMD", "EACCES")] if is_ata else [])
            self.assertEqual("no_usable_answer" if is_ata else "visible", file["visibility"])
        self.assertEqual(["denied"], [files["optical"]["/dev/sr0"]["visibility"]])
        self.assertEqual("EACCES", files["optical"]["/dev/sr0"]["open_error"]["name"])
        self.assertFalse(document["sg_driver"]["may_be_loaded"])
        advice = "\n".join(document["advice"])
        self.assertRegex(advice, r"8 device files could not be opened .*; run zddevices as root\.")
        self.assertIn("Membership of the group is not enough", advice)

    def test_doctor_loads_the_driver_as_a_scan_does(self):
        document, files = self.diagnosis("doctor-without-sg")
        self.assertEqual({"loaded": True, "modprobe_finds_it": True, "may_be_loaded": True, "used": True},
                         document["sg_driver"])
        self.assertEqual([f"/dev/sg{number}" for number in range(5)], list(files["scsi"]))

    def test_optical_scan_logs_every_step(self):
        input_output = ["Enter DataOperator::ExecIoCtl().",
                        "Enter DataOperator::OpenDriveFile() driveName = /dev/sr0",
                        "Exit DataOperator::ExecIoCtl(), ret = 0"]
        self.assert_whole_log("optical-trace", [(4, text) for text in [
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
            *input_output,
            *input_output,
            "Exit scsiPassThrough::execSCSICommand().",
            "GetGenericDeviceData() dataOper->ExecPassThruCmd vendorID and productID is not empty ",
            *input_output,
            *input_output,
            "Get SCSI_IOCTL_GET_IDLUN passed.. otherIdentInfo = Port:2|Target:0|Bus:0|Lun:0",
            "Exit normally GetGenericDeviceData() ",
            "Entry  DataProxy::GetFirmwareVersionFile() ",
        ]] + [
            (1, "Fail in get firmware version from /sys/block/sr0/device/firmware_rev."),
            (4, "Exit CDDVDProxy::GetDeviceInfo()"),
            (4, "DataProxy::StoreBusDev   vendor id: QEMU productId: QEMU DVD-ROM deviceType: CD-ROM Device "
                "serialNum:  rev: 1.07\\n host adapter: 2 target ID: 0 bus 0 lun 0 devId:   "
                "otherIdentInfo: Port:2|Target:0|Bus:0|Lun:0"),
            (4, "Exit DataProxy::GetDeviceList()"),
            (4, "Entry CDDVDProxy::~CDDVDProxy()"),
            (4, "Entry destructure ~DataProxy() "),
        ])

    def test_a_missing_revision_file_is_the_only_failure_of_the_optical_scan(self):
        self.assert_whole_log("optical-failures", [
            (1, "Fail in get firmware version from /sys/block/sr0/device/firmware_rev.")])

    def test_generic_devices_answer_with_their_address_and_serial_number(self):
        # No block device is called sg0: the search for a revision file ends without one.
        for file, address in (line.split() for line in self.stdout("addresses").splitlines()):
            if address != "6:0:3:0" or not file.startswith("sg"):
                continue
            self.assert_logs("scsi-trace", [
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
        self.assertNotIn((4, "Exit DataProxy::GetDeviceList()"), self.messages("scsi-trace"))

    def test_disk_scan_asks_ata_disks_for_their_identity_and_leaves_the_exit_line_of_nvme_ahead_of_its_command(self):
        self.assert_logs("disk-trace", [
            (4, "Entry  UpdateFirmwareVersionForSdDisk() "),
            (4, "Exit DataOperator::ExecIoCtl(), ret = 0"),
        ])
        messages = self.messages("disk-trace")
        self.assertEqual(1, messages.count((4, "Entry  UpdateFirmwareVersionForSdDisk() ")))
        entry = messages.index((4, "Entry PhysicalDriveProxy::GetNVMEInfo()"))
        self.assertEqual([
            (4, "Exit PhysicalDriveProxy::GetNVMEInfo()"),
            (4, "Enter DataOperator::ExecIoCtl()."),
            (4, "Enter DataOperator::OpenDriveFile() driveName = /dev/nvme0n1"),
            (4, "Exit DataOperator::ExecIoCtl(), ret = 0"),
        ], messages[entry + 1:entry + 5])

    def test_tape_scan_logs_its_one_device_file_and_no_non_rewinding_one(self):
        self.assert_logs("tape-trace", [
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
        detected = [text for _, text in self.messages("tape-trace") if "detect file" in text]
        self.assertEqual(["DataProxy::ScanDeviceFiles() detect file : st0"], detected)

    def test_an_ordinary_user_learns_that_the_devices_may_not_be_opened(self):
        self.assert_inventory("ordinary-user", OK, [], exit_status=3)
        lines = self.stderr("ordinary-user").splitlines()
        self.assertEqual(1, len(lines), lines)
        self.assertIn("privilege", lines[0])
