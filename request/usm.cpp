// SNMPv3 user-based security: key localisation, HMAC and DES.
//
// The single-DES primitives only exist in libcrypto's low-level (deprecated)
// API; keep the deprecation attributes out of this file's build.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "request/usm.h"

#include <openssl/des.h>
#include <openssl/evp.h>

#include <cstring>

env_md_st const* methods[2] = {nullptr, nullptr};

void initDigestMethods() {
    methods[0] = EVP_md5();
    methods[1] = EVP_sha1();
}

namespace {

// The digest at a protocol index, or null outside the table.
env_md_st const* methodFor(unsigned int proto) {
    if (proto >= sizeof(methods) / sizeof(methods[0])) return nullptr;
    if (!methods[proto]) initDigestMethods();
    return methods[proto];
}

// One reusable digest context per thread: the request path hashes twice per
// signed message and should not allocate a context each time.
class DigestCtx {
public:
    DigestCtx() : ctx_(EVP_MD_CTX_new()) {}
    ~DigestCtx() { EVP_MD_CTX_free(ctx_); }
    DigestCtx(DigestCtx const&) = delete;
    DigestCtx& operator=(DigestCtx const&) = delete;
    EVP_MD_CTX* get() const { return ctx_; }

    // Starts a digest. Naming a digest object makes libcrypto 3 look its
    // implementation up in the providers on every init, which cost about a
    // quarter of an authenticated request; when the context already holds
    // that digest, it is restarted with what it has.
    bool begin(env_md_st const* md) {
        bool const same = md == md_;
        md_ = nullptr;
        if (EVP_DigestInit_ex(ctx_, same ? nullptr : md, nullptr) != 1) return false;
        md_ = md;
        return true;
    }

private:
    EVP_MD_CTX* ctx_;
    env_md_st const* md_ = nullptr;  // the digest the context was last started with
};

DigestCtx& digestCtx() {
    thread_local DigestCtx ctx;
    return ctx;
}

}  // namespace

// ---------------------------------------------------------------------------
// Key localisation

std::vector<unsigned char> passwordToAKey(std::string const& password, env_md_st const* md) {
    std::vector<unsigned char> key;
    if (password.empty() || !md) return key;
    DigestCtx& dc = digestCtx();
    EVP_MD_CTX* ctx = dc.get();
    if (!ctx || !dc.begin(md)) return key;

    // 1 MiB of the password repeated end to end, hashed 64 bytes at a time.
    unsigned char block[64];
    size_t const plen = password.size();
    size_t index = 0;
    for (unsigned long count = 0; count < 0x100000; count += sizeof(block)) {
        for (unsigned char& b : block) {
            b = static_cast<unsigned char>(password[index]);
            if (++index == plen) index = 0;
        }
        EVP_DigestUpdate(ctx, block, sizeof(block));
    }
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int outLen = 0;
    if (EVP_DigestFinal_ex(ctx, out, &outLen) != 1) return key;
    key.assign(out, out + outLen);
    return key;
}

std::vector<unsigned char> passwordToAKey(std::string const& password, unsigned int proto) {
    return passwordToAKey(password, methodFor(proto));
}

std::vector<unsigned char> aKeyToBKey(std::vector<unsigned char> const& key, std::string const& engineID,
                                      env_md_st const* md) {
    std::vector<unsigned char> result;
    if (!md) return result;
    DigestCtx& dc = digestCtx();
    EVP_MD_CTX* ctx = dc.get();
    if (!ctx || !dc.begin(md)) return result;
    EVP_DigestUpdate(ctx, key.data(), key.size());
    EVP_DigestUpdate(ctx, engineID.data(), engineID.size());
    EVP_DigestUpdate(ctx, key.data(), key.size());
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int outLen = 0;
    if (EVP_DigestFinal_ex(ctx, out, &outLen) != 1) return result;
    result.assign(out, out + outLen);
    return result;
}

std::vector<unsigned char> aKeyToBKey(std::vector<unsigned char> const& key, std::string const& engineID,
                                      unsigned int proto) {
    return aKeyToBKey(key, engineID, methodFor(proto));
}

// The HMAC pad block: the key zero-extended to 64 bytes, XOR ipad, then XOR opad.
std::vector<unsigned char> bKeyToDKey(std::vector<unsigned char> const& key, env_md_st const*) {
    std::vector<unsigned char> d(128);
    for (size_t i = 0; i < 64; ++i) {
        unsigned char k = i < key.size() ? key[i] : 0;
        d[i] = k ^ 0x36;
        d[64 + i] = k ^ 0x5C;
    }
    return d;
}

