// The built-in modules' factories, sources and reverse-build steps, on
// constructed bus messages and on small fixture backends.
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>

#include <gtest/gtest.h>

#include "agent/traps.h"
#include "mib/leaf.h"
#include "mib/providers.h"
#include "modules/bridge.h"
#include "modules/host_resources.h"
#include "modules/interfaces.h"
#include "modules/ip.h"
#include "modules/module_util.h"
#include "modules/system.h"
#include "platform/fixture_backend.h"
#include "tn/looper.h"

namespace {

typedef std::vector<std::unique_ptr<Data>> Rows;

template <class Source>
Rows collect(Source source, tn::message const& msg) {
    std::vector<Data*> raw;
    source(msg, &raw);
    Rows rows;
    for (Data* d : raw) rows.emplace_back(d);
    return rows;
}

template <class T>
T* row(Rows const& rows, size_t i) {
    return dynamic_cast<T*>(rows.at(i).get());
}

std::vector<unsigned char> bytes(std::initializer_list<int> b) {
    std::vector<unsigned char> v;
    for (int x : b) v.push_back(static_cast<unsigned char>(x));
    return v;
}

// A looper with a fixture backend, made the process's looper for the test.
class BusTest : public ::testing::Test {
protected:
    void load(const char* json) {
        tn::setLooper(&looper);
        std::string err;
        ASSERT_TRUE(backend.loadText(looper, json, &err)) << err;
    }
    void TearDown() override { tn::setLooper(nullptr); }

    std::vector<tn::message> recordedTo(tn::u32_vector const& path) const {
        std::vector<tn::message> out;
        for (tn::message const& m : backend.recorded())
            if (m.get(tn::u32_array_id(0x88ff0001)) == path) out.push_back(m);
        return out;
    }

