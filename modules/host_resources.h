// Host resources (storage, uptime, date, processor) and the health group.
#pragma once

#include <string>
#include <vector>

#include "asn/oid.h"
#include "mib/data.h"
#include "tn/message.h"

class GetProvider;
class NumPacker;

extern const OID hrStorageOtherOID;
extern const OID hrStorageFixedDiskOID;
extern const OID hrDeviceProcessorOID;
extern const OID healthRoot;

class StorageRow : public Data {
public:
    int index = 0;
    OID type;
    std::string descr;
    unsigned int size = 0;  // in allocation units of 1024 bytes
    unsigned int used = 0;
};

class DeviceRow : public Data {
public:
    int index = 1;
    unsigned int load = 0;
    OID type;
};

// The router's clock (handler {24, 0}).
class Clock : public Data {
public:
    std::vector<unsigned char> dateAndTime;  // 11-octet DateAndTime
};
Data* buildClock(tn::message const& msg);

// Supply and temperatures (handler {12, 1}).
class Health : public Data {
public:
    int voltage = 0;
    int temperature = 0;     // tenths of a degree
    int cpuTemperature = 0;  // tenths of a degree
    std::string state;
};
Data* buildHealth(tn::message const& msg);

// The static rows, refreshed from the resources record on every read.
Data* diskRow();
Data* memoryRow();
Data* processorRow();

// Registers a health scalar the first time the platform reports its field.
// True when the leaf was registered by this call (it then owns the packer).
bool registerHealthLeaf(tn::message const& msg, std::string const& label, unsigned int fieldId,
                        bool& registeredFlag, unsigned int subId, NumPacker* packer);

// Sets the constant columns of the storage rows.
void fillStorageRows();
// hrStorage, hrSystem, hrDevice; called by registerSystemModule.
void registerHostResources();

extern GetProvider* clockProvider;
extern GetProvider* healthProvider;
extern bool voltageRegistered;
extern bool temperatureRegistered;
extern bool cpuTemperatureRegistered;
