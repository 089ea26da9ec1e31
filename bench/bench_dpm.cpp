// Cost of the forwarding-configuration events on a full unit: 2000 remote
// module ids (1000 behind each aggregate port) and 16 VSL ports per aggregate
// port. Reports time per event and TOPO_DB records written per event.
#include <benchmark/benchmark.h>

#include "dpm_intake.h"
#include "platform_ctl.h"
#include "udp_dpm.h"
#include "xn_zlog.h"

namespace {

constexpr int kPorts = 16;

void add_mod(uint32_t devid, uint32_t modid) {
    dpm_dev_head *dev = dpm_find_dev_head(devid);
    if (dev == nullptr) dev = dpm_alloc_dev_head(devid);
    auto *e = dpm_zalloc<dpm_modid_info>();
    e->modid = modid;
    e->devid = static_cast<int32_t>(devid);
    e->slot = static_cast<int32_t>(modid % 8 + 1);
    e->unit = static_cast<int32_t>(modid);
    e->type = static_cast<int32_t>(DPM_NODE_BOX);
    dpm_list_add_tail(&e->link, &dev->modid_list);
    dev->modid_cnt++;
    dpm_modid_dev_cache.mod_cnt++;
    dpm_bmp_set(dev->modid_bmp, modid);
    dpm_bmp_set(dpm_modid_dev_cache.mod_bmp, modid);
    dpm_modid_index[modid] = e;
}

dpm_vsl_info port(int apid, int lport) {
    dpm_vsl_info v{};
    v.devid = 1;
    v.slot = apid;
    v.lport = lport;
    v.status = 1;
    v.apid = apid;
    v.chipid = static_cast<uint32_t>(apid * 100 + lport);
    v.peer_dev = 2;
    v.peer_slot = apid;
    v.peer_lport = lport;
    v.peer_chip = static_cast<uint32_t>(apid * 100 + 50 + lport);
    return v;
}

// Device 2 behind `oif2`, device 3 behind `oif3`.
void add_map(uint8_t oif2, uint8_t oif3) {
    dpm_dtm_info *info = dpm_dtm_malloc_info(4, 2);
    info->mfib_num = 2;
    info->mfibs = reinterpret_cast<dpm_mfib_entry *>(info->fibs + 4);
    info->fibs[0] = {1, 2, oif2};
    info->fibs[1] = {1, 3, oif3};
    info->fibs[2] = {2, 1, 1};
    info->fibs[3] = {3, 1, 2};
    info->mfibs[0] = {1, 2, 1, 2, {1, 2}};
    info->mfibs[1] = {1, 3, 2, 2, {1, 2}};
    dpm_add_dtm_info(info);
}

void setup_unit() {
    platform::reset();
    dpm_cache_init();
    g_mydevid = 1;
    g_udp_dpm_global = platform::host_handle();
    g_udp_dpm_zlog_category = xn_zlog_init("udp_dpm");
    g_udp_dpm_zlog_level = 0;
    dpm_alloc_dev_head(1);
    for (uint32_t m = 1; m <= 8; ++m) add_mod(1, m);
    for (uint32_t m = 48; m < 1048; ++m) add_mod(2, m);
    for (uint32_t m = 1048; m < 2048; ++m) add_mod(3, m);
    for (int apid = 1; apid <= 2; ++apid) {
        for (int lport = 1; lport <= kPorts; ++lport) {
            dpm_vsl_info v = port(apid, lport);
            dpm_add_vsl_info(&dpm_vslap_cache, &v, apid);
        }
        dpm_set_ap_member_chg(apid);
    }
    dpm_restore_vsl_lb_ptr();
    dpm_dtm_cache.ds_end = 1;
    dpm_vslap_cache.ds_end = 1;
    dpm_modid_dev_cache.ds_end = 1;
    rdy_vsl_chip_ds_end = 1;
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
    SIntf__ModAllocIndex idx = S_INTF__MOD_ALLOC_INDEX__INIT;
    SIntf__EvtModAlloc rec = S_INTF__EVT_MOD_ALLOC__INIT;
    idx.devid = 2;
    idx.slotid = 1047 % 8 + 1;
    idx.unit = 1047;
    rec.index = &idx;
    rec.modid = 1047;
    rec.node_type = static_cast<decltype(rec.node_type)>(DPM_NODE_BOX);
    xn_mom_entry_t entry{&rec.base, 0};
    xn_mom_msg_t del{};
    del.cmd = XN_MOM_CMD_DEL;
    del.data = &rec.base;
    dpm_mod_alloc_cb(platform::host_handle(), &del);
    platform::clear_module_writes();
    size_t written = 0;
    for (auto _ : state) {
        xn_mom_msg_t add{};
        add.cmd = XN_MOM_CMD_HMSET;
        add.data = &entry;
        dpm_mod_alloc_cb(platform::host_handle(), &add);
        state.PauseTiming();
        written += platform::module_writes().size();
        dpm_mod_alloc_cb(platform::host_handle(), &del);
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
