// tn::message: typed fields, the binary encoding, the JSON form, the dump.
#include <gtest/gtest.h>

#include <random>

#include "tn/message.h"

using namespace tn;

namespace {

std::vector<uint8_t> be(std::initializer_list<uint32_t> words) {
    std::vector<uint8_t> out;
    for (uint32_t w : words) {
        out.push_back(uint8_t(w >> 24));
        out.push_back(uint8_t(w >> 16));
        out.push_back(uint8_t(w >> 8));
        out.push_back(uint8_t(w));
    }
    return out;
}

// A message with every field type, edge values and nested message arrays.
message rich() {
    message inner;
    inner.insert(u32_id(1), 7u);
    inner.insert(string_id(2), "inner");
    message middle;
    middle.insert(message_id(3), inner);
    middle.insert(message_array_id(4), std::vector<message>{inner, message(), inner});

    message m;
    m.insert(bool_id(0x01), true);
    m.insert(bool_id(0x02), false);
    m.insert(u32_id(0x03), 0xFFFFFFFFu);
    m.insert(be32_id(0x04), 0x0A000001u);
    m.insert(u64_id(0x05), 0xFFFFFFFFFFFFFFFFull);
    m.insert(string_id(0x06), "text with \"quotes\" and \xc3\xa9");
    m.insert(string_id(0x07), "");
    m.insert(string_id(0x08), std::string("bin\xff\x00z", 6));  // not UTF-8, holds a zero byte
    m.insert(raw_id(0x09), std::vector<uint8_t>{0x02, 0x11, 0xaa, 0x00});
    m.insert(raw_id(0x0A), std::vector<uint8_t>());
    m.insert(message_id(0x0B), middle);
    m.insert(message_id(0x0C), message());
    m.insert(u32_array_id(0x0D), u32_vector{0, 1, 0xFFFFFFFFu});
    m.insert(u32_array_id(0x0E), u32_vector());
    m.insert(be32_array_id(0x0F), u32_vector{0xC0A80001u});
    m.insert(string_array_id(0x10), std::vector<std::string>{"a", "", "c"});
    m.insert(string_array_id(0x11), std::vector<std::string>());
    m.insert(message_array_id(0x12), std::vector<message>{middle, inner});
    m.insert(message_array_id(0x13), std::vector<message>());
    return m;
}

}  // namespace

TEST(TnMessage, TypedAccessAndDefaults) {
    message m = rich();
    EXPECT_TRUE(m.get(bool_id(1)));
    EXPECT_FALSE(m.get(bool_id(2), true));
    EXPECT_EQ(0xFFFFFFFFu, m.get(u32_id(3)));
    EXPECT_EQ(0x0A000001u, m.get(be32_id(4)));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFull, m.get(u64_id(5)));
    EXPECT_EQ(std::string("bin\xff\x00z", 6), m.get(string_id(8)));
    EXPECT_EQ((std::vector<uint8_t>{0x02, 0x11, 0xaa, 0x00}), m.get(raw_id(9)));
    EXPECT_EQ((u32_vector{0, 1, 0xFFFFFFFFu}), m.get(u32_array_id(0x0D)));
    EXPECT_EQ((std::vector<std::string>{"a", "", "c"}), m.get(string_array_id(0x10)));
    EXPECT_EQ(7u, m.get(message_id(0x0B)).get(message_id(3)).get(u32_id(1)));
    std::vector<message> arr = m.get(message_array_id(0x12));
    ASSERT_EQ(2u, arr.size());
    EXPECT_EQ("inner", arr[1].get(string_id(2)));
    EXPECT_EQ(3u, arr[0].get(message_array_id(4)).size());
    ASSERT_NE(nullptr, m.get_flat(message_array_id(0x12)));
    EXPECT_EQ(2u, m.get_flat(message_array_id(0x12))->size());

    // Absent fields give the defaults; presence is per type and id.
    EXPECT_EQ(42u, m.get(u32_id(0x99), 42));
    EXPECT_TRUE(m.get(bool_id(0x99), true));
    EXPECT_EQ("dflt", m.get(string_id(0x99), "dflt"));
    EXPECT_TRUE(m.get(message_id(0x99)).empty());
    EXPECT_TRUE(m.get(u32_array_id(0x99)).empty());
    EXPECT_EQ(nullptr, m.get_flat(message_array_id(0x99)));
    EXPECT_EQ(nullptr, m.get_string_ptr(string_id(0x99)));
    EXPECT_TRUE(m.has(u32_id(3)));
    EXPECT_FALSE(m.has(u64_id(3)));  // same id, another type: another field
    // An id given with its type byte names the same field.
    EXPECT_EQ(m.get(u32_id(3)), m.get(u32_id(0x08000003)));
    EXPECT_TRUE(m.has_key(0x88000001 | 0x0D));
    EXPECT_EQ("text with \"quotes\" and \xc3\xa9", *m.get_string_ptr(string_id(6)));
}

