// The built-in modules registered in start-up order over the router fixture,
// read and written through whole SNMP requests (createReply).
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent/community_keep.h"
#include "agent/traps.h"
#include "mib/leaf.h"
#include "modules/host_resources.h"
#include "modules/modules.h"
#include "platform/fixture_backend.h"
#include "request/context.h"
#include "tn/looper.h"

namespace {

// ---------------------------------------------------------------- BER, test side

std::string length(size_t n) {
    if (n < 0x80) return std::string(1, char(n));
    std::string b;
    while (n) {
        b.insert(b.begin(), char(n & 0xff));
        n >>= 8;
    }
    return std::string(1, char(0x80 | b.size())) + b;
}

std::string tlv(unsigned char tag, std::string const& v) { return std::string(1, char(tag)) + length(v.size()) + v; }

std::string berInt(long long v) {
    std::string b;
    do {
        b.insert(b.begin(), char(v & 0xff));
        v >>= 8;
    } while (!((v == 0 && !(b[0] & 0x80)) || (v == -1 && (b[0] & 0x80))));
    return tlv(2, b);
}

std::string berOid(OID const& oid) {
    std::string b(1, char(oid[0] * 40 + oid[1]));
    for (size_t i = 2; i < oid.size(); ++i) {
        std::string arc;
        uint32_t a = oid[i];
        arc.insert(arc.begin(), char(a & 0x7f));
        while (a >>= 7) arc.insert(arc.begin(), char(0x80 | (a & 0x7f)));
        b += arc;
    }
    return tlv(6, b);
}

struct Tlv {
    unsigned char tag = 0;
    std::string value;
};

bool readTlv(std::string const& s, size_t& pos, Tlv& out) {
    if (pos + 2 > s.size()) return false;
    out.tag = static_cast<unsigned char>(s[pos++]);
    size_t n = static_cast<unsigned char>(s[pos++]);
    if (n & 0x80) {
        size_t k = n & 0x7f;
        n = 0;
        while (k--) {
            if (pos >= s.size()) return false;
            n = (n << 8) | static_cast<unsigned char>(s[pos++]);
        }
    }
    if (pos + n > s.size()) return false;
    out.value = s.substr(pos, n);
    pos += n;
    return true;
}

std::vector<Tlv> children(std::string const& s) {
    std::vector<Tlv> out;
    size_t pos = 0;
    Tlv t;
    while (pos < s.size() && readTlv(s, pos, t)) out.push_back(t);
    return out;
}

long long asInt(Tlv const& t) {
    if (t.value.empty() || t.value.size() > 8) return 0;
    unsigned long long v = static_cast<signed char>(t.value[0]) < 0 ? ~0ull : 0;
    for (char c : t.value) v = (v << 8) | static_cast<unsigned char>(c);
    return static_cast<long long>(v);
}

unsigned long long asU64(Tlv const& t) {
    unsigned long long v = 0;
    for (char c : t.value) v = (v << 8) | static_cast<unsigned char>(c);
    return v;
}

OID asOid(Tlv const& t) {
    OID oid;
    if (t.value.empty()) return oid;
    unsigned char first = static_cast<unsigned char>(t.value[0]);
    oid += first / 40;
    oid += first % 40;
    uint32_t arc = 0;
    for (size_t i = 1; i < t.value.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(t.value[i]);
        arc = (arc << 7) | (c & 0x7f);
        if (!(c & 0x80)) {
            oid += arc;
            arc = 0;
        }
    }
    return oid;
}

std::string hex(std::string const& s) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (char c : s) {
        out += digits[static_cast<unsigned char>(c) >> 4];
        out += digits[static_cast<unsigned char>(c) & 15];
    }
    return out;
}

// ---------------------------------------------------------------- requests

const char* kCommunity = "kestrel-rw";
const unsigned char PDU_GET = 0xA0, PDU_GETNEXT = 0xA1, PDU_SET = 0xA3;

struct Answer {
    bool replied = false;
    long long errorStatus = -1;
    OID name;
    Tlv value;
};

Answer ask(unsigned char pdu, OID const& name, std::string const& value = tlv(5, "")) {
    static int requestId = 1;
    std::string varbind = tlv(0x30, berOid(name) + value);
    std::string body = berInt(requestId++) + berInt(0) + berInt(0) + tlv(0x30, varbind);
    std::string msg = tlv(0x30, berInt(1) + tlv(4, kCommunity) + tlv(pdu, body));
    Context ctx(reinterpret_cast<unsigned char const*>(msg.data()), msg.size());
    Answer a;
    a.replied = createReply(ctx, 0x7F000001) != 0;
    if (!a.replied) return a;
    std::string reply(ctx.out.data.begin(), ctx.out.data.end());
    std::vector<Tlv> top = children(reply);
    if (top.size() != 1) return a;
    std::vector<Tlv> parts = children(top[0].value);
    if (parts.size() != 3 || parts[2].tag != 0xA2) return a;
    std::vector<Tlv> fields = children(parts[2].value);
    if (fields.size() != 4) return a;
    a.errorStatus = asInt(fields[1]);
    std::vector<Tlv> vbs = children(fields[3].value);
    if (vbs.size() != 1) return a;
    std::vector<Tlv> vb = children(vbs[0].value);
    if (vb.size() != 2) return a;
    a.name = asOid(vb[0]);
    a.value = vb[1];
    return a;
}

