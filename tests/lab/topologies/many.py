"""More than ten adapters and more than ten NVMe controllers: where names and numbers get a second digit."""

from labkit.topology import (DISK, INVENTORY_STEPS, KERNEL_PROGRAMS, KERNEL_STEPS, NO_ADDRESS, OK, ZEROS,
                             Topology, device_record, empty_disk, qemu_device)

from . import one_of_each

CONTROLLERS = 12


def serial_number(number):
    return f"NV-{number:04d}"


def ata(model, host):
    return device_record("ATA", model, DISK, f"{'SN-' + model:20}", "1.0 ", (host, 0, 0, 0))


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

    programs = KERNEL_PROGRAMS

    steps = {
        **INVENTORY_STEPS,
        **KERNEL_STEPS,
        "nvme": 'for c in /sys/class/nvme/nvme*; do echo "${c##*/} $(cat "$c/serial")"; done',
        "nvme-revision": "cat /sys/class/nvme/nvme0/firmware_rev",
    }

    @classmethod
    def qemu_arguments(cls):
        hardware = [
            # Hosts 0 to 5 and 6 to 11.
            *qemu_device("ahci", id="first", addr="05.0"),
            *qemu_device("ahci", id="second", addr="06.0"),
        ]
        for bus, model in (("first.1", "ONE"), ("first.2", "TWO"), ("second.4", "TEN")):
            hardware += empty_disk(model)
            hardware += qemu_device("ide-hd", bus=bus, drive=model, model=model, serial=f"SN-{model}", ver="1.0")
        for number in range(CONTROLLERS):
            hardware += empty_disk(f"flash{number}")
            hardware += qemu_device("nvme", id=f"nvme{number}", drive=f"flash{number}", serial=serial_number(number),
                                    addr=f"{8 + number:02x}.0")
        return hardware

    def test_every_row_is_what_the_kernels_tools_say(self):
        self.assert_rows_are_the_kernels()

    def nvme_records(self, address):
        """In directory order: the disks of the controllers 0 to 9, and the controllers 10 and 11 themselves."""
        serials = dict(line.split() for line in self.stdout("nvme").splitlines())
        self.assertEqual({f"nvme{number}" for number in range(CONTROLLERS)}, serials.keys())
        self.assertEqual({serial_number(number) for number in range(CONTROLLERS)}, set(serials.values()))
        # A name of six or seven characters is taken for a disk's, whatever it is.
        taken = {**{f"nvme{number}n1": f"nvme{number}" for number in range(10)}, "nvme10": "nvme10", "nvme11": "nvme11"}
        files = self.device_files("nvme")
        self.assertTrue({"nvme0", "nvme10n1", "nvme11n1", *taken} <= set(files), files)
        revision = self.stdout("nvme-revision").rstrip()
        flash = one_of_each.flash_record(revision, address)
        return [{**flash, "serial_number": f"{serials[taken[file]]:19}"} for file in files if file in taken]

    def test_controller_nodes_with_two_digits_are_listed_and_their_disks_are_not(self):
        self.assert_inventory("disk", OK, [
            *self.in_directory_order("sd", {(1, 0, 0, 0): ata_disk("ONE", 1), (2, 0, 0, 0): ata_disk("TWO", 2),
                                            (10, 0, 0, 0): ata_disk("TEN", 10)}),
            *self.nvme_records(ZEROS)])

    def test_merged_list_has_adapter_ten_ahead_of_adapters_one_and_two(self):
        flash = self.nvme_records(NO_ADDRESS)
        self.assertEqual(CONTROLLERS, len(flash))
        # The devices without address are counted from 1 in the order of the scan, and stand where a device on that
        # adapter and target would.
        self.assert_inventory("merged", OK, [
            ata("TEN", 10),  # Port:10|Target:0
            flash[9],  # Port:10|Target:10
            flash[10],  # Port:11|Target:11
            flash[11],  # Port:12|Target:12
            ata("ONE", 1),  # Port:1|Target:0
            flash[0],  # Port:1|Target:1
            ata("TWO", 2),  # Port:2|Target:0
            flash[1],  # Port:2|Target:2
            *flash[2:9],  # Port:3|Target:3 to Port:9|Target:9
        ])


def ata_disk(model, host):
    """As the disk scan shows it: the drive's own revision, without blanks."""
    return {**ata(model, host), "firmware_revision": "1.0"}