    tn::Looper looper;
    FixtureBackend backend;
};

class UtcZone : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tz = getenv("TZ");
        hadTz = tz != nullptr;
        if (hadTz) oldTz = tz;
        setenv("TZ", "UTC", 1);
        tzset();
    }
    void TearDown() override {
        if (hadTz)
            setenv("TZ", oldTz.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    bool hadTz = false;
    std::string oldTz;
};

// ---------------------------------------------------------------- interfaces

tn::message interfaceOfKind(unsigned int kind) {
    tn::message m;
    m.insert(tn::u32_id(0xfe0001), 3u);
    m.insert(tn::u32_id(0x10001), kind);
    return m;
}

TEST(InterfaceRecord, TypeAndSpeedFollowTheKind) {
    struct Case {
        unsigned int kind;
        int type;
        unsigned int speed;
    } cases[] = {
        {2, 188, 2000000},   {5, 71, 11000000},   {13, 71, 11000000},  {24, 71, 11000000},  {35, 71, 11000000},
        {6, 188, 10000000},  {7, 118, 64000},     {8, 118, 64000},     {23, 118, 64000},    {28, 118, 64000},
        {10, 23, 10000000},  {11, 23, 10000000},  {16, 23, 10000000},  {18, 23, 10000000},  {33, 23, 10000000},
        {34, 23, 10000000},  {12, 209, 100000000}, {15, 63, 64000},    {22, 63, 64000},     {17, 131, 10000000},
        {19, 23, 57600},     {20, 23, 57600},     {21, 131, 128000},   {27, 32, 64000},     {0, 1, 10000000},
        {3, 1, 10000000},    {4, 1, 10000000},    {9, 1, 10000000},    {14, 1, 10000000},   {25, 1, 10000000},
        {26, 1, 10000000},   {29, 1, 10000000},   {31, 1, 10000000},   {32, 1, 10000000},   {36, 1, 10000000},
        {0xFFFFFFFF, 1, 10000000},
    };
    for (Case const& c : cases) {
        Rows rows = collect(addInterface, interfaceOfKind(c.kind));
        ASSERT_EQ(rows.size(), 1u);
        Interface* i = row<Interface>(rows, 0);
        EXPECT_EQ(i->type, c.type) << "kind " << c.kind;
        EXPECT_EQ(i->speed, c.speed) << "kind " << c.kind;
    }
}

TEST(InterfaceRecord, EthernetSpeedComesFromTheSpeedCode) {
    tn::message m = interfaceOfKind(1);
    EXPECT_EQ(row<Interface>(collect(addInterface, m), 0)->speed, 10000000u);  // no code: index 0
    for (auto codeSpeed : std::vector<std::pair<unsigned, unsigned>>{{0, 10000000}, {1, 100000000},
                                                                    {2, 1000000000}, {3, 0}, {5, 0}}) {
        m.insert(tn::u32_id(0x3f2), codeSpeed.first);
        Rows rows = collect(addInterface, m);
        EXPECT_EQ(row<Interface>(rows, 0)->type, 6);
        EXPECT_EQ(row<Interface>(rows, 0)->speed, codeSpeed.second) << "code " << codeSpeed.first;
    }
}

TEST(InterfaceRecord, FieldsStatusesAndReverseBuild) {
    tn::message m = interfaceOfKind(1);
    m.insert(tn::u32_id(0xfe0001), 0x80000001u);
    m.insert(tn::u32_id(0x10064), 1492u);
    m.insert(tn::string_id(0x10006), "ether7");
    m.insert(tn::bool_id(0xfe000a), true);   // disabled
    m.insert(tn::bool_id(0x1000e), true);    // running
    m.insert(tn::raw_id(0x300003e9), bytes({2, 0x11, 0x22, 0x33, 0x44, 0x55}));
    Rows rows = collect(addInterface, m);
    Interface* i = row<Interface>(rows, 0);
    EXPECT_EQ(i->index, 0x80000001u);
    EXPECT_EQ(i->mtu, 1492u);
    EXPECT_EQ(i->name, "ether7");
    EXPECT_EQ(i->adminStatus, 2);
    EXPECT_EQ(i->operStatus, 1);
    EXPECT_EQ(i->physAddress, bytes({2, 0x11, 0x22, 0x33, 0x44, 0x55}));

    tn::message set;
    i->reverseBuild(set);
    EXPECT_EQ(set.keys(), std::vector<uint32_t>{tn::u32_id(0xfe0001).key});
    EXPECT_EQ(set.get(tn::u32_id(0xfe0001)), 0x80000001u);

    Rows plain = collect(addInterface, interfaceOfKind(3));
    EXPECT_EQ(row<Interface>(plain, 0)->adminStatus, 1);
    EXPECT_EQ(row<Interface>(plain, 0)->operStatus, 2);
    EXPECT_TRUE(row<Interface>(plain, 0)->physAddress.empty());
    EXPECT_EQ(row<Interface>(plain, 0)->name, "");
}

class VlanTest : public BusTest {};

TEST_F(VlanTest, SpeedIsTheParentsEthernetSpeed) {
    load(R"({"paths": {"20.0": {"list": [
        {"u32:0xfe0001": 1, "u32:0x10001": 1, "u32:0x3f2": 2},
        {"u32:0xfe0001": 2, "u32:0x10001": 1, "u32:0x3f2": 4},
        {"u32:0xfe0001": 3, "u32:0x10001": 1}]}}})");
    tn::message vlan = interfaceOfKind(30);
    auto speedWithParent = [&](unsigned int parent) {
        vlan.insert(tn::u32_id(0x7d2), parent);
        Rows rows = collect(addInterface, vlan);
        EXPECT_EQ(row<Interface>(rows, 0)->type, 135);
        return row<Interface>(rows, 0)->speed;
    };
    EXPECT_EQ(speedWithParent(1), 1000000000u);
    EXPECT_EQ(speedWithParent(2), 0u);          // code beyond the table
    EXPECT_EQ(speedWithParent(3), 10000000u);   // parent without a code
    EXPECT_EQ(speedWithParent(99), 10000000u);  // no such parent: error reply
}

TEST(InterfaceRecord, VlanWithoutBusFallsBackToTenMegabit) {
    tn::setLooper(nullptr);
    tn::message vlan = interfaceOfKind(30);
    vlan.insert(tn::u32_id(0x7d2), 1u);
    EXPECT_EQ(row<Interface>(collect(addInterface, vlan), 0)->speed, 10000000u);
}

class CounterTest : public BusTest {};

TEST_F(CounterTest, OneFetchPerInterfaceFillsBothWidths) {
    load(R"({"paths": {"20.0": {"list": [
        {"u32:0xfe0001": 1, "u32:0x10001": 1}, {"u32:0xfe0001": 2, "u32:0x10001": 1}],
        "counters": {"1": {"u64:0x100100fc": 4294967301, "u64:0x100100fd": 7, "u64:0x100100fe": 8589934593,
                           "u64:0x100100ff": 9, "u32:0x100fa": 1, "u32:0x100fb": 2, "u32:0x100f8": 3,
                           "u32:0x100f9": 4}}}}})");
    Interface one, two, ghost;
    one.index = 1;
    two.index = 2;
    ghost.index = 7;
    InterfaceCounterTable view(nullptr);
    InterfaceCounters* c = static_cast<InterfaceCounters*>(view.augment(OID("1"), &one));
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->hcInOctets, 4294967301ull);
    EXPECT_EQ(c->inOctets, 5u);
    EXPECT_EQ(c->hcOutOctets, 7ull);
    EXPECT_EQ(c->outOctets, 7u);
    EXPECT_EQ(c->hcInUcastPkts, 8589934593ull);
    EXPECT_EQ(c->inUcastPkts, 1u);
    EXPECT_EQ(c->hcOutUcastPkts, 9ull);
    EXPECT_EQ(c->outUcastPkts, 9u);
    EXPECT_EQ(c->inErrors, 1u);
    EXPECT_EQ(c->outErrors, 2u);
    EXPECT_EQ(c->inDiscards, 3u);
    EXPECT_EQ(c->outDiscards, 4u);
    // The same row is served again without another fetch.
    EXPECT_EQ(view.augment(OID("1"), &one), c);

    // No counters for 2, no object 7: zeroed rows that stay.
    InterfaceCounters* z = view.counterRow(2);
    EXPECT_EQ(z->hcInOctets, 0ull);
    InterfaceCounters* g = view.counterRow(7);
    EXPECT_EQ(g->inErrors, 0u);
    EXPECT_EQ(view.rowCount(), 3u);
    view.clearCache();
    EXPECT_EQ(view.rowCount(), 0u);
}

