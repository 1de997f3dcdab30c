// createReply end to end: request datagrams in, reply datagrams out, over a
// small registry and a community list kept in a temporary store.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <initializer_list>
#include <iostream>
#include <random>
#include <sstream>
#include <string>

#include "agent/community_keep.h"
#include "mib/leaf.h"
#include "mib/packer.h"
#include "request/context.h"

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes bytes(std::initializer_list<int> l) {
    Bytes b;
    for (int v : l)
        b.push_back((unsigned char)v);
    return b;
}

uint32_t ip(int a, int b, int c, int d) { return uint32_t(a) << 24 | uint32_t(b) << 16 | uint32_t(c) << 8 | uint32_t(d); }

struct Rec : Data {
    int num = 0;
    std::string text;
};

struct Provider : DataProvider {
    Rec rec;
    Data* get() override { return &rec; }
    unsigned int set(Data*) override { return 1; }
};

struct VarBind {
    OID name;
    Bytes value;  // encoded value element
};

Bytes null() { return bytes({0x05, 0x00}); }
Bytes integer(int v) {
    OutStream o;
    o.add(v, 2);
    return o.data;
}
Bytes octets(std::string const& s) {
    OutStream o;
    o.add(s, 4);
    return o.data;
}

// A v1/v2c message: SEQUENCE { version, community, PDU { id, a, b, varbinds } }.
Bytes message(int version, std::string const& community, unsigned pduTag, int requestId,
              std::vector<VarBind> const& vbs, int a = 0, int b = 0) {
    OutStream o;
    o.startSeq(0x30);
    o.add(version, 2);
    o.add(community, 4);
    o.startSeq(pduTag);
    o.add(requestId, 2);
    o.add(a, 2);
    o.add(b, 2);
    o.startSeq(0x30);
    for (VarBind const& vb : vbs) {
        o.startSeq(0x30);
        o.addOID(vb.name, 6);
        o.data.insert(o.data.end(), vb.value.begin(), vb.value.end());
        o.endSeq();
    }
    o.endSeq();
    o.endSeq();
    o.endSeq();
    return o.data;
}

struct Reply {
    bool sent = false;
    Bytes data;
    std::string err;
};

// A decoded reply; decoding also checks that every length is consistent.
struct Parsed {
    int version = -1;
    std::string community;
    int pduTag = -1;
    int requestId = 0, status = -1, index = -1;
    std::vector<std::pair<OID, Bytes>> varbinds;
};

bool parse(Bytes const& d, Parsed& p) {
    InStream in(d.data(), unsigned(d.size()));
    unsigned len = in.enterSeq();
    if (len == 0xFFFFFFFFu || len + in.position() != d.size())
        return false;
    if (in.getType() != 0x02 || !in.getInt(&p.version))
        return false;
    if (in.getType() != 0x04 || !in.getString(&p.community))
        return false;
    p.pduTag = in.getType();
    if (in.enterSeq() == 0xFFFFFFFFu || in.seqEndp.back() != d.size())
        return false;
    if (!in.getInt(&p.requestId) || !in.getInt(&p.status) || !in.getInt(&p.index))
        return false;
    if (in.getType() != 0x30 || in.enterSeq() == 0xFFFFFFFFu || in.seqEndp.back() != d.size())
        return false;
    while (in.moreInSeq()) {
        if (in.getType() != 0x30 || in.enterSeq() == 0xFFFFFFFFu)
            return false;
        uint32_t end = in.seqEndp.back();
        OID name;
        if (in.getType() != 0x06 || !in.getOID(&name))
            return false;
        if (in.position() + 2 > end)
            return false;
        Bytes value(d.begin() + in.position(), d.begin() + end);
        InStream v(value.data(), unsigned(value.size()));
        v.pos = 1;
        int vlen = v.getLen();
        if (vlen < 0 || v.position() + size_t(vlen) != value.size())
            return false;
        in.exitSeq();
        p.varbinds.emplace_back(name, value);
    }
    return in.position() == d.size();
}

