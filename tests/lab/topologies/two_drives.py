"""Two optical drives, for which the kernel's table has a column each."""

from labkit.topology import OK, OPTICAL_ROWS, Topology, empty_disk, qemu_device


class TwoDrives(Topology):
    name = "two-drives"
    about = "two ATAPI drives"

    setup = "modprobe sg; modprobe sr_mod; modprobe ahci; appear /dev/sr0 /dev/sr1"

    steps = {
        "cdrom": "cat /proc/sys/dev/cdrom/info",
        "optical-record": "zddevices optical --format json",
        "table": "zddevices optical",
        "trace": "zddevices optical --format json --log-level 4",
    }

    @classmethod
    def qemu_arguments(cls):
        return [
            *qemu_device("ahci", id="ahci", addr="05.0"),
            *empty_disk("first", read_only=True),
            *qemu_device("ide-cd", bus="ahci.0", drive="first", ver="1.07", serial="DVD-0001"),
            *empty_disk("second", read_only=True),
            *qemu_device("ide-cd", bus="ahci.1", drive="second", ver="2.11", serial="DVD-0002"),
        ]

    def test_both_drives_can_read_dvd(self):
        # What makes the denials below mean something.
        self.assertEqual(["1", "1"], self.optical_table()["Can read DVD"])

    def test_one_record_names_both_drives_and_denies_every_capability(self):
        document = self.inventory("optical-record")
        self.assertEqual(OK, document["status"])
        first, second = self.optical_table()["drive name"]
        self.assertEqual([{
            "drive_name": f"/dev/{first}\t{second}", "vendor": None, "product": None,
            **dict.fromkeys(OPTICAL_ROWS, "No"),
        }], document["drives"])

    def test_the_table_tells_the_person_that_the_capabilities_are_not_known(self):
        self.assertEqual(0, self.results["table"].status)
        self.assertIn("not known", self.stderr("table"))

    def test_the_log_holds_the_whole_table_and_the_eight_capabilities(self):
        table = self.stdout("cdrom")
        # One line more than the text has: the empty one at its end.
        lines = table.count("\n") + 1
        self.assert_logs("trace", [
            (4, "Enter DeviceCollector::GetOpticalProperties()"),
            (4, "Entry CDDVDProxy::GetCDDVDOptList()"),
            (3, "SpawnProcess: process cat"),
            (4, f"cat cdrom lines =      {lines}"),
            (4, "cddvd   dvd_read_ = No  dvd_ram_write_ = Nocddvd   dvd_r_write_ = No  cd_rw_write_ = No"
                "cddvd   cd_r_write_ = Noread MRW mrw_r_= Nowrite MRW mrw_w_=NoRAM write cddvd.ram_w_= No"),
            (4, "Exit CDDVDProxy::GetCDDVDOptList()"),
        ])
        # The program's own line to the person follows the last line of the library.
        self.assertIn(" Leave DeviceCollector::GetOpticalProperties()\nzddevices: ", self.stderr("trace"))
        self.assertIn("cat cdrom info result =      " + table.rstrip("\n").replace("\n", "\\n"),
                      self.stderr("trace"))
