// Key localisation, HMAC and DES of the user-based security model.
#include "request/usm.h"

#include <gtest/gtest.h>
#include <openssl/hmac.h>

#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes fromHex(char const* hex) {
    Bytes out;
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    int hi = -1;
    for (char const* p = hex; *p; ++p) {
        int n = nibble(*p);
        if (n < 0) continue;
        if (hi < 0) {
            hi = n;
        } else {
            out.push_back(static_cast<unsigned char>(hi << 4 | n));
            hi = -1;
        }
    }
    return out;
}

std::string str(Bytes const& b) { return std::string(b.begin(), b.end()); }

class UsmKeys : public ::testing::Test {
protected:
    void SetUp() override { initDigestMethods(); }
    std::string const engine = str(fromHex("000000000000000000000002"));
};

// Published localisation vectors for the password "maplesyrup".
TEST_F(UsmKeys, LocalisesMd5AndSha1KeysLikeTheReferenceVectors) {
    Bytes md5Ku = passwordToAKey("maplesyrup", 0u);
    EXPECT_EQ(md5Ku, fromHex("9faf3283884e92834ebc9847d8edd963"));
    EXPECT_EQ(aKeyToBKey(md5Ku, engine, 0u), fromHex("526f5eed9fcce26f8964c2930787d82b"));

    Bytes shaKu = passwordToAKey("maplesyrup", 1u);
    EXPECT_EQ(shaKu, fromHex("9fb5cc0381497b3793528939ff788d5d79145211"));
    EXPECT_EQ(aKeyToBKey(shaKu, engine, 1u), fromHex("6695febc9288e36282235fc7151f128497b38f3f"));

    // The digest-pointer and protocol-index forms are the same function.
    EXPECT_EQ(passwordToAKey("maplesyrup", EVP_md5()), md5Ku);
    EXPECT_EQ(aKeyToBKey(shaKu, engine, EVP_sha1()), aKeyToBKey(shaKu, engine, 1u));
}

TEST_F(UsmKeys, PasswordRepetitionSpansBlockBoundaries) {
    // A password whose length does not divide 64 must continue where the
    // previous block stopped, not restart at every block.
    Bytes a = passwordToAKey("abcdefg", 0u);
    Bytes b = passwordToAKey("abcdefgabcdefg", 0u);
    EXPECT_EQ(a, b);
    // Hash of the repeated stream computed directly.
    std::string stream;
    while (stream.size() < 0x100000) stream += "abcdefg";
    stream.resize(0x100000);
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EVP_Digest(stream.data(), stream.size(), md, &n, EVP_md5(), nullptr);
    EXPECT_EQ(a, Bytes(md, md + n));
}

TEST_F(UsmKeys, EmptyPasswordAndUnknownProtocolGiveEmptyKeys) {
    EXPECT_TRUE(passwordToAKey("", 0u).empty());
    EXPECT_TRUE(passwordToAKey("", 1u).empty());
    EXPECT_TRUE(passwordToAKey("maplesyrup", 2u).empty());
    EXPECT_TRUE(aKeyToBKey(fromHex("0102"), engine, 7u).empty());
}

TEST_F(UsmKeys, DKeyIsTheHmacPadBlock) {
    Bytes key = fromHex("526f5eed9fcce26f8964c2930787d82b");
    Bytes d = bKeyToDKey(key, 0u);
    ASSERT_EQ(d.size(), 128u);
    for (size_t i = 0; i < 64; ++i) {
        unsigned char k = i < key.size() ? key[i] : 0;
        EXPECT_EQ(d[i], k ^ 0x36) << i;
        EXPECT_EQ(d[64 + i], k ^ 0x5C) << i;
    }
    // An empty key still gives the full block of bare pads.
    Bytes e = bKeyToDKey(Bytes(), 1u);
    ASSERT_EQ(e.size(), 128u);
    EXPECT_EQ(e[0], 0x36);
    EXPECT_EQ(e[127], 0x5C);
}

// ---------------------------------------------------------------------------
// HMAC

struct HmacCase {
    unsigned proto;
    EVP_MD const* (*md)();
};

