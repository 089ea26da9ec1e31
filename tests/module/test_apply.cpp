// Application and write-back: what is written, how often, and in which order.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

class Apply : public ModuleTest {
  protected:
    dpm_vsl_info *p1 = nullptr;
    dpm_vsl_info *p2 = nullptr;

    void SetUp() override {
        ModuleTest::SetUp();
        for (uint32_t m : {1u, 2u}) add_mod(1, m);
        for (uint32_t m : {100u, 101u}) add_mod(2, m);
        set_dtm({{1, 2, 1}}, {{1, 2, 1, 1, 1, 0}});
        p1 = add_vsl(1, 1, 10, 20);
        p2 = add_vsl(1, 2, 11, 21);
        dpm_set_ap_member_chg(1);
        dpm_restore_vsl_lb_ptr();
    }
    // A full first application: calculation, then application.
    void first_apply() {
        ds_ready();
        ASSERT_EQ(dpm_calc_kel_cfg_by_dtm(), 0);
        ASSERT_EQ(dpm_apply_kel_cfg(), 0);
    }
    static Unpacked<UCluster__KelUcBalance> uc_of(const Op &w) {
        return Unpacked<UCluster__KelUcBalance>(&u_cluster__kel_uc_balance__descriptor, w.packed);
    }
};

TEST_F(Apply, EgressBlockIsBroughtUpToDateByTheFirstDevice) {
    first_apply();
    // A new module id of device 2 joins the block of both ports.
    add_mod(2, 102);
    for (int apid : {1, 2}) dpm_bmp_set(dpm_egr_block[apid].modid_bmp, 102);
    platform::clear_module_writes();
    dpm_dev_head *own = dpm_find_dev_head(1);
    dpm_dev_head *peer = dpm_find_dev_head(2);
    dpm_apply_egr_by_devid(own, 1);
    dpm_apply_egr_by_devid(peer, 1);
    ASSERT_EQ(writes(kEgr).size(), 1u);
    Unpacked<UCluster__VslSrcmodEgr> rec(&u_cluster__vsl_srcmod_egr__descriptor,
                                         writes(kEgr)[0].packed);
    ASSERT_EQ(rec->n_block_modid, 64u);
    EXPECT_TRUE((rec->block_modid[102 / 32] >> (102 % 32)) & 1U);
    const auto log = platform::take_log();
    const char *fn = "dpm_apply_egr_by_devid";
    EXPECT_TRUE(has_log(log, fn, "set egr success!, apid:1, devid:1"));
    EXPECT_TRUE(has_log(log, fn, "modbmp is not changed!"));

    // A refused write is logged as such, never as a success.
    add_mod(2, 104);
    for (int apid : {1, 2}) dpm_bmp_set(dpm_egr_block[apid].modid_bmp, 104);
    platform::fail("xn_mom_set", XN_MOM_TOPO_DB);
    dpm_apply_egr_by_devid(peer, 1);
    const auto refused = platform::take_log();
    EXPECT_TRUE(has_log(refused, fn, "set egr failed!, apid:1, devid:2", XN_ZLOG_ERROR));
    EXPECT_FALSE(has_log(refused, fn, "set egr success!, apid:1, devid:2"));

    // A device outside the block with nothing of its own to withdraw finds
    // no difference: the next one brings the record up to date.
    add_mod(3, 103);
    for (int apid : {1, 2}) dpm_bmp_set(dpm_egr_block[apid].modid_bmp, 103);
    dpm_apply_egr_by_devid(dpm_find_dev_head(3), 1);
    dpm_apply_egr_by_devid(own, 1);
    const auto later = platform::take_log();
    EXPECT_FALSE(has_log(later, fn, "set egr success!, apid:1, devid:3"));
    EXPECT_TRUE(has_log(later, fn, "set egr success!, apid:1, devid:1"));
}

// A module id that left the cache leaves the wanted ingress permit; only
// one that was written is withdrawn with a write.
TEST_F(Apply, IngressPermitOfAModuleIdThatLeft) {
    first_apply();
    for (bool written : {false, true}) {
        SCOPED_TRACE(written);
        dpm_bmp_set(dpm_igr_permit[1].modid_bmp, 555);
        if (written) dpm_bmp_set(dpm_igr_permit_applied[1].modid_bmp, 555);
        platform::clear_module_writes();
        clear_log();
        dpm_apply_kel_cfg_by_devid(dpm_find_dev_head(2));
        EXPECT_TRUE(logged("can't find modid 555 info!"));
        EXPECT_FALSE(dpm_bmp_test(dpm_igr_permit[1].modid_bmp, 555));
        EXPECT_FALSE(dpm_bmp_test(dpm_igr_permit_applied[1].modid_bmp, 555));
        EXPECT_EQ(writes(kIgr).size(), written ? 1U : 0U);
    }
}

