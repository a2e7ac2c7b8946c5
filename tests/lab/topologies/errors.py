"""Disks that answer with errors, too late or not at all; and a user who may open none."""

import os

from labkit.topology import DISK, OK, Topology, device_record, timed

# Four disks whose answers come from labTarget, each on an adapter of its own, and one of scsi_debug. Target 1, because
# that is the number of the portal group.
ADAPTERS = {"WELL": 0, "ATTENTION": 1, "ERROR": 2, "SLOW": 3, "SILENT": 4}
SERVED = ("WELL", "ATTENTION", "ERROR", "SLOW")
SLOW_SECONDS = 3

# What the library grants: five attempts with a pause of five seconds after each, twenty seconds for a command.
ATTEMPTS, PAUSE, COMMAND_LIMIT = 5, 5, 20


# More than two answers of the slow disk to each of two take, less than the kernel waits for the silent one.
DOCTORS_PATIENCE = 15


def disk_record(name):
    if name == "SILENT":
        # scsi_debug numbers its units 2000 * (host + 1) + 1000 * target + LUN.
        return device_record("Linux", "scsi_debug", DISK, "10000", "0191", (ADAPTERS[name], 0, 0, 0))
    return device_record("LABUSER", f"HX {name}", DISK, f"SN-{name}", "0007", (ADAPTERS[name], 0, 1, 0))


def address_of(name):
    record = disk_record(name)
    return record["port"], record["bus"], record["target"], record["lun"]


def serve(name):
    """Shell text that makes a disk of the kernel's user-space backstore and starts the program behind it."""
    number = f"{ADAPTERS[name]:02d}"
    return f"""
        echo well >/tmp/{name}
        mkdir -p $core/user_{number}/{name}
        printf 'dev_config=lab/{name},dev_size=1048576' >$core/user_{number}/{name}/control
        echo 1 >$core/user_{number}/{name}/enable
        labTarget {name} 'HX {name}' SN-{name} /tmp/{name} >/dev/console 2>&1 &
        mkdir -p $loopback/naa.50000000000000{number}/tpgt_1/lun/lun_0
        printf naa.60000000000000{number} >$loopback/naa.50000000000000{number}/tpgt_1/nexus
        ln -s $core/user_{number}/{name} $loopback/naa.50000000000000{number}/tpgt_1/lun/lun_0/{name}
        appear /sys/class/scsi_device/{ADAPTERS[name]}:0:1:0/device/block
    """


TROUBLE = f"""
    echo attention >/tmp/ATTENTION
    echo error >/tmp/ERROR
    echo 'slow {SLOW_SECONDS}' >/tmp/SLOW
    # Every command is lost on its way.
    echo 4 >/sys/bus/pseudo/drivers/scsi_debug/opts
    echo 1 >/sys/bus/pseudo/drivers/scsi_debug/every_nth
"""

RECOVERY = """
    echo 0 >/sys/bus/pseudo/drivers/scsi_debug/every_nth
    echo 0 >/sys/bus/pseudo/drivers/scsi_debug/opts
    for name in ATTENTION ERROR SLOW; do echo well >/tmp/$name; done
"""


