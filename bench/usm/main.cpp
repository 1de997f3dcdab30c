// Cost of SNMPv3 security on the request path: one authenticated Get and one
// authenticated and encrypted Get through createReply, next to a plain v2c
// Get, and the one-off key localisation of a user.
//
//   bench_usm [iterations]     (default 20000)
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "agent/community_keep.h"
#include "mib/leaf.h"
#include "request/context.h"
#include "request/usm.h"
#include "tn/time.h"

namespace {

typedef std::vector<unsigned char> Bytes;

std::string const engineID("\x80\x00\xbc\x9b\x04kestrel-bench", 18);

CommunityKeep::Item* addUser(std::string const& name, uint32_t level, unsigned proto) {
    CommunityKeep::Item* i = new CommunityKeep::Item;
    i->name = name;
    i->readAccess = true;
    i->securityLevel = level;
    i->authProtocol = proto;
    i->authKey = bKeyToDKey(aKeyToBKey(passwordToAKey("authsecret", proto), engineID, proto), proto);
    i->privKey = aKeyToBKey(passwordToAKey("privsecret", proto), engineID, proto);
    communityKeep->items().push_back(i);
    return i;
}

// A Get of sysDescr.0 as a manager sends it, signed and optionally
// encrypted with the user's keys (the agent's own writer does the work).
Bytes request(CommunityKeep::Item const& user, int level) {
    V3Info info;
    info.msgID = 1234;
    info.msgMaxSize = 65507;
    info.msgFlags = std::string(1, char(0x04 | (level >= 1 ? 1 : 0) | (level == 2 ? 2 : 0)));
    info.msgSecurityModel = 3;
    info.msgAuthoritativeEngineID = engineID;
    info.msgAuthoritativeEngineBoots = 1;
    info.msgAuthoritativeEngineTime = 0;
    info.msgUserName = user.name;
    if (level >= 1) info.msgAuthenticationParameters = std::string(12, '\0');
    if (level == 2) info.msgPrivacyParameters = std::string("\0\0\0\1abcd", 8);
    info.contextEngineID = engineID;
    OutStream o;
    o.securityMode = level;
    o.startSeq(0x30);
    o.add(3, 0x02);
    o.writeV3Info(&info);
    o.startSeq(0xA0);
    o.add(77, 0x02);
    o.add(0, 0x02);
    o.add(0, 0x02);
    o.startSeq(0x30);
    o.startSeq(0x30);
    o.addOID(OID("1.3.6.1.2.1.1.1.0"), 0x06);
    o.addNull(0x05);
    o.endSeq();
    o.endSeq();
    o.endSeq();
    o.cryptPacket(&info, user.privKey, 0);
    o.endSeq();
    o.signPacket(&info, user.authKey, int(user.authProtocol));
    return o.data;
}

Bytes v2cRequest() {
    OutStream o;
    o.startSeq(0x30);
    o.add(1, 0x02);
    o.add(std::string("public"), 0x04);
    o.startSeq(0xA0);
    o.add(77, 0x02);
    o.add(0, 0x02);
    o.add(0, 0x02);
    o.startSeq(0x30);
    o.startSeq(0x30);
    o.addOID(OID("1.3.6.1.2.1.1.1.0"), 0x06);
    o.addNull(0x05);
    o.endSeq();
    o.endSeq();
    o.endSeq();
    o.endSeq();
    return o.data;
}

double perRequestUs(Bytes const& wire, int iterations) {
    // One check that the request is answered, and not with a report.
    {
        uint32_t reports = 0;
        for (uint32_t c : Context::v3counters) reports += c;
        Context ctx(wire.data(), unsigned(wire.size()));
        bool answered = createReply(ctx, 0x7F000001) == 1;
        for (uint32_t c : Context::v3counters) reports -= c;
        if (!answered || reports != 0) {
            std::fprintf(stderr, "request not answered as a Get\n");
            std::exit(1);
        }
    }
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < iterations; ++i) {
        Context ctx(wire.data(), unsigned(wire.size()));
        createReply(ctx, 0x7F000001);
    }
    auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::micro>(end - start).count() / iterations;
}

}  // namespace

int main(int argc, char** argv) {
    int const iterations = argc > 1 ? std::atoi(argv[1]) : 20000;
    initDigestMethods();

    char dir[] = "/tmp/kestrel-bench-usm-XXXXXX";
    if (!mkdtemp(dir)) return 1;
    communityKeep = new CommunityKeep(std::string(dir) + "/communities");

    V3ServerInfo engine;
    engine.engineBoots = 1;
    engine.startUptime = 0;
    engine.timeWindow = 0xFFFFFFFFu;  // the clock runs during the benchmark
    engine.engineID = engineID;
    agentEngine = &engine;

    auto keyStart = std::chrono::steady_clock::now();
    CommunityKeep::Item* md5 = addUser("md5user", 1, 0);
    CommunityKeep::Item* sha = addUser("shauser", 1, 1);
    CommunityKeep::Item* priv = addUser("privuser", 2, 1);
    auto keyEnd = std::chrono::steady_clock::now();
    CommunityKeep::Item* pub = new CommunityKeep::Item;
    pub->name = "public";
    pub->readAccess = true;
    communityKeep->items().push_back(pub);

    addScalarConstStringLeaf(OID("1.3.6.1.2.1.1.1"), "kestrel router", 4);

    // Uptime-based engine time: the requests claim time 0, so keep the
    // engine's start at the current uptime.
    engine.startUptime = tn::getUptime();

    Bytes const v2c = v2cRequest();
    Bytes const md5Get = request(*md5, 1);
    Bytes const shaGet = request(*sha, 1);
    Bytes const privGet = request(*priv, 2);

    std::printf("key localisation (auth + priv key of one user): %.2f ms\n",
                std::chrono::duration<double, std::milli>(keyEnd - keyStart).count() / 3);
    std::printf("v2c Get:                       %.2f us/request\n", perRequestUs(v2c, iterations));
    std::printf("v3 authNoPriv Get (HMAC-MD5):  %.2f us/request\n", perRequestUs(md5Get, iterations));
    std::printf("v3 authNoPriv Get (HMAC-SHA1): %.2f us/request\n", perRequestUs(shaGet, iterations));
    std::printf("v3 authPriv Get (SHA1 + DES):  %.2f us/request\n", perRequestUs(privGet, iterations));

    std::string cmd = std::string("rm -rf '") + dir + "'";
    return std::system(cmd.c_str()) == 0 ? 0 : 1;
}