TEST(TnMessage, InsertReplacesAndKeysStaySorted) {
    message m;
    m.insert(u32_id(9), 1u);
    m.insert(string_id(1), "x");
    m.insert(u32_id(2), 5u);
    m.insert(u32_id(9), 3u);
    EXPECT_EQ(3u, m.size());
    EXPECT_EQ((std::vector<uint32_t>{0x08000002, 0x08000009, 0x20000001}), m.keys());
    EXPECT_EQ(3u, m.get(u32_id(9)));
    m.remove_key(0x08000002);
    EXPECT_FALSE(m.has(u32_id(2)));
    m.remove_key(0x08000077);  // absent: no effect
    EXPECT_EQ(2u, m.size());

    message other;
    other.insert(u32_id(9), 4u);
    other.insert(bool_id(3), true);
    m.merge(other);
    EXPECT_EQ(4u, m.get(u32_id(9)));
    EXPECT_TRUE(m.get(bool_id(3)));
    EXPECT_EQ("x", m.get(string_id(1)));

    message e;
    e.insert(u32_id(1), 1u);
    m.append(message_array_id(5), e);
    m.append(message_array_id(5), e);
    EXPECT_EQ(2u, m.get(message_array_id(5)).size());
}

TEST(TnMessage, EncodingIsByteExact) {
    message m;
    m.insert(string_id(5), "ab");
    m.insert(u32_id(0xFE0001), 0x01020304u);
    m.insert(bool_id(1), true);
    m.insert(u64_id(2), 0x1122334455667788ull);
    std::vector<uint8_t> want = be({4, 0x00000001});
    want.push_back(1);
    std::vector<uint8_t> tail = be({0x08FE0001, 0x01020304, 0x10000002, 0x11223344, 0x55667788, 0x20000005, 2});
    want.insert(want.end(), tail.begin(), tail.end());
    want.push_back('a');
    want.push_back('b');
    EXPECT_EQ(want, m.encode());

    message arr;
    arr.insert(u32_array_id(1), u32_vector{7, 8});
    arr.insert(string_array_id(2), std::vector<std::string>{"x"});
    std::vector<uint8_t> want2 = be({2, 0x88000001, 2, 7, 8, 0xA0000002, 1, 1});
    want2.push_back('x');
    EXPECT_EQ(want2, arr.encode());
    EXPECT_EQ(be({0}), message().encode());
}

TEST(TnMessage, RoundTripsEveryTypeAndLargeArrays) {
    message m = rich();
    u32_vector big(100000);
    for (size_t i = 0; i < big.size(); ++i) big[i] = uint32_t(i * 2654435761u);
    m.insert(u32_array_id(0x20), big);
    std::vector<std::string> strs;
    for (int i = 0; i < 2000; ++i) strs.push_back(std::string(size_t(i % 50), char('a' + i % 26)));
    m.insert(string_array_id(0x21), strs);
    std::vector<message> msgs;
    for (uint32_t i = 0; i < 500; ++i) {
        message e;
        e.insert(u32_id(F_OBJ_ID), i);
        e.insert(string_id(F_OBJ_NAME), "obj" + std::to_string(i));
        msgs.push_back(e);
    }
    m.insert(message_array_id(F_OBJECTS), msgs);

    std::vector<uint8_t> bytes = m.encode();
    message back;
    std::string err;
    ASSERT_TRUE(message::decode(bytes.data(), bytes.size(), back, &err)) << err;
    EXPECT_TRUE(back == m);
    EXPECT_EQ(bytes, back.encode());
    EXPECT_EQ(big, back.get(u32_array_id(0x20)));
    EXPECT_EQ("obj499", back.get(message_array_id(F_OBJECTS))[499].get(string_id(F_OBJ_NAME)));

    flat_message f(m);
    EXPECT_TRUE(f.unflatten() == m);
    EXPECT_TRUE(message(f) == m);

    // encode_to reuses and replaces the buffer's contents.
    std::vector<uint8_t> buf(10, 0xEE);
    message small;
    small.insert(u32_id(1), 1u);
    small.encode_to(buf);
    EXPECT_EQ(small.encode(), buf);
}

