// Providers and the cache policy against scripted platform handlers on a
// real looper, with a test-driven tick clock.
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "mib/cache.h"
#include "mib/providers.h"
#include "tn/handler.h"
#include "tn/looper.h"
#include "tn/runner.h"

namespace {

// The provider leaves its records to the cache's expiry; a test's provider
// frees what it still holds when the test ends.
struct TestGetAll : GetAllProvider {
    ~TestGetAll() override {
        for (Data* d : records) delete d;
    }
};

const uint32_t kCmd = 0xff0007;
const uint32_t kPath = 0x88ff0001;
const uint32_t kObjects = 0xa8fe0002;
const uint32_t kCont = 0xfe0003;
const uint32_t kSelector = 0xfe000c;
const uint32_t kObjId = 0xfe0001;
const uint32_t kTotal = 0xfe0014;
const uint32_t kName = 0xfe0010;
const uint32_t kValue = 0xfe0030;

// The tick counter the cache reads (it may wrap) and a monotonic count of
// the same ticks for the runner's millisecond clock.
uint32_t gTicks = 0;
uint64_t gElapsed = 1000000;
uint32_t testTicks() { return gTicks; }
uint64_t testMs() { return gElapsed * cacheTicksToMs(1000) / 1000; }

// A platform handler that records every request and answers from a script.
class ScriptedHandler : public tn::Handler {
public:
    struct Seen {
        tn::message req;
        uint32_t tick;
    };
    std::vector<Seen> seen;
    std::deque<tn::message> replies;  // consumed in order; empty reply when exhausted

    tn::message handle(const tn::message& req) override {
        seen.push_back({req, gTicks});
        if (replies.empty()) return tn::message();
        tn::message r = replies.front();
        replies.pop_front();
        return r;
    }
    uint32_t cmd(size_t i) const { return seen.at(i).req.get(tn::u32_id(kCmd)); }
    tn::u32_vector path(size_t i) const { return seen.at(i).req.get(tn::u32_array_id(kPath)); }
};

// Records with a live count, so that leaks and double frees show.
int gLiveRecords = 0;
struct Rec : Data {
    std::string name;
    uint32_t value = 0;
    Rec() { ++gLiveRecords; }
    ~Rec() override { --gLiveRecords; }
    void reverseBuild(tn::message& m) override {
        m.insert(tn::string_id(kName), name);
        m.insert(tn::u32_id(kValue), value);
    }
};

Data* makeRec(tn::message const& m) {
    Rec* r = new Rec;
    r->name = m.get(tn::string_id(kName), "<none>");
    r->value = m.get(tn::u32_id(kValue));
    return r;
}

// Accepts only objects that carry a name.
Data* makeNamedRec(tn::message const& m) {
    if (!m.has(tn::string_id(kName))) return nullptr;
    return makeRec(m);
}

void collectRecs(tn::message const& m, std::vector<Data*>* out) { out->push_back(makeRec(m)); }

tn::message object(uint32_t id, std::string const& name) {
    tn::message o;
    o.insert(tn::u32_id(kObjId), id);
    o.insert(tn::string_id(kName), name);
    return o;
}

tn::message page(std::vector<tn::message> const& objs, bool more = false, uint32_t cont = 0) {
    tn::message r;
    r.insert(tn::message_array_id(kObjects), objs);
    if (more) r.insert(tn::u32_id(kCont), cont);
    return r;
}

class RecordingClient : public TableProviderClient {
public:
    std::vector<std::string> events;
    void clear() override { events.push_back("clear"); }
    void change(Data* d) override { events.push_back("change " + static_cast<Rec*>(d)->name); }
    void remove(Data* d) override { events.push_back("remove " + static_cast<Rec*>(d)->name); }
};

class ProviderTest : public ::testing::Test {
protected:
    tn::Looper looper;
    ScriptedHandler a, b;
    const tn::u32_vector pathA{20, 0};
    const tn::u32_vector pathB{31, 2, 7};

