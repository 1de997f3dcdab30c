// Host figures and the non-netlink handlers of the Linux backend, read from
// a prepared procfs/sysfs tree, and the paging of list replies.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/linux_backend.h"
#include "platform/linux_host.h"
#include "tn/looper.h"

using namespace tn;

namespace {

class TempTree {
public:
    TempTree() {
        char tmpl[] = "/tmp/kestrel_linux_XXXXXX";
        char* d = mkdtemp(tmpl);
        if (d) root_ = d;
    }
    ~TempTree() {
        if (!root_.empty()) std::system(("rm -rf '" + root_ + "'").c_str());
    }
    const std::string& root() const { return root_; }
    void write(const std::string& rel, const std::string& text) {
        std::string path = root_ + "/" + rel;
        std::system(("mkdir -p '" + path.substr(0, path.rfind('/')) + "'").c_str());
        std::ofstream(path) << text;
    }

private:
    std::string root_;
};

const char kMeminfo[] =
    "MemTotal:        8000000 kB\n"
    "MemFree:          100000 kB\n"
    "MemAvailable:    3000000 kB\n"
    "Buffers:           10000 kB\n";

message request(const u32_vector& path, uint32_t cmd) {
    message m;
    m.insert(u32_array_id(F_PATH), path);
    m.insert(u32_id(F_COMMAND), cmd);
    return m;
}

}  // namespace

TEST(LinuxHostProc, MemoryUptimeAndCpuLoad) {
    TempTree t;
    ASSERT_FALSE(t.root().empty());
    t.write("meminfo", kMeminfo);
    t.write("uptime", "12345.67 999.00\n");
    t.write("stat", "cpu  100 0 100 700 100 0 0 0 0 0\ncpu0 1 2 3 4\n");

    uint32_t total = 0, freeKiB = 0, up = 0;
    ASSERT_TRUE(readMemInfo(t.root(), total, freeKiB));
    EXPECT_EQ(total, 8000000u);
    EXPECT_EQ(freeKiB, 3000000u);  // available, not merely free
    ASSERT_TRUE(readUptime(t.root(), up));
    EXPECT_EQ(up, 12345u);

    CpuSample a, b;
    ASSERT_TRUE(readCpuSample(t.root(), a));
    EXPECT_EQ(a.total, 1000u);
    EXPECT_EQ(a.busy, 200u);  // idle and iowait are not busy
    b = a;
    b.total += 200;
    b.busy += 150;
    EXPECT_EQ(cpuLoadPercent(a, b), 75u);
    EXPECT_EQ(cpuLoadPercent(a, a), 0u);
    EXPECT_EQ(cpuLoadPercent(b, a), 0u);  // a counter reset reads as idle

    t.write("meminfo", "MemTotal: 1000 kB\nMemFree: 400 kB\n");  // kernels before MemAvailable
    ASSERT_TRUE(readMemInfo(t.root(), total, freeKiB));
    EXPECT_EQ(freeKiB, 400u);
    t.write("meminfo", "MemFree: 400 kB\n");
    EXPECT_FALSE(readMemInfo(t.root(), total, freeKiB));
    t.write("stat", "intr 1 2 3\n");
    EXPECT_FALSE(readCpuSample(t.root(), a));
}

