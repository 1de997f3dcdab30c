// tn::Handler dispatch, default answers, policies and the notifications
// that go through the process's looper.
#include <gtest/gtest.h>

#include "tn/looper.h"

using namespace tn;

namespace {

message request(uint32_t cmd) {
    message m;
    m.insert(u32_id(F_COMMAND), cmd);
    return m;
}

// Records which operation the dispatch reached and with which arguments.
struct Recorder : Handler {
    std::string last;
    uint32_t a = 0, b = 0;
    message done(const std::string& what, uint32_t x = 0, uint32_t y = 0) {
        last = what;
        a = x;
        b = y;
        return message();
    }
    message cmdGet(const message&) override { return done("get"); }
    message cmdSet(const message&) override { return done("set"); }
    message cmdReset(const message&) override { return done("reset"); }
    message cmdGetObj(const message&, uint32_t id) override { return done("getobj", id); }
    message cmdSetObj(const message&, uint32_t id) override { return done("setobj", id); }
    message cmdGetAll(const message&, uint32_t s, uint32_t c) override { return done("getall", s, c); }
    message cmdAddObj(const message&) override { return done("add"); }
    message cmdRemoveObj(const message&, uint32_t id) override { return done("remove", id); }
    message cmdMoveObj(const message&, uint32_t id) override { return done("move", id); }
    message cmdGetCount(const message&) override { return done("count"); }
    message cmdShutdown(const message&) override { return done("shutdown"); }
    message cmdGetPolicies(const message&) override { return done("policies"); }
    message cmdUnknown(const message&, uint32_t cmd) override { return done("unknown", cmd); }
    message handleBrkpath(const message&) override { return done("brkpath"); }
};

}  // namespace

TEST(TnHandler, DispatchesEveryCommand) {
    Recorder h;
    struct {
        uint32_t cmd;
        const char* op;
    } table[] = {
        {CMD_GET, "get"},       {CMD_SET, "set"},          {CMD_RESET, "reset"},     {CMD_GET_OBJ, "getobj"},
        {CMD_SET_OBJ, "setobj"}, {CMD_GET_ALL, "getall"},  {CMD_ADD_OBJ, "add"},     {CMD_REMOVE_OBJ, "remove"},
        {CMD_MOVE_OBJ, "move"}, {CMD_COUNT, "count"},      {CMD_SHUTDOWN, "shutdown"},
        {CMD_GET_POLICIES, "policies"}, {100, "unknown"},
    };
    for (const auto& t : table) {
        h.last.clear();
        EXPECT_FALSE(isError(h.handle(request(t.cmd))));
        EXPECT_EQ(t.op, h.last) << std::hex << t.cmd;
    }

    message m = request(CMD_GET_OBJ);
    m.insert(u32_id(F_OBJ_ID), 42u);
    h.handle(m);
    EXPECT_EQ(42u, h.a);
    m = request(CMD_REMOVE_OBJ);
    m.insert(u32_id(F_OBJ_ID), 7u);
    h.handle(m);
    EXPECT_EQ(7u, h.a);

    // The listing starts at "first" and asks for "as many as you like"
    // when the request does not say.
    h.handle(request(CMD_GET_ALL));
    EXPECT_EQ(0xFFFFFFFFu, h.a);
    EXPECT_EQ(0u, h.b);
    m = request(CMD_GET_ALL);
    m.insert(u32_id(F_START), 5u);
    m.insert(u32_id(F_COUNT), 3u);
    h.handle(m);
    EXPECT_EQ("getall", h.last);
    EXPECT_EQ(5u, h.a);
    EXPECT_EQ(3u, h.b);

    h.handle(request(0x10004));
    EXPECT_EQ("unknown", h.last);
    EXPECT_EQ(0x10004u, h.a);
    h.handle(message());  // no command at all
    EXPECT_EQ("unknown", h.last);
    EXPECT_EQ(0u, h.a);
}

TEST(TnHandler, PathBelowTheHandlerGoesToHandleBrkpath) {
    Recorder h;
    h.setHandlerPath({20});
    message m = request(CMD_GET);
    m.insert(u32_array_id(F_PATH), u32_vector{20});
    h.handle(m);
    EXPECT_EQ("get", h.last);
    m.insert(u32_array_id(F_PATH), u32_vector{20, 0});
    h.handle(m);
    EXPECT_EQ("brkpath", h.last);

    Handler plain;
    plain.setHandlerPath({20});
    message r = plain.handle(m);
    EXPECT_EQ(uint32_t(ERR_NO_OBJECT), getErrorCode(r));
}

TEST(TnHandler, DefaultAnswers) {
    Handler h;
    for (uint32_t cmd : {uint32_t(CMD_GET), uint32_t(CMD_SET), uint32_t(CMD_SET_OBJ), uint32_t(CMD_GET_ALL),
                         uint32_t(CMD_ADD_OBJ), uint32_t(CMD_REMOVE_OBJ), uint32_t(CMD_COUNT), 0x1234u}) {
        message r = h.handle(request(cmd));
        EXPECT_TRUE(isError(r)) << std::hex << cmd;
        EXPECT_EQ(uint32_t(ERR_REFUSED), getErrorCode(r));
        EXPECT_FALSE(getError(r).empty());
    }
    message obj = h.getObject(9);
    EXPECT_EQ(9u, obj.get(u32_id(F_OBJ_ID)));
    EXPECT_EQ(1u, obj.get(u32_id(F_NOT_EXIST)));
    EXPECT_EQ(2u, obj.size());
    EXPECT_EQ(-1, h.getObjectCount());
    message get = request(CMD_GET_OBJ);
    get.insert(u32_id(F_OBJ_ID), 9u);
    EXPECT_EQ(uint32_t(ERR_NO_OBJECT), getErrorCode(h.handle(get)));
}

