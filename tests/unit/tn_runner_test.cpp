// tn::ThinRunner: timers (on a test clock) and socket callbacks.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include "tn/runner.h"

using namespace tn;

namespace {

uint64_t fakeNow = 1000;
uint64_t fakeClock() { return fakeNow; }

struct FakeClock : ::testing::Test {
    void SetUp() override {
        fakeNow = 1000;
        ThinRunner::setClock(fakeClock);
    }
    void TearDown() override { ThinRunner::setClock(nullptr); }
};

struct Owner {
    std::vector<std::string>* log;
    void tick() { log->push_back("tick"); }
    void tock() { log->push_back("tock"); }
};

}  // namespace

TEST_F(FakeClock, TimersFireInDueOrderThenInsertionOrder) {
    ThinRunner r;
    std::vector<int> order;
    r.addTimer(30, [&] { order.push_back(30); });
    r.addTimer(10, [&] { order.push_back(10); });
    r.addTimer(20, [&] { order.push_back(20); });
    r.addTimer(10, [&] { order.push_back(11); });
    r.addTimer(0, [&] { order.push_back(0); });
    EXPECT_EQ(0, r.sleepTime());
    r.step(0);
    EXPECT_EQ((std::vector<int>{0}), order);
    EXPECT_EQ(10, r.sleepTime());
    fakeNow += 9;
    r.step(0);
    EXPECT_EQ(1u, order.size());
    fakeNow += 1;
    r.step(0);
    EXPECT_EQ((std::vector<int>{0, 10, 11}), order);
    fakeNow += 100;
    r.step(0);
    EXPECT_EQ((std::vector<int>{0, 10, 11, 20, 30}), order);
    EXPECT_EQ(-1, r.sleepTime());
}

TEST_F(FakeClock, RemovalInsideACallbackIsSafe) {
    ThinRunner r;
    std::vector<std::string> log;
    timer_key second{&log, 2};
    timer_key self{&log, 3};
    r.addTimer(5, [&] {
        log.push_back("first");
        EXPECT_TRUE(r.removeTimer(second));  // due in this same round
    });
    r.addTimer(5, [&] { log.push_back("second"); }, second);
    r.addTimer(5, [&] {
        log.push_back("self");
        EXPECT_FALSE(r.removeTimer(self));  // already taken off before it runs
        EXPECT_FALSE(r.hasTimer(self));
    }, self);
    fakeNow += 5;
    r.step(0);
    EXPECT_EQ((std::vector<std::string>{"first", "self"}), log);
    EXPECT_FALSE(r.hasTimer(second));
}

TEST_F(FakeClock, KeyedTimersReplaceEachOther) {
    ThinRunner r;
    std::vector<std::string> log;
    Owner o{&log};
    timer_key k{&o, 1};
    r.addTimer(10, [&] { log.push_back("old"); }, k);
    r.addTimer(50, [&] { log.push_back("new"); }, k);
    EXPECT_TRUE(r.hasTimer(k));
    fakeNow += 20;
    r.step(0);
    EXPECT_TRUE(log.empty());
    fakeNow += 30;
    r.step(0);
    EXPECT_EQ((std::vector<std::string>{"new"}), log);
    EXPECT_FALSE(r.hasTimer(k));

    // Unkeyed timers never replace one another.
    r.addTimer(1, [&] { log.push_back("a"); });
    r.addTimer(1, [&] { log.push_back("a"); });
    fakeNow += 1;
    r.step(0);
    EXPECT_EQ(3u, log.size());
}

TEST_F(FakeClock, MemberTimersOnTheProcessRunner) {
    ThinRunner r;
    ThinRunner* saved = getRunner();
    setRunner(&r);
    std::vector<std::string> log;
    Owner a{&log}, b{&log};
    tn::addTimer(&a, &Owner::tick, 10);
    tn::addTimer(&a, &Owner::tock, 10);
    tn::addTimer(&b, &Owner::tick, 10);
    tn::addTimer(&a, &Owner::tick, 20);  // replaces a's first tick
    EXPECT_TRUE(r.removeTimer(&b, &Owner::tick));
    EXPECT_FALSE(r.removeTimer(&b, &Owner::tick));
    fakeNow += 10;
    r.step(0);
    EXPECT_EQ((std::vector<std::string>{"tock"}), log);
    fakeNow += 10;
    r.step(0);
    EXPECT_EQ((std::vector<std::string>{"tock", "tick"}), log);
    EXPECT_NE(member_tag(&Owner::tick), member_tag(&Owner::tock));
    setRunner(saved);
}

TEST_F(FakeClock, RearmingWithZeroDelayWaitsForTheNextRound) {
    ThinRunner r;
    int n = 0;
    std::function<void()> again = [&] {
        ++n;
        r.addTimer(0, again);
    };
    r.addTimer(0, again);
    r.step(0);
    EXPECT_EQ(1, n);
    r.step(0);
    EXPECT_EQ(2, n);
}

TEST(TnRunner, SocketCallbacksAndRemoval) {
    ThinRunner r;
    int a[2], b[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, a));
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, b));
    int calls = 0, otherCalls = 0;
    r.addSocket(a[0], [&](int fd, unsigned ev) {
        ++calls;
        EXPECT_EQ(a[0], fd);
        EXPECT_TRUE(ev & 1);
        char c;
        EXPECT_EQ(1, read(fd, &c, 1));
        // Removing itself and the other socket from inside the callback.
        r.removeSocket(a[0]);
        r.removeSocket(b[0]);
    });
    r.addSocket(b[0], [&](int, unsigned) { ++otherCalls; });
    ASSERT_EQ(1, write(a[1], "x", 1));
    ASSERT_EQ(1, write(b[1], "y", 1));
    r.step(100);
    r.step(0);
    EXPECT_EQ(1, calls);
    // Both were readable in one round; the second may have run before the
    // first removed it, but never after.
    int before = otherCalls;
    EXPECT_LE(before, 1);
    ASSERT_EQ(1, write(a[1], "x", 1));
    ASSERT_EQ(1, write(b[1], "y", 1));
    r.step(20);
    EXPECT_EQ(1, calls);
    EXPECT_EQ(before, otherCalls);
    EXPECT_FALSE(r.addSocket(-1, [](int, unsigned) {}));
    for (int fd : {a[0], a[1], b[0], b[1]}) close(fd);
}

TEST(TnRunner, RunStopsOnShutdownFromATimer) {
    ThinRunner r;
    int fired = 0;
    r.addTimer(5, [&] { ++fired; });
    r.addTimer(20, [&] { r.shutdown(); });
    r.addTimer(10000, [&] { ++fired; });
    EXPECT_EQ(0, r.run());
    EXPECT_EQ(1, fired);
    EXPECT_TRUE(r.stopped());
    EXPECT_FALSE(r.step(0));
    r.resetStop();
    EXPECT_TRUE(r.step(0));
}
