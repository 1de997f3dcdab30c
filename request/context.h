// The state of one request, from the received datagram to the reply.
#pragma once

#include <cstdint>
#include <string>

#include "asn/oid.h"
#include "asn/stream.h"

class Context {
public:
    Context(unsigned char const* bytes, unsigned int length);

    OID oid;         // the varbind's name; the operations cut it down to the instance arcs
    OID searchOid;   // set: the prefix looked up in the registry
    OID setIndex;    // set: the arcs moved off the end of searchOid
    OID objectName;  // registered OID of the leaf being asked
    std::string community;  // community name, or the SNMPv3 user name
    InStream in;
    OutStream out;
    unsigned char missing = 0;
    int32_t nonRepeaters = 0;    // error-status of Get/GetNext/Set
    int32_t maxRepetitions = 0;  // error-index of Get/GetNext/Set
    int32_t v3Error = -1;        // usmStats counter index a report carries

    enum { V3_COUNTERS = 6 };
    static uint32_t v3counters[V3_COUNTERS];
};

// Error vocabulary for code that writes an error status into a reply
// directly; the request path itself reports by return value.
class AccessError {
public:
    virtual void apply(Context& ctx) const;
    virtual ~AccessError();
};

class InvalidOID : public AccessError {
public:
    void apply(Context& ctx) const override;
};

class MiscError : public AccessError {
public:
    void apply(Context& ctx) const override;
};

class PathNotExists : public AccessError {
public:
    void apply(Context& ctx) const override;
};

// Turns the datagram in ctx.in into a reply in ctx.out. `source` is the
// sender's IPv4 address with the first octet most significant (ntohl of
// sin_addr). Returns 1 when ctx.out holds a reply to send, 0 for none.
int createReply(Context& ctx, int source);

// The largest UDP payload over IPv4.
enum : unsigned int { MAX_REPLY = 65507 };
