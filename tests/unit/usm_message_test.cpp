// SNMPv3 messages through createReply: reports, time window, digests,
// privacy, and the header writer used by replies and notifications.
//
// Requests and expected replies are assembled here with a small BER builder
// of the test's own, and signatures are checked with OpenSSL's HMAC, so the
// agent's encoder and digest code are not used to judge themselves.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/community_keep.h"
#include "mib/leaf.h"
#include "mib/packer.h"
#include "request/context.h"
#include "request/usm.h"
#include "tn/time.h"

namespace {

typedef std::vector<unsigned char> Bytes;

// ---------------------------------------------------------------------------
// BER builder

Bytes operator+(Bytes a, Bytes const& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes tlv(unsigned tag, Bytes const& content) {
    Bytes out{static_cast<unsigned char>(tag)};
    size_t n = content.size();
    if (n < 128) {
        out.push_back(static_cast<unsigned char>(n));
    } else if (n < 256) {
        out.push_back(0x81);
        out.push_back(static_cast<unsigned char>(n));
    } else {
        out.push_back(0x82);
        out.push_back(static_cast<unsigned char>(n >> 8));
        out.push_back(static_cast<unsigned char>(n));
    }
    return out + content;
}

Bytes seq(Bytes const& content) { return tlv(0x30, content); }
Bytes octets(std::string const& s) { return tlv(0x04, Bytes(s.begin(), s.end())); }
Bytes null() { return Bytes{0x05, 0x00}; }

Bytes integer(long long v, unsigned tag = 0x02) {
    Bytes b;
    for (int i = 7; i >= 0; --i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
    while (b.size() > 1 && ((b[0] == 0 && !(b[1] & 0x80)) || (b[0] == 0xFF && (b[1] & 0x80))))
        b.erase(b.begin());
    return tlv(tag, b);
}

Bytes oid(std::vector<uint32_t> const& arcs) {
    Bytes b{static_cast<unsigned char>(arcs[0] * 40 + arcs[1])};
    for (size_t i = 2; i < arcs.size(); ++i) {
        Bytes groups;
        uint32_t v = arcs[i];
        do {
            groups.insert(groups.begin(), static_cast<unsigned char>((v & 0x7F) | (groups.empty() ? 0 : 0x80)));
            v >>= 7;
        } while (v);
        b = b + groups;
    }
    return tlv(0x06, b);
}

std::string str(Bytes const& b) { return std::string(b.begin(), b.end()); }

std::vector<uint32_t> const sysDescr0{1, 3, 6, 1, 2, 1, 1, 1, 0};

std::vector<uint32_t> usmStat(uint32_t n) { return {1, 3, 6, 1, 6, 3, 15, 1, 1, n, 0}; }

Bytes varbindList(std::vector<std::pair<std::vector<uint32_t>, Bytes>> const& vbs) {
    Bytes content;
    for (auto const& vb : vbs) content = content + seq(oid(vb.first) + vb.second);
    return seq(content);
}

Bytes pdu(unsigned tag, int requestId, int status, int index, Bytes const& varbinds) {
    return tlv(tag, integer(requestId) + integer(status) + integer(index) + varbinds);
}

// One SNMPv3 message as a manager or the agent would put it on the wire.
struct V3Msg {
    int msgID = 0x4321;
    int maxSize = 65507;
    unsigned char flags = 0x04;
    std::string engineID;
    long long boots = 0;
    long long time = 0;
    std::string user;
    size_t authLen = 12;     // length of the authentication parameters when signing
    std::string privParams;  // salt
    std::string contextEngineID;
    std::string contextName;
    Bytes pdu;

    // Signing: the digest and localised key; encryption: the localised key.
    EVP_MD const* authMd = nullptr;
    Bytes authKey;
    Bytes privKey;
    unsigned char padByte = 0x00;
    std::string authParamsAsIs;  // used when not signing
    Bytes rawScopedPart;         // when set, sent instead of the scoped PDU
};

// Placeholder authentication parameters: a run of bytes that does not
// otherwise occur in the messages.
std::string placeholder(size_t len) {
    std::string s;
    for (size_t i = 0; i < len; ++i) s.push_back(static_cast<char>(0xEE - 13 * i));
    return s;
}

Bytes hmacOver(Bytes msg, size_t pos, size_t len, EVP_MD const* md, Bytes const& key) {
    std::fill(msg.begin() + pos, msg.begin() + pos + len, 0);
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int outLen = 0;
    HMAC(md, key.data(), static_cast<int>(key.size()), msg.data(), msg.size(), out, &outLen);
    return Bytes(out, out + outLen);
}

Bytes build(V3Msg const& m) {
    Bytes scoped = seq(octets(m.contextEngineID) + octets(m.contextName) + m.pdu);
    Bytes scopedPart = scoped;
    if (!m.rawScopedPart.empty()) {
        scopedPart = m.rawScopedPart;
    } else if (!m.privKey.empty()) {
        while (scoped.size() % 8) scoped.push_back(m.padByte);
        std::string in = str(scoped), out;
        cryptMessageDES(m.privParams, m.privKey, in, out, 1);
        scopedPart = octets(out);
    }
    bool const sign = m.authMd != nullptr;
    std::string const authParams = sign ? placeholder(m.authLen) : m.authParamsAsIs;
    Bytes usm = seq(octets(m.engineID) + integer(m.boots) + integer(m.time) + octets(m.user) + octets(authParams) +
                    octets(m.privParams));
    Bytes header = seq(integer(m.msgID) + integer(m.maxSize) + octets(std::string(1, char(m.flags))) + integer(3));
    Bytes msg = seq(integer(3) + header + octets(str(usm)) + scopedPart);
    if (sign && m.authLen > 0) {
        std::string s = str(msg);
        size_t pos = s.find(authParams);
        EXPECT_NE(pos, std::string::npos);
        Bytes digest = hmacOver(msg, pos, m.authLen, m.authMd, m.authKey);
        for (size_t i = 0; i < m.authLen; ++i) msg[pos + i] = i < digest.size() ? digest[i] : 0;
    }
    return msg;
}

// ---------------------------------------------------------------------------
// BER reader for replies

struct Reader {
    Bytes const& b;
    size_t p;
    size_t end;

    // Reads one element; `content` is the index of its first content byte.
    bool next(int& tag, size_t& content, size_t& len) {
        if (p + 2 > end) return false;
        tag = b[p];
        size_t q = p + 1;
        len = b[q++];
        if (len & 0x80) {
            size_t n = len & 0x7F;
            if (n == 0 || n > 2 || q + n > end) return false;
            len = 0;
            while (n--) len = len << 8 | b[q++];
        }
        if (q + len > end) return false;
        content = q;
        p = q + len;
        return true;
    }
    bool expect(int want, size_t& content, size_t& len) {
        int tag;
        return next(tag, content, len) && tag == want;
    }
    bool getInt(long long& v) {
        size_t c, n;
        if (!expect(0x02, c, n) || n == 0 || n > 5) return false;
        v = (b[c] & 0x80) ? -1 : 0;
        for (size_t i = 0; i < n; ++i) v = v * 256 + b[c + i];
        return true;
    }
    bool getString(std::string& s, size_t* at = nullptr) {
        size_t c, n;
        if (!expect(0x04, c, n)) return false;
        s.assign(b.begin() + c, b.begin() + c + n);
        if (at) *at = c;
        return true;
    }
};

struct ParsedV3 {
    long long version = -1, msgID = 0, maxSize = 0, model = 0, boots = 0, time = 0;
    std::string flags, engineID, user, authParams, privParams;
    size_t authPos = 0;
    Bytes scoped;  // the scoped PDU SEQUENCE, or the encryptedPDU content
    bool encrypted = false;
};

bool parseV3(Bytes const& d, ParsedV3& out) {
    Reader r{d, 0, d.size()};
    size_t c, n;
    if (!r.expect(0x30, c, n) || c + n != d.size()) return false;
    r.p = c;
    if (!r.getInt(out.version)) return false;
    if (!r.expect(0x30, c, n)) return false;
    Reader h{d, c, c + n};
    if (!h.getInt(out.msgID) || !h.getInt(out.maxSize) || !h.getString(out.flags) || !h.getInt(out.model)) return false;
    if (!r.expect(0x04, c, n)) return false;
    Reader u{d, c, c + n};
    if (!u.expect(0x30, c, n) || c + n != u.end) return false;
    u.p = c;
    if (!u.getString(out.engineID) || !u.getInt(out.boots) || !u.getInt(out.time) || !u.getString(out.user) ||
        !u.getString(out.authParams, &out.authPos) || !u.getString(out.privParams))
        return false;
    size_t const scopedStart = r.p;
    int tag;
    if (!r.next(tag, c, n) || r.p != d.size()) return false;
    out.encrypted = tag == 0x04;
    if (out.encrypted)
        out.scoped.assign(d.begin() + c, d.begin() + c + n);
    else
        out.scoped.assign(d.begin() + scopedStart, d.end());
    return tag == 0x04 || tag == 0x30;
}

struct ParsedScoped {
    std::string contextEngineID, contextName;
    int pduTag = -1;
    long long requestId = 0, status = -1, index = -1;
    std::vector<std::pair<Bytes, Bytes>> varbinds;  // encoded name element, encoded value element
    size_t used = 0;                                // bytes of the SEQUENCE itself
};

bool parseScoped(Bytes const& d, ParsedScoped& out) {
    Reader r{d, 0, d.size()};
    size_t c, n;
    if (!r.expect(0x30, c, n)) return false;
    out.used = c + n;
    r.end = c + n;
    r.p = c;
    if (!r.getString(out.contextEngineID) || !r.getString(out.contextName)) return false;
    int tag;
    if (!r.next(tag, c, n) || r.p != r.end) return false;
    out.pduTag = tag;
    Reader p{d, c, c + n};
    if (!p.getInt(out.requestId) || !p.getInt(out.status) || !p.getInt(out.index)) return false;
    if (!p.expect(0x30, c, n) || p.p != p.end) return false;
    Reader l{d, c, c + n};
    while (l.p < l.end) {
        if (!l.expect(0x30, c, n)) return false;
        Reader v{d, c, c + n};
        size_t nc, nn, vc, vn;
        int vt;
        if (!v.expect(0x06, nc, nn) || !v.next(vt, vc, vn) || v.p != v.end) return false;
        out.varbinds.emplace_back(Bytes(d.begin() + nc - 2, d.begin() + nc + nn),
                                  Bytes(d.begin() + vc - 2, d.begin() + vc + vn));
    }
    return true;
}

// ---------------------------------------------------------------------------
// Fixture

uint64_t clockMs = 0;
uint64_t testClock() { return clockMs; }

std::string const engineID("\x80\x00\xbc\x9b\x04kestrel-test", 17);
uint32_t const boots = 5;
uint32_t const engineTime = 100;  // uptime 1000 s, started at 900 s

uint32_t ip(int a, int b, int c, int d) { return uint32_t(a) << 24 | uint32_t(b) << 16 | uint32_t(c) << 8 | uint32_t(d); }

struct User {
    std::string name;
    uint32_t level;
    unsigned authProto;
    std::string authPassword, privPassword;
    uint32_t address = 0, netmask = 0;
};

// What a manager knows of a user: localised keys and digest.
struct ManagerKeys {
    EVP_MD const* md;
    Bytes auth;
    Bytes priv;
};

std::string const longName(120, 'u');

class UsmMessage : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        initDigestMethods();
        char tmpl[] = "/tmp/kestrel-usm-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        communityKeep = new CommunityKeep(dir + "/communities");
        User const users[] = {
            {"authuser", 1, 0, "maplesyrup", ""},
            {"shauser", 1, 1, "shapassword", ""},
            {"privuser", 2, 1, "authsecret", "privsecret"},
            {"md5priv", 2, 0, "authsecret", "privsecret"},
            {"plainuser", 0, 0, "", ""},
            {"lanuser", 1, 0, "maplesyrup", "", ip(10, 0, 0, 0), ip(255, 0, 0, 0)},
            {longName, 1, 0, "maplesyrup", ""},
        };
        for (User const& u : users) {
            CommunityKeep::Item* i = new CommunityKeep::Item;
            i->id = uint32_t(communityKeep->items().size());
            i->name = u.name;
            i->readAccess = true;
            i->securityLevel = u.level;
            i->address = u.address;
            i->netmask = u.netmask;
            i->authProtocol = u.authProto;
            i->privProtocol = 0;
            i->authPassword = u.authPassword;
            i->privPassword = u.privPassword;
            // Localised the way the community store does it: the privacy key
            // with the authentication protocol's digest.
            i->authKey = bKeyToDKey(aKeyToBKey(passwordToAKey(u.authPassword, u.authProto), engineID, u.authProto),
                                    u.authProto);
            i->privKey = aKeyToBKey(passwordToAKey(u.privPassword, u.authProto), engineID, u.authProto);
            communityKeep->items().push_back(i);
        }
        leafs.clear();
        addScalarConstStringLeaf(OID("1.3.6.1.2.1.1.1"), "kestrel router", 4);
    }
    static void TearDownTestSuite() {
        for (auto& e : leafs) {
            delete static_cast<ScalarLeaf*>(e.second)->packer;
            delete e.second;
        }
        leafs.clear();
        for (CommunityKeep::Item* i : communityKeep->items()) delete i;
        delete communityKeep;
        communityKeep = nullptr;
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }

    void SetUp() override {
        engine.engineBoots = boots;
        engine.startUptime = 900;
        engine.timeWindow = 15;
        engine.engineID = engineID;
        agentEngine = &engine;
        clockMs = 1000 * 1000 + 400;
        tn::setTimeSource(testClock);
    }
    void TearDown() override {
        tn::setTimeSource(nullptr);
        agentEngine = nullptr;
    }

    static ManagerKeys keysOf(std::string const& password, std::string const& privPassword, unsigned proto) {
        ManagerKeys k;
        k.md = proto ? EVP_sha1() : EVP_md5();
        k.auth = aKeyToBKey(passwordToAKey(password, proto), engineID, proto);
        k.priv = privPassword.empty() ? Bytes() : aKeyToBKey(passwordToAKey(privPassword, proto), engineID, proto);
        return k;
    }

    // A Get of sysDescr.0 from `user`, in time, to the right engine.
    static V3Msg request(std::string const& user, unsigned char flags) {
        V3Msg m;
        m.flags = flags;
        m.engineID = engineID;
        m.boots = boots;
        m.time = engineTime;
        m.user = user;
        m.contextEngineID = engineID;
        m.pdu = pdu(0xA0, 77, 0, 0, varbindList({{sysDescr0, null()}}));
        return m;
    }
    static void signAs(V3Msg& m, ManagerKeys const& k) {
        m.authMd = k.md;
        m.authKey = k.auth;
    }

    struct Reply {
        bool sent = false;
        Bytes data;
        std::string err;
    };
    static Reply serve(Bytes const& request, uint32_t source = ip(127, 0, 0, 1)) {
        Reply r;
        Context ctx(request.data(), unsigned(request.size()));
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        r.sent = createReply(ctx, int(source)) == 1;
        testing::internal::GetCapturedStdout();
        r.err = testing::internal::GetCapturedStderr();
        if (r.sent) r.data = ctx.out.data;
        return r;
    }

    // The report the agent is expected to send for `req`, counter value
    // `count`, with the reply header as given (unsigned).
    static V3Msg expectedReport(V3Msg const& req, uint32_t stat, uint32_t count) {
        V3Msg e = req;
        e.engineID = engineID;
        e.boots = boots;
        e.time = engineTime;
        e.authMd = nullptr;
        e.privKey.clear();
        e.authParamsAsIs.clear();
        e.pdu = pdu(0xA8, 77, 0, 0, varbindList({{usmStat(stat), integer(count, 0x41)}}));
        return e;
    }

    static std::string dir;
    V3ServerInfo engine;
};

std::string UsmMessage::dir;

// ---------------------------------------------------------------------------
// Reports, byte for byte

TEST_F(UsmMessage, DiscoveryGetsUnknownEngineIdReportWithTheAgentsEngine) {
    V3Msg req;
    req.flags = 0x04;
    req.pdu = pdu(0xA0, 77, 0, 0, seq(Bytes()));
    uint32_t const before = Context::v3counters[3];

    Reply r = serve(build(req));
    ASSERT_TRUE(r.sent) << r.err;

    V3Msg e = expectedReport(req, 4, before + 1);
    e.contextEngineID = engineID;  // replaced together with the engine ID
    EXPECT_EQ(r.data, build(e));
    EXPECT_EQ(Context::v3counters[3], before + 1);

    // The counter goes on counting from there.
    V3Msg e2 = expectedReport(req, 4, before + 2);
    e2.contextEngineID = engineID;
    EXPECT_EQ(serve(build(req)).data, build(e2));
}

TEST_F(UsmMessage, PrivacyWithoutAuthenticationIsAnUnsupportedLevel) {
    V3Msg req = request("plainuser", 0x06);
    req.privParams = std::string("\0\0\0\5abcd", 8);
    uint32_t const before = Context::v3counters[0];
    Reply r = serve(build(req));
    ASSERT_TRUE(r.sent) << r.err;
    // Unsigned, the header as received (flags and privacy parameters too).
    V3Msg e = expectedReport(req, 1, before + 1);
    EXPECT_EQ(r.data, build(e));
}

TEST_F(UsmMessage, UserRequiringPrivacyGetsASignedUnsupportedLevelReport) {
    ManagerKeys k = keysOf("authsecret", "privsecret", 0);
    V3Msg req = request("md5priv", 0x05);
    signAs(req, k);
    uint32_t const before = Context::v3counters[0];
    Reply r = serve(build(req));
    ASSERT_TRUE(r.sent) << r.err;
    V3Msg e = expectedReport(req, 1, before + 1);
    signAs(e, k);  // the message was authenticated, so is the report
    EXPECT_EQ(r.data, build(e));

    // A level error outranks a wrong digest found later.
    V3Msg bad = request("md5priv", 0x05);
    signAs(bad, keysOf("wrongpassword", "", 0));
    Reply r2 = serve(build(bad));
    ParsedV3 p;
    ASSERT_TRUE(parseV3(r2.data, p));
    ParsedScoped s;
    ASSERT_TRUE(parseScoped(p.scoped, s));
    ASSERT_EQ(s.varbinds.size(), 1u);
    EXPECT_EQ(s.varbinds[0].first, oid(usmStat(1)));
}

TEST_F(UsmMessage, UnknownUserWithoutAuthenticationIsReportedAsUnknown) {
    V3Msg req = request("ghost", 0x04);
    uint32_t const before = Context::v3counters[2];
    Reply r = serve(build(req));
    ASSERT_TRUE(r.sent) << r.err;
    EXPECT_EQ(r.data, build(expectedReport(req, 3, before + 1)));
}

TEST_F(UsmMessage, RejectedSourceClearsSecurityAndReportsUnknownUser) {
    V3Msg req = request("lanuser", 0x05);
    signAs(req, keysOf("maplesyrup", "", 0));
    uint32_t const before = Context::v3counters[2];

    // Accepted from inside its network...
    Reply ok = serve(build(req), ip(10, 1, 2, 3));
    ParsedV3 p;
    ASSERT_TRUE(parseV3(ok.data, p));
    ParsedScoped s;
    ASSERT_TRUE(parseScoped(p.scoped, s));
    EXPECT_EQ(s.pduTag, 0xA2);

    // ...refused from elsewhere, with an unauthenticated report.
    Reply r = serve(build(req), ip(192, 168, 1, 1));
    ASSERT_TRUE(r.sent) << r.err;
    V3Msg e = expectedReport(req, 3, before + 1);
    e.flags = 0x04;
    EXPECT_EQ(r.data, build(e));
}

TEST_F(UsmMessage, UnknownUserWithAuthenticationFailsOnTheDigest) {
    V3Msg req = request("ghost", 0x05);
    signAs(req, keysOf("whatever1", "", 0));
    uint32_t const before = Context::v3counters[4];
    Reply r = serve(build(req));
    ASSERT_TRUE(r.sent) << r.err;

    // The report is signed in the message's mode, with the empty key: the
    // digest of an empty pad block is H(H(message)).
    V3Msg e = expectedReport(req, 5, before + 1);
    e.authParamsAsIs = placeholder(12);
    Bytes expect = build(e);
    ParsedV3 p;
    ASSERT_TRUE(parseV3(expect, p));
    std::fill(expect.begin() + p.authPos, expect.begin() + p.authPos + 12, 0);
    unsigned char inner[EVP_MAX_MD_SIZE], outer[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EVP_Digest(expect.data(), expect.size(), inner, &n, EVP_md5(), nullptr);
    EVP_Digest(inner, n, outer, &n, EVP_md5(), nullptr);
    std::memcpy(expect.data() + p.authPos, outer, 12);
    EXPECT_EQ(r.data, expect);
}

TEST_F(UsmMessage, WrongPasswordIsAWrongDigest) {
    V3Msg req = request("authuser", 0x05);
    signAs(req, keysOf("maplesyrup!", "", 0));
    uint32_t const before = Context::v3counters[4];
    Reply r = serve(build(req));
    ASSERT_TRUE(r.sent) << r.err;
    V3Msg e = expectedReport(req, 5, before + 1);
    signAs(e, keysOf("maplesyrup", "", 0));  // signed with the agent's key of the user
    EXPECT_EQ(r.data, build(e));
}

TEST_F(UsmMessage, UnknownEngineWinsOverLaterErrors) {
    V3Msg req = request("authuser", 0x05);
    req.engineID = "someone else";
    req.time = 5000;                        // out of the window too
    signAs(req, keysOf("maplesyrup!", "", 0));  // and a wrong digest
    Reply r = serve(build(req));
    ASSERT_TRUE(r.sent) << r.err;
    ParsedV3 p;
    ASSERT_TRUE(parseV3(r.data, p));
    ParsedScoped s;
    ASSERT_TRUE(parseScoped(p.scoped, s));
    ASSERT_EQ(s.varbinds.size(), 1u);
    EXPECT_EQ(s.varbinds[0].first, oid(usmStat(4)));
    EXPECT_EQ(p.engineID, engineID);
    EXPECT_EQ(s.contextEngineID, engineID);
    EXPECT_EQ(p.boots, boots);
    EXPECT_EQ(p.time, engineTime);
}

// ---------------------------------------------------------------------------
// Time window

TEST_F(UsmMessage, TimeWindowAcceptsOnlyRecentOrEqualTimesOfThisBoot) {
    ManagerKeys k = keysOf("maplesyrup", "", 0);
    struct Case {
        long long boots, time;
        bool inTime;
    } const cases[] = {
        {boots, engineTime, true},
        {boots, engineTime - 15, true},   // exactly the window
        {boots, engineTime - 16, false},  // too old
        {boots, engineTime + 1, false},   // manager ahead of the agent
        {boots, -1, false},
        {boots - 1, engineTime, false},
        {boots + 1, engineTime, false},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(::testing::Message() << "boots " << c.boots << " time " << c.time);
        V3Msg req = request("authuser", 0x05);
        req.boots = c.boots;
        req.time = c.time;
        signAs(req, k);
        uint32_t const before = Context::v3counters[1];
        Reply r = serve(build(req));
        ASSERT_TRUE(r.sent) << r.err;
        if (c.inTime) {
            V3Msg e = req;
            e.time = engineTime;
            e.boots = boots;
            e.pdu = pdu(0xA2, 77, 0, 0, varbindList({{sysDescr0, octets("kestrel router")}}));
            EXPECT_EQ(r.data, build(e));
            EXPECT_EQ(Context::v3counters[1], before);
        } else {
            V3Msg e = expectedReport(req, 2, before + 1);
            signAs(e, k);
            EXPECT_EQ(r.data, build(e));
        }
    }
}

TEST_F(UsmMessage, EngineTimeFollowsTheUptime) {
    ManagerKeys k = keysOf("maplesyrup", "", 0);
    clockMs += 50 * 1000;  // the agent's engine time is now 150
    V3Msg req = request("authuser", 0x05);
    req.time = 150;
    signAs(req, k);
    Reply r = serve(build(req));
    ParsedV3 p;
    ASSERT_TRUE(parseV3(r.data, p));
    EXPECT_EQ(p.time, 150);
    ParsedScoped s;
    ASSERT_TRUE(parseScoped(p.scoped, s));
    EXPECT_EQ(s.pduTag, 0xA2);

    // The same request a minute later has fallen out of the window.
    clockMs += 60 * 1000;
    Reply late = serve(build(req));
    ASSERT_TRUE(parseV3(late.data, p));
    EXPECT_EQ(p.time, 210);
    ASSERT_TRUE(parseScoped(p.scoped, s = ParsedScoped()));
    EXPECT_EQ(s.pduTag, 0xA8);
    EXPECT_EQ(s.varbinds[0].first, oid(usmStat(2)));
}

// ---------------------------------------------------------------------------
// Digests

TEST_F(UsmMessage, SignedGetIsAnsweredAndSigned) {
    for (unsigned proto : {0u, 1u}) {
        SCOPED_TRACE(proto);
        std::string const user = proto ? "shauser" : "authuser";
        ManagerKeys k = keysOf(proto ? "shapassword" : "maplesyrup", "", proto);
        V3Msg req = request(user, 0x05);
        signAs(req, k);
        Reply r = serve(build(req));
        ASSERT_TRUE(r.sent) << r.err;
        ParsedV3 p;
        ASSERT_TRUE(parseV3(r.data, p));
        ASSERT_EQ(p.authParams.size(), 12u);
        Bytes digest = hmacOver(r.data, p.authPos, 12, k.md, k.auth);
        EXPECT_EQ(Bytes(p.authParams.begin(), p.authParams.end()), Bytes(digest.begin(), digest.begin() + 12));
        ParsedScoped s;
        ASSERT_TRUE(parseScoped(p.scoped, s));
        EXPECT_EQ(s.pduTag, 0xA2);
        EXPECT_EQ(s.requestId, 77);
        ASSERT_EQ(s.varbinds.size(), 1u);
        EXPECT_EQ(s.varbinds[0].second, octets("kestrel router"));
    }
}

TEST_F(UsmMessage, RepliesWithLongPdusCarryTheirDigestInPlace) {
    // Eight bindings make the PDU longer than 127 bytes, so closing it
    // inserts length bytes after the authentication parameters.
    std::vector<std::pair<std::vector<uint32_t>, Bytes>> many(8, {sysDescr0, null()});
    for (unsigned char flags : {0x05, 0x07}) {
        SCOPED_TRACE(int(flags));
        bool const priv = flags & 0x02;
        ManagerKeys k = priv ? keysOf("authsecret", "privsecret", 1) : keysOf("shapassword", "", 1);
        V3Msg req = request(priv ? "privuser" : "shauser", flags);
        req.pdu = pdu(0xA0, 77, 0, 0, varbindList(many));
        signAs(req, k);
        if (priv) {
            req.privKey = k.priv;
            req.privParams = std::string("\0\0\0\5\1\2\3\4", 8);
        }
        Reply r = serve(build(req));
        ASSERT_TRUE(r.sent) << r.err;
        ParsedV3 p;
        ASSERT_TRUE(parseV3(r.data, p));
        Bytes digest = hmacOver(r.data, p.authPos, 12, k.md, k.auth);
        EXPECT_EQ(Bytes(p.authParams.begin(), p.authParams.end()), Bytes(digest.begin(), digest.begin() + 12));
        Bytes scoped = p.scoped;
        if (p.encrypted) {
            std::string cipher = str(p.scoped), plain;
            cryptMessageDES(p.privParams, k.priv, cipher, plain, 0);
            scoped.assign(plain.begin(), plain.end());
        }
        ParsedScoped s;
        ASSERT_TRUE(parseScoped(scoped, s));
        EXPECT_EQ(s.pduTag, 0xA2);
        ASSERT_EQ(s.varbinds.size(), 8u);
        EXPECT_EQ(s.varbinds[7].second, octets("kestrel router"));
    }
}

// Fields of 12 bytes and more are compared at their own length; shorter
// ones (an empty field would otherwise match an empty digest) never pass.
TEST_F(UsmMessage, AuthenticationParametersAreComparedAtTheirOwnLength) {
    ManagerKeys k = keysOf("maplesyrup", "", 0);
    struct Case {
        size_t len;
        bool accepted;
    } const cases[] = {{0, false},  {1, false},  {11, false}, {12, true},
                       {13, true},  {16, true},  {17, false}, {20, false}, {40, false}};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.len);
        V3Msg req = request("authuser", 0x05);
        signAs(req, k);
        req.authLen = c.len;
        Reply r = serve(build(req));
        ASSERT_TRUE(r.sent) << r.err;
        ParsedV3 p;
        ASSERT_TRUE(parseV3(r.data, p));
        ParsedScoped s;
        ASSERT_TRUE(parseScoped(p.scoped, s));
        EXPECT_EQ(s.pduTag, c.accepted ? 0xA2 : 0xA8);
        // The reply's parameters keep the received length and carry as much
        // of the digest as fits.
        ASSERT_EQ(p.authParams.size(), c.len);
        Bytes digest = hmacOver(r.data, p.authPos, c.len, k.md, k.auth);
        size_t n = std::min(c.len, digest.size());
        EXPECT_EQ(Bytes(p.authParams.begin(), p.authParams.begin() + n), Bytes(digest.begin(), digest.begin() + n));
        EXPECT_EQ(Bytes(p.authParams.begin() + n, p.authParams.end()), Bytes(c.len - n, 0));
    }
}

