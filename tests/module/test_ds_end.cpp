// Data-sync end: the sequence runs only once all four input syncs are over,
// puts the previous run's unicast placements and main multicast back, and
// rewrites the output inside the data-sync brackets.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

class DsEnd : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        add_mod(1, 1);
        for (uint32_t m : {5u, 6u}) add_mod(2, m);
        add_mod(2, 7, DPM_NODE_MB);
        set_dtm({{1, 2, 1}}, {{1, 2, 1, 1, 1, 0}});
    }
    // A unicast entry as the read-back of TOPO_DB leaves it.
    static void restored_uc(uint32_t dst, uint32_t local, uint32_t lport, uint32_t apid = 1,
                            uint32_t peer = 0) {
        auto *uc = dpm_zalloc<dpm_uc_info>();
        uc->dstmodid = dst;
        uc->localmodid = local;
        uc->lport = lport;
        uc->apid = apid;
        uc->peer_modid = peer;
        uc->expire = 1;
        dpm_list_add_tail(&uc->link, &dpm_uc_head);
    }
    static void restored_mmc(int apid, uint32_t modid) {
        dpm_mmc[apid].valid = 1;
        dpm_mmc[apid].wait_add = 1;
        dpm_mmc[apid].modid = modid;
        dpm_mmc[apid].vlan_bmp.fill(0xFFFFFFFFU);
    }
    static void ready_chip(uint32_t modid) {
        auto *chip = dpm_zalloc<dpm_vsl_chip>();
        chip->devid = modid < 20 ? 1 : 2;
        chip->modid = modid;
        dpm_list_add_tail(&chip->link, &dpm_vsl_chip_head);
    }
};

TEST_F(DsEnd, RestoredUnicastIsLaidOnActivePorts) {
    dpm_vsl_info *p1 = add_vsl(1, 1, 10, 20);
    dpm_vsl_info *p2 = add_vsl(1, 2, 11, 21);
    restored_uc(5, 11, 2);
    restored_uc(6, 11, 2);
    restored_uc(7, 10, 1);     // main board: placed, not counted
    restored_uc(6, 11, 2);     // the same placement twice
    restored_uc(99, 10, 1);    // module id gone
    restored_uc(5000, 10, 1);  // not a module id at all
    restored_uc(5, 12, 9);     // port gone
    dpm_restore_vsl_cache();
    EXPECT_EQ(p2->modid_cnt, 2u);
    EXPECT_EQ(p1->modid_cnt, 0u);
    EXPECT_TRUE(dpm_bmp_test(p1->modid_bmp, 7));
    EXPECT_EQ(dpm_find_modid_info(5)->uc_vsl, p2);
    EXPECT_EQ(dpm_find_modid_info(7)->uc_vsl, p1);
    EXPECT_EQ(dpm_find_modid_info(6)->is_used, 1);
    EXPECT_TRUE(logged("uc has beed in vsl info"));
    EXPECT_TRUE(logged("dst modid 99 is not exist!"));
    EXPECT_TRUE(logged("dst modid 5000 is not exist!"));
    EXPECT_TRUE(logged("can't find vsl_port with modid:12, lport:9"));
    EXPECT_TRUE(logged("can't find vsl port with modid:12, lport:9"));
    // The port is found by chip and port number, apid 1 first.
    dpm_vsl_info *q = add_vsl(2, 2, 11, 21, 3);
    EXPECT_EQ(dpm_get_vsl_info_by_modid_lport(11, 2), p2);
    EXPECT_EQ(dpm_get_vsl_info_by_modid_lport(11, 3), nullptr);
    (void)q;
}