class LinkStateTest : public BusTest {};

TEST_F(LinkStateTest, SnapshotFollowsContinuationsAndSkipsFlaggedObjects) {
    load(R"({"paths": {"20.0": {"page": 2, "list": [
        {"u32:0xfe0001": 101, "u32:0x10002": 0, "u32:0x10003": 4294967295},
        {"u32:0xfe0001": 102, "u32:0x10002": 128, "u32:0x10003": 1280},
        {"u32:0xfe0001": 103, "u32:0x10002": 1, "u32:0x10003": 1024},
        {"u32:0xfe0001": 104, "u32:0x10002": 0},
        {"u32:0xfe0001": 105, "u32:0x10002": 0, "u32:0x10003": 256}]}}})");
    linkStates.clear();
    linkStates[105] = 0x400;  // known already: kept
    takeLinkSnapshot();
    EXPECT_EQ(linkStates.size(), 3u);
    EXPECT_EQ(linkStates.at(101), 0x10103u);
    EXPECT_EQ(linkStates.count(102), 0u);
    EXPECT_EQ(linkStates.at(103), 0x0u);
    EXPECT_EQ(linkStates.count(104), 0u);
    EXPECT_EQ(linkStates.at(105), 0x400u);
    linkStates.clear();
}

TEST_F(LinkStateTest, SubscriptionEntryAddsAndRemovesTheLinkMaker) {
    load(R"({"paths": {"20.0": {"list": []}}})");
    std::vector<TrapMaker> saved = trapMakers;
    trapMakers.clear();
    trapMakers.push_back(kestrelTrapMaker);
    subscribeInterfaces();
    ASSERT_EQ(trapMakers.size(), 2u);
    EXPECT_EQ(trapMakers[1], &linkTrapMaker);
    EXPECT_EQ(looper.subscriberCount({20, 0}, 0x10004), 1u);
    subscribeInterfaces();  // re-selection appends a second
    unsubscribeInterfaces();
    EXPECT_EQ(std::count(trapMakers.begin(), trapMakers.end(), &linkTrapMaker), 1);
    unsubscribeInterfaces();
    EXPECT_EQ(trapMakers, std::vector<TrapMaker>{kestrelTrapMaker});
    EXPECT_EQ(looper.subscriberCount({20, 0}, 0x10004), 0u);
    trapMakers = saved;
}

// ---------------------------------------------------------------- IP group

TEST(IpRecords, AddressesSkipInvalidAndDisabledObjects) {
    tn::message m;
    m.insert(tn::be32_id(0x1), 0xC0A85801u);
    m.insert(tn::be32_id(0x3), 0xFFFFFF00u);
    m.insert(tn::u32_id(0x5), 4u);
    Rows rows = collect(addIpAddress, m);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(row<AddressEntry>(rows, 0)->address, 0xC0A85801u);
    EXPECT_EQ(row<AddressEntry>(rows, 0)->netmask, 0xFFFFFF00u);
    EXPECT_EQ(row<AddressEntry>(rows, 0)->ifIndex, 4u);

    tn::message invalid = m;
    invalid.insert(tn::bool_id(0xfe0008), true);
    EXPECT_TRUE(collect(addIpAddress, invalid).empty());
    tn::message disabled = m;
    disabled.insert(tn::bool_id(0xfe000a), true);
    EXPECT_TRUE(collect(addIpAddress, disabled).empty());
    disabled.insert(tn::bool_id(0xfe000a), false);
    EXPECT_EQ(collect(addIpAddress, disabled).size(), 1u);
}

