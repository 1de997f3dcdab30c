#include "platform/linux_backend.h"

#include <errno.h>
#include <linux/if_addr.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/linux_host.h"
#include "platform/linux_netlink.h"
#include "platform/linux_objects.h"

namespace tn {

using namespace linuxbus;

namespace {

const uint32_t NO_START = 0xFFFFFFFFu;

// A request carries values in fields below the framework's range; command,
// path, sequence and rights fields are not values.
bool hasValueFields(const message& req) {
    for (uint32_t k : req.keys())
        if ((k & 0xFFFFFFu) < 0xFE0000u) return true;
    return false;
}

size_t pathLength(const message& req) {
    const u32_vector* p = req.get_u32_array_ptr(u32_array_id(F_PATH));
    return p ? p->size() : 0;
}

// ---------------------------------------------------------------------------
// Lists served in pages. A listing takes one snapshot of its source when it
// starts; its continuation names the snapshot (an 8-bit generation) and the
// offset of the next object, so a long listing is read from one consistent
// dump instead of one dump per page. A continuation of an older generation
// (another listing started meanwhile) takes a fresh snapshot and goes on at
// its offset.
class PagedList : public Handler {
public:
    explicit PagedList(unsigned pageSize) : pageSize_(pageSize) {}

    message cmdGetAll(const message& req, uint32_t start, uint32_t count) override {
        return page(req, start, count);
    }

    message cmdGetCount(const message&) override {
        std::string err;
        if (!refresh(err)) return errorMsg(ERR_REFUSED, err);
        message r;
        r.insert(u32_id(F_TOTAL), uint32_t(size()));
        return r;
    }

protected:
    virtual bool snapshot(std::string& err) = 0;
    virtual size_t size() const = 0;
    virtual void build(size_t i, uint32_t selector, message& out) = 0;

    bool refresh(std::string& err) {
        if (!snapshot(err)) {
            have_ = false;
            return false;
        }
        have_ = true;
        if (++gen_ == 0) gen_ = 1;
        return true;
    }

    message page(const message& req, uint32_t start, uint32_t count) {
        size_t offset = 0;
        std::string err;
        if (start == NO_START) {
            if (!refresh(err)) return errorMsg(ERR_REFUSED, err);
        } else {
            offset = start & 0xFFFFFFu;
            if (!have_ || (start >> 24) != gen_) {
                if (!refresh(err)) return errorMsg(ERR_REFUSED, err);
            }
        }
        size_t n = pageSize_;
        if (count > 0 && count < n) n = count;
        size_t total = size();
        size_t end = offset < total ? std::min(total, offset + n) : offset;
        uint32_t selector = req.get(u32_id(F_SELECTOR), 0);
        std::vector<flat_message> objs;
        objs.reserve(end > offset ? end - offset : 0);
        message obj;
        for (size_t i = offset; i < end; ++i) {
            obj.clear();
            build(i, selector, obj);
            objs.emplace_back(obj);
        }
        message r;
        r.insert(message_array_id(F_OBJECTS), objs);
        if (end < total && end <= 0xFFFFFFu) r.insert(u32_id(F_START), (uint32_t(gen_) << 24) | uint32_t(end));
        return r;
    }

private:
    unsigned pageSize_;
    uint8_t gen_ = 0;
    bool have_ = false;
};

// ---------------------------------------------------------------------------
struct Shared {
    LinuxBackendOptions opts;
    NetlinkSocket nl;
    int inetFd = -1;  // for ethtool ioctls

    ~Shared() {
        if (inetFd >= 0) ::close(inetFd);
    }

    bool dumpLinks(std::vector<LinkRecord>& out, std::string& err) {
        out.clear();
        ifinfomsg ifi;
        std::memset(&ifi, 0, sizeof ifi);
        ifi.ifi_family = AF_UNSPEC;
        bool ok = nl.dump(RTM_GETLINK, &ifi, sizeof ifi, [&](const nlmsghdr* h) {
            LinkRecord l;
            if (parseLink(h, l) && l.family == AF_UNSPEC) out.push_back(l);
        }, &err);
        std::sort(out.begin(), out.end(), [](const LinkRecord& a, const LinkRecord& b) { return a.index < b.index; });
        return ok;
    }

