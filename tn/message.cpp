#include "tn/message.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace tn {

namespace {

// Variant slots of message::value.
enum slot : size_t { S_NUM = 0, S_STR = 1, S_BYTES = 2, S_U32S = 3, S_STRS = 4, S_MSGS = 5 };

inline uint8_t type_of(uint32_t key) { return uint8_t(key >> 24); }

bool known_type(uint8_t t) {
    switch (t) {
    case T_BOOL: case T_U32: case T_U64: case T_STRING: case T_MESSAGE: case T_RAW:
    case T_U32_ARRAY: case T_STRING_ARRAY: case T_MESSAGE_ARRAY:
        return true;
    }
    return false;
}

const char* type_name(uint8_t t) {
    switch (t) {
    case T_BOOL: return "bool";
    case T_U32: return "u32";
    case T_U64: return "u64";
    case T_STRING: return "str";
    case T_MESSAGE: return "msg";
    case T_RAW: return "raw";
    case T_U32_ARRAY: return "u32[]";
    case T_STRING_ARRAY: return "str[]";
    case T_MESSAGE_ARRAY: return "msg[]";
    }
    return "?";
}

inline void put32(std::vector<uint8_t>& o, uint32_t v) {
    uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
    o.insert(o.end(), b, b + 4);
}

inline void put64(std::vector<uint8_t>& o, uint64_t v) {
    put32(o, uint32_t(v >> 32));
    put32(o, uint32_t(v));
}

inline void put_bytes(std::vector<uint8_t>& o, const void* p, size_t n) {
    put32(o, uint32_t(n));
    const uint8_t* b = static_cast<const uint8_t*>(p);
    o.insert(o.end(), b, b + n);
}

inline uint32_t get32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

std::string hex(const uint8_t* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(n * 2);
    for (size_t i = 0; i < n; ++i) {
        s.push_back(digits[p[i] >> 4]);
        s.push_back(digits[p[i] & 15]);
    }
    return s;
}

std::string key_text(uint32_t key) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%08x", key);
    return b;
}

// Strings are bytes on the bus; JSON text must be UTF-8. A string that is
// not valid UTF-8 is written as {"hex": "..."} so that it still round-trips.
bool valid_utf8(const std::string& s) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data());
    size_t n = s.size(), i = 0;
    while (i < n) {
        unsigned c = p[i];
        size_t extra;
        uint32_t cp;
        if (c < 0x80) { ++i; continue; }
        if ((c & 0xE0) == 0xC0) { extra = 1; cp = c & 0x1F; }
        else if ((c & 0xF0) == 0xE0) { extra = 2; cp = c & 0x0F; }
        else if ((c & 0xF8) == 0xF0) { extra = 3; cp = c & 0x07; }
        else return false;
        if (n - i <= extra) return false;
        for (size_t k = 1; k <= extra; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        if ((extra == 1 && cp < 0x80) || (extra == 2 && cp < 0x800) || (extra == 3 && cp < 0x10000) ||
            cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += extra + 1;
    }
    return true;
}

}  // namespace

// Everything that needs the private field vector lives here.
struct message_codec {
    typedef message::field field;

    static std::vector<field>& fields(message& m) { return m.fields_; }
    static const std::vector<field>& fields(const message& m) { return m.fields_; }

    static const field* find(const message& m, uint32_t key) {
        auto it = std::lower_bound(m.fields_.begin(), m.fields_.end(), key,
                                   [](const field& f, uint32_t k) { return f.key < k; });
        return it != m.fields_.end() && it->key == key ? &*it : nullptr;
    }

    static void put(message& m, uint32_t key, message::value&& v) {
        auto it = std::lower_bound(m.fields_.begin(), m.fields_.end(), key,
                                   [](const field& f, uint32_t k) { return f.key < k; });
        if (it != m.fields_.end() && it->key == key)
            it->v = std::move(v);
        else
            m.fields_.insert(it, field{key, std::move(v)});
    }

    // ---- encoding ----

