// Tables over scripted providers: index keys, ordering, the provider hooks,
// and the multiplexed and augmenting views.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mib/packer.h"
#include "mib/tables.h"

namespace {

struct IfRow : Data {
    int ifIndex = 0;
    std::string name;
    IfRow() = default;
    IfRow(int i, std::string n) : ifIndex(i), name(std::move(n)) {}
};

// A provider whose rows the test sets; it pushes them on every update.
class ListProvider : public TableProvider {
public:
    std::vector<Data*> rows;
    std::vector<TableProviderClient*> clients;
    int updates = 0;
    int sets = 0;
    bool canCount = false;
    bool pushes = true;  // false: rows change only by direct calls on the table
    unsigned int countAnswer = 0;

    unsigned int setData(Data*) override {
        ++sets;
        return 1;
    }
    void subscribe(TableProviderClient* c) override { clients.push_back(c); }
    void updateTables() override {
        ++updates;
        if (!pushes) return;
        for (TableProviderClient* c : clients) {
            c->clear();
            for (Data* d : rows) c->change(d);
        }
    }
    bool getCountCMD(unsigned int& n) override {
        if (!canCount) return false;
        n = countAnswer;
        return true;
    }
};

class IfTable : public ::testing::Test {
protected:
    ListProvider provider;
    MapTable table{&provider};
    DataNumPacker indexPacker{static_cast<int Data::*>(&IfRow::ifIndex), 2};
    DataStringPacker namePacker{static_cast<std::string Data::*>(&IfRow::name), 4, 0};
    IfRow eth1{5, "eth1"}, lo{5, "lo"}, eth2{5, "eth2"}, wan{12, "wan0"};

    void SetUp() override {
        table.addIndex(&indexPacker);
        table.addIndex(&namePacker);
    }
};

TEST_F(IfTable, SubscribesToItsProviderOnConstruction) {
    ASSERT_EQ(provider.clients.size(), 1u);
    EXPECT_EQ(provider.clients[0], static_cast<TableProviderClient*>(&table));
}

TEST_F(IfTable, KeyIsConcatenationOfIndexColumns) {
    EXPECT_EQ(table.getKey(&eth1), OID({5, 4, 101, 116, 104, 49}));
    IfRow parsed;
    table.storeKey(&parsed, OID({12, 4, 119, 97, 110, 48}));
    EXPECT_EQ(parsed.ifIndex, 12);
    EXPECT_EQ(parsed.name, "wan0");
}

TEST_F(IfTable, GetNextWalksRowsInIndexOrder) {
    provider.rows = {&wan, &eth2, &eth1, &lo};
    // The length prefix sorts the short name first.
    std::vector<Data*> order;
    OID at;
    for (int guard = 0; guard < 10; ++guard) {
        std::pair<OID, Data*> next = table.getNext(at);
        if (!next.second) {
            EXPECT_TRUE(next.first.empty());
            break;
        }
        EXPECT_EQ(next.first, table.getKey(next.second));
        order.push_back(next.second);
        at = next.first;
    }
    EXPECT_EQ(order, (std::vector<Data*>{&lo, &eth1, &eth2, &wan}));

    std::pair<OID, Data*> r = table.getNext(OID({5, 3}));
    EXPECT_EQ(r.second, &eth1);  // 5.3 is before 5.4.e.t.h.1
    EXPECT_EQ(r.first, OID({5, 4, 101, 116, 104, 49}));
    EXPECT_EQ(table.getNext(OID({5, 4, 101, 116, 104, 49})).second, &eth2);
    EXPECT_EQ(table.getNext(OID({5})).second, &lo);
    EXPECT_EQ(table.getNext(OID({12, 4, 119, 97, 110, 48})).second, nullptr);
    EXPECT_EQ(table.getNext(OID({4000000000u})).second, nullptr);  // unsigned arc order
}

TEST_F(IfTable, GetIsExactAndRefreshesThroughProvider) {
    provider.rows = {&eth1, &wan};
    EXPECT_EQ(table.get(OID({5, 4, 101, 116, 104, 49})), &eth1);
    EXPECT_EQ(table.get(OID({5, 4, 101, 116, 104})), nullptr);
    EXPECT_EQ(table.get(OID({5})), nullptr);
    EXPECT_EQ(provider.updates, 3);
    // Rows come and go with what the provider delivers.
    provider.rows = {&wan};
    EXPECT_EQ(table.get(OID({5, 4, 101, 116, 104, 49})), nullptr);
}

TEST_F(IfTable, LaterChangeWinsAndRemoveOfEitherErases) {
    provider.pushes = false;
    IfRow again{5, "eth1"};
    table.change(&eth1);
    table.change(&again);
    table.change(&wan);
    EXPECT_EQ(table.get(OID({5, 4, 101, 116, 104, 49})), &again);
    EXPECT_EQ(table.count(), 2u);
    table.remove(&eth1);
    EXPECT_EQ(table.get(OID({5, 4, 101, 116, 104, 49})), nullptr);
    EXPECT_EQ(table.count(), 1u);
    table.remove(&again);  // already gone: harmless
    EXPECT_EQ(table.count(), 1u);
    table.clear();
    EXPECT_EQ(table.count(), 0u);
    EXPECT_EQ(eth1.name, "eth1");  // records are never touched or freed
    EXPECT_EQ(again.name, "eth1");
}

TEST_F(IfTable, CountByCommandDoesNotLoadRows) {
    provider.rows = {&eth1, &wan};
    provider.canCount = true;
    provider.countAnswer = 42;
    EXPECT_EQ(table.count(), 42u);
    EXPECT_EQ(provider.updates, 0);
    provider.canCount = false;
    EXPECT_EQ(table.count(), 2u);
    EXPECT_EQ(provider.updates, 1);
}

TEST_F(IfTable, SetHandsRecordToProviderAndReportsZero) {
    EXPECT_EQ(table.set(OID({1}), &eth1), 0u);
    EXPECT_EQ(provider.sets, 1);
}

TEST(MapTableKeys, FixedLengthKeyOfWrongLengthContributesNothing) {
    struct Port : Data {
        std::vector<unsigned char> mac;
        int port = 0;
    };
    ListProvider provider;
    MapTable table(&provider);
    DataRawPacker macPacker(static_cast<std::vector<unsigned char> Data::*>(&Port::mac), 4, 6);
    DataNumPacker portPacker(static_cast<int Data::*>(&Port::port), 2);
    table.addIndex(&macPacker);
    table.addIndex(&portPacker);
    Port good, bad;
    good.mac = {2, 0x11, 0x22, 0x33, 0x44, 0x55};
    good.port = 3;
    bad.mac = {1, 2, 3, 4, 5};
    bad.port = 9;
    EXPECT_EQ(table.getKey(&good), OID({2, 17, 34, 51, 68, 85, 3}));
    testing::internal::CaptureStderr();
    EXPECT_EQ(table.getKey(&bad), OID({9}));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "inconsistent key length\n");
}

