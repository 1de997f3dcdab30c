// The interfaces group: ifNumber, the ifTable and the ifXTable, and the
// link-state snapshot and subscription for link traps.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "mib/cache.h"
#include "mib/tables.h"
#include "tn/message.h"

class Interface : public Data {
public:
    void reverseBuild(tn::message& msg) override;

    unsigned int index = 0;  // the platform object id; the ifIndex
    unsigned int mtu = 0;
    unsigned int speed = 0;  // bits per second
    int type = 1;            // IANA ifType
    int operStatus = 2;
    int adminStatus = 1;
    std::string name;
    std::vector<unsigned char> physAddress;
};
void addInterface(tn::message const& msg, std::vector<Data*>* rows);

class InterfaceCounters : public Data {
public:
    unsigned int inOctets = 0;
    unsigned long long hcInOctets = 0;
    unsigned int outOctets = 0;
    unsigned long long hcOutOctets = 0;
    unsigned int inUcastPkts = 0;
    unsigned long long hcInUcastPkts = 0;
    unsigned int outUcastPkts = 0;
    unsigned long long hcOutUcastPkts = 0;
    unsigned int inErrors = 0;
    unsigned int outErrors = 0;
    unsigned int inDiscards = 0;
    unsigned int outDiscards = 0;
};

// Ethernet speeds by the platform's speed code (field 0x3f2).
enum : unsigned int { ETHERNET_SPEED_COUNT = 3 };
extern const unsigned int ethernetSpeeds[ETHERNET_SPEED_COUNT];
unsigned int ethernetSpeed(unsigned int code);

// The traffic counters of each interface row, fetched per interface on
// first use and kept while the view is read.
class InterfaceCounterTable : public AugmentProxyTable, public CacheUpdateTimeout {
public:
    explicit InterfaceCounterTable(Table* interfaces);
    ~InterfaceCounterTable() override;
    Data* augment(OID const& index, Data* base) override;
    virtual InterfaceCounters* counterRow(unsigned int key);
    virtual void clearRows();

    void updateCache() override;
    void clearCache() override;

    size_t rowCount() const { return rows.size(); }

protected:
    std::map<unsigned int, InterfaceCounters> rows;
};

// Records the link bits of every interface the platform lists, for the link
// trap maker to compare events against.
void takeLinkSnapshot();
// The "interfaces" subscription entry's functions.
void subscribeInterfaces();
void unsubscribeInterfaces();
