"""What the service of the metrics may do beside its work: nothing, and each line of its unit is needed for that."""

from labkit.topology import Topology

from . import one_of_each
from .systemd import HOST, start

WITNESSES = """
    mkdir -p /root; touch /root/witness /tmp/witness /etc/witness /run/witness
"""

# Changes of the unit, and what a process of the service can do then. Other lines are second locks: without IPAddressDeny,
# ProtectKernelLogs, ProtectClock or RestrictRealtime nothing more is possible, for lack of a network or a capability.
# ProtectProc hides nothing from root's group.
LOOSENED = {
    "Nice": ("Nice=0", {"is urgent"}),
    "IOSchedulingClass": ("IOSchedulingClass=best-effort", {"reads and writes before others"}),
    "NoNewPrivileges": ("NoNewPrivileges=no", {"gains rights"}),
    "ProtectSystem": ("ProtectSystem=no", {"writes /etc"}),
    "ReadOnlyPaths": ("ReadOnlyPaths=", {"writes /run"}),
    "BindReadOnlyPaths": ("BindReadOnlyPaths=", {"writes /dev"}),
    "ProtectHome": ("ProtectHome=no", {"sees root's home"}),
    "PrivateTmp": ("PrivateTmp=no", {"sees /tmp"}),
    "PrivateNetwork": ("PrivateNetwork=no", {"namespace of the host: net"}),
    "RestrictAddressFamilies": ("RestrictAddressFamilies=", {
        "talks to local sockets", "talks to the network", "talks to the kernel by netlink"}),
    "ProtectKernelTunables": ("ProtectKernelTunables=no", {"changes kernel settings"}),
    "ProtectControlGroups": ("ProtectControlGroups=no", {"changes control groups"}),
    "ProtectHostname": ("ProtectHostname=no", {"namespace of the host: uts"}),
    "RestrictNamespaces": ("RestrictNamespaces=no", {"makes namespaces"}),
    "RestrictSUIDSGID": ("RestrictSUIDSGID=no", {"makes files that give rights"}),
    "LockPersonality": ("LockPersonality=no", {"changes its personality"}),
    "MemoryDenyWriteExecute": ("MemoryDenyWriteExecute=no", {"makes code at run time"}),
    "SystemCallArchitectures": ("SystemCallArchitectures=", {"makes calls of another architecture"}),
    "SystemCallFilter": ("SystemCallFilter=", {"mounts", "hands files over", "changes priorities"}),
    "SystemCallFilter-groups": ("SystemCallFilter=\nSystemCallFilter=@system-service", {
        "hands files over", "changes priorities"}),
    "SystemCallErrorNumber": ("SystemCallErrorNumber=", {
        "mounts kills", "hands files over kills", "changes priorities kills"}),
    "UMask": ("UMask=0022", {"lets others read its files"}),
}
# With and without its lock this call ends the process, or is answered: systemd's error number is not for it.
FOREIGN = "makes calls of another architecture"


def confined(lines=""):
    return start(f"[Service]\nEnvironment=ZDDEVICES=/usr/bin/labConfined\n{lines}")


class Confined(Topology):
    name = "confined"
    about = "the service that writes metrics, with a program in it that tries what it may do"
    memory = 1024
    time_limit = 600
    systemd = True
    built_programs = ("labConfined",)
    setup = HOST + WITNESSES

    steps = {
        "shell": "labConfined",
        "service": confined(),
        **{"without-" + name: confined(lines) for name, (lines, _) in LOOSENED.items()},
        "lock": "stat -c '%a %U' /run/zddevices-textfile /run/zddevices-textfile/lock",
        "no-exporter": start(before="mv /var/lib/prometheus/node-exporter /root/aside",
                             after="systemctl show -P ConditionResult zddevices-textfile.service"),
    }

    @classmethod
    def qemu_arguments(cls):
        return one_of_each.qemu_arguments()

    def things(self, step):
        """What was possible. Of namespaces, those that are the host's."""
        self.assertEqual(0, self.results[step].status, self.stderr(step))
        hosts = [line for line in self.stdout("shell").splitlines() if line.startswith("namespace ")]
        self.assertEqual(2, len(hosts))
        seen = set()
        for line in self.stdout(step).splitlines():
            if not line.startswith("namespace "):
                seen.add(line)
            elif line in hosts:
                seen.add("namespace of the host: " + line.split()[1].partition(":")[0])
        return seen

    def test_root_s_shell_can_do_all_of_it(self):
        every = set().union(*(things for _, things in LOOSENED.values()))
        self.assertEqual({one for one in every if not one.endswith(" kills")}, self.things("shell"))

    def test_the_service_can_do_nothing_of_it(self):
        self.assertLessEqual(self.things("service"), {FOREIGN + " kills"})

    def test_each_line_of_the_unit_keeps_something_from_it(self):
        for name, (_, things) in LOOSENED.items():
            with self.subTest(name):
                self.assertEqual(things, self.things("without-" + name) - self.things("service"))

    def test_the_lock_is_for_root_alone(self):
        self.assertEqual(["700 root", "600 root"], self.stdout("lock").splitlines())

    def test_a_host_without_the_exporter_s_directory_is_left_alone(self):
        self.assertEqual((0, "no\n"), (self.results["no-exporter"].status, self.stdout("no-exporter")))