TEST_F(UsmKeys, DigestEqualsHmacOverTheMessageWithZeroedParameters) {
    HmacCase const cases[] = {{0, EVP_md5}, {1, EVP_sha1}};
    for (HmacCase const& c : cases) {
        SCOPED_TRACE(c.proto);
        Bytes localKey = aKeyToBKey(passwordToAKey("maplesyrup", c.proto), engine, c.proto);
        Bytes dKey = bKeyToDKey(localKey, c.proto);

        // A message with 12 non-zero "received" parameter bytes at 40.
        Bytes message(150);
        for (size_t i = 0; i < message.size(); ++i) message[i] = static_cast<unsigned char>(i * 7 + 3);
        Bytes const original = message;
        unsigned const pos = 40, len = 12;

        Bytes zeroed = message;
        std::fill(zeroed.begin() + pos, zeroed.begin() + pos + len, 0);
        unsigned char expect[EVP_MAX_MD_SIZE];
        unsigned int expectLen = 0;
        HMAC(c.md(), localKey.data(), static_cast<int>(localKey.size()), zeroed.data(), zeroed.size(), expect,
             &expectLen);

        Bytes result;
        digestMessage(result, message, dKey, pos, len, c.proto);
        EXPECT_EQ(result, Bytes(expect, expect + expectLen));
        EXPECT_EQ(message, original) << "the parameters must be restored";

        Bytes viaMd;
        digestMessage(viaMd, message, dKey, pos, len, c.md());
        EXPECT_EQ(viaMd, result);

        // A different key gives a different digest.
        Bytes other;
        digestMessage(other, message, bKeyToDKey(fromHex("00"), c.proto), pos, len, c.proto);
        EXPECT_NE(other, result);
    }
}

TEST_F(UsmKeys, DigestParametersOutsideTheMessageNeverOverrun) {
    Bytes dKey = bKeyToDKey(fromHex("0102030405060708"), 0u);
    Bytes message(30, 0xAB);
    Bytes const original = message;

    // Parameters running past the end: only the bytes inside are blanked.
    Bytes zeroed = message;
    std::fill(zeroed.begin() + 20, zeroed.end(), 0);
    unsigned char expect[EVP_MAX_MD_SIZE];
    unsigned int expectLen = 0;
    Bytes key8 = fromHex("0102030405060708");
    HMAC(EVP_md5(), key8.data(), 8, zeroed.data(), zeroed.size(), expect, &expectLen);
    Bytes result;
    digestMessage(result, message, dKey, 20, 200, 0u);
    EXPECT_EQ(result, Bytes(expect, expect + expectLen));
    EXPECT_EQ(message, original);

    // Position far beyond the end, and a position+length that would wrap.
    HMAC(EVP_md5(), key8.data(), 8, message.data(), message.size(), expect, &expectLen);
    digestMessage(result, message, dKey, 1000, 12, 0u);
    EXPECT_EQ(result, Bytes(expect, expect + expectLen));
    digestMessage(result, message, dKey, 0xFFFFFFF8u, 0x20, 0u);
    EXPECT_EQ(result, Bytes(expect, expect + expectLen));
    EXPECT_EQ(message, original);

    // Long parameters (beyond the local save buffer) are restored too.
    Bytes big(500);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i);
    Bytes const bigOriginal = big;
    digestMessage(result, big, dKey, 10, 400, 1u);
    EXPECT_EQ(result.size(), 20u);
    EXPECT_EQ(big, bigOriginal);

    // An empty message and an empty key still hash; an unknown protocol does not.
    Bytes empty;
    digestMessage(result, empty, Bytes(), 0, 12, 1u);
    EXPECT_EQ(result.size(), 20u);
    digestMessage(result, message, dKey, 0, 12, 5u);
    EXPECT_TRUE(result.empty());
}

// ---------------------------------------------------------------------------
// DES-CBC

