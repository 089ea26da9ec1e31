// Faults found by the oracle, the restart properties and the fuzzers, each
// replayed from the smallest input that showed it; every input the event
// fuzzer was seeded with or once failed on (tests/fuzz/regressions/events-*);
// and the module's allocation failures, each made to happen once.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <fstream>
#include <iterator>

#include "stress_unit.h"
#include "u_cluster.pb.h"

namespace dpm_stress {
namespace {

constexpr int kLocal = 3, kUdp = 8, kTopo = 14;

void expect_clean(const char *when, int flags = OracleModule::kAll) {
    std::string report;
    EXPECT_EQ(oracle_module().check(flags, &report), 0) << when << "\n" << report;
}

TEST(Regression, FuzzInputsKeepTheOracleClean) {
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    const fs::path root = fs::path(DPM_SOURCE_DIR) / "tests" / "fuzz";
    for (const auto &e : fs::directory_iterator(root / "corpus" / "events")) files.push_back(e);
    for (const auto &e : fs::directory_iterator(root / "regressions")) {
        if (e.path().filename().string().starts_with("events-")) files.push_back(e);
    }
    std::sort(files.begin(), files.end());
    ASSERT_FALSE(files.empty());
    for (const auto &f : files) {
        std::ifstream in(f, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        EXPECT_EQ(run_event_input(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()),
                  "")
            << f.filename();
    }
}

// The oracle is not clean by emptiness: a record lost behind the module's back
// is found.
TEST(Regression, OracleFindsALostRecord) {
    UnitDriver().begin(Baseline::StoredUnit);
    expect_clean("the working unit");
    const auto recs = platform::db_records(kTopo, "u_cluster.kel_uc_balance");
    ASSERT_GE(recs.size(), 5U);
    platform::db_del(kTopo, recs[0].type, recs[0].packed);
    std::string report;
    EXPECT_EQ(oracle_module().check(OracleModule::kAll, &report), 1) << report;
}

// The process restarts while LOCAL_DB holds no route map. Data-sync end then
// runs the expiry with nothing to apply (the application waits for a map), so
// closing the brackets deletes every member list and filter record, while the
// aggregate ports keep their ports in use with no member write owed and the
// applied ingress permit still holds what the deleted record held. When the
// map comes back, the member lists and the permit must be written again.
TEST(Regression, RestartWithoutMapLosesMemberListsAndPermits) {
    UnitDriver unit;
    unit.begin(Baseline::StoredUnit);
    ASSERT_EQ(platform::db_records(kTopo, "u_cluster.vsl_ap_member").size(), 2U);
    const auto before = topo_lines();
    ASSERT_EQ(platform::db_del(kLocal, "p_dev.dtm_route_info", unit_map(1, 2)), 0);
    platform::run_until_idle();
    unit.apply(Event{});
    expect_clean("after the restart without a map");
    ASSERT_EQ(platform::db_set(kLocal, "p_dev.dtm_route_info", unit_map(1, 2)), 0);
    platform::run_until_idle();
    expect_clean("after the map came back");
    EXPECT_EQ(topo_lines(), before) << join(topo_lines()) << "before:\n" << join(before);
}

// A chip with module id 0 reports "forward" while the card of member 1's
// slot 2 has no module event, so the ports of that card wait with their chip
// ids never looked up (0). At data-sync end after a restart, the ports whose
// two chips are in the VSL chip list are put in use unchanged; chip id 0
// matched the chip of module id 0, and the ports went into use with unknown
// chips: main multicast chosen for module 0, unicast sent through chip 0.
TEST(Regression, WaitingPortsWithUnknownChipsStayWaitingAtDataSyncEnd) {
    UnitDriver unit;
    unit.begin(Baseline::StoredUnit);
    ASSERT_EQ(
        platform::db_set(kUdp, "u_cluster.vsl_chip_fwdstate", chip_state(0, 1, 0, "forward", 0)),
        0);
    platform::card_del(2U);  // member 1, slot 2
    platform::run_until_idle();
    unit.apply(Event{});
    expect_clean("after the restart");
    for (const auto &r : platform::db_records(kTopo)) {
        u_cluster::mainmc_vlan mmc;
        u_cluster::kel_uc_balance uc;
        if (r.type == "u_cluster.mainmc_vlan" && mmc.ParseFromString(r.packed)) {
            EXPECT_NE(mmc.index().t_cfg_modid(), 0U) << mmc.ShortDebugString();
        }
        if (r.type == "u_cluster.kel_uc_balance" && uc.ParseFromString(r.packed)) {
            EXPECT_TRUE(uc.local_modid() != 0 && uc.peer_modid() != 0) << uc.ShortDebugString();
        }
    }
}

// Each allocation of the module fails once, where it happens: the failure is
// logged as described, and the caches keep their structure and own exactly
// the blocks the module holds.
TEST(Regression, AllocationFailuresKeepTheCachesWhole) {
    struct Case {
        const char *what;
        Baseline baseline;
        int skip;  // callocs that succeed first
        std::function<void()> act;
        const char *message;
        int count = 1;
    };
    const auto store_map = [] { platform::db_set(kLocal, "p_dev.dtm_route_info", unit_map(2, 1)); };
    const auto new_port = [] {
        platform::db_hmset(kLocal, "p_dev.vsl_local_link", vsl_link(1, 1, 3, 1, 1, 2, 1, 3));
    };
    const Case cases[] = {
        {"own device entry at start-up", Baseline::Empty, 1, [] { oracle_module().restart(); },
         "can;t alloc!"},
        {"module-id entry", Baseline::StoredUnit, 0,
         [] { platform::db_hmset(0, "s_intf.evt_mod_alloc", mod_alloc(2, 3, 1, 40, 3)); },
         "cant malloc!"},
        {"device entry of a new device", Baseline::StoredUnit, 1,
         [] { platform::db_hmset(0, "s_intf.evt_mod_alloc", mod_alloc(4, 1, 0, 40, 3)); },
         "can;t alloc!"},
        {"route map", Baseline::StoredUnit, 0, store_map, "can't malloc!"},
        {"unicast entry", Baseline::StoredUnit, 1,
         [] { platform::db_hmset(0, "s_intf.evt_mod_alloc", mod_alloc(2, 3, 1, 40, 3)); },
         "can not alloc memory, modid:40!"},
        {"VSL port entry", Baseline::StoredUnit, 1, new_port, "can't alloc!"},
        {"VSL chip entry", Baseline::StoredUnit, 0,
         [] {
             platform::db_set(kUdp, "u_cluster.vsl_chip_fwdstate",
                              chip_state(2, 2, 0, "forward", 21));
         },
         "can't alloc!"},
        {"module event entry", Baseline::StoredUnit, 0, [] { platform::card_add(34U); },
         "can't alloc!"},
        {"unicast entry read back at a restart (every calloc after the own device's fails)",
         Baseline::StoredUnit, 2, [] { oracle_module().restart(); }, "can not alloc memory!", -1},
        {"member array of u_cluster.vsl_ap_member", Baseline::StoredUnit, 2, new_port,
         "can not alloc memory for ap member, apid:1!"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        UnitDriver().begin(c.baseline);
        platform::fail("calloc", -1, c.count, -1, c.skip);
        c.act();
        platform::run_until_idle();
        std::string log;
        for (const auto &l : platform::take_log()) log += l.text + "\n";
        EXPECT_NE(log.find(std::string(c.message) + "\n"), std::string::npos) << log;
        expect_clean("after the failure", OracleModule::kStructure | OracleModule::kMemory);
        platform::clear_faults();
        oracle_module().restart();
        platform::run_until_idle();
        expect_clean("after a restart without the fault");
    }
}

}  // namespace
}  // namespace dpm_stress
