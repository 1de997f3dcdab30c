#include "platform/fixture_backend.h"

#include <time.h>

#include <fstream>
#include <iostream>
#include <sstream>

#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

bool parsePath(std::string const& text, tn::u32_vector* out) {
    out->clear();
    std::string part;
    std::istringstream in(text);
    while (std::getline(in, part, '.')) {
        if (part.empty()) return false;
        char* end = nullptr;
        unsigned long v = std::strtoul(part.c_str(), &end, 0);
        if (*end != '\0' || v > 0xFFFFFFFFul) return false;
        out->push_back(uint32_t(v));
    }
    return true;
}

bool toMessage(json const& j, tn::message* out, std::string* err) {
    return tn::message::from_json(j.dump(), *out, err);
}

void sleepMs(unsigned ms) {
    struct timespec ts = {time_t(ms / 1000), long(ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

}  // namespace

class FixtureBackend::PathHandler : public tn::Handler {
public:
    PathHandler(FixtureBackend* owner) : owner_(owner) {}

    std::vector<tn::message> list;
    std::vector<uint32_t> listIds;  // 0xfe0001 of each listed object
    unsigned page = 100;
    bool hasGet = false;
    tn::message getReply;
    std::map<uint32_t, tn::message> counters;
    std::map<uint32_t, tn::message> errors;  // command -> error reply
    unsigned failAfterPages = 0;              // 0: never
    unsigned delayMs = 0;

    tn::message handle(tn::message const& req) override {
        if (delayMs) sleepMs(delayMs);
        uint32_t cmd = req.get(tn::u32_id(tn::F_COMMAND));
        auto e = errors.find(cmd);
        if (e != errors.end()) {
            if (!isQuery(cmd)) owner_->record(req);
            return e->second;
        }
        switch (cmd) {
        case tn::CMD_GET_ALL:
        case 1:
            // Command 1 naming one object is an action on it (a script run),
            // recorded like a set; without an object id it lists.
            if (cmd == 1 && ((list.empty() && !hasGet) || req.has(tn::u32_id(tn::F_OBJ_ID)))) break;
            return listPage(req);
        case tn::CMD_COUNT: {
            tn::message r;
            r.insert(tn::u32_id(tn::F_TOTAL), uint32_t(list.size()));
            return r;
        }
        case tn::CMD_GET:
            if (hasGet) return getReply;
            return tn::errorMsg(tn::ERR_NO_OBJECT, "no object at this path");
        case tn::CMD_GET_OBJ:
            return getObj(req);
        default:
            break;
        }
        owner_->record(req);
        return tn::message();
    }

private:
    static bool isQuery(uint32_t cmd) {
        return cmd == tn::CMD_GET_ALL || cmd == tn::CMD_COUNT || cmd == tn::CMD_GET || cmd == tn::CMD_GET_OBJ;
    }

    tn::message listPage(tn::message const& req) {
        uint32_t start = req.get(tn::u32_id(tn::F_START), 0);
        unsigned pageNo = page ? start / page : 0;
        if (failAfterPages && pageNo >= failAfterPages)
            return tn::errorMsg(tn::ERR_REFUSED, "listing failed");
        tn::message r;
        std::vector<tn::flat_message> objs;
        size_t end = std::min(list.size(), size_t(start) + page);
        for (size_t i = start; i < end; ++i) objs.emplace_back(list[i]);
        r.insert(tn::message_array_id(tn::F_OBJECTS), objs);
        if (end < list.size()) r.insert(tn::u32_id(tn::F_START), uint32_t(end));
        return r;
    }

    tn::message getObj(tn::message const& req) {
        uint32_t id = req.get(tn::u32_id(tn::F_OBJ_ID), 0xFFFFFFFF);
        for (size_t i = 0; i < list.size(); ++i) {
            if (listIds[i] != id) continue;
            tn::message r = list[i];
            if (req.get(tn::u32_id(tn::F_SELECTOR)) == 256) {
                auto c = counters.find(id);
                if (c != counters.end()) r.merge(c->second);
            }
            return r;
        }
        return tn::errorMsg(tn::ERR_NO_OBJECT, "no such object");
    }

    FixtureBackend* owner_;
};

class FixtureBackend::ControlHandler : public tn::Handler {
public:
    explicit ControlHandler(FixtureBackend* owner) : owner_(owner) {}
    tn::message handle(tn::message const& req) override {
        uint32_t cmd = req.get(tn::u32_id(tn::F_COMMAND));
        if (cmd == CMD_EMIT) {
            tn::u32_vector path = req.get(tn::u32_array_id(0x88000001));
            uint32_t what = req.get(tn::u32_id(0x02));
            if (path.empty() || !req.has(tn::message_id(0x28000003)))
                return tn::errorMsg(tn::ERR_MISSING_FIELD, "emit needs a path and an event");
            owner_->looper_->publish(path, what, req.get(tn::message_id(0x28000003)));
            return tn::message();
        }
        if (cmd == tn::CMD_GET_ALL) {
            tn::message r;
            r.insert(tn::message_array_id(tn::F_OBJECTS), owner_->recorded_);
            return r;
        }
        return tn::errorMsg(tn::ERR_REFUSED, "unknown fixture control command");
    }

private:
    FixtureBackend* owner_;
};

FixtureBackend::~FixtureBackend() {
    // Handlers stay registered with the looper for the process's life;
    // only a test that destroys the backend first removes them.
    for (tn::Handler* h : handlers_) {
        if (looper_) looper_->removeHandler(h->handlerPath());
        delete h;
    }
}

void FixtureBackend::record(tn::message const& m) {
    recorded_.push_back(m);
    if (recordFile_.empty()) return;
    std::ofstream out(recordFile_, std::ios::app);
    out << m.to_json() << "\n";
}

bool FixtureBackend::load(tn::Looper& looper, std::string const& file, std::string* err) {
    std::ifstream in(file);
    if (!in) {
        if (err) *err = "cannot read fixture file " + file;
        return false;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    return loadText(looper, ss.str(), err);
}

bool FixtureBackend::loadText(tn::Looper& looper, std::string const& text, std::string* err) {
    json doc = json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        if (err) *err = "fixture is not a JSON object";
        return false;
    }
    looper_ = &looper;
    json paths = doc.value("paths", json::object());
    if (!paths.is_object()) {
        if (err) *err = "fixture \"paths\" is not an object";
        return false;
    }
    std::vector<PathHandler*> made;
    for (auto it = paths.begin(); it != paths.end(); ++it) {
        tn::u32_vector path;
        std::string why;
        if (!parsePath(it.key(), &path) || !it.value().is_object()) {
            if (err) *err = "fixture path " + it.key() + " is malformed";
            for (PathHandler* h : made) delete h;
            return false;
        }
        json const& p = it.value();
        PathHandler* h = new PathHandler(this);
        made.push_back(h);
        h->setHandlerPath(path);
        bool ok = true;
        if (p.contains("list") && p["list"].is_array()) {
            for (json const& o : p["list"]) {
                tn::message m;
                if (!toMessage(o, &m, &why)) ok = false;
                h->listIds.push_back(m.get(tn::u32_id(tn::F_OBJ_ID), 0xFFFFFFFF));
                h->list.push_back(m);
            }
        }
        if (p.contains("get")) {
            h->hasGet = toMessage(p["get"], &h->getReply, &why);
            ok = ok && h->hasGet;
        }
        if (p.contains("counters") && p["counters"].is_object()) {
            for (auto c = p["counters"].begin(); c != p["counters"].end(); ++c) {
                tn::message m;
                if (!toMessage(c.value(), &m, &why)) ok = false;
                h->counters[uint32_t(std::strtoul(c.key().c_str(), nullptr, 0))] = m;
            }
        }
        if (p.contains("errors") && p["errors"].is_object()) {
            for (auto e = p["errors"].begin(); e != p["errors"].end(); ++e) {
                uint32_t cmd = uint32_t(std::strtoul(e.key().c_str(), nullptr, 0));
                h->errors[cmd] = tn::errorMsg(e.value().value("code", uint32_t(tn::ERR_REFUSED)),
                                              e.value().value("text", std::string("refused by fixture")));
            }
        }
        h->page = p.value("page", 100u);
        if (h->page == 0) h->page = 100;
        h->failAfterPages = p.value("fail_after_pages", 0u);
        h->delayMs = p.value("delay_ms", 0u);
        if (!ok) {
            if (err) *err = "fixture path " + it.key() + ": " + why;
            for (PathHandler* m : made) delete m;
            return false;
        }
    }
    for (PathHandler* h : made) {
        looper.addHandler(h->handlerPath(), h);
        handlers_.push_back(h);
    }
    ControlHandler* c = new ControlHandler(this);
    c->setHandlerPath({CONTROL_ID});
    looper.addHandler(c->handlerPath(), c);
    handlers_.push_back(c);
    return true;
}
