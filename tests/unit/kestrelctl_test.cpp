// kestrelctl against an in-test bus server that plays the agent's settings
// handler (path []) and community handler (path [1]).
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "tn/looper.h"

using namespace tn;
using nlohmann::json;

namespace {

const std::string kCli = std::string(KESTREL_BINARY_DIR) + "/tools/kestrelctl";

struct Communities : Handler {
    std::vector<message> items;
    std::vector<message> requests;
    uint32_t nextId = 0;

    Communities() {
        for (const char* n : {"vellum", "ops", "lab", "noc", "backup"}) {
            message m;
            m.insert(u32_id(F_OBJ_ID), nextId++);
            m.insert(string_id(5), n);
            m.insert(bool_id(6), true);
            items.push_back(m);
        }
        items[1].insert(be32_id(8), 0x0A000000u);
        items[1].insert(be32_id(9), 0xFF000000u);
        items[1].insert(bool_id(7), true);
        items[1].insert(u32_id(0x0F), 2u);
        items[1].insert(u32_id(0x14), 1u);
        items[1].insert(string_id(0x0B), "secret");
    }
    message* find(uint32_t id) {
        for (message& m : items)
            if (m.get(u32_id(F_OBJ_ID)) == id) return &m;
        return nullptr;
    }
    // Two per page, so that the CLI must follow the continuation.
    message cmdGetAll(const message& req, uint32_t start, uint32_t) override {
        requests.push_back(req);
        size_t i = 0;
        if (start != 0xFFFFFFFFu) {
            while (i < items.size() && items[i].get(u32_id(F_OBJ_ID)) != start) ++i;
            if (i == items.size()) return errorMsg(ERR_UNKNOWN_START, "");
        }
        message r;
        for (size_t n = 0; n < 2 && i < items.size(); ++n, ++i) r.append(message_array_id(F_OBJECTS), items[i]);
        if (i < items.size()) r.insert(u32_id(F_START), items[i].get(u32_id(F_OBJ_ID)));
        return r;
    }
    message cmdGetObj(const message&, uint32_t id) override {
        message* m = find(id);
        return m ? *m : errorMsg(ERR_NO_OBJECT, "");
    }
    message cmdAddObj(const message& req) override {
        requests.push_back(req);
        for (const message& m : items)
            if (m.get(string_id(5)) == req.get(string_id(5)))
                return errorMsg(ERR_REFUSED, "community with such name already exists");
        message m = req;
        m.remove_key(make_key(T_U32, F_COMMAND));
        m.remove_key(F_PATH);
        m.remove_key(F_SENDER);
        uint32_t id = req.get(u32_id(F_OBJ_ID), nextId++);
        m.insert(u32_id(F_OBJ_ID), id);
        items.push_back(m);
        message r;
        r.insert(u32_id(F_OBJ_ID), id);
        return r;
    }
    message cmdSetObj(const message& req, uint32_t id) override {
        requests.push_back(req);
        message* m = find(id);
        if (!m) return errorMsg(ERR_NO_OBJECT, "");
        return message();
    }
    message cmdRemoveObj(const message& req, uint32_t id) override {
        requests.push_back(req);
        for (size_t i = 0; i < items.size(); ++i)
            if (items[i].get(u32_id(F_OBJ_ID)) == id) {
                items.erase(items.begin() + long(i));
                return message();
            }
        return errorMsg(ERR_NO_OBJECT, "");
    }
};

struct FakeAgent : Looper {
    message settings;
    std::vector<message> sets, unknown;
    FakeAgent() {
        settings.insert(string_id(4), "vellum");
        settings.insert(string_id(2), "ops@example.net");
        settings.insert(u32_id(0x0E), 15u);
        settings.insert(be32_id(0x10), 0x0A000001u);
        settings.insert(u32_id(0x12), 1u);
        settings.insert(u32_id(0x11), 0u);
        settings.insert(u32_array_id(0x13), u32_vector{0xABC0001, 0});
        settings.insert(u32_id(0x0D), 4u);
        settings.insert(bool_id(1), true);
    }
    message cmdGet(const message&) override { return settings; }
    message cmdSet(const message& req) override {
        sets.push_back(req);
        return message();
    }
    message cmdUnknown(const message& req, uint32_t cmd) override {
        unknown.push_back(req);
        if (cmd == 100) {
            message r, g;
            g.insert(u32_id(F_OBJ_ID), 0xABC0001u);
            g.insert(string_id(F_OBJ_NAME), "start-trap");
            r.append(message_array_id(F_OBJECTS), g);
            g.insert(u32_id(F_OBJ_ID), 0u);
            g.insert(string_id(F_OBJ_NAME), "interfaces");
            r.append(message_array_id(F_OBJECTS), g);
            return r;
        }
        return message();
    }
};

struct Result {
    int status = -1;
    std::string out, err;
};

struct CliTest : ::testing::Test {
    std::string dir;
    FakeAgent agent;
    Communities communities;

