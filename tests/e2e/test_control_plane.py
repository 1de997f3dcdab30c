"""The control plane under attack: who may connect to the control socket,
what crafted bus commands to the settings handler (path []) and to the
community handler (path [1]) do, and what malformed packets on the
SOCK_SEQPACKET socket do. The agent must refuse or answer an error, change
nothing it should not, and stay up."""

import grp
import json
import os
import pwd
import random
import shutil
import socket
import stat
import struct
import subprocess
import sys
import textwrap
import time
import unittest

sys.path.insert(0, os.path.dirname(__file__))
import agentlib  # noqa: E402
from agentlib import Agent, ENABLED  # noqa: E402

SYS_DESCR = ".1.3.6.1.2.1.1.1.0"

# Bus field keys (type byte included) and commands.
F_COMMAND = 0x08FF0007
F_PATH = 0x88FF0001
F_SENDER = 0x88FF0002
F_SEQ = 0x08FF0008
F_REPLY_TO = 0x08FF0009
F_ERROR_CODE = 0x08FF0010
F_ERROR_TEXT = 0x20FF0011
F_RIGHTS = 0x08FF0012
F_OBJ_ID = 0x08FE0001
F_OBJECTS = 0xA8FE0002
F_START = 0x08FE0003
F_COUNT = 0x08FE0011

CMD_GET, CMD_SET = 0xFE000D, 0xFE000E
CMD_GET_OBJ, CMD_SET_OBJ, CMD_GET_ALL = 0xFE0002, 0xFE0003, 0xFE0004
CMD_ADD_OBJ, CMD_REMOVE_OBJ = 0xFE0005, 0xFE0006
ERR_NO_OBJECT, ERR_MISSING_FIELD, ERR_REFUSED = 0xFE0004, 0xFE0005, 0xFE0006
ERR_UNKNOWN_START, ERR_MALFORMED, ERR_NOT_ALLOWED = 0xFE000B, 0xFE0022, 0xFE0023

MAX_PACKET = 4 << 20


# ---- the bus message codec, written from its documented format ----

def _u32(v):
    return struct.pack(">I", v)


def _blob(b):
    return _u32(len(b)) + b


def encode(fields):
    """fields: {key: value}; the key's top byte is the type."""
    out = _u32(len(fields))
    for key in sorted(fields):
        v = fields[key]
        t = key >> 24
        out += _u32(key)
        if t == 0x00:
            out += bytes([1 if v else 0])
        elif t == 0x08:
            out += _u32(v)
        elif t == 0x10:
            out += struct.pack(">Q", v)
        elif t == 0x20:
            out += _blob(v.encode() if isinstance(v, str) else v)
        elif t == 0x28:
            out += _blob(encode(v))
        elif t == 0x30:
            out += _blob(v)
        elif t == 0x88:
            out += _u32(len(v)) + b"".join(_u32(x) for x in v)
        elif t == 0xA0:
            out += _u32(len(v)) + b"".join(_blob(x.encode()) for x in v)
        elif t == 0xA8:
            out += _u32(len(v)) + b"".join(_blob(encode(x)) for x in v)
        else:
            raise ValueError("type 0x%x" % t)
    return out


def decode(b):
    """The inverse of encode, for the agent's replies; raises on bad input."""
    def u32(p):
        if p + 4 > len(b):
            raise ValueError("truncated")
        return struct.unpack(">I", b[p:p + 4])[0], p + 4

    def blob(p):
        n, p = u32(p)
        if p + n > len(b):
            raise ValueError("truncated")
        return b[p:p + n], p + n

    n, p = u32(0)
    out = {}
    for _ in range(n):
        key, p = u32(p)
        t = key >> 24
        if t == 0x00:
            out[key], p = bool(b[p]), p + 1
        elif t == 0x08:
            out[key], p = u32(p)
        elif t == 0x10:
            out[key], p = struct.unpack(">Q", b[p:p + 8])[0], p + 8
        elif t == 0x20:
            v, p = blob(p)
            out[key] = v.decode(errors="replace")
        elif t in (0x28, 0x30):
            v, p = blob(p)
            out[key] = decode(v) if t == 0x28 else v
        elif t == 0x88:
            c, p = u32(p)
            out[key] = []
            for _ in range(c):
                v, p = u32(p)
                out[key].append(v)
        elif t in (0xA0, 0xA8):
            c, p = u32(p)
            out[key] = []
            for _ in range(c):
                v, p = blob(p)
                out[key].append(v.decode(errors="replace") if t == 0xA0 else decode(v))
        else:
            raise ValueError("type 0x%x" % t)
    if p != len(b):
        raise ValueError("trailing bytes")
    return out


