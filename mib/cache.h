// Time-limited validity of fetched data.
//
// A cache filled on first read stays while it keeps being read at least
// every accessTimeout ticks and never longer than maxAge ticks; it is
// checked on a one-shot timer that re-arms itself. Nothing is fetched in
// the background: an idle cache simply empties and the next read fetches.
#pragma once

#include <cstdint>

// Elapsed-time clock ticks (times()); replaceable so that tests can drive time.
extern uint32_t (*cacheClock)();
uint32_t cacheClockTimes();

// Milliseconds spanning the given number of clock ticks.
unsigned int cacheTicksToMs(uint32_t ticks);

class CacheUpdateTimeout {
public:
    CacheUpdateTimeout(unsigned int accessTimeout, unsigned int maxAge);

    virtual void updateCache() = 0;  // fetch
    virtual void clearCache() = 0;   // drop
    virtual ~CacheUpdateTimeout();

    // Called on every read: fetches when the cache is empty.
    void accessData();
    // Timer expiry: keeps the data while it is read and young enough.
    void invalidateDataTimer();
    // Drops the data now; the next read fetches again.
    void invalidateData();
    void setTimeouts(unsigned int accessTimeout, unsigned int maxAge);

protected:
    uint32_t lastAccess = 0;  // ticks of the last read
    uint32_t lastUpdate = 0;  // ticks of the last fetch
    bool valid = false;
    bool timerSet = false;
    uint32_t accessTimeout;
    uint32_t maxAge;

private:
    void armTimer();
};
