"""What a run of Ansible costs its controller: time, processor time and memory."""
import os
import pathlib
import subprocess
import threading
import time

TICKS = os.sysconf("SC_CLK_TCK")
MEBIBYTE = 1 << 20


def is_controllers(process):
    try:
        command = (process / "cmdline").read_bytes()
    except OSError:
        return False
    return b"ansible-playbook" in command or command.startswith(b"ssh")


def controllers():
    return [p for p in pathlib.Path("/proc").iterdir() if p.name.isdigit() and is_controllers(p)]


def proportional(process):
    try:
        for line in (process / "smaps_rollup").read_text(encoding="ascii").splitlines():
            if line.startswith("Pss:"):
                return int(line.split()[1]) << 10
    except OSError:
        pass
    return 0


def processor_time(process):
    try:
        fields = (process / "stat").read_text(encoding="utf-8").rpartition(")")[2].split()
    except OSError:
        return 0.0
    return (int(fields[11]) + int(fields[12])) / TICKS


def observe(ansible, name, output=subprocess.DEVNULL, **variables):
    """Runs a playbook; what it took. Only this program's Ansible and ssh may be in its process namespace."""
    peak, done = [0], threading.Event()

    def look():
        while not done.wait(0.25):
            peak[0] = max(peak[0], sum(proportional(process) for process in controllers()))

    watcher = threading.Thread(target=look)
    begin = time.monotonic()
    arguments = ansible.playbook_arguments(name, ansible.inventory, variables)
    process = ansible.start("ansible-playbook", *arguments, stdout=output)
    watcher.start()
    _, status, usage = os.wait4(process.pid, 0)
    seconds = time.monotonic() - begin
    done.set()
    watcher.join()
    process.returncode = status
    if status != 0:
        raise SystemExit("the playbook failed")
    # Connections that outlive the playbook are the controller's too.
    lasting = sum(processor_time(one) for one in controllers())
    return {
        "seconds": seconds,
        "processor": usage.ru_utime + usage.ru_stime + lasting,
        "main": usage.ru_maxrss << 10,
        "peak": peak[0],
    }


def row(*cells):
    print("| " + " | ".join(str(cell) for cell in cells) + " |", flush=True)


def header(*cells):
    print()
    row(*cells)
    row(*("---" for _ in cells))


def figures(cost):
    return (
        "%.0f" % cost["seconds"],
        "%.1f" % cost["processor"],
        "%.0f" % (cost["main"] / MEBIBYTE),
        "%.0f" % (cost["peak"] / MEBIBYTE),
    )
