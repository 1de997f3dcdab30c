#include "agent/snmp_looper.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>

#include "agent/community_keep.h"
#include "agent/options.h"
#include "agent/traps.h"
#include "asn/stream.h"
#include "request/context.h"
#include "tn/time.h"

SnmpLooper* loop = nullptr;

namespace {

// Settings record field ids.
enum : uint32_t {
    S_ENABLED = 0x01,
    S_CONTACT = 0x02,
    S_LOCATION = 0x03,
    S_COMMUNITY = 0x04,
    S_ENGINE_ID = 0x0A,
    S_BOOTS = 0x0D,
    S_WINDOW = 0x0E,
    S_TRAP_TARGET = 0x10,
    S_TRAP_COMMUNITY = 0x11,
    S_TRAP_VERSION = 0x12,
    S_GENERATORS = 0x88000013,
};

char const kEnginePrefix[5] = {char(0x80), char(0x00), char(0xBC), char(0xA3), char(0x04)};

void regenerateAllKeys() {
    for (CommunityKeep::Item* item : communityKeep->items()) item->regenerateKeys();
}

}  // namespace

std::string formatEngineID(std::string const& text) { return std::string(kEnginePrefix, 5) + text; }

std::string deformatEngineID(std::string const& id) { return id.size() >= 6 ? id.substr(5) : std::string(); }

SnmpLooper::SnmpLooper() : tn::Looper(0, 0, nullptr), store(agentOptions.settingsStore, 5) {
    std::cerr << "communityKeep = new CommunityKeep;" << std::endl;
    communityKeep = new CommunityKeep(agentOptions.communityStore);
    std::cerr << "communityKeep->init();" << std::endl;
    communityKeep->init();
    std::cerr << "addHandler(snmp::ID_COMMUNITIES, communityKeep);" << std::endl;
    addHandler(snmp::ID_COMMUNITIES, communityKeep);
    engine.startUptime = tn::getUptime();
    startJiffies = tn::getJiffies();
    agentEngine = &engine;
}

SnmpLooper::~SnmpLooper() {
    if (agentEngine == &engine) agentEngine = nullptr;
}

void SnmpLooper::init() {
    handlerPolicies.add_policy(1, 0x80);
    handlerPolicies.add_policy(100, 0x2C0);

    tn::message cfg;
    if (store.get(0, cfg)) {
        community = cfg.get(tn::string_id(S_COMMUNITY));
        contact = cfg.get(tn::string_id(S_CONTACT));
        location = cfg.get(tn::string_id(S_LOCATION));
        // A record without a time window loads 0, not the constructor's 15.
        engine.timeWindow = cfg.get(tn::u32_id(S_WINDOW), 0);
        trapTarget = cfg.get(tn::be32_id(S_TRAP_TARGET), 0);
        trapVersion = cfg.get(tn::u32_id(S_TRAP_VERSION), 0);
        trapCommunity = cfg.get(tn::u32_id(S_TRAP_COMMUNITY), 0xFFFFFFFF);
        if (cfg.has(tn::u32_array_id(S_GENERATORS))) trapGenerators = cfg.get(tn::u32_array_id(S_GENERATORS));
        engine.engineBoots = cfg.get(tn::u32_id(S_BOOTS), 0) + 1;
        std::cout << "engineBoots = " << engine.engineBoots << std::endl;
        engine.engineID = formatEngineID(cfg.get(tn::string_id(S_ENGINE_ID)));
        if (!engine.engineID.empty()) regenerateAllKeys();
        enabled = cfg.get(tn::bool_id(S_ENABLED), false);
        // The incremented boot count must survive the next restart before
        // any request can see it.
        store.set(0, getConfig());
    } else if (!agentOptions.firstSettings.empty()) {
        std::string err;
        tn::message first;
        std::ifstream in(agentOptions.firstSettings);
        std::stringstream text;
        text << in.rdbuf();
        if (!in) {
            std::cerr << "first settings ignored: cannot read " << agentOptions.firstSettings << std::endl;
        } else if (tn::message::from_json(text.str(), first, &err)) {
            cmdSet(first);
        } else {
            std::cerr << "first settings ignored: " << err << std::endl;
        }
    }
    if (enabled) {
        enable();
    } else {
        setupLeave(1000);
    }
}

