"""kestrelctl against the real agent: listings that span several pages,
object commands and their error lines, raw messages, a vanished agent."""

import json
import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(__file__))
import agentlib  # noqa: E402
from agentlib import Agent, ENABLED  # noqa: E402


class Kestrelctl(unittest.TestCase):
    def setUp(self):
        agentlib.require(self, agentlib.AGENT, agentlib.CLI)

    def test_settings_round_trip(self):
        with Agent(settings=ENABLED) as a:
            shown = a.ctl("settings", "show").stdout
            self.assertRegex(shown, r"(?m)^enabled +yes$")
            self.assertRegex(shown, r"(?m)^community +vellum$")
            a.ctl("settings", "set", "contact=noc@example.net", "location=rack 9", "trap-target=127.0.0.1",
                  "trap-version=v2c", "generators=start-trap")
            s = json.loads(a.ctl("--json", "settings", "show").stdout)
            self.assertEqual(s["contact"], "noc@example.net")
            self.assertEqual(s["location"], "rack 9")
            self.assertEqual(s["trap-target"], "127.0.0.1")
            self.assertEqual(s["trap-version"], 1)
            self.assertEqual(s["generators"], [0xABC0001])
            r = a.ctl("settings", "set", "trap-target=localhost", check=False)
            self.assertEqual(r.returncode, 2)
            self.assertTrue(r.stderr.startswith("error: bad value for trap-target"), r.stderr)

    def test_listing_spans_pages_and_object_commands(self):
        with Agent(settings=ENABLED) as a:
            names = ["c%02d" % i for i in range(45)]
            for n in names:
                a.ctl("communities", "add", "name=" + n, "read=1")
            listed = json.loads(a.ctl("--json", "communities", "list").stdout)
            self.assertEqual([c["name"] for c in listed], ["vellum"] + names)
            self.assertEqual(len({c["id"] for c in listed}), len(listed))
            human = a.ctl("communities", "list").stdout.splitlines()
            self.assertEqual(len(human), 1 + len(listed))
            self.assertTrue(human[0].startswith("ID"))

            target = next(c for c in listed if c["name"] == "c07")
            a.ctl("communities", "set", str(target["id"]), "write=yes", "address=10.0.0.0", "netmask=255.0.0.0")
            shown = json.loads(a.ctl("--json", "communities", "show", str(target["id"])).stdout)
            self.assertTrue(shown["write"])
            self.assertEqual(shown["netmask"], "255.0.0.0")

            r = a.ctl("communities", "add", "name=c07", check=False)
            self.assertEqual(r.returncode, 1)
            self.assertEqual(r.stderr, "error: 0xfe0006: community with such name already exists\n")
            a.ctl("communities", "remove", str(target["id"]))
            r = a.ctl("communities", "show", str(target["id"]), check=False)
            self.assertEqual(r.returncode, 1)
            self.assertTrue(r.stderr.startswith("error: 0xfe0004: "), r.stderr)

    def test_generators_and_raw(self):
        with Agent(settings=ENABLED) as a:
            gens = json.loads(a.ctl("--json", "generators").stdout)
            self.assertEqual(gens[0], {"id": 0xABC0001, "name": "start-trap"})
            self.assertIn("start-trap", a.ctl("generators").stdout)
            # The settings get command, sent as a raw bus message.
            reply = json.loads(a.ctl("raw", json.dumps({"u32:0xff0007": 0xFE000D})).stdout)
            self.assertEqual(reply["0x20000004"], "vellum")
            self.assertIs(reply["0x00000001"], True)

    def test_agent_gone(self):
        a = Agent(settings=ENABLED)
        try:
            a.start()
            a.stop()
            r = a.ctl("settings", "show", check=False)
            self.assertEqual(r.returncode, 3)
            self.assertEqual(r.stderr.count("\n"), 1)
            self.assertTrue(r.stderr.startswith("error: cannot connect to "), r.stderr)
        finally:
            a.cleanup()


if __name__ == "__main__":
    unittest.main()
