// Notifications: trap makers, subscription entries and the trap encoder.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "asn/oid.h"
#include "asn/stream.h"
#include "tn/message.h"

class Context;

typedef bool (*TrapMaker)(std::vector<VariableBinding>& varbinds, tn::message const& event, OID& trapOid,
                          int& generic, int& specific);

struct Scriber {
    std::string name;
    void (*subscribe)();
    void (*unsubscribe)();
};

extern std::vector<TrapMaker> trapMakers;
extern std::vector<Scriber> scribers;
extern std::map<uint32_t, uint32_t> linkStates;

// Encodes the trap for `event` into ctx.out with the agent's trap settings;
// agentAddr is the local IPv4 address in network order (the v1 agent-addr).
bool createTrap(Context& ctx, tn::message const& event, unsigned int agentAddr);

bool startupTrapMaker(std::vector<VariableBinding>& varbinds, tn::message const& event, OID& trapOid,
                      int& generic, int& specific);
bool linkTrapMaker(std::vector<VariableBinding>& varbinds, tn::message const& event, OID& trapOid,
                   int& generic, int& specific);
bool kestrelTrapMaker(std::vector<VariableBinding>& varbinds, tn::message const& event, OID& trapOid,
                      int& generic, int& specific);
