#include <cstdlib>
#include <ctime>
#include <iostream>

#include "agent/backend.h"
#include "agent/community_keep.h"
#include "agent/options.h"
#include "agent/plugins.h"
#include "agent/snmp_looper.h"
#include "agent/traps.h"
#include "modules/modules.h"

int main(int argc, char** argv) {
    std::string err;
    bool help = false;
    if (!agentOptions.parse(argc, argv, &err, &help)) {
        std::cerr << err << (help ? "" : "\n" + AgentOptions::usage());
        return help ? 0 : 2;
    }

    std::cerr << "loop = new SnmpLooper();" << std::endl;
    srand(unsigned(time(0)));
    loop = new SnmpLooper();
    // Running with lost settings or users would be worse than not running.
    if (!loop->store.ok()) {
        std::cerr << "cannot open settings store: " << loop->store.error() << std::endl;
        return 1;
    }
    if (!communityKeep->storeOk()) {
        std::cerr << "cannot open community store: " << communityKeep->storeError() << std::endl;
        return 1;
    }
    if (!startControlSocket(*loop, &err) || !startBackend(*loop, &err)) {
        std::cerr << err << std::endl;
        return 1;
    }

    std::cerr << "loop->init();" << std::endl;
    loop->init();

    registerSystemModule();
    registerIpModule();
    registerBridgeModule(OID("1.3.6.1.2.1.17"));
    registerInterfacesModule();
    registerHealthModule();

    loadPlugins(agentOptions.pluginDir);
    trapMakers.push_back(kestrelTrapMaker);
    loop->startSubscribers();
    tn::addTimer(loop, &SnmpLooper::startup, 0);

    tn::message ready;
    ready.insert_u32_array(tn::u32_array_id(tn::F_PATH), tn::u32_vector{1});
    ready.insert(tn::u32_id(0x05), 0x22u);
    loop->sendCmd(3, ready);

    loop->run();
    return 0;
}
