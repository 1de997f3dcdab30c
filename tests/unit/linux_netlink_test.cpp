// Netlink parsing and the mapping of kernel records to bus objects, on
// netlink messages built here byte by byte.
#include <gtest/gtest.h>
#include <net/if.h>

#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <vector>

#include "platform/linux_netlink.h"
#include "platform/linux_objects.h"

using namespace tn;

namespace {

// Builds netlink messages in a buffer that keeps the 4-byte alignment the
// kernel guarantees.
class NlBuilder {
public:
    NlBuilder& begin(uint16_t type, uint16_t flags = NLM_F_MULTI) {
        start_ = buf_.size();
        nlmsghdr h;
        std::memset(&h, 0, sizeof h);
        h.nlmsg_type = type;
        h.nlmsg_flags = flags;
        put(&h, sizeof h);
        return *this;
    }
    template <class T>
    NlBuilder& family(const T& hdr) {
        put(&hdr, sizeof hdr);
        pad();
        return *this;
    }
    NlBuilder& attr(uint16_t type, const void* data, size_t len) {
        rtattr a;
        a.rta_type = type;
        a.rta_len = uint16_t(RTA_LENGTH(len));
        put(&a, sizeof a);
        put(data, len);
        pad();
        return *this;
    }
    NlBuilder& u32(uint16_t type, uint32_t v) { return attr(type, &v, sizeof v); }
    NlBuilder& str(uint16_t type, const char* s) { return attr(type, s, std::strlen(s) + 1); }
    NlBuilder& ip(uint16_t type, uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
        uint8_t v[4] = {a, b, c, d};
        return attr(type, v, 4);
    }
    size_t openNest(uint16_t type) {
        size_t at = buf_.size();
        rtattr a;
        a.rta_type = type;
        a.rta_len = 0;
        put(&a, sizeof a);
        return at;
    }
    void closeNest(size_t at) {
        uint16_t len = uint16_t(buf_.size() - at);
        std::memcpy(&buf_[at], &len, sizeof len);
    }
    NlBuilder& raw(const void* p, size_t len) {
        put(p, len);
        return *this;
    }
    NlBuilder& end() {
        uint32_t len = uint32_t(buf_.size() - start_);
        std::memcpy(&buf_[start_], &len, sizeof len);
        return *this;
    }
    const nlmsghdr* msg() const { return reinterpret_cast<const nlmsghdr*>(data()); }
    const uint8_t* data() const { return reinterpret_cast<const uint8_t*>(store().data()); }
    size_t size() const { return buf_.size(); }
    std::vector<uint8_t>& bytes() { return buf_; }

    void put(const void* p, size_t n) {
        const uint8_t* b = static_cast<const uint8_t*>(p);
        buf_.insert(buf_.end(), b, b + n);
    }
    void pad() {
        while (buf_.size() % 4) buf_.push_back(0);
    }

private:
    // A copy in 8-byte aligned storage, refreshed on every read.
    const std::vector<uint64_t>& store() const {
        aligned_.assign((buf_.size() + 7) / 8, 0);
        std::memcpy(aligned_.data(), buf_.data(), buf_.size());
        return aligned_;
    }
    std::vector<uint8_t> buf_;
    size_t start_ = 0;
    mutable std::vector<uint64_t> aligned_;
};

ifinfomsg linkHeader(int index, uint16_t arp, unsigned flags) {
    ifinfomsg i;
    std::memset(&i, 0, sizeof i);
    i.ifi_family = AF_UNSPEC;
    i.ifi_index = index;
    i.ifi_type = arp;
    i.ifi_flags = flags;
    return i;
}

const uint8_t kMac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

}  // namespace

TEST(LinuxNetlinkAddressing, Be32AndMasksAreByteOrderIndependent) {
    const uint8_t a[4] = {192, 168, 1, 2};
    EXPECT_EQ(be32FromBytes(a), 0xC0A80102u);
    EXPECT_EQ(prefixToMask(0), 0u);
    EXPECT_EQ(prefixToMask(1), 0x80000000u);
    EXPECT_EQ(prefixToMask(24), 0xFFFFFF00u);
    EXPECT_EQ(prefixToMask(32), 0xFFFFFFFFu);
    EXPECT_EQ(prefixToMask(40), 0xFFFFFFFFu);
}

