"""A disk that swallows every command.

Who asks it cannot be ended before the kernel gives up, and must not be waited for.
"""

import os
import re

from labkit.topology import DISK, OPTICAL, Topology, device_record, empty_disk, qemu_device, timed

# The adapters: 0 virtio-scsi, 1 scsi_debug, which numbers its units 2000 * (host + 1) + 1000 * target + LUN.
DVD = device_record("QEMU", "QEMU CD-ROM", OPTICAL, None, "1.07", (0, 0, 1, 0))
PLAIN = device_record("HALVARD", "HX 900", DISK, "HX-00017", "0102", (0, 0, 2, 0))
SILENT = device_record("Linux", "scsi_debug", DISK, "4000", "0191", (1, 0, 0, 0))

LIMIT = 5
NO_ANSWER = f"no answer within {LIMIT} s"


class Hang(Topology):
    name = "hang"
    about = "a disk that swallows every command, beside a disk and an optical drive that answer"
    time_limit = 390

    setup = """
        modprobe sg; modprobe sd_mod; modprobe sr_mod
        modprobe virtio_scsi; appear /dev/sr0 /dev/sda /dev/sg1
        modprobe scsi_debug; appear /dev/sdb /dev/sg2
    """

    # Each that is left behind keeps the adapter busy: the next one hangs as well, whichever command the kernel is at.
    steps = {
        "well": "zddevices --format json",
        "well-limited": "zddevices --timeout 300 --format json",
        "well-table": "zddevices",
        "well-limited-table": "zddevices --timeout 300",
        "trouble": """
            echo 4 >/sys/bus/pseudo/drivers/scsi_debug/opts
            echo 1 >/sys/bus/pseudo/drivers/scsi_debug/every_nth
        """,
        "limited": timed(f"zddevices --timeout {LIMIT} --format json"),
        "left-behind": """
            for process in /proc/[0-9]*; do
                [ "$(cat $process/comm 2>/dev/null)" != zddevices ] || cut -d ' ' -f 3 $process/stat
            done
        """,
        "limited-times": "cat /tmp/times",
        # cat ends when nobody holds the pipe any more.
        "piped": timed(f"zddevices --timeout {LIMIT} --type disk 2>&1 | cat"),
        "piped-times": "cat /tmp/times",
        "firmware": f"zddevices firmware --timeout {LIMIT} --format json",
        "doctor": timed(f"zddevices doctor --timeout {LIMIT} --format json"),
        "doctor-times": "cat /tmp/times",
        "optical": f"zddevices optical --timeout {LIMIT} --format json",
        "recovery": """
            echo 0 >/sys/bus/pseudo/drivers/scsi_debug/every_nth
            echo 0 >/sys/bus/pseudo/drivers/scsi_debug/opts
            tenths=0
            while [ "$(grep -lx zddevices /proc/[0-9]*/comm 2>/dev/null)" != "" ] && [ "$tenths" -lt 3000 ]; do
                sleep 0.1
                tenths=$((tenths + 1))
            done
            grep -lx zddevices /proc/[0-9]*/comm
            cat /sys/class/scsi_device/1:0:0:0/device/state
        """,
        "after": "zddevices --timeout 300 --format json",
        "kernel": "dmesg",
    }

    @classmethod
    def qemu_arguments(cls):
        return [
            # The guest's clock counts instructions and jumps over waits: how long something takes does not depend on
            # this host.
            "-icount", "shift=0,sleep=off",
            *qemu_device("virtio-scsi-pci", id="scsi"),
            *empty_disk("disc", read_only=True),
            *qemu_device("scsi-cd", bus="scsi.0", drive="disc", channel=0, scsi_id=1, lun=0, ver="1.07"),
            *empty_disk("plain"),
            *qemu_device("scsi-hd", bus="scsi.0", drive="plain", channel=0, scsi_id=2, lun=0,
                         vendor="HALVARD", product="HX 900", ver="0102", serial="HX-00017"),
        ]

    @classmethod
    def setUpClass(cls):
        os.environ["ZENDRA_LAB_ACCEL"] = "tcg"
        super().setUpClass()

    def assert_seconds(self, step):
        begin, end = map(float, self.stdout(step).split())
        self.assertGreaterEqual(end - begin, LIMIT)
        self.assertLessEqual(end - begin, LIMIT + 1)

    def assert_unanswered(self, document, *files):
        self.assertIs(False, document["complete"])
        self.assertEqual([{"device_file": file, "reason": "no_answer_in_time", "errno": None, "message": NO_ANSWER}
                          for file in files], document["unanswered"])

    def test_a_limit_that_is_not_reached_changes_nothing(self):
        self.assert_rows("well", [PLAIN, SILENT, DVD])
        self.assert_rows("well-limited", [PLAIN, SILENT, DVD])
        self.assertIs(True, self.inventory("well-limited")["complete"])
        self.assertEqual(self.stdout("well-table"), self.stdout("well-limited-table"))

    def test_a_disk_that_hangs_costs_its_own_row_and_no_more_than_the_limit(self):
        self.assert_rows("limited", [PLAIN, DVD], exit_status=3)
        self.assert_unanswered(self.inventory("limited", exit_status=3), "/dev/sdb", "/dev/sg2")
        self.assert_seconds("limited-times")

    def test_doctor_asks_all_files_within_one_limit(self):
        document, files = self.diagnosis("doctor", exit_status=3)
        self.assertEqual(LIMIT, document["time_limit_seconds"])
        self.assertEqual({"/dev/sg2", "/dev/sdb"}, {path for found in files.values() for path, file in found.items()
                                                    if file["visibility"] == "no_answer_in_time"})
        self.assertEqual({"visible"}, {file["visibility"] for found in files.values() for path, file in found.items()
                                       if path not in ("/dev/sg2", "/dev/sdb")})
        self.assert_seconds("doctor-times")

    def test_the_device_files_that_hang_are_named(self):
        self.assertEqual(f"zddevices: /dev/sdb: {NO_ANSWER}\nzddevices: /dev/sg2: {NO_ANSWER}\n",
                         self.stderr("limited"))

    def test_who_cannot_be_ended_is_left_behind(self):
        # The generic driver lets go of who is killed, the disk driver does not.
        self.assertEqual(["D"], self.stdout("left-behind").split())

    def test_who_reads_from_a_pipe_does_not_wait_for_those_left_behind(self):
        # The two streams are one pipe here.
        heading, row, message = self.stdout("piped").splitlines()
        self.assertEqual(("DEVICE", "sda"), (heading.split()[0], row.split()[0]))
        self.assertEqual(f"zddevices: /dev/sdb: {NO_ANSWER}", message)
        self.assert_seconds("piped-times")

    def test_subcommands_keep_the_limit_too(self):
        document = self.inventory("firmware", exit_status=3)
        self.assertEqual(["HX 900"], [identity["SoftwareID"] for identity in document["identities"]])
        self.assert_unanswered(document, "/dev/sdb")
        self.assertIs(True, self.inventory("optical")["complete"])

    def test_those_left_behind_go_when_the_kernel_gives_up(self):
        self.assertEqual(["running"], self.stdout("recovery").split())
        self.assert_rows("after", [PLAIN, SILENT, DVD])

    def test_the_kernel_reports_no_crash(self):
        self.assertFalse(re.search(r"segfault|general protection|BUG:|Oops", self.stdout("kernel")))
