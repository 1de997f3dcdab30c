// tn::Looper: local routing, exchanges, events, idle exit, the control
// socket and peers (raw sockets and a second looper on another thread).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "tn/looper.h"

using namespace tn;

namespace {

typedef std::chrono::steady_clock Clock;

long msSince(Clock::time_point t) {
    return long(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

message req(uint32_t cmd, const u32_vector& path) {
    message m;
    m.insert(u32_id(F_COMMAND), cmd);
    m.insert(u32_array_id(F_PATH), path);
    return m;
}

// Answers with its name; below its path with name + "/below".
struct Named : Handler {
    std::string name;
    int calls = 0;
    std::vector<message> got;
    explicit Named(const std::string& n) : name(n) {}
    message handleCmd(const message& r) override {
        ++calls;
        got.push_back(r);
        message m;
        m.insert(string_id(1), name);
        return m;
    }
    message handleBrkpath(const message&) override {
        message m;
        m.insert(string_id(1), name + "/below");
        return m;
    }
};

struct Publisher : Handler {
    std::vector<message> subs, unsubs;
    void subscribed(const message& r) override { subs.push_back(r); }
    void unsubscribed(const message& r) override { unsubs.push_back(r); }
};

struct TestLooper : Looper {
    bool leave = true;
    int gets = 0;
    message cmdGet(const message&) override {
        ++gets;
        message m;
        m.insert(string_id(1), "looper");
        return m;
    }
    bool canLeave() override { return leave; }
};

// Runs the loop (events included) for about ms milliseconds.
void runFor(Looper& l, unsigned ms) {
    l.addTimer(ms, [&l] { l.shutdown(); });
    l.run();
    l.resetStop();
}

struct SocketDir : ::testing::Test {
    std::string dir, path;
    void SetUp() override {
        char tmpl[] = "/tmp/tn_looper_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
        path = dir + "/control.sock";
    }
    void TearDown() override {
        std::string cmd = "rm -rf '" + dir + "'";
        ASSERT_EQ(0, std::system(cmd.c_str()));
    }
};

// A peer speaking the wire format directly.
struct RawPeer {
    int fd = -1;
    explicit RawPeer(const std::string& path) {
        fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un a = {};
        a.sun_family = AF_UNIX;
        std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            close(fd);
            fd = -1;
        }
    }
    ~RawPeer() { closeNow(); }
    void closeNow() {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    bool sendBytes(const std::vector<uint8_t>& b) {
        return send(fd, b.data(), b.size(), MSG_NOSIGNAL) == ssize_t(b.size());
    }
    bool sendMsg(const message& m) { return sendBytes(m.encode()); }
    // 1 = message, 0 = nothing within the time, -1 = closed.
    int recvMsg(message& out, int timeoutMs) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0) return 0;
        std::vector<uint8_t> buf(1 << 20);
        ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n <= 0) return -1;
        return message::decode(buf.data(), size_t(n), out) ? 1 : -1;
    }
};

// Steps the looper until the raw peer has a message (or the time is up).
int pumpUntilReply(Looper& l, RawPeer& p, message& out, int timeoutMs = 2000) {
    Clock::time_point start = Clock::now();
    while (msSince(start) < timeoutMs) {
        l.step(10);
        int r = p.recvMsg(out, 0);
        if (r != 0) return r;
    }
    return 0;
}

void pumpUntil(Looper& l, const std::function<bool()>& done, int timeoutMs = 2000) {
    Clock::time_point start = Clock::now();
    while (!done() && msSince(start) < timeoutMs) l.step(10);
}

// A looper served on its own thread until stopped.
struct LooperThread {
    Looper& l;
    std::atomic<bool> quit{false};
    std::thread t;
    explicit LooperThread(Looper& lp) : l(lp) {
        poll();
        t = std::thread([this] { l.run(); });
    }
    void poll() {
        l.addTimer(5, [this] {
            if (quit) l.shutdown();
            else poll();
        });
    }
    ~LooperThread() {
        quit = true;
        t.join();
    }
};

}  // namespace

