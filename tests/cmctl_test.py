#!/usr/bin/env python3
"""cmctl driven as a process against a private device tree, as a person would.

Usage: cmctl_test.py PATH_TO_CMCTL [unittest options]

Every test makes its own temporary root, so the suite runs in parallel with
any other.
"""

import json
import os
import resource
import select
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import unittest

CMCTL = None
GENERAL = "/var/AppData/config/CMF_GeneralData"
NETWORK = "/var/AppData/config/CMF_NetworkData"


class Tree(unittest.TestCase):
    """A device tree set up by a master start (check --repair)."""

    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="cmctl-test-")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)
        self.ok("check", "--repair")

    def run_cmctl(self, *args, stdin=None, user=None, timeout=60, preexec=None):
        def drop():
            os.setgid(65534)
            os.setuid(65534)
        return subprocess.run([CMCTL, "--root", self.root, *args], input=stdin, capture_output=True, text=True,
                              timeout=timeout, preexec_fn=drop if user else preexec)

    def ok(self, *args, **kw):
        r = self.run_cmctl(*args, **kw)
        self.assertEqual(r.returncode, 0, "cmctl %s: %s" % (" ".join(args), r.stderr))
        return r.stdout

    def fails(self, status, *args, **kw):
        r = self.run_cmctl(*args, **kw)
        self.assertEqual(r.returncode, status, "cmctl %s: %s" % (" ".join(args), r.stderr))
        return r.stderr

    def json(self, *args):
        return json.loads(self.ok("--json", *args))

    def get(self, *names):
        return self.ok("get", *names).splitlines()

    def path(self, device_path):
        return os.path.join(self.root, device_path.lstrip("/"))

    def write(self, name, text):
        p = os.path.join(self.root, name)
        with open(p, "w") as f:
            f.write(text)
        return p

    def read_line(self, stream, timeout=20):
        ready, _, _ = select.select([stream], [], [], timeout)
        self.assertTrue(ready, "no output within %d s" % timeout)
        return stream.readline().rstrip("\n")


class Usage(Tree):
    def test_lookups_exit_statuses_and_suggestions(self):
        info = self.json("info", "UNIT_NAME")
        self.assertEqual([(i["id"], i["type"], i["size"], i["max"], i["default"]) for i in info],
                         [(3254, "string", 44, 43, "Unknown")])
        self.assertIn("SNMP_READ_COMMUNITY_2", [v["name"] for v in self.json("find", "SNMP_READ_COMMUNITY")])
        cases = [
            (["get", "UNIT_NAM"], 1, "UNIT_NAM: no such variable (did you mean UNIT_NAME?)"),
            (["sett", "UNIT_NAME", "x"], 2, "unknown subcommand 'sett' (did you mean set?)"),
            (["find", "NO_SUCH_THING"], 1, ""),
            (["diff", "/no/such/file"], 2, "cannot read"),
            (["get"], 2, ""),
            (["defaults", "sometimes"], 2, ""),
            (["defaults", "general"], 1, "add -y"),
            (["--version"], 0, ""),
        ]
        for args, status, message in cases:
            with self.subTest(args=args):
                self.assertIn(message, self.fails(status, *args))

    def test_second_master_refuses(self):
        proc = subprocess.Popen([CMCTL, "--root", self.root, "master"], stderr=subprocess.PIPE, text=True)
        self.addCleanup(lambda: (proc.poll() is None and proc.kill(), proc.wait(), proc.stderr.close()))
        self.assertIn("master running", self.read_line(proc.stderr))
        self.assertIn("another master is already running", self.fails(1, "master", timeout=20))
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=20), 0)


