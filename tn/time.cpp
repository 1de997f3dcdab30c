#include "tn/time.h"

#include <sys/utsname.h>
#include <time.h>

namespace tn {

static uint64_t (*g_source)() = nullptr;

static uint64_t nowMs() {
    if (g_source) return g_source();
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000u + uint64_t(ts.tv_nsec) / 1000000u;
}

uint32_t getUptime() { return uint32_t(nowMs() / 1000u); }
uint32_t getJiffies() { return uint32_t(nowMs() / 10u); }
void setTimeSource(uint64_t (*msSource)()) { g_source = msSource; }

}  // namespace tn

std::string getOSVersion() {
    struct utsname u;
    if (uname(&u) != 0) return "Linux";
    return std::string(u.sysname) + " " + u.release;
}
