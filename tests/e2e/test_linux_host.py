"""The agent with the Linux host backend against a real kernel.

A network namespace of the test's own holds veth pairs (and a dummy device
where the kernel has the module), a bridge with a port, addresses, static
neighbours and routes, one of them multipath. The agent runs inside it and
is walked with net-snmp's tools from inside it; every table is compared with
what `ip` and `bridge` report. Link changes inside the namespace must reach
snmptrapd as linkDown and linkUp traps. A second case starts the README's
run command (scripts/run) on a free port and walks the host itself.

Needs root (or CAP_SYS_ADMIN and CAP_NET_ADMIN) for the namespace; skipped
with the reason otherwise."""

import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import agentlib  # noqa: E402

AGENT = agentlib.AGENT
CLI = agentlib.CLI
SRC = os.path.abspath(agentlib.SRC)
BIN = os.path.abspath(agentlib.BIN)

IF_ENTRY = ".1.3.6.1.2.1.2.2.1"
IFX_ENTRY = ".1.3.6.1.2.1.31.1.1.1"
IPADDR_ENTRY = ".1.3.6.1.2.1.4.20.1"
NET2MEDIA_ENTRY = ".1.3.6.1.2.1.4.22.1"
CIDR_ENTRY = ".1.3.6.1.2.1.4.24.4.1"
FDB_ENTRY = ".1.3.6.1.2.1.17.4.3.1"
LINK_DOWN = ".1.3.6.1.6.3.1.1.5.3"
LINK_UP = ".1.3.6.1.6.3.1.1.5.4"
SNMP_TRAP_OID = ".1.3.6.1.6.3.1.1.4.1.0"

# Ports inside the namespace: it is the test's own, nothing else listens there.
NS_PORT = 16161
NS_TRAP_PORT = 16162


# ---------------------------------------------------------------------------
# Clean-up that also runs when the test runner is stopped with SIGTERM or
# SIGINT: processes first (a namespace lives on while a process is inside),
# then namespaces and folders.
_cleanups = []


def _run_cleanups():
    while _cleanups:
        fn = _cleanups.pop()
        try:
            fn()
        except Exception as e:  # keep cleaning the rest
            print("cleanup failed: %s" % e, file=sys.stderr)


def _on_signal(signum, _frame):
    _run_cleanups()
    os._exit(128 + signum)


signal.signal(signal.SIGTERM, _on_signal)
signal.signal(signal.SIGINT, _on_signal)


def stop_process(proc, group=False):
    """Terminates one process this test started (or its own process group),
    waiting a bounded time and killing it if it does not leave."""
    if proc is None or proc.poll() is not None:
        return
    try:
        if group:
            os.killpg(proc.pid, signal.SIGTERM)
        else:
            proc.terminate()
        proc.wait(5)
    except subprocess.TimeoutExpired:
        if group:
            os.killpg(proc.pid, signal.SIGKILL)
        else:
            proc.kill()
        proc.wait(5)
    except ProcessLookupError:
        pass


def run(cmd, timeout=20, check=False):
    r = subprocess.run(cmd, capture_output=True, text=True, timeout=timeout)
    if check and r.returncode != 0:
        raise AssertionError("%s failed (%d): %s" % (" ".join(cmd), r.returncode, r.stderr.strip()))
    return r


# ---------------------------------------------------------------------------
# net-snmp output: "-On" lines ".1.3... = TYPE: value" (Hex-STRING values may
# continue on the next lines).
_LINE = re.compile(r"^(\.[0-9.]+) = (.*)$")


def parse_snmp(text):
    rows = []
    for line in text.splitlines():
        m = _LINE.match(line)
        if m:
            rows.append([m.group(1), m.group(2)])
        elif rows and line.strip():
            rows[-1][1] += " " + line.strip()
    out = []
    for oid, rest in rows:
        if rest.startswith("No Such") or rest.startswith("No more variables"):
            continue
        if rest == '""':
            out.append((oid, "STRING", ""))
            continue
        typ, _, val = rest.partition(": ")
        out.append((oid, typ, val.strip()))
    return out


def octets(typ, val):
    """An OCTET STRING value as bytes, whichever way net-snmp printed it."""
    if typ == "Hex-STRING":
        return bytes.fromhex(val.replace(" ", ""))
    if typ == "STRING":
        if len(val) >= 2 and val[0] == '"' and val[-1] == '"':
            val = val[1:-1]
        return re.sub(r'\\(["\\])', r"\1", val).encode("latin-1")
    raise AssertionError("not an octet string: %s %s" % (typ, val))


def text(typ, val):
    return octets(typ, val).decode("utf-8", "replace")


def ticks(typ, val):
    assert typ == "Timeticks", (typ, val)
    return int(val[1:val.index(")")])