    static size_t encoded_size(const message& m) {
        size_t n = 4;
        for (const field& f : m.fields_) {
            n += 4;
            switch (type_of(f.key)) {
            case T_BOOL: n += 1; break;
            case T_U32: n += 4; break;
            case T_U64: n += 8; break;
            case T_STRING: n += 4 + std::get<S_STR>(f.v).size(); break;
            case T_MESSAGE:
            case T_RAW: n += 4 + std::get<S_BYTES>(f.v).size(); break;
            case T_U32_ARRAY: n += 4 + 4 * std::get<S_U32S>(f.v).size(); break;
            case T_STRING_ARRAY:
                n += 4;
                for (const std::string& s : std::get<S_STRS>(f.v)) n += 4 + s.size();
                break;
            case T_MESSAGE_ARRAY:
                n += 4;
                for (const flat_message& e : std::get<S_MSGS>(f.v)) n += 4 + e.bytes.size();
                break;
            }
        }
        return n;
    }

    static void append(const message& m, std::vector<uint8_t>& o) {
        put32(o, uint32_t(m.fields_.size()));
        for (const field& f : m.fields_) {
            put32(o, f.key);
            switch (type_of(f.key)) {
            case T_BOOL: o.push_back(std::get<S_NUM>(f.v) ? 1 : 0); break;
            case T_U32: put32(o, uint32_t(std::get<S_NUM>(f.v))); break;
            case T_U64: put64(o, std::get<S_NUM>(f.v)); break;
            case T_STRING: {
                const std::string& s = std::get<S_STR>(f.v);
                put_bytes(o, s.data(), s.size());
                break;
            }
            case T_MESSAGE:
            case T_RAW: {
                const std::vector<uint8_t>& b = std::get<S_BYTES>(f.v);
                put_bytes(o, b.data(), b.size());
                break;
            }
            case T_U32_ARRAY: {
                const u32_vector& a = std::get<S_U32S>(f.v);
                put32(o, uint32_t(a.size()));
                for (uint32_t x : a) put32(o, x);
                break;
            }
            case T_STRING_ARRAY: {
                const std::vector<std::string>& a = std::get<S_STRS>(f.v);
                put32(o, uint32_t(a.size()));
                for (const std::string& s : a) put_bytes(o, s.data(), s.size());
                break;
            }
            case T_MESSAGE_ARRAY: {
                const std::vector<flat_message>& a = std::get<S_MSGS>(f.v);
                put32(o, uint32_t(a.size()));
                for (const flat_message& e : a) put_bytes(o, e.bytes.data(), e.bytes.size());
                break;
            }
            }
        }
    }

    // ---- decoding ----

    struct reader {
        const uint8_t* base;
        size_t pos, end;
        std::string* err;

        bool fail(const char* what) {
            if (err) {
                char b[96];
                std::snprintf(b, sizeof b, "%s at byte %zu", what, pos);
                *err = b;
            }
            return false;
        }
        size_t left() const { return end - pos; }
        bool u32(uint32_t& v, const char* what) {
            if (left() < 4) return fail(what);
            v = get32(base + pos);
            pos += 4;
            return true;
        }
        // A length-prefixed block: returns its start and length.
        bool block(const uint8_t*& p, size_t& n, const char* what) {
            uint32_t len;
            if (!u32(len, what)) return false;
            if (len > left()) return fail("length past the end");
            p = base + pos;
            n = len;
            pos += len;
            return true;
        }
    };

