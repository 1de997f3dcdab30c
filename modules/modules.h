// The built-in MIB modules, registered once at start-up in this order:
// system (with the host table and host resources), IP, bridge, interfaces,
// health.
#pragma once

#include "asn/oid.h"

void registerSystemModule();
void registerIpModule();
void registerBridgeModule(OID const& root);
void registerInterfacesModule();
void registerHealthModule();
