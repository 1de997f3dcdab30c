// Value codecs of the MIB: one value type, its BER tag, and where the value
// lives (a constant in the packer, or a member of a Data record).
//
// Data packers take a pointer to a member of any record class derived from
// Data; the record handed to them must be of that class.
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include "asn/oid.h"
#include "mib/data.h"

class Context;

class Packer {
public:
    explicit Packer(unsigned int tag) : tag(tag) {}
    // Writes the value, taken from the record, to ctx.out.
    virtual void pack(Context& ctx, Data const* d) = 0;
    // Reads a value from ctx.in (at the varbind's value) into the record;
    // a value that does not decode is silently not stored.
    virtual void unpack(Data* d, Context& ctx) = 0;
    // The value as index arcs.
    virtual OID getAsKey(Data const* d);
    // Takes this column's arcs from the front of index, stores the value and
    // returns the rest; an empty OID on failure, the record untouched.
    virtual OID setFromKey(Data* d, OID const& index);
    virtual ~Packer();

    unsigned int tag;
};

// ------------------------------------------------------------ type bases

class StringPacker : public Packer {
public:
    // keyLen 0: the index is length-prefixed; n > 0: exactly n arcs.
    StringPacker(unsigned int tag, unsigned int keyLen) : Packer(tag), keyLen(keyLen) {}
    void pack(Context& ctx, Data const* d) override;
    void unpack(Data* d, Context& ctx) override;
    OID getAsKey(Data const* d) override;
    OID setFromKey(Data* d, OID const& index) override;
    virtual std::string get(Data const* d) = 0;
    virtual void set(Data* d, std::string const& v) = 0;

    unsigned int keyLen;
};

// Counter32, Gauge32 and TimeTicks go through the signed encoder too: a value
// with the top bit set leaves as the negative number it reads as.
class NumPacker : public Packer {
public:
    explicit NumPacker(unsigned int tag) : Packer(tag) {}
    void pack(Context& ctx, Data const* d) override;
    void unpack(Data* d, Context& ctx) override;
    OID getAsKey(Data const* d) override;
    OID setFromKey(Data* d, OID const& index) override;
    virtual int get(Data const* d) = 0;
    virtual void set(Data* d, int v) = 0;
};

// Counter64; has no index form.
class BignumPacker : public Packer {
public:
    explicit BignumPacker(unsigned int tag) : Packer(tag) {}
    void pack(Context& ctx, Data const* d) override;
    void unpack(Data* d, Context& ctx) override;
    virtual unsigned long long get(Data const* d) = 0;
    virtual void set(Data* d, unsigned long long v) = 0;
};

// Index form: the arc count, then the arcs.
class OIDPacker : public Packer {
public:
    explicit OIDPacker(unsigned int tag) : Packer(tag) {}
    void pack(Context& ctx, Data const* d) override;
    void unpack(Data* d, Context& ctx) override;
    OID getAsKey(Data const* d) override;
    OID setFromKey(Data* d, OID const& index) override;
    virtual OID get(Data const* d) = 0;
    virtual void set(Data* d, OID const& v) = 0;
};

// An IPv4 address with the first octet in the most significant byte.
class IPPacker : public Packer {
public:
    explicit IPPacker(unsigned int tag) : Packer(tag) {}
    void pack(Context& ctx, Data const* d) override;
    void unpack(Data* d, Context& ctx) override;
    OID getAsKey(Data const* d) override;
    OID setFromKey(Data* d, OID const& index) override;
    virtual unsigned int get(Data const* d) = 0;
    virtual void set(Data* d, unsigned int v) = 0;
};

// ------------------------------------------------------------ storage

namespace packer_detail {
template <class T, class D>
T Data::*toBase(T D::*m) {
    static_assert(std::is_base_of<Data, D>::value, "the member must belong to a record derived from Data");
    return static_cast<T Data::*>(m);
}
}  // namespace packer_detail

class ConstStringPacker : public StringPacker {
public:
    ConstStringPacker(std::string const& value, unsigned int tag, unsigned int keyLen = 0)
        : StringPacker(tag, keyLen), value(value) {}
    std::string get(Data const*) override { return value; }
    void set(Data*, std::string const&) override {}