TEST(TnLooper, RegistersItselfAsTheProcessLooper) {
    {
        Looper a;
        EXPECT_EQ(&a, getLooper());
        EXPECT_EQ(static_cast<ThinRunner*>(&a), getRunner());
        Looper b;  // the first one stays
        EXPECT_EQ(&a, getLooper());
    }
    EXPECT_EQ(nullptr, getLooper());
    EXPECT_EQ(nullptr, getRunner());
}

TEST(TnLooper, LocalRoutingByLongestPrefix) {
    TestLooper l;
    Named one("one"), onetwo("onetwo"), twenty("twenty");
    l.addHandler(1, &one);
    l.addHandler({1, 2}, &onetwo);
    l.addHandler({20}, &twenty);
    EXPECT_EQ((u32_vector{1, 2}), onetwo.handlerPath());

    struct {
        u32_vector path;
        const char* answer;
    } cases[] = {
        {{1}, "one"}, {{1, 2}, "onetwo"}, {{1, 2, 3}, "onetwo/below"}, {{1, 3}, "one/below"},
        {{20}, "twenty"}, {{}, "looper"},
    };
    for (const auto& c : cases) {
        message m = req(CMD_GET, c.path);
        message r = l.exchangeMessage(m, 6000);
        EXPECT_EQ(c.answer, r.get(string_id(1))) << c.answer;
    }
    message m = req(CMD_GET, {2});
    message r = l.exchangeMessage(m, 6000);
    EXPECT_EQ(uint32_t(ERR_NO_OBJECT), getErrorCode(r));
    EXPECT_NE(std::string::npos, getError(r).find("[2]"));

    // Through a handler's own helpers, with the sender filled in.
    message viaCmd;
    viaCmd.insert(u32_array_id(F_PATH), u32_vector{20});
    EXPECT_EQ("twenty", one.exchangeCmd(CMD_GET_OBJ, viaCmd).get(string_id(1)));
    EXPECT_EQ(u32_vector{1}, twenty.got.back().get(u32_array_id(F_SENDER)));
    EXPECT_EQ(uint32_t(CMD_GET_OBJ), twenty.got.back().get(u32_id(F_COMMAND)));

    l.removeHandler({1, 2});
    m = req(CMD_GET, {1, 2});
    EXPECT_EQ("one/below", l.exchangeMessage(m, 6000).get(string_id(1)));
}

TEST(TnLooper, SentMessagesAreDeliveredFromTheLoop) {
    Looper l;
    Named one("one");
    l.addHandler(1, &one);
    message m;
    m.insert(u32_array_id(F_PATH), u32_vector{1});
    one.sendCmd(3, m);
    EXPECT_EQ(0, one.calls);  // never re-entered from the sender's call
    runFor(l, 20);
    EXPECT_EQ(1, one.calls);
    EXPECT_EQ(3u, one.got[0].get(u32_id(F_COMMAND)));
    message lost = req(3, {9});
    EXPECT_FALSE(l.sendMessage(lost));
}

