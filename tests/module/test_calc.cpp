// Calculation from the topology map: used devices, validity, source-module
// filters and the correction of unicast placements when routes move.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

class Calc : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        ds_ready();
        for (uint32_t m : {1u, 2u}) add_mod(1, m);
        for (uint32_t m : {100u, 101u}) add_mod(2, m);
    }
    static dpm_modid_bmp bmp(std::initializer_list<uint32_t> ids) {
        dpm_modid_bmp b{};
        for (uint32_t m : ids) dpm_bmp_set(b, m);
        return b;
    }
};

TEST_F(Calc, FiltersOfTwoMembersWithOneOwnMulticastRoute) {
    // Two own routes of the same source through the same port permit it once.
    set_dtm({{1, 2, 1}, {2, 1, 1}}, {{1, 2, 1, 1, 1, 0}, {1, 2, 1, 1, 1, 0}, {2, 1, 2, 1, 2, 0}});
    add_vsl(1, 1);
    ASSERT_EQ(dpm_calc_kel_cfg_by_dtm(), 0);
    EXPECT_EQ(dpm_igr_permit[1].apid, 1u);
    EXPECT_EQ(dpm_igr_permit[1].dev_bmp, 1u << 2);
    EXPECT_EQ(dpm_igr_permit[1].modid_bmp, bmp({100, 101}));
    EXPECT_EQ(dpm_igr_permit[2].modid_bmp, bmp({}));  // the other member's route is ignored
    EXPECT_EQ(dpm_egr_block[1].modid_bmp, bmp({1, 2}));
    EXPECT_EQ(dpm_egr_block[2].modid_bmp, bmp({1, 2, 100, 101}));
    EXPECT_EQ(dpm_egr_block[1].apid, 0u);
    EXPECT_EQ(dpm_dtm_cache.newest->valid, 1);
    // The history keeps the ten newest maps.
    for (int i = 0; i < 10; ++i) set_dtm({{1, 2, 1}}, {});
    EXPECT_EQ(dpm_list_count(&dpm_dtm_cache.history), DPM_DTM_HISTORY_MAX);
}

TEST_F(Calc, FilterRouteOddities) {
    // iif 0 adds no permit but its out-interfaces still open the block; only
    // the first two out-interfaces of a route count.
    // A source outside the device range permits nothing.
    set_dtm({{1, 2, 1}}, {{1, 2, 0, 3, 1, 2}, {1, 40, 1, 1, 1, 0}});
    add_vsl(1, 1);
    add_vsl(2, 2);
    ASSERT_EQ(dpm_calc_kel_cfg_by_dtm(), 0);
    EXPECT_TRUE(logged("apid:0"));
    EXPECT_TRUE(logged("devid 40 is out of range, apid:1"));
    EXPECT_EQ(dpm_igr_permit[1].dev_bmp | dpm_igr_permit[2].dev_bmp, 0u);
    EXPECT_EQ(dpm_egr_block[1].modid_bmp, bmp({1, 2}));
    EXPECT_EQ(dpm_egr_block[2].modid_bmp, bmp({1, 2}));
}

