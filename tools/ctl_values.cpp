#include "tools/ctl_values.h"

#include <cstdio>

namespace ctl {

namespace {

// The value in the generator list that selects the start-up trap.
constexpr uint32_t kStartTrap = 0xABC0001;

}  // namespace

const std::vector<Field>& settingsFields() {
    static const std::vector<Field> f = {
        {"enabled", 0x01, K_BOOL, "service on (1/0, yes/no)"},
        {"contact", 0x02, K_STRING, "sysContact"},
        {"location", 0x03, K_STRING, "sysLocation"},
        {"community", 0x04, K_STRING, "community setting"},
        {"engine-id", 0x0A, K_STRING, "SNMPv3 engine ID text"},
        {"boots", 0x0D, K_U32, "engine boot count"},
        {"time-window", 0x0E, K_U32, "engine time window"},
        {"trap-target", 0x10, K_IPV4, "trap sink IPv4 address"},
        {"trap-community", 0x11, K_U32, "community item id used for traps (none = no traps)"},
        {"trap-version", 0x12, K_VERSION, "0 (v1), 1 (v2c) or 3 (v3)"},
        {"generators", 0x13, K_GENERATORS, "comma list of generator ids or start-trap"},
    };
    return f;
}

const std::vector<Field>& communityFields() {
    static const std::vector<Field> f = {
        {"id", tn::F_OBJ_ID, K_U32, "object id (add only)"},
        {"name", 0x05, K_STRING, "community / user name"},
        {"read", 0x06, K_BOOL, "read access"},
        {"write", 0x07, K_BOOL, "write access"},
        {"address", 0x08, K_IPV4, "source address filter"},
        {"netmask", 0x09, K_IPV4, "source netmask (0.0.0.0 accepts all)"},
        {"auth-pass", 0x0B, K_STRING, "authentication password"},
        {"priv-pass", 0x0C, K_STRING, "privacy password"},
        {"level", 0x0F, K_LEVEL, "0 none, 1 auth, 2 auth+priv"},
        {"auth", 0x14, K_AUTH, "md5 or sha"},
        {"priv", 0x15, K_PRIV, "des"},
    };
    return f;
}

const Field* findField(const std::vector<Field>& fields, const std::string& name) {
    for (const Field& f : fields)
        if (name == f.name) return &f;
    return nullptr;
}

bool parseU32(const std::string& s, uint32_t& out) {
    if (s.empty() || s.size() > 12) return false;
    uint64_t v = 0;
    size_t i = 0;
    int base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        base = 16;
        i = 2;
    }
    for (; i < s.size(); ++i) {
        char c = s[i];
        int d;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F') d = c - 'A' + 10;
        else return false;
        v = v * uint64_t(base) + uint64_t(d);
        if (v > 0xFFFFFFFFu) return false;
    }
    out = uint32_t(v);
    return true;
}

bool parseBool(const std::string& s, bool& out) {
    if (s == "1" || s == "yes" || s == "true" || s == "on") out = true;
    else if (s == "0" || s == "no" || s == "false" || s == "off") out = false;
    else return false;
    return true;
}

bool parseIPv4(const std::string& s, uint32_t& out) {
    uint32_t v = 0;
    size_t i = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (i >= s.size() || s[i] != '.') return false;
            ++i;
        }
        size_t start = i;
        uint32_t octet = 0;
        while (i < s.size() && s[i] >= '0' && s[i] <= '9' && i - start < 3) octet = octet * 10 + uint32_t(s[i++] - '0');
        if (i == start || octet > 255) return false;
        v = (v << 8) | octet;
    }
    if (i != s.size()) return false;
    out = v;
    return true;
}

bool parsePath(const std::string& text, tn::u32_vector& out) {
    std::string s;
    for (char c : text)
        if (c != ' ' && c != '[' && c != ']') s += c;
    out.clear();
    if (s.empty()) return true;
    size_t start = 0;
    for (;;) {
        size_t end = s.find_first_of(",.", start);
        uint32_t v;
        if (!parseU32(s.substr(start, end - start), v)) return false;
        out.push_back(v);
        if (end == std::string::npos) return true;
        start = end + 1;
    }
}

