#include "tn/looper.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace tn {

namespace {

Looper* g_looper = nullptr;

// Packets that could not be sent within this time are dropped (events,
// notifications, replies); a blocked peer must not stall the process.
constexpr int kSendWaitMs = 1000;
// Packets served per readiness callback before other sockets get a turn.
constexpr int kPacketsPerRound = 64;

uint64_t monoMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000u + uint64_t(ts.tv_nsec) / 1000000u;
}

bool isPrefix(const u32_vector& prefix, const u32_vector& path) {
    return prefix.size() <= path.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

u32_vector pathOf(const message& m, uint32_t key) {
    const u32_vector* p = m.get_u32_array_ptr(u32_array_id(key));
    return p ? *p : u32_vector();
}

// The same without a copy, for the request path.
const u32_vector& pathRef(const message& m, uint32_t key) {
    static const u32_vector none;
    const u32_vector* p = m.get_u32_array_ptr(u32_array_id(key));
    return p ? *p : none;
}

std::string pathText(const u32_vector& p) {
    std::string s = "[";
    for (size_t i = 0; i < p.size(); ++i) {
        if (i) s += ",";
        s += std::to_string(p[i]);
    }
    return s + "]";
}

message noRoute(const u32_vector& path) { return errorMsg(ERR_NO_OBJECT, "no handler for path " + pathText(path)); }

// Large enough for any message the codec accepts, where the kernel lets us.
void setBuffers(int fd) {
    int size = int(Looper::kMaxPacket + 65536);
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

bool makeAddress(const std::string& path, sockaddr_un& a, std::string* err) {
    std::memset(&a, 0, sizeof a);
    a.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof a.sun_path) {
        if (err) *err = "socket path \"" + path + "\" is empty or too long";
        return false;
    }
    std::memcpy(a.sun_path, path.data(), path.size());
    return true;
}

bool isSubscription(uint32_t cmd) { return cmd == CMD_SUBSCRIBE || cmd == CMD_UNSUBSCRIBE; }

// Tags of the looper's own zero-delay timers, which get queued work done
// from the loop whether it is driven by run() or by step().
constexpr uint64_t kFlushTag = 1;
constexpr uint64_t kInboxTag = 2;

}  // namespace

struct Looper::Peer {
    int fd = -1;
    bool server = false;   // the connection this looper made with connectTo
    bool watcher = false;  // asked for notifications and undo records
    bool dead = false;     // hung up; dropped from the loop
    std::vector<u32_vector> prefixes;
    // Packets that arrived while an exchange waited for its reply.
    std::deque<std::vector<uint8_t>> inbox;
};

struct Looper::Subscription {
    u32_vector path;  // the publishing handler
    uint32_t cmd = 0;
    message filter;
    Handler* handler = nullptr;  // local subscriber, or
    int peer = -1;               // the peer connection of a remote one
    u32_vector subscriber;       // the subscriber's own path
};

Looper* getLooper() { return g_looper; }
void setLooper(Looper* l) { g_looper = l; }

Looper::Looper(uint32_t, uint32_t, const char*) {
    if (!g_looper) g_looper = this;
    if (!getRunner()) setRunner(this);
    lastActivity_ = nowMs();
}

Looper::~Looper() {
    for (auto& p : peers_) {
        removeSocket(p.first);
        close(p.first);
        delete p.second;
    }
    peers_.clear();
    for (Subscription* s : subs_) delete s;
    subs_.clear();
    if (listenFd_ >= 0) {
        removeSocket(listenFd_);
        close(listenFd_);
        unlink(listenPath_.c_str());
    }
    if (g_looper == this) g_looper = nullptr;
    if (getRunner() == this) setRunner(nullptr);
}

void Looper::loadPermData() {
    for (auto& h : handlers_) h.second->loadPermData();
}

void Looper::savePermData() {
    for (auto& h : handlers_) h.second->savePermData();
}

message Looper::handleCmd(const message& req) {
    uint32_t cmd = req.get(u32_id(F_COMMAND));
    if (cmd == CMD_ANNOUNCE || cmd == CMD_WATCH) return errorMsg(ERR_REFUSED, "only peers announce or watch");
    return Handler::handleCmd(req);
}

void Looper::cmdDisconnected(uint32_t peer) {
    for (auto it = subs_.begin(); it != subs_.end();) {
        if ((*it)->peer == int(peer)) {
            delete *it;
            it = subs_.erase(it);
        } else {
            ++it;
        }
    }
    for (auto& h : handlers_) h.second->cmdDisconnected(peer);
}

