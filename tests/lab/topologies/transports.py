"""Disks behind each kind of adapter: SATA, SAS, USB, parallel SCSI, RAID, virtio and NVMe."""

from labkit.topology import KERNEL_PROGRAMS, KERNEL_STEPS, Topology, empty_disk, qemu_device

SHARED_WWN = "0x5000c500a1b2c3d4"


class Transports(Topology):
    name = "transports"
    about = "disks behind SATA, SAS, USB, parallel SCSI, RAID, virtio and NVMe"

    modules = ("ahci", "mptsas", "xhci_pci", "usb_storage", "uas", "sym53c8xx", "megaraid_sas")
    programs = KERNEL_PROGRAMS

    setup = """
        modprobe sg; modprobe sd_mod; modprobe sr_mod; modprobe st
        modprobe ahci; appear /dev/sda
        modprobe virtio_scsi; appear /dev/sdc
        modprobe mptsas; appear /dev/sde
        modprobe megaraid_sas; appear /dev/sdf
        modprobe sym53c8xx; appear /dev/sdg
        modprobe usb_storage; modprobe uas; modprobe xhci_pci; appear /dev/sdh /dev/sdi
        # Which controller comes first is another one each time.
        modprobe nvme; until [ "$(ls /dev | grep -c '^nvme[0-9]n[0-9]$')" -eq 5 ]; do sleep 0.1; done
    """

    steps = {
        **KERNEL_STEPS,
        "paths": "zddevices --columns device,wwn,paths --no-headings",
    }

    @classmethod
    def qemu_arguments(cls):
        hardware = [
            *qemu_device("ahci", id="ahci"),
            *qemu_device("virtio-scsi-pci", id="virtio"),
            *qemu_device("mptsas1068", id="sas"),
            *qemu_device("megasas", id="raid"),
            *qemu_device("lsi53c895a", id="spi"),
            *qemu_device("qemu-xhci", id="usb"),
            *qemu_device("nvme", id="controller", serial="NV-1"),
            *qemu_device("nvme", id="other", serial="NV-2"),
            *qemu_device("nvme-subsys", id="pair", nqn="pair"),
            *qemu_device("nvme", id="left", serial="NV-3", subsys="pair"),
            *qemu_device("nvme", id="right", serial="NV-3", subsys="pair"),
        ]

        def disk(driver, megabytes, **properties):
            node = f"disk{megabytes}"
            hardware.extend(empty_disk(node, megabytes << 20))
            hardware.extend(qemu_device(driver, drive=node, **properties))

        # Each of another size, so that none is mistaken for another.
        disk("ide-hd", 16, bus="ahci.0", serial="ATA-1", wwn="0x5000c50015ea71ac",
             model="A MODEL OF MORE THAN SIXTEEN CHARACTERS", ver="VERSION8")
        disk("ide-cd", 17, bus="ahci.1", serial="DVD-1")
        # Two ways to one disk.
        disk("scsi-hd", 18, bus="virtio.0", scsi_id=1, serial="SHARED", wwn=SHARED_WWN)
        disk("scsi-hd", 19, bus="virtio.0", scsi_id=2, serial="SHARED", wwn=SHARED_WWN)
        # Without a name of its own the adapter does not report a disk.
        disk("scsi-hd", 20, bus="sas.0", scsi_id=0, serial="SAS-1", wwn="0x5000c50015ea7101")
        disk("scsi-hd", 21, bus="sas.0", scsi_id=1, serial="SAS-2", wwn="0x5000c50015ea7102")
        disk("scsi-hd", 22, bus="raid.0", scsi_id=0, serial="RAID-1")
        disk("scsi-hd", 23, bus="spi.0", scsi_id=0, serial="SPI-1")
        disk("usb-storage", 24, bus="usb.0", serial="USB-1")
        hardware += qemu_device("usb-uas", id="uas", bus="usb.0")
        disk("scsi-hd", 1025, bus="uas.0", serial="USB-2")
        disk("nvme-ns", 26, bus="controller", nsid=1)
        disk("nvme-ns", 27, bus="controller", nsid=2)
        disk("nvme-ns", 28, bus="other", nsid=1)
        # Both controllers of the subsystem reach the first of these, only the first controller the second.
        disk("nvme-ns", 29, bus="left", nsid=1, shared="on")
        disk("nvme-ns", 30, bus="left", nsid=2, shared="off")
        return hardware

    def test_every_row_is_what_the_kernels_tools_say(self):
        self.assert_rows_are_the_kernels()

    def test_the_guest_has_every_transport(self):
        transports = [row["transport"] for row in self.inventory("rows")["devices"]]
        self.assertEqual({None, "nvme", "sas", "sata", "spi", "usb"}, set(transports))

    def test_two_ways_to_one_disk_are_two_rows_that_count_each_other(self):
        lines = [line.split() for line in self.stdout("paths").splitlines()]
        shared = [line for line in lines if line[1] == SHARED_WWN]
        self.assertEqual(2, len(shared), lines)
        self.assertEqual(["2", "2"], [line[2] for line in shared])
        self.assertEqual(2, len({line[0] for line in shared}))

    def controllers(self):
        """The rows of NVMe controllers by serial number, and the number of each in the names of its files."""
        rows = {}
        for row in self.inventory("rows")["devices"]:
            if row["transport"] == "nvme":
                number, = (file.removeprefix("/dev/nvme") for file in row["device_files"]
                           if file.removeprefix("/dev/nvme").isdigit())
                rows.setdefault(row["serial_number"].strip(), []).append((row, number))
        return rows

    def test_an_nvme_controller_is_one_row_with_its_namespaces(self):
        controllers = self.controllers()
        self.assertEqual({"NV-1": 1, "NV-2": 1, "NV-3": 2}, {name: len(rows) for name, rows in controllers.items()})
        (row, number), = controllers["NV-1"]
        self.assertEqual(53 << 20, row["size_bytes"])
        self.assertEqual([f"/dev/nvme{number}n1", f"/dev/nvme{number}n2", f"/dev/nvme{number}"],
                         row["device_files"][:3])

    def test_two_controllers_of_a_subsystem_are_two_rows_with_what_each_reaches(self):
        rows = self.controllers()["NV-3"]
        (left, number), (right, other) = sorted(rows, key=lambda pair: -pair[0]["size_bytes"])
        self.assertEqual([59 << 20, 29 << 20], [left["size_bytes"], right["size_bytes"]])
        # The subsystem has the number of the controller that came first, its disks are numbered as they come.
        subsystem = left["device_files"][0].removesuffix("n1")
        self.assertIn(subsystem.removeprefix("/dev/nvme"), (number, other))
        self.assertEqual([f"{subsystem}n1", f"{subsystem}n2", f"/dev/nvme{number}"], left["device_files"][:3])
        self.assertIn(right["device_files"][0], left["device_files"][:2])
        self.assertEqual(f"/dev/nvme{other}", right["device_files"][1])
        paths = {line[0]: line[2] for line in map(str.split, self.stdout("paths").splitlines())}
        self.assertEqual("2", paths[right["device"]])
        self.assertEqual(["live", "live"], [left["state"], right["state"]])

    def test_model_and_revision_of_a_sata_disk_are_whole(self):
        disk, = (row for row in self.inventory("rows")["devices"] if row["wwn"] == "0x5000c50015ea71ac")
        self.assertEqual("A MODEL OF MORE THAN SIXTEEN CHARACTERS", disk["model"])
        self.assertEqual("VERSION8", disk["revision"])
