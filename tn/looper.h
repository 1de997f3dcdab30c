// The process's bus connection and event loop.
//
// Routing of a message by its destination F_PATH:
//   1. the handler registered in this process with the longest path that is
//      a prefix of F_PATH (the looper itself answers the empty path, except
//      in a looper that connected to a server: there the empty path is the
//      server's);
//   2. else a connected peer that announced a prefix of F_PATH (longest wins),
//      or the server this looper connected to as a client;
//   3. else the error reply ERR_NO_OBJECT.
// A local handler is called synchronously. A peer gets the encoded message
// as one SOCK_SEQPACKET packet; exchangeMessage then waits for the reply on
// that connection alone (serving nothing else) until the time-out
// (ERR_TIMEOUT) or a disconnect (ERR_DISCONNECTED).
//
// The control socket (listen) is created with mode 0600; a connecting
// process whose SO_PEERCRED uid is neither 0 nor this process's uid is
// closed at once. A malformed or oversized (above kMaxPacket) packet is
// answered with ERR_MALFORMED and changes nothing. A peer that does not take
// a packet sent to it within the send wait (it leaves its answers unread) is
// disconnected.
//
// Subscriptions: CMD_SUBSCRIBE to a path records (path, F_SUB_CMD) ->
// subscriber and calls the target handler's subscribed(). publish() then
// queues the event for every subscriber of (path, cmd); queued events are
// dispatched from the loop (run() or step()), each as a message with F_COMMAND = cmd and
// F_SENDER = the publishing path, to the subscriber's handle().
// A subscription to a path that a peer serves is forwarded to that peer
// and kept, so that it is sent again when a peer announces the path later.
//
// Requests that arrive from peers go to this process's handlers only
// (dispatchMessage); a packet with F_SEQ is answered with F_REPLY_TO = seq,
// one without is not answered.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tn/handler.h"
#include "tn/runner.h"

namespace tn {

class Looper : public Handler, public ThinRunner {
public:
    // The largest packet on the control socket: about what the kernel
    // carries in one SOCK_SEQPACKET packet.
    static constexpr size_t kMaxPacket = 4u << 20;

    Looper(uint32_t id = 0, uint32_t flags = 0, const char* name = nullptr);
    ~Looper() override;

    // Handler slots that the looper overrides.
    void loadPermData() override;
    void savePermData() override;
    message handleCmd(const message& req) override;
    void cmdDisconnected(uint32_t peer) override;

    // The looper's own slots, in the platform's order.
    virtual bool sendMessage(message& msg);
    virtual message exchangeMessage(message& msg, int timeoutMs);
    void shutdown() override;
    virtual void onInit();
    virtual bool filterMessage(const message& msg);     // false drops an incoming message
    virtual message dispatchMessage(const message& msg); // routes one request, returns the reply
    virtual bool canLeave();
    int run() override;

    void addHandler(uint32_t id, Handler* h) { addHandler(u32_vector{id}, h); }
    void addHandler(const u32_vector& path, Handler* h);
    void removeHandler(const u32_vector& path);

    // ms > 0: run() returns once the loop has been idle that long and
    // canLeave(); 0: never leave for idleness.
    void setupLeave(unsigned ms);

    // Server side: accept peers on a Unix SOCK_SEQPACKET socket at path.
    bool listen(const std::string& path, std::string* err = nullptr);
    // Client side: connect to a server; unroutable messages go there.
    bool connectTo(const std::string& path, std::string* err = nullptr);
    // As a peer of a server: tell it which path prefixes this process serves.
    bool announce(const std::vector<u32_vector>& prefixes);

    // Queues an event of `cmd` from handler path `from` for its subscribers.
    void publish(const u32_vector& from, uint32_t cmd, const message& event);
    size_t subscriberCount(const u32_vector& path, uint32_t cmd) const;

    // Receives every notifyChange/sendUndo message as well (tests, tracing).
    void setWatchHook(std::function<void(const message&)> hook) { watchHook_ = std::move(hook); }
    // Internal: delivers CMD_NOTIFY/CMD_UNDO to watchers.
    void deliverToWatchers(const message& m);

    size_t peerCount() const { return peers_.size(); }

protected:
    struct Peer;
    struct Subscription;
    void acceptPeer(int fd, unsigned events);
    void peerReadable(int fd, unsigned events);
    void dropPeer(int fd);
    void flushEvents();
    Handler* findLocal(const u32_vector& path) const;
    int findPeerFor(const u32_vector& path) const;

    std::map<u32_vector, Handler*> handlers_;
    std::map<int, Peer*> peers_;
    std::vector<Subscription*> subs_;
    std::deque<std::pair<Handler*, message>> pending_;
    std::function<void(const message&)> watchHook_;
    int listenFd_ = -1;
    int serverFd_ = -1;
    std::string listenPath_;
    unsigned leaveMs_ = 0;
    uint64_t lastActivity_ = 0;
    uint32_t nextSeq_ = 1;

private:
    enum send_status { SENT, SEND_TIMEOUT, SEND_BROKEN, SEND_TOO_LARGE };
    enum recv_status { RECV_PACKET, RECV_AGAIN, RECV_EOF, RECV_OVERSIZE };
    send_status sendPacket(int fd, const std::vector<uint8_t>& bytes, int timeoutMs);
    send_status sendPacket(int fd, const message& m, int timeoutMs);
    recv_status recvPacket(int fd, std::vector<uint8_t>& buf);
    message remoteExchange(int fd, message& msg, int timeoutMs);
    void processPacket(int fd, const std::vector<uint8_t>& bytes);
    message subscription(const message& req, Handler* target, Handler* subscriber, int peer);
    void rememberRemoteSub(const message& req);
    void replaySubs(int fd, const std::vector<u32_vector>* prefixes);
    bool routesToServer(const u32_vector& path) const;
    bool serveInboxes();
    void armInbox();
    void reapPeers();
    Peer* livePeer(int fd) const;
    void addPeer(int fd, bool server);

    std::vector<message> remoteSubs_;  // subscriptions forwarded (or to be forwarded) to peers
};

Looper* getLooper();
void setLooper(Looper* l);

}  // namespace tn
