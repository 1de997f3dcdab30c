// libtnmsg costs: message encode/decode/lookup, a local exchange, a round
// trip to a peer over the control socket, a durable store write.
//
//   bench_tn_bus [iterations]
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "tn/looper.h"
#include "tn/store.h"

using namespace tn;

namespace {

typedef std::chrono::steady_clock Clock;

template <class F>
double nsPerOp(long n, F f) {
    Clock::time_point t = Clock::now();
    for (long i = 0; i < n; ++i) f(i);
    return double(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t).count()) / double(n);
}

// A list reply as a community handler sends it: 20 items of 11 fields.
message listReply() {
    message r;
    for (uint32_t i = 0; i < 20; ++i) {
        message c;
        c.insert(u32_id(F_OBJ_ID), i);
        c.insert(string_id(5), "community" + std::to_string(i));
        c.insert(be32_id(8), 0x0A000000u + i);
        c.insert(be32_id(9), 0xFFFFFF00u);
        c.insert(bool_id(6), true);
        c.insert(bool_id(7), i % 2 == 0);
        c.insert(string_id(0x0B), "authpassword");
        c.insert(string_id(0x0C), "privpassword");
        c.insert(u32_id(0x14), 1u);
        c.insert(u32_id(0x15), 0u);
        c.insert(u32_id(0x0F), 2u);
        r.append(message_array_id(F_OBJECTS), c);
    }
    r.insert(u32_id(F_START), 20u);
    return r;
}

struct Echo : Handler {
    message cmdGet(const message& req) override {
        message r;
        r.insert(u32_id(F_OBJ_ID), req.get(u32_id(F_OBJ_ID)));
        return r;
    }
};

}  // namespace

int main(int argc, char** argv) {
    long n = argc > 1 ? std::atol(argv[1]) : 200000;
    if (n <= 0) n = 200000;

    message reply = listReply();
    std::vector<uint8_t> bytes = reply.encode();
    std::vector<uint8_t> buf;
    std::printf("list reply: %zu bytes\n", bytes.size());
    std::printf("encode list reply        %8.0f ns\n", nsPerOp(n / 10, [&](long) { reply.encode_to(buf); }));
    std::printf("decode list reply        %8.0f ns\n", nsPerOp(n / 10, [&](long) {
        message m;
        message::decode(bytes.data(), bytes.size(), m);
    }));
    std::vector<message> items = reply.get(message_array_id(F_OBJECTS));
    volatile uint32_t sink = 0;
    std::printf("get u32 (11 fields)      %8.1f ns\n",
                nsPerOp(n * 10, [&](long i) { sink = sink + items[size_t(i % 20)].get(u32_id(0x0F)); }));
    std::printf("to_json list reply       %8.0f ns\n", nsPerOp(n / 100, [&](long) { reply.to_json(); }));

    Looper loop;
    Echo echo;
    loop.addHandler(1, &echo);
    message req;
    req.insert(u32_id(F_COMMAND), uint32_t(CMD_GET));
    req.insert(u32_array_id(F_PATH), u32_vector{1});
    req.insert(u32_id(F_OBJ_ID), 5u);
    std::printf("local exchange           %8.0f ns\n",
                nsPerOp(n, [&](long) { sink = sink + loop.exchangeMessage(req, 6000).get(u32_id(F_OBJ_ID)); }));

    // A peer looper on its own thread serves [1] over the socket.
    char dir[] = "/tmp/bench_tn_XXXXXX";
    if (!mkdtemp(dir)) return 1;
    std::string sock = std::string(dir) + "/control.sock";
    {
        Looper server;
        Echo remote;
        server.addHandler(1, &remote);
        std::string err;
        if (!server.listen(sock, &err)) {
            std::fprintf(stderr, "listen: %s\n", err.c_str());
            return 1;
        }
        std::atomic<bool> quit{false};
        std::thread t([&] {
            while (!quit) server.step(5);
        });
        Looper client;
        if (!client.connectTo(sock, &err)) {
            std::fprintf(stderr, "connect: %s\n", err.c_str());
            quit = true;
            t.join();
            return 1;
        }
        long rounds = n / 20 > 0 ? n / 20 : 1;
        int failures = 0;
        double ns = nsPerOp(rounds, [&](long) { failures += isError(client.exchangeMessage(req, 6000)); });
        std::printf("socket round trip        %8.0f ns (%d failed)\n", ns, failures);
        quit = true;
        t.join();
    }

    {
        Store store(std::string(dir) + "/store", 5);
        if (!store.ok()) {
            std::fprintf(stderr, "%s\n", store.error().c_str());
            return 1;
        }
        message item = items[3];
        std::printf("store set (durable)      %8.0f ns\n", nsPerOp(200, [&](long i) { store.set(uint32_t(i % 20), item); }));
        message out;
        std::printf("store get                %8.0f ns\n", nsPerOp(n / 10, [&](long i) { store.get(uint32_t(i % 20), out); }));
    }
    std::string rm = std::string("rm -rf '") + dir + "'";
    return std::system(rm.c_str()) == 0 ? 0 : 1;
}
