"""Devices with unusual texts, a range of targets beyond ten, a medium changer, and a disk that goes away."""

from labkit.topology import (CHANGER, DISK, ENCLOSURE, INVENTORY_STEPS, NONE, OK, ZEROS, Topology, device_record,
                             empty_disk, qemu_device)

HOST = 6  # of the virtio-scsi controller, behind the six of the AHCI controller

# What the twelve targets are told to say: vendor, product, revision, serial number (None: they have no such page).
# qemu fills vendor and product with blanks, the revision with zero bytes, and sends a serial number as it is; the
# identifier of another page would be the same, and may not be longer than 20 characters from qemu 9 on.
TOLD = {
    0: ("VENDOR 8", "SIXTEEN  LETTERS", "V  4", "32 characters with  inner blanks"),
    1: ("HALVARD", "HX 33", "0001", "33 characters are one too many..."),
    2: ("HALVARD", "HX 36", "0002", "a page holds no more than thirty-six"),
    3: ("HALVARD", "HX 1", "0003", "7"),
    4: ("HALVARD", "HX 2", "0004", "42"),
    5: ("  LEAD", " LEADING BLANKS", " 5 ", "  A  B  "),
    6: ("HALVARD", "   ", "0006", "BLANK-PRODUCT"),
    7: ("HALVARD", "HX NONE", "0007", None),
    # One byte of Latin-1, which is no UTF-8.
    8: ("CAF\udce9", "HX LATIN", "0008", "LATIN-1"),
    9: ("HALVARD", "HX 9", "0009", "HX-00009"),
    10: ("HALVARD", "HX 10", "0010", "HX-00010"),
    11: ("HALVARD", "HX ATA 11", "0011", "HX-00011"),
}


def disk_record(target, vendor, product, firmware, serial):
    return device_record(vendor, product, DISK, serial, firmware, (HOST, 0, target, 0))


# Vendor and product lose their blanks at both ends, revision and serial number keep theirs. A serial number of more
# than 32 characters is not taken, one of a single character is taken for none.
DISKS = {
    0: disk_record(0, "VENDOR 8", "SIXTEEN  LETTERS", "V  4", "32 characters with  inner blanks"),
    1: disk_record(1, "HALVARD", "HX 33", "0001", None),
    2: disk_record(2, "HALVARD", "HX 36", "0002", None),
    3: disk_record(3, "HALVARD", "HX 1", "0003", None),
    4: disk_record(4, "HALVARD", "HX 2", "0004", "42"),
    5: disk_record(5, "LEAD", "LEADING BLANKS", " 5 ", "  A  B  "),
    # Nothing but blanks has no end to cut at.
    6: disk_record(6, "HALVARD", f"{'':16}", "0006", "BLANK-PRODUCT"),
    7: disk_record(7, "HALVARD", "HX NONE", "0007", None),
    8: disk_record(8, "CAF\ufffd", "HX LATIN", "0008", "LATIN-1"),
    9: disk_record(9, "HALVARD", "HX 9", "0009", "HX-00009"),
    10: disk_record(10, "HALVARD", "HX 10", "0010", "HX-00010"),
    11: disk_record(11, "HALVARD", "HX ATA 11", "0011", "HX-00011"),
}

# In the order of the keys' bytes: a digit stands before the bar that ends a shorter number.
KEY_ORDER = (0, 10, 11, 1, 2, 3, 4, 5, 6, 7, 8, 9)

# On the first port of the first controller: an address of zeros, which counts as none. Texts of full width; the
# serial number begins with a blank.
MODEL = "M40-" + "".join(str(digit % 10) for digit in range(36))
SERIAL = " 20 chars w/ blanks!"
ATA_GENERIC = device_record("ATA", MODEL[:16], DISK, SERIAL, "2 C3", ZEROS)
ATA_DISK = device_record("ATA", MODEL, DISK, SERIAL, "A1B2C3", ZEROS)


