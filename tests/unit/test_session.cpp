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

TEST_F(Session, LaterScanEndConnectsLocalAgain) {
    g_uc_ds_over = g_igr_ds_over = 1;
    ds_request(dpm_mmc_cb);
    EXPECT_TRUE(platform::db_connected(3));
    platform::take_log();
    ds_request(dpm_igr_cb);
    EXPECT_TRUE(has_log(platform::take_log(), "dpm_local_db_conn_cb", "connect local_db"));
}

TEST_F(Session, GateFailuresAreReported) {
    g_uc_ds_over = g_igr_ds_over = g_mmc_ds_over = 1;
    platform::fail("xn_mom_client_connect", 3, 1, 6);
    EXPECT_EQ(dpm_conn_local_db_scanover_out(), 6);
    EXPECT_TRUE(has_log(platform::take_log(), "dpm_conn_local_db_scanover_out",
                        "conn local db failed! rv is 6"));
    platform::fail("xn_mom_client_set_reconnect_cb", 3, 1, 8);
    EXPECT_EQ(dpm_conn_local_db_scanover_out(), 8);
    EXPECT_TRUE(has_log(platform::take_log(), "dpm_conn_local_db_scanover_out",
                        "set reconn local db failed! rv is 8"));
    g_mmc_ds_over = 0;
    EXPECT_EQ(dpm_conn_local_db_scanover_out(), 0);
}

TEST_F(Session, LocalSubscriptionsByRingCutType) {
    struct row {
        int32_t type;
        bool dtm, fiap, unknown;
    };
    const row rows[] = {{0, true, false, false},
                        {1, false, true, false},
                        {2, false, false, true},
                        {-1, false, false, true}};
    for (const row &r : rows) {
        g_kel_ring_cut_type = r.type;
        EXPECT_EQ(dpm_local_db_conn_cb(platform::host_handle()), 0);
        auto log = platform::take_log();
        EXPECT_EQ(has_log(log, "dpm_subscribe_dtm", "enter"), r.dtm) << r.type;
        EXPECT_EQ(has_log(log, "dpm_subscribe_dtm_fiap", "enter"), r.fiap) << r.type;
        EXPECT_EQ(has_log(log, "dpm_local_db_conn_cb",
                          "unknown kel cut type:" + std::to_string(r.type), XN_ZLOG_ERROR),
                  r.unknown);
        EXPECT_TRUE(has_log(log, "dpm_subscribe_vsl", "enter")) << r.type;
        EXPECT_TRUE(has_log(log, "dpm_local_db_conn_cb",
                            "dpm_local_db_conn_cb, kel_cut_type:" + std::to_string(r.type)));
        platform::drop_instance();
        ASSERT_EQ(dpm_at_init(), 0);
    }
}

