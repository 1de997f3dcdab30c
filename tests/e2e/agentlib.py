"""Helpers for end-to-end tests: start the real agent on a free loopback
port with a temporary state folder, drive it with net-snmp's tools and the
kestrelctl CLI, and always clean up."""

import json
import os
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

BIN = os.environ.get("KESTREL_BINARY_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "build"))
SRC = os.environ.get("KESTREL_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
AGENT = os.path.join(BIN, "agent", "kestrel-snmpd")
CLI = os.path.join(BIN, "tools", "kestrelctl")
ROUTER_FIXTURE = os.path.join(SRC, "examples", "fixtures", "router.json")


def free_udp_port():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def have_tool(name):
    return shutil.which(name) is not None


def require(test, *paths_or_tools):
    for p in paths_or_tools:
        if os.path.sep in p:
            if not os.path.exists(p):
                test.skipTest("not built: " + p)
        elif not have_tool(p):
            test.skipTest("tool missing: " + p)


class Agent:
    """One agent process. Use as a context manager or call stop()."""

    def __init__(self, fixture=ROUTER_FIXTURE, settings=None, extra_args=(), state_dir=None,
                 trap_port=None, plugin_dir=None, port=None, wrapper=()):
        self.own_state = state_dir is None
        self.state = state_dir or tempfile.mkdtemp(prefix="kestrel-e2e-")
        self.port = port or free_udp_port()
        self.record = os.path.join(self.state, "record.jsonl")
        self.log_out = os.path.join(self.state, "agent.out")
        self.log_err = os.path.join(self.state, "agent.err")
        self.proc = None
        self.fixture = fixture
        self.settings = settings
        self.extra = list(extra_args)
        self.trap_port = trap_port
        self.plugin_dir = plugin_dir or os.path.join(self.state, "plugins")
        # A command prefix for the agent, e.g. setpriv to run it as another user.
        self.wrapper = list(wrapper)

    def start(self, wait=True):
        args = self.wrapper + [AGENT, "--port", str(self.port), "--bind", "127.0.0.1", "--state-dir", self.state,
                "--backend", "fixture", "--backend-file", self.fixture, "--record-file", self.record,
                "--plugin-dir", self.plugin_dir]
        if self.trap_port:
            args += ["--trap-port", str(self.trap_port)]
        if self.settings is not None:
            path = os.path.join(self.state, "first-settings.json")
            with open(path, "w") as f:
                json.dump(self.settings, f)
            args += ["--first-settings", path]
        args += self.extra
        # A socket file left by the previous run would look like readiness.
        sock = os.path.join(self.state, "control.sock")
        if os.path.exists(sock):
            os.unlink(sock)
        with open(self.log_out, "ab") as out, open(self.log_err, "ab") as err:
            self.proc = subprocess.Popen(args, stdout=out, stderr=err)
        if wait:
            self.wait_ready()
        return self

    def wait_ready(self, timeout=10.0):
        sock = os.path.join(self.state, "control.sock")
        deadline = time.time() + timeout
        while time.time() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError("agent exited with %s: %s" % (self.proc.returncode, self.stderr()))
            # The loop answers the control socket only once start-up is
            # complete and the service is open.
            if os.path.exists(sock) and (not os.path.exists(CLI) or self.ctl("settings", "show", check=False).returncode == 0):
                return
            time.sleep(0.02)
        raise RuntimeError("agent did not come up: " + self.stderr())

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait(5)
        self.proc = None

    def cleanup(self):
        self.stop()
        if self.own_state:
            shutil.rmtree(self.state, ignore_errors=True)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.cleanup()

    def stdout(self):
        with open(self.log_out, errors="replace") as f:
            return f.read()

    def stderr(self):
        try:
            with open(self.log_err, errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def recorded(self):
        if not os.path.exists(self.record):
            return []
        with open(self.record) as f:
            return [json.loads(line) for line in f if line.strip()]

    def target(self):
        return "127.0.0.1:%d" % self.port

    def ctl(self, *args, check=True):
        """Runs kestrelctl against this agent; returns CompletedProcess."""
        r = subprocess.run([CLI, "--state-dir", self.state] + list(args), capture_output=True, text=True,
                           timeout=20)
        if check and r.returncode != 0:
            raise AssertionError("kestrelctl %s failed: %s %s" % (args, r.stdout, r.stderr))
        return r

    def snmp(self, tool, *args, version="2c", community="vellum", timeout=1, retries=0, extra=()):
        """Runs a net-snmp tool; returns CompletedProcess (never raises on failure)."""
        cmd = [tool, "-v", version]
        if version != "3":
            cmd += ["-c", community]
        cmd += ["-t", str(timeout), "-r", str(retries), "-On", "-Le"] + list(extra) + [self.target()] + list(args)
        return subprocess.run(cmd, capture_output=True, text=True, timeout=60)


# Settings that switch the agent on; the default community "vellum" is read-only.
ENABLED = {"bool:0x01": True}


class AgentTest(unittest.TestCase):
    """Base class: skips when the agent or net-snmp tools are missing."""

    def setUp(self):
        require(self, AGENT, "snmpget")
