// One application pass applies every device in turn, and each device's unicast
// step rebuilds the unicast list from the ports. A pass may spare itself the
// repeats only where they change nothing: what each device's step logs stays.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

class ApplyPass : public ModuleTest {
  protected:
    // The own device 1, devices 2 and 3 behind apid 1 on two ports.
    void SetUp() override {
        ModuleTest::SetUp();
        add_mod(1, 1);
        for (uint32_t m : {100u, 101u}) add_mod(2, m);
        for (uint32_t m : {200u, 201u}) add_mod(3, m);
        set_dtm({{1, 2, 1}, {1, 3, 1}}, {{1, 2, 1, 1, 1, 0}});
        add_vsl(1, 1, 10, 20);
        bad_chip_ = add_vsl(1, 2, 11, 21);
        dpm_set_ap_member_chg(1);
        dpm_restore_vsl_lb_ptr();
        ds_ready();
    }
    dpm_vsl_info *bad_chip_ = nullptr;
};

TEST_F(ApplyPass, EveryDeviceLogsItsOwnRebuild) {
    const struct {
        uint32_t level;
        bool bad_chip;  // the second port's chip id names no module id
        const char *text;
        const char *func;
    } cases[] = {
        {4, false, "enter", "dpm_convert_vsllb_to_uc"},
        {4, false, "get modid 10", "dpm_get_vslmodid_by_vslinfo"},
        {1, true, "get vsl modid fail, 1-1-0-2", "dpm_convert_vsllb_to_uc_by_vsl"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        g_udp_dpm_zlog_level = c.level;
        bad_chip_->chipid = c.bad_chip ? 0x80000000U : 11;
        ASSERT_EQ(dpm_calc_kel_cfg_by_dtm(), 0);
        clear_log();
        for (int pass = 1; pass <= 2; ++pass) {
            ASSERT_EQ(dpm_apply_kel_cfg(), 0);
            int n = 0;
            for (const auto &l : log()) n += l.text == c.text && l.func == c.func ? 1 : 0;
            EXPECT_EQ(n, 3 * pass) << "pass " << pass;  // devices 1, 2 and 3 each time
        }
    }
}

}  // namespace