    void SetUp() override {
        gTicks = 1000;
        gLiveRecords = 0;
        cacheClock = testTicks;
        tn::ThinRunner::setClock(testMs);
        tn::setLooper(&looper);
        tn::setRunner(&looper);
        looper.addHandler(pathA, &a);
        looper.addHandler(pathB, &b);
    }
    void TearDown() override {
        tn::setRunner(nullptr);
        tn::setLooper(nullptr);
        tn::ThinRunner::setClock(nullptr);
        cacheClock = cacheClockTimes;
    }
    // Moves the clock tick by tick, firing the timers that fall due.
    void advance(uint32_t ticks) {
        for (uint32_t i = 0; i < ticks; ++i) {
            ++gTicks;
            ++gElapsed;
            looper.step(0);
        }
    }
};

// ---- GetProvider and the cache policy

TEST_F(ProviderTest, GetProviderSendsGetCommandAndBuildsFromReply) {
    tn::message reply;
    reply.insert(tn::string_id(kName), "router-1");
    reply.insert(tn::u32_id(kValue), 77u);
    a.replies.push_back(reply);
    GetProvider p(makeRec, pathA, 0xfe000d, 0xfe000e);

    Rec* r = static_cast<Rec*>(p.get());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->name, "router-1");
    EXPECT_EQ(r->value, 77u);
    ASSERT_EQ(a.seen.size(), 1u);
    EXPECT_EQ(a.cmd(0), 0xfe000du);
    EXPECT_EQ(a.path(0), pathA);
    EXPECT_TRUE(b.seen.empty());
}

TEST_F(ProviderTest, GetProviderErrorStillAnswersFromEmptyMessage) {
    a.replies.push_back(tn::errorMsg(tn::ERR_NO_OBJECT, "no such thing"));
    GetProvider p(makeRec, pathA, 0xfe000d, 0xfe000e);

    testing::internal::CaptureStderr();
    Rec* r = static_cast<Rec*>(p.get());
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "GetProvider::getData error: no such thing\n");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->name, "<none>");  // what the factory makes of an empty message
    EXPECT_EQ(r->value, 0u);
}

TEST_F(ProviderTest, GetProviderSetRendersRecordAndKeepsCache) {
    GetProvider p(makeRec, pathA, 0xfe000d, 0xfe000e);
    ASSERT_NE(p.get(), nullptr);
    Rec change;
    change.name = "core-2";
    change.value = 9;
    a.replies.push_back(tn::message());  // accepted
    EXPECT_EQ(p.set(&change), 1u);
    a.replies.push_back(tn::errorMsg(tn::ERR_REFUSED, "bad value"));
    EXPECT_EQ(p.set(&change), 0u);

    ASSERT_EQ(a.seen.size(), 3u);
    for (size_t i : {1u, 2u}) {
        EXPECT_EQ(a.cmd(i), 0xfe000eu);
        EXPECT_EQ(a.path(i), pathA);
        EXPECT_EQ(a.seen[i].req.get(tn::string_id(kName)), "core-2");
        EXPECT_EQ(a.seen[i].req.get(tn::u32_id(kValue)), 9u);
    }
    // A set does not drop the cached record: no new fetch.
    p.get();
    EXPECT_EQ(a.seen.size(), 3u);
}

TEST_F(ProviderTest, CacheServesTwoReadsTenTicksApartWithOneFetch) {
    GetProvider p(makeRec, pathA, 0xfe000d, 0xfe000e);
    Data* first = p.get();
    advance(10);
    EXPECT_EQ(p.get(), first);
    EXPECT_EQ(a.seen.size(), 1u);
    EXPECT_EQ(gLiveRecords, 1);
}

TEST_F(ProviderTest, CacheDropsIdleDataAndRefetches) {
    GetProvider p(makeRec, pathA, 0xfe000d, 0xfe000e);
    p.get();
    advance(24);
    EXPECT_EQ(gLiveRecords, 1);  // still held before accessTimeout
    advance(6);
    EXPECT_EQ(gLiveRecords, 0);  // the idle cache emptied itself at tick 25
    p.get();
    ASSERT_EQ(a.seen.size(), 2u);
    EXPECT_EQ(a.seen[1].tick, 1030u);
}

TEST_F(ProviderTest, CacheRefetchesAtMaxAgeUnderSteadyReads) {
    GetProvider p(makeRec, pathA, 0xfe000d, 0xfe000e);
    for (int t = 0; t <= 450; t += 10) {
        p.get();
        advance(10);
    }
    std::vector<uint32_t> ticks;
    for (auto const& s : a.seen) ticks.push_back(s.tick);
    EXPECT_EQ(ticks, (std::vector<uint32_t>{1000, 1200, 1400}));
}

TEST_F(ProviderTest, CachePolicyIsSafeAcrossTickWrapAround) {
    gTicks = 0xFFFFFFF8u;
    GetProvider p(makeRec, pathA, 0xfe000d, 0xfe000e);
    for (int i = 0; i < 5; ++i) {
        p.get();
        advance(10);
    }
    EXPECT_EQ(a.seen.size(), 1u);
    advance(40);
    EXPECT_EQ(gLiveRecords, 0);
}

