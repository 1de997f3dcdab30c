// Tables: what column leaves ask for rows.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "asn/oid.h"
#include "mib/data.h"

class Packer;

// Rows delivered and kept current by a TableProvider, indexed by the values
// of the index columns. The provider owns the records.
class MapTable : public Table, public TableProviderClient {
public:
    explicit MapTable(TableProvider* provider);

    Data* get(OID const& index) override;
    std::pair<OID, Data*> getNext(OID const& index) override;
    unsigned int set(OID const& index, Data* d) override;
    unsigned int count() override;
    ~MapTable() override;
    // Index columns in the order of the MIB's INDEX clause.
    virtual void addIndex(Packer* p);
    virtual OID getKey(Data const* d) const;
    virtual void storeKey(Data* d, OID const& index) const;
    void clear() override;
    void change(Data* d) override;
    void remove(Data* d) override;

protected:
    std::map<OID, Data*, tree_node_comp<OID>> rows;
    std::vector<Packer*> indexes;
    TableProvider* provider;
};

// A fixed set of rows, each served by its own DataProvider.
class StaticMuxTable : public Table {
public:
    StaticMuxTable();

    Data* get(OID const& index) override;
    std::pair<OID, Data*> getNext(OID const& index) override;
    unsigned int set(OID const& index, Data* d) override;
    unsigned int count() override;
    ~StaticMuxTable() override;
    // Adds the row with this index, or replaces its provider.
    virtual void addProvider(OID const& index, DataProvider* p);

protected:
    std::map<OID, DataProvider*, tree_node_comp<OID>> providers;
};

// A read-only view pairing every row of another table with a companion
// record, for tables that augment another and share its index.
class AugmentProxyTable : public Table {
public:
    explicit AugmentProxyTable(Table* base);

    Data* get(OID const& index) override;
    std::pair<OID, Data*> getNext(OID const& index) override;
    unsigned int set(OID const& index, Data* d) override;
    unsigned int count() override;
    ~AugmentProxyTable() override;
    // The companion record of the base row `row` at `index`.
    virtual Data* augment(OID const& index, Data* row) = 0;

protected:
    Table* base;
};
