// kestrelctl: the operator's command line for a running agent, over its
// control socket.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tn/looper.h"
#include "tools/ctl_values.h"

using tn::message;
using ordered_json = nlohmann::ordered_json;

namespace {

// Exit codes.
enum { EXIT_OK = 0, EXIT_AGENT_ERROR = 1, EXIT_USAGE = 2, EXIT_CONNECT = 3 };

constexpr uint32_t CMD_GENERATORS = 100;
constexpr uint32_t CMD_TRAP = 1;
constexpr uint32_t ID_COMMUNITIES = 1;
constexpr uint32_t F_TRAP_OID = 1001, F_TRAP_TYPE = 1002, F_TRAP_VALUE = 1003;

const char* kUsage =
    "usage: kestrelctl [--socket PATH | --state-dir DIR] [--json] [--timeout MS] COMMAND ...\n"
    "\n"
    "commands:\n"
    "  settings show                       the agent's settings\n"
    "  settings set KEY=VALUE...           change settings; keys: enabled, contact, location,\n"
    "                                      community, engine-id, time-window, boots, trap-target,\n"
    "                                      trap-community, trap-version, generators\n"
    "  communities list                    every community / SNMPv3 user\n"
    "  communities show ID                 one of them in full\n"
    "  communities add name=NAME [KEY=VALUE...]\n"
    "  communities set ID KEY=VALUE...     keys: name, read, write, address, netmask, level,\n"
    "                                      auth, priv, auth-pass, priv-pass (and id for add)\n"
    "  communities remove ID\n"
    "  generators                          the trap generators that settings can select\n"
    "  trap [oid=OID] [type=TYPE] [value=VALUE]   send a test trap\n"
    "  event PATH CMD JSON                 inject a platform event (PATH like 20,0)\n"
    "  raw JSON                            send a bus message as is, print the reply\n"
    "\n"
    "The socket is PATH, or DIR/control.sock (default /tarn/store/snmpd.sock).\n"
    "Exit status: 0 done, 1 the agent refused, 2 bad usage, 3 no connection.\n";

struct Cli {
    std::string socket = "/tarn/store/snmpd.sock";
    bool json = false;
    int timeoutMs = 6000;
    tn::Looper looper;
    bool connected = false;

    int usage(const std::string& why) {
        std::fprintf(stderr, "error: %s (see kestrelctl --help)\n", why.c_str());
        return EXIT_USAGE;
    }

    bool connect(int& rc) {
        if (connected) return true;
        std::string err;
        if (!looper.connectTo(socket, &err)) {
            std::fprintf(stderr, "error: %s\n", err.c_str());
            rc = EXIT_CONNECT;
            return false;
        }
        connected = true;
        return true;
    }

    static std::string errorLine(const message& r) {
        uint32_t code = tn::getErrorCode(r);
        std::string text = tn::getError(r);
        if (text.empty()) {
            switch (code) {
            case tn::ERR_NO_OBJECT: text = "no such object"; break;
            case tn::ERR_MISSING_FIELD: text = "missing field"; break;
            case tn::ERR_REFUSED: text = "refused"; break;
            case tn::ERR_UNKNOWN_START: text = "unknown start object"; break;
            case tn::ERR_TIMEOUT: text = "no answer in time"; break;
            case tn::ERR_DISCONNECTED: text = "connection lost"; break;
            case tn::ERR_MALFORMED: text = "malformed message"; break;
            case tn::ERR_NOT_ALLOWED: text = "not allowed"; break;
            default: text = "failed";
            }
        }
        char b[32];
        std::snprintf(b, sizeof b, "0x%x", code);
        return std::string("error: ") + b + ": " + text;
    }

