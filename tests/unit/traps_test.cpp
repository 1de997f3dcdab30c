// Notifications: the trap encoder for v1, v2c and v3, the trap makers, the
// sending path with its guards, the start-up trap, and the generator
// selection of the settings handler.
//
// Expected datagrams are assembled with a small BER builder of the test's
// own; v3 signatures and encryption are checked with OpenSSL directly and
// with keys localised here from the passwords, so the agent's encoder and
// USM code do not judge themselves.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/des.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/community_keep.h"
#include "agent/options.h"
#include "agent/snmp_looper.h"
#include "agent/traps.h"
#include "modules/interfaces.h"
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

Bytes integer(long long v) {
    Bytes b;
    for (int i = 3; i >= 0; --i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
    while (b.size() > 1 && ((b[0] == 0 && !(b[1] & 0x80)) || (b[0] == 0xFF && (b[1] & 0x80)))) b.erase(b.begin());
    return tlv(0x02, b);
}

// Unsigned 32-bit application types (TimeTicks): a leading zero keeps the
// top bit from reading as a sign.
Bytes uns(uint32_t v, unsigned tag) {
    Bytes b{0};
    for (int i = 3; i >= 0; --i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
    while (b.size() > 1 && b[0] == 0 && !(b[1] & 0x80)) b.erase(b.begin());
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

Bytes varbind(std::vector<uint32_t> const& name, Bytes const& value) { return seq(oid(name) + value); }

std::vector<uint32_t> const sysUpTime0{1, 3, 6, 1, 2, 1, 1, 3, 0};
std::vector<uint32_t> const snmpTrapOID0{1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
std::vector<uint32_t> const coldStart{1, 3, 6, 1, 6, 3, 1, 1, 5, 2};
std::vector<uint32_t> const linkDown{1, 3, 6, 1, 6, 3, 1, 1, 5, 3};
std::vector<uint32_t> const linkUp{1, 3, 6, 1, 6, 3, 1, 1, 5, 4};
std::vector<uint32_t> const enterpriseTrap{1, 3, 6, 1, 4, 1, 48291, 1, 1, 9};
std::vector<uint32_t> const enterpriseTrap01{1, 3, 6, 1, 4, 1, 48291, 1, 1, 9, 0, 1};
std::vector<uint32_t> const sysName0{1, 3, 6, 1, 2, 1, 1, 5, 0};
std::vector<uint32_t> const ifIndexCol{1, 3, 6, 1, 2, 1, 2, 2, 1, 1};
std::vector<uint32_t> const ifAdminCol{1, 3, 6, 1, 2, 1, 2, 2, 1, 7};
std::vector<uint32_t> const ifOperCol{1, 3, 6, 1, 2, 1, 2, 2, 1, 8};

// ---------------------------------------------------------------------------
// BER reader for the v3 message

struct Reader {
    Bytes const& b;
    size_t p;
    size_t end;

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
    if (!r.getInt(out.version) || !r.expect(0x30, c, n)) return false;
    Reader h{d, c, c + n};
    if (!h.getInt(out.msgID) || !h.getInt(out.maxSize) || !h.getString(out.flags) || !h.getInt(out.model) ||
        h.p != h.end)
        return false;
    if (!r.expect(0x04, c, n)) return false;
    Reader u{d, c, c + n};
    if (!u.expect(0x30, c, n) || c + n != u.end) return false;
    u.p = c;
    if (!u.getString(out.engineID) || !u.getInt(out.boots) || !u.getInt(out.time) || !u.getString(out.user) ||
        !u.getString(out.authParams, &out.authPos) || !u.getString(out.privParams) || u.p != u.end)
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

// ---------------------------------------------------------------------------
// What the trap sink knows of a user: RFC 3414 key localisation, HMAC and
// DES-CBC, all straight from OpenSSL.

Bytes localisedKey(std::string const& password, EVP_MD const* md, std::string const& engineID) {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    unsigned char ku[EVP_MAX_MD_SIZE], kul[EVP_MAX_MD_SIZE];
    unsigned int kuLen = 0, kulLen = 0;
    EVP_DigestInit_ex(ctx, md, nullptr);
    std::string block;
    for (size_t i = 0; i < 1048576; ++i) block.push_back(password[i % password.size()]);
    EVP_DigestUpdate(ctx, block.data(), block.size());
    EVP_DigestFinal_ex(ctx, ku, &kuLen);
    EVP_DigestInit_ex(ctx, md, nullptr);
    EVP_DigestUpdate(ctx, ku, kuLen);
    EVP_DigestUpdate(ctx, engineID.data(), engineID.size());
    EVP_DigestUpdate(ctx, ku, kuLen);
    EVP_DigestFinal_ex(ctx, kul, &kulLen);
    EVP_MD_CTX_free(ctx);
    return Bytes(kul, kul + kulLen);
}

Bytes hmacOver(Bytes msg, size_t pos, size_t len, EVP_MD const* md, Bytes const& key) {
    std::fill(msg.begin() + pos, msg.begin() + pos + len, 0);
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int outLen = 0;
    HMAC(md, key.data(), static_cast<int>(key.size()), msg.data(), msg.size(), out, &outLen);
    return Bytes(out, out + outLen);
}

Bytes desDecrypt(Bytes const& cipher, Bytes const& privKey, std::string const& salt) {
    DES_cblock key, iv;
    for (int i = 0; i < 8; ++i) {
        key[i] = privKey[i];
        iv[i] = static_cast<unsigned char>(privKey[8 + i] ^ static_cast<unsigned char>(salt[i]));
    }
    DES_key_schedule schedule;
    DES_set_key_unchecked(&key, &schedule);
    Bytes plain(cipher.size());
    DES_ncbc_encrypt(cipher.data(), plain.data(), static_cast<long>(cipher.size()), &schedule, &iv, DES_DECRYPT);
    return plain;
}

// ---------------------------------------------------------------------------
// Fixture

uint64_t clockMs = 0;
uint64_t testClock() { return clockMs; }

std::string const engineText = "trap-test";
uint32_t const boots = 7;

// Test subscription entries count their calls.
int subscribes[3], unsubscribes[3];
template <int N>
void sub() {
    ++subscribes[N];
}
template <int N>
void unsub() {
    ++unsubscribes[N];
}

// The platform's interface list: a handler that only records subscriptions.
class InterfaceList : public tn::Handler {
public:
    void subscribed(tn::message const& req) override { filters.push_back(req.get(tn::message_id(tn::F_SUB_FILTER))); }
    std::vector<tn::message> filters;
};

// A UDP socket on 127.0.0.1 standing in for the trap sink.
class Sink {
public:
    Sink() {
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(a);
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            ADD_FAILURE() << "cannot open the trap sink";
        port = ntohs(a.sin_port);
    }
    ~Sink() {
        if (fd >= 0) close(fd);
    }
    // The next datagram, or an empty one after waitMs without any.
    Bytes receive(int waitMs = 2000) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, waitMs) != 1) return Bytes();
        unsigned char buf[65536];
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        return n > 0 ? Bytes(buf, buf + n) : Bytes();
    }
    int fd = -1;
    uint16_t port = 0;
};

class Traps : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char tmpl[] = "/tmp/kestrel-traps-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        agentOptions.setStateDir(dir);
        clockMs = 5000 * 1000;
        tn::setTimeSource(testClock);
        testing::internal::CaptureStderr();
        loop = new SnmpLooper();
        testing::internal::GetCapturedStderr();
        loop->engine.engineID = formatEngineID(engineText);
        loop->engine.engineBoots = boots;

        // Item 0 is the store's default community "vellum".
        struct User {
            uint32_t id;
            char const* name;
            uint32_t level, authProto;
            char const* authPassword;
            char const* privPassword;
        } const users[] = {
            {5, "public", 0, 0, "", ""},
            {6, "md5user", 1, 0, "authsecret", ""},
            {7, "shapriv", 2, 1, "authsecret", "privsecret"},
            {8, "md5priv", 2, 0, "md5secret", "md5privsecret"},
        };
        for (User const& u : users) {
            CommunityKeep::Item* i = new CommunityKeep::Item;
            i->id = u.id;
            i->name = u.name;
            i->securityLevel = u.level;
            i->authProtocol = u.authProto;
            i->authPassword = u.authPassword;
            i->privPassword = u.privPassword;
            i->regenerateKeys();
            communityKeep->items().push_back(i);
        }
        loop->addHandler(tn::u32_vector{20, 0}, &interfaceList);
    }
    static void TearDownTestSuite() {
        tn::setTimeSource(nullptr);
        delete loop;
        loop = nullptr;
        for (CommunityKeep::Item* i : communityKeep->items()) delete i;
        communityKeep->items().clear();
        delete communityKeep;
        communityKeep = nullptr;
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }

    void SetUp() override {
        trapMakers.clear();
        scribers.clear();
        linkStates.clear();
        for (int i = 0; i < 3; ++i) subscribes[i] = unsubscribes[i] = 0;
        loop->enabled = true;
        loop->trapTarget = 0x7F000001;
        loop->trapCommunity = 0;
        loop->trapVersion = 1;
        loop->trapGenerators.clear();
        // 1234 hundredths since the agent started; engine time 300 s.
        clockMs = 5000 * 1000 + 12340;
        loop->startJiffies = tn::getJiffies() - 1234;
        loop->engine.startUptime = tn::getUptime() - 300;
    }

    // createTrap's datagram with the given maker list; stdout and stderr
    // are captured into out/err.
    bool encode(tn::message const& event, Bytes& data, uint32_t agentAddr = htonl(0x0A010203)) {
        unsigned char none = 0;
        Context ctx(&none, 0);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        bool ok = createTrap(ctx, event, agentAddr);
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        data = ctx.out.data;
        return ok;
    }

    // send_trap to a local sink; returns what arrived (empty: nothing).
    Bytes sendToSink(tn::message const& event) {
        Sink sink;
        agentOptions.trapPort = sink.port;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        loop->send_trap(event);
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        return sink.receive(200);
    }

    static tn::message enterpriseEvent() {
        tn::message m;
        m.insert(tn::u32_id(tn::F_COMMAND), 1u);
        return m;
    }
    static tn::message linkEvent(uint32_t id, uint32_t flags) {
        tn::message m;
        m.insert(tn::u32_id(tn::F_COMMAND), 0x10004u);
        m.insert_u32_array(tn::u32_array_id(tn::F_SENDER), tn::u32_vector{0x14, 0});
        m.insert(tn::u32_id(tn::F_OBJ_ID), id);
        m.insert(tn::u32_id(0x10002), 0u);
        m.insert(tn::u32_id(0x10003), flags);
        return m;
    }
    static tn::message generators(tn::u32_vector const& list) {
        tn::message m;
        m.insert_u32_array(tn::u32_array_id(0x13), list);
        return m;
    }

    static std::string dir;
    static InterfaceList interfaceList;
    std::string out, err;
};

