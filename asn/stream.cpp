#include "asn/stream.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "request/usm.h"

unsigned char c_buf[C_BUF_SIZE];

namespace {

void inFail(char const* text) { std::cout << "SNMP InStream: " << text << std::endl; }
void outFail(char const* text) { std::cout << "SNMP OutStream: " << text << std::endl; }

// atoi without its undefined behaviour on overflow: the value is cut to 32
// bits. Read as long long, so that a 32-bit long does not clamp texts beyond
// 31 bits (Counter32 and TimeTicks values) where a 64-bit long wraps them.
int textToInt(std::string const& s) { return int(uint32_t(std::strtoll(s.c_str(), nullptr, 10))); }

}  // namespace

void hexdump(void const* p, unsigned int len) {
    unsigned char const* b = static_cast<unsigned char const*>(p);
    static char const digits[] = "0123456789abcdef";
    std::string line;
    line.reserve(49);
    for (unsigned int i = 0; i < len; ++i) {
        line += digits[b[i] >> 4];
        line += digits[b[i] & 15];
        line += ' ';
        if (i % 16 == 15) {
            std::cout << line << '\n';
            line.clear();
        }
    }
    std::cout << line << std::endl;
}

// ---------------------------------------------------------------- InStream

InStream::InStream(unsigned char const* bytes, unsigned int length) : data(bytes, bytes + length) {
    seqEndp.reserve(8);
}

InStream::~InStream() { delete v3info; }

int InStream::getType() const {
    if (pos >= data.size())
        return -1;
    return data[pos];
}

int InStream::getLen() {
    if (pos >= data.size())
        return -1;
    unsigned char b = data[pos];
    if (b < 0x80) {
        ++pos;
        return b;
    }
    if (b == 0x80) {
        inFail("we don't support indefinite lengths");
        return -1;
    }
    if (b <= 0x84) {
        size_t n = b & 0x7F;
        if (pos + 1 + n > data.size()) {
            inFail("malformed in getLen");
            return -1;
        }
        uint32_t v = 0;
        for (size_t i = 0; i < n; ++i)
            v = (v << 8) | data[pos + 1 + i];
        pos += uint32_t(1 + n);
        // A four-byte length of 2^31 or more reads as negative: a failure.
        return int(v);
    }
    inFail("we can't support data lengths that long");
    return -1;
}

int InStream::elementLen() {
    if (pos >= data.size())
        return -1;
    ++pos;
    return getLen();
}

unsigned int InStream::enterSeq() {
    int len = elementLen();
    if (len < 0 || size_t(len) > data.size() - pos)
        return 0xFFFFFFFFu;
    seqEndp.push_back(pos + uint32_t(len));
    return unsigned(len);
}

void InStream::exitSeq() {
    if (seqEndp.empty()) {
        inFail("exitSeq when seqEndp is empty!");
        return;
    }
    pos = seqEndp.back();
    seqEndp.pop_back();
}

bool InStream::moreInSeq() const {
    if (pos >= data.size())
        return false;
    return seqEndp.empty() || pos < seqEndp.back();
}

int InStream::getInt(int* v) {
    int len = elementLen();
    if (len < 0)
        return 0;
    if (size_t(len) > data.size() - pos) {
        inFail("get int overflow of message");
        return 0;
    }
    if (len == 0) {
        *v = 0;
        return 1;
    }
    if (len >= 6) {
        inFail("I don't support such large integers");
        return 0;
    }
    unsigned char const* p = data.data() + pos;
    if (len == 5 && p[0] != 0) {
        inFail("I don't support such large integers 2");
        return 0;
    }
    uint32_t r = (p[0] & 0x80) ? 0xFFFFFFFFu : 0;
    for (int i = 0; i < len; ++i)
        r = (r << 8) | p[i];
    pos += uint32_t(len);
    *v = int32_t(r);
    return 1;
}

// Up to 8 bytes, no sign extension. The encoder writes 9 bytes for values
// with bit 63 set; those are refused here on purpose.
int InStream::get64(unsigned long long* v) {
    int len = elementLen();
    if (len < 0)
        return 0;
    if (size_t(len) > data.size() - pos) {
        inFail("get 64 overflow of message");
        return 0;
    }
    if (len > 8) {
        inFail("invalig counter64 size");
        return 0;
    }
    unsigned long long r = 0;
    for (int i = 0; i < len; ++i)
        r = (r << 8) | data[pos + i];
    pos += uint32_t(len);
    *v = r;
    return 1;
}

int InStream::getString(std::string* s) {
    int len = elementLen();
    if (len < 0)
        return 0;
    if (size_t(len) > data.size() - pos) {
        inFail("get string overflow of message");
        return 0;
    }
    s->assign(reinterpret_cast<char const*>(data.data() + pos), size_t(len));
    pos += uint32_t(len);
    return 1;
}