bool putValue(tn::message& m, const Field& f, const std::string& value, std::string* err) {
    auto bad = [&](const std::string& why) {
        if (err) *err = std::string("bad value for ") + f.name + ": \"" + value + "\" (" + why + ")";
        return false;
    };
    switch (f.kind) {
    case K_BOOL: {
        bool b;
        if (!parseBool(value, b)) return bad("expected yes or no");
        m.insert(tn::bool_id(f.id), b);
        return true;
    }
    case K_U32: {
        uint32_t v;
        if (f.id == 0x11 && value == "none") v = 0xFFFFFFFFu;
        else if (!parseU32(value, v)) return bad("expected a number");
        m.insert(tn::u32_id(f.id), v);
        return true;
    }
    case K_STRING: m.insert(tn::string_id(f.id), value); return true;
    case K_IPV4: {
        uint32_t a;
        if (!parseIPv4(value, a)) return bad("expected a dotted IPv4 address");
        m.insert(tn::be32_id(f.id), a);
        return true;
    }
    case K_LEVEL: {
        uint32_t v;
        if (value == "none" || value == "noauth") v = 0;
        else if (value == "auth") v = 1;
        else if (value == "priv") v = 2;
        else if (!parseU32(value, v) || v > 2) return bad("expected 0, 1 or 2");
        m.insert(tn::u32_id(f.id), v);
        return true;
    }
    case K_AUTH: {
        uint32_t v;
        if (value == "md5") v = 0;
        else if (value == "sha" || value == "sha1") v = 1;
        else return bad("expected md5 or sha");
        m.insert(tn::u32_id(f.id), v);
        return true;
    }
    case K_PRIV: {
        uint32_t v;
        if (value == "des") v = 0;
        else if (!parseU32(value, v)) return bad("expected des");
        m.insert(tn::u32_id(f.id), v);
        return true;
    }
    case K_VERSION: {
        uint32_t v;
        if (value == "v1") v = 0;
        else if (value == "v2c") v = 1;
        else if (value == "v3") v = 3;
        else if (!parseU32(value, v) || (v != 0 && v != 1 && v != 3)) return bad("expected 0, 1 or 3");
        m.insert(tn::u32_id(f.id), v);
        return true;
    }
    case K_GENERATORS: {
        tn::u32_vector list;
        size_t start = 0;
        while (start <= value.size() && !value.empty()) {
            size_t end = value.find(',', start);
            std::string item = value.substr(start, end == std::string::npos ? std::string::npos : end - start);
            uint32_t v;
            if (item == "start-trap") v = kStartTrap;
            else if (!parseU32(item, v)) return bad("expected numbers or start-trap, separated by commas");
            list.push_back(v);
            if (end == std::string::npos) break;
            start = end + 1;
        }
        m.insert(tn::u32_array_id(f.id), list);
        return true;
    }
    }
    return bad("unknown kind");
}

std::string ipv4Text(uint32_t a) {
    char b[20];
    std::snprintf(b, sizeof b, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    return b;
}

std::string pathText(const tn::u32_vector& p) {
    std::string s = "[";
    for (size_t i = 0; i < p.size(); ++i) s += (i ? "," : "") + std::to_string(p[i]);
    return s + "]";
}

std::string levelText(uint32_t level) {
    switch (level) {
    case 0: return "noAuthNoPriv";
    case 1: return "authNoPriv";
    case 2: return "authPriv";
    }
    return std::to_string(level);
}

std::string authText(uint32_t proto) {
    switch (proto) {
    case 0: return "md5";
    case 1: return "sha";
    }
    return std::to_string(proto);
}

std::string privText(uint32_t proto) { return proto == 0 ? "des" : std::to_string(proto); }

std::string idText(uint32_t id) {
    if (id < 0x10000) return std::to_string(id);
    char b[16];
    std::snprintf(b, sizeof b, "0x%x", id);
    return b;
}

}  // namespace ctl