std::string Traps::dir;
InterfaceList Traps::interfaceList;

struct Made {
    bool ok = false;
    std::vector<VariableBinding> varbinds;
    OID trapOid;
    int generic = -1, specific = -1;
};

Made make(TrapMaker maker, tn::message const& event) {
    Made m;
    m.ok = maker(m.varbinds, event, m.trapOid, m.generic, m.specific);
    return m;
}

void expectBinding(VariableBinding const& vb, char const* name, unsigned type, std::string const& value) {
    EXPECT_EQ(vb.name, OID(name));
    EXPECT_EQ(vb.type, type);
    EXPECT_EQ(vb.value, value);
}

// ---------------------------------------------------------------------------
// Encoding, byte for byte

TEST_F(Traps, Version1TrapCarriesTheMakersOidAsEnterprise) {
    loop->trapVersion = 0;
    loop->trapCommunity = 5;
    trapMakers = {kestrelTrapMaker};
    tn::message ev = enterpriseEvent();
    ev.insert(tn::string_id(1001), "1.3.6.1.2.1.1.5.0");
    ev.insert(tn::u32_id(1002), 4u);
    ev.insert(tn::string_id(1003), "hello");
    Bytes data;
    ASSERT_TRUE(encode(ev, data));
    Bytes const pduBody = oid(enterpriseTrap) + tlv(0x40, {10, 1, 2, 3}) + integer(6) + integer(1) +
                          uns(1234, 0x43) + seq(varbind(sysName0, octets("hello")));
    EXPECT_EQ(data, seq(integer(0) + octets("public") + tlv(0xA4, pduBody)));

    // A standard trap keeps its own OID as the enterprise, with its generic code.
    trapMakers = {startupTrapMaker};
    loop->startJiffies -= 0x90000000u;  // TimeTicks with the top bit set stay unsigned
    ASSERT_TRUE(encode(tn::message(), data, htonl(0xC0A80001)));
    EXPECT_EQ(data, seq(integer(0) + octets("public") +
                        tlv(0xA4, oid(coldStart) + tlv(0x40, {192, 168, 0, 1}) + integer(1) + integer(0) +
                                      uns(0x90000000u + 1234, 0x43) + seq({}))));
}

