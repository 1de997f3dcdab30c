"""The agent process end to end: start it on a loopback port with the
fixture backend, configure it with kestrelctl, query it with net-snmp."""

import json
import os
import shutil
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(__file__))
import agentlib  # noqa: E402
from agentlib import Agent, ENABLED  # noqa: E402

SYS_DESCR = ".1.3.6.1.2.1.1.1.0"
SYS_NAME = ".1.3.6.1.2.1.1.5.0"
SYS_CONTACT = ".1.3.6.1.2.1.1.4.0"


def no_reply(r):
    return r.returncode != 0 and "Timeout" in (r.stdout + r.stderr)


class AgentProcess(agentlib.AgentTest):
    def setUp(self):
        super().setUp()
        agentlib.require(self, agentlib.CLI)

    def test_answers_get_and_refuses_bulk(self):
        with Agent(settings=ENABLED) as a:
            r = a.snmp("snmpget", SYS_DESCR)
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertIn('STRING: "router"', r.stdout)
            # Version 1 is answered too.
            r = a.snmp("snmpget", SYS_DESCR, version="1")
            self.assertIn('STRING: "router"', r.stdout)
            # GetBulk gets no reply at all.
            self.assertTrue(no_reply(a.snmp("snmpbulkget", ".1.3.6.1.2.1.1")))
            # An unknown community gets no reply.
            self.assertTrue(no_reply(a.snmp("snmpget", SYS_DESCR, community="nobody")))
            # And the agent still answers afterwards.
            self.assertEqual(a.snmp("snmpget", SYS_DESCR).returncode, 0)

    def test_error_status_and_index(self):
        with Agent(settings=ENABLED) as a:
            r = a.snmp("snmpget", SYS_DESCR, ".1.3.6.1.2.1.1.99.0")
            self.assertNotEqual(r.returncode, 0)
            self.assertIn("noSuchName", r.stderr + r.stdout)
            self.assertIn("1.3.6.1.2.1.1.99.0", r.stderr + r.stdout)
            # Writing with the read-only default community is refused as readOnly.
            r = a.snmp("snmpset", SYS_NAME, "s", "x")
            self.assertNotEqual(r.returncode, 0)
            self.assertRegex(r.stderr + r.stdout, "readOnly|notWritable")
            self.assertEqual([m for m in a.recorded() if "0x2000000c" in m], [])

    def test_community_filter_and_write_access(self):
        with Agent(settings=ENABLED) as a:
            a.ctl("communities", "add", "name=elsewhere", "read=1", "address=10.1.0.0", "netmask=255.255.0.0")
            a.ctl("communities", "add", "name=local", "read=1", "write=1", "address=127.0.0.0",
                  "netmask=255.0.0.0")
            self.assertTrue(no_reply(a.snmp("snmpget", SYS_DESCR, community="elsewhere")))
            r = a.snmp("snmpset", SYS_NAME, "s", "edge-1", community="local")
            self.assertEqual(r.returncode, 0, r.stderr)
            sets = [m for m in a.recorded() if m.get("0x2000000c") == "edge-1"]
            self.assertEqual(len(sets), 1, a.recorded())
            self.assertEqual(sets[0]["0x88ff0001"], [24, 1])
            # A v3-only user is refused as a community.
            a.ctl("communities", "add", "name=v3only", "read=1", "level=1", "auth=md5", "auth-pass=secretpass")
            self.assertTrue(no_reply(a.snmp("snmpget", SYS_DESCR, community="v3only")))
            # Duplicate names are refused with the agent's message and a non-zero exit.
            r = a.ctl("communities", "add", "name=local", check=False)
            self.assertNotEqual(r.returncode, 0)
            self.assertIn("community with such name already exists", r.stderr)

    def test_settings_communities_and_boots_survive_restart(self):
        a = Agent(settings=ENABLED)
        try:
            a.start()
            a.ctl("settings", "set", "contact=noc@example.net", "location=rack 7")
            a.ctl("communities", "add", "name=keeper", "read=1")
            first = json.loads(a.ctl("settings", "show", "--json").stdout)
            a.stop()
            a.start()
            r = a.snmp("snmpget", SYS_CONTACT, community="keeper")
            self.assertIn("noc@example.net", r.stdout, r.stderr)
            second = json.loads(a.ctl("settings", "show", "--json").stdout)
            self.assertEqual(second["boots"], first["boots"] + 1)
            self.assertEqual(second["location"], "rack 7")
            self.assertIn("engineBoots = %d" % second["boots"], a.stdout())
        finally:
            a.cleanup()

    def test_plugin_objects_are_answered(self):
        plugin = os.path.join(agentlib.BIN, "examples", "plugins", "hello.so")
        agentlib.require(self, plugin)
        a = Agent(settings=ENABLED)
        try:
            os.makedirs(os.path.join(a.plugin_dir, "sub"))
            shutil.copy(plugin, os.path.join(a.plugin_dir, "sub", "hello.so"))
            a.start()
            r = a.snmp("snmpget", ".1.3.6.1.4.1.48291.1.99.1.0", ".1.3.6.1.4.1.48291.1.99.2.0")
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertIn("hello from a plug-in", r.stdout)
            self.assertIn("plugin loaded: " + os.path.join(a.plugin_dir, "sub", "hello.so"), a.stderr())
        finally:
            a.cleanup()

    def test_disabled_agent_leaves_and_disable_closes_service(self):
        a = Agent()  # empty store: disabled
        try:
            a.start()
            deadline = time.time() + 8
            while a.proc.poll() is None and time.time() < deadline:
                time.sleep(0.05)
            self.assertEqual(a.proc.returncode, 0, "a disabled agent should leave when idle")
            a.proc = None
            a.settings = ENABLED
            a.start()
            self.assertEqual(a.snmp("snmpget", SYS_DESCR).returncode, 0)
            a.ctl("settings", "set", "enabled=0")
            self.assertTrue(no_reply(a.snmp("snmpget", SYS_DESCR)))
            deadline = time.time() + 8
            while a.proc.poll() is None and time.time() < deadline:
                time.sleep(0.05)
            self.assertEqual(a.proc.returncode, 0)
            a.proc = None
        finally:
            a.cleanup()


if __name__ == "__main__":
    unittest.main()
