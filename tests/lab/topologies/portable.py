"""What every processor has: one expected result for all of them, byte order and width of a word notwithstanding."""

from labkit.topology import (CHANGER, DISK, INVENTORY_STEPS, OK, OPTICAL, OPTICAL_ROWS, TAPE, Topology,
                             device_record, empty_disk, identity_record, qemu_device)

PLAIN = device_record("HALVARD", "HX 900", DISK, "HX-00017", "0102", (0, 0, 1, 0))
RAID = device_record("HALVARD", "RAID 5 Volume", DISK, "VOL000000003", "7.20", (0, 0, 3, 0))
# Serial numbers are asked of disks and tapes only.
DVD = device_record("QEMU", "QEMU CD-ROM", OPTICAL, None, "1.07", (0, 0, 5, 0))
# labTarget's devices. Target 1, because that is the number of the portal group.
STREAMER = device_record("LABUSER", "Streamer 6", TAPE, "TAPE-0006", "0007", (1, 0, 1, 0))
ARM = device_record("LABUSER", "Arm", CHANGER, None, "0007", (2, 0, 1, 0))
SERVED = ((STREAMER, 1, "TAPE-0006"), (ARM, 8, "ARM-0001"))


def serve(record, scsi_type, serial):
    """Shell text that makes a device of the kernel's user-space backstore on an adapter of its own."""
    number, name = f"{record['port']:02d}", f"device{record['port']}"
    return f"""
        echo well >/tmp/{name}
        mkdir -p $core/user_{number}/{name}
        printf 'dev_config=lab/{name},dev_size=1048576' >$core/user_{number}/{name}/control
        echo 1 >$core/user_{number}/{name}/enable
        labTarget {name} '{record['product']}' {serial} /tmp/{name} {scsi_type} >/dev/console 2>&1 &
        mkdir -p $loopback/naa.50000000000000{number}/tpgt_1/lun/lun_0
        printf naa.60000000000000{number} >$loopback/naa.50000000000000{number}/tpgt_1/nexus
        ln -s $core/user_{number}/{name} $loopback/naa.50000000000000{number}/tpgt_1/lun/lun_0/{name}
        appear /sys/class/scsi_device/{record['port']}:0:1:0/device/scsi_generic
    """


class Portable(Topology):
    name = "portable"
    about = "two virtio-scsi disks, an optical drive, a tape drive and a medium changer, on any processor"
    architectures = ("amd64", "arm64", "s390x")
    modules = ("target_core_user", "tcm_loop", "configfs")
    built_programs = ("labTarget",)

    setup = f"""
        modprobe sg; modprobe sd_mod; modprobe sr_mod; modprobe st
        modprobe virtio_scsi; appear /dev/sda /dev/sdb /dev/sr0 /dev/sg2
        modprobe configfs
        mount -t configfs configfs /sys/kernel/config
        modprobe target_core_user; modprobe tcm_loop
        core=/sys/kernel/config/target/core
        loopback=/sys/kernel/config/target/loopback
        mkdir -p $loopback
        {"".join(serve(*device) for device in SERVED)}
        appear /dev/nst0 /dev/sg4
    """

    steps = {
        **INVENTORY_STEPS,
        "machine": "uname -m",
        "cdrom": "cat /proc/sys/dev/cdrom/info",
        "optical-record": "zddevices optical --format json",
        "firmware": "zddevices firmware --format json",
        "table": "zddevices",
        "doctor": "zddevices doctor --format json --timeout 300",
        "scsi-failures": "zddevices --type scsi --format json --log-level 1",
    }

    @classmethod
    def qemu_arguments(cls):
        return [
            *qemu_device(f"virtio-scsi-{cls.machine().bus}", id="scsi"),
            *empty_disk("plain"),
            *qemu_device("scsi-hd", bus="scsi.0", drive="plain", channel=0, scsi_id=1, lun=0,
                         vendor="HALVARD", product="HX 900", ver="0102", serial="HX-00017"),
            *empty_disk("raid"),
            *qemu_device("scsi-hd", bus="scsi.0", drive="raid", channel=0, scsi_id=3, lun=0,
                         vendor="HALVARD", product="RAID 5 Volume", ver="7.20", serial="VOL000000003"),
            *empty_disk("disc", read_only=True),
            *qemu_device("scsi-cd", bus="scsi.0", drive="disc", channel=0, scsi_id=5, lun=0, ver="1.07"),
        ]

    def test_the_guest_is_the_machine_that_was_asked_for(self):
        self.assertEqual({"amd64": "x86_64", "arm64": "aarch64", "s390x": "s390x"}[self.machine().name],
                         self.stdout("machine").strip())

    def test_tape_scan_lists_the_tape(self):
        self.assert_inventory("tape", OK, [STREAMER])

    def test_scsi_scan_lists_every_generic_device(self):
        self.assert_inventory("scsi", OK, self.in_directory_order("sg", {
            (0, 0, 1, 0): PLAIN, (0, 0, 3, 0): RAID, (0, 0, 5, 0): DVD, (1, 0, 1, 0): STREAMER, (2, 0, 1, 0): ARM}))

    def test_disk_scan_lists_the_disks(self):
        self.assert_inventory("disk", OK, self.in_directory_order("sd", {(0, 0, 1, 0): PLAIN, (0, 0, 3, 0): RAID}))

    def test_optical_scan_lists_the_drive(self):
        self.assert_inventory("optical", OK, [DVD])

    def test_merged_list_holds_each_device_once_in_key_order(self):
        self.assert_inventory("merged", OK, [PLAIN, RAID, DVD, STREAMER, ARM])

    def test_optical_record_follows_the_kernels_table(self):
        table = self.optical_table()
        self.assertEqual(["sr0"], table["drive name"])
        document = self.inventory("optical-record")
        self.assertEqual(OK, document["status"])
        self.assertEqual([{
            "drive_name": "/dev/sr0", "vendor": "QEMU", "product": "QEMU CD-ROM",
            **{field: "Yes" if table.get(row) == ["1"] else "No" for field, row in OPTICAL_ROWS.items()},
        }], document["drives"])

    def test_firmware_leaves_out_the_disk_whose_product_holds_raid(self):
        self.assert_firmware("firmware", [identity_record("HX 900", "0102", "HX-00017")])

    def test_table_shows_each_device_once(self):
        self.assertEqual(0, self.results["table"].status)
        self.assertEqual(["DEVICE", "sda", "sdb", "sg4", "sr0", "st0"],
                         [line.split()[0] for line in self.stdout("table").splitlines()])

    def test_doctor_sees_every_device(self):
        document, files = self.diagnosis("doctor")
        self.assertEqual([], document["advice"])
        self.assertEqual({"tape": ["/dev/st0"], "scsi": [f"/dev/sg{number}" for number in range(5)],
                          "disk": ["/dev/sda", "/dev/sdb"], "optical": ["/dev/sr0"]},
                         {word: list(found) for word, found in files.items()})

    def test_no_request_fails(self):
        self.assert_whole_log("scsi-failures", [])
