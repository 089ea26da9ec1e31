// VSL port activation and removal: what is recomputed, where the unicast of a
// removed port goes, and how an emptied aggregate port takes a waiting port.
#include "fwd_fixture.h"

namespace {

using fwd::FwdTest;
using fwd::kMember;
using fwd::kMmc;
using fwd::kUc;
using Op = platform::ModuleWrite;

class VslUpDown : public FwdTest {
  protected:
    void SetUp() override {
        FwdTest::SetUp();
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

TEST_F(VslUpDown, FirstPortCalculatesLaterOnesOnlyRebalance) {
    ds_ready();
    ASSERT_EQ(up(1, 1), 0);
    EXPECT_FALSE(logged("apid not ready!"));
    EXPECT_TRUE(logged("valid"));  // the calculation ran
    EXPECT_EQ(active(1, 1)->modid_cnt, 3u);
    EXPECT_EQ(count(kUc, Op::Set), 3u);
    EXPECT_EQ(count(kMember, Op::Set), 1u);
    EXPECT_EQ(count(kMmc, Op::Set), 1u);
    clear_log();
    platform::clear_module_writes();
    ASSERT_EQ(up(1, 2, 11, 21), 0);
    EXPECT_FALSE(logged("valid"));  // no calculation for a second port
    EXPECT_TRUE(logged("vsl restore is not balance!max:3, min:0"));
    EXPECT_EQ(active(1, 1)->modid_cnt, 2u);
    EXPECT_EQ(active(1, 2)->modid_cnt, 1u);
    EXPECT_TRUE(dpm_bmp_test(active(1, 2)->modid_bmp, 2000));
    EXPECT_EQ(count(kUc, Op::Set), 1u);
    EXPECT_EQ(count(kMember, Op::Set), 1u);
    EXPECT_EQ(count(kMmc, Op::Set), 0u);  // the choice stays
}

TEST_F(VslUpDown, ActivationRefusesUnknownChips) {
    for (auto [chip, peer] : {std::pair{0u, 20u}, std::pair{10u, 0u}}) {
        EXPECT_EQ(up(1, 1, chip, peer), -11);
        EXPECT_TRUE(logged("vsl chipid is invalid! devid:1, slot:1, sslot:0, lport:1"));
        EXPECT_EQ(dpm_vslap_cache.ap[1].vsl_cnt, 0u);
    }
    EXPECT_EQ(up(3, 1), -11);
}

TEST_F(VslUpDown, RemovalMovesHighestModidFirstAndForgetsThePort) {
    ds_ready();
    ASSERT_EQ(up(1, 1), 0);
    ASSERT_EQ(up(1, 2, 11, 21), 0);
    ASSERT_EQ(up(1, 3, 12, 22), 0);
    // Gather 5 and 2000 on port 2 (and 6 on port 3), then take port 2 down.
    dpm_vsl_info *p1 = active(1, 1);
    dpm_vsl_info *p2 = active(1, 2);
    dpm_vsl_info *p3 = active(1, 3);
    for (dpm_vsl_info *p : {p1, p2, p3}) {
        p->modid_bmp = dpm_modid_bmp{};
        p->modid_cnt = 0;
    }
    place(dpm_find_modid_info(5), p2);
    place(dpm_find_modid_info(2000), p2);
    place(dpm_find_modid_info(6), p3);
    clear_log();
    dpm_vsl_port port = port_of(p2);
    ASSERT_EQ(dpm_proc_lvsl_down(&port, 1), 0);
    EXPECT_TRUE(logged("del vsl info from unused fail, dev:1, slot:1, sslot:0, lport:2"));
    size_t first = log_index("enter, modid:2000");
    size_t second = log_index("enter, modid:5");
    ASSERT_LT(first, log_texts().size());
    EXPECT_LT(first, second);
    // 2000 went to the emptier port 1, then 5 to the first of the now equal ones.
    EXPECT_EQ(dpm_find_modid_info(2000)->uc_vsl, p1);
    EXPECT_EQ(dpm_find_modid_info(5)->uc_vsl, p1);
    EXPECT_EQ(dpm_vslap_cache.ap[1].vsl_cnt, 2u);
    EXPECT_EQ(dpm_vslap_cache.ap[1].chang_flag, 0);  // written by the application
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