TEST_F(ProviderTest, SetTimeoutsChangesBothLimits) {
    GetProvider p(makeRec, pathA, 0xfe000d, 0xfe000e);
    p.setTimeouts(5, 1000);
    p.get();
    advance(10);
    p.get();
    EXPECT_EQ(a.seen.size(), 2u);  // 10 idle ticks exceed an access time-out of 5

    GetProvider q(makeRec, pathB, 0xfe000d, 0xfe000e);
    q.setTimeouts(25, 30);
    for (int i = 0; i < 7; ++i) {
        q.get();
        advance(10);
    }
    // Steady reads, but the data is dropped at the first check past 30 ticks.
    ASSERT_EQ(b.seen.size(), 2u);
    EXPECT_EQ(b.seen[1].tick - b.seen[0].tick, 50u);
}

TEST_F(ProviderTest, InvalidateDataDropsAtOnceAndCancelsTimer) {
    GetProvider p(makeRec, pathA, 0xfe000d, 0xfe000e);
    p.get();
    CacheUpdateTimeout* cache = &p;
    tn::timer_key key{cache, tn::member_tag(&CacheUpdateTimeout::invalidateDataTimer)};
    EXPECT_TRUE(looper.hasTimer(key));
    p.invalidateData();
    EXPECT_FALSE(looper.hasTimer(key));
    EXPECT_EQ(gLiveRecords, 0);
    p.get();
    EXPECT_EQ(a.seen.size(), 2u);
    EXPECT_TRUE(looper.hasTimer(key));
}

TEST_F(ProviderTest, FetchYieldingNoRecordIsCachedAsAbsent) {
    // The reply has no name, so the named-only factory refuses it.
    GetProvider p(makeNamedRec, pathA, 0xfe000d, 0xfe000e);
    EXPECT_EQ(p.get(), nullptr);
    advance(5);
    EXPECT_EQ(p.get(), nullptr);
    EXPECT_EQ(a.seen.size(), 1u);
}

// ---- GetFirstProvider

TEST_F(ProviderTest, GetFirstProviderFollowsContinuationUntilAccepted) {
    tn::message unnamed;
    unnamed.insert(tn::u32_id(kObjId), 3u);
    a.replies.push_back(page({unnamed}, true, 17));
    a.replies.push_back(page({unnamed, object(8, "wan"), object(9, "lan")}, true, 18));
    a.replies.push_back(page({object(10, "never")}));
    GetFirstProvider p(makeNamedRec, pathA);

    Rec* r = static_cast<Rec*>(p.get());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->name, "wan");
    EXPECT_EQ(p.getFirstObjId(), 8u);
    ASSERT_EQ(a.seen.size(), 2u);  // stopped at the accepted object
    EXPECT_EQ(a.cmd(0), 0xfe0004u);
    EXPECT_FALSE(a.seen[0].req.has(tn::u32_id(kCont)));
    EXPECT_FALSE(a.seen[0].req.has(tn::u32_id(kSelector)));
    EXPECT_EQ(a.seen[1].req.get(tn::u32_id(kCont)), 17u);
    EXPECT_EQ(a.path(1), pathA);
    EXPECT_EQ(p.set(r), 0u);
    EXPECT_EQ(a.seen.size(), 2u);
}

TEST_F(ProviderTest, GetFirstProviderRejectingEverythingYieldsNoObject) {
    tn::message unnamed;
    a.replies.push_back(page({unnamed, unnamed}, true, 1));
    a.replies.push_back(page({unnamed}, true, 2));
    a.replies.push_back(page({unnamed}));
    GetFirstProvider p(makeNamedRec, pathA);
    EXPECT_EQ(p.get(), nullptr);
    EXPECT_EQ(p.getFirstObjId(), 0xFFFFFFFFu);
    EXPECT_EQ(a.seen.size(), 3u);
}

TEST_F(ProviderTest, GetFirstProviderErrorYieldsNullAndForgetsOldId) {
    a.replies.push_back(page({object(4, "x")}));
    GetFirstProvider p(makeNamedRec, pathA);
    EXPECT_EQ(p.getFirstObjId(), 4u);
    p.invalidateData();
    a.replies.push_back(tn::errorMsg(tn::ERR_NO_OBJECT, "gone"));
    EXPECT_EQ(p.get(), nullptr);
    EXPECT_EQ(p.getFirstObjId(), 0xFFFFFFFFu);
}