typedef std::map<OID, Tlv, tree_node_comp<OID>> Walk;

Walk walk(OID const& from, OID const& within) {
    Walk out;
    OID at = from;
    for (int step = 0; step < 5000; ++step) {
        Answer a = ask(PDU_GETNEXT, at);
        if (!a.replied || a.errorStatus != 0) break;
        EXPECT_TRUE(tree_node_comp<OID>()(at, a.name)) << "walk went back from " << at << " to " << a.name;
        if (!tree_node_comp<OID>()(at, a.name)) break;
        if (a.name.size() < within.size() ||
            !std::equal(within.arcs().begin(), within.arcs().end(), a.name.arcs().begin()))
            break;
        out[a.name] = a.value;
        at = a.name;
    }
    return out;
}

// The instance suffixes of one column, in walk order.
std::vector<OID> instances(Walk const& w, OID const& column) {
    std::vector<OID> out;
    for (auto const& e : w) {
        OID const& n = e.first;
        if (n.size() > column.size() && std::equal(column.arcs().begin(), column.arcs().end(), n.arcs().begin()))
            out.push_back(OID(std::vector<uint32_t>(n.arcs().begin() + column.size(), n.arcs().end())));
    }
    return out;
}

std::string tmpDir() {
    char tmpl[] = "/tmp/kestrel-modules-XXXXXX";
    char* d = mkdtemp(tmpl);
    return d ? d : "/tmp";
}

// One agent's worth of modules for the whole program, as main builds it.
class Agent : public ::testing::Environment {
public:
    void SetUp() override {
        looper = new tn::Looper;
        tn::setLooper(looper);
        std::string err;
        ASSERT_TRUE(backend.load(*looper, std::string(KESTREL_SOURCE_DIR) + "/examples/fixtures/router.json", &err))
            << err;
        dir = tmpDir();
        communityKeep = new CommunityKeep(dir + "/communities");
        communityKeep->init();
        CommunityKeep::Item* item = new CommunityKeep::Item;
        item->id = 1;
        item->name = kCommunity;
        item->readAccess = true;
        item->writeAccess = true;
        communityKeep->items().push_back(item);

        registerSystemModule();
        registerIpModule();
        registerBridgeModule(OID("1.3.6.1.2.1.17"));
        registerInterfacesModule();
        registerHealthModule();
    }
    void TearDown() override {
        std::string cmd = "rm -rf '" + dir + "'";
        if (system(cmd.c_str()) != 0) std::cerr << "could not remove " << dir << std::endl;
    }

    static std::vector<tn::message> recordedTo(tn::u32_vector const& path) {
        std::vector<tn::message> out;
        for (tn::message const& m : backend.recorded())
            if (m.get(tn::u32_array_id(0x88ff0001)) == path) out.push_back(m);
        return out;
    }

    static tn::Looper* looper;
    static FixtureBackend backend;
    std::string dir;
};

tn::Looper* Agent::looper = nullptr;
FixtureBackend Agent::backend;

::testing::Environment* const agent = ::testing::AddGlobalTestEnvironment(new Agent);

void expectInt(Walk const& w, std::string const& name, unsigned char tag, long long value) {
    auto it = w.find(OID(name));
    ASSERT_NE(it, w.end()) << name << " missing";
    EXPECT_EQ(it->second.tag, tag) << name;
    EXPECT_EQ(asInt(it->second), value) << name;
}

void expectString(Walk const& w, std::string const& name, std::string const& value) {
    auto it = w.find(OID(name));
    ASSERT_NE(it, w.end()) << name << " missing";
    EXPECT_EQ(it->second.tag, 4) << name;
    EXPECT_EQ(it->second.value, value) << name;
}

void expectIp(Walk const& w, std::string const& name, std::string const& dotted) {
    auto it = w.find(OID(name));
    ASSERT_NE(it, w.end()) << name << " missing";
    EXPECT_EQ(it->second.tag, 0x40) << name;
    OID quad(dotted);
    std::string b;
    for (size_t i = 0; i < quad.size(); ++i) b += char(quad[i]);
    EXPECT_EQ(it->second.value, b) << name;
}

