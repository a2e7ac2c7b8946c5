"""Disks that are plugged in and out, hundreds of times, while the inventory is taken."""

import shlex

from labkit.topology import DISK, OK, Topology, device_record, empty_disk, qemu_device

# Hosts: 0 virtio-scsi, 1 the adapter of scsi_debug that stays, 2 to 5 those that come and go. A new adapter takes the
# lowest number that is free.
STEADY_ADAPTER = 1
PASSING_ADAPTERS = (2, 3, 4, 5)
LUNS = 5
ROUNDS = 12

PLAIN = device_record("HALVARD", "HX 900", DISK, "HX-00017", "0102", (0, 0, 1, 0))
LARGE = device_record("HALVARD", "HX 9000", DISK, "HX-00018", "0103", (0, 0, 2, 0))


def debug(adapter, lun):
    """A disk of the kernel's scsi_debug driver. It numbers its units 2000 * (host + 1) + 1000 * target + LUN."""
    return device_record("Linux", "scsi_debug", DISK, str(2000 * (adapter + 1) + lun), "0191", (adapter, 0, 0, lun))


STEADY = [PLAIN, LARGE, *(debug(STEADY_ADAPTER, lun) for lun in range(LUNS))]
PASSING = [debug(adapter, lun) for adapter in PASSING_ADAPTERS for lun in range(LUNS)]
FIELDS = ("vendor", "product", "device_type", "serial_number", "firmware_revision", "port", "target", "bus", "lun")


def known_devices():
    """What labWatch is told, a line per device."""
    lines = ["\t".join([kind, *(str(record[field]) for field in FIELDS)])
             for kind, records in (("steady", STEADY), ("passing", PASSING)) for record in records]
    return "\n".join(lines) + "\n"


class Storm(Topology):
    name = "storm"
    about = "disks plugged in and out while the inventory is taken"

    built_programs = ("labWatch",)
    time_limit = 800

    setup = f"""
        modprobe sg; modprobe sd_mod
        modprobe virtio_scsi; appear /dev/sda /dev/sdb /dev/sg1
        modprobe scsi_debug num_tgts=1 max_luns={LUNS}
        appear /dev/sg{1 + LUNS}
    """

    # Between a removal and the next addition lies a pause, so that no device is asked its name before and its number
    # after: a device file's name goes to whatever comes next.
    steps = {
        "storm": f"""
            printf %s {shlex.quote(known_devices())} >/tmp/known
            rm -f /tmp/over
            GLIBC_TUNABLES=glibc.malloc.tcache_count=0 labWatch /tmp/known /tmp/over >/tmp/seen 2>/tmp/complaints &
            watch=$!
            events=0
            devices() {{ ls /sys/class/scsi_device | wc -l; }}
            # until_there N: so many devices, each with its disk file.
            until_there() {{
                tenths=0
                until [ "$(devices)" -eq "$1" ] && [ "$(ls /dev | grep -c '^sd')" -eq "$1" ]; do
                    sleep 0.1
                    tenths=$((tenths + 1))
                    [ "$tenths" -lt 600 ] || {{ echo "there are $(devices) devices, not $1" >&2; return 1; }}
                done
            }}
            steady=$(devices)
            all=$((steady + {len(PASSING)}))
            round=0
            while [ "$round" -lt {ROUNDS} ] && kill -0 "$watch"; do
                echo {len(PASSING_ADAPTERS)} >/sys/bus/pseudo/drivers/scsi_debug/add_host
                until_there "$all" || break
                events=$((events + {len(PASSING)}))
                for lun in 0 1 2 3 4; do
                    echo 1 >/sys/class/scsi_device/$(({PASSING_ADAPTERS[0]} + round % {len(PASSING_ADAPTERS)})):0:0:$lun/device/delete
                    events=$((events + 1))
                done
                until_there $((all - 5)) || break
                sleep 0.3
                echo '0 0 -' >/sys/class/scsi_host/host$(({PASSING_ADAPTERS[0]} + round % {len(PASSING_ADAPTERS)}))/scan
                until_there "$all" || break
                events=$((events + 5))
                echo -{len(PASSING_ADAPTERS)} >/sys/bus/pseudo/drivers/scsi_debug/add_host
                until_there "$steady" || break
                events=$((events + {len(PASSING)}))
                sleep 0.3
                round=$((round + 1))
            done
            : >/tmp/over
            wait "$watch"
            status=$?
            cat /tmp/seen
            echo "events=$events"
            cat /tmp/complaints >&2
            exit "$status"
        """,
        "merged": "zddevices --as-library --format json",
        "kernel": "dmesg",
    }

    @classmethod
    def qemu_arguments(cls):
        return [
            *qemu_device("virtio-scsi-pci", id="scsi"),
            *empty_disk("plain"),
            *qemu_device("scsi-hd", bus="scsi.0", drive="plain", channel=0, scsi_id=1, lun=0,
                         vendor="HALVARD", product="HX 900", ver="0102", serial="HX-00017"),
            *empty_disk("large"),
            *qemu_device("scsi-hd", bus="scsi.0", drive="large", channel=0, scsi_id=2, lun=0,
                         vendor="HALVARD", product="HX 9000", ver="0103", serial="HX-00018"),
        ]

    def seen(self):
        return {name: int(value) for name, _, value in
                (line.partition("=") for line in self.stdout("storm").splitlines())}

    def test_every_record_is_of_one_device_and_no_steady_device_is_ever_missing(self):
        self.assertEqual("", self.stderr("storm"))
        self.assertEqual(0, self.results["storm"].status, "labWatch")
        self.assertEqual(0, self.seen()["complaints"])

    def test_the_storm_was_one(self):
        seen = self.seen()
        self.assertGreaterEqual(seen["events"], 500, "removals and additions")
        self.assertGreaterEqual(seen["inventories"], 20)
        # Inventories that all find as many devices were not taken while devices came and went.
        self.assertGreaterEqual(seen["sizes"], 4, "different numbers of devices seen")
        self.assertGreater(seen["whole"], seen["inventories"] * len(STEADY), "records")

    def test_nothing_leaks(self):
        seen = self.seen()
        self.assertEqual(seen["descriptors_before"], seen["descriptors_after"])
        self.assertEqual(seen["heap_before"], seen["heap_after"], "bytes in use on the heap")

    def test_the_inventory_after_the_storm_is_that_of_the_steady_devices(self):
        self.assert_inventory("merged", OK, STEADY)

    def test_the_kernel_reports_no_crash(self):
        self.assertNotRegex(self.stdout("kernel"), r"segfault|general protection|BUG:|Oops")
