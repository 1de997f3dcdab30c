// The bridge group (the router's first bridge and its forwarding database)
// and the enterprise host table.
#pragma once

#include <string>
#include <vector>

#include "mib/data.h"
#include "tn/message.h"

class GetFirstProvider;

class BridgeInfo : public Data {
public:
    std::vector<unsigned char> address;
    unsigned int priority = 0;
};
// Null unless the interface object is a bridge (kind 12).
Data* buildBridgeInfo(tn::message const& msg);

class FdbEntry : public Data {
public:
    unsigned int port = 0;
    std::vector<unsigned char> mac;
    int status = 3;  // 3 learned, 4 self
};
// Appends the entry only when it belongs to the bridge that bridgeProvider serves.
void addFdbEntry(tn::message const& msg, std::vector<Data*>* rows);

class HostEntry : public Data {
public:
    unsigned int id = 0;
    unsigned int address = 0;  // IPv4, first octet most significant
    std::vector<unsigned char> mac;
    std::string text7;
    std::string text8;
    std::string text6;
    std::string text11;
};
void addHostEntry(tn::message const& msg, std::vector<Data*>* rows);

// The enterprise host table; called by registerSystemModule.
void registerHostTable();

extern GetFirstProvider* bridgeProvider;
