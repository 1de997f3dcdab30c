#include "modules/host_resources.h"

#include <time.h>

#include <iostream>

#include "mib/leaf.h"
#include "mib/packer.h"
#include "mib/providers.h"
#include "mib/tables.h"
#include "modules/module_util.h"
#include "modules/modules.h"
#include "modules/system.h"

const OID hrStorageOtherOID("1.3.6.1.2.1.25.2.1.1");
const OID hrStorageFixedDiskOID("1.3.6.1.2.1.25.2.1.4");
const OID hrDeviceProcessorOID("1.3.6.1.2.1.25.3.1.3");
const OID healthRoot("1.3.6.1.4.1.48291.1.1.3");

GetProvider* clockProvider = nullptr;
GetProvider* healthProvider = nullptr;
bool voltageRegistered = false;
bool temperatureRegistered = false;
bool cpuTemperatureRegistered = false;

namespace {

const OID kHrSystem("1.3.6.1.2.1.25.1");
const OID kHrStorage("1.3.6.1.2.1.25.2");
const OID kHrDevice("1.3.6.1.2.1.25.3");

StorageRow theDiskRow;
StorageRow theMemoryRow;
DeviceRow theProcessorRow;

Resources* currentResources() {
    return resourcesProvider ? static_cast<Resources*>(resourcesProvider->get()) : nullptr;
}

}  // namespace

// ---- rows

void fillStorageRows() {
    theDiskRow.index = 1;
    theDiskRow.type = hrStorageFixedDiskOID;
    theDiskRow.descr = "disk";
    // Memory is reported as other storage, not as RAM.
    theMemoryRow.index = 2;
    theMemoryRow.type = hrStorageOtherOID;
    theMemoryRow.descr = "main memory";
    theProcessorRow.index = 1;
    theProcessorRow.type = hrDeviceProcessorOID;
}

Data* diskRow() {
    Resources* r = currentResources();
    if (!r) return nullptr;
    theDiskRow.size = r->diskTotal;
    theDiskRow.used = r->diskUsed;
    return &theDiskRow;
}

Data* memoryRow() {
    Resources* r = currentResources();
    if (!r) return nullptr;
    theMemoryRow.size = r->memTotal;
    theMemoryRow.used = r->memUsed;
    return &theMemoryRow;
}

Data* processorRow() {
    Resources* r = currentResources();
    if (!r) return nullptr;
    theProcessorRow.index = 1;
    theProcessorRow.load = r->cpuLoad;
    return &theProcessorRow;
}

// ---- clock

Data* buildClock(tn::message const& msg) {
    time_t t = static_cast<time_t>(msg.get(tn::u32_id(0x7), 0));
    int32_t offset = static_cast<int32_t>(msg.get(tn::u32_id(0x1b), 0));
    struct tm tm = {};
    localtime_r(&t, &tm);
    int year = tm.tm_year + 1900;
    unsigned char direction = '+';
    uint32_t east = static_cast<uint32_t>(offset);
    if (offset < 0) {
        direction = '-';
        east = 0u - east;
    }
    Clock* c = new Clock;
    c->dateAndTime = {static_cast<unsigned char>(year >> 8),
                      static_cast<unsigned char>(year & 0xff),
                      static_cast<unsigned char>(tm.tm_mon + 1),
                      static_cast<unsigned char>(tm.tm_mday),
                      static_cast<unsigned char>(tm.tm_hour),
                      static_cast<unsigned char>(tm.tm_min),
                      static_cast<unsigned char>(tm.tm_sec),
                      0,
                      direction,
                      static_cast<unsigned char>(east / 3600u),
                      static_cast<unsigned char>((east / 60u) % 60u)};
    return c;
}

// ---- health

bool registerHealthLeaf(tn::message const& msg, std::string const& label, unsigned int fieldId,
                        bool& registeredFlag, unsigned int subId, NumPacker* packer) {
    if (registeredFlag || !msg.has(tn::u32_id(fieldId))) return false;
    addScalarLeaf(healthRoot + subId, packer, healthProvider);
    std::cout << "+ " << label << std::endl;
    registeredFlag = true;
    return true;
}