TEST_F(Session, FailedSubscriptionIsLoggedAndTheNextOneStillMade) {
    platform::fail("xn_mom_subscribe", 14, 1, 3);
    EXPECT_EQ(dpm_topo_db_conn_cb(platform::host_handle()), 0);
    auto log = platform::take_log();
    EXPECT_TRUE(has_log(log, "dpm_subscribe_uc_banlance", "subscribe uc_balance failed, rv is 3",
                        XN_ZLOG_ERROR));
    EXPECT_TRUE(has_log(log, "dpm_subscribe_mmc", "enter"));
    EXPECT_TRUE(has_log(log, "dpm_subscribe_igr", "enter"));

    struct row {
        int db;
        int (*conn)(void *);
        const char *func, *text;
    };
    const row rows[] = {
        {14, dpm_topo_db_conn_cb, "dpm_subscribe_mmc", "subscribe mmc failed, rv is -1"},
        {14, dpm_topo_db_conn_cb, "dpm_subscribe_igr", "subscribe igr failed, rv is -1"},
        {8, dpm_udp_db_conn_cb, "dpm_subscribe_vsl_chipst",
         "subscribe vsl_chipst failed, rv is -1"},
        {3, dpm_local_db_conn_cb, "dpm_subscribe_vsl", "subscribe local_vsl failed, rv is -1"},
        {3, dpm_local_db_conn_cb, "dpm_subscribe_dtm", "subscribe dtm failed, rv is -1"},
    };
    for (const row &r : rows) {
        // Fail every subscription of that database: each is reported.
        platform::fail("xn_mom_subscribe", r.db, -1);
        r.conn(platform::host_handle());
        EXPECT_TRUE(has_log(platform::take_log(), r.func, r.text)) << r.text;
        platform::clear_faults();
    }
    platform::fail("xn_mom_subscribe", 14);
    EXPECT_EQ(dpm_subscribe_mmc_back(platform::host_handle()), -1);
    EXPECT_TRUE(has_log(platform::take_log(), "dpm_subscribe_mmc_back",
                        "subscribe mmc_back failed, rv is -1"));
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

TEST_F(Session, DisconnectChangesNothing) {
    ASSERT_EQ(dpm_conn_db(), 0);
    EXPECT_EQ(inited, 1);
    platform::run_until_idle();
    auto *uc = dpm_zalloc<dpm_uc_info>();
    uc->dstmodid = 9;
    dpm_list_add_tail(&uc->link, &dpm_uc_head);
    dpm_igr_permit_applied[1].modid_bmp[0] = 5;
    const std::string before = run_cmd("dump_uc_balance") + run_cmd("dump_igr", {1}) +
                               run_cmd("dump_modid_cache") + run_cmd("dump_vsl_cache");
    platform::take_log();
    for (int db : {0, 14, 8}) platform::db_disconnect(db);
    platform::run_until_idle();
    auto log = platform::take_log();
    EXPECT_TRUE(has_log(log, "dpm_asic_db_disconn_cb", "disconnect asic_db"));
    EXPECT_TRUE(has_log(log, "dpm_topo_db_disconn_cb", "disconnect topo_db"));
    EXPECT_TRUE(has_log(log, "dpm_udp_db_disconn_cb", "disconnect udp_db"));
    EXPECT_EQ(run_cmd("dump_uc_balance") + run_cmd("dump_igr", {1}) + run_cmd("dump_modid_cache") +
                  run_cmd("dump_vsl_cache"),
              before);
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

TEST_F(Session, DebugReconnectRepeatsSubscriptionsOnly) {
    struct row {
        int db;
        const char *subscriber;
    };
    const row rows[] = {{8, "dpm_subscribe_vsl_chipst"},
                        {0, "dpm_subscribe_modid_alloc"},
                        {3, "dpm_subscribe_vsl"},
                        {14, "dpm_subscribe_igr"}};
    for (const row &r : rows) {
        EXPECT_EQ(run_cmd("dbg_db_reconn", {r.db}), "");
        EXPECT_TRUE(has_log(platform::take_log(), r.subscriber, "enter")) << r.db;
        EXPECT_FALSE(platform::db_connected(r.db)) << r.db;
    }
    const size_t queued = platform::pending();
    EXPECT_EQ(run_cmd("dbg_db_reconn", {5}), "process does not connect with the db 5\n");
    EXPECT_TRUE(platform::take_log().empty());
    EXPECT_EQ(platform::pending(), queued);
}

TEST_F(Session, UnresumableSessionEndsTheProcessWith77) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct row {
        int (*reconn)(void *, int, int);
        int db, type;
    };
    const row rows[] = {{dpm_topo_db_reconn_cb, 14, 1},
                        {dpm_udp_db_reconn_cb, 8, 0},
                        {dpm_asic_db_reconn_cb, 0, 3},
                        {dpm_local_db_reconn_cb, 3, 1}};
    for (const row &r : rows) {
        EXPECT_EXIT(r.reconn(platform::host_handle(), r.db, r.type), ::testing::ExitedWithCode(77),
                    "")
            << r.db;
    }
}

}  // namespace
