// Replays the fuzz targets' inputs through the same entry functions as the
// fuzzers: every input that once failed (fuzz/regressions/<target>/) and the
// seed corpus (fuzz/corpus/<target>/). An entry aborts on a broken property,
// and the sanitizer builds check every access on the way.
#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fuzz/fuzz_entries.h"

namespace {

std::vector<std::string> filesIn(std::string const& dir) {
    std::vector<std::string> out;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
        closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::string readFile(std::string const& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// Feeds every file of the target's folders; returns how many seeds there were.
size_t replay(std::string const& target, int (*entry)(uint8_t const*, size_t)) {
    std::string root = std::string(KESTREL_SOURCE_DIR) + "/fuzz/";
    for (std::string const& f : filesIn(root + "regressions/" + target)) {
        SCOPED_TRACE(f);
        std::string bytes = readFile(f);
        EXPECT_EQ(entry(reinterpret_cast<uint8_t const*>(bytes.data()), bytes.size()), 0);
    }
    std::vector<std::string> seeds = filesIn(root + "corpus/" + target);
    for (std::string const& f : seeds) {
        SCOPED_TRACE(f);
        std::string bytes = readFile(f);
        EXPECT_EQ(entry(reinterpret_cast<uint8_t const*>(bytes.data()), bytes.size()), 0);
    }
    return seeds.size();
}

}  // namespace

// In this order: the control commands change the agent's settings and users
// that the SNMP inputs were made for.
TEST(FuzzRegressions, BusMessages) { EXPECT_GE(replay("message", fuzzBusMessage), 4u); }

TEST(FuzzRegressions, SnmpRequests) { EXPECT_GE(replay("snmp", fuzzSnmpRequest), 20u); }

TEST(FuzzRegressions, ControlCommands) { EXPECT_GE(replay("control", fuzzControlCommand), 10u); }
