#include "request/context.h"

#include <iostream>

#include "agent/community_keep.h"
#include "request/operations.h"
#include "request/usm.h"

Context::Context(unsigned char const* bytes, unsigned int length) : in(bytes, length) {}

void AccessError::apply(Context&) const {}
AccessError::~AccessError() {}
void InvalidOID::apply(Context& ctx) const { ctx.out.addErrorStatus(5); }
void MiscError::apply(Context& ctx) const { ctx.out.addErrorStatus(5); }
void PathNotExists::apply(Context& ctx) const {
    ctx.out.addErrorStatus(2);
    ctx.missing = 1;
}

namespace {

typedef unsigned int (*Handler)(Context&);

std::vector<unsigned char> const noKey;

CommunityKeep::Item* findItem(std::string const& name) {
    if (!communityKeep)
        return nullptr;
    CommunityKeep::Items::iterator it = communityKeep->find(name);
    return it == communityKeep->items().end() ? nullptr : *it;
}

// The first item of the list whose name is the given one, byte for byte.
CommunityKeep::Item* walkItems(std::string const& name) {
    if (!communityKeep)
        return nullptr;
    for (CommunityKeep::Item* item : communityKeep->items()) {
        if (item && item->name == name)
            return item;
    }
    return nullptr;
}

int authenticationFailed() {
    std::cerr << " authentification failed" << std::endl;
    return 0;
}

}  // namespace