    // Parses one message at [pos, end). With out == null it only validates.
    static bool parse(reader& r, int depth, message* out) {
        if (depth > message::kMaxDepth) return r.fail("nesting too deep");
        uint32_t count;
        if (!r.u32(count, "truncated field count")) return false;
        // Every field takes at least a key and one payload byte.
        if (count > r.left() / 5) return r.fail("field count exceeds the data");
        if (out) out->fields_.reserve(count);
        uint32_t prev = 0;
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t key;
            if (!r.u32(key, "truncated key")) return false;
            if (i > 0 && key <= prev) return r.fail(key == prev ? "duplicate key" : "unordered key");
            prev = key;
            uint8_t t = type_of(key);
            if (!known_type(t)) return r.fail("unknown field type");
            message::value v;
            switch (t) {
            case T_BOOL: {
                if (r.left() < 1) return r.fail("truncated bool");
                uint8_t b = r.base[r.pos++];
                if (b > 1) return r.fail("bad bool value");
                v = uint64_t(b);
                break;
            }
            case T_U32: {
                uint32_t x;
                if (!r.u32(x, "truncated u32")) return false;
                v = uint64_t(x);
                break;
            }
            case T_U64: {
                uint32_t hi, lo;
                if (!r.u32(hi, "truncated u64") || !r.u32(lo, "truncated u64")) return false;
                v = (uint64_t(hi) << 32) | lo;
                break;
            }
            case T_STRING: {
                const uint8_t* p;
                size_t n;
                if (!r.block(p, n, "truncated string length")) return false;
                if (out) v = std::string(reinterpret_cast<const char*>(p), n);
                break;
            }
            case T_RAW: {
                const uint8_t* p;
                size_t n;
                if (!r.block(p, n, "truncated raw length")) return false;
                if (out) v = std::vector<uint8_t>(p, p + n);
                break;
            }
            case T_MESSAGE: {
                const uint8_t* p;
                size_t n;
                size_t at = r.pos;
                if (!r.block(p, n, "truncated message length")) return false;
                if (!sub(r, at + 4, n, depth + 1)) return false;
                if (out) v = std::vector<uint8_t>(p, p + n);
                break;
            }
            case T_U32_ARRAY: {
                uint32_t n;
                if (!r.u32(n, "truncated array count")) return false;
                if (n > r.left() / 4) return r.fail("array count exceeds the data");
                if (out) {
                    u32_vector a(n);
                    for (uint32_t k = 0; k < n; ++k) a[k] = get32(r.base + r.pos + 4 * size_t(k));
                    v = std::move(a);
                }
                r.pos += 4 * size_t(n);
                break;
            }
            case T_STRING_ARRAY: {
                uint32_t n;
                if (!r.u32(n, "truncated array count")) return false;
                if (n > r.left() / 4) return r.fail("array count exceeds the data");
                std::vector<std::string> a;
                if (out) a.reserve(n);
                for (uint32_t k = 0; k < n; ++k) {
                    const uint8_t* p;
                    size_t len;
                    if (!r.block(p, len, "truncated string length")) return false;
                    if (out) a.emplace_back(reinterpret_cast<const char*>(p), len);
                }
                if (out) v = std::move(a);
                break;
            }
            case T_MESSAGE_ARRAY: {
                uint32_t n;
                if (!r.u32(n, "truncated array count")) return false;
                if (n > r.left() / 4) return r.fail("array count exceeds the data");
                std::vector<flat_message> a;
                if (out) a.reserve(n);
                for (uint32_t k = 0; k < n; ++k) {
                    const uint8_t* p;
                    size_t len;
                    size_t at = r.pos;
                    if (!r.block(p, len, "truncated message length")) return false;
                    if (!sub(r, at + 4, len, depth + 1)) return false;
                    if (out) {
                        a.emplace_back();
                        a.back().bytes.assign(p, p + len);
                    }
                }
                if (out) v = std::move(a);
                break;
            }
            }
            if (out) out->fields_.push_back(field{key, std::move(v)});
        }
        return true;
    }

    // Validates a nested message occupying exactly [at, at + n).
    static bool sub(reader& outer, size_t at, size_t n, int depth) {
        reader r{outer.base, at, at + n, outer.err};
        if (!parse(r, depth, nullptr)) return false;
        if (r.pos != r.end) return r.fail("trailing bytes in nested message");
        return true;
    }

    static bool decode(const uint8_t* data, size_t len, message& out, std::string* err, int depth) {
        out.fields_.clear();
        if (len > message::kMaxSize) {
            if (err) *err = "message larger than " + std::to_string(message::kMaxSize) + " bytes";
            return false;
        }
        reader r{data, 0, len, err};
        bool ok = parse(r, depth, &out);
        if (ok && r.pos != r.end) ok = r.fail("trailing bytes");
        if (!ok) out.fields_.clear();
        return ok;
    }

    // ---- JSON ----
    typedef nlohmann::json json;

    static json string_json(const std::string& s) {
        if (valid_utf8(s)) return json(s);
        json o = json::object();
        o["hex"] = hex(reinterpret_cast<const uint8_t*>(s.data()), s.size());
        return o;
    }

    static json to_json(const message& m) {
        json o = json::object();
        for (const field& f : m.fields_) {
            json v;
            switch (type_of(f.key)) {
            case T_BOOL: v = std::get<S_NUM>(f.v) != 0; break;
            case T_U32:
            case T_U64: v = std::get<S_NUM>(f.v); break;
            case T_STRING: v = string_json(std::get<S_STR>(f.v)); break;
            case T_RAW: {
                const std::vector<uint8_t>& b = std::get<S_BYTES>(f.v);
                v = hex(b.data(), b.size());
                break;
            }
            case T_MESSAGE: {
                const std::vector<uint8_t>& b = std::get<S_BYTES>(f.v);
                message sub;
                decode(b.data(), b.size(), sub, nullptr, 0);
                v = to_json(sub);
                break;
            }
            case T_U32_ARRAY: v = std::get<S_U32S>(f.v); break;
            case T_STRING_ARRAY:
                v = json::array();
                for (const std::string& s : std::get<S_STRS>(f.v)) v.push_back(string_json(s));
                break;
            case T_MESSAGE_ARRAY:
                v = json::array();
                for (const flat_message& e : std::get<S_MSGS>(f.v)) v.push_back(to_json(e.unflatten()));
                break;
            }
            o[key_text(f.key)] = std::move(v);
        }
        return o;
    }

    struct json_reader {
        std::string* err;
        bool fail(const std::string& what) {
            if (err) *err = what;
            return false;
        }
    };

    static bool parse_number(const std::string& s, int base, uint64_t& out) {
        if (s.empty() || s.size() > 20) return false;
        uint64_t v = 0;
        for (char c : s) {
            int d;
            if (c >= '0' && c <= '9') d = c - '0';
            else if (base == 16 && c >= 'a' && c <= 'f') d = c - 'a' + 10;
            else if (base == 16 && c >= 'A' && c <= 'F') d = c - 'A' + 10;
            else return false;
            if (v > (UINT64_MAX - uint64_t(d)) / uint64_t(base)) return false;
            v = v * uint64_t(base) + uint64_t(d);
        }
        out = v;
        return true;
    }

    // "0x..." hexadecimal or decimal.
    static bool parse_id(const std::string& s, uint64_t& out) {
        if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) return parse_number(s.substr(2), 16, out);
        return parse_number(s, 10, out);
    }

    // Member name -> key; be32 tells that dotted quads are expected.
    static bool parse_name(const std::string& name, uint32_t& key, json_reader& jr) {
        size_t colon = name.find(':');
        uint64_t id;
        if (colon == std::string::npos) {
            if (name.size() < 3 || name[0] != '0' || (name[1] != 'x' && name[1] != 'X') ||
                !parse_number(name.substr(2), 16, id) || id > 0xFFFFFFFFu)
                return jr.fail("bad field name \"" + name + "\"");
            key = uint32_t(id);
            if (!known_type(type_of(key))) return jr.fail("unknown field type in \"" + name + "\"");
            return true;
        }
        static const struct { const char* n; uint8_t t; } names[] = {
            {"bool", T_BOOL}, {"u32", T_U32}, {"be32", T_U32}, {"u64", T_U64}, {"str", T_STRING},
            {"raw", T_RAW}, {"msg", T_MESSAGE}, {"u32[]", T_U32_ARRAY}, {"be32[]", T_U32_ARRAY},
            {"str[]", T_STRING_ARRAY}, {"msg[]", T_MESSAGE_ARRAY},
        };
        std::string tn = name.substr(0, colon);
        int type = -1;
        for (const auto& e : names)
            if (tn == e.n) type = e.t;
        if (type < 0) return jr.fail("unknown type name in \"" + name + "\"");
        if (!parse_id(name.substr(colon + 1), id) || id > 0xFFFFFFFFu)
            return jr.fail("bad field id in \"" + name + "\"");
        if ((id >> 24) != 0 && (id >> 24) != uint64_t(type))
            return jr.fail("field id of \"" + name + "\" carries another type");
        key = make_key(uint8_t(type), uint32_t(id));
        return true;
    }

    static bool json_u32(const json& j, uint32_t& out) {
        if (j.is_number_unsigned()) {
            uint64_t v = j.get<uint64_t>();
            if (v > 0xFFFFFFFFu) return false;
            out = uint32_t(v);
            return true;
        }
        if (j.is_number_integer()) {
            int64_t v = j.get<int64_t>();
            if (v < 0 || v > 0xFFFFFFFFll) return false;
            out = uint32_t(v);
            return true;
        }
        if (j.is_string()) {
            // A dotted quad: an IPv4 address as a be32 value.
            const std::string& s = j.get_ref<const std::string&>();
            uint32_t v = 0;
            int parts = 0;
            size_t i = 0;
            while (parts < 4) {
                size_t start = i;
                uint32_t octet = 0;
                while (i < s.size() && s[i] >= '0' && s[i] <= '9' && i - start < 3) octet = octet * 10 + uint32_t(s[i++] - '0');
                if (i == start || octet > 255) return false;
                v = (v << 8) | octet;
                ++parts;
                if (parts < 4) {
                    if (i >= s.size() || s[i] != '.') return false;
                    ++i;
                }
            }
            if (i != s.size()) return false;
            out = v;
            return true;
        }
        return false;
    }

    static bool json_string(const json& j, std::string& out) {
        if (j.is_string()) {
            out = j.get<std::string>();
            return true;
        }
        if (j.is_object() && j.size() == 1 && j.contains("hex") && j["hex"].is_string()) {
            std::vector<uint8_t> b;
            if (!unhex(j["hex"].get<std::string>(), b)) return false;
            out.assign(b.begin(), b.end());
            return true;
        }
        return false;
    }

    static bool unhex(const std::string& s, std::vector<uint8_t>& out) {
        if (s.size() % 2) return false;
        out.clear();
        out.reserve(s.size() / 2);
        for (size_t i = 0; i < s.size(); i += 2) {
            int v = 0;
            for (int k = 0; k < 2; ++k) {
                char c = s[i + k];
                int d;
                if (c >= '0' && c <= '9') d = c - '0';
                else if (c >= 'a' && c <= 'f') d = c - 'a' + 10;
                else if (c >= 'A' && c <= 'F') d = c - 'A' + 10;
                else return false;
                v = v * 16 + d;
            }
            out.push_back(uint8_t(v));
        }
        return true;
    }

    static bool from_json(const json& j, message& out, json_reader& jr, int depth) {
        if (depth > message::kMaxDepth) return jr.fail("nesting too deep");
        if (!j.is_object()) return jr.fail("a message must be a JSON object");
        out.fields_.clear();
        for (auto it = j.begin(); it != j.end(); ++it) {
            uint32_t key;
            if (!parse_name(it.key(), key, jr)) return false;
            if (find(out, key)) return jr.fail("field \"" + it.key() + "\" given twice");
            const json& v = it.value();
            const std::string bad = "bad value for \"" + it.key() + "\"";
            message::value val;
            switch (type_of(key)) {
            case T_BOOL:
                if (v.is_boolean()) val = uint64_t(v.get<bool>() ? 1 : 0);
                else if (v.is_number_unsigned() && v.get<uint64_t>() <= 1) val = v.get<uint64_t>();
                else return jr.fail(bad);
                break;
            case T_U32: {
                uint32_t x;
                if (!json_u32(v, x)) return jr.fail(bad);
                val = uint64_t(x);
                break;
            }
            case T_U64:
                if (v.is_number_unsigned()) val = v.get<uint64_t>();
                else if (v.is_number_integer() && v.get<int64_t>() >= 0) val = uint64_t(v.get<int64_t>());
                else return jr.fail(bad);
                break;
            case T_STRING: {
                std::string s;
                if (!json_string(v, s)) return jr.fail(bad);
                val = std::move(s);
                break;
            }
            case T_RAW: {
                std::vector<uint8_t> b;
                if (!v.is_string() || !unhex(v.get<std::string>(), b)) return jr.fail(bad);
                val = std::move(b);
                break;
            }
            case T_MESSAGE: {
                message sub;
                if (!from_json(v, sub, jr, depth + 1)) return false;
                val = sub.encode();
                break;
            }
            case T_U32_ARRAY: {
                if (!v.is_array()) return jr.fail(bad);
                u32_vector a;
                a.reserve(v.size());
                for (const json& e : v) {
                    uint32_t x;
                    if (!json_u32(e, x)) return jr.fail(bad);
                    a.push_back(x);
                }
                val = std::move(a);
                break;
            }
            case T_STRING_ARRAY: {
                if (!v.is_array()) return jr.fail(bad);
                std::vector<std::string> a;
                a.reserve(v.size());
                for (const json& e : v) {
                    std::string s;
                    if (!json_string(e, s)) return jr.fail(bad);
                    a.push_back(std::move(s));
                }
                val = std::move(a);
                break;
            }
            case T_MESSAGE_ARRAY: {
                if (!v.is_array()) return jr.fail(bad);
                std::vector<flat_message> a;
                a.reserve(v.size());
                for (const json& e : v) {
                    message sub;
                    if (!from_json(e, sub, jr, depth + 1)) return false;
                    a.emplace_back(sub);
                }
                val = std::move(a);
                break;
            }
            }
            put(out, key, std::move(val));
        }
        return true;
    }

    // ---- readable dump ----

    static void quoted(std::ostream& os, const std::string& s) {
        os << '"';
        for (unsigned char c : s) {
            if (c == '"' || c == '\\') os << '\\' << char(c);
            else if (c >= 0x20 && c < 0x7F) os << char(c);
            else {
                char b[8];
                std::snprintf(b, sizeof b, "\\x%02x", c);
                os << b;
            }
        }
        os << '"';
    }

    static void dump(const message& m, std::ostream& os, const std::string& prefix) {
        for (const field& f : m.fields_) {
            uint8_t t = type_of(f.key);
            os << prefix << key_text(f.key) << ' ' << type_name(t) << " = ";
            switch (t) {
            case T_BOOL: os << (std::get<S_NUM>(f.v) ? "true" : "false") << '\n'; break;
            case T_U32:
            case T_U64: {
                uint64_t v = std::get<S_NUM>(f.v);
                char b[48];
                std::snprintf(b, sizeof b, "%llu (0x%llx)", (unsigned long long)v, (unsigned long long)v);
                os << b << '\n';
                break;
            }
            case T_STRING: quoted(os, std::get<S_STR>(f.v)); os << '\n'; break;
            case T_RAW: {
                const std::vector<uint8_t>& b = std::get<S_BYTES>(f.v);
                os << (b.empty() ? "(empty)" : hex(b.data(), b.size())) << " (" << b.size() << " bytes)\n";
                break;
            }
            case T_MESSAGE: {
                const std::vector<uint8_t>& b = std::get<S_BYTES>(f.v);
                message sub;
                decode(b.data(), b.size(), sub, nullptr, 0);
                os << "{\n";
                dump(sub, os, prefix + "  ");
                os << prefix << "}\n";
                break;
            }
            case T_U32_ARRAY: {
                const u32_vector& a = std::get<S_U32S>(f.v);
                os << '[';
                for (size_t i = 0; i < a.size(); ++i) os << (i ? ", " : "") << a[i];
                os << "]\n";
                break;
            }
            case T_STRING_ARRAY: {
                const std::vector<std::string>& a = std::get<S_STRS>(f.v);
                os << '[';
                for (size_t i = 0; i < a.size(); ++i) {
                    if (i) os << ", ";
                    quoted(os, a[i]);
                }
                os << "]\n";
                break;
            }
            case T_MESSAGE_ARRAY: {
                const std::vector<flat_message>& a = std::get<S_MSGS>(f.v);
                os << a.size() << (a.size() == 1 ? " element\n" : " elements\n");
                for (size_t i = 0; i < a.size(); ++i) {
                    os << prefix << "  [" << i << "] {\n";
                    dump(a[i].unflatten(), os, prefix + "    ");
                    os << prefix << "  }\n";
                }
                break;
            }
            }
        }
    }
};