class Bus:
    """A raw connection to the control socket."""

    def __init__(self, path):
        self.s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.s.connect(path)  # blocking: waits while the listen queue is full
        self.s.settimeout(5)
        self.seq = 100

    def close(self):
        self.s.close()

    def send(self, data):
        self.s.send(data)

    def recv(self, timeout=5):
        """One decoded packet, or None when the agent closed the connection."""
        self.s.settimeout(timeout)
        data = self.s.recv(MAX_PACKET + 1024)
        if not data:
            return None
        return decode(data)

    def exchange(self, fields, timeout=5):
        self.seq += 1
        m = dict(fields)
        m[F_SEQ] = self.seq
        self.send(encode(m))
        deadline = time.time() + timeout
        while time.time() < deadline:
            r = self.recv(max(0.05, deadline - time.time()))
            if r is None:
                return None
            if r.get(F_REPLY_TO) == self.seq:
                del r[F_REPLY_TO]
                return r
        raise AssertionError("no reply to %r" % fields)


def request(cmd, path, **extra):
    m = {F_COMMAND: cmd, F_PATH: list(path)}
    for k, v in extra.items():
        m[int(k[1:], 16)] = v
    return m


class ControlPlaneTest(agentlib.AgentTest):
    def setUp(self):
        super().setUp()
        agentlib.require(self, agentlib.CLI)

    # kestrelctl raw: (exit status, reply as a dict of "0x%08x" keys)
    def raw(self, a, msg):
        r = a.ctl("--json", "raw", json.dumps(msg), check=False)
        self.assertIn(r.returncode, (0, 1), r.stderr)
        return r.returncode, json.loads(r.stdout)

    def settings_record(self, a):
        rc, rec = self.raw(a, {"u32:0xff0007": CMD_GET, "u32[]:0x88ff0001": []})
        self.assertEqual(rc, 0)
        return rec

    def community_list(self, a):
        return json.loads(a.ctl("--json", "communities", "list").stdout)

    def assert_error(self, rc_reply, code, text=None):
        rc, reply = rc_reply
        self.assertEqual(rc, 1, reply)
        self.assertEqual(reply.get("0x08ff0010"), code, reply)
        if text is not None:
            self.assertEqual(reply.get("0x20ff0011", ""), text, reply)

    def assert_serving(self, a):
        self.assertIsNone(a.proc.poll(), "the agent died: " + a.stderr()[-2000:])
        # In the sanitizer build a fault is reported even where it does not crash.
        for report in ("ERROR: AddressSanitizer", "runtime error:"):
            self.assertNotIn(report, a.stderr())
        r = a.snmp("snmpget", SYS_DESCR)
        self.assertEqual(r.returncode, 0, r.stderr)


