// Main multicast: the choice, its move inside one chip, its removal in the
// three situations of the card and the confirmation, and the confirmations.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

class Mmc : public ModuleTest {
  protected:
    // A confirmation record of the hardware side.
    static std::string back(uint32_t modid, uint32_t apid) {
        return fmt("index { t_cfg_modid: %u apid: %u }", modid, apid);
    }
    static int deliver(int cmd, uint32_t modid, uint32_t apid) {
        FromText<UCluster__MainmcVlanSt> b(&u_cluster__mainmc_vlan_st__descriptor,
                                           back(modid, apid));
        return dpm_mmc_back_cb(platform::host_handle(), Event::with(cmd, b.base()).get());
    }
    static void store_back(uint32_t modid, uint32_t apid) {
        ASSERT_EQ(platform::db_set(XN_MOM_TOPO_DB, kMmcBack, packed(kMmcBack, back(modid, apid))),
                  0);
        platform::run_until_idle();
    }
    // Take a port out of the active list and settle the multicast, as the
    // removal does.
    static void take_down(dpm_vsl_info *v) {
        dpm_vsl_port port{v->devid, v->slot, v->sslot, v->lport};
        dpm_vsl_info *gone = dpm_del_vsl_info(&dpm_vslap_cache, &port, v->apid);
        ASSERT_EQ(gone, v);
        dpm_calc_mmc_by_vsldown(gone);
        free(gone);
    }
};

// A choice made while the removal of the previous one is still awaited (the
// data-sync end drops an unbound choice and chooses again) leaves the removal
// awaited: its late confirmation drops the choice and chooses again.
TEST_F(Mmc, NewChoiceLeavesAnAwaitedRemovalAwaited) {
    dpm_vsl_info *a = add_vsl(1, 3, 12, 22);
    ASSERT_EQ(dpm_cal_mmc_by_apid(1), 0);
    store_back(12, 1);
    take_down(a);
    ASSERT_EQ(dpm_mmc[1].wait_del, 1);
    add_vsl(1, 4, 12, 23);
    dpm_mmc[1].valid = 0;  // what the data-sync end does with an unbound choice
    ASSERT_EQ(dpm_cal_mmc_by_apid(1), 0);
    EXPECT_EQ(dpm_mmc[1].valid, 1);
    EXPECT_EQ(dpm_mmc[1].wait_add, 1);
    EXPECT_EQ(dpm_mmc[1].wait_del, 1);
    platform::clear_module_writes();
    EXPECT_EQ(deliver(XN_MOM_CMD_DEL, 12, 1), 0);
    EXPECT_TRUE(logged("mmc[apid:1] has been del on hardware"));
    EXPECT_TRUE(logged("recalculate mmc[apid:1]. rv is 0"));
    EXPECT_EQ(dpm_mmc[1].wait_del, 0);
    EXPECT_EQ(dpm_mmc[1].lport, 4u);
    EXPECT_EQ(count_writes(kMmc, Op::Set), 1u);  // chosen again and written
}

// With the card gone nobody confirms the awaited removal either: it ends here.
TEST_F(Mmc, OfflineCardEndsAnAwaitedRemoval) {
    dpm_vsl_info *a = add_vsl(1, 3, 12, 22);
    ASSERT_EQ(dpm_cal_mmc_by_apid(1), 0);
    store_back(12, 1);
    take_down(a);
    dpm_vsl_info *b = add_vsl(1, 4, 12, 23);
    dpm_mmc[1].valid = 0;
    ASSERT_EQ(dpm_cal_mmc_by_apid(1), 0);
    ASSERT_EQ(dpm_mmc[1].wait_del, 1);
    platform::set_card_online(b->devid, b->slot, b->sslot, false);
    take_down(b);
    EXPECT_EQ(dpm_mmc[1].wait_del, 0);
    EXPECT_EQ(dpm_mmc[1].valid, 0);
}

TEST_F(Mmc, Confirmations) {
    add_vsl(2, 3, 9, 22);
    ASSERT_EQ(dpm_cal_mmc_by_apid(2), 0);
    EXPECT_EQ(deliver(XN_MOM_CMD_SET, 7, 2), 0);
    EXPECT_TRUE(logged("mmc_back is not same as added mmc"));
    EXPECT_EQ(dpm_mmc[2].wait_add, 1);
    EXPECT_EQ(dpm_mmc_back[2].valid, 0);
    EXPECT_EQ(deliver(XN_MOM_CMD_SET, 9, 2), 0);
    EXPECT_TRUE(logged("mmc[apid:2, modid:9] has been set to hardware"));
    EXPECT_EQ(dpm_mmc[2].wait_add, 0);
    EXPECT_EQ(dpm_mmc_back[2].valid, 1);
    EXPECT_EQ(dpm_mmc_back[2].modid, 9u);
    EXPECT_EQ(deliver(XN_MOM_CMD_SET, 9, 2), 0);
    EXPECT_TRUE(logged("mmc_back[apid:2] is not waiting for harware config"));
    // Its record deleted unasked: the choice stays, the confirmation goes.
    EXPECT_EQ(deliver(XN_MOM_CMD_DEL, 9, 2), 0);
    EXPECT_EQ(dpm_mmc[2].valid, 1);
    EXPECT_EQ(dpm_mmc_back[2].valid, 0);
    // Apid 0 has a slot and takes the common path; larger apids and broken
    // events never reach the tables.
    EXPECT_EQ(deliver(XN_MOM_CMD_DEL, 0, 0), 0);
    EXPECT_TRUE(logged("mmc_back[apid:0] is not waiting for harware config"));
    EXPECT_EQ(deliver(XN_MOM_CMD_SET, 9, 3), 0);
    EXPECT_TRUE(logged("mmc_back apid 3 is out of range, ignored"));
    EXPECT_EQ(dpm_mmc_back_cb(nullptr, nullptr), -4);
    xn_mom_msg_t err{};
    err.err = 5;
    EXPECT_EQ(dpm_mmc_back_cb(nullptr, &err), -4);
    EXPECT_TRUE(logged("msg error is 5!"));
}

}  // namespace
