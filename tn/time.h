// Platform clocks.
#pragma once

#include <cstdint>
#include <string>

namespace tn {

uint32_t getUptime();   // seconds since boot (monotonic)
uint32_t getJiffies();  // hundredths of a second since boot (monotonic)
// Tests replace the source of both clocks: a function returning
// milliseconds; null restores the system clock.
void setTimeSource(uint64_t (*msSource)());

}  // namespace tn

// The operating system's version string ("Linux 6.1.0-...").
std::string getOSVersion();