TEST_F(Traps, Version2cTrapStartsWithUpTimeAndTrapOid) {
    loop->trapVersion = 1;
    loop->trapCommunity = 0;
    trapMakers = {kestrelTrapMaker, linkTrapMaker};
    srand(4242);
    int const requestId = rand();
    srand(4242);
    Bytes data;
    tn::message ev = enterpriseEvent();
    ev.insert(tn::string_id(1001), "1.3.6.1.2.1.1.5.0");
    ev.insert(tn::u32_id(1002), 5u);
    ASSERT_TRUE(encode(ev, data));
    EXPECT_EQ(data, seq(integer(1) + octets("vellum") +
                        tlv(0xA7, integer(requestId) + integer(0) + integer(0) +
                                      seq(varbind(sysUpTime0, uns(1234, 0x43)) +
                                          varbind(snmpTrapOID0, oid(enterpriseTrap01)) +
                                          varbind(sysName0, Bytes{0x05, 0x00})))));

    // A link event: the second maker's three INTEGER bindings on bare column OIDs.
    srand(77);
    int const requestId2 = rand();
    srand(77);
    ASSERT_TRUE(encode(linkEvent(3, 0x100), data));
    EXPECT_EQ(data, seq(integer(1) + octets("vellum") +
                        tlv(0xA7, integer(requestId2) + integer(0) + integer(0) +
                                      seq(varbind(sysUpTime0, uns(1234, 0x43)) + varbind(snmpTrapOID0, oid(linkUp)) +
                                          varbind(ifIndexCol, integer(3)) + varbind(ifAdminCol, integer(1)) +
                                          varbind(ifOperCol, integer(2))))));
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST_F(Traps, Version3TrapIsSignedAndEncryptedForTheItemsUser) {
    struct Case {
        uint32_t id;
        std::string user;
        EVP_MD const* md;
        std::string authPassword, privPassword;
        uint32_t level;
    } const cases[] = {
        {6, "md5user", EVP_md5(), "authsecret", "", 1},
        {7, "shapriv", EVP_sha1(), "authsecret", "privsecret", 2},
        {8, "md5priv", EVP_md5(), "md5secret", "md5privsecret", 2},
    };
    std::string const engineID = formatEngineID(engineText);
    ASSERT_EQ(engineID, std::string("\x80\x00\xbc\xa3\x04trap-test", 14));
    loop->trapVersion = 3;
    trapMakers = {kestrelTrapMaker};
    for (Case const& c : cases) {
        // A short binding, and one long enough that the PDU's length takes
        // extra bytes after the security parameters are written.
        for (size_t valueLen : {5u, 200u}) {
            SCOPED_TRACE(c.user + " " + std::to_string(valueLen));
            loop->trapCommunity = c.id;
            std::string const value(valueLen, 'v');
            tn::message ev = enterpriseEvent();
            ev.insert(tn::string_id(1001), "1.3.6.1.2.1.1.5.0");
            ev.insert(tn::string_id(1003), value);

            srand(99);
            int const msgID = rand();
            std::string salt = std::string("\0\0\0\7", 4);
            if (c.level == 2)
                for (int i = 0; i < 4; ++i) salt.push_back(static_cast<char>(rand() & 0xFF));
            int const requestId = rand();
            srand(99);

            Bytes data;
            ASSERT_TRUE(encode(ev, data));
            EXPECT_EQ(out, "snmp v3 trap\n");
            ParsedV3 p;
            ASSERT_TRUE(parseV3(data, p));
            EXPECT_EQ(p.version, 3);
            EXPECT_EQ(p.msgID, msgID);
            EXPECT_EQ(p.maxSize, 65507);
            EXPECT_EQ(p.flags, std::string(1, c.level == 2 ? '\x03' : '\x01'));
            EXPECT_EQ(p.model, 3);
            EXPECT_EQ(p.engineID, engineID);
            EXPECT_EQ(p.boots, boots);
            EXPECT_EQ(p.time, 300);
            EXPECT_EQ(p.user, c.user);

            Bytes const authKey = localisedKey(c.authPassword, c.md, engineID);
            // The item's key is the HMAC pad block of the same localised key.
            CommunityKeep::Item* item = *communityKeep->find(c.user);
            ASSERT_EQ(item->authKey.size(), 128u);
            for (size_t i = 0; i < authKey.size(); ++i) EXPECT_EQ(item->authKey[i] ^ 0x36, authKey[i]);
            ASSERT_EQ(p.authParams.size(), 12u);
            Bytes const digest = hmacOver(data, p.authPos, 12, c.md, authKey);
            EXPECT_EQ(Bytes(p.authParams.begin(), p.authParams.end()), Bytes(digest.begin(), digest.begin() + 12));

            Bytes const scoped =
                seq(octets(engineID) + octets("") +
                    tlv(0xA7, integer(requestId) + integer(0) + integer(0) +
                                  seq(varbind(sysUpTime0, uns(1234, 0x43)) +
                                      varbind(snmpTrapOID0, oid(enterpriseTrap01)) +
                                      varbind(sysName0, octets(value)))));
            if (c.level == 1) {
                EXPECT_FALSE(p.encrypted);
                EXPECT_EQ(p.privParams, "");
                EXPECT_EQ(p.scoped, scoped);
                continue;
            }
            EXPECT_EQ(p.privParams, salt);
            ASSERT_TRUE(p.encrypted);
            ASSERT_EQ(p.scoped.size() % 8, 0u);
            // Privacy keys are localised with the authentication digest.
            Bytes const plain = desDecrypt(p.scoped, localisedKey(c.privPassword, c.md, engineID), salt);
            Bytes padded = scoped;
            while (padded.size() % 8) padded.push_back(0x05);
            EXPECT_EQ(plain, padded);
        }
    }
}

TEST_F(Traps, EncoderRefusals) {
    // No community item with the configured id.
    loop->trapCommunity = 42;
    trapMakers = {kestrelTrapMaker};
    Bytes data;
    EXPECT_FALSE(encode(enterpriseEvent(), data));
    EXPECT_EQ(err, "createTrap: bad community\n");

    // No maker takes the message: it is dumped.
    loop->trapCommunity = 0;
    tn::message ev = linkEvent(3, 0x500);
    EXPECT_FALSE(encode(ev, data));
    EXPECT_EQ(out, "Could not handle trap, msg dump:\n" + ev.dump2("") + "\n");
    EXPECT_NE(out.find("0x08010003 u32 = 1280"), std::string::npos) << out;
}

// ---------------------------------------------------------------------------
// Makers

TEST_F(Traps, LinkMakerTakesOnlyInterfaceListEventsWithFlagsAndId) {
    tn::message noSender = linkEvent(3, 0x500);
    noSender.remove_key(tn::u32_array_id(tn::F_SENDER).key);
    tn::message otherSender = linkEvent(3, 0x500);
    otherSender.insert_u32_array(tn::u32_array_id(tn::F_SENDER), tn::u32_vector{0x14});
    tn::message longerSender = linkEvent(3, 0x500);
    longerSender.insert_u32_array(tn::u32_array_id(tn::F_SENDER), tn::u32_vector{0x14, 0, 0});
    tn::message noFlags = linkEvent(3, 0x500);
    noFlags.remove_key(tn::u32_id(0x10003).key);
    tn::message noId = linkEvent(3, 0x500);
    noId.remove_key(tn::u32_id(tn::F_OBJ_ID).key);
    for (tn::message const& m : {noSender, otherSender, longerSender, noFlags, noId}) {
        Made r = make(linkTrapMaker, m);
        EXPECT_FALSE(r.ok) << m.dump2("");
        EXPECT_TRUE(r.varbinds.empty());
    }
    EXPECT_TRUE(linkStates.empty());

    Made r = make(linkTrapMaker, linkEvent(3, 0x500));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.trapOid, OID(linkUp));
    EXPECT_EQ(r.generic, 3);
    EXPECT_EQ(r.specific, 0);
    ASSERT_EQ(r.varbinds.size(), 3u);
    expectBinding(r.varbinds[0], "1.3.6.1.2.1.2.2.1.1", 2, "3");
    expectBinding(r.varbinds[1], "1.3.6.1.2.1.2.2.1.7", 2, "1");
    expectBinding(r.varbinds[2], "1.3.6.1.2.1.2.2.1.8", 2, "1");
    EXPECT_EQ(linkStates[3], 0x500u);
}