TEST(IpRecords, ArpTypes) {
    tn::message m;
    m.insert(tn::u32_id(0x3), 5u);
    m.insert(tn::be32_id(0x1), 0x0A000001u);
    m.insert(tn::raw_id(0x30000002), bytes({2, 0xaa, 0xbb, 0xcc, 0, 1}));
    Rows rows = collect(addNetToMedia, m);
    NetToMedia* e = row<NetToMedia>(rows, 0);
    EXPECT_EQ(e->type, 4);
    EXPECT_EQ(e->ifIndex, 5u);
    EXPECT_EQ(e->address, 0x0A000001u);
    EXPECT_EQ(e->physAddress, bytes({2, 0xaa, 0xbb, 0xcc, 0, 1}));
    m.insert(tn::bool_id(0xfe0007), true);
    EXPECT_EQ(row<NetToMedia>(collect(addNetToMedia, m), 0)->type, 3);
    m.insert(tn::bool_id(0xfe0008), true);  // invalid wins over dynamic, and is still listed
    EXPECT_EQ(row<NetToMedia>(collect(addNetToMedia, m), 0)->type, 2);
}

tn::message route(unsigned int kind, tn::u32_vector hops, tn::u32_vector ifIndexes) {
    tn::message m;
    m.insert(tn::be32_id(0x1), 0x0A140000u);
    m.insert(tn::be32_id(0x2), 0xFFFF0000u);
    m.insert(tn::u32_id(0x8), 20u);
    m.insert(tn::u32_id(0x7), kind);
    if (!hops.empty()) m.insert(tn::be32_array_id(0x88000004), hops);
    if (!ifIndexes.empty()) m.insert(tn::u32_array_id(0x88000005), ifIndexes);
    return m;
}

TEST(IpRecords, RouteKindTables) {
    // kind: routeType, routeProto, cidrType, cidrProto
    std::map<unsigned, std::array<int, 4>> expected = {
        {2, {3, 1, 3, 2}},  {3, {4, 2, 4, 3}},   {4, {4, 8, 4, 8}}, {5, {4, 1, 1, 1}}, {6, {4, 13, 4, 13}},
        {7, {4, 1, 1, 1}},  {8, {4, 14, 4, 14}}, {30, {4, 2, 4, 3}}, {31, {4, 1, 3, 2}},
        {0, {4, 1, 1, 1}},  {1, {4, 1, 1, 1}},   {32, {4, 1, 1, 1}}, {40, {4, 1, 1, 1}},
    };
    for (unsigned k = 9; k <= 29; ++k) expected[k] = {4, 1, 1, 1};
    for (auto const& e : expected) {
        Rows rows = collect(addRoutes, route(e.first, {0x0A000001u}, {7}));
        ASSERT_EQ(rows.size(), 1u) << "kind " << e.first;
        Route* r = row<Route>(rows, 0);
        EXPECT_EQ((std::array<int, 4>{r->routeType, r->routeProto, r->cidrType, r->cidrProto}), e.second)
            << "kind " << e.first;
    }
}

TEST(IpRecords, OneRowPerActiveNextHop) {
    tn::message m = route(3, {0x0A000001u, 0x0A000009u, 0x0A00000Du}, {7, 8, 9});
    Rows all = collect(addRoutes, m);
    ASSERT_EQ(all.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(row<Route>(all, i)->dest, 0x0A140000u);
        EXPECT_EQ(row<Route>(all, i)->mask, 0xFFFF0000u);
        EXPECT_EQ(row<Route>(all, i)->metric, 20u);
    }
    EXPECT_EQ(row<Route>(all, 1)->nextHop, 0x0A000009u);
    EXPECT_EQ(row<Route>(all, 1)->ifIndex, 8u);

    m.insert(tn::u32_array_id(0x88000006), tn::u32_vector{1, 0, 5});
    Rows active = collect(addRoutes, m);
    ASSERT_EQ(active.size(), 2u);
    EXPECT_EQ(row<Route>(active, 0)->nextHop, 0x0A000001u);
    EXPECT_EQ(row<Route>(active, 0)->ifIndex, 7u);
    EXPECT_EQ(row<Route>(active, 1)->nextHop, 0x0A00000Du);
    EXPECT_EQ(row<Route>(active, 1)->ifIndex, 9u);

    // Without the interface array the route publishes nothing.
    EXPECT_TRUE(collect(addRoutes, route(3, {0x0A000001u}, {})).empty());
    tn::message disabled = route(3, {0x0A000001u}, {7});
    disabled.insert(tn::bool_id(0xfe000a), true);
    EXPECT_TRUE(collect(addRoutes, disabled).empty());
}

