// How kernel records become bus objects: the field ids the platform's
// handler paths answer with, and one mapping function per object kind.
#pragma once

#include <cstdint>

#include "platform/linux_netlink.h"
#include "tn/message.h"

namespace tn {

namespace linuxbus {

// Interface objects, path {20, 0}.
constexpr uint32_t IF_KIND = 0x10001;         // u32, see InterfaceKind
constexpr uint32_t IF_BRIDGE_PRIORITY = 0x2;  // u32, bridges only
constexpr uint32_t IF_LINK_IGNORE = 0x10002;  // u32, bit 0x80 = not tracked for link state
constexpr uint32_t IF_LINK_FLAGS = 0x10003;   // u32, LINK_ADMIN_UP | LINK_RUNNING
constexpr uint32_t IF_NAME = 0x10006;         // string
constexpr uint32_t IF_RUNNING = 0x1000e;      // bool
constexpr uint32_t IF_MTU = 0x10064;          // u32
constexpr uint32_t IF_SPEED_CLASS = 0x3f2;    // u32 0 = 10M, 1 = 100M, 2 = 1G, 3 = faster
constexpr uint32_t IF_PARENT = 0x7d2;         // u32 lower device of a VLAN
constexpr uint32_t IF_MAC = 0x3e9;            // raw
constexpr uint32_t OBJ_DISABLED = 0xfe000a;   // bool
constexpr uint32_t OBJ_INVALID = 0xfe0008;    // bool
constexpr uint32_t OBJ_DYNAMIC = 0xfe0007;    // bool, learned (not configured) entry
constexpr uint32_t LINK_ADMIN_UP = 0x100;
constexpr uint32_t LINK_RUNNING = 0x400;
constexpr uint32_t LINK_EVENT_CMD = 0x10004;
constexpr uint32_t SELECT_COUNTERS = 256;     // selector of a get object asking for counters

// Counters, answered with selector SELECT_COUNTERS.
constexpr uint32_t CNT_IN_OCTETS = 0x100fc;   // u64
constexpr uint32_t CNT_OUT_OCTETS = 0x100fd;  // u64
constexpr uint32_t CNT_IN_UCAST = 0x100fe;    // u64
constexpr uint32_t CNT_OUT_UCAST = 0x100ff;   // u64
constexpr uint32_t CNT_IN_DISCARDS = 0x100f8; // u32
constexpr uint32_t CNT_OUT_DISCARDS = 0x100f9;
constexpr uint32_t CNT_IN_ERRORS = 0x100fa;
constexpr uint32_t CNT_OUT_ERRORS = 0x100fb;

// Interface kinds of field IF_KIND that a Linux host can have.
enum InterfaceKind : uint32_t {
    KIND_OTHER = 0,
    KIND_ETHERNET = 1,
    KIND_WIRELESS = 5,
    KIND_HDLC = 7,
    KIND_PPP = 10,
    KIND_BRIDGE = 12,
    KIND_ISDN = 15,
    KIND_TUNNEL = 17,
    KIND_SERIAL_PPP = 19,
    KIND_FRAME_RELAY = 27,
    KIND_VLAN = 30,
};

// Route kinds of field 0x7, path {44, 1}.
enum RouteKind : uint32_t {
    ROUTE_CONNECTED = 2,
    ROUTE_STATIC = 3,
    ROUTE_RIP = 4,
    ROUTE_OSPF = 6,
    ROUTE_BGP = 8,
    ROUTE_OTHER = 9,
};

}  // namespace linuxbus

uint32_t interfaceKind(const LinkRecord& l, bool wireless);
uint32_t linkStateFlags(const LinkRecord& l);  // LINK_ADMIN_UP / LINK_RUNNING bits
// speedClass < 0 leaves the speed field out.
void linkToMessage(const LinkRecord& l, bool wireless, int speedClass, message& out);
void linkCountersToMessage(const LinkRecord& l, message& out);

void addrToMessage(const AddrRecord& a, uint32_t id, message& out);
// Entries that are not real neighbours (NOARP, NONE) are left out of lists.
bool neighListed(const NeighRecord& n);
void neighToMessage(const NeighRecord& n, uint32_t id, message& out);
// Entries of a bridge's own forwarding database (not a device's own list).
bool fdbListed(const NeighRecord& n);
void fdbToMessage(const NeighRecord& n, uint32_t id, message& out);

// Unicast routes of the main table; local, broadcast, cached and other
// tables' routes are not the router's forwarding table.
bool routeListed(const RouteRecord& r);
uint32_t routeKind(const RouteRecord& r);
void routeToMessage(const RouteRecord& r, const NextHop* hops, uint32_t id, message& out);

}  // namespace tn
