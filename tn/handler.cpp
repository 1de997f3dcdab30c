#include "tn/handler.h"

#include <cstdio>

#include "tn/looper.h"

namespace tn {

void policies::add_policy(uint32_t command, uint32_t rights) {
    for (auto& p : list_) {
        if (p.first == command) {
            p.second = rights;
            return;
        }
    }
    list_.emplace_back(command, rights);
}

bool policies::is_allowed(const message& m) const {
    if (list_.empty()) return true;
    uint32_t cmd = m.get(u32_id(F_COMMAND));
    // A sender that states no rights is a trusted local caller.
    uint32_t rights = m.get(u32_id(F_RIGHTS), 0xFFFFFFFFu);
    for (const auto& p : list_)
        if (p.first == cmd && (rights & p.second) != p.second) return false;
    return true;
}

namespace {

message unsupported(uint32_t cmd) {
    char b[64];
    std::snprintf(b, sizeof b, "unsupported command 0x%x", cmd);
    return errorMsg(ERR_REFUSED, b);
}

}  // namespace

Handler::Handler() = default;
Handler::~Handler() = default;

void Handler::loadPermData() {}
void Handler::savePermData() {}

message Handler::handle(const message& req) {
    if (!checkPolicy(req)) {
        char b[64];
        std::snprintf(b, sizeof b, "command 0x%x not allowed", req.get(u32_id(F_COMMAND)));
        return errorMsg(ERR_NOT_ALLOWED, b);
    }
    // A destination longer than this handler's own path names something
    // beneath it that it has not registered separately.
    const u32_vector* dest = req.get_u32_array_ptr(u32_array_id(F_PATH));
    if (dest && dest->size() > path_.size()) return handleBrkpath(req);
    return handleCmd(req);
}

message Handler::handleBrkpath(const message&) { return errorMsg(ERR_NO_OBJECT, "no such path"); }

void Handler::handleReply(const message&) {}

message Handler::handleCmd(const message& req) {
    uint32_t cmd = req.get(u32_id(F_COMMAND));
    switch (cmd) {
    case CMD_GET: return cmdGet(req);
    case CMD_SET: return cmdSet(req);
    case CMD_GET_OBJ: return cmdGetObj(req, req.get(u32_id(F_OBJ_ID)));
    case CMD_SET_OBJ: return cmdSetObj(req, req.get(u32_id(F_OBJ_ID)));
    case CMD_GET_ALL:
        return cmdGetAll(req, req.get(u32_id(F_START), 0xFFFFFFFFu), req.get(u32_id(F_COUNT), 0));
    case CMD_ADD_OBJ: return cmdAddObj(req);
    case CMD_REMOVE_OBJ: return cmdRemoveObj(req, req.get(u32_id(F_OBJ_ID)));
    case CMD_MOVE_OBJ: return cmdMoveObj(req, req.get(u32_id(F_OBJ_ID)));
    case CMD_RESET: return cmdReset(req);
    case CMD_SHUTDOWN: return cmdShutdown(req);
    case CMD_GET_POLICIES: return cmdGetPolicies(req);
    case CMD_COUNT: return cmdGetCount(req);
    default: return cmdUnknown(req, cmd);
    }
}

message Handler::cmdGetPolicies(const message&) {
    message m;
    std::vector<message> list;
    for (const auto& p : handlerPolicies.list()) {
        message e;
        e.insert(u32_id(F_COMMAND), p.first);
        e.insert(u32_id(F_RIGHTS), p.second);
        list.push_back(e);
    }
    m.insert(message_array_id(F_OBJECTS), list);
    return m;
}
message Handler::cmdGet(const message&) { return unsupported(CMD_GET); }
message Handler::cmdSet(const message&) { return unsupported(CMD_SET); }
message Handler::cmdReset(const message&) { return unsupported(CMD_RESET); }

message Handler::cmdGetObj(const message&, uint32_t id) {
    message m = getObject(id);
    if (m.get(u32_id(F_NOT_EXIST)) == 1) return errorMsg(ERR_NO_OBJECT, "no such object");
    return m;
}

message Handler::cmdSetObj(const message&, uint32_t) { return unsupported(CMD_SET_OBJ); }
message Handler::cmdGetAll(const message&, uint32_t, uint32_t) { return unsupported(CMD_GET_ALL); }
message Handler::cmdAddObj(const message&) { return unsupported(CMD_ADD_OBJ); }
message Handler::cmdRemoveObj(const message&, uint32_t) { return unsupported(CMD_REMOVE_OBJ); }
message Handler::cmdMoveObj(const message&, uint32_t) { return unsupported(CMD_MOVE_OBJ); }

message Handler::cmdGetCount(const message&) {
    int n = getObjectCount();
    if (n < 0) return unsupported(CMD_COUNT);
    message m;
    m.insert(u32_id(F_TOTAL), uint32_t(n));
    return m;
}

message Handler::cmdUnknown(const message&, uint32_t cmd) { return unsupported(cmd); }
message Handler::cmdShutdown(const message&) { return unsupported(CMD_SHUTDOWN); }
bool Handler::shouldNotify(const message&) { return true; }
void Handler::subscribed(const message&) {}
void Handler::unsubscribed(const message&) {}
void Handler::cmdDisconnected(uint32_t) {}
void Handler::notifiesSent() {}

message Handler::getObject(uint32_t id) {
    message m;
    m.insert(u32_id(F_OBJ_ID), id);
    m.insert(u32_id(F_NOT_EXIST), 1u);
    return m;
}

int Handler::getObjectCount() { return -1; }
bool Handler::checkPolicy(const message& req) { return handlerPolicies.is_allowed(req); }

void Handler::sendCmd(uint32_t cmd, message& msg) {
    msg.insert(u32_id(F_COMMAND), cmd);
    if (!msg.has(u32_array_id(F_SENDER))) msg.insert(u32_array_id(F_SENDER), path_);
    if (Looper* l = getLooper()) l->sendMessage(msg);
}

message Handler::exchangeCmd(uint32_t cmd, message& msg, int timeoutMs) {
    msg.insert(u32_id(F_COMMAND), cmd);
    if (!msg.has(u32_array_id(F_SENDER))) msg.insert(u32_array_id(F_SENDER), path_);
    Looper* l = getLooper();
    if (!l) return errorMsg(ERR_DISCONNECTED, "no bus connection");
    return l->exchangeMessage(msg, timeoutMs);
}

void Handler::notifyChange(uint32_t id, const message& change) {
    Looper* l = getLooper();
    if (!l || !shouldNotify(change)) return;
    message m;
    m.insert(u32_id(F_COMMAND), uint32_t(CMD_NOTIFY));
    m.insert(u32_array_id(F_SENDER), path_);
    m.insert(u32_id(F_OBJ_ID), id);
    m.insert(message_id(F_CHANGE), change);
    l->deliverToWatchers(m);
    notifiesSent();
}

void Handler::sendUndo(const message& request, const message& undo, const std::string& text) {
    Looper* l = getLooper();
    if (!l) return;
    message m;
    m.insert(u32_id(F_COMMAND), uint32_t(CMD_UNDO));
    m.insert(u32_array_id(F_SENDER), path_);
    m.insert(message_id(F_CHANGE), request);
    m.insert(message_id(F_UNDO), undo);
    m.insert(string_id(F_UNDO_TEXT), text);
    l->deliverToWatchers(m);
}

namespace {

void subscription(const u32_vector& own, const u32_vector& path, uint32_t what, uint32_t cmd,
                  const message& filter) {
    Looper* l = getLooper();
    if (!l) return;
    message m;
    m.insert(u32_id(F_COMMAND), what);
    m.insert(u32_array_id(F_PATH), path);
    m.insert(u32_array_id(F_SENDER), own);
    m.insert(u32_id(F_SUB_CMD), cmd);
    m.insert(message_id(F_SUB_FILTER), filter);
    l->sendMessage(m);
}

}  // namespace

void Handler::subscribe(const u32_vector& path, uint32_t cmd, const message& filter) {
    subscription(path_, path, CMD_SUBSCRIBE, cmd, filter);
}

void Handler::unsubscribe(const u32_vector& path, uint32_t cmd, const message& filter) {
    subscription(path_, path, CMD_UNSUBSCRIBE, cmd, filter);
}

}  // namespace tn