// ---- flat_message ----

flat_message::flat_message(const message& m) { m.encode_to(bytes); }

message flat_message::unflatten() const {
    message m;
    message::decode(bytes.data(), bytes.size(), m);
    return m;
}

message::message(const flat_message& f) { decode(f.bytes.data(), f.bytes.size(), *this); }

// ---- insert ----

void message::insert(bool_id id, bool v) { message_codec::put(*this, id.key, uint64_t(v ? 1 : 0)); }
void message::insert(u32_id id, uint32_t v) { message_codec::put(*this, id.key, uint64_t(v)); }
void message::insert(be32_id id, uint32_t v) { message_codec::put(*this, id.key, uint64_t(v)); }
void message::insert(u64_id id, uint64_t v) { message_codec::put(*this, id.key, v); }
void message::insert(string_id id, const std::string& v) { message_codec::put(*this, id.key, v); }
void message::insert(message_id id, const message& v) { message_codec::put(*this, id.key, v.encode()); }
void message::insert(raw_id id, const void* data, size_t len) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    message_codec::put(*this, id.key, std::vector<uint8_t>(p, p + len));
}
void message::insert_u32_array(u32_array_id id, const u32_vector& v) { message_codec::put(*this, id.key, v); }
void message::insert(string_array_id id, const std::vector<std::string>& v) {
    message_codec::put(*this, id.key, v);
}
void message::insert(message_array_id id, const std::vector<message>& v) {
    std::vector<flat_message> a;
    a.reserve(v.size());
    for (const message& m : v) a.emplace_back(m);
    message_codec::put(*this, id.key, std::move(a));
}
void message::insert(message_array_id id, const std::vector<flat_message>& v) {
    message_codec::put(*this, id.key, v);
}