// ---- StaticMuxTable

class FixedProvider : public DataProvider {
public:
    Data* record;
    unsigned int setResult;
    int gets = 0;
    Data* lastSet = nullptr;
    FixedProvider(Data* r, unsigned int s = 1) : record(r), setResult(s) {}
    Data* get() override {
        ++gets;
        return record;
    }
    unsigned int set(Data* d) override {
        lastSet = d;
        return setResult;
    }
};

TEST(StaticMuxTableTest, RowWithoutRecordEndsTheColumn) {
    IfRow r2{2, "two"};
    FixedProvider p1(nullptr), p2(&r2);
    StaticMuxTable t;
    t.addProvider(OID({1}), &p1);
    t.addProvider(OID({2}), &p2);

    std::pair<OID, Data*> first = t.getNext(OID());
    EXPECT_EQ(first.first, OID({1}));
    EXPECT_EQ(first.second, nullptr);  // the walk stops although row 2 exists
    EXPECT_EQ(p2.gets, 0);
    EXPECT_EQ(t.getNext(OID({1})), std::make_pair(OID({2}), static_cast<Data*>(&r2)));
    EXPECT_EQ(t.getNext(OID({2})).second, nullptr);
    EXPECT_EQ(t.get(OID({2})), &r2);
    EXPECT_EQ(t.get(OID({1})), nullptr);
    EXPECT_EQ(t.get(OID({3})), nullptr);
    EXPECT_EQ(t.count(), 2u);
}

TEST(StaticMuxTableTest, SetReachesOnlyTheRowsProvider) {
    IfRow r{1, "one"};
    FixedProvider p1(&r, 1), p2(&r, 0);
    StaticMuxTable t;
    t.addProvider(OID({1}), &p1);
    t.addProvider(OID({2}), &p2);
    EXPECT_EQ(t.set(OID({1}), &r), 1u);
    EXPECT_EQ(p1.lastSet, &r);
    EXPECT_EQ(p2.lastSet, nullptr);
    EXPECT_EQ(t.set(OID({2}), &r), 0u);
    EXPECT_EQ(t.set(OID({7}), &r), 0u);

    FixedProvider replacement(&r, 1);
    t.addProvider(OID({2}), &replacement);
    EXPECT_EQ(t.set(OID({2}), &r), 1u);
    EXPECT_EQ(t.count(), 2u);
}

// ---- AugmentProxyTable

struct Extra : Data {
    OID index;
    IfRow* base = nullptr;
};

class NameExtras : public AugmentProxyTable {
public:
    using AugmentProxyTable::AugmentProxyTable;
    std::vector<Extra*> made;
    ~NameExtras() override {
        for (Extra* e : made) delete e;
    }
    Data* augment(OID const& index, Data* row) override {
        Extra* e = new Extra;
        e->index = index;
        e->base = static_cast<IfRow*>(row);
        made.push_back(e);
        return e;
    }
};

TEST(AugmentProxyTableTest, PairsBaseRowsWithCompanionsAndRefusesSets) {
    IfRow r1{1, "a"}, r3{3, "c"};
    FixedProvider p1(&r1), p2(nullptr), p3(&r3);
    StaticMuxTable base;
    base.addProvider(OID({1}), &p1);
    base.addProvider(OID({3}), &p3);
    NameExtras view(&base);

    Extra* e = static_cast<Extra*>(view.get(OID({3})));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->index, OID({3}));
    EXPECT_EQ(e->base, &r3);
    EXPECT_EQ(view.get(OID({2})), nullptr);
    EXPECT_EQ(view.made.size(), 1u);  // no companion for a missing base row

    std::pair<OID, Data*> n = view.getNext(OID({1}));
    EXPECT_EQ(n.first, OID({3}));
    ASSERT_NE(n.second, nullptr);
    EXPECT_EQ(static_cast<Extra*>(n.second)->base, &r3);
    EXPECT_EQ(view.getNext(OID({3})).second, nullptr);

    base.addProvider(OID({2}), &p2);
    std::pair<OID, Data*> hole = view.getNext(OID({1}));
    EXPECT_EQ(hole.first, OID({2}));
    EXPECT_EQ(hole.second, nullptr);
    EXPECT_EQ(view.made.size(), 2u);

    EXPECT_EQ(view.set(OID({1}), &r1), 0u);
    EXPECT_EQ(p1.lastSet, nullptr);
    EXPECT_EQ(view.count(), 3u);
}

}  // namespace