TEST(LinuxNetlinkLink, VlanWithCountersMapsEveryField) {
    NlBuilder b;
    b.begin(RTM_NEWLINK).family(linkHeader(7, ARPHRD_ETHER, IFF_UP | IFF_RUNNING | IFF_LOWER_UP));
    b.str(IFLA_IFNAME, "eth0.5").u32(IFLA_MTU, 1496).attr(IFLA_ADDRESS, kMac, 6).u32(IFLA_LINK, 3);
    size_t nest = b.openNest(IFLA_LINKINFO);
    b.str(IFLA_INFO_KIND, "vlan");
    b.closeNest(nest);
    rtnl_link_stats64 st;
    std::memset(&st, 0, sizeof st);
    st.rx_bytes = 0x100000005ull;
    st.tx_bytes = 77;
    st.rx_packets = 1000;
    st.multicast = 40;
    st.tx_packets = 900;
    st.rx_errors = 3;
    st.tx_errors = 4;
    st.rx_dropped = 5;
    st.tx_dropped = 6;
    b.attr(IFLA_STATS64, &st, sizeof st).end();

    LinkRecord l;
    ASSERT_TRUE(parseLink(b.msg(), l));
    EXPECT_EQ(l.index, 7u);
    EXPECT_STREQ(l.name, "eth0.5");
    EXPECT_STREQ(l.kind, "vlan");
    EXPECT_EQ(l.parent, 3u);

    message m;
    linkToMessage(l, false, 2, m);
    EXPECT_EQ(m.get(u32_id(0xfe0001)), 7u);
    EXPECT_EQ(m.get(u32_id(0x10001)), 30u);
    EXPECT_EQ(m.get(u32_id(0x7d2)), 3u);
    EXPECT_EQ(m.get(u32_id(0x10064)), 1496u);
    EXPECT_EQ(m.get(string_id(0x10006)), "eth0.5");
    EXPECT_EQ(m.get(raw_id(0x300003e9)), std::vector<uint8_t>(kMac, kMac + 6));
    EXPECT_EQ(m.get(u32_id(0x3f2), 99), 2u);
    EXPECT_TRUE(m.get(bool_id(0x1000e)));
    ASSERT_TRUE(m.has(bool_id(0xfe000a)));
    EXPECT_FALSE(m.get(bool_id(0xfe000a), true));
    ASSERT_TRUE(m.has(u32_id(0x10002)));
    EXPECT_EQ(m.get(u32_id(0x10002), 1), 0u);
    EXPECT_EQ(m.get(u32_id(0x10003)), 0x500u);
    EXPECT_FALSE(m.has(u64_id(0x100100fc)));  // counters only when asked

    message c;
    linkCountersToMessage(l, c);
    EXPECT_EQ(c.get(u64_id(0x100100fc)), 0x100000005ull);
    EXPECT_EQ(c.get(u64_id(0x100100fd)), 77u);
    EXPECT_EQ(c.get(u64_id(0x100100fe)), 960u);  // received minus multicast
    EXPECT_EQ(c.get(u64_id(0x100100ff)), 900u);
    EXPECT_EQ(c.get(u32_id(0x100fa)), 3u);
    EXPECT_EQ(c.get(u32_id(0x100fb)), 4u);
    EXPECT_EQ(c.get(u32_id(0x100f8)), 5u);
    EXPECT_EQ(c.get(u32_id(0x100f9)), 6u);
}