void message::append(message_array_id id, const message& v) {
    auto it = std::lower_bound(fields_.begin(), fields_.end(), id.key,
                               [](const field& f, uint32_t k) { return f.key < k; });
    if (it == fields_.end() || it->key != id.key) it = fields_.insert(it, field{id.key, std::vector<flat_message>()});
    std::get<S_MSGS>(it->v).emplace_back(v);
}

// ---- get ----

bool message::get(bool_id id, bool def) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? std::get<S_NUM>(f->v) != 0 : def;
}
uint32_t message::get(u32_id id, uint32_t def) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? uint32_t(std::get<S_NUM>(f->v)) : def;
}
uint32_t message::get(be32_id id, uint32_t def) const { return get(u32_id(id.key), def); }
uint64_t message::get(u64_id id, uint64_t def) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? std::get<S_NUM>(f->v) : def;
}
std::string message::get(string_id id, const std::string& def) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? std::get<S_STR>(f->v) : def;
}
message message::get(message_id id) const {
    message m;
    const field* f = message_codec::find(*this, id.key);
    if (f) {
        const std::vector<uint8_t>& b = std::get<S_BYTES>(f->v);
        decode(b.data(), b.size(), m);
    }
    return m;
}
std::vector<uint8_t> message::get(raw_id id) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? std::get<S_BYTES>(f->v) : std::vector<uint8_t>();
}
u32_vector message::get(u32_array_id id) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? std::get<S_U32S>(f->v) : u32_vector();
}
u32_vector message::get(be32_array_id id) const { return get(u32_array_id(id.key)); }
std::vector<std::string> message::get(string_array_id id) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? std::get<S_STRS>(f->v) : std::vector<std::string>();
}
std::vector<message> message::get(message_array_id id) const {
    std::vector<message> out;
    const field* f = message_codec::find(*this, id.key);
    if (f) {
        const std::vector<flat_message>& a = std::get<S_MSGS>(f->v);
        out.reserve(a.size());
        for (const flat_message& e : a) out.push_back(e.unflatten());
    }
    return out;
}
const std::vector<flat_message>* message::get_flat(message_array_id id) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? &std::get<S_MSGS>(f->v) : nullptr;
}
const std::string* message::get_string_ptr(string_id id) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? &std::get<S_STR>(f->v) : nullptr;
}
const std::vector<uint8_t>* message::get_raw_ptr(raw_id id) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? &std::get<S_BYTES>(f->v) : nullptr;
}
const u32_vector* message::get_u32_array_ptr(u32_array_id id) const {
    const field* f = message_codec::find(*this, id.key);
    return f ? &std::get<S_U32S>(f->v) : nullptr;
}

