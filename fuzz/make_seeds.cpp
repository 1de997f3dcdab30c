// Writes the seed corpus of the fuzz targets: valid requests of every kind
// for the fuzzed agent (v1/v2c Get, GetNext, Set, GetBulk, SNMPv3 discovery,
// noAuth, authNoPriv and authPriv signed and encrypted with its users' keys),
// bus messages in binary and JSON form, and control-socket commands.
//
//   fuzz_seeds OUTDIR     writes OUTDIR/{snmp,message,control}/<name>
//
// Every SNMP seed that should be answered is checked to be answered.
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "agent/snmp_looper.h"
#include "asn/oid.h"
#include "fuzz/fuzz_entries.h"
#include "request/context.h"
#include "request/usm.h"
#include "tn/message.h"

namespace {

std::string length(size_t n) {
    if (n < 0x80) return std::string(1, char(n));
    std::string b;
    while (n) {
        b.insert(b.begin(), char(n & 0xff));
        n >>= 8;
    }
    return std::string(1, char(0x80 | b.size())) + b;
}

std::string tlv(unsigned char tag, std::string const& v) { return std::string(1, char(tag)) + length(v.size()) + v; }

std::string berInt(long long v) {
    std::string b;
    do {
        b.insert(b.begin(), char(v & 0xff));
        v >>= 8;
    } while (!((v == 0 && !(b[0] & 0x80)) || (v == -1 && (b[0] & 0x80))));
    return tlv(2, b);
}

std::string berOid(std::string const& text) {
    OID oid(text);
    std::string b(1, char(oid[0] * 40 + oid[1]));
    for (size_t i = 2; i < oid.size(); ++i) {
        std::string arc;
        uint32_t a = oid[i];
        arc.insert(arc.begin(), char(a & 0x7f));
        while (a >>= 7) arc.insert(arc.begin(), char(0x80 | (a & 0x7f)));
        b += arc;
    }
    return tlv(6, b);
}

std::string null() { return tlv(5, ""); }

std::string varbinds(std::vector<std::pair<std::string, std::string>> const& list) {
    std::string all;
    for (auto const& vb : list) all += tlv(0x30, berOid(vb.first) + vb.second);
    return tlv(0x30, all);
}

std::string pdu(unsigned char tag, std::string const& vbs, long long a = 0, long long b = 0, long long id = 4711) {
    return tlv(tag, berInt(id) + berInt(a) + berInt(b) + vbs);
}

std::string community(int version, std::string const& name, std::string const& p) {
    return tlv(0x30, berInt(version) + tlv(4, name) + p);
}

// An SNMPv3 message from `user`; flags bit 0 signs it, bit 1 encrypts the
// scoped PDU, both with the user's keys as the agent holds them.
std::string v3(unsigned flags, std::string const& user, std::string const& engineID, std::string const& p,
               long long boots = fuzzenv::kEngineBoots, long long time = 0) {
    std::string authKey, privKey;
    uint32_t proto = 0;
    fuzzenv::userKeys(user, &authKey, &privKey, &proto);
    std::string const marker(12, char(0xA5));
    std::string scoped = tlv(0x30, tlv(4, engineID) + tlv(4, "") + p);
    std::string salt = (flags & 2) ? std::string("\x00\x00\x00\x05saLt", 8) : std::string();
    std::string data = scoped;
    if ((flags & 3) == 3 && privKey.size() >= 16) {
        std::string plain = scoped, cipher;
        while (plain.size() % 8) plain += char(0);
        cryptMessageDES(salt, std::vector<unsigned char>(privKey.begin(), privKey.end()), plain, cipher, 1);
        data = tlv(4, cipher);
    }
    std::string sec = tlv(0x30, tlv(4, engineID) + berInt(boots) + berInt(time) + tlv(4, user) +
                                    tlv(4, (flags & 1) ? marker : "") + tlv(4, salt));
    std::string header = tlv(0x30, berInt(91) + berInt(65507) + tlv(4, std::string(1, char(flags | 4))) + berInt(3));
    std::string msg = tlv(0x30, berInt(3) + header + tlv(4, sec) + data);
    if (flags & 1) {
        size_t pos = msg.find(marker);
        std::vector<unsigned char> bytes(msg.begin(), msg.end()), digest;
        digestMessage(digest, bytes, std::vector<unsigned char>(authKey.begin(), authKey.end()), unsigned(pos), 12,
                      proto);
        for (size_t i = 0; i < 12 && i < digest.size(); ++i) msg[pos + i] = char(digest[i]);
    }
    return msg;
}

std::string outDir;
int failures = 0;

void write(std::string const& target, std::string const& name, std::string const& bytes) {
    std::string dir = outDir + "/" + target;
    mkdir(outDir.c_str(), 0755);
    mkdir(dir.c_str(), 0755);
    std::ofstream f(dir + "/" + name, std::ios::binary);
    f << bytes;
    if (!f) {
        std::cerr << "cannot write " << dir << "/" << name << std::endl;
        ++failures;
    }
}

// A seed that is answered with a usmStats report (unencrypted, so its
// counter OID 1.3.6.1.6.3.15.1.1 shows in the reply) when `report`.
void snmp(std::string const& name, std::string const& msg, bool answered = true, bool report = false) {
    Context ctx(reinterpret_cast<unsigned char const*>(msg.data()), unsigned(msg.size()));
    bool replied = createReply(ctx, int(fuzzenv::kSource)) != 0;
    if (replied != answered) {
        std::cerr << "seed " << name << (answered ? " got no reply" : " was answered") << std::endl;
        ++failures;
    }
    std::string reply(ctx.out.data.begin(), ctx.out.data.end());
    if (replied && (reply.find("\x2b\x06\x01\x06\x03\x0f\x01\x01") != std::string::npos) != report) {
        std::cerr << "seed " << name << (report ? " got no report" : " got a report") << std::endl;
        ++failures;
    }
    write("snmp", name, msg);
}

std::string encoded(tn::message const& m) {
    std::vector<uint8_t> b = m.encode();
    return std::string(b.begin(), b.end());
}

tn::message command(uint32_t cmd, tn::u32_vector const& path) {
    tn::message m;
    m.insert(tn::u32_id(tn::F_COMMAND), cmd);
    m.insert(tn::u32_array_id(tn::F_PATH), path);
    m.insert(tn::u32_array_id(tn::F_SENDER), tn::u32_vector{77});
    return m;
}

void snmpSeeds() {
    std::string const descr = "1.3.6.1.2.1.1.1.0", contact = "1.3.6.1.2.1.1.4.0";
    snmp("v1-get", community(0, "public", pdu(0xA0, varbinds({{descr, null()}}))));
    snmp("v1-getnext", community(0, "public", pdu(0xA1, varbinds({{"1.3.6.1.2.1.1", null()}}))));
    snmp("v1-set", community(0, "private", pdu(0xA3, varbinds({{contact, tlv(4, "noc@example.net")}}))));
    snmp("v1-set-readonly", community(0, "public", pdu(0xA3, varbinds({{contact, tlv(4, "x")}}))));
    snmp("v2c-get-two", community(1, "public",
                                  pdu(0xA0, varbinds({{descr, null()}, {"1.3.6.1.2.1.1.3.0", null()}}))));
    snmp("v2c-get-missing", community(1, "public", pdu(0xA0, varbinds({{descr, null()}, {"1.3.6.1.9", null()}}))));
    snmp("v2c-getnext-start", community(1, "public", pdu(0xA1, varbinds({{"0.0", null()}}))));
    char const* walks[] = {"1.3.6.1.2.1.2.2.1", "1.3.6.1.2.1.31.1.1.1", "1.3.6.1.2.1.4.20.1", "1.3.6.1.2.1.4.21.1",
                           "1.3.6.1.2.1.4.22.1", "1.3.6.1.2.1.4.24.4.1", "1.3.6.1.2.1.17.4.3.1",
                           "1.3.6.1.2.1.25.2.3.1", "1.3.6.1.2.1.25.3.3.1", "1.3.6.1.2.1.25.4.2.1",
                           "1.3.6.1.4.1.48291.1.1", "1.3.6.1.4.1.48291.1.2"};
    int n = 0;
    for (char const* w : walks)
        snmp("v2c-getnext-" + std::to_string(n++), community(1, "public", pdu(0xA1, varbinds({{w, null()}}))));
    snmp("v2c-set-int", community(1, "private", pdu(0xA3, varbinds({{"1.3.6.1.2.1.2.2.1.7.1", berInt(2)}}))));
    snmp("v2c-set-two", community(1, "private", pdu(0xA3, varbinds({{contact, tlv(4, "ops")},
                                                                     {"1.3.6.1.2.1.1.6.0", tlv(4, "rack 4")}}))));
    snmp("v2-version2", community(2, "public", pdu(0xA0, varbinds({{descr, null()}}))));
    snmp("v2c-getbulk", community(1, "public", pdu(0xA5, varbinds({{"1.3.6.1.2.1.2", null()}}), 0, 10)), false);
    snmp("v2c-wrong-community", community(1, "nobody", pdu(0xA0, varbinds({{descr, null()}}))), false);
    snmp("v2c-source-refused", community(1, "faraway", pdu(0xA0, varbinds({{descr, null()}}))), false);
    snmp("v2c-v3-user-refused", community(1, "v3md5", pdu(0xA0, varbinds({{descr, null()}}))), false);

    std::string engine = formatEngineID(fuzzenv::kEngineText);
    snmp("v3-discovery", v3(0, "", "", pdu(0xA0, tlv(0x30, ""))), true, true);
    snmp("v3-noauth-get", v3(0, "v3none", engine, pdu(0xA0, varbinds({{descr, null()}}))));
    snmp("v3-md5-get", v3(1, "v3md5", engine, pdu(0xA0, varbinds({{descr, null()}}))));
    snmp("v3-md5-getnext", v3(1, "v3md5", engine, pdu(0xA1, varbinds({{"1.3.6.1.2.1.2.2.1.2", null()}}))));
    snmp("v3-md5-set", v3(1, "v3md5", engine, pdu(0xA3, varbinds({{contact, tlv(4, "v3 contact")}}))));
    snmp("v3-sha-get", v3(1, "v3sha", engine, pdu(0xA0, varbinds({{descr, null()}}))));
    snmp("v3-priv-get", v3(3, "v3priv", engine, pdu(0xA0, varbinds({{descr, null()}, {contact, null()}}))));
    snmp("v3-priv-getnext", v3(3, "v3priv", engine, pdu(0xA1, varbinds({{"1.3.6.1.2.1.4.21", null()}}))));
    snmp("v3-shapriv-set", v3(3, "v3shapriv", engine, pdu(0xA3, varbinds({{contact, tlv(4, "secret")}}))));
    snmp("v3-priv-without-auth", v3(2, "v3priv", engine, pdu(0xA0, varbinds({{descr, null()}}))), true, true);
    snmp("v3-level-too-low", v3(1, "v3priv", engine, pdu(0xA0, varbinds({{descr, null()}}))), true, true);
    snmp("v3-unknown-user", v3(1, "nobody", engine, pdu(0xA0, varbinds({{descr, null()}}))), true, true);
    snmp("v3-wrong-engine", v3(1, "v3md5", "\x80\x00\x00\x01\x02other", pdu(0xA0, varbinds({{descr, null()}}))), true, true);
    snmp("v3-wrong-boots", v3(1, "v3md5", engine, pdu(0xA0, varbinds({{descr, null()}})), 1), true, true);
    snmp("v3-getbulk", v3(1, "v3md5", engine, pdu(0xA5, varbinds({{"1.3.6.1.2.1.1", null()}}), 0, 5)), false);
}

void messageSeeds() {
    tn::message m;
    m.insert(tn::bool_id(0x01), true);
    m.insert(tn::u32_id(0x02), 0xDEADBEEFu);
    m.insert(tn::be32_id(0x03), 0x7F000001u);
    m.insert(tn::u64_id(0x04), 0x0123456789ABCDEFull);
    m.insert(tn::string_id(0x05), "eth0");
    m.insert(tn::raw_id(0x06), std::vector<uint8_t>{0, 1, 0xFF});
    m.insert(tn::u32_array_id(0x07), tn::u32_vector{20, 0});
    m.insert(tn::string_array_id(0x08), std::vector<std::string>{"a", "", "ccc"});
    tn::message inner;
    inner.insert(tn::u32_id(tn::F_OBJ_ID), 3u);
    inner.insert(tn::string_id(tn::F_OBJ_NAME), "lan");
    m.insert(tn::message_id(0x09), inner);
    m.insert(tn::message_array_id(tn::F_OBJECTS), std::vector<tn::message>{inner, tn::message(), inner});
    write("message", "all-types.bin", encoded(m));
    write("message", "all-types.json", m.to_json());
    write("message", "empty.bin", encoded(tn::message()));
    write("message", "command.bin", encoded(command(tn::CMD_GET_ALL, {20, 0})));
    write("message", "named.json",
          "{\"u32:0xfe0001\": 7, \"be32:0x08\": \"192.168.1.1\", \"str:0x05\": \"x\", \"u32[]:0x88ff0001\": [1],"
          " \"raw:0x06\": \"00ff\", \"msg[]:0xa8fe0002\": [{\"bool:0x01\": true}], \"str[]:0x0a\": [\"q\"],"
          " \"u64:0x0b\": 18446744073709551615, \"msg:0x0c\": {\"u32:0x01\": 1}}");
    std::ifstream fixture(std::string(KESTREL_SOURCE_DIR) + "/examples/first-settings.json");
    std::string text((std::istreambuf_iterator<char>(fixture)), std::istreambuf_iterator<char>());
    if (!text.empty()) write("message", "first-settings.json", text);
}

void controlSeeds() {
    write("control", "settings-get", encoded(command(tn::CMD_GET, {})));
    tn::message set = command(tn::CMD_SET, {});
    set.insert(tn::string_id(0x02), "noc");
    set.insert(tn::string_id(0x03), "lab");
    set.insert(tn::u32_id(0x0E), 300u);
    set.insert(tn::be32_id(0x10), 0x7F000001u);
    set.insert(tn::u32_id(0x11), 1u);
    set.insert(tn::u32_id(0x12), 1u);
    set.insert(tn::u32_array_id(0x13), tn::u32_vector{0, 0xABC0001});
    write("control", "settings-set", encoded(set));
    tn::message engine = command(tn::CMD_SET, {});
    engine.insert(tn::string_id(0x0A), "new-engine");
    write("control", "settings-engine-id", encoded(engine));
    tn::message enable = command(tn::CMD_SET, {});
    enable.insert(tn::bool_id(0x01), true);
    write("control", "settings-enable", encoded(enable));
    write("control", "generators", encoded(command(100, {})));
    tn::message trap = command(1, {});
    trap.insert(tn::string_id(1001), "1.3.6.1.4.1.48291.9.1");
    trap.insert(tn::u32_id(1002), 2u);
    trap.insert(tn::string_id(1003), "42");
    write("control", "trap", encoded(trap));

    write("control", "communities-list", encoded(command(tn::CMD_GET_ALL, {1})));
    tn::message get = command(tn::CMD_GET_OBJ, {1});
    get.insert(tn::u32_id(tn::F_OBJ_ID), 2u);
    write("control", "community-get", encoded(get));
    tn::message add = command(tn::CMD_ADD_OBJ, {1});
    add.insert(tn::string_id(0x05), "newuser");
    add.insert(tn::bool_id(0x06), true);
    add.insert(tn::string_id(0x0B), "auth-password");
    add.insert(tn::string_id(0x0C), "priv-password");
    add.insert(tn::u32_id(0x0F), 2u);
    add.insert(tn::u32_id(0x14), 1u);
    write("control", "community-add", encoded(add));
    tn::message change = command(tn::CMD_SET_OBJ, {1});
    change.insert(tn::u32_id(tn::F_OBJ_ID), 2u);
    change.insert(tn::be32_id(0x08), 0x7F000000u);
    change.insert(tn::be32_id(0x09), 0xFF000000u);
    change.insert(tn::bool_id(0x07), true);
    write("control", "community-set", encoded(change));
    tn::message remove = command(tn::CMD_REMOVE_OBJ, {1});
    remove.insert(tn::u32_id(tn::F_OBJ_ID), 3u);
    write("control", "community-remove", encoded(remove));

    write("control", "backend-list", encoded(command(tn::CMD_GET_ALL, {20, 0})));
    tn::message sub = command(tn::CMD_SUBSCRIBE, {20, 0});
    sub.insert(tn::u32_array_id(tn::F_SENDER), tn::u32_vector{});
    sub.insert(tn::u32_id(tn::F_SUB_CMD), 0x10004u);
    write("control", "subscribe", encoded(sub));
    tn::message emit = command(0xFFFE01, {0xFFFE});
    emit.insert(tn::u32_array_id(0x88000001), tn::u32_vector{20, 0});
    emit.insert(tn::u32_id(0x02), 0x10004u);
    tn::message link;
    link.insert(tn::u32_id(tn::F_OBJ_ID), 1u);
    link.insert(tn::u32_id(0x10003), 0x500u);
    emit.insert(tn::message_id(0x28000003), link);
    write("control", "emit-link", encoded(emit));
    tn::message event = command(0x10004, {});
    event.insert(tn::u32_array_id(tn::F_SENDER), tn::u32_vector{20, 0});
    event.insert(tn::u32_id(tn::F_OBJ_ID), 2u);
    event.insert(tn::u32_id(0x10003), 0x100u);
    write("control", "link-event", encoded(event));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: fuzz_seeds OUTDIR" << std::endl;
        return 2;
    }
    outDir = argv[1];
    fuzzenv::setupAgent();
    snmpSeeds();
    messageSeeds();
    controlSeeds();
    if (failures) std::cerr << failures << " seed(s) failed" << std::endl;
    return failures ? 1 : 0;
}