TEST_F(UsmMessage, LongSecurityParametersShiftTheReplyDigestEarly) {
    // 120-byte user name: the UsmSecurityParameters content is 128 bytes or
    // more, so the reply's digest lands one byte before the field.
    ManagerKeys k = keysOf("maplesyrup", "", 0);
    V3Msg req = request(longName, 0x05);
    signAs(req, k);
    Bytes const wire = build(req);
    ParsedV3 rp;
    ASSERT_TRUE(parseV3(wire, rp));
    Reply r = serve(wire);
    ASSERT_TRUE(r.sent) << r.err;

    // The reply as it would be with the received parameters still in place,
    // then signed one byte early: over its own length byte.
    V3Msg e = req;
    e.authMd = nullptr;
    e.authParamsAsIs = rp.authParams;
    e.pdu = pdu(0xA2, 77, 0, 0, varbindList({{sysDescr0, octets("kestrel router")}}));
    Bytes expect = build(e);
    ParsedV3 p;
    ASSERT_TRUE(parseV3(expect, p));
    Bytes const early = hmacOver(expect, p.authPos - 1, 12, k.md, k.auth);
    std::copy(early.begin(), early.begin() + 12, expect.begin() + p.authPos - 1);
    EXPECT_EQ(r.data, expect);
}

