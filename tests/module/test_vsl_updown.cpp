// VSL port activation and removal: what is recomputed, where the unicast of a
// removed port goes, and how an emptied aggregate port takes a waiting port.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

class VslUpDown : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        add_mod(1, 1);
        for (uint32_t m : {5u, 6u, 2000u}) add_mod(2, m);
        set_dtm({{1, 2, 1}}, {{1, 2, 1, 1, 1, 0}});
    }
    // Activate a waiting copy as the readiness gate does.
    static int up(int apid, int lport, uint32_t chip = 10, uint32_t peer = 20) {
        dpm_vsl_info v = make_vsl(apid, lport, chip, peer);
        return dpm_proc_lvsl_up_both_ready(&v, apid);
    }
    static dpm_vsl_info *active(int apid, int lport) {
        dpm_vsl_port p{1, 1, 0, lport};
        return dpm_get_vsl_info(&dpm_vslap_cache, &p, apid);
    }
};

TEST_F(VslUpDown, ActivationRefusesUnknownChips) {
    for (auto [chip, peer] : {std::pair{0u, 20u}, std::pair{10u, 0u}}) {
        EXPECT_EQ(up(1, 1, chip, peer), -11);
        EXPECT_TRUE(logged("vsl chipid is invalid! devid:1, slot:1, sslot:0, lport:1"));
        EXPECT_EQ(dpm_vslap_cache.ap[1].vsl_cnt, 0u);
    }
    EXPECT_EQ(up(3, 1), -11);
}

// Only the first port of an aggregate port recalculates: as master, the state
// of a member outside the map is deleted once.
TEST_F(VslUpDown, OnlyTheFirstPortRecalculates) {
    ds_ready();
    g_my_grole = DPM_ROLE_MASTER;
    add_mod(3, 30);
    ASSERT_EQ(up(1, 1), 0);
    ASSERT_EQ(up(1, 2, 11, 21), 0);
    EXPECT_EQ(count_writes("u_cluster.kel_dev_fwdstate", Op::Del), 1u);
}

// A module id whose member has no route any more cannot follow its port
// down: both the lookup and the placement say so.
TEST_F(VslUpDown, ModuleIdWithoutRouteIsReportedWhenItsPortGoes) {
    ds_ready();
    ASSERT_EQ(up(1, 1), 0);
    dpm_modid_info *e = add_mod(3, 30);
    dpm_bmp_set(active(1, 1)->modid_bmp, 30);
    e->uc_vsl = active(1, 1);
    e->is_used = 1;
    dpm_vsl_port port{1, 1, 0, 1};
    dpm_proc_lvsl_down(&port, 1);
    EXPECT_TRUE(logged("cant find oif for modid 30!"));
    EXPECT_TRUE(logged("dpm_uc_balance_for_modid_add 30 fail"));
}

TEST_F(VslUpDown, EnableFirstOnlyForEmptyAggregatePorts) {
    ds_ready();
    ASSERT_EQ(up(1, 1), 0);
    add_waiting(1, 7, 30, 40);
    add_waiting(2, 8, 31, 41);
    dpm_enable_first_vsl();
    EXPECT_EQ(dpm_vslap_cache.ap[1].vsl_cnt, 1u);
    EXPECT_EQ(dpm_vslap_unused_cache.ap[1].vsl_cnt, 1u);
    EXPECT_EQ(dpm_vslap_cache.ap[2].vsl_cnt, 1u);
    EXPECT_EQ(dpm_vslap_unused_cache.ap[2].vsl_cnt, 0u);
    EXPECT_EQ(dpm_vslap_cache.ap[2].chang_flag, 0);
    EXPECT_EQ(dpm_set_ap_member_chg(0), -11);
}

}  // namespace
