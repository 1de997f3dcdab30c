// The registry, the leaves and the protocol operations, over test providers
// and a small keyed table.
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <map>
#include <memory>

#include "mib/leaf.h"
#include "mib/packer.h"
#include "request/context.h"
#include "request/operations.h"

namespace {

typedef std::vector<unsigned char> Bytes;

struct Rec : Data {
    int num = 0;
    std::string text;
};

struct TestProvider : DataProvider {
    Rec rec;
    bool present = true;
    bool accept = true;
    int gets = 0, sets = 0;
    Data* get() override {
        ++gets;
        return present ? &rec : nullptr;
    }
    unsigned int set(Data*) override {
        ++sets;
        return accept ? 1 : 0;
    }
};

struct TestTable : Table {
    std::map<OID, Rec*, tree_node_comp<OID>> rows;
    int sets = 0;
    Data* get(OID const& index) override {
        auto it = rows.find(index);
        return it == rows.end() ? nullptr : it->second;
    }
    std::pair<OID, Data*> getNext(OID const& index) override {
        auto it = rows.upper_bound(index);
        if (it == rows.end())
            return {OID(), nullptr};
        return {it->first, it->second};
    }
    unsigned int set(OID const&, Data*) override {
        ++sets;
        return 0;
    }
    unsigned int count() override { return unsigned(rows.size()); }
};

// Serves the value as a varbind after a name: the encoded value bytes.
Bytes valueBytes(std::initializer_list<int> l) {
    Bytes b;
    for (int v : l)
        b.push_back((unsigned char)v);
    return b;
}

// Expected reply varbind content: name then value, as the encoder writes them.
Bytes nameAndValue(OID const& name, std::function<void(OutStream&)> value) {
    OutStream o;
    o.addOID(name, 6);
    value(o);
    return o.data;
}

void freeLeaf(Leaf* l) {
    if (ScalarLeaf* s = dynamic_cast<ScalarLeaf*>(l))
        delete s->packer;
    else if (ColumnarLeaf* c = dynamic_cast<ColumnarLeaf*>(l))
        delete c->packer;
    delete l;
}

class Registry : public ::testing::Test {
protected:
    // Each test starts from an empty registry and frees what it registered.
    void SetUp() override { leafs.clear(); }
    void TearDown() override {
        for (auto& e : leafs)
            freeLeaf(e.second);
        leafs.clear();
    }

    // Runs op on a fresh context whose input holds the given value bytes.
    unsigned int run(unsigned int (*op)(Context&), OID const& name, Bytes const& value = Bytes()) {
        ctx.reset(new Context(value.data(), unsigned(value.size())));
        ctx->oid = name;
        return op(*ctx);
    }
    Bytes written() const { return ctx->out.data; }

    std::unique_ptr<Context> ctx;
};

}  // namespace

TEST(OidRoutines, PrefixCompareAndSuffix) {
    OID a("1.3.6.1.2");
    EXPECT_EQ(oidCompareFirst(a, 3, OID("1.3.6")), 0);
    EXPECT_EQ(oidCompareFirst(a, 3, OID("1.3.7")), -1);
    EXPECT_EQ(oidCompareFirst(a, 3, OID("1.3.5")), 1);
    EXPECT_EQ(oidCompareFirst(a, 3, OID("1.3")), 1);
    EXPECT_EQ(oidCompareFirst(a, 3, OID("1.3.6.0")), -1);
    EXPECT_EQ(oidCompareFirst(a, 10, OID("1.3.6.1.2")), 0);
    EXPECT_EQ(oidCompareFirst(a, 10, OID("1.3.6.1.2.0")), -1);
    OID s("9");
    oidSuffix(a, 3, s);
    EXPECT_EQ(s, OID("1.2"));
    oidSuffix(a, 5, s);
    EXPECT_TRUE(s.empty());
    oidSuffix(a, 9, s);
    EXPECT_TRUE(s.empty());
}

