// The system group, agent identity, software information, system control
// and the script table.
#pragma once

#include <string>
#include <vector>

#include "mib/data.h"
#include "tn/message.h"

class GetProvider;

// Uptime, memory, disk and load of the router (handler {24, 2}); also read
// by the host resources objects.
class Resources : public Data {
public:
    unsigned int upTime = 0;  // hundredths of a second
    unsigned int memTotal = 0;
    unsigned int memUsed = 0;
    unsigned int diskTotal = 0;
    unsigned int diskUsed = 0;
    unsigned int cpuLoad = 0;
};
Data* buildResources(tn::message const& msg);

// The router's name (handler {24, 1}).
class Ident : public Data {
public:
    void reverseBuild(tn::message& msg) override;
    std::string name;
};
Data* buildIdent(tn::message const& msg);

// sysContact and sysLocation, read from the agent's own settings on every
// request. Both are read-only over SNMP: they change through the settings.
class SnmpInfo : public DataProvider, public Data {
public:
    Data* get() override;
    unsigned int set(Data* d) override;
    ~SnmpInfo() override;

    std::string contact;
    std::string location;
};

// The reboot trigger (set through handler {24, 2}).
class TheSystem : public Data {
public:
    static Data* build(tn::message const& msg);
    void reverseBuild(tn::message& msg) override;
    int reboot = 0;
};

// The installed software (handler {65}).
class SoftwareInfo : public Data {
public:
    std::string text;
    std::vector<unsigned char> stamp;  // 8-octet DateAndTime
    unsigned int number = 0;
    unsigned int counter = 0;
};
Data* buildSoftwareInfo(tn::message const& msg);

// One row of the script table (handler {48, 101}).
class Script : public Data {
public:
    static void build(tn::message const& msg, std::vector<Data*>* rows);
    void reverseBuild(tn::message& msg) override;
    unsigned int id = 0;
    int run = 0;
    std::string name;
};

// Created by registerSystemModule; the host resources objects read it too.
extern GetProvider* resourcesProvider;