class SettingsHandler(ControlPlaneTest):
    def test_mistyped_and_missing_fields_change_nothing(self):
        with Agent(settings=ENABLED) as a:
            base = self.settings_record(a)
            SET = {"u32:0xff0007": CMD_SET, "u32[]:0x88ff0001": []}
            # A field of the wrong type is a different field: absent for the
            # typed getter, so nothing changes, and the set succeeds.
            for wrong in [{}, {"u32:0x02": 5}, {"bool:0x03": True}, {"u32[]:0x04": [1, 2]},
                          {"u32:0x0a": 7}, {"str:0x0d": "99"}, {"str:0x0e": "30"},
                          {"str:0x10": "10.0.0.1"}, {"str:0x11": "0"}, {"bool:0x12": True},
                          {"str:0x13": "1,2"}, {"u32:0x13": 0}, {"u32:0x01": 0}, {"str:0x01": ""},
                          {"str[]:0x02": ["x"]}, {"msg:0x03": {"str:0x03": "nested"}},
                          {"str:0xff0002": "sender"}, {"u32[]:0x88ff0002": []}]:
                msg = dict(SET)
                msg.update(wrong)
                rc, reply = self.raw(a, msg)
                self.assertEqual(rc, 0, (wrong, reply))
                self.assertEqual(self.settings_record(a), base, wrong)
            # The same fields well typed do change the record.
            rc, _ = self.raw(a, dict(SET, **{"str:0x02": "noc", "u32:0x0e": 30}))
            self.assertEqual(rc, 0)
            now = self.settings_record(a)
            self.assertEqual((now["0x20000002"], now["0x0800000e"]), ("noc", 30))
            base = now
            # A get with junk fields still answers the record.
            rc, rec = self.raw(a, {"u32:0xff0007": CMD_GET, "u32[]:0x88ff0001": [], "str:0x02": "x",
                                   "raw:0xff0002": "00"})
            self.assertEqual((rc, rec), (0, base))
            # A command id of the wrong type is no command: no change.
            rc, _ = self.raw(a, {"str:0xff0007": "set", "u32[]:0x88ff0001": [], "str:0x02": "sneaky"})
            self.assertEqual(rc, 0)
            self.assertEqual(self.settings_record(a), base)
            # Commands the settings handler does not implement are refused.
            for cmd in (0xFE0009, 0xFE0008, CMD_ADD_OBJ, CMD_REMOVE_OBJ, CMD_GET_ALL):
                self.assert_error(self.raw(a, {"u32:0xff0007": cmd, "u32[]:0x88ff0001": []}), ERR_REFUSED)
            # A path beneath the handler that nobody registered.
            self.assert_error(self.raw(a, {"u32:0xff0007": CMD_GET, "u32[]:0x88ff0001": [77, 3]}),
                              ERR_NO_OBJECT)
            self.assertEqual(self.settings_record(a), base)
            self.assert_serving(a)

    def test_generator_list_and_policies(self):
        with Agent(settings=ENABLED) as a:
            rc, reply = self.raw(a, {"u32:0xff0007": 100, "u32[]:0x88ff0001": [], "str:0xfe0001": "junk"})
            self.assertEqual(rc, 0)
            first = reply["0xa8fe0002"][0]
            self.assertEqual((first["0x08fe0001"], first["0x20fe0010"]), (0xABC0001, "start-trap"))
            # A sender that states its rights needs those of the policy.
            self.assert_error(self.raw(a, {"u32:0xff0007": 100, "u32[]:0x88ff0001": [], "u32:0xff0012": 0x40}),
                              ERR_NOT_ALLOWED)
            rc, _ = self.raw(a, {"u32:0xff0007": 100, "u32[]:0x88ff0001": [], "u32:0xff0012": 0x2C0})
            self.assertEqual(rc, 0)
            self.assert_error(self.raw(a, {"u32:0xff0007": 1, "u32[]:0x88ff0001": [], "u32:0xff0012": 0}),
                              ERR_NOT_ALLOWED)
            self.assert_serving(a)

    def test_trap_requests_with_odd_fields(self):
        sink = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sink.bind(("127.0.0.1", 0))
        sink.settimeout(3)
        try:
            settings = dict(ENABLED, **{"be32:0x10": "127.0.0.1", "u32:0x11": 0, "u32:0x12": 1})
            with Agent(settings=settings, trap_port=sink.getsockname()[1]) as a:
                TRAP = {"u32:0xff0007": 1, "u32[]:0x88ff0001": []}
                odd = [{}, {"u32:1001": 5}, {"str:1001": "not an oid"}, {"str:1001": ""},
                       {"str:1001": "1.3.6.1.2.1.1.5.0", "u32:1002": 0xFFFFFFFF, "str:1003": "v"},
                       {"str:1001": "1.3.6.1.2.1.1.5.0", "u32:1002": 0x30, "str:1003": "\u0001"},
                       {"str:1001": "1.3.6.1.2.1.1.5.0", "u32:1002": 2, "str:1003": "not a number"},
                       {"str:1001": "1.3.6.1.2.1.1.5.0", "str:1003": "x" * 70000},
                       {"str:1001": ".".join(["1"] * 300), "u32:1002": 5}]
                for fields in odd:
                    rc, reply = self.raw(a, dict(TRAP, **fields))
                    self.assertEqual(rc, 0, (fields, reply))
                    self.assertIsNone(a.proc.poll(), fields)
                # The requests that make a trap at all still make one that parses.
                got = 0
                try:
                    while True:
                        data = sink.recv(70000)
                        self.assertEqual(data[0], 0x30)
                        got += 1
                except socket.timeout:
                    pass
                self.assertGreaterEqual(got, 1)
                # And a well-formed request after them is still sent.
                rc, _ = self.raw(a, dict(TRAP, **{"str:1001": "1.3.6.1.2.1.1.5.0", "str:1003": "after"}))
                self.assertEqual(rc, 0)
                self.assertIn(b"after", sink.recv(70000))
                self.assert_serving(a)
        finally:
            sink.close()


