#!/usr/bin/python3
"""Metrics of zddevices, read by Prometheus' own programs and by an independent parser.

Usage: metrics_test.py GROUP, where GROUP is the name of a test class without "Test". Programs and directories are named
by environment variables (see CMakeLists.txt).
"""
import json
import os
import random
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unicodedata
import unittest
import urllib.request

from prometheus_client.parser import text_string_to_metric_families

PROGRAM = os.environ["ZDDEVICES"]
SCRIPTED = os.environ["ZDDEVICES_SCRIPTED"]
BUILD = os.environ["ZDDEVICES_BUILD"]
TOOLS = os.environ["METRICS_TOOLS"]
SOURCES = os.environ["METRICS_SOURCES"]
PROMTOOL = os.path.join(TOOLS, "promtool")
EXPORTER = os.path.join(TOOLS, "prometheus-node-exporter")
WRITER = os.environ["METRICS_WRITER"]
EXPORTERS_DIRECTORY = "/var/lib/prometheus/node-exporter"

DEVICE_FIELDS = ["vendor", "product", "device_type", "serial_number", "firmware_revision", "port", "target", "bus", "lun"]
DEVICE_LABELS = {"vendor": "vendor", "product": "product", "type": "device_type", "serial": "serial_number",
                 "firmware": "firmware_revision"}
CLASSES = {"tape": "0", "scsi": "1", "disk": "2", "optical_class": "3"}
SCANS = [("tape", "devices"), ("scsi", "devices"), ("disk", "devices"), ("optical", "devices"), ("disk", "firmware"),
         ("optical", "capabilities")]


def device(**fields):
    return [fields.get(name, b"").hex() for name in DEVICE_FIELDS]


def drive(name, vendor=b"", product=b"", dvd_read=b"No"):
    return [text.hex() for text in (name, vendor, product, b"No", b"No", b"No", dvd_read, b"No", b"No", b"No", b"No")]


def answer(*records, status=0):
    return {"status": status, "records": list(records)}


def script(**answers):
    """What the scripted facade answers: by default that there is nothing."""
    calls = {name: answer(status=6) for name in (*CLASSES.values(), "optical")}
    calls.update({CLASSES.get(name, name): value for name, value in answers.items()})
    return calls


DISK = device(vendor=b"HALVARD ", product=b"HX 900          ", device_type=b"Direct Access Device",
              serial_number=b"HX-00001", firmware_revision=b"0102", port=b"6", target=b"1", bus=b"0", lun=b"0")
DVD = device(vendor=b"QEMU", product=b"QEMU DVD-ROM", device_type=b"CD-ROM Device", port=b"2", target=b"0", bus=b"0",
             lun=b"0")
ONE_OF_EACH = script(scsi=answer(DISK, DVD), disk=answer(DISK), optical_class=answer(DVD),
                     optical=answer(drive(b"/dev/sr0", b"QEMU", b"QEMU DVD-ROM", b"Yes")))


class Case(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.directory)

    def path(self, *parts):
        return os.path.join(self.directory, *parts)

    def write(self, name, text, mode=0o644):
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(self.path(name), mode)
        return self.path(name)

    def environment(self, answers=None, **more):
        environment = {**os.environ, "LC_ALL": "C", **more}
        if answers is not None:
            environment["ZDDEVICES_SCRIPT"] = self.write("script.json", json.dumps(answers))
        return environment

    def run_scripted(self, answers, *arguments, locale="C"):
        result = subprocess.run([SCRIPTED, "--format", "prometheus", *arguments], capture_output=True, check=False,
                                stdin=subprocess.DEVNULL, env=self.environment(answers, LC_ALL=locale))
        return result.returncode, result.stdout.decode(), result.stderr.decode()

    def exposition(self, answers, *arguments, **options):
        code, out, err = self.run_scripted(answers, *arguments, **options)
        self.assertEqual((code, err), (0, ""))
        self.assert_promtool_takes(out)
        return out

    def assert_promtool_takes(self, text):
        """Its remarks on style count as much as its errors."""
        result = subprocess.run([PROMTOOL, "check", "metrics"], input=text.encode(), capture_output=True, check=False)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""), text)


