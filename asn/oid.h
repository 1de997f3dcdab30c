// Object identifiers: a sequence of unsigned 32-bit arcs.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

class OID {
public:
    OID() = default;
    OID(std::string const& text);  // dotted text, ".1.3.6" or "1.3.6"; never fails
    OID(char const* text) : OID(std::string(text)) {}
    OID(std::vector<uint32_t> arcs) : arcs_(std::move(arcs)) {}
    OID(std::initializer_list<uint32_t> arcs) : arcs_(arcs) {}

    std::string str() const;  // ".1.3.6.1"; empty OID gives ""

    OID& operator+=(unsigned int arc);
    OID& operator+=(OID const& other);
    OID operator+(OID const& other) const;
    OID operator+(unsigned int arc) const;

    bool operator==(OID const& o) const { return arcs_ == o.arcs_; }
    bool operator!=(OID const& o) const { return arcs_ != o.arcs_; }
    bool operator<(OID const& o) const;  // the registry order

    // Index codecs (as: whole OID is the value; pop: take from the front).
    bool asUnsigned(unsigned int* out);
    bool asIP(unsigned int* out);
    bool asString(unsigned int n, std::string* out);
    bool asString(std::string* out);
    bool asOID(unsigned int n, OID* out);
    bool asOID(OID* out);
    bool popOID(unsigned int n, OID* out);
    bool popOID(OID* out);
    bool popString(OID* out);
    bool popString(unsigned int n, OID* out);
    bool popIP(OID* out);
    bool popUnsigned(OID* out);

    size_t size() const { return arcs_.size(); }
    bool empty() const { return arcs_.empty(); }
    uint32_t operator[](size_t i) const { return arcs_[i]; }
    uint32_t& operator[](size_t i) { return arcs_[i]; }
    const std::vector<uint32_t>& arcs() const { return arcs_; }
    std::vector<uint32_t>& arcs() { return arcs_; }
    void clear() { arcs_.clear(); }

private:
    std::vector<uint32_t> arcs_;
};

std::ostream& operator<<(std::ostream& os, OID const& oid);

template <class T>
struct tree_node_comp;

// Strict lexicographic order over unsigned arcs; a prefix sorts first.
template <>
struct tree_node_comp<OID> {
    bool operator()(OID const& a, OID const& b) const;
};

extern OID ZERO_OID;  // the one-arc OID 0
