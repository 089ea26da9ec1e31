// Module-id lookup: the walk over every device's module-id list (first match
// in list order) against the module-id index the module keeps beside the
// lists. The application and the calculation look up a module id for every
// set bit of every port and filter bitmap, so this is the lookup on their
// hot path: up to 2048 lookups per aggregate port per applied device.
#include <benchmark/benchmark.h>

#include "module_state.h"

namespace {

// 2000 remote module ids on `devices` devices, as the module-id add path
// leaves them: appended to their device's list, counted and indexed.
void setup_cache(uint32_t devices) {
    dpm_test::clean_module(0, true);
    for (uint32_t m = 48; m < 2048; ++m) dpm_test::add_mod(2 + (m - 48) * devices / 2000, m);
}

// The lookup as a walk: devices in list order, each device's entries in order.
dpm_modid_info *walk_find(uint32_t modid) {
    dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        dpm_modid_info *e = nullptr;
        dpm_list_for_each_entry(e, &dev->modid_list, link) {
            if (e->modid == modid) return e;
        }
    }
    return nullptr;
}

// One full bitmap's worth of lookups (2048 module ids, 2000 of them present).
template <dpm_modid_info *(*Find)(uint32_t)>
void BM_lookup_all_modids(benchmark::State &state) {
    setup_cache(static_cast<uint32_t>(state.range(0)));
    for (uint32_t m = 0; m < DPM_MODID_MAX; ++m) {
        if (Find(m) != dpm_find_modid_info(m)) state.SkipWithError("lookups disagree");
    }
    for (auto _ : state) {
        for (uint32_t m = 0; m < DPM_MODID_MAX; ++m) benchmark::DoNotOptimize(Find(m));
    }
    state.SetItemsProcessed(state.iterations() * DPM_MODID_MAX);
}

}  // namespace

BENCHMARK(BM_lookup_all_modids<walk_find>)->Name("lookup/list_walk")->Arg(1)->Arg(8);
BENCHMARK(BM_lookup_all_modids<dpm_find_modid_info>)->Name("lookup/index")->Arg(1)->Arg(8);

BENCHMARK_MAIN();