class CommunityHandler(ControlPlaneTest):
    C = [1]

    def cmd(self, a, cmd, **fields):
        msg = {"u32:0xff0007": cmd, "u32[]:0x88ff0001": self.C}
        msg.update({k.replace("_", ":", 1): v for k, v in fields.items()})
        return self.raw(a, msg)

    def test_listing_and_reading_with_odd_fields(self):
        with Agent(settings=ENABLED) as a:
            a.ctl("communities", "add", "name=second", "read=1")
            base = self.community_list(a)
            self.assertEqual(len(base), 2)
            for fields in ({}, {"str_0xfe0003": "1"}, {"str_0xfe0011": "1"}, {"u32_0xfe0011": 0},
                           {"u32_0xfe0011": 0xFFFFFFFF}, {"u32_0xfe0003": 0xFFFFFFFF}):
                rc, reply = self.cmd(a, CMD_GET_ALL, **fields)
                self.assertEqual(rc, 0, fields)
                self.assertEqual([c["0x20000005"] for c in reply["0xa8fe0002"]], ["vellum", "second"], fields)
            self.assert_error(self.cmd(a, CMD_GET_ALL, u32_0xfe0003=4242), ERR_UNKNOWN_START, "")
            # Reading needs a known id; a mistyped id is no id.
            self.assert_error(self.cmd(a, CMD_GET_OBJ, u32_0xfe0001=4242), ERR_NO_OBJECT, "")
            rc, reply = self.cmd(a, CMD_GET_OBJ, u32_0xfe0001=base[1]["id"])
            self.assertEqual((rc, reply["0x20000005"]), (0, "second"))
            self.assertEqual(self.community_list(a), base)
            self.assert_serving(a)

    def test_changes_with_missing_or_mistyped_fields(self):
        with Agent(settings=ENABLED) as a:
            a.ctl("communities", "add", "name=second", "read=1", "write=1")
            base = self.community_list(a)
            second = base[1]["id"]

            # Adding needs a name of the right type that is not empty and not taken.
            self.assert_error(self.cmd(a, CMD_ADD_OBJ), ERR_MISSING_FIELD, "missing community name")
            self.assert_error(self.cmd(a, CMD_ADD_OBJ, u32_0x05=5), ERR_MISSING_FIELD, "missing community name")
            self.assert_error(self.cmd(a, CMD_ADD_OBJ, str_0x05=""), ERR_REFUSED, "empty script name")
            self.assert_error(self.cmd(a, CMD_ADD_OBJ, str_0x05="second"), ERR_REFUSED,
                              "community with such name already exists")
            # An id that is already used, or that no id may have, is refused
            # instead of shadowing the community that has it.
            self.assert_error(self.cmd(a, CMD_ADD_OBJ, str_0x05="thief", u32_0xfe0001=second), ERR_REFUSED)
            self.assert_error(self.cmd(a, CMD_ADD_OBJ, str_0x05="thief", u32_0xfe0001=0xFFFFFFFF), ERR_REFUSED)
            self.assertEqual(self.community_list(a), base)

            # Changing and removing need the id: without it (or with an id of
            # the wrong type) nothing is changed, not community 0.
            self.assert_error(self.cmd(a, CMD_SET_OBJ, bool_0x07=True), ERR_NO_OBJECT)
            self.assert_error(self.cmd(a, CMD_SET_OBJ, str_0xfe0001="0", bool_0x07=True), ERR_NO_OBJECT)
            self.assert_error(self.cmd(a, CMD_REMOVE_OBJ), ERR_NO_OBJECT)
            self.assert_error(self.cmd(a, CMD_REMOVE_OBJ, str_0xfe0001="0"), ERR_NO_OBJECT)
            self.assert_error(self.cmd(a, CMD_REMOVE_OBJ, u32_0xfe0001=4242), ERR_NO_OBJECT, "")
            self.assert_error(self.cmd(a, CMD_SET_OBJ, u32_0xfe0001=4242, bool_0x07=True), ERR_NO_OBJECT, "")
            self.assert_error(self.cmd(a, CMD_SET_OBJ, u32_0xfe0001=second, str_0x05="vellum"), ERR_REFUSED,
                              "community with such name already exists")
            self.assertEqual(self.community_list(a), base)

            # Mistyped fields of a change are absent: the change succeeds
            # and the community stays as it was.
            for fields in ({"u32_0x05": 1}, {"u32_0x06": 0}, {"str_0x07": "0"}, {"str_0x08": "10.0.0.0"},
                           {"str_0x09": "255.0.0.0"}, {"str_0x0f": "2"}, {"bool_0x14": True},
                           {"str_0x15": "1"}, {"u32_0x0b": 1}):
                rc, reply = self.cmd(a, CMD_SET_OBJ, u32_0xfe0001=second, **fields)
                self.assertEqual(rc, 0, (fields, reply))
                self.assertEqual(self.community_list(a), base, fields)
            # The new name of the right type is taken, and SNMP sees it.
            rc, _ = self.cmd(a, CMD_SET_OBJ, u32_0xfe0001=second, str_0x05="renamed")
            self.assertEqual(rc, 0)
            self.assertEqual(a.snmp("snmpget", SYS_DESCR, community="renamed").returncode, 0)
            expected = [c if c["id"] != second else dict(c, name="renamed") for c in base]
            self.assertEqual(self.community_list(a), expected)
            self.assert_serving(a)
            # What the handler held is what the store holds.
            a.stop()
            a.start()
            self.assertEqual(self.community_list(a), expected)


