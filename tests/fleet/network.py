"""Test hosts on one machine: each has its own network, mount, process and name space, its own root and its own sshd.

Everything stands in namespaces that end with the process that made them: nothing is left on the machine, however the
test ends. enter() comes first.
"""
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
INSIDE = "ZENDRA_FLEET_DIRECTORY"
BRIDGE_ADDRESS = "10.77.0.1"
MASK = 16
# Of a host its own.
NAMESPACES = ("--mount", "--net", "--pid", "--uts", "--ipc")

# Runs in the namespaces of a host, whose directory is $1: says that it is there, waits for its network cable.
BOOT = r"""
set -eu
base=$1 name=$2 address=$3 options=$4
hostname "$name"
mount --make-rprivate /
mount -t overlay overlay -o "lowerdir=/,upperdir=$base/upper,workdir=$base/work$options" "$base/root"
mount -t proc proc "$base/root/proc"
mount -t tmpfs -o mode=755 tmpfs "$base/root/run"
mount -t tmpfs -o mode=1777 tmpfs "$base/root/tmp"
mkdir "$base/root/run/sshd" "$base/root/run/dev"
mount --rbind /dev "$base/root/run/dev"
echo there
read -r _
ip link set lo up
ip address add "$address/16" dev eth0
ip link set eth0 up
exec chroot "$base/root" /var/lib/simhost/makeDevices /var/lib/simhost/host /bin/sh /var/lib/simhost/start
"""

# Runs in the host's root when its simulated /dev is there, which has none of the files that programs need.
START = r"""
set -eu
for file in null zero full random urandom tty; do
    : >"/dev/$file"
    mount --bind "/run/dev/$file" "/dev/$file"
done
mkdir /dev/pts /dev/shm
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts /dev/pts
ln -s pts/ptmx /dev/ptmx
ln -s /proc/self/fd /dev/fd
umount --lazy /run/dev
/usr/sbin/sshd -t -f /var/lib/simhost/sshd_config
echo up
exec /usr/sbin/sshd -D -e -f /var/lib/simhost/sshd_config
"""

SSHD_CONFIG = """\
ListenAddress {address}
HostKey /var/lib/simhost/host_key
AuthorizedKeysFile /var/lib/simhost/authorized_keys
PidFile none
UsePAM no
UseDNS no
StrictModes no
PasswordAuthentication no
PermitRootLogin prohibit-password
MaxStartups 200
LogLevel ERROR
Subsystem sftp internal-sftp
"""


class Failure(Exception):
    """A test host that could not be made."""


def missing():
    """Why test hosts are not possible here, or an empty text."""
    if os.geteuid() != 0:
        return "test hosts need root"
    for program in ("/usr/sbin/sshd", "/usr/bin/ssh", "/usr/bin/ansible-playbook"):
        if not os.path.exists(program):
            return program + " is not installed"
    if not (shutil.which("ip") or os.path.exists("/usr/sbin/ip")):
        return "ip is not installed"
    probe = subprocess.run(
        ["unshare", "--mount", "--net", "--pid", "--uts", "--fork", "--mount-proc", "true"], capture_output=True, text=True
    )
    return "" if probe.returncode == 0 else "no namespaces of our own: " + probe.stderr.strip()


def enter():
    """Runs this program again in namespaces of its own and ends with its exit code; returns when already there."""
    if INSIDE in os.environ:
        return
    directory = tempfile.mkdtemp(prefix="fleet.")
    try:
        # When this process dies, unshare does, and with it all that is in its namespaces.
        command = ["setpriv", "--pdeathsig", "KILL"]
        command += ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc"]
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
        code = subprocess.call(
            command + ["/usr/bin/python3"] + sys.argv, env=dict(os.environ, **{INSIDE: directory})
        )
    finally:
        # Empty: what was in it stood in a file system of the namespace.
        os.rmdir(directory)
    sys.exit(code)


def run(*command, **options):
    subprocess.run(command, check=True, **options)


def layer_options(directory):
    """What a layer over / that lies in this directory is mounted with; None where there can be none."""
    done = subprocess.run([str(HERE.parent / "layerOptions"), str(directory)], stdout=subprocess.PIPE, text=True, check=False)
    return done.stdout.strip() if done.returncode == 0 else None


