// Tables fed over the bus and walked with GetNext requests through
// createReply: platform listing -> GetAllProvider -> MapTable -> column
// leaves -> reply datagrams.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "agent/community_keep.h"
#include "asn/stream.h"
#include "mib/leaf.h"
#include "mib/packer.h"
#include "mib/providers.h"
#include "mib/tables.h"
#include "request/context.h"
#include "tn/handler.h"
#include "tn/looper.h"

namespace {

// The provider leaves its records to the cache's expiry; a test's provider
// frees what it still holds when the test ends.
struct TestGetAll : GetAllProvider {
    ~TestGetAll() override {
        for (Data* d : records) delete d;
    }
};

const uint32_t kObjects = 0xa8fe0002;
const uint32_t kCont = 0xfe0003;
const uint32_t kTotal = 0xfe0014;
const uint32_t kIndex = 0xfe0020, kName = 0xfe0021, kMtu = 0xfe0022;
const uint32_t kDest = 0xfe0030, kMask = 0xfe0031, kHop = 0xfe0032, kSrc = 0xfe0033, kMetric = 0xfe0034;

uint32_t ip(int a, int b, int c, int d) { return uint32_t(a) << 24 | uint32_t(b) << 16 | uint32_t(c) << 8 | uint32_t(d); }

// Serves a fixed set of objects in pages of two, with continuation ids that
// are the position of the next page; counts are scripted separately.
class ListingHandler : public tn::Handler {
public:
    std::vector<tn::message> objects;
    std::vector<uint32_t> commands;
    bool countFails = false;

