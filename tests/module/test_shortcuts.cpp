// Work the module spares itself against the walks as described: the unicast
// rebuild once per application pass instead of once per device, an index over
// the unicast list for the read-back. Neither may show.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

class Shortcuts : public ModuleTest {
  protected:
    // The own device 1, devices 2 and 3 behind apid 1 on two ports.
    void SetUp() override {
        ModuleTest::SetUp();
        add_mod(1, 1);
        for (uint32_t m : {100u, 101u}) add_mod(2, m);
        for (uint32_t m : {200u, 201u}) add_mod(3, m);
        set_dtm({{1, 2, 1}, {1, 3, 1}}, {{1, 2, 1, 1, 1, 0}});
        first_port_ = add_vsl(1, 1, 10, 20);
        bad_chip_ = add_vsl(1, 2, 11, 21);
        dpm_set_ap_member_chg(1);
        dpm_restore_vsl_lb_ptr();
        ds_ready();
    }
    dpm_vsl_info *first_port_ = nullptr;
    dpm_vsl_info *bad_chip_ = nullptr;
};

// One application pass applies every device in turn, and each device's unicast
// step rebuilds the unicast list from the ports: each logs its rebuild.
TEST_F(Shortcuts, EveryDeviceLogsItsOwnRebuild) {
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

// The read-back finds entries through an index; an application that drops
// an entry in between must not leave the index pointing at it.
TEST_F(Shortcuts, ReadBackAfterTheApplicationDroppedAnEntry) {
    g_mmc_ds_over = 1;  // the LOCAL_DB gate stays shut
    auto read_back = [](uint32_t lport) {
        for (uint32_t m : {100u, 200u}) {
            const char *f = "index { modid: %u } local_modid: 10 apid: 1 lport: %u";
            ASSERT_EQ(platform::db_set(14, kUc, packed(kUc, fmt(f, m, lport))), 0);
        }
        EXPECT_EQ(dpm_uc_balance_cb(platform::host_handle(), Event::ds_request().get()), 0);
        platform::run_until_idle();
    };
    auto entries = [] {
        std::vector<std::pair<uint32_t, uint32_t>> out;  // module id, lport
        dpm_uc_info *uc = nullptr;
        dpm_list_for_each_entry(uc, &dpm_uc_head, link) out.emplace_back(uc->dstmodid, uc->lport);
        return out;
    };
    read_back(7);
    using Want = std::vector<std::pair<uint32_t, uint32_t>>;
    EXPECT_EQ(entries(), (Want{{100, 7}, {200, 7}}));
    // A port claims 200 only: the application drops 100 and keeps the tail.
    place(dpm_find_modid_info(200), first_port_);
    ASSERT_EQ(dpm_apply_kel_cfg(), 0);
    EXPECT_EQ(entries(), (Want{{200, 1}}));
    read_back(8);
    EXPECT_EQ(entries(), (Want{{200, 8}, {100, 8}}));
}

}  // namespace
