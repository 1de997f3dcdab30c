"""Notifications end to end: the agent sends its traps to net-snmp's
snmptrapd on a loopback port; the tests configure the agent with kestrelctl,
inject interface events through the fixture backend and read what
snmptrapd decoded."""

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(__file__))
import agentlib  # noqa: E402
from agentlib import Agent, ENABLED, free_udp_port  # noqa: E402

COLD_START = ".1.3.6.1.6.3.1.1.5.2"
LINK_DOWN = ".1.3.6.1.6.3.1.1.5.3"
LINK_UP = ".1.3.6.1.6.3.1.1.5.4"
ENTERPRISE = ".1.3.6.1.4.1.48291.1.1.9"
SYS_UPTIME = ".1.3.6.1.2.1.1.3.0"
TRAP_OID = ".1.3.6.1.6.3.1.1.4.1.0"
SYS_NAME = ".1.3.6.1.2.1.1.5.0"
IF_INDEX, IF_ADMIN, IF_OPER = ".1.3.6.1.2.1.2.2.1.1", ".1.3.6.1.2.1.2.2.1.7", ".1.3.6.1.2.1.2.2.1.8"
START_TRAP = 0xABC0001
ENGINE_TEXT = "kestrel-e2e"
ENGINE_HEX = "8000BCA304" + ENGINE_TEXT.encode().hex()

LINE = re.compile(r"^TRAP ver=(\S*) user=(\S*) addr=(\S*) ent=(\S*) gen=(\S*) spec=(\S*) vbs=(.*)$")


class TrapSink:
    """One snmptrapd on a free loopback port, with its own configuration and
    persistent folder; stopped by the test's clean-up in every case."""

    FORMAT = "TRAP ver=%s user=%u addr=%a ent=%N gen=%w spec=%q vbs=%V|%v\n"

    def __init__(self, test, users=()):
        self.dir = tempfile.mkdtemp(prefix="kestrel-trapd-")
        test.addCleanup(shutil.rmtree, self.dir, True)
        self.port = free_udp_port()
        self.log = os.path.join(self.dir, "trapd.out")
        conf = os.path.join(self.dir, "snmptrapd.conf")
        with open(conf, "w") as f:
            for u in users:
                f.write("createUser -e 0x%s %s\n" % (ENGINE_HEX, u))
        env = dict(os.environ, SNMP_PERSISTENT_DIR=self.dir, MIBS="", MIBDIRS=self.dir)
        with open(self.log, "wb") as out:
            self.proc = subprocess.Popen(
                ["snmptrapd", "-f", "-Lo", "-C", "-c", conf, "--disableAuthorization=yes", "-n", "-On",
                 "-F", self.FORMAT, "127.0.0.1:%d" % self.port],
                stdout=out, stderr=subprocess.STDOUT, env=env)
        test.addCleanup(self.stop)
        deadline = time.time() + 10
        while "NET-SNMP version" not in self.text():
            if self.proc.poll() is not None or time.time() > deadline:
                raise RuntimeError("snmptrapd did not start: " + self.text())
            time.sleep(0.05)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait(5)

    def text(self):
        with open(self.log, errors="replace") as f:
            return f.read()

    def traps(self):
        """Every decoded trap: dict with ver, user, addr, ent, gen, spec and
        vbs, a list of (oid, value) pairs."""
        result = []
        for line in self.text().splitlines():
            m = LINE.match(line)
            if not m:
                continue
            vbs = []
            for vb in m.group(7).split("|"):
                if vb:
                    name, _, value = vb.partition(" = ")
                    vbs.append((name, value))
            result.append(dict(ver=m.group(1), user=m.group(2), addr=m.group(3), ent=m.group(4),
                               gen=m.group(5), spec=m.group(6), vbs=vbs))
        return result

    def wait(self, count, timeout=5.0):
        deadline = time.time() + timeout
        while len(self.traps()) < count and time.time() < deadline:
            time.sleep(0.05)
        return self.traps()


def publish_link_event(agent, ifindex, flags):
    """The interface list publishes a link event through the fixture
    backend's control path; the agent gets it only if it subscribed."""
    msg = {"u32[]:0x88ff0001": [0xFFFE], "u32:0xff0007": 0xFFFE01, "u32[]:0x88000001": [20, 0],
           "u32:0x02": 0x10004,
           "msg:0x28000003": {"u32:0xfe0001": ifindex, "u32:0x10002": 0, "u32:0x10003": flags}}
    agent.ctl("raw", json.dumps(msg))