std::vector<OID> oids(std::initializer_list<const char*> list) {
    std::vector<OID> out;
    for (const char* s : list) out.push_back(OID(s));
    return out;
}

// Keys other than the bus's own header fields (command, paths, sequence).
std::vector<uint32_t> valueKeys(tn::message const& m) {
    std::vector<uint32_t> out;
    for (uint32_t k : m.keys())
        if ((k & 0xFF0000) != 0xFF0000) out.push_back(k);
    return out;
}

// ---------------------------------------------------------------- health first: it registers lazily

TEST(HealthWalk, NumericObjectsAppearOnceThePlatformReportsThem) {
    OID root("1.3.6.1.4.1.48291.1.1.3");
    ASSERT_EQ(leafs.count(root + 8), 0u) << "an earlier test fetched the health record";
    testing::internal::CaptureStdout();
    Walk first = walk(root, root);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(instances(first, root), oids({"9.0", "10.0", "11.0"}));
    EXPECT_NE(out.find("+ voltage\n+ temperature\n+ cpu temperature\n"), std::string::npos) << out;
    expectString(first, "1.3.6.1.4.1.48291.1.1.3.9.0", "main");

    Walk second = walk(root, root);
    EXPECT_EQ(instances(second, root), oids({"8.0", "9.0", "10.0", "11.0"}));
    expectInt(second, "1.3.6.1.4.1.48291.1.1.3.8.0", 2, 121);
    expectInt(second, "1.3.6.1.4.1.48291.1.1.3.10.0", 2, 450);
    expectInt(second, "1.3.6.1.4.1.48291.1.1.3.11.0", 2, 520);
}

// ---------------------------------------------------------------- system

TEST(SystemWalk, GroupValuesAndInstances) {
    OID root("1.3.6.1.2.1.1");
    Walk w = walk(root, root);
    EXPECT_EQ(instances(w, root), oids({"1.0", "2.0", "3.0", "4.0", "5.0", "6.0", "7.0"}));
    expectString(w, "1.3.6.1.2.1.1.1.0", "router");
    ASSERT_EQ(w[OID("1.3.6.1.2.1.1.2.0")].tag, 6);
    EXPECT_EQ(asOid(w[OID("1.3.6.1.2.1.1.2.0")]), OID("1.3.6.1.4.1.48291.1"));
    expectInt(w, "1.3.6.1.2.1.1.3.0", 0x43, 8640000);
    expectString(w, "1.3.6.1.2.1.1.4.0", "");
    expectString(w, "1.3.6.1.2.1.1.5.0", "kestrel-gw");
    expectString(w, "1.3.6.1.2.1.1.6.0", "");
    expectInt(w, "1.3.6.1.2.1.1.7.0", 2, 78);

    EXPECT_EQ(ask(PDU_GET, OID("1.3.6.1.2.1.1.1")).errorStatus, 2);
    EXPECT_EQ(ask(PDU_GET, OID("1.3.6.1.2.1.1.7.1")).errorStatus, 2);
    Answer a = ask(PDU_GET, OID("1.3.6.1.2.1.1.7.0"));
    EXPECT_EQ(a.errorStatus, 0);
    EXPECT_EQ(asInt(a.value), 78);
}

