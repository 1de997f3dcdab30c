#include "platform/linux_netlink.h"

#include <errno.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace tn {

uint32_t be32FromBytes(const uint8_t* b) {
    return (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | uint32_t(b[3]);
}

uint32_t prefixToMask(unsigned len) {
    if (len == 0) return 0;
    if (len >= 32) return 0xFFFFFFFFu;
    return 0xFFFFFFFFu << (32 - len);
}

namespace {

// Attribute payload helpers: a payload shorter than wanted leaves the
// output untouched and reports false.
bool attrU32(const rtattr* a, uint32_t& out) {
    if (RTA_PAYLOAD(a) < sizeof(uint32_t)) return false;
    std::memcpy(&out, RTA_DATA(a), sizeof(uint32_t));
    return true;
}

bool attrIPv4(const rtattr* a, uint32_t& out) {
    if (RTA_PAYLOAD(a) < 4) return false;
    out = be32FromBytes(static_cast<const uint8_t*>(RTA_DATA(a)));
    return true;
}

void attrString(const rtattr* a, char* out, size_t cap) {
    size_t n = RTA_PAYLOAD(a);
    const char* s = static_cast<const char*>(RTA_DATA(a));
    size_t i = 0;
    while (i < n && i + 1 < cap && s[i] != '\0') {
        out[i] = s[i];
        ++i;
    }
    out[i] = '\0';
}

void attrBytes(const rtattr* a, uint8_t* out, uint8_t& outLen, size_t cap) {
    size_t n = std::min<size_t>(RTA_PAYLOAD(a), cap);
    std::memcpy(out, RTA_DATA(a), n);
    outLen = uint8_t(n);
}

// The fixed family header of a message, or null when the message is too
// short to hold it.
template <class T>
bool familyHeader(const nlmsghdr* h, T& out) {
    if (h->nlmsg_len < NLMSG_LENGTH(sizeof(T))) return false;
    std::memcpy(&out, NLMSG_DATA(h), sizeof(T));
    return true;
}

// Attributes that follow a family header of hdrLen bytes.
const rtattr* firstAttr(const nlmsghdr* h, size_t hdrLen, int& len) {
    len = int(h->nlmsg_len) - int(NLMSG_LENGTH(hdrLen));
    if (len < 0) len = 0;
    return reinterpret_cast<const rtattr*>(static_cast<const char*>(NLMSG_DATA(h)) + NLMSG_ALIGN(hdrLen));
}

void copyStats64(const rtattr* a, LinkStats& s) {
    rtnl_link_stats64 k;
    std::memset(&k, 0, sizeof k);
    std::memcpy(&k, RTA_DATA(a), std::min<size_t>(RTA_PAYLOAD(a), sizeof k));
    s.rxPackets = k.rx_packets;
    s.txPackets = k.tx_packets;
    s.rxBytes = k.rx_bytes;
    s.txBytes = k.tx_bytes;
    s.rxErrors = k.rx_errors;
    s.txErrors = k.tx_errors;
    s.rxDropped = k.rx_dropped;
    s.txDropped = k.tx_dropped;
    s.multicast = k.multicast;
}

void copyStats32(const rtattr* a, LinkStats& s) {
    rtnl_link_stats k;
    std::memset(&k, 0, sizeof k);
    std::memcpy(&k, RTA_DATA(a), std::min<size_t>(RTA_PAYLOAD(a), sizeof k));
    s.rxPackets = k.rx_packets;
    s.txPackets = k.tx_packets;
    s.rxBytes = k.rx_bytes;
    s.txBytes = k.tx_bytes;
    s.rxErrors = k.rx_errors;
    s.txErrors = k.tx_errors;
    s.rxDropped = k.rx_dropped;
    s.txDropped = k.tx_dropped;
    s.multicast = k.multicast;
}

}  // namespace

bool parseLink(const nlmsghdr* h, LinkRecord& out) {
    if (h->nlmsg_type != RTM_NEWLINK && h->nlmsg_type != RTM_DELLINK) return false;
    ifinfomsg ifi;
    if (!familyHeader(h, ifi)) return false;
    out = LinkRecord();
    out.index = uint32_t(ifi.ifi_index);
    out.flags = ifi.ifi_flags;
    out.arpType = ifi.ifi_type;
    out.family = ifi.ifi_family;
    int len;
    bool have64 = false;
    const rtattr* infoData = nullptr;
    for (const rtattr* a = firstAttr(h, sizeof ifi, len); RTA_OK(a, len); a = RTA_NEXT(a, len)) {
        switch (a->rta_type) {
        case IFLA_IFNAME: attrString(a, out.name, sizeof out.name); break;
        case IFLA_MTU: attrU32(a, out.mtu); break;
        case IFLA_LINK: attrU32(a, out.parent); break;
        case IFLA_MASTER: attrU32(a, out.master); break;
        case IFLA_OPERSTATE:
            if (RTA_PAYLOAD(a) >= 1) out.operState = *static_cast<const uint8_t*>(RTA_DATA(a));
            break;
        case IFLA_ADDRESS: attrBytes(a, out.mac, out.macLen, sizeof out.mac); break;
        case IFLA_STATS64:
            copyStats64(a, out.stats);
            out.hasStats = have64 = true;
            break;
        case IFLA_STATS:
            if (!have64) {
                copyStats32(a, out.stats);
                out.hasStats = true;
            }
            break;
        case IFLA_LINKINFO: {
            int ilen = int(RTA_PAYLOAD(a));
            for (const rtattr* i = static_cast<const rtattr*>(RTA_DATA(a)); RTA_OK(i, ilen); i = RTA_NEXT(i, ilen)) {
                if (i->rta_type == IFLA_INFO_KIND) attrString(i, out.kind, sizeof out.kind);
                else if (i->rta_type == IFLA_INFO_DATA) infoData = i;
            }
            break;
        }
        default: break;
        }
    }
    // The driver's own attributes follow the kind; only a bridge's are read.
    if (infoData && std::strcmp(out.kind, "bridge") == 0) {
        int dlen = int(RTA_PAYLOAD(infoData));
        for (const rtattr* d = static_cast<const rtattr*>(RTA_DATA(infoData)); RTA_OK(d, dlen); d = RTA_NEXT(d, dlen)) {
            if (d->rta_type == IFLA_BR_PRIORITY && RTA_PAYLOAD(d) >= sizeof(uint16_t)) {
                std::memcpy(&out.bridgePriority, RTA_DATA(d), sizeof(uint16_t));
                out.hasBridgePriority = true;
            }
        }
    }
    return true;
}

bool parseAddr(const nlmsghdr* h, AddrRecord& out) {
    if (h->nlmsg_type != RTM_NEWADDR && h->nlmsg_type != RTM_DELADDR) return false;
    ifaddrmsg ifa;
    if (!familyHeader(h, ifa) || ifa.ifa_family != AF_INET) return false;
    out = AddrRecord();
    out.index = ifa.ifa_index;
    out.prefixLen = ifa.ifa_prefixlen;
    bool haveLocal = false, haveAddress = false;
    uint32_t local = 0, address = 0;
    int len;
    for (const rtattr* a = firstAttr(h, sizeof ifa, len); RTA_OK(a, len); a = RTA_NEXT(a, len)) {
        // IFA_LOCAL is the interface's own address; IFA_ADDRESS is the
        // peer on point-to-point links, so it is only the fallback.
        if (a->rta_type == IFA_LOCAL) haveLocal = attrIPv4(a, local);
        else if (a->rta_type == IFA_ADDRESS) haveAddress = attrIPv4(a, address);
    }
    if (!haveLocal && !haveAddress) return false;
    out.address = haveLocal ? local : address;
    return true;
}

namespace {
bool parseNdmsg(const nlmsghdr* h, NeighRecord& out, uint8_t family) {
    if (h->nlmsg_type != RTM_NEWNEIGH && h->nlmsg_type != RTM_DELNEIGH) return false;
    ndmsg nd;
    if (!familyHeader(h, nd) || nd.ndm_family != family) return false;
    out = NeighRecord();
    out.index = uint32_t(nd.ndm_ifindex);
    out.state = nd.ndm_state;
    out.flags = nd.ndm_flags;
    int len;
    for (const rtattr* a = firstAttr(h, sizeof nd, len); RTA_OK(a, len); a = RTA_NEXT(a, len)) {
        switch (a->rta_type) {
        case NDA_DST:
            if (family == AF_INET) out.hasAddress = attrIPv4(a, out.address);
            break;
        case NDA_LLADDR: attrBytes(a, out.mac, out.macLen, sizeof out.mac); break;
        case NDA_MASTER: attrU32(a, out.master); break;
        default: break;
        }
    }
    return true;
}
}  // namespace

bool parseNeigh(const nlmsghdr* h, NeighRecord& out) {
    return parseNdmsg(h, out, AF_INET) && out.hasAddress;
}

bool parseFdb(const nlmsghdr* h, NeighRecord& out) { return parseNdmsg(h, out, AF_BRIDGE); }

bool parseRoute(const nlmsghdr* h, RouteRecord& out, std::vector<NextHop>& hops) {
    if (h->nlmsg_type != RTM_NEWROUTE && h->nlmsg_type != RTM_DELROUTE) return false;
    rtmsg rt;
    if (!familyHeader(h, rt) || rt.rtm_family != AF_INET) return false;
    out = RouteRecord();
    out.dstLen = rt.rtm_dst_len;
    out.protocol = rt.rtm_protocol;
    out.scope = rt.rtm_scope;
    out.type = rt.rtm_type;
    out.flags = rt.rtm_flags;
    out.table = rt.rtm_table;
    out.firstHop = uint32_t(hops.size());
    NextHop single;
    bool haveSingle = false;
    const rtattr* multipath = nullptr;
    int len;
    for (const rtattr* a = firstAttr(h, sizeof rt, len); RTA_OK(a, len); a = RTA_NEXT(a, len)) {
        switch (a->rta_type) {
        case RTA_DST: attrIPv4(a, out.dest); break;
        case RTA_TABLE: attrU32(a, out.table); break;
        case RTA_PRIORITY: attrU32(a, out.metric); break;
        case RTA_PREFSRC: attrIPv4(a, out.prefsrc); break;
        case RTA_GATEWAY: haveSingle |= attrIPv4(a, single.gateway); break;
        case RTA_OIF: haveSingle |= attrU32(a, single.ifindex); break;
        case RTA_MULTIPATH: multipath = a; break;
        default: break;
        }
    }
    if (multipath) {
        const uint8_t* p = static_cast<const uint8_t*>(RTA_DATA(multipath));
        size_t left = RTA_PAYLOAD(multipath);
        while (left >= sizeof(rtnexthop)) {
            rtnexthop nh;
            std::memcpy(&nh, p, sizeof nh);
            if (nh.rtnh_len < sizeof nh || nh.rtnh_len > left) break;
            NextHop hop;
            hop.ifindex = uint32_t(nh.rtnh_ifindex);
            hop.active = (nh.rtnh_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) == 0;
            int alen = int(nh.rtnh_len - sizeof nh);
            for (const rtattr* a = reinterpret_cast<const rtattr*>(p + RTNH_ALIGN(sizeof nh)); RTA_OK(a, alen);
                 a = RTA_NEXT(a, alen))
                if (a->rta_type == RTA_GATEWAY) attrIPv4(a, hop.gateway);
            hops.push_back(hop);
            size_t step = RTNH_ALIGN(nh.rtnh_len);
            if (step >= left) break;
            p += step;
            left -= step;
        }
    } else if (haveSingle) {
        single.active = (rt.rtm_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) == 0;
        hops.push_back(single);
    }
    out.hopCount = uint32_t(hops.size()) - out.firstHop;
    return true;
}

size_t forEachMessage(const void* buf, size_t len, const std::function<bool(const nlmsghdr*)>& fn) {
    size_t n = 0;
    unsigned int left = unsigned(std::min<size_t>(len, 0x7FFFFFFF));
    for (const nlmsghdr* h = static_cast<const nlmsghdr*>(buf); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
        ++n;
        if (!fn(h)) break;
    }
    return n;
}

// ---------------------------------------------------------------------------

NetlinkSocket::~NetlinkSocket() { close(); }

void NetlinkSocket::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool NetlinkSocket::open(uint32_t groups, std::string* err) {
    close();
    int type = SOCK_RAW | SOCK_CLOEXEC | (groups ? SOCK_NONBLOCK : 0);
    fd_ = ::socket(AF_NETLINK, type, NETLINK_ROUTE);
    if (fd_ < 0) {
        if (err) *err = std::string("netlink socket: ") + strerror(errno);
        return false;
    }
    int rcv = groups ? (1 << 20) : (1 << 19);
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcv, sizeof rcv);
    if (!groups) {
        timeval tv{2, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    sockaddr_nl sa;
    std::memset(&sa, 0, sizeof sa);
    sa.nl_family = AF_NETLINK;
    sa.nl_groups = groups;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        if (err) *err = std::string("netlink bind: ") + strerror(errno);
        close();
        return false;
    }
    socklen_t sl = sizeof sa;
    if (getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &sl) == 0) portId_ = sa.nl_pid;
    buf_.resize(64 * 1024);
    return true;
}

