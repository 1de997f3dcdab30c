// SNMPv3 user-based security: header record, engine, keys, digests, DES.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <openssl/evp.h>

class Context;

// One message's SNMPv3 header and security parameters.
struct V3Info {
    int32_t msgID = 0;
    int32_t msgMaxSize = 0;
    std::string msgFlags;  // only the first byte is used: bit 0 auth, bit 1 priv
    int32_t msgSecurityModel = 0;
    std::string msgAuthoritativeEngineID;
    int32_t msgAuthoritativeEngineBoots = 0;
    int32_t msgAuthoritativeEngineTime = 0;
    std::string msgUserName;
    std::string msgAuthenticationParameters;
    std::string msgPrivacyParameters;
    uint32_t authParamsPos = 0;  // index in the received message of the auth parameters' content
    std::string contextEngineID;
    std::string contextName;
};

// The agent's SNMPv3 engine.
struct V3ServerInfo {
    uint32_t engineBoots = 0;
    uint32_t startUptime = 0;  // tn::getUptime() at start; engine time = now - this
    uint32_t timeWindow = 15;
    std::string engineID;      // the full snmpEngineID
};

// The engine the request path checks against; the agent points it at its own.
extern V3ServerInfo const* agentEngine;

typedef struct evp_md_st env_md_st;  // the digest type of the key and HMAC functions

// Digest table: index 0 = MD5, index 1 = SHA-1 (the authentication protocol number).
extern env_md_st const* methods[2];
void initDigestMethods();

void digestMessage(std::vector<unsigned char>& result, std::vector<unsigned char>& message,
                   std::vector<unsigned char> const& dKey, unsigned int pos, unsigned int len, env_md_st const* md);
void digestMessage(std::vector<unsigned char>& result, std::vector<unsigned char>& message,
                   std::vector<unsigned char> const& dKey, unsigned int pos, unsigned int len, unsigned int proto);

void cryptMessageDES(std::string const& salt, std::vector<unsigned char> const& key, std::string& input,
                     std::string& output, int encrypt);

std::vector<unsigned char> passwordToAKey(std::string const& password, env_md_st const* md);
std::vector<unsigned char> passwordToAKey(std::string const& password, unsigned int proto);
std::vector<unsigned char> aKeyToBKey(std::vector<unsigned char> const& key, std::string const& engineID,
                                      env_md_st const* md);
std::vector<unsigned char> aKeyToBKey(std::vector<unsigned char> const& key, std::string const& engineID,
                                      unsigned int proto);
std::vector<unsigned char> bKeyToDKey(std::vector<unsigned char> const& key, env_md_st const* md);
std::vector<unsigned char> bKeyToDKey(std::vector<unsigned char> const& key, unsigned int proto);

// The report handler: writes the usmStats varbind of ctx.v3Error.
unsigned int snmpV3(Context& ctx);
