// The protocol operations: each serves the one variable binding whose name is
// in ctx.oid (the input positioned at its value) and writes the reply varbind's
// name and value. 0 = answered, otherwise the SNMP error status.
#pragma once

#include <cstddef>

#include "asn/oid.h"

class Context;

unsigned int snmpGet(Context& ctx);
unsigned int snmpGetNext(Context& ctx);
unsigned int snmpSet(Context& ctx);
unsigned int snmpGetBulk(Context& ctx);

// Compares the first n arcs of a (all of them when it has fewer) with b in
// registry order: -1, 0 or 1; 0 means b is exactly those first n arcs.
int oidCompareFirst(OID const& a, size_t n, OID const& b);
// out = the arcs of a from position n to its end.
void oidSuffix(OID const& a, size_t n, OID& out);
