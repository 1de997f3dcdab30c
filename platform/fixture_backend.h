// The fixture backend: answers platform handler paths from a JSON file.
//
// File format:
// {
//   "paths": {
//     "20.0": {
//       "list":  [ {message}, ... ],    // objects of list (0xfe0004) and of command 1 without 0xfe0001
//       "page":  2,                     // objects per list reply (default 100)
//       "get":   {message},             // reply of get (0xfe000d)
//       "counters": { "5": {message} }, // merged into get-object replies with selector 256
//       "errors": { "0xfe0004": {"code": 65540, "text": "..."} },  // per command
//       "fail_after_pages": 1,          // list replies after this many pages are errors
//       "delay_ms": 0                   // every reply is delayed this long
//     }, ...
//   }
// }
// Messages use tn::message's JSON form (keys like "u32:0xfe0001").
// Commands other than get, list, count and get-object (sets, runs,
// reboots) are answered with an empty message (or the configured error)
// and recorded: appended as one JSON line to the record file when one is
// given, and kept in memory.
//
// The backend also serves the control path {0xFFFE}:
//   command 0xFFFE01 with u32 array 0x88000001 (path), u32 0x02 (command) and
//   message 0x28000003 (event) publishes that event to its subscribers;
//   command 0xFE0004 lists the recorded commands.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tn/handler.h"
#include "tn/looper.h"

class FixtureBackend {
public:
    enum : uint32_t { CONTROL_ID = 0xFFFE, CMD_EMIT = 0xFFFE01 };

    // Loads the file and registers one handler per path on the looper.
    // False with a one-line reason when the file cannot be read or parsed.
    bool load(tn::Looper& looper, std::string const& file, std::string* err);
    // Same from JSON text.
    bool loadText(tn::Looper& looper, std::string const& json, std::string* err);
    void setRecordFile(std::string const& path) { recordFile_ = path; }
    std::vector<tn::message> const& recorded() const { return recorded_; }

    ~FixtureBackend();

private:
    class PathHandler;
    class ControlHandler;
    void record(tn::message const& m);

    tn::Looper* looper_ = nullptr;
    std::vector<tn::Handler*> handlers_;
    std::vector<tn::message> recorded_;
    std::string recordFile_;
};
