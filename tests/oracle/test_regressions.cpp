// Faults found by the oracle, the restart properties and the fuzzers, each
// replayed from the smallest input that showed it.
#include <gtest/gtest.h>

#include "stress_unit.h"

namespace dpm_stress {
namespace {

OracleModule &module() {
    static auto *m = new OracleModule(oracle_module_path());
    return *m;
}

constexpr int kLocal = 3, kTopo = 14;

void expect_clean(const char *when) {
    std::string report;
    EXPECT_EQ(module().check(OracleModule::kAll, &report), 0) << when << "\n" << report;
}

// The process restarts while LOCAL_DB holds no route map. Data-sync end then
// runs the expiry with nothing to apply (the application waits for a map), so
// closing the brackets deletes every member list and filter record, while the
// aggregate ports keep their ports in use with no member write owed and the
// applied ingress permit still holds what the deleted record held. When the
// map comes back, the member lists and the permit must be written again.
TEST(Regression, RestartWithoutMapLosesMemberListsAndPermits) {
    UnitDriver unit(module());
    unit.begin(Baseline::StoredUnit);
    ASSERT_EQ(platform::db_records(kTopo, "u_cluster.vsl_ap_member").size(), 2U);
    const auto before = topo_lines(false, true);

    ASSERT_EQ(platform::db_del(kLocal, "p_dev.dtm_route_info", unit_map(1, 2)), 0);
    platform::run_until_idle();
    Event restart;
    unit.apply(restart);
    expect_clean("after the restart without a map");

    ASSERT_EQ(platform::db_set(kLocal, "p_dev.dtm_route_info", unit_map(1, 2)), 0);
    platform::run_until_idle();
    expect_clean("after the map came back");
    // The same unit with the same map: the same output (an empty permit may
    // be written or not).
    EXPECT_EQ(topo_lines(false, true), before) << join(topo_lines(false, true)) << "before:\n"
                                               << join(before);
}

// A chip with module id 0 reports "forward" while the card of member 1's
// slot 2 has no module event, so the ports of that card wait with their chip
// ids never looked up (0). At data-sync end after a restart, the ports whose
// two chips are in the VSL chip list are put in use unchanged; chip id 0
// matched the chip of module id 0, and the ports went into use with unknown
// chips: main multicast chosen for module 0, unicast sent through chip 0.
TEST(Regression, WaitingPortsWithUnknownChipsStayWaitingAtDataSyncEnd) {
    UnitDriver unit(module());
    unit.begin(Baseline::StoredUnit);
    ASSERT_EQ(platform::db_set(8, "u_cluster.vsl_chip_fwdstate", chip_state(0, 1, 0, "forward", 0)),
              0);
    platform::card_del(2U);  // member 1, slot 2
    platform::run_until_idle();
    Event restart;
    unit.apply(restart);
    expect_clean("after the restart");
    for (const std::string &line : topo_lines()) {
        EXPECT_EQ(line.find("u_cluster.mainmc_vlan modid 0 "), std::string::npos) << line;
        EXPECT_EQ(line.find(" local 0 "), std::string::npos) << line;
        EXPECT_EQ(line.find(" peer 0"), std::string::npos) << line;
    }
}

}  // namespace
}  // namespace dpm_stress