TEST(IpRecords, ConnectedRouteUsesTheGatewayField) {
    tn::message m = route(2, {}, {5, 6});
    m.insert(tn::be32_id(0x3), 0xC0A85801u);
    Rows rows = collect(addRoutes, m);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(row<Route>(rows, 0)->nextHop, 0xC0A85801u);
    EXPECT_EQ(row<Route>(rows, 0)->ifIndex, 5u);
    EXPECT_EQ(row<Route>(rows, 0)->routeType, 3);

    Rows bare = collect(addRoutes, route(2, {}, {}));
    ASSERT_EQ(bare.size(), 1u);
    EXPECT_EQ(row<Route>(bare, 0)->ifIndex, 0u);
    EXPECT_EQ(row<Route>(bare, 0)->nextHop, 0u);
    // Another kind without hops has nothing to publish.
    EXPECT_TRUE(collect(addRoutes, route(3, {}, {5})).empty());
}

TEST(IpRecords, TrafficEntries) {
    tn::message m;
    m.insert(tn::u32_id(0xfe0001), 11u);
    m.insert(tn::string_id(0x2), "office");
    m.insert(tn::be32_array_id(0x88000069), tn::u32_vector{0xC0A85800u, 0xC0A858FFu});
    m.insert(tn::be32_id(0x65), 0x0A000001u);
    m.insert(tn::be32_id(0x67), 0x0A000002u);
    m.insert(tn::u32_id(0x68), 3u);
    m.insert(tn::u64_id(0x1000012c), 8589934592ull);
    m.insert(tn::u64_id(0x100000c8), 4096ull);
    m.insert(tn::u32_id(0x12d), 12u);
    m.insert(tn::u32_id(0xc9), 34u);
    Rows rows = collect(addTrafficEntry, m);
    TrafficEntry* t = row<TrafficEntry>(rows, 0);
    EXPECT_EQ(t->id, 11u);
    EXPECT_EQ(t->name, "office");
    EXPECT_EQ(t->address1, 0xC0A85800u);
    EXPECT_EQ(t->address2, 0xC0A858FFu);
    EXPECT_EQ(t->address3, 0x0A000001u);
    EXPECT_EQ(t->address4, 0x0A000002u);
    EXPECT_EQ(t->number, 3u);
    EXPECT_EQ(t->bytes, 8589934592ull);
    EXPECT_EQ(t->bytes2, 4096ull);
    EXPECT_EQ(t->count1, 12u);
    EXPECT_EQ(t->count2, 34u);

    tn::message single;
    single.insert(tn::be32_array_id(0x88000069), tn::u32_vector{0xAC100001u});
    Rows one = collect(addTrafficEntry, single);
    EXPECT_EQ(row<TrafficEntry>(one, 0)->address1, 0u);
    EXPECT_EQ(row<TrafficEntry>(one, 0)->address2, 0u);

    tn::message tree;
    tree.insert(tn::u32_id(0xfe0001), 22u);
    tree.insert(tn::string_id(0x2), "voip");
    tree.insert(tn::string_array_id(0xa000000c), std::vector<std::string>{"total", "other"});
    tree.insert(tn::u32_id(0x1), 2u);
    tree.insert(tn::u64_id(0x100000c8), 0x10000000Aull);
    tree.insert(tn::u32_id(0xc9), 3u);
    Rows trees = collect(addTrafficTreeEntry, tree);
    TrafficTreeEntry* te = row<TrafficTreeEntry>(trees, 0);
    EXPECT_EQ(te->id, 22u);
    EXPECT_EQ(te->name, "voip");
    EXPECT_EQ(te->parent, "total");
    EXPECT_EQ(te->number, 2u);
    EXPECT_EQ(te->bytes, 0x10000000Aull);
    EXPECT_EQ(te->bytesLow, 10u);
    EXPECT_EQ(te->count, 3u);
    EXPECT_EQ(row<TrafficTreeEntry>(collect(addTrafficTreeEntry, tn::message()), 0)->parent, "");
}

// ---------------------------------------------------------------- system

TEST(SystemRecords, ResourcesConvertAndWrap) {
    tn::message m;
    m.insert(tn::u32_id(0x1), 5u);
    m.insert(tn::u32_id(0x2), 1000u);
    m.insert(tn::u32_id(0x3), 1200u);  // more free than total
    m.insert(tn::u32_id(0xa), 500u);
    m.insert(tn::u32_id(0xb), 100u);
    m.insert(tn::u32_id(0x6), 42u);
    std::unique_ptr<Resources> r(static_cast<Resources*>(buildResources(m)));
    EXPECT_EQ(r->upTime, 500u);
    EXPECT_EQ(r->memTotal, 1000u);
    EXPECT_EQ(r->memUsed, 0xFFFFFF38u);
    EXPECT_EQ(r->diskTotal, 500u);
    EXPECT_EQ(r->diskUsed, 400u);
    EXPECT_EQ(r->cpuLoad, 42u);
    std::unique_ptr<Resources> empty(static_cast<Resources*>(buildResources(tn::message())));
    EXPECT_EQ(empty->upTime, 0u);
    EXPECT_EQ(empty->memUsed, 0u);
}

class SoftwareTest : public UtcZone {};