TEST(LinuxNetlinkLink, AdminAndCarrierStatesGiveTheLinkFlags) {
    struct Case {
        unsigned ifflags;
        uint32_t bits;
        bool running, disabled;
    } cases[] = {
        {0, 0, false, true},
        {IFF_UP, 0x100, false, false},
        {IFF_UP | IFF_RUNNING, 0x500, true, false},
        {IFF_RUNNING, 0, false, true},  // never running while admin down
    };
    for (const Case& k : cases) {
        NlBuilder b;
        b.begin(RTM_NEWLINK).family(linkHeader(2, ARPHRD_ETHER, k.ifflags)).str(IFLA_IFNAME, "v0").end();
        LinkRecord l;
        ASSERT_TRUE(parseLink(b.msg(), l));
        message m;
        linkToMessage(l, false, -1, m);
        EXPECT_EQ(m.get(u32_id(0x10003)), k.bits) << k.ifflags;
        EXPECT_EQ(m.get(bool_id(0x1000e)), k.running) << k.ifflags;
        EXPECT_EQ(m.get(bool_id(0xfe000a)), k.disabled) << k.ifflags;
        EXPECT_FALSE(m.has(u32_id(0x3f2)));  // unknown speed is left out
        EXPECT_FALSE(m.has(raw_id(0x300003e9)));
    }
}

TEST(LinuxNetlinkLink, KindsFollowDeviceTypeAndDriver) {
    auto kindOf = [](uint16_t arp, const char* kind, bool wireless) {
        NlBuilder b;
        b.begin(RTM_NEWLINK).family(linkHeader(4, arp, IFF_UP)).str(IFLA_IFNAME, "x");
        if (kind) {
            size_t n = b.openNest(IFLA_LINKINFO);
            b.str(IFLA_INFO_KIND, kind);
            b.closeNest(n);
        }
        b.end();
        LinkRecord l;
        EXPECT_TRUE(parseLink(b.msg(), l));
        return interfaceKind(l, wireless);
    };
    // The driver's kind decides before the device type; wireless is an
    // Ethernet-typed device with a wireless side.
    EXPECT_EQ(kindOf(ARPHRD_ETHER, "veth", false), 1u);
    EXPECT_EQ(kindOf(ARPHRD_ETHER, "vlan", false), 30u);
    EXPECT_EQ(kindOf(ARPHRD_ETHER, nullptr, true), 5u);
    EXPECT_EQ(kindOf(ARPHRD_NONE, "wireguard", false), 17u);
    EXPECT_EQ(kindOf(ARPHRD_LOOPBACK, nullptr, false), 0u);

    // Only a VLAN names its parent; a bridge's lower link is not one. A
    // bridge tells its priority.
    NlBuilder b;
    b.begin(RTM_NEWLINK).family(linkHeader(9, ARPHRD_ETHER, IFF_UP)).str(IFLA_IFNAME, "br0").u32(IFLA_LINK, 2);
    size_t n = b.openNest(IFLA_LINKINFO);
    b.str(IFLA_INFO_KIND, "bridge");
    size_t data = b.openNest(IFLA_INFO_DATA);
    uint32_t ageing = 30000;
    uint16_t prio = 4096;
    b.attr(IFLA_BR_AGEING_TIME, &ageing, 4).attr(IFLA_BR_PRIORITY, &prio, 2);
    b.closeNest(data);
    b.closeNest(n);
    b.end();
    LinkRecord l;
    ASSERT_TRUE(parseLink(b.msg(), l));
    message m;
    linkToMessage(l, false, -1, m);
    EXPECT_EQ(m.get(u32_id(0x10001)), 12u);
    EXPECT_EQ(m.get(u32_id(0x2)), 4096u);
    EXPECT_FALSE(m.has(u32_id(0x7d2)));

    // The same attribute number means something else for other drivers.
    NlBuilder v;
    v.begin(RTM_NEWLINK).family(linkHeader(10, ARPHRD_ETHER, IFF_UP)).str(IFLA_IFNAME, "v");
    n = v.openNest(IFLA_LINKINFO);
    v.str(IFLA_INFO_KIND, "vlan");
    data = v.openNest(IFLA_INFO_DATA);
    v.attr(IFLA_BR_PRIORITY, &prio, 2);
    v.closeNest(data);
    v.closeNest(n);
    v.end();
    ASSERT_TRUE(parseLink(v.msg(), l));
    EXPECT_FALSE(l.hasBridgePriority);
}

