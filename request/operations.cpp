#include "request/operations.h"

#include <algorithm>
#include <iostream>

#include "mib/leaf.h"
#include "request/context.h"

int oidCompareFirst(OID const& a, size_t n, OID const& b) {
    size_t na = std::min(n, a.size());
    size_t common = std::min(na, b.size());
    uint32_t const* pa = a.arcs().data();
    uint32_t const* pb = b.arcs().data();
    for (size_t i = 0; i < common; ++i) {
        if (pa[i] != pb[i])
            return pa[i] < pb[i] ? -1 : 1;
    }
    if (na == b.size())
        return 0;
    return na < b.size() ? -1 : 1;
}

void oidSuffix(OID const& a, size_t n, OID& out) {
    std::vector<uint32_t> const& src = a.arcs();
    if (n >= src.size())
        out.clear();
    else
        out.arcs().assign(src.begin() + std::ptrdiff_t(n), src.end());
}

namespace {

// The registered OID is a prefix of (or equal to) the name.
bool isPrefixOf(OID const& registered, OID const& name) {
    return registered.size() <= name.size() && oidCompareFirst(name, registered.size(), registered) == 0;
}

}  // namespace

unsigned int snmpGet(Context& ctx) {
    LeafMap::iterator it = leafs.upper_bound(ctx.oid);
    if (it == leafs.begin())
        return 2;
    --it;
    if (!isPrefixOf(it->first, ctx.oid) || !it->second)
        return 2;
    // Room for the instance arcs the leaf appends.
    ctx.objectName.arcs().reserve(ctx.oid.size());
    ctx.objectName = it->first;
    oidSuffix(ctx.oid, it->first.size(), ctx.oid);
    return it->second->get(ctx) ? 0 : 2;
}

// A leaf may register further leaves while it is asked (a provider fetch can
// add objects). std::map keeps iterators valid on insertion, and each step
// re-reads the successor of the current entry, so new entries behind it are
// visited and nothing is skipped.
unsigned int snmpGetNext(Context& ctx) {
    // The requested name is kept in a buffer reused from call to call; a
    // nested call (a leaf walking on its own) gets a fresh one.
    static OID scratch;
    static int depth = 0;
    OID local;
    OID& requested = depth == 0 ? scratch : local;
    struct Depth {
        Depth() { ++depth; }
        ~Depth() { --depth; }
    } nesting;
    requested = ctx.oid;
    size_t const room = requested.size() + 8;
    LeafMap::iterator it = leafs.upper_bound(requested);
    if (it != leafs.begin()) {
        LeafMap::iterator prev = std::prev(it);
        if (isPrefixOf(prev->first, requested))
            it = prev;
    }
    for (; it != leafs.end(); ++it) {
        OID const& registered = it->first;
        if (isPrefixOf(registered, requested))
            oidSuffix(requested, registered.size(), ctx.oid);
        else
            ctx.oid.clear();
        ctx.objectName.arcs().reserve(std::max(room, registered.size() + 8));
        ctx.objectName = registered;
        if (it->second && it->second->getNext(ctx))
            return 0;
    }
    return 2;
}

// Finds the longest registered prefix of the name. Arcs leave the end of
// searchOid one at a time; collecting them reversed and turning them round
// once keeps a long hostile name linear, and each lookup compares no further
// than the registered OIDs reach.
unsigned int snmpSet(Context& ctx) {
    ctx.searchOid = ctx.oid;
    std::vector<uint32_t>& search = ctx.searchOid.arcs();
    std::vector<uint32_t>& index = ctx.setIndex.arcs();
    index.clear();
    LeafMap::iterator it = leafs.end();
    while (!search.empty()) {
        it = leafs.find(ctx.searchOid);
        if (it != leafs.end())
            break;
        index.push_back(search.back());
        search.pop_back();
    }
    std::reverse(index.begin(), index.end());
    if (it == leafs.end())
        return 2;
    std::cerr << "snmpSet found " << it->first << std::endl;
    if (!it->second)
        return 2;
    return it->second->set(ctx) ? 0 : 2;
}

// Not dispatched by createReply; kept for callers that want a bulk walk.
unsigned int snmpGetBulk(Context& ctx) {
    for (int r = 0; r < ctx.maxRepetitions; ++r) {
        if (r > 0) {
            ctx.out.startSeq(0x30);
            ctx.oid = ctx.objectName;
        }
        unsigned int status = snmpGetNext(ctx);
        if (status) {
            std::cerr << "Error " << status << std::endl;
            return status;
        }
        if (r == ctx.maxRepetitions - 1)
            return 0;
        ctx.out.endSeq();
    }
    return 0;
}
