// Records and the abstract sources of records: providers and tables.
#pragma once

#include <utility>

#include "asn/oid.h"
#include "tn/message.h"

// The base of every managed record (a scalar group or one table row).
class Data {
public:
    virtual ~Data();
    // Renders the record's settable fields into a bus set message.
    virtual void reverseBuild(tn::message& msg);
};

class DataProvider {
public:
    virtual Data* get() = 0;
    virtual unsigned int set(Data* d) = 0;
    virtual ~DataProvider();
};

class TableProviderClient;

class TableProvider {
public:
    virtual unsigned int setData(Data* d) = 0;
    virtual void subscribe(TableProviderClient* client) = 0;
    virtual void updateTables() = 0;
    virtual bool getCountCMD(unsigned int& n);  // false: cannot count by command
    virtual ~TableProvider();
};

class TableProviderClient {
public:
    virtual void clear() = 0;
    virtual void change(Data* d) = 0;
    virtual void remove(Data* d) = 0;
    virtual ~TableProviderClient();
};

class Table {
public:
    virtual Data* get(OID const& index) = 0;
    virtual std::pair<OID, Data*> getNext(OID const& index) = 0;
    virtual unsigned int set(OID const& index, Data* d) = 0;
    virtual unsigned int count() = 0;
    virtual ~Table();
};