TEST_F(Traps, LinkMakerTrapsOnlyOnChangesOfTheMaskedBits) {
    struct Step {
        uint32_t flags;
        bool trap;
        char const* admin;
        char const* oper;
    } const steps[] = {
        {0x400, true, "2", "1"},    // first event of the interface
        {0x400, false, "", ""},     // same bits
        {0x10483, false, "", ""},   // other bits only
        {0x0, true, "2", "2"},      // 0x400 alone changed: link down
        {0x100, true, "1", "2"},    // admin up
        {0x500, true, "1", "1"},
        {0x500, false, "", ""},
    };
    for (Step const& s : steps) {
        SCOPED_TRACE(s.flags);
        Made r = make(linkTrapMaker, linkEvent(4, s.flags));
        EXPECT_EQ(r.ok, s.trap);
        EXPECT_EQ(linkStates[4], s.flags & 0x500);
        if (!s.trap) {
            EXPECT_TRUE(r.varbinds.empty());
            continue;
        }
        bool const up = s.flags & 0x100;
        EXPECT_EQ(r.trapOid, OID(up ? linkUp : linkDown));
        EXPECT_EQ(r.generic, up ? 3 : 2);
        ASSERT_EQ(r.varbinds.size(), 3u);
        EXPECT_EQ(r.varbinds[0].value, "4");
        EXPECT_EQ(r.varbinds[1].value, s.admin);
        EXPECT_EQ(r.varbinds[2].value, s.oper);
    }
    // Interfaces are followed separately.
    EXPECT_TRUE(make(linkTrapMaker, linkEvent(5, 0x500)).ok);
    EXPECT_EQ(linkStates.size(), 2u);

    // The start-up snapshot keeps 0x10103 of the flags: an interface that was
    // up and running compares unequal to its first event and traps once.
    linkStates.clear();
    linkStates[1] = 0x1500 & 0x10103;
    linkStates[2] = 0x100 & 0x10103;
    EXPECT_TRUE(make(linkTrapMaker, linkEvent(1, 0x1500)).ok);
    EXPECT_FALSE(make(linkTrapMaker, linkEvent(1, 0x1500)).ok);
    EXPECT_FALSE(make(linkTrapMaker, linkEvent(2, 0x100)).ok);
}

