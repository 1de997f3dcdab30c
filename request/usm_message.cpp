// SNMPv3 user-based security on the wire: the message header and security
// parameters, decryption and digest checks of a request, encryption and
// signature of a reply, and the usmStats report.
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>

#include "asn/stream.h"
#include "request/context.h"
#include "request/usm.h"
#include "tn/time.h"

V3ServerInfo const* agentEngine = nullptr;

uint32_t Context::v3counters[Context::V3_COUNTERS] = {};

namespace {

// Scratch for the scoped PDU on its way through DES and for digests; one set
// per thread so that steady traffic reuses the capacity instead of allocating.
struct CryptScratch {
    std::string in;
    std::string out;
    std::vector<unsigned char> digest;
};

CryptScratch& cryptScratch() {
    thread_local CryptScratch s;
    return s;
}

// The reply's privacy parameters: the boot count, then four random bytes.
std::string makeSalt(uint32_t boots) {
    std::string salt(8, '\0');
    salt[0] = static_cast<char>(boots >> 24);
    salt[1] = static_cast<char>(boots >> 16);
    salt[2] = static_cast<char>(boots >> 8);
    salt[3] = static_cast<char>(boots);
    for (int i = 4; i < 8; ++i) salt[i] = static_cast<char>(rand() & 0xFF);
    return salt;
}

// Decrypts the encryptedPDU under the cursor and swaps the plaintext in; the
// bytes as received are kept in `plaintext` for the digest.
void decryptScopedPdu(InStream& in, std::vector<unsigned char> const& privKey) {
    CryptScratch& s = cryptScratch();
    s.out.clear();
    uint32_t const start = in.pos;
    if (!in.getString(&s.in)) s.in.clear();
    cryptMessageDES(in.v3info->msgPrivacyParameters, privKey, s.in, s.out, 0);
    in.plaintext.assign(in.data.begin(), in.data.begin() + (start < in.data.size() ? start : in.data.size()));
    in.plaintext.insert(in.plaintext.end(), s.out.begin(), s.out.end());
    in.data.swap(in.plaintext);
    in.pos = start;
}

// Enters the scoped PDU and reads its context fields. A scoped PDU that
// cannot be read (typically a wrong privacy key) leaves the cursor at the end
// so that the PDU behind it fails to parse and nothing is answered, instead
// of decoding whatever bytes the cursor was left on.
bool readScopedPduHeader(InStream& in) {
    V3Info& h = *in.v3info;
    if (in.enterSeq() != 0xFFFFFFFFu && in.getString(&h.contextEngineID) && in.getString(&h.contextName))
        return true;
    in.pos = static_cast<uint32_t>(in.data.size());
    return false;
}

// Compares the received authentication parameters with the digest of the
// message as received, truncated to the parameters' length.
size_t const kMinAuthParams = 12;

bool digestMatches(std::vector<unsigned char>& received, V3Info const& info,
                   std::vector<unsigned char> const& authKey, int authProto) {
    std::string const& params = info.msgAuthenticationParameters;
    // HMAC-MD5-96 and HMAC-SHA-96 send 12 bytes. Comparing a digest cut to
    // a shorter field would let an empty field (or a one-byte guess) pass
    // as authenticated, so anything shorter is a wrong digest.
    if (params.size() < kMinAuthParams) return false;
    std::vector<unsigned char>& digest = cryptScratch().digest;
    digestMessage(digest, received, authKey, info.authParamsPos, static_cast<unsigned int>(params.size()),
                  static_cast<unsigned int>(authProto));
    if (digest.size() > params.size()) digest.resize(params.size());
    return digest.size() == params.size() && CRYPTO_memcmp(digest.data(), params.data(), params.size()) == 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Reading

bool InStream::readV3Info(int& v3_err) {
    if (!v3info) v3info = new V3Info;
    V3Info& h = *v3info;

    if (enterSeq() == 0xFFFFFFFFu) return false;
    if (!getInt(&h.msgID) || !getInt(&h.msgMaxSize) || !getString(&h.msgFlags) || !getInt(&h.msgSecurityModel))
        return false;
    exitSeq();

    if (h.msgFlags.empty()) return false;

    // The security parameters are a BER structure wrapped in an OCTET
    // STRING: decode them on their own so that nothing inside can reach
    // beyond the wrapper.
    std::string params;
    if (!getString(&params)) return false;
    uint32_t const paramsStart = pos - static_cast<uint32_t>(params.size());
    InStream sp(reinterpret_cast<unsigned char const*>(params.data()), static_cast<unsigned int>(params.size()));
    if (sp.enterSeq() == 0xFFFFFFFFu) return false;
    if (!sp.getString(&h.msgAuthoritativeEngineID) || !sp.getInt(&h.msgAuthoritativeEngineBoots) ||
        !sp.getInt(&h.msgAuthoritativeEngineTime) || !sp.getString(&h.msgUserName) ||
        !sp.getString(&h.msgAuthenticationParameters))
        return false;
    h.authParamsPos = paramsStart + sp.pos - static_cast<uint32_t>(h.msgAuthenticationParameters.size());
    if (!sp.getString(&h.msgPrivacyParameters)) return false;

    unsigned char const flags = static_cast<unsigned char>(h.msgFlags[0]);
    if (flags & 0x01) securityMode = 1;
    if (flags & 0x02) {
        if (flags & 0x01)
            securityMode = 2;
        else if (v3_err == -1)
            v3_err = 0;
    }
    return true;
}

bool InStream::decryptAndCheckSignature(int& v3_err, std::vector<unsigned char> const& authKey, int authProto,
                                        std::vector<unsigned char> const& privKey, int /*privProto*/,
                                        V3ServerInfo const& server) {
    if (!v3info) v3info = new V3Info;
    V3Info& h = *v3info;

    if (securityMode == 2) {
        decryptScopedPdu(*this, privKey);
        h.msgPrivacyParameters = makeSalt(server.engineBoots);
    }

    readScopedPduHeader(*this);

    uint32_t const engineTime = tn::getUptime() - server.startUptime;

    if (h.msgAuthoritativeEngineID != server.engineID) {
        h.msgAuthoritativeEngineID = server.engineID;
        h.contextEngineID = server.engineID;
        if (v3_err == -1) v3_err = 3;
    }

    if (securityMode > 0) {
        // Unsigned difference: a manager that claims a later time than ours
        // wraps around to a huge value and falls outside the window too.
        bool const inTime = engineTime - static_cast<uint32_t>(h.msgAuthoritativeEngineTime) <= server.timeWindow &&
                            static_cast<uint32_t>(h.msgAuthoritativeEngineBoots) == server.engineBoots;
        if (!inTime && v3_err == -1) v3_err = 1;

        std::vector<unsigned char>& received = securityMode == 2 ? plaintext : data;
        if (!digestMatches(received, h, authKey, authProto) && v3_err == -1) v3_err = 4;
    }

    h.msgAuthoritativeEngineBoots = static_cast<int32_t>(server.engineBoots);
    h.msgAuthoritativeEngineTime = static_cast<int32_t>(engineTime);
    return true;
}

void InStream::clearAuthPrivInfo() {
    if (!v3info) return;
    v3info->msgAuthenticationParameters.clear();
    v3info->msgPrivacyParameters.clear();
    if (!v3info->msgFlags.empty()) v3info->msgFlags[0] = static_cast<char>(v3info->msgFlags[0] & ~0x03);
}

bool InStream::decryptAndCheckSignatureLite(std::vector<unsigned char> const& authKey, int authProto,
                                            std::vector<unsigned char> const& privKey, int /*privProto*/) {
    if (!v3info) return false;
    V3Info& h = *v3info;
    if (securityMode == 2) decryptScopedPdu(*this, privKey);
    if (!readScopedPduHeader(*this)) return false;
    if (securityMode == 0) return true;
    return digestMatches(securityMode == 2 ? plaintext : data, h, authKey, authProto);
}

// ---------------------------------------------------------------------------
// Writing

void OutStream::writeV3Info(V3Info const* info) {
    if (!info) return;
    startSeq(0x30);
    add(static_cast<int>(info->msgID), 0x02);
    add(static_cast<int>(info->msgMaxSize), 0x02);
    add(info->msgFlags, 0x04);
    add(static_cast<int>(info->msgSecurityModel), 0x02);
    endSeq();

    OutStream sp;
    sp.startSeq(0x30);
    sp.add(info->msgAuthoritativeEngineID, 0x04);
    sp.add(static_cast<int>(info->msgAuthoritativeEngineBoots), 0x02);
    sp.add(static_cast<int>(info->msgAuthoritativeEngineTime), 0x02);
    sp.add(info->msgUserName, 0x04);
    sp.add(info->msgAuthenticationParameters, 0x04);
    uint32_t const a = static_cast<uint32_t>(sp.size() - info->msgAuthenticationParameters.size());
    sp.add(info->msgPrivacyParameters, 0x04);
    sp.endSeq();
    // The distance is taken from the end, so length bytes that closing the
    // parameters' SEQUENCE inserted before `a` (content of 128 bytes or more)
    // are not accounted for and the position lands that many bytes early.
    uint32_t const d = static_cast<uint32_t>(sp.size()) - a;
    add(sp.data.data(), static_cast<unsigned int>(sp.size()), 0x04);
    authParamsPos = static_cast<uint32_t>(size()) - d;
    scopedPduStart = static_cast<uint32_t>(size());

    startSeq(0x30);
    add(info->contextEngineID, 0x04);
    add(info->contextName, 0x04);
}

void OutStream::cryptPacket(V3Info const* info, std::vector<unsigned char> const& privKey, int /*privProto*/) {
    endSeq();
    if (securityMode != 2 || !info || scopedPduStart == 0 || scopedPduStart > data.size()) return;

    // Pad with a fixed byte value to whole DES blocks.
    while ((data.size() - scopedPduStart) % 8 != 0) data.push_back(0x05);

    CryptScratch& s = cryptScratch();
    s.in.assign(data.begin() + scopedPduStart, data.end());
    s.out.clear();
    cryptMessageDES(info->msgPrivacyParameters, privKey, s.in, s.out, 1);
    data.resize(scopedPduStart);
    add(s.out, 0x04);
}

void OutStream::signPacket(V3Info const* info, std::vector<unsigned char> const& authKey, int authProto) {
    if (securityMode <= 0 || !info) return;
    size_t const len = info->msgAuthenticationParameters.size();
    size_t const from = authParamsPos < data.size() ? authParamsPos : data.size();
    size_t const to = data.size() - from > len ? from + len : data.size();
    if (to > from) std::memset(data.data() + from, 0, to - from);

    std::vector<unsigned char>& digest = cryptScratch().digest;
    digestMessage(digest, data, authKey, authParamsPos, static_cast<unsigned int>(len),
                  static_cast<unsigned int>(authProto));
    size_t n = to - from;
    if (n > digest.size()) n = digest.size();
    if (n) std::memcpy(data.data() + from, digest.data(), n);
}

// ---------------------------------------------------------------------------
// Report

unsigned int snmpV3(Context& ctx) {
    int const e = ctx.v3Error;
    bool const known = e >= 0 && e < 6;
    ctx.out.startSeq(0x30);
    ctx.out.addOID(OID{1, 3, 6, 1, 6, 3, 15, 1, 1, static_cast<uint32_t>(e + 1), 0}, 0x06);
    ctx.out.add(known ? Context::v3counters[e] : 0u, 0x41);
    ctx.out.endSeq();
    return 0;
}