void Looper::addHandler(const u32_vector& path, Handler* h) {
    if (!h) return;
    handlers_[path] = h;
    h->setHandlerPath(path);
}

void Looper::removeHandler(const u32_vector& path) {
    auto it = handlers_.find(path);
    if (it == handlers_.end()) return;
    Handler* h = it->second;
    handlers_.erase(it);
    for (auto s = subs_.begin(); s != subs_.end();) {
        if ((*s)->handler == h) {
            delete *s;
            s = subs_.erase(s);
        } else {
            ++s;
        }
    }
    for (auto& e : pending_) {
        if (e.first == h) {
            e.first = nullptr;
            e.second.clear();
        }
    }
}

Handler* Looper::findLocal(const u32_vector& path) const {
    Handler* best = nullptr;
    size_t bestLen = 0;
    for (const auto& h : handlers_) {
        const u32_vector& p = h.first;
        if (p.empty()) {
            if (path.empty()) return h.second;
            continue;  // the empty path is served exactly, never as a prefix
        }
        if (p.size() > bestLen && isPrefix(p, path)) {
            best = h.second;
            bestLen = p.size();
        }
    }
    if (!best && path.empty()) return const_cast<Looper*>(this);
    return best;
}

int Looper::findPeerFor(const u32_vector& path) const {
    int best = -1;
    size_t bestLen = 0;
    for (const auto& e : peers_) {
        const Peer* p = e.second;
        if (p->dead) continue;
        for (const u32_vector& pre : p->prefixes) {
            if (isPrefix(pre, path) && (best < 0 || pre.size() > bestLen)) {
                best = e.first;
                bestLen = pre.size();
            }
        }
    }
    if (best >= 0) return best;
    if (serverFd_ >= 0 && livePeer(serverFd_)) return serverFd_;
    return -1;
}

bool Looper::routesToServer(const u32_vector& path) const {
    return path.empty() && serverFd_ >= 0 && livePeer(serverFd_) && handlers_.count(path) == 0;
}

Looper::Peer* Looper::livePeer(int fd) const {
    auto it = peers_.find(fd);
    return it != peers_.end() && !it->second->dead ? it->second : nullptr;
}

// ---- sending and receiving packets ----

Looper::send_status Looper::sendPacket(int fd, const message& m, int timeoutMs) {
    std::vector<uint8_t> bytes;
    m.encode_to(bytes);
    return sendPacket(fd, bytes, timeoutMs);
}

Looper::send_status Looper::sendPacket(int fd, const std::vector<uint8_t>& bytes, int timeoutMs) {
    if (bytes.size() > kMaxPacket) return SEND_TOO_LARGE;
    uint64_t deadline = monoMs() + uint64_t(timeoutMs < 0 ? 0 : timeoutMs);
    for (;;) {
        ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) return SENT;
        if (errno == EINTR) continue;
        if (errno == EMSGSIZE) return SEND_TOO_LARGE;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS) {
            auto it = peers_.find(fd);
            if (it != peers_.end()) it->second->dead = true;
            return SEND_BROKEN;
        }
        uint64_t now = monoMs();
        if (now >= deadline) {
            // A peer that leaves its answers unread would otherwise hold the
            // whole loop (and the SNMP service) for the wait of every packet
            // it has queued: it is dropped instead.
            auto it = peers_.find(fd);
            if (it != peers_.end()) it->second->dead = true;
            return SEND_TIMEOUT;
        }
        struct pollfd p = {fd, POLLOUT, 0};
        poll(&p, 1, int(deadline - now));
    }
}

Looper::recv_status Looper::recvPacket(int fd, std::vector<uint8_t>& buf) {
    for (;;) {
        // The packet's true length, without taking it off the queue.
        ssize_t n = recv(fd, nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return RECV_AGAIN;
            return RECV_EOF;
        }
        if (n == 0) {
            // Either the peer hung up or it sent an empty packet.
            struct pollfd p = {fd, POLLIN | POLLRDHUP, 0};
            if (poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLRDHUP | POLLERR))) return RECV_EOF;
            char c;
            recv(fd, &c, 1, MSG_DONTWAIT);
            buf.clear();
            return RECV_PACKET;
        }
        if (size_t(n) > kMaxPacket) {
            char c;
            recv(fd, &c, 1, MSG_DONTWAIT);  // takes the whole packet off the queue
            return RECV_OVERSIZE;
        }
        buf.resize(size_t(n));
        ssize_t got = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT);
        if (got < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return RECV_AGAIN;
            return RECV_EOF;
        }
        buf.resize(size_t(got));
        return RECV_PACKET;
    }
}

