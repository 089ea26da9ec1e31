// Main multicast: the choice, its move inside one chip, its removal in the
// three situations of the card and the confirmation, and the confirmations.
#include "fwd_fixture.h"

namespace {

using fwd::FwdTest;
using fwd::kMmc;
using fwd::kMmcBack;
using fwd::Unpacked;
using Op = platform::ModuleWrite;

class Mmc : public FwdTest {
  protected:
    // A confirmation record of the hardware side.
    struct Back {
        UCluster__ModApidIdx idx = U_CLUSTER__MOD_APID_IDX__INIT;
        UCluster__MainmcVlanSt rec = U_CLUSTER__MAINMC_VLAN_ST__INIT;
        Back(uint32_t modid, uint32_t apid) {
            idx.t_cfg_modid = modid;
            idx.apid = apid;
            rec.index = &idx;
        }
        Back(const Back &) = delete;
    };
    static int deliver(int cmd, uint32_t modid, uint32_t apid) {
        Back b(modid, apid);
        xn_mom_msg_t msg{};
        msg.cmd = cmd;
        msg.data = &b.rec.base;
        return dpm_mmc_back_cb(platform::host_handle(), &msg);
    }
    static void store_back(uint32_t modid, uint32_t apid) {
        Back b(modid, apid);
        uint8_t buf[64];
        size_t n = protobuf_c_message_pack(&b.rec.base, buf);
        ASSERT_EQ(platform::db_set(XN_MOM_TOPO_DB, kMmcBack,
                                   std::string(reinterpret_cast<char *>(buf), n)),
                  0);
        platform::run_until_idle();
    }
    // Take a port out of the active list and settle the multicast, as the
    // removal does.
    static void take_down(dpm_vsl_info *v) {
        dpm_vsl_port port = port_of(v);
        dpm_vsl_info *gone = dpm_del_vsl_info(&dpm_vslap_cache, &port, v->apid);
        ASSERT_EQ(gone, v);
        dpm_calc_mmc_by_vsldown(gone);
        free(gone);
    }
};

TEST_F(Mmc, ChoiceIsTheOldestPortAndWrittenOnce) {
    EXPECT_EQ(dpm_cal_mmc_by_apid(1), -11);
    EXPECT_TRUE(logged("no new mmc!"));
    dpm_vsl_info *a = add_vsl(1, 3, 12, 22);
    add_vsl(1, 4, 13, 23);
    ASSERT_EQ(dpm_cal_mmc_by_apid(1), 0);
    EXPECT_EQ(dpm_mmc[1].vsl, a);
    EXPECT_EQ(dpm_mmc[1].modid, 12u);
    EXPECT_EQ(dpm_mmc[1].wait_add, 1);
    ASSERT_EQ(writes(kMmc).size(), 1u);
    Unpacked<UCluster__MainmcVlan> rec(&u_cluster__mainmc_vlan__descriptor, writes(kMmc)[0].packed);
    EXPECT_EQ(rec->index->t_cfg_modid, 12u);
    EXPECT_EQ(rec->index->apid, 1u);
    ASSERT_EQ(rec->n_vlan, 128u);
    for (size_t i = 0; i < rec->n_vlan; ++i) EXPECT_EQ(rec->vlan[i], 0xFFFFFFFFu);
    EXPECT_EQ(rec->local_vsl->lport, 3u);
    EXPECT_EQ(rec->local_vsl->gphyid, 0u);
    EXPECT_EQ(rec->peer_vsl->devid, 2u);
    EXPECT_EQ(rec->peer_vsl->lport, 3u);
    // A valid choice is kept.
    EXPECT_EQ(dpm_cal_mmc_by_apid(1), 0);
    EXPECT_TRUE(logged("apid 1 mmc valid!"));
    EXPECT_EQ(writes(kMmc).size(), 1u);
    EXPECT_EQ(dpm_cal_mmc_by_apid(3), -11);
}

TEST_F(Mmc, RemovalStates) {
    struct Case {
        const char *name;
        bool same_chip_port;
        bool card_online;
        bool back_present;
        // afterwards
        const char *log;
        uint8_t valid, wait_del;
        uint32_t modid;  // of the entry
        size_t mmc_sets, mmc_dels, back_dels;
    } cases[] = {
        {"another port of the chip takes over", true, true, true, "mmc not change!", 1, 0, 12, 0, 0,
         0},
        {"card offline: confirmation deleted here, new choice", false, false, true,
         "card[devid:1, slotid:1, sslotid:0] is not online. don't wait del mmc_back:0", 1, 0, 14, 1,
         1, 1},
        {"confirmation absent: new choice", false, true, false,
         "mmc_back not exist in mom. apid:1, modid:12", 1, 0, 14, 1, 1, 0},
        {"confirmation present: wait for its deletion", false, true, true, "mmc need change!", 1, 1,
         12, 0, 1, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        dpm_vsl_info *a = add_vsl(1, 3, 12, 22);
        if (c.same_chip_port) add_vsl(1, 5, 12, 22);
        add_vsl(1, 4, 14, 24, 2);
        ASSERT_EQ(dpm_cal_mmc_by_apid(1), 0);
        if (c.back_present) store_back(12, 1);
        platform::set_card_online(1, 1, 0, c.card_online);
        platform::clear_module_writes();
        clear_log();
        take_down(a);
        EXPECT_TRUE(logged(c.log));
        EXPECT_EQ(dpm_mmc[1].valid, c.valid);
        EXPECT_EQ(dpm_mmc[1].wait_del, c.wait_del);
        EXPECT_EQ(dpm_mmc[1].modid, c.modid);
        EXPECT_EQ(count(kMmc, Op::Set), c.mmc_sets);
        EXPECT_EQ(count(kMmc, Op::Del), c.mmc_dels);
        EXPECT_EQ(count(kMmcBack, Op::Del), c.back_dels);
        if (c.same_chip_port) {
            EXPECT_EQ(dpm_mmc[1].lport, 5u);
        }
        if (c.wait_del) {
            EXPECT_EQ(dpm_mmc[1].vsl, nullptr);
        }
        if (c.mmc_sets) {
            EXPECT_EQ(dpm_mmc[1].vsl->lport, 4);
        }
    }
}

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
    EXPECT_EQ(count(kMmc, Op::Set), 1u);  // chosen again and written
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
