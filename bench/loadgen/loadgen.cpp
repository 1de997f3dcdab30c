// SNMP load generator: keeps a window of requests outstanding against one
// UDP agent, matches replies by request-id and reports replies per second,
// time-outs and latency percentiles.
//
// Requests are encoded once at start. v2c requests are one template whose
// four request-id bytes are patched per send; SNMPv3 authPriv (HMAC-SHA-1-96
// and DES-CBC) requests are a pool of distinct, already encrypted and signed
// messages made after the discovery exchange (engine ID, boots, time), since
// the agent side checks the message ID per message only. A v3 request's
// msgID equals its request-id, so replies are matched on the clear header and
// then decrypted to check the PDU.
//
// Output: human-readable lines on stdout followed by one line
//   RESULT label=L replies=N timeouts=N errors=N seconds=S rps=R p50_us=X p99_us=Y window=W all_replies=N
// where all_replies also counts the replies of the warm-up.
// Exit status 0 when at least one reply was matched, 1 otherwise, 2 on usage.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/des.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// ---------------------------------------------------------------- BER writing
// Requests are built once, so plain nested vectors are fine here.

void putLength(Bytes& out, size_t n) {
    if (n < 0x80) {
        out.push_back(uint8_t(n));
        return;
    }
    unsigned char tmp[8];
    int k = 0;
    while (n) {
        tmp[k++] = uint8_t(n & 0xFF);
        n >>= 8;
    }
    out.push_back(uint8_t(0x80 | k));
    while (k)
        out.push_back(tmp[--k]);
}

