#include "mib/tables.h"

#include "mib/packer.h"

// ---- MapTable

MapTable::MapTable(TableProvider* provider_) : provider(provider_) { provider->subscribe(this); }

MapTable::~MapTable() {}

void MapTable::addIndex(Packer* p) { indexes.push_back(p); }

OID MapTable::getKey(Data const* d) const {
    OID key;
    for (Packer* p : indexes) key += p->getAsKey(d);
    return key;
}

void MapTable::storeKey(Data* d, OID const& index) const {
    OID rest(index);
    for (Packer* p : indexes) rest = p->setFromKey(d, rest);
}

Data* MapTable::get(OID const& index) {
    provider->updateTables();
    auto it = rows.find(index);
    return it == rows.end() ? nullptr : it->second;
}

std::pair<OID, Data*> MapTable::getNext(OID const& index) {
    provider->updateTables();
    auto it = rows.upper_bound(index);
    if (it == rows.end()) return {OID(), nullptr};
    return {it->first, it->second};
}

unsigned int MapTable::set(OID const&, Data* d) {
    // The record carries its own key fields; whether the platform took it
    // shows on the next refresh, not in this result.
    provider->setData(d);
    return 0;
}

unsigned int MapTable::count() {
    unsigned int n = 0;
    if (provider->getCountCMD(n)) return n;
    provider->updateTables();
    return static_cast<unsigned int>(rows.size());
}

void MapTable::clear() { rows.clear(); }

void MapTable::change(Data* d) { rows[getKey(d)] = d; }

void MapTable::remove(Data* d) { rows.erase(getKey(d)); }

// ---- StaticMuxTable

StaticMuxTable::StaticMuxTable() {}

StaticMuxTable::~StaticMuxTable() {}

void StaticMuxTable::addProvider(OID const& index, DataProvider* p) { providers[index] = p; }

Data* StaticMuxTable::get(OID const& index) {
    auto it = providers.find(index);
    return it == providers.end() ? nullptr : it->second->get();
}

std::pair<OID, Data*> StaticMuxTable::getNext(OID const& index) {
    auto it = providers.upper_bound(index);
    if (it == providers.end()) return {OID(), nullptr};
    // A row without a record ends the column here, even if later rows exist.
    return {it->first, it->second->get()};
}

unsigned int StaticMuxTable::set(OID const& index, Data* d) {
    auto it = providers.find(index);
    return it == providers.end() ? 0 : it->second->set(d);
}

unsigned int StaticMuxTable::count() { return static_cast<unsigned int>(providers.size()); }

// ---- AugmentProxyTable

AugmentProxyTable::AugmentProxyTable(Table* base_) : base(base_) {}

AugmentProxyTable::~AugmentProxyTable() {}

Data* AugmentProxyTable::get(OID const& index) {
    Data* row = base->get(index);
    return row ? augment(index, row) : nullptr;
}

std::pair<OID, Data*> AugmentProxyTable::getNext(OID const& index) {
    std::pair<OID, Data*> next = base->getNext(index);
    if (next.second) next.second = augment(next.first, next.second);
    return next;
}

unsigned int AugmentProxyTable::set(OID const&, Data*) { return 0; }

unsigned int AugmentProxyTable::count() { return base->count(); }