    // One link by index; false with *missing when the kernel has none.
    bool getLink(uint32_t index, LinkRecord& out, bool& missing, std::string& err) {
        missing = false;
        if (index == 0 || index > 0x7FFFFFFFu) {
            missing = true;
            return false;
        }
        ifinfomsg ifi;
        std::memset(&ifi, 0, sizeof ifi);
        ifi.ifi_family = AF_UNSPEC;
        ifi.ifi_index = int(index);
        bool found = false;
        int e = 0;
        bool ok = nl.request(RTM_GETLINK, 0, &ifi, sizeof ifi, [&](const nlmsghdr* h) {
            if (parseLink(h, out)) found = true;
        }, &e, &err);
        if (!ok && (e == ENODEV || e == ENOENT)) missing = true;
        if (ok && !found) missing = true;
        return ok && found;
    }

    void buildLink(const LinkRecord& l, bool counters, message& out) {
        bool wireless = isWireless(opts.sysRoot, l.name);
        uint32_t kind = interfaceKind(l, wireless);
        int cls = -1;
        if (kind == KIND_ETHERNET || kind == KIND_WIRELESS) cls = speedClass(ethtoolSpeedMbps(inetFd, l.name));
        linkToMessage(l, wireless, cls, out);
        if (counters) linkCountersToMessage(l, out);
    }
};

class InterfaceHandler : public PagedList {
public:
    explicit InterfaceHandler(Shared& s) : PagedList(s.opts.pageSize), s_(s) {}

    message cmdGetObj(const message& req, uint32_t id) override {
        LinkRecord l;
        bool missing;
        std::string err;
        if (!s_.getLink(id, l, missing, err)) {
            if (missing) return getObject(id);  // {id, F_NOT_EXIST = 1}
            return errorMsg(ERR_REFUSED, err);
        }
        message r;
        s_.buildLink(l, req.get(u32_id(F_SELECTOR), 0) == SELECT_COUNTERS, r);
        return r;
    }

    message cmdUnknown(const message& req, uint32_t cmd) override {
        // Command 1 is the link-state listing; it pages like the object list.
        if (cmd == 1) return page(req, req.get(u32_id(F_START), NO_START), req.get(u32_id(F_COUNT), 0));
        return Handler::cmdUnknown(req, cmd);
    }

    message cmdSetObj(const message&, uint32_t) override {
        return errorMsg(ERR_REFUSED, "interfaces are not configured through this backend");
    }

protected:
    bool snapshot(std::string& err) override { return s_.dumpLinks(links_, err); }
    size_t size() const override { return links_.size(); }
    void build(size_t i, uint32_t selector, message& out) override {
        s_.buildLink(links_[i], selector == SELECT_COUNTERS, out);
    }

private:
    Shared& s_;
    std::vector<LinkRecord> links_;
};

class AddressHandler : public PagedList {
public:
    explicit AddressHandler(Shared& s) : PagedList(s.opts.pageSize), s_(s) {}

protected:
    bool snapshot(std::string& err) override {
        addrs_.clear();
        ifaddrmsg ifa;
        std::memset(&ifa, 0, sizeof ifa);
        ifa.ifa_family = AF_INET;
        return s_.nl.dump(RTM_GETADDR, &ifa, sizeof ifa, [&](const nlmsghdr* h) {
            AddrRecord a;
            if (parseAddr(h, a)) addrs_.push_back(a);
        }, &err);
    }
    size_t size() const override { return addrs_.size(); }
    void build(size_t i, uint32_t, message& out) override { addrToMessage(addrs_[i], uint32_t(i + 1), out); }

private:
    Shared& s_;
    std::vector<AddrRecord> addrs_;
};

class NeighbourHandler : public PagedList {
public:
    NeighbourHandler(Shared& s, bool bridge) : PagedList(s.opts.pageSize), s_(s), bridge_(bridge) {}

protected:
    bool snapshot(std::string& err) override {
        list_.clear();
        ndmsg nd;
        std::memset(&nd, 0, sizeof nd);
        nd.ndm_family = bridge_ ? AF_BRIDGE : AF_INET;
        return s_.nl.dump(RTM_GETNEIGH, &nd, sizeof nd, [&](const nlmsghdr* h) {
            NeighRecord n;
            if (bridge_ ? (parseFdb(h, n) && fdbListed(n)) : (parseNeigh(h, n) && neighListed(n))) list_.push_back(n);
        }, &err);
    }
    size_t size() const override { return list_.size(); }
    void build(size_t i, uint32_t, message& out) override {
        if (bridge_) fdbToMessage(list_[i], uint32_t(i + 1), out);
        else neighToMessage(list_[i], uint32_t(i + 1), out);
    }

private:
    Shared& s_;
    bool bridge_;
    std::vector<NeighRecord> list_;
};

class RouteHandler : public PagedList {
public:
    explicit RouteHandler(Shared& s) : PagedList(s.opts.pageSize), s_(s) {}