bool NetlinkSocket::sendRaw(uint16_t type, uint16_t flags, const void* payload, size_t len, uint32_t& seq) {
    std::vector<uint8_t> msg(NLMSG_SPACE(len), 0);
    nlmsghdr h;
    std::memset(&h, 0, sizeof h);
    h.nlmsg_len = uint32_t(NLMSG_LENGTH(len));
    h.nlmsg_type = type;
    h.nlmsg_flags = flags;
    seq = ++seq_;
    h.nlmsg_seq = seq;
    std::memcpy(msg.data(), &h, sizeof h);
    if (len) std::memcpy(msg.data() + NLMSG_HDRLEN, payload, len);
    sockaddr_nl sa;
    std::memset(&sa, 0, sizeof sa);
    sa.nl_family = AF_NETLINK;
    for (;;) {
        ssize_t r = sendto(fd_, msg.data(), h.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
        if (r >= 0) return true;
        if (errno != EINTR) return false;
    }
}

bool NetlinkSocket::receiveUntilDone(uint32_t seq, bool multi, const std::function<void(const nlmsghdr*)>& fn,
                                     int* errnoOut, std::string* err) {
    for (;;) {
        ssize_t r = recv(fd_, buf_.data(), buf_.size(), MSG_TRUNC);
        if (r < 0) {
            if (errno == EINTR) continue;
            if (err) *err = std::string("netlink receive: ") + strerror(errno);
            return false;
        }
        if (size_t(r) > buf_.size()) {
            if (err) *err = "netlink receive: message larger than the buffer";
            return false;
        }
        bool done = false, failed = false;
        forEachMessage(buf_.data(), size_t(r), [&](const nlmsghdr* h) {
            // Leftovers of an earlier, abandoned exchange are skipped.
            if (h->nlmsg_seq != seq || (h->nlmsg_pid != 0 && h->nlmsg_pid != portId_)) return true;
            if (h->nlmsg_type == NLMSG_DONE) {
                done = true;
                return false;
            }
            if (h->nlmsg_type == NLMSG_ERROR) {
                nlmsgerr e;
                if (h->nlmsg_len < NLMSG_LENGTH(sizeof(int))) {
                    failed = true;
                } else {
                    std::memset(&e, 0, sizeof e);
                    std::memcpy(&e, NLMSG_DATA(h), std::min<size_t>(sizeof e, h->nlmsg_len - NLMSG_HDRLEN));
                    if (e.error != 0) {
                        failed = true;
                        if (errnoOut) *errnoOut = -e.error;
                        if (err) *err = std::string("netlink: ") + strerror(-e.error);
                    }
                }
                done = true;
                return false;
            }
            fn(h);
            if (!multi && !(h->nlmsg_flags & NLM_F_MULTI)) {
                done = true;
                return false;
            }
            return true;
        });
        if (failed) return false;
        if (done) return true;
    }
}

bool NetlinkSocket::dump(uint16_t type, const void* hdr, size_t hdrLen, const std::function<void(const nlmsghdr*)>& fn,
                         std::string* err) {
    if (fd_ < 0 && !open(0, err)) return false;
    uint32_t seq;
    if (!sendRaw(type, NLM_F_REQUEST | NLM_F_DUMP, hdr, hdrLen, seq)) {
        if (err) *err = std::string("netlink send: ") + strerror(errno);
        return false;
    }
    return receiveUntilDone(seq, true, fn, nullptr, err);
}

bool NetlinkSocket::request(uint16_t type, uint16_t flags, const void* payload, size_t len,
                            const std::function<void(const nlmsghdr*)>& fn, int* errnoOut, std::string* err) {
    if (fd_ < 0 && !open(0, err)) return false;
    uint32_t seq;
    if (!sendRaw(type, uint16_t(NLM_F_REQUEST | flags), payload, len, seq)) {
        if (err) *err = std::string("netlink send: ") + strerror(errno);
        return false;
    }
    return receiveUntilDone(seq, false, fn, errnoOut, err);
}

bool NetlinkSocket::drain(const std::function<void(const nlmsghdr*)>& fn, bool* overrun) {
    if (overrun) *overrun = false;
    for (int rounds = 0; rounds < 1024; ++rounds) {
        ssize_t r = recv(fd_, buf_.data(), buf_.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (r < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
            if (errno == ENOBUFS) {
                if (overrun) *overrun = true;
                continue;
            }
            return false;
        }
        if (size_t(r) > buf_.size()) continue;  // a truncated notice cannot be parsed
        forEachMessage(buf_.data(), size_t(r), [&](const nlmsghdr* h) {
            if (h->nlmsg_type != NLMSG_DONE && h->nlmsg_type != NLMSG_ERROR && h->nlmsg_type != NLMSG_NOOP) fn(h);
            return true;
        });
    }
    return true;
}

}  // namespace tn
