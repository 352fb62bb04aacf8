#!/usr/bin/env python3
"""cmctl driven as a process against a private device tree.

Usage: cmctl_test.py PATH_TO_CMCTL [unittest options]

Every test makes its own temporary root, so the suite runs in parallel with
any other.
"""

import json
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

CMCTL = None


class Tree(unittest.TestCase):
    """A device tree set up by a master start (check --repair)."""

    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="cmctl-test-")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)
        self.ok("check", "--repair")

    def run_cmctl(self, *args, stdin=None, timeout=60):
        return subprocess.run([CMCTL, "--root", self.root, *args], input=stdin, capture_output=True, text=True,
                              timeout=timeout)

    def ok(self, *args, **kw):
        r = self.run_cmctl(*args, **kw)
        self.assertEqual(r.returncode, 0, "cmctl %s: %s" % (" ".join(args), r.stderr))
        return r.stdout

    def json(self, *args):
        return json.loads(self.ok("--json", *args))

    def get(self, name):
        return self.ok("get", name).rstrip("\n")

    def path(self, device_path):
        return os.path.join(self.root, device_path.lstrip("/"))


class LookupAndUsage(Tree):
    def test_info_and_find(self):
        info = self.json("info", "UNIT_NAME")
        self.assertEqual((info["id"], info["type"], info["size"], info["max"], info["default"]),
                         (3254, "string", 44, 43, "Unknown"))
        self.assertTrue(info["file"].endswith("/var/AppData/config/CMF_GeneralData"))
        self.assertIn("defaults group:", self.ok("info", "UNIT_NAME"))
        names = [v["name"] for v in self.json("find", "SNMP_READ_COMMUNITY")]
        self.assertIn("SNMP_READ_COMMUNITY_2", names)
        self.assertTrue(all("SNMP_READ_COMMUNITY" in n for n in names))
        self.assertEqual(self.run_cmctl("find", "NO_SUCH_THING").returncode, 1)

    def test_exit_status_and_messages(self):
        cases = [
            (["get", "NO_SUCH_VAR"], 1, "NO_SUCH_VAR: no such variable"),
            ([], 2, ""),
            (["frobnicate"], 2, ""),
            (["get"], 2, ""),
            (["defaults", "sometimes"], 2, ""),
            (["show", "--bogus"], 2, ""),
            (["--help"], 0, ""),
            (["set", "--help"], 0, ""),
            (["--version"], 0, ""),
        ]
        for args, status, message in cases:
            with self.subTest(args=args):
                r = self.run_cmctl(*args)
                self.assertEqual(r.returncode, status, r.stderr)
                self.assertIn(message, r.stderr)

    def test_tree_without_master_is_refused_not_waited_for(self):
        empty = tempfile.mkdtemp(prefix="cmctl-empty-")
        self.addCleanup(shutil.rmtree, empty, ignore_errors=True)
        r = subprocess.run([CMCTL, "--root", empty, "get", "UNIT_NAME"], capture_output=True, text=True, timeout=20)
        self.assertEqual(r.returncode, 1)
        self.assertIn("missing or empty", r.stderr)


class Values(Tree):
    def test_get_show_and_defaults_of_a_fresh_tree(self):
        self.assertEqual(self.get("UNIT_NAME"), "Unknown")
        self.assertEqual(self.json("get", "UNIT_NAME", "CM_FLAG"), {"UNIT_NAME": "Unknown", "CM_FLAG": "0"})
        self.assertEqual(self.ok("get", "--default", "UNIT_NAME"), "Unknown\n")
        shown = self.json("show", "SNMP_READ_COMMUNITY")
        self.assertEqual(list(shown), [v["name"] for v in self.json("find", "SNMP_READ_COMMUNITY")])
        self.assertEqual(list(shown)[:2], ["SNMP_READ_COMMUNITY", "SNMP_READ_COMMUNITY_2"])  # catalogue order
        self.assertEqual(self.json("show", "--changed"), {})
        self.assertEqual(self.run_cmctl("show", "NO_SUCH_PREFIX").returncode, 1)

    def test_bad_values_are_refused_without_writing(self):
        cases = [
            ("UNIT_NAME", "x" * 44, "UNIT_NAME: text longer than 43 characters"),
            ("CM_FLAG", "256", "CM_FLAG: 256 does not fit"),
            ("LINE_INTERFACE_ALARM_STATUS_1", "6", "out of range 0..5"),
            ("LINE_INTERFACE_ALARM_STATUS_1", "-1", "not a number"),
            ("LINE_INTERFACE_ALARM_STATUS_1", "3x", "not a number"),
            (self.first_of("ipaddr"), "10.0.0.256", "not an IPv4 or IPv6 address"),
            (self.first_of("octet-string"), "0x123", "hexadecimal"),
            (self.first_of("password"), "p" * 128, "password longer than 127"),
        ]
        for name, value, message in cases:
            with self.subTest(name=name, value=value):
                before = self.get(name)
                r = self.run_cmctl("set", name, value)
                self.assertEqual(r.returncode, 1)
                self.assertIn(name + ":", r.stderr)
                self.assertIn(message, r.stderr)
                self.assertEqual(self.get(name), before)

    def first_of(self, type_name):
        for v in self.json("find", ""):
            if self.json("info", v["name"])["type"] == type_name:
                return v["name"]
        self.fail("no variable of type " + type_name)

    def test_set_each_type_and_show_changed(self):
        pw = self.first_of("password")
        cases = [("UNIT_NAME", "lab-gw", "lab-gw"), ("LINE_INTERFACE_ALARM_STATUS_1", "0x5", "5"),
                 (self.first_of("ipaddr"), "192.0.2.7", "192.0.2.7"), (self.first_of("ipaddr"), "2001:db8::1", "2001:db8::1"),
                 (pw, "s3cret", "********")]
        for name, value, shown in cases:
            with self.subTest(name=name, value=value):
                self.ok("set", name, value)
                self.assertEqual(self.get(name), shown)
        self.assertEqual(self.ok("get", "--reveal", pw), "s3cret\n")
        self.ok("set", "UNIT_NAME", "-", stdin="from-stdin\n")
        self.assertEqual(self.get("UNIT_NAME"), "from-stdin")
        self.assertEqual(self.json("show", "--changed", "UNIT_NAME"), {"UNIT_NAME": "from-stdin"})