TEST(TnMessage, EqualityComparesEveryValue) {
    message a = rich(), b = rich();
    EXPECT_TRUE(a == b);
    b.insert(u32_array_id(0x0D), u32_vector{0, 1, 0xFFFFFFFEu});
    EXPECT_TRUE(a != b);
    b = rich();
    message inner;
    inner.insert(u32_id(1), 8u);
    b.insert(message_array_id(0x12), std::vector<message>{inner});
    EXPECT_FALSE(a == b);
    b = rich();
    b.insert(bool_id(0x02), true);
    EXPECT_FALSE(a == b);
}

TEST(TnMessage, RejectsTruncationAtEveryByte) {
    std::vector<uint8_t> bytes = rich().encode();
    for (size_t n = 0; n < bytes.size(); ++n) {
        message out;
        out.insert(u32_id(1), 1u);
        std::string err;
        EXPECT_FALSE(message::decode(bytes.data(), n, out, &err)) << "accepted a prefix of " << n << " bytes";
        EXPECT_TRUE(out.empty());
        EXPECT_FALSE(err.empty());
    }
    // One byte too many is rejected as well.
    bytes.push_back(0);
    message out;
    std::string err;
    EXPECT_FALSE(message::decode(bytes.data(), bytes.size(), out, &err));
    EXPECT_NE(std::string::npos, err.find("trailing"));
}

TEST(TnMessage, RejectsBadStructure) {
    struct Case {
        const char* name;
        std::vector<uint8_t> bytes;
    };
    std::vector<uint8_t> badBool = be({1, 0x00000001});
    badBool.push_back(2);
    std::vector<Case> cases = {
        {"huge field count", be({0xFFFFFFFFu})},
        {"count beyond data", be({3, 0x08000001, 1})},
        {"unknown type", be({1, 0x18000001, 0})},
        {"bad bool", badBool},
        {"duplicate key", be({2, 0x08000001, 1, 0x08000001, 2})},
        {"unordered keys", be({2, 0x08000002, 1, 0x08000001, 2})},
        {"string length past end", be({1, 0x20000001, 0x7FFFFFFF})},
        {"huge u32 array", be({1, 0x88000001, 0x40000000})},
        {"huge string array", be({1, 0xA0000001, 0xFFFFFFFFu})},
        {"huge message array", be({1, 0xA8000001, 0x3FFFFFFF, 0})},
        {"string array element past end", be({1, 0xA0000001, 2, 1, 0x41000000})},
        {"nested message with trailing bytes", be({1, 0x28000001, 8, 0, 0})},
        {"nested message too short", be({1, 0x28000001, 2, 0})},
        {"bad nested field", be({1, 0x28000001, 12, 1, 0x18000001, 0})},
        {"bad message array element", be({1, 0xA8000001, 1, 8, 1, 0x08000001})},
    };
    for (const Case& c : cases) {
        message out;
        std::string err;
        EXPECT_FALSE(message::decode(c.bytes.data(), c.bytes.size(), out, &err)) << c.name;
        EXPECT_FALSE(err.empty()) << c.name;
        EXPECT_EQ(std::string::npos, err.find('\n')) << c.name;
    }
    // Larger than the limit: rejected before looking at the contents.
    message out;
    std::string err;
    std::vector<uint8_t> one = be({0});
    EXPECT_FALSE(message::decode(one.data(), message::kMaxSize + 1, out, &err));
    EXPECT_NE(std::string::npos, err.find("larger"));
}

