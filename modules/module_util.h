// Small helpers shared by the built-in modules.
#pragma once

#include <cstdint>

#include "tn/message.h"

// The number packers address int members. Records keep the platform's
// unsigned 32-bit values as unsigned, which the packers encode exactly as
// the int they alias (a value with the top bit set leaves as a negative
// number either way). A data member pointer is the member's offset (Itanium
// C++ ABI), which the conversion keeps; int may alias unsigned int.
template <class D>
int D::*intMember(unsigned int D::*member) {
    static_assert(sizeof(unsigned int) == sizeof(int), "int and unsigned int must alias");
    return reinterpret_cast<int D::*>(member);
}

// A bus request to the handler at path carrying the command.
inline tn::message busRequest(tn::u32_vector const& path, uint32_t cmd) {
    tn::message m;
    m.insert(tn::u32_id(0xff0007), cmd);
    m.insert_u32_array(tn::u32_array_id(0x88ff0001), path);
    return m;
}

// BER tags of the values the modules publish.
namespace tags {
constexpr unsigned int INTEGER = 2;
constexpr unsigned int OCTET_STRING = 4;
constexpr unsigned int OBJECT_ID = 6;
constexpr unsigned int IP_ADDRESS = 0x40;
constexpr unsigned int COUNTER32 = 0x41;
constexpr unsigned int GAUGE32 = 0x42;
constexpr unsigned int TIME_TICKS = 0x43;
constexpr unsigned int COUNTER64 = 0x46;
}  // namespace tags

// Commands of the platform handlers that the modules read.
enum : uint32_t { MODULE_CMD_GET = 0xfe000d, MODULE_CMD_SET = 0xfe000e };
