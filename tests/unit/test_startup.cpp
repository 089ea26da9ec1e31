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

struct FailRow {
    const char *name;
    std::function<void()> setup;
    int rv;
    bool asic, topo_async, udp;
    size_t commands;
    std::vector<std::string> logs;  // "func|text"
};

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
