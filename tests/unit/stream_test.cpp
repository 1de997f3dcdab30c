#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "asn/stream.h"

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes bytes(std::initializer_list<int> l) {
    Bytes b;
    for (int v : l)
        b.push_back((unsigned char)v);
    return b;
}

struct In {
    Bytes raw;
    InStream s;
    explicit In(Bytes b) : raw(std::move(b)), s(raw.data(), unsigned(raw.size())) {}
};

// Runs f with standard output captured and returns what it printed.
template <class F>
std::string printed(F f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

template <class F>
Bytes encoded(F f) {
    OutStream o;
    f(o);
    return o.data;
}

}  // namespace

TEST(InStreamTest, Lengths) {
    In a(bytes({0x04, 0x80}));
    EXPECT_EQ(printed([&] { a.s.pos = 1; EXPECT_EQ(a.s.getLen(), -1); }),
              "SNMP InStream: we don't support indefinite lengths\n");

    In b(bytes({0x84, 0x00, 0x00, 0x01, 0x02, 0xAA}));
    EXPECT_EQ(b.s.getLen(), 0x102);
    EXPECT_EQ(b.s.pos, 5u);

    In c(bytes({0x85, 0, 0, 0, 0, 1}));
    EXPECT_EQ(printed([&] { EXPECT_EQ(c.s.getLen(), -1); }),
              "SNMP InStream: we can't support data lengths that long\n");

    In d(bytes({0x82, 0x01}));
    EXPECT_EQ(printed([&] { EXPECT_EQ(d.s.getLen(), -1); }), "SNMP InStream: malformed in getLen\n");
    In e(bytes({0x81, 0xC8}));  // length bytes ending exactly at the data end
    EXPECT_EQ(e.s.getLen(), 200);

    In empty(Bytes{});
    EXPECT_EQ(printed([&] { EXPECT_EQ(empty.s.getLen(), -1); }), "");
    EXPECT_EQ(empty.s.getType(), -1);
}