    void SetUp() override {
        if (access(kCli.c_str(), X_OK) != 0) GTEST_SKIP() << "kestrelctl not built";
        char tmpl[] = "/tmp/kestrelctl_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
        agent.addHandler(1, &communities);
        std::string err;
        ASSERT_TRUE(agent.listen(dir + "/control.sock", &err)) << err;
    }
    void TearDown() override {
        if (dir.empty()) return;
        std::string cmd = "rm -rf '" + dir + "'";
        ASSERT_EQ(0, std::system(cmd.c_str()));
    }

    static std::string slurp(const std::string& path) {
        std::ifstream f(path);
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }

    // Runs the CLI while this thread serves the fake agent.
    Result run(std::vector<std::string> args, bool withSocket = true) {
        if (withSocket) args.insert(args.begin(), {"--state-dir", dir});
        std::string out = dir + "/out", err = dir + "/err";
        pid_t pid = fork();
        if (pid == 0) {
            if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) _exit(99);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(kCli.c_str()));
            for (std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(kCli.c_str(), argv.data());
            _exit(98);
        }
        Result r;
        auto start = std::chrono::steady_clock::now();
        int status = 0;
        for (;;) {
            agent.step(5);
            if (waitpid(pid, &status, WNOHANG) == pid) break;
            if (std::chrono::steady_clock::now() - start > std::chrono::seconds(10)) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                ADD_FAILURE() << "kestrelctl did not finish";
                break;
            }
        }
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.out = slurp(out);
        r.err = slurp(err);
        return r;
    }
};

}  // namespace