// ---------------------------------------------------------------------------
// Privacy

TEST_F(UsmMessage, AuthPrivGetRoundTrip) {
    struct Case {
        std::string user;
        unsigned proto;
    } const cases[] = {{"privuser", 1}, {"md5priv", 0}};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.user);
        ManagerKeys k = keysOf("authsecret", "privsecret", c.proto);
        V3Msg req = request(c.user, 0x07);
        signAs(req, k);
        req.privKey = k.priv;
        req.privParams = std::string("\0\0\0\5\x11\x22\x33\x44", 8);
        req.padByte = 0xAA;
        Bytes const wire = build(req);
        Reply r = serve(wire);
        ASSERT_TRUE(r.sent) << r.err;

        ParsedV3 p;
        ASSERT_TRUE(parseV3(r.data, p));
        EXPECT_EQ(p.version, 3);
        EXPECT_EQ(p.msgID, req.msgID);
        EXPECT_EQ(p.flags, std::string("\x07"));
        EXPECT_EQ(p.engineID, engineID);
        EXPECT_EQ(p.user, c.user);
        ASSERT_TRUE(p.encrypted);

        // Signed over the whole reply.
        Bytes digest = hmacOver(r.data, p.authPos, 12, k.md, k.auth);
        EXPECT_EQ(Bytes(p.authParams.begin(), p.authParams.end()), Bytes(digest.begin(), digest.begin() + 12));

        // The salt: the boot count, then four bytes of our own.
        ASSERT_EQ(p.privParams.size(), 8u);
        EXPECT_EQ(p.privParams.substr(0, 4), std::string("\0\0\0\5", 4));

        ASSERT_EQ(p.scoped.size() % 8, 0u);
        std::string cipher = str(p.scoped), plain;
        cryptMessageDES(p.privParams, k.priv, cipher, plain, 0);
        Bytes scoped(plain.begin(), plain.end());
        ParsedScoped s;
        ASSERT_TRUE(parseScoped(scoped, s));
        EXPECT_EQ(s.contextEngineID, engineID);
        EXPECT_EQ(s.pduTag, 0xA2);
        EXPECT_EQ(s.requestId, 77);
        EXPECT_EQ(s.status, 0);
        ASSERT_EQ(s.varbinds.size(), 1u);
        EXPECT_EQ(s.varbinds[0].first, oid(sysDescr0));
        EXPECT_EQ(s.varbinds[0].second, octets("kestrel router"));
        // The padding is made of 0x05 bytes.
        EXPECT_LT(scoped.size() - s.used, 8u);
        EXPECT_EQ(Bytes(scoped.begin() + s.used, scoped.end()), Bytes(scoped.size() - s.used, 0x05));
    }
}

