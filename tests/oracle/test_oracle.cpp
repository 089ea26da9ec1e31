// The oracle itself: clean on a working unit, and every kind of difference it
// promises to find is found when TOPO_DB or the caches are damaged on purpose.
// Also: a restart by rewinding the loaded copy starts from exactly what a
// freshly loaded copy starts from.
#include <gtest/gtest.h>

#include "p_dev.pb-c.h"
#include "stress_unit.h"
#include "u_cluster.pb-c.h"

namespace dpm_stress {
namespace {

OracleModule &module() {
    static auto *m = new OracleModule(oracle_module_path());
    return *m;
}

std::string pack(const ProtobufCMessage *msg) {
    std::string out(protobuf_c_message_get_packed_size(msg), '\0');
    if (!out.empty()) protobuf_c_message_pack(msg, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

// The first stored record of a type, unpacked; freed by the caller's guard.
template <class T>
struct First {
    T *msg = nullptr;
    explicit First(const ProtobufCMessageDescriptor *d) {
        auto recs = platform::db_records(14, d->name);
        if (recs.empty()) return;
        msg = reinterpret_cast<T *>(
            protobuf_c_message_unpack(d, nullptr, recs[0].packed.size(),
                                      reinterpret_cast<const uint8_t *>(recs[0].packed.data())));
    }
    ~First() {
        if (msg != nullptr) protobuf_c_message_free_unpacked(&msg->base, nullptr);
    }
    First(const First &) = delete;
    First &operator=(const First &) = delete;
};

class OracleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        UnitDriver unit(module());
        unit.begin(Baseline::StoredUnit);
    }
    int check(std::string *report) { return module().check(OracleModule::kAll, report); }
};

TEST_F(OracleTest, WorkingUnitIsClean) {
    std::string report;
    ASSERT_TRUE(module().ready());
    EXPECT_EQ(check(&report), 0) << report;
    // Not clean by emptiness: the unit has placed its remote module ids.
    EXPECT_GE(platform::db_records(14, "u_cluster.kel_uc_balance").size(), 5U)
        << module().summary();
    EXPECT_EQ(platform::db_records(14, "u_cluster.vsl_ap_member").size(), 2U);
    EXPECT_EQ(platform::db_records(14, "u_cluster.mainmc_vlan").size(), 2U);
}

struct Damage {
    const char *name;
    void (*apply)();
    const char *expect;  // a piece of the report
};

void drop_first(const char *type) {
    auto recs = platform::db_records(14, type);
    ASSERT_FALSE(recs.empty()) << type;
    ASSERT_EQ(platform::db_del(14, type, recs[0].packed), 0);
}

const Damage kTopoDamage[] = {
    {"unicast record lost", [] { drop_first("u_cluster.kel_uc_balance"); },
     "applied entry without record"},
    {"unicast record without entry",
     [] {
         UCluster__ModidIdx idx = U_CLUSTER__MODID_IDX__INIT;
         UCluster__KelUcBalance rec = U_CLUSTER__KEL_UC_BALANCE__INIT;
         idx.modid = 777;
         rec.index = &idx;
         rec.apid = 1;
         ASSERT_EQ(platform::db_set(14, "u_cluster.kel_uc_balance", pack(&rec.base)), 0);
     },
     "kel_uc_balance 777: record without unicast entry"},
    {"unicast record on another port",
     [] {
         First<UCluster__KelUcBalance> f(&u_cluster__kel_uc_balance__descriptor);
         ASSERT_NE(f.msg, nullptr);
         f.msg->lport += 7;
         ASSERT_EQ(platform::db_set(14, "u_cluster.kel_uc_balance", pack(&f.msg->base)), 0);
     },
     "applied entry {"},
    {"ingress permit differs",
     [] {
         First<UCluster__VslSrcmodIgr> f(&u_cluster__vsl_srcmod_igr__descriptor);
         ASSERT_NE(f.msg, nullptr);
         ASSERT_EQ(f.msg->n_permit_modid, 64U);
         f.msg->permit_modid[40] ^= 1U;
         ASSERT_EQ(platform::db_set(14, "u_cluster.vsl_srcmod_igr", pack(&f.msg->base)), 0);
     },
     "u_cluster.vsl_srcmod_igr apid"},
    {"egress block short",
     [] {
         First<UCluster__VslSrcmodEgr> f(&u_cluster__vsl_srcmod_egr__descriptor);
         ASSERT_NE(f.msg, nullptr);
         f.msg->n_block_modid = 63;
         ASSERT_EQ(platform::db_set(14, "u_cluster.vsl_srcmod_egr", pack(&f.msg->base)), 0);
     },
     "63 words"},
    {"member list lost", [] { drop_first("u_cluster.vsl_ap_member"); }, "active ports, no record"},
    {"member list out of order",
     [] {
         First<UCluster__VslApMember> f(&u_cluster__vsl_ap_member__descriptor);
         ASSERT_NE(f.msg, nullptr);
         ASSERT_EQ(f.msg->n_member, 2U);
         std::swap(f.msg->member[0], f.msg->member[1]);
         ASSERT_EQ(platform::db_set(14, "u_cluster.vsl_ap_member", pack(&f.msg->base)), 0);
     },
     "vsl_ap_member apid 1: record ["},
    {"main multicast lost", [] { drop_first("u_cluster.mainmc_vlan"); }, "has no record"},
    {"second main multicast",
     [] {
         First<UCluster__MainmcVlan> f(&u_cluster__mainmc_vlan__descriptor);
         ASSERT_NE(f.msg, nullptr);
         f.msg->index->t_cfg_modid += 100;
         ASSERT_EQ(platform::db_set(14, "u_cluster.mainmc_vlan", pack(&f.msg->base)), 0);
     },
     ": record, choice valid 1"},
    {"main multicast for apid 5",
     [] {
         First<UCluster__MainmcVlan> f(&u_cluster__mainmc_vlan__descriptor);
         ASSERT_NE(f.msg, nullptr);
         f.msg->index->apid = 5;
         ASSERT_EQ(platform::db_set(14, "u_cluster.mainmc_vlan", pack(&f.msg->base)), 0);
     },
     "records for apid 5"},
};

TEST_F(OracleTest, FindsEveryDifferenceInTopoDb) {
    for (const Damage &d : kTopoDamage) {
        SCOPED_TRACE(d.name);
        UnitDriver unit(module());
        unit.begin(Baseline::StoredUnit);
        d.apply();
        platform::run_until_idle();  // the module ignores others' writes of its output
        std::string report;
        EXPECT_GE(check(&report), 1);
        EXPECT_NE(report.find(d.expect), std::string::npos) << report;
    }
}

TEST_F(OracleTest, FindsDamagedCaches) {
    const std::pair<int, const char *> cases[] = {
        {1, "vsl cache apid 1: vsl_cnt"},
        {2, ": modid_cnt"},
        {3, "but uc_vsl points elsewhere"},
        {4, "carries module id 1999, which has no entry"},
        {5, "dev_bmp"},
    };
    for (auto [what, expect] : cases) {
        SCOPED_TRACE(expect);
        UnitDriver unit(module());
        unit.begin(Baseline::StoredUnit);
        ASSERT_EQ(module().damage(what), 0);
        std::string report;
        EXPECT_GE(module().check(OracleModule::kStructure, &report), 1);
        EXPECT_NE(report.find(expect), std::string::npos) << report;
    }
}

// Output checks wait for the four input syncs: before that TOPO_DB still holds
// what an earlier run wrote, which the caches have not taken over yet.
TEST_F(OracleTest, OutputChecksWaitForDataSync) {
    platform::db_disconnect(3);  // LOCAL_DB never comes back in this test
    module().restart();
    platform::fail("xn_mom_client_connect", 3, -1);
    module().restart();
    platform::run_until_idle();
    EXPECT_FALSE(module().ready());
    std::string report;
    EXPECT_EQ(check(&report), 0) << report;
    platform::clear_faults();
}

// A restart by rewinding the loaded copy must begin where a new process
// begins: compare with a freshly loaded second copy on the same databases.
TEST_F(OracleTest, RewoundCopyStartsLikeAFreshCopy) {
    UnitDriver unit(module());
    unit.begin(Baseline::LiveUnit);
    // Some history in the rewound copy's globals first.
    Event e;
    e.kind = Kind::Restart;
    unit.apply(e);
    const std::vector<std::string> after_rewind = topo_lines();
    const std::string summary_rewind = module().summary();
    const auto stored = platform::db_records(14);

    {
        OracleModule fresh(oracle_module_path());
        platform::drop_instance();
        ASSERT_EQ(fresh.start(), 0);
        platform::run_until_idle();
        EXPECT_EQ(topo_lines(), after_rewind);
        EXPECT_EQ(fresh.summary(), summary_rewind);
        std::string report;
        EXPECT_EQ(fresh.check(OracleModule::kAll, &report), 0) << report;
    }
    EXPECT_EQ(platform::db_records(14).size(), stored.size());
}

}  // namespace
}  // namespace dpm_stress
