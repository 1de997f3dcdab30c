// Start-up options of the agent. The defaults are those of the router
// platform; a non-root host overrides them on the command line.
#pragma once

#include <cstdint>
#include <string>

struct AgentOptions {
    uint16_t port = 161;
    std::string bindAddress = "0.0.0.0";
    uint16_t trapPort = 162;
    std::string settingsStore = "/tarn/store/snmpd";
    std::string communityStore = "/tarn/store/snmp-communities";
    std::string controlSocket = "/tarn/store/snmpd.sock";
    std::string pluginDir = "/tarn/lib/snmp";
    std::string backend = "linux";  // "linux", "fixture" or "none"
    std::string backendFile;        // fixture file / optional extra data for linux
    std::string recordFile;         // fixture: where received set commands are appended
    std::string firstSettings;      // JSON settings applied when the store has no settings yet
    bool allowReboot = false;
    bool allowHostname = false;

    // Sets the store and socket paths under dir.
    void setStateDir(std::string const& dir);
    // Parses argv; false with a one-line reason in err (or for --help, with
    // the usage text in err and help set).
    bool parse(int argc, char** argv, std::string* err, bool* help);
    static std::string usage();
};

extern AgentOptions agentOptions;