int InStream::getBits(std::vector<unsigned char>* bits) {
    int len = elementLen();
    if (len < 0)
        return 0;
    if (size_t(len) > data.size() - pos) {
        inFail("get bits overflow of message");
        return 0;
    }
    if (len == 0 || data[pos] >= 8) {
        inFail("Invalid bitstring");
        return 0;
    }
    bits->assign(data.begin() + pos, data.begin() + pos + len);
    pos += uint32_t(len);
    return 1;
}

int InStream::getNull() {
    int len = elementLen();
    if (len < 0)
        return 0;
    if (len != 0) {
        inFail("malformed null");
        return 0;
    }
    return 1;
}

// Sub-identifiers are bounded by the data end, not by the element's length:
// one whose last byte keeps the continuation bit runs on into what follows.
int InStream::getOID(OID* oid) {
    int len = elementLen();
    if (len < 0)
        return 0;
    size_t const size = data.size();
    if (size_t(len) > size - pos) {
        std::cout << "SNMP InStream: get oid overflow of message " << pos << ' ' << len << ' ' << size
                  << std::endl;
        return 0;
    }
    if (len == 0) {
        oid->arcs().assign(2, 0);
        return 1;
    }
    unsigned char const* d = data.data();
    size_t const end = pos + size_t(len);

    // First pass validates and counts, so that the target is only touched on
    // success and is filled without reallocation.
    size_t arcs = 2;
    size_t p = pos + 1;
    while (p < end) {
        unsigned char b;
        do {
            if (p >= size) {
                inFail("malformed oid");
                return 0;
            }
            b = d[p++];
        } while (b & 0x80);
        ++arcs;
    }

    std::vector<uint32_t>& out = oid->arcs();
    out.clear();
    out.reserve(arcs);
    out.push_back(d[pos] / 40u);
    out.push_back(d[pos] % 40u);
    p = pos + 1;
    while (p < end) {
        uint32_t v = 0;
        unsigned char b;
        do {
            b = d[p++];
            v = v * 128u + (b & 0x7Fu);
        } while (b & 0x80);
        out.push_back(v);
    }
    pos = uint32_t(p);
    return 1;
}

int InStream::getVersion() {
    if (!versionRead) {
        versionRead = 1;
        int v;
        if (enterSeq() == 0xFFFFFFFFu || !getInt(&v))
            version = -1;
        else
            version = v;
    }
    return version;
}

void InStream::reset() {
    seqEndp.clear();
    pos = 0;
}

// ---------------------------------------------------------------- OutStream

OutStream::OutStream() {
    data.reserve(1472);
    seqStack.reserve(8);
}

void OutStream::startSeq(unsigned int tag) {
    data.push_back((unsigned char)tag);
    data.push_back(0);
    seqStack.push_back(uint32_t(data.size()));
}

void OutStream::endSeq() {
    if (seqStack.empty()) {
        outFail("no sequence");
        return;
    }
    uint32_t s = seqStack.back();
    seqStack.pop_back();
    size_t len = data.size() - s;
    if (len >= 65536) {
        outFail("sequence too long");
        return;
    }
    unsigned inserted = 0;
    if (len < 128) {
        data[s - 1] = (unsigned char)len;
    } else if (len < 256) {
        data[s - 1] = 0x81;
        data.insert(data.begin() + s, (unsigned char)len);
        inserted = 1;
    } else {
        data[s - 1] = 0x82;
        unsigned char two[2] = {(unsigned char)(len >> 8), (unsigned char)len};
        data.insert(data.begin() + s, two, two + 2);
        inserted = 2;
    }
    // Only a v3 position behind the inserted bytes moves: closing a sequence
    // inside the scoped PDU must not shift the authentication parameters
    // that precede it. The error fields are written before their enclosing
    // sequences close, so they stay as they are.
    if (inserted) {
        if (authParamsPos >= s)
            authParamsPos += inserted;
        if (scopedPduStart >= s)
            scopedPduStart += inserted;
    }
}

// Lengths above 65535 keep only their low 16 bits: there is no longer form.
void OutStream::addLen(unsigned int len) {
    if (len < 128) {
        data.push_back((unsigned char)len);
    } else if (len < 256) {
        data.push_back(0x81);
        data.push_back((unsigned char)len);
    } else {
        data.push_back(0x82);
        data.push_back((unsigned char)(len >> 8));
        data.push_back((unsigned char)len);
    }
}

void OutStream::addBytes(unsigned char const* p, size_t n, unsigned int tag) {
    data.push_back((unsigned char)tag);
    addLen(unsigned(n));
    data.insert(data.end(), p, p + n);
}

void OutStream::add(int v, unsigned int tag) {
    uint32_t u = uint32_t(v);
    unsigned char b[4] = {(unsigned char)(u >> 24), (unsigned char)(u >> 16), (unsigned char)(u >> 8),
                          (unsigned char)u};
    unsigned s = 0;
    while (s < 3 && ((b[s] == 0 && !(b[s + 1] & 0x80)) || (b[s] == 0xFF && (b[s + 1] & 0x80))))
        ++s;
    addBytes(b + s, 4 - s, tag);
}