void SnmpLooper::enable() {
    if (serviceEnabled) return;
    setupLeave(0);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &one, sizeof(one));
    if (fd >= 0) {
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_port = htons(agentOptions.port);
        if (inet_pton(AF_INET, agentOptions.bindAddress.c_str(), &a.sin_addr) == 1 &&
            bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0) {
            serviceSocket = fd;
            addSocket(fd, this, &SnmpLooper::receive, 1);
            serviceEnabled = true;
            return;
        }
        close(fd);
    }
    std::cerr << "cannot create service connection" << std::endl;
}

void SnmpLooper::disable() {
    if (!serviceEnabled) return;
    removeSocket(serviceSocket);
    close(serviceSocket);
    serviceSocket = 0;
    serviceEnabled = false;
    setupLeave(1000);
}

void SnmpLooper::receive(int fd, unsigned int) {
    struct sockaddr_in source;
    // Room for exactly the IP_PKTINFO record, so the reply leaves from the
    // address and interface the request arrived on.
    alignas(struct cmsghdr) unsigned char control[CMSG_SPACE(sizeof(struct in_pktinfo))];
    struct iovec iov;
    iov.iov_base = c_buf;
    iov.iov_len = sizeof(c_buf);
    struct msghdr mh = {};
    mh.msg_name = &source;
    mh.msg_namelen = sizeof(source);
    mh.msg_iov = &iov;
    mh.msg_iovlen = 1;
    mh.msg_control = control;
    mh.msg_controllen = sizeof(control);
    ssize_t n = recvmsg(fd, &mh, 0);
    if (n < 0) return;

    Context ctx(c_buf, unsigned(n));
    if (!createReply(ctx, int(ntohl(source.sin_addr.s_addr)))) return;
    iov.iov_base = ctx.out.data.data();
    iov.iov_len = ctx.out.data.size();
    mh.msg_flags = 0;
    sendmsg(fd, &mh, 0);
}

tn::message SnmpLooper::getConfig() {
    tn::message m;
    m.insert(tn::string_id(S_COMMUNITY), community);
    m.insert(tn::string_id(S_CONTACT), contact);
    m.insert(tn::string_id(S_LOCATION), location);
    m.insert(tn::string_id(S_ENGINE_ID), deformatEngineID(engine.engineID));
    m.insert(tn::u32_id(S_WINDOW), engine.timeWindow);
    m.insert(tn::be32_id(S_TRAP_TARGET), trapTarget);
    m.insert(tn::u32_id(S_TRAP_VERSION), trapVersion);
    m.insert(tn::u32_id(S_TRAP_COMMUNITY), trapCommunity);
    m.insert_u32_array(tn::u32_array_id(S_GENERATORS), trapGenerators);
    m.insert(tn::u32_id(S_BOOTS), engine.engineBoots);
    m.insert(tn::bool_id(S_ENABLED), enabled);
    return m;
}

tn::message SnmpLooper::getObject(uint32_t) { return getConfig(); }

tn::message SnmpLooper::cmdGet(tn::message const& req) {
    tn::u32_vector sender = req.get(tn::u32_array_id(tn::F_SENDER));
    if (sender.empty()) {
        std::cerr << "bogonymous cmd_get request" << std::endl;
    } else {
        std::cerr << "cmd_get from " << sender[0] << std::endl;
    }
    return getConfig();
}

