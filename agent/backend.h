// Wiring of the agent to its platform: the control socket and the backend
// that answers the platform's handler paths.
#pragma once

#include <string>

namespace tn {
class Looper;
}

bool startControlSocket(tn::Looper& looper, std::string* err);
bool startBackend(tn::Looper& looper, std::string* err);