TEST_F(Traps, EnterpriseMakerTakesCommandOneWithAtMostOneBinding) {
    tn::message none;
    EXPECT_FALSE(make(kestrelTrapMaker, none).ok);
    tn::message other;
    other.insert(tn::u32_id(tn::F_COMMAND), 0xFE000Bu);
    other.insert(tn::string_id(1001), "1.3.6.1.2.1.1.5.0");
    EXPECT_FALSE(make(kestrelTrapMaker, other).ok);

    Made bare = make(kestrelTrapMaker, enterpriseEvent());
    ASSERT_TRUE(bare.ok);
    EXPECT_EQ(bare.trapOid, OID(enterpriseTrap));
    EXPECT_EQ(bare.generic, 6);
    EXPECT_EQ(bare.specific, 1);
    EXPECT_TRUE(bare.varbinds.empty());

    struct Case {
        bool name, type, value;
        uint32_t typeCode;
        bool bound;
        unsigned wantType;
    } const cases[] = {
        {true, true, true, 2, true, 2},
        {true, false, true, 0, true, 4},  // no type code: an OCTET STRING
        {true, true, false, 5, true, 5},  // NULL needs no value
        {true, true, false, 2, false, 0},
        {true, false, false, 0, false, 0},
        {false, true, true, 2, false, 0},  // no name, no binding
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(std::to_string(c.name) + std::to_string(c.type) + std::to_string(c.value) + " " +
                     std::to_string(c.typeCode));
        tn::message ev = enterpriseEvent();
        if (c.name) ev.insert(tn::string_id(1001), "1.3.6.1.4.1.48291.1.2.3");
        if (c.type) ev.insert(tn::u32_id(1002), c.typeCode);
        if (c.value) ev.insert(tn::string_id(1003), "42");
        Made r = make(kestrelTrapMaker, ev);
        ASSERT_TRUE(r.ok);
        EXPECT_EQ(r.trapOid, OID(enterpriseTrap));
        ASSERT_EQ(r.varbinds.size(), c.bound ? 1u : 0u);
        if (c.bound) expectBinding(r.varbinds[0], "1.3.6.1.4.1.48291.1.2.3", c.wantType, c.value ? "42" : "");
    }

    Made cold = make(startupTrapMaker, enterpriseEvent());
    ASSERT_TRUE(cold.ok);
    EXPECT_EQ(cold.trapOid, OID(coldStart));
    EXPECT_EQ(cold.generic, 1);
    EXPECT_EQ(cold.specific, 0);
    EXPECT_TRUE(cold.varbinds.empty());
}

