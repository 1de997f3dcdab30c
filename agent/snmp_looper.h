// The agent process's main object: the settings handler on the bus and the
// owner of the UDP service socket.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "request/usm.h"
#include "tn/looper.h"
#include "tn/store.h"

class SnmpLooper : public tn::Looper {
public:
    SnmpLooper();
    ~SnmpLooper() override;

    tn::message cmdGet(tn::message const& req) override;
    tn::message cmdSet(tn::message const& req) override;
    tn::message cmdUnknown(tn::message const& req, uint32_t cmd) override;
    tn::message getObject(uint32_t id) override;

    void init();
    void enable();
    void disable();
    void receive(int fd, unsigned int events);
    tn::message getConfig();
    void send_trap(tn::message const& event);
    void startSubscribers();
    void startup();

    // Store object 0 holds the settings record.
    tn::Store store;
    int serviceSocket = 0;
    bool serviceEnabled = false;
    V3ServerInfo engine;
    std::string community = "vellum";
    std::string contact;
    std::string location;
    std::string spare1;
    std::string spare2;
    uint32_t startJiffies = 0;
    uint32_t trapCommunity = 0xFFFFFFFF;
    uint32_t trapVersion = 0;
    uint32_t trapTarget = 0;  // IPv4, first octet most significant; 0 = none
    std::vector<uint32_t> trapGenerators;
    bool enabled = false;
};

extern SnmpLooper* loop;

std::string formatEngineID(std::string const& text);
std::string deformatEngineID(std::string const& id);

// The start-up trap's selector in the generator list.
enum : uint32_t { START_TRAP_GENERATOR = 0xABC0001 };
