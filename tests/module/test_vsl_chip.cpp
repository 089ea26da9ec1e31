// VSL chip state: the forward list in arrival order, "vsl_chip exist" ending
// the add, a non-forward report keeping a listed chip, the follow-up after
// data sync, deletion by record and by device.
#include <vector>

#include "module_fixture.h"

namespace {

using namespace dpm_test;

// A "forward" report of chip `unit` (module id `modid`) of device/slot 1.
std::string chip_state(uint32_t dev, uint32_t unit, uint32_t modid) {
    return fmt("index { t_devid: %u slot: 1 unit: %u } fwd_state: \"forward\" modid: %u", dev, unit,
               modid);
}
struct ChipState : FromText<UCluster__VslChipFwdstate> {
    ChipState(uint32_t dev, uint32_t unit, uint32_t modid)
        : FromText(&u_cluster__vsl_chip_fwdstate__descriptor, chip_state(dev, unit, modid)) {}
};

int feed(Event e) {
    return dpm_vsl_chipst_cb(platform::host_handle(), e.get());
}

std::vector<uint32_t> listed_modids() {
    std::vector<uint32_t> out;
    dpm_vsl_chip *c = nullptr;
    dpm_list_for_each_entry(c, &dpm_vsl_chip_head, link) out.push_back(c->modid);
    return out;
}

class VslChipTest : public ModuleTest {};

TEST_F(VslChipTest, OwnChipAfterAnApplicationMakesTheMemberForward) {
    struct Row {
        const char *name;
        bool ready;
        bool applied;
        uint32_t chip_dev;
        uint32_t expect_state;
    };
    const Row rows[] = {
        {"own chip after application", true, true, 1, DPM_FWD_FORWARD},
        {"peer chip after application", true, true, 2, DPM_FWD_BLOCK},
        {"own chip before any application", true, false, 1, DPM_FWD_BLOCK},
        {"own chip before data sync", false, true, 1, DPM_FWD_BLOCK},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        if (row.ready) make_ready();
        if (row.applied) {
            dpm_dtm_info *m = dpm_dtm_malloc_info(0, 0);
            dpm_add_dtm_info(m);
            dpm_set_hwcfg(m);
        }
        ChipState s(row.chip_dev, 0, 30);
        EXPECT_EQ(feed(Event::set(s.base())), 0);
        EXPECT_EQ(dpm_get_my_fwd_state(), row.expect_state);
        EXPECT_EQ(count_writes("u_cluster.kel_dev_fwdstate", Op::Set),
                  row.expect_state == DPM_FWD_FORWARD ? 1U : 0U);
        EXPECT_EQ(logged("ds not end!", "dpm_proc_vsl_chipst_add"), !row.ready);
        EXPECT_TRUE(logged("enter", "dpm_proc_vsl_chipst_add"));
        EXPECT_TRUE(logged("enter", "dpm_save_vsl_chipst"));
        TearDown();
    }
}

TEST_F(VslChipTest, DeleteEventRemovesOnlyThatChip) {
    ChipState a(2, 0, 20);
    ChipState b(2, 1, 21);
    ASSERT_EQ(feed(Event::set(a.base())), 0);
    ASSERT_EQ(feed(Event::set(b.base())), 0);
    EXPECT_EQ(feed(Event::del(a.base())), 0);
    EXPECT_EQ(listed_modids(), (std::vector<uint32_t>{21}));
    clear_log();
    EXPECT_EQ(feed(Event::del(a.base())), 0);
    EXPECT_TRUE(logged("can't find vsl_chip"));
    EXPECT_TRUE(platform::module_writes().empty());
}

TEST_F(VslChipTest, EventFrameScanAndBadRecords) {
    UCluster__VslChipFwdstate no_index = U_CLUSTER__VSL_CHIP_FWDSTATE__INIT;
    EXPECT_EQ(dpm_vsl_chipst_cb(platform::host_handle(), nullptr), DPM_ERR_EVENT);
    EXPECT_TRUE(logged("msg is NULL!"));
    EXPECT_EQ(feed(Event::error(1)), DPM_ERR_EVENT);
    EXPECT_TRUE(logged("msg error is 1!"));
    EXPECT_EQ(feed(Event::set(&no_index.base)), 0);
    EXPECT_TRUE(logged("vsl_chip state record invalid, cmd:1, dropped"));
    EXPECT_TRUE(listed_modids().empty());

    ASSERT_EQ(platform::db_set(XN_MOM_UDP_DB, "u_cluster.vsl_chip_fwdstate",
                               packed("u_cluster.vsl_chip_fwdstate", chip_state(2, 0, 20))),
              0);
    EXPECT_EQ(feed(Event::ds_request()), 0);
    platform::run_until_idle();
    EXPECT_EQ(listed_modids(), (std::vector<uint32_t>{20}));
    EXPECT_EQ(rdy_vsl_chip_ds_end, 1);
    EXPECT_TRUE(logged("ds not end!", "dpm_proc_ds_end"));

    platform::fail("xn_mom_scan", XN_MOM_UDP_DB);
    EXPECT_EQ(feed(Event::ds_request()), 0);
    EXPECT_TRUE(logged("scan vsl_chip state failed!"));
}

}  // namespace
