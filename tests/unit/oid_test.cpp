#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "asn/oid.h"

namespace {

std::string streamed(OID const& o) {
    std::ostringstream s;
    s << o;
    return s.str();
}

}  // namespace

TEST(Oid, ParseForms) {
    OID a("1.3.6.1.2.1.1.3.0"), b(".1.3.6.1.2.1.1.3.0");
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.size(), 9u);
    EXPECT_EQ(a.str(), ".1.3.6.1.2.1.1.3.0");
    EXPECT_EQ(streamed(a), "1.3.6.1.2.1.1.3.0");

    EXPECT_EQ(OID("1..3"), OID({1, 3}));
    EXPECT_EQ(OID("1.3."), OID({1, 3}));
    EXPECT_EQ(OID("1.x"), OID({1, 0}));
    EXPECT_EQ(OID("1.x.5"), OID({1, 0, 5}));
    EXPECT_TRUE(OID("").empty());
    EXPECT_EQ(OID("").str(), "");
    EXPECT_EQ(streamed(OID()), "");
    // 2^32 + 5 wraps to 5; the largest arc survives a round trip.
    EXPECT_EQ(OID("4294967301"), OID({5}));
    EXPECT_EQ(OID("1.4294967295").str(), ".1.4294967295");
    EXPECT_EQ(ZERO_OID, OID({0}));
}

TEST(Oid, Concatenation) {
    OID a("1.3");
    a += 6u;
    a += OID("1.2");
    EXPECT_EQ(a, OID("1.3.6.1.2"));
    EXPECT_EQ(OID("1.3") + OID("6"), OID("1.3.6"));
    EXPECT_EQ(OID("1.3") + 7u, OID("1.3.7"));
    OID self("1.2");
    self += self;
    EXPECT_EQ(self, OID("1.2.1.2"));
}

TEST(Oid, Order) {
    tree_node_comp<OID> less;
    EXPECT_TRUE(less(OID("1.3"), OID("1.3.0")));
    EXPECT_TRUE(less(OID("1.3.0"), OID("1.4")));
    EXPECT_TRUE(less(OID("1.9"), OID("1.10")));
    EXPECT_FALSE(less(OID("1.10"), OID("1.9")));
    EXPECT_FALSE(less(OID("1.3"), OID("1.3")));
    EXPECT_TRUE(less(OID(), OID("0")));
    // Arcs compare as unsigned numbers.
    EXPECT_TRUE(less(OID("1.2147483647"), OID("1.2147483648")));
    EXPECT_TRUE(less(OID("1.3.6.1.4294967294"), OID("1.3.6.1.4294967295")));

    std::map<OID, int, tree_node_comp<OID>> m;
    for (char const* t : {"1.4", "1.3.6.1", "1.3", "1.3.6", "1.10", "1.9", "1.3.0"})
        m[OID(t)] = 0;
    std::string order;
    for (auto& e : m)
        order += e.first.str() + " ";
    EXPECT_EQ(order, ".1.3 .1.3.0 .1.3.6 .1.3.6.1 .1.4 .1.9 .1.10 ");
}

