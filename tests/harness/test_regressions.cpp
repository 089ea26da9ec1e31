// Faults found by the oracle, the restart properties and the fuzzers, each
// replayed from the smallest input that showed it; every input the event
// fuzzer was seeded with or once failed on (tests/fuzz/regressions/events-*);
// and the module's allocation failures, each made to happen once.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "stress_unit.h"
#include "u_cluster.pb.h"

namespace dpm_stress {
namespace {

void expect_clean(const char *when, int flags = OracleModule::kAll) {
    std::string report;
    EXPECT_EQ(oracle_module().check(flags, &report), 0) << when << "\n" << report;
}

TEST(Regression, FuzzInputsKeepTheOracleClean) {
    namespace fs = std::filesystem;
    const fs::path root = fs::path(DPM_SOURCE_DIR) / "tests" / "fuzz";
    std::vector<fs::path> files(fs::directory_iterator(root / "corpus" / "events"), {});
    for (const auto &e : fs::directory_iterator(root / "regressions")) {
        if (e.path().filename().string().starts_with("events-")) files.push_back(e);
    }
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

// Ten maps in a row that cannot be calculated (apid 2's ports are down) push
// the applied map out of the history; it stays held while applied and is
// released once a map is applied again (the ports come up).
TEST(Regression, AnEvictedAppliedMapIsReleasedWhenAnotherIsApplied) {
    UnitDriver unit;
    unit.begin(Baseline::StoredUnit);
    const auto ports = [](int status) {
        for (int l : {1, 2}) {
            platform::db_hmset(kLocal, "p_dev.vsl_local_link",
                               vsl_link(1, 2, l, status, 2, 3, 1, l));
        }
        platform::run_until_idle();
    };
    ports(0);
    const Event map{
        .kind = Kind::Map, .db = kLocal, .type = "p_dev.dtm_route_info", .packed = unit_map(1, 2)};
    int refused = 0;
    for (int i = 0; i < 10; ++i) {
        for (const auto &l : unit.apply(map)) refused += l.text == "apid not ready!" ? 1 : 0;
    }
    EXPECT_EQ(refused, 10);
    expect_clean("with the applied map out of the history");
    ports(1);
    expect_clean("after a map was applied again");
}

// A chip with module id 0 reports "forward" while the ports of member 1's
// slot 2 wait with their chip ids never looked up (0: the card has no module
// event), or while the far end of the slot-1 ports answers chip id 0. At
// data-sync end after a restart, the ports whose two chips are in the VSL chip
// list are put in use unchanged; chip id 0 matched the chip of module id 0,
// and the ports went into use with unknown chips: main multicast chosen for
// module 0, unicast sent through chip 0.
TEST(Regression, WaitingPortsWithUnknownChipsStayWaitingAtDataSyncEnd) {
    for (const bool far_end : {false, true}) {
        SCOPED_TRACE(far_end ? "far end answers chip 0" : "card without module event");
        UnitDriver unit;
        unit.begin(Baseline::StoredUnit);
        ASSERT_EQ(platform::db_set(kUdp, "u_cluster.vsl_chip_fwdstate",
                                   chip_state(0, 1, 0, "forward", 0)),
                  0);
        if (far_end) {
            for (int lport : {1, 2}) platform::set_chipid(2, 1, lport, 0U);
        } else {
            platform::card_del(2U);  // member 1, slot 2
        }
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
}

// Each allocation of the module fails once, where it happens: the failure is
// logged as described, and the caches keep their structure and own exactly
// the blocks the module holds.
TEST(Regression, AllocationFailuresKeepTheCachesWhole) {
    // Events: a restart, new module id 40 on member 2, module id 40 on a new
    // member 4, a route map, a new port, a chip state, a card's module event.
    const Event restart,
        new_modid{.kind = Kind::ModAlloc,
                  .type = "s_intf.evt_mod_alloc",
                  .packed = mod_alloc(2, 3, 1, 40, 3)},
        new_dev{.kind = Kind::ModAlloc,
                .type = "s_intf.evt_mod_alloc",
                .packed = mod_alloc(4, 1, 0, 40, 3)},
        map{.kind = Kind::Map,
            .db = kLocal,
            .type = "p_dev.dtm_route_info",
            .packed = unit_map(2, 1)},
        port{.kind = Kind::VslLink,
             .db = kLocal,
             .type = "p_dev.vsl_local_link",
             .packed = vsl_link(1, 1, 3, 1, 1, 2, 1, 3)},
        chip{.kind = Kind::ChipState,
             .db = kUdp,
             .type = "u_cluster.vsl_chip_fwdstate",
             .packed = chip_state(2, 2, 0, "forward", 21)},
        card{.kind = Kind::CardAdd, .gslot = 34};
    const struct {
        const Event &act;
        int skip;  // callocs that succeed first (the start-up case: from an empty store)
        const char *message;
        int count = 1;
    } cases[] = {
        {restart, 1, "can;t alloc!"},  // own device entry at start-up
        {new_modid, 0, "cant malloc!"},
        {new_dev, 1, "can;t alloc!"},  // device entry of a new device
        {map, 0, "can't malloc!"},
        {new_modid, 1, "can not alloc memory, modid:40!"},  // unicast entry
        {port, 1, "can't alloc!"},
        {chip, 0, "can't alloc!\nadd vsl_chip fail"},
        {card, 0, "can't alloc!"},
        // Unicast entries read back at a restart: every calloc after the own device's fails.
        {restart, 2, "can not alloc memory!", -1},
        {port, 2, "can not alloc memory for ap member, apid:1!"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        UnitDriver unit;
        unit.begin(&c == &cases[0] ? Baseline::Empty : Baseline::StoredUnit);
        platform::fail("calloc", -1, c.count, -1, c.skip);
        std::string log;
        for (const auto &l : unit.apply(c.act)) log += l.text + "\n";
        EXPECT_NE(log.find(std::string(c.message) + "\n"), std::string::npos) << log;
        expect_clean("after the failure", OracleModule::kStructure | OracleModule::kMemory);
        platform::clear_faults();
        unit.apply(restart);
        expect_clean("after a restart without the fault");
    }
}

}  // namespace
}  // namespace dpm_stress
