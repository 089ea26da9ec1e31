// Application and write-back: what is written, how often, and in which order.
#include "frame_test_util.h"
#include "fwd_fixture.h"

namespace {

using fwd::FwdTest;
using fwd::kEgr;
using fwd::kIgr;
using fwd::kMember;
using fwd::kUc;
using fwd::Unpacked;
using Op = platform::ModuleWrite;

class Apply : public FwdTest {
  protected:
    dpm_vsl_info *p1 = nullptr;
    dpm_vsl_info *p2 = nullptr;

    void SetUp() override {
        FwdTest::SetUp();
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

TEST_F(Apply, WritesOnlyDifferences) {
    first_apply();
    EXPECT_EQ(count(kMember, Op::Set), 1u);
    EXPECT_EQ(count(kUc, Op::Set), 2u);
    EXPECT_EQ(count(kIgr, Op::Set), 1u);
    EXPECT_EQ(count(kEgr, Op::Set), 2u);
    EXPECT_EQ(dpm_vslap_cache.ap[1].chang_flag, 0);
    EXPECT_EQ(dpm_dtm_cache.hwcfg, dpm_dtm_cache.newest);
    for (const auto &w : writes(kUc)) {
        auto rec = uc_of(w);
        // Additions go round the ports in list order.
        const dpm_vsl_info *p = rec->index->modid == 100 ? p1 : p2;
        EXPECT_EQ(rec->apid, 1u);
        EXPECT_EQ(rec->lport, static_cast<uint32_t>(p->lport));
        EXPECT_EQ(rec->local_modid, p->chipid);
        EXPECT_EQ(rec->peer_modid, p->peer_chip);
    }

    // Nothing changed: nothing written.
    platform::clear_module_writes();
    ASSERT_EQ(dpm_calc_kel_cfg_by_dtm(), 0);
    ASSERT_EQ(dpm_apply_kel_cfg(), 0);
    EXPECT_TRUE(writes().empty());

    // One module id moves to the other port: one unicast record.
    dpm_modid_info *e = dpm_find_modid_info(100);
    dpm_vsl_info *from = e->uc_vsl;
    dpm_vsl_info *to = from == p1 ? p2 : p1;
    dpm_bmp_clear(from->modid_bmp, 100);
    dpm_bmp_set(to->modid_bmp, 100);
    e->uc_vsl = to;
    platform::clear_module_writes();
    ASSERT_EQ(dpm_apply_kel_cfg(), 0);
    ASSERT_EQ(writes().size(), 1u);
    auto rec = uc_of(writes()[0]);
    EXPECT_EQ(rec->index->modid, 100u);
    EXPECT_EQ(rec->lport, static_cast<uint32_t>(to->lport));

    // Under the expire flag everything is written again.
    platform::clear_module_writes();
    is_exprire_mom_flag = 1;
    ASSERT_EQ(dpm_apply_kel_cfg(), 0);
    is_exprire_mom_flag = 0;
    EXPECT_EQ(count(kMember, Op::Set), 2u);
    EXPECT_EQ(count(kUc, Op::Set), 2u);
    // Each device rewrites the permit at each of its four steps and the
    // block once per aggregate port.
    EXPECT_EQ(count(kIgr, Op::Set), 8u);
    EXPECT_EQ(count(kEgr, Op::Set), 4u);
    EXPECT_EQ(count(kUc, Op::Del), 0u);
}

TEST_F(Apply, ModidLeavingEveryPortIsDeleted) {
    first_apply();
    dpm_modid_info *e = dpm_find_modid_info(101);
    dpm_bmp_clear(e->uc_vsl->modid_bmp, 101);
    e->uc_vsl->modid_cnt--;
    e->uc_vsl = nullptr;
    platform::clear_module_writes();
    ASSERT_EQ(dpm_apply_kel_cfg(), 0);
    ASSERT_EQ(writes(kUc).size(), 1u);
    EXPECT_EQ(writes(kUc)[0].op, Op::Del);
    EXPECT_EQ(uc_of(writes(kUc)[0])->index->modid, 101u);
    EXPECT_EQ(dpm_list_count(&dpm_uc_head), 1u);
}

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
    EXPECT_TRUE(frame_test::has_log(log, fn, "set egr success!, apid:1, devid:1"));
    EXPECT_TRUE(frame_test::has_log(log, fn, "modbmp is not changed!"));
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

TEST_F(Apply, DeviceOutsideIngressLosesItsPermits) {
    first_apply();
    dpm_word_clear(dpm_igr_permit[1].dev_bmp, 2);
    dpm_igr_permit[1].modid_bmp = dpm_modid_bmp{};
    dpm_bmp_set(dpm_igr_permit[1].modid_bmp, 1);
    platform::clear_module_writes();
    dpm_apply_igr_by_devid(dpm_find_dev_head(2), 1, 1);
    EXPECT_TRUE(logged("devid 2 is not in igr apid 1"));
    ASSERT_EQ(writes(kIgr).size(), 1u);
    EXPECT_TRUE(dpm_bmp_empty(dpm_igr_permit_applied[1].modid_bmp));
    // Nothing left to withdraw: no write the second time.
    platform::clear_module_writes();
    dpm_apply_igr_by_devid(dpm_find_dev_head(2), 1, 1);
    EXPECT_TRUE(writes().empty());
    EXPECT_TRUE(logged("devid 2, apid 1. return"));
}

TEST_F(Apply, VanishedModidLeavesThePermitOneWriteEach) {
    first_apply();
    for (uint32_t m : {700u, 701u}) {
        dpm_bmp_set(dpm_igr_permit[1].modid_bmp, m);
        dpm_bmp_set(dpm_igr_permit_applied[1].modid_bmp, m);
    }
    platform::clear_module_writes();
    dpm_apply_igr_for_del_modid(1);
    EXPECT_EQ(writes(kIgr).size(), 2u);
    EXPECT_TRUE(logged("del modid:700 in apid:1"));
    EXPECT_TRUE(logged("can't find modid 701 info!"));
    EXPECT_FALSE(dpm_bmp_test(dpm_igr_permit[1].modid_bmp, 701));
    EXPECT_FALSE(dpm_bmp_test(dpm_igr_permit_applied[1].modid_bmp, 700));
}

}  // namespace
