// Member forwarding state: exact word matching, the own record never taken
// from the database, application after data sync, and the one-way move of the
// own state to "forward" with its write.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

// The own record as written to UDP_DB.
std::string written_word(const platform::ModuleWrite &w) {
    Unpacked<UCluster__KelDevFwdstate> m(&u_cluster__kel_dev_fwdstate__descriptor, w.packed);
    if (m.msg == nullptr) return "<undecodable>";
    return std::to_string(m->index != nullptr ? m->index->devid : 999) + ":" +
           (m->fwd_state != nullptr ? m->fwd_state : "");
}

class FwdStateTest : public ModuleTest {};

TEST_F(FwdStateTest, UpdateMyFwdState) {
    struct Row {
        const char *name;
        uint32_t before;
        int is_ds;
        size_t writes;
        const char *message;
    };
    const Row rows[] = {
        {"first forward", 0, 0, 1, ""},
        {"already forward", 2, 0, 0, "my fwd state is 2. not change, return"},
        {"rewrite at data sync", 2, 1, 1, ""},
        {"not forward at data sync", 0, 1, 0, "my fwd state is not forward when ds, return"},
        {"part_forward moves on", 1, 0, 1, ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        platform::clear_module_writes();
        clear_log();
        dpm_find_dev_head(g_mydevid)->fwd_state = row.before;
        dpm_update_my_fwd_state(row.is_ds);
        ASSERT_EQ(platform::module_writes().size(), row.writes);
        if (row.writes == 1) {
            const auto &w = platform::module_writes()[0];
            EXPECT_EQ(w.op, platform::ModuleWrite::Set);
            EXPECT_EQ(w.db, XN_MOM_UDP_DB);
            EXPECT_EQ(written_word(w), "1:forward");
            EXPECT_EQ(dpm_get_my_fwd_state(), DPM_FWD_FORWARD);
        } else {
            EXPECT_TRUE(logged(row.message, "dpm_update_my_fwd_state"));
            EXPECT_EQ(dpm_get_my_fwd_state(), row.before);
        }
    }
}

// The own write and a departed member's deletion report a failure with its
// result, negative or positive; a success is not reported.
TEST_F(FwdStateTest, FailedWritesAreReportedWithTheirResult) {
    for (int rv : {-2, 5, 0}) {
        SCOPED_TRACE(rv);
        clear_log();
        dpm_find_dev_head(g_mydevid)->fwd_state = 0;
        platform::fail("xn_mom_set", XN_MOM_UDP_DB, rv != 0 ? 1 : 0, rv);
        dpm_update_my_fwd_state(0);
        EXPECT_EQ(logged(fmt("set dev_fwd_state failed, rv is %d", rv)), rv != 0);
        EXPECT_EQ(logged(fmt("set state fwd fail, rv is %d", rv)), rv != 0);
        platform::fail("xn_mom_del", XN_MOM_UDP_DB, rv != 0 ? 1 : 0, rv);
        EXPECT_EQ(dpm_del_dev_fwd_state(2), rv);
        EXPECT_EQ(logged(fmt("del dev_fwd_state failed, rv is %d", rv)), rv != 0);
    }
}

// Events: an absent one is refused, a known device is not created again, and
// a record written field by field is not this handler's.
TEST_F(FwdStateTest, EventsOfOtherMembers) {
    EXPECT_EQ(dpm_dev_fwd_state_cb(platform::host_handle(), nullptr), DPM_ERR_EVENT);
    FromText<UCluster__KelDevFwdstate> rec(&u_cluster__kel_dev_fwdstate__descriptor,
                                           "index { devid: 2 } fwd_state: \"forward\"");
    dpm_alloc_dev_head(2);
    clear_log();
    EXPECT_EQ(dpm_dev_fwd_state_cb(platform::host_handle(), Event::set(rec.base()).get()), 0);
    EXPECT_FALSE(logged("can't find dev 2"));
    EXPECT_EQ(dpm_modid_dev_cache.dev_cnt, 2U);
    EXPECT_EQ(dpm_find_dev_head(2)->fwd_state, DPM_FWD_FORWARD);
    // A member not known yet is created with its state.
    FromText<UCluster__KelDevFwdstate> unknown(&u_cluster__kel_dev_fwdstate__descriptor,
                                               "index { devid: 3 } fwd_state: \"forward\"");
    EXPECT_EQ(dpm_dev_fwd_state_cb(platform::host_handle(), Event::set(unknown.base()).get()), 0);
    EXPECT_TRUE(logged("can't find dev 3"));
    ASSERT_NE(dpm_find_dev_head(3), nullptr);
    EXPECT_EQ(dpm_find_dev_head(3)->fwd_state, DPM_FWD_FORWARD);
    clear_log();
    EXPECT_EQ(dpm_dev_fwd_state_cb(platform::host_handle(), Event::hmset(rec.base()).get()), 0);
    EXPECT_TRUE(log().size() == 1U && logged("enter")) << log().size();
}

}  // namespace