TEST_F(UsmKeys, DesMatchesTheStandardCbcVector) {
    // Key 0123456789abcdef, IV 1234567890abcdef, "Now is the time for all ".
    std::string plain = "Now is the time for all ";
    Bytes const cipher = fromHex("e5c7cdde872bf27c43e934008c389c0f683788499a7c05f6");

    // The IV is the pre-IV (key bytes 8..15) XOR the salt: try both splits.
    Bytes keyWithPreIv = fromHex("0123456789abcdef" "1234567890abcdef");
    std::string zeroSalt(8, '\0');
    std::string out;
    cryptMessageDES(zeroSalt, keyWithPreIv, plain, out, 1);
    EXPECT_EQ(Bytes(out.begin(), out.end()), cipher);

    Bytes keyZeroPreIv = fromHex("0123456789abcdef" "0000000000000000");
    std::string salt = str(fromHex("1234567890abcdef"));
    std::string out2;
    cryptMessageDES(salt, keyZeroPreIv, plain, out2, 1);
    EXPECT_EQ(out2, out);

    Bytes keyMixed = fromHex("0123456789abcdef" "ff00ff00ff00ff00");
    std::string saltMixed = str(fromHex("ed34a978" "6fab32ef"));
    std::string out3;
    cryptMessageDES(saltMixed, keyMixed, plain, out3, 1);
    EXPECT_EQ(out3, out);

    std::string back;
    cryptMessageDES(salt, keyZeroPreIv, out2, back, 0);
    EXPECT_EQ(back, plain);
}

TEST_F(UsmKeys, DesRoundTripWithLocalisedKey) {
    Bytes priv = aKeyToBKey(passwordToAKey("maplesyrup", 0u), engine, 0u);
    std::string salt = str(fromHex("0000000a1b2c3d4e"));
    std::string plain;
    for (int i = 0; i < 96; ++i) plain.push_back(static_cast<char>(i * 13));
    std::string cipher, back;
    cryptMessageDES(salt, priv, plain, cipher, 1);
    ASSERT_EQ(cipher.size(), plain.size());
    EXPECT_NE(cipher, plain);
    cryptMessageDES(salt, priv, cipher, back, 0);
    EXPECT_EQ(back, plain);

    // Another salt decrypts to something else (CBC: the first block differs).
    std::string wrong;
    cryptMessageDES(str(fromHex("0000000a1b2c3d4f")), priv, cipher, wrong, 0);
    EXPECT_NE(wrong.substr(0, 8), plain.substr(0, 8));
    EXPECT_EQ(wrong.substr(8), plain.substr(8));
}

TEST_F(UsmKeys, DesEdgeCases) {
    std::string plain = "0123456789abcdefXYZ";  // 19 bytes: two blocks and three
    std::string out = "untouched";

    // A key shorter than 8 bytes leaves the output as it was.
    cryptMessageDES("saltsalt", fromHex("01020304050607"), plain, out, 1);
    EXPECT_EQ(out, "untouched");
    cryptMessageDES("saltsalt", Bytes(), plain, out, 0);
    EXPECT_EQ(out, "untouched");

    // An 8-byte key works with a zero pre-IV; a short salt counts as zeros.
    Bytes key8 = fromHex("0123456789abcdef");
    Bytes key16 = fromHex("0123456789abcdef0000000000000000");
    std::string a, b;
    cryptMessageDES("ab", key8, plain, a, 1);
    cryptMessageDES(std::string("ab\0\0\0\0\0\0", 8), key16, plain, b, 1);
    EXPECT_EQ(a, b);

    // Input not a multiple of 8: the output has the input's length, the whole
    // blocks decrypt back and the partial tail is the zero-padded block's start.
    ASSERT_EQ(a.size(), plain.size());
    std::string padded = plain + std::string(5, '\0');
    std::string fullCipher;
    cryptMessageDES("ab", key8, padded, fullCipher, 1);
    EXPECT_EQ(a, fullCipher.substr(0, plain.size()));
    std::string back;
    cryptMessageDES("ab", key8, a, back, 0);
    ASSERT_EQ(back.size(), plain.size());
    EXPECT_EQ(back.substr(0, 16), plain.substr(0, 16));

    // Short encrypted input (below one block) neither crashes nor grows.
    std::string shortIn = "abc", shortOut;
    cryptMessageDES("saltsalt", key8, shortIn, shortOut, 0);
    EXPECT_EQ(shortOut.size(), 3u);

    // Empty input gives empty output.
    std::string emptyIn, emptyOut = "x";
    cryptMessageDES("saltsalt", key8, emptyIn, emptyOut, 1);
    EXPECT_TRUE(emptyOut.empty());
}

}  // namespace
