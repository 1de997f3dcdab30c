#include "modules/bridge.h"

#include "mib/leaf.h"
#include "mib/packer.h"
#include "mib/providers.h"
#include "mib/tables.h"
#include "modules/module_util.h"
#include "modules/modules.h"

GetFirstProvider* bridgeProvider = nullptr;

namespace {

const OID kHostEntry("1.3.6.1.4.1.48291.1.1.11.1.1");
const unsigned int kBridgeKind = 12;
const unsigned int kMacLength = 6;

}  // namespace

Data* buildBridgeInfo(tn::message const& msg) {
    if (msg.get(tn::u32_id(0x10001), 0) != kBridgeKind) return nullptr;
    BridgeInfo* b = new BridgeInfo;
    if (const std::vector<uint8_t>* mac = msg.get_raw_ptr(tn::raw_id(0x300003e9)))
        b->address.assign(mac->begin(), mac->end());
    b->priority = msg.get(tn::u32_id(0x2), 0);
    return b;
}

void addFdbEntry(tn::message const& msg, std::vector<Data*>* rows) {
    if (!bridgeProvider || msg.get(tn::u32_id(0x5), 0) != bridgeProvider->getFirstObjId()) return;
    FdbEntry* e = new FdbEntry;
    e->port = msg.get(tn::u32_id(0x1), 0);
    if (const std::vector<uint8_t>* mac = msg.get_raw_ptr(tn::raw_id(0x30000002)))
        e->mac.assign(mac->begin(), mac->end());
    e->status = msg.get(tn::bool_id(0x4), false) ? 4 : 3;
    rows->push_back(e);
}

void addHostEntry(tn::message const& msg, std::vector<Data*>* rows) {
    HostEntry* h = new HostEntry;
    h->id = msg.get(tn::u32_id(0xfe0001), 0);
    h->address = msg.get(tn::be32_id(0x1), 0);
    if (const std::vector<uint8_t>* mac = msg.get_raw_ptr(tn::raw_id(0x30000002)))
        h->mac.assign(mac->begin(), mac->end());
    h->text7 = msg.get(tn::string_id(0x7));
    h->text8 = msg.get(tn::string_id(0x8));
    h->text6 = msg.get(tn::string_id(0x6));
    h->text11 = msg.get(tn::string_id(0xb));
    rows->push_back(h);
}

void registerBridgeModule(OID const& root) {
    OID base = root + 1;
    OID stp = root + 2;
    OID fdbEntry = root + OID("4.3.1");

    bridgeProvider = new GetFirstProvider(buildBridgeInfo, {20, 0});

    GetAllProvider* fdb = new GetAllProvider;
    fdb->addSource(addFdbEntry, {16, 3});
    MapTable* fdbTable = new MapTable(fdb);
    // The address column is its own index: six arcs, no length prefix.
    DataRawPacker* macPacker = new DataRawPacker(&FdbEntry::mac, tags::OCTET_STRING, kMacLength);
    fdbTable->addIndex(macPacker);
    addColumnarLeaf(fdbEntry + 1, macPacker, fdbTable);
    addColumnarLeaf(fdbEntry + 2, new DataNumPacker(intMember(&FdbEntry::port), tags::INTEGER), fdbTable);
    addColumnarLeaf(fdbEntry + 3, new DataNumPacker(&FdbEntry::status, tags::INTEGER), fdbTable);

    addScalarLeaf(base + 1, new DataRawPacker(&BridgeInfo::address, tags::OCTET_STRING, kMacLength), bridgeProvider);

    addScalarLeaf(stp + 1, new ConstNumPacker(3, tags::INTEGER), nullptr);
    addScalarLeaf(stp + 2, new DataNumPacker(intMember(&BridgeInfo::priority), tags::INTEGER), bridgeProvider);
}

void registerHostTable() {
    GetAllProvider* hosts = new GetAllProvider;
    hosts->addSource(addHostEntry, {10, 1});
    MapTable* hostTable = new MapTable(hosts);
    hostTable->addIndex(new DataNumPacker(intMember(&HostEntry::id), tags::INTEGER));
    addColumnarLeaf(kHostEntry + 2, new DataIPPacker(&HostEntry::address, tags::IP_ADDRESS), hostTable);
    addColumnarLeaf(kHostEntry + 3, new DataRawPacker(&HostEntry::mac, tags::OCTET_STRING), hostTable);
    // Column order follows the platform's fields 7, 8, 6, 11.
    addColumnarLeaf(kHostEntry + 4, new DataStringPacker(&HostEntry::text7, tags::OCTET_STRING), hostTable);
    addColumnarLeaf(kHostEntry + 5, new DataStringPacker(&HostEntry::text8, tags::OCTET_STRING), hostTable);
    addColumnarLeaf(kHostEntry + 6, new DataStringPacker(&HostEntry::text6, tags::OCTET_STRING), hostTable);
    addColumnarLeaf(kHostEntry + 7, new DataStringPacker(&HostEntry::text11, tags::OCTET_STRING), hostTable);
}