TEST(LinuxHostSys, TemperaturesByClassFromHwmonAndThermalZones) {
    TempTree t;
    EXPECT_FALSE(readTemperatures(t.root()).hasBoard);
    EXPECT_FALSE(readTemperatures(t.root()).hasCpu);

    t.write("class/hwmon/hwmon0/name", "coretemp\n");
    t.write("class/hwmon/hwmon0/temp1_input", "45000\n");
    t.write("class/hwmon/hwmon0/temp2_input", "51500\n");
    t.write("class/hwmon/hwmon0/temp2_crit", "100000\n");  // a limit, not a reading
    Temperatures only = readTemperatures(t.root());
    EXPECT_TRUE(only.hasCpu);
    EXPECT_EQ(only.cpu, 52);
    EXPECT_FALSE(only.hasBoard);

    t.write("class/thermal/thermal_zone0/type", "acpitz\n");
    t.write("class/thermal/thermal_zone0/temp", "40000\n");
    t.write("class/thermal/thermal_zone1/type", "x86_pkg_temp\n");
    t.write("class/thermal/thermal_zone1/temp", "60000\n");
    t.write("class/thermal/thermal_zone2/type", "broken\n");
    t.write("class/thermal/thermal_zone2/temp", "-274000\n");
    Temperatures all = readTemperatures(t.root());
    EXPECT_TRUE(all.hasBoard);
    EXPECT_EQ(all.board, 40);
    EXPECT_EQ(all.cpu, 60);

    EXPECT_TRUE(isCpuSensorName("k10temp"));
    EXPECT_TRUE(isCpuSensorName("cpu-thermal"));
    EXPECT_FALSE(isCpuSensorName("acpitz"));
    EXPECT_FALSE(isCpuSensorName("nvme"));
}

// ---------------------------------------------------------------------------
// Handlers through a looper.

class LinuxBackendHandlers : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(tree.root().empty());
        tree.write("proc/meminfo", kMeminfo);
        tree.write("proc/uptime", "500.2 10.0\n");
        tree.write("proc/stat", "cpu  300 0 100 600 0 0 0 0 0 0\n");
        tree.write("sys/class/hwmon/hwmon0/name", "k10temp\n");
        tree.write("sys/class/hwmon/hwmon0/temp1_input", "47000\n");
        opts.procRoot = tree.root() + "/proc";
        opts.sysRoot = tree.root() + "/sys";
        opts.diskPath = tree.root();
        opts.linkEvents = false;
    }

    bool start(std::string* err = nullptr) {
        std::string e;
        backend = registerLinuxBackend(looper, opts, &e);
        if (err) *err = e;
        return backend != nullptr;
    }

    message ask(const u32_vector& path, uint32_t cmd, const message& extra = message()) {
        message m = request(path, cmd);
        m.merge(extra);
        return looper.exchangeMessage(m, 1000);
    }

    TempTree tree;
    LinuxBackendOptions opts;
    Looper looper;
    std::unique_ptr<LinuxBackend> backend;
};

TEST_F(LinuxBackendHandlers, ResourcesClockAndHealth) {
    ASSERT_TRUE(start());
    message r = ask({24, 2}, CMD_GET);
    ASSERT_FALSE(isError(r)) << getError(r);
    EXPECT_EQ(r.get(u32_id(0x1)), 500u);
    EXPECT_EQ(r.get(u32_id(0x2)), 8000000u);
    EXPECT_EQ(r.get(u32_id(0x3)), 3000000u);
    EXPECT_TRUE(r.has(u32_id(0xa)));
    EXPECT_LE(r.get(u32_id(0xb)), r.get(u32_id(0xa)));
    EXPECT_EQ(r.get(u32_id(0x6), 999), 40u);  // average since boot on the first read

    // The reboot object's empty set passes; a set with values does not.
    EXPECT_FALSE(isError(ask({24, 2}, CMD_SET)));
    message v;
    v.insert(u32_id(0x2), 1u);
    EXPECT_TRUE(isError(ask({24, 2}, CMD_SET, v)));

    message c = ask({24, 0}, CMD_GET);
    time_t now = time(nullptr);
    struct tm lt;
    localtime_r(&now, &lt);
    EXPECT_NEAR(double(c.get(u32_id(0x7))), double(now), 2.0);
    EXPECT_EQ(int32_t(c.get(u32_id(0x1b), 12345)), int32_t(lt.tm_gmtoff));

    message h = ask({12, 1}, CMD_GET);
    EXPECT_EQ(h.get(u32_id(0x11)), 47u);
    EXPECT_FALSE(h.has(u32_id(0xe)));  // no board sensor on this host
}

