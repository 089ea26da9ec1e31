// Restart convergence on a full unit: 2000 remote module ids (1000 on each of
// members 2 and 3), 16 VSL ports in each aggregate port, TOPO_DB holding the
// complete output of the previous run. One iteration is one restart: a fresh
// instance (every global at its load value) from its entry point until the
// callback queue is empty, which is after the expiry brackets have closed.
//
// Counters: callbacks delivered and records written per restart, time per
// callback, the store's share (the same writes replayed into the store alone,
// without a module listening), and peak resident memory.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "record_builders.h"
#include "stress_unit.h"
#include "u_cluster.pb-c.h"

namespace {

using namespace dpm_stress;

constexpr int kPorts = 16;

// The unit's inputs, stored before the first start. DPM_BENCH_REDIS=ADDRESS
// puts the databases on that Redis server (an empty one) instead.
void store_unit() {
    platform::reset();
    platform::set_log_fd(-1);
    if (const char *redis = std::getenv("DPM_BENCH_REDIS")) {
        std::string error;
        if (platform::db_use_redis(redis, &error) != 0) {
            std::fprintf(stderr, "DPM_BENCH_REDIS=%s: %s\n", redis, error.c_str());
            std::exit(2);
        }
    }
    // Member 1: chip 10 (slot 1, apid 1) and chip 11 (slot 2, apid 2).
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(1, 1, 0, 10, 3));
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(1, 2, 0, 11, 3));
    // Members 2 and 3: their VSL chips 20 and 30, then 999 more ids each.
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(2, 1, 0, 20, 3));
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(3, 1, 0, 30, 3));
    for (int i = 0; i < 999; ++i) {
        platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(2, 2, i, 48 + i, 3));
        platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(3, 2, i, 1048 + i, 3));
    }
    for (int apid = 1; apid <= 2; ++apid) {
        const int peer = apid + 1;
        for (int lport = 1; lport <= kPorts; ++lport) {
            platform::set_chipid(1, apid, lport, static_cast<uint32_t>(9 + apid));
            platform::set_phyid(1, apid, lport, static_cast<uint32_t>(100 * apid + lport));
            platform::set_chipid(peer, 1, lport, static_cast<uint32_t>(10 * peer));
            platform::db_hmset(kLocal, "p_dev.vsl_local_link",
                               vsl_link(1, apid, lport, 1, apid, peer, 1, lport));
        }
    }
    for (auto [d, s] : {std::pair{1, 1}, {1, 2}, {2, 1}, {3, 1}}) {
        platform::db_set(kUdp, "u_cluster.vsl_chip_fwdstate",
                         chip_state(d, s, 0, "forward", chip_of(d, s)));
        platform::card_add(gslot_of(d, s));
    }
    platform::db_set(kUdp, "u_cluster.kel_dev_fwdstate", dev_state(2, "forward"));
    platform::db_set(kUdp, "u_cluster.kel_dev_fwdstate", dev_state(3, "forward"));
    platform::db_set(kLocal, "p_dev.dtm_route_info", unit_map(1, 2));
}

// First run: the output the restarts take over.
bool first_run(benchmark::State &state) {
    store_unit();
    platform::drop_instance();
    oracle_module().start();
    platform::run_until_idle();
    platform::take_log();
    std::string report;
    if (oracle_module().check(OracleModule::kAll, &report) != 0) {
        state.SkipWithError(("oracle: " + report).c_str());
        return false;
    }
    if (platform::db_records(14, "u_cluster.kel_uc_balance").size() < 2000) {
        state.SkipWithError("the unit did not place its module ids");
        return false;
    }
    for (const auto &r : platform::db_records(14, "u_cluster.vsl_ap_member")) {
        dpm_test::Unpacked<UCluster__VslApMember> m(&u_cluster__vsl_ap_member__descriptor,
                                                    r.packed);
        const size_t n = m.msg != nullptr ? m->n_member : 0;
        if (n != kPorts) {
            state.SkipWithError("an aggregate port does not have all its ports in use");
            return false;
        }
    }
    return true;
}

double peak_rss_mb() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_maxrss) / 1024.0;
}

