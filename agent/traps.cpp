#include "agent/traps.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "agent/community_keep.h"
#include "agent/options.h"
#include "agent/snmp_looper.h"
#include "request/context.h"
#include "request/usm.h"
#include "tn/time.h"

std::vector<TrapMaker> trapMakers;
std::vector<Scriber> scribers;
std::map<uint32_t, uint32_t> linkStates;

namespace {

OID const kSysUpTime0("1.3.6.1.2.1.1.3.0");
OID const kSnmpTrapOID0("1.3.6.1.6.3.1.1.4.1.0");
OID const kColdStart("1.3.6.1.6.3.1.1.5.2");
OID const kLinkUp("1.3.6.1.6.3.1.1.5.4");
OID const kLinkDown("1.3.6.1.6.3.1.1.5.3");
OID const kEnterpriseTrap("1.3.6.1.4.1.48291.1.1.9");

void addTimeTicks(OutStream& out, OID const& name, unsigned int ticks) {
    out.startSeq(0x30);
    out.addOID(name, 0x06);
    out.add(ticks, 0x43);
    out.endSeq();
}

VariableBinding binding(char const* name, unsigned int type, std::string const& value) {
    VariableBinding vb;
    vb.name = OID(name);
    vb.type = type;
    vb.value = value;
    return vb;
}

}  // namespace

bool startupTrapMaker(std::vector<VariableBinding>&, tn::message const&, OID& trapOid, int& generic, int& specific) {
    trapOid = kColdStart;
    generic = 1;
    specific = 0;
    return true;
}

bool linkTrapMaker(std::vector<VariableBinding>& varbinds, tn::message const& event, OID& trapOid, int& generic,
                   int& specific) {
    tn::u32_vector const* sender = event.get_u32_array_ptr(tn::u32_array_id(tn::F_SENDER));
    if (!sender || *sender != tn::u32_vector{0x14, 0}) return false;
    if (!event.has(tn::u32_id(0x10003)) || !event.has(tn::u32_id(tn::F_OBJ_ID))) return false;
    uint32_t flags = event.get(tn::u32_id(0x10003));
    uint32_t id = event.get(tn::u32_id(tn::F_OBJ_ID));
    uint32_t bits = flags & 0x500;
    auto it = linkStates.find(id);
    if (it == linkStates.end()) {
        linkStates[id] = bits;
    } else {
        if (it->second == bits) return false;
        it->second = bits;
    }
    bool up = flags & 0x100;
    trapOid = up ? kLinkUp : kLinkDown;
    generic = up ? 3 : 2;
    specific = 0;
    // The names are the bare column OIDs, without an instance.
    varbinds.push_back(binding("1.3.6.1.2.1.2.2.1.1", 2, std::to_string(id)));
    varbinds.push_back(binding("1.3.6.1.2.1.2.2.1.7", 2, up ? "1" : "2"));
    varbinds.push_back(binding("1.3.6.1.2.1.2.2.1.8", 2, (flags & 0x400) ? "1" : "2"));
    return true;
}

bool kestrelTrapMaker(std::vector<VariableBinding>& varbinds, tn::message const& event, OID& trapOid, int& generic,
                      int& specific) {
    if (!event.has(tn::u32_id(tn::F_COMMAND)) || event.get(tn::u32_id(tn::F_COMMAND)) != 1) return false;
    trapOid = kEnterpriseTrap;
    generic = 6;
    specific = 1;
    if (event.has(tn::string_id(1001))) {
        VariableBinding vb;
        vb.name = OID(event.get(tn::string_id(1001)));
        vb.type = 4;  // a value without a type code travels as an OCTET STRING
        if (event.has(tn::u32_id(1002))) vb.type = event.get(tn::u32_id(1002));
        if (event.has(tn::string_id(1003))) {
            vb.value = event.get(tn::string_id(1003));
            varbinds.push_back(vb);
        } else if (vb.type == 5) {
            varbinds.push_back(vb);
        }
    }
    return true;
}