def community_id(agent, name):
    for c in json.loads(agent.ctl("--json", "communities", "list").stdout):
        if c["name"] == name:
            return c["id"]
    raise AssertionError("no community " + name)


def varbinds(trap):
    return dict(trap["vbs"])


class Traps(agentlib.AgentTest):
    def setUp(self):
        super().setUp()
        agentlib.require(self, agentlib.CLI, "snmptrapd")

    def agent(self, sink, **kw):
        a = Agent(settings=ENABLED, trap_port=sink.port, **kw)
        self.addCleanup(a.cleanup)
        return a.start()

    def marker(self, sink, agent):
        """Sends a trap that closes a sequence: once it arrived, every earlier
        trap has arrived too (one agent thread, one loopback socket). Returns
        all the traps before it."""
        self.markers = getattr(self, "markers", 0) + 1
        value = 'STRING: "marker-%d"' % self.markers
        agent.ctl("trap", "oid=%s" % SYS_NAME, "type=string", "value=marker-%d" % self.markers)
        deadline = time.time() + 5
        while True:
            traps = sink.traps()
            for i, t in enumerate(traps):
                if varbinds(t).get(SYS_NAME) == value:
                    return traps[:i]
            if time.time() > deadline:
                self.fail("marker trap never arrived: %s" % sink.text())
            time.sleep(0.05)

    def test_generator_listing(self):
        with Agent(settings=ENABLED) as a:
            listing = json.loads(a.ctl("--json", "generators").stdout)
            self.assertEqual(listing, [{"id": START_TRAP, "name": "start-trap"}, {"id": 0, "name": "interfaces"}])
            self.assertIn("start-trap", a.ctl("generators").stdout)

    def test_version1(self):
        sink = TrapSink(self)
        a = self.agent(sink)
        a.ctl("settings", "set", "trap-target=127.0.0.1", "trap-community=0", "trap-version=0",
              "generators=start-trap,0")
        # The start-up trap goes out when the agent starts with the selection.
        a.stop()
        a.start()
        traps = sink.wait(1)
        self.assertEqual(len(traps), 1, sink.text())
        cold = traps[0]
        self.assertEqual((cold["ver"], cold["user"], cold["addr"]), ("0", "vellum", "127.0.0.1"))
        self.assertEqual((cold["ent"], cold["gen"], cold["spec"], cold["vbs"]), (COLD_START, "1", "0", []))

        a.ctl("trap")
        a.ctl("trap", "oid=%s" % SYS_NAME, "type=string", "value=hello")
        traps = sink.wait(3)
        self.assertEqual(len(traps), 3, sink.text())
        for t in traps[1:]:
            self.assertEqual((t["ent"], t["gen"]), (ENTERPRISE, "6"))
            self.assertEqual(t["spec"].lstrip("."), "1")
        self.assertEqual(traps[1]["vbs"], [])
        self.assertEqual(traps[2]["vbs"], [(SYS_NAME, 'STRING: "hello"')])

        # A standard trap names itself as the enterprise, with its generic code.
        publish_link_event(a, 3, 0x400)
        traps = sink.wait(4)
        self.assertEqual(len(traps), 4, sink.text())
        down = traps[3]
        self.assertEqual((down["ent"], down["gen"], down["spec"]), (LINK_DOWN, "2", "0"))
        self.assertEqual(down["vbs"], [(IF_INDEX, "INTEGER: 3"), (IF_ADMIN, "INTEGER: 2"), (IF_OPER, "INTEGER: 1")])

    def test_version2c(self):
        sink = TrapSink(self)
        a = self.agent(sink)
        a.ctl("settings", "set", "trap-target=127.0.0.1", "trap-community=0", "trap-version=1",
              "generators=start-trap")
        a.stop()
        a.start()
        traps = sink.wait(1)
        self.assertEqual(len(traps), 1, sink.text())
        self.assertEqual((traps[0]["ver"], traps[0]["user"]), ("1", "vellum"))
        names = [n for n, _ in traps[0]["vbs"]]
        self.assertEqual(names, [SYS_UPTIME, TRAP_OID])
        self.assertRegex(traps[0]["vbs"][0][1], r"^Timeticks: \(\d+\)")
        self.assertEqual(traps[0]["vbs"][1][1], "OID: " + COLD_START)

        # Without the interfaces generator, link events are not followed.
        publish_link_event(a, 3, 0x500)
        self.assertEqual(len(self.marker(sink, a)), 1)

        a.ctl("settings", "set", "generators=start-trap,0")
        for flags in (0x500, 0x500, 0x1500, 0x400, 0x0, 0x0):
            publish_link_event(a, 3, flags)
        traps = self.marker(sink, a)[2:]
        # One trap per change of the link bits; repeats and other bits give none.
        self.assertEqual([(varbinds(t)[TRAP_OID], varbinds(t)[IF_ADMIN], varbinds(t)[IF_OPER]) for t in traps],
                         [("OID: " + LINK_UP, "INTEGER: 1", "INTEGER: 1"),
                          ("OID: " + LINK_DOWN, "INTEGER: 2", "INTEGER: 1"),
                          ("OID: " + LINK_DOWN, "INTEGER: 2", "INTEGER: 2")])
        for t in traps:
            self.assertEqual([n for n, _ in t["vbs"]], [SYS_UPTIME, TRAP_OID, IF_INDEX, IF_ADMIN, IF_OPER])
            self.assertEqual(varbinds(t)[IF_INDEX], "INTEGER: 3")

        # The enterprise trap, bare and with one binding.
        a.ctl("trap")
        a.ctl("trap", "oid=%s" % SYS_NAME, "type=null")
        traps = self.marker(sink, a)[6:]
        self.assertEqual(len(traps), 2, sink.text())
        for t in traps:
            self.assertEqual(varbinds(t)[TRAP_OID], "OID: " + ENTERPRISE + ".0.1")
        self.assertEqual(len(traps[0]["vbs"]), 2)
        self.assertEqual(traps[1]["vbs"][2][0], SYS_NAME)
        self.assertIn("NULL", traps[1]["vbs"][2][1])

    def test_version3(self):
        users = {
            "md5auth": (["level=1", "auth=md5", "auth-pass=md5password"], "MD5 md5password"),
            "shaauth": (["level=1", "auth=sha", "auth-pass=shapassword"], "SHA shapassword"),
            "shapriv": (["level=2", "auth=sha", "auth-pass=shaprivauth", "priv=des", "priv-pass=shaprivpriv"],
                        "SHA shaprivauth DES shaprivpriv"),
            # The sink knows this user with another password: its traps must not decode.
            "stranger": (["level=1", "auth=md5", "auth-pass=agentsidepass"], "MD5 sinksidepass"),
        }
        sink = TrapSink(self, ["%s %s" % (name, conf) for name, (_, conf) in users.items()])
        a = self.agent(sink)
        a.ctl("settings", "set", "engine-id=" + ENGINE_TEXT, "trap-target=127.0.0.1", "trap-version=3",
              "generators=0")
        for name, (args, _) in users.items():
            a.ctl("communities", "add", "name=" + name, "read=1", *args)

        long_value = "L" * 200
        seen = 0
        for name, flags in (("md5auth", 0x500), ("shaauth", 0x400), ("shapriv", 0x500)):
            a.ctl("settings", "set", "trap-community=%d" % community_id(a, name))
            a.ctl("trap", "oid=%s" % SYS_NAME, "type=string", "value=" + name)
            # A PDU longer than 127 bytes.
            a.ctl("trap", "oid=%s" % SYS_NAME, "type=string", "value=" + long_value)
            publish_link_event(a, 1, flags)
            traps = self.marker(sink, a)[seen:]
            seen += 4
            self.assertEqual(len(traps), 3, sink.text())
            for t in traps:
                self.assertEqual(t["user"], name)
            self.assertEqual(varbinds(traps[0])[TRAP_OID], "OID: " + ENTERPRISE + ".0.1")
            self.assertEqual(varbinds(traps[0])[SYS_NAME], 'STRING: "%s"' % name)
            self.assertEqual(varbinds(traps[1])[SYS_NAME], 'STRING: "%s"' % long_value)
            self.assertEqual(varbinds(traps[2])[IF_INDEX], "INTEGER: 1")
            self.assertEqual(varbinds(traps[2])[TRAP_OID], "OID: " + (LINK_UP if flags & 0x100 else LINK_DOWN))
        self.assertIn("snmp v3 trap", a.stdout())

        # A trap whose digest the sink cannot verify is dropped.
        a.ctl("settings", "set", "trap-community=%d" % community_id(a, "stranger"))
        a.ctl("trap", "oid=%s" % SYS_NAME, "type=string", "value=stranger")
        a.ctl("settings", "set", "trap-community=%d" % community_id(a, "shaauth"))
        traps = self.marker(sink, a)
        self.assertEqual(len(traps), seen)
        self.assertNotIn("stranger", [t["user"] for t in traps])


if __name__ == "__main__":
    unittest.main()
