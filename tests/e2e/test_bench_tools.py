"""The benchmark's load generator: reply matching against the echo server,
time-outs against a silent port, and its v2c and SNMPv3 authPriv encoding
against net-snmp's snmpd (a real USM peer), including wrong keys."""

import os
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

BIN = os.environ.get("KESTREL_BINARY_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "build"))
LOADGEN = os.path.join(BIN, "bench", "loadgen", "bench_loadgen")
ECHO = os.path.join(BIN, "bench", "echo", "bench_echo")
SNMPD = shutil.which("snmpd") or "/usr/sbin/snmpd"
SYS_DESCR = "1.3.6.1.2.1.1.1.0"


def free_udp_port():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def loadgen(port, *args):
    """Runs bench_loadgen; a later --timeout-ms overrides the generous default (the machine may be busy)."""
    r = subprocess.run([LOADGEN, "--port", str(port), "--timeout-ms", "5000"] + list(args), capture_output=True,
                       text=True, timeout=120)
    result = None
    for line in r.stdout.splitlines():
        if line.startswith("RESULT "):
            result = dict(kv.split("=", 1) for kv in line.split()[1:])
    return r.returncode, result, r.stdout + r.stderr


def stop(proc):
    if proc.poll() is None:
        proc.terminate()
        try:
            proc.wait(5)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait(5)


class LoadgenAgainstEcho(unittest.TestCase):
    def setUp(self):
        for p in (LOADGEN, ECHO):
            if not os.path.exists(p):
                self.skipTest("not built: " + p)
        self.port = free_udp_port()
        self.echo = subprocess.Popen([ECHO, "--bind", "127.0.0.1", "--port", str(self.port)],
                                     stdout=subprocess.PIPE, text=True)
        self.addCleanup(stop, self.echo)
        self.assertIn("listening", self.echo.stdout.readline())

    def test_every_request_is_matched_once_by_its_id(self):
        rc, r, out = loadgen(self.port, "--echo", "--oid", SYS_DESCR, "--count", "500", "--window", "16")
        self.assertEqual(rc, 0, out)
        self.assertEqual(r["replies"], "500")
        self.assertEqual(r["timeouts"], "0")
        self.assertEqual(r["errors"], "0")
        self.assertEqual(r["strays"], "0")
        self.assertGreater(float(r["rps"]), 0)
        self.assertLessEqual(float(r["p50_us"]), float(r["p99_us"]))

    def test_a_request_pdu_back_is_an_error_unless_echo_is_expected(self):
        rc, r, out = loadgen(self.port, "--oid", SYS_DESCR, "--oid", "1.3.6.1.2.1.1.3.0", "--count", "50",
                             "--window", "4")
        self.assertEqual(rc, 0, out)
        self.assertEqual(r["replies"], "50")
        self.assertEqual(r["errors"], "50")

    def test_epoll_echo_answers_the_same_way(self):
        port = free_udp_port()
        echo = subprocess.Popen([ECHO, "--bind", "127.0.0.1", "--port", str(port), "--epoll"],
                                stdout=subprocess.PIPE, text=True)
        self.addCleanup(stop, echo)
        self.assertIn("(epoll)", echo.stdout.readline())
        rc, r, out = loadgen(port, "--echo", "--oid", SYS_DESCR, "--count", "300", "--window", "32", "--spin")
        self.assertEqual(rc, 0, out)
        self.assertEqual((r["replies"], r["all_replies"], r["timeouts"], r["errors"]), ("300", "300", "0", "0"))

    def test_warmup_replies_count_only_in_all_replies(self):
        rc, r, out = loadgen(self.port, "--echo", "--oid", SYS_DESCR, "--duration", "0.3", "--warmup", "0.2",
                             "--window", "4")
        self.assertEqual(rc, 0, out)
        self.assertGreater(int(r["all_replies"]), int(r["replies"]))
        self.assertAlmostEqual(float(r["seconds"]), 0.3, delta=0.05)

    def test_echo_server_stops_on_sigterm(self):
        self.echo.terminate()
        self.assertEqual(self.echo.wait(5), 0)


class LoadgenAgainstSilence(unittest.TestCase):
    def test_unanswered_requests_time_out_and_fail(self):
        if not os.path.exists(LOADGEN):
            self.skipTest("not built: " + LOADGEN)
        # A bound socket that never answers: requests vanish without ICMP errors.
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.bind(("127.0.0.1", 0))
        self.addCleanup(s.close)
        t0 = time.monotonic()
        rc, r, out = loadgen(s.getsockname()[1], "--oid", SYS_DESCR, "--count", "3", "--window", "3",
                             "--timeout-ms", "200")
        self.assertEqual(rc, 1, out)
        self.assertEqual(r["replies"], "0")
        self.assertEqual(r["timeouts"], "3")
        self.assertLess(time.monotonic() - t0, 5)

    def test_bad_usage_is_refused(self):
        if not os.path.exists(LOADGEN):
            self.skipTest("not built: " + LOADGEN)
        rc, r, out = loadgen(1161, "--oid", "1.3.x", "--count", "1")
        self.assertEqual(rc, 2)
        rc, r, out = loadgen(1161, "--oid", SYS_DESCR, "--count", "1", "--v3-user", "u", "--auth-pass", "short",
                             "--priv-pass", "alsoshort")
        self.assertEqual(rc, 2)


class LoadgenAgainstSnmpd(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not os.path.exists(LOADGEN):
            raise unittest.SkipTest("not built: " + LOADGEN)
        if not os.access(SNMPD, os.X_OK):
            raise unittest.SkipTest("snmpd missing")
        cls.dir = tempfile.mkdtemp(prefix="kestrel-bench-test-")
        persist = os.path.join(cls.dir, "persist")
        os.makedirs(persist)
        conf = os.path.join(cls.dir, "snmpd.conf")
        with open(conf, "w") as f:
            f.write("rocommunity benchro 127.0.0.1\n")
            f.write("createUser tuser SHA tauthpass1 DES tprivpass1\n")
            f.write("rouser tuser priv\n")
            f.write("sysservices 78\n")
        cls.port = free_udp_port()
        env = dict(os.environ, SNMPCONFPATH=persist, MIBS="")
        cls.proc = subprocess.Popen([SNMPD, "-f", "-Lo", "-C", "-c", conf, "-m", "", "--persistentDir=" + persist,
                                     "127.0.0.1:%d" % cls.port], stdout=subprocess.DEVNULL,
                                    stderr=subprocess.DEVNULL, env=env)
        deadline = time.time() + 10
        while time.time() < deadline:
            rc, r, _ = loadgen(cls.port, "--community", "benchro", "--oid", SYS_DESCR, "--count", "1",
                               "--timeout-ms", "200")
            if rc == 0:
                return
            time.sleep(0.1)
        stop(cls.proc)
        shutil.rmtree(cls.dir, ignore_errors=True)
        raise unittest.SkipTest("snmpd did not start")

    @classmethod
    def tearDownClass(cls):
        stop(cls.proc)
        shutil.rmtree(cls.dir, ignore_errors=True)

    def v3(self, *args, auth="tauthpass1", priv="tprivpass1", timeout_ms=5000):
        return loadgen(self.port, "--v3-user", "tuser", "--auth-pass", auth, "--priv-pass", priv, "--pool", "64",
                       "--timeout-ms", str(timeout_ms), *args)

    def test_v2c_get_getnext_and_ten_varbinds_are_answered_without_errors(self):
        ten = ["1.3.6.1.2.1.1.%d.0" % i for i in range(1, 8)] + ["1.3.6.1.2.1.2.1.0", "1.3.6.1.2.1.4.1.0",
                                                                  "1.3.6.1.2.1.4.2.0"]
        for args in (["--oid", SYS_DESCR], ["--op", "getnext", "--oid", "1.3.6.1.2.1.1"],
                     sum((["--oid", o] for o in ten), [])):
            rc, r, out = loadgen(self.port, "--community", "benchro", "--count", "200", "--window", "8", *args)
            self.assertEqual(rc, 0, out)
            self.assertEqual((r["replies"], r["errors"], r["timeouts"]), ("200", "0", "0"), args)

    def test_missing_instance_counts_as_error(self):
        rc, r, out = loadgen(self.port, "--community", "benchro", "--count", "20", "--oid", "1.3.6.1.2.1.1.1.99")
        self.assertEqual(rc, 0, out)
        self.assertEqual(r["errors"], "20")

    def test_wrong_community_times_out(self):
        rc, r, out = loadgen(self.port, "--community", "nope", "--oid", SYS_DESCR, "--count", "2", "--window", "2",
                             "--timeout-ms", "200")
        self.assertEqual(rc, 1, out)
        self.assertEqual(r["timeouts"], "2")

    def test_v3_auth_priv_requests_are_accepted_and_replies_decrypt(self):
        # More requests than the pool: ids are reused once answered.
        rc, r, out = self.v3("--oid", SYS_DESCR, "--count", "300", "--window", "8")
        self.assertEqual(rc, 0, out)
        self.assertIn("engine boots", out)
        self.assertEqual((r["replies"], r["errors"], r["timeouts"]), ("300", "0", "0"))

    def test_v3_wrong_auth_password_gets_reports(self):
        rc, r, out = self.v3("--oid", SYS_DESCR, "--count", "5", auth="wrongauthpass")
        self.assertEqual(rc, 0, out)
        self.assertEqual(r["replies"], "5")
        self.assertEqual(r["errors"], "5")

    def test_v3_wrong_priv_password_is_not_answered(self):
        rc, r, out = self.v3("--oid", SYS_DESCR, "--count", "2", "--window", "2", priv="wrongprivpass", timeout_ms=500)
        self.assertEqual(rc, 1, out)
        self.assertEqual(r["timeouts"], "2")



class RunScript(unittest.TestCase):
    """bench/run end to end with tiny settings: it completes, and whatever it
    started is gone afterwards, also when it is stopped with SIGTERM."""

    SRC = os.environ.get("KESTREL_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))

    def setUp(self):
        for p in (LOADGEN, ECHO, os.path.join(BIN, "agent", "kestrel-snmpd"), os.path.join(BIN, "tools", "kestrelctl")):
            if not os.path.exists(p):
                self.skipTest("not built: " + p)
        if not os.access(SNMPD, os.X_OK) or not shutil.which("snmpwalk"):
            self.skipTest("snmpd or snmpwalk missing")
        self.cmd = [os.path.join(self.SRC, "bench", "run"), "--build-dir", BIN, "--rounds", "1", "--duration", "0.2",
                    "--warmup", "0.1", "--routes", "50"]

    def assertPortsFree(self, text):
        line = next(l for l in text.splitlines() if l.startswith("bench: kestrel on port"))
        ports = [int(w) for w in line.replace(",", " ").replace(";", " ").split() if w.isdigit()][:4]
        self.assertEqual(len(ports), 4, line)
        for port in ports:
            s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            try:
                s.bind(("127.0.0.1", port))  # fails while a server still holds it
            finally:
                s.close()

    def test_short_run_prints_the_tables_and_leaves_nothing_behind(self):
        r = subprocess.run(self.cmd, capture_output=True, text=True, timeout=240)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        for text in ("v2c Get sysDescr.0, window 32", "echo+epoll ceiling, window 32", "snmpwalk ipCidrRouteTable",
                     "kestrel, router fixture", "SUMMARY get_w32_vs_snmpd="):
            self.assertIn(text, r.stdout)
        walk = next(l for l in r.stdout.splitlines() if l.startswith("snmpwalk ipCidrRouteTable"))
        self.assertEqual(walk.split()[2], "800")  # 50 routes x 16 columns
        self.assertNotIn("failed", r.stdout.split("SUMMARY")[0].split("request rows")[1])
        self.assertPortsFree(r.stdout)

    def test_sigterm_stops_everything_it_started(self):
        p = subprocess.Popen(self.cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        first = p.stdout.readline()
        if not first.startswith("bench: kestrel on port"):
            p.kill()
            self.fail(first + p.communicate()[1])
        p.terminate()
        out, err = p.communicate(timeout=30)
        self.assertEqual(p.returncode, 128 + 15, out + err)
        self.assertPortsFree(first)


if __name__ == "__main__":
    unittest.main()