// ---- routing ----

bool Looper::sendMessage(message& msg) {
    u32_vector path = pathOf(msg, F_PATH);
    uint32_t cmd = msg.get(u32_id(F_COMMAND));
    if (!routesToServer(path) && findLocal(path)) {
        if (isSubscription(cmd)) {
            dispatchMessage(msg);  // bookkeeping only; nothing to wait for
            return true;
        }
        // Delivered from the loop, so a handler never re-enters itself.
        pending_.emplace_back(nullptr, msg);
        addTimer(0, [this] { flushEvents(); }, timer_key{this, kFlushTag});
        return true;
    }
    if (isSubscription(cmd)) rememberRemoteSub(msg);
    int fd = findPeerFor(path);
    if (fd < 0) return false;
    return sendPacket(fd, msg, kSendWaitMs) == SENT;
}

message Looper::exchangeMessage(message& msg, int timeoutMs) {
    const u32_vector& path = pathRef(msg, F_PATH);
    if (!routesToServer(path) && findLocal(path)) return dispatchMessage(msg);
    if (isSubscription(msg.get(u32_id(F_COMMAND)))) rememberRemoteSub(msg);
    int fd = findPeerFor(path);
    if (fd < 0) return noRoute(path);
    return remoteExchange(fd, msg, timeoutMs);
}

message Looper::remoteExchange(int fd, message& msg, int timeoutMs) {
    Peer* peer = livePeer(fd);
    if (!peer) return errorMsg(ERR_DISCONNECTED, "peer disconnected");
    uint32_t seq = nextSeq_++;
    if (nextSeq_ == 0) nextSeq_ = 1;
    msg.insert(u32_id(F_SEQ), seq);
    std::vector<uint8_t> bytes;
    msg.encode_to(bytes);
    msg.remove_key(make_key(T_U32, F_SEQ));

    uint64_t deadline = monoMs() + uint64_t(timeoutMs < 0 ? 0 : timeoutMs);
    switch (sendPacket(fd, bytes, timeoutMs)) {
    case SENT: break;
    case SEND_TIMEOUT: return errorMsg(ERR_TIMEOUT, "time-out sending the request");
    case SEND_TOO_LARGE: return errorMsg(ERR_MALFORMED, "message too large to send");
    case SEND_BROKEN: return errorMsg(ERR_DISCONNECTED, "peer disconnected");
    }

    // Only this connection is read until the reply comes: other requests
    // from the same peer wait in its inbox, other sockets in the kernel.
    std::vector<uint8_t> buf;
    for (;;) {
        uint64_t now = monoMs();
        if (now >= deadline) return errorMsg(ERR_TIMEOUT, "no reply within " + std::to_string(timeoutMs) + " ms");
        struct pollfd p = {fd, POLLIN, 0};
        int r = poll(&p, 1, int(std::min<uint64_t>(deadline - now, 0x7FFFFFFF)));
        if (r < 0 && errno != EINTR) return errorMsg(ERR_DISCONNECTED, std::string("poll: ") + strerror(errno));
        if (r <= 0) continue;
        recv_status st = recvPacket(fd, buf);
        if (st == RECV_AGAIN) continue;
        if (st == RECV_EOF) {
            peer->dead = true;
            return errorMsg(ERR_DISCONNECTED, "peer disconnected before replying");
        }
        if (st == RECV_OVERSIZE) {
            sendPacket(fd, errorMsg(ERR_MALFORMED, "message too large"), kSendWaitMs);
            continue;
        }
        message reply;
        if (message::decode(buf.data(), buf.size(), reply) && reply.has(u32_id(F_REPLY_TO)) &&
            reply.get(u32_id(F_REPLY_TO)) == seq) {
            reply.remove_key(make_key(T_U32, F_REPLY_TO));
            lastActivity_ = nowMs();
            return reply;
        }
        peer->inbox.push_back(std::move(buf));
        buf.clear();
        armInbox();
    }
}

