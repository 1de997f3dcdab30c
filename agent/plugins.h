// Loading of plug-in shared objects at start-up.
#pragma once

#include <string>

void loadPlugins(std::string const& dir);
