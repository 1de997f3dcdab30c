// The IP group: addresses, the address translation table, the routing table
// in its two views, and the enterprise traffic tables.
#pragma once

#include <string>
#include <vector>

#include "mib/data.h"
#include "tn/message.h"

// IPv4 addresses in these records have the first octet in the most
// significant byte.

class AddressEntry : public Data {
public:
    unsigned int address = 0;
    unsigned int ifIndex = 0;
    unsigned int netmask = 0;
};
void addIpAddress(tn::message const& msg, std::vector<Data*>* rows);

class NetToMedia : public Data {
public:
    unsigned int ifIndex = 0;
    unsigned int address = 0;
    int type = 4;  // 2 invalid, 3 dynamic, 4 static
    std::vector<unsigned char> physAddress;
};
void addNetToMedia(tn::message const& msg, std::vector<Data*>* rows);

// One next hop of a route.
class Route : public Data {
public:
    unsigned int dest = 0;
    unsigned int mask = 0;
    unsigned int metric = 0;
    unsigned int nextHop = 0;
    int routeType = 4;
    int routeProto = 1;
    int cidrType = 1;
    int cidrProto = 1;
    unsigned int ifIndex = 0;
};
void addRoutes(tn::message const& msg, std::vector<Data*>* rows);

class TrafficEntry : public Data {
public:
    unsigned int id = 0;
    std::string name;
    unsigned int address1 = 0;
    unsigned int address2 = 0;
    unsigned int address3 = 0;
    unsigned int address4 = 0;
    unsigned int number = 0;
    unsigned long long bytes = 0;
    unsigned long long bytes2 = 0;
    unsigned int count1 = 0;
    unsigned int count2 = 0;
};
void addTrafficEntry(tn::message const& msg, std::vector<Data*>* rows);

class TrafficTreeEntry : public Data {
public:
    unsigned int id = 0;
    std::string name;
    std::string parent;
    unsigned int number = 0;
    unsigned long long bytes = 0;
    unsigned int bytesLow = 0;
    unsigned int count = 0;
};
void addTrafficTreeEntry(tn::message const& msg, std::vector<Data*>* rows);

// The route kinds 2 to 31, indexed by kind minus 2.
enum : unsigned int { ROUTE_KIND_COUNT = 30 };
extern const int routeTypes[ROUTE_KIND_COUNT];
extern const int routeProtos[ROUTE_KIND_COUNT];
extern const int cidrRouteTypes[ROUTE_KIND_COUNT];
extern const int cidrRouteProtos[ROUTE_KIND_COUNT];