TEST(LinuxNetlinkLink, OldKernelsThirtyTwoBitStatsAreUsedWhenAlone) {
    rtnl_link_stats st;
    std::memset(&st, 0, sizeof st);
    st.rx_bytes = 1234;
    st.tx_packets = 56;
    NlBuilder b;
    b.begin(RTM_NEWLINK).family(linkHeader(2, ARPHRD_ETHER, IFF_UP)).attr(IFLA_STATS, &st, sizeof st).end();
    LinkRecord l;
    ASSERT_TRUE(parseLink(b.msg(), l));
    EXPECT_TRUE(l.hasStats);
    EXPECT_EQ(l.stats.rxBytes, 1234u);
    EXPECT_EQ(l.stats.txPackets, 56u);

    // With both present the 64-bit set wins, whatever the order.
    rtnl_link_stats64 st64;
    std::memset(&st64, 0, sizeof st64);
    st64.rx_bytes = 1ull << 40;
    NlBuilder c;
    c.begin(RTM_NEWLINK).family(linkHeader(2, ARPHRD_ETHER, IFF_UP));
    c.attr(IFLA_STATS64, &st64, sizeof st64).attr(IFLA_STATS, &st, sizeof st).end();
    ASSERT_TRUE(parseLink(c.msg(), l));
    EXPECT_EQ(l.stats.rxBytes, 1ull << 40);
}

TEST(LinuxNetlinkBounds, MalformedAttributesAreNeverReadPastTheMessage) {
    // A name without a terminator that is longer than IFNAMSIZ is cut.
    {
        NlBuilder b;
        b.begin(RTM_NEWLINK).family(linkHeader(2, ARPHRD_ETHER, 0));
        b.attr(IFLA_IFNAME, "abcdefghijklmnopqrstuvwxyz", 26).end();
        LinkRecord l;
        ASSERT_TRUE(parseLink(b.msg(), l));
        EXPECT_STREQ(l.name, "abcdefghijklmno");
    }
    // A too-short MTU payload is ignored; later attributes still count.
    {
        NlBuilder b;
        uint16_t two = 1500;
        b.begin(RTM_NEWLINK).family(linkHeader(2, ARPHRD_ETHER, 0)).attr(IFLA_MTU, &two, 2).str(IFLA_IFNAME, "ok");
        b.end();
        LinkRecord l;
        ASSERT_TRUE(parseLink(b.msg(), l));
        EXPECT_EQ(l.mtu, 0u);
        EXPECT_STREQ(l.name, "ok");
    }
    // An attribute claiming more bytes than the message holds ends the walk.
    {
        NlBuilder b;
        b.begin(RTM_NEWLINK).family(linkHeader(2, ARPHRD_ETHER, 0)).u32(IFLA_MTU, 9000);
        rtattr bad;
        bad.rta_type = IFLA_IFNAME;
        bad.rta_len = 200;
        b.raw(&bad, sizeof bad).raw("eth", 4).end();
        LinkRecord l;
        ASSERT_TRUE(parseLink(b.msg(), l));
        EXPECT_EQ(l.mtu, 9000u);
        EXPECT_STREQ(l.name, "");
    }
    // A nested kind whose inner length overruns the outer attribute.
    {
        NlBuilder b;
        b.begin(RTM_NEWLINK).family(linkHeader(2, ARPHRD_ETHER, 0));
        size_t n = b.openNest(IFLA_LINKINFO);
        rtattr inner;
        inner.rta_type = IFLA_INFO_KIND;
        inner.rta_len = 64;
        b.raw(&inner, sizeof inner).raw("vlan", 4);
        b.closeNest(n);
        b.end();
        LinkRecord l;
        ASSERT_TRUE(parseLink(b.msg(), l));
        EXPECT_STREQ(l.kind, "");
    }
    // A message too short for its family header is refused.
    {
        NlBuilder b;
        uint8_t half[4] = {};
        b.begin(RTM_NEWLINK).raw(half, 4).end();
        LinkRecord l;
        EXPECT_FALSE(parseLink(b.msg(), l));
        RouteRecord r;
        std::vector<NextHop> hops;
        EXPECT_FALSE(parseRoute(b.msg(), r, hops));
    }
}

