// tn::Store on SQLite and tn::Allocator.
#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "tn/allocator.h"
#include "tn/store.h"

using namespace tn;

namespace {

struct TempDir : ::testing::Test {
    std::string dir;
    void SetUp() override {
        char tmpl[] = "/tmp/tn_store_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
    }
    void TearDown() override {
        std::string cmd = "rm -rf '" + dir + "'";
        ASSERT_EQ(0, std::system(cmd.c_str()));
    }
    std::string file(const char* name) const { return dir + "/" + name; }
};

message item(uint32_t id, const std::string& name) {
    message m;
    m.insert(u32_id(F_OBJ_ID), id);
    m.insert(string_id(5), name);
    m.insert(be32_id(8), 0x7F000001u);
    return m;
}

}  // namespace

TEST_F(TempDir, SetGetRemoveAndReopen) {
    std::string path = file("communities");
    {
        Store s(path, 5);
        ASSERT_TRUE(s.ok()) << s.error();
        EXPECT_TRUE(s.ids().empty());
        EXPECT_TRUE(s.set(7, item(7, "seven")));
        EXPECT_TRUE(s.set(0, item(0, "vellum")));
        EXPECT_TRUE(s.set(7, item(7, "seven again")));  // replaces
        EXPECT_TRUE(s.has(7));
        EXPECT_FALSE(s.has(8));
        message m;
        ASSERT_TRUE(s.get(7, m));
        EXPECT_EQ("seven again", m.get(string_id(5)));
        EXPECT_FALSE(s.get(8, m));
        EXPECT_TRUE(m.empty());
    }
    {
        Store s(path, 5);
        ASSERT_TRUE(s.ok()) << s.error();
        EXPECT_EQ((std::vector<uint32_t>{0, 7}), s.ids());
        message m;
        ASSERT_TRUE(s.get(0, m));
        EXPECT_TRUE(m == item(0, "vellum"));
        EXPECT_TRUE(s.remove(0));
        EXPECT_TRUE(s.remove(0));  // already gone: still fine
    }
    Store s(path, 5);
    EXPECT_EQ((std::vector<uint32_t>{7}), s.ids());
}

TEST_F(TempDir, IterationIsInAscendingIdOrder) {
    Store s(file("order"), 5);
    ASSERT_TRUE(s.ok());
    const uint32_t ids[] = {0xFFFFFFFEu, 3, 0x80000000u, 0, 12, 0x7FFFFFFFu};
    for (uint32_t id : ids) ASSERT_TRUE(s.set(id, item(id, std::to_string(id))));
    std::vector<uint32_t> want = {0, 3, 12, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu};
    EXPECT_EQ(want, s.ids());
    auto all = s.all();
    ASSERT_EQ(want.size(), all.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(want[i], all[i].first);
        EXPECT_EQ(want[i], all[i].second.get(u32_id(F_OBJ_ID)));
    }
}

TEST_F(TempDir, ASetIsCommittedWhenItReturns) {
    std::string path = file("durable");
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The child dies without closing anything right after the set.
        Store s(path, 5);
        bool ok = s.ok() && s.set(1, item(1, "kept")) && s.remove(2);
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    Store s(path, 5);
    ASSERT_TRUE(s.ok()) << s.error();
    message m;
    ASSERT_TRUE(s.get(1, m));
    EXPECT_EQ("kept", m.get(string_id(5)));
}

TEST_F(TempDir, GarbageFileIsReportedNotUsed) {
    std::string path = file("garbage");
    {
        std::ofstream f(path);
        for (int i = 0; i < 200; ++i) f << "this is not a database\n";
    }
    Store s(path, 5);
    EXPECT_FALSE(s.ok());
    EXPECT_NE(std::string::npos, s.error().find(path));
    EXPECT_EQ(std::string::npos, s.error().find('\n'));
    message m;
    EXPECT_FALSE(s.get(1, m));
    EXPECT_FALSE(s.set(1, m));
    EXPECT_FALSE(s.remove(1));
    EXPECT_TRUE(s.ids().empty());
    EXPECT_TRUE(s.all().empty());
}

TEST_F(TempDir, DamagedPagesAreReported) {
    std::string path = file("damaged");
    {
        Store s(path, 5);
        ASSERT_TRUE(s.ok());
        for (uint32_t i = 0; i < 400; ++i) s.set(i, item(i, std::string(200, char('a' + i % 26))));
    }
    // Overwrite the middle of the file, past the header page.
    {
        std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(0, std::ios::end);
        std::streamoff size = f.tellp();
        ASSERT_GT(size, 16384);
        f.seekp(size / 2);
        std::string junk(8192, '\xA5');
        f.write(junk.data(), std::streamsize(junk.size()));
    }
    Store s(path, 5);
    EXPECT_FALSE(s.ok());
    EXPECT_NE(std::string::npos, s.error().find(path));
    EXPECT_EQ(std::string::npos, s.error().find('\n'));
}

TEST_F(TempDir, MissingDirectoryIsReported) {
    Store s(file("no/such/dir/store"), 5);
    EXPECT_FALSE(s.ok());
    EXPECT_FALSE(s.error().empty());
}

TEST_F(TempDir, UndecodableObjectIsSkipped) {
    std::string path = file("badrow");
    {
        Store s(path, 5);
        ASSERT_TRUE(s.ok());
        s.set(1, item(1, "one"));
        s.set(3, item(3, "three"));
    }
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "INSERT INTO objects (id, data) VALUES (2, x'00000009')", nullptr,
                                      nullptr, nullptr));
    sqlite3_close(db);
    Store s(path, 5);
    ASSERT_TRUE(s.ok());
    message m;
    EXPECT_FALSE(s.get(2, m));
    EXPECT_NE(std::string::npos, s.error().find("object 2"));
    auto all = s.all();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(1u, all[0].first);
    EXPECT_EQ(3u, all[1].first);
}

TEST(TnAllocator, LowestFreeAndReuse) {
    Allocator a(0, 0xFFFFFFFEu);
    EXPECT_EQ(0u, a.allocate());
    EXPECT_EQ(1u, a.allocate());
    EXPECT_TRUE(a.take(3));
    EXPECT_FALSE(a.take(3));
    EXPECT_EQ(2u, a.allocate());
    EXPECT_EQ(4u, a.allocate());
    a.free(1);
    EXPECT_FALSE(a.isUsed(1));
    EXPECT_EQ(1u, a.allocate());
    EXPECT_EQ(7u, a.allocate(7));
    EXPECT_EQ(5u, a.allocate(7));  // taken: the lowest free instead
    EXPECT_EQ(0xFFFFFFFEu, a.allocate(0xFFFFFFFEu));
    EXPECT_EQ(6u, a.allocate(0xFFFFFFFFu));  // out of range
    EXPECT_FALSE(a.take(0xFFFFFFFFu));
    EXPECT_EQ(9u, a.usedCount());
}

TEST(TnAllocator, ExhaustionAndRangeEdges) {
    Allocator a(10, 12);
    EXPECT_FALSE(a.take(9));
    EXPECT_FALSE(a.take(13));
    EXPECT_EQ(10u, a.allocate());
    EXPECT_EQ(11u, a.allocate());
    EXPECT_EQ(12u, a.allocate());
    EXPECT_EQ(Allocator::NONE, a.allocate());
    a.free(11);
    EXPECT_EQ(11u, a.allocate());

    // The top of the id space never hands out NONE as an id.
    Allocator top(0xFFFFFFFEu, 0xFFFFFFFFu);
    EXPECT_EQ(0xFFFFFFFEu, top.allocate());
    EXPECT_EQ(Allocator::NONE, top.allocate());
}