    // Sends one request and waits for the reply; false (after printing the
    // error line) when the agent refused or could not be reached.
    bool exchange(message& m, message& reply, int& rc) {
        if (!connect(rc)) return false;
        reply = looper.exchangeMessage(m, timeoutMs);
        if (tn::isError(reply)) {
            std::fprintf(stderr, "%s\n", errorLine(reply).c_str());
            uint32_t code = tn::getErrorCode(reply);
            rc = code == tn::ERR_DISCONNECTED || code == tn::ERR_TIMEOUT ? EXIT_CONNECT : EXIT_AGENT_ERROR;
            return false;
        }
        return true;
    }

    static message request(uint32_t cmd, const tn::u32_vector& path) {
        message m;
        m.insert(tn::u32_id(tn::F_COMMAND), cmd);
        m.insert(tn::u32_array_id(tn::F_PATH), path);
        return m;
    }

    void done(const std::string& text, const ordered_json& j) {
        if (json)
            std::cout << j.dump() << "\n";
        else
            std::cout << text << "\n";
    }

    // KEY=VALUE arguments into m; rc set on a usage error.
    bool parseAssignments(const std::vector<std::string>& args, size_t from, const std::vector<ctl::Field>& fields,
                          message& m, int& rc, bool allowId) {
        std::set<std::string> seen;
        for (size_t i = from; i < args.size(); ++i) {
            size_t eq = args[i].find('=');
            if (eq == std::string::npos || eq == 0) {
                rc = usage("expected KEY=VALUE, got \"" + args[i] + "\"");
                return false;
            }
            std::string key = args[i].substr(0, eq);
            const ctl::Field* f = ctl::findField(fields, key);
            if (!f || (!allowId && key == "id")) {
                std::string names;
                for (const ctl::Field& x : fields)
                    if (allowId || std::strcmp(x.name, "id") != 0) names += std::string(names.empty() ? "" : ", ") + x.name;
                rc = usage("unknown key \"" + key + "\" (known: " + names + ")");
                return false;
            }
            if (!seen.insert(key).second) {
                rc = usage("key \"" + key + "\" given twice");
                return false;
            }
            std::string err;
            if (!ctl::putValue(m, *f, args[i].substr(eq + 1), &err)) {
                rc = usage(err);
                return false;
            }
        }
        return true;
    }

    // ---- settings ----

    int settingsShow() {
        message m = request(tn::CMD_GET, {}), r;
        int rc = EXIT_OK;
        if (!exchange(m, r, rc)) return rc;
        uint32_t target = r.get(tn::be32_id(0x10));
        uint32_t trapCommunity = r.get(tn::u32_id(0x11), 0xFFFFFFFFu);
        tn::u32_vector gens = r.get(tn::u32_array_id(0x13));
        ordered_json j;
        j["enabled"] = r.get(tn::bool_id(0x01));
        j["contact"] = r.get(tn::string_id(0x02));
        j["location"] = r.get(tn::string_id(0x03));
        j["community"] = r.get(tn::string_id(0x04));
        j["engine-id"] = r.get(tn::string_id(0x0A));
        j["time-window"] = r.get(tn::u32_id(0x0E));
        j["boots"] = r.get(tn::u32_id(0x0D));
        j["trap-target"] = ctl::ipv4Text(target);
        j["trap-community"] = trapCommunity;
        j["trap-version"] = r.get(tn::u32_id(0x12));
        j["generators"] = gens;
        if (json) {
            std::cout << j.dump() << "\n";
            return EXIT_OK;
        }
        std::string genText;
        for (uint32_t g : gens) genText += (genText.empty() ? "" : ", ") + (g == 0xABC0001 ? "start-trap" : std::to_string(g));
        uint32_t version = r.get(tn::u32_id(0x12));
        auto line = [](const char* k, const std::string& v) { std::printf("%-16s%s\n", k, v.c_str()); };
        line("enabled", r.get(tn::bool_id(0x01)) ? "yes" : "no");
        line("contact", r.get(tn::string_id(0x02)));
        line("location", r.get(tn::string_id(0x03)));
        line("community", r.get(tn::string_id(0x04)));
        line("engine-id", r.get(tn::string_id(0x0A)));
        line("time-window", std::to_string(r.get(tn::u32_id(0x0E))));
        line("boots", std::to_string(r.get(tn::u32_id(0x0D))));
        line("trap-target", target ? ctl::ipv4Text(target) : "none");
        line("trap-community", trapCommunity == 0xFFFFFFFFu ? "none" : std::to_string(trapCommunity));
        line("trap-version", version == 0 ? "0 (v1)" : version == 1 ? "1 (v2c)" : version == 3 ? "3 (v3)"
                                                                                            : std::to_string(version));
        line("generators", genText.empty() ? "none" : genText);
        return EXIT_OK;
    }