class Network:
    """The bridge, the keys and the hosts. For `with`."""

    def __init__(self, devices_library, make_devices):
        self.directory = pathlib.Path(os.environ[INSIDE])
        self.devices_library = devices_library
        self.make_devices = make_devices
        # For layers that cannot be in memory.
        self.disk = tempfile.TemporaryDirectory(prefix="layers.", dir=os.path.dirname(devices_library))
        self.layer_options = None
        self.hosts = {}
        self.addresses = {}

    def __enter__(self):
        run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", str(self.directory))
        hosts = self.directory / "hosts"
        hosts.mkdir()
        self.layer_options = layer_options(hosts)
        if self.layer_options is None:
            run("mount", "--bind", self.disk.name, str(hosts))
            self.layer_options = layer_options(hosts)
        if self.layer_options is None:
            raise Failure("this kernel lays nothing over / that dpkg can work in")
        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", "fleet0", "type", "bridge")
        run("ip", "address", "add", "%s/%d" % (BRIDGE_ADDRESS, MASK), "dev", "fleet0")
        run("ip", "link", "set", "fleet0", "up")
        for key in ("user_key", "host_key"):
            run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "", "-f", str(self.directory / key))
        return self

    def __exit__(self, *_):
        for process in self.hosts.values():
            process.kill()
        for process in self.hosts.values():
            process.wait()
            process.stdin.close()
            process.stdout.close()
        self.disk.cleanup()

    def _place(self, base, host, address):
        """What the host's root has more than the machine's."""
        upper = base / "upper"
        home = upper / "var/lib/simhost"
        for directory in (home, base / "work", base / "root", upper / "etc"):
            directory.mkdir(parents=True)
        (home / "host").write_text(host.host_file(), encoding="ascii")
        (home / "stuck").write_text("".join(name + "\n" for name in host.stuck), encoding="ascii")
        (home / "complaints").touch()
        (home / "complaints").chmod(0o666)
        (home / "start").write_text(START, encoding="ascii")
        (home / "sshd_config").write_text(SSHD_CONFIG.format(address=address), encoding="ascii")
        shutil.copy(self.directory / "host_key", home / "host_key")
        shutil.copy(self.directory / "user_key.pub", home / "authorized_keys")
        shutil.copy(self.make_devices, home / "makeDevices")
        shutil.copy(self.devices_library, home / "devices.so")
        (upper / "etc/ld.so.preload").write_text("/var/lib/simhost/devices.so\n", encoding="ascii")
        (upper / "etc/hosts").write_text("127.0.0.1 localhost\n%s %s\n" % (address, host.name), encoding="ascii")
        if host.user != "root":
            self._add_user(upper, host)
        if host.endless_fact:
            facts = upper / "etc/ansible/facts.d"
            facts.mkdir(parents=True)
            (facts / "asleep.fact").write_text("#!/bin/sh\nexec sleep infinity\n", encoding="ascii")
            (facts / "asleep.fact").chmod(0o755)

    @staticmethod
    def _add_user(upper, host):
        number = 4001
        for file, line in (
            ("passwd", "%s:x:%d:%d::/home/%s:/bin/sh" % (host.user, number, number, host.user)),
            ("group", "%s:x:%d:" % (host.user, number)),
            ("shadow", "%s:*:19000:0:99999:7:::" % host.user),
        ):
            content = pathlib.Path("/etc", file).read_text(encoding="utf-8")
            (upper / "etc" / file).write_text(content.rstrip("\n") + "\n" + line + "\n", encoding="utf-8")
        (upper / "etc/shadow").chmod(0o600)
        home = upper / "home" / host.user
        home.mkdir(parents=True)
        os.chown(home, number, number)
        if host.may_sudo:
            rules = upper / "etc/sudoers.d"
            rules.mkdir()
            (rules / "fleet").write_text(host.user + " ALL=(ALL) NOPASSWD: ALL\n", encoding="ascii")
            (rules / "fleet").chmod(0o440)

    def start(self, hosts, prepare=None):
        """Starts these hosts and waits until each takes connections. prepare(base): adds to base/upper, the root."""
        failures = []

        def start_one(host):
            try:
                self._start(host, prepare)
            except (Failure, OSError, subprocess.CalledProcessError) as error:
                failures.append("%s: %s" % (host.name, error))

        for number, host in enumerate(hosts, len(self.addresses)):
            self.addresses[host.name] = "10.77.%d.%d" % (1 + number // 250, 1 + number % 250)
        threads = [threading.Thread(target=start_one, args=(host,)) for host in hosts if not host.absent]
        # A few at a time: they share the machine with each other.
        for index in range(0, len(threads), 8):
            for thread in threads[index : index + 8]:
                thread.start()
            for thread in threads[index : index + 8]:
                thread.join()
        if failures:
            raise Failure("\n".join(failures))

    def _start(self, host, prepare):
        address = self.addresses[host.name]
        base = self.directory / "hosts" / host.name
        self._place(base, host, address)
        if prepare:
            prepare(base)
        command = ["unshare", *NAMESPACES, "--fork", "--kill-child", "--"]
        with open(base / "log", "wb") as log:
            process = subprocess.Popen(
                command + ["/bin/sh", "-c", BOOT, "boot", str(base), host.name, address, self.layer_options],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=log,
            )
        self.hosts[host.name] = process
        self._await(process, base, "there")
        port = "port%d" % list(self.addresses).index(host.name)
        run("ip", "link", "add", port, "type", "veth", "peer", "name", "eth0", "netns", str(process.pid))
        run("ip", "link", "set", port, "master", "fleet0", "up")
        process.stdin.write(b"\n")
        process.stdin.flush()
        self._await(process, base, "up")
        self._await_connections(address)
        if host.deaf:
            os.kill(self._first(process), signal.SIGSTOP)

    @staticmethod
    def _await(process, base, word):
        if process.stdout.readline().decode().strip() != word:
            raise Failure("did not get %s: %s" % (word, (base / "log").read_text(encoding="utf-8", errors="replace")))

    @staticmethod
    def _await_connections(address):
        """sshd says nothing when it listens."""
        for _ in range(600):
            try:
                with socket.create_connection((address, 22), timeout=30):
                    return
            except ConnectionRefusedError:
                time.sleep(0.1)
        raise Failure("nobody takes connections at " + address)

    @staticmethod
    def _first(process):
        """The process that is number 1 in the host."""
        children = pathlib.Path("/proc/%d/task/%d/children" % (process.pid, process.pid)).read_text(encoding="ascii")
        return int(children.split()[0])

    def root(self, name):
        """The host's root directory."""
        return pathlib.Path("/proc/%d/root" % self._first(self.hosts[name]))

    def inside(self, name, *command, **options):
        """Runs a command in the host."""
        first = str(self._first(self.hosts[name]))
        enter_host = ["nsenter", *NAMESPACES, "--target", first, "--root", "--wdns=/"]
        return subprocess.run(enter_host + list(command), capture_output=True, text=True, check=False, **options)

    def complaints(self, name):
        return (self.root(name) / "var/lib/simhost/complaints").read_text(encoding="utf-8", errors="replace")

    def inventory(self, path, hosts, user=None):
        """Writes an Ansible inventory, and the host keys that go with it. user: instead of the hosts' own."""
        public = (self.directory / "host_key.pub").read_text(encoding="ascii").strip()
        lines, keys = ["[fleet]"], []
        for host in hosts:
            address = self.addresses[host.name]
            lines.append("%s ansible_host=%s ansible_user=%s" % (host.name, address, user or host.user))
            keys.append("%s %s\n" % (address, public))
        known_hosts = self.directory / "known_hosts"
        known_hosts.write_text("".join(keys), encoding="ascii")
        options = "-o UserKnownHostsFile=%s -o GlobalKnownHostsFile=/dev/null -o StrictHostKeyChecking=yes" % known_hosts
        lines += [
            "[fleet:vars]",
            "ansible_python_interpreter=/usr/bin/python3",
            "ansible_ssh_private_key_file=%s" % (self.directory / "user_key"),
            "ansible_ssh_common_args=%s -F none" % options,
        ]
        pathlib.Path(path).write_text("\n".join(lines) + "\n", encoding="ascii")
