// The event loop: sockets watched with epoll and a heap of one-shot timers.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace tn {

// Identifies a timer by owner object and a tag, so that a timer bound to a
// member function can be removed by naming the same object and member.
struct timer_key {
    const void* owner = nullptr;
    uint64_t tag = 0;
    bool operator<(const timer_key& o) const { return owner != o.owner ? owner < o.owner : tag < o.tag; }
    bool operator==(const timer_key& o) const { return owner == o.owner && tag == o.tag; }
};

template <class F>
uint64_t member_tag(F fn) {
    // A stable tag for a member function pointer: its bytes, folded.
    unsigned char b[sizeof(F)];
    std::memcpy(b, &fn, sizeof(F));
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : b) h = (h ^ c) * 1099511628211ull;
    return h;
}

class ThinRunner {
public:
    typedef std::function<void(int fd, unsigned events)> socket_cb;

    ThinRunner();
    virtual ~ThinRunner();
    virtual void shutdown();   // makes run() return after the current step
    virtual int run();         // serves sockets and timers until shutdown(); returns 0
    virtual int sleepTime();   // ms until the next timer, -1 when none

    // events: 1 = readable (EPOLLIN). Replaces an earlier registration of fd.
    bool addSocket(int fd, socket_cb cb, unsigned events = 1);
    template <class T>
    bool addSocket(int fd, T* obj, void (T::*fn)(int, unsigned), unsigned events = 1) {
        return addSocket(fd, [obj, fn](int f, unsigned e) { (obj->*fn)(f, e); }, events);
    }
    void removeSocket(int fd);

    // One-shot timer after delayMs milliseconds. A timer with the same key
    // (non-null owner) replaces the earlier one. Timers due at the same time
    // fire in the order they were added.
    void addTimer(unsigned delayMs, std::function<void()> cb, timer_key key = timer_key());
    bool removeTimer(timer_key key);
    template <class T>
    bool removeTimer(T* obj, void (T::*fn)()) {
        return removeTimer(timer_key{obj, member_tag(fn)});
    }
    bool hasTimer(timer_key key) const;

    // Runs one round: waits at most maxWaitMs (or until the next timer) for
    // socket events, serves them, then due timers. Returns false when the
    // runner was shut down.
    bool step(int maxWaitMs);
    bool stopped() const { return stop_; }
    void resetStop() { stop_ = false; }

    // Milliseconds on the monotonic clock; tests may replace the clock.
    static uint64_t nowMs();
    static void setClock(uint64_t (*clock)());

    // Watching one extra descriptor without dispatch (used by blocking exchanges).
    int epollFd() const { return epfd_; }

protected:
    struct Timer {
        uint64_t due;
        uint64_t seq;
        timer_key key;
        std::function<void()> cb;
    };
    void fireDueTimers();
    int epfd_ = -1;
    bool stop_ = false;
    uint64_t seq_ = 0;
    // Shared, so that a callback can be kept alive while it runs without
    // copying the function object (and allocating) for every event.
    std::map<int, std::shared_ptr<socket_cb>> sockets_;
    std::multimap<std::pair<uint64_t, uint64_t>, Timer> timers_;  // (due, seq) -> timer
    std::map<timer_key, std::pair<uint64_t, uint64_t>> keyed_;
};

ThinRunner* getRunner();
void setRunner(ThinRunner* r);

// Binds a member function of obj as a one-shot timer on the process's runner.
template <class T>
void addTimer(T* obj, void (T::*fn)(), unsigned delayMs) {
    getRunner()->addTimer(delayMs, [obj, fn]() { (obj->*fn)(); }, timer_key{obj, member_tag(fn)});
}

}  // namespace tn
