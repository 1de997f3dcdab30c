"""The built-in MIB modules end to end: the agent over the router fixture,
walked and written with net-snmp's tools."""

import os
import re
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(__file__))
import agentlib  # noqa: E402
from agentlib import Agent, ENABLED  # noqa: E402

ENTERPRISE = ".1.3.6.1.4.1.48291.1"
RW = "kestrel-rw"


def walk(agent, oid, community="vellum"):
    """snmpwalk as a list of (oid, type, value) in walk order."""
    r = agent.snmp("snmpwalk", oid, community=community, extra=("-Oe",))
    if r.returncode != 0:
        raise AssertionError("snmpwalk %s failed: %s %s" % (oid, r.stdout, r.stderr))
    rows = []
    for line in r.stdout.splitlines():
        m = re.match(r"^(\S+) = (?:([\w-]+): )?(.*)$", line)
        if m:
            rows.append((m.group(1), m.group(2) or "", m.group(3)))
    return rows


def values(rows):
    return {oid: (typ, val) for oid, typ, val in rows}


def instances(rows, column):
    prefix = column + "."
    return [oid[len(prefix):] for oid, _, _ in rows if oid.startswith(prefix)]


class Modules(agentlib.AgentTest):
    @classmethod
    def setUpClass(cls):
        cls.agent = None
        if not (os.path.exists(agentlib.AGENT) and os.path.exists(agentlib.CLI) and agentlib.have_tool("snmpwalk")):
            return
        cls.agent = Agent(settings=ENABLED).start()
        cls.agent.ctl("communities", "add", "name=" + RW, "read=1", "write=1", "address=127.0.0.0",
                      "netmask=255.0.0.0")

    @classmethod
    def tearDownClass(cls):
        if cls.agent:
            cls.agent.cleanup()

    def setUp(self):
        super().setUp()
        agentlib.require(self, agentlib.CLI, "snmpwalk", "snmpset")

    def test_full_walk_is_ordered_and_complete(self):
        r = self.agent.snmp("snmpwalk", ".1.3.6.1", timeout=5)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertNotIn("OID not increasing", r.stderr + r.stdout)
        self.assertNotIn("Error", r.stderr + r.stdout)
        names = [line.split(" = ", 1)[0] for line in r.stdout.splitlines() if " = " in line]
        self.assertEqual(len(names), len(set(names)), "a name came twice")
        arcs = [tuple(int(a) for a in n.strip(".").split(".")) for n in names]
        self.assertEqual(arcs, sorted(arcs))
        # From the system group to the enterprise subtree.
        self.assertEqual(names[0], ".1.3.6.1.2.1.1.1.0")
        self.assertTrue(any(n.startswith(".1.3.6.1.2.1.17.") for n in names))
        self.assertTrue(names[-1].startswith(".1.3.6.1.4.1.48291.1."), names[-1])

    def test_system_group(self):
        v = values(walk(self.agent, ".1.3.6.1.2.1.1"))
        self.assertEqual(v[".1.3.6.1.2.1.1.1.0"], ("STRING", '"router"'))
        self.assertEqual(v[".1.3.6.1.2.1.1.2.0"], ("OID", ENTERPRISE))
        self.assertEqual(v[".1.3.6.1.2.1.1.3.0"][0], "Timeticks")
        self.assertIn("(8640000)", v[".1.3.6.1.2.1.1.3.0"][1])
        self.assertEqual(v[".1.3.6.1.2.1.1.5.0"], ("STRING", '"kestrel-gw"'))
        self.assertEqual(v[".1.3.6.1.2.1.1.7.0"], ("INTEGER", "78"))
        self.assertEqual(len(v), 7)

    def test_contact_and_location_follow_the_settings(self):
        self.agent.ctl("settings", "set", "contact=noc@example.net", "location=rack 7")
        v = values(walk(self.agent, ".1.3.6.1.2.1.1"))
        self.assertEqual(v[".1.3.6.1.2.1.1.4.0"], ("STRING", '"noc@example.net"'))
        self.assertEqual(v[".1.3.6.1.2.1.1.6.0"], ("STRING", '"rack 7"'))

    def test_interfaces(self):
        rows = walk(self.agent, ".1.3.6.1.2.1.2")
        v = values(rows)
        self.assertEqual(v[".1.3.6.1.2.1.2.1.0"], ("INTEGER", "9"))
        self.assertEqual(instances(rows, ".1.3.6.1.2.1.2.2.1.1"), [str(i) for i in range(1, 10)])
        self.assertEqual(v[".1.3.6.1.2.1.2.2.1.2.4"], ("STRING", '"vlan10"'))
        self.assertEqual(v[".1.3.6.1.2.1.2.2.1.3.4"], ("INTEGER", "135"))
        self.assertEqual(v[".1.3.6.1.2.1.2.2.1.5.4"], ("Gauge32", "1000000000"))
        self.assertEqual(v[".1.3.6.1.2.1.2.2.1.5.5"], ("Gauge32", "100000000"))
        self.assertEqual(v[".1.3.6.1.2.1.2.2.1.10.1"], ("Counter32", "5"))
        self.assertEqual(v[".1.3.6.1.2.1.2.2.1.7.3"], ("INTEGER", "2"))
        x = values(walk(self.agent, ".1.3.6.1.2.1.31.1.1.1"))
        self.assertEqual(x[".1.3.6.1.2.1.31.1.1.1.6.1"], ("Counter64", "4294967301"))
        self.assertEqual(x[".1.3.6.1.2.1.31.1.1.1.1.9"], ("STRING", '"lo"'))
        self.assertEqual(x[".1.3.6.1.2.1.31.1.1.1.15.1"], ("Gauge32", "0"))

    def test_ip_group(self):
        rows = walk(self.agent, ".1.3.6.1.2.1.4")
        v = values(rows)
        self.assertEqual(v[".1.3.6.1.2.1.4.1.0"], ("INTEGER", "1"))
        self.assertEqual(v[".1.3.6.1.2.1.4.2.0"], ("INTEGER", "255"))
        self.assertEqual(instances(rows, ".1.3.6.1.2.1.4.20.1.1"), ["10.0.0.2", "192.168.88.1"])
        self.assertEqual(instances(rows, ".1.3.6.1.2.1.4.22.1.4"),
                         ["5.192.168.88.10", "5.192.168.88.20", "7.10.0.0.1"])
        self.assertEqual(v[".1.3.6.1.2.1.4.22.1.4.7.10.0.0.1"], ("INTEGER", "2"))
        self.assertEqual(len(instances(rows, ".1.3.6.1.2.1.4.24.4.1.1")), 5)
        self.assertEqual(v[".1.3.6.1.2.1.4.24.3.0"], ("Gauge32", "5"))
        self.assertEqual(instances(rows, ".1.3.6.1.2.1.4.21.1.1"),
                         ["0.0.0.0", "10.20.0.0", "10.30.0.0", "192.168.88.0"])
        self.assertEqual(v[".1.3.6.1.2.1.4.24.4.1.7.10.20.0.0.255.255.0.0.0.10.0.0.1"], ("INTEGER", "13"))

    def test_host_resources_and_bridge(self):
        rows = walk(self.agent, ".1.3.6.1.2.1.25")
        v = values(rows)
        self.assertEqual(instances(rows, ".1.3.6.1.2.1.25.2.3.1.1"), ["1", "2"])
        self.assertEqual(v[".1.3.6.1.2.1.25.2.3.1.3.2"], ("STRING", '"main memory"'))
        self.assertEqual(v[".1.3.6.1.2.1.25.3.3.1.2.1"], ("INTEGER", "12"))
        b = walk(self.agent, ".1.3.6.1.2.1.17")
        self.assertEqual(instances(b, ".1.3.6.1.2.1.17.4.3.1.2"), ["2.0.0.0.170.1", "2.0.0.1.2.3"])
        self.assertEqual(values(b)[".1.3.6.1.2.1.17.2.1.0"], ("INTEGER", "3"))

    def test_enterprise_objects_print_by_name(self):
        mibs = os.path.join(agentlib.SRC, "mibs")
        base = os.path.join(agentlib.SRC, "tests", "e2e", "mibs")
        r = subprocess.run(["snmpwalk", "-v", "2c", "-c", "vellum", "-t", "1", "-r", "0", "-Le",
                            "-M", "+:%s:%s" % (mibs, base), "-m", "KESTREL-MIB", self.agent.target(), ENTERPRISE],
                           capture_output=True, text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        # DisplayString objects print without quotes once the MIB is loaded.
        self.assertIn("KESTREL-MIB::softwareText.0 = STRING: kestrel router software 1.4\n", r.stdout)
        self.assertIn("KESTREL-MIB::softwareStamp.0 = STRING: 1970-1-1,", r.stdout)
        self.assertIn("KESTREL-MIB::scriptName.7 = STRING: backup\n", r.stdout)
        self.assertIn("KESTREL-MIB::trafficBytes.11 = Counter64: 8589934592 bytes\n", r.stdout)
        self.assertIn("KESTREL-MIB::hostAddress.31 = IpAddress: 192.168.88.10\n", r.stdout)
        self.assertIn("KESTREL-MIB::supplyState.0 = STRING: main\n", r.stdout)
        self.assertNotIn("48291", r.stdout)  # every object resolved to a name

    def test_sets_reach_the_platform(self):
        a = self.agent
        r = a.snmp("snmpset", ENTERPRISE + ".1.7.1.0", "i", "1", community=RW)
        self.assertEqual(r.returncode, 0, r.stderr)
        reboots = [m for m in a.recorded() if m.get("0x88ff0001") == [24]]
        self.assertEqual(len(reboots), 1, a.recorded())
        self.assertEqual(reboots[0]["0x08ff0007"], 5)

        r = a.snmp("snmpset", ENTERPRISE + ".1.8.1.1.3.7", "i", "1", community=RW)
        self.assertEqual(r.returncode, 0, r.stderr)
        runs = [m for m in a.recorded() if m.get("0x88ff0001") == [48, 101] and m.get("0x08ff0007") == 1]
        self.assertEqual(len(runs), 1, a.recorded())
        self.assertEqual(runs[0]["0x08fe0001"], 7)
        self.assertNotIn("0x20000066", runs[0])

        r = a.snmp("snmpset", ENTERPRISE + ".1.8.1.1.2.9", "s", "nightly", community=RW)
        self.assertEqual(r.returncode, 0, r.stderr)
        renames = [m for m in a.recorded() if m.get("0x20000066") == "nightly"]
        self.assertEqual(len(renames), 1, a.recorded())
        self.assertEqual(renames[0]["0x08ff0007"], 0xfe0003)
        self.assertEqual(renames[0]["0x08fe0001"], 9)


if __name__ == "__main__":
    unittest.main()