Bytes tlv(unsigned char tag, Bytes const& content) {
    Bytes out;
    out.push_back(tag);
    putLength(out, content.size());
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

Bytes tlv(unsigned char tag, std::string const& content) { return tlv(tag, Bytes(content.begin(), content.end())); }

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (Bytes const& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Minimal two's-complement INTEGER.
Bytes integer(long long v) {
    Bytes c;
    for (int shift = 56; shift >= 0; shift -= 8)
        c.push_back(uint8_t((v >> shift) & 0xFF));
    size_t skip = 0;
    while (skip + 1 < c.size() && ((c[skip] == 0 && !(c[skip + 1] & 0x80)) || (c[skip] == 0xFF && (c[skip + 1] & 0x80))))
        ++skip;
    return tlv(0x02, Bytes(c.begin() + long(skip), c.end()));
}

// INTEGER with exactly four content bytes: ids stay in 0x01000000..0x7FFFFFFF
// so that the form is minimal and the bytes can be patched in place.
Bytes integer4(uint32_t v) { return Bytes{0x02, 4, uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }

bool parseOid(std::string const& text, std::vector<uint32_t>* arcs) {
    arcs->clear();
    size_t i = text[0] == '.' ? 1 : 0;
    while (i < text.size()) {
        char* end = nullptr;
        unsigned long v = std::strtoul(text.c_str() + i, &end, 10);
        if (end == text.c_str() + i || v > 0xFFFFFFFFul)
            return false;
        arcs->push_back(uint32_t(v));
        i = size_t(end - text.c_str());
        if (i < text.size()) {
            if (text[i] != '.')
                return false;
            ++i;
        }
    }
    return arcs->size() >= 2 && (*arcs)[0] <= 2;
}

Bytes oid(std::vector<uint32_t> const& arcs) {
    Bytes c;
    auto base128 = [&c](uint32_t v) {
        unsigned char tmp[5];
        int k = 0;
        do {
            tmp[k++] = uint8_t(v & 0x7F);
            v >>= 7;
        } while (v);
        while (k > 1)
            c.push_back(uint8_t(0x80 | tmp[--k]));
        c.push_back(tmp[0]);
    };
    base128(arcs[0] * 40 + arcs[1]);
    for (size_t i = 2; i < arcs.size(); ++i)
        base128(arcs[i]);
    return tlv(0x06, c);
}

Bytes varbindList(std::vector<std::vector<uint32_t>> const& oids) {
    Bytes list;
    for (auto const& o : oids) {
        Bytes vb = tlv(0x30, cat({oid(o), Bytes{0x05, 0x00}}));
        list.insert(list.end(), vb.begin(), vb.end());
    }
    return tlv(0x30, list);
}

// PDU with a patchable request-id; *idOffset is the index of its first byte.
Bytes pdu(unsigned char tag, uint32_t requestId, std::vector<std::vector<uint32_t>> const& oids, size_t* idOffset) {
    Bytes body = cat({integer4(requestId), integer(0), integer(0), varbindList(oids)});
    Bytes out = tlv(tag, body);
    if (idOffset)
        *idOffset = out.size() - body.size() + 2;
    return out;
}

// ---------------------------------------------------------------- BER reading

struct Reader {
    unsigned char const* p;
    unsigned char const* end;

    // Reads one header; on success *tag, and [*content, *content + *len) lie in range.
    bool header(unsigned char* tag, unsigned char const** content, size_t* len) {
        if (end - p < 2)
            return false;
        *tag = *p++;
        size_t n = *p++;
        if (n & 0x80) {
            int k = int(n & 0x7F);
            if (k == 0 || k > 4 || end - p < k)
                return false;
            n = 0;
            while (k--)
                n = (n << 8) | *p++;
        }
        if (size_t(end - p) < n)
            return false;
        *content = p;
        *len = n;
        return true;
    }
    // Enters a constructed value of the given tag.
    bool enter(unsigned char want) {
        unsigned char tag;
        unsigned char const* c;
        size_t n;
        if (!header(&tag, &c, &n) || tag != want)
            return false;
        end = c + n;
        return true;
    }
    bool skip(unsigned char* tag = nullptr) {
        unsigned char t;
        unsigned char const* c;
        size_t n;
        if (!header(&t, &c, &n))
            return false;
        p = c + n;
        if (tag)
            *tag = t;
        return true;
    }
    bool integer(long long* v) {
        unsigned char tag;
        unsigned char const* c;
        size_t n;
        if (!header(&tag, &c, &n) || tag != 0x02 || n == 0 || n > 8)
            return false;
        long long r = (c[0] & 0x80) ? -1 : 0;
        for (size_t i = 0; i < n; ++i)
            r = (long long)((unsigned long long)r << 8) | c[i];
        p = c + n;
        *v = r;
        return true;
    }
    bool octets(unsigned char const** c, size_t* n) {
        unsigned char tag;
        if (!header(&tag, c, n) || tag != 0x04)
            return false;
        p = *c + *n;
        return true;
    }
};

// What a reply's PDU says.
enum PduVerdict { PDU_OK, PDU_ERROR, PDU_BAD };

// Reads a PDU: the request-id, and whether it is an error-free response whose
// values are not exceptions (noSuchObject, noSuchInstance, endOfMibView).
PduVerdict readPdu(Reader r, bool anyTag, long long* requestId) {
    unsigned char tag;
    unsigned char const* c;
    size_t n;
    if (!r.header(&tag, &c, &n))
        return PDU_BAD;
    r.p = c;
    r.end = c + n;
    long long status, index;
    if (!r.integer(requestId) || !r.integer(&status) || !r.integer(&index))
        return PDU_BAD;
    if (tag != 0xA2 && !anyTag)
        return PDU_ERROR;
    if (status != 0)
        return PDU_ERROR;
    if (!r.enter(0x30))
        return PDU_BAD;
    while (r.p < r.end) {
        Reader vb = r;
        if (!vb.enter(0x30) || !vb.skip())
            return PDU_BAD;
        unsigned char vtag;
        if (!vb.skip(&vtag))
            return PDU_BAD;
        if (vtag >= 0x80 && vtag <= 0x82)
            return PDU_ERROR;
        if (!r.skip())
            return PDU_BAD;
    }
    return PDU_OK;
}

// ---------------------------------------------------------------- USM

Bytes digest(EVP_MD const* md, std::initializer_list<std::pair<void const*, size_t>> parts) {
    Bytes out(size_t(EVP_MD_size(md)));
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, md, nullptr);
    for (auto const& part : parts)
        EVP_DigestUpdate(ctx, part.first, part.second);
    unsigned int len = 0;
    EVP_DigestFinal_ex(ctx, out.data(), &len);
    EVP_MD_CTX_free(ctx);
    out.resize(len);
    return out;
}

// RFC 3414 A.2: password to key, then localised with the engine ID.
Bytes localisedKey(EVP_MD const* md, std::string const& password, Bytes const& engineId) {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, md, nullptr);
    unsigned char block[64];
    size_t at = 0;
    for (size_t fed = 0; fed < 1048576; fed += 64) {
        for (unsigned char& b : block)
            b = uint8_t(password[at++ % password.size()]);
        EVP_DigestUpdate(ctx, block, sizeof block);
    }
    Bytes ku(size_t(EVP_MD_size(md)));
    unsigned int len = 0;
    EVP_DigestFinal_ex(ctx, ku.data(), &len);
    EVP_MD_CTX_free(ctx);
    return digest(md, {{ku.data(), ku.size()}, {engineId.data(), engineId.size()}, {ku.data(), ku.size()}});
}

Bytes hmac(EVP_MD const* md, Bytes const& key, unsigned char const* msg, size_t n) {
    unsigned char ipad[64], opad[64];
    for (size_t i = 0; i < 64; ++i) {
        unsigned char k = i < key.size() ? key[i] : 0;
        ipad[i] = k ^ 0x36;
        opad[i] = k ^ 0x5C;
    }
    Bytes inner = digest(md, {{ipad, 64}, {msg, n}});
    return digest(md, {{opad, 64}, {inner.data(), inner.size()}});
}

// DES-CBC with the USM IV (pre-IV from the privacy key XOR the salt).
Bytes desCbc(Bytes const& privKey, unsigned char const* salt, unsigned char const* in, size_t n, bool encrypt) {
    DES_cblock key, iv;
    std::memcpy(key, privKey.data(), 8);
    for (int i = 0; i < 8; ++i)
        iv[i] = privKey[8 + size_t(i)] ^ salt[i];
    DES_key_schedule schedule;
    DES_set_key_unchecked(&key, &schedule);
    Bytes out(n);
    DES_ncbc_encrypt(in, out.data(), long(n), &schedule, &iv, encrypt ? DES_ENCRYPT : DES_DECRYPT);
    return out;
}

struct Engine {
    Bytes id;
    long long boots = 0;
    long long time = 0;
};

Bytes usmParams(Engine const& e, std::string const& user, Bytes const& authParams, Bytes const& privParams) {
    return tlv(0x04, tlv(0x30, cat({tlv(0x04, e.id), integer(e.boots), integer(e.time), tlv(0x04, user),
                                    tlv(0x04, authParams), tlv(0x04, privParams)})));
}

Bytes v3Header(uint32_t msgId, unsigned char flags) {
    return tlv(0x30, cat({integer4(msgId), integer(65507), tlv(0x04, Bytes{flags}), integer(3)}));
}

// The discovery request: no user, no engine, reportable, an empty Get.
Bytes discoveryRequest(uint32_t msgId) {
    Engine none;
    Bytes scoped = tlv(0x30, cat({tlv(0x04, Bytes()), tlv(0x04, Bytes()), pdu(0xA0, msgId, {}, nullptr)}));
    return tlv(0x30, cat({integer(3), v3Header(msgId, 0x04), usmParams(none, "", Bytes(), Bytes()), scoped}));
}

struct V3Keys {
    std::string user;
    Bytes authKey;  // localised SHA-1 key
    Bytes privKey;  // localised with SHA-1 too; DES key and pre-IV from its first 16 bytes
};

// One authPriv request: encrypted scoped PDU, then HMAC-SHA-1-96 over the whole message.
Bytes v3Request(Engine const& e, V3Keys const& k, uint32_t id, unsigned char pduTag,
                std::vector<std::vector<uint32_t>> const& oids, uint32_t saltCounter) {
    Bytes scoped = tlv(0x30, cat({tlv(0x04, e.id), tlv(0x04, Bytes()), pdu(pduTag, id, oids, nullptr)}));
    while (scoped.size() % 8)
        scoped.push_back(0);
    unsigned char salt[8] = {uint8_t(e.boots >> 24), uint8_t(e.boots >> 16), uint8_t(e.boots >> 8), uint8_t(e.boots),
                             uint8_t(saltCounter >> 24), uint8_t(saltCounter >> 16), uint8_t(saltCounter >> 8),
                             uint8_t(saltCounter)};
    Bytes encrypted = desCbc(k.privKey, salt, scoped.data(), scoped.size(), true);
    Bytes zeros(12, 0);
    Bytes msg = tlv(0x30, cat({integer(3), v3Header(id, 0x07), usmParams(e, k.user, zeros, Bytes(salt, salt + 8)),
                               tlv(0x04, encrypted)}));
    // The zeroed authentication parameters are the only 12 zero bytes right
    // after "04 0c" inside the security parameters; find them from the front.
    Bytes marker{0x04, 0x0C};
    marker.insert(marker.end(), zeros.begin(), zeros.end());
    auto at = std::search(msg.begin(), msg.end(), marker.begin(), marker.end());
    Bytes mac = hmac(EVP_sha1(), k.authKey, msg.data(), msg.size());
    std::copy(mac.begin(), mac.begin() + 12, at + 2);
    return msg;
}

// The clear part of a v3 message: msgID, flags and the security parameters.
struct V3Clear {
    long long msgId = -1;
    unsigned char flags = 0;
    Engine engine;
    unsigned char const* privParams = nullptr;
    size_t privLen = 0;
    Reader rest{nullptr, nullptr};  // the scoped PDU or the encryptedPDU
};

bool readV3Clear(unsigned char const* data, size_t n, V3Clear* out) {
    Reader r{data, data + n};
    long long version, maxSize, model;
    unsigned char const* c;
    size_t len;
    if (!r.enter(0x30) || !r.integer(&version) || version != 3)
        return false;
    Reader h = r;
    if (!h.enter(0x30) || !h.integer(&out->msgId) || !h.integer(&maxSize) || !h.octets(&c, &len) || len < 1 ||
        !h.integer(&model))
        return false;
    out->flags = c[0];
    if (!r.skip() || !r.octets(&c, &len))
        return false;
    Reader s{c, c + len};
    unsigned char const* id;
    size_t idLen;
    unsigned char const* skipC;
    size_t skipN;
    if (!s.enter(0x30) || !s.octets(&id, &idLen) || !s.integer(&out->engine.boots) || !s.integer(&out->engine.time) ||
        !s.octets(&skipC, &skipN) || !s.octets(&skipC, &skipN) || !s.octets(&out->privParams, &out->privLen))
        return false;
    out->engine.id.assign(id, id + idLen);
    out->rest = r;
    return true;
}

// ---------------------------------------------------------------- driving

uint64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000ull + uint64_t(ts.tv_nsec);
}

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    std::string community = "public";
    std::string op = "get";
    std::vector<std::vector<uint32_t>> oids;
    std::string user, authPass, privPass;
    int window = 1;
    long long count = 0;
    double duration = 0;
    double warmup = 0;
    int timeoutMs = 1000;
    int pool = 4096;
    bool echo = false;
    bool spin = false;
    std::string label = "run";
};