TEST(TnLooper, SubscriptionsAndPublish) {
    TestLooper l;
    Publisher pub;
    Named sub("sub");
    l.addHandler({20, 0}, &pub);
    l.addHandler(5, &sub);
    message filter;
    filter.insert(u32_id(0x10002), 0u);
    filter.insert(u32_id(0x10003), 0x80u);
    sub.subscribe({20, 0}, 0x10004, filter);
    sub.subscribe({20, 0}, 0x10004, filter);  // again: still one subscription
    l.subscribe({20, 0}, 0x10004, filter);    // the looper itself, at the empty path
    ASSERT_EQ(3u, pub.subs.size());
    EXPECT_TRUE(pub.subs[0].get(message_id(F_SUB_FILTER)) == filter);
    EXPECT_EQ(0x10004u, pub.subs[0].get(u32_id(F_SUB_CMD)));
    EXPECT_EQ(2u, l.subscriberCount({20, 0}, 0x10004));
    EXPECT_EQ(0u, l.subscriberCount({20, 0}, 0x10005));

    message ev;
    ev.insert(u32_id(F_OBJ_ID), 3u);
    ev.insert(u32_id(0x10003), 0x500u);
    l.publish({20, 0}, 0x10004, ev);
    l.publish({20, 0}, 0x10005, ev);  // nobody subscribed to this command
    l.publish({20, 1}, 0x10004, ev);  // nor to this path
    EXPECT_EQ(0, sub.calls);           // queued, not delivered in publish()
    runFor(l, 20);
    ASSERT_EQ(1, sub.calls);
    const message& got = sub.got[0];
    EXPECT_EQ(0x10004u, got.get(u32_id(F_COMMAND)));
    EXPECT_EQ((u32_vector{20, 0}), got.get(u32_array_id(F_SENDER)));
    EXPECT_EQ(3u, got.get(u32_id(F_OBJ_ID)));
    EXPECT_EQ(0x500u, got.get(u32_id(0x10003)));
    // The looper's own event reached its cmdUnknown, which refuses it: no
    // crash, nothing else. The named handler saw exactly one.

    sub.unsubscribe({20, 0}, 0x10004, filter);
    EXPECT_EQ(1u, pub.unsubs.size());
    EXPECT_EQ(1u, l.subscriberCount({20, 0}, 0x10004));
    l.publish({20, 0}, 0x10004, ev);
    runFor(l, 20);
    EXPECT_EQ(1, sub.calls);

    // A removed handler gets no queued events.
    sub.subscribe({20, 0}, 0x10004, filter);
    l.publish({20, 0}, 0x10004, ev);
    l.removeHandler({5});
    runFor(l, 20);
    EXPECT_EQ(1, sub.calls);
    EXPECT_EQ(1u, l.subscriberCount({20, 0}, 0x10004));
}

TEST(TnLooper, LeavesWhenIdle) {
    TestLooper l;
    l.setupLeave(60);
    Clock::time_point start = Clock::now();
    l.run();
    long took = msSince(start);
    EXPECT_GE(took, 55);
    EXPECT_LT(took, 1000);
    EXPECT_FALSE(l.stopped());

    // Not while it may not leave, and never with setupLeave(0).
    l.leave = false;
    l.setupLeave(30);
    start = Clock::now();
    runFor(l, 200);
    EXPECT_GE(msSince(start), 190);
    l.leave = true;
    l.setupLeave(0);
    start = Clock::now();
    runFor(l, 150);
    EXPECT_GE(msSince(start), 140);
}

TEST_F(SocketDir, ControlSocketIsPrivateAndExclusive) {
    {
        Looper l;
        std::string err;
        ASSERT_TRUE(l.listen(path, &err)) << err;
        struct stat st;
        ASSERT_EQ(0, stat(path.c_str(), &st));
        EXPECT_TRUE(S_ISSOCK(st.st_mode));
        EXPECT_EQ(0600u, st.st_mode & 0777);
        Looper other;
        EXPECT_FALSE(other.listen(path, &err));
        EXPECT_NE(std::string::npos, err.find("another process"));
    }
    struct stat st;
    EXPECT_NE(0, stat(path.c_str(), &st));  // removed with its looper

    // A socket file left behind by a dead process is replaced.
    int stale = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un a = {};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    ASSERT_EQ(0, bind(stale, reinterpret_cast<sockaddr*>(&a), sizeof a));
    close(stale);
    Looper l;
    std::string err;
    EXPECT_TRUE(l.listen(path, &err)) << err;

    Looper l2;
    std::string regular = dir + "/plain";
    close(open(regular.c_str(), O_CREAT | O_WRONLY, 0600));
    EXPECT_FALSE(l2.listen(regular, &err));
    EXPECT_NE(std::string::npos, err.find("not a socket"));
    EXPECT_FALSE(l2.listen(dir + "/" + std::string(200, 'x'), &err));
    EXPECT_FALSE(l2.connectTo(dir + "/nobody.sock", &err));
    EXPECT_NE(std::string::npos, err.find("cannot connect"));
}