def samples(text, prefix="zendra_"):
    """Each sample's value by name and labels; no two may be the same."""
    found = {}
    for family in text_string_to_metric_families(text):
        for sample in family.samples:
            if sample.name.startswith(prefix):
                key = (sample.name, frozenset(sample.labels.items()))
                assert key not in found, key
                found[key] = sample.value
    return found


def labels_of(text, name):
    return [dict(labels) for sample, labels in samples(text) if sample == name]


INVISIBLE = {*"\u00ad\u034f\u061c\ufeff", *map(chr, range(0x200B, 0x2010)), *map(chr, range(0x202A, 0x202F)),
             *map(chr, range(0x2060, 0x2070))}


def label_text(text):
    """What a label says of a device's text, worked out a second time."""
    text = text.lstrip(b" \t\n\v\f\r").rstrip(bytes([*range(0x21), 0x7F]))
    shown = ""
    characters = text.decode("utf-8", "surrogateescape")
    for index, char in enumerate(characters):
        hidden = unicodedata.category(char) in ("Cc", "Cs", "Zl", "Zp") or char in INVISIBLE
        if hidden or characters[index:index + 2] == "\\x":
            shown += "".join(f"\\x{byte:02x}" for byte in char.encode("utf-8", "surrogateescape"))
        else:
            shown += char
    return shown