TEST(LinuxNetlinkBounds, MessageWalkStopsAtATruncatedHeader) {
    NlBuilder b;
    b.begin(RTM_NEWLINK).family(linkHeader(1, ARPHRD_ETHER, 0)).end();
    b.begin(RTM_NEWLINK).family(linkHeader(2, ARPHRD_ETHER, 0)).end();
    size_t full = b.size();
    std::vector<uint32_t> seen;
    auto collect = [&](const nlmsghdr* h) {
        LinkRecord l;
        if (parseLink(h, l)) seen.push_back(l.index);
        return true;
    };
    std::vector<uint64_t> copy((full + 7) / 8);
    std::memcpy(copy.data(), b.bytes().data(), full);
    EXPECT_EQ(forEachMessage(copy.data(), full, collect), 2u);
    EXPECT_EQ(seen, (std::vector<uint32_t>{1, 2}));

    seen.clear();
    EXPECT_EQ(forEachMessage(copy.data(), full - 1, collect), 1u);  // second one cut short
    EXPECT_EQ(seen, (std::vector<uint32_t>{1}));

    // A header whose length is larger than the buffer is not visited.
    uint32_t huge = 0x10000;
    std::memcpy(copy.data(), &huge, 4);
    EXPECT_EQ(forEachMessage(copy.data(), full, collect), 0u);
}

TEST(LinuxNetlinkAddr, LocalAddressAndMaskInBusOrder) {
    ifaddrmsg ifa;
    std::memset(&ifa, 0, sizeof ifa);
    ifa.ifa_family = AF_INET;
    ifa.ifa_prefixlen = 24;
    ifa.ifa_index = 5;
    NlBuilder b;
    // On a point-to-point link IFA_ADDRESS is the peer; IFA_LOCAL is ours.
    b.begin(RTM_NEWADDR).family(ifa).ip(IFA_ADDRESS, 10, 0, 0, 2).ip(IFA_LOCAL, 10, 0, 0, 1).end();
    AddrRecord a;
    ASSERT_TRUE(parseAddr(b.msg(), a));
    message m;
    addrToMessage(a, 3, m);
    EXPECT_EQ(m.get(u32_id(0xfe0001)), 3u);
    EXPECT_EQ(m.get(be32_id(0x1)), 0x0A000001u);
    EXPECT_EQ(m.get(be32_id(0x3)), 0xFFFFFF00u);
    EXPECT_EQ(m.get(u32_id(0x5)), 5u);

    NlBuilder only;
    only.begin(RTM_NEWADDR).family(ifa).ip(IFA_ADDRESS, 172, 16, 0, 9).end();
    ASSERT_TRUE(parseAddr(only.msg(), a));
    EXPECT_EQ(a.address, 0xAC100009u);

    ifa.ifa_family = AF_INET6;
    NlBuilder v6;
    v6.begin(RTM_NEWADDR).family(ifa).ip(IFA_ADDRESS, 1, 2, 3, 4).end();
    EXPECT_FALSE(parseAddr(v6.msg(), a));
}

TEST(LinuxNetlinkNeigh, StatesBecomeStaticAndInvalidFlags) {
    auto neigh = [](uint16_t state, bool withMac) {
        ndmsg nd;
        std::memset(&nd, 0, sizeof nd);
        nd.ndm_family = AF_INET;
        nd.ndm_ifindex = 4;
        nd.ndm_state = state;
        NlBuilder b;
        b.begin(RTM_NEWNEIGH).family(nd).ip(NDA_DST, 10, 0, 0, 9);
        if (withMac) b.attr(NDA_LLADDR, kMac, 6);
        b.end();
        NeighRecord n;
        EXPECT_TRUE(parseNeigh(b.msg(), n));
        return n;
    };
    NeighRecord perm = neigh(NUD_PERMANENT, true);
    ASSERT_TRUE(neighListed(perm));
    message m;
    neighToMessage(perm, 1, m);
    EXPECT_EQ(m.get(be32_id(0x1)), 0x0A000009u);
    EXPECT_EQ(m.get(u32_id(0x3)), 4u);
    EXPECT_EQ(m.get(raw_id(0x30000002)), std::vector<uint8_t>(kMac, kMac + 6));
    // 0xfe0007 marks a learned (dynamic) entry; a permanent one has it clear.
    EXPECT_FALSE(m.get(bool_id(0xfe0007), true));
    EXPECT_FALSE(m.get(bool_id(0xfe0008)));

    message r;
    neighToMessage(neigh(NUD_REACHABLE, true), 2, r);
    EXPECT_TRUE(r.get(bool_id(0xfe0007)));
    EXPECT_FALSE(r.get(bool_id(0xfe0008)));

    NeighRecord failed = neigh(NUD_FAILED, false);
    ASSERT_TRUE(neighListed(failed));
    message f;
    neighToMessage(failed, 3, f);
    EXPECT_TRUE(f.get(bool_id(0xfe0008)));
    EXPECT_FALSE(f.has(raw_id(0x30000002)));

    EXPECT_FALSE(neighListed(neigh(NUD_NOARP, true)));
    EXPECT_FALSE(neighListed(neigh(NUD_NONE, true)));

    // Bridge entries are not IPv4 neighbours.
    ndmsg nd;
    std::memset(&nd, 0, sizeof nd);
    nd.ndm_family = AF_BRIDGE;
    NlBuilder b;
    b.begin(RTM_NEWNEIGH).family(nd).attr(NDA_LLADDR, kMac, 6).end();
    NeighRecord n;
    EXPECT_FALSE(parseNeigh(b.msg(), n));
}