TEST_F(SoftwareTest, StampIsFixedAndCounterIsOneAhead) {
    tn::message m;
    m.insert(tn::string_id(0x1), "kestrel 1.4");
    m.insert(tn::u32_id(0x4), 104u);
    m.insert(tn::u32_id(0x9), 41u);
    std::unique_ptr<SoftwareInfo> s(static_cast<SoftwareInfo*>(buildSoftwareInfo(m)));
    EXPECT_EQ(s->text, "kestrel 1.4");
    EXPECT_EQ(s->number, 104u);
    EXPECT_EQ(s->counter, 42u);
    // 1970-01-01 00:01:07 in UTC.
    EXPECT_EQ(s->stamp, bytes({0x07, 0xB2, 1, 1, 0, 1, 7, 0}));
    m.insert(tn::u32_id(0x9), 0xFFFFFFFFu);
    std::unique_ptr<SoftwareInfo> w(static_cast<SoftwareInfo*>(buildSoftwareInfo(m)));
    EXPECT_EQ(w->counter, 0u);
    EXPECT_EQ(w->stamp, s->stamp);
}

TEST(SystemRecords, IdentAndScriptRenderTheirSets) {
    tn::message m;
    m.insert(tn::string_id(0xc), "gw1");
    std::unique_ptr<Ident> ident(static_cast<Ident*>(buildIdent(m)));
    EXPECT_EQ(ident->name, "gw1");
    ident->name = "gw2";
    tn::message set;
    ident->reverseBuild(set);
    EXPECT_EQ(set.get(tn::string_id(0xc)), "gw2");
    EXPECT_EQ(set.size(), 1u);

    tn::message obj;
    obj.insert(tn::u32_id(0xfe0001), 7u);
    obj.insert(tn::string_id(0x66), "backup");
    Rows rows = collect(Script::build, obj);
    Script* s = row<Script>(rows, 0);
    EXPECT_EQ(s->id, 7u);
    EXPECT_EQ(s->run, 0);
    EXPECT_EQ(s->name, "backup");

    tn::message rename = busRequest({48, 101}, 0xfe0003);
    s->name = "nightly";
    s->reverseBuild(rename);
    EXPECT_EQ(rename.get(tn::u32_id(0xff0007)), 0xfe0003u);
    EXPECT_EQ(rename.get(tn::u32_id(0xfe0001)), 7u);
    EXPECT_EQ(rename.get(tn::string_id(0x66)), "nightly");

    tn::message runIt = busRequest({48, 101}, 0xfe0003);
    s->run = 1;
    s->reverseBuild(runIt);
    EXPECT_EQ(runIt.get(tn::u32_id(0xff0007)), 1u);
    EXPECT_EQ(runIt.get(tn::u32_id(0xfe0001)), 7u);
    EXPECT_FALSE(runIt.has(tn::string_id(0x66)));
}

TEST(SystemRecords, ContactAndLocationAreReadOnly) {
    SnmpInfo info;
    EXPECT_EQ(info.get(), static_cast<Data*>(&info));
    EXPECT_EQ(info.set(&info), 0u);
}

class RebootTest : public BusTest {};

TEST_F(RebootTest, OnlyANonZeroValueSendsTheRebootCommand) {
    load(R"({"paths": {"24": {}, "24.2": {"get": {"u32:0x1": 5}}}})");
    std::unique_ptr<TheSystem> sys(static_cast<TheSystem*>(TheSystem::build(tn::message())));
    EXPECT_EQ(sys->reboot, 0);
    tn::message set = busRequest({24, 2}, 0xfe000e);
    tn::message before = set;
    sys->reverseBuild(set);
    EXPECT_TRUE(recordedTo({24}).empty());
    sys->reboot = 1;
    sys->reverseBuild(set);
    EXPECT_EQ(set, before);  // no value fields in the set itself
    std::vector<tn::message> sent = recordedTo({24});
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].get(tn::u32_id(0xff0007)), 5u);
}

// ---------------------------------------------------------------- host resources

class ClockTest : public UtcZone {};

TEST_F(ClockTest, DateAndTimeWithOffsets) {
    tn::message m;
    m.insert(tn::u32_id(0x7), 1700000000u);  // 2023-11-14 22:13:20 UTC
    m.insert(tn::u32_id(0x1b), static_cast<uint32_t>(-18000));
    std::unique_ptr<Clock> c(static_cast<Clock*>(buildClock(m)));
    EXPECT_EQ(c->dateAndTime, bytes({0x07, 0xE7, 11, 14, 22, 13, 20, 0, '-', 5, 0}));
    m.insert(tn::u32_id(0x1b), 19800u);
    c.reset(static_cast<Clock*>(buildClock(m)));
    EXPECT_EQ(c->dateAndTime, bytes({0x07, 0xE7, 11, 14, 22, 13, 20, 0, '+', 5, 30}));
    m.insert(tn::u32_id(0x1b), static_cast<uint32_t>(-34200));  // -09:30
    c.reset(static_cast<Clock*>(buildClock(m)));
    EXPECT_EQ(std::vector<unsigned char>(c->dateAndTime.begin() + 8, c->dateAndTime.end()), bytes({'-', 9, 30}));
    c.reset(static_cast<Clock*>(buildClock(tn::message())));
    EXPECT_EQ(c->dateAndTime, bytes({0x07, 0xB2, 1, 1, 0, 0, 0, 0, '+', 0, 0}));
}