TEST(TnHandler, DefaultsBuildOnGetObjectAndCount) {
    struct Two : Handler {
        message getObject(uint32_t id) override {
            if (id != 2) return Handler::getObject(id);
            message m;
            m.insert(u32_id(F_OBJ_ID), 2u);
            m.insert(string_id(5), "two");
            return m;
        }
        int getObjectCount() override { return 1; }
    } h;
    message get = request(CMD_GET_OBJ);
    get.insert(u32_id(F_OBJ_ID), 2u);
    EXPECT_EQ("two", h.handle(get).get(string_id(5)));
    EXPECT_EQ(1u, h.handle(request(CMD_COUNT)).get(u32_id(F_TOTAL)));
}

TEST(TnHandler, PoliciesRestrictBySenderRights) {
    Handler h;
    h.handlerPolicies.add_policy(1, 0x80);
    h.handlerPolicies.add_policy(100, 0x2C0);
    EXPECT_EQ(2u, h.handlerPolicies.size());

    message m = request(100);
    EXPECT_TRUE(h.handlerPolicies.is_allowed(m));  // no rights stated: all rights
    m.insert(u32_id(F_RIGHTS), 0x2C0u);
    EXPECT_TRUE(h.handlerPolicies.is_allowed(m));
    m.insert(u32_id(F_RIGHTS), 0x0C0u);
    EXPECT_FALSE(h.handlerPolicies.is_allowed(m));
    message r = h.handle(m);
    EXPECT_EQ(uint32_t(ERR_NOT_ALLOWED), getErrorCode(r));

    message other = request(CMD_GET);
    other.insert(u32_id(F_RIGHTS), 0u);
    EXPECT_TRUE(h.handlerPolicies.is_allowed(other));  // no policy for it

    h.handlerPolicies.add_policy(1, 0x01);  // replaces the earlier (1, 0x80)
    EXPECT_EQ(2u, h.handlerPolicies.size());
    message one = request(1);
    one.insert(u32_id(F_RIGHTS), 0x01u);
    EXPECT_TRUE(h.handlerPolicies.is_allowed(one));

    message list = h.handle(request(CMD_GET_POLICIES));
    std::vector<message> entries = list.get(message_array_id(F_OBJECTS));
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(100u, entries[1].get(u32_id(F_COMMAND)));
    EXPECT_EQ(0x2C0u, entries[1].get(u32_id(F_RIGHTS)));
}

TEST(TnHandler, NotificationsAndUndoReachWatchers) {
    Looper loop;
    ASSERT_EQ(&loop, getLooper());
    std::vector<message> seen;
    loop.setWatchHook([&](const message& m) { seen.push_back(m); });
    Handler h;
    loop.addHandler(1, &h);

    message change;
    change.insert(string_id(5), "x");
    h.notifyChange(7, change);
    message undo;
    undo.insert(u32_id(F_COMMAND), uint32_t(CMD_REMOVE_OBJ));
    h.sendUndo(change, undo, "new snmp community created");

    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ(uint32_t(CMD_NOTIFY), seen[0].get(u32_id(F_COMMAND)));
    EXPECT_EQ(u32_vector{1}, seen[0].get(u32_array_id(F_SENDER)));
    EXPECT_EQ(7u, seen[0].get(u32_id(F_OBJ_ID)));
    EXPECT_TRUE(seen[0].get(message_id(F_CHANGE)) == change);
    EXPECT_EQ(uint32_t(CMD_UNDO), seen[1].get(u32_id(F_COMMAND)));
    EXPECT_EQ("new snmp community created", seen[1].get(string_id(F_UNDO_TEXT)));
    EXPECT_TRUE(seen[1].get(message_id(F_UNDO)) == undo);
    EXPECT_TRUE(seen[1].get(message_id(F_CHANGE)) == change);

    // A handler may veto its notifications.
    struct Quiet : Handler {
        bool shouldNotify(const message&) override { return false; }
    } quiet;
    quiet.notifyChange(1, change);
    EXPECT_EQ(2u, seen.size());
}

TEST(TnHandler, WithoutALooperCommandsFailCleanly) {
    Looper* saved = getLooper();
    setLooper(nullptr);
    Handler h;
    message m;
    m.insert(u32_array_id(F_PATH), u32_vector{3});
    EXPECT_EQ(uint32_t(ERR_DISCONNECTED), getErrorCode(h.exchangeCmd(CMD_GET, m)));
    h.sendCmd(CMD_GET, m);
    h.notifyChange(1, message());
    h.sendUndo(message(), message(), "x");
    h.subscribe({3}, 1, message());
    EXPECT_EQ(uint32_t(CMD_GET), m.get(u32_id(F_COMMAND)));
    setLooper(saved);
}
