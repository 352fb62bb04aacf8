#!/usr/bin/env python3
"""cmctl driven as a process against a private device tree, as a person would.

Usage: cmctl_test.py PATH_TO_CMCTL [unittest options]

Every test makes its own temporary root, so the suite runs in parallel with
any other.
"""

import json
import os
import re
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

    def run_cmctl(self, *args, stdin=None, user=None, timeout=60, preexec=None, root=None):
        def drop():
            os.setgid(65534)
            os.setuid(65534)
        return subprocess.run([CMCTL, "--root", root or self.root, *args], input=stdin, capture_output=True,
                              text=True, timeout=timeout, preexec_fn=drop if user else preexec, cwd=self.root)

    def expect(self, status, *args, **kw):
        r = self.run_cmctl(*args, **kw)
        self.assertEqual(r.returncode, status, "cmctl %s: %s" % (" ".join(args), r.stderr))
        return r

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

    def read(self, path):
        with open(path) as f:
            return f.read()

    def write(self, name, text):
        p = os.path.join(self.root, name)
        with open(p, "w") as f:
            f.write(text)
        return p

    def start(self, *args):  # a long-running cmctl, killed at the end if still running
        proc = subprocess.Popen([CMCTL, "--root", self.root, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                text=True)
        self.addCleanup(lambda: (proc.poll() is None and proc.kill(), proc.wait(), proc.stdout.close(),
                                 proc.stderr.close()))
        return proc

    def stop(self, proc):
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=20), 0)

    def read_line(self, stream, timeout=20):
        ready, _, _ = select.select([stream], [], [], timeout)
        self.assertTrue(ready, "no output within %d s" % timeout)
        return stream.readline().rstrip("\n")