std::vector<unsigned char> bKeyToDKey(std::vector<unsigned char> const& key, unsigned int proto) {
    return bKeyToDKey(key, methodFor(proto));
}

// ---------------------------------------------------------------------------
// HMAC over a whole message whose authentication parameters are zeroed

void digestMessage(std::vector<unsigned char>& result, std::vector<unsigned char>& message,
                   std::vector<unsigned char> const& dKey, unsigned int pos, unsigned int len, env_md_st const* md) {
    result.clear();
    if (!md) return;
    DigestCtx& dc = digestCtx();
    EVP_MD_CTX* ctx = dc.get();
    if (!ctx) return;

    // Only the part of the parameters that lies inside the message is
    // blanked; a position from a damaged header must not reach past the end.
    size_t const size = message.size();
    size_t const from = pos < size ? pos : size;
    size_t const to = (size - from) > len ? from + len : size;
    unsigned char saved[64];
    std::vector<unsigned char> savedLong;
    unsigned char* keep = saved;
    if (to - from > sizeof(saved)) {
        savedLong.resize(to - from);
        keep = savedLong.data();
    }
    if (to > from) {
        std::memcpy(keep, message.data() + from, to - from);
        std::memset(message.data() + from, 0, to - from);
    }

    size_t const half = dKey.size() / 2;
    unsigned char inner[EVP_MAX_MD_SIZE];
    unsigned int innerLen = 0;
    unsigned char outer[EVP_MAX_MD_SIZE];
    unsigned int outerLen = 0;
    bool ok = dc.begin(md) && EVP_DigestUpdate(ctx, dKey.data(), half) == 1 &&
              EVP_DigestUpdate(ctx, message.data(), size) == 1 && EVP_DigestFinal_ex(ctx, inner, &innerLen) == 1 &&
              dc.begin(md) &&
              EVP_DigestUpdate(ctx, dKey.data() + half, dKey.size() - half) == 1 &&
              EVP_DigestUpdate(ctx, inner, innerLen) == 1 && EVP_DigestFinal_ex(ctx, outer, &outerLen) == 1;

    if (to > from) std::memcpy(message.data() + from, keep, to - from);
    if (ok) result.assign(outer, outer + outerLen);
}

void digestMessage(std::vector<unsigned char>& result, std::vector<unsigned char>& message,
                   std::vector<unsigned char> const& dKey, unsigned int pos, unsigned int len, unsigned int proto) {
    digestMessage(result, message, dKey, pos, len, methodFor(proto));
}

// ---------------------------------------------------------------------------
// DES-CBC privacy

void cryptMessageDES(std::string const& salt, std::vector<unsigned char> const& key, std::string& input,
                     std::string& output, int encrypt) {
    if (key.size() < 8) return;

    DES_cblock desKey;
    std::memcpy(desKey, key.data(), 8);
    DES_key_schedule schedule;
    DES_key_sched(&desKey, &schedule);

    DES_cblock iv;
    for (size_t i = 0; i < 8; ++i) {
        unsigned char pre = 8 + i < key.size() ? key[8 + i] : 0;
        unsigned char s = i < salt.size() ? static_cast<unsigned char>(salt[i]) : 0;
        iv[i] = pre ^ s;
    }

    int const mode = encrypt ? DES_ENCRYPT : DES_DECRYPT;
    size_t const length = input.size();
    size_t const whole = length & ~static_cast<size_t>(7);

    // The cipher writes whole blocks (and, decrypting, reads them), so a
    // trailing partial block goes through a zero-filled scratch block.
    output.resize(whole + (length > whole ? 8 : 0));
    if (whole > 0) {
        DES_ncbc_encrypt(reinterpret_cast<unsigned char const*>(input.data()),
                         reinterpret_cast<unsigned char*>(&output[0]), static_cast<long>(whole), &schedule, &iv,
                         mode);
    }
    if (length > whole) {
        unsigned char tailIn[8] = {0, 0, 0, 0, 0, 0, 0, 0};
        unsigned char tailOut[8];
        std::memcpy(tailIn, input.data() + whole, length - whole);
        DES_ncbc_encrypt(tailIn, tailOut, 8, &schedule, &iv, mode);
        std::memcpy(&output[whole], tailOut, length - whole);
    }
    output.resize(length);
}
