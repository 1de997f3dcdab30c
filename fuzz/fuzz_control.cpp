// libFuzzer target; the work is in fuzz_entries.cpp so the unit build can
// replay the regression inputs through the same function.
#include "fuzz/fuzz_entries.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) { return fuzzControlCommand(data, size); }
