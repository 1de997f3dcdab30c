#include "platform/fixture_backend.h"

#include <gtest/gtest.h>

#include "tn/looper.h"

namespace {

const char* kFixture = R"({
  "paths": {
    "20.0": {
      "page": 2,
      "list": [
        {"u32:0xfe0001": 1, "str:0x10006": "lo"},
        {"u32:0xfe0001": 2, "str:0x10006": "eth0"},
        {"u32:0xfe0001": 3, "str:0x10006": "eth1"}
      ],
      "counters": {"2": {"u64:0x100100fc": 4294967301}}
    },
    "24.2": {"get": {"u32:0x1": 5}},
    "44.1": {"page": 1, "fail_after_pages": 1,
             "list": [{"u32:0xfe0001": 10}, {"u32:0xfe0001": 11}]},
    "24.1": {"get": {"str:0xc": "r1"}, "errors": {"0xfe000e": {"code": 65542, "text": "read-only"}}}
  }
})";

tn::message request(tn::u32_vector path, uint32_t cmd) {
    tn::message m;
    m.insert(tn::u32_id(tn::F_COMMAND), cmd);
    m.insert_u32_array(tn::u32_array_id(tn::F_PATH), path);
    return m;
}

class FixtureTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(backend.loadText(looper, kFixture, &err)) << err;
    }
    tn::Looper looper;
    FixtureBackend backend;
};

TEST_F(FixtureTest, ListingIsPagedWithContinuation) {
    tn::message req = request({20, 0}, tn::CMD_GET_ALL);
    tn::message r1 = looper.exchangeMessage(req, 6000);
    ASSERT_FALSE(tn::isError(r1));
    std::vector<tn::message> objs = r1.get(tn::message_array_id(tn::F_OBJECTS));
    ASSERT_EQ(objs.size(), 2u);
    EXPECT_EQ(objs[1].get(tn::string_id(0x10006)), "eth0");
    ASSERT_TRUE(r1.has(tn::u32_id(tn::F_START)));

    req.insert(tn::u32_id(tn::F_START), r1.get(tn::u32_id(tn::F_START)));
    tn::message r2 = looper.exchangeMessage(req, 6000);
    objs = r2.get(tn::message_array_id(tn::F_OBJECTS));
    ASSERT_EQ(objs.size(), 1u);
    EXPECT_EQ(objs[0].get(tn::u32_id(tn::F_OBJ_ID)), 3u);
    EXPECT_FALSE(r2.has(tn::u32_id(tn::F_START)));

    tn::message count = request({20, 0}, tn::CMD_COUNT);
    EXPECT_EQ(looper.exchangeMessage(count, 6000).get(tn::u32_id(tn::F_TOTAL)), 3u);
}

TEST_F(FixtureTest, GetObjectMergesCountersOnlyWithSelector256) {
    tn::message req = request({20, 0}, tn::CMD_GET_OBJ);
    req.insert(tn::u32_id(tn::F_OBJ_ID), 2u);
    EXPECT_FALSE(looper.exchangeMessage(req, 6000).has(tn::u64_id(0x100100fc)));
    req.insert(tn::u32_id(tn::F_SELECTOR), 256u);
    tn::message r = looper.exchangeMessage(req, 6000);
    EXPECT_EQ(r.get(tn::u64_id(0x100100fc)), 4294967301ull);
    EXPECT_EQ(r.get(tn::string_id(0x10006)), "eth0");

    req.insert(tn::u32_id(tn::F_OBJ_ID), 99u);
    EXPECT_EQ(tn::getErrorCode(looper.exchangeMessage(req, 6000)), uint32_t(tn::ERR_NO_OBJECT));
}

TEST_F(FixtureTest, ListingFailsAfterConfiguredPages) {
    tn::message req = request({44, 1}, tn::CMD_GET_ALL);
    tn::message r1 = looper.exchangeMessage(req, 6000);
    ASSERT_FALSE(tn::isError(r1));
    req.insert(tn::u32_id(tn::F_START), r1.get(tn::u32_id(tn::F_START)));
    EXPECT_TRUE(tn::isError(looper.exchangeMessage(req, 6000)));
}

TEST_F(FixtureTest, SetsAreRecordedAndConfiguredErrorsReturned) {
    tn::message set = request({24, 2}, tn::CMD_SET);
    set.insert(tn::u32_id(0x1), 9u);
    EXPECT_FALSE(tn::isError(looper.exchangeMessage(set, 6000)));

    tn::message refused = request({24, 1}, tn::CMD_SET);
    refused.insert(tn::string_id(0xc), "new");
    tn::message r = looper.exchangeMessage(refused, 6000);
    EXPECT_EQ(tn::getErrorCode(r), 65542u);
    EXPECT_EQ(tn::getError(r), "read-only");

    tn::message get = request({24, 2}, tn::CMD_GET);
    EXPECT_EQ(looper.exchangeMessage(get, 6000).get(tn::u32_id(0x1)), 5u);

    ASSERT_EQ(backend.recorded().size(), 2u);
    EXPECT_EQ(backend.recorded()[0].get(tn::u32_id(0x1)), 9u);
    EXPECT_EQ(backend.recorded()[1].get(tn::string_id(0xc)), "new");
}

TEST(FixtureLoad, MalformedFilesAreRejectedWithAReason) {
    tn::Looper looper;
    FixtureBackend b;
    std::string err;
    EXPECT_FALSE(b.loadText(looper, "{", &err));
    EXPECT_FALSE(err.empty());
    EXPECT_FALSE(b.loadText(looper, R"({"paths": {"20.x": {}}})", &err));
    EXPECT_NE(err.find("20.x"), std::string::npos);
    EXPECT_FALSE(b.loadText(looper, R"({"paths": {"20.0": {"list": [{"nonsense": 1}]}}})", &err));
    EXPECT_FALSE(b.load(looper, "/nonexistent/fixture.json", &err));
}

}  // namespace