class CreateReply : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char tmpl[] = "/tmp/kestrel-reply-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        communityKeep = new CommunityKeep(dir + "/communities");
        ASSERT_TRUE(communityKeep->storeOk()) << communityKeep->storeError();

        addItem("public", true, false, 0, 0, 0);
        addItem("private", true, true, 0, 0, 0);
        addItem("lan", true, true, ip(10, 0, 0, 0), ip(255, 0, 0, 0), 0);
        addItem("host", true, false, ip(192, 168, 1, 7), 0xFFFFFFFFu, 0);
        addItem("v3user", true, true, 0, 0, 1);
        addItem("nothing", false, false, 0, 0, 0);

        leafs.clear();
        provider = new Provider;
        provider->rec.num = 7;
        provider->rec.text = "kestrel";
        addScalarConstStringLeaf(OID("1.3.6.1.2.1.1.1"), "router", 4);
        addScalarConstNumLeaf(OID("1.3.6.1.2.1.1.3"), 1234, 0x43);
        addScalarLeaf(OID("1.3.6.1.2.1.1.5"), new DataStringPacker(&Rec::text, 4), provider);
        addScalarLeaf(OID("1.3.6.1.2.1.1.7"), new DataNumPacker(&Rec::num, 2), provider);
    }
    static void TearDownTestSuite() {
        for (auto& e : leafs) {
            delete static_cast<ScalarLeaf*>(e.second)->packer;
            delete e.second;
        }
        leafs.clear();
        delete provider;
        for (CommunityKeep::Item* i : communityKeep->items())
            delete i;
        delete communityKeep;
        communityKeep = nullptr;
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }
    static void addItem(std::string const& name, bool r, bool w, uint32_t addr, uint32_t mask, uint32_t level) {
        CommunityKeep::Item* i = new CommunityKeep::Item;
        i->id = uint32_t(communityKeep->items().size());
        i->name = name;
        i->readAccess = r;
        i->writeAccess = w;
        i->address = addr;
        i->netmask = mask;
        i->securityLevel = level;
        communityKeep->items().push_back(i);
    }

    static Reply serve(Bytes const& request, uint32_t source = ip(127, 0, 0, 1)) {
        Reply r;
        Context ctx(request.data(), unsigned(request.size()));
        testing::internal::CaptureStderr();
        r.sent = createReply(ctx, int(source)) == 1;
        r.err = testing::internal::GetCapturedStderr();
        if (r.sent)
            r.data = ctx.out.data;
        return r;
    }

    static std::string dir;
    static Provider* provider;
};

std::string CreateReply::dir;
Provider* CreateReply::provider;

OID const sysDescr("1.3.6.1.2.1.1.1.0");
OID const sysUpTime("1.3.6.1.2.1.1.3.0");
OID const sysName("1.3.6.1.2.1.1.5.0");
OID const sysServices("1.3.6.1.2.1.1.7.0");

}  // namespace

TEST_F(CreateReply, V1GetByteExact) {
    Bytes req = bytes({0x30, 0x26, 0x02, 0x01, 0x00, 0x04, 0x06, 'p', 'u', 'b', 'l', 'i', 'c', 0xA0, 0x19,
                       0x02, 0x01, 0x01, 0x02, 0x01, 0x00, 0x02, 0x01, 0x00, 0x30, 0x0E, 0x30, 0x0C, 0x06, 0x08,
                       0x2B, 0x06, 0x01, 0x02, 0x01, 0x01, 0x01, 0x00, 0x05, 0x00});
    Reply r = serve(req);
    ASSERT_TRUE(r.sent);
    EXPECT_EQ(r.data, bytes({0x30, 0x2C, 0x02, 0x01, 0x00, 0x04, 0x06, 'p', 'u', 'b', 'l', 'i', 'c', 0xA2, 0x1F,
                             0x02, 0x01, 0x01, 0x02, 0x01, 0x00, 0x02, 0x01, 0x00, 0x30, 0x14, 0x30, 0x12, 0x06,
                             0x08, 0x2B, 0x06, 0x01, 0x02, 0x01, 0x01, 0x01, 0x00, 0x04, 0x06, 'r', 'o', 'u', 't',
                             'e', 'r'}));
    EXPECT_EQ(r.err, "");
}

