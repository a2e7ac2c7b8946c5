"""More than ten adapters and more than ten NVMe controllers: where names and numbers get a second digit."""

from labkit.topology import (DISK, INVENTORY_STEPS, NO_ADDRESS, OK, ZEROS, Device, EmptyDisk, Record, Topology)

from . import oneOfEach

CONTROLLERS = 12


def Serial(number):
    return f"NV-{number:04d}"


def Ata(model, host):
    return Record("ATA", model, DISK, f"{'SN-' + model:20}", "1.0 ", (host, 0, 0, 0))


class Many(Topology):
    name = "many"
    about = "twelve host adapters and twelve NVMe controllers"

    # Twelve controllers keep their queues in memory.
    memory = 768

    setup = """
        modprobe sg; modprobe sd_mod
        modprobe ahci; appear /dev/sda /dev/sdb /dev/sdc /dev/sg2
        modprobe nvme
        for n in 0 1 2 3 4 5 6 7 8 9 10 11; do appear /dev/nvme${n}n1; done
    """

    steps = {
        **INVENTORY_STEPS,
        "nvme": 'for c in /sys/class/nvme/nvme*; do echo "${c##*/} $(cat "$c/serial")"; done',
        "nvme-revision": "cat /sys/class/nvme/nvme0/firmware_rev",
    }

    @classmethod
    def Hardware(cls):
        hardware = [
            # Hosts 0 to 5 and 6 to 11.
            *Device("ahci", id="first", addr="05.0"),
            *Device("ahci", id="second", addr="06.0"),
        ]
        for bus, model in (("first.1", "ONE"), ("first.2", "TWO"), ("second.4", "TEN")):
            hardware += EmptyDisk(model)
            hardware += Device("ide-hd", bus=bus, drive=model, model=model, serial=f"SN-{model}", ver="1.0")
        for number in range(CONTROLLERS):
            hardware += EmptyDisk(f"flash{number}")
            hardware += Device("nvme", id=f"nvme{number}", drive=f"flash{number}", serial=Serial(number),
                               addr=f"{8 + number:02x}.0")
        return hardware

    def NvmeRecords(self, address):
        """In directory order: the disks of the controllers 0 to 9, and the controllers 10 and 11 themselves."""
        serials = dict(line.split() for line in self.Stdout("nvme").splitlines())
        self.assertEqual({f"nvme{number}" for number in range(CONTROLLERS)}, serials.keys())
        self.assertEqual({Serial(number) for number in range(CONTROLLERS)}, set(serials.values()))
        # A name of six or seven characters is taken for a disk's, whatever it is.
        taken = {**{f"nvme{number}n1": f"nvme{number}" for number in range(10)}, "nvme10": "nvme10", "nvme11": "nvme11"}
        files = self.DeviceFiles("nvme")
        self.assertTrue({"nvme0", "nvme10n1", "nvme11n1", *taken} <= set(files), files)
        revision = self.Stdout("nvme-revision").rstrip()
        flash = oneOfEach.Flash(revision, address)
        return [{**flash, "serial_number": f"{serials[taken[file]]:19}"} for file in files if file in taken]

    def testControllerNodesWithTwoDigitsAreListedAndTheirDisksAreNot(self):
        self.AssertInventory("disk", OK, [
            *self.InDirectoryOrder("sd", {(1, 0, 0, 0): AtaDisk("ONE", 1), (2, 0, 0, 0): AtaDisk("TWO", 2),
                                          (10, 0, 0, 0): AtaDisk("TEN", 10)}),
            *self.NvmeRecords(ZEROS)])

    def testMergedListHasAdapterTenAheadOfAdaptersOneAndTwo(self):
        flash = self.NvmeRecords(NO_ADDRESS)
        self.assertEqual(CONTROLLERS, len(flash))
        # The devices without address are counted from 1 in the order of the scan, and stand where a device on that
        # adapter and target would.
        self.AssertInventory("merged", OK, [
            Ata("TEN", 10),  # Port:10|Target:0
            flash[9],  # Port:10|Target:10
            flash[10],  # Port:11|Target:11
            flash[11],  # Port:12|Target:12
            Ata("ONE", 1),  # Port:1|Target:0
            flash[0],  # Port:1|Target:1
            Ata("TWO", 2),  # Port:2|Target:0
            flash[1],  # Port:2|Target:2
            *flash[2:9],  # Port:3|Target:3 to Port:9|Target:9
        ])


def AtaDisk(model, host):
    """As the disk scan shows it: the drive's own revision, without blanks."""
    return {**Ata(model, host), "firmware_revision": "1.0"}
