// Entry functions shared by the libFuzzer targets and the unit test that
// replays their regression inputs.
//
// Every entry builds, once per process, one agent as main builds it: the
// SnmpLooper with its stores under a temporary folder, the fixture backend
// of examples/fixtures/router.json, the built-in modules, the settings
// below and the communities and SNMPv3 users below. They return 0 and
// abort() when a property that must hold for every input does not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzzenv {

// Settings of the fuzzed agent; seed generators use them to sign requests.
extern char const* const kEngineText;  // the settings' engine id text
enum : uint32_t { kEngineBoots = 5, kTimeWindow = 1500, kSource = 0x7F000001 };

struct User {
    char const* name;
    uint32_t level;      // 0 none, 1 auth, 2 auth+priv
    uint32_t authProto;  // 0 MD5, 1 SHA-1
    char const* authPassword;
    char const* privPassword;
    bool read;
    bool write;
    uint32_t address;  // first octet most significant
    uint32_t netmask;
};
extern User const kUsers[];
extern size_t const kUserCount;

// Builds the agent when not yet built; later calls do nothing.
void setupAgent();

// The localised keys of a configured user (empty when there is none).
bool userKeys(std::string const& name, std::string* authKey, std::string* privKey, uint32_t* authProto);

}  // namespace fuzzenv

// One SNMP datagram from 127.0.0.1 through createReply; a reply must be
// one complete BER SEQUENCE.
int fuzzSnmpRequest(uint8_t const* data, size_t size);
// The bus message codecs: binary decode and JSON parse; what decodes must
// encode back to the same bytes / the same message.
int fuzzBusMessage(uint8_t const* data, size_t size);
// One control-socket packet: decoded and dispatched to the agent's
// handlers (settings, communities, the backend), then queued events run.
int fuzzControlCommand(uint8_t const* data, size_t size);