void usage() {
    std::fprintf(stderr,
                 "usage: bench_loadgen --port N [--host A] [--op get|getnext] --oid OID [--oid OID ...]\n"
                 "         [--community C | --v3-user U --auth-pass P --priv-pass P]\n"
                 "         [--window W] [--count N | --duration S] [--warmup S] [--timeout-ms T]\n"
                 "         [--pool N] [--echo] [--spin] [--label L]\n"
                 "  one request carries all the --oid names; v3 is authPriv with SHA-1 and DES;\n"
                 "  --echo accepts the request's own PDU back (for an echo server);\n"
                 "  --spin polls for replies instead of sleeping, so that the server's queue\n"
                 "  never waits on this process's wake-up (it keeps one CPU busy).\n");
}

bool parseArgs(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](char const** v) {
            if (i + 1 >= argc)
                return false;
            *v = argv[++i];
            return true;
        };
        char const* v = nullptr;
        if (a == "--echo") {
            o->echo = true;
        } else if (a == "--spin") {
            o->spin = true;
        } else if (!value(&v)) {
            std::fprintf(stderr, "bench_loadgen: %s needs a value\n", a.c_str());
            return false;
        } else if (a == "--host") {
            o->host = v;
        } else if (a == "--port") {
            o->port = std::atoi(v);
        } else if (a == "--community") {
            o->community = v;
        } else if (a == "--op") {
            o->op = v;
        } else if (a == "--oid") {
            std::vector<uint32_t> arcs;
            if (!parseOid(v, &arcs)) {
                std::fprintf(stderr, "bench_loadgen: bad OID %s\n", v);
                return false;
            }
            o->oids.push_back(arcs);
        } else if (a == "--v3-user") {
            o->user = v;
        } else if (a == "--auth-pass") {
            o->authPass = v;
        } else if (a == "--priv-pass") {
            o->privPass = v;
        } else if (a == "--window") {
            o->window = std::atoi(v);
        } else if (a == "--count") {
            o->count = std::atoll(v);
        } else if (a == "--duration") {
            o->duration = std::atof(v);
        } else if (a == "--warmup") {
            o->warmup = std::atof(v);
        } else if (a == "--timeout-ms") {
            o->timeoutMs = std::atoi(v);
        } else if (a == "--pool") {
            o->pool = std::atoi(v);
        } else if (a == "--label") {
            o->label = v;
        } else {
            std::fprintf(stderr, "bench_loadgen: unknown option %s\n", a.c_str());
            return false;
        }
    }
    if (o->port <= 0 || o->port > 65535 || o->oids.empty() || (o->op != "get" && o->op != "getnext") ||
        o->window < 1 || o->window > 4096 || o->timeoutMs < 1 || (o->count <= 0 && o->duration <= 0)) {
        std::fprintf(stderr, "bench_loadgen: --port, --oid and --count or --duration are required\n");
        return false;
    }
    if (!o->user.empty() && (o->authPass.size() < 8 || o->privPass.size() < 8)) {
        std::fprintf(stderr, "bench_loadgen: v3 needs --auth-pass and --priv-pass of 8 characters or more\n");
        return false;
    }
    // Pool of ids: a power of two, at least four windows.
    int p = 256;
    while (p < o->pool || p < 4 * o->window)
        p <<= 1;
    o->pool = p;
    return true;
}

