"""Devices that give no record, each for a reason of its own, which has to be named."""

from labkit.topology import NONE, OK, Topology, empty_disk, qemu_device

# Standard error of a table, and the same in JSON.
OFFLINE = 'out of service: the kernel has set it "offline"'
BUSY = "in use by another program"
REFUSED = "the kernel keeps a command that is needed here from this user"
NO_DRIVER = "the tape drive at 1:0:0:0 lacks a driver: modprobe st"

ENXIO, EACCES, EBUSY = 6, 13, 16

AS_GUEST = "start-stop-daemon -S -c guest:guest -x /usr/bin/zddevices --"
AS_MEMBER = "start-stop-daemon -S -c guest:disk -x /usr/bin/zddevices --"

# Who opens a drive without a tape waits for one for two minutes, and the drive is his meanwhile.
IN_USE = {"before": "cat /dev/nst0 >/dev/null 2>&1 & sleep 2", "after": "kill $!; wait 2>/dev/null"}


def both(name, command, before="", after=""):
    """The table and the document of one command, as two steps."""
    return {f"{name}-table": f"{before}\n{command}\nstatus=$?\n{after}\nexit $status",
            name: f"{before}\n{command} --format json\nstatus=$?\n{after}\nexit $status"}


class Missing(Topology):
    name = "missing"
    about = "devices that are offline, busy, denied, refused or without a driver"

    # Two virtio-scsi disks on host 0, an NVMe disk, and a tape drive on host 1.
    setup = """
        modprobe sg; modprobe sd_mod; modprobe st
        modprobe virtio_scsi; appear /dev/sda /dev/sdb /dev/sg1
        modprobe nvme; appear /dev/nvme0n1
        modprobe scsi_debug ptype=1 inq_vendor=LABTAPE inq_product='Streamer 6' inq_rev=T104
        appear /dev/st0 /dev/nst0a /dev/sg2
    """

    steps = {
        "addresses": "addresses",
        **both("well", "zddevices"),
        "go-offline": "echo offline >/sys/class/scsi_device/0:0:1:0/device/state",
        **both("offline", "zddevices"),
        **both("offline-disks", "zddevices --type disk"),
        **both("offline-doctor", "zddevices doctor"),
        # As the doctor has it.
        "come-back": "echo running > /sys/class/scsi_device/0:0:1:0/device/state",
        "back": "zddevices --format json",
        **both("busy", "zddevices --type tape", **IN_USE),
        **both("busy-whole", "zddevices", **IN_USE),
        "closed": "chmod 666 /dev/s[dgt]* /dev/nst* /dev/nvme*; chmod 600 /dev/sda",
        **both("denied", f"{AS_GUEST} --type disk"),
        "grouped": "chgrp disk /dev/sda /dev/sdb /dev/nvme0n1; chmod 660 /dev/sda /dev/sdb /dev/nvme0n1",
        **both("guest", f"{AS_GUEST} --type disk"),
        **both("member", f"{AS_MEMBER} --type disk"),
        "take-st": "rmmod st",
        **both("no-st", "zddevices --type tape"),
        **both("no-st-whole", "zddevices"),
        **both("no-st-doctor", "zddevices doctor"),
        # As root's cron may start it: modprobe is not in its PATH, and nobody waits for children. Without st and sg
        # the tape is there only if the program loads sg all the same.
        **both("cron", "zddevices", before="rmmod sg; trap '' CHLD; PATH=/usr/bin:/bin; command -v modprobe && exit 9"),
        "sg-there": "ls -d /sys/module/sg",
        "kernel": "dmesg",
    }

    @classmethod
    def qemu_arguments(cls):
        hardware = qemu_device("virtio-scsi-pci", id="scsi")
        for target in (1, 2):
            hardware += empty_disk(f"disk{target}")
            hardware += qemu_device("scsi-hd", bus="scsi.0", drive=f"disk{target}", channel=0, scsi_id=target, lun=0,
                                    vendor="HALVARD", product=f"HX {target}", ver="0102", serial=f"HX-0000{target}")
        return [*hardware, *empty_disk("flash"), *qemu_device("nvme", drive="flash", serial="NV-5510-A")]

    def files_at(self, address):
        """The device files of an address, disk's and sg's, as paths in natural order."""
        return sorted("/dev/" + file for file, where in
                      (line.split() for line in self.stdout("addresses").splitlines())
                      if where == address and file.startswith(("sd", "sg")))

    def assert_answer(self, step, products, missing, lines=None, library=OK):
        """Table, standard error, document and exit code: what is listed, and what is named in its place.

        `missing` is a list of (device file, reason, errno, message); `lines` what standard error says of them where
        that is not the file and its message; `library` what the library answered.
        """
        status = 3 if missing else 0
        if lines is None:
            lines = [f"{file}: {message}" for file, _, _, message in missing]
        for each in step, f"{step}-table":
            self.assertEqual([f"zddevices: {line}" for line in lines], self.stderr(each).splitlines(), each)
        self.assertEqual(status, self.results[f"{step}-table"].status)
        document = self.inventory(step, status)
        self.assertEqual((library, not missing), (document["status"], document["complete"]))
        self.assertEqual([{"device_file": file, "reason": reason, "errno": errno, "message": message}
                          for file, reason, errno, message in missing], document["unanswered"])
        self.assertEqual(sorted(products), sorted(one["product"].strip() for one in document["devices"]))
        table = self.stdout(f"{step}-table")
        rows = table.splitlines()[1:] if products else []
        self.assertEqual(len(products), len(rows), table)
        for product in products:
            self.assertEqual(1, sum(product in row for row in rows), table)

    def test_while_all_is_well_every_device_is_listed(self):
        for step in "well", "back":
            document = self.inventory(step)
            self.assertEqual([], document["unanswered"])
            self.assertEqual(["HX 1", "HX 2", "QEMU NVMe Ctrl", "Streamer 6"],
                             sorted(one["product"].strip() for one in document["devices"]))
        self.assert_answer("well", ["HX 1", "HX 2", "QEMU NVMe Ctrl", "Streamer 6"], [])

    def test_a_disk_that_is_offline_is_named_with_its_state(self):
        disk, generic = self.files_at("0:0:1:0")
        self.assert_answer("offline", ["HX 2", "QEMU NVMe Ctrl", "Streamer 6"],
                           [(disk, "offline", ENXIO, OFFLINE), (generic, "offline", ENXIO, OFFLINE)])
        self.assert_answer("offline-disks", ["HX 2", "QEMU NVMe Ctrl"], [(disk, "offline", ENXIO, OFFLINE)])

    def test_doctor_advises_to_bring_it_back_and_that_works(self):
        disk, generic = self.files_at("0:0:1:0")
        document, files = self.diagnosis("offline-doctor", exit_status=3)
        self.assertEqual(("offline", "offline"), (files["disk"][disk]["visibility"], files["disk"][disk]["state"]))
        self.assertEqual([f"2 device files ({generic}, {disk}) are out of service: look at the kernel's messages "
                          "(dmesg), at cables and power. When the device answers again, run as root: "
                          + self.steps["come-back"]], document["advice"])
        self.assertEqual(3, self.results["offline-doctor-table"].status)
        self.assertIn(f"  {disk}  NOT VISIBLE: {OFFLINE}\n", self.stdout("offline-doctor-table"))

    def test_a_tape_in_use_is_named(self):
        self.assert_answer("busy", [], [("/dev/st0", "busy", EBUSY, BUSY)])
        self.assertEqual("Nothing was found.\n", self.stdout("busy-table"))

    def test_the_whole_list_shows_a_tape_in_use_by_its_generic_node(self):
        self.assert_answer("busy-whole", ["HX 1", "HX 2", "QEMU NVMe Ctrl", "Streamer 6"],
                           [("/dev/st0", "busy", EBUSY, BUSY)])

    def test_an_ordinary_user_is_told_which_node_is_denied_and_which_command_is_refused(self):
        listed = [product for product in ("HX 1", "HX 2") if product != self.product_of("/dev/sda")]
        listed, refused = self.with_nvme(listed)
        self.assert_answer("denied", listed, [*refused, ("/dev/sda", "denied", EACCES, "only root may open it")],
                           [*(f"{file}: {message}" for file, _, _, message in refused),
                            "1 device file could not be opened for lack of privilege (/dev/sda); run zddevices as root"])

    def with_nvme(self, products):
        """What an ordinary user who may open the NVMe disk is told of it, beside these products."""
        if self.nvme_identifies_itself_to_all():
            return [*products, "QEMU NVMe Ctrl"], []
        return products, [("/dev/nvme0n1", "refused", EACCES, REFUSED)]

    def product_of(self, file):
        return "HX 1" if file in self.files_at("0:0:1:0") else "HX 2"

    def test_an_ordinary_user_is_told_which_group_may_open_the_nodes(self):
        files = ["/dev/nvme0n1", "/dev/sda", "/dev/sdb"]
        self.assert_answer("guest", [], [(file, "denied", EACCES, "root and the group disk may open it")
                                         for file in files],
                           [f"3 device files could not be opened for lack of privilege ({', '.join(files)}); "
                            "run zddevices as root, or join the group disk"])

    def test_where_membership_of_the_group_is_not_enough_for_nvme_that_is_said(self):
        self.assert_answer("member", *self.with_nvme(["HX 1", "HX 2"]))

    def test_a_tape_without_its_driver_is_named_with_the_module_that_helps(self):
        self.assert_answer("no-st", [], [("/dev/sg2", "no_driver", None, NO_DRIVER)], library=NONE)

    def test_the_whole_list_shows_a_tape_without_its_driver_by_its_generic_node(self):
        self.assert_answer("no-st-whole", ["HX 1", "HX 2", "QEMU NVMe Ctrl", "Streamer 6"], [])
        tape, = (one for one in self.inventory("no-st-whole")["devices"] if one["product"] == "Streamer 6")
        self.assertEqual("sg2", tape["device"])

    def test_doctor_names_the_driver_that_is_missing(self):
        document, _ = self.diagnosis("no-st-doctor", exit_status=3)
        self.assertEqual([f"/dev/sg2: {NO_DRIVER}."], document["advice"])
        self.assertEqual([{"device_file": "/dev/sg2", "reason": "no_driver", "errno": None, "message": NO_DRIVER}],
                         document["without_file"])
        self.assertEqual(3, self.results["no-st-doctor-table"].status)
        self.assertIn(f"- /dev/sg2: {NO_DRIVER}.\n", self.stdout("no-st-doctor-table"))

    def test_a_path_without_sbin_and_children_that_nobody_waits_for_are_mended(self):
        self.assert_answer("cron", ["HX 1", "HX 2", "QEMU NVMe Ctrl", "Streamer 6"], [])
        self.assertEqual("/sys/module/sg\n", self.stdout("sg-there"))

    def test_the_kernel_reports_no_crash(self):
        self.assertNotRegex(self.stdout("kernel"), r"segfault|general protection|BUG:|Oops")