TEST_F(LinuxBackendHandlers, HostnameAndRebootAreRefusedByDefault) {
    ASSERT_TRUE(start());
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(ask({24, 1}, CMD_GET).get(string_id(0xc)), host);

    message set;
    set.insert(string_id(0xc), "changed-by-test");
    message r = ask({24, 1}, CMD_SET, set);
    ASSERT_TRUE(isError(r));
    EXPECT_EQ(getErrorCode(r), uint32_t(ERR_REFUSED));
    char after[256] = {};
    gethostname(after, sizeof after - 1);
    EXPECT_STREQ(after, host);

    message reboot = ask({24}, 5);
    ASSERT_TRUE(isError(reboot));
    EXPECT_EQ(getErrorCode(reboot), uint32_t(ERR_REFUSED));
    // A path below {24} that nothing serves is no object, not a reboot.
    message below = ask({24, 7}, 5);
    ASSERT_TRUE(isError(below));
    EXPECT_EQ(getErrorCode(below), uint32_t(ERR_NO_OBJECT));
}

TEST_F(LinuxBackendHandlers, AllowedRebootIsOnlyLogged) {
    opts.allowReboot = true;
    ASSERT_TRUE(start());
    testing::internal::CaptureStderr();
    message r = ask({24}, 5);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(isError(r)) << getError(r);
    EXPECT_NE(log.find("reboot requested"), std::string::npos);
}

TEST_F(LinuxBackendHandlers, DataFileTablesPageWithContinuation) {
    std::string file = "{\"software\": {\"str:1\": \"edge 2.1\", \"u32:9\": 41},\n \"scripts\": [";
    for (int i = 1; i <= 250; ++i) file += std::string(i > 1 ? "," : "") + "{\"str:0x66\": \"s" + std::to_string(i) + "\"}";
    file += "],\n \"hosts\": [{\"u32:0xfe0001\": 70, \"be32:1\": \"10.0.0.5\", \"str:7\": \"pc\"}]}";
    tree.write("data.json", file);
    opts.dataFile = tree.root() + "/data.json";
    ASSERT_TRUE(start());

    message sw = ask({65}, CMD_GET);
    EXPECT_EQ(sw.get(string_id(0x1)), "edge 2.1");
    EXPECT_EQ(sw.get(u32_id(0x9)), 41u);
    EXPECT_TRUE(sw.has(u32_id(0x4)));  // default kept where the file says nothing

    // 250 scripts in pages of 100: three requests, each continuing where
    // the previous reply said.
    std::vector<uint32_t> ids;
    message req = request({48, 101}, CMD_GET_ALL);
    req.insert(u32_id(F_SELECTOR), 5u);
    int pages = 0;
    for (; pages < 10; ++pages) {
        message r = looper.exchangeMessage(req, 1000);
        ASSERT_FALSE(isError(r)) << getError(r);
        std::vector<message> objs = r.get(message_array_id(F_OBJECTS));
        EXPECT_LE(objs.size(), 100u);
        for (const message& o : objs) ids.push_back(o.get(u32_id(F_OBJ_ID)));
        if (!r.has(u32_id(F_START))) break;
        req.insert(u32_id(F_START), r.get(u32_id(F_START)));
    }
    EXPECT_EQ(pages, 2);
    ASSERT_EQ(ids.size(), 250u);
    for (uint32_t i = 0; i < 250; ++i) EXPECT_EQ(ids[i], i + 1);

    message count = ask({48, 101}, CMD_COUNT);
    EXPECT_EQ(count.get(u32_id(F_TOTAL)), 250u);

    // A smaller page asked for by the request is honoured.
    message small = request({48, 101}, CMD_GET_ALL);
    small.insert(u32_id(F_COUNT), 7u);
    EXPECT_EQ(looper.exchangeMessage(small, 1000).get(message_array_id(F_OBJECTS)).size(), 7u);

    message h = ask({10, 1}, CMD_GET_ALL);
    std::vector<message> hosts = h.get(message_array_id(F_OBJECTS));
    ASSERT_EQ(hosts.size(), 1u);
    EXPECT_EQ(hosts[0].get(u32_id(F_OBJ_ID)), 70u);
    EXPECT_EQ(hosts[0].get(be32_id(0x1)), 0x0A000005u);
    EXPECT_FALSE(h.has(u32_id(F_START)));

    // Tables the file does not name are empty lists, not errors.
    message traffic = ask({20, 9}, CMD_GET_ALL);
    ASSERT_FALSE(isError(traffic));
    EXPECT_TRUE(traffic.get(message_array_id(F_OBJECTS)).empty());
    EXPECT_EQ(ask({20, 12}, CMD_COUNT).get(u32_id(F_TOTAL), 9), 0u);
}

