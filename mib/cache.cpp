#include "mib/cache.h"

#include <sys/times.h>
#include <unistd.h>

#include "tn/runner.h"

uint32_t cacheClockTimes() {
    struct tms t;
    return static_cast<uint32_t>(times(&t));
}

uint32_t (*cacheClock)() = cacheClockTimes;

unsigned int cacheTicksToMs(uint32_t ticks) {
    static const long hz = [] {
        long v = sysconf(_SC_CLK_TCK);
        return v > 0 ? v : 100L;
    }();
    return static_cast<unsigned int>(uint64_t(ticks) * 1000u / uint64_t(hz));
}

CacheUpdateTimeout::CacheUpdateTimeout(unsigned int accessTimeout_, unsigned int maxAge_)
    : accessTimeout(accessTimeout_), maxAge(maxAge_) {}

CacheUpdateTimeout::~CacheUpdateTimeout() {}

void CacheUpdateTimeout::setTimeouts(unsigned int accessTimeout_, unsigned int maxAge_) {
    accessTimeout = accessTimeout_;
    maxAge = maxAge_;
}

void CacheUpdateTimeout::armTimer() {
    tn::addTimer<CacheUpdateTimeout>(this, &CacheUpdateTimeout::invalidateDataTimer, cacheTicksToMs(accessTimeout));
    timerSet = true;
}

void CacheUpdateTimeout::accessData() {
    uint32_t now = cacheClock();
    lastAccess = now;
    if (valid) return;
    lastUpdate = now;
    valid = true;
    updateCache();
    armTimer();
}

void CacheUpdateTimeout::invalidateDataTimer() {
    uint32_t now = cacheClock();
    // Unsigned differences: a wrapped tick counter still compares right.
    if (now - lastAccess < accessTimeout && now - lastUpdate < maxAge) {
        armTimer();
        return;
    }
    clearCache();
    timerSet = false;
    valid = false;
}

void CacheUpdateTimeout::invalidateData() {
    if (timerSet) tn::getRunner()->removeTimer<CacheUpdateTimeout>(this, &CacheUpdateTimeout::invalidateDataTimer);
    clearCache();
    timerSet = false;
    valid = false;
}
