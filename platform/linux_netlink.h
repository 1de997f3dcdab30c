// rtnetlink access for the Linux backend: one socket that runs dumps and
// single requests, and parsers that turn kernel messages into plain records.
//
// The parsers never trust a length: every header and attribute is checked
// against the bytes actually received (NLMSG_OK / RTA_OK), attribute
// payloads shorter than the expected type are ignored, and multi-byte
// values are copied out with memcpy. Kernel numbers are in host order;
// IPv4 addresses are in network order and are turned into the bus's be32
// form (first octet most significant) byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct nlmsghdr;

namespace tn {

// An IPv4 address stored as 4 network-order bytes -> the be32 number.
uint32_t be32FromBytes(const uint8_t* b);
// Prefix length -> netmask as a be32 number (24 -> 0xFFFFFF00).
uint32_t prefixToMask(unsigned len);

struct LinkStats {
    uint64_t rxPackets = 0, txPackets = 0, rxBytes = 0, txBytes = 0;
    uint64_t rxErrors = 0, txErrors = 0, rxDropped = 0, txDropped = 0;
    uint64_t multicast = 0;
};

struct LinkRecord {
    uint32_t index = 0;
    uint32_t flags = 0;       // IFF_* of ifi_flags
    uint16_t arpType = 0;     // ARPHRD_*
    uint8_t family = 0;       // AF_UNSPEC for a real link; AF_BRIDGE for bridge port notices
    uint8_t operState = 0;    // IF_OPER_*
    uint32_t mtu = 0;
    uint32_t parent = 0;      // IFLA_LINK (lower device), 0 when none
    uint32_t master = 0;      // IFLA_MASTER, 0 when none
    bool hasStats = false;
    bool hasBridgePriority = false;
    uint16_t bridgePriority = 0;  // IFLA_BR_PRIORITY of a bridge
    uint8_t macLen = 0;
    uint8_t mac[32] = {};
    char name[16] = {};       // IFNAMSIZ, always terminated
    char kind[24] = {};       // IFLA_INFO_KIND ("bridge", "vlan", ...), empty when none
    LinkStats stats;
};

struct AddrRecord {
    uint32_t index = 0;
    uint32_t address = 0;  // be32
    uint8_t prefixLen = 0;
};

struct NeighRecord {
    uint32_t index = 0;
    uint32_t address = 0;  // be32 (IPv4 neighbours only)
    uint16_t state = 0;    // NUD_*
    uint8_t flags = 0;     // NTF_*
    uint8_t macLen = 0;
    uint8_t mac[32] = {};
    uint32_t master = 0;   // NDA_MASTER (bridge forwarding entries)
    bool hasAddress = false;
};

struct NextHop {
    uint32_t gateway = 0;  // be32, 0 for a device route
    uint32_t ifindex = 0;
    bool active = true;    // false when the kernel marks the hop dead or its link down
};

struct RouteRecord {
    uint32_t dest = 0;     // be32
    uint8_t dstLen = 0;
    uint8_t protocol = 0;  // RTPROT_*
    uint8_t scope = 0;     // RT_SCOPE_*
    uint8_t type = 0;      // RTN_*
    uint32_t flags = 0;    // rtm_flags
    uint32_t table = 0;
    uint32_t metric = 0;
    uint32_t prefsrc = 0;  // be32
    uint32_t firstHop = 0; // index into the hop list the record was parsed with
    uint32_t hopCount = 0;
};

// Parsers. Each returns false for a message that is not of its kind, is
// truncated, or (for the IPv4 parsers) is of another address family.
bool parseLink(const nlmsghdr* h, LinkRecord& out);
bool parseAddr(const nlmsghdr* h, AddrRecord& out);
bool parseNeigh(const nlmsghdr* h, NeighRecord& out);    // AF_INET neighbours
bool parseFdb(const nlmsghdr* h, NeighRecord& out);      // AF_BRIDGE forwarding entries
// Appends the route's next hops to hops (firstHop/hopCount point there).
bool parseRoute(const nlmsghdr* h, RouteRecord& out, std::vector<NextHop>& hops);

// Walks every netlink message in buf[0, len) (bounds-checked). fn returns
// false to stop. Returns the number of messages visited.
size_t forEachMessage(const void* buf, size_t len, const std::function<bool(const nlmsghdr*)>& fn);

class NetlinkSocket {
public:
    NetlinkSocket() = default;
    ~NetlinkSocket();
    NetlinkSocket(const NetlinkSocket&) = delete;
    NetlinkSocket& operator=(const NetlinkSocket&) = delete;

    // groups = 0 for a request socket; RTMGRP_* for a notification socket
    // (then opened non-blocking).
    bool open(uint32_t groups = 0, std::string* err = nullptr);
    void close();
    int fd() const { return fd_; }

    // Sends a dump request of `type` with the given family header (ifinfomsg,
    // ifaddrmsg, ndmsg or rtmsg bytes) and calls fn for every reply message
    // until NLMSG_DONE. False on a socket error, an error reply or a time-out
    // (2 s without data); err then holds one line.
    bool dump(uint16_t type, const void* hdr, size_t hdrLen,
              const std::function<void(const nlmsghdr*)>& fn, std::string* err = nullptr);
    // Sends one request (type, header, attributes already in `payload`) and
    // calls fn for the reply messages. An NLMSG_ERROR reply with errno gives
    // false and *errnoOut (when given).
    bool request(uint16_t type, uint16_t flags, const void* payload, size_t len,
                 const std::function<void(const nlmsghdr*)>& fn, int* errnoOut = nullptr,
                 std::string* err = nullptr);

    // Reads whatever notifications are queued (non-blocking socket) and
    // calls fn for each message. Returns false on ENOBUFS (events were lost:
    // the caller should resynchronise) or another error.
    bool drain(const std::function<void(const nlmsghdr*)>& fn, bool* overrun = nullptr);

private:
    bool sendRaw(uint16_t type, uint16_t flags, const void* payload, size_t len, uint32_t& seq);
    bool receiveUntilDone(uint32_t seq, bool multi, const std::function<void(const nlmsghdr*)>& fn,
                          int* errnoOut, std::string* err);
    int fd_ = -1;
    uint32_t seq_ = 0;
    uint32_t portId_ = 0;
    std::vector<uint8_t> buf_;
};

}  // namespace tn
