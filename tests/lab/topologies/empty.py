"""A host without a single storage device."""

from labkit.topology import INVENTORY_STEPS, NONE, OK, Topology


def ScanLog(type, proxy, prefixes, noneFound):
    """What the scan of one class says when it finds no device file."""
    return [
        f"Enter DeviceCollector::GetIndividualDevice() device type = {type}",
        f"Enter construct SysDevice device type is {type}",
        f"Enter SysDevice::GetData()  device_type = {type}",
        "Entry constructure DataProxy() sg_ko_loaded = 1",
        f"Entry {proxy}::{proxy}()",
        "Entry DataProxy::GetDeviceList()",
        *(["Entry  DataProxy::ScanDeviceFiles() ", "Exit  DataProxy::ScanDeviceFiles() "] * prefixes),
        f"Entry {proxy}::~{proxy}()",
        "Entry destructure ~DataProxy() ",
        noneFound,
    ]


class Empty(Topology):
    name = "empty"
    about = "no storage device at all"

    setup = "modprobe sd_mod; modprobe sr_mod; modprobe st"

    steps = {
        "before": "lsmod",
        **INVENTORY_STEPS,
        "table": "zddevices",
        "trace": "zddevices --format json --log-level 4",
        "failures": "zddevices --format json --log-level 1",
        "after": "lsmod",
    }

    def testTheGuestHasNoDeviceFileOfAnyClass(self):
        # What makes the other tests mean something. The three standard streams are there and are no tapes.
        for prefix in ("sg", "sd", "sr", "nst", "hd", "nvme"):
            self.assertEqual([], self.DeviceFiles(prefix))
        self.assertEqual(["stderr", "stdin", "stdout"], sorted(self.DeviceFiles("st")))

    def testEveryClassAnswersThatThereIsNone(self):
        for step in ("tape", "scsi", "disk", "optical"):
            with self.subTest(step):
                self.AssertInventory(step, NONE, [])

    def testTheMergedListIsEmptyAndTheScanSucceeds(self):
        self.AssertInventory("merged", OK, [])

    def testTheTableSucceedsWithoutADevice(self):
        self.assertEqual(0, self.results["table"].status)
        self.assertNotIn("0:0", self.Stdout("table"))

    def testTheMergedScanLogsItsFourClassesInOrder(self):
        self.AssertWholeLog("trace", [(4, text) for text in [
            "Enter construct DeviceCollector ",
            "Enter DeviceCollector::GetAllDevice()",
            *ScanLog(0, "TapeProxy", 2, " There has none tape device file."),
            *ScanLog(1, "SCSIProxy", 1, " There has none scsi device file."),
            *ScanLog(2, "PhysicalDriveProxy", 3, " There has none physical driver device file. "),
            *ScanLog(3, "CDDVDProxy", 1, " There has none cddvd device file. "),
            "Leave DeviceCollector::GetAllDevice()",
        ]])

    def testNothingIsAFailure(self):
        self.AssertWholeLog("failures", [])

    def testTheScanLoadsTheGenericDriver(self):
        def Modules(step):
            return [line.split()[0] for line in self.Stdout(step).splitlines()]
        self.assertNotIn("sg", Modules("before"))
        self.assertIn("sg", Modules("after"))