TEST_F(CreateReply, V2cGetAndGetNext) {
    Reply r = serve(message(1, "public", 0xA0, 0x12345678, {{sysDescr, null()}, {sysUpTime, null()}}));
    ASSERT_TRUE(r.sent);
    Parsed p;
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.version, 1);
    EXPECT_EQ(p.community, "public");
    EXPECT_EQ(p.pduTag, 0xA2);
    EXPECT_EQ(p.requestId, 0x12345678);
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(p.index, 0);
    ASSERT_EQ(p.varbinds.size(), 2u);
    EXPECT_EQ(p.varbinds[0].first, sysDescr);
    EXPECT_EQ(p.varbinds[0].second, octets("router"));
    EXPECT_EQ(p.varbinds[1].first, sysUpTime);
    EXPECT_EQ(p.varbinds[1].second, bytes({0x43, 0x02, 0x04, 0xD2}));

    r = serve(message(1, "public", 0xA1, -5, {{OID("1.3.6.1.2.1.1.1.0"), null()}, {OID("1.3"), null()}}));
    ASSERT_TRUE(r.sent);
    p = Parsed();
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.requestId, -5);
    EXPECT_EQ(p.status, 0);
    ASSERT_EQ(p.varbinds.size(), 2u);
    EXPECT_EQ(p.varbinds[0].first, sysUpTime);
    EXPECT_EQ(p.varbinds[1].first, sysDescr);

    // Version 2 is answered like 2c and keeps its number.
    r = serve(message(2, "public", 0xA0, 9, {{sysServices, null()}}));
    ASSERT_TRUE(r.sent);
    p = Parsed();
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.version, 2);
    ASSERT_EQ(p.varbinds.size(), 1u);
    EXPECT_EQ(p.varbinds[0].second, integer(7));
}

TEST_F(CreateReply, ErrorStatusAndIndex) {
    // Second of two names unknown: first answered, second NULL, status 2 index 2.
    Reply r = serve(message(1, "public", 0xA0, 1, {{sysDescr, null()}, {OID("1.3.6.1.2.1.1.2.0"), null()}}));
    ASSERT_TRUE(r.sent);
    Parsed p;
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.status, 2);
    EXPECT_EQ(p.index, 2);
    ASSERT_EQ(p.varbinds.size(), 2u);
    EXPECT_EQ(p.varbinds[0].second, octets("router"));
    EXPECT_EQ(p.varbinds[1].first, OID("1.3.6.1.2.1.1.2.0"));
    EXPECT_EQ(p.varbinds[1].second, null());

    // The list is cut at the failing varbind.
    r = serve(message(0, "public", 0xA0, 2,
                      {{OID("1.3.6.1.2.1.1.1.1"), null()}, {sysDescr, null()}, {sysUpTime, null()}}));
    p = Parsed();
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.status, 2);
    EXPECT_EQ(p.index, 1);
    ASSERT_EQ(p.varbinds.size(), 1u);
    EXPECT_EQ(p.varbinds[0].first, OID("1.3.6.1.2.1.1.1.1"));
    EXPECT_EQ(p.varbinds[0].second, null());

    // GetNext past the last object: noSuchName also for v2c.
    r = serve(message(1, "public", 0xA1, 3, {{sysDescr, null()}, {OID("1.3.6.1.2.1.1.7.0"), null()}}));
    p = Parsed();
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.status, 2);
    EXPECT_EQ(p.index, 2);
    ASSERT_EQ(p.varbinds.size(), 2u);
    EXPECT_EQ(p.varbinds[0].first, sysUpTime);
    EXPECT_EQ(p.varbinds[1].first, OID("1.3.6.1.2.1.1.7.0"));
    EXPECT_EQ(p.varbinds[1].second, null());

    // An empty varbind list is answered with an empty list.
    r = serve(message(1, "public", 0xA0, 4, {}));
    p = Parsed();
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.status, 0);
    EXPECT_TRUE(p.varbinds.empty());
}