class Usage(Tree):
    STATUSES = [  # arguments (@NAME: a file of the test), exit status, part of stdout or stderr[, standard input]
        (["get", "UNIT_NAM"], 1, "UNIT_NAM: no such variable (did you mean UNIT_NAME?)"),
        (["info", "UNIT_NAM"], 1, "UNIT_NAM: no such variable (did you mean UNIT_NAME?)"),
        (["sett", "UNIT_NAME", "x"], 2, "unknown subcommand 'sett' (did you mean set?)"),
        (["get", "--bogus", "UNIT_NAME"], 2, "--bogus"),
        (["get"], 2, "NAME is required"),
        (["set"], 2, "ARGS is required"),
        (["find", "NO_SUCH_THING"], 1, ""),
        (["show", "NO_SUCH_"], 1, "NO_SUCH_: no variable has this prefix"),
        (["watch", "NO_SUCH_"], 1, "NO_SUCH_: no variable has this name or prefix"),
        (["set", "UNIT_NAME"], 1, "argument:1: 'UNIT_NAME' is not NAME=VALUE"),
        (["set", "UNIT_NAM", "x"], 1, "UNIT_NAM: no such variable"),
        (["set", "UNIT_NAME", "-"], 1, "no value on standard input", ""),
        (["reset", "UNIT_NAME", "NO_SUCH_VAR"], 1, "argument:2: NO_SUCH_VAR: no such variable"),
        (["defaults", "sometimes"], 2, ""),
        (["defaults", "general"], 1, "add -y"),
        (["diff", "/no/such/file"], 2, "cannot read '/no/such/file'"),
        (["diff", "@notbackup"], 2, "is not a backup (no SOFTWARE_VERSION line)"),
        (["diff", "@empty"], 2, "is not a backup (empty)"),
        (["restore", "/no/such/file"], 1, "cannot read '/no/such/file'"),
        (["restore", "@notbackup"], 1, "is not a backup (no SOFTWARE_VERSION line)"),
        (["restore", "@empty"], 1, "is not a backup (empty)"),
        (["import", "/no/such/file"], 1, "cannot read '/no/such/file'"),
        (["export", "/no/such/dir/x"], 1, "cannot write '/no/such/dir/x'"),
        (["import", "-"], 1, "'-' is not JSON", "{"),
        (["--json", "import", "-"], 1, "is not a JSON object of NAME: value", "[1]"),
        (["import", "-"], 1, "<stdin>:1: UNIT_NAME: expected a string", '{"UNIT_NAME": 5}'),
        (["import", "-"], 1, "<stdin>:1: MTU_VALUE: expected a number", '{"MTU_VALUE": -5}'),
        (["import", "-"], 1, "<stdin>:2: MTU_VALUES: no such variable", '{"MTU_VALUE": 1400, "MTU_VALUES": 1}'),
        (["import", "-"], 1, "<stdin>:1: UNIT_NAME: bad hex text", '{"UNIT_NAME": {"hex": "0x4G"}}'),
        (["import", "-"], 1, "1 bad entry in <stdin>: nothing written", '{"MTU_VALUE": 9000}'),
        (["salvage"], 0, "no damaged copy found; nothing to salvage"),
        (["--json", "salvage"], 0, "[]"),
        (["check"], 0, "CMF_GeneralData: good"),
        (["--version"], 0, "cmctl "),
    ]

    def test_exit_statuses_and_messages(self):
        files = {"@notbackup": self.write("notbackup", "UNIT_NAME : x\n"), "@empty": self.write("empty", "")}
        before = self.ok("export")
        for args, status, message, *stdin in self.STATUSES:
            with self.subTest(args=args):
                r = self.expect(status, *[files.get(a, a) for a in args], stdin=stdin[0] if stdin else None)
                self.assertIn(message, r.stdout + r.stderr)
        self.assertEqual(self.ok("export"), before)

    def test_lookups_print_every_field(self):
        self.assertEqual(self.json("info", "MTU_VALUE"), [{
            "name": "MTU_VALUE", "id": 300, "file": self.path(NETWORK), "file_index": 2, "relative_id": 44,
            "type": "word", "size": 2, "min": 1280, "max": 1500, "default": "1500", "defaults_group": 2,
            "reported": True}])
        blocks = self.ok("info", "UNIT_LOCATION", "MTU_VALUE").split("\n\n")
        loc, mtu = [dict((k, v.strip()) for k, v in (ln.split(":", 1) for ln in b.splitlines())) for b in blocks]
        self.assertEqual(loc, {"name": "UNIT_LOCATION", "id": "3255", "type": "string",
                               "file": self.path(GENERAL) + " (file 9, record 23)", "size": "64 bytes",
                               "bounds": "0..63", "default": "Unknown",
                               "defaults group": "3 (general, factory and all defaults)", "reported": "no"})
        self.assertEqual([mtu[k] for k in ("name", "bounds", "defaults group", "reported")],
                         ["MTU_VALUE", "1280..1500", "2 (factory and all defaults)", "yes"])
        self.assertEqual(self.ok("find", "NIT_NAM"), "UNIT_NAME\n")  # anywhere in the name
        self.assertEqual(self.json("find", "MTU_"), [{"name": "MTU_VALUE", "id": 300}])
        self.assertIn("SNMP_READ_COMMUNITY_2", [v["name"] for v in self.json("find", "SNMP_READ_COMMUNITY")])
        self.assertEqual(len(self.ok("show").splitlines()), 3088)
        self.assertEqual(self.json("show", "MTU_"), {"MTU_VALUE": 1500})

    def test_a_tree_without_data_files_waits_for_a_master(self):
        os.mkdir(os.path.join(self.root, "fresh"))
        self.assertIn("no master has set up this tree", self.expect(1, "get", "UNIT_NAME", root="fresh").stderr)
        self.assertEqual(self.ok("--master", "get", "UNIT_NAME", root="fresh"), "Unknown\n")  # relative to cwd
        self.assertTrue(os.path.exists(os.path.join(self.root, "fresh", GENERAL.lstrip("/"))))
        for disguise in ("/tmp/..", "../" * self.root.count("/")):  # each is the device's "/"
            self.assertIn("own root in disguise", self.expect(2, "info", "UNIT_NAME", root=disguise).stderr)

    def test_second_master_refuses(self):
        proc = self.start("master")
        self.assertIn("master running", self.read_line(proc.stderr))
        self.assertIn("another master is already running", self.fails(1, "master", timeout=20))
        self.stop(proc)

    def test_verbose_shows_the_library_log_on_standard_error_only(self):
        quiet, loud = (self.expect(0, *v, "defaults", "general", "-y") for v in ([], ["-v"]))
        self.assertEqual((quiet.stdout, quiet.stderr, loud.stdout), ("", "", ""))
        self.assertIn("Loaded General (GROUP3) CM variable defaults", loud.stderr)
        self.assertEqual(self.expect(0, "-v", "get", "UNIT_NAME").stdout, "Unknown\n")


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
        ("MAC1_ADDRESS", "0x0011223344550077", "last 2 must be 00"),
        ("MAC1_ADDRESS", "0x00112233445566GG", "not hexadecimal"),
        ("CURRENT_FILE_TRANSFER_PASSWORD", "p" * 128, "password longer than 127 characters"),
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
        self.ok("restore", "--filter", self.write("filter.txt", "MTU_\nU\n"), backup)
        self.assertEqual(self.get("UNIT_NAME", "MTU_VALUE"), ["restored", "1400"])
        self.assertEqual([d["name"] for d in json.loads(self.run_cmctl("--json", "diff", backup).stdout)],
                         ["MTU_VALUE"])
        self.fails(1, "diff", backup)


