// Data providers: where managed records come from.
//
// The bus providers fetch records from the platform's handlers through the
// process's looper, turn each reply object into a record with a factory
// that the module supplies, and keep the result under CacheUpdateTimeout.
#pragma once

#include <vector>

#include "mib/cache.h"
#include "mib/data.h"
#include "tn/message.h"

// Time-out of every bus request made by a provider, in milliseconds.
constexpr int kProviderBusTimeoutMs = 6000;

// One record, fetched by getData() and cached until the policy drops it.
class SingleProvider : public DataProvider, public CacheUpdateTimeout {
public:
    SingleProvider();

    Data* get() override;
    unsigned int set(Data* d) override;
    ~SingleProvider() override;
    void clearCache() override;
    void updateCache() override;
    virtual Data* getData() = 0;
    virtual unsigned int setData(Data* d) = 0;

protected:
    Data* cached = nullptr;
};

// A scalar group read with one get command and written with one set command.
class GetProvider : public SingleProvider {
public:
    typedef Data* (*Factory)(tn::message const&);

    GetProvider(Factory factory, std::vector<unsigned int> const& path, unsigned int getCmd, unsigned int setCmd);

    ~GetProvider() override;
    Data* getData() override;
    unsigned int setData(Data* d) override;

protected:
    std::vector<unsigned int> path;
    unsigned int getCmd;
    unsigned int setCmd;
    Factory factory;
};

// The first object of a listing that the factory accepts (read-only).
class GetFirstProvider : public SingleProvider {
public:
    typedef Data* (*Factory)(tn::message const&);
    static constexpr unsigned int kNoObject = 0xFFFFFFFFu;

    GetFirstProvider(Factory factory, std::vector<unsigned int> const& path);

    ~GetFirstProvider() override;
    Data* getData() override;
    unsigned int setData(Data* d) override;

    // The bus object id of the record served, kNoObject when there is none.
    unsigned int getFirstObjId();

protected:
    std::vector<unsigned int> path;
    Factory factory;
    unsigned int firstObjId = kNoObject;
};

// Every object of one or more listings, pushed into subscribed tables.
class GetAllProvider : public TableProvider, public CacheUpdateTimeout {
public:
    typedef void (*Collect)(tn::message const&, std::vector<Data*>*);

    struct Source {
        std::vector<unsigned int> path;
        Collect collect;
        unsigned int selector;
    };

    GetAllProvider();

    unsigned int setData(Data* d) override;
    void subscribe(TableProviderClient* client) override;
    void updateTables() override;
    bool getCountCMD(unsigned int& n) override;
    ~GetAllProvider() override;
    void clearCache() override;
    void updateCache() override;

    void addSource(Collect collect, std::vector<unsigned int> const& path);
    void addSource(Collect collect, std::vector<unsigned int> const& path, unsigned int selector);

protected:
    std::vector<Data*> records;  // owned; deleted by clearCache
    std::vector<TableProviderClient*> clients;
    std::vector<Source> sources;
};

// The row count of a table, as a scalar record (never cached).
class CountProvider : public DataProvider {
public:
    class CountData : public Data {
    public:
        // Held as int so that a DataNumPacker (Gauge32, Integer) can serve it.
        int count = 0;
    };

    explicit CountProvider(Table* table);

    Data* get() override;
    unsigned int set(Data* d) override;
    ~CountProvider() override;

protected:
    Table* table;
    CountData data;
};

// A record that a function supplies on every read; the function keeps it alive.
class ProxyDataProvider : public DataProvider {
public:
    typedef Data* (*Function)();

    explicit ProxyDataProvider(Function fn);

    Data* get() override;
    unsigned int set(Data* d) override;
    ~ProxyDataProvider() override;

protected:
    Function fn;
};

// Sends a request on the process's looper and returns the reply (an error
// reply when there is no looper).
tn::message providerExchange(tn::message& request);
