"""SNMPv3 user-based security end to end with net-snmp's tools: discovery,
authNoPriv and authPriv with MD5 and SHA-1 plus DES, refusals, and keys
that follow the engine ID."""

import os
import socket
import sys
import unittest

sys.path.insert(0, os.path.dirname(__file__))
import agentlib  # noqa: E402
from agentlib import Agent  # noqa: E402

SYS_DESCR = ".1.3.6.1.2.1.1.1.0"
SYS_NAME = ".1.3.6.1.2.1.1.5.0"
ENGINE_TEXT = "kestrel-v3-test"
ENGINE_ID = b"\x80\x00\xbc\xa3\x04" + ENGINE_TEXT.encode()


def tlv(tag, body):
    n = len(body)
    if n < 128:
        head = bytes([n])
    elif n < 256:
        head = bytes([0x81, n])
    else:
        head = bytes([0x82, n >> 8, n & 0xFF])
    return bytes([tag]) + head + body


def integer(v):
    return tlv(0x02, v.to_bytes(max(1, (v.bit_length() + 8) // 8), "big", signed=True))


def parse(data, pos=0):
    """Yields (tag, value bytes) of the elements at one level."""
    while pos < len(data):
        tag = data[pos]
        n = data[pos + 1]
        pos += 2
        if n & 0x80:
            k = n & 0x7F
            n = int.from_bytes(data[pos:pos + k], "big")
            pos += k
        yield tag, data[pos:pos + n]
        pos += n


def discovery_report(port):
    """Sends an unauthenticated discovery request; returns the report's
    (engine ID, boots, time, report OID bytes)."""
    usm = tlv(0x30, tlv(0x04, b"") + integer(0) + integer(0) + tlv(0x04, b"") + tlv(0x04, b"") + tlv(0x04, b""))
    pdu = tlv(0xA0, integer(4711) + integer(0) + integer(0) + tlv(0x30, b""))
    scoped = tlv(0x30, tlv(0x04, b"") + tlv(0x04, b"") + pdu)
    header = tlv(0x30, integer(99) + integer(65507) + tlv(0x04, b"\x04") + integer(3))
    msg = tlv(0x30, integer(3) + header + tlv(0x04, usm) + scoped)
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.settimeout(2)
    try:
        s.sendto(msg, ("127.0.0.1", port))
        reply = s.recv(65536)
    finally:
        s.close()
    (_, top), = list(parse(reply))
    parts = list(parse(top))
    (_, sec), = list(parse(parts[2][1]))
    engine, boots, time_, user, auth, priv = [v for _, v in parse(sec)]
    scoped_parts = list(parse(parts[3][1]))
    report = scoped_parts[2]
    assert report[0] == 0xA8, "expected a report PDU"
    rid, _, _, vbl = list(parse(report[1]))
    (_, vb), = list(parse(vbl[1]))
    name, value = list(parse(vb))
    return engine, int.from_bytes(boots, "big"), int.from_bytes(time_, "big"), name[1], rid[1]


class SnmpV3(agentlib.AgentTest):
    @classmethod
    def setUpClass(cls):
        if not os.path.exists(agentlib.AGENT) or not os.path.exists(agentlib.CLI):
            raise unittest.SkipTest("agent or CLI not built")
        cls.agent = Agent(settings={"bool:0x01": True, "str:0x0a": ENGINE_TEXT})
        cls.agent.start()
        ctl = cls.agent.ctl
        ctl("communities", "add", "name=md5user", "read=1", "level=1", "auth=md5", "auth-pass=md5password")
        ctl("communities", "add", "name=shades", "read=1", "write=1", "level=2", "auth=sha", "priv=des",
            "auth-pass=shapassword", "priv-pass=despassword")
        ctl("communities", "add", "name=faraway", "read=1", "level=1", "auth=sha", "auth-pass=shapassword",
            "address=10.9.0.0", "netmask=255.255.0.0")

    @classmethod
    def tearDownClass(cls):
        cls.agent.cleanup()

    def v3(self, tool, user, *args, level="authNoPriv", auth="MD5", apass="md5password", priv=None,
           ppass=None):
        extra = ["-l", level, "-u", user]
        if level != "noAuthNoPriv":
            extra += ["-a", auth, "-A", apass]
        if priv:
            extra += ["-x", priv, "-X", ppass]
        return self.agent.snmp(tool, *args, version="3", extra=extra)

    def test_discovery_reports_engine_boots_and_time(self):
        engine, boots, time_, oid, rid = discovery_report(self.agent.port)
        self.assertEqual(engine, ENGINE_ID)
        self.assertEqual(boots, 0)  # first start: the boot count is not incremented yet
        self.assertLess(time_, 60)
        self.assertEqual(oid, bytes.fromhex("2b060106030f01010400"))  # usmStatsUnknownEngineIDs.0
        self.assertEqual(rid, (4711).to_bytes(2, "big"))
        # The boot count comes from the settings as given.
        self.agent.ctl("settings", "set", "boots=41")
        _, boots, _, _, _ = discovery_report(self.agent.port)
        self.assertEqual(boots, 41)
        self.assertEqual(self.v3("snmpget", "md5user", SYS_DESCR).returncode, 0)

    def test_auth_no_priv_md5(self):
        r = self.v3("snmpget", "md5user", SYS_DESCR)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn('STRING: "router"', r.stdout)

    def test_auth_priv_sha_des_get_walk_set(self):
        kw = dict(level="authPriv", auth="SHA", apass="shapassword", priv="DES", ppass="despassword")
        r = self.v3("snmpget", "shades", SYS_DESCR, **kw)
        self.assertIn('STRING: "router"', r.stdout, r.stderr)
        r = self.v3("snmpwalk", "shades", ".1.3.6.1.2.1.2.2.1.2", **kw)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertGreaterEqual(r.stdout.count("STRING:"), 2)
        r = self.v3("snmpset", "shades", SYS_NAME, "s", "v3-router", **kw)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertTrue(any(m.get("0x2000000c") == "v3-router" for m in self.agent.recorded()))

    def test_refusals(self):
        r = self.v3("snmpget", "md5user", SYS_DESCR, apass="wrongpassword")
        self.assertNotEqual(r.returncode, 0)
        self.assertNotIn("router", r.stdout)
        r = self.v3("snmpget", "nosuchuser", SYS_DESCR)
        self.assertNotEqual(r.returncode, 0)
        self.assertNotIn("router", r.stdout)
        # A user whose address filter excludes 127.0.0.1 is unknown to this sender.
        r = self.v3("snmpget", "faraway", SYS_DESCR, auth="SHA", apass="shapassword")
        self.assertNotEqual(r.returncode, 0)
        self.assertIn("Unknown user name", r.stderr + r.stdout)
        # Asking for privacy from a user without privacy keys is refused.
        r = self.v3("snmpget", "md5user", SYS_DESCR, level="authPriv", priv="DES", ppass="whatever1")
        self.assertNotEqual(r.returncode, 0)
        # The agent still serves after all of that.
        self.assertEqual(self.v3("snmpget", "md5user", SYS_DESCR).returncode, 0)

    def test_keys_follow_engine_id_changes(self):
        self.agent.ctl("settings", "set", "engine-id=renamed-engine")
        try:
            engine, _, _, _, _ = discovery_report(self.agent.port)
            self.assertEqual(engine, b"\x80\x00\xbc\xa3\x04renamed-engine")
            r = self.v3("snmpget", "md5user", SYS_DESCR)
            self.assertIn("router", r.stdout, r.stderr)
        finally:
            self.agent.ctl("settings", "set", "engine-id=" + ENGINE_TEXT)
        self.assertEqual(self.v3("snmpget", "md5user", SYS_DESCR).returncode, 0)


if __name__ == "__main__":
    unittest.main()