class ExpositionTest(Case):
    def test_everything_is_told_by_default_and_each_device_once(self):
        text = self.exposition(ONE_OF_EACH)
        self.assertEqual(labels_of(text, "zendra_device_info"), [
            {"device": "scripted-1-1", "address": "2:0:0:0", "type": "cd", "vendor": "QEMU", "product": "QEMU DVD-ROM",
             "serial": "", "firmware": "", "wwn": "", "ordinal": "1"},
            {"device": "scripted-1-0", "address": "6:0:1:0", "type": "disk", "vendor": "HALVARD", "product": "HX 900",
             "serial": "HX-00001", "firmware": "0102", "wwn": "", "ordinal": "1"}])
        self.assertEqual(labels_of(text, "zendra_disk_firmware_info"), [
            {"software_id": "HX 900", "version": "0102", "serial": "HX-00001", "ordinal": "1"}])
        self.assertEqual(labels_of(text, "zendra_optical_drive_info"), [
            {"drive": "/dev/sr0", "vendor": "QEMU", "product": "QEMU DVD-ROM", "ordinal": "1"}])
        capabilities = {dict(labels)["capability"]: value for (name, labels), value in samples(text).items()
                        if name == "zendra_optical_capability"}
        self.assertEqual({word for word, value in capabilities.items() if value == 1}, {"dvd_read"})
        self.assertEqual(len(capabilities), 8)

    def test_every_scan_has_status_completeness_and_duration(self):
        found = samples(self.exposition(ONE_OF_EACH))
        for device_class, asked in SCANS:
            labels = frozenset({"class": device_class, "asked": asked}.items())
            self.assertEqual(found["zendra_device_scan_status", labels], 6 if device_class == "tape" else 0)
            self.assertEqual(found["zendra_device_scan_complete", labels], 1)
            self.assertGreater(found["zendra_device_scan_seconds", labels], 0)
        self.assertEqual(len([name for name, _ in found if name == "zendra_device_scan_status"]), len(SCANS))

    def test_the_moment_is_now(self):
        before = int(time.time())
        moment = samples(self.exposition(script()))["zendra_device_scan_timestamp_seconds", frozenset()]
        self.assertTrue(before <= moment <= time.time())

    def test_a_class_or_a_subcommand_has_its_own_series_only(self):
        common = {"zendra_device_scan_status", "zendra_device_scan_seconds", "zendra_device_scan_complete",
                  "zendra_device_files_denied", "zendra_device_missing", "zendra_device_scan_timestamp_seconds"}
        for arguments, families, scans in (
                (["--type", "disk"], {"zendra_device_info"}, [("disk", "devices")]),
                (["firmware"], {"zendra_disk_firmware_info"}, [("disk", "firmware")]),
                (["optical"], {"zendra_optical_drive_info", "zendra_optical_capability"},
                 [("optical", "capabilities")])):
            text = self.exposition(ONE_OF_EACH, *arguments)
            self.assertEqual({name for name, _ in samples(text)}, (families | common) - {"zendra_device_missing"})
            self.assertEqual(set(re.findall(r"^# TYPE (\S+) gauge$", text, re.MULTILINE)), families | common)
            self.assertEqual([(labels["class"], labels["asked"])
                              for labels in labels_of(text, "zendra_device_scan_status")], scans)

    def test_one_class_is_not_merged(self):
        zeros = device(product=b"P", port=b"0", target=b"0", bus=b"0", lun=b"0")
        text = self.exposition(script(disk=answer(zeros, DISK, zeros, DISK)), "--type", "disk")
        self.assertEqual([(labels["product"], labels["address"], labels["ordinal"])
                          for labels in labels_of(text, "zendra_device_info")],
                         [("P", "", "1"), ("HX 900", "6:0:1:0", "1"), ("P", "", "1"), ("HX 900", "6:0:1:0", "1")])

    def test_a_time_limit_changes_no_series_but_those_of_time(self):
        def steady(text):
            return {key: value for key, value in samples(text).items()
                    if key[0] not in ("zendra_device_scan_seconds", "zendra_device_scan_timestamp_seconds")}
        self.assertEqual(steady(self.exposition(ONE_OF_EACH, "--timeout", "60")),
                         steady(self.exposition(ONE_OF_EACH)))

    def test_a_scan_that_gives_no_answer_is_incomplete_and_the_others_stand(self):
        broken = {**ONE_OF_EACH, CLASSES["tape"]: {"throw": "bang"}, CLASSES["disk"]: {"throw": "bang"}}
        code, text, err = self.run_scripted(broken, "--timeout", "60")
        self.assertEqual(code, 3)
        self.assertRegex(err, r"class tape: .*\n.*class disk: ")
        self.assert_promtool_takes(text)
        found = samples(text)
        for device_class, asked in SCANS:
            labels = frozenset({"class": device_class, "asked": asked}.items())
            complete = (device_class, asked) not in (("tape", "devices"), ("disk", "devices"), ("disk", "firmware"))
            self.assertEqual(found["zendra_device_scan_complete", labels], complete)
            self.assertEqual(("zendra_device_scan_status", labels) in found, complete)
            self.assertIn(("zendra_device_scan_seconds", labels), found)
        self.assertEqual(len(labels_of(text, "zendra_device_info")), 2)
        self.assertEqual(labels_of(text, "zendra_disk_firmware_info"), [])

    def test_a_class_that_hangs_is_waited_for_no_longer_than_asked(self):
        code, text, _ = self.run_scripted({**ONE_OF_EACH, CLASSES["scsi"]: {"hang": True}}, "--timeout", "5")
        self.assertEqual(code, 3)
        self.assert_promtool_takes(text)
        found = samples(text)
        labels = frozenset({"class": "scsi", "asked": "devices"}.items())
        self.assertEqual(found["zendra_device_scan_complete", labels], 0)
        # The limit begins to run before the workers are started.
        self.assertGreaterEqual(found["zendra_device_scan_seconds", labels], 4)
        self.assertLess(found["zendra_device_scan_seconds", labels], 20)
        self.assertEqual([one["vendor"] for one in labels_of(text, "zendra_device_info")], ["QEMU", "HALVARD"])

    def test_a_failed_scan_is_a_failure(self):
        code, _, err = self.run_scripted(script(disk=answer(status=5)))
        self.assertEqual((code, err), (1, "zddevices: the scan failed: DEV_FAILURE (5)\n"))

    def check_texts(self, text, locale):
        devices = [{name: text() for name in DEVICE_FIELDS[:5]} for _ in range(80)]
        out = self.exposition(script(disk=answer(*[device(**one) for one in devices])), "--type", "disk", locale=locale)
        self.assertEqual([{label: found[label] for label in DEVICE_LABELS}
                          for found in labels_of(out, "zendra_device_info")],
                         [{label: label_text(one[field]) for label, field in DEVICE_LABELS.items()} for one in devices])

        drives = [(text(), text(), text()) for _ in range(20)]
        code, out, _ = self.run_scripted(script(optical=answer(*[drive(*one) for one in drives])), "optical",
                                         locale=locale)
        self.assertEqual(code, 0)
        self.assert_promtool_takes(out)
        self.assertEqual([(found["drive"], found["vendor"], found["product"])
                          for found in labels_of(out, "zendra_optical_drive_info")],
                         [tuple(label_text(part) for part in one) for one in drives])

    def test_random_texts_come_out_as_labels_and_nothing_else(self):
        pieces = [b"A", b"disk ", b" ", b"\\", b"\\x", b"\\n", b"\"", b"\"} 1\n", b"\n", b"\r\n", b"\x1b[2J", b"\x7f",
                  b"\x00", "\u202e".encode(), "\u200b".encode(), "\ufeff".encode(), "é日💾".encode(), b"\xed\xa0\x80",
                  b"\xc0\x80", b"\xe2\x80", b"\xff", b"# HELP ", b"{{", b","]
        generator = random.Random(6)

        def text():
            return b"".join(generator.choice(pieces) if generator.random() < 0.6 else bytes([generator.randrange(256)])
                            for _ in range(generator.randrange(10)))
        for _ in range(5):
            self.check_texts(text, "C")
            self.check_texts(text, "C.UTF-8")

    def test_the_real_program_gives_an_exposition_on_this_host(self):
        for arguments in ([], ["--timeout", "60"], ["--type", "disk"], ["optical"], ["firmware"]):
            result = subprocess.run([PROGRAM, "-f", "prometheus", *arguments], capture_output=True, text=True,
                                    check=False)
            self.assertIn(result.returncode, (0, 3))
            self.assert_promtool_takes(result.stdout)
            self.assertTrue(samples(result.stdout))


