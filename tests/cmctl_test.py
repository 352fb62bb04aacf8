#!/usr/bin/env python3
"""cmctl run as a process against a private device tree, as a person would: cmctl_test.py PATH_TO_CMCTL [options].

Every test makes its own temporary root, so the suite runs in parallel with any other."""

import json
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

CMCTL = None
GENERAL = "/var/AppData/config/CMF_GeneralData"
NETWORK = "/var/AppData/config/CMF_NetworkData"
PW = "CURRENT_FILE_TRANSFER_PASSWORD"
TIME = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}"


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
        return self.expect(0, *args, **kw).stdout

    def fails(self, status, *args, **kw):
        return self.expect(status, *args, **kw).stderr

    def json(self, *args, status=0):
        return json.loads(self.expect(status, "--json", *args).stdout)

    def get(self, *names):
        return self.ok("get", *names).splitlines()

    def path(self, device_path):
        return os.path.join(self.root, device_path.lstrip("/"))

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
        (["sett", "UNIT_NAME", "x"], 2, "unknown subcommand 'sett' (did you mean set?)"),
        (["find", "NO_SUCH_THING"], 1, ""),
        (["show", "NO_SUCH_"], 1, "NO_SUCH_: no variable has this prefix"),
        (["watch", "NO_SUCH_"], 1, "NO_SUCH_: no variable has this name or prefix"),
        (["set", "UNIT_NAME"], 1, "argument:1: 'UNIT_NAME' is not NAME=VALUE"),
        (["set", "UNIT_NAM", "x"], 1, "UNIT_NAM: no such variable"),
        (["set", "UNIT_NAME", "-"], 1, "no value on standard input", ""),
        (["reset", "UNIT_NAME", "NO_SUCH_VAR"], 1, "argument:2: NO_SUCH_VAR: no such variable"),
        (["defaults", "general"], 1, "add -y"),
        (["diff", "/no/such/file"], 2, "cannot read '/no/such/file'"),
        (["diff", "@empty"], 2, "is not a backup (empty)"),
        (["restore", "/no/such/file"], 1, "cannot read '/no/such/file'"),
        (["restore", "@notbackup"], 1, "is not a backup (no SOFTWARE_VERSION line)"),
        (["export", "/no/such/dir/x"], 1, "cannot write '/no/such/dir/x'"),
        (["backup", "/no/such/dir/x"], 1, "backup to '/no/such/dir/x' failed"),
        (["import", "-"], 1, "'-' is not JSON", "{"),
        (["--json", "import", "-"], 1, "is not a JSON object of NAME: value", "[1]"),
        (["import", "-"], 1, "<stdin>:1: UNIT_NAME: expected a string", '{"UNIT_NAME": 5}'),
        (["import", "-"], 1, "<stdin>:2: MTU_VALUES: no such variable", '{"MTU_VALUE": 1400, "MTU_VALUES": 1}'),
        (["salvage"], 0, "no damaged copy found; nothing to salvage"),
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
        self.assertEqual((mtu["name"], mtu["defaults group"]), ("MTU_VALUE", "2 (factory and all defaults)"))
        self.assertEqual(self.ok("find", "NIT_NAM"), "UNIT_NAME\n")  # anywhere in the name
        self.assertEqual(self.json("find", "MTU_"), [{"name": "MTU_VALUE", "id": 300}])

    def test_a_tree_without_data_files_waits_for_a_master(self):
        os.mkdir(os.path.join(self.root, "fresh"))
        self.assertIn("no master has set up this tree", self.expect(1, "get", "UNIT_NAME", root="fresh").stderr)
        self.assertEqual(self.ok("--master", "get", "UNIT_NAME", root="fresh"), "Unknown\n")  # relative to cwd
        for disguise in ("/tmp/..", "../" * self.root.count("/")):  # each is the device's "/"
            self.assertIn("own root in disguise", self.expect(2, "info", "UNIT_NAME", root=disguise).stderr)

    def test_verbose_shows_the_library_log_on_standard_error_only(self):
        quiet, loud = (self.expect(0, *v, "defaults", "general", "-y") for v in ([], ["-v"]))
        self.assertEqual((quiet.stdout, quiet.stderr, loud.stdout), ("", "", ""))
        self.assertIn("Loaded General (GROUP3) CM variable defaults", loud.stderr)
        self.assertEqual(self.expect(0, "-v", "get", "UNIT_NAME").stdout, "Unknown\n")