class CheckedWrites(Tree):
    REFUSED = [  # name, value, message; nothing may be written
        ("UNIT_NAME", "x" * 44, "text longer than 43 characters"),
        ("MTU_VALUE", "9000", "out of range 1280..1500"),
        ("MTU_VALUE", "abc", "not a number"),
        ("SNMP_MODE", "300", "does not fit"),
        ("SNMP_MODE", "- 1", "not a number"),
        ("IP4_SNMP_MGR", "2001:db8::1", "not an IPv4 address"),
        ("IP6_SNMP_MGR", "10.0.0.256", "not an IPv6 address"),
        ("MAC1_ADDRESS", "0x00112233", "16 hexadecimal digits"),
        ("MAC1_ADDRESS", "0x0011223344556677", "last 2 must be 00"),
        ("NO_SUCH_VAR", "1", "no such variable"),
    ]

    def snapshot(self):
        return self.ok("export", "--volatile")

    def test_each_refusal_is_reported_with_its_line_and_nothing_is_written(self):
        before = self.snapshot()
        lines = ["# a comment", "UNIT_NAME = written-if-all-good"] + ["%s = %s" % (n, v) for n, v, _ in self.REFUSED]
        backup = ["SOFTWARE_VERSION : 1", "UNIT_NAME : written-if-all-good"] + \
                 ["%s : %s" % (n, v) for n, v, _ in self.REFUSED if n != "NO_SUCH_VAR"]
        forms = [
            ("import", self.write("import.txt", "\n".join(lines) + "\n"), 3),
            ("restore", self.write("backup.txt", "\n".join(backup) + "\n"), 3),
        ]
        for verb, path, first in forms:
            with self.subTest(verb):
                err = self.fails(1, verb, path)
                for n, (name, _, message) in enumerate(r for r in self.REFUSED if verb == "import" or r[0] != "NO_SUCH_VAR"):
                    self.assertIn("%s:%d: %s" % (path, first + n, name), err)
                    self.assertIn(message, err)
                self.assertIn("nothing written", err)
        args = ["%s=%s" % (n, v) for n, v, _ in self.REFUSED]
        err = self.fails(1, "set", "UNIT_NAME=x", *args)
        for n, (name, _, message) in enumerate(self.REFUSED):
            self.assertIn("argument:%d: %s" % (n + 2, name), err)
        malformed = [('UNIT_NAME = "no end', "no closing quote"), ('UNIT_NAME = "\\q"', "unknown escape \\q"),
                     ("just words", "not NAME = value"), ('UNIT_NAME = "a" b', "text after the closing quote")]
        path = self.write("malformed.txt", "UNIT_NAME = ok\n" + "\n".join(line for line, _ in malformed) + "\n")
        err = self.fails(1, "import", path)
        for n, (_, message) in enumerate(malformed):
            self.assertIn("%s:%d: %s" % (path, n + 2, message), err)
        self.assertEqual(self.snapshot(), before)

    def test_multi_set_reset_dry_run_and_filter(self):
        self.ok("set", "UNIT_NAME=lab gw", "MTU_VALUE=1400", "IP6_SNMP_MGR=2001:db8::1")
        self.assertEqual(self.get("UNIT_NAME", "MTU_VALUE", "IP6_SNMP_MGR"), ["lab gw", "1400", "2001:db8::1"])
        self.assertEqual(self.json("get", "MTU_VALUE", "UNIT_NAME"), {"MTU_VALUE": 1400, "UNIT_NAME": "lab gw"})
        self.ok("set", "--dry-run", "MTU_VALUE=1300")
        self.ok("reset", "UNIT_NAME", "IP6_SNMP_MGR")
        self.assertEqual(self.get("UNIT_NAME", "MTU_VALUE", "IP6_SNMP_MGR"), ["Unknown", "1400", ""])
        backup = self.write("b.txt", "SOFTWARE_VERSION : 1\nUNIT_NAME : restored\nMTU_VALUE : 1300\n")
        self.ok("restore", "--dry-run", backup)
        self.assertIn("cannot read", self.fails(1, "restore", "--filter", "/no/such/filter", backup))
        self.ok("restore", "--filter", self.write("filter.txt", "MTU_\n"), backup)
        self.assertEqual(self.get("UNIT_NAME", "MTU_VALUE"), ["restored", "1400"])
        self.assertEqual([d["name"] for d in json.loads(self.run_cmctl("--json", "diff", backup).stdout)],
                         ["MTU_VALUE"])
        self.fails(1, "diff", backup)


