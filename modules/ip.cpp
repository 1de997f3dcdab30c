#include "modules/ip.h"

#include "mib/leaf.h"
#include "mib/packer.h"
#include "mib/providers.h"
#include "mib/tables.h"
#include "modules/module_util.h"
#include "modules/modules.h"

// Kinds 9 to 29 are all plain remote routes of other origin.
const int routeTypes[ROUTE_KIND_COUNT] = {3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4,
                                          4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4};
const int routeProtos[ROUTE_KIND_COUNT] = {1, 2, 8, 1, 13, 1, 14, 1, 1, 1, 1, 1, 1, 1, 1,
                                           1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 2, 1};
const int cidrRouteTypes[ROUTE_KIND_COUNT] = {3, 4, 4, 1, 4, 1, 4, 1, 1, 1, 1, 1, 1, 1, 1,
                                              1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 4, 3};
const int cidrRouteProtos[ROUTE_KIND_COUNT] = {2, 3, 8, 1, 13, 1, 14, 1, 1, 1, 1, 1, 1, 1, 1,
                                               1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 3, 2};

namespace {

const OID kIpRoot("1.3.6.1.2.1.4");
const OID kTrafficEntry("1.3.6.1.4.1.48291.1.1.2.1.1");
const OID kTrafficTreeEntry("1.3.6.1.4.1.48291.1.1.2.2.1");
const unsigned int kTrafficSelector = 7;

// Disabled (0xfe000a) and invalid (0xfe0008) objects are not published.
bool inactive(tn::message const& msg) {
    return msg.get(tn::bool_id(0xfe0008), false) || msg.get(tn::bool_id(0xfe000a), false);
}

void copyRaw(tn::message const& msg, uint32_t id, std::vector<unsigned char>* out) {
    if (const std::vector<uint8_t>* v = msg.get_raw_ptr(tn::raw_id(id))) out->assign(v->begin(), v->end());
}

}  // namespace

void addIpAddress(tn::message const& msg, std::vector<Data*>* rows) {
    if (inactive(msg)) return;
    AddressEntry* e = new AddressEntry;
    e->address = msg.get(tn::be32_id(0x1), 0);
    e->ifIndex = msg.get(tn::u32_id(0x5), 0);
    e->netmask = msg.get(tn::be32_id(0x3), 0);
    rows->push_back(e);
}

void addNetToMedia(tn::message const& msg, std::vector<Data*>* rows) {
    NetToMedia* e = new NetToMedia;
    e->ifIndex = msg.get(tn::u32_id(0x3), 0);
    e->address = msg.get(tn::be32_id(0x1), 0);
    if (msg.get(tn::bool_id(0xfe0008), false))
        e->type = 2;
    else if (msg.get(tn::bool_id(0xfe0007), false))
        e->type = 3;
    else
        e->type = 4;
    copyRaw(msg, 0x30000002, &e->physAddress);
    rows->push_back(e);
}

void addRoutes(tn::message const& msg, std::vector<Data*>* rows) {
    static const tn::u32_vector none;
    const tn::u32_vector* hops = msg.get_u32_array_ptr(tn::u32_array_id(0x88000004));
    if (!hops) hops = &none;
    if (inactive(msg)) return;

    Route proto;
    proto.dest = msg.get(tn::be32_id(0x1), 0);
    proto.mask = msg.get(tn::be32_id(0x2), 0);
    proto.metric = msg.get(tn::u32_id(0x8), 0);
    unsigned int kind = msg.get(tn::u32_id(0x7), 0);
    if (kind - 2u < ROUTE_KIND_COUNT) {
        proto.routeType = routeTypes[kind - 2];
        proto.routeProto = routeProtos[kind - 2];
        proto.cidrType = cidrRouteTypes[kind - 2];
        proto.cidrProto = cidrRouteProtos[kind - 2];
    }

    const tn::u32_vector* ifIndexes = msg.get_u32_array_ptr(tn::u32_array_id(0x88000005));
    if (hops->empty() && kind == 2) {
        Route* r = new Route(proto);
        r->nextHop = msg.get(tn::be32_id(0x3), 0);
        r->ifIndex = ifIndexes && !ifIndexes->empty() ? (*ifIndexes)[0] : 0;
        rows->push_back(r);
        return;
    }
    if (!ifIndexes) return;
    const tn::u32_vector* active = msg.get_u32_array_ptr(tn::u32_array_id(0x88000006));
    for (size_t i = 0; i < hops->size(); ++i) {
        if (active && i < active->size() && (*active)[i] == 0) continue;
        Route* r = new Route(proto);
        r->nextHop = (*hops)[i];
        r->ifIndex = i < ifIndexes->size() ? (*ifIndexes)[i] : 0;
        rows->push_back(r);
    }
}

