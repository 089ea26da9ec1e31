// Logging and event timing: the level gate, the formatting idiom, the fixed
// file paths, the timing ring with its dumps, and the temporary level.
#include "module_fixture.h"

namespace {

using namespace dpm_test;

class Log : public ModuleTest {
  protected:
    Log() : ModuleTest(1, false, true) {}
    void TearDown() override {
        free(udp_dpm_dbg_time.entries);
        udp_dpm_dbg_time = {};
    }
    static void ring(uint32_t size) {
        free(udp_dpm_dbg_time.entries);
        udp_dpm_dbg_time = {};
        udp_dpm_dbg_time.per_cnt = 1;
        udp_dpm_dbg_time.size = size;
        udp_dpm_dbg_time.names = udp_dpm_dbg_time_str;
        udp_dpm_dbg_time.entries =
            static_cast<dpm_time_entry *>(calloc(size, sizeof(dpm_time_entry)));
    }
};

TEST_F(Log, LevelGateForEachLevelWord) {
    struct row {
        uint32_t module_level;
        bool info, notice, warn, error, fatal;
    };
    const row rows[] = {
        {0, false, false, false, false, true},
        {1, false, false, false, true, true},
        {2, false, false, true, true, true},
        {3, false, true, true, true, true},
        {4, true, true, true, true, true},
        // A level file holding -1 gives the largest unsigned level.
        {static_cast<uint32_t>(-1), true, true, true, true, true},
    };
    for (const row &r : rows) {
        g_udp_dpm_zlog_level = r.module_level;
        platform::take_log();
        DPM_INFO("i");
        DPM_NOTICE("n");
        DPM_WARN("w");
        DPM_ERR("e");
        DPM_FATAL("f");
        auto log = platform::take_log();
        const std::string fn = "TestBody";
        EXPECT_EQ(has_log(log, fn, "i", XN_ZLOG_INFO), r.info) << r.module_level;
        EXPECT_EQ(has_log(log, fn, "n", XN_ZLOG_NOTICE), r.notice) << r.module_level;
        EXPECT_EQ(has_log(log, fn, "w", XN_ZLOG_WARN), r.warn) << r.module_level;
        EXPECT_EQ(has_log(log, fn, "e", XN_ZLOG_ERROR), r.error) << r.module_level;
        EXPECT_EQ(has_log(log, fn, "f", XN_ZLOG_FATAL), r.fatal) << r.module_level;
    }
}

std::string ring_line(uint32_t cnt, const char *name, int data) {
    char buf[128];
    snprintf(buf, sizeof buf, "%-8d %-15s %-15d ", static_cast<int>(cnt), name, data);
    return buf;
}

// Parse the cnt column of every event line of a dump.
std::vector<int> dump_cnts(const std::string &out) {
    std::vector<int> cnts;
    std::istringstream in(out);
    std::string line;
    bool in_rows = false;
    while (std::getline(in, line)) {
        if (line.rfind("cnt ", 0) == 0) {
            in_rows = true;
            continue;
        }
        if (!in_rows) continue;
        if (line.empty() || line.rfind("count", 0) == 0) break;
        cnts.push_back(std::stoi(line));
    }
    return cnts;
}

TEST_F(Log, RingKeepsTheLastSizeEvents) {
    struct row {
        uint32_t events;
        int first, last;
        uint32_t cur_idx;
    };
    const row rows[] = {{3, 1, 3, 3}, {205, 6, 205, 5}, {200, 1, 200, 0}};
    for (const row &r : rows) {
        ring(200);
        for (uint32_t i = 1; i <= r.events; ++i) {
            udp_dpm_time_record(static_cast<int32_t>(i % DPM_T_COUNT), static_cast<int32_t>(i));
        }
        const std::string out = run_cmd("dump_time");
        std::vector<int> want;
        for (int c = r.first; c <= r.last; ++c) want.push_back(c);
        EXPECT_EQ(dump_cnts(out), want) << r.events;
        char tail[256];
        snprintf(tail, sizeof tail,
                 "count      :%u\nper cnt    :1\nsize       :200\ncur_idx    :%u\n", r.events,
                 r.cur_idx);
        EXPECT_NE(out.find(tail), std::string::npos) << out.substr(out.size() - 200);
        // Each line names the event and carries its data.
        const uint32_t c = static_cast<uint32_t>(r.last);
        EXPECT_NE(
            out.find(ring_line(c, udp_dpm_dbg_time_str[c % DPM_T_COUNT].name, static_cast<int>(c))),
            std::string::npos);
    }
    EXPECT_EQ(std::string(udp_dpm_dbg_time_str[0].name), "libddm_init");
    EXPECT_EQ(std::string(udp_dpm_dbg_time_str[37].name), "not_online");
    EXPECT_EQ(udp_dpm_dbg_time_str[33].event, 33);
}

// Fixed paths live under UDP_DPM_ROOT when it is set and not empty.
TEST(LogPath, RootPrefixesFixedPaths) {
    const std::string saved = getenv("UDP_DPM_ROOT") != nullptr ? getenv("UDP_DPM_ROOT") : "";
    unsetenv("UDP_DPM_ROOT");
    EXPECT_STREQ(udp_dpm_path("/etc/x"), "/etc/x");
    for (std::string root : {"", "/r"}) {
        setenv("UDP_DPM_ROOT", root.c_str(), 1);
        EXPECT_EQ(udp_dpm_path("/etc/x"), root + "/etc/x");
    }
    setenv("UDP_DPM_ROOT", saved.c_str(), 1);
}

TEST_F(Log, RecordLogReplacesARunningRecording) {
    run_cmd("record_log", {20, 6});
    EXPECT_EQ(run_cmd("record_log", {5, 7}),
              "stop recording log, log level:6->1. \n"
              "start recording log for 5 minutes, level:7. \n");
    platform::advance_us(5ULL * 60 * 1000000);
    platform::run_until_idle();
    EXPECT_EQ(g_udp_dpm_zlog_level, 1U);
    g_udp_dpm_zlog_level = 6;
    platform::advance_us(20ULL * 60 * 1000000);  // the first timer is gone
    platform::run_until_idle();
    EXPECT_EQ(g_udp_dpm_zlog_level, 6U);
}

}  // namespace
