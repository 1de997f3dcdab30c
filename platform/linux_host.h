// Host figures of the Linux backend read from procfs, sysfs and ioctls.
// The roots are parameters so that tests can point them at a prepared tree.
#pragma once

#include <cstdint>
#include <string>

namespace tn {

// /proc/meminfo: MemTotal, and MemAvailable (MemFree on old kernels), KiB.
bool readMemInfo(const std::string& procRoot, uint32_t& totalKiB, uint32_t& freeKiB);
// /proc/uptime, whole seconds.
bool readUptime(const std::string& procRoot, uint32_t& seconds);

// Cumulative CPU time of /proc/stat's "cpu" line, in clock ticks.
struct CpuSample {
    uint64_t busy = 0;
    uint64_t total = 0;
};
bool readCpuSample(const std::string& procRoot, CpuSample& out);
// Busy share between two samples in percent (0..100); 0 when no time passed.
uint32_t cpuLoadPercent(const CpuSample& earlier, const CpuSample& later);

// Size and free space of the file system holding path, KiB (saturated at
// 0xFFFFFFFF). Free counts every free block, so total - free is what df
// reports as used.
bool readDiskKiB(const std::string& path, uint32_t& totalKiB, uint32_t& freeKiB);

// The hottest sensor of each class, whole degrees Celsius. Sensors come
// from hwmon (temp*_input) and thermal zones; a sensor is a CPU sensor when
// its chip or zone name says so (coretemp, k10temp, cpu_thermal, x86_pkg_temp...).
struct Temperatures {
    bool hasBoard = false;
    bool hasCpu = false;
    int board = 0;
    int cpu = 0;
};
Temperatures readTemperatures(const std::string& sysRoot);
bool isCpuSensorName(const std::string& name);

// Link speed in Mbit/s from the driver (SIOCETHTOOL), -1 when unknown.
// sockFd is any AF_INET datagram socket.
int ethtoolSpeedMbps(int sockFd, const char* ifname);
// Speed class of the bus: 0 = 10M, 1 = 100M, 2 = 1G, 3 = faster than 1G
// (the bus has no finer class for those); -1 when the speed is unknown.
int speedClass(int mbps);

// True when sysRoot/class/net/<name> describes a wireless device.
bool isWireless(const std::string& sysRoot, const char* ifname);

}  // namespace tn