TEST_F(UsmMessage, RepliesUseFreshSalts) {
    ManagerKeys k = keysOf("authsecret", "privsecret", 1);
    V3Msg req = request("privuser", 0x07);
    signAs(req, k);
    req.privKey = k.priv;
    req.privParams = std::string("\0\0\0\5\x11\x22\x33\x44", 8);
    Bytes const wire = build(req);
    std::vector<std::string> salts;
    for (int i = 0; i < 4; ++i) {
        Reply r = serve(wire);
        ParsedV3 p;
        ASSERT_TRUE(parseV3(r.data, p));
        salts.push_back(p.privParams);
    }
    EXPECT_FALSE(salts[0] == salts[1] && salts[1] == salts[2] && salts[2] == salts[3]);
}

TEST_F(UsmMessage, UndecryptableRequestsGetNoReply) {
    ManagerKeys k = keysOf("authsecret", "privsecret", 1);
    V3Msg req = request("privuser", 0x07);
    signAs(req, k);
    req.privParams = std::string("\0\0\0\5\x11\x22\x33\x44", 8);

    // Wrong privacy password: the digest is fine, the plaintext is garbage.
    req.privKey = keysOf("authsecret", "notthekey", 1).priv;
    EXPECT_FALSE(serve(build(req)).sent);

    // Ciphertext whose length is not a multiple of the block size.
    req.privKey = k.priv;
    Bytes wire = build(req);
    ParsedV3 p;
    ASSERT_TRUE(parseV3(wire, p));
    ASSERT_TRUE(p.encrypted);
    for (size_t cut = 1; cut < 16; ++cut) {
        SCOPED_TRACE(cut);
        V3Msg copy = req;
        copy.rawScopedPart = octets(str(Bytes(p.scoped.begin(), p.scoped.end() - cut)));
        Bytes msg = build(copy);
        Reply r = serve(msg);
        if (cut > 8) {
            // Whole plaintext blocks are missing: the scoped PDU is cut short.
            EXPECT_FALSE(r.sent);
        } else if (r.sent) {
            // Only the padding block is damaged; whatever is answered is a
            // well-formed message.
            ParsedV3 rp;
            EXPECT_TRUE(parseV3(r.data, rp));
        }
    }
}

