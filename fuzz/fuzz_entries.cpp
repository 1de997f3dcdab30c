#include "fuzz/fuzz_entries.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "agent/community_keep.h"
#include "agent/options.h"
#include "agent/snmp_looper.h"
#include "agent/traps.h"
#include "modules/modules.h"
#include "platform/fixture_backend.h"
#include "request/context.h"
#include "request/usm.h"
#include "tn/message.h"

#ifndef KESTREL_SOURCE_DIR
#error "KESTREL_SOURCE_DIR must name the source tree (the fixture file is read from it)"
#endif

namespace fuzzenv {

char const* const kEngineText = "kestrel-fuzz";

User const kUsers[] = {
    // name        level proto auth            priv            read   write  address      netmask
    {"public", 0, 0, "", "", true, false, 0, 0},
    {"private", 0, 0, "", "", true, true, 0, 0},
    {"faraway", 0, 0, "", "", true, true, 0x0A000000, 0xFF000000},  // never matches 127.0.0.1
    {"v3none", 0, 0, "", "", true, false, 0, 0},
    {"v3md5", 1, 0, "md5-auth-pass", "", true, true, 0, 0},
    {"v3sha", 1, 1, "sha-auth-pass", "", true, true, 0, 0},
    {"v3priv", 2, 0, "md5-auth-pass", "des-priv-pass", true, true, 0, 0},
    {"v3shapriv", 2, 1, "sha-auth-pass", "des-priv-pass", true, true, 0, 0},
};
size_t const kUserCount = sizeof(kUsers) / sizeof(kUsers[0]);

namespace {

// Settings record field ids.
enum : uint32_t { S_ENGINE_ID = 0x0A, S_BOOTS = 0x0D, S_WINDOW = 0x0E, S_TRAP_TARGET = 0x10, S_ENABLED = 0x01 };

std::string stateDir;

void removeStateDir() {
    if (stateDir.empty()) return;
    std::string cmd = "rm -rf '" + stateDir + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", stateDir.c_str());
}

std::string makeStateDir() {
    // tmpfs when there is one: the stores sync on every change.
    char const* bases[] = {"/dev/shm", "/tmp"};
    for (char const* base : bases) {
        std::string tmpl = std::string(base) + "/kestrel-fuzz-XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data())) return buf.data();
    }
    fprintf(stderr, "cannot create a state folder\n");
    abort();
}

}  // namespace

void setupAgent() {
    if (loop) return;
    stateDir = makeStateDir();
    atexit(removeStateDir);
    agentOptions.setStateDir(stateDir);
    // Whatever the inputs enable, the service binds an ephemeral loopback
    // port and traps stay on this host.
    agentOptions.bindAddress = "127.0.0.1";
    agentOptions.port = 0;
    agentOptions.trapPort = 9;
    srand(1);

    loop = new SnmpLooper();
    tn::setLooper(loop);
    FixtureBackend* backend = new FixtureBackend;  // lives for the process, as the agent's does
    std::string err;
    if (!backend->load(*loop, std::string(KESTREL_SOURCE_DIR) + "/examples/fixtures/router.json", &err)) {
        fprintf(stderr, "fixture: %s\n", err.c_str());
        abort();
    }
    loop->init();

    tn::message settings;
    settings.insert(tn::string_id(S_ENGINE_ID), kEngineText);
    settings.insert(tn::u32_id(S_BOOTS), uint32_t(kEngineBoots));
    settings.insert(tn::u32_id(S_WINDOW), uint32_t(kTimeWindow));
    loop->cmdSet(settings);

    for (size_t i = 0; i < kUserCount; ++i) {
        User const& u = kUsers[i];
        tn::message m;
        m.insert(tn::string_id(C_NAME), u.name);
        m.insert(tn::bool_id(C_READ), u.read);
        m.insert(tn::bool_id(C_WRITE), u.write);
        m.insert(tn::be32_id(C_ADDRESS), u.address);
        m.insert(tn::be32_id(C_NETMASK), u.netmask);
        m.insert(tn::string_id(C_AUTH_PASSWORD), u.authPassword);
        m.insert(tn::string_id(C_PRIV_PASSWORD), u.privPassword);
        m.insert(tn::u32_id(C_LEVEL), u.level);
        m.insert(tn::u32_id(C_AUTH_PROTOCOL), u.authProto);
        m.insert(tn::u32_id(C_PRIV_PROTOCOL), 0u);
        tn::message r = communityKeep->cmdAddObj(m);
        if (tn::isError(r)) {
            fprintf(stderr, "cannot add community %s\n", u.name);
            abort();
        }
    }

    registerSystemModule();
    registerIpModule();
    registerBridgeModule(OID("1.3.6.1.2.1.17"));
    registerInterfacesModule();
    registerHealthModule();
    trapMakers.push_back(kestrelTrapMaker);
}

bool userKeys(std::string const& name, std::string* authKey, std::string* privKey, uint32_t* authProto) {
    setupAgent();
    CommunityKeep::Items::iterator it = communityKeep->find(name);
    if (it == communityKeep->items().end()) return false;
    authKey->assign((*it)->authKey.begin(), (*it)->authKey.end());
    privKey->assign((*it)->privKey.begin(), (*it)->privKey.end());
    *authProto = (*it)->authProtocol;
    return true;
}

}  // namespace fuzzenv