TEST_F(CliTest, SettingsShow) {
    Result r = run({"settings", "show"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("enabled         yes\n"));
    EXPECT_NE(std::string::npos, r.out.find("contact         ops@example.net\n"));
    EXPECT_NE(std::string::npos, r.out.find("trap-target     10.0.0.1\n"));
    EXPECT_NE(std::string::npos, r.out.find("trap-version    1 (v2c)\n"));
    EXPECT_NE(std::string::npos, r.out.find("generators      start-trap, 0\n"));

    r = run({"--json", "settings", "show"});
    ASSERT_EQ(0, r.status) << r.err;
    json j = json::parse(r.out);
    EXPECT_EQ(true, j["enabled"]);
    EXPECT_EQ("10.0.0.1", j["trap-target"]);
    EXPECT_EQ(4, j["boots"]);
    EXPECT_EQ(json::array({0xABC0001, 0}), j["generators"]);
}

TEST_F(CliTest, SettingsSetSendsTypedFields) {
    Result r = run({"settings", "set", "contact=me@x", "trap-target=10.1.2.3", "generators=start-trap,2",
                    "enabled=no", "trap-version=v2c", "trap-community=none", "time-window=30"});
    ASSERT_EQ(0, r.status) << r.err;
    ASSERT_EQ(1u, agent.sets.size());
    const message& m = agent.sets[0];
    EXPECT_EQ(uint32_t(CMD_SET), m.get(u32_id(F_COMMAND)));
    EXPECT_EQ("me@x", m.get(string_id(2)));
    EXPECT_EQ(0x0A010203u, m.get(be32_id(0x10)));
    EXPECT_EQ((u32_vector{0xABC0001, 2}), m.get(u32_array_id(0x13)));
    EXPECT_TRUE(m.has(bool_id(1)));
    EXPECT_FALSE(m.get(bool_id(1), true));
    EXPECT_EQ(1u, m.get(u32_id(0x12)));
    EXPECT_EQ(0xFFFFFFFFu, m.get(u32_id(0x11)));
    EXPECT_EQ(30u, m.get(u32_id(0x0E)));
    EXPECT_FALSE(m.has(string_id(3)));  // only what was given

    // Bad input is refused before anything is sent.
    for (std::vector<std::string> bad : {std::vector<std::string>{"settings", "set", "colour=blue"},
                                         {"settings", "set", "trap-target=10.1.2"},
                                         {"settings", "set", "trap-version=2"},
                                         {"settings", "set", "enabled=maybe"},
                                         {"settings", "set", "contact"},
                                         {"settings", "set", "boots=1", "boots=2"}}) {
        r = run(bad);
        EXPECT_EQ(2, r.status) << bad.back();
        EXPECT_EQ(0u, r.err.rfind("error: ", 0)) << r.err;
        EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
    }
    EXPECT_EQ(1u, agent.sets.size());
}

TEST_F(CliTest, CommunitiesListFollowsContinuation) {
    Result r = run({"communities", "list"});
    ASSERT_EQ(0, r.status) << r.err;
    size_t last = 0;
    for (const char* n : {"vellum", "ops", "lab", "noc", "backup"}) {
        size_t at = r.out.find(n);
        ASSERT_NE(std::string::npos, at) << n;
        EXPECT_GT(at, last);
        last = at;
    }
    EXPECT_NE(std::string::npos, r.out.find("10.0.0.0/8"));
    EXPECT_NE(std::string::npos, r.out.find("read,write"));
    EXPECT_NE(std::string::npos, r.out.find("authPriv"));
    ASSERT_EQ(3u, communities.requests.size());
    EXPECT_FALSE(communities.requests[0].has(u32_id(F_START)));
    EXPECT_EQ(2u, communities.requests[1].get(u32_id(F_START)));
    EXPECT_EQ(4u, communities.requests[2].get(u32_id(F_START)));

    r = run({"--json", "communities", "list"});
    ASSERT_EQ(0, r.status) << r.err;
    json j = json::parse(r.out);
    ASSERT_EQ(5u, j.size());
    EXPECT_EQ("ops", j[1]["name"]);
    EXPECT_EQ("255.0.0.0", j[1]["netmask"]);
    EXPECT_EQ("sha", j[1]["auth"]);
    EXPECT_EQ(true, j[1]["auth-pass-set"]);
    EXPECT_EQ(r.out.find("secret"), std::string::npos);  // passwords are not printed
}

TEST_F(CliTest, CommunitiesAddSetShowRemove) {
    Result r = run({"communities", "add", "name=x", "read=1", "address=10.0.0.0", "netmask=255.0.0.0", "level=2",
                    "auth=sha", "priv=des", "auth-pass=a1", "priv-pass=b2", "id=9"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("added community 9\n", r.out);
    const message& add = communities.requests.back();
    EXPECT_EQ(uint32_t(CMD_ADD_OBJ), add.get(u32_id(F_COMMAND)));
    EXPECT_EQ(u32_vector{1}, add.get(u32_array_id(F_PATH)));
    EXPECT_EQ("x", add.get(string_id(5)));
    EXPECT_TRUE(add.get(bool_id(6)));
    EXPECT_EQ(0x0A000000u, add.get(be32_id(8)));
    EXPECT_EQ(0xFF000000u, add.get(be32_id(9)));
    EXPECT_EQ(2u, add.get(u32_id(0x0F)));
    EXPECT_EQ(1u, add.get(u32_id(0x14)));
    EXPECT_EQ(0u, add.get(u32_id(0x15), 7));
    EXPECT_EQ("a1", add.get(string_id(0x0B)));
    EXPECT_EQ("b2", add.get(string_id(0x0C)));
    EXPECT_EQ(9u, add.get(u32_id(F_OBJ_ID)));

    r = run({"communities", "add", "name=x"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("error: 0xfe0006: community with such name already exists\n", r.err);
    r = run({"communities", "add", "read=1"});
    EXPECT_EQ(2, r.status);

    r = run({"--json", "communities", "show", "9"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("x", json::parse(r.out)["name"]);
    r = run({"communities", "show", "9"});
    EXPECT_NE(std::string::npos, r.out.find("level      2 (authPriv)\n"));
    EXPECT_NE(std::string::npos, r.out.find("priv-pass  (set)\n"));

    r = run({"communities", "set", "9", "write=yes", "name=y"});
    ASSERT_EQ(0, r.status) << r.err;
    const message& set = communities.requests.back();
    EXPECT_EQ(uint32_t(CMD_SET_OBJ), set.get(u32_id(F_COMMAND)));
    EXPECT_EQ(9u, set.get(u32_id(F_OBJ_ID)));
    EXPECT_TRUE(set.get(bool_id(7)));
    EXPECT_EQ("y", set.get(string_id(5)));
    r = run({"communities", "set", "9", "id=4"});
    EXPECT_EQ(2, r.status);  // the id is not a field to change

    r = run({"communities", "remove", "9"});
    ASSERT_EQ(0, r.status) << r.err;
    r = run({"communities", "show", "9"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("error: 0xfe0004: no such object\n", r.err);
    r = run({"communities", "remove", "nine"});
    EXPECT_EQ(2, r.status);
}

TEST_F(CliTest, GeneratorsTrapAndEvents) {
    Result r = run({"generators"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("0xabc0001   start-trap\n"));
    EXPECT_NE(std::string::npos, r.out.find("0           interfaces\n"));

    r = run({"trap", "oid=1.3.6.1.4.1.48291.1.2", "type=string", "value=hello"});
    ASSERT_EQ(0, r.status) << r.err;
    const message& t = agent.unknown.back();
    EXPECT_EQ(1u, t.get(u32_id(F_COMMAND)));
    EXPECT_EQ("1.3.6.1.4.1.48291.1.2", t.get(string_id(1001)));
    EXPECT_EQ(4u, t.get(u32_id(1002)));
    EXPECT_EQ("hello", t.get(string_id(1003)));
    r = run({"trap"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_FALSE(agent.unknown.back().has(string_id(1001)));
    EXPECT_EQ(2, run({"trap", "type=fancy"}).status);

    r = run({"event", "20,0", "0x10004", R"({"u32:0x10003": 1280, "u32:0xfe0001": 3})"});
    ASSERT_EQ(0, r.status) << r.err;
    const message& e = agent.unknown.back();
    EXPECT_EQ(0x10004u, e.get(u32_id(F_COMMAND)));
    EXPECT_EQ((u32_vector{20, 0}), e.get(u32_array_id(F_SENDER)));
    EXPECT_EQ(1280u, e.get(u32_id(0x10003)));
    EXPECT_EQ(3u, e.get(u32_id(F_OBJ_ID)));
    EXPECT_EQ(2, run({"event", "20,x", "1", "{}"}).status);
    EXPECT_EQ(2, run({"event", "20,0", "1", "{bad"}).status);
}

TEST_F(CliTest, RawPrintsTheReplyAsJson) {
    Result r = run({"raw", R"({"u32:0xff0007": 16646157})"});  // 0xFE000D, the get command
    ASSERT_EQ(0, r.status) << r.err;
    message got;
    std::string err;
    ASSERT_TRUE(message::from_json(r.out, got, &err)) << err << r.out;
    EXPECT_TRUE(got == agent.settings);

    r = run({"raw", R"({"u32[]:0x88ff0001": [1], "u32:0xff0007": 16646146, "u32:0xfe0001": 77})"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("error: 0xfe0004: no such object\n", r.err);
    ASSERT_TRUE(message::from_json(r.out, got, &err)) << err;
    EXPECT_EQ(uint32_t(ERR_NO_OBJECT), getErrorCode(got));
}

TEST_F(CliTest, ConnectionFailureIsOneLine) {
    Result r = run({"--socket", dir + "/absent.sock", "settings", "show"}, false);
    EXPECT_EQ(3, r.status);
    EXPECT_EQ(0u, r.err.rfind("error: cannot connect to ", 0)) << r.err;
    EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n'));
    EXPECT_TRUE(r.out.empty());
}
