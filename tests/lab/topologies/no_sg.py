"""The devices of "one of each" and one disk more, on a kernel that has no generic SCSI driver."""

from labkit.topology import (DISK, INVENTORY_STEPS, NO_ADDRESS, OK, ZEROS, Topology, device_record, empty_disk,
                             qemu_device)

from . import one_of_each


def generic_record(vendor, product, serial, revision, address):
    """An ATA disk as its identity alone shows it: no type and no address."""
    return device_record(vendor, product, None, serial, revision, address)


class NoSg(Topology):
    name = "no-sg"
    about = "one of each without the sg module: the generic class goes through /dev/sd*"

    without_modules = ("sg",)

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
        "rows": "zddevices --format json",
    }

    @classmethod
    def qemu_arguments(cls):
        return [
            *one_of_each.qemu_arguments(),
            *empty_disk("word"),
            *qemu_device("ide-hd", bus="ahci.4", drive="word", model="MONOLITH", serial="M1", ver="0.9"),
        ]

    # The model's first word is taken for the vendor, the second for the product; one disk has no second. The
    # revision is the kernel's: the last four characters of the drive's eight, and the first four where those are blank.
    def seaview(self, address):
        return generic_record("SEAVIEW", "ST4000X", "ZC1 8LQ 0042        ", "CD34", address)

    def monolith(self, address):
        return generic_record("MONOLITH", None, f"{'M1':20}", "0.9 ", address)

    MONOLITH_DISK = device_record("ATA", "MONOLITH", DISK, f"{'M1':20}", "0.9", (4, 0, 0, 0))

    def flash_record(self, address):
        return one_of_each.flash_record(self.stdout("nvme-revision").rstrip(), address)

    def disks(self):
        """(kernel's address, file) of the /dev/sd* files in directory order."""
        address = dict(line.split() for line in self.stdout("addresses").splitlines())
        return [(address[file], file) for file in self.device_files("sd")]

    def generic_records(self, addresses):
        # Only ATA disks answer the command; of the virtio-scsi disks nothing is listed.
        known = {"1:0:0:0": self.seaview, "4:0:0:0": self.monolith}
        answering = [known[address] for address, _ in self.disks() if address in known]
        self.assertEqual(2, len(answering))
        return [record(address) for record, address in zip(answering, addresses)]

    def test_the_module_is_not_there(self):
        self.assertNotEqual(0, self.results["modprobe"].status)
        self.assertEqual([], self.device_files("sg"))

    def test_a_row_of_an_ata_disk_has_the_texts_of_the_disk_class(self):
        rows = {row["device"]: row for row in self.inventory("rows")["devices"]}
        for address, file in self.disks():
            if address in ("1:0:0:0", "4:0:0:0"):
                self.assertEqual(("ATA", DISK), (rows[file]["vendor"], rows[file]["device_type"]))
                self.assertEqual("SEAVIEW ST4000X" if address == "1:0:0:0" else "MONOLITH", rows[file]["model"])

    def test_generic_class_lists_the_ata_disks_through_their_disk_files(self):
        self.assert_inventory("scsi", OK, self.generic_records((ZEROS, ZEROS)))

    def test_tape_and_optical_scans_need_no_generic_driver(self):
        self.assert_inventory("tape", OK, [one_of_each.STREAMER])
        self.assert_inventory("optical", OK, [one_of_each.DVD])

    def test_disk_scan_needs_no_generic_driver(self):
        self.assert_inventory("disk", OK, [
            *self.in_directory_order("sd", {(1, 0, 0, 0): one_of_each.ATA_DISK, (4, 0, 0, 0): self.MONOLITH_DISK,
                                            (6, 0, 0, 0): one_of_each.PLAIN, (6, 0, 3, 0): one_of_each.RAID}),
            self.flash_record(ZEROS)])

    def test_merged_list_holds_ata_disks_twice_once_without_address(self):
        first, second = self.generic_records((NO_ADDRESS, NO_ADDRESS))
        # The devices without address are counted in the order of the scans: the generic class's two, then NVMe.
        self.assert_inventory("merged", OK, [
            one_of_each.ATA_DISK,  # Port:1|Target:0|Bus:0|Lun:0
            first,  # Port:1|Target:1|Bus:1|Lun:1
            one_of_each.DVD,  # Port:2|Target:0|Bus:0|Lun:0
            second,  # Port:2|Target:2|Bus:2|Lun:2
            self.flash_record(NO_ADDRESS),  # Port:3|Target:3|Bus:3|Lun:3
            self.MONOLITH_DISK,  # Port:4|Target:0|Bus:0|Lun:0
            one_of_each.PLAIN, one_of_each.RAID, one_of_each.STREAMER])

    def test_generic_class_logs_the_status_of_each_file(self):
        expected = [
            (4, "Entry constructure DataProxy() sg_ko_loaded = 0"),
            (4, "Entry SCSIProxy::SCSIProxy()"),
            (4, "Entry DataProxy::GetDeviceList()"),
            (4, "Entry  DataProxy::ScanDeviceFiles() "),
            *((4, f"DataProxy::ScanDeviceFiles() detect file : {file}") for _, file in self.disks()),
            (4, "Exit  DataProxy::ScanDeviceFiles() "),
        ]
        for address, file in self.disks():
            is_ata = address in ("1:0:0:0", "4:0:0:0")
            expected += [
                (4, "Entry SCSIProxy::GetDeviceInfo()"),
                (4, "Entry  GetDriverData() "),
                (4, f"Enter DataOperator::OpenDriveFile() driveName = /dev/{file}"),
                (4, f"Exit DataOperator::ExecIoCtl(), ret = {0 if is_ata else -1}"),
                (4, "Get HDIO_DRIVE_CMD|HDIO_DRIVE_TASK Inquiry passed.. otherIdentInfo = "
                    f"{'Port:0|Target:0|Bus:0|Lun:0' if is_ata else ''}"),
                (4, "Entry  GetDriverData() "),
                (1, f"Fail in get firmware version from /sys/block/{file}/device/firmware_rev."),
                (4, f"GetDriverData() ret = {4 if is_ata else 5}"),
            ]
        expected += [(4, "Entry SCSIProxy::~SCSIProxy()"), (4, "Entry destructure ~DataProxy() ")]
        self.assert_logs("trace", expected)
        self.assertIn((4, f"{'SEAVIEW ST4000X':40}"), self.messages("trace"))

    def test_doctor_says_that_the_driver_is_missing_and_what_follows(self):
        document, files = self.diagnosis("doctor")
        self.assertEqual({"loaded": False, "modprobe_finds_it": False, "may_be_loaded": True, "used": False},
                         document["sg_driver"])
        advice, = document["advice"]
        self.assertIn('"modprobe sg" finds none', advice)
        for address, file in self.disks():
            is_ata = address in ("1:0:0:0", "4:0:0:0")
            generic = files["scsi"]["/dev/" + file]
            self.assertEqual("visible" if is_ata else "no_usable_answer", generic["visibility"])
            self.assert_failures(generic, [] if is_ata else [("HDIO_DRIVE_CMD", "EINVAL")])
            self.assertEqual("visible", files["disk"]["/dev/" + file]["visibility"])

    def test_every_disk_lacks_the_revision_file_that_is_looked_for_first(self):
        self.assert_whole_log("failures", [
            (1, f"Fail in get firmware version from /sys/block/{file}/device/firmware_rev.")
            for _, file in self.disks()])
