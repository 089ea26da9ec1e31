// Main multicast: the choice, its move inside one chip, its removal in the
// three situations of the card and the confirmation, and the confirmations.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

class Mmc : public ModuleTest {
  protected:
    Mmc() : ModuleTest(4, true, true) {}
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
    // The deletion of another module id's record leaves the awaited removal
    // and the confirmation alone.
    dpm_mmc[2].wait_del = 1;
    EXPECT_EQ(deliver(XN_MOM_CMD_DEL, 12, 2), 0);
    EXPECT_TRUE(logged("mmc_back is not same as del mmc"));
    EXPECT_EQ(dpm_mmc[2].wait_del, 1);
    EXPECT_EQ(dpm_mmc_back[2].valid, 1);
    dpm_mmc[2].wait_del = 0;
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
    // Field-by-field writes are no confirmations.
    FromText<UCluster__MainmcVlanSt> fields(&u_cluster__mainmc_vlan_st__descriptor, back(9, 2));
    EXPECT_EQ(dpm_mmc_back_cb(nullptr, Event::hmset(fields.base()).get()), 0);
    EXPECT_FALSE(logged("mmc_back record is NULL!"));
    UCluster__MainmcVlanSt no_index = U_CLUSTER__MAINMC_VLAN_ST__INIT;
    EXPECT_EQ(dpm_mmc_back_cb(nullptr, Event::set(&no_index.base).get()), 0);
    EXPECT_TRUE(logged("mmc_back record is NULL!"));
}

// The choice's record and dump name both ends of the port, sub-slots
// included; a port of another chip going down leaves the choice alone; a
// failed write of the choice or deletion of its confirmation is reported with
// its result.
TEST_F(Mmc, RecordAndDumpNameThePortExactly) {
    dpm_vsl_info v = make_vsl(1, 3, 12, 22, 4);
    v.sslot = 2;
    v.peer_slot = 5;
    v.peer_sslot = 6;
    v.peer_lport = 7;
    ASSERT_NE(dpm_add_vsl_info(&dpm_vslap_cache, &v, 1), nullptr);
    dpm_vsl_info *other = add_vsl(1, 8, 13, 23);
    ASSERT_EQ(dpm_cal_mmc_by_apid(1), 0);
    auto w = writes(kMmc);
    ASSERT_EQ(w.size(), 1U);
    Unpacked<UCluster__MainmcVlan> m(&u_cluster__mainmc_vlan__descriptor, w[0].packed);
    ASSERT_TRUE(m.msg != nullptr && m->local_vsl != nullptr && m->peer_vsl != nullptr);
    EXPECT_EQ(fmt("%u/%u/%u/%u %u/%u/%u/%u", m->local_vsl->devid, m->local_vsl->slot,
                  m->local_vsl->sslot, m->local_vsl->lport, m->peer_vsl->devid, m->peer_vsl->slot,
                  m->peer_vsl->sslot, m->peer_vsl->lport),
              "1/4/2/3 2/5/6/7");
    EXPECT_EQ(run_cmd("dump_mmc", {1}),
              "\nvalid:1, modid:12, devid:1, slotid:4, sslotid:2, lport:3, wait_add:1, "
              "wait_del:0, vlan_bmp:0-4095,\n");

    clear_log();
    take_down(other);
    EXPECT_TRUE(logged("not mmc vsl down!"));
    EXPECT_EQ(count_writes(kMmc, Op::Del), 0U);
    EXPECT_EQ(dpm_mmc[1].lport, 3U);

    for (int rv : {0, -2, 5}) {
        clear_log();
        if (rv != 0) platform::fail("xn_mom_del", XN_MOM_TOPO_DB, 1, rv);
        EXPECT_EQ(dpm_del_mmc_back_in_db(1), rv);
        EXPECT_EQ(logged(fmt("del mmc_back fail. apid:1, modid:12. rv:%d", rv)), rv != 0) << rv;
    }
    platform::fail("xn_mom_set", XN_MOM_TOPO_DB, 1, 5);
    dpm_mmc[1].valid = 0;
    ASSERT_EQ(dpm_cal_mmc_by_apid(1), 0);
    EXPECT_TRUE(logged("set apid 1 mmc to mom fail, rv is 5"));
}

}  // namespace
