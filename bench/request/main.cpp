// Request path throughput: createReply over prepared v2c datagrams against an
// in-memory registry, with the heap allocations per request counted.
//
//   bench_request [iterations]
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>

#include "agent/community_keep.h"
#include "mib/leaf.h"
#include "mib/packer.h"
#include "request/context.h"

namespace {
unsigned long long allocations = 0;
}

// Counting replacements of the global allocation functions.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t n) {
    ++allocations;
    if (void* p = std::malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

struct Row : Data {
    int index = 0;
    int counter = 0;
    std::string name;
};

struct Rows : Table {
    std::map<OID, Row*, tree_node_comp<OID>> rows;
    Data* get(OID const& i) override {
        auto it = rows.find(i);
        return it == rows.end() ? nullptr : it->second;
    }
    std::pair<OID, Data*> getNext(OID const& i) override {
        auto it = rows.upper_bound(i);
        if (it == rows.end())
            return {OID(), nullptr};
        return {it->first, it->second};
    }
    unsigned int set(OID const&, Data*) override { return 0; }
    unsigned int count() override { return unsigned(rows.size()); }
};

std::vector<unsigned char> request(unsigned pduTag, std::vector<OID> const& names) {
    OutStream o;
    o.startSeq(0x30);
    o.add(1, 2);
    o.add(std::string("public"), 4);
    o.startSeq(pduTag);
    o.add(4711, 2);
    o.add(0, 2);
    o.add(0, 2);
    o.startSeq(0x30);
    for (OID const& n : names) {
        o.startSeq(0x30);
        o.addOID(n, 6);
        o.addNull(5);
        o.endSeq();
    }
    o.endSeq();
    o.endSeq();
    o.endSeq();
    return o.data;
}

void run(char const* label, std::vector<unsigned char> const& dgram, long iterations) {
    size_t replyBytes = 0;
    unsigned long long before = allocations;
    auto t0 = std::chrono::steady_clock::now();
    for (long i = 0; i < iterations; ++i) {
        Context ctx(dgram.data(), unsigned(dgram.size()));
        if (createReply(ctx, 0x7F000001) != 1) {
            std::cerr << label << ": no reply" << std::endl;
            std::exit(1);
        }
        replyBytes = ctx.out.data.size();
    }
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf("%-34s %9.0f requests/s  %6.2f us/request  %5.1f allocations/request  reply %zu bytes\n", label,
                iterations / s, s * 1e6 / iterations, double(allocations - before) / iterations, replyBytes);
}

}  // namespace

int main(int argc, char** argv) {
    long iterations = argc > 1 ? std::atol(argv[1]) : 200000;
    char dir[] = "/tmp/kestrel-bench-XXXXXX";
    if (!mkdtemp(dir))
        return 1;
    communityKeep = new CommunityKeep(std::string(dir) + "/communities");
    CommunityKeep::Item* item = new CommunityKeep::Item;
    item->name = "public";
    item->readAccess = true;
    communityKeep->items().push_back(item);

    addScalarConstStringLeaf(OID("1.3.6.1.2.1.1.1"), "kestrel router agent", 4);
    addScalarConstNumLeaf(OID("1.3.6.1.2.1.1.3"), 123456, 0x43);
    Rows* table = new Rows;
    for (int i = 1; i <= 64; ++i) {
        Row* r = new Row;
        r->index = i;
        r->counter = i * 1000;
        r->name = "eth" + std::to_string(i);
        table->rows[OID({uint32_t(i)})] = r;
    }
    addColumnarLeaf(OID("1.3.6.1.2.1.2.2.1.1"), new DataNumPacker(&Row::index, 2), table);
    addColumnarLeaf(OID("1.3.6.1.2.1.2.2.1.2"), new DataStringPacker(&Row::name, 4), table);
    addColumnarLeaf(OID("1.3.6.1.2.1.2.2.1.10"), new DataNumPacker(&Row::counter, 0x41), table);

    run("get 1 scalar", request(0xA0, {OID("1.3.6.1.2.1.1.1.0")}), iterations);
    run("get 2 scalars", request(0xA0, {OID("1.3.6.1.2.1.1.1.0"), OID("1.3.6.1.2.1.1.3.0")}), iterations);
    run("getnext 3 columns", request(0xA1, {OID("1.3.6.1.2.1.2.2.1.1.7"), OID("1.3.6.1.2.1.2.2.1.2.7"),
                                            OID("1.3.6.1.2.1.2.2.1.10.7")}),
        iterations);
    run("getnext past a column end", request(0xA1, {OID("1.3.6.1.2.1.2.2.1.1.64")}), iterations);
    run("get unknown (noSuchName)", request(0xA0, {OID("1.3.6.1.2.1.1.2.0")}), iterations);

    std::string cmd = std::string("rm -rf '") + dir + "'";
    return std::system(cmd.c_str()) == 0 ? 0 : 1;
}