void addTrafficEntry(tn::message const& msg, std::vector<Data*>* rows) {
    TrafficEntry* e = new TrafficEntry;
    e->id = msg.get(tn::u32_id(0xfe0001), 0);
    e->name = msg.get(tn::string_id(0x2));
    const tn::u32_vector* pair = msg.get_u32_array_ptr(tn::u32_array_id(0x88000069));
    if (pair && pair->size() >= 2) {
        e->address1 = (*pair)[0];
        e->address2 = (*pair)[1];
    }
    e->address3 = msg.get(tn::be32_id(0x65), 0);
    e->address4 = msg.get(tn::be32_id(0x67), 0);
    e->number = msg.get(tn::u32_id(0x68), 0);
    e->bytes = msg.get(tn::u64_id(0x1000012c), 0);
    e->bytes2 = msg.get(tn::u64_id(0x100000c8), 0);
    e->count1 = msg.get(tn::u32_id(0x12d), 0);
    e->count2 = msg.get(tn::u32_id(0xc9), 0);
    rows->push_back(e);
}

void addTrafficTreeEntry(tn::message const& msg, std::vector<Data*>* rows) {
    TrafficTreeEntry* e = new TrafficTreeEntry;
    e->id = msg.get(tn::u32_id(0xfe0001), 0);
    e->name = msg.get(tn::string_id(0x2));
    std::vector<std::string> parents = msg.get(tn::string_array_id(0xa000000c));
    if (!parents.empty()) e->parent = parents[0];
    e->number = msg.get(tn::u32_id(0x1), 0);
    e->bytes = msg.get(tn::u64_id(0x100000c8), 0);
    e->bytesLow = static_cast<unsigned int>(e->bytes);
    e->count = msg.get(tn::u32_id(0xc9), 0);
    rows->push_back(e);
}