// ---------------------------------------------------------------------------
// Malformed input

TEST_F(UsmMessage, EmptyFlagsGetNoReply) {
    V3Msg req = request("plainuser", 0x04);
    Bytes wire = build(req);
    // Rebuild with an empty msgFlags string.
    Bytes header = seq(integer(req.msgID) + integer(req.maxSize) + octets("") + integer(3));
    Bytes usm = seq(octets(engineID) + integer(boots) + integer(engineTime) + octets("plainuser") + octets("") +
                    octets(""));
    Bytes msg = seq(integer(3) + header + octets(str(usm)) +
                    seq(octets(engineID) + octets("") + pdu(0xA0, 77, 0, 0, varbindList({{sysDescr0, null()}}))));
    Reply r = serve(msg);
    EXPECT_FALSE(r.sent);
    EXPECT_NE(r.err.find("!ctx.in.readV3Info(v3_err)"), std::string::npos);
    EXPECT_TRUE(serve(wire).sent);
}

TEST_F(UsmMessage, DamagedSecurityParametersNeverCrash) {
    // Every truncation and a set of byte mutations of a valid authPriv
    // request: none may crash or read out of bounds (run under the
    // sanitizers), and none may be answered as if it were the original.
    ManagerKeys k = keysOf("authsecret", "privsecret", 1);
    V3Msg req = request("privuser", 0x07);
    signAs(req, k);
    req.privKey = k.priv;
    req.privParams = std::string("\0\0\0\5\x11\x22\x33\x44", 8);
    Bytes const wire = build(req);
    ASSERT_TRUE(serve(wire).sent);

    int answered = 0;
    for (size_t n = 0; n < wire.size(); ++n) {
        Reply r = serve(Bytes(wire.begin(), wire.begin() + n));
        answered += r.sent;
    }
    EXPECT_EQ(answered, 0) << "a truncated message has no complete PDU";

    unsigned char const values[] = {0x00, 0x01, 0x7F, 0x80, 0x81, 0x82, 0x84, 0xFF};
    for (size_t i = 0; i < wire.size(); ++i) {
        for (unsigned char v : values) {
            if (wire[i] == v) continue;
            Bytes bad = wire;
            bad[i] = v;
            Reply r = serve(bad);
            if (!r.sent) continue;
            // Whatever is answered must be a well-formed message.
            ParsedV3 p;
            EXPECT_TRUE(parseV3(r.data, p)) << "byte " << i << " = " << int(v);
        }
    }
}