class CheckedWrites(Tree):
    REFUSED = [  # name, value, message; nothing may be written
        ("UNIT_NAME", "x" * 44, "text longer than 43 characters"),
        ("MTU_VALUE", "9000", "out of range 1280..1500"),
        ("SNMP_MODE", "300", "does not fit"),
        ("SNMP_MODE", "- 1", "not a number"),
        ("IP4_SNMP_MGR", "2001:db8::1", "not an IPv4 address"),
        ("IP6_SNMP_MGR", "10.0.0.256", "not an IPv6 address"),
        ("MAC1_ADDRESS", "0x00112233", "16 hexadecimal digits"),
        ("MAC1_ADDRESS", "0x0011223344550077", "last 2 must be 00"),
        ("MAC1_ADDRESS", "0x00112233445566GG", "not hexadecimal"),
        (PW, "p" * 128, "password longer than 127 characters"),
        ("NO_SUCH_VAR", "1", "no such variable"),  # restore skips it: last
    ]
    MALFORMED = [('UNIT_NAME = "no end', "no closing quote"), ('UNIT_NAME = "\\q"', "unknown escape \\q"),
                 ("just words", "not NAME = value"), ('UNIT_NAME = "a" b', "text after the closing quote")]

    def test_each_refusal_is_reported_with_its_line_and_nothing_is_written(self):
        before = self.ok("export", "--volatile")
        imported = ["# a comment", "UNIT_NAME = written-if-all-good"] + ["%s = %s" % r[:2] for r in self.REFUSED]
        restored = ["SOFTWARE_VERSION : 1", "UNIT_NAME : written-if-all-good"] + \
                   ["%s : %s" % r[:2] for r in self.REFUSED[:-1]]
        forms = [  # arguments, the source its messages name, number of the first bad line, what each says
            (["set", "UNIT_NAME=x"] + ["%s=%s" % r[:2] for r in self.REFUSED], "argument", 2, self.REFUSED),
            (["import", self.write("i.txt", "\n".join(imported + [m for m, _ in self.MALFORMED]) + "\n")], None, 3,
             self.REFUSED + [(m, m) for _, m in self.MALFORMED]),
            (["restore", self.write("r.txt", "\n".join(restored) + "\n")], None, 3, self.REFUSED[:-1]),
        ]
        for args, source, first, refused in forms:
            with self.subTest(args[0]):
                err = self.fails(1, *args)
                for n, (name, *_, message) in enumerate(refused):
                    self.assertIn("%s:%d: %s" % (source or args[1], first + n, name), err)
                    self.assertIn(message, err)
                self.assertIn("nothing written", err)
        self.assertEqual(self.ok("export", "--volatile"), before)