TEST(SystemWalk, SoftwareScriptsAndControl) {
    OID root("1.3.6.1.4.1.48291.1.1");
    Walk w = walk(OID("1.3.6.1.4.1.48291.1.1.4"), root);
    expectString(w, "1.3.6.1.4.1.48291.1.1.4.1.0", "kestrel router software 1.4");
    ASSERT_EQ(w.count(OID("1.3.6.1.4.1.48291.1.1.4.2.0")), 1u);
    EXPECT_EQ(w[OID("1.3.6.1.4.1.48291.1.1.4.2.0")].value.size(), 8u);
    expectInt(w, "1.3.6.1.4.1.48291.1.1.4.3.0", 2, 104);
    ASSERT_EQ(w.count(OID("1.3.6.1.4.1.48291.1.1.4.4.0")), 1u);
    EXPECT_FALSE(w[OID("1.3.6.1.4.1.48291.1.1.4.4.0")].value.empty());
    expectInt(w, "1.3.6.1.4.1.48291.1.1.4.5.0", 2, 42);
    expectInt(w, "1.3.6.1.4.1.48291.1.1.7.1.0", 2, 0);
    EXPECT_EQ(instances(w, OID("1.3.6.1.4.1.48291.1.1.8.1.1")), oids({"2.7", "2.9", "3.7", "3.9"}));
    expectString(w, "1.3.6.1.4.1.48291.1.1.8.1.1.2.7", "backup");
    expectInt(w, "1.3.6.1.4.1.48291.1.1.8.1.1.3.9", 2, 0);
    EXPECT_EQ(instances(w, OID("1.3.6.1.4.1.48291.1.1.11.1.1")),
              oids({"2.31", "2.32", "3.31", "3.32", "4.31", "4.32", "5.31", "5.32", "6.31", "6.32", "7.31",
                    "7.32"}));
    expectIp(w, "1.3.6.1.4.1.48291.1.1.11.1.1.2.31", "192.168.88.10");
    EXPECT_EQ(hex(w[OID("1.3.6.1.4.1.48291.1.1.11.1.1.3.31")].value), "02aabbcc0010");
    expectString(w, "1.3.6.1.4.1.48291.1.1.11.1.1.4.31", "laptop");
    expectString(w, "1.3.6.1.4.1.48291.1.1.11.1.1.5.31", "bridge-lan");
    expectString(w, "1.3.6.1.4.1.48291.1.1.11.1.1.6.31", "dhcp");
    expectString(w, "1.3.6.1.4.1.48291.1.1.11.1.1.7.31", "3d2h");
    expectString(w, "1.3.6.1.4.1.48291.1.1.11.1.1.5.32", "");
    // Software stamp: the same on every read.
    EXPECT_EQ(ask(PDU_GET, OID("1.3.6.1.4.1.48291.1.1.4.2.0")).value.value,
              w[OID("1.3.6.1.4.1.48291.1.1.4.2.0")].value);
}

TEST(HostResourcesWalk, StorageDeviceAndDate) {
    OID root("1.3.6.1.2.1.25");
    Walk w = walk(root, root);
    expectInt(w, "1.3.6.1.2.1.25.1.1.0", 0x43, 8640000);
    auto date = w.find(OID("1.3.6.1.2.1.25.1.2.0"));
    ASSERT_NE(date, w.end());
    ASSERT_EQ(date->second.value.size(), 11u);
    EXPECT_EQ(hex(date->second.value.substr(8)), "2d0500");  // '-', 5, 0
    expectInt(w, "1.3.6.1.2.1.25.2.2.0", 2, 262144);
    OID storage("1.3.6.1.2.1.25.2.3.1");
    EXPECT_EQ(instances(w, storage + 1), oids({"1", "2"}));
    EXPECT_EQ(asOid(w[storage + OID("2.1")]), OID("1.3.6.1.2.1.25.2.1.4"));
    EXPECT_EQ(asOid(w[storage + OID("2.2")]), OID("1.3.6.1.2.1.25.2.1.1"));
    expectString(w, "1.3.6.1.2.1.25.2.3.1.3.1", "disk");
    expectString(w, "1.3.6.1.2.1.25.2.3.1.3.2", "main memory");
    expectInt(w, "1.3.6.1.2.1.25.2.3.1.4.1", 2, 1024);
    expectInt(w, "1.3.6.1.2.1.25.2.3.1.4.2", 2, 1024);
    expectInt(w, "1.3.6.1.2.1.25.2.3.1.5.1", 2, 131072);
    expectInt(w, "1.3.6.1.2.1.25.2.3.1.6.1", 2, 32768);
    expectInt(w, "1.3.6.1.2.1.25.2.3.1.5.2", 2, 262144);
    expectInt(w, "1.3.6.1.2.1.25.2.3.1.6.2", 2, 131072);
    expectInt(w, "1.3.6.1.2.1.25.2.3.1.7.2", 0x41, 0);
    expectInt(w, "1.3.6.1.2.1.25.3.2.1.1.1", 2, 1);
    EXPECT_EQ(asOid(w[OID("1.3.6.1.2.1.25.3.2.1.2.1")]), OID("1.3.6.1.2.1.25.3.1.3"));
    expectInt(w, "1.3.6.1.2.1.25.3.3.1.2.1", 2, 12);
    EXPECT_EQ(instances(w, OID("1.3.6.1.2.1.25.3")), oids({"2.1.1.1", "2.1.2.1", "3.1.2.1"}));
}

// ---------------------------------------------------------------- interfaces