message Looper::dispatchMessage(const message& msg) {
    lastActivity_ = nowMs();
    const u32_vector& path = pathRef(msg, F_PATH);
    Handler* target = findLocal(path);
    if (!target) return noRoute(path);
    if (isSubscription(msg.get(u32_id(F_COMMAND)))) {
        u32_vector sender = pathOf(msg, F_SENDER);
        auto it = handlers_.find(sender);
        Handler* subscriber = it != handlers_.end() ? it->second : sender.empty() ? this : nullptr;
        if (!subscriber) return errorMsg(ERR_NO_OBJECT, "no subscriber at path " + pathText(sender));
        return subscription(msg, target, subscriber, -1);
    }
    return target->handle(msg);
}

message Looper::subscription(const message& req, Handler* target, Handler* subscriber, int peer) {
    u32_vector path = pathOf(req, F_PATH);
    u32_vector sender = pathOf(req, F_SENDER);
    uint32_t cmd = req.get(u32_id(F_SUB_CMD));
    auto same = [&](const Subscription* s) {
        return s->path == path && s->cmd == cmd && s->handler == subscriber && s->peer == peer &&
               s->subscriber == sender;
    };
    auto it = std::find_if(subs_.begin(), subs_.end(), same);
    if (req.get(u32_id(F_COMMAND)) == CMD_SUBSCRIBE) {
        Subscription* s = it != subs_.end() ? *it : nullptr;
        if (!s) {
            s = new Subscription;
            s->path = path;
            s->cmd = cmd;
            s->handler = subscriber;
            s->peer = peer;
            s->subscriber = sender;
            subs_.push_back(s);
        }
        s->filter = req.get(message_id(F_SUB_FILTER));
        target->subscribed(req);
    } else if (it != subs_.end()) {
        delete *it;
        subs_.erase(it);
        target->unsubscribed(req);
    }
    return message();
}

void Looper::rememberRemoteSub(const message& req) {
    u32_vector path = pathOf(req, F_PATH);
    u32_vector sender = pathOf(req, F_SENDER);
    uint32_t cmd = req.get(u32_id(F_SUB_CMD));
    remoteSubs_.erase(std::remove_if(remoteSubs_.begin(), remoteSubs_.end(),
                                     [&](const message& m) {
                                         return pathOf(m, F_PATH) == path && pathOf(m, F_SENDER) == sender &&
                                                m.get(u32_id(F_SUB_CMD)) == cmd;
                                     }),
                      remoteSubs_.end());
    if (req.get(u32_id(F_COMMAND)) == CMD_SUBSCRIBE) remoteSubs_.push_back(req);
}

// Sends the kept subscriptions that fd now serves: those under one of the
// prefixes it announced, or all that are not served here when fd is the
// server.
void Looper::replaySubs(int fd, const std::vector<u32_vector>* prefixes) {
    for (const message& m : remoteSubs_) {
        u32_vector path = pathOf(m, F_PATH);
        if (findLocal(path) && !routesToServer(path)) continue;
        bool match = !prefixes;
        if (prefixes)
            for (const u32_vector& p : *prefixes) match = match || isPrefix(p, path);
        if (match && findPeerFor(path) == fd) sendPacket(fd, m, kSendWaitMs);
    }
}

// ---- peers ----

void Looper::addPeer(int fd, bool server) {
    setBuffers(fd);
    Peer* p = new Peer;
    p->fd = fd;
    p->server = server;
    peers_[fd] = p;
    addSocket(fd, this, &Looper::peerReadable);
}

bool Looper::listen(const std::string& path, std::string* err) {
    if (listenFd_ >= 0) {
        if (err) *err = "already listening on " + listenPath_;
        return false;
    }
    sockaddr_un a;
    if (!makeAddress(path, a, err)) return false;
    // A live server keeps its socket; a stale socket file is replaced.
    int probe = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (probe >= 0) {
        bool live = connect(probe, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        close(probe);
        if (live) {
            if (err) *err = "another process serves " + path;
            return false;
        }
    }
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            if (err) *err = path + " exists and is not a socket";
            return false;
        }
        unlink(path.c_str());
    }
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (err) *err = std::string("socket: ") + strerror(errno);
        return false;
    }
    // Created without group or other access from the start, not chmod-ed
    // afterwards, so there is no moment at which others could connect.
    mode_t old = umask(0177);
    int rc = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    int bindErr = errno;
    umask(old);
    if (rc != 0 || chmod(path.c_str(), 0600) != 0 || ::listen(fd, 16) != 0) {
        if (err) *err = "cannot listen on " + path + ": " + strerror(rc != 0 ? bindErr : errno);
        close(fd);
        if (rc == 0) unlink(path.c_str());
        return false;
    }
    if (!addSocket(fd, this, &Looper::acceptPeer)) {
        if (err) *err = "cannot watch " + path;
        close(fd);
        unlink(path.c_str());
        return false;
    }
    listenFd_ = fd;
    listenPath_ = path;
    return true;
}