TEST(Oid, AsCodecs) {
    unsigned int u = 77;
    EXPECT_TRUE(OID("9").asUnsigned(&u));
    EXPECT_EQ(u, 9u);
    u = 77;
    EXPECT_FALSE(OID("9.1").asUnsigned(&u));
    EXPECT_FALSE(OID().asUnsigned(&u));
    EXPECT_EQ(u, 77u);

    EXPECT_TRUE(OID("10.0.0.1").asIP(&u));
    EXPECT_EQ(u, 0x0100000Au);
    EXPECT_TRUE(OID("192.168.1.254").asIP(&u));
    EXPECT_EQ(u, 0xFE01A8C0u);
    EXPECT_FALSE(OID("10.0.300.1").asIP(&u));
    EXPECT_FALSE(OID("10.0.0").asIP(&u));
    EXPECT_FALSE(OID("10.0.0.1.1").asIP(&u));

    std::string s = "keep";
    EXPECT_TRUE(OID("97.98").asString(2, &s));
    EXPECT_EQ(s, "ab");
    s = "keep";
    EXPECT_FALSE(OID("97.98").asString(3, &s));
    EXPECT_FALSE(OID("97.300").asString(2, &s));
    EXPECT_EQ(s, "keep");

    EXPECT_TRUE(OID("3.97.98.99").asString(&s));
    EXPECT_EQ(s, "abc");
    EXPECT_TRUE(OID("2.97.98.99.100").asString(&s));  // arcs past the length are ignored
    EXPECT_EQ(s, "ab");
    EXPECT_TRUE(OID("0").asString(&s));
    EXPECT_EQ(s, "");
    s = "keep";
    EXPECT_FALSE(OID().asString(&s));
    EXPECT_FALSE(OID("3.97.98").asString(&s));
    EXPECT_FALSE(OID("2.97.300").asString(&s));
    EXPECT_TRUE(OID("1.97.300").asString(&s));  // arc beyond the length is not checked
    EXPECT_EQ(s, "a");

    OID o("9.9");
    EXPECT_TRUE(OID("1.3.6").asOID(3, &o));
    EXPECT_EQ(o, OID("1.3.6"));
    EXPECT_FALSE(OID("1.3.6").asOID(2, &o));
    EXPECT_TRUE(OID("3.1.3.6").asOID(&o));
    EXPECT_EQ(o, OID("1.3.6"));
    o = OID("9.9");
    EXPECT_TRUE(OID("2.1.3.6").asOID(&o));  // the count does not cut the tail
    EXPECT_EQ(o, OID("1.3.6"));
    o = OID("9.9");
    EXPECT_TRUE(OID().asOID(&o));  // output untouched
    EXPECT_EQ(o, OID("9.9"));
    EXPECT_TRUE(OID("5.1.2").asOID(&o));
    EXPECT_EQ(o, OID("9.9"));
}

TEST(Oid, PopCodecs) {
    OID idx("3.97.98.99.7"), part;
    EXPECT_TRUE(idx.popString(&part));
    EXPECT_EQ(part, OID("3.97.98.99"));
    EXPECT_EQ(idx, OID("7"));
    std::string s;
    EXPECT_TRUE(part.asString(&s));
    EXPECT_EQ(s, "abc");
    unsigned int u = 0;
    EXPECT_TRUE(idx.popUnsigned(&part));
    EXPECT_TRUE(part.asUnsigned(&u));
    EXPECT_EQ(u, 7u);
    EXPECT_TRUE(idx.empty());
    EXPECT_FALSE(idx.popUnsigned(&part));

    OID bad("2.97.300.5");
    part = OID("8");
    EXPECT_FALSE(bad.popString(&part));
    EXPECT_EQ(bad, OID("2.97.300.5"));
    EXPECT_EQ(part, OID("8"));
    EXPECT_TRUE(bad.popOID(&part));  // popOID does not care about byte range
    EXPECT_EQ(part, OID("2.97.300"));
    EXPECT_EQ(bad, OID("5"));
    EXPECT_FALSE(bad.popOID(&part));  // count 1 is not greater than 5
    EXPECT_FALSE(OID().popOID(&part));

    OID mac("2.17.34.51.68.85.9");
    EXPECT_TRUE(mac.popString(6, &part));
    EXPECT_EQ(part, OID("2.17.34.51.68.85"));
    EXPECT_EQ(mac, OID("9"));
    EXPECT_FALSE(mac.popString(2, &part));
    OID wide("1.300");
    EXPECT_FALSE(wide.popString(2, &part));
    EXPECT_EQ(wide, OID("1.300"));

    OID ip("10.1.2.3.4");
    EXPECT_TRUE(ip.popIP(&part));
    EXPECT_EQ(part, OID("10.1.2.3"));
    EXPECT_EQ(ip, OID("4"));
    OID ipBad("10.1.256.3");
    EXPECT_FALSE(ipBad.popIP(&part));
    EXPECT_FALSE(ip.popIP(&part));

    OID n("1.2.3");
    EXPECT_TRUE(n.popOID(2, &part));
    EXPECT_EQ(part, OID("1.2"));
    EXPECT_EQ(n, OID("3"));
    EXPECT_FALSE(n.popOID(2, &part));
    EXPECT_TRUE(n.popOID(0, &part));
    EXPECT_TRUE(part.empty());

    // A length arc that would overflow a 32-bit count must not wrap.
    OID huge({0xFFFFFFFFu, 1, 2});
    EXPECT_FALSE(huge.popString(&part));
    EXPECT_FALSE(huge.popOID(&part));
    EXPECT_FALSE(huge.asString(&s));
}