TEST(InterfacesWalk, TablesCountersAndTypes) {
    OID ifTable("1.3.6.1.2.1.2");
    Walk w = walk(ifTable, ifTable);
    expectInt(w, "1.3.6.1.2.1.2.1.0", 2, 9);
    OID entry("1.3.6.1.2.1.2.2.1");
    EXPECT_EQ(instances(w, entry + 1), oids({"1", "2", "3", "4", "5", "6", "7", "8", "9"}));
    for (unsigned col = 1; col <= 21; ++col) EXPECT_EQ(instances(w, entry + col).size(), 9u) << "column " << col;
    expectInt(w, "1.3.6.1.2.1.2.2.1.1.4", 2, 4);
    expectString(w, "1.3.6.1.2.1.2.2.1.2.4", "vlan10");
    expectInt(w, "1.3.6.1.2.1.2.2.1.3.1", 2, 6);
    expectInt(w, "1.3.6.1.2.1.2.2.1.3.4", 2, 135);
    expectInt(w, "1.3.6.1.2.1.2.2.1.3.5", 2, 209);
    expectInt(w, "1.3.6.1.2.1.2.2.1.3.7", 2, 188);
    expectInt(w, "1.3.6.1.2.1.2.2.1.4.4", 2, 1496);
    // Gauge32 of 1e9 and above fits the signed encoder; the walk reads it back.
    expectInt(w, "1.3.6.1.2.1.2.2.1.5.1", 0x42, 1000000000);
    expectInt(w, "1.3.6.1.2.1.2.2.1.5.2", 0x42, 100000000);
    expectInt(w, "1.3.6.1.2.1.2.2.1.5.3", 0x42, 10000000);
    expectInt(w, "1.3.6.1.2.1.2.2.1.5.4", 0x42, 1000000000);
    expectInt(w, "1.3.6.1.2.1.2.2.1.5.8", 0x42, 11000000);
    EXPECT_EQ(hex(w[entry + OID("6.1")].value), "020000000001");
    EXPECT_EQ(w[entry + OID("6.7")].value, "");
    expectInt(w, "1.3.6.1.2.1.2.2.1.7.1", 2, 1);
    expectInt(w, "1.3.6.1.2.1.2.2.1.7.3", 2, 2);
    expectInt(w, "1.3.6.1.2.1.2.2.1.8.1", 2, 1);
    expectInt(w, "1.3.6.1.2.1.2.2.1.8.2", 2, 2);
    expectInt(w, "1.3.6.1.2.1.2.2.1.9.1", 0x43, 0);
    expectInt(w, "1.3.6.1.2.1.2.2.1.10.1", 0x41, 5);
    expectInt(w, "1.3.6.1.2.1.2.2.1.11.1", 0x41, 1000);
    expectInt(w, "1.3.6.1.2.1.2.2.1.13.1", 0x41, 5);
    expectInt(w, "1.3.6.1.2.1.2.2.1.14.1", 0x41, 3);
    expectInt(w, "1.3.6.1.2.1.2.2.1.16.1", 0x41, 123456789);
    expectInt(w, "1.3.6.1.2.1.2.2.1.17.1", 0x41, 2000);
    expectInt(w, "1.3.6.1.2.1.2.2.1.19.1", 0x41, 6);
    expectInt(w, "1.3.6.1.2.1.2.2.1.20.1", 0x41, 4);
    expectInt(w, "1.3.6.1.2.1.2.2.1.10.3", 0x41, 0);  // no counters reported
    expectInt(w, "1.3.6.1.2.1.2.2.1.21.1", 0x42, 0);

    OID xEntry("1.3.6.1.2.1.31.1.1.1");
    Walk x = walk(xEntry, xEntry);
    std::vector<OID> columns;
    for (auto const& e : x) {
        OID col(std::vector<uint32_t>(e.first.arcs().begin(), e.first.arcs().begin() + xEntry.size() + 1));
        if (columns.empty() || columns.back() != col) columns.push_back(col);
    }
    std::vector<OID> expectedCols;
    for (unsigned c : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 15}) expectedCols.push_back(xEntry + c);
    EXPECT_EQ(columns, expectedCols);
    expectString(x, "1.3.6.1.2.1.31.1.1.1.1.5", "bridge-lan");
    ASSERT_EQ(x[xEntry + OID("6.1")].tag, 0x46);
    EXPECT_EQ(asU64(x[xEntry + OID("6.1")]), 4294967301ull);
    EXPECT_EQ(asU64(x[xEntry + OID("10.1")]), 123456789ull);
    EXPECT_EQ(asU64(x[xEntry + OID("7.4")]), 7ull);
    EXPECT_EQ(asU64(x[xEntry + OID("11.4")]), 8ull);
    ASSERT_EQ(x[xEntry + OID("8.1")].tag, 0x46);
    EXPECT_EQ(asU64(x[xEntry + OID("8.1")]), 0ull);
    expectInt(x, "1.3.6.1.2.1.31.1.1.1.15.1", 0x42, 0);
}

TEST(InterfacesWalk, LinkSnapshotAndSubscriptionEntry) {
    // Interface 9 has bit 0x80 of field 0x10002 set and is not remembered.
    EXPECT_EQ(linkStates.count(9), 0u);
    ASSERT_EQ(linkStates.count(1), 1u);
    EXPECT_EQ(linkStates.at(1), 0x100u);  // 0x500 masked with 0x10103
    EXPECT_EQ(linkStates.at(3), 0x0u);
    EXPECT_EQ(linkStates.size(), 8u);
}

