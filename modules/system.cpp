#include "modules/system.h"

#include <time.h>

#include <iostream>

#include "agent/snmp_looper.h"
#include "mib/leaf.h"
#include "mib/packer.h"
#include "mib/providers.h"
#include "mib/tables.h"
#include "modules/bridge.h"
#include "modules/host_resources.h"
#include "modules/module_util.h"
#include "modules/modules.h"
#include "tn/time.h"

GetProvider* resourcesProvider = nullptr;

namespace {

const OID kSystemRoot("1.3.6.1.2.1.1");
const OID kEnterpriseRoot("1.3.6.1.4.1.48291.1");
const OID kSoftwareRoot("1.3.6.1.4.1.48291.1.1.4");
const OID kControlRoot("1.3.6.1.4.1.48291.1.1.7");
const OID kScriptEntry("1.3.6.1.4.1.48291.1.1.8.1.1");

// The software stamp is a fixed moment, rendered in the local time zone.
const time_t kSoftwareStampTime = 67;

}  // namespace

// ---- records

Data* buildResources(tn::message const& msg) {
    Resources* r = new Resources;
    r->upTime = msg.get(tn::u32_id(0x1), 0) * 100u;
    r->memTotal = msg.get(tn::u32_id(0x2), 0);
    r->memUsed = msg.get(tn::u32_id(0x2), 0) - msg.get(tn::u32_id(0x3), 0);
    r->diskTotal = msg.get(tn::u32_id(0xa), 0);
    r->diskUsed = msg.get(tn::u32_id(0xa), 0) - msg.get(tn::u32_id(0xb), 0);
    r->cpuLoad = msg.get(tn::u32_id(0x6), 0);
    return r;
}

Data* buildIdent(tn::message const& msg) {
    Ident* r = new Ident;
    r->name = msg.get(tn::string_id(0xc));
    return r;
}

void Ident::reverseBuild(tn::message& msg) {
    std::cerr << "Ident::reverseBuild" << std::endl;
    msg.insert(tn::string_id(0xc), name);
}

Data* SnmpInfo::get() {
    if (!loop) {
        contact.clear();
        location.clear();
        return this;
    }
    tn::message config = loop->getConfig();
    contact = config.get(tn::string_id(0x2));
    location = config.get(tn::string_id(0x3));
    return this;
}

unsigned int SnmpInfo::set(Data*) { return 0; }

SnmpInfo::~SnmpInfo() {}

Data* TheSystem::build(tn::message const&) {
    std::cerr << "TheSystem::build" << std::endl;
    return new TheSystem;
}

void TheSystem::reverseBuild(tn::message&) {
    std::cerr << "TheSystem::reverseBuild" << std::endl;
    if (reboot == 0) return;
    std::cerr << "TheSystem::REBOOT" << std::endl;
    tn::message cmd = busRequest(tn::u32_vector{24}, 5);
    providerExchange(cmd);  // a refused reboot does not fail the set
}

Data* buildSoftwareInfo(tn::message const& msg) {
    SoftwareInfo* r = new SoftwareInfo;
    r->text = msg.get(tn::string_id(0x1));
    struct tm tm = {};
    time_t t = kSoftwareStampTime;
    localtime_r(&t, &tm);
    int year = tm.tm_year + 1900;
    r->stamp = {static_cast<unsigned char>(year >> 8),
                static_cast<unsigned char>(year & 0xff),
                static_cast<unsigned char>(tm.tm_mon + 1),
                static_cast<unsigned char>(tm.tm_mday),
                static_cast<unsigned char>(tm.tm_hour),
                static_cast<unsigned char>(tm.tm_min),
                static_cast<unsigned char>(tm.tm_sec),
                0};
    r->number = msg.get(tn::u32_id(0x4), 0);
    r->counter = msg.get(tn::u32_id(0x9), 0) + 1u;
    return r;
}

void Script::build(tn::message const& msg, std::vector<Data*>* rows) {
    std::cerr << "Script::build" << std::endl;
    Script* r = new Script;
    r->id = msg.get(tn::u32_id(0xfe0001), 0);
    r->name = msg.get(tn::string_id(0x66));
    rows->push_back(r);
}