class Kinds(Tree):
    KINDS = [  # name, value set, as get prints it, as get prints it after a reset
        ("SNMP_MODE", "2", "2", "0"),
        ("NETWORK_LOG_FILTER", "0x1F", "31", "3"),
        ("CURRENT_IP4_SUBNET_MASK", "0xFF000000", "4278190080", "0"),  # its default is out of bounds
        ("MAC1_ADDRESS", "0xaabbccddeeff0000", "0xAABBCCDDEEFF0000", "0x0000000000000000"),
        ("IP6_SNMP_MGR", "2001:DB8:0:0::1", "2001:db8::1", ""),
        ("IP6_SNMP_MGR_2", "::ffff:192.0.2.1", "::ffff:192.0.2.1", ""),
        ("PW_IP_ADDRESS_1", "192.0.2.9", "192.0.2.9", ""),  # a name that says no family takes either
        ("PW_IP_ADDRESS_2", "fe80::1", "fe80::1", ""),
        ("CURRENT_FILE_TRANSFER_PASSWORD", "pw", "********", ""),
        ("UNIT_LOCATION", "", "", "Unknown"),
        ("UNIT_NAME", "=" * 43, "=" * 43, "Unknown"),  # the longest text; '=' belongs to the value
    ]

    def test_each_kind_is_set_shown_and_reset(self):
        names = [k[0] for k in self.KINDS]
        self.ok("set", *("%s=%s" % (n, v) for n, v, _, _ in self.KINDS))
        self.assertEqual(self.get(*names), [k[2] for k in self.KINDS])
        self.assertEqual(self.get("--default", *names), [k[3] for k in self.KINDS])
        self.ok("check")  # a value at its bound is within it
        self.assertEqual(sorted(self.json("show", "--changed")), sorted(names))
        pw = "CURRENT_FILE_TRANSFER_PASSWORD"
        self.assertEqual(self.json("get", "SNMP_MODE", "MAC1_ADDRESS", pw),
                         {"SNMP_MODE": 2, "MAC1_ADDRESS": "0xAABBCCDDEEFF0000", pw: "********"})
        self.assertEqual(self.ok("show", pw), pw + " = ********\n")
        self.assertEqual(self.ok("show", "--reveal", pw), pw + " = pw\n")
        self.assertEqual(self.ok("get", "--reveal", "CURRENT_FILE_TRANSFER_PASSWORD"), "pw\n")
        self.ok("reset", *names)
        self.assertEqual(self.get(*names), [k[3] for k in self.KINDS])
        self.assertEqual(self.ok("show", "--changed"), "")
        self.ok("set", "UNIT_NAME", "-", stdin="from a pipe\r\n")
        self.assertEqual(self.json("get", "UNIT_NAME"), {"UNIT_NAME": "from a pipe"})  # its CR too removed
        self.ok("set", "UNIT_NAME", "a=b")
        self.assertEqual(self.get("UNIT_NAME"), ["a=b"])

    def test_a_profile_download_holds_back_writes_without_force(self):
        self.ok("set", "CM_FLAG=1")
        for args, stdin, value in [(["set", "UNIT_NAME=a"], None, "a"), (["reset", "UNIT_NAME"], None, "Unknown"),
                                   (["import", "-"], "UNIT_NAME = b\n", "b"),
                                   (["restore", "-"], "SOFTWARE_VERSION : 1\nUNIT_NAME : c\n", "c")]:
            with self.subTest(args=args):
                before = self.get("UNIT_NAME")
                self.assertIn("a profile download is in progress", self.fails(1, *args, stdin=stdin))
                self.assertEqual(self.get("UNIT_NAME"), before)
                self.ok(args[0], "--force", *args[1:], stdin=stdin)
                self.assertEqual(self.get("UNIT_NAME"), [value])

    def test_defaults_reset_their_groups_and_factory_clears_certificates(self):
        cert = self.path("/var/www/shttpd.pem")
        os.makedirs(os.path.dirname(cert))
        for which, after, cert_kept in [("general", ["Unknown", "kept", "********"], True),
                                        ("all", ["Unknown", "Unknown", ""], True),
                                        ("factory", ["Unknown", "Unknown", ""], False)]:
            with self.subTest(which):
                self.ok("set", "UNIT_LOCATION=kept", "UNIT_NAME=kept", "CURRENT_FILE_TRANSFER_PASSWORD=pw")
                open(cert, "w").close()
                self.ok("defaults", which, "-y")
                self.assertEqual(self.get("UNIT_LOCATION", "UNIT_NAME", "CURRENT_FILE_TRANSFER_PASSWORD"), after)
                self.assertEqual(os.path.exists(cert), cert_kept)


    def test_a_terminal_is_asked_before_defaults_are_loaded(self):
        for answer, status, location in [("n\n", 1, "kept"), ("yes\n", 0, "Unknown")]:
            with self.subTest(answer=answer):
                self.ok("set", "UNIT_LOCATION=kept")
                master, slave = os.openpty()
                self.addCleanup(os.close, master)
                os.write(master, answer.encode())
                r = subprocess.run([CMCTL, "--root", self.root, "defaults", "general"], stdin=slave, stderr=slave,
                                   stdout=subprocess.PIPE, timeout=20)
                os.close(slave)
                self.assertEqual(r.returncode, status)
                self.assertIn("reset every variable of defaults group 3. Continue? [y/N]", os.read(master, 65536).decode())
                self.assertEqual(self.get("UNIT_LOCATION"), [location])