TEST_F(UsmMessage, InconsistentSecurityParameterLengthsAreRefused) {
    // The security parameters' inner SEQUENCE claims more than its wrapper.
    Bytes header = seq(integer(1) + integer(65507) + octets("\x04") + integer(3));
    Bytes usmBody = octets(engineID) + integer(boots) + integer(engineTime) + octets("plainuser") + octets("") +
                    octets("");
    Bytes usm = Bytes{0x30, static_cast<unsigned char>(usmBody.size() + 10)} + usmBody;
    Bytes scoped = seq(octets(engineID) + octets("") + pdu(0xA0, 77, 0, 0, varbindList({{sysDescr0, null()}})));
    Bytes msg = seq(integer(3) + header + octets(str(usm)) + scoped);
    EXPECT_FALSE(serve(msg).sent);

    // A user name running past the wrapper.
    Bytes usm2 = seq(octets(engineID) + integer(boots) + integer(engineTime) + Bytes{0x04, 0x7F, 'a'});
    EXPECT_FALSE(serve(seq(integer(3) + header + octets(str(usm2)) + scoped)).sent);

    // Security parameters that are not an OCTET STRING at all but a
    // length beyond the message.
    Bytes msg3 = seq(integer(3) + header + Bytes{0x04, 0x82, 0x7F, 0xFF});
    EXPECT_FALSE(serve(msg3).sent);
}

