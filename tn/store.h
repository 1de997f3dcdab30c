// A persistent map from object id to message, kept in one SQLite file.
// Every set/remove is durable when it returns (synchronous commit).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tn/message.h"

struct sqlite3;

namespace tn {

class Store {
public:
    // Opens (creating when absent) the database at path. `version` is the
    // schema version recorded in the file. A store that cannot be opened
    // or is corrupt reports ok() == false with one line in error().
    Store(const std::string& path, int version);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    bool ok() const { return db_ != nullptr; }
    const std::string& error() const { return error_; }
    const std::string& path() const { return path_; }

    bool has(uint32_t id) const;
    bool get(uint32_t id, message& out) const;
    bool set(uint32_t id, const message& m);
    bool remove(uint32_t id);
    std::vector<uint32_t> ids() const;                       // ascending
    std::vector<std::pair<uint32_t, message>> all() const;   // ascending id

private:
    sqlite3* db_ = nullptr;
    std::string path_;
    mutable std::string error_;
};

}  // namespace tn
