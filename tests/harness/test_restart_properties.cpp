// Restart properties on random event sequences, seeded and reproducible:
// - after every event the oracle finds TOPO_DB, the caches and the module's
//   memory in agreement;
// - a restart with unchanged inputs leaves TOPO_DB as it was (the order of the
//   members inside u_cluster.vsl_ap_member aside);
// - a restart anywhere in a sequence, followed by the rest of it, ends clean
//   and, where the outcome does not depend on history, like the uninterrupted
//   run.
// A failure names its seed; STRESS_SEED=<n> runs that seed alone.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "stress_unit.h"

namespace dpm_stress {
namespace {

// Seeds per property: thousands in an optimised build, fewer where every
// access is checked or nothing is optimised.
#if defined(DPM_SANITIZED)
constexpr uint32_t kSeeds = 100;
#elif defined(NDEBUG)
constexpr uint32_t kSeeds = 2000;
#else
constexpr uint32_t kSeeds = 500;
#endif

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
// sequence are left to the property that places them; only restart-stable
// events are kept.
Sequence random_run(uint32_t seed) {
    std::mt19937 rng(seed);
    Sequence r{static_cast<Baseline>(rng() % 3), {}};
    std::vector<uint8_t> bytes(rng() % 200 + 8);
    for (uint8_t &b : bytes) b = static_cast<uint8_t>(rng());
    for (Event &e : decode_events(bytes.data(), bytes.size(), 1 + rng() % 24)) {
        if (!restart_stable(e)) continue;
        r.events.push_back(std::move(e));
    }
    return r;
}

// The run with a restart (an empty Event) before event `at`.
std::vector<Event> with_restart(const Sequence &r, size_t at) {
    std::vector<Event> out = r.events;
    if (at <= out.size()) out.insert(out.begin() + static_cast<std::ptrdiff_t>(at), Event{});
    return out;
}

// Applies a run, with a restart before event `restart_at`, checking the oracle
// after every step; false at the first difference (reported).
bool play(const Sequence &r, uint32_t seed, size_t restart_at = SIZE_MAX) {
    UnitDriver unit;
    unit.begin(r.baseline);
    std::string report;
    const std::vector<Event> events = with_restart(r, restart_at);
    for (size_t i = 0; i < events.size(); ++i) {
        unit.apply(events[i]);
        if (oracle_module().check(OracleModule::kAll, &report) != 0) {
            ADD_FAILURE() << "seed " << seed << "\n"
                          << trail(int(r.baseline), {events.begin(), events.begin() + i + 1})
                          << report;
            return false;
        }
    }
    return true;
}

// With a map the calculation refuses, the output is what an earlier map made
// of it, and devices held back by the application keep what they were last
// given; a restart has no earlier map to go by and applies every device.
bool comparable() {
    return oracle_module().map_usable() && !oracle_module().held();
}

// A restart with unchanged inputs leaves TOPO_DB as it was (the order of the
// members inside u_cluster.vsl_ap_member aside); a restart anywhere in the
// sequence, followed by the rest of it, ends like the uninterrupted run where
// the outcome does not depend on history.
TEST(RestartProperties, RestartsKeepTopoDb) {
    size_t kept = 0, alike = 0;
    for (uint32_t seed : seeds()) {
        Sequence r = random_run(seed);
        if (!play(r, seed)) return;
        const auto before = topo_lines(), straight = topo_lines(true);
        const bool usable = comparable();
        UnitDriver().apply(Event{});
        std::string report;
        const std::string ran = "seed " + std::to_string(seed) + "\n" +
                                trail(int(r.baseline), with_restart(r, r.events.size()));
        ASSERT_EQ(oracle_module().check(OracleModule::kAll, &report), 0) << ran << report;
        if (usable) {
            kept += before.empty() ? 0 : 1;
            ASSERT_EQ(before, topo_lines()) << ran << "before:\n"
                                            << join(before) << "after:\n"
                                            << join(topo_lines());
        }
        const size_t at = std::mt19937(seed * 7919U)() % (r.events.size() + 1);
        if (!play(r, seed, at)) return;
        if (!usable || !comparable()) continue;
        ++alike;
        ASSERT_EQ(straight, topo_lines(true))
            << "seed " << seed << "\n"
            << trail(int(r.baseline), with_restart(r, at)) << "uninterrupted:\n"
            << join(straight) << "restarted:\n"
            << join(topo_lines(true));
    }
    if (seeds().size() > 10) {
        EXPECT_GT(kept, seeds().size() / 2);
        EXPECT_GT(alike, seeds().size() / 3);
    }
}

}  // namespace
}  // namespace dpm_stress