namespace {

void registerAddressTable() {
    GetAllProvider* provider = new GetAllProvider;
    provider->addSource(addIpAddress, {20, 1});
    MapTable* table = new MapTable(provider);
    DataIPPacker* address = new DataIPPacker(&AddressEntry::address, tags::IP_ADDRESS);
    table->addIndex(address);
    OID entry = kIpRoot + OID("20.1");
    addColumnarLeaf(entry + 1, address, table);
    addColumnarLeaf(entry + 2, new DataNumPacker(intMember(&AddressEntry::ifIndex), tags::INTEGER), table);
    addColumnarLeaf(entry + 3, new DataIPPacker(&AddressEntry::netmask, tags::IP_ADDRESS), table);
    addColumnarLeaf(entry + 4, new ConstNumPacker(1, tags::INTEGER), table);
    addColumnarLeaf(entry + 5, new ConstNumPacker(65535, tags::INTEGER), table);
}

void registerNetToMediaTable() {
    GetAllProvider* provider = new GetAllProvider;
    provider->addSource(addNetToMedia, {20, 8});
    MapTable* table = new MapTable(provider);
    DataNumPacker* ifIndex = new DataNumPacker(intMember(&NetToMedia::ifIndex), tags::INTEGER);
    DataIPPacker* address = new DataIPPacker(&NetToMedia::address, tags::IP_ADDRESS);
    table->addIndex(ifIndex);
    table->addIndex(address);
    OID entry = kIpRoot + OID("22.1");
    addColumnarLeaf(entry + 1, ifIndex, table);
    addColumnarLeaf(entry + 2, new DataRawPacker(&NetToMedia::physAddress, tags::OCTET_STRING), table);
    addColumnarLeaf(entry + 3, address, table);
    addColumnarLeaf(entry + 4, new DataNumPacker(&NetToMedia::type, tags::INTEGER), table);
}

void registerRouteTables() {
    GetAllProvider* routes = new GetAllProvider;
    routes->addSource(addRoutes, {44, 1});

    MapTable* cidr = new MapTable(routes);
    DataIPPacker* dest = new DataIPPacker(&Route::dest, tags::IP_ADDRESS);
    DataIPPacker* mask = new DataIPPacker(&Route::mask, tags::IP_ADDRESS);
    ConstNumPacker* tos = new ConstNumPacker(0, tags::INTEGER);
    DataIPPacker* nextHop = new DataIPPacker(&Route::nextHop, tags::IP_ADDRESS);
    cidr->addIndex(dest);
    cidr->addIndex(mask);
    cidr->addIndex(tos);
    cidr->addIndex(nextHop);
    DataNumPacker* ifIndex = new DataNumPacker(intMember(&Route::ifIndex), tags::INTEGER);
    DataNumPacker* metric = new DataNumPacker(intMember(&Route::metric), tags::INTEGER);
    ConstNumPacker* zero = new ConstNumPacker(0, tags::INTEGER);
    ConstNumPacker* unused = new ConstNumPacker(-1, tags::INTEGER);
    ConstOIDPacker* noInfo = new ConstOIDPacker(OID("0.0"), tags::OBJECT_ID);

    OID cidrEntry = kIpRoot + OID("24.4.1");
    addColumnarLeaf(cidrEntry + 1, dest, cidr);
    addColumnarLeaf(cidrEntry + 2, mask, cidr);
    addColumnarLeaf(cidrEntry + 3, tos, cidr);
    addColumnarLeaf(cidrEntry + 4, nextHop, cidr);
    addColumnarLeaf(cidrEntry + 5, ifIndex, cidr);
    addColumnarLeaf(cidrEntry + 6, new DataNumPacker(&Route::cidrType, tags::INTEGER), cidr);
    addColumnarLeaf(cidrEntry + 7, new DataNumPacker(&Route::cidrProto, tags::INTEGER), cidr);
    addColumnarLeaf(cidrEntry + 8, zero, cidr);
    addColumnarLeaf(cidrEntry + 9, noInfo, cidr);
    addColumnarLeaf(cidrEntry + 10, zero, cidr);
    addColumnarLeaf(cidrEntry + 11, metric, cidr);
    for (unsigned int col = 12; col <= 15; ++col) addColumnarLeaf(cidrEntry + col, unused, cidr);
    addColumnarLeaf(cidrEntry + 16, new ConstNumPacker(1, tags::INTEGER), cidr);

    CountProvider* cidrCount = new CountProvider(cidr);
    addScalarLeaf(kIpRoot + OID("24.3"), new DataNumPacker(&CountProvider::CountData::count, tags::GAUGE32),
                  cidrCount);

    // Routes to the same destination share one instance here; the table
    // keeps the last one delivered.
    MapTable* route = new MapTable(routes);
    route->addIndex(dest);
    OID routeEntry = kIpRoot + OID("21.1");
    addColumnarLeaf(routeEntry + 1, dest, route);
    addColumnarLeaf(routeEntry + 2, ifIndex, route);
    addColumnarLeaf(routeEntry + 3, metric, route);
    for (unsigned int col = 4; col <= 6; ++col) addColumnarLeaf(routeEntry + col, unused, route);
    addColumnarLeaf(routeEntry + 7, nextHop, route);
    addColumnarLeaf(routeEntry + 8, new DataNumPacker(&Route::routeType, tags::INTEGER), route);
    addColumnarLeaf(routeEntry + 9, new DataNumPacker(&Route::routeProto, tags::INTEGER), route);
    addColumnarLeaf(routeEntry + 10, zero, route);
    addColumnarLeaf(routeEntry + 11, mask, route);
    addColumnarLeaf(routeEntry + 12, unused, route);
    addColumnarLeaf(routeEntry + 13, noInfo, route);
}

void registerTrafficTables() {
    GetAllProvider* traffic = new GetAllProvider;
    traffic->addSource(addTrafficEntry, {20, 9}, kTrafficSelector);
    MapTable* table = new MapTable(traffic);
    table->addIndex(new DataNumPacker(intMember(&TrafficEntry::id), tags::INTEGER));
    addColumnarLeaf(kTrafficEntry + 2, new DataStringPacker(&TrafficEntry::name, tags::OCTET_STRING), table);
    addColumnarLeaf(kTrafficEntry + 3, new DataIPPacker(&TrafficEntry::address1, tags::IP_ADDRESS), table);
    addColumnarLeaf(kTrafficEntry + 4, new DataIPPacker(&TrafficEntry::address2, tags::IP_ADDRESS), table);
    addColumnarLeaf(kTrafficEntry + 5, new DataIPPacker(&TrafficEntry::address3, tags::IP_ADDRESS), table);
    addColumnarLeaf(kTrafficEntry + 6, new DataIPPacker(&TrafficEntry::address4, tags::IP_ADDRESS), table);
    addColumnarLeaf(kTrafficEntry + 7, new DataNumPacker(intMember(&TrafficEntry::number), tags::INTEGER), table);
    addColumnarLeaf(kTrafficEntry + 8, new DataBignumPacker(&TrafficEntry::bytes, tags::COUNTER64), table);
    addColumnarLeaf(kTrafficEntry + 9, new DataBignumPacker(&TrafficEntry::bytes2, tags::COUNTER64), table);
    addColumnarLeaf(kTrafficEntry + 10, new DataNumPacker(intMember(&TrafficEntry::count1), tags::COUNTER32), table);
    addColumnarLeaf(kTrafficEntry + 11, new DataNumPacker(intMember(&TrafficEntry::count2), tags::COUNTER32), table);

    GetAllProvider* tree = new GetAllProvider;
    tree->addSource(addTrafficTreeEntry, {20, 12}, kTrafficSelector);
    MapTable* treeTable = new MapTable(tree);
    treeTable->addIndex(new DataNumPacker(intMember(&TrafficTreeEntry::id), tags::INTEGER));
    addColumnarLeaf(kTrafficTreeEntry + 2, new DataStringPacker(&TrafficTreeEntry::name, tags::OCTET_STRING),
                    treeTable);
    addColumnarLeaf(kTrafficTreeEntry + 3, new DataStringPacker(&TrafficTreeEntry::parent, tags::OCTET_STRING),
                    treeTable);
    addColumnarLeaf(kTrafficTreeEntry + 4, new DataNumPacker(intMember(&TrafficTreeEntry::number), tags::INTEGER),
                    treeTable);
    addColumnarLeaf(kTrafficTreeEntry + 5,
                    new DataNumPacker(intMember(&TrafficTreeEntry::bytesLow), tags::COUNTER32), treeTable);
    addColumnarLeaf(kTrafficTreeEntry + 6, new DataNumPacker(intMember(&TrafficTreeEntry::count), tags::COUNTER32),
                    treeTable);
    addColumnarLeaf(kTrafficTreeEntry + 7, new DataBignumPacker(&TrafficTreeEntry::bytes, tags::COUNTER64),
                    treeTable);
}

}  // namespace

void registerIpModule() {
    addScalarConstNumLeaf(kIpRoot + 1, 1, tags::INTEGER);
    addScalarConstNumLeaf(kIpRoot + 2, 255, tags::INTEGER);
    registerAddressTable();
    registerNetToMediaTable();
    registerRouteTables();
    registerTrafficTables();
}
