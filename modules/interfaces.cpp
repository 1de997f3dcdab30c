#include "modules/interfaces.h"

#include <algorithm>

#include "agent/traps.h"
#include "mib/leaf.h"
#include "mib/packer.h"
#include "mib/providers.h"
#include "modules/module_util.h"
#include "modules/modules.h"
#include "tn/looper.h"

const unsigned int ethernetSpeeds[ETHERNET_SPEED_COUNT] = {10000000, 100000000, 1000000000};

namespace {

const tn::u32_vector kInterfacePath = {20, 0};
const OID kIfNumber("1.3.6.1.2.1.2.1");
const OID kIfEntry("1.3.6.1.2.1.2.2.1");
const OID kIfXEntry("1.3.6.1.2.1.31.1.1.1");

const uint32_t kCmdGetObj = 0xfe0002;
const uint32_t kCmdLinkEvent = 0x10004;
const unsigned int kCounterSelector = 256;
const unsigned int kVlanKind = 30;

struct KindInfo {
    int type;
    unsigned int speed;
};

// ifType and ifSpeed by the platform's interface kind; kinds 1 (Ethernet)
// and 30 (VLAN) look their speed up elsewhere.
KindInfo kindInfo(unsigned int kind) {
    switch (kind) {
    case 2: return {188, 2000000};
    case 5: case 13: case 24: case 35: return {71, 11000000};
    case 6: return {188, 10000000};
    case 7: case 8: case 23: case 28: return {118, 64000};
    case 10: case 11: case 16: case 18: case 33: case 34: return {23, 10000000};
    case 12: return {209, 100000000};
    case 15: case 22: return {63, 64000};
    case 17: return {131, 10000000};
    case 19: case 20: return {23, 57600};
    case 21: return {131, 128000};
    case 27: return {32, 64000};
    default: return {1, 10000000};
    }
}

// The Ethernet speed of the interface a VLAN runs on.
unsigned int parentSpeed(unsigned int parent) {
    tn::message req = busRequest(kInterfacePath, kCmdGetObj);
    req.insert(tn::u32_id(0xfe0001), parent);
    tn::message reply = providerExchange(req);
    return ethernetSpeed(reply.get(tn::u32_id(0x3f2), 0));
}

tn::message linkFilter() {
    tn::message filter;
    filter.insert(tn::u32_id(0x10002), 0u);
    filter.insert(tn::u32_id(0x10003), 0x80u);
    return filter;
}

}  // namespace

unsigned int ethernetSpeed(unsigned int code) { return code < ETHERNET_SPEED_COUNT ? ethernetSpeeds[code] : 0; }

// ---- interface rows

void Interface::reverseBuild(tn::message& msg) { msg.insert(tn::u32_id(0xfe0001), index); }

void addInterface(tn::message const& msg, std::vector<Data*>* rows) {
    Interface* i = new Interface;
    i->index = msg.get(tn::u32_id(0xfe0001), 0);
    i->mtu = msg.get(tn::u32_id(0x10064), 0);
    unsigned int kind = msg.get(tn::u32_id(0x10001), 0);
    if (kind == 1) {
        i->type = 6;
        i->speed = ethernetSpeed(msg.get(tn::u32_id(0x3f2), 0));
    } else if (kind == kVlanKind) {
        i->type = 135;
        i->speed = parentSpeed(msg.get(tn::u32_id(0x7d2), 0));
    } else {
        KindInfo k = kindInfo(kind);
        i->type = k.type;
        i->speed = k.speed;
    }
    i->operStatus = msg.get(tn::bool_id(0x1000e), false) ? 1 : 2;
    i->adminStatus = msg.get(tn::bool_id(0xfe000a), false) ? 2 : 1;
    i->name = msg.get(tn::string_id(0x10006));
    if (const std::vector<uint8_t>* mac = msg.get_raw_ptr(tn::raw_id(0x300003e9)))
        i->physAddress.assign(mac->begin(), mac->end());
    rows->push_back(i);
}

// ---- counters

InterfaceCounterTable::InterfaceCounterTable(Table* interfaces)
    : AugmentProxyTable(interfaces), CacheUpdateTimeout(25, 95) {}

InterfaceCounterTable::~InterfaceCounterTable() {}