TEST_F(ProviderTest, GetFirstProviderObjectWithoutIdGivesNone) {
    tn::message o;
    o.insert(tn::string_id(kName), "anon");
    a.replies.push_back(page({o}));
    GetFirstProvider p(makeNamedRec, pathA);
    EXPECT_NE(p.get(), nullptr);
    EXPECT_EQ(p.getFirstObjId(), 0xFFFFFFFFu);
}

// ---- GetAllProvider

TEST_F(ProviderTest, GetAllProviderListingOverThreeReplies) {
    a.replies.push_back(page({object(1, "r1"), object(2, "r2")}, true, 17));
    a.replies.push_back(page({object(3, "r3")}, true, 42));
    a.replies.push_back(page({object(4, "r4")}));
    TestGetAll p;
    p.addSource(collectRecs, pathA);
    RecordingClient c;
    p.subscribe(&c);

    p.updateTables();
    ASSERT_EQ(a.seen.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(a.cmd(i), 0xfe0004u);
        EXPECT_EQ(a.path(i), pathA);
        EXPECT_EQ(a.seen[i].req.get(tn::u32_id(kSelector), 0), 5u);
    }
    EXPECT_FALSE(a.seen[0].req.has(tn::u32_id(kCont)));
    EXPECT_EQ(a.seen[1].req.get(tn::u32_id(kCont)), 17u);
    EXPECT_EQ(a.seen[2].req.get(tn::u32_id(kCont)), 42u);
    EXPECT_EQ(c.events, (std::vector<std::string>{"change r1", "change r2", "change r3", "change r4"}));
    EXPECT_EQ(gLiveRecords, 4);

    // Cached: a second update within the time-out lists nothing.
    advance(10);
    p.updateTables();
    EXPECT_EQ(a.seen.size(), 3u);
    // Idle: the clients are cleared and the records freed.
    advance(40);
    EXPECT_EQ(c.events.back(), "clear");
    EXPECT_EQ(gLiveRecords, 0);
}

TEST_F(ProviderTest, GetAllProviderContinuationZeroIsStillSent) {
    // "More follow" is told by the field's presence, not by its value.
    a.replies.push_back(page({object(1, "r1")}, true, 0));
    a.replies.push_back(page({object(2, "r2")}));
    TestGetAll p;
    p.addSource(collectRecs, pathA);
    p.updateTables();
    ASSERT_EQ(a.seen.size(), 2u);
    ASSERT_TRUE(a.seen[1].req.has(tn::u32_id(kCont)));
    EXPECT_EQ(a.seen[1].req.get(tn::u32_id(kCont), 99), 0u);
}

TEST_F(ProviderTest, GetAllProviderErrorMidListingKeepsEarlierRowsAndNextSource) {
    a.replies.push_back(page({object(1, "a1"), object(2, "a2")}, true, 5));
    a.replies.push_back(tn::errorMsg(tn::ERR_UNKNOWN_START, "stale continuation"));
    a.replies.push_back(page({object(3, "never")}));
    b.replies.push_back(page({object(7, "b7")}));
    TestGetAll p;
    p.addSource(collectRecs, pathA);
    p.addSource(collectRecs, pathB, 0x21);
    RecordingClient c;
    p.subscribe(&c);

    p.updateTables();
    EXPECT_EQ(a.seen.size(), 2u);  // the error ended the first listing
    ASSERT_EQ(b.seen.size(), 1u);
    EXPECT_EQ(b.seen[0].req.get(tn::u32_id(kSelector)), 0x21u);
    // After each source every record so far is announced again.
    EXPECT_EQ(c.events, (std::vector<std::string>{"change a1", "change a2", "change a1", "change a2", "change b7"}));
}

TEST_F(ProviderTest, GetAllProviderFeedsEveryClientAndCollectMayAddMany) {
    tn::message o = object(1, "pair");
    a.replies.push_back(page({o}));
    TestGetAll p;
    p.addSource(
        [](tn::message const& m, std::vector<Data*>* out) {
            collectRecs(m, out);
            collectRecs(m, out);
        },
        pathA);
    RecordingClient c1, c2;
    p.subscribe(&c1);
    p.subscribe(&c2);
    p.updateTables();
    EXPECT_EQ(c1.events, (std::vector<std::string>{"change pair", "change pair"}));
    EXPECT_EQ(c2.events, c1.events);
    p.invalidateData();
    EXPECT_EQ(c1.events.back(), "clear");
    EXPECT_EQ(c2.events.back(), "clear");
    EXPECT_EQ(gLiveRecords, 0);
}