class Check(Tree):
    REWRITTEN = "rewritten from defaults (every variable of the file)"
    DAMAGE = [  # file, damage, JSON flag, what check says, what the repair did
        ("SystemData", None, "missing", "missing", "created from defaults"),  # in file order
        ("GeneralData", lambda f: (f.seek(0, 2), f.write(b"abc")), "too_long", "too long: 3 extra bytes",
         "extra bytes removed"),
        ("NetworkData", lambda f: f.truncate(100), "too_short",
         r"too short: 100 bytes, expected \d+; records from \d+ on missing", REWRITTEN),
        ("DSPdata", lambda f: (f.seek(1), f.write(b"\x07")), "bad_header", r"version 7 \(expected 0\)", REWRITTEN),
        ("T1E1data", lambda f: f.truncate(2), "bad_header", "no header, too short: 2 bytes", REWRITTEN),
    ]

    def test_check_names_each_fault_and_repair_says_what_it_did(self):
        doc = self.json("check")
        self.assertEqual((doc["good"], doc["out_of_bounds"], len(doc["files"])), (True, [], 10))
        self.assertTrue(all(f["good"] and f["length"] == f["expected_length"] for f in doc["files"]))
        self.assertEqual(self.ok("check").count(": good\n"), 10)
        # Cutting extra bytes off and creating a missing file lose nothing: no question is asked for them.
        for rows in (self.DAMAGE[:2], self.DAMAGE[2:]):
            paths = [self.path("/var/AppData/config/CMF_" + name) for name, *_ in rows]
            for path, (_, damage, *_) in zip(paths, rows):
                if damage is None:
                    os.unlink(path)
                else:
                    with open(path, "r+b") as f:
                        damage(f)
            out = self.expect(1, "check").stdout
            files = {f["file"]: f for f in json.loads(self.expect(1, "--json", "check").stdout)["files"]}
            for path, (_, _, flag, verdict, _) in zip(paths, rows):
                self.assertRegex(out, "(?m)^%s: %s" % (re.escape(path), verdict))
                self.assertEqual((files[path][flag], files[path]["good"]), (True, False))
            if rows[-1][-1] == self.REWRITTEN:
                self.assertIn("add -y", self.fails(1, "check", "--repair"))
            doc = json.loads(self.ok("--json", "check", "--repair", *["-y"][:rows[-1][-1] == self.REWRITTEN]))
            self.assertEqual([(r["file"], r["action"]) for r in doc["repaired"]],
                             [(p, r[-1]) for p, r in zip(paths, rows)])
            self.assertTrue(doc["good"])
        out = self.ok("check", "--repair")  # nothing to do
        self.assertEqual((out.count(": good\n"), "was" in out), (10, False))