TEST_F(DsEnd, RestartKeepsPlacementsAndExpiresTheRest) {
    add_waiting(1, 1, 10, 20);
    add_waiting(1, 2, 11, 21);
    ready_chip(10);
    ready_chip(20);
    ready_chip(11);
    ready_chip(21);
    // The previous run put 5 on port 2 and 6 on port 1, then in apid 2; module
    // id 8 is gone and 5000 never was one.
    restored_uc(5, 11, 2);
    restored_uc(6, 10, 1, 2, 20);
    restored_uc(8, 10, 1);
    restored_uc(5000, 10, 1);
    ds_ready();
    dpm_proc_ds_end(platform::host_handle());
    platform::run_until_idle();
    dpm_vsl_port port1{1, 1, 0, 1};
    dpm_vsl_port port2{1, 1, 0, 2};
    dpm_vsl_info *p1 = dpm_get_vsl_info(&dpm_vslap_cache, &port1, 1);
    dpm_vsl_info *p2 = dpm_get_vsl_info(&dpm_vslap_cache, &port2, 1);
    ASSERT_NE(p1, nullptr);
    ASSERT_NE(p2, nullptr);
    EXPECT_EQ(dpm_find_modid_info(5)->uc_vsl, p2);
    EXPECT_EQ(dpm_find_modid_info(6)->uc_vsl, p1);
    // Under the open brackets every kept record is written; 8 and 5000 are deleted.
    EXPECT_EQ(count_writes(kUc, Op::Set), 3u);
    EXPECT_EQ(count_writes(kUc, Op::Del), 2u);
    EXPECT_TRUE(logged("dst modid 5000 is not exist!"));
    EXPECT_TRUE(logged("del uc, modid:5000!"));
    std::vector<uint32_t> apids_of_6;  // port 1 is in apid 1 now
    for (const auto &w : writes(kUc)) {
        Unpacked<UCluster__KelUcBalance> rec(&u_cluster__kel_uc_balance__descriptor, w.packed);
        if (rec->index->modid == 6) apids_of_6.push_back(rec->apid);
    }
    EXPECT_EQ(apids_of_6, std::vector<uint32_t>{1});
    EXPECT_EQ(is_exprire_mom_flag, 0);
    EXPECT_EQ(dpm_mmc[1].vsl, p1);
}

// The end of the route-map scan, when the other inputs are over, starts the
// data-sync end like any other.
TEST_F(DsEnd, RouteMapScanEndCanBeTheLast) {
    ds_ready();
    dpm_dtm_cache.ds_end = 0;
    Event over = Event::with(XN_MOM_CMD_SET);
    over.msg.scan_over = XN_MOM_SCAN_OVER;
    clear_log();
    EXPECT_EQ(dpm_dtm_cb(platform::host_handle(), over.get()), 0);
    EXPECT_EQ(dpm_dtm_cache.ds_end, 1);
    EXPECT_TRUE(logged("enter", "dpm_proc_ds_end"));
    EXPECT_FALSE(logged("ds not end!", "dpm_proc_ds_end"));
}

TEST_F(DsEnd, RestoredMulticastBoundOrReplaced) {
    struct Case {
        const char *name;
        uint32_t restored_modid;
        size_t mmc_sets, mmc_dels;
        uint32_t modid_after;
    } cases[] = {
        {"chip still active: kept, nothing written", 12, 0, 0, 12},
        {"chip gone: deleted and chosen again", 13, 1, 1, 10},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        add_vsl(1, 1, 10, 20);
        dpm_vsl_info *p = add_vsl(1, 4, 12, 22);
        restored_mmc(1, c.restored_modid);
        ds_ready();
        dpm_proc_ds_end(platform::host_handle());
        EXPECT_EQ(count_writes(kMmc, Op::Set), c.mmc_sets);
        EXPECT_EQ(count_writes(kMmc, Op::Del), c.mmc_dels);
        EXPECT_EQ(dpm_mmc[1].modid, c.modid_after);
        EXPECT_EQ(dpm_mmc[1].valid, 1);
        EXPECT_EQ(dpm_mmc[1].wait_add, 1);
        if (c.mmc_sets == 0) {
            EXPECT_EQ(dpm_mmc[1].vsl, p);
            EXPECT_EQ(dpm_mmc[1].lport, 4u);
            EXPECT_TRUE(logged("apid 1 mmc restore! mmc_modid:12, lport:4"));
        }
        // apid 2 has no port: nothing to choose.
        EXPECT_EQ(dpm_mmc[2].valid, 0);
    }
    // A dropped choice is not restored but made afresh; a restored one on an
    // apid without ports is withdrawn and no longer awaited.
    TearDown();
    SetUp();
    add_vsl(1, 1, 10, 20);
    add_vsl(1, 4, 12, 22);
    restored_mmc(1, 12);
    dpm_mmc[1].valid = 0;
    restored_mmc(2, 30);
    ds_ready();
    clear_log();
    dpm_proc_ds_end(platform::host_handle());
    EXPECT_FALSE(logged("apid 1 mmc restore! mmc_modid:12, lport:4"));
    EXPECT_EQ(dpm_mmc[1].modid, 10u);
    EXPECT_EQ(count_writes(kMmc, Op::Del), 1u);
    EXPECT_EQ(dpm_mmc[2].valid, 0);
    EXPECT_EQ(dpm_mmc[2].wait_add, 0);
}

}  // namespace