TEST(InStreamTest, Integers) {
    int v = 42;
    In a(bytes({0x02, 0x05, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(a.s.getInt(&v), 1);
    EXPECT_EQ(unsigned(v), 0xFFFFFFFFu);
    EXPECT_EQ(a.s.pos, 7u);

    In b(bytes({0x02, 0x05, 0x01, 0x00, 0x00, 0x00, 0x00}));
    v = 42;
    EXPECT_EQ(printed([&] { EXPECT_EQ(b.s.getInt(&v), 0); }),
              "SNMP InStream: I don't support such large integers 2\n");
    EXPECT_EQ(v, 42);

    In c(bytes({0x02, 0x06, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(printed([&] { EXPECT_EQ(c.s.getInt(&v), 0); }),
              "SNMP InStream: I don't support such large integers\n");
    In d(bytes({0x02, 0x03, 0x01}));
    EXPECT_EQ(printed([&] { EXPECT_EQ(d.s.getInt(&v), 0); }), "SNMP InStream: get int overflow of message\n");
    EXPECT_EQ(v, 42);

    In e(bytes({0x02, 0x00, 0x02, 0x01, 0xFF, 0x02, 0x02, 0xFF, 0x7F, 0x41, 0x02, 0x00, 0x80}));
    EXPECT_EQ(e.s.getInt(&v), 1);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(e.s.getInt(&v), 1);
    EXPECT_EQ(v, -1);
    EXPECT_EQ(e.s.getInt(&v), 1);
    EXPECT_EQ(v, -129);
    EXPECT_EQ(e.s.getType(), 0x41);  // the tag is not checked by the getter
    EXPECT_EQ(e.s.getInt(&v), 1);
    EXPECT_EQ(v, 128);
    EXPECT_EQ(e.s.getType(), -1);

    unsigned long long u = 7;
    In f(bytes({0x46, 0x08, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE, 0x46, 0x01, 0x80, 0x46, 0x00}));
    EXPECT_EQ(f.s.get64(&u), 1);
    EXPECT_EQ(u, 0x7FFFFFFFFFFFFFFEull);
    EXPECT_EQ(f.s.get64(&u), 1);
    EXPECT_EQ(u, 0x80ull);  // no sign extension
    EXPECT_EQ(f.s.get64(&u), 1);
    EXPECT_EQ(u, 0ull);
    // What the encoder writes for bit 63 set is not read back.
    OutStream o;
    o.add(0x8000000000000000ull, 0x46);
    In g(o.data);
    u = 7;
    EXPECT_EQ(printed([&] { EXPECT_EQ(g.s.get64(&u), 0); }), "SNMP InStream: invalig counter64 size\n");
    EXPECT_EQ(u, 7ull);
    In h(bytes({0x46, 0x02, 0x01}));
    EXPECT_EQ(printed([&] { EXPECT_EQ(h.s.get64(&u), 0); }), "SNMP InStream: get 64 overflow of message\n");
}

TEST(InStreamTest, StringsBitsNull) {
    std::string s = "keep";
    In a(bytes({0x04, 0x03, 'a', 'b', 'c', 0x40, 0x00, 0x04, 0x05, 'x'}));
    EXPECT_EQ(a.s.getString(&s), 1);
    EXPECT_EQ(s, "abc");
    EXPECT_EQ(a.s.getString(&s), 1);
    EXPECT_EQ(s, "");
    EXPECT_EQ(printed([&] { EXPECT_EQ(a.s.getString(&s), 0); }),
              "SNMP InStream: get string overflow of message\n");
    EXPECT_EQ(s, "");

    std::vector<unsigned char> bits;
    In b(bytes({0x03, 0x02, 0x07, 0x80, 0x03, 0x00, 0x03, 0x01, 0x08, 0x03, 0x04, 0x00}));
    EXPECT_EQ(b.s.getBits(&bits), 1);
    EXPECT_EQ(bits, bytes({0x07, 0x80}));
    EXPECT_EQ(printed([&] { EXPECT_EQ(b.s.getBits(&bits), 0); }), "SNMP InStream: Invalid bitstring\n");
    b.s.pos = 6;
    EXPECT_EQ(printed([&] { EXPECT_EQ(b.s.getBits(&bits), 0); }), "SNMP InStream: Invalid bitstring\n");
    b.s.pos = 9;
    EXPECT_EQ(printed([&] { EXPECT_EQ(b.s.getBits(&bits), 0); }), "SNMP InStream: get bits overflow of message\n");
    EXPECT_EQ(bits, bytes({0x07, 0x80}));

    In c(bytes({0x05, 0x00, 0x05, 0x01, 0x00}));
    EXPECT_EQ(c.s.getNull(), 1);
    EXPECT_EQ(printed([&] { EXPECT_EQ(c.s.getNull(), 0); }), "SNMP InStream: malformed null\n");
}

TEST(InStreamTest, Oids) {
    OID o("9.9");
    In a(bytes({0x06, 0x08, 0x2B, 0x06, 0x01, 0x02, 0x01, 0x01, 0x03, 0x00, 0x06, 0x00}));
    EXPECT_EQ(a.s.getOID(&o), 1);
    EXPECT_EQ(o, OID("1.3.6.1.2.1.1.3.0"));
    EXPECT_EQ(a.s.getOID(&o), 1);
    EXPECT_EQ(o, OID("0.0"));

    // First byte split as b/40, b%40, with no special case for arc 2.
    In b(bytes({0x06, 0x03, 0x78, 0x81, 0x00, 0x06, 0x06, 0x2B, 0x8F, 0xFF, 0xFF, 0xFF, 0x7F}));
    EXPECT_EQ(b.s.getOID(&o), 1);
    EXPECT_EQ(o, OID({3, 0, 128}));
    EXPECT_EQ(b.s.getOID(&o), 1);
    EXPECT_EQ(o, OID({1, 3, 0xFFFFFFFFu}));

    o = OID("9.9");
    In c(bytes({0x06, 0x03, 0x2B, 0x06, 0x81}));
    EXPECT_EQ(printed([&] { EXPECT_EQ(c.s.getOID(&o), 0); }), "SNMP InStream: malformed oid\n");
    EXPECT_EQ(o, OID("9.9"));

    In d(bytes({0x06, 0x09, 0x2B, 0x06}));
    EXPECT_EQ(printed([&] { EXPECT_EQ(d.s.getOID(&o), 0); }),
              "SNMP InStream: get oid overflow of message 2 9 4\n");
    EXPECT_EQ(o, OID("9.9"));

    // A last sub-identifier with its continuation bit reads on into what follows.
    In e(bytes({0x06, 0x02, 0x2B, 0x86, 0x05, 0x00}));
    EXPECT_EQ(e.s.getOID(&o), 1);
    EXPECT_EQ(o, OID({1, 3, 6 * 128 + 5}));
}

TEST(InStreamTest, Sequences) {
    // SEQUENCE { INTEGER 1, SEQUENCE { INTEGER 2 } INTEGER 3 }, then trailing bytes.
    In a(bytes({0x30, 0x0B, 0x02, 0x01, 0x01, 0x30, 0x03, 0x02, 0x01, 0x02, 0x02, 0x01, 0x03, 0xEE}));
    EXPECT_EQ(a.s.enterSeq(), 11u);
    EXPECT_TRUE(a.s.moreInSeq());
    int v;
    EXPECT_EQ(a.s.getInt(&v), 1);
    EXPECT_EQ(a.s.enterSeq(), 3u);
    a.s.exitSeq();  // skips the unread INTEGER 2
    EXPECT_EQ(a.s.pos, 10u);
    EXPECT_EQ(a.s.getInt(&v), 1);
    EXPECT_EQ(v, 3);
    EXPECT_FALSE(a.s.moreInSeq());
    a.s.exitSeq();
    EXPECT_EQ(a.s.pos, 13u);
    EXPECT_TRUE(a.s.moreInSeq());
    EXPECT_EQ(printed([&] { a.s.exitSeq(); }), "SNMP InStream: exitSeq when seqEndp is empty!\n");
    EXPECT_EQ(a.s.pos, 13u);

    In b(bytes({0x30, 0x05, 0x02, 0x01}));
    EXPECT_EQ(printed([&] { EXPECT_EQ(b.s.enterSeq(), 0xFFFFFFFFu); }), "");
    EXPECT_TRUE(b.s.seqEndp.empty());
    In c(bytes({0x30, 0x80, 0x00, 0x00}));
    EXPECT_EQ(c.s.enterSeq(), 0xFFFFFFFFu);
    In d(bytes({0x30}));
    EXPECT_EQ(d.s.enterSeq(), 0xFFFFFFFFu);

    // getVersion enters the message once and caches; reset keeps the version.
    In e(bytes({0x30, 0x03, 0x02, 0x01, 0x01}));
    EXPECT_EQ(e.s.getVersion(), 1);
    EXPECT_EQ(e.s.pos, 5u);
    EXPECT_EQ(e.s.getVersion(), 1);
    e.s.reset();
    EXPECT_EQ(e.s.pos, 0u);
    EXPECT_TRUE(e.s.seqEndp.empty());
    EXPECT_EQ(e.s.getVersion(), 1);
    In f(bytes({0x30, 0x03, 0x02, 0x04, 0x01}));
    EXPECT_EQ(f.s.getVersion(), -1);
}

TEST(OutStreamTest, Integers) {
    auto intOf = [](int v) { return encoded([&](OutStream& o) { o.add(v, 2); }); };
    EXPECT_EQ(intOf(-1), bytes({0x02, 0x01, 0xFF}));
    EXPECT_EQ(intOf(128), bytes({0x02, 0x02, 0x00, 0x80}));
    EXPECT_EQ(intOf(0), bytes({0x02, 0x01, 0x00}));
    EXPECT_EQ(intOf(127), bytes({0x02, 0x01, 0x7F}));
    EXPECT_EQ(intOf(-128), bytes({0x02, 0x01, 0x80}));
    EXPECT_EQ(intOf(-129), bytes({0x02, 0x02, 0xFF, 0x7F}));
    EXPECT_EQ(intOf(0x7FFFFFFF), bytes({0x02, 0x04, 0x7F, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(intOf(int(0x80000000u)), bytes({0x02, 0x04, 0x80, 0x00, 0x00, 0x00}));

    auto uOf = [](unsigned v) { return encoded([&](OutStream& o) { o.add(v, 0x41); }); };
    EXPECT_EQ(uOf(0x80000000u), bytes({0x41, 0x05, 0x00, 0x80, 0x00, 0x00, 0x00}));
    EXPECT_EQ(uOf(0), bytes({0x41, 0x01, 0x00}));
    EXPECT_EQ(uOf(128), bytes({0x41, 0x02, 0x00, 0x80}));
    EXPECT_EQ(uOf(0xFFFF), bytes({0x41, 0x03, 0x00, 0xFF, 0xFF}));
    EXPECT_EQ(uOf(0x7FFFFFFFu), bytes({0x41, 0x04, 0x7F, 0xFF, 0xFF, 0xFF}));

    auto u64Of = [](unsigned long long v) { return encoded([&](OutStream& o) { o.add(v, 0x46); }); };
    EXPECT_EQ(u64Of(0), bytes({0x46, 0x01, 0x00}));
    EXPECT_EQ(u64Of(0x100000000ull), bytes({0x46, 0x05, 0x01, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(u64Of(0xFFFFFFFFFFFFFFFFull),
              bytes({0x46, 0x09, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));

    // Round trip through the decoder for a spread of values.
    for (int v : {0, 1, -1, 127, 128, -128, -129, 255, 256, 32767, 32768, -32769, 8388607, 8388608, -8388609,
                  0x7FFFFFFF, int(0x80000000u)}) {
        In in(intOf(v));
        int r = ~v;
        ASSERT_EQ(in.s.getInt(&r), 1);
        EXPECT_EQ(r, v);
    }
    for (unsigned v : {0u, 0x7Fu, 0x80u, 0xFFFFu, 0x800000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        In in(uOf(v));
        int r = 0;
        ASSERT_EQ(in.s.getInt(&r), 1);
        EXPECT_EQ(unsigned(r), v);
    }
}

TEST(OutStreamTest, LengthsAndSequences) {
    auto lenOf = [](unsigned n) { return encoded([&](OutStream& o) { o.addLen(n); }); };
    EXPECT_EQ(lenOf(127), bytes({0x7F}));
    EXPECT_EQ(lenOf(128), bytes({0x81, 0x80}));
    EXPECT_EQ(lenOf(255), bytes({0x81, 0xFF}));
    EXPECT_EQ(lenOf(256), bytes({0x82, 0x01, 0x00}));
    EXPECT_EQ(lenOf(0x12345), bytes({0x82, 0x23, 0x45}));  // only the low 16 bits

    OutStream o;
    o.startSeq(0x30);
    o.add(std::string(126, 'x'), 4);  // 128 content bytes
    o.endSeq();
    ASSERT_EQ(o.data.size(), 131u);
    EXPECT_EQ(o.data[0], 0x30);
    EXPECT_EQ(o.data[1], 0x81);
    EXPECT_EQ(o.data[2], 0x80);
    EXPECT_EQ(o.data[3], 0x04);
    EXPECT_EQ(o.data[4], 0x7E);

    OutStream p;
    p.startSeq(0x30);
    p.startSeq(0xA2);
    p.add(std::string(300, 'y'), 4);
    p.endSeq();
    p.endSeq();
    Bytes head(p.data.begin(), p.data.begin() + 8);
    EXPECT_EQ(head, bytes({0x30, 0x82, 0x01, 0x34, 0xA2, 0x82, 0x01, 0x30}));
    EXPECT_EQ(p.data.size(), 308u + 4u);
    In back(p.data);
    EXPECT_EQ(back.s.enterSeq(), 308u);
    EXPECT_EQ(back.s.enterSeq(), 304u);

    OutStream q;
    q.startSeq(0x30);
    q.endSeq();
    EXPECT_EQ(q.data, bytes({0x30, 0x00}));
    EXPECT_EQ(printed([&] { q.endSeq(); }), "SNMP OutStream: no sequence\n");
    EXPECT_EQ(q.data, bytes({0x30, 0x00}));

    OutStream r;
    r.startSeq(0x30);
    r.data.resize(r.data.size() + 65536);
    EXPECT_EQ(printed([&] { r.endSeq(); }), "SNMP OutStream: sequence too long\n");
    EXPECT_EQ(r.data[1], 0x00);
    EXPECT_TRUE(r.seqStack.empty());
}

TEST(OutStreamTest, InsertedLengthShiftsV3Positions) {
    OutStream o;
    o.startSeq(0x30);
    o.add(std::string(10, 'a'), 4);
    o.authParamsPos = 5;
    o.scopedPduStart = 9;
    o.addErrorStatus(0);
    uint32_t es = o.errorStatusPos;
    o.add(std::string(200, 'b'), 4);
    o.endSeq();
    EXPECT_EQ(o.authParamsPos, 6u);
    EXPECT_EQ(o.scopedPduStart, 10u);
    EXPECT_EQ(o.errorStatusPos, es);  // not adjusted

    OutStream p;
    p.startSeq(0x30);
    p.add(std::string(300, 'b'), 4);
    p.endSeq();
    EXPECT_EQ(p.authParamsPos, 0u);  // zero means none and stays zero
    EXPECT_EQ(p.scopedPduStart, 0u);

    // A long sequence closed after the positions (a PDU inside the scoped
    // PDU) inserts its length bytes behind them: they stay where they are.
    OutStream q;
    q.startSeq(0x30);
    q.add(std::string(20, 'a'), 4);
    q.authParamsPos = 5;
    q.scopedPduStart = 9;
    q.startSeq(0xA7);
    q.add(std::string(300, 'b'), 4);
    q.endSeq();
    EXPECT_EQ(q.authParamsPos, 5u);
    EXPECT_EQ(q.scopedPduStart, 9u);
    q.endSeq();  // the outer sequence's length bytes precede both
    EXPECT_EQ(q.authParamsPos, 7u);
    EXPECT_EQ(q.scopedPduStart, 11u);
}

TEST(OutStreamTest, Oids) {
    auto oidOf = [](OID const& v) { return encoded([&](OutStream& o) { o.addOID(v, 6); }); };
    EXPECT_EQ(oidOf(OID("1.3.6.1.2.1.1.3.0")), bytes({0x06, 0x08, 0x2B, 0x06, 0x01, 0x02, 0x01, 0x01, 0x03, 0x00}));
    EXPECT_EQ(oidOf(OID("1.3.128")), bytes({0x06, 0x03, 0x2B, 0x81, 0x00}));
    EXPECT_EQ(oidOf(OID("1.3.127.16383.16384")),
              bytes({0x06, 0x07, 0x2B, 0x7F, 0xFF, 0x7F, 0x81, 0x80, 0x00}));
    EXPECT_EQ(oidOf(OID("2.39.4294967295")), bytes({0x06, 0x06, 0x77, 0x8F, 0xFF, 0xFF, 0xFF, 0x7F}));
    EXPECT_EQ(oidOf(OID("0.0")), bytes({0x06, 0x01, 0x00}));

    Bytes none;
    EXPECT_EQ(printed([&] { EXPECT_EQ(oidOf(OID("1")), none); }),
              "SNMP OutStream: cannot encode OID shorter that 2\n");
    EXPECT_EQ(printed([&] { EXPECT_EQ(oidOf(OID("3.1")), none); }), "SNMP OutStream: encoding invalid OID\n");
    EXPECT_EQ(printed([&] { EXPECT_EQ(oidOf(OID("2.40")), none); }), "SNMP OutStream: encoding invalid OID\n");

    // Round trip, also for a name too long for the scratch buffer.
    for (OID v : {OID("1.3.6.1.4.1.48291.1.2.3"), OID("2.5.4294967295.0.1")}) {
        In in(oidOf(v));
        OID r;
        ASSERT_EQ(in.s.getOID(&r), 1);
        EXPECT_EQ(r, v);
    }
    std::vector<uint32_t> arcs(20000, 1);
    arcs[0] = 1;
    arcs[1] = 3;
    arcs[7] = arcs[19999] = 0xFFFFFFFFu;
    OID longOid(arcs);
    Bytes big = oidOf(longOid);
    ASSERT_EQ(big.size(), 1u + 3u + 1u + 19998u + 8u);
    In in(big);
    OID r;
    ASSERT_EQ(in.s.getOID(&r), 1);
    EXPECT_EQ(r, longOid);
}

TEST(OutStreamTest, OtherAdders) {
    EXPECT_EQ(encoded([](OutStream& o) { o.add(std::string("ab"), 4); }), bytes({0x04, 0x02, 'a', 'b'}));
    unsigned char raw[4] = {10, 0, 0, 1};
    EXPECT_EQ(encoded([&](OutStream& o) { o.add(raw, 4, 0x40); }), bytes({0x40, 0x04, 10, 0, 0, 1}));
    EXPECT_EQ(encoded([](OutStream& o) { o.addNull(5); }), bytes({0x05, 0x00}));
    EXPECT_EQ(encoded([](OutStream& o) { o.addNull(0x81); }), bytes({0x81, 0x00}));

    unsigned char bits[2] = {0x03, 0xF8};
    EXPECT_EQ(encoded([&](OutStream& o) { o.addBits(bits, 2, 3); }), bytes({0x03, 0x02, 0x03, 0xF8}));
    unsigned char badBits[1] = {8};
    EXPECT_EQ(printed([&] { EXPECT_TRUE(encoded([&](OutStream& o) { o.addBits(badBits, 1, 3); }).empty()); }),
              "SNMP OutStream: building invalid bitstring\n");
    EXPECT_EQ(printed([&] { EXPECT_TRUE(encoded([&](OutStream& o) { o.addBits(bits, 0, 3); }).empty()); }),
              "SNMP OutStream: building invalid bitstring\n");

    // Error fields: reserved once, overwritten later with the low 8 bits.
    OutStream e;
    e.addErrorStatus(0);
    e.addErrorIndex(0);
    e.add(7, 2);
    e.addErrorStatus(2);
    e.addErrorIndex(0x183);
    EXPECT_EQ(e.data, bytes({0x02, 0x01, 0x02, 0x02, 0x01, 0x83, 0x02, 0x01, 0x07}));
    EXPECT_EQ(e.errorStatusPos, 2u);
    EXPECT_EQ(e.errorIndexPos, 5u);
}

TEST(OutStreamTest, ByType) {
    auto by = [](std::string const& t, unsigned tag) { return encoded([&](OutStream& o) { o.addByType(t, tag); }); };
    EXPECT_EQ(by("-5", 0x02), bytes({0x02, 0x01, 0xFB}));
    EXPECT_EQ(by("", 0x02), bytes({0x02, 0x01, 0x00}));
    EXPECT_EQ(by("hi", 0x04), bytes({0x04, 0x02, 'h', 'i'}));
    EXPECT_EQ(by("whatever", 0x05), bytes({0x05, 0x00}));
    EXPECT_EQ(by("1.3.6.1", 0x06), bytes({0x06, 0x03, 0x2B, 0x06, 0x01}));
    EXPECT_EQ(by("10.0.0.1", 0x40), bytes({0x40, 0x04, 0x0A, 0x00, 0x00, 0x01}));
    EXPECT_EQ(by("0.0.1.2", 0x40), bytes({0x40, 0x02, 0x01, 0x02}));
    EXPECT_EQ(by("192.168.0.1", 0x40), bytes({0x40, 0x05, 0x00, 0xC0, 0xA8, 0x00, 0x01}));
    EXPECT_EQ(by("2000000000", 0x41), bytes({0x41, 0x04, 0x77, 0x35, 0x94, 0x00}));
    EXPECT_EQ(by("-1", 0x43), bytes({0x43, 0x05, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(by("300", 0x47), bytes({0x47, 0x02, 0x01, 0x2C}));
    // Texts beyond 31 bits are cut to 32 bits the same way where long has 32 bits.
    EXPECT_EQ(by("3000000000", 0x41), bytes({0x41, 0x05, 0x00, 0xB2, 0xD0, 0x5E, 0x00}));
    EXPECT_EQ(by("4294967295", 0x43), bytes({0x43, 0x05, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(by("3000000000", 0x02), bytes({0x02, 0x04, 0xB2, 0xD0, 0x5E, 0x00}));
    EXPECT_TRUE(by("5", 0x42).empty());
    EXPECT_TRUE(by("5", 0x46).empty());

    OutStream o;
    o.addVarBind(VariableBinding(OID("1.3.6.1.6.3.1.1.4.1.0"), 0x06, "1.3.6.1.6.3.1.1.5.3"));
    EXPECT_EQ(o.data, bytes({0x30, 0x17, 0x06, 0x0A, 0x2B, 0x06, 0x01, 0x06, 0x03, 0x01, 0x01, 0x04, 0x01, 0x00,
                             0x06, 0x09, 0x2B, 0x06, 0x01, 0x06, 0x03, 0x01, 0x01, 0x05, 0x03}));
    OutStream g;
    g.addVarBind(VariableBinding(OID("1.3.6.1.2.1.2.2.1.5.1"), 0x42, "100"));  // value dropped, name kept
    EXPECT_EQ(g.data, bytes({0x30, 0x0C, 0x06, 0x0A, 0x2B, 0x06, 0x01, 0x02, 0x01, 0x02, 0x02, 0x01, 0x05, 0x01}));
}

TEST(Hexdump, Format) {
    unsigned char b[17];
    for (int i = 0; i < 17; ++i)
        b[i] = (unsigned char)(i * 15);
    EXPECT_EQ(printed([&] { hexdump(b, 3); }), "00 0f 1e \n");
    EXPECT_EQ(printed([&] { hexdump(b, 17); }),
              "00 0f 1e 2d 3c 4b 5a 69 78 87 96 a5 b4 c3 d2 e1 \nf0 \n");
    EXPECT_EQ(printed([&] { hexdump(b, 0); }), "\n");
}
