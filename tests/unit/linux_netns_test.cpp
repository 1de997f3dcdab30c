// The Linux backend against a real kernel: a network namespace of our own
// with veth pairs, a bridge with a port, addresses, a static neighbour,
// forwarding entries and routes (one multipath), compared with what `ip`
// and `bridge` report. Skipped where namespaces cannot be created.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "platform/linux_backend.h"
#include "tn/looper.h"

using namespace tn;
using nlohmann::json;

namespace {

std::string run(const std::string& cmd, int* status = nullptr) {
    std::string out;
    FILE* p = popen((cmd + " 2>/dev/null").c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    int st = pclose(p);
    if (status) *status = st;
    return out;
}

bool sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

json ipJson(const std::string& args) {
    json j = json::parse(run(args), nullptr, false);
    return j.is_discarded() ? json::array() : j;
}

uint32_t be32(const std::string& dotted) {
    unsigned a, b, c, d;
    if (std::sscanf(dotted.c_str(), "%u.%u.%u.%u", &a, &b, &c, &d) != 4) return 0;
    return (a << 24) | (b << 16) | (c << 8) | d;
}

std::string macText(const std::vector<uint8_t>& m) {
    std::string s;
    char b[4];
    for (size_t i = 0; i < m.size(); ++i) {
        std::snprintf(b, sizeof b, i ? ":%02x" : "%02x", m[i]);
        s += b;
    }
    return s;
}

// Enters a fresh network and UTS namespace for the whole suite and goes
// back to the original ones afterwards.
class Namespace {
public:
    bool enter(std::string& why) {
        origNet_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        origUts_ = open("/proc/self/ns/uts", O_RDONLY | O_CLOEXEC);
        if (origNet_ < 0 || origUts_ < 0) {
            why = "cannot open the current namespaces";
            return false;
        }
        if (unshare(CLONE_NEWNET | CLONE_NEWUTS) != 0) {
            why = std::string("unshare(CLONE_NEWNET) not permitted: ") + strerror(errno);
            return false;
        }
        inside_ = true;
        return true;
    }
    ~Namespace() {
        if (inside_) {
            setns(origNet_, CLONE_NEWNET);
            setns(origUts_, CLONE_NEWUTS);
        }
        if (origNet_ >= 0) close(origNet_);
        if (origUts_ >= 0) close(origUts_);
    }

private:
    int origNet_ = -1, origUts_ = -1;
    bool inside_ = false;
};

}  // namespace

class LinuxNetns : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!sh("ip -V")) {
            skip_ = "the ip tool is not installed";
            return;
        }
        ns_ = new Namespace;
        if (!ns_->enter(skip_)) return;
        // veth pairs stand in for physical ports; dummy and VLAN devices
        // need modules that not every host has.
        bool ok = sh("ip link set lo up") && sh("ip link add v0 type veth peer name v1") &&
                  sh("ip link add v2 type veth peer name v3") && sh("ip link add br0 type bridge priority 12288") &&
                  sh("ip link set v0 master br0") && sh("ip link set v0 up") && sh("ip link set v1 up") &&
                  sh("ip link set br0 up") && sh("ip link set v2 up") && sh("ip link set v3 up") &&
                  sh("ip addr add 10.0.0.1/24 dev v1") && sh("ip addr add 10.9.0.1/16 dev v1") &&
                  sh("ip addr add 192.168.5.1/24 dev br0") &&
                  sh("ip neigh add 10.0.0.9 lladdr 02:00:00:00:00:09 dev v1 nud permanent") &&
                  sh("ip route add 10.1.0.0/16 nexthop via 10.0.0.2 dev v1 nexthop via 10.0.0.3 dev v1") &&
                  sh("ip route add 10.2.0.0/16 via 10.0.0.4 metric 30") &&
                  sh("bridge fdb add 02:00:00:00:00:77 dev v0 master static");
        if (!ok) {
            skip_ = "could not build the test network (veth/bridge not supported here?)";
            return;
        }
        hasVlan_ = sh("ip link add link v1 name v1.5 type vlan id 5");
        ready_ = true;
    }
    static void TearDownTestSuite() {
        delete ns_;  // the namespace and its devices go with it
        ns_ = nullptr;
    }

    void SetUp() override {
        if (!ready_) GTEST_SKIP() << skip_;
        opts.linkEvents = false;
    }

    void start() {
        std::string err;
        backend = registerLinuxBackend(looper, opts, &err);
        ASSERT_TRUE(backend) << err;
    }

    // Every object of a list, following continuations.
    std::vector<message> listAll(const u32_vector& path, uint32_t cmd = CMD_GET_ALL, int* pages = nullptr) {
        std::vector<message> all;
        message req;
        req.insert(u32_array_id(F_PATH), path);
        req.insert(u32_id(F_COMMAND), cmd);
        req.insert(u32_id(F_SELECTOR), 5u);
        int n = 0;
        for (; n < 1000; ++n) {
            message r = looper.exchangeMessage(req, 2000);
            EXPECT_FALSE(isError(r)) << getError(r);
            if (isError(r)) break;
            for (message& o : r.get(message_array_id(F_OBJECTS))) all.push_back(o);
            if (!r.has(u32_id(F_START))) break;
            req.insert(u32_id(F_START), r.get(u32_id(F_START)));
        }
        if (pages) *pages = n + 1;
        return all;
    }

    uint32_t ifindex(const std::string& name) {
        json j = ipJson("ip -j link show dev " + name);
        return j.empty() ? 0 : j[0]["ifindex"].get<uint32_t>();
    }

    static Namespace* ns_;
    static std::string skip_;
    static bool ready_;
    static bool hasVlan_;
    LinuxBackendOptions opts;
    Looper looper;
    std::unique_ptr<LinuxBackend> backend;
};