@unittest.skipUnless(hasattr(os, "geteuid") and os.geteuid() == 0, "needs root to act as another user")
class SocketAccess(ControlPlaneTest):
    """Only root and the agent's own user may use the control socket."""

    PROBE = textwrap.dedent("""
        import socket, struct, sys
        path, packet = sys.argv[1], bytes.fromhex(sys.argv[2])
        s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        s.settimeout(3)
        try:
            s.connect(path)
        except PermissionError:
            print("denied"); sys.exit(0)
        try:
            s.send(packet)
            data = s.recv(1 << 20)
        except (BrokenPipeError, ConnectionResetError):
            print("closed"); sys.exit(0)
        except socket.timeout:
            print("silent"); sys.exit(0)
        print("reply" if data else "closed")
        """)

    def setUp(self):
        super().setUp()
        agentlib.require(self, "setpriv")

    def probe(self, a, user, fields):
        """Connects as user and sends one request; returns denied, closed, silent or reply."""
        pw = pwd.getpwnam(user)
        packet = dict(fields)
        packet[F_SEQ] = 1
        cmd = ["setpriv", "--reuid", str(pw.pw_uid), "--regid", str(pw.pw_gid), "--clear-groups",
               sys.executable, "-c", self.PROBE, os.path.join(a.state, "control.sock"), encode(packet).hex()]
        r = subprocess.run(cmd, capture_output=True, text=True, timeout=20)
        self.assertEqual(r.returncode, 0, r.stderr)
        return r.stdout.strip()

    def intrude(self, user):
        return request(CMD_SET, [], **{"x20000002": "set by " + user})

    def contact(self, a):
        return json.loads(a.ctl("--json", "settings", "show").stdout)["contact"]

    def test_other_users_are_refused_even_when_the_file_lets_them_in(self):
        with Agent(settings=ENABLED) as a:
            sock = os.path.join(a.state, "control.sock")
            self.assertEqual(stat.S_IMODE(os.stat(sock).st_mode), 0o600)
            self.assertEqual(self.probe(a, "nobody", self.intrude("nobody")), "denied")
            # With the file opened up, the peer credentials still keep them out.
            os.chmod(a.state, 0o755)
            os.chmod(sock, 0o666)
            self.assertEqual(self.probe(a, "nobody", self.intrude("nobody")), "closed")
            self.assertIn("control socket: refused a connection of uid %d" % pwd.getpwnam("nobody").pw_uid,
                          a.stderr())
            self.assertEqual(self.contact(a), "")
            self.assert_serving(a)

    def test_the_agents_own_user_and_root_are_let_in(self):
        try:
            pwd.getpwnam("daemon")
            nobody = pwd.getpwnam("nobody")
        except KeyError:
            self.skipTest("needs the users nobody and daemon")
        agent_user = "nobody"
        a = Agent(settings=ENABLED, wrapper=["setpriv", "--reuid", str(nobody.pw_uid), "--regid",
                                             str(nobody.pw_gid), "--clear-groups"])
        try:
            os.chown(a.state, nobody.pw_uid, nobody.pw_gid)
            os.chmod(a.state, 0o755)
            a.start()
            sock = os.path.join(a.state, "control.sock")
            self.assertEqual(os.stat(sock).st_uid, nobody.pw_uid)
            self.assertEqual(self.probe(a, agent_user, self.intrude(agent_user)), "reply")
            self.assertEqual(self.contact(a), "set by nobody")  # root's CLI is let in too
            os.chmod(sock, 0o666)
            self.assertEqual(self.probe(a, "daemon", self.intrude("daemon")), "closed")
            self.assertEqual(self.contact(a), "set by nobody")
            self.assert_serving(a)
        finally:
            a.cleanup()