tn::message SnmpLooper::cmdSet(tn::message const& req) {
    tn::message undo = getConfig();
    undo.insert(tn::u32_id(tn::F_COMMAND), uint32_t(tn::CMD_SET));
    if (req.has(tn::u32_array_id(tn::F_SENDER))) {
        tn::u32_vector sender = req.get(tn::u32_array_id(tn::F_SENDER));
        std::cerr << "cmd_set from " << (sender.empty() ? 0u : sender[0]) << std::endl;
    }
    if (req.has(tn::string_id(S_COMMUNITY))) community = req.get(tn::string_id(S_COMMUNITY));
    if (req.has(tn::string_id(S_CONTACT))) contact = req.get(tn::string_id(S_CONTACT));
    if (req.has(tn::string_id(S_LOCATION))) location = req.get(tn::string_id(S_LOCATION));
    if (req.has(tn::u32_id(S_WINDOW))) engine.timeWindow = req.get(tn::u32_id(S_WINDOW));
    if (req.has(tn::be32_id(S_TRAP_TARGET))) trapTarget = req.get(tn::be32_id(S_TRAP_TARGET));
    if (req.has(tn::u32_id(S_TRAP_COMMUNITY))) trapCommunity = req.get(tn::u32_id(S_TRAP_COMMUNITY));
    if (req.has(tn::u32_id(S_TRAP_VERSION))) trapVersion = req.get(tn::u32_id(S_TRAP_VERSION));
    if (req.has(tn::u32_array_id(S_GENERATORS))) {
        for (Scriber const& s : scribers) {
            s.unsubscribe();
            std::cout << "unsubscribed from " << s.name << std::endl;
        }
        std::vector<uint32_t> kept;
        for (uint32_t g : req.get(tn::u32_array_id(S_GENERATORS))) {
            if (std::find(kept.begin(), kept.end(), g) != kept.end()) continue;
            kept.push_back(g);
            if (g < scribers.size()) {
                scribers[g].subscribe();
                std::cout << "subscribed to " << scribers[g].name << std::endl;
            }
        }
        trapGenerators = kept;
    }
    if (req.has(tn::u32_id(S_BOOTS))) engine.engineBoots = req.get(tn::u32_id(S_BOOTS));
    if (req.has(tn::string_id(S_ENGINE_ID))) {
        engine.engineID = formatEngineID(req.get(tn::string_id(S_ENGINE_ID)));
        regenerateAllKeys();
    }
    if (req.has(tn::bool_id(S_ENABLED))) {
        enabled = req.get(tn::bool_id(S_ENABLED));
        if (enabled) {
            enable();
        } else {
            disable();
        }
    }
    sendUndo(req, undo, "changed snmp settings");
    notifyChange(0xFFFFFFFF, req);
    store.set(0, getConfig());
    return tn::message();
}

tn::message SnmpLooper::cmdUnknown(tn::message const& req, uint32_t cmd) {
    if (cmd == 100) {
        std::vector<tn::message> list;
        tn::message start;
        start.insert(tn::u32_id(tn::F_OBJ_ID), uint32_t(START_TRAP_GENERATOR));
        start.insert(tn::string_id(tn::F_OBJ_NAME), "start-trap");
        list.push_back(start);
        for (size_t i = 0; i < scribers.size(); ++i) {
            tn::message e;
            e.insert(tn::u32_id(tn::F_OBJ_ID), uint32_t(i));
            e.insert(tn::string_id(tn::F_OBJ_NAME), scribers[i].name);
            list.push_back(e);
        }
        tn::message r;
        r.insert(tn::message_array_id(tn::F_OBJECTS), list);
        return r;
    }
    if (cmd == 1 || cmd == 0xFE000B || cmd == 0x10004) send_trap(req);
    return tn::message();
}

void SnmpLooper::startSubscribers() {
    for (uint32_t g : trapGenerators)
        if (g < scribers.size()) scribers[g].subscribe();
}

void SnmpLooper::startup() {
    if (std::find(trapGenerators.begin(), trapGenerators.end(), uint32_t(START_TRAP_GENERATOR)) ==
        trapGenerators.end())
        return;
    trapMakers.push_back(startupTrapMaker);
    send_trap(tn::message());
    trapMakers.pop_back();
}