Namespace* LinuxNetns::ns_ = nullptr;
std::string LinuxNetns::skip_;
bool LinuxNetns::ready_ = false;
bool LinuxNetns::hasVlan_ = false;

TEST_F(LinuxNetns, InterfacesMatchIpLink) {
    opts.pageSize = 2;  // several pages even for a handful of links
    start();
    int pages = 0;
    std::vector<message> objs = listAll({20, 0}, CMD_GET_ALL, &pages);
    json links = ipJson("ip -j -d link show");
    ASSERT_EQ(objs.size(), links.size());
    EXPECT_GE(pages, 3);

    std::map<uint32_t, message> byIndex;
    for (const message& o : objs) byIndex[o.get(u32_id(F_OBJ_ID))] = o;
    ASSERT_EQ(byIndex.size(), objs.size());  // no object twice across pages

    for (const json& l : links) {
        uint32_t idx = l["ifindex"].get<uint32_t>();
        ASSERT_TRUE(byIndex.count(idx)) << idx;
        const message& o = byIndex[idx];
        std::string name = l["ifname"].get<std::string>();
        EXPECT_EQ(o.get(string_id(0x10006)), name);
        EXPECT_EQ(o.get(u32_id(0x10064)), l["mtu"].get<uint32_t>()) << name;
        if (l.contains("address")) {
            EXPECT_EQ(macText(o.get(raw_id(0x300003e9))), l["address"].get<std::string>()) << name;
        }
        std::set<std::string> flags;
        for (const json& f : l["flags"]) flags.insert(f.get<std::string>());
        bool up = flags.count("UP") != 0;
        std::string oper = l["operstate"].get<std::string>();
        bool running = up && (oper == "UP" || oper == "UNKNOWN");
        EXPECT_EQ(o.get(bool_id(0xfe000a)), !up) << name;
        EXPECT_EQ(o.get(bool_id(0x1000e)), running) << name;
        EXPECT_EQ(o.get(u32_id(0x10003)), (up ? 0x100u : 0u) | (running ? 0x400u : 0u)) << name;
        EXPECT_EQ(o.get(u32_id(0x10002), 1), 0u);

        std::string kind = l.contains("linkinfo") ? l["linkinfo"].value("info_kind", "") : "";
        uint32_t expect = kind == "bridge" ? 12 : kind == "vlan" ? 30 : l["link_type"] == "loopback" ? 0 : 1;
        EXPECT_EQ(o.get(u32_id(0x10001), 99), expect) << name;
        if (kind == "bridge") {
            EXPECT_EQ(o.get(u32_id(0x2), 1), l["linkinfo"]["info_data"]["priority"].get<uint32_t>());
        }
        if (kind == "vlan") {
            EXPECT_EQ(o.get(u32_id(0x7d2)), ifindex("v1"));
        }
    }
    EXPECT_EQ(hasVlan_, byIndex.count(ifindex("v1.5")) == 1 && ifindex("v1.5") != 0);

    // The link-state listing (command 1) gives the same interfaces.
    EXPECT_EQ(listAll({20, 0}, 1).size(), objs.size());
    message count;
    count.insert(u32_array_id(F_PATH), u32_vector{20, 0});
    count.insert(u32_id(F_COMMAND), uint32_t(CMD_COUNT));
    EXPECT_EQ(looper.exchangeMessage(count, 2000).get(u32_id(F_TOTAL)), uint32_t(objs.size()));
}

