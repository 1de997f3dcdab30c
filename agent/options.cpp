#include "agent/options.h"

#include <cstdlib>
#include <cstring>

AgentOptions agentOptions;

void AgentOptions::setStateDir(std::string const& dir) {
    settingsStore = dir + "/snmpd";
    communityStore = dir + "/snmp-communities";
    controlSocket = dir + "/control.sock";
}

std::string AgentOptions::usage() {
    return "usage: kestrel-snmpd [options]\n"
           "  --port N             UDP port of the service (161)\n"
           "  --bind ADDR          IPv4 address to bind (0.0.0.0)\n"
           "  --trap-port N        UDP port of the trap sink (162)\n"
           "  --state-dir DIR      settings and community stores and control socket under DIR\n"
           "  --settings-store F   settings store file (/tarn/store/snmpd)\n"
           "  --community-store F  community store file (/tarn/store/snmp-communities)\n"
           "  --control-socket F   control socket path\n"
           "  --plugin-dir DIR     plug-in folder (/tarn/lib/snmp)\n"
           "  --backend NAME       linux (default), fixture or none\n"
           "  --backend-file F     fixture file, or extra data for the linux backend\n"
           "  --record-file F      fixture: append received set commands here\n"
           "  --first-settings F   JSON settings applied when the store has none yet\n"
           "  --allow-reboot       let a reboot request reach the host backend\n"
           "  --allow-hostname     let sysName sets change the host name\n";
}

static bool parsePort(char const* s, uint16_t* out) {
    char* end = nullptr;
    unsigned long v = std::strtoul(s, &end, 10);
    if (!*s || *end || v == 0 || v > 65535) return false;
    *out = uint16_t(v);
    return true;
}

bool AgentOptions::parse(int argc, char** argv, std::string* err, bool* help) {
    *help = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            *help = true;
            *err = usage();
            return false;
        }
        if (a == "--allow-reboot") { allowReboot = true; continue; }
        if (a == "--allow-hostname") { allowHostname = true; continue; }
        if (i + 1 >= argc) {
            *err = "option " + a + " needs a value";
            return false;
        }
        char const* v = argv[++i];
        if (a == "--port" || a == "--trap-port") {
            if (!parsePort(v, a == "--port" ? &port : &trapPort)) {
                *err = "bad port for " + a + ": " + v;
                return false;
            }
        } else if (a == "--bind") bindAddress = v;
        else if (a == "--state-dir") setStateDir(v);
        else if (a == "--settings-store") settingsStore = v;
        else if (a == "--community-store") communityStore = v;
        else if (a == "--control-socket") controlSocket = v;
        else if (a == "--plugin-dir") pluginDir = v;
        else if (a == "--backend") {
            backend = v;
            if (backend != "linux" && backend != "fixture" && backend != "none") {
                *err = "unknown backend: " + backend;
                return false;
            }
        } else if (a == "--backend-file") backendFile = v;
        else if (a == "--record-file") recordFile = v;
        else if (a == "--first-settings") firstSettings = v;
        else {
            *err = "unknown option: " + a;
            return false;
        }
    }
    return true;
}
