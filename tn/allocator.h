// Allocation of object ids within [first, last].
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>

namespace tn {

class Allocator {
public:
    static constexpr uint32_t NONE = 0xFFFFFFFFu;
    Allocator(uint32_t first, uint32_t last);
    uint32_t allocate();                 // lowest free id, NONE when exhausted
    uint32_t allocate(uint32_t wanted);  // wanted when free and in range, else the lowest free
    bool take(uint32_t id);              // marks id used; false when out of range or used
    void free(uint32_t id);
    bool isUsed(uint32_t id) const { return used_.count(id) != 0; }
    size_t usedCount() const { return used_.size(); }

private:
    uint32_t first_, last_;
    std::set<uint32_t> used_;
};

}  // namespace tn
