"""A host without a single storage device."""

from labkit.topology import INVENTORY_STEPS, NONE, OK, Topology


def scan_log(type, proxy, prefixes, none_found):
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
        none_found,
    ]


class Empty(Topology):
    name = "empty"
    about = "no storage device at all"

    setup = "modprobe sd_mod; modprobe sr_mod; modprobe st"

    steps = {
        "before": "lsmod",
        **INVENTORY_STEPS,
        "table": "zddevices",
        "trace": "zddevices --as-library --format json --log-level 4",
        "failures": "zddevices --format json --log-level 1",
        "after": "lsmod",
    }

    def test_the_guest_has_no_device_file_of_any_class(self):
        # What makes the other tests mean something. The three standard streams are there and are no tapes.
        for prefix in ("sg", "sd", "sr", "nst", "hd", "nvme"):
            self.assertEqual([], self.device_files(prefix))
        self.assertEqual(["stderr", "stdin", "stdout"], sorted(self.device_files("st")))

    def test_every_class_answers_that_there_is_none(self):
        for step in ("tape", "scsi", "disk", "optical"):
            with self.subTest(step):
                self.assert_inventory(step, NONE, [])

    def test_the_merged_list_is_empty_and_the_scan_succeeds(self):
        self.assert_inventory("merged", OK, [])

    def test_the_table_succeeds_without_a_device(self):
        self.assertEqual(0, self.results["table"].status)
        self.assertNotIn("0:0", self.stdout("table"))

    def test_the_merged_scan_logs_its_four_classes_in_order(self):
        self.assert_whole_log("trace", [(4, text) for text in [
            "Enter construct DeviceCollector ",
            "Enter DeviceCollector::GetAllDevice()",
            *scan_log(0, "TapeProxy", 2, " There has none tape device file."),
            *scan_log(1, "SCSIProxy", 1, " There has none scsi device file."),
            *scan_log(2, "PhysicalDriveProxy", 3, " There has none physical driver device file. "),
            *scan_log(3, "CDDVDProxy", 1, " There has none cddvd device file. "),
            "Leave DeviceCollector::GetAllDevice()",
        ]])

    def test_nothing_is_a_failure(self):
        self.assert_whole_log("failures", [])

    def test_the_scan_loads_the_generic_driver(self):
        def loaded_modules(step):
            return [line.split()[0] for line in self.stdout(step).splitlines()]
        self.assertNotIn("sg", loaded_modules("before"))
        self.assertIn("sg", loaded_modules("after"))
