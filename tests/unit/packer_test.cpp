#include <gtest/gtest.h>

#include <initializer_list>

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

struct Row : Data {
    int num = 0;
    unsigned int addr = 0;
    unsigned long long big = 0;
    std::string name;
    std::vector<unsigned char> mac;
    OID oid;
};

// A record class with a second base in front of Data, so that the member
// pointers must be adjusted to reach the members.
struct Other {
    virtual ~Other() {}
    int pad[3] = {7, 7, 7};
};
struct Shifted : Other, Data {
    int value = 0;
    std::string text;
};

Bytes packed(Packer& p, Data const* d) {
    Context ctx(nullptr, 0);
    p.pack(ctx, d);
    return ctx.out.data;
}

void unpackFrom(Packer& p, Data* d, Bytes const& value) {
    Context ctx(value.data(), unsigned(value.size()));
    p.unpack(d, ctx);
}

template <class F>
std::string errOf(F f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

}  // namespace

TEST(PackerTest, NumbersUseTheSignedEncoder) {
    Row r;
    r.num = int(0xFFFFFFFFu);
    DataNumPacker counter(&Row::num, 0x41);
    EXPECT_EQ(packed(counter, &r), bytes({0x41, 0x01, 0xFF}));
    r.num = 300;
    DataNumPacker integer(&Row::num, 2);
    EXPECT_EQ(packed(integer, &r), bytes({0x02, 0x02, 0x01, 0x2C}));

    unpackFrom(integer, &r, bytes({0x02, 0x02, 0xFF, 0x00}));
    EXPECT_EQ(r.num, -256);
    // Any tag is read; a broken value keeps the record as it was.
    unpackFrom(integer, &r, bytes({0x04, 0x01, 0x05}));
    EXPECT_EQ(r.num, 5);
    unpackFrom(integer, &r, bytes({0x02, 0x06, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(r.num, 5);

    ConstNumPacker c(42, 0x42);
    EXPECT_EQ(packed(c, nullptr), bytes({0x42, 0x01, 0x2A}));
    unpackFrom(c, &r, bytes({0x02, 0x01, 0x01}));
    EXPECT_EQ(c.get(nullptr), 42);

    EXPECT_EQ(integer.getAsKey(&r), OID("5"));
    r.num = -1;
    EXPECT_EQ(integer.getAsKey(&r), OID("4294967295"));
    Row t;
    EXPECT_EQ(integer.setFromKey(&t, OID("9.4.1")), OID("4.1"));
    EXPECT_EQ(t.num, 9);
    EXPECT_TRUE(integer.setFromKey(&t, OID()).empty());
    EXPECT_EQ(t.num, 9);
}

TEST(PackerTest, Strings) {
    Row r;
    r.name = "ab";
    DataStringPacker name(&Row::name, 4, 0);
    EXPECT_EQ(packed(name, &r), bytes({0x04, 0x02, 'a', 'b'}));
    EXPECT_EQ(name.getAsKey(&r), OID("2.97.98"));
    r.name = "";
    EXPECT_EQ(name.getAsKey(&r), OID("0"));

    std::string err = errOf([&] { unpackFrom(name, &r, bytes({0x04, 0x03, 'x', 'y', 'z'})); });
    EXPECT_EQ(err, "unpacked s = xyz\n");
    EXPECT_EQ(r.name, "xyz");
    err = errOf([&] { unpackFrom(name, &r, bytes({0x04, 0x09, 'x'})); });
    EXPECT_EQ(err, "");
    EXPECT_EQ(r.name, "xyz");

    Row t;
    EXPECT_EQ(name.setFromKey(&t, OID("4.101.116.104.49.7")), OID("7"));
    EXPECT_EQ(t.name, "eth1");
    EXPECT_TRUE(name.setFromKey(&t, OID("2.97.300")).empty());
    EXPECT_TRUE(name.setFromKey(&t, OID("5.97")).empty());
    EXPECT_EQ(t.name, "eth1");

    DataRawPacker mac(&Row::mac, 4, 6);
    r.mac = bytes({0x02, 0x11, 0x22, 0x33, 0x44, 0x55});
    EXPECT_EQ(mac.getAsKey(&r), OID("2.17.34.51.68.85"));
    EXPECT_EQ(packed(mac, &r), bytes({0x04, 0x06, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55}));
    r.mac.pop_back();
    OID key;
    EXPECT_EQ(errOf([&] { key = mac.getAsKey(&r); }), "inconsistent key length\n");
    EXPECT_TRUE(key.empty());
    EXPECT_EQ(mac.setFromKey(&t, OID("0.1.2.3.4.255.1.2")), OID("1.2"));
    EXPECT_EQ(t.mac, bytes({0, 1, 2, 3, 4, 255}));
    EXPECT_TRUE(mac.setFromKey(&t, OID("0.1.2.3.4")).empty());

    ConstStringPacker c("fixed", 4, 0);
    EXPECT_EQ(packed(c, nullptr), bytes({0x04, 0x05, 'f', 'i', 'x', 'e', 'd'}));
    EXPECT_EQ(c.getAsKey(nullptr), OID("5.102.105.120.101.100"));
    errOf([&] { unpackFrom(c, &r, bytes({0x04, 0x01, 'q'})); });
    EXPECT_EQ(c.get(nullptr), "fixed");
}

TEST(PackerTest, Counter64) {
    Row r;
    r.big = 0x123456789ull;
    DataBignumPacker big(&Row::big, 0x46);
    EXPECT_EQ(packed(big, &r), bytes({0x46, 0x05, 0x01, 0x23, 0x45, 0x67, 0x89}));
    unpackFrom(big, &r, bytes({0x46, 0x02, 0x80, 0x01}));
    EXPECT_EQ(r.big, 0x8001ull);
    std::string err = errOf([&] { EXPECT_TRUE(big.getAsKey(&r).empty()); });
    EXPECT_EQ(err, "BUG: Packer::getAsKey called\n");
    err = errOf([&] { EXPECT_TRUE(big.setFromKey(&r, OID("1")).empty()); });
    EXPECT_EQ(err, "BUG: Packer::setFromKey called\n");
    ConstBignumPacker c(0xFFFFFFFFFFFFFFFFull, 0x46);
    EXPECT_EQ(packed(c, nullptr), bytes({0x46, 0x09, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(PackerTest, Oids) {
    Row r;
    r.oid = OID("1.3.6");
    DataOIDPacker p(&Row::oid, 6);
    EXPECT_EQ(packed(p, &r), bytes({0x06, 0x02, 0x2B, 0x06}));
    EXPECT_EQ(p.getAsKey(&r), OID("3.1.3.6"));
    Row t;
    EXPECT_EQ(p.setFromKey(&t, OID("2.1.3.9")), OID("9"));
    EXPECT_EQ(t.oid, OID("1.3"));
    EXPECT_TRUE(p.setFromKey(&t, OID("4.1.3")).empty());
    unpackFrom(p, &t, bytes({0x06, 0x03, 0x2B, 0x06, 0x01}));
    EXPECT_EQ(t.oid, OID("1.3.6.1"));
    ConstOIDPacker c(OID("1.3.6.1.4.1.48291"), 6);
    EXPECT_EQ(packed(c, nullptr), bytes({0x06, 0x08, 0x2B, 0x06, 0x01, 0x04, 0x01, 0x82, 0xF9, 0x23}));
}

TEST(PackerTest, Addresses) {
    Row r;
    r.addr = 0x0A010203;  // 10.1.2.3
    DataIPPacker p(&Row::addr, 0x40);
    EXPECT_EQ(packed(p, &r), bytes({0x40, 0x04, 10, 1, 2, 3}));
    EXPECT_EQ(p.getAsKey(&r), OID("10.1.2.3"));
    // The index reads back with the first arc in the low byte.
    Row t;
    EXPECT_EQ(p.setFromKey(&t, OID("10.1.2.3.8")), OID("8"));
    EXPECT_EQ(t.addr, 0x0302010Au);
    EXPECT_TRUE(p.setFromKey(&t, OID("10.1.2.300")).empty());
    EXPECT_EQ(t.addr, 0x0302010Au);

    unpackFrom(p, &r, bytes({0x40, 0x04, 192, 168, 0, 1}));
    EXPECT_EQ(r.addr, 0xC0A80001u);
    unpackFrom(p, &r, bytes({0x40, 0x05, 1, 2, 3, 4, 5}));
    EXPECT_EQ(r.addr, 0xC0A80001u);
    unpackFrom(p, &r, bytes({0x40, 0x03, 1, 2, 3}));
    EXPECT_EQ(r.addr, 0xC0A80001u);

    ConstIPPacker c(0x7F000001, 0x40);
    EXPECT_EQ(packed(c, nullptr), bytes({0x40, 0x04, 127, 0, 0, 1}));
}

TEST(PackerTest, MembersOfRecordsWithSeveralBases) {
    Shifted s;
    s.value = 77;
    s.text = "hi";
    DataNumPacker n(&Shifted::value, 2);
    DataStringPacker t(&Shifted::text, 4, 0);
    Data* d = &s;
    EXPECT_EQ(packed(n, d), bytes({0x02, 0x01, 77}));
    EXPECT_EQ(packed(t, d), bytes({0x04, 0x02, 'h', 'i'}));
    unpackFrom(n, d, bytes({0x02, 0x01, 0x05}));
    EXPECT_EQ(s.value, 5);
    EXPECT_EQ(s.pad[0], 7);
    EXPECT_EQ(s.pad[2], 7);
}