// The bus carries the clock as unsigned 32-bit seconds; dates past January
// 2038 must not wrap to 1901 where time_t is 32 bits wide.
TEST_F(ClockTest, DatesPast2038OnEveryWordSize) {
    tn::message m;
    m.insert(tn::u32_id(0x7), 0x80000000u);  // 2038-01-19 03:14:08 UTC
    std::unique_ptr<Clock> c(static_cast<Clock*>(buildClock(m)));
    EXPECT_EQ(c->dateAndTime, bytes({0x07, 0xF6, 1, 19, 3, 14, 8, 0, '+', 0, 0}));
    m.insert(tn::u32_id(0x7), 0xFFFFFFFFu);  // 2106-02-07 06:28:15 UTC
    c.reset(static_cast<Clock*>(buildClock(m)));
    EXPECT_EQ(c->dateAndTime, bytes({0x08, 0x3A, 2, 7, 6, 28, 15, 0, '+', 0, 0}));
}

class StorageTest : public BusTest {};

TEST_F(StorageTest, RowsFollowTheResourcesRecord) {
    load(R"({"paths": {"24.2": {"get": {"u32:0x1": 1, "u32:0x2": 1000, "u32:0x3": 250,
                                          "u32:0xa": 800, "u32:0xb": 900, "u32:0x6": 17}}}})");
    fillStorageRows();
    GetProvider* saved = resourcesProvider;
    GetProvider provider(buildResources, {24, 2}, 0xfe000d, 0xfe000e);
    resourcesProvider = &provider;

    StorageRow* disk = static_cast<StorageRow*>(diskRow());
    ASSERT_NE(disk, nullptr);
    EXPECT_EQ(disk->index, 1);
    EXPECT_EQ(disk->type, OID("1.3.6.1.2.1.25.2.1.4"));
    EXPECT_EQ(disk->descr, "disk");
    EXPECT_EQ(disk->size, 800u);
    EXPECT_EQ(disk->used, 0xFFFFFF9Cu);  // free above total wraps

    StorageRow* mem = static_cast<StorageRow*>(memoryRow());
    EXPECT_EQ(mem->index, 2);
    EXPECT_EQ(mem->type, OID("1.3.6.1.2.1.25.2.1.1"));
    EXPECT_EQ(mem->descr, "main memory");
    EXPECT_EQ(mem->size, 1000u);
    EXPECT_EQ(mem->used, 750u);

    DeviceRow* cpu = static_cast<DeviceRow*>(processorRow());
    EXPECT_EQ(cpu->index, 1);
    EXPECT_EQ(cpu->load, 17u);
    EXPECT_EQ(cpu->type, OID("1.3.6.1.2.1.25.3.1.3"));
    resourcesProvider = saved;
}

class HealthTest : public BusTest {};

TEST_F(HealthTest, ValuesAndLazyLeaves) {
    load(R"({"paths": {"12.1": {"get": {}}}})");
    GetProvider provider(buildHealth, {12, 1}, 0xfe000d, 0xfe000e);
    GetProvider* saved = healthProvider;
    healthProvider = &provider;
    auto health = [](tn::message const& m) { return std::unique_ptr<Health>(static_cast<Health*>(buildHealth(m))); };
    auto registered = [](unsigned sub) { return leafs.count(healthRoot + sub) == 1; };

    testing::internal::CaptureStdout();
    std::unique_ptr<Health> h = health(tn::message());
    EXPECT_EQ(h->voltage, 0);
    EXPECT_EQ(h->temperature, -2730);
    EXPECT_EQ(h->cpuTemperature, -2730);
    EXPECT_EQ(h->state, "n/a");
    EXPECT_FALSE(registered(8));
    EXPECT_FALSE(registered(10));
    EXPECT_FALSE(registered(11));

    tn::message m;
    m.insert(tn::u32_id(0xe), 45u);
    h = health(m);
    EXPECT_EQ(h->temperature, 450);
    EXPECT_TRUE(registered(10));
    EXPECT_FALSE(registered(8));

    m.insert(tn::u32_id(0xd), 121u);
    m.insert(tn::u32_id(0x11), static_cast<uint32_t>(-5));
    h = health(m);
    EXPECT_EQ(h->voltage, 121);
    EXPECT_EQ(h->cpuTemperature, -50);
    EXPECT_TRUE(registered(8));
    EXPECT_TRUE(registered(11));
    Leaf* kept = leafs[healthRoot + 10];
    h = health(m);  // nothing registered twice
    EXPECT_EQ(leafs[healthRoot + 10], kept);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "+ temperature\n+ voltage\n+ cpu temperature\n");

    const char* states[] = {"aux", "main", "none", "n/a", "n/a"};
    for (uint32_t s = 0; s < 5; ++s) {
        tn::message st;
        st.insert(tn::u32_id(0xc), s == 4 ? 42u : s);
        EXPECT_EQ(health(st)->state, states[s]) << s;
    }
    healthProvider = saved;
}

