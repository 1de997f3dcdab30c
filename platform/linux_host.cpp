#include "platform/linux_host.h"

#include <dirent.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace tn {

namespace {

bool readFile(const std::string& path, std::string& out) {
    std::ifstream f(path);
    if (!f) return false;
    std::ostringstream ss;
    ss << f.rdbuf();
    out = ss.str();
    return true;
}

bool readLong(const std::string& path, long long& out) {
    std::string s;
    if (!readFile(path, s)) return false;
    char* end = nullptr;
    errno = 0;
    long long v = std::strtoll(s.c_str(), &end, 10);
    if (end == s.c_str() || errno != 0) return false;
    out = v;
    return true;
}

std::string trimmed(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return std::string();
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

uint32_t saturate32(unsigned long long v) { return v > 0xFFFFFFFFull ? 0xFFFFFFFFu : uint32_t(v); }

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

}  // namespace

bool readMemInfo(const std::string& procRoot, uint32_t& totalKiB, uint32_t& freeKiB) {
    std::ifstream f(procRoot + "/meminfo");
    if (!f) return false;
    bool haveTotal = false, haveAvail = false, haveFree = false;
    unsigned long long total = 0, avail = 0, freeMem = 0;
    std::string line;
    while (std::getline(f, line)) {
        unsigned long long v;
        if (std::sscanf(line.c_str(), "MemTotal: %llu", &v) == 1) total = v, haveTotal = true;
        else if (std::sscanf(line.c_str(), "MemAvailable: %llu", &v) == 1) avail = v, haveAvail = true;
        else if (std::sscanf(line.c_str(), "MemFree: %llu", &v) == 1) freeMem = v, haveFree = true;
    }
    if (!haveTotal || (!haveAvail && !haveFree)) return false;
    totalKiB = saturate32(total);
    freeKiB = saturate32(haveAvail ? avail : freeMem);
    return true;
}

bool readUptime(const std::string& procRoot, uint32_t& seconds) {
    std::string s;
    if (!readFile(procRoot + "/uptime", s)) return false;
    double up = 0;
    if (std::sscanf(s.c_str(), "%lf", &up) != 1 || up < 0) return false;
    seconds = saturate32((unsigned long long)up);
    return true;
}

bool readCpuSample(const std::string& procRoot, CpuSample& out) {
    std::ifstream f(procRoot + "/stat");
    std::string line;
    if (!f || !std::getline(f, line) || line.compare(0, 4, "cpu ") != 0) return false;
    unsigned long long v[8] = {};
    int n = std::sscanf(line.c_str() + 4, "%llu %llu %llu %llu %llu %llu %llu %llu", &v[0], &v[1], &v[2], &v[3],
                        &v[4], &v[5], &v[6], &v[7]);
    if (n < 4) return false;
    // user nice system idle iowait irq softirq steal; guest time is already
    // part of user time.
    uint64_t total = 0;
    for (int i = 0; i < n; ++i) total += v[i];
    uint64_t idle = v[3] + (n > 4 ? v[4] : 0);
    out.total = total;
    out.busy = total - idle;
    return true;
}

uint32_t cpuLoadPercent(const CpuSample& earlier, const CpuSample& later) {
    if (later.total <= earlier.total || later.busy < earlier.busy) return 0;
    uint64_t dt = later.total - earlier.total;
    uint64_t db = later.busy - earlier.busy;
    if (db > dt) db = dt;
    return uint32_t((db * 100 + dt / 2) / dt);
}

bool readDiskKiB(const std::string& path, uint32_t& totalKiB, uint32_t& freeKiB) {
    struct statvfs st;
    if (statvfs(path.c_str(), &st) != 0) return false;
    unsigned long long unit = st.f_frsize ? st.f_frsize : st.f_bsize;
    totalKiB = saturate32((unsigned long long)st.f_blocks * unit / 1024);
    freeKiB = saturate32((unsigned long long)st.f_bfree * unit / 1024);
    return true;
}

bool isCpuSensorName(const std::string& raw) {
    std::string n;
    for (char c : raw) n += char(std::tolower((unsigned char)c));
    static const char* const cpuNames[] = {"coretemp", "k10temp", "k8temp", "zenpower", "x86_pkg_temp",
                                           "cpu",      "soc",     "core"};
    for (const char* c : cpuNames)
        if (n.find(c) != std::string::npos) return true;
    return false;
}

namespace {

void account(Temperatures& t, bool cpu, long long milli) {
    // Drivers report millidegrees; some report garbage for absent probes.
    if (milli < -100000 || milli > 250000) return;
    int deg = int(std::lround(double(milli) / 1000.0));
    if (cpu) {
        if (!t.hasCpu || deg > t.cpu) t.cpu = deg;
        t.hasCpu = true;
    } else {
        if (!t.hasBoard || deg > t.board) t.board = deg;
        t.hasBoard = true;
    }
}

template <class F>
void forEachEntry(const std::string& dir, F fn) {
    DIR* d = opendir(dir.c_str());
    if (!d) return;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        fn(std::string(e->d_name));
    }
    closedir(d);
}

}  // namespace

Temperatures readTemperatures(const std::string& sysRoot) {
    Temperatures t;
    std::string hw = sysRoot + "/class/hwmon";
    forEachEntry(hw, [&](const std::string& chip) {
        std::string base = hw + "/" + chip;
        std::string name;
        readFile(base + "/name", name);
        bool cpu = isCpuSensorName(trimmed(name));
        forEachEntry(base, [&](const std::string& f) {
            if (f.compare(0, 4, "temp") != 0 || f.size() < 11 || f.compare(f.size() - 6, 6, "_input") != 0) return;
            long long v;
            if (readLong(base + "/" + f, v)) account(t, cpu, v);
        });
    });
    std::string th = sysRoot + "/class/thermal";
    forEachEntry(th, [&](const std::string& zone) {
        if (zone.compare(0, 12, "thermal_zone") != 0) return;
        std::string base = th + "/" + zone;
        std::string type;
        long long v;
        if (!readLong(base + "/temp", v)) return;
        readFile(base + "/type", type);
        account(t, isCpuSensorName(trimmed(type)), v);
    });
    return t;
}

int ethtoolSpeedMbps(int sockFd, const char* ifname) {
    if (sockFd < 0 || !ifname || !*ifname) return -1;
    ethtool_cmd cmd;
    std::memset(&cmd, 0, sizeof cmd);
    cmd.cmd = ETHTOOL_GSET;
    ifreq ifr;
    std::memset(&ifr, 0, sizeof ifr);
    std::strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    ifr.ifr_data = reinterpret_cast<char*>(&cmd);
    if (ioctl(sockFd, SIOCETHTOOL, &ifr) != 0) return -1;
    uint32_t speed = ethtool_cmd_speed(&cmd);
    if (speed == 0 || speed == uint32_t(SPEED_UNKNOWN) || speed > 10000000u) return -1;
    return int(speed);
}

int speedClass(int mbps) {
    if (mbps <= 0) return -1;
    if (mbps <= 10) return 0;
    if (mbps <= 100) return 1;
    if (mbps <= 1000) return 2;
    return 3;
}

bool isWireless(const std::string& sysRoot, const char* ifname) {
    std::string base = sysRoot + "/class/net/" + ifname;
    return exists(base + "/wireless") || exists(base + "/phy80211");
}

}  // namespace tn