void BM_RestartConvergence(benchmark::State &state) {
    if (!first_run(state)) return;
    size_t callbacks = 0, writes = 0;
    std::vector<platform::ModuleWrite> last;
    for (auto _ : state) {
        platform::clear_module_writes();
        oracle_module().restart();
        callbacks += platform::run_until_idle();
        state.PauseTiming();
        writes += platform::module_writes().size();
        last = platform::module_writes();
        platform::take_log();
        state.ResumeTiming();
    }
    std::string report;
    if (oracle_module().check(OracleModule::kAll, &report) != 0)
        state.SkipWithError(report.c_str());
    const auto n = static_cast<double>(state.iterations());
    state.counters["callbacks/restart"] = benchmark::Counter(static_cast<double>(callbacks) / n);
    state.counters["records/restart"] = benchmark::Counter(static_cast<double>(writes) / n);
    state.counters["time/callback"] = benchmark::Counter(
        static_cast<double>(callbacks), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["records/callback"] =
        benchmark::Counter(static_cast<double>(writes) / static_cast<double>(callbacks));
    state.counters["peak_rss_MB"] = benchmark::Counter(peak_rss_mb());
}
BENCHMARK(BM_RestartConvergence)->Unit(benchmark::kMillisecond)->Iterations(20);

// The writes of one event replayed into the store with no module listening;
// the loop runs once more so that pipelined writes are answered.
void replay(const std::vector<platform::ModuleWrite> &writes) {
    for (const auto &w : writes) {
        switch (w.op) {
            case platform::ModuleWrite::Set:
                platform::db_set(w.db, w.type, w.packed);
                break;
            case platform::ModuleWrite::HmSet:
                platform::db_hmset(w.db, w.type, w.packed);
                break;
            case platform::ModuleWrite::Del:
                platform::db_del(w.db, w.type, w.packed);
                break;
        }
    }
    platform::run_until_idle();
}

// The store alone: the writes of one restart replayed into the databases with
// no module instance listening (nothing queued, nothing delivered). Compared
// with the restart above, this is the share of the restart spent in the store.
void BM_StoreOnlyReplay(benchmark::State &state) {
    if (!first_run(state)) return;
    platform::clear_module_writes();
    oracle_module().restart();
    platform::run_until_idle();
    const std::vector<platform::ModuleWrite> writes = platform::module_writes();
    platform::drop_instance();
    for (auto _ : state) replay(writes);
    state.counters["records/replay"] = benchmark::Counter(static_cast<double>(writes.size()));
}
BENCHMARK(BM_StoreOnlyReplay)->Unit(benchmark::kMillisecond)->Iterations(20);

// Redis only (DPM_BENCH_REDIS): every command one restart sent to the server
// (writes, snapshots, scans, brackets), sent again pipelined: the time Redis
// itself needs for the restart's work. Stream reads are left out: sent again
// from the same position they would return more each time.
void BM_RestartCommandsReplay(benchmark::State &state) {
    if (!first_run(state)) return;
    platform::db_command_log(true);
    oracle_module().restart();
    platform::run_until_idle();
    auto log = platform::db_take_command_log();
    std::erase_if(log, [](const auto &args) { return args[0] == "XRANGE" || args[0] == "XREAD"; });
    platform::db_command_log(false);
    platform::drop_instance();
    platform::take_log();
    if (log.empty()) state.SkipWithError("not on Redis (DPM_BENCH_REDIS)");
    for (auto _ : state) platform::db_replay_commands(log);
    state.counters["commands"] = benchmark::Counter(static_cast<double>(log.size()));
}
BENCHMARK(BM_RestartCommandsReplay)->Unit(benchmark::kMillisecond)->Iterations(20);

// One VSL link of apid 1 goes down, written by another component: from that
// write until the module's last TOPO_DB write for it is in the store. The link
// comes back untimed. store_only 1: the writes of one link-down replayed into
// the store alone.
void BM_LinkDown(benchmark::State &state) {
    if (!first_run(state)) return;
    const std::string down = vsl_link(1, 1, 5, 0, 1, 2, 1, 5);
    const std::string up = vsl_link(1, 1, 5, 1, 1, 2, 1, 5);
    auto link = [](const std::string &rec) {
        platform::db_hmset(kLocal, "p_dev.vsl_local_link", rec);
        platform::run_until_idle();
    };
    platform::clear_module_writes();
    link(down);
    const std::vector<platform::ModuleWrite> writes = platform::module_writes();
    link(up);
    if (state.range(0) == 1) platform::drop_instance();
    for (auto _ : state) {
        if (state.range(0) == 1) {
            replay(writes);
            continue;
        }
        link(down);
        state.PauseTiming();
        link(up);
        platform::take_log();
        state.ResumeTiming();
    }
    state.counters["records/event"] = benchmark::Counter(static_cast<double>(writes.size()));
}
BENCHMARK(BM_LinkDown)
    ->ArgName("store_only")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(50);

}  // namespace

BENCHMARK_MAIN();
