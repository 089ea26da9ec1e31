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

}  // namespace
