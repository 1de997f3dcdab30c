#!/usr/bin/env python3
"""Checks mibs/KESTREL-MIB.txt with libsmi's smilint and net-snmp's snmptranslate.

Machines without the IETF base modules (Debian ships them only in non-free)
get minimal stand-ins from tests/e2e/mibs, searched after the system's own.
"""
import os
import shutil
import subprocess
import unittest

SOURCE_DIR = os.environ.get(
    "KESTREL_SOURCE_DIR", os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..")))
MIB_DIR = os.path.join(SOURCE_DIR, "mibs")
MIB_FILE = os.path.join(MIB_DIR, "KESTREL-MIB.txt")
BASE_DIR = os.path.join(SOURCE_DIR, "tests", "e2e", "mibs")

ROOT = "1.3.6.1.4.1.48291.1"

# Every object the agent serves under its enterprise root, with its OID.
OBJECTS = {
    "kestrelRouter": ROOT,
    "softwareText": ROOT + ".1.4.1",
    "softwareStamp": ROOT + ".1.4.2",
    "softwareNumber": ROOT + ".1.4.3",
    "osVersion": ROOT + ".1.4.4",
    "softwareCounter": ROOT + ".1.4.5",
    "systemReboot": ROOT + ".1.7.1",
    "scriptName": ROOT + ".1.8.1.1.2",
    "scriptRun": ROOT + ".1.8.1.1.3",
    "voltage": ROOT + ".1.3.8",
    "supplyState": ROOT + ".1.3.9",
    "temperature": ROOT + ".1.3.10",
    "cpuTemperature": ROOT + ".1.3.11",
    "trafficName": ROOT + ".1.2.1.1.2",
    "trafficAddress1": ROOT + ".1.2.1.1.3",
    "trafficAddress2": ROOT + ".1.2.1.1.4",
    "trafficAddress3": ROOT + ".1.2.1.1.5",
    "trafficAddress4": ROOT + ".1.2.1.1.6",
    "trafficNumber": ROOT + ".1.2.1.1.7",
    "trafficBytes": ROOT + ".1.2.1.1.8",
    "trafficBytes2": ROOT + ".1.2.1.1.9",
    "trafficCount1": ROOT + ".1.2.1.1.10",
    "trafficCount2": ROOT + ".1.2.1.1.11",
    "trafficTreeName": ROOT + ".1.2.2.1.2",
    "trafficTreeParent": ROOT + ".1.2.2.1.3",
    "trafficTreeNumber": ROOT + ".1.2.2.1.4",
    "trafficTreeBytesLow": ROOT + ".1.2.2.1.5",
    "trafficTreeCount": ROOT + ".1.2.2.1.6",
    "trafficTreeBytes": ROOT + ".1.2.2.1.7",
    "hostAddress": ROOT + ".1.11.1.1.2",
    "hostMacAddress": ROOT + ".1.11.1.1.3",
    "hostText7": ROOT + ".1.11.1.1.4",
    "hostText8": ROOT + ".1.11.1.1.5",
    "hostText6": ROOT + ".1.11.1.1.6",
    "hostText11": ROOT + ".1.11.1.1.7",
    "kestrelEvent": ROOT + ".1.9.0.1",
}

# The SNMP type each object goes on the wire with (what the agent's packers
# write), as snmptranslate -Td names the base syntax.
SYNTAX = {
    "softwareNumber": "Integer32",
    "systemReboot": "Integer32",
    "scriptRun": "Integer32",
    "temperature": "Integer32",
    "trafficAddress1": "IpAddress",
    "hostAddress": "IpAddress",
    "trafficBytes": "Counter64",
    "trafficTreeBytes": "Counter64",
    "trafficCount1": "Counter32",
    "trafficTreeBytesLow": "Counter32",
    "softwareStamp": "OCTET STRING",
}

WRITABLE = {"systemReboot", "scriptName", "scriptRun"}


def run(cmd, env=None):
    return subprocess.run(cmd, capture_output=True, text=True, timeout=60, env=env)


@unittest.skipUnless(shutil.which("smilint"), "smilint (smitools) is not installed")
class SmilintTest(unittest.TestCase):
    def env(self):
        env = dict(os.environ)
        # A leading colon keeps libsmi's configured path in front.
        env["SMIPATH"] = ":" + MIB_DIR + ":" + BASE_DIR
        return env

    def test_module_is_clean_at_level_3(self):
        r = run(["smilint", "-l", "3", MIB_FILE], self.env())
        # smilint exits 0 even when it reports problems: its output is the verdict.
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual((r.stdout + r.stderr).strip(), "")

    def test_lint_catches_a_broken_copy(self):
        # Guards the check above against a path set-up that silently skips the module.
        with open(MIB_FILE) as f:
            text = f.read()
        broken = text.replace("{ voltage, supplyState", "{ voltagee, supplyState")
        self.assertNotEqual(broken, text)
        tmp = os.path.join(os.environ.get("TMPDIR", "/tmp"), "kestrel-mib-lint-%d" % os.getpid())
        os.makedirs(tmp, exist_ok=True)
        try:
            path = os.path.join(tmp, "KESTREL-MIB.txt")
            with open(path, "w") as f:
                f.write(broken)
            r = run(["smilint", "-l", "3", path], self.env())
            self.assertIn("voltagee", r.stdout + r.stderr)
        finally:
            shutil.rmtree(tmp, ignore_errors=True)


@unittest.skipUnless(shutil.which("snmptranslate"), "snmptranslate (net-snmp) is not installed")
class SnmptranslateTest(unittest.TestCase):
    def translate(self, *args):
        env = dict(os.environ)
        env.pop("MIBS", None)
        env.pop("MIBDIRS", None)
        r = run(["snmptranslate", "-M", "+:" + MIB_DIR + ":" + BASE_DIR, "-m", "KESTREL-MIB"] + list(args), env)
        return r.returncode, r.stdout.strip(), r.stderr.strip()

    def test_names_resolve_to_the_served_oids(self):
        for name, oid in OBJECTS.items():
            with self.subTest(name=name):
                rc, out, err = self.translate("-On", "KESTREL-MIB::" + name)
                self.assertEqual(rc, 0, err)
                self.assertEqual(out, "." + oid)

    def test_instances_print_by_name(self):
        rc, out, err = self.translate("." + ROOT + ".1.8.1.1.2.7")
        self.assertEqual((rc, out), (0, "KESTREL-MIB::scriptName.7"), err)
        rc, out, err = self.translate("." + ROOT + ".1.3.9.0")
        self.assertEqual((rc, out), (0, "KESTREL-MIB::supplyState.0"), err)
        rc, out, err = self.translate("." + ROOT + ".1.2.2.1.7.22")
        self.assertEqual((rc, out), (0, "KESTREL-MIB::trafficTreeBytes.22"), err)

    def test_syntax_and_access_match_the_agent(self):
        for name, syntax in SYNTAX.items():
            with self.subTest(name=name):
                rc, out, err = self.translate("-Td", "KESTREL-MIB::" + name)
                self.assertEqual(rc, 0, err)
                line = [l for l in out.splitlines() if l.strip().startswith("SYNTAX")]
                self.assertTrue(line, out)
                self.assertIn(syntax, line[0])
        for name in OBJECTS:
            if name in ("kestrelRouter", "kestrelEvent"):
                continue
            with self.subTest(name=name):
                rc, out, err = self.translate("-Td", "KESTREL-MIB::" + name)
                access = [l.split()[1] for l in out.splitlines() if l.strip().startswith("MAX-ACCESS")]
                self.assertEqual(access, ["read-write" if name in WRITABLE else "read-only"], out)

    def test_notification_is_under_the_enterprise_trap_oid(self):
        rc, out, err = self.translate("-Td", "KESTREL-MIB::kestrelEvent")
        self.assertEqual(rc, 0, err)
        self.assertIn("NOTIFICATION-TYPE", out)


if __name__ == "__main__":
    unittest.main()