TEST(LinuxNetlinkFdb, BridgeEntriesNameTheirPortAndBridge) {
    auto fdb = [](uint16_t state, bool master) {
        ndmsg nd;
        std::memset(&nd, 0, sizeof nd);
        nd.ndm_family = AF_BRIDGE;
        nd.ndm_ifindex = 3;
        nd.ndm_state = state;
        nd.ndm_flags = master ? NTF_MASTER : NTF_SELF;
        NlBuilder b;
        b.begin(RTM_NEWNEIGH).family(nd).attr(NDA_LLADDR, kMac, 6);
        if (master) b.u32(NDA_MASTER, 8);
        b.end();
        NeighRecord n;
        EXPECT_TRUE(parseFdb(b.msg(), n));
        return n;
    };
    NeighRecord own = fdb(NUD_PERMANENT, true);
    ASSERT_TRUE(fdbListed(own));
    message m;
    fdbToMessage(own, 1, m);
    EXPECT_EQ(m.get(u32_id(0x1)), 3u);
    EXPECT_EQ(m.get(u32_id(0x5)), 8u);
    EXPECT_EQ(m.get(raw_id(0x30000002)), std::vector<uint8_t>(kMac, kMac + 6));
    EXPECT_TRUE(m.get(bool_id(0x4)));

    message learned, configured;
    fdbToMessage(fdb(NUD_REACHABLE, true), 2, learned);
    fdbToMessage(fdb(NUD_NOARP, true), 3, configured);
    ASSERT_TRUE(learned.has(bool_id(0x4)));
    EXPECT_FALSE(learned.get(bool_id(0x4), true));
    EXPECT_FALSE(configured.get(bool_id(0x4), true));

    EXPECT_FALSE(fdbListed(fdb(NUD_PERMANENT, false)));  // a device's own filter entry
}

namespace {

rtmsg routeHeader(uint8_t dstLen, uint8_t proto, uint8_t scope, uint8_t type = RTN_UNICAST,
                  uint8_t table = RT_TABLE_MAIN) {
    rtmsg rt;
    std::memset(&rt, 0, sizeof rt);
    rt.rtm_family = AF_INET;
    rt.rtm_dst_len = dstLen;
    rt.rtm_protocol = proto;
    rt.rtm_scope = scope;
    rt.rtm_type = type;
    rt.rtm_table = table;
    return rt;
}

void addHop(NlBuilder& b, int ifindex, unsigned flags, const uint8_t* gw) {
    rtnexthop nh;
    std::memset(&nh, 0, sizeof nh);
    nh.rtnh_ifindex = ifindex;
    nh.rtnh_flags = uint8_t(flags);
    nh.rtnh_len = uint16_t(sizeof nh + (gw ? RTA_LENGTH(4) : 0));
    b.raw(&nh, sizeof nh);
    if (gw) b.attr(RTA_GATEWAY, gw, 4);
}

}  // namespace

