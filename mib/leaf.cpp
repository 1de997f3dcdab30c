#include "mib/leaf.h"

#include "mib/data.h"
#include "mib/packer.h"
#include "request/context.h"

namespace {
// Built on first use, so that registration works from any initialiser.
LeafMap& registry() {
    static LeafMap* map = new LeafMap;
    return *map;
}
}  // namespace

LeafMap& leafs = registry();

Leaf::~Leaf() {}

// ------------------------------------------------------------ ScalarLeaf

ScalarLeaf::ScalarLeaf(Packer* packer, DataProvider* provider) : packer(packer), provider(provider) {}

unsigned int ScalarLeaf::answer(Context& ctx) {
    Data* d = nullptr;
    if (provider) {
        d = provider->get();
        if (!d)
            return 0;
    }
    ctx.objectName += 0u;
    ctx.out.addOID(ctx.objectName, 6);
    packer->pack(ctx, d);
    return 1;
}

unsigned int ScalarLeaf::get(Context& ctx) {
    if (ctx.oid != ZERO_OID)
        return 0;
    return answer(ctx);
}

unsigned int ScalarLeaf::getNext(Context& ctx) {
    if (!ctx.oid.empty())
        return 0;
    return answer(ctx);
}

// Neither the instance arcs, nor whether the value decoded, nor whether the
// provider stored it is looked at: the reply shows the record as it stands.
unsigned int ScalarLeaf::set(Context& ctx) {
    Data* d = nullptr;
    if (provider) {
        d = provider->get();
        if (!d)
            return 0;
        packer->unpack(d, ctx);
        provider->set(d);
    }
    ctx.out.addOID(ctx.oid, 6);
    packer->pack(ctx, d);
    return 1;
}

// ------------------------------------------------------------ ColumnarLeaf

ColumnarLeaf::ColumnarLeaf(Packer* packer, Table* table) : packer(packer), table(table) {}

unsigned int ColumnarLeaf::get(Context& ctx) {
    if (ctx.oid.empty())
        return 0;
    Data* d = table->get(ctx.oid);
    if (!d)
        return 0;
    ctx.objectName += ctx.oid;
    ctx.out.addOID(ctx.objectName, 6);
    packer->pack(ctx, d);
    return 1;
}

unsigned int ColumnarLeaf::getNext(Context& ctx) {
    std::pair<OID, Data*> next = table->getNext(ctx.oid);
    if (!next.second)
        return 0;
    ctx.objectName += next.first;
    ctx.out.addOID(ctx.objectName, 6);
    packer->pack(ctx, next.second);
    return 1;
}

// Rows are never created by a set; the table's answer is not looked at.
unsigned int ColumnarLeaf::set(Context& ctx) {
    if (ctx.oid.empty())
        return 0;
    Data* d = table->get(ctx.setIndex);
    if (!d)
        return 0;
    packer->unpack(d, ctx);
    table->set(ctx.setIndex, d);
    // The name is the (empty) object name followed by the requested name.
    if (ctx.objectName.empty()) {
        ctx.out.addOID(ctx.oid, 6);
    } else {
        ctx.out.addOID(ctx.objectName + ctx.oid, 6);
    }
    packer->pack(ctx, d);
    return 1;
}

// ------------------------------------------------------------ registration

void addLeaf(OID const& oid, Leaf* leaf) {
    LeafMap& map = registry();
    LeafMap::iterator it = map.find(oid);
    if (it == map.end())
        it = map.emplace(oid, nullptr).first;
    it->second = leaf;
}

void addScalarLeaf(OID const& oid, Packer* packer, DataProvider* provider) {
    addLeaf(oid, new ScalarLeaf(packer, provider));
}

void addColumnarLeaf(OID const& oid, Packer* packer, Table* table) { addLeaf(oid, new ColumnarLeaf(packer, table)); }

void addScalarConstNumLeaf(OID const& oid, int value, unsigned int tag) {
    addLeaf(oid, new ScalarLeaf(new ConstNumPacker(value, tag), nullptr));
}

void addScalarConstOIDLeaf(OID const& oid, OID const& value, unsigned int tag) {
    addLeaf(oid, new ScalarLeaf(new ConstOIDPacker(value, tag), nullptr));
}

void addScalarConstStringLeaf(OID const& oid, std::string const& value, unsigned int tag) {
    addLeaf(oid, new ScalarLeaf(new ConstStringPacker(value, tag, 0), nullptr));
}
