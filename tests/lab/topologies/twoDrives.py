"""Two optical drives, for which the kernel's table has a column each."""

from labkit.topology import OK, OPTICAL_ROWS, Device, EmptyDisk, Topology


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
    def Hardware(cls):
        return [
            *Device("ahci", id="ahci", addr="05.0"),
            *EmptyDisk("first", readOnly=True),
            *Device("ide-cd", bus="ahci.0", drive="first", ver="1.07", serial="DVD-0001"),
            *EmptyDisk("second", readOnly=True),
            *Device("ide-cd", bus="ahci.1", drive="second", ver="2.11", serial="DVD-0002"),
        ]

    def testBothDrivesCanReadDvd(self):
        # What makes the denials below mean something.
        self.assertEqual(["1", "1"], self.OpticalTable()["Can read DVD"])

    def testOneRecordNamesBothDrivesAndDeniesEveryCapability(self):
        document = self.Inventory("optical-record")
        self.assertEqual(OK, document["status"])
        first, second = self.OpticalTable()["drive name"]
        self.assertEqual([{
            "drive_name_": f"/dev/{first}\t{second}", "vendor_": None, "product_": None,
            **dict.fromkeys(OPTICAL_ROWS, "No"),
        }], document["drives"])

    def testTheTableTellsThePersonThatTheCapabilitiesAreNotKnown(self):
        self.assertEqual(0, self.results["table"].status)
        self.assertIn("not known", self.Stderr("table"))

    def testTheLogHoldsTheWholeTableAndTheEightCapabilities(self):
        table = self.Stdout("cdrom")
        # One line more than the text has: the empty one at its end.
        lines = table.count("\n") + 1
        self.AssertLogs("trace", [
            (4, "Enter DeviceCollector::GetOpticalProperties()"),
            (4, "Entry CDDVDProxy::GetCDDVDOptList()"),
            (3, "SpawnProcess: process cat"),
            (4, f"cat cdrom lines =      {lines}"),
            (4, "cddvd   dvd_read_ = No  dvd_ram_write_ = Nocddvd   dvd_r_write_ = No  cd_rw_write_ = No"
                "cddvd   cd_r_write_ = Noread MRW mrw_r_= Nowrite MRW mrw_w_=NoRAM write cddvd.ram_w_= No"),
            (4, "Exit CDDVDProxy::GetCDDVDOptList()"),
        ])
        # The program's own line to the person follows the last line of the library.
        self.assertIn(" Leave DeviceCollector::GetOpticalProperties()\nzddevices: ", self.Stderr("trace"))
        self.assertIn("cat cdrom info result =      " + table.rstrip("\n"), self.Stderr("trace"))