TEST_F(ProviderTest, GetAllProviderSetGoesToEverySource) {
    TestGetAll p;
    p.addSource(collectRecs, pathA);
    p.addSource(collectRecs, pathB);
    Rec r;
    r.name = "eth3";
    r.value = 1500;

    a.replies.push_back(tn::errorMsg(tn::ERR_NO_OBJECT, "not mine"));
    b.replies.push_back(tn::message());
    testing::internal::CaptureStderr();
    EXPECT_EQ(p.setData(&r), 1u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "not mine\n");
    ASSERT_EQ(a.seen.size(), 1u);
    ASSERT_EQ(b.seen.size(), 1u);
    for (ScriptedHandler* h : {&a, &b}) {
        EXPECT_EQ(h->cmd(0), 0xfe0003u);
        EXPECT_EQ(h->seen[0].req.get(tn::string_id(kName)), "eth3");
        EXPECT_EQ(h->seen[0].req.get(tn::u32_id(kValue)), 1500u);
    }
    EXPECT_EQ(b.path(0), pathB);

    a.replies.push_back(tn::errorMsg(tn::ERR_REFUSED, "refused a"));
    b.replies.push_back(tn::errorMsg(tn::ERR_REFUSED, "refused b"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(p.setData(&r), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "refused a\nrefused b\n");
}

TEST_F(ProviderTest, GetAllProviderCountByCommand) {
    TestGetAll p;
    p.addSource(collectRecs, pathA);
    p.addSource(collectRecs, pathB);
    tn::message three, four;
    three.insert(tn::u32_id(kTotal), 3u);
    four.insert(tn::u32_id(kTotal), 4u);

    a.replies.push_back(three);
    b.replies.push_back(four);
    unsigned int n = 99;
    EXPECT_TRUE(p.getCountCMD(n));
    EXPECT_EQ(n, 7u);
    EXPECT_EQ(a.cmd(0), 0xfe0015u);
    EXPECT_EQ(b.cmd(0), 0xfe0015u);
    EXPECT_EQ(b.path(0), pathB);

    a.replies.push_back(three);
    b.replies.push_back(tn::errorMsg(tn::ERR_NO_OBJECT, "cannot count"));
    EXPECT_FALSE(p.getCountCMD(n));

    a.replies.push_back(three);
    b.replies.push_back(tn::message());  // answered, but without a total
    EXPECT_FALSE(p.getCountCMD(n));
    // Counting never lists.
    for (auto const& s : a.seen) EXPECT_EQ(s.req.get(tn::u32_id(kCmd)), 0xfe0015u);
}

TEST_F(ProviderTest, UnroutedPathCountsAsBusError) {
    TestGetAll p;
    p.addSource(collectRecs, {99, 99});
    unsigned int n = 0;
    EXPECT_FALSE(p.getCountCMD(n));
    p.updateTables();
    EXPECT_EQ(gLiveRecords, 0);
}

// ---- CountProvider, ProxyDataProvider

class FixedTable : public Table {
public:
    unsigned int rows = 0;
    int counted = 0;
    Data* get(OID const&) override { return nullptr; }
    std::pair<OID, Data*> getNext(OID const&) override { return {OID(), nullptr}; }
    unsigned int set(OID const&, Data*) override { return 0; }
    unsigned int count() override {
        ++counted;
        return rows;
    }
};

TEST(CountProviderTest, CountsOnEveryReadAndRefusesSets) {
    FixedTable t;
    CountProvider p(&t);
    t.rows = 0;
    Data* d = p.get();
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(static_cast<CountProvider::CountData*>(d)->count, 0);
    t.rows = 12;
    EXPECT_EQ(static_cast<CountProvider::CountData*>(p.get())->count, 12);
    EXPECT_EQ(t.counted, 2);
    EXPECT_EQ(p.set(d), 0u);
}

Rec gStaticRec;
int gProxyCalls = 0;
Data* proxied() {
    ++gProxyCalls;
    return &gStaticRec;
}

TEST(ProxyDataProviderTest, CallsFunctionOnEveryRead) {
    ProxyDataProvider p(proxied);
    gProxyCalls = 0;
    EXPECT_EQ(p.get(), &gStaticRec);
    EXPECT_EQ(p.get(), &gStaticRec);
    EXPECT_EQ(gProxyCalls, 2);
    EXPECT_EQ(p.set(&gStaticRec), 0u);
}

}  // namespace