    int settingsSet(const std::vector<std::string>& args) {
        if (args.size() < 3) return usage("settings set needs KEY=VALUE arguments");
        message m = request(tn::CMD_SET, {}), r;
        int rc = EXIT_OK;
        if (!parseAssignments(args, 2, ctl::settingsFields(), m, rc, true)) return rc;
        if (!exchange(m, r, rc)) return rc;
        done("settings changed", ordered_json{{"ok", true}});
        return EXIT_OK;
    }

    // ---- communities ----

    static ordered_json communityJson(const message& c) {
        ordered_json j;
        j["id"] = c.get(tn::u32_id(tn::F_OBJ_ID), 0xFFFFFFFFu);
        j["name"] = c.get(tn::string_id(0x05));
        j["read"] = c.get(tn::bool_id(0x06));
        j["write"] = c.get(tn::bool_id(0x07));
        j["address"] = ctl::ipv4Text(c.get(tn::be32_id(0x08)));
        j["netmask"] = ctl::ipv4Text(c.get(tn::be32_id(0x09)));
        j["level"] = c.get(tn::u32_id(0x0F));
        j["auth"] = ctl::authText(c.get(tn::u32_id(0x14)));
        j["priv"] = ctl::privText(c.get(tn::u32_id(0x15)));
        j["auth-pass-set"] = !c.get(tn::string_id(0x0B)).empty();
        j["priv-pass-set"] = !c.get(tn::string_id(0x0C)).empty();
        return j;
    }

    static std::string sourceText(const message& c) {
        uint32_t mask = c.get(tn::be32_id(0x09));
        if (mask == 0) return "any";
        uint32_t addr = c.get(tn::be32_id(0x08));
        int bits = 0;
        while (bits < 32 && (mask & (0x80000000u >> bits))) ++bits;
        bool contiguous = bits == 32 || (mask << bits) == 0;
        return ctl::ipv4Text(addr) + "/" + (contiguous ? std::to_string(bits) : ctl::ipv4Text(mask));
    }

    static std::string accessText(const message& c) {
        bool rd = c.get(tn::bool_id(0x06)), wr = c.get(tn::bool_id(0x07));
        return rd && wr ? "read,write" : rd ? "read" : wr ? "write" : "none";
    }