Data* InterfaceCounterTable::augment(OID const&, Data* base) {
    return counterRow(static_cast<Interface*>(base)->index);
}

InterfaceCounters* InterfaceCounterTable::counterRow(unsigned int key) {
    accessData();
    auto found = rows.find(key);
    if (found != rows.end()) return &found->second;
    // The zeroed row stays even when the fetch fails, so that one failing
    // interface costs one exchange per cache period, not one per column.
    InterfaceCounters& row = rows[key];
    tn::message req = busRequest(kInterfacePath, kCmdGetObj);
    req.insert(tn::u32_id(0xfe0001), key);
    req.insert(tn::u32_id(0xfe000c), kCounterSelector);
    tn::message reply = providerExchange(req);
    row.hcInOctets = reply.get(tn::u64_id(0x100100fc), 0);
    row.inOctets = static_cast<unsigned int>(row.hcInOctets);
    row.hcOutOctets = reply.get(tn::u64_id(0x100100fd), 0);
    row.outOctets = static_cast<unsigned int>(row.hcOutOctets);
    row.hcInUcastPkts = reply.get(tn::u64_id(0x100100fe), 0);
    row.inUcastPkts = static_cast<unsigned int>(row.hcInUcastPkts);
    row.hcOutUcastPkts = reply.get(tn::u64_id(0x100100ff), 0);
    row.outUcastPkts = static_cast<unsigned int>(row.hcOutUcastPkts);
    row.inErrors = reply.get(tn::u32_id(0x100fa), 0);
    row.outErrors = reply.get(tn::u32_id(0x100fb), 0);
    row.inDiscards = reply.get(tn::u32_id(0x100f8), 0);
    row.outDiscards = reply.get(tn::u32_id(0x100f9), 0);
    return &row;
}

void InterfaceCounterTable::clearRows() { rows.clear(); }

// Rows are fetched one interface at a time by counterRow.
void InterfaceCounterTable::updateCache() {}

void InterfaceCounterTable::clearCache() { clearRows(); }

// ---- link state

void takeLinkSnapshot() {
    tn::message req = busRequest(kInterfacePath, 1);
    bool more = false;
    uint32_t continuation = 0;
    do {
        if (more) req.insert(tn::u32_id(0xfe0003), continuation);
        tn::message reply = providerExchange(req);
        if (tn::isError(reply)) return;
        if (const std::vector<tn::flat_message>* objs = reply.get_flat(tn::message_array_id(0xa8fe0002))) {
            for (tn::flat_message const& f : *objs) {
                tn::message o(f);
                if (!o.has(tn::u32_id(0xfe0001)) || !o.has(tn::u32_id(0x10002)) || !o.has(tn::u32_id(0x10003)))
                    continue;
                if (o.get(tn::u32_id(0x10002)) & 0x80) continue;
                linkStates.insert({o.get(tn::u32_id(0xfe0001)), o.get(tn::u32_id(0x10003)) & 0x10103});
            }
        }
        more = reply.has(tn::u32_id(0xfe0003));
        continuation = reply.get(tn::u32_id(0xfe0003));
    } while (more);
}

void subscribeInterfaces() {
    trapMakers.push_back(linkTrapMaker);
    if (tn::Looper* l = tn::getLooper()) l->subscribe(kInterfacePath, kCmdLinkEvent, linkFilter());
}

void unsubscribeInterfaces() {
    auto it = std::find(trapMakers.begin(), trapMakers.end(), &linkTrapMaker);
    if (it != trapMakers.end()) trapMakers.erase(it);
    if (tn::Looper* l = tn::getLooper()) l->unsubscribe(kInterfacePath, kCmdLinkEvent, linkFilter());
}

// ---- registration