// ---------------------------------------------------------------- IP group

TEST(IpWalk, ScalarsAddressesAndArp) {
    expectInt(walk(OID("1.3.6.1.2.1.4.1"), OID("1.3.6.1.2.1.4.1")), "1.3.6.1.2.1.4.1.0", 2, 1);
    Answer ttl = ask(PDU_GET, OID("1.3.6.1.2.1.4.2.0"));
    EXPECT_EQ(asInt(ttl.value), 255);

    OID addr("1.3.6.1.2.1.4.20.1");
    Walk w = walk(addr, addr);
    EXPECT_EQ(instances(w, addr + 1), oids({"10.0.0.2", "192.168.88.1"}));
    expectIp(w, "1.3.6.1.2.1.4.20.1.1.10.0.0.2", "10.0.0.2");
    expectInt(w, "1.3.6.1.2.1.4.20.1.2.192.168.88.1", 2, 5);
    expectIp(w, "1.3.6.1.2.1.4.20.1.3.10.0.0.2", "255.255.255.252");
    expectInt(w, "1.3.6.1.2.1.4.20.1.4.10.0.0.2", 2, 1);
    expectInt(w, "1.3.6.1.2.1.4.20.1.5.10.0.0.2", 2, 65535);

    OID arp("1.3.6.1.2.1.4.22.1");
    Walk a = walk(arp, arp);
    EXPECT_EQ(instances(a, arp + 4), oids({"5.192.168.88.10", "5.192.168.88.20", "7.10.0.0.1"}));
    expectInt(a, "1.3.6.1.2.1.4.22.1.1.7.10.0.0.1", 2, 7);
    EXPECT_EQ(hex(a[arp + OID("2.5.192.168.88.20")].value), "02aabbcc0020");
    expectIp(a, "1.3.6.1.2.1.4.22.1.3.5.192.168.88.10", "192.168.88.10");
    expectInt(a, "1.3.6.1.2.1.4.22.1.4.5.192.168.88.10", 2, 3);
    expectInt(a, "1.3.6.1.2.1.4.22.1.4.5.192.168.88.20", 2, 4);
    expectInt(a, "1.3.6.1.2.1.4.22.1.4.7.10.0.0.1", 2, 2);
}

TEST(IpWalk, RouteViews) {
    OID cidr("1.3.6.1.2.1.4.24.4.1");
    Walk c = walk(cidr, cidr);
    std::vector<OID> rows = oids({"0.0.0.0.0.0.0.0.0.10.0.0.1", "0.0.0.0.0.0.0.0.0.10.0.0.5",
                                  "10.20.0.0.255.255.0.0.0.10.0.0.1", "10.30.0.0.255.255.255.0.0.10.0.0.1",
                                  "192.168.88.0.255.255.255.0.0.192.168.88.1"});
    EXPECT_EQ(instances(c, cidr + 1), rows);
    for (unsigned col = 1; col <= 16; ++col) EXPECT_EQ(instances(c, cidr + col), rows) << "column " << col;
    std::string def = ".0.0.0.0.0.0.0.0.0.10.0.0.5";
    expectInt(c, cidr.str().substr(1) + ".5" + def, 2, 2);
    expectInt(c, cidr.str().substr(1) + ".6" + def, 2, 4);
    expectInt(c, cidr.str().substr(1) + ".7" + def, 2, 3);
    expectInt(c, cidr.str().substr(1) + ".11" + def, 2, 1);
    expectInt(c, cidr.str().substr(1) + ".12" + def, 2, -1);
    expectInt(c, cidr.str().substr(1) + ".16" + def, 2, 1);
    EXPECT_EQ(asOid(c[OID(cidr.str().substr(1) + ".9" + def)]), OID("0.0"));
    std::string ospf = ".10.20.0.0.255.255.0.0.0.10.0.0.1";
    expectInt(c, cidr.str().substr(1) + ".6" + ospf, 2, 4);
    expectInt(c, cidr.str().substr(1) + ".7" + ospf, 2, 13);
    std::string other = ".10.30.0.0.255.255.255.0.0.10.0.0.1";
    expectInt(c, cidr.str().substr(1) + ".6" + other, 2, 1);
    expectInt(c, cidr.str().substr(1) + ".7" + other, 2, 1);
    std::string connected = ".192.168.88.0.255.255.255.0.0.192.168.88.1";
    expectInt(c, cidr.str().substr(1) + ".5" + connected, 2, 5);
    expectInt(c, cidr.str().substr(1) + ".6" + connected, 2, 3);
    expectInt(c, cidr.str().substr(1) + ".7" + connected, 2, 2);

    expectInt(walk(OID("1.3.6.1.2.1.4.24.3"), OID("1.3.6.1.2.1.4.24.3")), "1.3.6.1.2.1.4.24.3.0", 0x42, 5);

    OID route("1.3.6.1.2.1.4.21.1");
    Walk r = walk(route, route);
    EXPECT_EQ(instances(r, route + 1), oids({"0.0.0.0", "10.20.0.0", "10.30.0.0", "192.168.88.0"}));
    for (unsigned col = 1; col <= 13; ++col) EXPECT_EQ(instances(r, route + col).size(), 4u) << "column " << col;
    expectIp(r, "1.3.6.1.2.1.4.21.1.7.0.0.0.0", "10.0.0.5");  // the later hop of the shared destination
    expectInt(r, "1.3.6.1.2.1.4.21.1.2.0.0.0.0", 2, 2);
    expectInt(r, "1.3.6.1.2.1.4.21.1.8.0.0.0.0", 2, 4);
    expectInt(r, "1.3.6.1.2.1.4.21.1.9.0.0.0.0", 2, 2);
    expectInt(r, "1.3.6.1.2.1.4.21.1.8.192.168.88.0", 2, 3);
    expectInt(r, "1.3.6.1.2.1.4.21.1.9.192.168.88.0", 2, 1);
    expectIp(r, "1.3.6.1.2.1.4.21.1.11.10.30.0.0", "255.255.255.0");
    expectInt(r, "1.3.6.1.2.1.4.21.1.3.10.20.0.0", 2, 20);
    expectInt(r, "1.3.6.1.2.1.4.21.1.12.10.20.0.0", 2, -1);
    EXPECT_EQ(asOid(r[OID("1.3.6.1.2.1.4.21.1.13.10.20.0.0")]), OID("0.0"));
}

