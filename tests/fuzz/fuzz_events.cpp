// Event-sequence fuzzer: bytes become a unit's events (records of every input
// type written, rewritten and deleted with values inside and outside every
// range, module events, card presence, role and card key events, chip-id
// lookup failures, session loss and return, restarts, and in half the inputs
// allocation failures). After each event the callbacks run to quiet and the
// consistency oracle checks TOPO_DB, the caches and the module's memory; a
// difference aborts with the events that led to it.
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