void OutStream::add(unsigned int v, unsigned int tag) {
    unsigned char b[5] = {0, (unsigned char)(v >> 24), (unsigned char)(v >> 16), (unsigned char)(v >> 8),
                          (unsigned char)v};
    unsigned s = (v & 0x80000000u) ? 0 : 1;
    while (s < 4 && b[s] == 0 && !(b[s + 1] & 0x80))
        ++s;
    addBytes(b + s, 5 - s, tag);
}

void OutStream::add(unsigned long long v, unsigned int tag) {
    unsigned char b[9];
    b[0] = 0;
    for (int i = 0; i < 8; ++i)
        b[1 + i] = (unsigned char)(v >> (56 - 8 * i));
    unsigned s = (v >> 63) ? 0 : 1;
    while (s < 8 && b[s] == 0 && !(b[s + 1] & 0x80))
        ++s;
    addBytes(b + s, 9 - s, tag);
}

void OutStream::add(std::string const& s, unsigned int tag) {
    addBytes(reinterpret_cast<unsigned char const*>(s.data()), s.size(), tag);
}

void OutStream::add(unsigned char const* p, unsigned int len, unsigned int tag) { addBytes(p, len, tag); }

void OutStream::addNull(unsigned int tag) {
    data.push_back((unsigned char)tag);
    data.push_back(0);
}

namespace {

size_t encodeArcs(std::vector<uint32_t> const& a, unsigned char* buf) {
    size_t n = 0;
    buf[n++] = (unsigned char)(a[0] * 40 + a[1]);
    for (size_t i = 2; i < a.size(); ++i) {
        uint32_t v = a[i];
        int groups = 1;
        while (groups < 5 && (v >> (7 * groups)) != 0)
            ++groups;
        for (int g = groups - 1; g > 0; --g)
            buf[n++] = (unsigned char)(0x80 | ((v >> (7 * g)) & 0x7F));
        buf[n++] = (unsigned char)(v & 0x7F);
    }
    return n;
}

size_t encodedArcsLen(std::vector<uint32_t> const& a) {
    size_t n = 1;
    for (size_t i = 2; i < a.size(); ++i) {
        uint32_t v = a[i];
        int groups = 1;
        while (groups < 5 && (v >> (7 * groups)) != 0)
            ++groups;
        n += size_t(groups);
    }
    return n;
}

}  // namespace

void OutStream::addOID(OID const& oid, unsigned int tag) {
    std::vector<uint32_t> const& a = oid.arcs();
    if (a.size() < 2) {
        outFail("cannot encode OID shorter that 2");
        return;
    }
    if (a[0] >= 3 || a[1] >= 40) {
        outFail("encoding invalid OID");
        return;
    }
    // Each arc takes at most 5 bytes. An OID too long for the scratch buffer
    // (only an echoed hostile name can be) is encoded straight into data.
    if (1 + 5 * (a.size() - 2) <= C_BUF_SIZE) {
        size_t n = encodeArcs(a, c_buf);
        addBytes(c_buf, n, tag);
        return;
    }
    size_t n = encodedArcsLen(a);
    data.push_back((unsigned char)tag);
    addLen(unsigned(n));
    size_t at = data.size();
    data.resize(at + n);
    encodeArcs(a, data.data() + at);
}

void OutStream::addBits(unsigned char const* p, unsigned int len, unsigned int tag) {
    if (len == 0 || p[0] >= 8) {
        outFail("building invalid bitstring");
        return;
    }
    addBytes(p, len, tag);
}

// Text to value by type tag. The IpAddress goes through the minimal unsigned
// encoder, so leading zero octets shorten it and a first octet of 128 or more
// gains a leading zero byte; receivers of our traps see exactly that.
void OutStream::addByType(std::string const& text, unsigned int tag) {
    switch (tag) {
    case 0x02:
        add(textToInt(text), tag);
        break;
    case 0x04:
        add(text, tag);
        break;
    case 0x05:
        addNull(tag);
        break;
    case 0x06:
        addOID(OID(text), tag);
        break;
    case 0x40:
        add((unsigned int)ntohl(inet_addr(text.c_str())), tag);
        break;
    case 0x41:
    case 0x43:
    case 0x47:
        add((unsigned int)textToInt(text), tag);
        break;
    default:
        break;  // Gauge32 and the rest have no text form
    }
}

void OutStream::addVarBind(VariableBinding const& vb) {
    startSeq(0x30);
    addOID(vb.name, 0x06);
    addByType(vb.value, vb.type);
    endSeq();
}

void OutStream::addReserved(uint32_t& pos, unsigned int value) {
    if (pos == 0) {
        data.push_back(0x02);
        data.push_back(1);
        pos = uint32_t(data.size());
        data.push_back(0);
    }
    data[pos] = (unsigned char)value;
}

void OutStream::addErrorStatus(unsigned int status) { addReserved(errorStatusPos, status); }
void OutStream::addErrorIndex(unsigned int index) { addReserved(errorIndexPos, index); }
