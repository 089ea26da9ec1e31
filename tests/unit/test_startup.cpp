// Start-up of a freshly loaded module: the happy path, every failure row, the
// level file, the ring size and a repeated start-up. Each test loads its own
// copy of the shared object so that every global starts at its load value.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

#include "frame_test_util.h"
#include "p_dev.pb.h"
#include "test_support.h"

namespace {

using frame_test::has_log;

const char *const kCommands[] = {
    "set-log-level",     "show-log-level",        "dump_dtm_cache",   "dump_dtm_history",
    "dump_vsl_cache",    "dump_vsl_unused_cache", "dump_vslchip_rdy", "dump_modid_info",
    "dump_modid_by_dev", "dump_modid_cache",      "dump_uc_balance",  "dump_igr",
    "dump_egr",          "dbg_modalloc",          "dbg_lvsl",         "dump_vsl_cut_type",
    "dbg_dtm",           "dbg_db_reconn",         "dump_mmc",         "dump_time",
    "dump_time_file",    "dump_mmc_back",         "dump_mod_slot",    "record_log",
};

class Startup : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset();
        dpm_test::remove_root_file("etc/pktdbg/udp_dpm");
    }
    void TearDown() override { dpm_test::remove_root_file("etc/pktdbg/udp_dpm"); }

    static std::string cmd(const std::string &name, const std::vector<int> &args = {}) {
        return frame_test::run_cmd(name, args);
    }
};

TEST_F(Startup, FullStartConnectsThreeSessionsThenLocalAfterReadBack) {
    dpm_test::write_root_file("etc/pktdbg/udp_dpm", "4\n");
    dpm_test::ModuleInstance mod;
    EXPECT_EQ(mod.start(1, 3), 0);
    EXPECT_TRUE(platform::db_connected(0));
    EXPECT_TRUE(platform::db_connected(14));
    EXPECT_TRUE(platform::db_connected(8));
    EXPECT_FALSE(platform::db_connected(3));

    std::set<std::string> names;
    for (const auto &c : platform::commands()) {
        EXPECT_EQ(c.module, "udp_dpm");
        names.insert(c.name);
    }
    EXPECT_EQ(names, std::set<std::string>(std::begin(kCommands), std::end(kCommands)));
    for (const auto &c : platform::commands()) {
        if (c.name == "dbg_lvsl") {
            EXPECT_EQ(c.nargs, 8);
        }
        if (c.name == "record_log") {
            EXPECT_EQ(c.nargs, 2);
        }
        if (c.name == "dump_time") {
            EXPECT_EQ(c.nargs, 0);
        }
    }

    auto log = platform::take_log();
    EXPECT_TRUE(has_log(log, "dpm_base_data_init", "enter"));
    EXPECT_TRUE(has_log(log, "udp_dpm_mom_init", "enter pkt_frame_fe_mom_init", XN_ZLOG_FATAL));
    EXPECT_TRUE(has_log(log, "dpm_at_init", "at init 0", XN_ZLOG_ERROR));
    EXPECT_TRUE(
        has_log(log, "udp_dpm_cap_get", "udp_dpm_cap_get, g_kel_ring_cut_type = 0", XN_ZLOG_ERROR));
    EXPECT_TRUE(has_log(log, "udp_dpm_cap_init", "init udp_dpm cap successfully. cut_type = 0"));

    // Empty TOPO_DB: the three read-back scans end at once, then LOCAL_DB.
    platform::run_until_idle();
    EXPECT_TRUE(platform::db_connected(3));
    log = platform::take_log();
    EXPECT_TRUE(has_log(log, "dpm_local_db_conn_cb", "dpm_local_db_conn_cb, kel_cut_type:0"));

    // The own device entry exists from the start.
    const std::string dev = cmd("dump_modid_by_dev", {3});
    EXPECT_EQ(dev.rfind("\nthe information of dev 3\nfwd_state:0, isconfig:0, is_dtm_used:1, "
                        "modid_cnt:0, modid_bmp:\n",
                        0),
              0U)
        << dev;
    const std::string ring = cmd("dump_time");
    for (const char *ev : {"asic_conn", "topo_conn", "udp_conn", "ucscanover", "mmcscanover",
                           "igrscanover", "local_conn"}) {
        EXPECT_NE(ring.find(std::string(" ") + ev + " "), std::string::npos) << ev;
    }

    // The agent's key events reach the role handler.
    p_dev::dp_lib_grole role;
    role.set_my_grole(p_dev::DM_ROLE_MASTER);
    ASSERT_EQ(platform::agent_set("p_dev.dp_lib_grole", role.SerializeAsString()), 0);
    platform::run_until_idle();
    EXPECT_NE(cmd("dump_time").find(" grole "), std::string::npos);
}