int connectTo(Options const& o) {
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(o.host.c_str(), std::to_string(o.port).c_str(), &hints, &res) != 0 || !res) {
        std::fprintf(stderr, "bench_loadgen: cannot resolve %s\n", o.host.c_str());
        return -1;
    }
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    int size = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    if (fd < 0 || connect(fd, res->ai_addr, res->ai_addrlen) != 0) {
        std::fprintf(stderr, "bench_loadgen: cannot connect: %s\n", std::strerror(errno));
        freeaddrinfo(res);
        return -1;
    }
    freeaddrinfo(res);
    // Blocking receives that wake up now and then to look at the clock.
    timeval tv = {0, 5000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

bool discover(int fd, Engine* e) {
    Bytes req = discoveryRequest(0x01000001);
    unsigned char buf[65536];
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (send(fd, req.data(), req.size(), 0) < 0)
            return false;
        uint64_t until = nowNs() + 1000000000ull;
        while (nowNs() < until) {
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n <= 0)
                continue;
            V3Clear c;
            if (readV3Clear(buf, size_t(n), &c) && c.msgId == 0x01000001 && !c.engine.id.empty()) {
                *e = c.engine;
                return true;
            }
        }
    }
    return false;
}

struct Slot {
    uint64_t sentNs;
    uint64_t seq;
    bool live;
};