// ---------------------------------------------------------------------------
// Sending

TEST_F(Traps, SendTrapGuardsAndFailures) {
    trapMakers = {kestrelTrapMaker};
    loop->enabled = false;
    EXPECT_TRUE(sendToSink(enterpriseEvent()).empty());
    EXPECT_EQ(err, "send_trap: snmp disabled\n");

    loop->enabled = true;
    loop->trapTarget = 0;
    EXPECT_TRUE(sendToSink(enterpriseEvent()).empty());
    EXPECT_EQ(err, "send_trap: no trap sink specified\n");

    loop->trapTarget = 0x7F000001;
    loop->trapCommunity = 0xFFFFFFFF;
    EXPECT_TRUE(sendToSink(enterpriseEvent()).empty());
    EXPECT_EQ(err, "send_trap: no trap sink specified\n");

    loop->trapCommunity = 42;
    EXPECT_TRUE(sendToSink(enterpriseEvent()).empty());
    EXPECT_EQ(err, "createTrap: bad community\nsend_trap: createTrap failed\n");

    loop->trapCommunity = 0;
    tn::message unknown;
    unknown.insert(tn::u32_id(tn::F_COMMAND), 0xFE000Bu);
    EXPECT_TRUE(sendToSink(unknown).empty());
    EXPECT_EQ(err, "send_trap: createTrap failed\n");
    EXPECT_EQ(out.rfind("Could not handle trap, msg dump:\n", 0), 0u);
}