class Backup(Tree):
    def test_backup_restores_what_it_saved_and_a_failed_write_is_an_error(self):
        self.ok("set", "UNIT_NAME=backed up", "MTU_VALUE=1300")
        path = os.path.join(self.root, "b.txt")
        self.ok("backup", path)
        self.assertEqual(self.ok("backup", "-"), open(path).read())
        self.ok("reset", "UNIT_NAME", "MTU_VALUE")
        differ = json.loads(self.run_cmctl("--json", "diff", path).stdout)
        self.assertEqual(sorted(d["name"] for d in differ), ["MTU_VALUE", "UNIT_NAME"])
        self.ok("restore", path)
        self.assertEqual(self.get("UNIT_NAME", "MTU_VALUE"), ["backed up", "1300"])
        self.assertEqual(self.ok("show", "MTU_"), "MTU_VALUE = 1300\n")

        def small_files():  # every file larger than 1000 bytes fails to be written
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000))
        r = self.run_cmctl("backup", path, preexec=small_files)
        self.assertEqual((r.returncode, "backup to '%s' failed" % path in r.stderr), (1, True), r.stderr)


class ExportImport(Tree):
    VALUES = [  # one of each kind, away from its default
        "UNIT_NAME= padded\ttab \\ \"quoted\" ",
        "REMOTE_LOG_ADDRESS=caf\u00e9\nline",
        "MAC1_ADDRESS=0xAABBCCDDEEFF0000",
        "WAN_STREAMS_ERRCODE=0x" + "5A" * 190,
        "CURRENT_FILE_TRANSFER_PASSWORD=s3cret",
        "IP6_SNMP_MGR=2001:db8::7",
        "IP4_SNMP_MGR=192.0.2.7",
        "MTU_VALUE=1280",
        "CMS_PORT_ADDRESS=65535",
    ]

    def test_whole_catalogue_round_trip_is_byte_identical(self):
        self.ok("set", *self.VALUES)
        self.ok("import", "-", stdin='UNIT_LOCATION = "\\xFF\\x01 not UTF-8"\n')  # JSON gives it as hex
        for fmt in ([], ["--json"]):
            with self.subTest(fmt=fmt):
                first = self.ok(*fmt, "export", "--volatile")
                self.ok("defaults", "factory", "-y")
                self.assertNotEqual(self.ok(*fmt, "export", "--volatile"), first)
                self.ok(*fmt, "import", "-", stdin=first)
                self.assertEqual(self.ok(*fmt, "export", "--volatile"), first)
        self.assertEqual(self.ok("get", "--reveal", "CURRENT_FILE_TRANSFER_PASSWORD"), "s3cret\n")
        exported = self.ok("export")
        self.assertIn('UNIT_NAME = " padded\\ttab \\\\ \\"quoted\\" "\n', exported)
        self.assertIn("MAC1_ADDRESS = 0xAABBCCDDEEFF0000\n", exported)
        self.assertNotIn("CURRENT_FILE_TRANSFER_PASSWORD", exported)  # volatile
        self.assertEqual(self.json("export")["UNIT_LOCATION"], {"hex": "0xFF01206E6F74205554462D38"})