class Backup(Tree):
    def test_backup_restores_what_it_saved_and_a_failed_write_is_an_error(self):
        self.ok("set", "UNIT_NAME=backed up", "MTU_VALUE=1300")
        path = os.path.join(self.root, "b.txt")
        self.ok("backup", path)
        self.assertEqual(self.ok("backup", "-"), self.read(path))
        shown = [self.ok("backup", "-", *flag) for flag in ([], ["--octets"], ["--volatile"])]
        self.assertEqual([("\nMAC1_ADDRESS : " in t, "\nCM_FLAG : " in t) for t in shown],
                         [(False, False), (True, False), (False, True)])
        self.ok("reset", "UNIT_NAME", "MTU_VALUE")
        differ = json.loads(self.run_cmctl("--json", "diff", path).stdout)
        self.assertEqual(sorted(d["name"] for d in differ), ["MTU_VALUE", "UNIT_NAME"])
        self.ok("restore", path)
        self.assertEqual(self.get("UNIT_NAME", "MTU_VALUE"), ["backed up", "1300"])
        self.assertEqual(self.ok("show", "MTU_"), "MTU_VALUE = 1300\n")
        self.ok("set", "CURRENT_FILE_TRANSFER_PASSWORD=pw", "MAC1_ADDRESS=0x0102030405060000", "IP6_SNMP_MGR=::1")
        self.ok("backup", "--volatile", "--octets", path)
        self.assertEqual(self.ok("diff", path), "")  # equal: status 0, nothing printed
        odd = self.write("odd.txt", "SOFTWARE_VERSION : 1\nUNIT_NAME : a &amp; b\nUNIT_LOCATION : NULL\n"
                                    "FUTURE_VAR : 1\n\n")
        self.assertIn("odd.txt:4: FUTURE_VAR: no such variable", self.expect(0, "restore", odd).stderr)
        self.assertEqual(self.get("UNIT_NAME", "UNIT_LOCATION"), ["a & b", ""])
        self.ok("set", "UNIT_NAME=x")
        self.assertEqual(self.expect(1, "diff", odd).stdout.splitlines(), [
            "UNIT_NAME: running x, backup a &amp; b", "FUTURE_VAR: not a variable of this software (backup: 1)"])
        self.assertEqual(json.loads(self.expect(1, "--json", "diff", odd).stdout)[1],
                         {"name": "FUTURE_VAR", "backup": "1", "running": None})

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
        self.ok("export", os.path.join(self.root, "e.txt"))
        self.assertEqual(self.read(os.path.join(self.root, "e.txt")), exported)
        self.ok("import", "--dry-run", "-", stdin="UNIT_NAME = dry run\n")
        self.assertEqual(self.ok("export"), exported)
        self.assertIn('UNIT_NAME = " padded\\ttab \\\\ \\"quoted\\" "\n', exported)
        self.assertIn("MAC1_ADDRESS = 0xAABBCCDDEEFF0000\n", exported)
        self.assertNotIn("CURRENT_FILE_TRANSFER_PASSWORD", exported)  # volatile
        self.assertEqual(self.json("export")["UNIT_LOCATION"], {"hex": "0xFF01206E6F74205554462D38"})