void Script::reverseBuild(tn::message& msg) {
    std::cerr << "Script::reverseBuild" << std::endl;
    msg.insert(tn::u32_id(0xfe0001), id);
    if (run != 0) {
        std::cerr << "Run, FOREST, run!" << std::endl;
        // Command 1 on the script object runs it, in place of the rename.
        msg.insert(tn::u32_id(0xff0007), 1u);
        return;
    }
    msg.insert(tn::string_id(0x66), name);
}

// ---- registration

void registerSystemModule() {
    fillStorageRows();

    clockProvider = new GetProvider(buildClock, {24, 0}, MODULE_CMD_GET, MODULE_CMD_SET);
    GetProvider* identProvider = new GetProvider(buildIdent, {24, 1}, MODULE_CMD_GET, MODULE_CMD_SET);
    GetProvider* systemProvider = new GetProvider(TheSystem::build, {24, 2}, MODULE_CMD_GET, MODULE_CMD_SET);
    GetProvider* softwareProvider = new GetProvider(buildSoftwareInfo, {65}, MODULE_CMD_GET, MODULE_CMD_SET);
    resourcesProvider = new GetProvider(buildResources, {24, 2}, MODULE_CMD_GET, MODULE_CMD_SET);
    SnmpInfo* info = new SnmpInfo;

    GetAllProvider* scripts = new GetAllProvider;
    scripts->addSource(Script::build, {48, 101});
    MapTable* scriptTable = new MapTable(scripts);
    scriptTable->addIndex(new DataNumPacker(intMember(&Script::id), tags::INTEGER));
    addColumnarLeaf(kScriptEntry + 2, new DataStringPacker(&Script::name, tags::OCTET_STRING), scriptTable);
    addColumnarLeaf(kScriptEntry + 3, new DataNumPacker(&Script::run, tags::INTEGER), scriptTable);

    // Registered twice on purpose: the second registration is the one that
    // stays. The first leaf lives on unused, like every framework object.
    addScalarLeaf(kControlRoot + 1, new DataNumPacker(&TheSystem::reboot, tags::INTEGER), systemProvider);
    static std::vector<Leaf*>* superseded = new std::vector<Leaf*>;
    superseded->push_back(leafs[kControlRoot + 1]);
    registerHostTable();
    addScalarLeaf(kControlRoot + 1, new DataNumPacker(&TheSystem::reboot, tags::INTEGER), systemProvider);

    addScalarConstStringLeaf(kSystemRoot + 1, "router", tags::OCTET_STRING);
    addScalarConstOIDLeaf(kSystemRoot + 2, kEnterpriseRoot, tags::OBJECT_ID);
    addScalarLeaf(kSystemRoot + 3, new DataNumPacker(intMember(&Resources::upTime), tags::TIME_TICKS),
                  resourcesProvider);
    addScalarLeaf(kSystemRoot + 4, new DataStringPacker(&SnmpInfo::contact, tags::OCTET_STRING), info);
    addScalarLeaf(kSystemRoot + 5, new DataStringPacker(&Ident::name, tags::OCTET_STRING), identProvider);
    addScalarLeaf(kSystemRoot + 6, new DataStringPacker(&SnmpInfo::location, tags::OCTET_STRING), info);
    addScalarLeaf(kSystemRoot + 7, new ConstNumPacker(78, tags::INTEGER), nullptr);

    registerHostResources();

    addScalarLeaf(kSoftwareRoot + 1, new DataStringPacker(&SoftwareInfo::text, tags::OCTET_STRING),
                  softwareProvider);
    addScalarLeaf(kSoftwareRoot + 2, new DataRawPacker(&SoftwareInfo::stamp, tags::OCTET_STRING),
                  softwareProvider);
    addScalarLeaf(kSoftwareRoot + 3, new DataNumPacker(intMember(&SoftwareInfo::number), tags::INTEGER),
                  softwareProvider);
    addScalarConstStringLeaf(kSoftwareRoot + 4, getOSVersion(), tags::OCTET_STRING);
    addScalarLeaf(kSoftwareRoot + 5, new DataNumPacker(intMember(&SoftwareInfo::counter), tags::INTEGER),
                  softwareProvider);
}