class Kinds(Tree):
    KINDS = [  # name, value set, as get prints it, as get prints it after a reset
        ("SNMP_MODE", "2", "2", "0"),
        ("NETWORK_LOG_FILTER", "0x1F", "31", "3"),
        ("CURRENT_IP4_SUBNET_MASK", "0xFF000000", "4278190080", "0"),  # its default is out of bounds
        ("MAC1_ADDRESS", "0xaabbccddeeff0000", "0xAABBCCDDEEFF0000", "0x0000000000000000"),
        ("IP6_SNMP_MGR", "2001:DB8:0:0::1", "2001:db8::1", ""),
        ("PW_IP_ADDRESS_1", "192.0.2.9", "192.0.2.9", ""),  # a name that says no family takes either
        ("PW_IP_ADDRESS_2", "fe80::1", "fe80::1", ""),
        (PW, "pw", "********", ""),
        ("UNIT_LOCATION", "", "", "Unknown"),
        ("UNIT_NAME", "=" * 43, "=" * 43, "Unknown"),  # the longest text; '=' belongs to the value
    ]

    def test_each_kind_is_set_shown_and_reset(self):
        names = [k[0] for k in self.KINDS]
        self.ok("set", *("%s=%s" % (n, v) for n, v, _, _ in self.KINDS))
        self.assertEqual(self.get(*names), [k[2] for k in self.KINDS])
        self.ok("check")  # a value at its bound is within it
        self.assertEqual(sorted(self.json("show", "--changed")), sorted(names))
        self.assertEqual(self.json("get", "SNMP_MODE", "MAC1_ADDRESS", PW),
                         {"SNMP_MODE": 2, "MAC1_ADDRESS": "0xAABBCCDDEEFF0000", PW: "********"})
        self.assertEqual([self.ok("show", *r, PW) for r in ([], ["--reveal"])], [PW + " = ********\n", PW + " = pw\n"])
        self.ok("reset", *names)
        self.ok("set", "--dry-run", "UNIT_NAME=dry run")
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
                self.ok("set", "UNIT_LOCATION=kept", "UNIT_NAME=kept", PW + "=pw")
                open(cert, "w").close()
                self.ok("defaults", which, "-y")
                self.assertEqual(self.get("UNIT_LOCATION", "UNIT_NAME", PW), after)
                self.assertEqual(os.path.exists(cert), cert_kept)

    def test_a_terminal_is_asked_before_defaults_are_loaded(self):
        for answer, status, location in [("n\n", 1, "kept"), ("yes\n", 0, "Unknown")]:
            self.ok("set", "UNIT_LOCATION=kept")
            master, slave = os.openpty()
            self.addCleanup(os.close, master)
            os.write(master, answer.encode())
            r = subprocess.run([CMCTL, "--root", self.root, "defaults", "general"], stdin=slave, stderr=slave,
                               stdout=subprocess.PIPE, timeout=20)
            os.close(slave)
            self.assertEqual(r.returncode, status, answer)
            self.assertIn("group 3. Continue? [y/N]", os.read(master, 65536).decode())
            self.assertEqual(self.get("UNIT_LOCATION"), [location])