    // A route object is one row per next hop to its readers (a multipath
    // route is several), so the number of objects is not the size of their
    // tables. No count is offered; a reader that needs one counts its rows.
    message cmdGetCount(const message& req) override { return Handler::cmdGetCount(req); }

protected:
    bool snapshot(std::string& err) override {
        routes_.clear();
        hops_.clear();
        rtmsg rt;
        std::memset(&rt, 0, sizeof rt);
        rt.rtm_family = AF_INET;
        return s_.nl.dump(RTM_GETROUTE, &rt, sizeof rt, [&](const nlmsghdr* h) {
            RouteRecord r;
            size_t mark = hops_.size();
            if (parseRoute(h, r, hops_) && routeListed(r)) routes_.push_back(r);
            else hops_.resize(mark);
        }, &err);
    }
    size_t size() const override { return routes_.size(); }
    void build(size_t i, uint32_t, message& out) override {
        const RouteRecord& r = routes_[i];
        routeToMessage(r, hops_.data() + r.firstHop, uint32_t(i + 1), out);
    }

private:
    Shared& s_;
    std::vector<RouteRecord> routes_;
    std::vector<NextHop> hops_;
};

// A list of objects given by the data file; read-only unless a subclass
// says otherwise.
class StaticList : public PagedList {
public:
    StaticList(unsigned pageSize, std::vector<message> objs) : PagedList(pageSize), objs_(std::move(objs)) {}

    message getObject(uint32_t id) override {
        for (const message& m : objs_)
            if (m.get(u32_id(F_OBJ_ID), 0) == id) return m;
        return Handler::getObject(id);
    }
    message cmdGetObj(const message&, uint32_t id) override { return getObject(id); }
    int getObjectCount() override { return int(objs_.size()); }
    message cmdSetObj(const message&, uint32_t) override { return errorMsg(ERR_REFUSED, "read-only table"); }

protected:
    bool snapshot(std::string&) override { return true; }
    size_t size() const override { return objs_.size(); }
    void build(size_t i, uint32_t, message& out) override { out = objs_[i]; }
    message* find(uint32_t id) {
        for (message& m : objs_)
            if (m.get(u32_id(F_OBJ_ID), 0) == id) return &m;
        return nullptr;
    }

    std::vector<message> objs_;
};

// Scripts may be renamed (kept in memory); running one is not something
// this host does on a manager's say-so.
class ScriptList : public StaticList {
public:
    using StaticList::StaticList;

    message cmdSetObj(const message& req, uint32_t id) override {
        message* m = find(id);
        if (!m) return errorMsg(ERR_NO_OBJECT, "no such script");
        if (!req.has(string_id(0x66))) return errorMsg(ERR_MISSING_FIELD, "script name missing");
        message undo;
        undo.insert(u32_array_id(F_PATH), handlerPath());
        undo.insert(u32_id(F_COMMAND), uint32_t(CMD_SET_OBJ));
        undo.insert(u32_id(F_OBJ_ID), id);
        undo.insert(string_id(0x66), m->get(string_id(0x66)));
        m->insert(string_id(0x66), req.get(string_id(0x66)));
        notifyChange(id, *m);
        sendUndo(req, undo, "script rename");
        return message();
    }
    message cmdUnknown(const message& req, uint32_t cmd) override {
        if (cmd == 1) return errorMsg(ERR_REFUSED, "running scripts is not supported on this host");
        return StaticList::cmdUnknown(req, cmd);
    }
};

class ResourcesHandler : public Handler {
public:
    explicit ResourcesHandler(Shared& s) : s_(s) {}

    message cmdGet(const message&) override {
        message r;
        uint32_t v = 0, w = 0;
        if (readUptime(s_.opts.procRoot, v)) r.insert(u32_id(0x1), v);
        if (readMemInfo(s_.opts.procRoot, v, w)) {
            r.insert(u32_id(0x2), v);
            r.insert(u32_id(0x3), w);
        }
        if (readDiskKiB(s_.opts.diskPath, v, w)) {
            r.insert(u32_id(0xa), v);
            r.insert(u32_id(0xb), w);
        }
        r.insert(u32_id(0x6), cpuLoad());
        return r;
    }

