// The MIB registry: registered object OIDs mapped to the leaves that answer
// for the instances below them.
#pragma once

#include <map>
#include <string>

#include "asn/oid.h"

class Context;
class Packer;
class DataProvider;
class Table;

// A registered object. get/getNext/set answer nonzero when they wrote the
// reply varbind, 0 for no such object or instance.
class Leaf {
public:
    virtual unsigned int get(Context& ctx) = 0;
    virtual unsigned int getNext(Context& ctx) = 0;
    virtual unsigned int set(Context& ctx) = 0;
    virtual ~Leaf();
};

// A scalar: its only instance is the registered OID followed by 0. Without a
// provider the record is null, which only constant packers can serve.
class ScalarLeaf : public Leaf {
public:
    ScalarLeaf(Packer* packer, DataProvider* provider);
    unsigned int get(Context& ctx) override;
    unsigned int getNext(Context& ctx) override;
    unsigned int set(Context& ctx) override;

    Packer* packer;
    DataProvider* provider;

private:
    unsigned int answer(Context& ctx);
};

// A table column: instances are the column OID followed by a row index.
class ColumnarLeaf : public Leaf {
public:
    ColumnarLeaf(Packer* packer, Table* table);
    unsigned int get(Context& ctx) override;
    unsigned int getNext(Context& ctx) override;
    unsigned int set(Context& ctx) override;

    Packer* packer;
    Table* table;
};

typedef std::map<OID, Leaf*, tree_node_comp<OID>> LeafMap;
// Never cleared; entries are never removed. Registering an OID again
// replaces its leaf (the last registration wins). The map is never
// destroyed either: the framework stays reachable until the process is gone.
extern LeafMap& leafs;

void addLeaf(OID const& oid, Leaf* leaf);
void addScalarLeaf(OID const& oid, Packer* packer, DataProvider* provider);
void addColumnarLeaf(OID const& oid, Packer* packer, Table* table);
void addScalarConstNumLeaf(OID const& oid, int value, unsigned int tag);
void addScalarConstOIDLeaf(OID const& oid, OID const& value, unsigned int tag);
void addScalarConstStringLeaf(OID const& oid, std::string const& value, unsigned int tag);