def columns(rows, entry):
    """{column: {instance suffix: (type, value)}} of one table entry."""
    prefix = entry + "."
    table = {}
    for oid, typ, val in rows:
        if not oid.startswith(prefix):
            continue
        col, _, inst = oid[len(prefix):].partition(".")
        table.setdefault(int(col), {})[inst] = (typ, val)
    return table


def mac_bytes(s):
    """A link-layer address as `ip -j` prints it: colon hex, or dotted for
    tunnels whose link address is an IPv4 address."""
    if not s:
        return b""
    if ":" not in s and s.count(".") == 3:
        return bytes(int(x) for x in s.split("."))
    return bytes.fromhex(s.replace(":", ""))


def mask_of(prefix_len):
    bits = (0xFFFFFFFF << (32 - prefix_len)) & 0xFFFFFFFF if prefix_len else 0
    return ".".join(str((bits >> s) & 0xFF) for s in (24, 16, 8, 0))


def split_prefix(dst):
    if dst == "default":
        return "0.0.0.0", "0.0.0.0"
    addr, _, length = dst.partition("/")
    return addr, mask_of(int(length) if length else 32)


def oper_up(link):
    flags = set(link.get("flags", []))
    return "UP" in flags and link.get("operstate") in ("UP", "UNKNOWN")


# ---------------------------------------------------------------------------
class Namespace:
    """A network namespace made and deleted by the test."""

    def __init__(self, name):
        self.name = name
        self.created = False

    def create(self):
        r = run(["ip", "netns", "add", self.name])
        if r.returncode != 0:
            return r.stderr.strip() or "ip netns add failed"
        self.created = True
        return None

    def delete(self):
        if self.created:
            run(["ip", "netns", "delete", self.name], timeout=10)
            self.created = False

    def cmd(self, *args):
        return ["ip", "netns", "exec", self.name] + list(args)

    def sh(self, *args, check=True):
        return run(self.cmd(*args), check=check)

    def json(self, *args):
        r = self.sh(*args)
        return json.loads(r.stdout) if r.stdout.strip() else []

    def links(self):
        return self.json("ip", "-j", "-d", "link", "show")

    def link(self, name):
        return self.json("ip", "-j", "-s", "link", "show", "dev", name)[0]


def stale_namespaces():
    """Namespaces an earlier run of this file left behind when it was killed
    (named with a process id that no longer exists and holding no process)."""
    r = run(["ip", "netns", "list"])
    for line in r.stdout.splitlines():
        m = re.match(r"^(kestrel-e2e-(\d+))\b", line)
        if not m or os.path.exists("/proc/" + m.group(2)):
            continue
        if run(["ip", "netns", "pids", m.group(1)]).stdout.strip():
            continue
        yield m.group(1)