// ---------------------------------------------------------------- bridge and hosts

class BridgeTest : public BusTest {};

TEST_F(BridgeTest, FirstBridgeAndItsForwardingEntries) {
    load(R"({"paths": {"20.0": {"page": 1, "list": [
        {"u32:0xfe0001": 1, "u32:0x10001": 1},
        {"u32:0xfe0001": 5, "u32:0x10001": 12, "raw:0x3e9": "02000000aa01", "u32:0x2": 32768},
        {"u32:0xfe0001": 6, "u32:0x10001": 12}]}}})");
    GetFirstProvider* saved = bridgeProvider;
    GetFirstProvider provider(buildBridgeInfo, {20, 0});
    bridgeProvider = &provider;

    BridgeInfo* b = static_cast<BridgeInfo*>(provider.get());
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->address, bytes({2, 0, 0, 0, 0xaa, 1}));
    EXPECT_EQ(b->priority, 32768u);
    EXPECT_EQ(provider.getFirstObjId(), 5u);

    tn::message entry;
    entry.insert(tn::u32_id(0x5), 5u);
    entry.insert(tn::u32_id(0x1), 3u);
    entry.insert(tn::raw_id(0x30000002), bytes({2, 0, 0, 1, 2, 3}));
    Rows rows = collect(addFdbEntry, entry);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(row<FdbEntry>(rows, 0)->port, 3u);
    EXPECT_EQ(row<FdbEntry>(rows, 0)->mac, bytes({2, 0, 0, 1, 2, 3}));
    EXPECT_EQ(row<FdbEntry>(rows, 0)->status, 3);
    entry.insert(tn::bool_id(0x4), true);
    EXPECT_EQ(row<FdbEntry>(collect(addFdbEntry, entry), 0)->status, 4);
    entry.insert(tn::u32_id(0x5), 6u);
    EXPECT_TRUE(collect(addFdbEntry, entry).empty());
    bridgeProvider = saved;
}

TEST(BridgeRecords, OnlyKindTwelveIsABridge) {
    tn::message m;
    m.insert(tn::u32_id(0x10001), 1u);
    EXPECT_EQ(buildBridgeInfo(m), nullptr);
    EXPECT_EQ(buildBridgeInfo(tn::message()), nullptr);
    m.insert(tn::u32_id(0x10001), 12u);
    std::unique_ptr<BridgeInfo> b(static_cast<BridgeInfo*>(buildBridgeInfo(m)));
    ASSERT_NE(b, nullptr);
    EXPECT_TRUE(b->address.empty());
    EXPECT_EQ(b->priority, 0u);
}

TEST(BridgeRecords, HostEntries) {
    tn::message m;
    m.insert(tn::u32_id(0xfe0001), 31u);
    m.insert(tn::be32_id(0x1), 0xC0A8580Au);
    m.insert(tn::raw_id(0x30000002), bytes({2, 0xaa, 0xbb, 0xcc, 0, 0x10}));
    m.insert(tn::string_id(0x7), "seven");
    m.insert(tn::string_id(0x8), "eight");
    m.insert(tn::string_id(0x6), "six");
    m.insert(tn::string_id(0xb), "eleven");
    Rows rows = collect(addHostEntry, m);
    HostEntry* h = row<HostEntry>(rows, 0);
    EXPECT_EQ(h->id, 31u);
    EXPECT_EQ(h->address, 0xC0A8580Au);
    EXPECT_EQ(h->mac, bytes({2, 0xaa, 0xbb, 0xcc, 0, 0x10}));
    EXPECT_EQ(h->text7, "seven");
    EXPECT_EQ(h->text8, "eight");
    EXPECT_EQ(h->text6, "six");
    EXPECT_EQ(h->text11, "eleven");
    tn::message set;
    h->reverseBuild(set);
    EXPECT_TRUE(set.empty());
    EXPECT_EQ(collect(addHostEntry, tn::message()).size(), 1u);
}

}  // namespace