struct FailRow {
    const char *name;
    std::function<void()> setup;
    int rv;
    bool asic, topo_async, udp;
    size_t commands;
    std::vector<std::string> logs;  // "func|text"
};

TEST_F(Startup, FailureRows) {
    const std::vector<FailRow> rows = {
        {"libddm_init fails",
         [] { platform::fail("libddm_init"); },
         -11,
         false,
         false,
         false,
         0,
         {"ce_dpm_dlib_init|libddm_init failed."}},
        {"notification registration fails",
         [] { platform::fail("libddm_notify_reg", -1, 1); },  // the first of the two
         -11,
         false,
         false,
         false,
         0,
         {"ce_dpm_dlib_init|libddm_init failed."}},
        {"asic connect fails",
         [] { platform::fail("xn_mom_client_connect_sync", 0); },
         0,
         true,
         false,
         false,
         24,
         {"dpm_conn_db|conn asic db failed! rv is -1"}},
        {"topo connect fails",
         [] { platform::fail("xn_mom_client_connect", 14, 1, 4); },
         0,
         true,
         false,
         false,
         24,
         {"dpm_conn_db|conn topo db failed! rv is 4"}},
        {"udp connect fails",
         [] { platform::fail("xn_mom_client_connect", 8, 1, 2); },
         0,
         true,
         true,
         true,  // the synchronous connect was made
         24,
         {"dpm_conn_db|conn udp db failed! rv is 2"}},
        {"disconnect cb of topo fails",
         [] { platform::fail("xn_mom_client_set_disconnect_cb", 14); },
         0,
         true,
         true,
         true,
         24,
         {"dpm_conn_db|set disconn TOPO db failed! rv is -1"}},
        {"reconnect cb of asic fails",
         [] { platform::fail("xn_mom_client_set_reconnect_cb", 0); },
         0,
         true,
         true,
         true,
         24,
         {"dpm_conn_db|set reconn ASIC db failed! rv is -1"}},
        {"reconnect cb of udp fails",
         [] { platform::fail("xn_mom_client_set_reconnect_cb", 8); },
         0,
         true,
         true,
         true,
         24,
         {"dpm_conn_db|set reconn udp db failed! rv is -1"}},
        {"agent cannot be created",
         [] { platform::fail("xn_mom_ab_init"); },
         0,
         true,
         true,
         true,
         24,
         {"udp_dpm_mom_init|xn_mom_ab_init failed.\n"}},
        {"data-sync registration fails",
         [] { platform::fail("xn_mom_reg_ds", -1, 1, -3); },
         0,
         true,
         true,
         true,
         24,
         {"udp_dpm_mom_init|dpm ds fail, ds_id:-3\n"}},
        {"debug framework fails",
         [] { platform::set_ssat_init_result(-5); },
         -5,
         true,
         true,
         true,
         24,
         {"dpm_at_init|at init -5", "ce_dpm_dlib_init|at init failed! rv is -5"}},
        {"capacity frame fails",
         [] { platform::fail("libxn_cap_init", -1, 1, -9); },
         0,
         true,
         true,
         true,
         24,
         {"udp_dpm_cap_init|init udp_dpm cap frame failed, rv = -9."}},
        {"capacity read fails",
         [] { platform::set_capacity("u_cluster/dpm/dev_topo/kel_ring_cut_type", std::nullopt); },
         0,
         true,
         true,
         true,
         24,
         {"udp_dpm_cap_get|udp_dpm_cap_get fail! rv = -1",
          "udp_dpm_cap_get|udp_dpm_cap_get, g_kel_ring_cut_type = 0"}},
    };
    for (const FailRow &r : rows) {
        SCOPED_TRACE(r.name);
        platform::reset();
        dpm_test::ModuleInstance mod;
        r.setup();
        EXPECT_EQ(mod.start(1, 1), r.rv);
        auto log = platform::take_log();
        EXPECT_EQ(platform::db_connected(0), r.asic);
        EXPECT_EQ(platform::db_connected(8), r.udp);
        EXPECT_EQ(platform::commands().size(), r.commands);
        for (const std::string &want : r.logs) {
            const size_t bar = want.find('|');
            EXPECT_TRUE(has_log(log, want.substr(0, bar), want.substr(bar + 1))) << want;
        }
        // The TOPO_DB connect callback runs only when its asynchronous connect was made.
        platform::run_until_idle();
        log = platform::take_log();
        EXPECT_EQ(platform::db_connected(3), r.topo_async);
        if (r.commands != 0) {
            EXPECT_EQ(cmd("dump_vsl_cut_type"), "vsl ring cut type: 0\n");
        }
    }
}