    tn::message handle(const tn::message& req) override {
        uint32_t cmd = req.get(tn::u32_id(tn::F_COMMAND));
        commands.push_back(cmd);
        if (cmd == 0xfe0015) {
            if (countFails) return tn::errorMsg(tn::ERR_NO_OBJECT, "no count here");
            tn::message r;
            r.insert(tn::u32_id(kTotal), uint32_t(objects.size()));
            return r;
        }
        if (cmd != 0xfe0004) return tn::errorMsg(tn::ERR_NO_OBJECT, "unexpected command");
        size_t at = req.get(tn::u32_id(kCont), 0);
        tn::message r;
        std::vector<tn::message> pageObjs;
        for (size_t i = at; i < objects.size() && i < at + 2; ++i) pageObjs.push_back(objects[i]);
        r.insert(tn::message_array_id(kObjects), pageObjs);
        if (at + 2 < objects.size()) r.insert(tn::u32_id(kCont), uint32_t(at + 2));
        return r;
    }
    size_t listings() const {
        size_t n = 0;
        for (uint32_t c : commands) n += c == 0xfe0004;
        return n;
    }
};

struct IfRow : Data {
    int index = 0;
    std::string name;
    int mtu = 0;
};

void collectIf(tn::message const& m, std::vector<Data*>* out) {
    IfRow* r = new IfRow;
    r->index = int(m.get(tn::u32_id(kIndex)));
    r->name = m.get(tn::string_id(kName));
    r->mtu = int(m.get(tn::u32_id(kMtu)));
    out->push_back(r);
}

struct RouteRow : Data {
    unsigned int dest = 0, mask = 0, hop = 0, src = 0;
    int metric = 0;
};

void collectRoute(tn::message const& m, std::vector<Data*>* out) {
    RouteRow* r = new RouteRow;
    r->dest = m.get(tn::be32_id(kDest));
    r->mask = m.get(tn::be32_id(kMask));
    r->hop = m.get(tn::be32_id(kHop));
    r->src = m.get(tn::be32_id(kSrc));
    r->metric = int(m.get(tn::u32_id(kMetric)));
    out->push_back(r);
}

tn::message ifObject(uint32_t index, std::string const& name, uint32_t mtu) {
    tn::message m;
    m.insert(tn::u32_id(kIndex), index);
    m.insert(tn::string_id(kName), name);
    m.insert(tn::u32_id(kMtu), mtu);
    return m;
}

tn::message routeObject(uint32_t dest, uint32_t mask, uint32_t hop, uint32_t src, uint32_t metric) {
    tn::message m;
    m.insert(tn::be32_id(kDest), dest);
    m.insert(tn::be32_id(kMask), mask);
    m.insert(tn::be32_id(kHop), hop);
    m.insert(tn::be32_id(kSrc), src);
    m.insert(tn::u32_id(kMetric), metric);
    return m;
}

const OID ifTable("1.3.6.1.4.1.48291.99.1");
const OID routeTable("1.3.6.1.4.1.48291.99.2");
const OID after("1.3.6.1.4.1.48291.99.3");  // a scalar beyond the tables

struct Answer {
    bool sent = false;
    int status = -1;
    OID name;
    int type = -1;
    std::string raw;  // string content, or the decimal integer
};

class TableWalk : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char tmpl[] = "/tmp/kestrel-walk-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        communityKeep = new CommunityKeep(dir + "/communities");
        CommunityKeep::Item* item = new CommunityKeep::Item;
        item->id = 0;
        item->name = "public";
        item->readAccess = true;
        communityKeep->items().push_back(item);
    }
    static void TearDownTestSuite() {
        for (CommunityKeep::Item* i : communityKeep->items()) delete i;
        delete communityKeep;
        communityKeep = nullptr;
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }

    void SetUp() override {
        tn::setLooper(&looper);
        tn::setRunner(&looper);
        looper.addHandler(tn::u32_vector{20, 0}, &ifs);
        looper.addHandler(tn::u32_vector{40, 3}, &routes);
        leafs.clear();
    }
    void TearDown() override {
        leafs.clear();
        for (Packer* p : packers) delete p;
        for (Leaf* l : leaves) delete l;
        tn::setRunner(nullptr);
        tn::setLooper(nullptr);
    }
    template <class P>
    P* keep(P* p) {
        packers.push_back(p);
        return p;
    }
    void column(OID const& oid, Packer* p, Table* t) {
        leaves.push_back(new ColumnarLeaf(p, t));
        addLeaf(oid, leaves.back());
    }

    Answer getNext(OID const& name) {
        OutStream o;
        o.startSeq(0x30);
        o.add(1, 2);
        o.add(std::string("public"), 4);
        o.startSeq(0xA1);
        o.add(77, 2);
        o.add(0, 2);
        o.add(0, 2);
        o.startSeq(0x30);
        o.startSeq(0x30);
        o.addOID(name, 6);
        o.addNull(5);
        o.endSeq();
        o.endSeq();
        o.endSeq();
        o.endSeq();
        Context ctx(o.data.data(), unsigned(o.data.size()));
        Answer a;
        a.sent = createReply(ctx, int(ip(127, 0, 0, 1))) == 1;
        if (!a.sent) return a;
        InStream in(ctx.out.data.data(), unsigned(ctx.out.data.size()));
        int version = 0, id = 0, index = 0, num = 0;
        std::string community;
        if (in.enterSeq() == 0xFFFFFFFFu || !in.getInt(&version) || !in.getString(&community) ||
            in.enterSeq() == 0xFFFFFFFFu || !in.getInt(&id) || !in.getInt(&a.status) || !in.getInt(&index) ||
            in.enterSeq() == 0xFFFFFFFFu || in.enterSeq() == 0xFFFFFFFFu || !in.getOID(&a.name)) {
            a.sent = false;
            return a;
        }
        a.type = in.getType();
        if (a.type == 4 || a.type == 0x40) {
            if (!in.getString(&a.raw)) a.sent = false;
        } else if (in.getInt(&num)) {
            a.raw = std::to_string(num);
        } else {
            a.sent = false;
        }
        return a;
    }

    // GetNext from `start` until the answer leaves `prefix`.
    std::vector<Answer> walk(OID const& prefix, OID start) {
        std::vector<Answer> out;
        for (int guard = 0; guard < 100; ++guard) {
            Answer a = getNext(start);
            if (!a.sent || a.status != 0) break;
            if (a.name.size() < prefix.size() ||
                !std::equal(prefix.arcs().begin(), prefix.arcs().end(), a.name.arcs().begin()))
                break;
            out.push_back(a);
            start = a.name;
        }
        return out;
    }

    tn::Looper looper;
    ListingHandler ifs, routes;
    std::vector<Packer*> packers;
    std::vector<Leaf*> leaves;
    static std::string dir;
};

