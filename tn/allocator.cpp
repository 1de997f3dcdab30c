#include "tn/allocator.h"

namespace tn {

Allocator::Allocator(uint32_t first, uint32_t last) : first_(first), last_(last) {}

uint32_t Allocator::allocate() {
    // The used set is ordered: walk it from first_ until the first gap.
    uint64_t id = first_;
    for (auto it = used_.lower_bound(first_); it != used_.end() && uint64_t(*it) == id; ++it) ++id;
    if (id > last_ || id == NONE) return NONE;
    used_.insert(uint32_t(id));
    return uint32_t(id);
}

uint32_t Allocator::allocate(uint32_t wanted) {
    if (take(wanted)) return wanted;
    return allocate();
}

bool Allocator::take(uint32_t id) {
    if (id < first_ || id > last_ || id == NONE) return false;
    return used_.insert(id).second;
}

void Allocator::free(uint32_t id) { used_.erase(id); }

}  // namespace tn