class LinuxHostInNamespace(unittest.TestCase):
    """One namespace, one agent and one trap sink for every case."""

    @classmethod
    def setUpClass(cls):
        for tool in ("ip", "bridge", "snmpwalk", "snmpget", "snmptrapd"):
            if not agentlib.have_tool(tool):
                raise unittest.SkipTest("tool missing: " + tool)
        for path in (AGENT, CLI):
            if not os.path.exists(path):
                raise unittest.SkipTest("not built: " + path)
        for old in stale_namespaces():
            run(["ip", "netns", "delete", old])

        cls.tmp = tempfile.mkdtemp(prefix="kestrel-linux-e2e-")
        _cleanups.append(lambda: shutil.rmtree(cls.tmp, ignore_errors=True))
        cls.ns = Namespace("kestrel-e2e-%d" % os.getpid())
        why = cls.ns.create()
        if why:
            _run_cleanups()
            raise unittest.SkipTest("cannot create a network namespace here: " + why)
        _cleanups.append(cls.ns.delete)
        cls.agent = cls.trapd = None
        try:
            cls.build_network()
            cls.start_agent()
        except BaseException:
            _run_cleanups()
            raise

    @classmethod
    def tearDownClass(cls):
        _run_cleanups()

    @classmethod
    def build_network(cls):
        ns = cls.ns
        # Without IPv6 the links stay quiet (no neighbour discovery, no
        # multicast reports), so the bridge learns only what the test sends.
        for key in ("all", "default"):
            ns.sh("sysctl", "-q", "-w", "net.ipv6.conf.%s.disable_ipv6=1" % key, check=False)
        steps = [
            "ip link set lo up",
            "ip link add v0 type veth peer name v1",
            "ip link add v2 type veth peer name v3",
            # v4 stays down; its peer v5 is up without a carrier.
            "ip link add v4 type veth peer name v5",
            "ip link add br0 type bridge priority 12288",
            "ip link set v0 master br0",
            "ip link set v1 mtu 1400",
            "ip link set v0 up", "ip link set v1 up", "ip link set br0 up",
            "ip link set v2 up", "ip link set v3 up", "ip link set v5 up",
            "ip addr add 10.0.0.1/24 dev v1",
            "ip addr add 10.9.0.1/16 dev v1",
            "ip addr add 192.168.5.1/24 dev br0",
            "ip addr add 172.31.3.1/30 dev v3",
            "ip neigh add 10.0.0.9 lladdr 02:00:00:00:00:09 dev v1 nud permanent",
            "ip neigh add 192.168.5.9 lladdr 02:00:00:00:05:09 dev br0 nud permanent",
            "ip neigh add 10.0.0.10 lladdr 02:00:00:00:00:0a dev v1 nud reachable",
            "ip route add 10.77.0.0/16 nexthop via 10.0.0.2 dev v1 nexthop via 192.168.5.2 dev br0",
            "ip route add 10.78.0.0/16 via 10.0.0.4 metric 30",
            "ip route add 10.79.0.0/16 dev v1",
            "ip route add default via 192.168.5.254",
            "bridge fdb add 02:00:00:00:00:77 dev v0 master static",
        ]
        for step in steps:
            r = ns.sh(*step.split(), check=False)
            if r.returncode != 0:
                raise unittest.SkipTest("could not build the test network (%s): %s" % (step, r.stderr.strip()))
        # Dummy and VLAN devices where the kernel has their modules; veth
        # does the rest.
        cls.has_dummy = ns.sh("ip", "link", "add", "d0", "type", "dummy", check=False).returncode == 0
        if cls.has_dummy:
            ns.sh("ip", "link", "set", "d0", "up")
            ns.sh("ip", "addr", "add", "10.200.0.1/24", "dev", "d0")
        cls.has_vlan = ns.sh("ip", "link", "add", "link", "v1", "name", "v1.5", "type", "vlan", "id", "5",
                             check=False).returncode == 0
        if cls.has_vlan:
            ns.sh("ip", "link", "set", "v1.5", "up")
        # Traffic through v1 into the bridge port, to a neighbour whose
        # address is known (no resolution, no failed entry left behind).
        cls.send_traffic()
        cls.wait_links_settled()

    @classmethod
    def send_traffic(cls):
        """Datagrams out of v1 to the permanent neighbour: they reach the
        bridge port v0 without any address resolution."""
        cls.ns.sh(sys.executable, "-c", "import socket\n"
                  "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                  "for _ in range(3): s.sendto(b'k' * 200, ('10.0.0.9', 9))\n")

    @classmethod
    def wait_links_settled(cls, timeout=10):
        """Bounded wait until the links that have a peer are running."""
        want = {"v0", "v1", "v2", "v3", "br0"}
        deadline = time.time() + timeout
        while time.time() < deadline:
            if all(oper_up(l) for l in cls.ns.links() if l["ifname"] in want):
                return
            time.sleep(0.1)

    @classmethod
    def start_agent(cls):
        settings = os.path.join(cls.tmp, "first-settings.json")
        with open(settings, "w") as f:
            json.dump(agentlib.ENABLED, f)
        cls.state = os.path.join(cls.tmp, "state")
        os.mkdir(cls.state)
        cls.agent_out = os.path.join(cls.tmp, "agent.out")
        cls.agent_err = os.path.join(cls.tmp, "agent.err")
        args = cls.ns.cmd(AGENT, "--backend", "linux", "--port", str(NS_PORT), "--bind", "127.0.0.1",
                          "--state-dir", cls.state, "--first-settings", settings,
                          "--trap-port", str(NS_TRAP_PORT), "--plugin-dir", os.path.join(cls.tmp, "plugins"))
        with open(cls.agent_out, "wb") as out, open(cls.agent_err, "wb") as err:
            cls.agent = subprocess.Popen(args, stdout=out, stderr=err)
        _cleanups.append(lambda: stop_process(cls.agent))
        deadline = time.time() + 15
        while time.time() < deadline:
            if cls.agent.poll() is not None:
                raise AssertionError("agent exited with %s: %s" % (cls.agent.returncode, cls.read(cls.agent_err)))
            if cls.ctl("settings", "show", check=False).returncode == 0:
                return
            time.sleep(0.05)
        raise AssertionError("agent did not come up: " + cls.read(cls.agent_err))

    @staticmethod
    def read(path):
        try:
            with open(path, errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    @classmethod
    def ctl(cls, *args, check=True):
        # The control socket is a file: reachable from outside the namespace.
        return run([CLI, "--state-dir", cls.state] + list(args), check=check)

    def snmp(self, tool, *oids):
        r = run(self.ns.cmd(tool, "-v2c", "-c", "vellum", "-m", "", "-On", "-t", "2", "-r", "1",
                            "127.0.0.1:%d" % NS_PORT, *oids), timeout=120)
        self.assertEqual(r.returncode, 0, "%s %s: %s" % (tool, oids, r.stderr))
        rows = parse_snmp(r.stdout)
        self.assertTrue(rows, "%s %s gave nothing: %s" % (tool, oids, r.stderr))
        return rows

    def walk(self, oid):
        return self.snmp("snmpwalk", oid)

    def consistent(self, observe, query, attempts=4):
        """Runs query between two observations of the kernel that agree, so
        that a change in the middle (a learned address, a carrier coming up)
        cannot make the comparison flaky. Returns (observation, answer)."""
        for _ in range(attempts):
            before = observe()
            answer = query()
            if observe() == before:
                return before, answer
            time.sleep(0.5)
        self.fail("the kernel's state kept changing during the walk")

    def index_of(self, links):
        return {l["ifname"]: l["ifindex"] for l in links}

    # -----------------------------------------------------------------------
    def test_interfaces_match_ip_link(self):
        def observe():
            return [{k: l.get(k) for k in ("ifindex", "ifname", "mtu", "flags", "operstate", "address")}
                    for l in self.ns.links()]

        _, rows = self.consistent(observe, lambda: self.walk(".1.3.6.1.2.1.2") + self.walk(IFX_ENTRY + ".1"))
        links = self.ns.links()
        by_index = {str(l["ifindex"]): l for l in links}
        if_table = columns(rows, IF_ENTRY)
        ifx = columns(rows, IFX_ENTRY)
        number = [v for o, t, v in rows if o == ".1.3.6.1.2.1.2.1.0"]
        self.assertEqual(number, [str(len(links))], "ifNumber")
        self.assertEqual(set(if_table[1]), set(by_index), "one ifTable row per kernel link")
        self.assertEqual(set(ifx[1]), set(by_index), "one ifXTable row per kernel link")
        # (The kernel may add its own tunnel devices to every namespace.)
        ours = {"lo", "v0", "v1", "v2", "v3", "v4", "v5", "br0"}
        ours |= ({"d0"} if self.has_dummy else set()) | ({"v1.5"} if self.has_vlan else set())
        self.assertLessEqual(ours, {l["ifname"] for l in links})

        for inst, l in by_index.items():
            name = l["ifname"]
            kind = l.get("linkinfo", {}).get("info_kind", "")
            self.assertEqual(if_table[1][inst], ("INTEGER", inst), name)
            self.assertEqual(text(*if_table[2][inst]), name, "ifDescr")
            self.assertEqual(text(*ifx[1][inst]), name, "ifName")
            self.assertEqual(if_table[4][inst], ("INTEGER", str(l["mtu"])), "ifMtu of " + name)
            self.assertEqual(octets(*if_table[6][inst]), mac_bytes(l.get("address", "")), "ifPhysAddress of " + name)
            admin = "1" if "UP" in l["flags"] else "2"
            self.assertEqual(if_table[7][inst], ("INTEGER", admin), "ifAdminStatus of " + name)
            self.assertEqual(if_table[8][inst], ("INTEGER", "1" if oper_up(l) else "2"), "ifOperStatus of " + name)
            if kind == "bridge":
                self.assertEqual(if_table[3][inst], ("INTEGER", "209"), name)
                self.assertEqual(if_table[5][inst], ("Gauge32", "100000000"), name)
            elif kind in ("veth", "dummy") and "UP" in l["flags"]:
                # (sysfs shows the driver's speed only while the link is up)
                self.assertEqual(if_table[3][inst], ("INTEGER", "6"), name)
                self.assertEqual(if_table[5][inst], ("Gauge32", str(self.ethernet_speed(name))), "ifSpeed of " + name)
            elif kind == "vlan":
                # l2vlan, at the speed of the device below it.
                self.assertEqual(if_table[3][inst], ("INTEGER", "135"), name)
                self.assertEqual(if_table[5][inst], ("Gauge32", str(self.ethernet_speed(l["link"]))), name)
        state = {l["ifname"]: (if_table[7][str(l["ifindex"])][1], if_table[8][str(l["ifindex"])][1]) for l in links}
        self.assertEqual(state["v4"], ("2", "2"), "down")
        self.assertEqual(state["v5"], ("1", "2"), "up without a carrier")
        self.assertEqual(state["v3"], ("1", "1"), "up and running")
        v1 = next(l for l in links if l["ifname"] == "v1")
        self.assertEqual(if_table[4][str(v1["ifindex"])], ("INTEGER", "1400"))

    def ethernet_speed(self, name):
        """ifSpeed the agent must give an Ethernet-like link: the driver's
        speed in classes of 10M / 100M / 1G, 0 above (no class for it), and
        10M when the driver reports none."""
        r = self.ns.sh("cat", "/sys/class/net/%s/speed" % name, check=False)
        try:
            mbps = int(r.stdout.strip())
        except ValueError:
            mbps = -1
        if mbps <= 0:
            return 10000000
        if mbps <= 10:
            return 10000000
        if mbps <= 100:
            return 100000000
        if mbps <= 1000:
            return 1000000000
        return 0

    def test_counters_lie_between_two_readings_of_the_kernel(self):
        names = ("v0", "v1")
        before = {n: self.ns.link(n)["stats64"] for n in names}
        time.sleep(0.6)  # counters read earlier by another case have left the cache
        self.send_traffic()
        idx = {n: self.ns.link(n)["ifindex"] for n in names}
        oids = []
        for n in names:
            i = idx[n]
            oids += ["%s.10.%d" % (IF_ENTRY, i), "%s.16.%d" % (IF_ENTRY, i), "%s.11.%d" % (IF_ENTRY, i),
                     "%s.6.%d" % (IFX_ENTRY, i), "%s.10.%d" % (IFX_ENTRY, i), "%s.7.%d" % (IFX_ENTRY, i)]
        got = {o: (t, v) for o, t, v in self.snmp("snmpget", *oids)}
        after = {n: self.ns.link(n)["stats64"] for n in names}
        for n in names:
            i = idx[n]
            hc_in = int(got["%s.6.%d" % (IFX_ENTRY, i)][1])
            hc_out = int(got["%s.10.%d" % (IFX_ENTRY, i)][1])
            self.assertEqual(got["%s.6.%d" % (IFX_ENTRY, i)][0], "Counter64")
            self.assertTrue(before[n]["rx"]["bytes"] <= hc_in <= after[n]["rx"]["bytes"], (n, "rx", hc_in))
            self.assertTrue(before[n]["tx"]["bytes"] <= hc_out <= after[n]["tx"]["bytes"], (n, "tx", hc_out))
            self.assertEqual(got["%s.10.%d" % (IF_ENTRY, i)], ("Counter32", str(hc_in & 0xFFFFFFFF)))
            self.assertEqual(got["%s.16.%d" % (IF_ENTRY, i)], ("Counter32", str(hc_out & 0xFFFFFFFF)))
            self.assertEqual(got["%s.11.%d" % (IF_ENTRY, i)][1], got["%s.7.%d" % (IFX_ENTRY, i)][1])
        # The datagrams left v1 towards the bridge port v0.
        self.assertGreater(int(got["%s.10.%d" % (IFX_ENTRY, idx["v1"])][1]), 0)
        self.assertGreater(int(got["%s.6.%d" % (IFX_ENTRY, idx["v0"])][1]), 0)

    def test_addresses_match_ip_addr(self):
        def observe():
            theirs = set()
            for l in self.ns.json("ip", "-j", "-4", "addr", "show"):
                for a in l.get("addr_info", []):
                    theirs.add((a["local"], str(l["ifindex"]), mask_of(a["prefixlen"])))
            return theirs

        theirs, rows = self.consistent(observe, lambda: self.walk(IPADDR_ENTRY))
        t = columns(rows, IPADDR_ENTRY)
        ours = set()
        for inst, (typ, addr) in t[1].items():
            self.assertEqual((typ, addr), ("IpAddress", inst))
            ours.add((addr, t[2][inst][1], t[3][inst][1]))
        self.assertEqual(ours, theirs)
        self.assertIn(("10.9.0.1", str(self.ns.link("v1")["ifindex"]), "255.255.0.0"), ours)
        self.assertIn(("127.0.0.1", "1", "255.0.0.0"), ours)

    def test_neighbours_match_ip_neigh_with_their_kind(self):
        def observe():
            idx = self.index_of(self.ns.links())
            theirs = {}
            for n in self.ns.json("ip", "-j", "-4", "neigh", "show"):
                state = set(n.get("state", []))
                if not state or state & {"NOARP", "NONE"}:
                    continue  # not a neighbour the router resolved or was given
                kind = "2" if state & {"FAILED", "INCOMPLETE"} else "4" if "PERMANENT" in state else "3"
                key = "%d.%s" % (idx[n["dev"]], n["dst"])
                theirs[key] = (mac_bytes(n.get("lladdr", "")), kind)
            return theirs

        theirs, rows = self.consistent(observe, lambda: self.walk(NET2MEDIA_ENTRY))
        t = columns(rows, NET2MEDIA_ENTRY)
        ours = {}
        for inst in t[1]:
            ifindex, _, addr = inst.partition(".")
            self.assertEqual(t[1][inst], ("INTEGER", ifindex))
            self.assertEqual(t[3][inst], ("IpAddress", addr))
            ours[inst] = (octets(*t[2][inst]), t[4][inst][1])
        self.assertEqual(ours, theirs)
        v1 = self.ns.link("v1")["ifindex"]
        # A configured entry is static (4), a learned one dynamic (3).
        self.assertEqual(ours["%d.10.0.0.9" % v1], (bytes.fromhex("020000000009"), "4"))
        self.assertEqual(ours["%d.10.0.0.10" % v1][1], "3")

    def test_routes_match_ip_route_with_every_multipath_hop(self):
        def observe():
            idx = self.index_of(self.ns.links())
            theirs = {}
            for r in self.ns.json("ip", "-j", "-4", "route", "show", "table", "main"):
                dest, mask = split_prefix(r["dst"])
                metric = str(r.get("metric", 0))
                connected = r.get("protocol") == "kernel" and r.get("scope") == "link"
                proto = "2" if connected else "3"  # local, else network management
                hops = r.get("nexthops") or [r]
                for h in hops:
                    hop = r["prefsrc"] if connected else h.get("gateway", "0.0.0.0")
                    theirs["%s.%s.0.%s" % (dest, mask, hop)] = (str(idx[h["dev"]]), metric, proto)
            return theirs

        theirs, rows = self.consistent(observe, lambda: self.walk(".1.3.6.1.2.1.4.24"))
        t = columns(rows, CIDR_ENTRY)
        ours = {}
        for inst in t[1]:
            parts = inst.split(".")
            self.assertEqual(len(parts), 13, inst)
            self.assertEqual(t[1][inst], ("IpAddress", ".".join(parts[0:4])))
            self.assertEqual(t[2][inst], ("IpAddress", ".".join(parts[4:8])))
            self.assertEqual(t[4][inst], ("IpAddress", ".".join(parts[9:13])))
            ours[inst] = (t[5][inst][1], t[11][inst][1], t[7][inst][1])
        self.assertEqual(ours, theirs)
        number = [v for o, _, v in rows if o == ".1.3.6.1.2.1.4.24.3.0"]
        self.assertEqual(number, [str(len(theirs))], "ipCidrRouteNumber")
        idx = self.index_of(self.ns.links())
        # Both hops of the multipath route are rows of their own, each on
        # its own interface.
        self.assertEqual(ours["10.77.0.0.255.255.0.0.0.10.0.0.2"][0], str(idx["v1"]))
        self.assertEqual(ours["10.77.0.0.255.255.0.0.0.192.168.5.2"][0], str(idx["br0"]))
        self.assertEqual(ours["10.78.0.0.255.255.0.0.0.10.0.0.4"][1], "30")
        self.assertIn("0.0.0.0.0.0.0.0.0.192.168.5.254", ours)

    def test_bridge_matches_bridge_fdb(self):
        def observe():
            idx = self.index_of(self.ns.links())
            theirs = {}
            for e in self.ns.json("bridge", "-j", "fdb", "show", "br", "br0"):
                if e.get("master") != "br0":
                    continue  # a port's own address filter, not the bridge's table
                inst = ".".join(str(b) for b in mac_bytes(e["mac"]))
                theirs[inst] = (str(idx[e["ifname"]]), "4" if e.get("state") == "permanent" else "3")
            return theirs

        theirs, rows = self.consistent(observe, lambda: self.walk(".1.3.6.1.2.1.17"))
        t = columns(rows, FDB_ENTRY)
        ours = {}
        for inst in t[1]:
            self.assertEqual(octets(*t[1][inst]), bytes(int(x) for x in inst.split(".")))
            ours[inst] = (t[2][inst][1], t[3][inst][1])
        self.assertEqual(ours, theirs)
        v0 = str(self.ns.link("v0")["ifindex"])
        self.assertEqual(ours["2.0.0.0.0.119"], (v0, "3"))  # the static entry on the port
        v0mac = ".".join(str(b) for b in mac_bytes(self.ns.link("v0")["address"]))
        self.assertEqual(ours[v0mac], (v0, "4"))  # the port's own address
        br = next(l for l in self.ns.links() if l["ifname"] == "br0")
        scalars = {o: (ty, v) for o, ty, v in rows}
        self.assertEqual(octets(*scalars[".1.3.6.1.2.1.17.1.1.0"]), mac_bytes(br["address"]))
        self.assertEqual(scalars[".1.3.6.1.2.1.17.2.2.0"], ("INTEGER", "12288"))

    def test_link_down_and_up_reach_the_trap_sink(self):
        conf = os.path.join(self.tmp, "snmptrapd.conf")
        with open(conf, "w") as f:
            f.write("disableAuthorization yes\n")
        out = os.path.join(self.tmp, "traps.out")
        persist = os.path.join(self.tmp, "snmptrapd")
        os.makedirs(persist, exist_ok=True)
        args = self.ns.cmd("snmptrapd", "-f", "-Lo", "-n", "-C", "-c", conf, "--disableAuthorization=yes",
                           "--persistentDir=" + persist, "-m", "", "-On", "-F", "TRAP %P\t%v\n",
                           "127.0.0.1:%d" % NS_TRAP_PORT)
        with open(out, "wb") as o:
            trapd = subprocess.Popen(args, stdout=o, stderr=subprocess.STDOUT)
        _cleanups.append(lambda: stop_process(trapd))
        try:
            self.wait_for(lambda: "NET-SNMP version" in self.read(out), 10, "snmptrapd did not start")

            communities = json.loads(self.ctl("communities", "list", "--json").stdout)
            community = next(c["id"] for c in communities if c["name"] == "vellum")
            generators = json.loads(self.ctl("--json", "generators").stdout)
            interfaces = next(g["id"] for g in generators if g["name"] == "interfaces")
            self.ctl("settings", "set", "trap-target=127.0.0.1", "trap-community=%d" % community,
                     "trap-version=1", "generators=%d" % interfaces)
            shown = json.loads(self.ctl("--json", "settings", "show").stdout)
            self.assertEqual((shown["trap-target"], shown["generators"]), ("127.0.0.1", [interfaces]))

            v3 = str(self.ns.link("v3")["ifindex"])
            self.ns.sh("ip", "link", "set", "v3", "down")
            down = self.wait_trap(out, LINK_DOWN, v3)
            self.assertEqual(down[".1.3.6.1.2.1.2.2.1.7"], "INTEGER: 2")  # ifAdminStatus down
            self.assertEqual(down[".1.3.6.1.2.1.2.2.1.8"], "INTEGER: 2")
            self.assertIn("community vellum", down["info"])
            self.assertIn("v2c", down["info"])

            self.ns.sh("ip", "link", "set", "v3", "up")
            up = self.wait_trap(out, LINK_UP, v3)
            self.assertEqual(up[".1.3.6.1.2.1.2.2.1.7"], "INTEGER: 1")
            # The carrier may follow the admin state in a notice of its own;
            # a link-up trap with the link running comes in any case.
            self.wait_trap(out, LINK_UP, v3, oper="1")
            traps = self.traps(out)
            kinds = [t[SNMP_TRAP_OID] for t in traps if t.get(".1.3.6.1.2.1.2.2.1.1") == "INTEGER: " + v3]
            self.assertEqual(kinds[0], "OID: " + LINK_DOWN, "linkDown comes first")
        finally:
            stop_process(trapd)
            self.wait_links_settled()

    def wait_for(self, cond, timeout, why):
        deadline = time.time() + timeout
        while time.time() < deadline:
            if cond():
                return
            time.sleep(0.05)
        self.fail(why)

    def traps(self, path):
        """Every trap snmptrapd printed: {oid: "TYPE: value", "info": ...}."""
        found = []
        for line in self.read(path).splitlines():
            if not line.startswith("TRAP "):
                continue
            info, *binds = line[5:].split("\t")
            t = {"info": info}
            for b in binds:
                oid, _, val = b.partition(" = ")
                t[oid] = val
            found.append(t)
        return found

    def wait_trap(self, path, trap_oid, ifindex, oper=None, timeout=10):
        deadline = time.time() + timeout
        while time.time() < deadline:
            for t in self.traps(path):
                if (t.get(SNMP_TRAP_OID) == "OID: " + trap_oid and t.get(".1.3.6.1.2.1.2.2.1.1") == "INTEGER: " + ifindex
                        and (oper is None or t.get(".1.3.6.1.2.1.2.2.1.8") == "INTEGER: " + oper)):
                    return t
            time.sleep(0.05)
        self.fail("no trap %s for ifIndex %s within %d s; got %s; agent said %s" %
                  (trap_oid, ifindex, timeout, self.traps(path), self.read(self.agent_err)[-2000:]))


# ---------------------------------------------------------------------------
def meminfo_kib(key):
    with open("/proc/meminfo") as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    raise AssertionError("no %s in /proc/meminfo" % key)


def host_uptime():
    with open("/proc/uptime") as f:
        return float(f.read().split()[0])


def cache_value(cache, key):
    try:
        with open(cache) as f:
            for line in f:
                if line.startswith(key + ":"):
                    return line.split("=", 1)[1].strip()
    except OSError:
        pass
    return None


class RunScript(unittest.TestCase):
    """The README's run command: scripts/run on a free port (so that an agent a
    developer started on 1161 is left alone), with a state folder of its own."""

    def setUp(self):
        agentlib.require(self, os.path.join(SRC, "scripts", "run"), "snmpwalk", "ip")
        cache = os.path.join(BIN, "CMakeCache.txt")
        # scripts/run builds first; it must find this build folder as it made
        # it, or it would reconfigure (and rebuild) the developer's tree.
        if cache_value(cache, "CMAKE_BUILD_TYPE") != "RelWithDebInfo":
            self.skipTest("%s is not a RelWithDebInfo build as scripts/build makes it" % BIN)
        home = cache_value(cache, "CMAKE_HOME_DIRECTORY")
        if home is None or os.path.realpath(home) != os.path.realpath(SRC):
            self.skipTest("%s is not the build folder of %s" % (BIN, SRC))

    def test_run_script_serves_the_host(self):
        tmp = tempfile.mkdtemp(prefix="kestrel-run-e2e-")
        _cleanups.append(lambda: shutil.rmtree(tmp, ignore_errors=True))
        proc = None
        try:
            port = agentlib.free_udp_port()
            env = dict(os.environ, PORT=str(port), STATE_DIR=os.path.join(tmp, "state"), BUILD_DIR=BIN)
            log = os.path.join(tmp, "run.log")
            with open(log, "wb") as f:
                proc = subprocess.Popen([os.path.join(SRC, "scripts", "run")], cwd=SRC, env=env, stdout=f,
                                        stderr=subprocess.STDOUT, start_new_session=True)
            _cleanups.append(lambda: stop_process(proc, group=True))
            target = "127.0.0.1:%d" % port

            def snmp(tool, *oids):
                return run([tool, "-v2c", "-c", "vellum", "-m", "", "-On", "-t", "2", "-r", "1", target] + list(oids),
                           timeout=120)

            # The script may have to build before it starts the agent.
            deadline = time.time() + 450
            while True:
                if proc.poll() is not None:
                    with open(log, errors="replace") as f:
                        self.fail("scripts/run exited with %s: %s" % (proc.returncode, f.read()[-3000:]))
                if snmp("snmpget", ".1.3.6.1.2.1.1.3.0").returncode == 0:
                    break
                self.assertLess(time.time(), deadline, "scripts/run did not answer within 450 s")
                time.sleep(0.5)

            links = json.loads(run(["ip", "-j", "link", "show"], check=True).stdout)
            addrs = set()
            for l in json.loads(run(["ip", "-j", "-4", "addr", "show"], check=True).stdout):
                for a in l.get("addr_info", []):
                    addrs.add((a["local"], mask_of(a["prefixlen"])))
            routes = set()
            for r in json.loads(run(["ip", "-j", "-4", "route", "show", "table", "main"], check=True).stdout):
                routes.add(split_prefix(r["dst"]))
            up_before = host_uptime()
            rows = []
            for root in (".1.3.6.1.2.1.1", ".1.3.6.1.2.1.2", ".1.3.6.1.2.1.4", ".1.3.6.1.2.1.25.1",
                         ".1.3.6.1.2.1.25.2"):
                r = snmp("snmpwalk", root)
                self.assertEqual(r.returncode, 0, r.stderr)
                rows += parse_snmp(r.stdout)
            up_after = host_uptime()
            values = {o: (t, v) for o, t, v in rows}

            names = {text(*v) for v in columns(rows, IF_ENTRY)[2].values()}
            self.assertEqual(names, {l["ifname"] for l in links})
            self.assertEqual(values[".1.3.6.1.2.1.2.1.0"], ("INTEGER", str(len(links))))
            a = columns(rows, IPADDR_ENTRY)
            self.assertEqual({(v[1], a[3][i][1]) for i, v in a[1].items()}, addrs)
            c = columns(rows, CIDR_ENTRY)
            self.assertEqual({(c[1][i][1], c[2][i][1]) for i in c[1]}, routes)

            # Memory in KiB as the kernel counts it, as a size and as a row.
            total = meminfo_kib("MemTotal")
            self.assertEqual(values[".1.3.6.1.2.1.25.2.2.0"], ("INTEGER", str(total)))
            storage = columns(rows, ".1.3.6.1.2.1.25.2.3.1")
            self.assertEqual(text(*storage[3]["2"]), "main memory")
            self.assertEqual(storage[5]["2"], ("INTEGER", str(total)))
            used = int(storage[6]["2"][1])
            self.assertTrue(0 < used <= total, used)
            st = os.statvfs("/")
            self.assertEqual(text(*storage[3]["1"]), "disk")
            disk = min(st.f_blocks * (st.f_frsize or st.f_bsize) // 1024, 0xFFFFFFFF)
            self.assertEqual(storage[5]["1"][0], "INTEGER")
            self.assertEqual(int(storage[5]["1"][1]) & 0xFFFFFFFF, disk)

            # Uptimes are the host's, in hundredths of a second.
            for oid in (".1.3.6.1.2.1.1.3.0", ".1.3.6.1.2.1.25.1.1.0"):
                up = ticks(*values[oid]) / 100.0
                self.assertTrue(int(up_before) - 1 <= up <= up_after + 1, (oid, up, up_before, up_after))
            # The example first-start settings were applied (they also enable it).
            self.assertEqual(text(*values[".1.3.6.1.2.1.1.4.0"]), "operator@example.net")
        finally:
            stop_process(proc, group=True)
            shutil.rmtree(tmp, ignore_errors=True)


if __name__ == "__main__":
    unittest.main()