class Errors(Topology):
    name = "errors"
    about = "disks that answer with errors, slowly, or not at all"

    built_programs = ("labTarget",)
    modules = ("target_core_user", "tcm_loop", "configfs")
    time_limit = 390

    setup = f"""
        modprobe sg; modprobe sd_mod
        modprobe configfs
        mount -t configfs configfs /sys/kernel/config
        modprobe target_core_user; modprobe tcm_loop
        core=/sys/kernel/config/target/core
        loopback=/sys/kernel/config/target/loopback
        mkdir -p $loopback
        {"".join(serve(name) for name in SERVED)}
        modprobe scsi_debug
        appear /sys/class/scsi_device/{ADAPTERS["SILENT"]}:0:0:0/device/block /dev/sg4
    """

    steps = {
        "dev": "find /dev -maxdepth 1 | sed -n 's,^/dev/,,p'",
        "addresses": "addresses",
        "before": "zddevices --as-library --format json",
        "trouble": TROUBLE,
        "scsi": timed("zddevices --as-library --type scsi --format json --log-level 4"),
        "scsi-times": "cat /tmp/times",
        "disk": timed("zddevices --as-library --type disk --format json --log-level 4"),
        "disk-times": "cat /tmp/times",
        "doctor": timed(f"zddevices doctor --format json --timeout {DOCTORS_PATIENCE}"),
        "doctor-times": "cat /tmp/times",
        # Those that it left behind are with the silent disk until the kernel gives up.
        "doctor-gone": "while pidof zddevices; do sleep 1; done",
        "recovery": RECOVERY,
        "after": "zddevices --as-library --format json",
        "user": "start-stop-daemon -S -c guest:guest -x /usr/bin/zddevices -- --format json",
        "user-table": "start-stop-daemon -S -c guest:guest -x /usr/bin/zddevices",
        "kernel": "dmesg",
    }

    @classmethod
    def qemu_arguments(cls):
        # The guest's clock counts instructions and jumps over waits: minutes of pauses pass in seconds, and how long
        # something takes does not depend on this host.
        return ["-icount", "shift=0,sleep=off"]

    @classmethod
    def setUpClass(cls):
        os.environ["ZENDRA_LAB_ACCEL"] = "tcg"
        super().setUpClass()

    def files(self, prefix):
        """The device files of that prefix in directory order, with the name of the disk behind each."""
        address = dict(line.split() for line in self.stdout("addresses").splitlines())
        disks = {":".join(map(str, address_of(name))): name for name in ADAPTERS}
        return [(file, disks[address[file]]) for file in self.device_files(prefix) if file in address]

    def section(self, step, prefix, entry, disk):
        """What was logged while one disk was probed."""
        sections = []
        for level, message in self.messages(step):
            if message == entry:
                sections.append([])
            elif sections:
                sections[-1].append((level, message))
        files = self.files(prefix)
        self.assertEqual(len(ADAPTERS), len(files))
        self.assertEqual(len(files), len(sections), f"probes in step '{step}'")
        place = [name for _, name in files].index(disk)
        return "/dev/" + files[place][0], sections[place]

    @staticmethod
    def command(path, attempts):
        """The log of one SCSI command; `attempts` are what each logs about its status."""
        call = [(4, "Enter DataOperator::ExecIoCtl()."),
                (4, f"Enter DataOperator::OpenDriveFile() driveName = {path}"),
                (4, "Exit DataOperator::ExecIoCtl(), ret = 0")]
        lines = [(4, "Enter DataOperator::ExecPassThruCmd()"), *call]
        for attempt in attempts:
            lines += [*call, *((4, text) for text in attempt)]
        return [*lines, (4, "Exit scsiPassThrough::execSCSICommand().")]

    def assert_refused(self, step, prefix, entry, disk, attempts):
        """The disk answered INQUIRY with nothing, and ATA IDENTIFY neither."""
        path, section = self.section(step, prefix, entry, disk)
        is_sg = 1 if prefix == "sg" else 0
        expected = [
            (4, f"Entry  GetGenericDeviceData() is_sg = {is_sg}"),
            *self.command(path, attempts),
            (4, "Exit  GetGenericDeviceData() due to vendorId and productId is empty"),
            *([(4, "GetGenericDeviceData() ret = 4")] if is_sg else []),
            (4, "Entry  GetDriverData() "),
            (4, "Enter DataOperator::ExecIoCtl()."),
            (4, f"Enter DataOperator::OpenDriveFile() driveName = {path}"),
            (4, "Exit DataOperator::ExecIoCtl(), ret = -1"),
            (4, "Get HDIO_DRIVE_CMD|HDIO_DRIVE_TASK Inquiry passed.. otherIdentInfo = "),
            (4, "Entry  GetDriverData() "),
        ]
        self.assertEqual(expected, section[:len(expected)], f"{disk} in step '{step}'")
        self.assertEqual([], [message for _, message in section if message.startswith("DataProxy::StoreBusDev")])

    def assert_statuses(self, step, prefix, entry):
        def sense_lines(key, code):
            # The 18 bytes that labTarget sends. The status is a character, the numbers behind the data are hexadecimal.
            data = [0x70, 0, key, 0, 0, 0, 0, 10, 0, 0, 0, 0, code, 0, 0, 0, 0, 0]
            return ["SCSI sense data: " + "".join(f"{byte:x}" for byte in data), "SG SCSI status=\\x02",
                    "SG Driver status=8"]

        self.assert_refused(step, prefix, entry, "ATTENTION",
                            [["Retry condition...", *sense_lines(0x06, 0x29)]] * ATTEMPTS)
        self.assert_refused(step, prefix, entry, "ERROR", [sense_lines(0x04, 0x44)])
        # DID_TIME_OUT: nothing came back.
        self.assert_refused(step, prefix, entry, "SILENT", [["SG Host status=3"]])

    def assert_seconds(self, step):
        begin, end = map(float, self.stdout(step).split())
        # INQUIRY and serial number of the slow disk.
        required = ATTEMPTS * PAUSE + COMMAND_LIMIT + 2 * SLOW_SECONDS
        self.assertGreaterEqual(end - begin, required)
        self.assertLess(end - begin, required + PAUSE)

    def test_while_all_is_well_every_disk_is_listed(self):
        self.assert_inventory("before", OK, [disk_record(name) for name in ADAPTERS])

    def test_generic_class_lists_the_disks_that_answer(self):
        answering = [disk_record(name) for _, name in self.files("sg") if name in ("WELL", "SLOW")]
        self.assert_inventory("scsi", OK, answering)

    def test_disk_class_lists_the_disks_that_answer(self):
        answering = [disk_record(name) for _, name in self.files("sd") if name in ("WELL", "SLOW")]
        self.assert_inventory("disk", OK, answering)

    def test_generic_class_logs_what_the_disks_answered(self):
        self.assert_statuses("scsi", "sg", "Entry SCSIProxy::GetDeviceInfo()")

    def test_disk_class_logs_what_the_disks_answered(self):
        self.assert_statuses("disk", "sd", "Entry PhysicalDriveProxy::GetDeviceInfo()")

    def test_unit_attention_is_waited_out_five_times_and_silence_for_the_time_of_one_command(self):
        self.assert_seconds("scsi-times")
        self.assert_seconds("disk-times")

    def test_doctor_tells_which_disk_is_ill_in_which_way(self):
        document, files = self.diagnosis("doctor", exit_status=3)
        self.assertEqual(DOCTORS_PATIENCE, document["time_limit_seconds"])
        for word, prefix in (("scsi", "sg"), ("disk", "sd")):
            found = {name: files[word]["/dev/" + file] for file, name in self.files(prefix)}
            # The library asks one that always has a unit attention five times, five seconds apart.
            self.assertEqual({"WELL": "visible", "SLOW": "visible", "ATTENTION": "no_answer_in_time",
                              "ERROR": "no_usable_answer", "SILENT": "no_answer_in_time"},
                             {name: file["visibility"] for name, file in found.items()})
            self.assert_failures(found["ERROR"], [
                ("SG_IO", "the device answered with SCSI status 0x02, sense key 0x4, additional sense 0x44/0x00"),
                # The sg driver's answer to what it does not know.
                ("HDIO_DRIVE_CMD", "EPERM" if prefix == "sg" else "EINVAL")])
            self.assert_failures(found["WELL"], [])
        advice = "\n".join(document["advice"])
        self.assertRegex(advice, r"4 device files \([^)]*\) have not answered in time")
        self.assertRegex(advice, r"2 device files \(/dev/sg\d, /dev/sd\w\) can be opened, but nothing there answers")

    def test_doctor_waits_for_a_silent_disk_no_longer_than_allowed(self):
        begin, end = map(float, self.stdout("doctor-times").split())
        # All disks are asked side by side, as devices of either class.
        self.assertGreaterEqual(end - begin, DOCTORS_PATIENCE)
        self.assertLessEqual(end - begin, DOCTORS_PATIENCE + 1)

    def test_disks_that_recovered_are_listed_again(self):
        self.assert_inventory("after", OK, [disk_record(name) for name in ADAPTERS])

    def test_an_ordinary_user_finds_nothing_is_told_why_and_gets_exit_code_three(self):
        self.assert_inventory("user", OK, [], exit_status=3)
        self.assertEqual(3, self.results["user-table"].status)
        self.assertEqual("No storage devices found.\n", self.stdout("user-table"))
        for step in ("user", "user-table"):
            message, = self.stderr(step).splitlines()
            self.assertIn("10 device files could not be opened for lack of privilege", message)

    def test_the_kernel_reports_no_crash(self):
        self.assertNotRegex(self.stdout("kernel"), r"segfault|general protection|BUG:|Oops")