std::string TableWalk::dir;

TEST_F(TableWalk, IntegerAndNameIndexWalkInOidOrder) {
    ifs.objects = {ifObject(5, "eth1", 1500), ifObject(12, "wan0", 1492), ifObject(5, "lo", 65536),
                   ifObject(3, "zz", 9000), ifObject(5, "eth2", 1500)};
    TestGetAll provider;
    provider.addSource(collectIf, {20, 0});
    MapTable table(&provider);
    table.addIndex(keep(new DataNumPacker(&IfRow::index, 2)));
    table.addIndex(keep(new DataStringPacker(&IfRow::name, 4, 0)));
    column(ifTable + 1, keep(new DataStringPacker(&IfRow::name, 4)), &table);
    column(ifTable + 2, keep(new DataNumPacker(&IfRow::mtu, 2)), &table);
    addScalarConstNumLeaf(after, 1, 2);
    leaves.push_back(leafs[after]);
    packers.push_back(static_cast<ScalarLeaf*>(leafs[after])->packer);

    std::vector<Answer> got = walk(ifTable, ifTable);
    std::vector<OID> rows = {OID({3, 2, 122, 122}), OID({5, 2, 108, 111}), OID({5, 4, 101, 116, 104, 49}),
                             OID({5, 4, 101, 116, 104, 50}), OID({12, 4, 119, 97, 110, 48})};
    std::vector<std::string> names = {"zz", "lo", "eth1", "eth2", "wan0"};
    std::vector<std::string> mtus = {"9000", "65536", "1500", "1500", "1492"};
    ASSERT_EQ(got.size(), 10u);
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(got[i].name, ifTable + 1 + rows[i]) << i;
        EXPECT_EQ(got[i].type, 4);
        EXPECT_EQ(got[i].raw, names[i]);
        EXPECT_EQ(got[5 + i].name, ifTable + 2 + rows[i]) << i;
        EXPECT_EQ(got[5 + i].type, 2);
        EXPECT_EQ(got[5 + i].raw, mtus[i]);
    }
    // Past the last row of the last column the walk leaves the table.
    Answer next = getNext(got.back().name);
    EXPECT_EQ(next.name, after + 0);
    // Five objects over three pages, fetched once for the whole walk.
    EXPECT_EQ(ifs.listings(), 3u);

    // A partial index lands on the row after it.
    Answer mid = getNext(ifTable + 1 + OID({5}));
    EXPECT_EQ(mid.name, ifTable + 1 + rows[1]);
    mid = getNext(ifTable + 1 + OID({5, 4, 101, 116, 104, 49}));
    EXPECT_EQ(mid.name, ifTable + 1 + rows[3]);
}