    int communitiesList() {
        std::vector<message> all;
        uint32_t start = 0xFFFFFFFFu;
        bool more = true;
        std::set<uint32_t> starts;
        while (more) {
            message m = request(tn::CMD_GET_ALL, {ID_COMMUNITIES}), r;
            if (start != 0xFFFFFFFFu) m.insert(tn::u32_id(tn::F_START), start);
            int rc = EXIT_OK;
            if (!exchange(m, r, rc)) return rc;
            for (const message& c : r.get(tn::message_array_id(tn::F_OBJECTS))) all.push_back(c);
            more = r.has(tn::u32_id(tn::F_START));
            start = r.get(tn::u32_id(tn::F_START));
            if (more && !starts.insert(start).second) {
                std::fprintf(stderr, "error: the listing does not end (start %u repeats)\n", start);
                return EXIT_AGENT_ERROR;
            }
        }
        if (json) {
            ordered_json j = ordered_json::array();
            for (const message& c : all) j.push_back(communityJson(c));
            std::cout << j.dump() << "\n";
            return EXIT_OK;
        }
        size_t w = 4;
        for (const message& c : all) w = std::max(w, c.get(tn::string_id(0x05)).size());
        std::printf("%-6s %-*s %-11s %-19s %-13s %-4s %s\n", "ID", int(w), "NAME", "ACCESS", "SOURCE", "LEVEL", "AUTH",
                    "PRIV");
        for (const message& c : all)
            std::printf("%-6s %-*s %-11s %-19s %-13s %-4s %s\n",
                        ctl::idText(c.get(tn::u32_id(tn::F_OBJ_ID), 0xFFFFFFFFu)).c_str(), int(w),
                        c.get(tn::string_id(0x05)).c_str(), accessText(c).c_str(), sourceText(c).c_str(),
                        ctl::levelText(c.get(tn::u32_id(0x0F))).c_str(), ctl::authText(c.get(tn::u32_id(0x14))).c_str(),
                        ctl::privText(c.get(tn::u32_id(0x15))).c_str());
        return EXIT_OK;
    }

    bool parseId(const std::vector<std::string>& args, size_t at, uint32_t& id, int& rc) {
        if (args.size() <= at || !ctl::parseU32(args[at], id)) {
            rc = usage("expected a community id");
            return false;
        }
        return true;
    }

    int communitiesShow(const std::vector<std::string>& args) {
        uint32_t id;
        int rc = EXIT_OK;
        if (!parseId(args, 2, id, rc)) return rc;
        if (args.size() > 3) return usage("communities show takes one id");
        message m = request(tn::CMD_GET_OBJ, {ID_COMMUNITIES}), r;
        m.insert(tn::u32_id(tn::F_OBJ_ID), id);
        if (!exchange(m, r, rc)) return rc;
        if (json) {
            std::cout << communityJson(r).dump() << "\n";
            return EXIT_OK;
        }
        auto line = [](const char* k, const std::string& v) { std::printf("%-11s%s\n", k, v.c_str()); };
        uint32_t level = r.get(tn::u32_id(0x0F));
        line("id", std::to_string(r.get(tn::u32_id(tn::F_OBJ_ID), id)));
        line("name", r.get(tn::string_id(0x05)));
        line("read", r.get(tn::bool_id(0x06)) ? "yes" : "no");
        line("write", r.get(tn::bool_id(0x07)) ? "yes" : "no");
        line("address", ctl::ipv4Text(r.get(tn::be32_id(0x08))));
        line("netmask", ctl::ipv4Text(r.get(tn::be32_id(0x09))));
        line("level", std::to_string(level) + " (" + ctl::levelText(level) + ")");
        line("auth", ctl::authText(r.get(tn::u32_id(0x14))));
        line("priv", ctl::privText(r.get(tn::u32_id(0x15))));
        line("auth-pass", r.get(tn::string_id(0x0B)).empty() ? "(empty)" : "(set)");
        line("priv-pass", r.get(tn::string_id(0x0C)).empty() ? "(empty)" : "(set)");
        return EXIT_OK;
    }

    int communitiesAdd(const std::vector<std::string>& args) {
        message m = request(tn::CMD_ADD_OBJ, {ID_COMMUNITIES}), r;
        int rc = EXIT_OK;
        if (!parseAssignments(args, 2, ctl::communityFields(), m, rc, true)) return rc;
        if (!m.has(tn::string_id(0x05))) return usage("communities add needs name=NAME");
        if (!exchange(m, r, rc)) return rc;
        uint32_t id = r.get(tn::u32_id(tn::F_OBJ_ID));
        done("added community " + std::to_string(id), ordered_json{{"id", id}});
        return EXIT_OK;
    }