namespace {

// The length of the BER element at p, or 0 when it is not one complete
// definite-length element of at most `size` bytes.
size_t elementSize(unsigned char const* p, size_t size) {
    if (size < 2) return 0;
    size_t n = p[1], head = 2;
    if (n & 0x80) {
        size_t k = n & 0x7F;
        if (k == 0 || k > 2 || size < 2 + k) return 0;
        n = 0;
        for (size_t i = 0; i < k; ++i) n = (n << 8) | p[2 + i];
        head += k;
    }
    return head + n <= size ? head + n : 0;
}

// Mutations break the HMAC of an authenticated message, and the agent then
// stops at the digest check. Writing the right digest for a known user
// lets mutated PDUs, context fields and ciphertexts reach the code behind it.
void resign(std::vector<unsigned char>& msg) {
    Context probe(msg.data(), unsigned(msg.size()));
    int err = -1;
    if (probe.in.getVersion() != 3 || !probe.in.readV3Info(err) || !probe.in.v3info) return;
    V3Info const& h = *probe.in.v3info;
    if (h.msgFlags.empty() || !(h.msgFlags[0] & 1)) return;
    CommunityKeep::Items::iterator it = communityKeep->find(h.msgUserName);
    if (it == communityKeep->items().end() || (*it)->authKey.empty() || (*it)->authProtocol > 1) return;
    size_t const len = h.msgAuthenticationParameters.size();
    if (len == 0 || h.authParamsPos + len > msg.size()) return;
    std::vector<unsigned char> digest;
    digestMessage(digest, msg, (*it)->authKey, h.authParamsPos, unsigned(len), (*it)->authProtocol);
    std::copy(digest.begin(), digest.begin() + std::min(len, digest.size()), msg.begin() + h.authParamsPos);
}

}  // namespace

int fuzzSnmpRequest(uint8_t const* data, size_t size) {
    fuzzenv::setupAgent();
    // The receive buffer bounds what a datagram can carry.
    if (size > C_BUF_SIZE) return 0;
    std::vector<unsigned char> msg(data, data + size);
    // Three inputs in four (by length) are signed again; the others test
    // the digest check itself.
    if (size % 4 != 0) resign(msg);
    Context ctx(msg.data(), unsigned(msg.size()));
    if (!createReply(ctx, int(fuzzenv::kSource))) return 0;
    std::vector<unsigned char> const& out = ctx.out.data;
    if (out.empty() || out[0] != 0x30) {
        fprintf(stderr, "reply is not a SEQUENCE\n");
        abort();
    }
    // Lengths of 64 KiB and more cannot be written (the encoder's limit).
    if (out.size() < 0x10000 && elementSize(out.data(), out.size()) != out.size()) {
        fprintf(stderr, "reply's outer length does not match its %zu bytes\n", out.size());
        abort();
    }
    return 0;
}

int fuzzBusMessage(uint8_t const* data, size_t size) {
    tn::message m;
    if (tn::message::decode(data, size, m)) {
        // The binary form is canonical: what decodes encodes back byte for byte.
        std::vector<uint8_t> again = m.encode();
        if (again.size() != size || memcmp(again.data(), data, size) != 0) {
            fprintf(stderr, "decode/encode changed the message\n");
            abort();
        }
        (void)m.dump2();
        std::string json = m.to_json();
        tn::message back;
        if (!tn::message::from_json(json, back)) {
            fprintf(stderr, "to_json output does not parse: %s\n", json.c_str());
            abort();
        }
    }
    std::string text(reinterpret_cast<char const*>(data), size);
    tn::message j;
    if (tn::message::from_json(text, j)) {
        std::string json = j.to_json();
        tn::message back;
        if (!tn::message::from_json(json, back) || !(back == j)) {
            fprintf(stderr, "JSON round trip changed the message: %s\n", json.c_str());
            abort();
        }
        tn::message decoded;
        std::vector<uint8_t> bytes = j.encode();
        if (!tn::message::decode(bytes.data(), bytes.size(), decoded) || !(decoded == j)) {
            fprintf(stderr, "binary round trip of a JSON message failed: %s\n", json.c_str());
            abort();
        }
    }
    return 0;
}

int fuzzControlCommand(uint8_t const* data, size_t size) {
    fuzzenv::setupAgent();
    tn::message m;
    if (!tn::message::decode(data, size, m)) return 0;
    // Trap datagrams must stay on this host, whatever sink an input sets.
    uint32_t const targetKey = tn::make_key(tn::T_U32, fuzzenv::S_TRAP_TARGET);
    if (m.has_key(targetKey)) m.insert(tn::be32_id(targetKey), 0x7F000000u | (m.get(tn::be32_id(targetKey)) & 0xFFFFFF));
    if (m.has(tn::u32_id(tn::F_REPLY_TO))) {
        loop->handleReply(m);
    } else {
        tn::message reply = loop->dispatchMessage(m);
        (void)reply.encode();
    }
    // Events and timers that the command queued.
    loop->resetStop();
    for (int i = 0; i < 4; ++i) loop->step(0);
    if (loop->trapTarget != 0 && (loop->trapTarget >> 24) != 127) {
        fprintf(stderr, "trap target left the loopback range\n");
        abort();
    }
    return 0;
}