TEST(LinuxNetlinkRoute, MultipathKeepsEveryHopWithItsState) {
    const uint8_t gw1[4] = {10, 0, 0, 2}, gw2[4] = {10, 0, 0, 3};
    NlBuilder b;
    b.begin(RTM_NEWROUTE).family(routeHeader(16, RTPROT_STATIC, RT_SCOPE_UNIVERSE));
    b.ip(RTA_DST, 10, 1, 0, 0).u32(RTA_PRIORITY, 20).u32(RTA_TABLE, RT_TABLE_MAIN);
    size_t n = b.openNest(RTA_MULTIPATH);
    addHop(b, 2, 0, gw1);
    addHop(b, 3, RTNH_F_DEAD, gw2);
    b.closeNest(n);
    b.end();

    std::vector<NextHop> hops(1);  // records point into a shared hop list
    RouteRecord r;
    ASSERT_TRUE(parseRoute(b.msg(), r, hops));
    ASSERT_TRUE(routeListed(r));
    EXPECT_EQ(r.firstHop, 1u);
    ASSERT_EQ(r.hopCount, 2u);
    message m;
    routeToMessage(r, hops.data() + r.firstHop, 11, m);
    EXPECT_EQ(m.get(u32_id(0xfe0001)), 11u);
    EXPECT_EQ(m.get(be32_id(0x1)), 0x0A010000u);
    EXPECT_EQ(m.get(be32_id(0x2)), 0xFFFF0000u);
    EXPECT_EQ(m.get(u32_id(0x8)), 20u);
    EXPECT_EQ(m.get(u32_id(0x7)), 3u);
    EXPECT_EQ(m.get(be32_array_id(0x88000004)), (u32_vector{0x0A000002u, 0x0A000003u}));
    EXPECT_EQ(m.get(u32_array_id(0x88000005)), (u32_vector{2, 3}));
    EXPECT_EQ(m.get(u32_array_id(0x88000006)), (u32_vector{1, 0}));
}

TEST(LinuxNetlinkRoute, ConnectedSubnetNamesTheLocalAddress) {
    NlBuilder b;
    b.begin(RTM_NEWROUTE).family(routeHeader(24, RTPROT_KERNEL, RT_SCOPE_LINK));
    b.ip(RTA_DST, 10, 0, 0, 0).ip(RTA_PREFSRC, 10, 0, 0, 1).u32(RTA_OIF, 2).end();
    std::vector<NextHop> hops;
    RouteRecord r;
    ASSERT_TRUE(parseRoute(b.msg(), r, hops));
    message m;
    routeToMessage(r, hops.data() + r.firstHop, 1, m);
    EXPECT_EQ(m.get(u32_id(0x7)), 2u);
    EXPECT_EQ(m.get(be32_id(0x3)), 0x0A000001u);
    EXPECT_EQ(m.get(u32_array_id(0x88000005)), (u32_vector{2}));
    EXPECT_FALSE(m.has(be32_array_id(0x88000004)));
}

TEST(LinuxNetlinkRoute, DefaultRouteViaGatewayAndProtocolKinds) {
    NlBuilder b;
    b.begin(RTM_NEWROUTE).family(routeHeader(0, RTPROT_BOOT, RT_SCOPE_UNIVERSE));
    b.ip(RTA_GATEWAY, 192, 168, 1, 254).u32(RTA_OIF, 5).end();
    std::vector<NextHop> hops;
    RouteRecord r;
    ASSERT_TRUE(parseRoute(b.msg(), r, hops));
    message m;
    routeToMessage(r, hops.data(), 1, m);
    EXPECT_EQ(m.get(be32_id(0x1), 1), 0u);
    EXPECT_EQ(m.get(be32_id(0x2), 1), 0u);
    EXPECT_EQ(m.get(u32_id(0x7)), 3u);
    EXPECT_EQ(m.get(be32_array_id(0x88000004)), (u32_vector{0xC0A801FEu}));
    EXPECT_EQ(m.get(u32_array_id(0x88000005)), (u32_vector{5}));
    EXPECT_EQ(m.get(u32_array_id(0x88000006)), (u32_vector{1}));

    RouteRecord k;
    k.scope = RT_SCOPE_UNIVERSE;
    k.protocol = RTPROT_OSPF;
    EXPECT_EQ(routeKind(k), 6u);
    k.protocol = RTPROT_BGP;
    EXPECT_EQ(routeKind(k), 8u);
    k.protocol = RTPROT_RIP;
    EXPECT_EQ(routeKind(k), 4u);
    k.protocol = RTPROT_DHCP;
    EXPECT_EQ(routeKind(k), 3u);
}