TEST_F(LinuxNetns, CountersOfOneInterfaceLieBetweenTwoReadingsOfIp) {
    start();
    // A datagram to an unresolved neighbour makes v1 send an ARP request,
    // so that its counters are not all zero.
    int u = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(u, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    to.sin_addr.s_addr = htonl(0x0A00004Du);  // 10.0.0.77
    sendto(u, "x", 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    close(u);
    uint32_t v1 = ifindex("v1");
    ASSERT_NE(v1, 0u);
    json before = ipJson("ip -j -s link show dev v1");
    message req;
    req.insert(u32_array_id(F_PATH), u32_vector{20, 0});
    req.insert(u32_id(F_COMMAND), uint32_t(CMD_GET_OBJ));
    req.insert(u32_id(F_OBJ_ID), v1);
    req.insert(u32_id(F_SELECTOR), 256u);
    message r = looper.exchangeMessage(req, 2000);
    json after = ipJson("ip -j -s link show dev v1");
    ASSERT_FALSE(isError(r)) << getError(r);
    ASSERT_FALSE(before.empty());
    ASSERT_FALSE(after.empty());
    EXPECT_EQ(r.get(string_id(0x10006)), "v1");
    auto between = [&](uint64_t v, const char* dir, const char* key) {
        uint64_t lo = before[0]["stats64"][dir][key].get<uint64_t>();
        uint64_t hi = after[0]["stats64"][dir][key].get<uint64_t>();
        EXPECT_LE(lo, v) << dir << " " << key;
        EXPECT_GE(hi, v) << dir << " " << key;
    };
    between(r.get(u64_id(0x100100fc)), "rx", "bytes");
    between(r.get(u64_id(0x100100fd)), "tx", "bytes");
    between(r.get(u64_id(0x100100ff)), "tx", "packets");
    EXPECT_GT(r.get(u64_id(0x100100fd)), 0u);
    EXPECT_TRUE(r.has(u32_id(0x100fa)) && r.has(u32_id(0x100fb)) && r.has(u32_id(0x100f8)) && r.has(u32_id(0x100f9)));

    // Without the selector the object comes without counters; an unknown
    // index is an object that does not exist.
    req.remove_key(u32_id(F_SELECTOR).key);
    message plain = looper.exchangeMessage(req, 2000);
    EXPECT_EQ(plain.get(u32_id(F_OBJ_ID)), v1);
    EXPECT_FALSE(plain.has(u64_id(0x100100fc)));
    req.insert(u32_id(F_OBJ_ID), 999999u);
    EXPECT_EQ(looper.exchangeMessage(req, 2000).get(u32_id(F_NOT_EXIST)), 1u);
}

TEST_F(LinuxNetns, AddressesAndNeighboursMatchIp) {
    opts.pageSize = 1;
    start();
    std::set<std::tuple<uint32_t, uint32_t, uint32_t>> ours, theirs;
    for (const message& o : listAll({20, 1}))
        ours.insert({o.get(u32_id(0x5)), o.get(be32_id(0x1)), o.get(be32_id(0x3))});
    for (const json& l : ipJson("ip -j -4 addr show"))
        for (const json& a : l["addr_info"]) {
            unsigned len = a["prefixlen"].get<unsigned>();
            theirs.insert({l["ifindex"].get<uint32_t>(), be32(a["local"].get<std::string>()),
                           len ? 0xFFFFFFFFu << (32 - len) : 0u});
        }
    EXPECT_EQ(ours, theirs);
    EXPECT_TRUE(ours.count({ifindex("v1"), 0x0A090001u, 0xFFFF0000u}));

    bool found = false;
    for (const message& o : listAll({20, 8})) {
        if (o.get(be32_id(0x1)) != be32("10.0.0.9")) continue;
        found = true;
        EXPECT_EQ(o.get(u32_id(0x3)), ifindex("v1"));
        EXPECT_EQ(macText(o.get(raw_id(0x30000002))), "02:00:00:00:00:09");
        EXPECT_FALSE(o.get(bool_id(0xfe0007), true));  // permanent, not learned
        EXPECT_FALSE(o.get(bool_id(0xfe0008)));
    }
    EXPECT_TRUE(found);
}

TEST_F(LinuxNetns, RoutesMatchIpRouteIncludingMultipath) {
    start();
    std::vector<message> routes = listAll({44, 1});
    json ip = ipJson("ip -j -4 route show table main");
    EXPECT_EQ(routes.size(), ip.size());
    std::map<std::pair<uint32_t, uint32_t>, message> byDest;
    for (const message& r : routes) byDest[{r.get(be32_id(0x1)), r.get(be32_id(0x2))}] = r;
    uint32_t v1 = ifindex("v1");

    const message& mp = byDest[{0x0A010000u, 0xFFFF0000u}];
    EXPECT_EQ(mp.get(u32_id(0x7)), 3u);
    EXPECT_EQ(mp.get(be32_array_id(0x88000004)), (u32_vector{0x0A000002u, 0x0A000003u}));
    EXPECT_EQ(mp.get(u32_array_id(0x88000005)), (u32_vector{v1, v1}));
    EXPECT_EQ(mp.get(u32_array_id(0x88000006)), (u32_vector{1, 1}));

    const message& st = byDest[{0x0A020000u, 0xFFFF0000u}];
    EXPECT_EQ(st.get(u32_id(0x8)), 30u);
    EXPECT_EQ(st.get(be32_array_id(0x88000004)), (u32_vector{0x0A000004u}));

    const message& conn = byDest[{0x0A000000u, 0xFFFFFF00u}];
    EXPECT_EQ(conn.get(u32_id(0x7)), 2u);
    EXPECT_EQ(conn.get(be32_id(0x3)), 0x0A000001u);
    EXPECT_EQ(conn.get(u32_array_id(0x88000005)), (u32_vector{v1}));

    // With several next hops per object the object count is no row count:
    // counting is refused so that readers count their rows.
    message count;
    count.insert(u32_array_id(F_PATH), u32_vector{44, 1});
    count.insert(u32_id(F_COMMAND), uint32_t(CMD_COUNT));
    EXPECT_TRUE(isError(looper.exchangeMessage(count, 2000)));

    // Every route ip lists is there, with its metric.
    for (const json& r : ip) {
        std::string dst = r["dst"].get<std::string>();
        uint32_t addr = 0, len = 0;
        if (dst != "default") {
            size_t slash = dst.find('/');
            addr = be32(dst.substr(0, slash));
            len = slash == std::string::npos ? 32 : std::stoul(dst.substr(slash + 1));
        }
        auto it = byDest.find({addr, len ? 0xFFFFFFFFu << (32 - len) : 0u});
        ASSERT_NE(it, byDest.end()) << dst;
        EXPECT_EQ(it->second.get(u32_id(0x8)), r.value("metric", 0u)) << dst;
    }
}

TEST_F(LinuxNetns, BridgeForwardingEntriesMatchBridgeFdb) {
    start();
    uint32_t br = ifindex("br0"), v0 = ifindex("v0");
    std::vector<message> fdb = listAll({16, 3});
    json theirs = ipJson("bridge -j fdb show br br0");
    size_t masterEntries = 0;
    for (const json& e : theirs)
        if (e.value("master", "") == "br0") ++masterEntries;
    EXPECT_EQ(fdb.size(), masterEntries);
    bool sawStatic = false, sawOwn = false;
    std::string v0mac = ipJson("ip -j link show dev v0")[0]["address"].get<std::string>();
    for (const message& o : fdb) {
        EXPECT_EQ(o.get(u32_id(0x5)), br);
        std::string mac = macText(o.get(raw_id(0x30000002)));
        if (mac == "02:00:00:00:00:77") {
            sawStatic = true;
            EXPECT_EQ(o.get(u32_id(0x1)), v0);
            EXPECT_FALSE(o.get(bool_id(0x4)));
        }
        if (mac == v0mac && o.get(u32_id(0x1)) == v0) {
            sawOwn = true;
            EXPECT_TRUE(o.get(bool_id(0x4)));
        }
    }
    EXPECT_TRUE(sawStatic);
    EXPECT_TRUE(sawOwn);
}

namespace {
// Collects link events delivered to it and stops the looper on the first.
class EventSink : public Handler {
public:
    explicit EventSink(Looper& l) : looper_(l) {}
    message handle(const message& m) override {
        if (m.get(u32_id(F_COMMAND)) == 0x10004) {
            events.push_back(m);
            looper_.shutdown();
        }
        return message();
    }
    std::vector<message> events;

private:
    Looper& looper_;
};
}  // namespace

TEST_F(LinuxNetns, LinkChangesArePublishedAsEvents) {
    opts.linkEvents = true;
    start();
    EXPECT_GE(backend->trackedLinks(), 5u);
    EventSink sink(looper);
    looper.addHandler(u32_vector{77}, &sink);
    sink.setHandlerPath({77});
    message filter;
    filter.insert(u32_id(0x10002), 0u);
    filter.insert(u32_id(0x10003), 0x80u);
    sink.subscribe({0x14, 0}, 0x10004, filter);
    uint32_t v3 = ifindex("v3");

    auto waitEvent = [&]() {
        sink.events.clear();
        looper.resetStop();
        looper.addTimer(3000, [&]() { looper.shutdown(); }, timer_key{&sink, 1});
        looper.run();
        looper.resetStop();
    };

    ASSERT_TRUE(sh("ip link set v3 down"));
    waitEvent();
    ASSERT_FALSE(sink.events.empty()) << "no event within 3 s";
    const message& down = sink.events[0];
    EXPECT_EQ(down.get(u32_id(F_OBJ_ID)), v3);
    EXPECT_EQ(down.get(u32_id(0x10003), 99), 0u);
    EXPECT_EQ(down.get(u32_id(0x10002), 99), 0u);
    EXPECT_EQ(down.get(u32_array_id(F_SENDER)), (u32_vector{20, 0}));

    ASSERT_TRUE(sh("ip link set v3 up"));
    // The carrier may come a moment after the admin state: wait for both.
    uint32_t last = 0;
    for (int i = 0; i < 3 && last != 0x500; ++i) {
        waitEvent();
        for (const message& e : sink.events)
            if (e.get(u32_id(F_OBJ_ID)) == v3) last = e.get(u32_id(0x10003));
    }
    EXPECT_EQ(last, 0x500u);
    looper.removeTimer(timer_key{&sink, 1});
    looper.removeHandler({77});
}

TEST_F(LinuxNetns, HostnameChangesOnlyWhenAllowed) {
    opts.allowHostnameChange = true;
    start();
    message set;
    set.insert(u32_array_id(F_PATH), u32_vector{24, 1});
    set.insert(u32_id(F_COMMAND), uint32_t(CMD_SET));
    set.insert(string_id(0xc), "kestrel-ns-test");
    message r = looper.exchangeMessage(set, 2000);
    ASSERT_FALSE(isError(r)) << getError(r);
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_STREQ(host, "kestrel-ns-test");

    set.insert(string_id(0xc), "bad name;rm");
    r = looper.exchangeMessage(set, 2000);
    ASSERT_TRUE(isError(r));
    EXPECT_EQ(getErrorCode(r), uint32_t(ERR_REFUSED));
    gethostname(host, sizeof host - 1);
    EXPECT_STREQ(host, "kestrel-ns-test");
}