    // The reboot object is written through this path without value fields;
    // there is nothing to change here.
    message cmdSet(const message& req) override {
        if (hasValueFields(req)) return errorMsg(ERR_REFUSED, "resources are read-only");
        return message();
    }

private:
    // Load over the time since the previous sample (at least a second
    // apart, so that quick successive reads agree); the first reading is
    // the average since boot.
    uint32_t cpuLoad() {
        CpuSample now;
        if (!readCpuSample(s_.opts.procRoot, now)) return 0;
        uint64_t t = ThinRunner::nowMs();
        if (!haveSample_) {
            load_ = cpuLoadPercent(CpuSample(), now);
        } else if (t - sampleMs_ < 1000) {
            return load_;
        } else {
            load_ = cpuLoadPercent(sample_, now);
        }
        sample_ = now;
        sampleMs_ = t;
        haveSample_ = true;
        return load_;
    }

    Shared& s_;
    CpuSample sample_;
    uint64_t sampleMs_ = 0;
    bool haveSample_ = false;
    uint32_t load_ = 0;
};

class ClockHandler : public Handler {
public:
    message cmdGet(const message&) override {
        time_t now = time(nullptr);
        struct tm lt;
        localtime_r(&now, &lt);
        message r;
        r.insert(u32_id(0x7), uint32_t(now));
        r.insert(u32_id(0x1b), uint32_t(int32_t(lt.tm_gmtoff)));
        return r;
    }
    message cmdSet(const message&) override { return errorMsg(ERR_REFUSED, "the clock is not set through this backend"); }
};

bool validHostname(const std::string& n) {
    if (n.empty() || n.size() > 64) return false;
    for (char c : n)
        if (!(std::isalnum((unsigned char)c) || c == '-' || c == '.' || c == '_')) return false;
    return n.front() != '-' && n.front() != '.';
}

class IdentityHandler : public Handler {
public:
    explicit IdentityHandler(Shared& s) : s_(s) {}

    message cmdGet(const message&) override {
        message r;
        r.insert(string_id(0xc), current());
        return r;
    }

    message cmdSet(const message& req) override {
        if (!s_.opts.allowHostnameChange) return errorMsg(ERR_REFUSED, "hostname changes are not allowed");
        if (!req.has(string_id(0xc))) return errorMsg(ERR_MISSING_FIELD, "hostname missing");
        std::string name = req.get(string_id(0xc));
        if (!validHostname(name)) return errorMsg(ERR_REFUSED, "invalid hostname");
        std::string old = current();
        if (name == old) return message();
        if (sethostname(name.data(), name.size()) != 0)
            return errorMsg(ERR_REFUSED, std::string("sethostname: ") + strerror(errno));
        message change, undo;
        change.insert(string_id(0xc), name);
        undo.insert(u32_array_id(F_PATH), handlerPath());
        undo.insert(u32_id(F_COMMAND), uint32_t(CMD_SET));
        undo.insert(string_id(0xc), old);
        notifyChange(0, change);
        sendUndo(req, undo, "hostname change");
        return message();
    }

private:
    static std::string current() {
        char buf[256] = {};
        if (gethostname(buf, sizeof buf - 1) != 0) return std::string();
        return buf;
    }
    Shared& s_;
};

// {24}: system commands. Paths below it that no other handler serves end
// here too and are answered as unknown objects.
class SystemHandler : public Handler {
public:
    explicit SystemHandler(Shared& s) : s_(s) {}

