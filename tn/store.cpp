#include "tn/store.h"

#include <sqlite3.h>

#include <algorithm>

namespace tn {

namespace {

// A prepared statement that finalizes itself.
struct stmt {
    sqlite3_stmt* s = nullptr;
    stmt(sqlite3* db, const char* sql) {
        if (db && sqlite3_prepare_v2(db, sql, -1, &s, nullptr) != SQLITE_OK) s = nullptr;
    }
    ~stmt() { sqlite3_finalize(s); }
    explicit operator bool() const { return s != nullptr; }
};

}  // namespace

Store::Store(const std::string& path, int version) : path_(path) {
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    auto fail = [&](const std::string& what) {
        error_ = "store " + path + ": " + what + ": " + (db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
        sqlite3_close_v2(db);
    };
    if (rc != SQLITE_OK) {
        fail("cannot open");
        return;
    }
    if (sqlite3_db_readonly(db, "main") == 1) {
        error_ = "store " + path + ": not writable";
        sqlite3_close_v2(db);
        return;
    }
    sqlite3_busy_timeout(db, 2000);
    // FULL: a set or remove has reached the disk when it returns.
    if (sqlite3_exec(db, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail("cannot configure");
        return;
    }
    // Catches a file that is not a database or whose pages are damaged,
    // before anything is read from or written to it. The stores are small.
    {
        stmt check(db, "PRAGMA quick_check");
        if (!check || sqlite3_step(check.s) != SQLITE_ROW) {
            fail("unreadable");
            return;
        }
        const unsigned char* t = sqlite3_column_text(check.s, 0);
        std::string verdict = t ? reinterpret_cast<const char*>(t) : "";
        std::replace(verdict.begin(), verdict.end(), '\n', ' ');
        if (verdict != "ok") {
            error_ = "store " + path + ": corrupt: " + verdict;
            sqlite3_close_v2(db);
            return;
        }
    }
    if (sqlite3_exec(db, "CREATE TABLE IF NOT EXISTS objects (id INTEGER PRIMARY KEY, data BLOB NOT NULL)",
                     nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail("cannot create table");
        return;
    }
    int recorded = -1;
    {
        stmt v(db, "PRAGMA user_version");
        if (v && sqlite3_step(v.s) == SQLITE_ROW) recorded = sqlite3_column_int(v.s, 0);
    }
    if (recorded < 0) {
        fail("unreadable");
        return;
    }
    if (recorded == 0 && version != 0) {
        std::string sql = "PRAGMA user_version=" + std::to_string(version);
        if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
            fail("cannot write");
            return;
        }
    }
    db_ = db;
}

Store::~Store() { sqlite3_close_v2(db_); }

bool Store::has(uint32_t id) const {
    stmt q(db_, "SELECT 1 FROM objects WHERE id=?");
    if (!q) return false;
    sqlite3_bind_int64(q.s, 1, id);
    return sqlite3_step(q.s) == SQLITE_ROW;
}

bool Store::get(uint32_t id, message& out) const {
    out.clear();
    stmt q(db_, "SELECT data FROM objects WHERE id=?");
    if (!q) return false;
    sqlite3_bind_int64(q.s, 1, id);
    if (sqlite3_step(q.s) != SQLITE_ROW) return false;
    const void* p = sqlite3_column_blob(q.s, 0);
    int n = sqlite3_column_bytes(q.s, 0);
    std::string why;
    if (!message::decode(static_cast<const uint8_t*>(p), size_t(n), out, &why)) {
        error_ = "store " + path_ + ": object " + std::to_string(id) + " is damaged: " + why;
        return false;
    }
    return true;
}

bool Store::set(uint32_t id, const message& m) {
    stmt q(db_, "INSERT OR REPLACE INTO objects (id, data) VALUES (?, ?)");
    if (!q) return false;
    std::vector<uint8_t> bytes = m.encode();
    sqlite3_bind_int64(q.s, 1, id);
    sqlite3_bind_blob(q.s, 2, bytes.data(), int(bytes.size()), SQLITE_STATIC);
    if (sqlite3_step(q.s) != SQLITE_DONE) {
        error_ = "store " + path_ + ": cannot write object " + std::to_string(id) + ": " + sqlite3_errmsg(db_);
        return false;
    }
    return true;
}

// True when the object is gone afterwards, whether or not it existed.
bool Store::remove(uint32_t id) {
    stmt q(db_, "DELETE FROM objects WHERE id=?");
    if (!q) return false;
    sqlite3_bind_int64(q.s, 1, id);
    if (sqlite3_step(q.s) != SQLITE_DONE) {
        error_ = "store " + path_ + ": cannot remove object " + std::to_string(id) + ": " + sqlite3_errmsg(db_);
        return false;
    }
    return true;
}

std::vector<uint32_t> Store::ids() const {
    std::vector<uint32_t> out;
    stmt q(db_, "SELECT id FROM objects ORDER BY id");
    if (!q) return out;
    while (sqlite3_step(q.s) == SQLITE_ROW) out.push_back(uint32_t(sqlite3_column_int64(q.s, 0)));
    return out;
}

// A damaged object is left out (and named in error()) rather than handed
// over as an empty record.
std::vector<std::pair<uint32_t, message>> Store::all() const {
    std::vector<std::pair<uint32_t, message>> out;
    stmt q(db_, "SELECT id, data FROM objects ORDER BY id");
    if (!q) return out;
    while (sqlite3_step(q.s) == SQLITE_ROW) {
        uint32_t id = uint32_t(sqlite3_column_int64(q.s, 0));
        const void* p = sqlite3_column_blob(q.s, 1);
        int n = sqlite3_column_bytes(q.s, 1);
        message m;
        std::string why;
        if (!message::decode(static_cast<const uint8_t*>(p), size_t(n), m, &why)) {
            error_ = "store " + path_ + ": object " + std::to_string(id) + " is damaged: " + why;
            continue;
        }
        out.emplace_back(id, std::move(m));
    }
    return out;
}

}  // namespace tn
