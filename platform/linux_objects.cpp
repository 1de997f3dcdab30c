#include "platform/linux_objects.h"

#include <net/if.h>  // before the linux/ headers, which defer to it

#include <linux/if_arp.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <cstring>

namespace tn {

using namespace linuxbus;

namespace {

bool kindIs(const LinkRecord& l, const char* k) { return std::strcmp(l.kind, k) == 0; }

bool isTunnelKind(const LinkRecord& l) {
    static const char* const tunnels[] = {"gre", "ipip", "sit", "ip6tnl", "ip6gre", "vti", "vti6",
                                          "wireguard", "tun", "ipvtap", "xfrm"};
    for (const char* t : tunnels)
        if (kindIs(l, t)) return true;
    return false;
}

}  // namespace

uint32_t interfaceKind(const LinkRecord& l, bool wireless) {
    if (kindIs(l, "bridge")) return KIND_BRIDGE;
    if (kindIs(l, "vlan")) return KIND_VLAN;
    switch (l.arpType) {
    case ARPHRD_ETHER:
    case ARPHRD_EETHER:
    case ARPHRD_IEEE802:
        if (wireless) return KIND_WIRELESS;
        return KIND_ETHERNET;
    case ARPHRD_IEEE80211:
    case ARPHRD_IEEE80211_PRISM:
    case ARPHRD_IEEE80211_RADIOTAP:
        return KIND_WIRELESS;
    case ARPHRD_PPP:
        return KIND_PPP;
    case ARPHRD_HDLC:  // also ARPHRD_CISCO
    case ARPHRD_RAWHDLC:
        return KIND_HDLC;
    case ARPHRD_FRAD:
    case ARPHRD_DLCI:
        return KIND_FRAME_RELAY;
    case ARPHRD_TUNNEL:
    case ARPHRD_TUNNEL6:
    case ARPHRD_IPGRE:
    case ARPHRD_IP6GRE:
    case ARPHRD_SIT:
        return KIND_TUNNEL;
    case ARPHRD_NONE:
        // tun devices and WireGuard carry bare IP packets.
        return isTunnelKind(l) || l.kind[0] == '\0' ? KIND_TUNNEL : KIND_OTHER;
    default:
        return KIND_OTHER;
    }
}

uint32_t linkStateFlags(const LinkRecord& l) {
    uint32_t f = 0;
    if (l.flags & IFF_UP) f |= LINK_ADMIN_UP;
    // The kernel sets IFF_RUNNING for an up device whose operational state
    // is up (or unknown, for devices without carrier detection).
    if ((l.flags & IFF_UP) && (l.flags & IFF_RUNNING)) f |= LINK_RUNNING;
    return f;
}

void linkToMessage(const LinkRecord& l, bool wireless, int speedClass, message& out) {
    out.insert(u32_id(F_OBJ_ID), l.index);
    uint32_t kind = interfaceKind(l, wireless);
    out.insert(u32_id(IF_KIND), kind);
    if (kind == KIND_VLAN && l.parent) out.insert(u32_id(IF_PARENT), l.parent);
    if (kind == KIND_BRIDGE && l.hasBridgePriority) out.insert(u32_id(IF_BRIDGE_PRIORITY), l.bridgePriority);
    out.insert(u32_id(IF_MTU), l.mtu);
    out.insert(string_id(IF_NAME), l.name);
    if (l.macLen) out.insert(raw_id(IF_MAC), l.mac, l.macLen);
    if (speedClass >= 0) out.insert(u32_id(IF_SPEED_CLASS), uint32_t(speedClass));
    uint32_t flags = linkStateFlags(l);
    out.insert(bool_id(IF_RUNNING), (flags & LINK_RUNNING) != 0);
    out.insert(bool_id(OBJ_DISABLED), (flags & LINK_ADMIN_UP) == 0);
    out.insert(u32_id(IF_LINK_IGNORE), 0u);
    out.insert(u32_id(IF_LINK_FLAGS), flags);
}

void linkCountersToMessage(const LinkRecord& l, message& out) {
    const LinkStats& s = l.stats;
    // The kernel counts every received packet; multicast ones are counted
    // again on their own, so the difference is the unicast (and broadcast)
    // share. Transmitted multicast is not counted apart.
    uint64_t inUcast = s.rxPackets >= s.multicast ? s.rxPackets - s.multicast : s.rxPackets;
    out.insert(u64_id(CNT_IN_OCTETS), s.rxBytes);
    out.insert(u64_id(CNT_OUT_OCTETS), s.txBytes);
    out.insert(u64_id(CNT_IN_UCAST), inUcast);
    out.insert(u64_id(CNT_OUT_UCAST), s.txPackets);
    out.insert(u32_id(CNT_IN_ERRORS), uint32_t(s.rxErrors));
    out.insert(u32_id(CNT_OUT_ERRORS), uint32_t(s.txErrors));
    out.insert(u32_id(CNT_IN_DISCARDS), uint32_t(s.rxDropped));
    out.insert(u32_id(CNT_OUT_DISCARDS), uint32_t(s.txDropped));
}

void addrToMessage(const AddrRecord& a, uint32_t id, message& out) {
    out.insert(u32_id(F_OBJ_ID), id);
    out.insert(be32_id(0x1), a.address);
    out.insert(be32_id(0x3), prefixToMask(a.prefixLen));
    out.insert(u32_id(0x5), a.index);
}

bool neighListed(const NeighRecord& n) {
    if (!n.hasAddress) return false;
    return (n.state & (NUD_NOARP | NUD_NONE)) == 0 && n.state != 0;
}

void neighToMessage(const NeighRecord& n, uint32_t id, message& out) {
    out.insert(u32_id(F_OBJ_ID), id);
    out.insert(be32_id(0x1), n.address);
    out.insert(u32_id(0x3), n.index);
    if (n.macLen) out.insert(raw_id(0x2), n.mac, n.macLen);
    // Only entries the kernel learned are dynamic; permanent ones were
    // configured and read as static.
    out.insert(bool_id(OBJ_DYNAMIC), (n.state & NUD_PERMANENT) == 0);
    out.insert(bool_id(OBJ_INVALID), (n.state & (NUD_FAILED | NUD_INCOMPLETE)) != 0);
}

bool fdbListed(const NeighRecord& n) {
    // Entries without a master are the device's own address filter list
    // (multicast groups and the like), not learned by any bridge.
    return n.master != 0 && n.macLen == 6;
}

void fdbToMessage(const NeighRecord& n, uint32_t id, message& out) {
    out.insert(u32_id(F_OBJ_ID), id);
    out.insert(u32_id(0x1), n.index);
    out.insert(raw_id(0x2), n.mac, n.macLen);
    // A permanent entry in the bridge's table is one of the bridge's own
    // addresses (its ports' and its own); user-added static entries are
    // NOARP instead.
    out.insert(bool_id(0x4), (n.state & NUD_PERMANENT) != 0);
    out.insert(u32_id(0x5), n.master);
}

bool routeListed(const RouteRecord& r) {
    if (r.table != RT_TABLE_MAIN) return false;
    if (r.type != RTN_UNICAST) return false;
    if (r.flags & RTM_F_CLONED) return false;
    return true;
}

uint32_t routeKind(const RouteRecord& r) {
    switch (r.protocol) {
    case RTPROT_KERNEL: return r.scope == RT_SCOPE_LINK ? ROUTE_CONNECTED : ROUTE_STATIC;
    case RTPROT_RIP: return ROUTE_RIP;
    case RTPROT_OSPF: return ROUTE_OSPF;
    case RTPROT_BGP: return ROUTE_BGP;
    case RTPROT_ISIS:
    case RTPROT_EIGRP:
    case RTPROT_BABEL: return ROUTE_OTHER;
    default: return ROUTE_STATIC;  // boot, static, dhcp, zebra and unknown daemons
    }
}

void routeToMessage(const RouteRecord& r, const NextHop* hops, uint32_t id, message& out) {
    out.insert(u32_id(F_OBJ_ID), id);
    out.insert(be32_id(0x1), r.dest);
    out.insert(be32_id(0x2), prefixToMask(r.dstLen));
    out.insert(u32_id(0x8), r.metric);
    uint32_t kind = routeKind(r);
    out.insert(u32_id(0x7), kind);
    u32_vector ifs(r.hopCount);
    for (uint32_t i = 0; i < r.hopCount; ++i) ifs[i] = hops[i].ifindex;
    if (kind == ROUTE_CONNECTED) {
        // A connected subnet has no gateway: it is reached through the
        // interface's own address.
        out.insert(be32_id(0x3), r.prefsrc);
        out.insert(u32_array_id(0x5), ifs);
        return;
    }
    u32_vector gws(r.hopCount), active(r.hopCount);
    for (uint32_t i = 0; i < r.hopCount; ++i) {
        gws[i] = hops[i].gateway;
        active[i] = hops[i].active ? 1u : 0u;
    }
    out.insert(be32_array_id(0x4), gws);
    out.insert(u32_array_id(0x5), ifs);
    out.insert(u32_array_id(0x6), active);
}

}  // namespace tn