class RawPackets(ControlPlaneTest):
    """Malformed packets straight on the socket."""

    def test_malformed_packets_are_answered_with_an_error(self):
        rnd = random.Random(7)
        with Agent(settings=ENABLED) as a:
            bus = Bus(os.path.join(a.state, "control.sock"))
            try:
                get = request(CMD_GET, [])
                record = bus.exchange(get)
                self.assertEqual(record.get(0x20000004), "vellum")
                change = encode(request(CMD_SET, [], **{"x20000002": "changed", "x08ff0008": 5}))

                def refused(data, why):
                    bus.send(data)
                    r = bus.recv()
                    self.assertIsNotNone(r, why + ": connection closed")
                    self.assertEqual(r.get(F_ERROR_CODE), ERR_MALFORMED, (why, r))
                    self.assertNotIn(F_REPLY_TO, r, why)

                refused(bytes(rnd.randrange(256) for _ in range(64)), "garbage")
                refused(b"", "empty packet")
                for cut in range(len(change)):
                    refused(change[:cut], "cut at %d" % cut)
                refused(change + b"\0", "trailing byte")
                refused(_u32(0xFFFFFFFF), "huge field count")
                refused(_u32(1) + _u32(0x20000002) + _u32(0xFFFFFFF0) + b"abc", "string past the end")
                refused(_u32(1) + _u32(0x88000013) + _u32(0x40000000), "array past the end")
                refused(_u32(1) + _u32(0x50000001) + _u32(0), "unknown type")
                refused(_u32(2) + _u32(0x08000002) + _u32(1) + _u32(0x08000001) + _u32(1), "unordered keys")
                refused(_u32(2) + _u32(0x08000002) + _u32(1) + _u32(0x08000002) + _u32(1), "duplicate keys")
                nested = {0x08000001: 1}
                for _ in range(40):
                    nested = {0x28000001: nested}
                refused(encode(nested), "nesting 40 deep")
                # A packet above the size limit, where the kernel lets us send one.
                big = b"\0" * (MAX_PACKET + 1)
                try:
                    bus.s.setsockopt(socket.SOL_SOCKET, 32, len(big) * 2)  # SO_SNDBUFFORCE
                except OSError:
                    pass
                try:
                    bus.send(big)
                    r = bus.recv(10)
                    self.assertIsNotNone(r)
                    self.assertEqual(r.get(F_ERROR_CODE), ERR_MALFORMED, r)
                    self.assertIn("too large", r.get(F_ERROR_TEXT, ""))
                except OSError as e:
                    print("oversized packet not sent here: %s" % e, file=sys.stderr)
                # Nothing of that changed anything, and the connection still serves.
                self.assertEqual(bus.exchange(get), record)
            finally:
                bus.close()
            self.assert_serving(a)

    def test_peers_that_flood_or_vanish_do_not_stop_the_agent(self):
        with Agent(settings=ENABLED) as a:
            path = os.path.join(a.state, "control.sock")
            # A peer that floods garbage and never reads the answers stays
            # connected: the agent must not wait on it for every answer.
            flood = Bus(path)
            flood.s.setblocking(False)
            sent = 0
            deadline = time.time() + 2
            while time.time() < deadline:
                try:
                    flood.send(os.urandom(100))
                    sent += 1
                except BlockingIOError:
                    time.sleep(0.01)
                except (BrokenPipeError, ConnectionResetError):
                    break  # dropped by the agent
            self.assertGreater(sent, 100)
            started = time.time()
            r = a.snmp("snmpget", SYS_DESCR, timeout=3)
            self.assertEqual(r.returncode, 0, "SNMP stalled behind a peer that does not read")
            self.assertLess(time.time() - started, 2.5)
            flood.close()
            # Peers that send half a request and hang up.
            for _ in range(20):
                b = Bus(path)
                b.send(encode(request(CMD_GET, [], x08ff0008=1))[:9])
                b.close()
            good = Bus(path)
            try:
                self.assertEqual(good.exchange(request(CMD_GET, []), timeout=10).get(0x20000004), "vellum")
            finally:
                good.close()
            self.assert_serving(a)

if __name__ == "__main__":
    unittest.main()