TEST(TnMessage, NestingDepthIsLimited) {
    auto nest = [](int levels) {
        message m;
        m.insert(u32_id(1), 1u);
        for (int i = 0; i < levels; ++i) {
            message outer;
            if (i % 2)
                outer.insert(message_id(2), m);
            else
                outer.insert(message_array_id(3), std::vector<message>{m});
            m = outer;
        }
        return m.encode();
    };
    message out;
    std::vector<uint8_t> ok = nest(message::kMaxDepth);
    EXPECT_TRUE(message::decode(ok.data(), ok.size(), out));
    std::vector<uint8_t> deep = nest(message::kMaxDepth + 1);
    std::string err;
    EXPECT_FALSE(message::decode(deep.data(), deep.size(), out, &err));
    EXPECT_NE(std::string::npos, err.find("deep"));

    // Hand-made nesting far past the limit (each level: count 1, key, length)
    // is refused without recursing through all of it.
    const int levels = 100000;
    std::vector<uint8_t> bytes;
    for (int i = 0; i < levels; ++i) {
        size_t inner = size_t(levels - i - 1) * 12 + 4;
        std::vector<uint8_t> w = be({1, 0x28000001, uint32_t(inner)});
        bytes.insert(bytes.end(), w.begin(), w.end());
    }
    std::vector<uint8_t> tail = be({0});
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    EXPECT_FALSE(message::decode(bytes.data(), bytes.size(), out, &err));
}

TEST(TnMessage, MutatedEncodingsNeverCrashAndStayCanonical) {
    std::vector<uint8_t> base = rich().encode();
    std::mt19937 rng(12345);
    int accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        std::vector<uint8_t> b = base;
        int edits = 1 + int(rng() % 4);
        for (int e = 0; e < edits; ++e) {
            size_t at = rng() % b.size();
            switch (rng() % 3) {
            case 0: b[at] = uint8_t(rng()); break;
            case 1: b[at] ^= uint8_t(1u << (rng() % 8)); break;
            default: b.resize(at + 1); break;
            }
        }
        message out;
        if (message::decode(b.data(), b.size(), out)) {
            ++accepted;
            // Whatever is accepted re-encodes to exactly the input.
            EXPECT_EQ(b, out.encode());
        }
    }
    // Flipped bytes inside strings and numbers stay valid, so some must pass.
    EXPECT_GT(accepted, 0);
}

TEST(TnMessage, JsonRoundTripsExactly) {
    message m = rich();
    std::string text = m.to_json();
    message back;
    std::string err;
    ASSERT_TRUE(message::from_json(text, back, &err)) << err;
    EXPECT_TRUE(back == m) << text;
    std::string pretty = m.to_json(2);
    ASSERT_TRUE(message::from_json(pretty, back, &err)) << err;
    EXPECT_TRUE(back == m);
    // The string that is not UTF-8 travels as hex.
    EXPECT_NE(std::string::npos, text.find("{\"hex\":\"62696eff007a\"}"));
}

TEST(TnMessage, JsonFormIsTheDocumentedOne) {
    message inner;
    inner.insert(u32_id(1), 2u);
    message m;
    m.insert(u32_id(F_OBJ_ID), 5u);
    m.insert(bool_id(1), true);
    m.insert(raw_id(2), std::vector<uint8_t>{0x02, 0x11, 0xaa});
    m.insert(u32_array_id(F_PATH), u32_vector{20, 0});
    m.insert(message_array_id(F_OBJECTS), std::vector<message>{inner});
    m.insert(string_array_id(3), std::vector<std::string>{"a"});
    m.insert(u64_id(4), 1ull << 40);
    EXPECT_EQ(
        "{\"0x00000001\":true,\"0x08fe0001\":5,\"0x10000004\":1099511627776,\"0x30000002\":\"0211aa\","
        "\"0x88ff0001\":[20,0],\"0xa0000003\":[\"a\"],\"0xa8fe0002\":[{\"0x08000001\":2}]}",
        m.to_json());
}