TEST_F(Registry, ScalarGet) {
    TestProvider prov;
    prov.rec.num = 5;
    addScalarLeaf(OID("1.3.6.1.2.1.1.7"), new DataNumPacker(&Rec::num, 2), &prov);
    addScalarConstStringLeaf(OID("1.3.6.1.2.1.1.1"), "router", 4);

    EXPECT_EQ(run(snmpGet, OID("1.3.6.1.2.1.1.7.0")), 0u);
    EXPECT_EQ(written(), nameAndValue(OID("1.3.6.1.2.1.1.7.0"), [](OutStream& o) { o.add(5, 2); }));
    EXPECT_EQ(ctx->objectName, OID("1.3.6.1.2.1.1.7.0"));

    EXPECT_EQ(run(snmpGet, OID("1.3.6.1.2.1.1.1.0")), 0u);
    EXPECT_EQ(written(), nameAndValue(OID("1.3.6.1.2.1.1.1.0"), [](OutStream& o) { o.add(std::string("router"), 4); }));

    for (char const* miss : {"1.3.6.1.2.1.1.7", "1.3.6.1.2.1.1.7.0.0", "1.3.6.1.2.1.1.7.1", "1.3.6.1.2.1.1",
                             "1.3.6.1.2.1.1.8.0", "1.3.6.1.2.1.1.6.0", "1.3", "0.0", ""}) {
        EXPECT_EQ(run(snmpGet, OID(miss)), 2u) << miss;
        EXPECT_TRUE(written().empty()) << miss;
    }
    // The leaf is reached with the instance arcs only.
    run(snmpGet, OID("1.3.6.1.2.1.1.7"));
    EXPECT_TRUE(ctx->oid.empty());
    EXPECT_EQ(ctx->objectName, OID("1.3.6.1.2.1.1.7"));

    prov.present = false;
    EXPECT_EQ(run(snmpGet, OID("1.3.6.1.2.1.1.7.0")), 2u);
    EXPECT_EQ(run(snmpGetNext, OID("1.3.6.1.2.1.1.6")), 2u);
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.1.7.0"), valueBytes({2, 1, 9})), 2u);
}

TEST_F(Registry, ColumnGet) {
    TestTable table;
    Rec r1, r2;
    r1.text = "eth0";
    r2.text = "eth1";
    table.rows[OID("1")] = &r1;
    table.rows[OID("5.4.101.116.104.49")] = &r2;
    addColumnarLeaf(OID("1.3.6.1.2.1.2.2.1.2"), new DataStringPacker(&Rec::text, 4), &table);

    EXPECT_EQ(run(snmpGet, OID("1.3.6.1.2.1.2.2.1.2.5.4.101.116.104.49")), 0u);
    EXPECT_EQ(written(), nameAndValue(OID("1.3.6.1.2.1.2.2.1.2.5.4.101.116.104.49"),
                                      [](OutStream& o) { o.add(std::string("eth1"), 4); }));
    EXPECT_EQ(run(snmpGet, OID("1.3.6.1.2.1.2.2.1.2")), 2u);
    EXPECT_EQ(run(snmpGet, OID("1.3.6.1.2.1.2.2.1.2.2")), 2u);
    EXPECT_EQ(run(snmpGet, OID("1.3.6.1.2.1.2.2.1.2.1.0")), 2u);
}

TEST_F(Registry, GetNextWalksInOrder) {
    TestProvider prov;
    prov.rec.num = 3;
    TestTable table;
    Rec r1, r2;
    r1.num = 10;
    r2.num = 20;
    table.rows[OID("1")] = &r1;
    table.rows[OID("2")] = &r2;
    TestTable empty;
    addScalarLeaf(OID("1.3.6.1.2.1.2.1"), new DataNumPacker(&Rec::num, 2), &prov);
    addColumnarLeaf(OID("1.3.6.1.2.1.2.2.1.1"), new DataNumPacker(&Rec::num, 2), &table);
    addColumnarLeaf(OID("1.3.6.1.2.1.2.2.1.2"), new DataNumPacker(&Rec::num, 2), &empty);
    addColumnarLeaf(OID("1.3.6.1.2.1.2.2.1.3"), new DataNumPacker(&Rec::num, 0x42), &table);
    addScalarConstNumLeaf(OID("1.3.6.1.2.1.4.1"), 2, 2);

    // Walk from 0.0 through everything, feeding each answer back.
    std::vector<std::string> walked;
    OID name("0.0");
    for (int i = 0; i < 20; ++i) {
        unsigned int st = run(snmpGetNext, name);
        if (st) {
            EXPECT_EQ(st, 2u);
            break;
        }
        InStream back(written().data(), unsigned(written().size()));
        ASSERT_EQ(back.getOID(&name), 1);
        int v = -1;
        ASSERT_EQ(back.getInt(&v), 1);
        walked.push_back(name.str() + "=" + std::to_string(v));
    }
    std::vector<std::string> expected = {".1.3.6.1.2.1.2.1.0=3",       ".1.3.6.1.2.1.2.2.1.1.1=10",
                                         ".1.3.6.1.2.1.2.2.1.1.2=20",  ".1.3.6.1.2.1.2.2.1.3.1=10",
                                         ".1.3.6.1.2.1.2.2.1.3.2=20",  ".1.3.6.1.2.1.4.1.0=2"};
    EXPECT_EQ(walked, expected);

    // Entering a scalar from its own OID or from before it gives instance 0.
    EXPECT_EQ(run(snmpGetNext, OID("1.3.6.1.2.1.2.1")), 0u);
    EXPECT_EQ(ctx->objectName, OID("1.3.6.1.2.1.2.1.0"));
    EXPECT_EQ(run(snmpGetNext, OID("1.3.6.1.2.1.1.9.9")), 0u);
    EXPECT_EQ(ctx->objectName, OID("1.3.6.1.2.1.2.1.0"));
    // Inside a column, the remaining arcs are handed to the table.
    EXPECT_EQ(run(snmpGetNext, OID("1.3.6.1.2.1.2.2.1.1.1")), 0u);
    EXPECT_EQ(ctx->objectName, OID("1.3.6.1.2.1.2.2.1.1.2"));
    EXPECT_EQ(run(snmpGetNext, OID("1.3.6.1.2.1.2.2.1.1.0.5")), 0u);
    EXPECT_EQ(ctx->objectName, OID("1.3.6.1.2.1.2.2.1.1.1"));
    // Past the last instance of the last leaf.
    EXPECT_EQ(run(snmpGetNext, OID("1.3.6.1.2.1.4.1.0")), 2u);
    EXPECT_EQ(run(snmpGetNext, OID("2")), 2u);
    EXPECT_TRUE(written().empty());
}