class Writing(Case):
    def setUp(self):
        super().setUp()
        os.mkdir(self.path("out"))

    def write_metrics(self, answers, **more):
        """What the writer leaves for the exporter."""
        subprocess.run([WRITER, self.path("out")], check=True, stderr=subprocess.DEVNULL,
                       env=self.environment(answers, ZDDEVICES=SCRIPTED, RUNTIME_DIRECTORY=self.path("run"), **more))
        with open(self.path("out", "zddevices.prom"), encoding="utf-8") as file:
            return file.read()


class ExporterTest(Writing):
    """A node exporter on a port of the loopback interface, with nothing but its textfile collector."""

    def setUp(self):
        super().setUp()
        for _ in range(10):
            # Somebody else may take the port before the exporter does.
            if self.start():
                return
        with open(self.path("exporter.log"), encoding="utf-8") as log:
            self.fail("the node exporter does not start:\n" + log.read())

    def start(self):
        with socket.create_server(("127.0.0.1", 0)) as probe:
            self.port = probe.getsockname()[1]
        with open(self.path("exporter.log"), "wb") as log:
            exporter = subprocess.Popen(
                [EXPORTER, "--collector.disable-defaults", "--collector.textfile",
                 "--collector.textfile.directory=" + self.path("out"), f"--web.listen-address=127.0.0.1:{self.port}"],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.addCleanup(self.stop, exporter)
        for _ in range(600):
            if exporter.poll() is not None:
                return False
            try:
                socket.create_connection(("127.0.0.1", self.port)).close()
                return True
            except ConnectionRefusedError:
                time.sleep(0.05)
        return False

    @staticmethod
    def stop(process):
        process.kill()
        process.wait()

    def scrape(self):
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(f"http://127.0.0.1:{self.port}/metrics", timeout=60) as response:
            return response.read().decode()

    def scrape_error(self):
        return samples(self.scrape(), "node_textfile_scrape_error")["node_textfile_scrape_error", frozenset()]

    def test_a_scrape_holds_exactly_what_was_written(self):
        hostile = device(vendor=b"\x1b[31m", product=b"a\"b\\c\nd\xff", serial_number="é日💾".encode(), port=b"9")
        text = self.write_metrics({**ONE_OF_EACH, CLASSES["disk"]: answer(DISK, hostile)})
        scraped = self.scrape()
        self.assertEqual(samples(scraped), samples(text))
        self.assertEqual(len(labels_of(scraped, "zendra_device_info")), 3)
        self.assertEqual(self.scrape_error(), 0)
        self.assertEqual([dict(labels)["file"] for _, labels in samples(scraped, "node_textfile_mtime_seconds")],
                         [self.path("out", "zddevices.prom")])

    def test_the_next_run_replaces_the_series_of_the_last(self):
        self.write_metrics(ONE_OF_EACH)
        self.assertEqual(len(labels_of(self.scrape(), "zendra_device_info")), 2)
        self.write_metrics(script())
        self.assertEqual(labels_of(self.scrape(), "zendra_device_info"), [])

    def test_a_file_that_is_being_written_is_not_read(self):
        text = self.write_metrics(ONE_OF_EACH)
        self.write(os.path.join("out", ".zddevices.prom.new"), text[:len(text) // 2])
        self.assertEqual(samples(self.scrape()), samples(text))
        self.assertEqual(self.scrape_error(), 0)

    def test_half_a_file_would_have_been_noticed(self):
        text = self.write_metrics(ONE_OF_EACH)
        self.write(os.path.join("out", "zddevices.prom"), text[:text.index("HALVARD")])
        self.assertEqual(self.scrape_error(), 1)

    def test_the_units_write_where_debians_exporter_reads(self):
        result = subprocess.run([EXPORTER, "--help"], capture_output=True, text=True, check=False)
        # Debian 12's puts it in quotes, Debian 13's dots behind it.
        self.assertRegex(re.sub(r"\s+", "", result.stdout + result.stderr),
                         f'--collector.textfile.directory="?{re.escape(EXPORTERS_DIRECTORY)}[".]')


class UnitsTest(Case):
    def setUp(self):
        super().setUp()
        subprocess.run(["cmake", "--install", BUILD, "--component", "tools"], check=True, stdout=subprocess.DEVNULL,
                       env={**os.environ, "DESTDIR": self.path("root")})
        self.installed = [os.path.join(directory, name) for directory, _, names in os.walk(self.path("root"))
                          for name in names]

    def find(self, ending):
        found = [path for path in self.installed if path.endswith(ending)]
        self.assertEqual(len(found), 1, (ending, self.installed))
        return found[0]

    def unit(self, kind):
        with open(self.find("/lib/systemd/system/zddevices-textfile." + kind), encoding="utf-8") as file:
            return file.read()

    def test_the_service_names_the_programs_that_are_installed(self):
        unit = self.unit("service")
        self.assertEqual(re.findall(r"@[A-Z_]+@", unit), [])
        program = re.search(r"^ExecStart=(\S+) (\S+)", unit, re.MULTILINE)
        self.assertEqual(self.path("root") + program[1], self.find("/zddevices-textfile"))
        self.assertTrue(os.access(self.find("/zddevices-textfile"), os.X_OK))
        self.assertEqual(program[2], EXPORTERS_DIRECTORY)
        self.assertEqual(self.path("root") + re.search(r"^Environment=ZDDEVICES=(\S+)$", unit, re.MULTILINE)[1],
                         self.find("sbin/zddevices"))
        self.assertIn(f"ReadWritePaths=-{EXPORTERS_DIRECTORY}\n", unit)

    def test_nothing_is_enabled(self):
        self.unit("timer")
        self.assertEqual([path for path in self.installed if ".wants/" in path or ".requires/" in path], [])

    def write_units(self):
        """The units as they would stand on a host, which is here a directory."""
        service = self.unit("service").replace("ExecStart=", "ExecStart=" + self.path("root"))
        for name in ("zddevices-textfile-driver.service", "zddevices-textfile.timer"):
            shutil.copy(self.find(name), self.path(name))
        return [self.write("zddevices-textfile.service", service), self.path("zddevices-textfile-driver.service"),
                self.path("zddevices-textfile.timer")]

    def analyze(self, *arguments):
        return subprocess.run(["systemd-analyze", *arguments], capture_output=True, text=True, check=False)

    def test_systemd_has_nothing_to_object(self):
        result = self.analyze("verify", "--man=no", *self.write_units())
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))

    def test_the_service_is_shut_in(self):
        # In tenths; 96 is a service that may do everything. Root that may do little but talk to devices has 18.
        result = self.analyze("security", "--offline=true", "--threshold=19", self.write_units()[0])
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)


