// Allocator of the module's test builds: dpm_track_allocations() (CMake) routes
// malloc, calloc, realloc and free here (--wrap), so that an armed fault
// (platform::fail, the host's `fail` command) makes the next such call fail and
// every block not yet freed is known. The table lives outside the module's copy
// (rewinding its globals leaves it alone) and holds the addresses inverted: to
// the leak checker a block is reachable only through the module.
#include "alloc_track.h"

#include <cstdlib>
#include <unordered_set>

#include "platform_ctl.h"

namespace {

std::unordered_set<uintptr_t> &held() {
    static auto *h = new std::unordered_set<uintptr_t>();
    return *h;
}

size_t g_failures = 0;

bool failing(const char *op) {
    if (!platform::take_fault(op)) return false;
    ++g_failures;
    return true;
}

uintptr_t key(const void *p) {
    return ~reinterpret_cast<uintptr_t>(p);
}

void *keep(void *p) {
    if (p != nullptr) held().insert(key(p));
    return p;
}

}  // namespace

extern "C" {

void *__wrap_malloc(size_t n) {
    if (failing("malloc")) return nullptr;
    return keep(malloc(n));  // NOLINT(cppcoreguidelines-no-malloc)
}

void *__wrap_calloc(size_t n, size_t size) {
    if (failing("calloc")) return nullptr;
    return keep(calloc(n, size));  // NOLINT(cppcoreguidelines-no-malloc)
}

void *__wrap_realloc(void *p, size_t n) {
    if (failing("realloc")) return nullptr;
    const uintptr_t old = key(p);
    void *q = realloc(p, n);  // NOLINT(cppcoreguidelines-no-malloc)
    if (old != key(nullptr) && (q != nullptr || n == 0)) held().erase(old);
    return keep(q);
}

void __wrap_free(void *p) {
    if (p != nullptr) held().erase(key(p));
    free(p);  // NOLINT(cppcoreguidelines-no-malloc)
}

size_t dpm_alloc_failures(void) {
    return g_failures;
}

size_t dpm_alloc_held_count(void) {
    return held().size();
}

int dpm_alloc_held(const void *p) {
    return held().count(key(p)) != 0 ? 1 : 0;
}

void dpm_alloc_release_all(void) {
    for (uintptr_t k : held()) free(reinterpret_cast<void *>(~k));  // NOLINT
    held().clear();
}

}  // extern "C"
