#include "mib/providers.h"

#include <iostream>

#include "tn/looper.h"

namespace {

constexpr uint32_t kCmdList = 0xfe0004;
constexpr uint32_t kCmdSetObj = 0xfe0003;
constexpr uint32_t kCmdCount = 0xfe0015;
constexpr uint32_t kFieldCommand = 0xff0007;
constexpr uint32_t kFieldPath = 0x88ff0001;
constexpr uint32_t kFieldObjects = 0xa8fe0002;
constexpr uint32_t kFieldContinuation = 0xfe0003;
constexpr uint32_t kFieldSelector = 0xfe000c;
constexpr uint32_t kFieldObjId = 0xfe0001;
constexpr uint32_t kFieldTotal = 0xfe0014;

tn::message makeRequest(uint32_t cmd, std::vector<unsigned int> const& path) {
    tn::message m;
    m.insert(tn::u32_id(kFieldCommand), cmd);
    m.insert_u32_array(tn::u32_array_id(kFieldPath), path);
    return m;
}

// Walks a listing across its continued replies, handing each object to
// `visit` until it returns false. Returns false when a reply was an error.
template <class Visit>
bool walkListing(tn::message const& request, Visit visit) {
    bool more = false;
    uint32_t continuation = 0;
    do {
        tn::message req(request);
        if (more) req.insert(tn::u32_id(kFieldContinuation), continuation);
        tn::message reply = providerExchange(req);
        if (tn::isError(reply)) return false;
        if (const std::vector<tn::flat_message>* objs = reply.get_flat(tn::message_array_id(kFieldObjects))) {
            for (tn::flat_message const& f : *objs) {
                if (!visit(tn::message(f))) return true;
            }
        }
        more = reply.has(tn::u32_id(kFieldContinuation));
        continuation = reply.get(tn::u32_id(kFieldContinuation));
    } while (more);
    return true;
}

}  // namespace

tn::message providerExchange(tn::message& request) {
    tn::Looper* looper = tn::getLooper();
    if (!looper) return tn::errorMsg(tn::ERR_DISCONNECTED, "no bus connection");
    return looper->exchangeMessage(request, kProviderBusTimeoutMs);
}

// ---- SingleProvider

SingleProvider::SingleProvider() : CacheUpdateTimeout(25, 200) {}

SingleProvider::~SingleProvider() { delete cached; }

Data* SingleProvider::get() {
    accessData();
    return cached;
}

unsigned int SingleProvider::set(Data* d) { return setData(d); }

void SingleProvider::clearCache() {
    delete cached;
    cached = nullptr;
}

void SingleProvider::updateCache() {
    // The policy only fetches into an empty cache; drop anything left over
    // from an explicit fill all the same rather than leak it.
    Data* fresh = getData();
    if (fresh != cached) delete cached;
    cached = fresh;
}

// ---- GetProvider

GetProvider::GetProvider(Factory factory_, std::vector<unsigned int> const& path_, unsigned int getCmd_,
                         unsigned int setCmd_)
    : path(path_), getCmd(getCmd_), setCmd(setCmd_), factory(factory_) {}

GetProvider::~GetProvider() {}

Data* GetProvider::getData() {
    tn::message req = makeRequest(getCmd, path);
    tn::message reply = providerExchange(req);
    if (tn::isError(reply)) {
        std::cerr << "GetProvider::getData error: " << tn::getError(reply) << std::endl;
        // The object still answers, with what the factory makes of nothing.
        return factory(tn::message());
    }
    return factory(reply);
}

unsigned int GetProvider::setData(Data* d) {
    tn::message req = makeRequest(setCmd, path);
    d->reverseBuild(req);
    tn::message reply = providerExchange(req);
    return tn::isError(reply) ? 0 : 1;
}

// ---- GetFirstProvider

GetFirstProvider::GetFirstProvider(Factory factory_, std::vector<unsigned int> const& path_)
    : path(path_), factory(factory_) {}

GetFirstProvider::~GetFirstProvider() {}

Data* GetFirstProvider::getData() {
    firstObjId = kNoObject;
    Data* found = nullptr;
    walkListing(makeRequest(kCmdList, path), [&](tn::message const& obj) {
        found = factory(obj);
        if (!found) return true;
        firstObjId = obj.get(tn::u32_id(kFieldObjId), kNoObject);
        return false;
    });
    return found;
}

unsigned int GetFirstProvider::setData(Data*) { return 0; }

unsigned int GetFirstProvider::getFirstObjId() {
    accessData();
    return firstObjId;
}

// ---- GetAllProvider

GetAllProvider::GetAllProvider() : CacheUpdateTimeout(25, 200) {}

GetAllProvider::~GetAllProvider() {}

void GetAllProvider::addSource(Collect collect, std::vector<unsigned int> const& path) { addSource(collect, path, 5); }

void GetAllProvider::addSource(Collect collect, std::vector<unsigned int> const& path, unsigned int selector) {
    sources.push_back(Source{path, collect, selector});
}

void GetAllProvider::subscribe(TableProviderClient* client) { clients.push_back(client); }

void GetAllProvider::updateTables() { accessData(); }

void GetAllProvider::updateCache() {
    for (Source const& src : sources) {
        tn::message req = makeRequest(kCmdList, src.path);
        req.insert(tn::u32_id(kFieldSelector), src.selector);
        // A failing listing keeps what it delivered before the error.
        walkListing(req, [&](tn::message const& obj) {
            src.collect(obj, &records);
            return true;
        });
        for (TableProviderClient* c : clients)
            for (Data* d : records) c->change(d);
    }
}

void GetAllProvider::clearCache() {
    for (TableProviderClient* c : clients) c->clear();
    for (Data* d : records) delete d;
    records.clear();
}

unsigned int GetAllProvider::setData(Data* d) {
    unsigned int accepted = 0;
    for (Source const& src : sources) {
        tn::message req = makeRequest(kCmdSetObj, src.path);
        d->reverseBuild(req);
        tn::message reply = providerExchange(req);
        if (tn::isError(reply))
            std::cerr << tn::getError(reply) << std::endl;
        else
            accepted = 1;
    }
    return accepted;
}

bool GetAllProvider::getCountCMD(unsigned int& n) {
    n = 0;
    for (Source const& src : sources) {
        tn::message req = makeRequest(kCmdCount, src.path);
        tn::message reply = providerExchange(req);
        if (tn::isError(reply) || !reply.has(tn::u32_id(kFieldTotal))) return false;
        n += reply.get(tn::u32_id(kFieldTotal));
    }
    return true;
}

// ---- CountProvider

CountProvider::CountProvider(Table* table_) : table(table_) {}

CountProvider::~CountProvider() {}

Data* CountProvider::get() {
    data.count = static_cast<int>(table->count());
    return &data;
}

unsigned int CountProvider::set(Data*) { return 0; }

// ---- ProxyDataProvider

ProxyDataProvider::ProxyDataProvider(Function fn_) : fn(fn_) {}

ProxyDataProvider::~ProxyDataProvider() {}

Data* ProxyDataProvider::get() { return fn(); }

unsigned int ProxyDataProvider::set(Data*) { return 0; }