    int communitiesSet(const std::vector<std::string>& args) {
        uint32_t id;
        int rc = EXIT_OK;
        if (!parseId(args, 2, id, rc)) return rc;
        if (args.size() < 4) return usage("communities set needs KEY=VALUE arguments");
        message m = request(tn::CMD_SET_OBJ, {ID_COMMUNITIES}), r;
        if (!parseAssignments(args, 3, ctl::communityFields(), m, rc, false)) return rc;
        m.insert(tn::u32_id(tn::F_OBJ_ID), id);
        if (!exchange(m, r, rc)) return rc;
        done("changed community " + std::to_string(id), ordered_json{{"ok", true}, {"id", id}});
        return EXIT_OK;
    }

    int communitiesRemove(const std::vector<std::string>& args) {
        uint32_t id;
        int rc = EXIT_OK;
        if (!parseId(args, 2, id, rc)) return rc;
        if (args.size() > 3) return usage("communities remove takes one id");
        message m = request(tn::CMD_REMOVE_OBJ, {ID_COMMUNITIES}), r;
        m.insert(tn::u32_id(tn::F_OBJ_ID), id);
        if (!exchange(m, r, rc)) return rc;
        done("removed community " + std::to_string(id), ordered_json{{"ok", true}, {"id", id}});
        return EXIT_OK;
    }

    // ---- traps, events, raw messages ----

    int generators(const std::vector<std::string>& args) {
        if (args.size() > 1) return usage("generators takes no arguments");
        message m = request(CMD_GENERATORS, {}), r;
        int rc = EXIT_OK;
        if (!exchange(m, r, rc)) return rc;
        std::vector<message> list = r.get(tn::message_array_id(tn::F_OBJECTS));
        if (json) {
            ordered_json j = ordered_json::array();
            for (const message& g : list)
                j.push_back(ordered_json{{"id", g.get(tn::u32_id(tn::F_OBJ_ID))},
                                         {"name", g.get(tn::string_id(tn::F_OBJ_NAME))}});
            std::cout << j.dump() << "\n";
            return EXIT_OK;
        }
        std::printf("%-11s %s\n", "ID", "NAME");
        for (const message& g : list)
            std::printf("%-11s %s\n", ctl::idText(g.get(tn::u32_id(tn::F_OBJ_ID))).c_str(),
                        g.get(tn::string_id(tn::F_OBJ_NAME)).c_str());
        return EXIT_OK;
    }

    int trap(const std::vector<std::string>& args) {
        message m = request(CMD_TRAP, {}), r;
        static const struct {
            const char* name;
            uint32_t code;
        } types[] = {{"integer", 2}, {"string", 4}, {"null", 5}, {"oid", 6}, {"ipaddress", 0x40},
                     {"counter", 0x41}, {"gauge", 0x42}, {"timeticks", 0x43}};
        for (size_t i = 1; i < args.size(); ++i) {
            size_t eq = args[i].find('=');
            std::string key = args[i].substr(0, eq), value = eq == std::string::npos ? "" : args[i].substr(eq + 1);
            if (eq == std::string::npos) return usage("expected KEY=VALUE, got \"" + args[i] + "\"");
            if (key == "oid") {
                m.insert(tn::string_id(F_TRAP_OID), value);
            } else if (key == "value") {
                m.insert(tn::string_id(F_TRAP_VALUE), value);
            } else if (key == "type") {
                uint32_t code = 0xFFFFFFFFu;
                for (const auto& t : types)
                    if (value == t.name) code = t.code;
                if (code == 0xFFFFFFFFu && !ctl::parseU32(value, code))
                    return usage("bad trap type \"" + value + "\" (a BER tag number, or integer, string, null, oid, "
                                 "ipaddress, counter, gauge, timeticks)");
                m.insert(tn::u32_id(F_TRAP_TYPE), code);
            } else {
                return usage("unknown key \"" + key + "\" (known: oid, type, value)");
            }
        }
        int rc = EXIT_OK;
        if (!exchange(m, r, rc)) return rc;
        done("trap requested", ordered_json{{"ok", true}});
        return EXIT_OK;
    }

