// Table refresh and walk costs: a GetAllProvider listing N route objects in
// pages from an in-process bus handler into a MapTable with four address
// indexes, then GetNext steps over the cached rows.
//
//   bench_tables [rows] [rounds]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

#include "mib/packer.h"
#include "mib/providers.h"
#include "mib/tables.h"
#include "tn/handler.h"
#include "tn/looper.h"

namespace {
unsigned long long allocations = 0;
}

#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t n) {
    ++allocations;
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

const uint32_t kObjects = 0xa8fe0002, kCont = 0xfe0003;
const uint32_t kDest = 0xfe0030, kMask = 0xfe0031, kHop = 0xfe0032, kMetric = 0xfe0034;
const unsigned kPage = 100;

struct Route : Data {
    unsigned int dest = 0, mask = 0, hop = 0, tos = 0;
    int metric = 0;
};

void collect(tn::message const& m, std::vector<Data*>* out) {
    Route* r = new Route;
    r->dest = m.get(tn::be32_id(kDest));
    r->mask = m.get(tn::be32_id(kMask));
    r->hop = m.get(tn::be32_id(kHop));
    r->metric = int(m.get(tn::u32_id(kMetric)));
    out->push_back(r);
}

class Routes : public tn::Handler {
public:
    std::vector<tn::flat_message> objects;
    tn::message handle(const tn::message& req) override {
        size_t at = req.get(tn::u32_id(kCont), 0);
        size_t end = std::min(objects.size(), at + kPage);
        tn::message r;
        r.insert(tn::message_array_id(kObjects),
                 std::vector<tn::flat_message>(objects.begin() + long(at), objects.begin() + long(end)));
        if (end < objects.size()) r.insert(tn::u32_id(kCont), uint32_t(end));
        return r;
    }
};

double since(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

}  // namespace

int main(int argc, char** argv) {
    unsigned rows = argc > 1 ? unsigned(std::atoi(argv[1])) : 2000;
    unsigned rounds = argc > 2 ? unsigned(std::atoi(argv[2])) : 20;

    tn::Looper looper;
    tn::setLooper(&looper);
    tn::setRunner(&looper);
    Routes handler;
    looper.addHandler(tn::u32_vector{40, 3}, &handler);
    for (unsigned i = 0; i < rows; ++i) {
        tn::message m;
        m.insert(tn::be32_id(kDest), 0x0A000000u + (i << 8));
        m.insert(tn::be32_id(kMask), 0xFFFFFF00u);
        m.insert(tn::be32_id(kHop), 0xC0A80001u + (i % 7));
        m.insert(tn::u32_id(kMetric), i % 16);
        handler.objects.emplace_back(m);
    }

    GetAllProvider provider;
    provider.addSource(collect, {40, 3});
    provider.setTimeouts(0xFFFFFFF, 0xFFFFFFF);  // no expiry while the walk is timed
    MapTable table(&provider);
    DataIPPacker dest(&Route::dest, 0x40), mask(&Route::mask, 0x40), hop(&Route::hop, 0x40), tos(&Route::tos, 0x40);
    table.addIndex(&dest);
    table.addIndex(&mask);
    table.addIndex(&tos);
    table.addIndex(&hop);

    auto t0 = std::chrono::steady_clock::now();
    unsigned long long a0 = allocations;
    for (unsigned r = 0; r < rounds; ++r) {
        provider.invalidateData();
        provider.updateTables();
    }
    double refresh = since(t0) / rounds;
    unsigned long long refreshAllocs = (allocations - a0) / rounds;
    if (table.count() != rows) {
        std::fprintf(stderr, "bench_tables: expected %u rows, table holds %u\n", rows, table.count());
        return 1;
    }

    // The walk, once with the real tick clock (one times() call per access)
    // and once with a stub clock, to separate the clock from the lookup.
    double walk[2];
    unsigned long long walkAllocs = 0, steps = 0;
    for (int pass = 0; pass < 2; ++pass) {
        cacheClock = pass == 0 ? cacheClockTimes : [] { return uint32_t(1); };
        t0 = std::chrono::steady_clock::now();
        a0 = allocations;
        steps = 0;
        for (unsigned r = 0; r < rounds; ++r) {
            OID at;
            for (;;) {
                std::pair<OID, Data*> next = table.getNext(at);
                if (!next.second) break;
                at = std::move(next.first);
                ++steps;
            }
        }
        walk[pass] = since(t0);
        walkAllocs = allocations - a0;
    }
    cacheClock = cacheClockTimes;

    std::printf("rows %u, pages of %u, %u rounds\n", rows, kPage, rounds);
    std::printf("refresh: %.3f ms (%.2f us/row), %llu allocations (%.1f/row)\n", refresh * 1e3, refresh * 1e6 / rows,
                refreshAllocs, double(refreshAllocs) / rows);
    std::printf("getNext: %.0f ns/step (%.0f ns with a stub clock), %.2f allocations/step over %llu steps\n",
                walk[0] * 1e9 / double(steps), walk[1] * 1e9 / double(steps), double(walkAllocs) / double(steps),
                steps);
    provider.invalidateData();
    tn::setRunner(nullptr);
    tn::setLooper(nullptr);
    return 0;
}