void Looper::acceptPeer(int, unsigned) {
    for (;;) {
        int fd = accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            return;
        }
        struct ucred cred;
        socklen_t len = sizeof cred;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 ||
            (cred.uid != 0 && cred.uid != geteuid())) {
            std::fprintf(stderr, "control socket: refused a connection of uid %d\n",
                         len == sizeof cred ? int(cred.uid) : -1);
            close(fd);
            continue;
        }
        lastActivity_ = nowMs();
        addPeer(fd, false);
    }
}

bool Looper::connectTo(const std::string& path, std::string* err) {
    if (serverFd_ >= 0 && livePeer(serverFd_)) {
        if (err) *err = "already connected";
        return false;
    }
    sockaddr_un a;
    if (!makeAddress(path, a, err)) return false;
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (err) *err = std::string("socket: ") + strerror(errno);
        return false;
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        if (err) *err = "cannot connect to " + path + ": " + strerror(errno);
        close(fd);
        return false;
    }
    int fl = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, fl | O_NONBLOCK);
    addPeer(fd, true);
    serverFd_ = fd;
    replaySubs(fd, nullptr);
    return true;
}

bool Looper::announce(const std::vector<u32_vector>& prefixes) {
    if (serverFd_ < 0 || !livePeer(serverFd_)) return false;
    message m;
    m.insert(u32_id(F_COMMAND), uint32_t(CMD_ANNOUNCE));
    std::vector<message> list;
    for (const u32_vector& p : prefixes) {
        message e;
        e.insert(u32_array_id(F_PATH), p);
        list.push_back(e);
    }
    m.insert(message_array_id(F_PREFIXES), list);
    // Confirmed, so that the server routes to us once this returns.
    return !isError(remoteExchange(serverFd_, m, 6000));
}

void Looper::peerReadable(int fd, unsigned) {
    lastActivity_ = nowMs();
    std::vector<uint8_t> buf;
    for (int i = 0; i < kPacketsPerRound; ++i) {
        Peer* p = livePeer(fd);
        if (!p) break;
        // Packets that an exchange set aside come before newer ones.
        if (!p->inbox.empty()) {
            buf = std::move(p->inbox.front());
            p->inbox.pop_front();
            processPacket(fd, buf);
            continue;
        }
        recv_status st = recvPacket(fd, buf);
        if (st == RECV_AGAIN) break;
        if (st == RECV_EOF) {
            p->dead = true;
            break;
        }
        if (st == RECV_OVERSIZE) {
            sendPacket(fd, errorMsg(ERR_MALFORMED, "message too large"), kSendWaitMs);
            continue;
        }
        processPacket(fd, buf);
    }
    auto it = peers_.find(fd);
    if (it == peers_.end())
        removeSocket(fd);
    else if (it->second->dead)
        dropPeer(fd);
}

void Looper::processPacket(int fd, const std::vector<uint8_t>& bytes) {
    message m;
    std::string why;
    if (!message::decode(bytes.data(), bytes.size(), m, &why)) {
        sendPacket(fd, errorMsg(ERR_MALFORMED, "malformed message: " + why), kSendWaitMs);
        return;
    }
    if (m.has(u32_id(F_REPLY_TO))) {
        handleReply(m);  // its exchange timed out, or nobody asked
        return;
    }
    if (!filterMessage(m)) return;
    bool wantsReply = m.has(u32_id(F_SEQ));
    uint32_t seq = m.get(u32_id(F_SEQ));
    m.remove_key(make_key(T_U32, F_SEQ));
    uint32_t cmd = m.get(u32_id(F_COMMAND));
    message reply;
    Peer* p = livePeer(fd);
    if (cmd == CMD_ANNOUNCE && p) {
        p->prefixes.clear();
        if (const std::vector<flat_message>* list = m.get_flat(message_array_id(F_PREFIXES)))
            for (const flat_message& e : *list) p->prefixes.push_back(pathOf(e.unflatten(), F_PATH));
        std::vector<u32_vector> prefixes = p->prefixes;
        replaySubs(fd, &prefixes);
    } else if (cmd == CMD_WATCH && p) {
        p->watcher = true;
    } else if (isSubscription(cmd)) {
        u32_vector path = pathOf(m, F_PATH);
        Handler* target = findLocal(path);
        reply = target ? subscription(m, target, nullptr, fd) : noRoute(path);
    } else {
        reply = dispatchMessage(m);
    }
    if (wantsReply) {
        reply.insert(u32_id(F_REPLY_TO), seq);
        sendPacket(fd, reply, kSendWaitMs);
    }
}