bool message::has_key(uint32_t key) const { return message_codec::find(*this, key) != nullptr; }

void message::remove_key(uint32_t key) {
    auto it = std::lower_bound(fields_.begin(), fields_.end(), key,
                               [](const field& f, uint32_t k) { return f.key < k; });
    if (it != fields_.end() && it->key == key) fields_.erase(it);
}

std::vector<uint32_t> message::keys() const {
    std::vector<uint32_t> k;
    k.reserve(fields_.size());
    for (const field& f : fields_) k.push_back(f.key);
    return k;
}

void message::merge(const message& other) {
    for (const field& f : other.fields_) {
        message::value v = f.v;
        message_codec::put(*this, f.key, std::move(v));
    }
}

// ---- encoding ----

std::vector<uint8_t> message::encode() const {
    std::vector<uint8_t> out;
    encode_to(out);
    return out;
}

// Replaces the contents of out; its capacity is reused.
void message::encode_to(std::vector<uint8_t>& out) const {
    out.clear();
    out.reserve(message_codec::encoded_size(*this));
    message_codec::append(*this, out);
}

bool message::decode(const uint8_t* data, size_t len, message& out, std::string* err) {
    return message_codec::decode(data, len, out, err, 0);
}

std::string message::to_json(int indent) const {
    return message_codec::to_json(*this).dump(indent);
}