TEST_F(TableWalk, FourAddressIndexWalkInOidOrder) {
    routes.objects = {
        routeObject(ip(192, 168, 1, 0), ip(255, 255, 255, 0), ip(0, 0, 0, 0), ip(192, 168, 1, 1), 1),
        routeObject(ip(0, 0, 0, 0), ip(0, 0, 0, 0), ip(10, 0, 0, 1), ip(10, 0, 0, 2), 10),
        routeObject(ip(10, 0, 0, 0), ip(255, 0, 0, 0), ip(0, 0, 0, 0), ip(10, 0, 0, 2), 0),
        routeObject(ip(10, 0, 0, 0), ip(255, 255, 0, 0), ip(10, 0, 0, 254), ip(10, 0, 0, 2), 5),
        routeObject(ip(10, 0, 0, 0), ip(255, 0, 0, 0), ip(10, 0, 0, 9), ip(10, 0, 0, 2), 7),
    };
    TestGetAll provider;
    provider.addSource(collectRoute, {40, 3}, 9);
    MapTable table(&provider);
    table.addIndex(keep(new DataIPPacker(&RouteRow::dest, 0x40)));
    table.addIndex(keep(new DataIPPacker(&RouteRow::mask, 0x40)));
    table.addIndex(keep(new DataIPPacker(&RouteRow::hop, 0x40)));
    table.addIndex(keep(new DataIPPacker(&RouteRow::src, 0x40)));
    column(routeTable + 1, keep(new DataIPPacker(&RouteRow::hop, 0x40)), &table);
    column(routeTable + 5, keep(new DataNumPacker(&RouteRow::metric, 2)), &table);

    std::vector<Answer> got = walk(routeTable, routeTable + 1);
    std::vector<OID> rows = {
        OID("0.0.0.0.0.0.0.0.10.0.0.1.10.0.0.2"),          OID("10.0.0.0.255.0.0.0.0.0.0.0.10.0.0.2"),
        OID("10.0.0.0.255.0.0.0.10.0.0.9.10.0.0.2"),       OID("10.0.0.0.255.255.0.0.10.0.0.254.10.0.0.2"),
        OID("192.168.1.0.255.255.255.0.0.0.0.0.192.168.1.1"),
    };
    std::vector<std::string> metrics = {"10", "0", "7", "5", "1"};
    ASSERT_EQ(got.size(), 10u);
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(got[i].name, routeTable + 1 + rows[i]) << i;
        EXPECT_EQ(got[i].type, 0x40);
        ASSERT_EQ(got[i].raw.size(), 4u);
        EXPECT_EQ(OID({uint32_t((unsigned char)got[i].raw[0]), uint32_t((unsigned char)got[i].raw[1]),
                       uint32_t((unsigned char)got[i].raw[2]), uint32_t((unsigned char)got[i].raw[3])}),
                  OID(std::vector<uint32_t>(rows[i].arcs().begin() + 8, rows[i].arcs().begin() + 12)));
        EXPECT_EQ(got[5 + i].name, routeTable + 5 + rows[i]) << i;
        EXPECT_EQ(got[5 + i].raw, metrics[i]);
    }
    EXPECT_EQ(routes.listings(), 3u);
}

TEST_F(TableWalk, CountByCommandFallsBackToRowsWhenASourceCannotCount) {
    ifs.objects = {ifObject(1, "a", 1), ifObject(2, "b", 1), ifObject(3, "c", 1)};
    routes.objects = {ifObject(4, "d", 1), ifObject(5, "e", 1), ifObject(6, "f", 1), ifObject(7, "g", 1)};
    TestGetAll provider;
    provider.addSource(collectIf, {20, 0});
    provider.addSource(collectIf, {40, 3});
    MapTable table(&provider);
    table.addIndex(keep(new DataNumPacker(&IfRow::index, 2)));
    CountProvider counter(&table);

    EXPECT_EQ(static_cast<CountProvider::CountData*>(counter.get())->count, 7);
    EXPECT_EQ(ifs.listings() + routes.listings(), 0u);  // counted without loading rows

    // The second source cannot count: the rows are loaded and counted instead.
    routes.countFails = true;
    routes.objects.pop_back();
    EXPECT_EQ(table.count(), 6u);
    EXPECT_EQ(ifs.listings(), 2u);
    EXPECT_EQ(routes.listings(), 2u);

    // The count is served as a number through the usual packer.
    DataNumPacker gauge(&CountProvider::CountData::count, 0x42);
    EXPECT_EQ(gauge.get(counter.get()), 6);
}

}  // namespace
