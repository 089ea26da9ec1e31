// Restart properties on random event sequences, seeded and reproducible:
// - after every event the oracle finds TOPO_DB and the caches in agreement;
// - a restart with unchanged inputs leaves TOPO_DB as it was (the order of the
//   members inside u_cluster.vsl_ap_member aside);
// - a restart anywhere in a sequence, followed by the rest of it, ends clean
//   and without stale records, and where the outcome does not depend on
//   history it equals the outcome of the uninterrupted run.
//
// A failure names its seed; STRESS_SEED=<n> runs that seed alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>

#include "stress_unit.h"
#include "u_cluster.pb-c.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define DPM_STRESS_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define DPM_STRESS_SANITIZED 1
#endif

namespace dpm_stress {
namespace {

// Seeds per property: thousands in an optimised build, fewer where every
// access is checked or nothing is optimised.
#if defined(DPM_STRESS_SANITIZED)
constexpr uint32_t kSeeds = 100;
#elif defined(NDEBUG)
constexpr uint32_t kSeeds = 2000;
#else
constexpr uint32_t kSeeds = 500;
#endif

OracleModule &module() {
    static auto *m = new OracleModule(oracle_module_path());
    return *m;
}

std::vector<uint32_t> seeds() {
    if (const char *one = std::getenv("STRESS_SEED"))
        return {static_cast<uint32_t>(std::atoll(one))};
    std::vector<uint32_t> out(kSeeds);
    for (uint32_t i = 0; i < kSeeds; ++i) out[i] = i + 1;
    return out;
}

struct Sequence {
    Baseline baseline;
    std::vector<Event> events;
};

// Events whose effect does not depend on whether the process restarted
// since: the inputs only grow or change in step with what they describe. Left
// out are withdrawals and rewrites that a running instance follows only in
// part by design, so that it and a restarted instance legitimately differ:
// - deletions of input records: a port stays in use when its chip state or
//   link record goes (only a down record takes it out), a running instance
//   keeps the configuration of its last map when the map record goes, a
//   removed module id or device state changes what is held back;
// - chip-id table changes and card removals or presence: read only when a
//   port passes its gate or its main multicast port goes down;
// - a route map the intake refuses (no multicast route, ids it cannot hold):
//   it still replaces the stored map, so a restart finds no usable map while
//   a running instance keeps its last one;
// - a chip state rewritten to anything but "forward" (a listed chip stays
//   listed; a restart lists only forwarding chips);
// - two chips claiming one module id (the last one read wins, and a restart
//   reads in key order, not in arrival order);
// - a chip's allocation rewritten with another module id or type (a known id
//   on the same device is not taken again) and a port's record rewritten
//   with another aggregate port or far end while up.
bool restart_stable(const Event &e) {
    switch (e.kind) {
        case Kind::ModAlloc:
            // Members 1 to 3, slots 1 to 3: no two chips share a module id.
            return e.devid >= 1 && e.devid <= 3 && e.slot >= 1 && e.slot <= 3 &&
                   e.value == chip_of(e.devid, e.slot) + 3U * static_cast<uint32_t>(e.lport) &&
                   e.pick == (*e.value == 22 ? 2U : 3U);
        case Kind::VslLink:
            return e.pick != 0;
        case Kind::ChipState:
        case Kind::Map:
            return e.pick != 0;
        case Kind::DevState:
        case Kind::MmcConfirm:
        case Kind::MmcConfirmDel:
        case Kind::CardAdd:
        case Kind::Grole:
        case Kind::CardInfo:
        case Kind::Reconnect:
            return true;
        default:
            return false;
    }
}

// A random run: its baseline, then up to 24 events. Restarts inside the
// sequence are left to the properties that place them; `stable` keeps only
// restart-stable events.
Sequence random_run(uint32_t seed, bool stable = false) {
    std::mt19937 rng(seed);
    Sequence r;
    r.baseline = static_cast<Baseline>(rng() % 3);
    std::vector<uint8_t> bytes(rng() % 200 + 8);
    for (uint8_t &b : bytes) b = static_cast<uint8_t>(rng());
    for (Event &e : decode_events(bytes.data(), bytes.size(), 1 + rng() % 24)) {
        if (e.kind == Kind::Restart || e.kind == Kind::Disconnect) continue;
        if (stable && !restart_stable(e)) continue;
        r.events.push_back(std::move(e));
    }
    return r;
}

std::string history(const Sequence &r, size_t upto, size_t restart_at = SIZE_MAX) {
    std::string out = "baseline " + std::to_string(static_cast<int>(r.baseline)) + "\n";
    for (size_t i = 0; i < upto && i < r.events.size(); ++i) {
        if (i == restart_at) out += "  restart\n";
        out += "  " + r.events[i].text + "\n";
    }
    if (restart_at == upto) out += "  restart\n";
    return out;
}

// Applies a run, checking the oracle after every event; false at the first
// difference (reported).
bool play(UnitDriver &unit, const Sequence &r, uint32_t seed, size_t restart_at = SIZE_MAX) {
    unit.begin(r.baseline);
    std::string report;
    for (size_t i = 0; i <= r.events.size(); ++i) {
        if (i == restart_at) {
            Event e;
            unit.apply(e);
            if (unit.module().check(OracleModule::kAll, &report) != 0) {
                ADD_FAILURE() << "seed " << seed << ", after restart\n"
                              << history(r, i, restart_at) << report;
                return false;
            }
        }
        if (i == r.events.size()) break;
        unit.apply(r.events[i]);
        if (unit.module().check(OracleModule::kAll, &report) != 0) {
            ADD_FAILURE() << "seed " << seed << ", event " << i << "\n"
                          << history(r, i + 1, restart_at) << report << unit.module().summary();
            return false;
        }
    }
    return true;
}

TEST(RestartProperties, OracleCleanAfterEveryEvent) {
    UnitDriver unit(module());
    size_t ready = 0;
    for (uint32_t seed : seeds()) {
        if (!play(unit, random_run(seed), seed)) return;
        ready += module().ready() ? 1 : 0;
    }
    // The runs must reach the state the output checks apply to.
    if (seeds().size() > 10) {
        EXPECT_GT(ready, seeds().size() / 2);
    }
}

TEST(RestartProperties, RestartWithUnchangedInputsKeepsTopoDb) {
    UnitDriver unit(module());
    size_t with_output = 0;
    for (uint32_t seed : seeds()) {
        Sequence r = random_run(seed, true);
        if (!play(unit, r, seed)) return;
        const auto before = topo_lines(false, true);
        // With a map the calculation refuses, the output is what an earlier
        // map made of it; a restart has no earlier map to go by.
        // Devices held back by the application likewise keep what they were
        // last given, and the restart's rewrite applies every device.
        const bool comparable = module().map_usable() && !module().held();
        with_output += before.empty() || !comparable ? 0 : 1;
        Event restart;
        unit.apply(restart);
        std::string report;
        ASSERT_EQ(module().check(OracleModule::kAll, &report), 0)
            << "seed " << seed << "\n"
            << history(r, r.events.size(), r.events.size()) << report;
        if (!comparable) continue;
        const auto after = topo_lines(false, true);
        ASSERT_EQ(before, after) << "seed " << seed << "\n"
                                 << history(r, r.events.size(), r.events.size()) << "before:\n"
                                 << join(before) << "after:\n"
                                 << join(after);
    }
    if (seeds().size() > 10) {
        EXPECT_GT(with_output, seeds().size() / 2);
    }
}

// What must not depend on whether the process restarted on the way: which
// destinations have a unicast record and through which aggregate port, which
// aggregate ports have a member list and which ports are on it, and which
// aggregate ports have a main multicast choice. Which port of an aggregate
// port carries a destination (the balance), which chip carries the main
// multicast (a kept choice is not replaced) and the order of the members
// (ports come back in key order) follow history and may differ.
std::set<std::string> history_free(const std::vector<platform::StoredRecord> &recs) {
    std::set<std::string> out;
    for (const auto &r : recs) {
        std::string line = r.type + " ";
        if (r.type == "u_cluster.kel_uc_balance") {
            auto *u = reinterpret_cast<UCluster__KelUcBalance *>(protobuf_c_message_unpack(
                &u_cluster__kel_uc_balance__descriptor, nullptr, r.packed.size(),
                reinterpret_cast<const uint8_t *>(r.packed.data())));
            line += "modid " + std::to_string(u->index ? u->index->modid : 0) + " apid " +
                    std::to_string(u->apid);
            protobuf_c_message_free_unpacked(&u->base, nullptr);
        } else if (r.type == "u_cluster.mainmc_vlan") {
            auto *u = reinterpret_cast<UCluster__MainmcVlan *>(protobuf_c_message_unpack(
                &u_cluster__mainmc_vlan__descriptor, nullptr, r.packed.size(),
                reinterpret_cast<const uint8_t *>(r.packed.data())));
            line += "apid " + std::to_string(u->index ? u->index->apid : 0);
            protobuf_c_message_free_unpacked(&u->base, nullptr);
        } else if (r.type == "u_cluster.vsl_ap_member") {
            line += "key " + std::to_string(r.key.size()) + ":" + r.key;
            auto *u = reinterpret_cast<UCluster__VslApMember *>(protobuf_c_message_unpack(
                &u_cluster__vsl_ap_member__descriptor, nullptr, r.packed.size(),
                reinterpret_cast<const uint8_t *>(r.packed.data())));
            std::vector<std::string> ms;
            for (size_t i = 0; i < u->n_member; ++i) {
                const auto *p = u->member[i];
                ms.push_back(std::to_string(p->devid) + "/" + std::to_string(p->slot) + "/" +
                             std::to_string(p->sslot) + "/" + std::to_string(p->lport));
            }
            std::sort(ms.begin(), ms.end());
            for (const auto &m : ms) line += " " + m;
            protobuf_c_message_free_unpacked(&u->base, nullptr);
            if (ms.empty()) continue;  // an empty list says what no list says
        } else {
            continue;
        }
        out.insert(line);
    }
    return out;
}

std::string lines(const std::set<std::string> &s) {
    std::string out;
    for (const auto &l : s) out += "  " + l + "\n";
    return out;
}

TEST(RestartProperties, RestartAnywhereEndsCleanAndLikeTheUninterruptedRun) {
    UnitDriver unit(module());
    size_t compared = 0;
    for (uint32_t seed : seeds()) {
        Sequence r = random_run(seed, true);
        std::mt19937 rng(seed * 7919U);
        const size_t at = rng() % (r.events.size() + 1);
        if (!play(unit, r, seed)) return;
        const auto straight = platform::db_records(14);
        const bool usable = module().map_usable() && !module().held();
        if (!play(unit, r, seed, at)) return;
        if (!usable || !module().map_usable() || module().held()) continue;  // see above
        const auto interrupted = platform::db_records(14);
        const auto a = history_free(straight), b = history_free(interrupted);
        ++compared;
        ASSERT_EQ(a, b) << "seed " << seed << "\n"
                        << history(r, r.events.size(), at) << "uninterrupted:\n"
                        << lines(a) << "restarted:\n"
                        << lines(b);
    }
    if (seeds().size() > 10) {
        EXPECT_GT(compared, seeds().size() / 3);
    }
}

}  // namespace
}  // namespace dpm_stress