class Check(Tree):
    REWRITTEN = "rewritten from defaults (every variable of the file)"
    DAMAGE = [  # file, damage, JSON flag, what check says, what the repair did
        ("SystemData", lambda f: os.unlink(f.name), "missing", "missing", "created from defaults"),  # in file order
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
        # Cutting extra bytes off and creating a missing file lose nothing: no question is asked for them.
        for rows in (self.DAMAGE[:2], self.DAMAGE[2:]):
            paths = [self.path("/var/AppData/config/CMF_" + name) for name, *_ in rows]
            for path, (_, damage, *_) in zip(paths, rows):
                with open(path, "r+b") as f:
                    damage(f)
            out = self.expect(1, "check").stdout
            files = {f["file"]: f for f in self.json("check", status=1)["files"]}
            for path, (_, _, flag, verdict, _) in zip(paths, rows):
                self.assertRegex(out, "(?m)^%s: %s" % (re.escape(path), verdict))
                self.assertEqual((files[path][flag], files[path]["good"]), (True, False))
            self.assertEqual(self.get("CM_FLAG"), ["0"])  # a reader reads the files that are sound
            if rows[-1][-1] == self.REWRITTEN:
                self.assertIn("add -y", self.fails(1, "check", "--repair"))
            doc = self.json("check", "--repair", *["-y"][:rows[-1][-1] == self.REWRITTEN])
            self.assertEqual([(r["file"], r["action"]) for r in doc["repaired"]],
                             [(p, r[-1]) for p, r in zip(paths, rows)])
            self.assertTrue(doc["good"])
        out = self.ok("check", "--repair")  # nothing to do
        self.assertEqual((out.count(": good\n"), "was" in out), (10, False))

    def test_check_reports_values_out_of_bounds(self):
        infos = self.json("info", *[v["name"] for v in self.json("find", "") if 256 <= v["id"] < 384])
        mtu = next(i for i in infos if i["name"] == "MTU_VALUE")
        with open(self.path(NETWORK), "r+b") as f:
            f.seek(4 + sum(i["size"] + 4 for i in infos if i["relative_id"] < mtu["relative_id"]) + 4)
            f.write((9000).to_bytes(2, "big"))
        self.assertIn("MTU_VALUE: 9000 is outside its bounds 1280..1500", self.expect(1, "check").stdout)
        self.assertEqual(self.json("check", status=1)["out_of_bounds"],
                         [{"name": "MTU_VALUE", "value": 9000, "min": 1280, "max": 1500}])


class Backup(Tree):
    def test_backup_restore_and_diff(self):
        self.ok("set", "UNIT_NAME=backed up", "MTU_VALUE=1300")
        path = "b.txt"  # in the working directory, the root
        self.ok("backup", path)
        shown = [self.ok("backup", "-", *flag) for flag in ([], ["--octets"], ["--volatile"])]
        self.assertEqual([("\nMAC1_ADDRESS : " in t, "\nCM_FLAG : " in t) for t in shown],
                         [(False, False), (True, False), (False, True)])
        self.ok("reset", "UNIT_NAME", "MTU_VALUE")
        self.ok("restore", "--dry-run", path)
        self.assertIn("cannot read", self.fails(1, "restore", "--filter", "/no/such/filter", path))
        self.ok("restore", "--filter", self.write("filter.txt", "MTU_\nU\n"), path)  # a one-letter line is ignored
        self.assertEqual(self.get("UNIT_NAME", "MTU_VALUE"), ["backed up", "1500"])
        self.ok("set", PW + "=pw", "MAC1_ADDRESS=0x0102030405060000", "IP6_SNMP_MGR=::1")
        self.ok("backup", "--volatile", "--octets", path)
        self.assertEqual(self.ok("diff", path), "")  # equal: status 0, nothing printed
        odd = self.write("odd.txt", "SOFTWARE_VERSION : 1\nUNIT_NAME : a &amp; b\nUNIT_LOCATION : NULL\n"
                                    "FUTURE_VAR : 1\n\n")
        self.assertIn("odd.txt:4: FUTURE_VAR: no such variable", self.expect(0, "restore", odd).stderr)
        self.assertEqual(self.get("UNIT_NAME", "UNIT_LOCATION"), ["a & b", ""])
        self.ok("set", "UNIT_NAME=x")
        self.assertEqual(self.expect(1, "diff", odd).stdout.splitlines(), [
            "UNIT_NAME: running x, backup a &amp; b", "FUTURE_VAR: not a variable of this software (backup: 1)"])
        self.assertEqual(self.json("diff", odd, status=1)[1], {"name": "FUTURE_VAR", "backup": "1", "running": None})

    VALUES = [  # one of each kind, away from its default
        "UNIT_NAME= padded\ttab \\ \"quoted\" ", "REMOTE_LOG_ADDRESS=caf\u00e9\nline",
        "MAC1_ADDRESS=0xAABBCCDDEEFF0000", "WAN_STREAMS_ERRCODE=0x" + "5A" * 190, PW + "=s3cret",
        "IP6_SNMP_MGR=2001:db8::7", "IP4_SNMP_MGR=192.0.2.7", "MTU_VALUE=1280", "CMS_PORT_ADDRESS=65535",
    ]

    def test_whole_catalogue_export_and_import_round_trip_byte_identical(self):
        self.ok("set", *self.VALUES)
        self.ok("import", "-", stdin='UNIT_LOCATION = "\\xFF\\x01 not UTF-8"\n')  # JSON gives it as hex
        for fmt in ([], ["--json"]):
            with self.subTest(fmt=fmt):
                first = self.ok(*fmt, "export", "--volatile")
                self.ok(*fmt, "export", "--volatile", "e.txt")
                self.ok("defaults", "factory", "-y")
                self.assertNotEqual(self.ok(*fmt, "export", "--volatile"), first)
                self.ok(*fmt, "import", "e.txt")
                self.assertEqual(self.ok(*fmt, "export", "--volatile"), first)
        self.assertEqual(self.ok("get", "--reveal", PW), "s3cret\n")
        self.ok("import", "--dry-run", "-", stdin="UNIT_NAME = dry run\n")
        exported = self.ok("export")
        self.assertIn('UNIT_NAME = " padded\\ttab \\\\ \\"quoted\\" "\n', exported)
        self.assertIn("MAC1_ADDRESS = 0xAABBCCDDEEFF0000\n", exported)
        self.assertNotIn(PW, exported)  # volatile
        self.assertEqual(self.json("export")["UNIT_LOCATION"], {"hex": "0xFF01206E6F74205554462D38"})


class Damage(Tree):
    def test_salvage_after_a_flipped_record_header(self):
        self.ok("set", "SERVICE_AUTODISCOVERY=0", "UNIT_NAME=keep me", "CMS_PORT_ADDRESS=8080", PW + "=pw")
        backup = self.write("b.txt", "SOFTWARE_VERSION : 1\nUNIT_NAME : keep me\n")
        path = self.path(GENERAL)
        for damaged in (path, self.path("/tmp/CMF_VolatileData")):
            with open(damaged, "r+b") as f:
                f.seek(4 + 3)  # length field of the first record
                f.write(b"\x40")
        self.assertIn("CMF_GeneralData is damaged: run cmctl check", self.fails(1, "get", "SERVICE_AUTODISCOVERY"))
        self.assertIn("CMF_GeneralData: 1 bad record(s)\n  record at offset 4: relative ID 0 (expected 0), length 64 "
                      "(expected 1)\n", self.expect(1, "check").stdout)
        self.assertIn("CMF_GeneralData is damaged", self.fails(2, "diff", backup))  # not "differs"
        for verb in ("show", "export"):  # each unreadable value costs only its own line
            r = self.expect(1, verb)
            self.assertIn("MTU_VALUE = 1500\n", r.stdout)
            self.assertIn("cmctl: UNIT_NAME: CMF_GeneralData is damaged", r.stderr)
        self.ok("check", "--repair", "-y")
        self.assertEqual(os.stat(path + ".damaged").st_mode & 0o777, 0o600)
        self.assertEqual(self.ok("salvage").splitlines(), [  # record 0 of each file is lost
            PW + ": running , salvaged ********",
            "CMS_PORT_ADDRESS: running 9190, salvaged 8080", "UNIT_NAME: running Unknown, salvaged keep me"])
        self.ok("salvage", "--apply")
        self.assertEqual(self.get("--reveal", "UNIT_NAME", "CMS_PORT_ADDRESS", PW), ["keep me", "8080", "pw"])
        self.assertEqual(self.json("salvage"), [])


@unittest.skipUnless(os.geteuid() == 0, "needs root to drop to an unprivileged user")
class Unprivileged(Tree):
    def test_reads_need_no_write_access(self):
        os.chmod(self.root, 0o755)
        self.ok("set", "UNIT_NAME=readable")
        for verb, out in [(["get", "UNIT_NAME"], "readable\n"), (["show", "UNIT_NAME"], "UNIT_NAME = readable\n"),
                          (["info", "UNIT_NAME"], "type:"), (["export"], ""), (["check"], "")]:
            with self.subTest(verb=verb):
                self.assertIn(out, self.ok(*verb, user="nobody"))
        for verb in (["set", "UNIT_NAME=x"], ["reset", "UNIT_NAME"], ["defaults", "general", "-y"], ["import", "-"]):
            with self.subTest(verb=verb):
                self.assertIn("no write access to '%s" % self.root, self.fails(1, *verb, stdin="", user="nobody"))


class LongRunning(Tree):
    def test_one_master_and_watchers_that_report_each_change_with_passwords_masked(self):
        master = self.start("master")
        self.assertIn("master running", self.read_line(master.stderr))
        self.assertIn("another master is already running", self.fails(1, "master", timeout=20))
        text, js = self.start("watch", "UNIT_NAME", PW), self.start("--json", "watch", "MTU_", PW)
        for proc in (text, js):
            self.assertIn("watching 2 variables", self.read_line(proc.stderr))
        for values, line, change in [
                (["UNIT_NAME=elsewhere", "MTU_VALUE=1400"], "UNIT_NAME: Unknown -> elsewhere",
                 ("MTU_VALUE", 300, 1500, 1400)),
                ([PW + "=one"], PW + ":  -> ********", (PW, 197, "", "********")),
                ([PW + "=two"], PW + ": ******** -> ********", (PW, 197, "********", "********"))]:
            self.ok("set", *values)
            self.assertRegex(self.read_line(text.stdout), "^%s %s$" % (TIME, re.escape(line)))
            doc = json.loads(self.read_line(js.stdout))
            self.assertRegex(doc.pop("time"), "^%s$" % TIME)
            self.assertEqual(doc, dict(zip(("name", "id", "old", "new"), change)))
        for proc in (text, js, master):
            self.stop(proc)


if __name__ == "__main__":
    CMCTL = os.path.abspath(sys.argv.pop(1))
    unittest.main()