TEST(IpWalk, EnterpriseTrafficTables) {
    OID traffic("1.3.6.1.4.1.48291.1.1.2");
    Walk w = walk(traffic, traffic);
    OID t = traffic + OID("1.1");
    EXPECT_EQ(instances(w, t + 2), oids({"11", "12"}));
    EXPECT_EQ(instances(w, t + 1), std::vector<OID>());
    expectString(w, "1.3.6.1.4.1.48291.1.1.2.1.1.2.11", "office");
    expectIp(w, "1.3.6.1.4.1.48291.1.1.2.1.1.3.11", "192.168.88.0");
    expectIp(w, "1.3.6.1.4.1.48291.1.1.2.1.1.4.11", "192.168.88.255");
    expectIp(w, "1.3.6.1.4.1.48291.1.1.2.1.1.3.12", "0.0.0.0");
    expectIp(w, "1.3.6.1.4.1.48291.1.1.2.1.1.5.11", "10.0.0.1");
    expectIp(w, "1.3.6.1.4.1.48291.1.1.2.1.1.6.11", "10.0.0.2");
    expectInt(w, "1.3.6.1.4.1.48291.1.1.2.1.1.7.11", 2, 3);
    ASSERT_EQ(w[t + OID("8.11")].tag, 0x46);
    EXPECT_EQ(asU64(w[t + OID("8.11")]), 8589934592ull);
    EXPECT_EQ(asU64(w[t + OID("9.11")]), 4096ull);
    expectInt(w, "1.3.6.1.4.1.48291.1.1.2.1.1.10.11", 0x41, 12);
    expectInt(w, "1.3.6.1.4.1.48291.1.1.2.1.1.11.11", 0x41, 34);

    OID tree = traffic + OID("2.1");
    EXPECT_EQ(instances(w, tree + 2), oids({"21", "22"}));
    expectString(w, "1.3.6.1.4.1.48291.1.1.2.2.1.3.21", "");
    expectString(w, "1.3.6.1.4.1.48291.1.1.2.2.1.3.22", "total");
    expectInt(w, "1.3.6.1.4.1.48291.1.1.2.2.1.4.22", 2, 2);
    expectInt(w, "1.3.6.1.4.1.48291.1.1.2.2.1.5.21", 0x41, 10);
    expectInt(w, "1.3.6.1.4.1.48291.1.1.2.2.1.6.21", 0x41, 9);
    EXPECT_EQ(asU64(w[tree + OID("7.21")]), 4294967306ull);
    EXPECT_EQ(instances(w, tree + 8), std::vector<OID>());
}

// ---------------------------------------------------------------- bridge