TEST_F(CreateReply, AccessRights) {
    // Set without write access: readOnly, index 0, first varbind echoed with NULL.
    Reply r = serve(message(1, "public", 0xA3, 5, {{sysName, octets("x")}, {sysServices, integer(1)}}));
    ASSERT_TRUE(r.sent);
    Parsed p;
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.status, 4);
    EXPECT_EQ(p.index, 0);
    ASSERT_EQ(p.varbinds.size(), 1u);
    EXPECT_EQ(p.varbinds[0].first, sysName);
    EXPECT_EQ(p.varbinds[0].second, null());
    EXPECT_EQ(provider->rec.text, "kestrel");

    // Get without read access: noSuchName at index 1.
    r = serve(message(1, "nothing", 0xA0, 6, {{sysDescr, null()}, {sysUpTime, null()}}));
    p = Parsed();
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.status, 2);
    EXPECT_EQ(p.index, 1);
    ASSERT_EQ(p.varbinds.size(), 1u);
    EXPECT_EQ(p.varbinds[0].second, null());

    // With write access: applied one by one, no undo of earlier varbinds.
    r = serve(message(1, "private", 0xA3, 7,
                      {{sysName, octets("gw1")}, {OID("1.3.6.1.2.1.1.9.0"), integer(1)}, {sysServices, integer(3)}}));
    p = Parsed();
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.status, 2);
    EXPECT_EQ(p.index, 2);
    ASSERT_EQ(p.varbinds.size(), 2u);
    EXPECT_EQ(p.varbinds[0].second, octets("gw1"));
    EXPECT_EQ(p.varbinds[1].second, null());
    EXPECT_EQ(provider->rec.text, "gw1");
    EXPECT_EQ(provider->rec.num, 7);

    r = serve(message(0, "private", 0xA3, 8, {{sysServices, integer(72)}}));
    p = Parsed();
    ASSERT_TRUE(parse(r.data, p));
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(p.varbinds[0].second, integer(72));
    EXPECT_EQ(provider->rec.num, 72);
    provider->rec.num = 7;
    provider->rec.text = "kestrel";
}

TEST_F(CreateReply, CommunityAndAddressFilter) {
    Bytes get = message(0, "lan", 0xA0, 1, {{sysDescr, null()}});
    EXPECT_TRUE(serve(get, ip(10, 1, 2, 3)).sent);
    Reply r = serve(get, ip(192, 168, 1, 7));
    EXPECT_FALSE(r.sent);
    EXPECT_EQ(r.err, " authentification failed\n");

    Bytes host = message(1, "host", 0xA0, 1, {{sysDescr, null()}});
    EXPECT_TRUE(serve(host, ip(192, 168, 1, 7)).sent);
    EXPECT_FALSE(serve(host, ip(192, 168, 1, 8)).sent);

    r = serve(message(1, "unknown", 0xA0, 1, {{sysDescr, null()}}));
    EXPECT_FALSE(r.sent);
    EXPECT_EQ(r.err, " authentification failed\n");
    // Names compare exactly: case and length matter.
    EXPECT_FALSE(serve(message(1, "Public", 0xA0, 1, {{sysDescr, null()}})).sent);
    EXPECT_FALSE(serve(message(1, std::string("public\0", 7), 0xA0, 1, {{sysDescr, null()}})).sent);

    // A community that names an SNMPv3 user is refused for v1/v2c.
    r = serve(message(1, "v3user", 0xA0, 1, {{sysDescr, null()}}));
    EXPECT_FALSE(r.sent);
    EXPECT_EQ(r.err, " authentification failed\n");

    // No community store at all: nobody is let in.
    CommunityKeep* keep = communityKeep;
    communityKeep = nullptr;
    EXPECT_FALSE(serve(message(1, "public", 0xA0, 1, {{sysDescr, null()}})).sent);
    communityKeep = keep;
}

