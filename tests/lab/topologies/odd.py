"""Devices with unusual texts, a range of targets beyond ten, a medium changer, and a disk that goes away."""

from labkit.topology import (CHANGER, DISK, ENCLOSURE, INVENTORY_STEPS, NO_ADDRESS, NONE, OK, ZEROS, Device, EmptyDisk,
                             Record, Topology)

HOST = 6  # of the virtio-scsi controller, behind the six of the AHCI controller

# What the twelve targets are told to say: vendor, product, revision, serial number (None: they have no such page).
# qemu fills vendor and product with blanks, the revision with zero bytes, and sends a serial number as it is.
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


def Disk(target, vendor, product, firmware, serial):
    return Record(vendor, product, DISK, serial, firmware, (HOST, 0, target, 0))


# Vendor and product lose their blanks at both ends, revision and serial number keep theirs. A serial number of more
# than 32 characters is not taken, one of a single character is taken for none.
DISKS = {
    0: Disk(0, "VENDOR 8", "SIXTEEN  LETTERS", "V  4", "32 characters with  inner blanks"),
    1: Disk(1, "HALVARD", "HX 33", "0001", None),
    2: Disk(2, "HALVARD", "HX 36", "0002", None),
    3: Disk(3, "HALVARD", "HX 1", "0003", None),
    4: Disk(4, "HALVARD", "HX 2", "0004", "42"),
    5: Disk(5, "LEAD", "LEADING BLANKS", " 5 ", "  A  B  "),
    # Nothing but blanks has no end to cut at.
    6: Disk(6, "HALVARD", f"{'':16}", "0006", "BLANK-PRODUCT"),
    7: Disk(7, "HALVARD", "HX NONE", "0007", None),
    8: Disk(8, "CAF\ufffd", "HX LATIN", "0008", "LATIN-1"),
    9: Disk(9, "HALVARD", "HX 9", "0009", "HX-00009"),
    10: Disk(10, "HALVARD", "HX 10", "0010", "HX-00010"),
    11: Disk(11, "HALVARD", "HX ATA 11", "0011", "HX-00011"),
}

# In the order of the keys' bytes: a digit stands before the bar that ends a shorter number.
KEY_ORDER = (0, 10, 11, 1, 2, 3, 4, 5, 6, 7, 8, 9)

# On the first port of the first controller: an address of zeros, which counts as none. Texts of full width; the
# serial number begins with a blank.
MODEL = "M40-" + "".join(str(digit % 10) for digit in range(36))
SERIAL = " 20 chars w/ blanks!"
ATA_GENERIC = Record("ATA", MODEL[:16], DISK, SERIAL, "2 C3", ZEROS)
ATA_DISK = Record("ATA", MODEL, DISK, SERIAL, "A1B2C3", ZEROS)


def WithoutAddress(record):
    return {**record, "port": None, "target": None, "bus": None, "lun": None}