TEST_F(Traps, SentVersion1TrapNamesTheLocalAddress) {
    loop->trapVersion = 0;
    trapMakers = {kestrelTrapMaker};
    Bytes data = sendToSink(enterpriseEvent());
    EXPECT_EQ(err, "");
    EXPECT_EQ(data, seq(integer(0) + octets("vellum") +
                        tlv(0xA4, oid(enterpriseTrap) + tlv(0x40, {127, 0, 0, 1}) + integer(6) + integer(1) +
                                      uns(1234, 0x43) + seq({}))));
}

TEST_F(Traps, StartupSendsColdStartOnlyWhenSelected) {
    trapMakers = {kestrelTrapMaker};
    Sink sink;
    agentOptions.trapPort = sink.port;
    loop->trapGenerators = {0, 1};
    loop->startup();
    EXPECT_TRUE(sink.receive(200).empty());

    loop->trapGenerators = {0, START_TRAP_GENERATOR};
    srand(5);
    int const requestId = rand();
    srand(5);
    loop->startup();
    EXPECT_EQ(sink.receive(),
              seq(integer(1) + octets("vellum") +
                  tlv(0xA7, integer(requestId) + integer(0) + integer(0) +
                                seq(varbind(sysUpTime0, uns(1234, 0x43)) + varbind(snmpTrapOID0, oid(coldStart))))));
    // The start-up maker is gone again.
    EXPECT_EQ(trapMakers, std::vector<TrapMaker>{kestrelTrapMaker});
}

// ---------------------------------------------------------------------------
// Generator selection