TEST_F(Registry, GetNextSeesLeavesRegisteredDuringTheWalk) {
    // A leaf whose first use registers two more leaves behind itself, one
    // right after it and one at the end, then declines.
    struct Registering : Leaf {
        int calls = 0;
        unsigned int get(Context&) override { return 0; }
        unsigned int set(Context&) override { return 0; }
        unsigned int getNext(Context&) override {
            if (calls++ == 0) {
                addScalarConstNumLeaf(OID("1.3.6.1.9.1.1"), 11, 2);
                addScalarConstNumLeaf(OID("1.3.6.1.9.9"), 99, 2);
                // Re-registering itself must not disturb the walk either.
                addLeaf(OID("1.3.6.1.9.1"), this);
            }
            return 0;
        }
    };
    Registering* reg = new Registering;
    addLeaf(OID("1.3.6.1.9.1"), reg);
    EXPECT_EQ(run(snmpGetNext, OID("1.3.6.1.9")), 0u);
    EXPECT_EQ(ctx->objectName, OID("1.3.6.1.9.1.1.0"));
    EXPECT_EQ(leafs.size(), 3u);
    EXPECT_EQ(run(snmpGetNext, OID("1.3.6.1.9.1.1.0")), 0u);
    EXPECT_EQ(ctx->objectName, OID("1.3.6.1.9.9.0"));
}

TEST_F(Registry, LastRegistrationWins) {
    addScalarConstNumLeaf(OID("1.3.6.1.2.1.1.3"), 1, 0x43);
    Leaf* first = leafs[OID("1.3.6.1.2.1.1.3")];
    addScalarConstNumLeaf(OID("1.3.6.1.2.1.1.3"), 2, 0x43);
    EXPECT_EQ(leafs.size(), 1u);
    EXPECT_NE(leafs[OID("1.3.6.1.2.1.1.3")], first);
    freeLeaf(first);
    EXPECT_EQ(run(snmpGet, OID("1.3.6.1.2.1.1.3.0")), 0u);
    EXPECT_EQ(written(), nameAndValue(OID("1.3.6.1.2.1.1.3.0"), [](OutStream& o) { o.add(2, 0x43); }));
}

TEST_F(Registry, ScalarSet) {
    TestProvider prov;
    prov.rec.text = "old";
    addScalarLeaf(OID("1.3.6.1.2.1.1.5"), new DataStringPacker(&Rec::text, 4), &prov);

    testing::internal::CaptureStderr();
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.1.5.0"), valueBytes({0x04, 0x03, 'n', 'e', 'w'})), 0u);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "snmpSet found 1.3.6.1.2.1.1.5\nunpacked s = new\n");
    EXPECT_EQ(prov.rec.text, "new");
    EXPECT_EQ(prov.sets, 1);
    EXPECT_EQ(ctx->setIndex, OID("0"));
    EXPECT_EQ(ctx->searchOid, OID("1.3.6.1.2.1.1.5"));
    EXPECT_TRUE(ctx->objectName.empty());
    EXPECT_EQ(written(), nameAndValue(OID("1.3.6.1.2.1.1.5.0"), [](OutStream& o) { o.add(std::string("new"), 4); }));

    // Without the instance arc, with a wrong type, or refused by the platform:
    // still success, showing the record as it stands.
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.1.5"), valueBytes({0x02, 0x01, 0x05})), 0u);
    EXPECT_EQ(prov.rec.text, "\x05");  // any tag is read as a string
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.1.5.7.7"), valueBytes({0x04, 0x08, 'x'})), 0u);
    EXPECT_EQ(written(), nameAndValue(OID("1.3.6.1.2.1.1.5.7.7"), [](OutStream& o) { o.add(std::string("\x05"), 4); }));
    prov.accept = false;
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.1.5.0"), valueBytes({0x04, 0x01, 'z'})), 0u);
    EXPECT_EQ(prov.rec.text, "z");
    testing::internal::GetCapturedStderr();

    // A constant accepts every set and answers its constant.
    addScalarConstNumLeaf(OID("1.3.6.1.2.1.1.7"), 72, 2);
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.1.7.0"), valueBytes({0x02, 0x01, 0x01})), 0u);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(written(), nameAndValue(OID("1.3.6.1.2.1.1.7.0"), [](OutStream& o) { o.add(72, 2); }));
}

