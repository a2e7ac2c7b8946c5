"""The service of the metrics, under systemd as on a host."""

import re

from labkit.topology import Topology

from . import one_of_each

# The sg driver is not loaded, and no tape is there. The exporter's directory belongs to somebody who is not root.
HOST = """
    modprobe sd_mod; modprobe sr_mod
    modprobe ahci; appear /dev/sda /dev/sr0
    modprobe virtio_scsi; appear /dev/sdb /dev/sdc
    modprobe nvme; appear /dev/nvme0n1
    # The library asks the controller of a tenth NVMe disk, and not of the first.
    ln -s nvme0 /dev/nvme10
    mkdir -p /var/lib/prometheus/node-exporter
    chown -R guest:guest /var/lib/prometheus
"""

# metrics: starts the service with the drop-in that is on standard input, and shows the file that it then wrote.
FUNCTIONS = """
    directory=/var/lib/prometheus/node-exporter
    metrics() {
        drop=/run/systemd/system/zddevices-textfile.service.d
        mkdir -p $drop
        cat >$drop/test.conf
        systemctl daemon-reload
        rm -f $directory/zddevices.prom
        systemctl start zddevices-textfile.service
        status=$?
        [ $status = 0 ] || journalctl -q -n 5 -u zddevices-textfile.service >&2
        [ ! -e $directory/zddevices.prom ] || cat $directory/zddevices.prom
        return $status
    }
"""

CAPABILITIES = ("CAP_DAC_OVERRIDE", "CAP_SYS_RAWIO", "CAP_SYS_ADMIN")
DEVICES = ("block-sd", "block-sr", "block-blkext", "char-nvme", "char-sg", "char-st")


def without_capability(name):
    return "CapabilityBoundingSet=\nCapabilityBoundingSet=" + " ".join(one for one in CAPABILITIES if one != name)


def without_device(name):
    return "DeviceAllow=\n" + "\n".join(f"DeviceAllow={one} r" for one in DEVICES if one != name)


# Changes of the unit each of which makes the metrics others than those of root's shell.
SPOILT = {
    **{name: without_capability(name) for name in CAPABILITIES},
    **{name: without_device(name) for name in DEVICES if name != "char-st"},
    "ReadWritePaths": "ReadWritePaths=",
    "RuntimeDirectory": "RuntimeDirectory=",
    "ProtectKernelModules": "ProtectKernelModules=yes",
    "PrivateDevices": "PrivateDevices=yes",
    "ProcSubset": "ProcSubset=pid",
}

WITH_TAPES = "[Unit]\nConditionPathExistsGlob=\n[Service]\n"


def start(drop_in="", before="", after=""):
    return f"{FUNCTIONS}\n{before}\nmetrics <<'END'\n{drop_in}\nEND\nresult=$?\n{after}\nexit $result\n"


# What a program can do that runs as the service does.
PROBE = r"""#!/bin/sh
grep CapBnd /proc/self/status
for file in /dev/mem /dev/ttyS0 /dev/nvme0n1 /dev/sda; do
    head -c 0 "$file" 2>/dev/null && echo "$file can be read"
    (: 1<>"$file") 2>/dev/null && echo "$file can be written"
done
for directory in / /dev /dev/shm /etc /run /sys/kernel /var/lib/prometheus /var/lib/prometheus/node-exporter; do
    (: >"$directory/planted") 2>/dev/null && echo "$directory can be written"
done
exit 0
"""


def seconds(span):
    """What systemd prints as "1h 3min 48.333725s"."""
    units = {"h": 3600, "min": 60, "s": 1, "ms": 0.001, "us": 0.000001}
    return sum(float(number) * units[unit] for number, unit in re.findall(r"([\d.]+)([a-z]+)", span))