Data* buildHealth(tn::message const& msg) {
    NumPacker* voltage = new DataNumPacker(&Health::voltage, tags::INTEGER);
    NumPacker* temperature = new DataNumPacker(&Health::temperature, tags::INTEGER);
    NumPacker* cpuTemperature = new DataNumPacker(&Health::cpuTemperature, tags::INTEGER);
    // A packer that found no use this time is not kept: the fetch repeats
    // for as long as the agent runs.
    if (!registerHealthLeaf(msg, "voltage", 0xd, voltageRegistered, 8, voltage)) delete voltage;
    if (!registerHealthLeaf(msg, "temperature", 0xe, temperatureRegistered, 10, temperature)) delete temperature;
    if (!registerHealthLeaf(msg, "cpu temperature", 0x11, cpuTemperatureRegistered, 11, cpuTemperature))
        delete cpuTemperature;

    Health* h = new Health;
    h->voltage = static_cast<int>(msg.get(tn::u32_id(0xd), 0));
    // Tenths of a degree; computed unsigned so that no reported value overflows.
    const uint32_t absent = static_cast<uint32_t>(-273);
    h->temperature = static_cast<int>(msg.get(tn::u32_id(0xe), absent) * 10u);
    h->cpuTemperature = static_cast<int>(msg.get(tn::u32_id(0x11), absent) * 10u);
    switch (msg.get(tn::u32_id(0xc), 42)) {
    case 0: h->state = "aux"; break;
    case 1: h->state = "main"; break;
    case 2: h->state = "none"; break;
    default: h->state = "n/a"; break;
    }
    return h;
}

// ---- registration

void registerHostResources() {
    addScalarLeaf(kHrStorage + 2, new DataNumPacker(intMember(&Resources::memTotal), tags::INTEGER),
                  resourcesProvider);
    StaticMuxTable* storage = new StaticMuxTable;
    storage->addProvider(OID("1"), new ProxyDataProvider(diskRow));
    storage->addProvider(OID("2"), new ProxyDataProvider(memoryRow));
    OID storageEntry = kHrStorage + OID("3.1");
    addColumnarLeaf(storageEntry + 1, new DataNumPacker(&StorageRow::index, tags::INTEGER), storage);
    addColumnarLeaf(storageEntry + 2, new DataOIDPacker(&StorageRow::type, tags::OBJECT_ID), storage);
    addColumnarLeaf(storageEntry + 3, new DataStringPacker(&StorageRow::descr, tags::OCTET_STRING), storage);
    addColumnarLeaf(storageEntry + 4, new ConstNumPacker(1024, tags::INTEGER), storage);
    addColumnarLeaf(storageEntry + 5, new DataNumPacker(intMember(&StorageRow::size), tags::INTEGER), storage);
    addColumnarLeaf(storageEntry + 6, new DataNumPacker(intMember(&StorageRow::used), tags::INTEGER), storage);
    addColumnarLeaf(storageEntry + 7, new ConstNumPacker(0, tags::COUNTER32), storage);

    addScalarLeaf(kHrSystem + 1, new DataNumPacker(intMember(&Resources::upTime), tags::TIME_TICKS),
                  resourcesProvider);
    addScalarLeaf(kHrSystem + 2, new DataRawPacker(&Clock::dateAndTime, tags::OCTET_STRING), clockProvider);

    ProxyDataProvider* processor = new ProxyDataProvider(processorRow);
    StaticMuxTable* devices = new StaticMuxTable;
    devices->addProvider(OID("1"), processor);
    StaticMuxTable* processors = new StaticMuxTable;
    processors->addProvider(OID("1"), processor);
    OID deviceEntry = kHrDevice + OID("2.1");
    addColumnarLeaf(deviceEntry + 1, new DataNumPacker(&DeviceRow::index, tags::INTEGER), devices);
    addColumnarLeaf(deviceEntry + 2, new DataOIDPacker(&DeviceRow::type, tags::OBJECT_ID), devices);
    addColumnarLeaf(kHrDevice + OID("3.1.2"), new DataNumPacker(intMember(&DeviceRow::load), tags::INTEGER),
                    processors);
}

void registerHealthModule() {
    healthProvider = new GetProvider(buildHealth, {12, 1}, MODULE_CMD_GET, MODULE_CMD_SET);
    addScalarLeaf(healthRoot + 9, new DataStringPacker(&Health::state, tags::OCTET_STRING), healthProvider);
}