TEST(TnMessage, JsonAcceptsReadableNames) {
    const char* text = R"({
        "bool:0x01": true, "str:2": "contact", "u32:0x0e": 15, "be32:0x10": "10.0.0.1",
        "u64:5": 18446744073709551615, "raw:6": "0A0b", "msg:7": {"u32:1": 3},
        "u32[]:0x88ff0001": [20, 0], "be32[]:8": ["192.168.0.1", 7], "str[]:9": ["x"],
        "msg[]:0xfe0002": [{"u32:0xfe0001": 1}, {}]
    })";
    message m;
    std::string err;
    ASSERT_TRUE(message::from_json(text, m, &err)) << err;
    EXPECT_TRUE(m.get(bool_id(1)));
    EXPECT_EQ("contact", m.get(string_id(2)));
    EXPECT_EQ(15u, m.get(u32_id(0x0E)));
    EXPECT_EQ(0x0A000001u, m.get(be32_id(0x10)));
    EXPECT_EQ(UINT64_MAX, m.get(u64_id(5)));
    EXPECT_EQ((std::vector<uint8_t>{0x0a, 0x0b}), m.get(raw_id(6)));
    EXPECT_EQ(3u, m.get(message_id(7)).get(u32_id(1)));
    EXPECT_EQ((u32_vector{20, 0}), m.get(u32_array_id(F_PATH)));
    EXPECT_EQ((u32_vector{0xC0A80001u, 7}), m.get(be32_array_id(8)));
    EXPECT_EQ(2u, m.get(message_array_id(F_OBJECTS)).size());
    EXPECT_EQ(1u, m.get(message_array_id(F_OBJECTS))[0].get(u32_id(F_OBJ_ID)));
}

TEST(TnMessage, JsonRejectsBadInput) {
    const char* bad[] = {
        "not json",
        "[1,2]",
        R"({"0x18000001": 1})",              // unknown type byte
        R"({"0x0800001": 1, "x": 2})",       // bad name
        R"({"u33:1": 1})",                   // unknown type name
        R"({"u32:0x20000001": 1})",          // id carries another type
        R"({"u32:1": -1})",
        R"({"u32:1": 4294967296})",
        R"({"u32:1": 1.5})",
        R"({"u32:1": "300.1.1.1"})",
        R"({"u32:1": "1.2.3"})",
        R"({"bool:1": 2})",
        R"({"str:1": 5})",
        R"({"raw:1": "abc"})",
        R"({"raw:1": "zz"})",
        R"({"msg:1": [1]})",
        R"({"u32[]:1": [1, "x"]})",
        R"({"msg[]:1": [1]})",
        R"({"u32:1": 1, "0x08000001": 2})",  // one field named twice
    };
    for (const char* t : bad) {
        message m;
        m.insert(u32_id(9), 9u);
        std::string err;
        EXPECT_FALSE(message::from_json(t, m, &err)) << t;
        EXPECT_FALSE(err.empty()) << t;
        EXPECT_TRUE(m.empty()) << t;
    }
    std::string deep = "{}";
    for (int i = 0; i < message::kMaxDepth + 1; ++i) deep = "{\"msg:1\":" + deep + "}";
    message m;
    std::string err;
    EXPECT_FALSE(message::from_json(deep, m, &err));
    EXPECT_NE(std::string::npos, err.find("deep"));
}

TEST(TnMessage, DumpIsReadable) {
    message inner;
    inner.insert(u32_id(1), 2u);
    message m;
    m.insert(u32_id(F_OBJ_ID), 10u);
    m.insert(string_id(5), "a\"b\x01");
    m.insert(message_array_id(F_OBJECTS), std::vector<message>{inner});
    std::string d = m.dump2("> ");
    EXPECT_EQ(
        "> 0x08fe0001 u32 = 10 (0xa)\n"
        "> 0x20000005 str = \"a\\\"b\\x01\"\n"
        "> 0xa8fe0002 msg[] = 1 element\n"
        ">   [0] {\n"
        ">     0x08000001 u32 = 2 (0x2)\n"
        ">   }\n",
        d);
    EXPECT_EQ("(empty message)\n", message().dump2());
}

TEST(TnMessage, ErrorReplies) {
    message e = errorMsg(ERR_REFUSED, "community with such name already exists");
    EXPECT_TRUE(isError(e));
    EXPECT_EQ(uint32_t(ERR_REFUSED), getErrorCode(e));
    EXPECT_EQ("community with such name already exists", getError(e));
    message ok;
    ok.insert(u32_id(F_OBJ_ID), 3u);
    EXPECT_FALSE(isError(ok));
    EXPECT_EQ(0u, getErrorCode(ok));
    EXPECT_EQ("", getError(ok));
    EXPECT_TRUE(isError(errorMsg(ERR_NO_OBJECT, "")));
}

TEST(TnMessage, UndecodableFlatElementGivesEmptyMessage) {
    flat_message f;
    f.bytes = {0, 0, 0, 9};
    EXPECT_TRUE(f.unflatten().empty());
    EXPECT_TRUE(message(f).empty());
}