TEST_F(Registry, SetSearchAndColumns) {
    TestTable table;
    Rec r1;
    r1.num = 1;
    table.rows[OID("3")] = &r1;
    addColumnarLeaf(OID("1.3.6.1.2.1.2.2.1.7"), new DataNumPacker(&Rec::num, 2), &table);

    testing::internal::CaptureStderr();
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.2.2.1.7.3"), valueBytes({0x02, 0x01, 0x02})), 0u);
    EXPECT_EQ(r1.num, 2);
    EXPECT_EQ(table.sets, 1);
    EXPECT_EQ(ctx->setIndex, OID("3"));
    EXPECT_EQ(written(), nameAndValue(OID("1.3.6.1.2.1.2.2.1.7.3"), [](OutStream& o) { o.add(2, 2); }));

    // Missing row, no row index, wrong type (accepted, value unchanged).
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.2.2.1.7.4"), valueBytes({0x02, 0x01, 0x02})), 2u);
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.2.2.1.7"), valueBytes({0x02, 0x01, 0x02})), 2u);
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.2.2.1.7.3"), valueBytes({0x02, 0x07, 0x02})), 0u);
    EXPECT_EQ(r1.num, 2);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.find("snmpSet found 1.3.6.1.2.1.2.2.1.7\n"), 0u);

    // No registered prefix at all: every arc ends in setIndex.
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(snmpSet, OID("1.3.6.1.2.1.2.2.1.8.3")), 2u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(ctx->searchOid.empty());
    EXPECT_EQ(ctx->setIndex, OID("1.3.6.1.2.1.2.2.1.8.3"));
    EXPECT_EQ(run(snmpSet, OID()), 2u);
}

TEST_F(Registry, HostileNamesStayCheap) {
    addScalarConstNumLeaf(OID("1.3.6.1.2.1.1.7"), 72, 2);
    std::vector<uint32_t> arcs(30000, 1);
    OID longName(arcs);
    EXPECT_EQ(run(snmpSet, longName), 2u);
    EXPECT_EQ(ctx->setIndex, longName);
    EXPECT_EQ(run(snmpGet, longName), 2u);
    EXPECT_EQ(run(snmpGetNext, longName), 0u);
    EXPECT_EQ(ctx->objectName, OID("1.3.6.1.2.1.1.7.0"));
}

TEST_F(Registry, GetBulkRepeatsGetNext) {
    TestTable table;
    Rec r1, r2;
    r1.num = 1;
    r2.num = 2;
    table.rows[OID("1")] = &r1;
    table.rows[OID("2")] = &r2;
    addColumnarLeaf(OID("1.3.6.1.2.1.2.2.1.1"), new DataNumPacker(&Rec::num, 2), &table);

    ctx.reset(new Context(nullptr, 0));
    ctx->oid = OID("1.3.6.1.2.1.2.2.1.1");
    ctx->maxRepetitions = 2;
    ctx->out.startSeq(0x30);  // the caller opened the first varbind
    EXPECT_EQ(snmpGetBulk(*ctx), 0u);
    ctx->out.endSeq();  // and closes the last
    OutStream expect;
    expect.startSeq(0x30);
    expect.addOID(OID("1.3.6.1.2.1.2.2.1.1.1"), 6);
    expect.add(1, 2);
    expect.endSeq();
    expect.startSeq(0x30);
    expect.addOID(OID("1.3.6.1.2.1.2.2.1.1.2"), 6);
    expect.add(2, 2);
    expect.endSeq();
    EXPECT_EQ(written(), expect.data);

    ctx.reset(new Context(nullptr, 0));
    ctx->oid = OID("1.3.6.1.2.1.2.2.1.1.1");
    ctx->maxRepetitions = 5;
    testing::internal::CaptureStderr();
    EXPECT_EQ(snmpGetBulk(*ctx), 2u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error 2\n");

    ctx.reset(new Context(nullptr, 0));
    ctx->maxRepetitions = 0;
    EXPECT_EQ(snmpGetBulk(*ctx), 0u);
    EXPECT_TRUE(written().empty());
}