TEST_F(CreateReply, NoReply) {
    Reply r = serve(message(1, "public", 0xA5, 1, {{sysDescr, null()}}, 0, 10));
    EXPECT_FALSE(r.sent);
    EXPECT_EQ(r.err, "unknown request command\n");
    EXPECT_FALSE(serve(message(1, "public", 0xA2, 1, {{sysDescr, null()}})).sent);
    EXPECT_FALSE(serve(message(1, "public", 0xA4, 1, {{sysDescr, null()}})).sent);

    r = serve(message(4, "public", 0xA0, 1, {{sysDescr, null()}}));
    EXPECT_FALSE(r.sent);
    EXPECT_EQ(r.err, "version not supported\n");
    EXPECT_FALSE(serve(message(-1, "public", 0xA0, 1, {{sysDescr, null()}})).sent);

    // SNMPv3 with an empty msgFlags.
    OutStream v3;
    v3.startSeq(0x30);
    v3.add(3, 2);
    v3.startSeq(0x30);
    v3.add(1, 2);
    v3.add(65507, 2);
    v3.add(std::string(), 4);
    v3.add(3, 2);
    v3.endSeq();
    v3.endSeq();
    r = serve(v3.data);
    EXPECT_FALSE(r.sent);
    EXPECT_EQ(r.err, "!ctx.in.readV3Info(v3_err)\n");

    // Truncated header fields.
    Bytes full = message(1, "public", 0xA0, 1, {{sysDescr, null()}});
    for (size_t cut : {0, 1, 2, 5, 10, 13, 15, 18, 21, 24, 26}) {
        Bytes part(full.begin(), full.begin() + cut);
        EXPECT_FALSE(serve(part).sent) << cut;
    }
    // A varbind whose name does not decode.
    Bytes badName = message(1, "public", 0xA0, 1, {{sysDescr, null()}});
    // The last sub-identifier keeps its continuation bit up to the data end.
    badName[badName.size() - 3] = 0x81;
    badName[badName.size() - 2] = 0x85;
    badName[badName.size() - 1] = 0x85;
    EXPECT_FALSE(serve(badName).sent);
    // A request whose answer cannot fit in a datagram: GetNext of 0.0 over
    // and over, each answered with sysDescr.0.
    OutStream many;
    many.startSeq(0x30);
    many.add(1, 2);
    many.add(std::string("public"), 4);
    many.startSeq(0xA1);
    many.add(1, 2);
    many.add(0, 2);
    many.add(0, 2);
    many.startSeq(0x30);
    for (int i = 0; i < 5000; ++i) {
        many.startSeq(0x30);
        many.addOID(OID("0.0"), 6);
        many.addNull(5);
        many.endSeq();
    }
    many.endSeq();
    many.endSeq();
    many.endSeq();
    ASSERT_LT(many.data.size(), 65507u);
    r = serve(many.data);
    EXPECT_FALSE(r.sent);
    EXPECT_EQ(r.err, "reply too long\n");

    // A name whose first byte decodes to a first arc above 2 cannot be
    // echoed by the encoder: no reply rather than a varbind without name.
    Bytes farName = message(1, "public", 0xA0, 1, {{sysDescr, null()}});
    ASSERT_EQ(farName[farName.size() - 10], 0x2B);
    farName[farName.size() - 10] = 0xF1;
    EXPECT_FALSE(serve(farName).sent);
}

