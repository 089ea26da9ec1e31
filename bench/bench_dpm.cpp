// Cost of the forwarding-configuration events on a full unit: 2000 remote
// module ids (1000 behind each aggregate port) and 16 VSL ports per aggregate
// port. Reports time per event and TOPO_DB records written per event.
#include <benchmark/benchmark.h>

#include "module_state.h"
#include "platform_ctl.h"
#include "record_builders.h"

namespace {

using namespace dpm_test;

constexpr int kPorts = 16;

dpm_vsl_info port(int apid, int lport) {
    return make_vsl(apid, lport, static_cast<uint32_t>(apid * 100 + lport),
                    static_cast<uint32_t>(apid * 100 + 50 + lport), apid);
}

// Device 2 behind `oif2`, device 3 behind `oif3`.
void add_map(uint8_t oif2, uint8_t oif3) {
    set_dtm({{1, 2, oif2}, {1, 3, oif3}, {2, 1, 1}, {3, 1, 2}},
            {{1, 2, 1, 2, 1, 2}, {1, 3, 2, 2, 1, 2}});
}

void setup_unit() {
    clean_module(0, true);
    auto add = [](uint32_t devid, uint32_t m) {
        add_mod(devid, m, DPM_NODE_BOX, static_cast<int32_t>(m % 8 + 1), static_cast<int32_t>(m));
    };
    for (uint32_t m = 1; m <= 8; ++m) add(1, m);
    for (uint32_t m = 48; m < 1048; ++m) add(2, m);
    for (uint32_t m = 1048; m < 2048; ++m) add(3, m);
    for (int apid = 1; apid <= 2; ++apid) {
        for (int lport = 1; lport <= kPorts; ++lport) {
            dpm_vsl_info v = port(apid, lport);
            dpm_add_vsl_info(&dpm_vslap_cache, &v, apid);
        }
        dpm_set_ap_member_chg(apid);
    }
    dpm_restore_vsl_lb_ptr();
    ds_ready();
    add_map(1, 2);
    dpm_calc_kel_cfg_by_dtm();
    dpm_apply_kel_cfg();
    platform::clear_module_writes();
    platform::take_log();
}

void finish(benchmark::State &state, size_t written) {
    state.counters["records/event"] =
        benchmark::Counter(static_cast<double>(written) / static_cast<double>(state.iterations()));
    platform::take_log();
}

// A new map arrives: steady (same routes) or moving device 3 between ports.
void BM_MapEvent(benchmark::State &state) {
    setup_unit();
    g_udp_dpm_zlog_level = static_cast<uint32_t>(state.range(0));
    const bool moving = state.range(1) != 0;
    size_t written = 0;
    bool flip = false;
    for (auto _ : state) {
        flip = !flip;
        add_map(1, moving && flip ? 1 : 2);
        dpm_calc_kel_cfg_by_dtm();
        dpm_apply_kel_cfg();
        state.PauseTiming();
        written += platform::module_writes().size();
        platform::clear_module_writes();
        platform::take_log();
        state.ResumeTiming();
    }
    finish(state, written);
    dpm_cache_init();
}
BENCHMARK(BM_MapEvent)
    ->ArgNames({"level", "moving"})
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMicrosecond);
// Fixed numbers of steady map events, for instruction counts (callgrind): the
// two runs differ by exactly 100 events, whatever the machine's speed.
BENCHMARK(BM_MapEvent)->Name("BM_MapEventFixed")->Args({0, 0})->Iterations(100);
BENCHMARK(BM_MapEvent)->Name("BM_MapEventFixed")->Args({0, 0})->Iterations(200);

// One VSL link goes down and comes back: its destinations move away and are
// spread back.
void BM_VslDownUp(benchmark::State &state) {
    setup_unit();
    g_udp_dpm_zlog_level = static_cast<uint32_t>(state.range(0));
    const dpm_vsl_info tmpl = port(1, 5);
    const dpm_vsl_port key{tmpl.devid, tmpl.slot, tmpl.sslot, tmpl.lport};
    size_t written = 0;
    for (auto _ : state) {
        dpm_proc_lvsl_down(&key, 1);
        dpm_vsl_info up = tmpl;
        dpm_proc_lvsl_up_both_ready(&up, 1);
        state.PauseTiming();
        written += platform::module_writes().size();
        platform::clear_module_writes();
        platform::take_log();
        state.ResumeTiming();
    }
    state.counters["records/event"] = benchmark::Counter(
        static_cast<double>(written) / static_cast<double>(2 * state.iterations()));
    state.SetLabel("down+up, counters per single event");
    platform::take_log();
    dpm_cache_init();
}
BENCHMARK(BM_VslDownUp)->ArgName("level")->Arg(0)->Unit(benchmark::kMicrosecond);

// A module id is allocated on device 2 (and, untimed, released again).
void BM_ModidAdd(benchmark::State &state) {
    setup_unit();
    // Free one module id so that it can come and go.
    FromText<SIntf__EvtModAlloc> rec(
        &s_intf__evt_mod_alloc__descriptor,
        fmt("index {devid: 2 slotid: %d unit: 1047} modid: 1047 node_type: %u", 1047 % 8 + 1,
            DPM_NODE_BOX));
    Event add = Event::hmset(rec.base()), del = Event::del(rec.base());
    dpm_mod_alloc_cb(platform::host_handle(), del.get());
    platform::clear_module_writes();
    size_t written = 0;
    for (auto _ : state) {
        dpm_mod_alloc_cb(platform::host_handle(), add.get());
        state.PauseTiming();
        written += platform::module_writes().size();
        dpm_mod_alloc_cb(platform::host_handle(), del.get());
        platform::clear_module_writes();
        platform::take_log();
        state.ResumeTiming();
    }
    finish(state, written);
    dpm_cache_init();
}
BENCHMARK(BM_ModidAdd)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