    std::string value;
};

class DataStringPacker : public StringPacker {
public:
    DataStringPacker(std::string Data::*member, unsigned int tag, unsigned int keyLen = 0)
        : StringPacker(tag, keyLen), member(member) {}
    template <class D>
    DataStringPacker(std::string D::*member, unsigned int tag, unsigned int keyLen = 0)
        : DataStringPacker(packer_detail::toBase(member), tag, keyLen) {}
    std::string get(Data const* d) override;
    void set(Data* d, std::string const& v) override;

    std::string Data::*member;
};

class DataRawPacker : public StringPacker {
public:
    DataRawPacker(std::vector<unsigned char> Data::*member, unsigned int tag, unsigned int keyLen = 0)
        : StringPacker(tag, keyLen), member(member) {}
    template <class D>
    DataRawPacker(std::vector<unsigned char> D::*member, unsigned int tag, unsigned int keyLen = 0)
        : DataRawPacker(packer_detail::toBase(member), tag, keyLen) {}
    std::string get(Data const* d) override;
    void set(Data* d, std::string const& v) override;

    std::vector<unsigned char> Data::*member;
};

class ConstNumPacker : public NumPacker {
public:
    ConstNumPacker(int value, unsigned int tag) : NumPacker(tag), value(value) {}
    int get(Data const*) override { return value; }
    void set(Data*, int) override {}

    int value;
};

class DataNumPacker : public NumPacker {
public:
    DataNumPacker(int Data::*member, unsigned int tag) : NumPacker(tag), member(member) {}
    template <class D>
    DataNumPacker(int D::*member, unsigned int tag) : DataNumPacker(packer_detail::toBase(member), tag) {}
    int get(Data const* d) override;
    void set(Data* d, int v) override;

    int Data::*member;
};

class ConstBignumPacker : public BignumPacker {
public:
    ConstBignumPacker(unsigned long long value, unsigned int tag) : BignumPacker(tag), value(value) {}
    unsigned long long get(Data const*) override { return value; }
    void set(Data*, unsigned long long) override {}

    unsigned long long value;
};

class DataBignumPacker : public BignumPacker {
public:
    DataBignumPacker(unsigned long long Data::*member, unsigned int tag) : BignumPacker(tag), member(member) {}
    template <class D>
    DataBignumPacker(unsigned long long D::*member, unsigned int tag)
        : DataBignumPacker(packer_detail::toBase(member), tag) {}
    unsigned long long get(Data const* d) override;
    void set(Data* d, unsigned long long v) override;

    unsigned long long Data::*member;
};

class ConstOIDPacker : public OIDPacker {
public:
    ConstOIDPacker(OID const& value, unsigned int tag) : OIDPacker(tag), value(value) {}
    OID get(Data const*) override { return value; }
    void set(Data*, OID const&) override {}

    OID value;
};

class DataOIDPacker : public OIDPacker {
public:
    DataOIDPacker(OID Data::*member, unsigned int tag) : OIDPacker(tag), member(member) {}
    template <class D>
    DataOIDPacker(OID D::*member, unsigned int tag) : DataOIDPacker(packer_detail::toBase(member), tag) {}
    OID get(Data const* d) override;
    void set(Data* d, OID const& v) override;

    OID Data::*member;
};

class ConstIPPacker : public IPPacker {
public:
    ConstIPPacker(unsigned int address, unsigned int tag) : IPPacker(tag), value(address) {}
    unsigned int get(Data const*) override { return value; }
    void set(Data*, unsigned int) override {}

    unsigned int value;
};

class DataIPPacker : public IPPacker {
public:
    DataIPPacker(unsigned int Data::*member, unsigned int tag) : IPPacker(tag), member(member) {}
    template <class D>
    DataIPPacker(unsigned int D::*member, unsigned int tag) : DataIPPacker(packer_detail::toBase(member), tag) {}
    unsigned int get(Data const* d) override;
    void set(Data* d, unsigned int v) override;

    unsigned int Data::*member;
};