void Looper::dropPeer(int fd) {
    auto it = peers_.find(fd);
    removeSocket(fd);
    if (it == peers_.end()) return;
    Peer* p = it->second;
    peers_.erase(it);
    close(fd);
    if (fd == serverFd_) serverFd_ = -1;
    delete p;
    cmdDisconnected(uint32_t(fd));
}

void Looper::reapPeers() {
    std::vector<int> dead;
    for (auto& e : peers_)
        if (e.second->dead) dead.push_back(e.first);
    for (int fd : dead) dropPeer(fd);
}

void Looper::armInbox() {
    addTimer(0, [this] {
        if (serveInboxes()) armInbox();
    }, timer_key{this, kInboxTag});
}

// Serves packets that exchanges set aside; true when some remain.
bool Looper::serveInboxes() {
    bool more = false;
    std::vector<int> fds;
    for (auto& e : peers_)
        if (!e.second->inbox.empty() && !e.second->dead) fds.push_back(e.first);
    for (int fd : fds) {
        for (int i = 0; i < kPacketsPerRound; ++i) {
            Peer* p = livePeer(fd);
            if (!p || p->inbox.empty()) break;
            std::vector<uint8_t> buf = std::move(p->inbox.front());
            p->inbox.pop_front();
            processPacket(fd, buf);
        }
        Peer* p = livePeer(fd);
        if (p && !p->inbox.empty()) more = true;
    }
    return more;
}

// ---- events ----

void Looper::publish(const u32_vector& from, uint32_t cmd, const message& event) {
    for (Subscription* s : subs_) {
        if (s->cmd != cmd || s->path != from) continue;
        message m = event;
        m.insert(u32_id(F_COMMAND), cmd);
        m.insert(u32_array_id(F_SENDER), from);
        m.insert(u32_array_id(F_PATH), s->handler ? s->handler->handlerPath() : s->subscriber);
        if (s->handler) {
            pending_.emplace_back(s->handler, std::move(m));
            addTimer(0, [this] { flushEvents(); }, timer_key{this, kFlushTag});
        }
        else if (livePeer(s->peer))
            sendPacket(s->peer, m, kSendWaitMs);
    }
}

size_t Looper::subscriberCount(const u32_vector& path, uint32_t cmd) const {
    size_t n = 0;
    for (const Subscription* s : subs_)
        if (s->path == path && s->cmd == cmd) ++n;
    return n;
}

void Looper::flushEvents() {
    // Only what is queued now: events queued by these handlers wait for the
    // next round, so that sockets and timers are not starved.
    size_t n = pending_.size();
    for (size_t i = 0; i < n && !pending_.empty(); ++i) {
        std::pair<Handler*, message> e = std::move(pending_.front());
        pending_.pop_front();
        if (e.first)
            e.first->handle(e.second);
        else if (!e.second.empty())
            dispatchMessage(e.second);
    }
}

void Looper::deliverToWatchers(const message& m) {
    if (watchHook_) watchHook_(m);
    for (auto& e : peers_)
        if (e.second->watcher && !e.second->dead) sendPacket(e.first, m, kSendWaitMs);
}

// ---- the loop ----

void Looper::shutdown() { ThinRunner::shutdown(); }
void Looper::onInit() {}
bool Looper::filterMessage(const message&) { return true; }
bool Looper::canLeave() { return true; }

void Looper::setupLeave(unsigned ms) {
    leaveMs_ = ms;
    lastActivity_ = nowMs();
}

int Looper::run() {
    onInit();
    lastActivity_ = nowMs();
    while (!stop_) {
        flushEvents();
        bool more = serveInboxes();
        reapPeers();
        if (stop_) break;
        int wait = pending_.empty() && !more ? sleepTime() : 0;
        if (leaveMs_) {
            uint64_t now = nowMs();
            uint64_t at = lastActivity_ + leaveMs_;
            int left = at > now ? int(std::min<uint64_t>(at - now, 0x7FFFFFFF)) : 0;
            if (wait < 0 || wait > left) wait = left;
        }
        if (!step(wait)) break;
        if (leaveMs_ && pending_.empty() && nowMs() - lastActivity_ >= leaveMs_ && canLeave()) break;
    }
    return 0;
}

}  // namespace tn