TEST_F(LinuxBackendHandlers, ScriptsCanBeRenamedButNotRun) {
    tree.write("data.json", "{\"scripts\": [{\"u32:0xfe0001\": 7, \"str:0x66\": \"backup\"}]}");
    opts.dataFile = tree.root() + "/data.json";
    ASSERT_TRUE(start());

    message rename;
    rename.insert(u32_id(F_OBJ_ID), 7u);
    rename.insert(string_id(0x66), "nightly");
    EXPECT_FALSE(isError(ask({48, 101}, CMD_SET_OBJ, rename)));
    message obj;
    obj.insert(u32_id(F_OBJ_ID), 7u);
    EXPECT_EQ(ask({48, 101}, CMD_GET_OBJ, obj).get(string_id(0x66)), "nightly");

    message run;
    run.insert(u32_id(F_OBJ_ID), 7u);
    message r = ask({48, 101}, 1, run);
    ASSERT_TRUE(isError(r));
    EXPECT_EQ(getErrorCode(r), uint32_t(ERR_REFUSED));

    rename.insert(u32_id(F_OBJ_ID), 8u);
    EXPECT_TRUE(isError(ask({48, 101}, CMD_SET_OBJ, rename)));
    message missing;
    missing.insert(u32_id(F_OBJ_ID), 8u);
    EXPECT_EQ(ask({48, 101}, CMD_GET_OBJ, missing).get(u32_id(F_NOT_EXIST)), 1u);
}

TEST_F(LinuxBackendHandlers, BadDataFileStopsRegistration) {
    std::string err;
    opts.dataFile = tree.root() + "/absent.json";
    EXPECT_FALSE(start(&err));
    EXPECT_NE(err.find("cannot read"), std::string::npos) << err;

    tree.write("bad.json", "{\"scripts\": [{\"str:0x66\": \"a\"}], \"scirpts\": []}");
    opts.dataFile = tree.root() + "/bad.json";
    EXPECT_FALSE(start(&err));
    EXPECT_NE(err.find("scirpts"), std::string::npos) << err;

    tree.write("bad2.json", "{\"hosts\": {\"u32:1\": 1}}");
    opts.dataFile = tree.root() + "/bad2.json";
    EXPECT_FALSE(start(&err));
    EXPECT_NE(err.find("hosts"), std::string::npos) << err;
    EXPECT_EQ(err.find('\n'), std::string::npos);
}

TEST_F(LinuxBackendHandlers, UnregistersItsPathsWhenDestroyed) {
    ASSERT_TRUE(start());
    EXPECT_EQ(backend->paths().size(), 15u);
    EXPECT_FALSE(isError(ask({24, 0}, CMD_GET)));
    backend.reset();
    message r = ask({24, 0}, CMD_GET);
    ASSERT_TRUE(isError(r));
    EXPECT_EQ(getErrorCode(r), uint32_t(ERR_NO_OBJECT));
}

TEST_F(LinuxBackendHandlers, ShippedExampleDataFileLoads) {
    opts.dataFile = std::string(KESTREL_SOURCE_DIR) + "/examples/linux-backend-data.json";
    std::string err;
    ASSERT_TRUE(start(&err)) << err;
    EXPECT_EQ(ask({48, 101}, CMD_COUNT).get(u32_id(F_TOTAL)), 2u);
    std::vector<message> hosts = ask({10, 1}, CMD_GET_ALL).get(message_array_id(F_OBJECTS));
    ASSERT_EQ(hosts.size(), 1u);
    EXPECT_EQ(hosts[0].get(be32_id(0x1)), 0xC0A8580Au);
    EXPECT_EQ(hosts[0].get(raw_id(0x30000002)).size(), 6u);
    EXPECT_EQ(hosts[0].get(string_id(0xb)), "active");
}