void registerInterfacesModule() {
    GetAllProvider* provider = new GetAllProvider;
    provider->addSource(addInterface, kInterfacePath);
    MapTable* interfaces = new MapTable(provider);
    DataNumPacker* index = new DataNumPacker(intMember(&Interface::index), tags::INTEGER);
    interfaces->addIndex(index);
    InterfaceCounterTable* counters = new InterfaceCounterTable(interfaces);

    addScalarLeaf(kIfNumber, new DataNumPacker(&CountProvider::CountData::count, tags::INTEGER),
                  new CountProvider(interfaces));

    ConstNumPacker* zeroCounter = new ConstNumPacker(0, tags::COUNTER32);
    ConstNumPacker* zeroGauge = new ConstNumPacker(0, tags::GAUGE32);
    ConstBignumPacker* zeroCounter64 = new ConstBignumPacker(0, tags::COUNTER64);
    DataStringPacker* name = new DataStringPacker(&Interface::name, tags::OCTET_STRING);
    auto counter32 = [](unsigned int InterfaceCounters::*m) {
        return new DataNumPacker(intMember(m), tags::COUNTER32);
    };
    auto counter64 = [](unsigned long long InterfaceCounters::*m) {
        return new DataBignumPacker(m, tags::COUNTER64);
    };

    addColumnarLeaf(kIfEntry + 1, index, interfaces);
    addColumnarLeaf(kIfEntry + 2, name, interfaces);
    addColumnarLeaf(kIfEntry + 3, new DataNumPacker(&Interface::type, tags::INTEGER), interfaces);
    addColumnarLeaf(kIfEntry + 4, new DataNumPacker(intMember(&Interface::mtu), tags::INTEGER), interfaces);
    addColumnarLeaf(kIfEntry + 5, new DataNumPacker(intMember(&Interface::speed), tags::GAUGE32), interfaces);
    addColumnarLeaf(kIfEntry + 6, new DataRawPacker(&Interface::physAddress, tags::OCTET_STRING), interfaces);
    addColumnarLeaf(kIfEntry + 7, new DataNumPacker(&Interface::adminStatus, tags::INTEGER), interfaces);
    addColumnarLeaf(kIfEntry + 8, new DataNumPacker(&Interface::operStatus, tags::INTEGER), interfaces);
    addColumnarLeaf(kIfEntry + 10, counter32(&InterfaceCounters::inOctets), counters);
    addColumnarLeaf(kIfEntry + 11, counter32(&InterfaceCounters::inUcastPkts), counters);
    addColumnarLeaf(kIfEntry + 13, counter32(&InterfaceCounters::inDiscards), counters);
    addColumnarLeaf(kIfEntry + 14, counter32(&InterfaceCounters::inErrors), counters);
    addColumnarLeaf(kIfEntry + 15, zeroCounter, interfaces);
    addColumnarLeaf(kIfEntry + 16, counter32(&InterfaceCounters::outOctets), counters);
    addColumnarLeaf(kIfEntry + 17, counter32(&InterfaceCounters::outUcastPkts), counters);
    addColumnarLeaf(kIfEntry + 19, counter32(&InterfaceCounters::outDiscards), counters);
    addColumnarLeaf(kIfEntry + 20, counter32(&InterfaceCounters::outErrors), counters);
    addColumnarLeaf(kIfEntry + 9, new ConstNumPacker(0, tags::TIME_TICKS), interfaces);
    addColumnarLeaf(kIfEntry + 12, zeroCounter, interfaces);
    addColumnarLeaf(kIfEntry + 18, zeroCounter, interfaces);
    addColumnarLeaf(kIfEntry + 21, zeroGauge, interfaces);

    addColumnarLeaf(kIfXEntry + 1, name, interfaces);
    addColumnarLeaf(kIfXEntry + 6, counter64(&InterfaceCounters::hcInOctets), counters);
    addColumnarLeaf(kIfXEntry + 7, counter64(&InterfaceCounters::hcInUcastPkts), counters);
    addColumnarLeaf(kIfXEntry + 10, counter64(&InterfaceCounters::hcOutOctets), counters);
    addColumnarLeaf(kIfXEntry + 11, counter64(&InterfaceCounters::hcOutUcastPkts), counters);
    for (unsigned int col : {2u, 3u, 4u, 5u}) addColumnarLeaf(kIfXEntry + col, zeroCounter, interfaces);
    for (unsigned int col : {8u, 9u, 12u, 13u}) addColumnarLeaf(kIfXEntry + col, zeroCounter64, interfaces);
    addColumnarLeaf(kIfXEntry + 15, zeroGauge, interfaces);

    takeLinkSnapshot();
    scribers.push_back(Scriber{"interfaces", subscribeInterfaces, unsubscribeInterfaces});
}