TEST_F(Startup, NullHandleDoesNothing) {
    dpm_test::ModuleInstance mod;
    EXPECT_EQ(mod.start(1, 1, true), -11);
    EXPECT_TRUE(platform::take_log().empty());
    EXPECT_TRUE(platform::commands().empty());
    EXPECT_FALSE(platform::db_connected(0));
    EXPECT_EQ(platform::pending(), 0U);
}

TEST_F(Startup, FailedTopoConnectArmsNoCallbacks) {
    dpm_test::write_root_file("etc/pktdbg/udp_dpm", "4");
    dpm_test::ModuleInstance mod;
    platform::fail("xn_mom_client_connect", 14);
    EXPECT_EQ(mod.start(1, 1), 0);
    platform::run_until_idle();
    platform::take_log();
    // No disconnect callback was set for ASIC_DB.
    platform::db_disconnect(0);
    platform::run_until_idle();
    EXPECT_FALSE(has_log(platform::take_log(), "dpm_asic_db_disconn_cb", "disconnect asic_db"));
}

TEST_F(Startup, RingCutTypeFromCapacity) {
    for (int type : {1, 2}) {
        platform::reset();
        platform::set_capacity("u_cluster/dpm/dev_topo/kel_ring_cut_type", type);
        dpm_test::ModuleInstance mod;
        EXPECT_EQ(mod.start(1, 1), 0);
        EXPECT_EQ(cmd("dump_vsl_cut_type"), "vsl ring cut type: " + std::to_string(type) + "\n");
    }
}

TEST_F(Startup, LevelFile) {
    struct row {
        const char *content;  // nullptr: no file
        const char *shown;
    };
    const row rows[] = {
        {"5", "log level: 5"},    {"0", "log level: 0"},      {"text", "log level: 0"},
        {"", "log level: 1"},     {"-1", "log level: -1"},    {nullptr, "log level: 1"},
        {"  7x", "log level: 7"}, {"3\n9\n", "log level: 3"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.content != nullptr ? r.content : "(missing)");
        platform::reset();
        if (r.content != nullptr) {
            dpm_test::write_root_file("etc/pktdbg/udp_dpm", r.content);
        } else {
            dpm_test::remove_root_file("etc/pktdbg/udp_dpm");
        }
        dpm_test::ModuleInstance mod;
        ASSERT_EQ(mod.start(1, 1), 0);
        EXPECT_EQ(cmd("show-log-level"), r.shown);
    }
    // Level 0 keeps fatal messages only; -1 lets info messages through.
    platform::reset();
    dpm_test::write_root_file("etc/pktdbg/udp_dpm", "0");
    {
        dpm_test::ModuleInstance mod;
        ASSERT_EQ(mod.start(1, 1), 0);
        for (const auto &l : platform::take_log()) EXPECT_EQ(l.level, XN_ZLOG_FATAL) << l.text;
    }
    platform::reset();
    dpm_test::write_root_file("etc/pktdbg/udp_dpm", "-1");
    {
        dpm_test::ModuleInstance mod;
        ASSERT_EQ(mod.start(1, 1), 0);
        EXPECT_TRUE(has_log(platform::take_log(), "dpm_base_data_init", "enter", XN_ZLOG_INFO));
    }
}

TEST_F(Startup, RingSizeByNodeType) {
    for (unsigned node : {1U, 0U, 2U, 7U}) {
        platform::reset();
        dpm_test::ModuleInstance mod;
        ASSERT_EQ(mod.start(node, 1), 0);
        const std::string out = cmd("dump_time");
        const char *want = node == 1 ? "size       :200\n" : "size       :500\n";
        EXPECT_NE(out.find(want), std::string::npos) << node;
    }
}

TEST_F(Startup, SecondStartDoesNotConnectAgain) {
    dpm_test::ModuleInstance mod;
    ASSERT_EQ(mod.start(1, 1), 0);
    platform::run_until_idle();
    EXPECT_EQ(cmd("dump_time").find("count      :0\n"), std::string::npos);
    platform::take_log();

    // Any further connect would fail and be logged.
    platform::fail("xn_mom_client_connect_sync", -1, -1);
    platform::fail("xn_mom_client_connect", -1, -1);
    EXPECT_EQ(mod.start(1, 2), 0);
    auto log = platform::take_log();
    for (const auto &l : log) EXPECT_NE(l.func, "dpm_conn_db") << l.text;
    EXPECT_EQ(platform::pending(), 0U);
    // The ring and the caches were set up again: the own entry is now device 2's.
    EXPECT_NE(cmd("dump_time").find("count      :0\n"), std::string::npos);
    EXPECT_EQ(cmd("dump_modid_by_dev", {1}), "");
    EXPECT_NE(cmd("dump_modid_by_dev", {2}), "");
}

}  // namespace
