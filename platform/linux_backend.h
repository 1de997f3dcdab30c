// The Linux host backend: handlers that answer the platform's handler paths
// with the host's own data, read from the kernel when asked.
//
//   {20, 0}   interfaces (list, command 1 list, get object; selector 256 = counters)
//   {20, 1}   IPv4 addresses            {20, 8}  IPv4 neighbours
//   {44, 1}   routes of the main table  {16, 3}  bridge forwarding entries
//   {24, 0}   clock                     {24, 1}  identity (hostname)
//   {24, 2}   resources                 {24}     command 5: reboot
//   {12, 1}   temperatures              {65}     software information
//   {48, 101} scripts, {10, 1} hosts, {20, 9} and {20, 12} traffic tables:
//             from the optional data file, else empty.
// Link admin/carrier changes are published from {20, 0} as command 0x10004.
//
// The data file is JSON; every member is optional:
//   { "software": {object}, "scripts": [objects], "hosts": [objects],
//     "traffic": [objects], "trafficTree": [objects] }
// Objects use the bus message's JSON form ("str:0x66": "backup",
// "be32:1": "10.0.0.5", ...); list objects without "u32:0xfe0001" get their
// position (from 1) as id.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tn/looper.h"

namespace tn {

struct LinuxBackendOptions {
    std::string dataFile;             // optional; see above
    bool allowHostnameChange = false; // else set on {24, 1} is refused
    bool allowReboot = false;         // else command 5 on {24} is refused; even allowed it is only logged
    unsigned pageSize = 100;          // objects per list reply (1 .. 10000)
    bool linkEvents = true;           // watch rtnetlink link changes
    std::string procRoot = "/proc";
    std::string sysRoot = "/sys";
    std::string diskPath = "/";       // file system reported as the disk
};

class LinuxBackend {
public:
    virtual ~LinuxBackend() = default;  // unregisters every handler and the event socket
    // Paths this backend registered, in registration order.
    virtual const std::vector<u32_vector>& paths() const = 0;
    // Link state flags the event watcher last saw per interface (tests, tracing).
    virtual size_t trackedLinks() const = 0;
};

// Registers every handler on looper (and the event socket on its runner).
// Null with one line in *err when the kernel interface cannot be opened or
// the data file cannot be read.
std::unique_ptr<LinuxBackend> registerLinuxBackend(Looper& looper, const LinuxBackendOptions& opts,
                                                   std::string* err = nullptr);

}  // namespace tn