class Check(Tree):
    GENERAL = "/var/AppData/config/CMF_GeneralData"

    def check_general(self):
        r = self.run_cmctl("--json", "check")
        report = json.loads(r.stdout)
        files = {os.path.basename(f["file"]): f for f in report["files"]}
        return r.returncode, report["good"], files["CMF_GeneralData"]

    def test_damage_is_found_and_repaired(self):
        path = self.path(self.GENERAL)
        with open(path, "rb") as f:
            pristine = f.read()
        self.assertEqual(self.check_general()[:2], (0, True))

        def flip(data):
            data = bytearray(data)
            data[4 + 3] ^= 0x40  # length field of record 0
            return bytes(data)

        cases = [
            ("truncated", lambda d: d[:-3], "too_short", None),
            ("over-long", lambda d: d + b"\0" * 10, "too_long", None),
            ("byte-flipped", flip, "bad_records", {"offset": 4, "expected_relative_id": 0, "found_relative_id": 0}),
        ]
        for what, damage, flag, record in cases:
            with self.subTest(what):
                with open(path, "wb") as f:
                    f.write(damage(pristine))
                status, good, f = self.check_general()
                self.assertEqual((status, good, bool(f[flag])), (1, False, True))
                if record:
                    self.assertEqual({k: f["bad_records"][0][k] for k in record}, record)
                    self.assertNotEqual(f["bad_records"][0]["found_length"], f["bad_records"][0]["expected_length"])
                self.assertIn("CMF_GeneralData: was", self.ok("check", "--repair"))
                self.assertEqual(self.check_general()[:2], (0, True))


class Watch(Tree):
    def test_watch_sees_another_process_and_ends_on_sigint(self):
        proc = subprocess.Popen([CMCTL, "--root", self.root, "watch", "UNIT_NAME"], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)
        self.addCleanup(lambda: (proc.poll() is None and proc.kill(), proc.wait(), proc.stdout.close(),
                                 proc.stderr.close()))
        self.assertIn("watching", self.read_line(proc.stderr))
        self.ok("set", "UNIT_NAME", "changed-elsewhere")
        line = self.read_line(proc.stdout)
        self.assertRegex(line, r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} UNIT_NAME: Unknown -> changed-elsewhere$")
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=20), 0)

    def read_line(self, stream, timeout=20):
        ready, _, _ = select.select([stream], [], [], timeout)
        self.assertTrue(ready, "no output within %d s" % timeout)
        return stream.readline().rstrip("\n")


class BackupRestore(Tree):
    def test_backup_restore_diff_and_defaults(self):
        backup = os.path.join(self.root, "backup.txt")
        self.ok("set", "UNIT_NAME", "before-backup")
        self.ok("backup", backup)
        to_stdout = self.ok("backup", "--octets", "-").splitlines()
        self.assertEqual(to_stdout[0].split(" : ")[0], "SOFTWARE_VERSION")
        self.assertIn("MAC1_ADDRESS : 0x0000000000000000", to_stdout)
        with open(backup) as f:
            self.assertNotIn("MAC1_ADDRESS", f.read())
        self.ok("set", "UNIT_NAME", "after-backup")
        r = self.run_cmctl("--json", "diff", backup)
        self.assertEqual((r.returncode, [d["name"] for d in json.loads(r.stdout)]), (1, ["UNIT_NAME"]))
        self.ok("defaults", "factory", "--yes")
        self.assertEqual(self.get("UNIT_NAME"), "Unknown")
        self.ok("restore", backup)
        self.assertEqual(self.get("UNIT_NAME"), "before-backup")
        self.assertEqual(self.json("diff", backup), [])


if __name__ == "__main__":
    CMCTL = os.path.abspath(sys.argv.pop(1))
    unittest.main()