def disk(serial, firmware=b"0102"):
    return device(vendor=b"HALVARD", product=b"HX 900", device_type=b"Direct Access Device", serial_number=serial,
                  firmware_revision=firmware, port=b"6", target=serial[-1:], bus=b"0", lun=b"0")


class Promtool(Writing):
    rules = os.path.join(SOURCES, "zddevices.rules.yml")

    def promtool(self, *arguments):
        return subprocess.run([PROMTOOL, *arguments], capture_output=True, text=True, check=False)

    def known(self):
        """The names of the series that there are."""
        return {name for name, _ in samples(self.exposition(ONE_OF_EACH))}


class RulesTest(Promtool):
    """Two files of the writer, the second in the place of the first after 200 minutes, and what is said of them when."""
    minutes = 200

    def test_the_rules_are_rules(self):
        result = self.promtool("check", "rules", self.rules)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def series(self, host, before, after):
        """promtool's notation; the scan's moments are minutes since the beginning, so that they stand in its time."""
        found = [samples(text) if text else {} for text in (before, after)]
        for key in sorted(found[0].keys() | found[1].keys(), key=str):
            name, labels = key
            if name == "zendra_device_scan_seconds":
                continue
            words = [f"{label}={json.dumps(value, ensure_ascii=False)}" for label, value in sorted(labels)]
            values = [f"{found[0][key]}x{self.minutes - 1}" if key in found[0] else f"_x{self.minutes}"]
            values.append(f"{found[1][key]}x{self.minutes}" if key in found[1] else "stale")
            if name == "zendra_device_scan_timestamp_seconds":
                values = [f"0+60x{self.minutes - 1}"] + ([f"{self.minutes * 60}x{2 * self.minutes}"] if after else ["stale"])
            series = f"{name}{{{','.join([*words, f'instance={json.dumps(host)}'])}}}"
            yield {"series": series, "values": " ".join(values)}

    def check(self, hosts, expected, firmware=None, versions=1):
        """expected: minutes after the second file came, alert, and its labels and words, or nothing. firmware: how many
        disks tell theirs at first, and versions: how many there are of it."""
        series = [one for host, texts in hosts.items() for one in self.series(host, *texts)]
        alerts = []
        for minute, name, *found in expected:
            alerts.append({"eval_time": f"{self.minutes + minute}m", "alertname": name, "exp_alerts": [
                {"exp_labels": labels, "exp_annotations": {"summary": words}} for labels, words in found]})
        # JSON is YAML.
        tests = json.dumps({"rule_files": [self.rules], "evaluation_interval": "1m", "tests": [
            {"interval": "1m", "input_series": series, "alert_rule_test": alerts, "promql_expr_test": [
                {"expr": "sum(zendra:disk_firmware:count)", "eval_time": "60m",
                 "exp_samples": [{"labels": "{}", "value": firmware or len(hosts)}]},
                {"expr": "count(zendra:disk_firmware:count)", "eval_time": "60m",
                 "exp_samples": [{"labels": "{}", "value": versions}]}]}]})
        result = self.promtool("test", "rules", self.write("tests.yml", tests))
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def written(self, *disks, **answers):
        return self.write_metrics({**ONE_OF_EACH, "2": answer(*disks), "1": answer(*disks), **answers})

    def test_a_device_that_is_gone_new_or_has_other_firmware_is_named(self):
        before = self.written(disk(b"S1"), disk(b"S2"), disk(b"S3"))
        after = self.written(disk(b"S1"), disk(b"S3", b"0103"), disk(b"S4"))
        gone = {"severity": "warning", "instance": "a", "serial": "S2"}, "a: the device with the serial number S2 is gone"
        new = {"severity": "info", "instance": "a", "serial": "S4"}, "a: the device with the serial number S4 is new"
        changed = ({"severity": "info", "instance": "a", "serial": "S3", "firmware": "0103"},
                   "a: the device with the serial number S3 runs firmware 0103 now")
        self.check({"a": (before, after), "b": (before, before)}, [
            (-1, "StorageDeviceGone"), (2, "StorageDeviceGone", gone), (190, "StorageDeviceGone", gone),
            (-1, "StorageDeviceNew"), (2, "StorageDeviceNew", new), (55, "StorageDeviceNew", new),
            (65, "StorageDeviceNew"),
            (-1, "StorageFirmwareChanged"), (2, "StorageFirmwareChanged", changed),
            (55, "StorageFirmwareChanged", changed), (65, "StorageFirmwareChanged")], firmware=6)

    def test_labels_that_a_host_makes_up_cost_no_other_host_its_alerts(self):
        text = "{{ $externalURL }} {{ 7 }}"
        series = []
        for host, more in (("good", [""]), ("bad", ['severity="1",', 'severity="2",', 'alertname="x",'])):
            for labels in more:
                for name, own, values in (("zendra_device_missing", f'device_file="{text}",reason="denied",', "1x200"),
                                          ("zendra_device_scan_complete", f'class="{text}",asked="disk",', "0x200"),
                                          ("zendra_device_scan_timestamp_seconds", "", "1x200 stale")):
                    series.append({"series": f'{name}{{{own}{labels}instance="{host}"}}', "values": values})

        def expected(minute, name, words, **labels):
            return {"eval_time": f"{minute}m", "alertname": name, "exp_alerts": [
                {"exp_labels": {"severity": "warning", "instance": host, **labels},
                 "exp_annotations": {"summary": f"{host}: {words}"}} for host in ("bad", "good")]}

        alerts = [
            expected(190, "StorageDeviceSilent", text + " gives no answer (denied)", device_file=text, reason="denied"),
            expected(190, "StorageScanIncomplete", f"devices of the class {text} do not answer", **{"class": text, "asked": "disk"}),
            expected(190, "StorageInventoryOld", "the storage devices were last listed 3h 9m 59s ago"),
            expected(230, "StorageHostSilent", "tells nothing of its storage devices any more")]
        tests = json.dumps({"rule_files": [self.rules], "evaluation_interval": "1m", "tests": [
            {"interval": "1m", "input_series": series, "alert_rule_test": alerts}]})
        result = self.promtool("test", "rules", self.write("tests.yml", tests))
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_devices_without_a_serial_number_or_a_firmware_are_not_told_of(self):
        more = self.written(disk(b"S1"), disk(b""), disk(b"S2"))
        # Without the drive, which has no serial number either.
        less = self.written(disk(b"S1"), disk(b"S2", b""), **{CLASSES["optical_class"]: answer(status=6)})
        self.check({"a": (more, less), "b": (less, more)}, [
            (2, "StorageDeviceGone"), (2, "StorageDeviceNew"), (2, "StorageFirmwareChanged")], firmware=5, versions=2)

    def test_a_host_that_was_never_seen_has_no_new_devices(self):
        self.check({"a": (self.written(disk(b"S1")),) * 2}, [(-190, "StorageDeviceNew"), (-100, "StorageDeviceNew")])

    def test_an_incomplete_scan_is_told_and_makes_nothing_gone_or_new(self):
        whole = self.written(disk(b"S1"), disk(b"S2"))
        part = self.write_metrics({**ONE_OF_EACH, "2": {"hang": True}, "1": answer(disk(b"S1"))}, ZDDEVICES_SECONDS="2")
        self.assertEqual(samples(part)["zendra_device_scan_complete",
                                       frozenset({"class": "disk", "asked": "devices"}.items())], 0)
        told = ({"severity": "warning", "class": "disk", "asked": "devices"}, "devices of the class disk do not answer")

        def of(host):
            return {**told[0], "instance": host}, f"{host}: {told[1]}"
        self.check({"a": (whole, part), "b": (part, whole)}, [
            (-85, "StorageScanIncomplete"), (-75, "StorageScanIncomplete", of("b")),
            (110, "StorageScanIncomplete"), (125, "StorageScanIncomplete", of("a")),
            (2, "StorageDeviceGone"), (100, "StorageDeviceGone"), (2, "StorageDeviceNew")])

    def test_a_device_that_gives_no_answer_is_told_and_makes_nothing_gone(self):
        whole = self.written(disk(b"S1"), disk(b"S2"))
        part = self.written(disk(b"S1")) + 'zendra_device_missing{device_file="/dev/sdb",reason="offline"} 1\n'
        told = ({"severity": "warning", "instance": "a", "device_file": "/dev/sdb", "reason": "offline"},
                "a: /dev/sdb gives no answer (offline)")
        self.check({"a": (whole, part)}, [(110, "StorageDeviceSilent"), (125, "StorageDeviceSilent", told),
                                          (2, "StorageDeviceGone"), (100, "StorageDeviceGone")], firmware=2)

    def test_an_old_file_and_a_silent_host_are_told(self):
        text = self.written(disk(b"S1"))
        silent = {"severity": "warning", "instance": "b"}, "b: tells nothing of its storage devices any more"
        old = {"severity": "warning", "instance": "a"}, "a: the storage devices were last listed 3h 5m 0s ago"
        self.check({"a": (text, text), "b": (text, "")}, [
            (170, "StorageInventoryOld"), (185, "StorageInventoryOld", old),
            (-1, "StorageHostSilent"), (10, "StorageHostSilent"), (20, "StorageHostSilent", silent),
            (190, "StorageHostSilent", silent)])

    def test_the_rules_ask_for_series_that_there_are(self):
        with open(self.rules, encoding="utf-8") as file:
            asked = set(re.findall(r"\bzendra_\w+", file.read()))
        self.assertTrue(asked)
        self.assertLessEqual(asked, self.known() | {"zendra_device_missing"})


