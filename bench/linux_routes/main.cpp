// How long the Linux backend takes to read a large routing table: the
// kernel dump with parsing alone, and the whole paged listing of {44, 1}
// as the agent's provider fetches it. Runs in a network namespace of its
// own (needs CAP_SYS_ADMIN) filled with N routes (default 10000).
//
//   bench_linux_routes [routes] [rounds]
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/socket.h>

#include <linux/rtnetlink.h>

#include "platform/linux_backend.h"
#include "platform/linux_netlink.h"
#include "platform/linux_objects.h"
#include "tn/looper.h"

using namespace tn;

static double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

int main(int argc, char** argv) {
    int routes = argc > 1 ? std::atoi(argv[1]) : 10000;
    int rounds = argc > 2 ? std::atoi(argv[2]) : 20;
    if (routes < 1 || routes > 1000000 || rounds < 1) {
        std::fprintf(stderr, "usage: bench_linux_routes [routes] [rounds]\n");
        return 2;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        std::perror("unshare(CLONE_NEWNET)");
        return 1;
    }
    char batch[] = "/tmp/kestrel_routes_XXXXXX";
    int fd = mkstemp(batch);
    if (fd < 0) return 1;
    FILE* f = fdopen(fd, "w");
    std::fprintf(f, "link set lo up\nlink add v0 type veth peer name v1\nlink set v0 up\nlink set v1 up\n"
                    "addr add 10.0.0.1/16 dev v0\n");
    for (int i = 0; i < routes; ++i) {
        unsigned n = unsigned(i);
        if (i % 10 == 0)  // every tenth route has two next hops
            std::fprintf(f, "route add 20.%u.%u.0/24 nexthop via 10.0.0.2 dev v0 nexthop via 10.0.0.3 dev v0\n",
                         (n >> 8) & 255, n & 255);
        else
            std::fprintf(f, "route add 20.%u.%u.0/24 via 10.0.%u.%u\n", (n >> 8) & 255, n & 255,
                         1 + (n % 200), 1 + (n % 250));
    }
    std::fclose(f);
    std::string cmd = std::string("ip -batch ") + batch + " >/dev/null";
    int rc = std::system(cmd.c_str());
    unlink(batch);
    if (rc != 0) {
        std::fprintf(stderr, "ip -batch failed\n");
        return 1;
    }

    NetlinkSocket nl;
    std::string err;
    if (!nl.open(0, &err)) {
        std::fprintf(stderr, "%s\n", err.c_str());
        return 1;
    }
    double best = 1e9, sum = 0;
    size_t count = 0;
    std::vector<RouteRecord> recs;
    std::vector<NextHop> hops;
    for (int r = 0; r < rounds; ++r) {
        recs.clear();
        hops.clear();
        auto t0 = std::chrono::steady_clock::now();
        rtmsg rt{};
        rt.rtm_family = AF_INET;
        nl.dump(RTM_GETROUTE, &rt, sizeof rt, [&](const nlmsghdr* h) {
            RouteRecord rec;
            size_t mark = hops.size();
            if (parseRoute(h, rec, hops) && routeListed(rec)) recs.push_back(rec);
            else hops.resize(mark);
        });
        double ms = msSince(t0);
        best = std::min(best, ms);
        sum += ms;
        count = recs.size();
    }
    std::printf("kernel dump + parse: %zu routes, best %.2f ms, mean %.2f ms\n", count, best, sum / rounds);

    Looper looper;
    LinuxBackendOptions opts;
    opts.linkEvents = false;
    auto backend = registerLinuxBackend(looper, opts, &err);
    if (!backend) {
        std::fprintf(stderr, "%s\n", err.c_str());
        return 1;
    }
    best = 1e9;
    sum = 0;
    size_t objects = 0, pages = 0;
    for (int r = 0; r < rounds; ++r) {
        auto t0 = std::chrono::steady_clock::now();
        message req;
        req.insert(u32_array_id(F_PATH), u32_vector{44, 1});
        req.insert(u32_id(F_COMMAND), uint32_t(CMD_GET_ALL));
        req.insert(u32_id(F_SELECTOR), 5u);
        objects = pages = 0;
        for (;;) {
            message rep = looper.exchangeMessage(req, 6000);
            if (isError(rep)) {
                std::fprintf(stderr, "listing failed: %s\n", getError(rep).c_str());
                return 1;
            }
            const std::vector<flat_message>* objs = rep.get_flat(message_array_id(F_OBJECTS));
            objects += objs ? objs->size() : 0;
            ++pages;
            if (!rep.has(u32_id(F_START))) break;
            req.insert(u32_id(F_START), rep.get(u32_id(F_START)));
        }
        double ms = msSince(t0);
        best = std::min(best, ms);
        sum += ms;
    }
    std::printf("paged listing of {44, 1}: %zu objects in %zu pages, best %.2f ms, mean %.2f ms\n", objects, pages,
                best, sum / rounds);
    return 0;
}