TEST_F(Traps, GeneratorSelectionDeduplicatesAndResubscribes) {
    scribers = {{"alpha", sub<0>, unsub<0>}, {"beta", sub<1>, unsub<1>}, {"gamma", sub<2>, unsub<2>}};
    testing::internal::CaptureStdout();
    loop->cmdSet(generators({2, 2, START_TRAP_GENERATOR, 2}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "unsubscribed from alpha\nunsubscribed from beta\nunsubscribed from gamma\nsubscribed to gamma\n");
    EXPECT_EQ(loop->trapGenerators, (std::vector<uint32_t>{2, START_TRAP_GENERATOR}));
    EXPECT_EQ(subscribes[2], 1);
    EXPECT_EQ(subscribes[0] + subscribes[1], 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(unsubscribes[i], 1);
    EXPECT_EQ(loop->getConfig().get(tn::u32_array_id(0x13)), (tn::u32_vector{2, START_TRAP_GENERATOR}));

    // An index beyond the entries is kept but subscribes nothing; the list
    // survives in the store.
    testing::internal::CaptureStdout();
    loop->cmdSet(generators({7, 0, 7}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "unsubscribed from alpha\nunsubscribed from beta\nunsubscribed from gamma\nsubscribed to alpha\n");
    EXPECT_EQ(loop->trapGenerators, (std::vector<uint32_t>{7, 0}));
    EXPECT_EQ(subscribes[0], 1);
    EXPECT_EQ(subscribes[2], 1);
    tn::message stored;
    ASSERT_TRUE(loop->store.get(0, stored));
    EXPECT_EQ(stored.get(tn::u32_array_id(0x13)), (tn::u32_vector{7, 0}));

    // Settings without the list leave the subscriptions alone.
    testing::internal::CaptureStdout();
    tn::message other;
    other.insert(tn::u32_id(0x12), 1u);
    loop->cmdSet(other);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(loop->trapGenerators, (std::vector<uint32_t>{7, 0}));

    // Start-up subscribes the valid indexes of the stored list, in order.
    for (int i = 0; i < 3; ++i) subscribes[i] = 0;
    loop->trapGenerators = {START_TRAP_GENERATOR, 1, 9, 2};
    loop->startSubscribers();
    EXPECT_EQ(subscribes[0], 0);
    EXPECT_EQ(subscribes[1], 1);
    EXPECT_EQ(subscribes[2], 1);
}

TEST_F(Traps, GeneratorListingNamesStartTrapThenEachEntry) {
    scribers = {{"interfaces", sub<0>, unsub<0>}, {"extra", sub<1>, unsub<1>}};
    tn::message reply = loop->cmdUnknown(tn::message(), 100);
    std::vector<tn::message> list = reply.get(tn::message_array_id(0xA8FE0002));
    ASSERT_EQ(list.size(), 3u);
    uint32_t const ids[] = {START_TRAP_GENERATOR, 0, 1};
    char const* const names[] = {"start-trap", "interfaces", "extra"};
    for (size_t i = 0; i < 3; ++i) {
        tn::message want;
        want.insert(tn::u32_id(0xFE0001), ids[i]);
        want.insert(tn::string_id(0xFE0010), names[i]);
        EXPECT_EQ(list[i], want) << list[i].dump2("");
    }
    // Other commands answer empty and send nothing.
    EXPECT_TRUE(loop->cmdUnknown(tn::message(), 55).empty());
}

TEST_F(Traps, InterfacesEntryFollowsLinkEventsFromTheBus) {
    Sink sink;
    agentOptions.trapPort = sink.port;
    trapMakers = {kestrelTrapMaker};
    scribers = {{"interfaces", subscribeInterfaces, unsubscribeInterfaces}};
    tn::u32_vector const list{20, 0};
    interfaceList.filters.clear();

    testing::internal::CaptureStdout();
    loop->cmdSet(generators({0}));
    loop->cmdSet(generators({0}));  // re-selecting does not add a second maker
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(trapMakers, (std::vector<TrapMaker>{kestrelTrapMaker, linkTrapMaker}));
    EXPECT_EQ(loop->subscriberCount(list, 0x10004), 1u);
    ASSERT_FALSE(interfaceList.filters.empty());
    tn::message filter;
    filter.insert(tn::u32_id(0x10002), 0u);
    filter.insert(tn::u32_id(0x10003), 0x80u);
    EXPECT_EQ(interfaceList.filters.back(), filter) << interfaceList.filters.back().dump2("");

    // An event published by the interface list reaches send_trap through
    // cmdUnknown; the same bits again give nothing.
    srand(11);
    int const requestId = rand();
    srand(11);
    tn::message ev;
    ev.insert(tn::u32_id(tn::F_OBJ_ID), 2u);
    ev.insert(tn::u32_id(0x10002), 0u);
    ev.insert(tn::u32_id(0x10003), 0x100u);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Bytes data;
    for (int round = 0; round < 2; ++round) {
        loop->publish(list, 0x10004, ev);
        for (int i = 0; i < 20 && data.empty(); ++i) {
            loop->step(10);
            data = sink.receive(0);
        }
        if (round == 0) {
            EXPECT_EQ(data, seq(integer(1) + octets("vellum") +
                                tlv(0xA7, integer(requestId) + integer(0) + integer(0) +
                                              seq(varbind(sysUpTime0, uns(1234, 0x43)) +
                                                  varbind(snmpTrapOID0, oid(linkUp)) + varbind(ifIndexCol, integer(2)) +
                                                  varbind(ifAdminCol, integer(1)) + varbind(ifOperCol, integer(2))))));
            data.clear();
        }
    }
    std::string const dumped = testing::internal::GetCapturedStdout();
    std::string const logged = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(data.empty());
    EXPECT_EQ(dumped.rfind("Could not handle trap, msg dump:\n", 0), 0u) << dumped;
    EXPECT_EQ(logged, "send_trap: createTrap failed\n");

    testing::internal::CaptureStdout();
    loop->cmdSet(generators({}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "unsubscribed from interfaces\n");
    EXPECT_EQ(trapMakers, std::vector<TrapMaker>{kestrelTrapMaker});
    EXPECT_EQ(loop->subscriberCount(list, 0x10004), 0u);
}

}  // namespace