def Library(type):
    # Neither changers nor enclosures are asked for a serial number.
    return Record("LABROBOT", "Arm", type, None, "0191", (7, 0, 0, 0))


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
    def Hardware(cls):
        hardware = [
            *Device("ahci", id="ahci", addr="05.0"),
            *EmptyDisk("ata"),
            *Device("ide-hd", bus="ahci.0", drive="ata", model=MODEL, serial=SERIAL, ver="A1 B2 C3"),
            *Device("virtio-scsi-pci", id="scsi", addr="06.0"),
        ]
        for target, (vendor, product, revision, serial) in TOLD.items():
            hardware += EmptyDisk(f"disk{target}")
            hardware += Device("scsi-hd", bus="scsi.0", drive=f"disk{target}", channel=0, scsi_id=target, lun=0,
                               vendor=vendor, product=product, ver=revision,
                               **({} if serial is None else {"serial": serial}))
        return hardware

    def GenericRecords(self, but=()):
        return {(0, 0, 0, 0): ATA_GENERIC, (7, 0, 0, 0): Library(CHANGER),
                **{(HOST, 0, target, 0): record for target, record in DISKS.items() if target not in but}}

    def DiskRecords(self, but=()):
        return {(0, 0, 0, 0): ATA_DISK,
                **{(HOST, 0, target, 0): record for target, record in DISKS.items() if target not in but}}

    def Merged(self, library, but=()):
        # The ATA disk has no address that counts, so its two records do not meet: Port:1|... and Port:2|...
        return [WithoutAddress(ATA_GENERIC), WithoutAddress(ATA_DISK),
                *(DISKS[target] for target in KEY_ORDER if target not in but), library]

    def FileAt(self, address, prefix):
        for file, where in (line.split() for line in self.Stdout("addresses").splitlines()):
            if where == address and file.startswith(prefix):
                return file
        return self.fail(f"the guest has no /dev/{prefix}* at {address}")

    def testScsiScanListsDisksAndTheChangerInDirectoryOrder(self):
        self.AssertInventory("scsi", OK, self.InDirectoryOrder("sg", self.GenericRecords()))

    def testDiskScanListsDisksAndNoChanger(self):
        self.AssertInventory("disk", OK, self.InDirectoryOrder("sd", self.DiskRecords()))

    def testAMediumChangerIsNoTape(self):
        self.AssertInventory("tape", NONE, [])

    def testMergedListStandsInTheOrderOfTheKeysBytes(self):
        self.AssertInventory("merged", OK, self.Merged(Library(CHANGER)))

    def testAnUnpluggedDiskIsGoneFromTheNextScan(self):
        self.assertEqual(0, self.results["unplug"].status, self.Stderr("unplug"))
        self.AssertInventory("merged-without-9", OK, self.Merged(Library(CHANGER), but=(9,)))
        self.AssertInventory("scsi-without-9", OK, self.InDirectoryOrder(
            "sg", self.GenericRecords(but=(9,)), "dev-without-9", "addresses-without-9"))
        self.AssertInventory("disk-without-9", OK, self.InDirectoryOrder(
            "sd", self.DiskRecords(but=(9,)), "dev-without-9", "addresses-without-9"))

    def testADiskPluggedInAgainTakesItsOldPlace(self):
        self.assertEqual(0, self.results["plug-again"].status, self.Stderr("plug-again"))
        self.AssertInventory("merged-again", OK, self.Merged(Library(CHANGER)))

    def testEveryScanAsksTheDeviceAnewForItsType(self):
        self.AssertInventory("merged-enclosure", OK, self.Merged(Library(ENCLOSURE)))

    def testSerialNumbersOfAnUnusableLengthAreLogged(self):
        for address, prefix, message in ((f"{HOST}:0:1:0", "sg", "Size pointer is too large."),
                                         (f"{HOST}:0:3:0", "sg", "Size pointer is too small, size<=1"),
                                         (f"{HOST}:0:0:0", "sg", "Serial Number: 32 characters with  inner blanks")):
            with self.subTest(message):
                self.assertIn((4, message), self.MessagesAbout("scsi-trace", self.FileAt(address, prefix)))

    def testTheSenseOfADiskWithoutSerialPageIsReported(self):
        # Fixed format: 70h, ILLEGAL REQUEST, 10 more bytes, INVALID FIELD IN CDB (24h 00h); then CHECK CONDITION as
        # one raw character, which the program shows as an escape, and the sense flag in the base left behind.
        messages = self.MessagesAbout("scsi-trace", self.FileAt(f"{HOST}:0:7:0", "sg"))
        report = (4, "SCSI sense data: 70050000a00002400000")
        self.assertIn(report, messages)
        sense = messages.index(report)
        self.assertEqual([
            (4, "SG SCSI status=\\x02"),
            (4, "SG Driver status=8"),
            (4, "Exit scsiPassThrough::execSCSICommand()."),
            (4, "Size pointer is too small, size<=1"),
        ], messages[sense + 1:sense + 5])

    def testADanglingNodeIsPassedOver(self):
        messages = self.MessagesAbout("disk-trace", "sdzz")
        self.assertEqual(2, messages.count((4, "DataOperator::ExecIoCtl(/dev/sdzz)  invalid")), messages)
        self.assertIn((4, "Device do not compat with SCSI"), messages)
        self.assertIn((1, "Exit  GetGenericDeviceData()"), messages)

    def MessagesAbout(self, step, file):
        """What the step logged from the first opening of a device file to the end of that device's probe."""
        messages = self.Messages(step)
        first = messages.index((4, f"Enter DataOperator::OpenDriveFile() driveName = /dev/{file}"))
        opening = "Enter DataOperator::OpenDriveFile() driveName = /dev/"
        last = first
        while last + 1 < len(messages) and not (messages[last + 1][1].startswith(opening)
                                                and messages[last + 1][1] != opening + file):
            last += 1
        return messages[first:last + 1]