const uint32_t ID_BASE = 0x10000000;

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parseArgs(argc, argv, &o)) {
        usage();
        return 2;
    }
    int fd = connectTo(o);
    if (fd < 0)
        return 1;
    bool v3 = !o.user.empty();
    unsigned char pduTag = o.op == "get" ? 0xA0 : 0xA1;
    uint32_t const mask = uint32_t(o.pool - 1);

    // v2c: one template with a patchable request-id. v3: a pool of finished messages.
    Bytes templ;
    size_t idAt = 0;
    std::vector<Bytes> pool;
    V3Keys keys;
    Engine engine;
    if (!v3) {
        size_t inPdu = 0;
        Bytes p = pdu(pduTag, ID_BASE, o.oids, &inPdu);
        Bytes head = cat({integer(1), tlv(0x04, o.community)});
        templ = tlv(0x30, cat({head, p}));
        idAt = templ.size() - p.size() + inPdu;
    } else {
        if (!discover(fd, &engine)) {
            std::fprintf(stderr, "bench_loadgen: no answer to the SNMPv3 discovery request\n");
            return 1;
        }
        keys.user = o.user;
        keys.authKey = localisedKey(EVP_sha1(), o.authPass, engine.id);
        keys.privKey = localisedKey(EVP_sha1(), o.privPass, engine.id);
        uint64_t t0 = nowNs();
        pool.reserve(size_t(o.pool));
        for (uint32_t i = 0; i < uint32_t(o.pool); ++i)
            pool.push_back(v3Request(engine, keys, ID_BASE + i, pduTag, o.oids, 0x5EED0000u + i));
        std::printf("%s: engine boots %lld time %lld, %d requests encrypted and signed in %.1f ms\n", o.label.c_str(),
                    engine.boots, engine.time, o.pool, double(nowNs() - t0) / 1e6);
    }

    std::vector<Slot> slots(size_t(o.pool), Slot{0, 0, false});
    std::vector<uint32_t> latencies;
    latencies.reserve(1 << 20);
    unsigned long long sent = 0, replies = 0, timeouts = 0, errors = 0, strays = 0;
    unsigned long long allReplies = 0;  // the warm-up's included
    uint64_t nextSeq = 0, oldest = 0;
    int outstanding = 0;
    uint64_t const timeoutNs = uint64_t(o.timeoutMs) * 1000000ull;

    uint64_t start = nowNs();
    uint64_t measureFrom = start + uint64_t(o.warmup * 1e9);
    bool measuring = o.warmup <= 0;
    uint64_t endAt = o.duration > 0 ? measureFrom + uint64_t(o.duration * 1e9) : UINT64_MAX;
    long long const total = o.count;  // counted after the warm-up

    enum { BATCH = 64 };
    static unsigned char rxbuf[BATCH][2048];
    mmsghdr rx[BATCH], tx[BATCH];
    iovec rxv[BATCH], txv[BATCH];
    static unsigned char txbuf[BATCH][2048];
    for (int i = 0; i < BATCH; ++i) {
        rxv[i] = {rxbuf[i], sizeof rxbuf[i]};
        std::memset(&rx[i], 0, sizeof rx[i]);
        rx[i].msg_hdr.msg_iov = &rxv[i];
        rx[i].msg_hdr.msg_iovlen = 1;
        std::memset(&tx[i], 0, sizeof tx[i]);
        tx[i].msg_hdr.msg_iov = &txv[i];
        tx[i].msg_hdr.msg_iovlen = 1;
    }
    if (!v3 && templ.size() > sizeof txbuf[0]) {
        std::fprintf(stderr, "bench_loadgen: request too long\n");
        return 2;
    }

    for (;;) {
        uint64_t now = nowNs();
        if (!measuring && now >= measureFrom) {
            measuring = true;
            replies = timeouts = errors = strays = 0;
            sent = 0;
            latencies.clear();
        }
        bool sending = now < endAt && (total <= 0 || !measuring || (long long)sent < total);
        if (!sending && (now >= endAt || outstanding == 0))
            break;

        // Time-outs: the oldest outstanding requests first.
        while (oldest < nextSeq) {
            Slot& s = slots[oldest & mask];
            if (!s.live || s.seq != oldest) {
                ++oldest;
                continue;
            }
            if (now - s.sentNs < timeoutNs)
                break;
            s.live = false;
            --outstanding;
            ++timeouts;
            ++oldest;
        }

        // Fill the window.
        int n = 0;
        while (sending && outstanding + n < o.window && n < BATCH) {
            if (total > 0 && measuring && (long long)(sent + unsigned(n)) >= total)
                break;
            uint64_t seq = nextSeq + uint64_t(n);
            Slot& s = slots[seq & mask];
            if (s.live) {  // still unanswered a whole pool later: give up on it
                s.live = false;
                --outstanding;
                ++timeouts;
            }
            uint32_t id = ID_BASE + uint32_t(seq & mask);
            if (v3) {
                txv[n] = {pool[seq & mask].data(), pool[seq & mask].size()};
            } else {
                std::memcpy(txbuf[n], templ.data(), templ.size());
                txbuf[n][idAt] = uint8_t(id >> 24);
                txbuf[n][idAt + 1] = uint8_t(id >> 16);
                txbuf[n][idAt + 2] = uint8_t(id >> 8);
                txbuf[n][idAt + 3] = uint8_t(id);
                txv[n] = {txbuf[n], templ.size()};
            }
            ++n;
        }
        if (n > 0) {
            uint64_t t = nowNs();
            int done = sendmmsg(fd, tx, unsigned(n), 0);
            if (done < 0) {
                if (errno != EAGAIN && errno != ENOBUFS && errno != ECONNREFUSED && errno != EINTR) {
                    std::fprintf(stderr, "bench_loadgen: send: %s\n", std::strerror(errno));
                    return 1;
                }
                done = 0;
            }
            for (int i = 0; i < done; ++i) {
                Slot& s = slots[nextSeq & mask];
                s.sentNs = t;
                s.seq = nextSeq;
                s.live = true;
                ++nextSeq;
                ++outstanding;
                ++sent;
            }
        }

        // Replies: wait for at least one, take all that are there.
        int got = recvmmsg(fd, rx, BATCH, o.spin ? MSG_DONTWAIT : MSG_WAITFORONE, nullptr);
        if (got <= 0)
            continue;
        uint64_t t = nowNs();
        for (int i = 0; i < got; ++i) {
            unsigned char const* data = rxbuf[i];
            size_t len = rx[i].msg_len;
            long long id = -1;
            PduVerdict verdict = PDU_BAD;
            if (!v3) {
                Reader r{data, data + len};
                long long version;
                if (r.enter(0x30) && r.integer(&version) && r.skip())
                    verdict = readPdu(r, o.echo, &id);
            } else {
                V3Clear c;
                if (readV3Clear(data, len, &c)) {
                    id = c.msgId;
                    unsigned char const* enc;
                    size_t encLen;
                    Reader rest = c.rest;
                    if ((c.flags & 3) == 3 && c.privLen == 8 && rest.octets(&enc, &encLen) && encLen % 8 == 0) {
                        Bytes plain = desCbc(keys.privKey, c.privParams, enc, encLen, false);
                        Reader s{plain.data(), plain.data() + plain.size()};
                        long long pduId = -1;
                        if (s.enter(0x30) && s.skip() && s.skip()) {
                            verdict = readPdu(s, o.echo, &pduId);
                            if (pduId != id)
                                verdict = PDU_BAD;
                        }
                    } else {
                        verdict = PDU_ERROR;  // a report or an unprotected reply
                    }
                }
            }
            uint32_t uid = uint32_t(id);
            if (id < 0 || uid < ID_BASE || uid > ID_BASE + mask) {
                ++strays;
                continue;
            }
            Slot& s = slots[uid - ID_BASE];
            if (!s.live) {
                ++strays;
                continue;
            }
            s.live = false;
            --outstanding;
            ++allReplies;
            if (!measuring)
                continue;
            ++replies;
            if (verdict != PDU_OK)
                ++errors;
            uint64_t lat = t - s.sentNs;
            latencies.push_back(uint32_t(std::min<uint64_t>(lat, 0xFFFFFFFFull)));
        }
    }
    uint64_t stop = nowNs();
    double seconds = double(stop - (measuring ? measureFrom : start)) / 1e9;
    if (o.duration > 0)
        seconds = std::min(seconds, o.duration);

    auto pct = [&](double q) -> double {
        if (latencies.empty())
            return 0;
        size_t k = std::min(latencies.size() - 1, size_t(q * double(latencies.size())));
        std::nth_element(latencies.begin(), latencies.begin() + long(k), latencies.end());
        return latencies[k] / 1000.0;
    };
    double p50 = pct(0.50), p99 = pct(0.99);
    double rps = seconds > 0 ? double(replies) / seconds : 0;
    std::printf("%s: %llu requests sent, %llu replies (%llu errors), %llu time-outs, %llu stray in %.2f s\n",
                o.label.c_str(), sent, replies, errors, timeouts, strays, seconds);
    std::printf("%s: %.0f replies/s, latency p50 %.1f us, p99 %.1f us (window %d)\n", o.label.c_str(), rps, p50, p99,
                o.window);
    std::printf("RESULT label=%s replies=%llu timeouts=%llu errors=%llu strays=%llu seconds=%.3f rps=%.0f "
                "p50_us=%.1f p99_us=%.1f window=%d all_replies=%llu\n",
                o.label.c_str(), replies, timeouts, errors, strays, seconds, rps, p50, p99, o.window, allReplies);
    close(fd);
    return replies > 0 ? 0 : 1;
}