def without_address(record):
    return {**record, "port": None, "target": None, "bus": None, "lun": None}


def library_record(type):
    # Neither changers nor enclosures are asked for a serial number.
    return device_record("LABROBOT", "Arm", type, None, "0191", (7, 0, 0, 0))


class Odd(Topology):
    name = "odd"
    about = "inner blanks and full width, twelve targets, a medium changer, a disk that goes away"

    setup = """
        modprobe sg; modprobe sd_mod; modprobe sr_mod; modprobe st
        modprobe ahci; appear /dev/sda /dev/sg0
        modprobe virtio_scsi
        appear /dev/sdb /dev/sdc /dev/sdd /dev/sde /dev/sdf /dev/sdg /dev/sdh /dev/sdi /dev/sdj /dev/sdk /dev/sdl
        appear /dev/sdm /dev/sg12
        modprobe scsi_debug ptype=8 inq_vendor=LABROBOT inq_product=Arm
        appear /dev/sg13
        # A disk's node without a disk, as a careless restore of /dev leaves it: the number is that of a sixteenth.
        mknod /dev/sdzz b 8 240
    """

    steps = {
        **INVENTORY_STEPS,
        "scsi-trace": "zddevices --type scsi --format json --log-level 4",
        "disk-trace": "zddevices --type disk --format json --log-level 4",
        "unplug": f"unplug {HOST}:0:9:0",
        "dev-without-9": INVENTORY_STEPS["dev"],
        "addresses-without-9": "addresses",
        "merged-without-9": INVENTORY_STEPS["merged"],
        "scsi-without-9": INVENTORY_STEPS["scsi"],
        "disk-without-9": INVENTORY_STEPS["disk"],
        "plug-again": f"plug {HOST}:0:9:0",
        "merged-again": INVENTORY_STEPS["merged"],
        "become-enclosure": "echo 13 >/sys/bus/pseudo/drivers/scsi_debug/ptype",
        "merged-enclosure": INVENTORY_STEPS["merged"],
    }

    @classmethod
    def qemu_arguments(cls):
        hardware = [
            *qemu_device("ahci", id="ahci", addr="05.0"),
            *empty_disk("ata"),
            *qemu_device("ide-hd", bus="ahci.0", drive="ata", model=MODEL, serial=SERIAL, ver="A1 B2 C3"),
            *qemu_device("virtio-scsi-pci", id="scsi", addr="06.0"),
        ]
        for target, (vendor, product, revision, serial) in TOLD.items():
            hardware += empty_disk(f"disk{target}")
            hardware += qemu_device("scsi-hd", bus="scsi.0", drive=f"disk{target}", channel=0, scsi_id=target, lun=0,
                                    vendor=vendor, product=product, ver=revision,
                                    **({} if serial is None else {"serial": serial, "device_id": serial[:20]}))
        return hardware

    def generic_records(self, but=()):
        return {(0, 0, 0, 0): ATA_GENERIC, (7, 0, 0, 0): library_record(CHANGER),
                **{(HOST, 0, target, 0): record for target, record in DISKS.items() if target not in but}}

    def disk_records(self, but=()):
        return {(0, 0, 0, 0): ATA_DISK,
                **{(HOST, 0, target, 0): record for target, record in DISKS.items() if target not in but}}

    def merged(self, library, but=()):
        # The ATA disk has no address that counts, so its two records do not meet: Port:1|... and Port:2|...
        return [without_address(ATA_GENERIC), without_address(ATA_DISK),
                *(DISKS[target] for target in KEY_ORDER if target not in but), library]

    def file_at(self, address, prefix):
        for file, where in (line.split() for line in self.stdout("addresses").splitlines()):
            if where == address and file.startswith(prefix):
                return file
        return self.fail(f"the guest has no /dev/{prefix}* at {address}")

    def test_scsi_scan_lists_disks_and_the_changer_in_directory_order(self):
        self.assert_inventory("scsi", OK, self.in_directory_order("sg", self.generic_records()))

    def test_disk_scan_lists_disks_and_no_changer(self):
        self.assert_inventory("disk", OK, self.in_directory_order("sd", self.disk_records()))

    def test_a_medium_changer_is_no_tape(self):
        self.assert_inventory("tape", NONE, [])

    def test_merged_list_stands_in_the_order_of_the_keys_bytes(self):
        self.assert_inventory("merged", OK, self.merged(library_record(CHANGER)))

    def test_an_unplugged_disk_is_gone_from_the_next_scan(self):
        self.assertEqual(0, self.results["unplug"].status, self.stderr("unplug"))
        self.assert_inventory("merged-without-9", OK, self.merged(library_record(CHANGER), but=(9,)))
        self.assert_inventory("scsi-without-9", OK, self.in_directory_order(
            "sg", self.generic_records(but=(9,)), "dev-without-9", "addresses-without-9"))
        self.assert_inventory("disk-without-9", OK, self.in_directory_order(
            "sd", self.disk_records(but=(9,)), "dev-without-9", "addresses-without-9"))

    def test_a_disk_plugged_in_again_takes_its_old_place(self):
        self.assertEqual(0, self.results["plug-again"].status, self.stderr("plug-again"))
        self.assert_inventory("merged-again", OK, self.merged(library_record(CHANGER)))

    def test_every_scan_asks_the_device_anew_for_its_type(self):
        self.assert_inventory("merged-enclosure", OK, self.merged(library_record(ENCLOSURE)))

    def test_serial_numbers_of_an_unusable_length_are_logged(self):
        for address, prefix, message in ((f"{HOST}:0:1:0", "sg", "Size pointer is too large."),
                                         (f"{HOST}:0:3:0", "sg", "Size pointer is too small, size<=1"),
                                         (f"{HOST}:0:0:0", "sg", "Serial Number: 32 characters with  inner blanks")):
            with self.subTest(message):
                self.assertIn((4, message), self.messages_about("scsi-trace", self.file_at(address, prefix)))

    def test_the_sense_of_a_disk_without_serial_page_is_reported(self):
        # Fixed format: 70h, ILLEGAL REQUEST, 10 more bytes, INVALID FIELD IN CDB (24h 00h); then CHECK CONDITION as
        # one raw character, which the program shows as an escape, and the sense flag in the base left behind.
        messages = self.messages_about("scsi-trace", self.file_at(f"{HOST}:0:7:0", "sg"))
        report = (4, "SCSI sense data: 70050000a00002400000")
        self.assertIn(report, messages)
        sense = messages.index(report)
        self.assertEqual([
            (4, "SG SCSI status=\\x02"),
            (4, "SG Driver status=8"),
            (4, "Exit scsiPassThrough::execSCSICommand()."),
            (4, "Size pointer is too small, size<=1"),
        ], messages[sense + 1:sense + 5])

    def test_a_dangling_node_is_passed_over(self):
        messages = self.messages_about("disk-trace", "sdzz")
        self.assertEqual(2, messages.count((4, "DataOperator::ExecIoCtl(/dev/sdzz)  invalid")), messages)
        self.assertIn((4, "Device do not compat with SCSI"), messages)
        self.assertIn((1, "Exit  GetGenericDeviceData()"), messages)

    def messages_about(self, step, file):
        """What the step logged from the first opening of a device file to the end of that device's probe."""
        messages = self.messages(step)
        first = messages.index((4, f"Enter DataOperator::OpenDriveFile() driveName = /dev/{file}"))
        opening = "Enter DataOperator::OpenDriveFile() driveName = /dev/"
        last = first
        while last + 1 < len(messages) and not (messages[last + 1][1].startswith(opening)
                                                and messages[last + 1][1] != opening + file):
            last += 1
        return messages[first:last + 1]