int createReply(Context& ctx, int source) {
    uint32_t const src = uint32_t(source);
    InStream& in = ctx.in;
    OutStream& out = ctx.out;

    int version = in.getVersion();
    if (version == -1)
        return 0;
    out.startSeq(0x30);
    out.add(version, 0x02);

    unsigned int replyTag = 0xA2;
    Handler report = nullptr;
    bool v3 = false;
    V3Info* v3info = nullptr;
    // Keys of the SNMPv3 user, copied: the reply is signed after the
    // handlers ran, and the item list is not ours to pin.
    std::vector<unsigned char> authKey, privKey;
    int authProto = 0, privProto = 0;

    if (version == 0 || version == 1 || version == 2) {
        // Version 2 is served like 2c on purpose.
        if (!in.getString(&ctx.community))
            return authenticationFailed();
        CommunityKeep::Item* found = findItem(ctx.community);
        if (found && found->securityLevel != 0)
            return authenticationFailed();  // an SNMPv3 user, not a community
        CommunityKeep::Item* item = walkItems(ctx.community);
        if (!item || !item->accepts(src))
            return authenticationFailed();
        out.add(ctx.community, 0x04);
    } else if (version == 3) {
        v3 = true;
        int v3_err = -1;
        if (!in.readV3Info(v3_err)) {
            std::cerr << "!ctx.in.readV3Info(v3_err)" << std::endl;
            return 0;
        }
        v3info = in.v3info;
        std::string const user = v3info ? v3info->msgUserName : std::string();
        CommunityKeep::Item* item = findItem(user);
        int level = item ? int(item->securityLevel) : 0;
        ctx.community = user;
        if (level > in.securityMode)
            v3_err = 0;
        item = findItem(user);
        if (item) {
            authProto = int(item->authProtocol);
            authKey = item->authKey;
            privProto = int(item->privProtocol);
            privKey = item->privKey;
        }
        static V3ServerInfo const noEngine;
        V3ServerInfo const& engine = agentEngine ? *agentEngine : noEngine;
        if (!in.decryptAndCheckSignature(v3_err, authKey, authProto, privKey, privProto, engine)) {
            std::cerr << "decryptAndCheckSignature failed" << std::endl;
            return 0;
        }
        v3info = in.v3info;
        out.securityMode = in.securityMode;
        if (v3_err == -1) {
            CommunityKeep::Item* user_item = walkItems(user);
            if (!user_item || !user_item->accepts(src)) {
                in.clearAuthPrivInfo();
                out.securityMode = 0;
                v3_err = 2;
            }
        }
        if (v3_err != -1) {
            replyTag = 0xA8;
            if (v3_err >= 0 && v3_err < Context::V3_COUNTERS)
                Context::v3counters[v3_err] += 1;
            ctx.v3Error = v3_err;
            report = snmpV3;
        }
        out.writeV3Info(v3info);
    } else {
        std::cerr << "version not supported" << std::endl;
        return 0;
    }

    // PDU header.
    int const pduTag = in.getType();
    if (in.enterSeq() == 0xFFFFFFFFu)
        return 0;
    out.startSeq(replyTag);
    int requestId;
    if (!in.getInt(&requestId))
        return 0;
    out.add(requestId, 0x02);
    if (!in.getInt(&ctx.nonRepeaters) || !in.getInt(&ctx.maxRepetitions))
        return 0;
    out.addErrorStatus(0);
    out.addErrorIndex(0);
    bool const haveList = in.enterSeq() != 0xFFFFFFFFu;
    out.startSeq(0x30);

    unsigned int status = 0;
    unsigned int index = 0;
    if (report) {
        status = report(ctx);
    } else {
        if (!haveList)
            return 0;
        Handler handler;
        bool access;
        unsigned int denied;
        CommunityKeep::Item* item = findItem(ctx.community);
        switch (pduTag) {
        case 0xA0:
            handler = snmpGet;
            access = item && item->readAccess;
            denied = 2;
            break;
        case 0xA1:
            handler = snmpGetNext;
            access = item && item->readAccess;
            denied = 2;
            break;
        case 0xA3:
            handler = snmpSet;
            access = item && item->writeAccess;
            denied = 4;
            break;
        default:
            // GetBulk included: deliberately not answered.
            std::cerr << "unknown request command" << std::endl;
            return 0;
        }

        while (status == 0 && in.moreInSeq()) {
            if (in.enterSeq() == 0xFFFFFFFFu)
                return 0;
            out.startSeq(0x30);
            size_t const varbindStart = out.data.size();
            size_t const openSeqs = out.seqStack.size();
            status = denied;
            uint32_t const namePos = in.pos;
            if (!in.getOID(&ctx.oid))
                return 0;
            if (access)
                status = handler(ctx);
            if (status != 0) {
                // Whatever a failing leaf may have left is dropped: the
                // reply carries the name as asked, with NULL. The handler
                // has cut ctx.oid down, so the name is read again rather
                // than copied ahead of every varbind.
                if (out.data.size() > varbindStart)
                    out.data.resize(varbindStart);
                if (out.seqStack.size() > openSeqs)
                    out.seqStack.resize(openSeqs);
                if (access) {
                    uint32_t const valuePos = in.pos;
                    in.pos = namePos;
                    in.getOID(&ctx.oid);
                    in.pos = valuePos;
                }
                out.addOID(ctx.oid, 0x06);
                // A name the encoder refuses (first byte 120 or more decodes
                // to a first arc above 2) cannot be echoed: a varbind
                // without its name is no answer, so none is sent.
                if (out.data.size() == varbindStart)
                    return 0;
                out.addNull(0x05);
            }
            ++index;
            in.exitSeq();
            out.endSeq();
        }
    }

    if (status != 0) {
        out.addErrorStatus(status);
        if (status == 2)
            out.addErrorIndex(index);  // other statuses keep index 0 on purpose
    }
    out.endSeq();  // varbind list
    out.endSeq();  // PDU
    if (v3)
        out.cryptPacket(v3info, privKey, privProto);
    out.endSeq();  // message
    if (v3)
        out.signPacket(v3info, authKey, authProto);
    // Beyond this no datagram can carry it, and its lengths were cut to 16
    // bits: better no answer than a broken one.
    if (out.data.size() > MAX_REPLY) {
        std::cerr << "reply too long" << std::endl;
        return 0;
    }
    return 1;
}