bool message::from_json(const std::string& text, message& out, std::string* err) {
    out.clear();
    nlohmann::json j = nlohmann::json::parse(text, nullptr, false);
    if (j.is_discarded()) {
        if (err) *err = "invalid JSON";
        return false;
    }
    message_codec::json_reader jr{err};
    message m;
    if (!message_codec::from_json(j, m, jr, 0)) return false;
    out = std::move(m);
    return true;
}

void message::dump2(std::ostream& os, const std::string& prefix) const {
    if (fields_.empty()) {
        os << prefix << "(empty message)\n";
        return;
    }
    message_codec::dump(*this, os, prefix);
}

std::string message::dump2(const std::string& prefix) const {
    std::ostringstream os;
    dump2(os, prefix);
    return os.str();
}

bool message::operator==(const message& o) const {
    if (fields_.size() != o.fields_.size()) return false;
    for (size_t i = 0; i < fields_.size(); ++i) {
        const field& a = fields_[i];
        const field& b = o.fields_[i];
        if (a.key != b.key || a.v.index() != b.v.index()) return false;
        bool same;
        switch (a.v.index()) {
        case S_NUM: same = std::get<S_NUM>(a.v) == std::get<S_NUM>(b.v); break;
        case S_STR: same = std::get<S_STR>(a.v) == std::get<S_STR>(b.v); break;
        case S_BYTES: same = std::get<S_BYTES>(a.v) == std::get<S_BYTES>(b.v); break;
        case S_U32S: same = std::get<S_U32S>(a.v) == std::get<S_U32S>(b.v); break;
        case S_STRS: same = std::get<S_STRS>(a.v) == std::get<S_STRS>(b.v); break;
        default: {
            // Encodings are canonical (sorted, unique keys), so equal bytes
            // mean equal messages.
            const std::vector<flat_message>& x = std::get<S_MSGS>(a.v);
            const std::vector<flat_message>& y = std::get<S_MSGS>(b.v);
            same = x.size() == y.size();
            for (size_t k = 0; same && k < x.size(); ++k) same = x[k].bytes == y[k].bytes;
        }
        }
        if (!same) return false;
    }
    return true;
}

// ---- error replies ----

message errorMsg(uint32_t code, const std::string& text) {
    message m;
    m.insert(u32_id(F_ERROR_CODE), code);
    m.insert(string_id(F_ERROR_TEXT), text);
    return m;
}

bool isError(const message& m) { return m.has(u32_id(F_ERROR_CODE)); }
uint32_t getErrorCode(const message& m) { return m.get(u32_id(F_ERROR_CODE)); }
std::string getError(const message& m) { return m.get(string_id(F_ERROR_TEXT)); }

}  // namespace tn