class DashboardTest(Promtool):
    """What Grafana takes for a dashboard, as far as that can be told without it."""

    def setUp(self):
        super().setUp()
        with open(os.path.join(SOURCES, "zddevices.dashboard.json"), encoding="utf-8") as file:
            self.dashboard = json.load(file)

    def test_it_is_a_dashboard(self):
        self.assertIsInstance(self.dashboard["schemaVersion"], int)
        self.assertGreaterEqual(self.dashboard["schemaVersion"], 36)
        self.assertRegex(self.dashboard["uid"], r"^[\w-]{1,40}$")
        self.assertEqual({"from", "to"}, set(self.dashboard["time"]))
        self.assertTrue(self.dashboard["title"])
        self.assertNotIn("id", self.dashboard, "the number in a Grafana that it came from")

    def test_its_panels_have_their_own_place(self):
        panels = self.dashboard["panels"]
        self.assertEqual(len({panel["id"] for panel in panels}), len(panels))
        taken = set()
        for panel in panels:
            self.assertIn(panel["type"], ("stat", "table", "timeseries"))
            self.assertTrue(panel["title"])
            place = panel["gridPos"]
            self.assertLessEqual(place["x"] + place["w"], 24)
            cells = {(x, y) for x in range(place["x"], place["x"] + place["w"])
                     for y in range(place["y"], place["y"] + place["h"])}
            self.assertTrue(cells)
            self.assertEqual(cells & taken, set(), panel["title"])
            taken |= cells
            self.assertTrue(panel["targets"])
            self.assertEqual(len({target["refId"] for target in panel["targets"]}), len(panel["targets"]))

    def test_its_variables_are_there(self):
        variables = {one["name"] for one in self.dashboard["templating"]["list"]}
        used = set(re.findall(r"\$\{?(\w+)", json.dumps(self.dashboard["panels"])))
        self.assertEqual(used, variables)

    def test_each_question_is_one_and_asks_for_series_that_there_are(self):
        known = self.known()
        with open(self.rules, encoding="utf-8") as file:
            alerts = re.findall(r"alert: (\w+)", file.read())
        questions = [target["expr"] for panel in self.dashboard["panels"] for target in panel["targets"]]
        self.assertGreater(len(questions), 8)
        for number, question in enumerate(questions):
            asked = set(re.findall(r"\bzendra_\w+", question))
            self.assertLessEqual(asked, known)
            if not asked:
                pattern = re.fullmatch(r'ALERTS\{alertname=~"([^"]+)".*\}', question)[1]
                self.assertTrue(all(re.fullmatch(pattern, name) for name in alerts), pattern)
        rules = {"groups": [{"name": "questions", "rules": [
            {"record": f"question:{number}", "expr": question.replace("$instance", ".*")}
            for number, question in enumerate(questions)]}]}
        result = self.promtool("check", "rules", self.write("questions.yml", json.dumps(rules)))
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn(f"{len(questions)} rules found", result.stdout)


if __name__ == "__main__":
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(globals()[sys.argv[1] + "Test"])
    outcome = unittest.TextTestRunner(verbosity=2).run(suite)
    sys.exit(0 if outcome.wasSuccessful() and outcome.testsRun > 0 else 1)
