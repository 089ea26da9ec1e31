// Database sessions: subscriptions per connect callback, the deferred LOCAL_DB
// gate, disconnection, resumed sessions and the debug reconnect.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "frame_test_util.h"
#include "test_support.h"

namespace {

using frame_test::count_log;
using frame_test::has_log;
using frame_test::run_cmd;

class Session : public ::testing::Test {
  protected:
    void SetUp() override {
        frame_test::clean_module(4);
        ASSERT_EQ(dpm_at_init(), 0);
        platform::take_log();
    }
    void TearDown() override { dpm_cache_init(); }

    // The data-sync request that starts one watcher's read-back scan.
    static void ds_request(int (*watcher)(void *, xn_mom_msg_t *)) {
        auto ev = dpm_test::Event::ds_request();
        EXPECT_EQ(watcher(platform::host_handle(), ev.get()), 0);
        platform::run_until_idle();
    }
};

TEST_F(Session, LocalDbOnlyAfterAllThreeScansInAnyOrder) {
    using watcher = int (*)(void *, xn_mom_msg_t *);
    std::array<watcher, 3> order = {dpm_uc_balance_cb, dpm_igr_cb, dpm_mmc_cb};
    std::sort(order.begin(), order.end());
    int orders = 0;
    do {
        frame_test::clean_module(4);
        ASSERT_FALSE(platform::db_connected(3));
        for (size_t i = 0; i < order.size(); ++i) {
            ds_request(order[i]);
            EXPECT_EQ(platform::db_connected(3), i == 2) << "order " << orders << " step " << i;
        }
        auto log = platform::take_log();
        EXPECT_EQ(count_log(log, "dpm_local_db_conn_cb", "connect local_db"), 1U);
        EXPECT_TRUE(has_log(log, "dpm_subscribe_dtm", "enter"));
        EXPECT_TRUE(has_log(log, "dpm_subscribe_vsl", "enter"));
        EXPECT_EQ(g_uc_ds_over + g_igr_ds_over + g_mmc_ds_over, 3);
        ++orders;
    } while (std::next_permutation(order.begin(), order.end()));
    EXPECT_EQ(orders, 6);
}

TEST_F(Session, ConnectCallbacksSubscribeAndRecordTheirEvent) {
    udp_dpm_dbg_time = {};
    static dpm_time_entry entries[16];
    udp_dpm_dbg_time = {0, 1, 16, 0, entries, udp_dpm_dbg_time_str};
    EXPECT_EQ(dpm_asic_db_conn_cb(platform::host_handle()), 0);
    EXPECT_EQ(dpm_udp_db_conn_cb(platform::host_handle()), 0);
    EXPECT_EQ(dpm_topo_db_conn_cb(platform::host_handle()), 0);
    auto log = platform::take_log();
    EXPECT_TRUE(has_log(log, "dpm_asic_db_conn_cb", "connect asic"));
    EXPECT_TRUE(has_log(log, "dpm_subscribe_modid_alloc", "enter"));
    EXPECT_TRUE(has_log(log, "dpm_subscribe_dev_fwd_state", "enter"));
    EXPECT_TRUE(has_log(log, "dpm_subscribe_vsl_chipst", "enter"));
    EXPECT_TRUE(has_log(log, "dpm_topo_db_conn_cb", "connect topo_db"));
    EXPECT_EQ(entries[1].event, DPM_T_ASIC_CONN);
    EXPECT_EQ(entries[2].event, DPM_T_UDP_CONN);
    EXPECT_EQ(entries[3].event, DPM_T_TOPO_CONN);
    udp_dpm_dbg_time = {};
}

TEST_F(Session, ResumedSessionsSubscribeAgain) {
    ASSERT_EQ(dpm_conn_db(), 0);
    platform::run_until_idle();
    platform::take_log();

    struct row {
        int db;
        const char *entry_func, *entry_text;
        int entry_level;
        std::vector<const char *> subscribers;
        const char *resume_text;  // error logged before resuming, or nullptr
    };
    const row rows[] = {
        {14,
         "dpm_topo_db_reconn_cb",
         "reconnect topo_db",
         XN_ZLOG_INFO,
         {"dpm_subscribe_uc_banlance", "dpm_subscribe_mmc", "dpm_subscribe_igr"},
         "reconn topo db"},
        {8,
         "dpm_udp_db_reconn_cb",
         "reconnect udp_db",
         XN_ZLOG_INFO,
         {"dpm_subscribe_dev_fwd_state", "dpm_subscribe_vsl_chipst"},
         "reconn udp_db"},
        {0,
         "dpm_asic_db_reconn_cb",
         "reconnect asic_db",
         XN_ZLOG_ERROR,
         {"dpm_subscribe_modid_alloc"},
         nullptr},
        {3,
         "dpm_local_db_reconn_cb",
         "reconnect local_db",
         XN_ZLOG_ERROR,
         {"dpm_subscribe_dtm", "dpm_subscribe_vsl"},
         nullptr},
    };
    for (const row &r : rows) {
        platform::db_reconnect(r.db, 2);
        platform::run_until_idle();
        auto log = platform::take_log();
        EXPECT_TRUE(has_log(log, r.entry_func, r.entry_text, r.entry_level)) << r.db;
        for (const char *s : r.subscribers) EXPECT_TRUE(has_log(log, s, "enter")) << s;
        if (r.resume_text != nullptr) {
            EXPECT_TRUE(has_log(log, r.entry_func, r.resume_text, XN_ZLOG_ERROR)) << r.db;
        }
    }
}

}  // namespace
