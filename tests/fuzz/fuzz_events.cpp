// Event-sequence fuzzer: bytes become a unit's events (see decode_events);
// after each the oracle checks TOPO_DB, the caches and the module's memory,
// and a difference aborts with the events that led to it.
#include <cstdio>
#include <cstdlib>

#include "stress_unit.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    dpm_stress::oracle_module();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string failure = dpm_stress::run_event_input(data, size);
    if (!failure.empty()) {
        std::fprintf(stderr, "oracle found a difference after:\n%s", failure.c_str());
        std::abort();
    }
    return 0;
}