    message handleCmd(const message& req) override {
        if (pathLength(req) != 1) return errorMsg(ERR_NO_OBJECT, "no such object");
        if (req.get(u32_id(F_COMMAND), 0) == 5) {
            if (!s_.opts.allowReboot) return errorMsg(ERR_REFUSED, "reboot is not allowed");
            std::cerr << "linux backend: reboot requested; not performed by this backend\n";
            return message();
        }
        return Handler::handleCmd(req);
    }

private:
    Shared& s_;
};

class HealthHandler : public Handler {
public:
    explicit HealthHandler(Shared& s) : s_(s) {}
    message cmdGet(const message&) override {
        Temperatures t = readTemperatures(s_.opts.sysRoot);
        message r;
        if (t.hasBoard) r.insert(u32_id(0xe), uint32_t(int32_t(t.board)));
        if (t.hasCpu) r.insert(u32_id(0x11), uint32_t(int32_t(t.cpu)));
        return r;
    }

private:
    Shared& s_;
};

class ConstHandler : public Handler {
public:
    explicit ConstHandler(message m) : m_(std::move(m)) {}
    message cmdGet(const message&) override { return m_; }
    message cmdSet(const message&) override { return errorMsg(ERR_REFUSED, "read-only"); }

private:
    message m_;
};

// ---------------------------------------------------------------------------
// Link events: admin and carrier changes of the kernel's links, published
// from the interface list's path for its subscribers.
class LinkWatcher {
public:
    LinkWatcher(Looper& looper, Shared& s) : looper_(looper), s_(s) {}
    ~LinkWatcher() {
        if (ev_.fd() >= 0) looper_.removeSocket(ev_.fd());
    }

    bool start(std::string& err) {
        if (!ev_.open(RTMGRP_LINK, &err)) return false;
        std::vector<LinkRecord> links;
        if (!s_.dumpLinks(links, err)) return false;
        for (const LinkRecord& l : links) state_[l.index] = linkStateFlags(l);
        looper_.addSocket(ev_.fd(), [this](int, unsigned) { readable(); });
        return true;
    }

    size_t tracked() const { return state_.size(); }

private:
    void readable() {
        bool overrun = false;
        ev_.drain([this](const nlmsghdr* h) {
            LinkRecord l;
            if (!parseLink(h, l) || l.family != AF_UNSPEC) return;
            if (h->nlmsg_type == RTM_DELLINK) removed(l.index);
            else seen(l.index, linkStateFlags(l));
        }, &overrun);
        if (overrun) resync();
    }

    // Notices were lost: compare the whole table with what we knew.
    void resync() {
        std::vector<LinkRecord> links;
        std::string err;
        if (!s_.dumpLinks(links, err)) {
            std::cerr << "linux backend: link resync failed: " << err << "\n";
            return;
        }
        std::map<uint32_t, uint32_t> gone = state_;
        for (const LinkRecord& l : links) {
            gone.erase(l.index);
            seen(l.index, linkStateFlags(l));
        }
        for (const auto& g : gone) removed(g.first);
    }

    void seen(uint32_t index, uint32_t flags) {
        auto it = state_.find(index);
        if (it == state_.end()) {
            state_[index] = flags;
            // A new link that is already up is news; one created down is not.
            if (flags) publish(index, flags);
            return;
        }
        if (it->second == flags) return;
        it->second = flags;
        publish(index, flags);
    }

    void removed(uint32_t index) {
        auto it = state_.find(index);
        if (it == state_.end()) return;
        bool wasUp = it->second != 0;
        state_.erase(it);
        if (wasUp) publish(index, 0);
    }

    void publish(uint32_t index, uint32_t flags) {
        message ev;
        ev.insert(u32_id(F_OBJ_ID), index);
        ev.insert(u32_id(IF_LINK_IGNORE), 0u);
        ev.insert(u32_id(IF_LINK_FLAGS), flags);
        looper_.publish(u32_vector{20, 0}, LINK_EVENT_CMD, ev);
    }

