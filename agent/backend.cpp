#include "agent/backend.h"

#include <unistd.h>

#include "agent/options.h"
#include "platform/fixture_backend.h"
#include "platform/linux_backend.h"
#include "tn/looper.h"

bool startControlSocket(tn::Looper& looper, std::string* err) {
    if (agentOptions.controlSocket.empty()) return true;
    // A socket left by an earlier run would make the bind fail.
    unlink(agentOptions.controlSocket.c_str());
    std::string why;
    if (looper.listen(agentOptions.controlSocket, &why)) return true;
    *err = "cannot open control socket " + agentOptions.controlSocket + ": " + why;
    return false;
}

bool startBackend(tn::Looper& looper, std::string* err) {
    if (agentOptions.backend == "none") return true;
    if (agentOptions.backend == "fixture") {
        static FixtureBackend fixture;
        fixture.setRecordFile(agentOptions.recordFile);
        std::string why;
        if (fixture.load(looper, agentOptions.backendFile, &why)) return true;
        *err = "fixture backend: " + why;
        return false;
    }
    tn::LinuxBackendOptions opts;
    opts.dataFile = agentOptions.backendFile;
    opts.allowHostnameChange = agentOptions.allowHostname;
    opts.allowReboot = agentOptions.allowReboot;
    std::string why;
    static std::unique_ptr<tn::LinuxBackend> host;
    host = tn::registerLinuxBackend(looper, opts, &why);
    if (host) return true;
    *err = "linux backend: " + why;
    return false;
}