class Damage(Tree):
    def test_salvage_after_a_flipped_record_header(self):
        self.ok("set", "SERVICE_AUTODISCOVERY=0", "UNIT_NAME=keep me", "CMS_PORT_ADDRESS=8080")
        path = self.path(GENERAL)
        with open(path, "r+b") as f:
            f.seek(4 + 3)  # length field of the first record
            f.write(b"\x40")
        self.assertIn("CMF_GeneralData is damaged: run cmctl check", self.fails(1, "get", "SERVICE_AUTODISCOVERY"))
        self.assertEqual(self.get("MTU_VALUE"), ["1500"])  # other files still read
        self.assertIn("add -y", self.fails(1, "check", "--repair"))
        self.ok("check", "--repair", "-y")
        copy = path + ".damaged"
        self.assertEqual(stat.S_IMODE(os.stat(copy).st_mode), 0o600)
        self.assertEqual(self.get("UNIT_NAME", "CMS_PORT_ADDRESS"), ["Unknown", "9190"])
        listed = {d["name"]: d["salvaged"] for d in self.json("salvage")}
        self.assertEqual(listed, {"UNIT_NAME": "keep me", "CMS_PORT_ADDRESS": 8080})  # record 0 is lost
        self.ok("salvage", "--apply")
        self.assertEqual(self.get("UNIT_NAME", "CMS_PORT_ADDRESS"), ["keep me", "8080"])
        self.assertEqual(self.json("salvage"), [])

    def test_check_reports_values_out_of_bounds(self):
        infos = self.json("info", *[v["name"] for v in self.json("find", "") if 256 <= v["id"] < 384])
        mtu = next(i for i in infos if i["name"] == "MTU_VALUE")
        at = 4 + sum(i["size"] + 4 for i in infos if i["relative_id"] < mtu["relative_id"]) + 4
        with open(self.path(NETWORK), "r+b") as f:
            f.seek(at)
            f.write((9000).to_bytes(2, "big"))
        r = self.run_cmctl("check")
        self.assertEqual(r.returncode, 1)
        self.assertIn("MTU_VALUE: 9000 is outside its bounds 1280..1500", r.stdout)


@unittest.skipUnless(os.geteuid() == 0, "needs root to drop to an unprivileged user")
class Unprivileged(Tree):
    def test_reads_need_no_write_access(self):
        os.chmod(self.root, 0o755)
        self.ok("set", "UNIT_NAME=readable")
        for verb in (["get", "UNIT_NAME"], ["show", "UNIT_"], ["export"], ["check"], ["info", "UNIT_NAME"]):
            with self.subTest(verb=verb):
                self.ok(*verb, user="nobody")
        self.assertEqual(self.ok("get", "UNIT_NAME", user="nobody"), "readable\n")
        self.assertIn("no write access", self.fails(1, "set", "UNIT_NAME=x", user="nobody"))
        os.unlink(self.path(NETWORK))
        self.assertIn("CMF_NetworkData is missing", self.fails(1, "get", "MTU_VALUE", user="nobody"))
        self.assertEqual(self.ok("get", "UNIT_NAME", user="nobody"), "readable\n")


class Watch(Tree):
    def test_watch_reports_changes_and_masked_passwords(self):
        proc = subprocess.Popen([CMCTL, "--root", self.root, "watch", "UNIT_NAME", "CURRENT_FILE_TRANSFER_PASSWORD"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(lambda: (proc.poll() is None and proc.kill(), proc.wait(), proc.stdout.close(),
                                 proc.stderr.close()))
        self.assertIn("watching", self.read_line(proc.stderr))
        for name, value, shown in [("UNIT_NAME", "elsewhere", "Unknown -> elsewhere"),
                                   ("CURRENT_FILE_TRANSFER_PASSWORD", "one", " -> ********"),
                                   ("CURRENT_FILE_TRANSFER_PASSWORD", "two", "******** -> ********")]:
            self.ok("set", name, value)
            self.assertRegex(self.read_line(proc.stdout), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} %s: %s$" %
                             (name, shown.replace("*", r"\*")))
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=20), 0)


if __name__ == "__main__":
    CMCTL = os.path.abspath(sys.argv.pop(1))
    unittest.main()
