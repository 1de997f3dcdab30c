// kestrelctl: the agent's settings and community fields, and the parsing
// and printing of their values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tn/message.h"

namespace ctl {

enum Kind { K_BOOL, K_U32, K_STRING, K_IPV4, K_LEVEL, K_AUTH, K_PRIV, K_VERSION, K_GENERATORS };

// One settable field: its command-line name, bus field id and kind.
struct Field {
    const char* name;
    uint32_t id;
    Kind kind;
    const char* help;
};

const std::vector<Field>& settingsFields();
const std::vector<Field>& communityFields();
const Field* findField(const std::vector<Field>& fields, const std::string& name);

// Puts "value" of field f into m; false with a reason on a bad value.
bool putValue(tn::message& m, const Field& f, const std::string& value, std::string* err);

// Parsers shared by the commands.
bool parseU32(const std::string& s, uint32_t& out);      // decimal or 0x hex
bool parseBool(const std::string& s, bool& out);         // 1/0 yes/no true/false on/off
bool parseIPv4(const std::string& s, uint32_t& out);     // dotted quad, first octet most significant
bool parsePath(const std::string& s, tn::u32_vector& out);  // "20,0", "20.0", "[20, 0]", "" or "[]"

std::string ipv4Text(uint32_t a);
std::string pathText(const tn::u32_vector& p);
std::string levelText(uint32_t level);
std::string authText(uint32_t proto);
std::string privText(uint32_t proto);
std::string idText(uint32_t id);  // small ids in decimal, others in hex

}  // namespace ctl
