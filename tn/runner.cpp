#include "tn/runner.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace tn {

namespace {

uint64_t (*g_clock)() = nullptr;
ThinRunner* g_runner = nullptr;

}  // namespace

uint64_t ThinRunner::nowMs() {
    if (g_clock) return g_clock();
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000u + uint64_t(ts.tv_nsec) / 1000000u;
}

void ThinRunner::setClock(uint64_t (*clock)()) { g_clock = clock; }

ThinRunner* getRunner() { return g_runner; }
void setRunner(ThinRunner* r) { g_runner = r; }

ThinRunner::ThinRunner() {
    epfd_ = epoll_create1(EPOLL_CLOEXEC);
    if (epfd_ < 0) std::perror("ThinRunner: epoll_create1");
}

ThinRunner::~ThinRunner() {
    if (g_runner == this) g_runner = nullptr;
    if (epfd_ >= 0) close(epfd_);
}

void ThinRunner::shutdown() { stop_ = true; }

int ThinRunner::run() {
    while (step(-1)) {
    }
    return 0;
}

int ThinRunner::sleepTime() {
    if (timers_.empty()) return -1;
    uint64_t due = timers_.begin()->first.first;
    uint64_t now = nowMs();
    if (due <= now) return 0;
    uint64_t d = due - now;
    return d > 0x7FFFFFFF ? 0x7FFFFFFF : int(d);
}

bool ThinRunner::addSocket(int fd, socket_cb cb, unsigned events) {
    if (fd < 0 || epfd_ < 0) return false;
    struct epoll_event ev = {};
    // The flag values are those of poll(2), which epoll shares.
    ev.events = events;
    ev.data.fd = fd;
    bool known = sockets_.count(fd) != 0;
    if (epoll_ctl(epfd_, known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &ev) != 0) {
        // The descriptor may have been closed and reused behind our back.
        if (!(known && errno == ENOENT && epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev) == 0)) return false;
    }
    sockets_[fd] = std::make_shared<socket_cb>(std::move(cb));
    return true;
}

void ThinRunner::removeSocket(int fd) {
    auto it = sockets_.find(fd);
    if (it == sockets_.end()) return;
    sockets_.erase(it);
    if (epfd_ >= 0) epoll_ctl(epfd_, EPOLL_CTL_DEL, fd, nullptr);
}

void ThinRunner::addTimer(unsigned delayMs, std::function<void()> cb, timer_key key) {
    if (key.owner) removeTimer(key);
    Timer t;
    t.due = nowMs() + delayMs;
    t.seq = seq_++;
    t.key = key;
    t.cb = std::move(cb);
    auto pos = std::make_pair(t.due, t.seq);
    if (key.owner) keyed_[key] = pos;
    timers_.emplace(pos, std::move(t));
}

bool ThinRunner::removeTimer(timer_key key) {
    auto it = keyed_.find(key);
    if (it == keyed_.end()) return false;
    timers_.erase(it->second);
    keyed_.erase(it);
    return true;
}

bool ThinRunner::hasTimer(timer_key key) const { return keyed_.count(key) != 0; }

void ThinRunner::fireDueTimers() {
    uint64_t now = nowMs();
    // Timers added by the callbacks of this round wait for the next one,
    // so a callback that re-arms itself with delay 0 cannot spin here.
    uint64_t limit = seq_;
    while (!timers_.empty()) {
        auto it = timers_.begin();
        if (it->first.first > now) break;
        // Ordered by (due, seq): a new timer at the front means every older
        // due timer has fired.
        if (it->second.seq >= limit) break;
        Timer t = std::move(it->second);
        timers_.erase(it);
        if (t.key.owner) {
            auto k = keyed_.find(t.key);
            if (k != keyed_.end() && k->second == std::make_pair(t.due, t.seq)) keyed_.erase(k);
        }
        if (t.cb) t.cb();
        if (stop_) break;
    }
}

bool ThinRunner::step(int maxWaitMs) {
    if (stop_) return false;
    int wait = sleepTime();
    if (maxWaitMs >= 0 && (wait < 0 || wait > maxWaitMs)) wait = maxWaitMs;
    if (epfd_ >= 0) {
        struct epoll_event evs[32];
        int n = epoll_wait(epfd_, evs, 32, wait);
        if (n < 0 && errno != EINTR) {
            std::perror("ThinRunner: epoll_wait");
            // Avoid a busy loop on a persistent failure.
            if (wait != 0) usleep(1000);
        }
        for (int i = 0; i < n && !stop_; ++i) {
            auto it = sockets_.find(evs[i].data.fd);
            if (it == sockets_.end()) continue;  // removed by an earlier callback of this round
            // Held while it runs: the callback may remove or replace its own registration.
            std::shared_ptr<socket_cb> cb = it->second;
            (*cb)(evs[i].data.fd, evs[i].events);
        }
    } else if (wait > 0) {
        usleep(unsigned(wait) * 1000u);
    }
    if (!stop_) fireDueTimers();
    return !stop_;
}

}  // namespace tn
