// A bare UDP echo server: one recvmsg and one sendmsg per datagram on one
// thread, with the packet-info record sent back as it came, like the agent's
// service socket. It does no work on the datagram, so its rate is the ceiling
// of any one-datagram-per-system-call server on this machine.
//
// With --epoll it first waits in epoll_wait before every datagram, as a
// server does whose event loop hands it one datagram per readiness event:
// the ceiling of that design.
//
//   bench_echo [--bind 127.0.0.1] --port N [--epoll]
//
// Runs until SIGINT or SIGTERM; prints one "listening" line once bound.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

volatile sig_atomic_t stopping = 0;

void onSignal(int) { stopping = 1; }

unsigned char buffer[65536];

}  // namespace

int main(int argc, char** argv) {
    std::string bindAddress = "127.0.0.1";
    long port = 0;
    bool useEpoll = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--epoll") {
            useEpoll = true;
        } else if (a == "--bind" && i + 1 < argc) {
            bindAddress = argv[++i];
        } else if (a == "--port" && i + 1 < argc) {
            port = std::strtol(argv[++i], nullptr, 10);
        } else {
            std::fprintf(stderr, "usage: bench_echo [--bind ADDRESS] --port N [--epoll]\n");
            return 2;
        }
    }
    if (port <= 0 || port > 65535) {
        std::fprintf(stderr, "bench_echo: --port 1..65535 required\n");
        return 2;
    }

    // No SA_RESTART: a signal must break the blocking recvmsg.
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = onSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &one, sizeof one);
    sockaddr_in local;
    std::memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons(uint16_t(port));
    if (fd < 0 || inet_pton(AF_INET, bindAddress.c_str(), &local.sin_addr) != 1 ||
        bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        std::fprintf(stderr, "bench_echo: cannot bind %s:%ld: %s\n", bindAddress.c_str(), port, std::strerror(errno));
        return 1;
    }
    int ep = -1;
    if (useEpoll) {
        ep = epoll_create1(0);
        epoll_event ev;
        std::memset(&ev, 0, sizeof ev);
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        if (ep < 0 || epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0) {
            std::fprintf(stderr, "bench_echo: epoll: %s\n", std::strerror(errno));
            return 1;
        }
    }
    std::printf("bench_echo listening on %s:%ld%s\n", bindAddress.c_str(), port, useEpoll ? " (epoll)" : "");
    std::fflush(stdout);

    unsigned long long echoed = 0;
    while (!stopping) {
        if (ep >= 0) {
            epoll_event ready;
            if (epoll_wait(ep, &ready, 1, -1) != 1)
                continue;
        }
        sockaddr_in peer;
        union {
            cmsghdr align;
            unsigned char bytes[CMSG_SPACE(sizeof(in_pktinfo))];
        } control;
        iovec iov = {buffer, sizeof buffer};
        msghdr msg;
        std::memset(&msg, 0, sizeof msg);
        msg.msg_name = &peer;
        msg.msg_namelen = sizeof peer;
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control.bytes;
        msg.msg_controllen = sizeof control.bytes;
        ssize_t n = recvmsg(fd, &msg, 0);
        if (n < 0)
            continue;
        iov.iov_len = size_t(n);
        msg.msg_flags = 0;
        if (sendmsg(fd, &msg, 0) >= 0)
            ++echoed;
    }
    if (ep >= 0)
        close(ep);
    close(fd);
    std::printf("bench_echo: %llu datagrams echoed\n", echoed);
    return 0;
}