// ---------------------------------------------------------------------------
// Header writer, encryption and signature as notifications use them

TEST_F(UsmMessage, WriterSignsAndEncryptsAFreshMessage) {
    ManagerKeys k = keysOf("authsecret", "privsecret", 0);
    V3Info info;
    info.msgID = 99;
    info.msgMaxSize = 65507;
    info.msgFlags = std::string("\x03");
    info.msgSecurityModel = 3;
    info.msgAuthoritativeEngineID = engineID;
    info.msgAuthoritativeEngineBoots = 5;
    info.msgAuthoritativeEngineTime = 12345;
    info.msgUserName = "md5priv";
    info.msgAuthenticationParameters = std::string(12, '\0');
    info.msgPrivacyParameters = std::string("\0\0\0\5\1\2\3\4", 8);
    info.contextEngineID = engineID;

    OutStream out;
    out.securityMode = 2;
    out.startSeq(0x30);
    out.add(3, 0x02);
    out.writeV3Info(&info);
    out.startSeq(0xA7);
    out.add(1, 0x02);
    out.add(0, 0x02);
    out.add(0, 0x02);
    out.startSeq(0x30);
    out.endSeq();
    out.endSeq();
    CommunityKeep::Item* item = *communityKeep->find("md5priv");
    out.cryptPacket(&info, item->privKey, 0);
    out.endSeq();
    out.signPacket(&info, item->authKey, 0);

    ParsedV3 p;
    ASSERT_TRUE(parseV3(out.data, p));
    EXPECT_EQ(p.msgID, 99);
    EXPECT_EQ(p.time, 12345);
    EXPECT_EQ(p.user, "md5priv");
    ASSERT_TRUE(p.encrypted);
    Bytes digest = hmacOver(out.data, p.authPos, 12, k.md, k.auth);
    EXPECT_EQ(Bytes(p.authParams.begin(), p.authParams.end()), Bytes(digest.begin(), digest.begin() + 12));

    std::string cipher = str(p.scoped), plain;
    cryptMessageDES(info.msgPrivacyParameters, k.priv, cipher, plain, 0);
    Bytes expectScoped = seq(octets(engineID) + octets("") + tlv(0xA7, integer(1) + integer(0) + integer(0) + seq({})));
    while (expectScoped.size() % 8) expectScoped.push_back(0x05);
    EXPECT_EQ(Bytes(plain.begin(), plain.end()), expectScoped);
}

