#include "mib/packer.h"

#include <iostream>

#include "request/context.h"

Packer::~Packer() {}

OID Packer::getAsKey(Data const*) {
    std::cerr << "BUG: Packer::getAsKey called" << std::endl;
    return OID();
}

OID Packer::setFromKey(Data*, OID const&) {
    std::cerr << "BUG: Packer::setFromKey called" << std::endl;
    return OID();
}

// ------------------------------------------------------------ StringPacker

void StringPacker::pack(Context& ctx, Data const* d) { ctx.out.add(get(d), tag); }

void StringPacker::unpack(Data* d, Context& ctx) {
    std::string s;
    if (!ctx.in.getString(&s))
        return;
    std::cerr << "unpacked s = " << s << std::endl;
    set(d, s);
}

OID StringPacker::getAsKey(Data const* d) {
    std::string v = get(d);
    OID key;
    std::vector<uint32_t>& arcs = key.arcs();
    if (keyLen > 0) {
        if (v.size() != keyLen) {
            std::cerr << "inconsistent key length" << std::endl;
            return OID();
        }
        arcs.reserve(keyLen);
    } else {
        arcs.reserve(v.size() + 1);
        arcs.push_back(uint32_t(v.size()));
    }
    for (unsigned char c : v)
        arcs.push_back(c);
    return key;
}

OID StringPacker::setFromKey(Data* d, OID const& index) {
    OID rest(index), part;
    std::string v;
    bool ok = keyLen > 0 ? rest.popString(keyLen, &part) && part.asString(keyLen, &v)
                         : rest.popString(&part) && part.asString(&v);
    if (!ok)
        return OID();
    set(d, v);
    return rest;
}

// ------------------------------------------------------------ NumPacker

void NumPacker::pack(Context& ctx, Data const* d) { ctx.out.add(get(d), tag); }

void NumPacker::unpack(Data* d, Context& ctx) {
    int v;
    if (ctx.in.getInt(&v))
        set(d, v);
}

OID NumPacker::getAsKey(Data const* d) { return OID({uint32_t(get(d))}); }

OID NumPacker::setFromKey(Data* d, OID const& index) {
    OID rest(index), part;
    unsigned int v;
    if (!rest.popUnsigned(&part) || !part.asUnsigned(&v))
        return OID();
    set(d, int(v));
    return rest;
}

// ------------------------------------------------------------ BignumPacker

void BignumPacker::pack(Context& ctx, Data const* d) { ctx.out.add(get(d), tag); }

void BignumPacker::unpack(Data* d, Context& ctx) {
    unsigned long long v;
    if (ctx.in.get64(&v))
        set(d, v);
}

// ------------------------------------------------------------ OIDPacker

void OIDPacker::pack(Context& ctx, Data const* d) { ctx.out.addOID(get(d), tag); }

void OIDPacker::unpack(Data* d, Context& ctx) {
    OID v;
    if (ctx.in.getOID(&v))
        set(d, v);
}

OID OIDPacker::getAsKey(Data const* d) {
    OID v = get(d);
    OID key;
    key.arcs().reserve(v.size() + 1);
    key += unsigned(v.size());
    key += v;
    return key;
}

OID OIDPacker::setFromKey(Data* d, OID const& index) {
    OID rest(index), part, v;
    if (!rest.popOID(&part) || !part.asOID(&v))
        return OID();
    set(d, v);
    return rest;
}

// ------------------------------------------------------------ IPPacker

void IPPacker::pack(Context& ctx, Data const* d) {
    unsigned int a = get(d);
    unsigned char b[4] = {(unsigned char)(a >> 24), (unsigned char)(a >> 16), (unsigned char)(a >> 8),
                          (unsigned char)a};
    ctx.out.add(b, 4, tag);
}

void IPPacker::unpack(Data* d, Context& ctx) {
    std::string s;
    if (!ctx.in.getString(&s) || s.size() != 4)
        return;
    unsigned char const* b = reinterpret_cast<unsigned char const*>(s.data());
    set(d, (unsigned int)b[0] << 24 | (unsigned int)b[1] << 16 | (unsigned int)b[2] << 8 | b[3]);
}

OID IPPacker::getAsKey(Data const* d) {
    unsigned int a = get(d);
    return OID({a >> 24, (a >> 16) & 0xFF, (a >> 8) & 0xFF, a & 0xFF});
}

// The address comes back with the first arc in the least significant byte,
// the reverse of getAsKey; rows keyed by address rely on today's behaviour.
OID IPPacker::setFromKey(Data* d, OID const& index) {
    OID rest(index), part;
    unsigned int a;
    if (!rest.popIP(&part) || !part.asIP(&a))
        return OID();
    set(d, a);
    return rest;
}

// ------------------------------------------------------------ storage
// A data packer given no record (a misconfigured scalar without provider)
// reads as zero or empty and stores nothing.

std::string DataStringPacker::get(Data const* d) { return d ? d->*member : std::string(); }

void DataStringPacker::set(Data* d, std::string const& v) {
    if (d && &(d->*member) != &v)
        d->*member = v;
}

std::string DataRawPacker::get(Data const* d) {
    if (!d)
        return std::string();
    std::vector<unsigned char> const& b = d->*member;
    return std::string(b.begin(), b.end());
}

void DataRawPacker::set(Data* d, std::string const& v) {
    if (d)
        (d->*member).assign(v.begin(), v.end());
}

int DataNumPacker::get(Data const* d) { return d ? d->*member : 0; }
void DataNumPacker::set(Data* d, int v) {
    if (d)
        d->*member = v;
}

unsigned long long DataBignumPacker::get(Data const* d) { return d ? d->*member : 0; }
void DataBignumPacker::set(Data* d, unsigned long long v) {
    if (d)
        d->*member = v;
}

OID DataOIDPacker::get(Data const* d) { return d ? d->*member : OID(); }
void DataOIDPacker::set(Data* d, OID const& v) {
    if (d)
        d->*member = v;
}

unsigned int DataIPPacker::get(Data const* d) { return d ? d->*member : 0; }
void DataIPPacker::set(Data* d, unsigned int v) {
    if (d)
        d->*member = v;
}
