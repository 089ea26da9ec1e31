// Member forwarding state: exact word matching, the own record never taken
// from the database, application after data sync, and the one-way move of the
// own state to "forward" with its write.
#include <vector>

#include "intake_fixture.h"

namespace {

using dpm_test::Event;
using intake_test::IntakeTest;

struct DevState {
    UCluster__DevIdx idx = U_CLUSTER__DEV_IDX__INIT;
    UCluster__KelDevFwdstate rec = U_CLUSTER__KEL_DEV_FWDSTATE__INIT;
    std::string word;
    DevState(uint32_t devid, std::string w) : word(std::move(w)) {
        idx.devid = devid;
        rec.index = &idx;
        rec.fwd_state = word.data();
    }
    DevState(const DevState &) = delete;
    ProtobufCMessage *msg() { return &rec.base; }
};

int feed(Event e) {
    return dpm_dev_fwd_state_cb(platform::host_handle(), e.get());
}

// The own record as written to UDP_DB.
std::string written_word(const platform::ModuleWrite &w) {
    UCluster__KelDevFwdstate *m = u_cluster__kel_dev_fwdstate__unpack(
        nullptr, w.packed.size(), reinterpret_cast<const uint8_t *>(w.packed.data()));
    if (m == nullptr) return "<undecodable>";
    std::string out = std::to_string(m->index != nullptr ? m->index->devid : 999) + ":" +
                      (m->fwd_state != nullptr ? m->fwd_state : "");
    u_cluster__kel_dev_fwdstate__free_unpacked(m, nullptr);
    return out;
}

class FwdStateTest : public IntakeTest {};

TEST_F(FwdStateTest, PeerStateFollowsTheExactWord) {
    struct Row {
        const char *word;
        uint32_t expect;
    };
    const Row rows[] = {
        {"block", 0},    {"part_forward", 1},
        {"forward", 2},  {"timeout", 3},
        {"Forward", 3},  // no match: the last state stays
        {"forwar", 3},   {"", 3},
        {"forward ", 3},
    };
    ASSERT_NE(dpm_alloc_dev_head(2), nullptr);
    for (const Row &row : rows) {
        SCOPED_TRACE(row.word);
        DevState s(2, row.word);
        EXPECT_EQ(feed(Event::set(s.msg())), 0);
        EXPECT_EQ(dpm_find_dev_head(2)->fwd_state, row.expect);
    }
}

TEST_F(FwdStateTest, UnknownDeviceGetsAnEntry) {
    DevState s(4, "part_forward");
    EXPECT_EQ(feed(Event::set(s.msg())), 0);
    EXPECT_TRUE(logged("can't find dev 4"));
    ASSERT_NE(dpm_find_dev_head(4), nullptr);
    EXPECT_EQ(dpm_find_dev_head(4)->fwd_state, 1U);
    EXPECT_EQ(dpm_modid_dev_cache.dev_cnt, 2U);
}

TEST_F(FwdStateTest, OwnRecordIsNotTakenFromTheDatabase) {
    dpm_find_dev_head(g_mydevid)->fwd_state = DPM_FWD_FORWARD;
    make_ready();
    DevState s(g_mydevid, "block");
    EXPECT_EQ(feed(Event::set(s.msg())), 0);
    EXPECT_EQ(dpm_find_dev_head(g_mydevid)->fwd_state, DPM_FWD_FORWARD);
    EXPECT_TRUE(logged("my state is 2 in cache! my state is 0 in mom!"));
    // Nothing follows, not even the application's own readiness test.
    EXPECT_FALSE(logged("ds not end!"));
    EXPECT_TRUE(platform::module_writes().empty());
}

TEST_F(FwdStateTest, ApplicationOnlyAfterReadiness) {
    ASSERT_NE(dpm_alloc_dev_head(2), nullptr);
    DevState s(2, "part_forward");
    EXPECT_EQ(feed(Event::set(s.msg())), 0);
    EXPECT_TRUE(logged("ds not end!", "dpm_proc_dev_fwd_state_add"));
    EXPECT_EQ(dpm_find_dev_head(2)->fwd_state, 1U);

    make_ready();
    clear_log();
    DevState odd(2, "FORWARD");  // unknown word: cached state stays, still applied
    EXPECT_EQ(feed(Event::set(odd.msg())), 0);
    EXPECT_FALSE(logged("ds not end!", "dpm_proc_dev_fwd_state_add"));
    EXPECT_EQ(dpm_find_dev_head(2)->fwd_state, 1U);
}

TEST_F(FwdStateTest, DeleteOnlyLogs) {
    ASSERT_NE(dpm_alloc_dev_head(2), nullptr);
    dpm_find_dev_head(2)->fwd_state = DPM_FWD_FORWARD;
    DevState s(2, "");
    EXPECT_EQ(feed(Event::del(s.msg())), 0);
    EXPECT_TRUE(logged("del dev_st. dev:2"));
    EXPECT_EQ(dpm_find_dev_head(2)->fwd_state, DPM_FWD_FORWARD);
}

TEST_F(FwdStateTest, EventFrameAndBadRecords) {
    DevState big(40, "forward");
    UCluster__KelDevFwdstate no_index = U_CLUSTER__KEL_DEV_FWDSTATE__INIT;
    struct Row {
        const char *name;
        Event ev;
        bool null_event;
        int rv;
        const char *message;
    };
    std::vector<Row> rows = {
        {"no event", Event{}, true, DPM_ERR_EVENT, "msg is NULL!"},
        {"event error", Event::error(9), false, DPM_ERR_EVENT, "msg error is 9!"},
        {"device id beyond the bitmap", Event::set(big.msg()), false, 0,
         "dev fwd state devid 40 out of range, dropped"},
        {"record without index", Event::set(&no_index.base), false, 0,
         "dev fwd state record invalid, cmd:1, dropped"},
    };
    for (auto &row : rows) {
        SCOPED_TRACE(row.name);
        clear_log();
        EXPECT_EQ(
            dpm_dev_fwd_state_cb(platform::host_handle(), row.null_event ? nullptr : row.ev.get()),
            row.rv);
        EXPECT_TRUE(logged(row.message, "dpm_dev_fwd_state_cb"));
    }
    EXPECT_EQ(dpm_modid_dev_cache.dev_cnt, 1U);
}

TEST_F(FwdStateTest, DataSyncRescansThroughTheAddPath) {
    DevState s(3, "timeout");
    ASSERT_EQ(
        platform::db_set(XN_MOM_UDP_DB, "u_cluster.kel_dev_fwdstate", dpm_test::pack(s.msg())), 0);
    EXPECT_EQ(feed(Event::ds_request()), 0);
    platform::run_until_idle();
    ASSERT_NE(dpm_find_dev_head(3), nullptr);
    EXPECT_EQ(dpm_find_dev_head(3)->fwd_state, 3U);
    EXPECT_TRUE(logged("scan over"));
}

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

TEST_F(FwdStateTest, FailedWriteKeepsTheCachedStateForward) {
    platform::fail("xn_mom_set", XN_MOM_UDP_DB);
    dpm_update_my_fwd_state(0);
    EXPECT_EQ(dpm_get_my_fwd_state(), DPM_FWD_FORWARD);
    EXPECT_TRUE(logged("set dev_fwd_state failed, rv is -1", "dpm_set_dev_fwd_state"));
    EXPECT_TRUE(logged("set state fwd fail, rv is -1", "dpm_update_my_fwd_state"));
    // No retry until a data-sync end.
    dpm_update_my_fwd_state(0);
    EXPECT_TRUE(platform::module_writes().empty());
    dpm_update_my_fwd_state(1);
    EXPECT_EQ(platform::module_writes().size(), 1U);
}

TEST_F(FwdStateTest, MissingOwnEntry) {
    dpm_cache_init();
    dpm_update_my_fwd_state(0);
    EXPECT_TRUE(logged("can;t find my_dev 1 head"));
    EXPECT_EQ(dpm_get_my_fwd_state(), 0U);
    EXPECT_TRUE(logged("can't find dev 1", "dpm_get_my_fwd_state"));
    EXPECT_TRUE(platform::module_writes().empty());
}

TEST_F(FwdStateTest, DelDevFwdStateDeletesTheKeyedRecord) {
    EXPECT_EQ(dpm_del_dev_fwd_state(2), 0);
    ASSERT_EQ(platform::module_writes().size(), 1U);
    EXPECT_EQ(platform::module_writes()[0].op, platform::ModuleWrite::Del);
    EXPECT_EQ(written_word(platform::module_writes()[0]), "2:");
    platform::fail("xn_mom_del", XN_MOM_UDP_DB, 1, -3);
    EXPECT_EQ(dpm_del_dev_fwd_state(2), -3);
    EXPECT_TRUE(logged("del dev_fwd_state failed, rv is -3"));
}

}  // namespace