bool createTrap(Context& ctx, tn::message const& event, unsigned int agentAddr) {
    OutStream& out = ctx.out;
    out.startSeq(0x30);
    out.add(int(loop->trapVersion), 0x02);

    CommunityKeep::Item* item = nullptr;
    for (CommunityKeep::Item* i : communityKeep->items()) {
        if (i->id == loop->trapCommunity) {
            item = i;
            break;
        }
    }
    if (!item) {
        std::cerr << "createTrap: bad community" << std::endl;
        return false;
    }

    V3Info info;
    if (loop->trapVersion == 3) {
        std::cout << "snmp v3 trap" << std::endl;
        V3ServerInfo const& engine = loop->engine;
        info.msgID = rand();
        info.msgMaxSize = 65507;
        unsigned char flags = 0;
        if (item->securityLevel > 0) flags |= 0x01;
        if (item->securityLevel == 2) flags |= 0x02;
        info.msgFlags = std::string(1, char(flags));
        info.msgSecurityModel = 3;
        info.msgAuthoritativeEngineID = engine.engineID;
        info.msgAuthoritativeEngineBoots = int32_t(engine.engineBoots);
        info.msgAuthoritativeEngineTime = int32_t(tn::getUptime() - engine.startUptime);
        info.msgUserName = item->name;
        if (item->securityLevel > 0) info.msgAuthenticationParameters = std::string(12, '\0');
        if (item->securityLevel == 2) {
            uint32_t b = engine.engineBoots;
            char salt[8] = {char(b >> 24), char(b >> 16), char(b >> 8), char(b)};
            for (int i = 4; i < 8; ++i) salt[i] = char(rand() & 0xFF);
            info.msgPrivacyParameters = std::string(salt, 8);
        }
        info.contextEngineID = engine.engineID;
        out.securityMode = int(item->securityLevel);
        out.writeV3Info(&info);
    } else {
        out.add(item->name, 0x04);
    }

    out.startSeq(loop->trapVersion == 0 ? 0xA4 : 0xA7);

    std::vector<VariableBinding> varbinds;
    OID trapOid;
    int generic = 0, specific = 0;
    bool made = false;
    for (TrapMaker maker : trapMakers) {
        if (maker(varbinds, event, trapOid, generic, specific)) {
            made = true;
            break;
        }
    }
    if (!made) {
        std::cout << "Could not handle trap, msg dump:" << std::endl;
        event.dump2(std::cout, "");
        std::cout << std::endl;
        return false;
    }

    unsigned int ticks = tn::getJiffies() - loop->startJiffies;
    if (loop->trapVersion == 0) {
        out.addOID(trapOid, 0x06);
        // agentAddr is in network order: its bytes in memory are the address.
        unsigned char addr[4];
        memcpy(addr, &agentAddr, 4);
        out.add(addr, 4, 0x40);
        out.add(generic, 0x02);
        out.add(specific, 0x02);
        out.add(ticks, 0x43);
    } else {
        out.add(int(rand()), 0x02);
        out.add(0, 0x02);
        out.add(0, 0x02);
    }

    out.startSeq(0x30);
    if (loop->trapVersion != 0) {
        addTimeTicks(out, kSysUpTime0, ticks);
        OID oid = trapOid;
        if (generic == 6) {
            oid += 0u;
            oid += unsigned(specific);
        }
        out.startSeq(0x30);
        out.addOID(kSnmpTrapOID0, 0x06);
        out.addOID(oid, 0x06);
        out.endSeq();
    }
    for (VariableBinding const& vb : varbinds) out.addVarBind(vb);
    out.endSeq();
    out.endSeq();

    if (loop->trapVersion == 3) {
        out.cryptPacket(&info, item->privKey, int(item->privProtocol));
        out.endSeq();
        out.signPacket(&info, item->authKey, int(item->authProtocol));
    } else {
        out.endSeq();
    }
    return true;
}

void SnmpLooper::send_trap(tn::message const& event) {
    if (!enabled) {
        std::cerr << "send_trap: snmp disabled" << std::endl;
        return;
    }
    if (trapTarget == 0 || trapCommunity == 0xFFFFFFFF) {
        std::cerr << "send_trap: no trap sink specified" << std::endl;
        return;
    }
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        std::cerr << "send_trap: failed to open UDP socket: " << strerror(errno) << std::endl;
        return;
    }
    struct sockaddr_in sink = {};
    sink.sin_family = AF_INET;
    sink.sin_port = htons(agentOptions.trapPort);
    sink.sin_addr.s_addr = htonl(trapTarget);
    struct sockaddr_in local = {};
    socklen_t len = sizeof(local);
    if (connect(fd, reinterpret_cast<sockaddr*>(&sink), sizeof(sink)) != 0) {
        std::cerr << "send_trap: failed to connect: " << strerror(errno) << std::endl;
    } else if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) != 0) {
        std::cerr << "send_trap: failed to getsockname: " << strerror(errno) << std::endl;
    } else {
        unsigned char none = 0;
        Context ctx(&none, 0);
        if (!createTrap(ctx, event, local.sin_addr.s_addr)) {
            std::cerr << "send_trap: createTrap failed" << std::endl;
        } else if (send(fd, ctx.out.data.data(), ctx.out.data.size(), 0) < 0) {
            std::cerr << "send_trap: failed to send trap packet: " << strerror(errno) << std::endl;
        }
    }
    close(fd);
}