// While this member forwards, a configured member waits as long as another
// used member does not forward yet.
TEST_F(Apply, ConfiguredMemberWaitsForTheOthersWhileThisOneForwards) {
    add_mod(3, 300);
    set_dtm({{1, 2, 1}, {1, 3, 1}}, {{1, 2, 1, 1, 1, 0}});
    dpm_find_dev_head(2)->fwd_state = DPM_FWD_FORWARD;
    first_apply();
    ASSERT_EQ(dpm_find_dev_head(2)->isconfig, 1);
    dpm_find_dev_head(1)->fwd_state = DPM_FWD_FORWARD;
    for (bool others_forward : {false, true}) {
        SCOPED_TRACE(others_forward);
        if (others_forward) dpm_find_dev_head(3)->fwd_state = DPM_FWD_FORWARD;
        clear_log();
        ASSERT_EQ(dpm_apply_kel_cfg(), 0);
        EXPECT_EQ(logged("enter, devid:2", "dpm_apply_kel_cfg_by_devid"), others_forward);
        EXPECT_TRUE(logged("enter, devid:3", "dpm_apply_kel_cfg_by_devid"));
    }
}

// The first application announces this member as forwarding only once one of
// its own chips is known; chips of other members do not count.
TEST_F(Apply, FirstApplicationForwardsOnlyWithAnOwnChip) {
    for (uint32_t chip_dev : {0u, 2u, 1u}) {
        SCOPED_TRACE(chip_dev);
        TearDown();
        SetUp();
        if (chip_dev != 0) add_chip(chip_dev, chip_dev * 10);
        platform::clear_module_writes();
        first_apply();
        EXPECT_EQ(count_writes("u_cluster.kel_dev_fwdstate", Op::Set), chip_dev == 1 ? 1u : 0u);
    }
}

TEST_F(Apply, IngressWithdrawBeforeEgressBeforeGrant) {
    first_apply();
    // Device 2 keeps 101 on apid 1 but 100 leaves it and 102 joins.
    add_mod(2, 102);
    dpm_bmp_clear(dpm_igr_permit[1].modid_bmp, 100);
    dpm_bmp_set(dpm_igr_permit[1].modid_bmp, 102);
    dpm_bmp_set(dpm_egr_block[2].modid_bmp, 102);
    platform::clear_module_writes();
    dpm_apply_kel_cfg_by_devid(dpm_find_dev_head(2));
    std::vector<std::string> types;
    for (const auto &w : writes()) {
        if (w.type != kUc) types.push_back(w.type);
    }
    ASSERT_EQ(types, (std::vector<std::string>{kIgr, kEgr, kIgr}));
    auto permit = [](const Op &w, uint32_t m) {
        Unpacked<UCluster__VslSrcmodIgr> r(&u_cluster__vsl_srcmod_igr__descriptor, w.packed);
        return ((r->permit_modid[m / 32] >> (m % 32)) & 1U) != 0;
    };
    auto igr = writes(kIgr);
    EXPECT_FALSE(permit(igr[0], 100));  // withdrawn
    EXPECT_FALSE(permit(igr[0], 102));  // not granted yet
    EXPECT_TRUE(permit(igr[0], 101));
    EXPECT_TRUE(permit(igr[1], 102));
}

// A member counts as configured once it forwards and one of its unicast
// entries is written; with its unicast route on no aggregate port (oif 3) it
// stays unplaced and does not. The unicast writes report no failure.
TEST_F(Apply, ConfiguredMemberNeedsAWrittenUnicastEntry) {
    for (bool routed : {true, false}) {
        SCOPED_TRACE(routed);
        TearDown();
        SetUp();
        if (!routed) set_dtm({{1, 2, 3}}, {{1, 2, 1, 1, 1, 0}});
        dpm_find_dev_head(2)->fwd_state = DPM_FWD_FORWARD;
        clear_log();
        first_apply();
        EXPECT_EQ(dpm_find_dev_head(2)->isconfig, routed ? 1 : 0);
        EXPECT_FALSE(logged("apply uc failed, devid:2, rv is -11!"));
    }
}

}  // namespace