class Damage(Tree):
    def test_salvage_after_a_flipped_record_header(self):
        self.ok("set", "SERVICE_AUTODISCOVERY=0", "UNIT_NAME=keep me", "CMS_PORT_ADDRESS=8080",
                "CURRENT_FILE_TRANSFER_PASSWORD=pw")
        backup = os.path.join(self.root, "b.txt")
        self.ok("backup", backup)
        path = self.path(GENERAL)
        for damaged in (path, self.path("/tmp/CMF_VolatileData")):
            with open(damaged, "r+b") as f:
                f.seek(4 + 3)  # length field of the first record
                f.write(b"\x40")
        self.assertIn("CMF_GeneralData is damaged: run cmctl check", self.fails(1, "get", "SERVICE_AUTODISCOVERY"))
        self.assertEqual(self.get("MTU_VALUE"), ["1500"])  # other files still read
        self.assertIn("CMF_GeneralData: 1 bad record(s)\n  record at offset 4: relative ID 0 (expected 0), length 64 "
                      "(expected 1)\n", self.expect(1, "check").stdout)
        self.assertIn("CMF_GeneralData is damaged", self.fails(2, "diff", backup))  # not "differs"
        for verb in ("show", "export"):  # each unreadable value costs only its own line
            r = self.expect(1, verb)
            self.assertIn("MTU_VALUE = 1500\n", r.stdout)
            self.assertIn("cmctl: UNIT_NAME: CMF_GeneralData is damaged", r.stderr)
        self.assertIn("add -y", self.fails(1, "check", "--repair"))
        self.ok("check", "--repair", "-y")
        copy = path + ".damaged"
        self.assertEqual(stat.S_IMODE(os.stat(copy).st_mode), 0o600)
        self.assertEqual(self.get("UNIT_NAME", "CMS_PORT_ADDRESS"), ["Unknown", "9190"])
        listed = {d["name"]: d["salvaged"] for d in self.json("salvage")}
        self.assertEqual(listed, {"CURRENT_FILE_TRANSFER_PASSWORD": "********", "UNIT_NAME": "keep me",
                                  "CMS_PORT_ADDRESS": 8080})  # record 0 of each is lost
        self.assertEqual(self.ok("salvage").splitlines(), [
            "CURRENT_FILE_TRANSFER_PASSWORD: running , salvaged ********",
            "CMS_PORT_ADDRESS: running 9190, salvaged 8080", "UNIT_NAME: running Unknown, salvaged keep me"])
        self.ok("salvage", "--apply")
        self.assertEqual(self.get("UNIT_NAME", "CMS_PORT_ADDRESS"), ["keep me", "8080"])
        self.assertEqual(self.ok("get", "--reveal", "CURRENT_FILE_TRANSFER_PASSWORD"), "pw\n")
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
        self.assertEqual(json.loads(self.expect(1, "--json", "check").stdout)["out_of_bounds"],
                         [{"name": "MTU_VALUE", "value": 9000, "min": 1280, "max": 1500}])


@unittest.skipUnless(os.geteuid() == 0, "needs root to drop to an unprivileged user")
class Unprivileged(Tree):
    def test_reads_need_no_write_access(self):
        os.chmod(self.root, 0o755)
        self.ok("set", "UNIT_NAME=readable")
        for verb in (["get", "UNIT_NAME"], ["show", "UNIT_"], ["export"], ["check"], ["info", "UNIT_NAME"]):
            with self.subTest(verb=verb):
                self.ok(*verb, user="nobody")
        self.assertEqual(self.ok("get", "UNIT_NAME", user="nobody"), "readable\n")
        for verb in (["set", "UNIT_NAME=x"], ["reset", "UNIT_NAME"], ["defaults", "general", "-y"], ["import", "-"]):
            with self.subTest(verb=verb):
                self.assertIn("no write access to '%s" % self.root, self.fails(1, *verb, stdin="", user="nobody"))
        os.unlink(self.path(NETWORK))
        self.assertIn("CMF_NetworkData is missing", self.fails(1, "get", "MTU_VALUE", user="nobody"))
        self.assertEqual(self.ok("get", "UNIT_NAME", user="nobody"), "readable\n")


class Watch(Tree):
    def test_watch_reports_changes_and_masked_passwords(self):
        proc = self.start("watch", "UNIT_NAME", "CURRENT_FILE_TRANSFER_PASSWORD")
        self.assertIn("watching 2 variables", self.read_line(proc.stderr))
        for name, value, shown in [("UNIT_NAME", "elsewhere", "Unknown -> elsewhere"),
                                   ("CURRENT_FILE_TRANSFER_PASSWORD", "one", " -> ********"),
                                   ("CURRENT_FILE_TRANSFER_PASSWORD", "two", "******** -> ********")]:
            self.ok("set", name, value)
            self.assertRegex(self.read_line(proc.stdout), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} %s: %s$" %
                             (name, shown.replace("*", r"\*")))
        self.stop(proc)

    def test_watch_json_of_a_prefix(self):
        proc = self.start("--json", "watch", "MTU_", "CURRENT_FILE_TRANSFER_PASSWORD")
        self.assertIn("watching 2 variables", self.read_line(proc.stderr))
        pw = "CURRENT_FILE_TRANSFER_PASSWORD"
        for values, change in [(["UNIT_NAME=not watched", "MTU_VALUE=1400"], ("MTU_VALUE", 300, 1500, 1400)),
                               ([pw + "=x"], (pw, 197, "", "********"))]:
            self.ok("set", *values)
            line = json.loads(self.read_line(proc.stdout))
            self.assertRegex(line.pop("time"), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}$")
            self.assertEqual(line, dict(zip(("name", "id", "old", "new"), change)))
        self.stop(proc)


if __name__ == "__main__":
    CMCTL = os.path.abspath(sys.argv.pop(1))
    unittest.main()
