// The base of every bus command handler.
//
// A request carries its command in F_COMMAND and its destination in
// F_PATH. handle() checks the policy, then handleCmd() dispatches:
//   CMD_GET -> cmdGet            CMD_SET -> cmdSet
//   CMD_GET_OBJ -> cmdGetObj(id) CMD_SET_OBJ -> cmdSetObj(id)   (id = F_OBJ_ID)
//   CMD_GET_ALL -> cmdGetAll(start = F_START or 0xFFFFFFFF, count = F_COUNT or 0)
//   CMD_ADD_OBJ -> cmdAddObj     CMD_REMOVE_OBJ -> cmdRemoveObj(id)
//   CMD_MOVE_OBJ, CMD_RESET, CMD_SHUTDOWN, CMD_GET_POLICIES -> their cmd...
//   CMD_COUNT -> cmdGetCount     anything else -> cmdUnknown(msg, command)
// Every command is answered with a message: empty for success, errorMsg()
// for a refusal.
//
// The virtual operations are declared in the platform's slot order; keep it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tn/message.h"

namespace tn {

class policies {
public:
    // A command with a policy is allowed only to senders whose rights
    // (F_RIGHTS, all rights when absent) include every bit of `rights`.
    void add_policy(uint32_t command, uint32_t rights);
    bool is_allowed(const message& m) const;
    size_t size() const { return list_.size(); }
    const std::vector<std::pair<uint32_t, uint32_t>>& list() const { return list_; }  // (command, rights)

private:
    std::vector<std::pair<uint32_t, uint32_t>> list_;
};

class Handler {
public:
    Handler();
    virtual ~Handler();

    virtual void loadPermData();
    virtual void savePermData();
    virtual message handle(const message& req);
    virtual message handleBrkpath(const message& req);  // path not served below this handler
    virtual void handleReply(const message& reply);      // a reply nobody waits for
    virtual message handleCmd(const message& req);
    virtual message cmdGetPolicies(const message& req);
    virtual message cmdGet(const message& req);
    virtual message cmdSet(const message& req);
    virtual message cmdReset(const message& req);
    virtual message cmdGetObj(const message& req, uint32_t id);
    virtual message cmdSetObj(const message& req, uint32_t id);
    virtual message cmdGetAll(const message& req, uint32_t start, uint32_t count);
    virtual message cmdAddObj(const message& req);
    virtual message cmdRemoveObj(const message& req, uint32_t id);
    virtual message cmdMoveObj(const message& req, uint32_t id);
    virtual message cmdGetCount(const message& req);
    virtual message cmdUnknown(const message& req, uint32_t cmd);
    virtual message cmdShutdown(const message& req);
    virtual bool shouldNotify(const message& req);
    virtual void subscribed(const message& req);    // someone subscribed to this handler's events
    virtual void unsubscribed(const message& req);
    virtual void cmdDisconnected(uint32_t peer);
    virtual void notifiesSent();
    virtual message getObject(uint32_t id);         // default: {F_OBJ_ID = id, F_NOT_EXIST = 1}
    virtual int getObjectCount();                   // default: -1
    virtual bool checkPolicy(const message& req);   // default: handlerPolicies.is_allowed(req)

    // Fire-and-forget: puts cmd into msg and sends it to msg's F_PATH.
    void sendCmd(uint32_t cmd, message& msg);
    // Synchronous request to msg's F_PATH; returns the reply or an error reply.
    message exchangeCmd(uint32_t cmd, message& msg, int timeoutMs = 6000);
    // Announces a change of object id to watchers (dropped when none).
    void notifyChange(uint32_t id, const message& change);
    // Records how to undo `request` (dropped when no watcher).
    void sendUndo(const message& request, const message& undo, const std::string& text);
    // Asks the handler at `path` to send this handler its events of `cmd`.
    void subscribe(const u32_vector& path, uint32_t cmd, const message& filter);
    void unsubscribe(const u32_vector& path, uint32_t cmd, const message& filter);

    const u32_vector& handlerPath() const { return path_; }
    void setHandlerPath(const u32_vector& p) { path_ = p; }

    policies handlerPolicies;

private:
    u32_vector path_;
};

}  // namespace tn