TEST_F(UsmMessage, WriterAuthPositionFallsShortForLongParameters) {
    for (size_t nameLen : {10u, 100u, 300u}) {
        SCOPED_TRACE(nameLen);
        V3Info info;
        info.msgFlags = std::string("\x01");
        info.msgAuthoritativeEngineID = engineID;
        info.msgUserName = std::string(nameLen, 'n');
        info.msgAuthenticationParameters = std::string(12, '\0');
        OutStream out;
        out.startSeq(0x30);
        out.add(3, 0x02);
        out.writeV3Info(&info);
        // The scoped PDU starts at its SEQUENCE, before the context fields.
        ASSERT_EQ(out.scopedPduStart + 6, out.size());
        EXPECT_EQ(out.data[out.scopedPduStart], 0x30);
        out.endSeq();
        out.endSeq();
        ParsedV3 p;
        ASSERT_TRUE(parseV3(out.data, p));
        // Content sizes: engine 19, boots 3, time 3, name, auth 14, priv 2.
        size_t const name = nameLen + (nameLen < 128 ? 2 : nameLen < 256 ? 3 : 4);
        size_t const content = 19 + 3 + 3 + name + 14 + 2;
        size_t const shortfall = content < 128 ? 0 : content < 256 ? 1 : 2;
        EXPECT_EQ(out.authParamsPos, p.authPos - shortfall);
    }
}

TEST(UsmReport, ReportVarbindCarriesTheCounter) {
    unsigned char none[1] = {0};
    Context ctx(none, 0);
    uint32_t const saved = Context::v3counters[4];
    Context::v3counters[4] = 9;
    ctx.v3Error = 4;
    EXPECT_EQ(snmpV3(ctx), 0u);
    EXPECT_EQ(ctx.out.data, seq(oid(usmStat(5)) + integer(9, 0x41)));

    Context::v3counters[4] = 0x80000000u;
    Context ctx2(none, 0);
    ctx2.v3Error = 4;
    snmpV3(ctx2);
    EXPECT_EQ(ctx2.out.data, seq(oid(usmStat(5)) + tlv(0x41, {0x00, 0x80, 0x00, 0x00, 0x00})));
    Context::v3counters[4] = saved;
}

// ---------------------------------------------------------------------------
// A manager's real request

TEST_F(UsmMessage, NetSnmpRequestDecodes) {
    if (system("command -v snmpget >/dev/null 2>&1") != 0) GTEST_SKIP() << "net-snmp's snmpget not installed";
    std::string hexEngine;
    char buf[3];
    for (unsigned char c : engineID) {
        snprintf(buf, sizeof(buf), "%02x", c);
        hexEngine += buf;
    }
    // No agent listens on the port: the tool sends once and gives up; -d
    // dumps the datagram it sent. A known engine ID skips discovery; the
    // tool then claims boots and time 0, which this engine is made to match.
    engine.engineBoots = 0;
    engine.startUptime = 1000;
    std::string cmd = "MIBS= snmpget -v3 -l authPriv -u privuser -a SHA -A authsecret -x DES -X privsecret -e 0x" +
                      hexEngine + " -r 0 -t 1 -d -On udp:127.0.0.1:9 1.3.6.1.2.1.1.1.0 2>&1";
    FILE* f = popen(cmd.c_str(), "r");
    ASSERT_NE(f, nullptr);
    std::string text;
    char line[512];
    while (fgets(line, sizeof(line), f)) text += line;
    pclose(f);

    // Dump lines: "0000: 30 81 9F 02  01 03 30 11 ..." followed by ASCII.
    size_t at = text.find("Sending ");
    ASSERT_NE(at, std::string::npos) << text;
    unsigned total = 0;
    ASSERT_EQ(sscanf(text.c_str() + at, "Sending %u bytes", &total), 1);
    Bytes wire;
    size_t lineStart = text.find('\n', at) + 1;
    while (wire.size() < total && lineStart < text.size()) {
        size_t lineEnd = text.find('\n', lineStart);
        std::string l = text.substr(lineStart, lineEnd - lineStart);
        size_t colon = l.find(':');
        if (colon == std::string::npos) break;
        size_t pos = colon + 1;
        for (int inLine = 0; inLine < 16 && wire.size() < total; ++inLine) {
            while (pos < l.size() && l[pos] == ' ') ++pos;
            unsigned v;
            if (pos + 2 > l.size() || !isxdigit((unsigned char)l[pos]) || !isxdigit((unsigned char)l[pos + 1]) ||
                (pos + 2 < l.size() && l[pos + 2] != ' ') || sscanf(l.c_str() + pos, "%2x", &v) != 1)
                break;
            wire.push_back(static_cast<unsigned char>(v));
            pos += 2;
        }
        lineStart = lineEnd + 1;
    }
    ASSERT_EQ(wire.size(), total) << text;

    Reply r = serve(wire);
    ASSERT_TRUE(r.sent) << r.err;
    ParsedV3 p;
    ASSERT_TRUE(parseV3(r.data, p));
    ManagerKeys k = keysOf("authsecret", "privsecret", 1);
    Bytes digest = hmacOver(r.data, p.authPos, 12, k.md, k.auth);
    EXPECT_EQ(Bytes(p.authParams.begin(), p.authParams.end()), Bytes(digest.begin(), digest.begin() + 12));
    std::string cipher = str(p.scoped), plain;
    cryptMessageDES(p.privParams, k.priv, cipher, plain, 0);
    Bytes scoped(plain.begin(), plain.end());
    ParsedScoped s;
    ASSERT_TRUE(parseScoped(scoped, s));
    EXPECT_EQ(s.pduTag, 0xA2);
    ASSERT_EQ(s.varbinds.size(), 1u);
    EXPECT_EQ(s.varbinds[0].second, octets("kestrel router"));
}

}  // namespace