TEST_F(Calc, ValidityOnlyCountsOwnOutInterfaces) {
    struct Case {
        const char *name;
        std::vector<Fib> fibs;
        std::vector<Mfib> mfibs;
        bool valid;
    } cases[] = {
        {"own unicast on apid 1 only", {{1, 2, 1}}, {{1, 2, 1, 1, 1, 0}}, true},
        {"second out-interface on empty apid 2", {{1, 2, 1}}, {{1, 2, 1, 2, 1, 2}}, false},
        {"oif_num 3 still counts both stored ports", {{1, 2, 1}}, {{1, 2, 1, 3, 1, 2}}, false},
        {"oif_num 1 ignores the second slot", {{1, 2, 1}}, {{1, 2, 1, 1, 1, 2}}, true},
        {"iif on empty apid 2 does not count", {{1, 2, 1}}, {{1, 2, 2, 1, 1, 0}}, true},
        {"own unicast on empty apid 2", {{1, 2, 2}}, {{1, 2, 1, 1, 1, 0}}, false},
        {"unicast oif 3 does not count", {{1, 2, 3}}, {{1, 2, 1, 1, 1, 0}}, true},
        {"other member's route on apid 2", {{2, 1, 2}}, {{2, 1, 1, 1, 2, 0}}, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        set_dtm(c.fibs, c.mfibs);
        add_vsl(1, 1);
        clear_log();
        EXPECT_EQ(dpm_is_cur_dtm_valid(), c.valid ? 0 : -11);
        EXPECT_EQ(dpm_dtm_cache.newest->valid, c.valid ? 1 : 0);
        EXPECT_TRUE(logged(c.valid ? "valid" : "not valid"));
        EXPECT_EQ(dpm_calc_kel_cfg_by_dtm(), c.valid ? 0 : -11);
        if (!c.valid) {
            EXPECT_TRUE(logged("apid not ready!"));
        }
    }
}

TEST_F(Calc, RouteMovePlacesModidsOnTheNewAggregatePort) {
    dpm_modid_info *mb = add_mod(2, 102, DPM_NODE_MB);
    set_dtm({{1, 2, 1}}, {{1, 2, 1, 1, 1, 0}});
    dpm_vsl_info *p1 = add_vsl(1, 1);
    dpm_vsl_info *p2 = add_vsl(2, 2, 11, 21);
    dpm_restore_vsl_lb_ptr();
    ASSERT_EQ(dpm_calc_kel_cfg_by_dtm(), 0);
    EXPECT_EQ(p1->modid_cnt, 2u);
    EXPECT_EQ(p1->modid_bmp, bmp({100, 101, 102}));
    EXPECT_EQ(mb->uc_vsl, p1);
    // Own modules are never placed.
    EXPECT_EQ(dpm_find_modid_info(1)->is_used, 0);

    // The same map again keeps every placement.
    set_dtm({{1, 2, 1}}, {{1, 2, 1, 1, 1, 0}});
    ASSERT_EQ(dpm_calc_kel_cfg_by_dtm(), 0);
    EXPECT_EQ(p1->modid_bmp, bmp({100, 101, 102}));

    // Device 2 now lies behind apid 2.
    set_dtm({{1, 2, 2}}, {{1, 2, 2, 1, 2, 0}});
    ASSERT_EQ(dpm_calc_kel_cfg_by_dtm(), 0);
    EXPECT_EQ(p1->modid_cnt, 0u);
    EXPECT_TRUE(dpm_bmp_empty(p1->modid_bmp));
    EXPECT_EQ(p2->modid_cnt, 2u);
    EXPECT_EQ(p2->modid_bmp, bmp({100, 101, 102}));
    for (uint32_t m : {100u, 101u, 102u}) {
        EXPECT_EQ(dpm_find_modid_info(m)->uc_vsl, p2) << m;
        EXPECT_EQ(dpm_find_modid_info(m)->is_used, 1) << m;
    }
}

TEST_F(Calc, RemoteDeviceWithoutRouteStaysUnplaced) {
    add_mod(3, 300);
    set_dtm({{1, 2, 1}}, {{1, 2, 1, 1, 1, 0}});
    dpm_vsl_info *p1 = add_vsl(1, 1);
    dpm_restore_vsl_lb_ptr();
    // A stale bit of a module id that left the cache is dropped from its port.
    dpm_bmp_set(p1->modid_bmp, 555);
    // Device 3 is not in the map: it is blocked and no longer configured,
    // and as global master this member deletes its state record.
    g_my_grole = DPM_ROLE_MASTER;
    dpm_find_dev_head(3)->fwd_state = DPM_FWD_FORWARD;
    dpm_find_dev_head(3)->isconfig = 1;
    ASSERT_EQ(dpm_calc_kel_cfg_by_dtm(), 0);
    EXPECT_EQ(dpm_find_dev_head(3)->fwd_state, DPM_FWD_BLOCK);
    EXPECT_EQ(dpm_find_dev_head(3)->isconfig, 0);
    EXPECT_EQ(count_writes("u_cluster.kel_dev_fwdstate", Op::Del), 1u);
    EXPECT_TRUE(logged("cant find oif for modid 300!"));
    EXPECT_TRUE(logged("dpm_modid_uc_balance failed!"));
    EXPECT_TRUE(logged("can't find modid 555 info!"));
    EXPECT_FALSE(dpm_bmp_test(p1->modid_bmp, 555));
    EXPECT_EQ(dpm_find_modid_info(300)->is_used, 0);
    EXPECT_EQ(p1->modid_cnt, 2u);
}

}  // namespace