    int event(const std::vector<std::string>& args) {
        if (args.size() != 4) return usage("event needs PATH CMD JSON");
        tn::u32_vector sender;
        uint32_t cmd;
        message m, r;
        std::string err;
        if (!ctl::parsePath(args[1], sender)) return usage("bad path \"" + args[1] + "\"");
        if (!ctl::parseU32(args[2], cmd)) return usage("bad command \"" + args[2] + "\"");
        if (!message::from_json(args[3], m, &err)) return usage("bad event JSON: " + err);
        m.insert(tn::u32_id(tn::F_COMMAND), cmd);
        m.insert(tn::u32_array_id(tn::F_SENDER), sender);
        m.insert(tn::u32_array_id(tn::F_PATH), tn::u32_vector());
        int rc = EXIT_OK;
        if (!exchange(m, r, rc)) return rc;
        if (json || !r.empty())
            std::cout << r.to_json() << "\n";
        else
            std::cout << "event delivered\n";
        return EXIT_OK;
    }

    int raw(const std::vector<std::string>& args) {
        if (args.size() != 2) return usage("raw needs one JSON message");
        message m;
        std::string err;
        if (!message::from_json(args[1], m, &err)) return usage("bad message JSON: " + err);
        int rc = EXIT_OK;
        if (!connect(rc)) return rc;
        message r = looper.exchangeMessage(m, timeoutMs);
        std::cout << r.to_json(json ? -1 : 2) << "\n";
        if (tn::isError(r)) {
            std::fprintf(stderr, "%s\n", errorLine(r).c_str());
            return EXIT_AGENT_ERROR;
        }
        return EXIT_OK;
    }

    int dispatch(const std::vector<std::string>& args) {
        if (args.empty()) return usage("no command given");
        const std::string& c = args[0];
        std::string sub = args.size() > 1 ? args[1] : "";
        if (c == "settings") {
            if (sub == "show" && args.size() == 2) return settingsShow();
            if (sub == "set") return settingsSet(args);
            return usage("settings show | settings set KEY=VALUE...");
        }
        if (c == "communities" || c == "community") {
            if (sub == "list" && args.size() == 2) return communitiesList();
            if (sub == "show") return communitiesShow(args);
            if (sub == "add") return communitiesAdd(args);
            if (sub == "set") return communitiesSet(args);
            if (sub == "remove") return communitiesRemove(args);
            return usage("communities list | show ID | add KEY=VALUE... | set ID KEY=VALUE... | remove ID");
        }
        if (c == "generators") return generators(args);
        if (c == "trap") return trap(args);
        if (c == "event") return event(args);
        if (c == "raw") return raw(args);
        return usage("unknown command \"" + c + "\"");
    }
};

}  // namespace

int main(int argc, char** argv) {
    Cli cli;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) return false;
            out = argv[++i];
            return true;
        };
        std::string v;
        if (a == "-h" || a == "--help") {
            std::printf("%s", kUsage);
            return EXIT_OK;
        } else if (a == "--json") {
            cli.json = true;
        } else if (a == "--socket") {
            if (!value(cli.socket)) return cli.usage("--socket needs a path");
        } else if (a == "--state-dir") {
            if (!value(v)) return cli.usage("--state-dir needs a folder");
            cli.socket = v + "/control.sock";
        } else if (a == "--timeout") {
            uint32_t ms;
            if (!value(v) || !ctl::parseU32(v, ms) || ms == 0 || ms > 600000)
                return cli.usage("--timeout needs milliseconds (1 to 600000)");
            cli.timeoutMs = int(ms);
        } else if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
            return cli.usage("unknown option " + a);
        } else {
            args.push_back(a);
        }
    }
    return cli.dispatch(args);
}