TEST(LinuxNetlinkRoute, OnlyUnicastRoutesOfTheMainTableAreListed) {
    std::vector<NextHop> hops;
    RouteRecord r;
    NlBuilder local;
    local.begin(RTM_NEWROUTE).family(routeHeader(32, RTPROT_KERNEL, RT_SCOPE_HOST, RTN_LOCAL, RT_TABLE_LOCAL)).end();
    ASSERT_TRUE(parseRoute(local.msg(), r, hops));
    EXPECT_FALSE(routeListed(r));

    NlBuilder other;
    other.begin(RTM_NEWROUTE).family(routeHeader(8, RTPROT_STATIC, RT_SCOPE_UNIVERSE, RTN_UNICAST, 0));
    other.u32(RTA_TABLE, 100).end();
    ASSERT_TRUE(parseRoute(other.msg(), r, hops));
    EXPECT_EQ(r.table, 100u);
    EXPECT_FALSE(routeListed(r));

    NlBuilder blackhole;
    blackhole.begin(RTM_NEWROUTE).family(routeHeader(8, RTPROT_STATIC, RT_SCOPE_UNIVERSE, RTN_BLACKHOLE)).end();
    ASSERT_TRUE(parseRoute(blackhole.msg(), r, hops));
    EXPECT_FALSE(routeListed(r));

    rtmsg v6 = routeHeader(64, RTPROT_STATIC, RT_SCOPE_UNIVERSE);
    v6.rtm_family = AF_INET6;
    NlBuilder six;
    six.begin(RTM_NEWROUTE).family(v6).end();
    EXPECT_FALSE(parseRoute(six.msg(), r, hops));
}

TEST(LinuxNetlinkRoute, TruncatedMultipathKeepsTheWholeHopsOnly) {
    const uint8_t gw[4] = {10, 0, 0, 2};
    NlBuilder b;
    b.begin(RTM_NEWROUTE).family(routeHeader(16, RTPROT_STATIC, RT_SCOPE_UNIVERSE));
    size_t n = b.openNest(RTA_MULTIPATH);
    addHop(b, 2, 0, gw);
    rtnexthop bad;
    std::memset(&bad, 0, sizeof bad);
    bad.rtnh_len = 100;  // more than is left
    bad.rtnh_ifindex = 9;
    b.raw(&bad, sizeof bad);
    b.closeNest(n);
    b.end();
    std::vector<NextHop> hops;
    RouteRecord r;
    ASSERT_TRUE(parseRoute(b.msg(), r, hops));
    ASSERT_EQ(r.hopCount, 1u);
    EXPECT_EQ(hops[0].gateway, 0x0A000002u);
    EXPECT_EQ(hops[0].ifindex, 2u);

    // A hop whose gateway attribute overruns the hop is kept without gateway.
    NlBuilder c;
    c.begin(RTM_NEWROUTE).family(routeHeader(16, RTPROT_STATIC, RT_SCOPE_UNIVERSE));
    n = c.openNest(RTA_MULTIPATH);
    rtnexthop nh;
    std::memset(&nh, 0, sizeof nh);
    nh.rtnh_len = sizeof nh + 6;
    nh.rtnh_ifindex = 4;
    c.raw(&nh, sizeof nh);
    rtattr gwa;
    gwa.rta_type = RTA_GATEWAY;
    gwa.rta_len = 8;  // says 8, the hop leaves 6
    c.raw(&gwa, sizeof gwa).raw(gw, 2);
    c.closeNest(n);
    c.end();
    hops.clear();
    ASSERT_TRUE(parseRoute(c.msg(), r, hops));
    ASSERT_EQ(r.hopCount, 1u);
    EXPECT_EQ(hops[0].gateway, 0u);
    EXPECT_EQ(hops[0].ifindex, 4u);
}
