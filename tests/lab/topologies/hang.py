"""A disk that swallows every command: who asks it cannot be ended before the kernel gives up, and must not be waited for."""

import os
import re

from labkit.topology import DISK, OK, OPTICAL, Device, EmptyDisk, Record, Timed, Topology

# The adapters: 0 virtio-scsi, 1 scsi_debug, which numbers its units 2000 * (host + 1) + 1000 * target + LUN.
DVD = Record("QEMU", "QEMU CD-ROM", OPTICAL, None, "1.07", (0, 0, 1, 0))
PLAIN = Record("HALVARD", "HX 900", DISK, "HX-00017", "0102", (0, 0, 2, 0))
SILENT = Record("Linux", "scsi_debug", DISK, "4000", "0191", (1, 0, 0, 0))

LIMIT = 3
# What the library grants a command; the kernel's attempts to bring the disk back come on top.
COMMAND_LIMIT = 20


class Hang(Topology):
    name = "hang"
    about = "a disk that swallows every command, beside a disk and an optical drive that answer"
    timeLimit = 390

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
        "limited": Timed(f"zddevices --timeout {LIMIT} --format json"),
        "left-behind": """
            for process in /proc/[0-9]*; do
                [ "$(cat $process/comm 2>/dev/null)" != zddevices ] || cut -d ' ' -f 3 $process/stat
            done
        """,
        "limited-times": "cat /tmp/times",
        # cat ends when nobody holds the pipe any more.
        "piped": Timed(f"zddevices --timeout {LIMIT} --type disk 2>&1 | cat"),
        "piped-times": "cat /tmp/times",
        "firmware": f"zddevices firmware --timeout {LIMIT} --format json",
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
    def Hardware(cls):
        return [
            # The guest's clock counts instructions and jumps over waits: how long something takes does not depend on
            # this host.
            "-icount", "shift=0,sleep=off",
            *Device("virtio-scsi-pci", id="scsi"),
            *EmptyDisk("disc", readOnly=True),
            *Device("scsi-cd", bus="scsi.0", drive="disc", channel=0, scsi_id=1, lun=0, ver="1.07"),
            *EmptyDisk("plain"),
            *Device("scsi-hd", bus="scsi.0", drive="plain", channel=0, scsi_id=2, lun=0,
                    vendor="HALVARD", product="HX 900", ver="0102", serial="HX-00017"),
        ]

    @classmethod
    def setUpClass(cls):
        os.environ["ZENDRA_LAB_ACCEL"] = "tcg"
        super().setUpClass()

    def AssertSeconds(self, step):
        begin, end = map(float, self.Stdout(step).split())
        self.assertGreaterEqual(end - begin, LIMIT)
        self.assertLess(end - begin, COMMAND_LIMIT)

    def testALimitThatIsNotReachedChangesNothing(self):
        self.AssertInventory("well", OK, [DVD, PLAIN, SILENT])
        self.AssertInventory("well-limited", OK, [DVD, PLAIN, SILENT])
        self.assertIs(True, self.Inventory("well-limited")["complete"])
        self.assertEqual(self.Stdout("well-table"), self.Stdout("well-limited-table"))

    def testTheClassesThatAnswerAreReportedWithinTheLimitAndTheOthersNamed(self):
        self.AssertInventory("limited", OK, [DVD], exitStatus=3)
        document = self.Inventory("limited", exitStatus=3)
        self.assertEqual((False, ["scsi", "disk"]), (document["complete"], document["unanswered"]))
        self.AssertSeconds("limited-times")

    def testTheDeviceFilesThatHangAreNamed(self):
        self.assertEqual(f"zddevices: class scsi: no answer within {LIMIT} s (/dev/sg2)\n"
                         f"zddevices: class disk: no answer within {LIMIT} s (/dev/sdb)\n", self.Stderr("limited"))

    def testWhoCannotBeEndedIsLeftBehind(self):
        # The generic driver lets go of who is killed, the disk driver does not.
        self.assertEqual(["D"], self.Stdout("left-behind").split())

    def testWhoReadsFromAPipeDoesNotWaitForThoseLeftBehind(self):
        # The two streams are one pipe here.
        self.assertEqual("Nothing was found in time.\n"
                         f"zddevices: class disk: no answer within {LIMIT} s (/dev/sdb)\n", self.Stdout("piped"))
        self.AssertSeconds("piped-times")

    def testSubcommandsKeepTheLimitToo(self):
        document = self.Inventory("firmware", exitStatus=3)
        self.assertEqual(([], False, ["disk"]), (document["identities"], document["complete"], document["unanswered"]))
        self.assertIs(True, self.Inventory("optical")["complete"])

    def testThoseLeftBehindGoWhenTheKernelGivesUp(self):
        self.assertEqual(["running"], self.Stdout("recovery").split())
        self.AssertInventory("after", OK, [DVD, PLAIN, SILENT])

    def testTheKernelReportsNoCrash(self):
        self.assertFalse(re.search(r"segfault|general protection|BUG:|Oops", self.Stdout("kernel")))
