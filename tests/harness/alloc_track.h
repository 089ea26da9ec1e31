// Allocator of the module's test builds (see alloc_track.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
// Calls made to fail by an armed fault, since the process started.
size_t dpm_alloc_failures(void);
// Blocks handed out through the wrapped functions and not freed yet.
size_t dpm_alloc_held_count(void);
// 1 when `p` is the start of such a block.
int dpm_alloc_held(const void *p);
// Free every such block: the end of a module instance inside one process.
void dpm_alloc_release_all(void);
}