TEST(BridgeWalk, FirstBridgeAndItsForwardingDatabase) {
    OID root("1.3.6.1.2.1.17");
    testing::internal::CaptureStderr();
    Walk w = walk(root, root);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(hex(w[OID("1.3.6.1.2.1.17.1.1.0")].value), "02000000aa01");
    expectInt(w, "1.3.6.1.2.1.17.2.1.0", 2, 3);
    expectInt(w, "1.3.6.1.2.1.17.2.2.0", 2, 32768);
    OID fdb("1.3.6.1.2.1.17.4.3.1");
    // Bridge 6's entry is not listed, nor the entry whose address is not six octets long.
    EXPECT_EQ(instances(w, fdb + 1), oids({"2.0.0.0.170.1", "2.0.0.1.2.3"}));
    EXPECT_EQ(hex(w[fdb + OID("1.2.0.0.1.2.3")].value), "020000010203");
    expectInt(w, "1.3.6.1.2.1.17.4.3.1.2.2.0.0.1.2.3", 2, 1);
    expectInt(w, "1.3.6.1.2.1.17.4.3.1.3.2.0.0.1.2.3", 2, 3);
    expectInt(w, "1.3.6.1.2.1.17.4.3.1.2.2.0.0.0.170.1", 2, 3);
    expectInt(w, "1.3.6.1.2.1.17.4.3.1.3.2.0.0.0.170.1", 2, 4);
}

// ---------------------------------------------------------------- sets

TEST(Sets, SysNameGoesToTheIdentityHandler) {
    Answer a = ask(PDU_SET, OID("1.3.6.1.2.1.1.5.0"), tlv(4, "edge-1"));
    EXPECT_EQ(a.errorStatus, 0);
    EXPECT_EQ(a.value.value, "edge-1");
    std::vector<tn::message> sent = Agent::recordedTo({24, 1});
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].get(tn::u32_id(0xff0007)), 0xfe000eu);
    EXPECT_EQ(sent[0].get(tn::string_id(0xc)), "edge-1");
    EXPECT_EQ(valueKeys(sent[0]), std::vector<uint32_t>{tn::string_id(0xc).key});
}

TEST(Sets, RebootOnlyForANonZeroValue) {
    size_t before = Agent::recordedTo({24, 2}).size();
    Answer zero = ask(PDU_SET, OID("1.3.6.1.4.1.48291.1.1.7.1.0"), berInt(0));
    EXPECT_EQ(zero.errorStatus, 0);
    EXPECT_TRUE(Agent::recordedTo({24}).empty());
    std::vector<tn::message> sets = Agent::recordedTo({24, 2});
    ASSERT_EQ(sets.size(), before + 1);
    EXPECT_EQ(sets.back().get(tn::u32_id(0xff0007)), 0xfe000eu);
    EXPECT_TRUE(valueKeys(sets.back()).empty());

    Answer one = ask(PDU_SET, OID("1.3.6.1.4.1.48291.1.1.7.1.0"), berInt(1));
    EXPECT_EQ(one.errorStatus, 0);
    std::vector<tn::message> reboots = Agent::recordedTo({24});
    ASSERT_EQ(reboots.size(), 1u);
    EXPECT_EQ(reboots[0].get(tn::u32_id(0xff0007)), 5u);
    EXPECT_TRUE(valueKeys(reboots[0]).empty());
    EXPECT_EQ(Agent::recordedTo({24, 2}).size(), before + 2);
}

TEST(Sets, ScriptRenameAndRun) {
    Answer rename = ask(PDU_SET, OID("1.3.6.1.4.1.48291.1.1.8.1.1.2.9"), tlv(4, "renamed"));
    EXPECT_EQ(rename.errorStatus, 0);
    EXPECT_EQ(rename.value.value, "renamed");
    std::vector<tn::message> sent = Agent::recordedTo({48, 101});
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].get(tn::u32_id(0xff0007)), 0xfe0003u);
    EXPECT_EQ(sent[0].get(tn::u32_id(0xfe0001)), 9u);
    EXPECT_EQ(sent[0].get(tn::string_id(0x66)), "renamed");

    Answer run = ask(PDU_SET, OID("1.3.6.1.4.1.48291.1.1.8.1.1.3.7"), berInt(1));
    EXPECT_EQ(run.errorStatus, 0);
    sent = Agent::recordedTo({48, 101});
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].get(tn::u32_id(0xff0007)), 1u);
    EXPECT_EQ(sent[1].get(tn::u32_id(0xfe0001)), 7u);
    EXPECT_FALSE(sent[1].has(tn::string_id(0x66)));

    // A row that does not exist is not created.
    EXPECT_EQ(ask(PDU_SET, OID("1.3.6.1.4.1.48291.1.1.8.1.1.2.8"), tlv(4, "x")).errorStatus, 2);
    EXPECT_EQ(Agent::recordedTo({48, 101}).size(), 2u);
}

}  // namespace