    Looper& looper_;
    Shared& s_;
    NetlinkSocket ev_;
    std::map<uint32_t, uint32_t> state_;
};

// ---------------------------------------------------------------------------
struct DataFile {
    message software;
    std::vector<message> scripts, hosts, traffic, trafficTree;
};

bool readList(const nlohmann::json& j, const char* name, std::vector<message>& out, std::string& err) {
    auto it = j.find(name);
    if (it == j.end()) return true;
    if (!it->is_array()) {
        err = std::string("\"") + name + "\" must be an array";
        return false;
    }
    uint32_t pos = 0;
    for (const auto& item : *it) {
        ++pos;
        message m;
        std::string e;
        if (!item.is_object() || !message::from_json(item.dump(), m, &e)) {
            err = std::string("\"") + name + "\" item " + std::to_string(pos) + ": " + (e.empty() ? "not an object" : e);
            return false;
        }
        if (!m.has(u32_id(F_OBJ_ID))) m.insert(u32_id(F_OBJ_ID), pos);
        out.push_back(std::move(m));
    }
    return true;
}

bool loadDataFile(const std::string& path, DataFile& d, std::string& err) {
    std::ifstream f(path);
    if (!f) {
        err = "cannot read " + path;
        return false;
    }
    std::stringstream ss;
    ss << f.rdbuf();
    nlohmann::json j = nlohmann::json::parse(ss.str(), nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        err = path + ": not a JSON object";
        return false;
    }
    static const char* const known[] = {"software", "scripts", "hosts", "traffic", "trafficTree"};
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (std::find_if(std::begin(known), std::end(known), [&](const char* k) { return it.key() == k; }) ==
            std::end(known)) {
            err = path + ": unknown member \"" + it.key() + "\"";
            return false;
        }
    }
    auto sw = j.find("software");
    if (sw != j.end()) {
        std::string e;
        if (!sw->is_object() || !message::from_json(sw->dump(), d.software, &e)) {
            err = path + ": \"software\": " + (e.empty() ? "not an object" : e);
            return false;
        }
    }
    std::string e;
    if (!readList(j, "scripts", d.scripts, e) || !readList(j, "hosts", d.hosts, e) ||
        !readList(j, "traffic", d.traffic, e) || !readList(j, "trafficTree", d.trafficTree, e)) {
        err = path + ": " + e;
        return false;
    }
    return true;
}

class Backend : public LinuxBackend {
public:
    explicit Backend(Looper& looper) : looper_(looper) {}
    ~Backend() override {
        watcher_.reset();
        for (const u32_vector& p : paths_) looper_.removeHandler(p);
    }
    const std::vector<u32_vector>& paths() const override { return paths_; }
    size_t trackedLinks() const override { return watcher_ ? watcher_->tracked() : 0; }

    void add(const u32_vector& path, Handler* h) {
        handlers_.emplace_back(h);
        h->setHandlerPath(path);
        looper_.addHandler(path, h);
        paths_.push_back(path);
    }

    Looper& looper_;
    Shared shared;
    std::vector<std::unique_ptr<Handler>> handlers_;
    std::vector<u32_vector> paths_;
    std::unique_ptr<LinkWatcher> watcher_;
};

}  // namespace

std::unique_ptr<LinuxBackend> registerLinuxBackend(Looper& looper, const LinuxBackendOptions& opts, std::string* err) {
    std::string e;
    DataFile data;
    if (!opts.dataFile.empty() && !loadDataFile(opts.dataFile, data, e)) {
        if (err) *err = "linux backend: " + e;
        return nullptr;
    }
    std::unique_ptr<Backend> b(new Backend(looper));
    Shared& s = b->shared;
    s.opts = opts;
    s.opts.pageSize = std::max(1u, std::min(opts.pageSize, 10000u));
    if (!s.nl.open(0, &e)) {
        if (err) *err = "linux backend: " + e;
        return nullptr;
    }
    s.inetFd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);

    message software;
    software.insert(string_id(0x1), "kestrel");
    software.insert(u32_id(0x4), 0u);
    software.insert(u32_id(0x9), 0u);
    software.merge(data.software);

    unsigned ps = s.opts.pageSize;
    b->add({20, 0}, new InterfaceHandler(s));
    b->add({20, 1}, new AddressHandler(s));
    b->add({20, 8}, new NeighbourHandler(s, false));
    b->add({44, 1}, new RouteHandler(s));
    b->add({16, 3}, new NeighbourHandler(s, true));
    b->add({24, 0}, new ClockHandler());
    b->add({24, 1}, new IdentityHandler(s));
    b->add({24, 2}, new ResourcesHandler(s));
    b->add({24}, new SystemHandler(s));
    b->add({12, 1}, new HealthHandler(s));
    b->add({65}, new ConstHandler(software));
    b->add({48, 101}, new ScriptList(ps, std::move(data.scripts)));
    b->add({10, 1}, new StaticList(ps, std::move(data.hosts)));
    b->add({20, 9}, new StaticList(ps, std::move(data.traffic)));
    b->add({20, 12}, new StaticList(ps, std::move(data.trafficTree)));

    if (opts.linkEvents) {
        b->watcher_.reset(new LinkWatcher(looper, s));
        if (!b->watcher_->start(e)) {
            if (err) *err = "linux backend: link events: " + e;
            return nullptr;
        }
    }
    return std::unique_ptr<LinuxBackend>(b.release());
}

}  // namespace tn
