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

}  // namespace
}  // namespace dpm_stress