// Mutated copies of valid requests: every outcome is either no reply or a
// reply whose lengths are all consistent, and nothing reads out of bounds
// (the sanitizer build runs this too).
TEST_F(CreateReply, MutatedRequests) {
    std::vector<Bytes> seeds = {
        message(0, "public", 0xA0, 1, {{sysDescr, null()}, {sysUpTime, null()}}),
        message(1, "public", 0xA1, 77, {{OID("1.3"), null()}, {sysName, null()}, {OID("1.3.6.1.2.1.1.7.0"), null()}}),
        message(1, "private", 0xA3, 3, {{sysName, octets("abc")}, {sysServices, integer(300)}}),
        message(0, "lan", 0xA1, -9, {{OID("0.0"), null()}}),
        message(1, "public", 0xA5, 5, {{sysDescr, null()}}, 0, 3),
    };
    std::mt19937 rng(20240611u);
    auto pick = [&](size_t n) { return size_t(rng() % (n ? n : 1)); };

    std::streambuf* outBuf = std::cout.rdbuf(nullptr);
    std::streambuf* errBuf = std::cerr.rdbuf(nullptr);
    int replies = 0, silent = 0, bad = 0;
    std::string firstBad;
    for (int iter = 0; iter < 6000; ++iter) {
        Bytes m = seeds[pick(seeds.size())];
        int edits = 1 + int(pick(4));
        for (int e = 0; e < edits && !m.empty(); ++e) {
            size_t at = pick(m.size());
            switch (pick(9)) {
            case 0:  // random byte
                m[at] = (unsigned char)rng();
                break;
            case 1:  // flip one bit
                m[at] ^= (unsigned char)(1u << pick(8));
                break;
            case 2:  // truncate
                m.resize(at);
                break;
            case 3:  // indefinite length
                m[at] = 0x80;
                break;
            case 4: {  // huge long-form length
                unsigned char h[5] = {0x84, (unsigned char)rng(), (unsigned char)rng(), (unsigned char)rng(),
                                      (unsigned char)rng()};
                m.insert(m.begin() + std::ptrdiff_t(at), h, h + 5);
                break;
            }
            case 5:  // zero length
                m[at] = 0x00;
                break;
            case 6:  // insert random bytes
                for (size_t k = pick(6) + 1; k; --k)
                    m.insert(m.begin() + std::ptrdiff_t(pick(m.size() + 1)), (unsigned char)rng());
                break;
            case 7:  // remove a run
                m.erase(m.begin() + std::ptrdiff_t(at), m.begin() + std::ptrdiff_t(std::min(m.size(), at + 1 + pick(4))));
                break;
            case 8:  // a length one too long or too short
                m[at] = (unsigned char)(m[at] + (rng() & 1 ? 1 : -1));
                break;
            }
        }
        Context ctx(m.data(), unsigned(m.size()));
        if (createReply(ctx, int(ip(10, 9, 8, 7))) == 1) {
            ++replies;
            Parsed p;
            if (!parse(ctx.out.data, p) || p.pduTag != 0xA2 || ctx.out.data.size() > 4096) {
                if (!bad++) {
                    std::ostringstream s;
                    for (unsigned char c : m)
                        s << std::hex << int(c) << ' ';
                    s << "\nreply: ";
                    for (unsigned char c : ctx.out.data)
                        s << std::hex << int(c) << ' ';
                    firstBad = s.str();
                }
            }
        } else {
            ++silent;
        }
    }
    std::cout.rdbuf(outBuf);
    std::cerr.rdbuf(errBuf);
    EXPECT_EQ(bad, 0) << "first malformed reply for request: " << firstBad;
    // The mutations must exercise both outcomes.
    EXPECT_GT(replies, 300);
    EXPECT_GT(silent, 1000);
    std::cout << replies << " replies, " << silent << " dropped" << std::endl;
    provider->rec.num = 7;
    provider->rec.text = "kestrel";
}