class Systemd(Topology):
    name = "systemd"
    about = "one of each on a host with systemd, and the service that writes metrics"
    memory = 1024
    time_limit = 600
    systemd = True
    setup = HOST

    steps = {
        "before": "[ ! -e /sys/module/sg ]",
        "service": start(),
        "shell": "zddevices --format prometheus --timeout 60",
        **{"without-" + name: start("[Service]\n" + lines) for name, lines in SPOILT.items()},
        "without-driver": start(before="rmmod sg; systemctl mask -q --runtime zddevices-textfile-driver.service",
                                after="systemctl unmask -q --runtime zddevices-textfile-driver.service"),
        "blacklisted": start(before="mkdir -p /etc/modprobe.d; echo blacklist sg >/etc/modprobe.d/test.conf\n"
                                    "[ ! -e /sys/module/sg ] || rmmod sg",
                             after="rm /etc/modprobe.d/test.conf"),
        "probe": start("[Service]\nEnvironment=ZDDEVICES=/tmp/host/probe\nPrivateTmp=no",
                       before=f"mkdir /tmp/host; cat >/tmp/host/probe <<'END'\n{PROBE}END\nchmod +x /tmp/host/probe"),
        "linked": start(before=f"{FUNCTIONS}\nmv $directory /root/aside; ln -s /etc $directory",
                        after="ls /etc; rm $directory; mv /root/aside $directory"),
        "tape": start(before="modprobe st; modprobe scsi_debug ptype=1; appear /dev/st0 /dev/nst0a",
                      after="systemctl show -P ConditionResult zddevices-textfile.service"),
        "tape-left-out": start(WITH_TAPES + 'Environment="ZDDEVICES_ARGUMENTS=--type disk"'),
        "shell-left-out": "zddevices --format prometheus --timeout 60 --type disk",
        "tape-asked": start(WITH_TAPES),
        "shell-tape": "zddevices --format prometheus --timeout 60",
        "without-char-st": start(WITH_TAPES + without_device("char-st")),
        "timer": """
            rmmod scsi_debug st
            rm -r /run/systemd/system/zddevices-textfile.service.d
            mkdir -p /run/systemd/system/zddevices-textfile.timer.d
            # At once, and then as the timer has it.
            printf '[Timer]\\nOnActiveSec=1s\\nRandomizedDelaySec=0\\nAccuracySec=100ms\\n' \
                >/run/systemd/system/zddevices-textfile.timer.d/test.conf
            systemctl daemon-reload
            rm -f /var/lib/prometheus/node-exporter/zddevices.prom
            systemctl start zddevices-textfile.timer
            appear /var/lib/prometheus/node-exporter/zddevices.prom || exit
            cut -d ' ' -f 1 /proc/uptime
            systemctl show -P TimersMonotonic zddevices-textfile.timer
        """,
    }

    @classmethod
    def qemu_arguments(cls):
        return one_of_each.qemu_arguments()

    def series(self, step):
        """The metrics but for those that each run has its own values of."""
        return [line for line in self.stdout(step).splitlines()
                if not line.startswith(("zendra_device_scan_seconds{", "zendra_device_scan_timestamp_seconds "))]

    def assert_as_in_a_shell(self, step, shell="shell"):
        self.assertEqual(0, self.results[step].status, self.stderr(step))
        self.assertEqual(self.series(shell), self.series(step))

    def test_the_service_says_what_root_s_shell_says(self):
        self.assertEqual(0, self.results["before"].status, "the driver was there before")
        self.assert_as_in_a_shell("service")
        # A disk behind each driver, and the drive.
        self.assertEqual(5, sum(line.startswith("zendra_device_info{") for line in self.series("service")))

    def test_no_line_of_the_unit_can_be_spared_or_added(self):
        for name in SPOILT:
            with self.subTest(name):
                self.assertNotEqual(self.series("shell"), self.series("without-" + name))

    def test_the_driver_is_loaded_as_a_shell_would(self):
        self.assertNotEqual(self.series("shell"), self.series("without-driver"))
        self.assert_as_in_a_shell("blacklisted")

    def test_the_service_can_do_what_a_scan_takes_and_no_more(self):
        lines = self.stdout("probe").splitlines()
        self.assertEqual(0, self.results["probe"].status, self.stderr("probe"))
        # CAP_DAC_OVERRIDE is bit 1, CAP_SYS_RAWIO 17, CAP_SYS_ADMIN 21.
        self.assertEqual(["CapBnd:", f"{1 << 1 | 1 << 17 | 1 << 21:016x}"], lines[0].split())
        self.assertEqual(["/dev/nvme0n1 can be read", "/dev/sda can be read",
                          "/var/lib/prometheus/node-exporter can be written"], lines[1:])

    def test_a_link_in_place_of_the_directory_is_refused(self):
        self.assertNotEqual(0, self.results["linked"].status)
        self.assertIn("of which no part may be a link", self.stderr("linked"))
        self.assertNotIn("zddevices.prom", self.stdout("linked"))

    def test_tapes_are_left_alone_until_somebody_decides(self):
        self.assertEqual((0, "no\n"), (self.results["tape"].status, self.stdout("tape")))
        self.assert_as_in_a_shell("tape-left-out", "shell-left-out")
        self.assert_as_in_a_shell("tape-asked", "shell-tape")
        self.assertIn('type="tape"', self.stdout("tape-asked"))
        self.assertNotEqual(self.series("shell-tape"), self.series("without-char-st"))

    def test_the_timer_repeats_every_hour(self):
        self.assertEqual(0, self.results["timer"].status, self.stderr("timer"))
        now, *timers = self.stdout("timer").splitlines()
        repeated, = [re.search("next_elapse=(.*?) }", line)[1] for line in timers if "OnUnitActiveUSec=1h ;" in line]
        wait = seconds(repeated) - float(now)
        self.assertTrue(3000 < wait <= 3600, (now, timers))
        self.assertTrue([line for line in timers if "OnBootUSec=2min ;" in line], timers)