TEST_F(SocketDir, PeerRequestsAreAnsweredByLocalHandlers) {
    TestLooper l;
    Named one("one");
    l.addHandler(1, &one);
    ASSERT_TRUE(l.listen(path));
    RawPeer p(path);
    ASSERT_GE(p.fd, 0);
    pumpUntil(l, [&] { return l.peerCount() == 1; });
    ASSERT_EQ(1u, l.peerCount());

    message m = req(CMD_GET, {1});
    m.insert(u32_id(F_SEQ), 77u);
    ASSERT_TRUE(p.sendMsg(m));
    message r;
    ASSERT_EQ(1, pumpUntilReply(l, p, r));
    EXPECT_EQ(77u, r.get(u32_id(F_REPLY_TO)));
    EXPECT_EQ("one", r.get(string_id(1)));
    EXPECT_FALSE(one.got.back().has(u32_id(F_SEQ)));  // transport fields stay out of handlers

    // The empty path is the looper itself; an unknown path is an error reply.
    m = req(CMD_GET, {});
    m.insert(u32_id(F_SEQ), 78u);
    p.sendMsg(m);
    ASSERT_EQ(1, pumpUntilReply(l, p, r));
    EXPECT_EQ("looper", r.get(string_id(1)));
    m = req(CMD_GET, {9, 9});
    m.insert(u32_id(F_SEQ), 79u);
    p.sendMsg(m);
    ASSERT_EQ(1, pumpUntilReply(l, p, r));
    EXPECT_EQ(79u, r.get(u32_id(F_REPLY_TO)));
    EXPECT_EQ(uint32_t(ERR_NO_OBJECT), getErrorCode(r));

    // Without F_SEQ: served, not answered.
    p.sendMsg(req(CMD_SET, {1}));
    pumpUntil(l, [&] { return one.calls == 2; });
    EXPECT_EQ(2, one.calls);
    EXPECT_EQ(0, pumpUntilReply(l, p, r, 100));
}

// A peer that keeps sending but never reads its answers is cut off after
// one send wait, instead of holding the loop for a wait per answer; other
// peers are served afterwards.
TEST_F(SocketDir, PeerThatLeavesAnswersUnreadIsDropped) {
    Looper l;
    ASSERT_TRUE(l.listen(path));
    RawPeer greedy(path);
    RawPeer polite(path);
    ASSERT_GE(greedy.fd, 0);
    ASSERT_GE(polite.fd, 0);
    pumpUntil(l, [&] { return l.peerCount() == 2; });
    ASSERT_EQ(2u, l.peerCount());
    fcntl(greedy.fd, F_SETFL, O_NONBLOCK);
    std::vector<uint8_t> garbage = {1, 2, 3};  // each one answered with an error
    Clock::time_point start = Clock::now();
    int sent = 0;
    bool refused = false;
    while (l.peerCount() == 2 && msSince(start) < 20000) {
        for (;;) {
            ssize_t n = send(greedy.fd, garbage.data(), garbage.size(), MSG_NOSIGNAL);
            if (n < 0) {
                refused = errno != EAGAIN;
                break;
            }
            ++sent;
        }
        if (refused) break;
        l.step(10);
    }
    pumpUntil(l, [&] { return l.peerCount() == 1; });
    EXPECT_EQ(1u, l.peerCount());
    EXPECT_GT(sent, 100);
    EXPECT_LT(msSince(start), 10000);
    message m = req(CMD_GET, {});
    m.insert(u32_id(F_SEQ), 5u);
    ASSERT_TRUE(polite.sendMsg(m));
    message r;
    ASSERT_EQ(1, pumpUntilReply(l, polite, r));
    EXPECT_EQ(5u, r.get(u32_id(F_REPLY_TO)));
}

TEST_F(SocketDir, MalformedPacketsAreRefusedAndChangeNothing) {
    Looper l;
    Named one("one");
    l.addHandler(1, &one);
    ASSERT_TRUE(l.listen(path));
    RawPeer p(path);
    ASSERT_GE(p.fd, 0);
    std::vector<uint8_t> good = req(CMD_SET, {1}).encode();
    std::vector<std::vector<uint8_t>> bad = {
        {1, 2, 3},
        std::vector<uint8_t>(good.begin(), good.end() - 1),
        {},
        {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0},
    };
    for (const auto& b : bad) {
        ASSERT_TRUE(p.sendBytes(b));
        message r;
        ASSERT_EQ(1, pumpUntilReply(l, p, r));
        EXPECT_EQ(uint32_t(ERR_MALFORMED), getErrorCode(r));
        EXPECT_FALSE(getError(r).empty());
    }
    EXPECT_EQ(0, one.calls);
    EXPECT_EQ(1u, l.peerCount());  // the connection stays usable

    // Larger than a packet may be (the kernel itself carries a little more).
    int size = int(Looper::kMaxPacket + 65536);
    if (setsockopt(p.fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0)
        setsockopt(p.fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    std::vector<uint8_t> huge(Looper::kMaxPacket + 4096, 0);
    if (send(p.fd, huge.data(), huge.size(), MSG_NOSIGNAL) != ssize_t(huge.size()))
        GTEST_SKIP() << "kernel refused a packet that large";
    message r;
    ASSERT_EQ(1, pumpUntilReply(l, p, r));
    EXPECT_EQ(uint32_t(ERR_MALFORMED), getErrorCode(r));
    EXPECT_NE(std::string::npos, getError(r).find("too large"));
    EXPECT_EQ(0, one.calls);
}

TEST_F(SocketDir, ExchangeWithAnAnnouncedPeer) {
    Looper l;
    ASSERT_TRUE(l.listen(path));
    RawPeer p(path);
    ASSERT_GE(p.fd, 0);
    message ann;
    ann.insert(u32_id(F_COMMAND), uint32_t(CMD_ANNOUNCE));
    ann.insert(u32_id(F_SEQ), 1u);
    message prefix;
    prefix.insert(u32_array_id(F_PATH), u32_vector{30});
    ann.insert(message_array_id(F_PREFIXES), std::vector<message>{prefix});
    p.sendMsg(ann);
    message r;
    ASSERT_EQ(1, pumpUntilReply(l, p, r));
    EXPECT_EQ(1u, r.get(u32_id(F_REPLY_TO)));
    EXPECT_FALSE(isError(r));

    // The peer answers on its own thread, scripted per request.
    auto serveOne = [&](std::function<void(const message&)> answer) {
        return std::thread([&p, answer] {
            message in;
            if (p.recvMsg(in, 3000) == 1) answer(in);
        });
    };
    auto replyTo = [](const message& in, message out) {
        out.insert(u32_id(F_REPLY_TO), in.get(u32_id(F_SEQ)));
        return out;
    };

    // A plain reply.
    std::thread t = serveOne([&](const message& in) {
        message out;
        out.insert(u32_id(F_OBJ_ID), 9u);
        out.insert(u32_array_id(2), in.get(u32_array_id(F_PATH)));
        p.sendMsg(replyTo(in, out));
    });
    message m = req(CMD_GET, {30, 1});
    r = l.exchangeMessage(m, 3000);
    t.join();
    EXPECT_EQ(9u, r.get(u32_id(F_OBJ_ID)));
    EXPECT_EQ((u32_vector{30, 1}), r.get(u32_array_id(2)));
    EXPECT_FALSE(r.has(u32_id(F_REPLY_TO)));
    EXPECT_FALSE(m.has(u32_id(F_SEQ)));

    // An error reply comes back as such.
    t = serveOne([&](const message& in) { p.sendMsg(replyTo(in, errorMsg(ERR_REFUSED, "nope"))); });
    r = l.exchangeMessage(m, 3000);
    t.join();
    EXPECT_EQ(uint32_t(ERR_REFUSED), getErrorCode(r));
    EXPECT_EQ("nope", getError(r));

    // Other packets on the connection wait until the exchange is over.
    Named one("one");
    l.addHandler(1, &one);
    t = serveOne([&](const message& in) {
        message other = req(CMD_GET, {1});
        other.insert(u32_id(F_SEQ), 500u);
        p.sendMsg(other);
        message wrong;
        wrong.insert(u32_id(F_REPLY_TO), in.get(u32_id(F_SEQ)) + 1000);
        p.sendMsg(wrong);
        message out;
        out.insert(u32_id(F_OBJ_ID), 10u);
        p.sendMsg(replyTo(in, out));
    });
    r = l.exchangeMessage(m, 3000);
    t.join();
    EXPECT_EQ(10u, r.get(u32_id(F_OBJ_ID)));
    EXPECT_EQ(0, one.calls);
    ASSERT_EQ(1, pumpUntilReply(l, p, r));
    EXPECT_EQ(500u, r.get(u32_id(F_REPLY_TO)));
    EXPECT_EQ("one", r.get(string_id(1)));

    // Time-out; the late reply is not taken for the next exchange's.
    t = serveOne([&](const message& in) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        message late;
        late.insert(u32_id(F_OBJ_ID), 11u);
        p.sendMsg(replyTo(in, late));
        message next;
        if (p.recvMsg(next, 3000) == 1) {
            message out;
            out.insert(u32_id(F_OBJ_ID), 12u);
            p.sendMsg(replyTo(next, out));
        }
    });
    Clock::time_point start = Clock::now();
    r = l.exchangeMessage(m, 100);
    long took = msSince(start);
    EXPECT_EQ(uint32_t(ERR_TIMEOUT), getErrorCode(r));
    EXPECT_GE(took, 95);
    EXPECT_LT(took, 290);
    r = l.exchangeMessage(m, 3000);
    t.join();
    EXPECT_EQ(12u, r.get(u32_id(F_OBJ_ID)));

    // Too large for one packet: refused here, nothing sent.
    message big = req(CMD_SET, {30, 1});
    big.insert(raw_id(9), std::vector<uint8_t>(Looper::kMaxPacket, 1));
    r = l.exchangeMessage(big, 1000);
    EXPECT_EQ(uint32_t(ERR_MALFORMED), getErrorCode(r));
    EXPECT_EQ(0, p.recvMsg(r, 20));

    // The peer hangs up in the middle of an exchange: answered at once.
    t = serveOne([&](const message&) { p.closeNow(); });
    start = Clock::now();
    r = l.exchangeMessage(m, 5000);
    t.join();
    EXPECT_EQ(uint32_t(ERR_DISCONNECTED), getErrorCode(r));
    EXPECT_LT(msSince(start), 2000);
    pumpUntil(l, [&] { return l.peerCount() == 0; });
    EXPECT_EQ(0u, l.peerCount());
    r = l.exchangeMessage(m, 100);
    EXPECT_EQ(uint32_t(ERR_NO_OBJECT), getErrorCode(r));
}

TEST_F(SocketDir, ClientLooperTalksToAServerLooper) {
    std::unique_ptr<TestLooper> server(new TestLooper);
    Named one("one");
    server->addHandler(1, &one);
    ASSERT_TRUE(server->listen(path));

    Looper client;
    Named local("local");
    client.addHandler(7, &local);
    std::string err;
    ASSERT_TRUE(client.connectTo(path, &err)) << err;
    EXPECT_FALSE(client.connectTo(path, &err));
    {
        LooperThread serving(*server);
        // The empty path and unknown paths go to the server.
        message m = req(CMD_GET, {});
        message r = client.exchangeMessage(m, 3000);
        EXPECT_EQ("looper", r.get(string_id(1))) << r.dump2();
        m = req(CMD_GET, {1});
        EXPECT_EQ("one", client.exchangeMessage(m, 3000).get(string_id(1)));
        m = req(CMD_GET, {4});
        EXPECT_EQ(uint32_t(ERR_NO_OBJECT), getErrorCode(client.exchangeMessage(m, 3000)));
        // Its own handlers stay local.
        m = req(CMD_GET, {7});
        EXPECT_EQ("local", client.exchangeMessage(m, 3000).get(string_id(1)));
        EXPECT_TRUE(client.announce({{40}, {41, 2}}));
    }
    EXPECT_EQ(1, server->gets);
    EXPECT_EQ(0, local.calls - 1);

    // The server goes away: the next request fails at once.
    server.reset();
    message m = req(CMD_GET, {});
    Clock::time_point start = Clock::now();
    message r = client.exchangeMessage(m, 3000);
    EXPECT_LT(msSince(start), 1000);
    EXPECT_TRUE(getErrorCode(r) == ERR_DISCONNECTED || getErrorCode(r) == ERR_NO_OBJECT) << r.dump2();
    EXPECT_FALSE(client.announce({{40}}));
}

TEST_F(SocketDir, WatchersReceiveNotificationsAndUndo) {
    Looper l;
    Handler h;
    l.addHandler(1, &h);
    ASSERT_TRUE(l.listen(path));
    RawPeer watcher(path), bystander(path);
    message w;
    w.insert(u32_id(F_COMMAND), uint32_t(CMD_WATCH));
    watcher.sendMsg(w);
    pumpUntil(l, [&] { return l.peerCount() == 2; });
    for (int i = 0; i < 5; ++i) l.step(5);

    message change;
    change.insert(string_id(5), "x");
    h.notifyChange(5, change);
    h.sendUndo(change, message(), "changed snmp settings");
    message r;
    ASSERT_EQ(1, watcher.recvMsg(r, 1000));
    EXPECT_EQ(uint32_t(CMD_NOTIFY), r.get(u32_id(F_COMMAND)));
    EXPECT_EQ(5u, r.get(u32_id(F_OBJ_ID)));
    EXPECT_TRUE(r.get(message_id(F_CHANGE)) == change);
    ASSERT_EQ(1, watcher.recvMsg(r, 1000));
    EXPECT_EQ(uint32_t(CMD_UNDO), r.get(u32_id(F_COMMAND)));
    EXPECT_EQ("changed snmp settings", r.get(string_id(F_UNDO_TEXT)));
    EXPECT_EQ(0, bystander.recvMsg(r, 50));
}

TEST_F(SocketDir, RemoteSubscriberGetsEventsUntilItLeaves) {
    Looper l;
    Publisher pub;
    l.addHandler({20, 0}, &pub);
    ASSERT_TRUE(l.listen(path));
    RawPeer p(path);
    message s = req(CMD_SUBSCRIBE, {20, 0});
    s.insert(u32_array_id(F_SENDER), u32_vector{99});
    s.insert(u32_id(F_SUB_CMD), 0x10004u);
    s.insert(u32_id(F_SEQ), 3u);
    p.sendMsg(s);
    message r;
    ASSERT_EQ(1, pumpUntilReply(l, p, r));
    EXPECT_EQ(3u, r.get(u32_id(F_REPLY_TO)));
    EXPECT_EQ(1u, pub.subs.size());
    EXPECT_EQ(1u, l.subscriberCount({20, 0}, 0x10004));

    message ev;
    ev.insert(u32_id(F_OBJ_ID), 4u);
    l.publish({20, 0}, 0x10004, ev);
    ASSERT_EQ(1, p.recvMsg(r, 1000));
    EXPECT_EQ(0x10004u, r.get(u32_id(F_COMMAND)));
    EXPECT_EQ(u32_vector{99}, r.get(u32_array_id(F_PATH)));
    EXPECT_EQ((u32_vector{20, 0}), r.get(u32_array_id(F_SENDER)));
    EXPECT_EQ(4u, r.get(u32_id(F_OBJ_ID)));

    p.closeNow();
    pumpUntil(l, [&] { return l.peerCount() == 0; });
    EXPECT_EQ(0u, l.subscriberCount({20, 0}, 0x10004));
}

TEST_F(SocketDir, SubscriptionIsForwardedWhenAPeerAnnouncesThePath) {
    Looper l;
    Named sub("sub");
    l.addHandler(5, &sub);
    message filter;
    filter.insert(u32_id(1), 2u);
    sub.subscribe({40, 1}, 0x77, filter);  // nobody serves [40, 1] yet
    ASSERT_TRUE(l.listen(path));
    RawPeer p(path);
    message ann;
    ann.insert(u32_id(F_COMMAND), uint32_t(CMD_ANNOUNCE));
    ann.insert(u32_id(F_SEQ), 1u);
    message prefix;
    prefix.insert(u32_array_id(F_PATH), u32_vector{40});
    ann.insert(message_array_id(F_PREFIXES), std::vector<message>{prefix});
    p.sendMsg(ann);
    message r;
    ASSERT_EQ(1, pumpUntilReply(l, p, r));
    EXPECT_EQ(uint32_t(CMD_SUBSCRIBE), r.get(u32_id(F_COMMAND)));
    EXPECT_EQ((u32_vector{40, 1}), r.get(u32_array_id(F_PATH)));
    EXPECT_EQ(u32_vector{5}, r.get(u32_array_id(F_SENDER)));
    EXPECT_EQ(0x77u, r.get(u32_id(F_SUB_CMD)));
    EXPECT_TRUE(r.get(message_id(F_SUB_FILTER)) == filter);
    ASSERT_EQ(1, pumpUntilReply(l, p, r));
    EXPECT_EQ(1u, r.get(u32_id(F_REPLY_TO)));

    // The peer's event reaches the subscriber.
    message ev = req(0x77, {5});
    ev.insert(u32_array_id(F_SENDER), u32_vector{40, 1});
    p.sendMsg(ev);
    pumpUntil(l, [&] { return sub.calls == 1; });
    ASSERT_EQ(1, sub.calls);
    EXPECT_EQ((u32_vector{40, 1}), sub.got[0].get(u32_array_id(F_SENDER)));

    // Unsubscribing now reaches the peer directly.
    sub.unsubscribe({40, 1}, 0x77, filter);
    ASSERT_EQ(1, p.recvMsg(r, 1000));
    EXPECT_EQ(uint32_t(CMD_UNSUBSCRIBE), r.get(u32_id(F_COMMAND)));
}

TEST_F(SocketDir, OtherUsersAreTurnedAway) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to connect as another user";
    Looper l;
    ASSERT_TRUE(l.listen(path));
    // Let the other user reach the socket at all, so that only the
    // credential check stands in the way.
    chmod(dir.c_str(), 0755);
    chmod(path.c_str(), 0666);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
        RawPeer p(path);
        if (p.fd < 0) _exit(4);
        message r;
        p.sendMsg(req(CMD_GET, {}));
        _exit(p.recvMsg(r, 2000) == -1 ? 0 : 1);  // closed on us
    }
    int status = -1;
    Clock::time_point start = Clock::now();
    while (msSince(start) < 5000) {
        l.step(10);
        if (waitpid(pid, &status, WNOHANG) == pid) break;
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(0u, l.peerCount());
}
