// Logging and event timing: the level gate, the formatting idiom, the fixed
// file paths, the timing ring with its dumps, and the temporary level.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "frame_test_util.h"
#include "test_support.h"

namespace {

using frame_test::run_cmd;

class Log : public ::testing::Test {
  protected:
    void SetUp() override {
        frame_test::clean_module(1);
        ASSERT_EQ(dpm_at_init(), 0);
        platform::take_log();
    }
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
        EXPECT_EQ(frame_test::has_log(log, fn, "i", XN_ZLOG_INFO), r.info) << r.module_level;
        EXPECT_EQ(frame_test::has_log(log, fn, "n", XN_ZLOG_NOTICE), r.notice) << r.module_level;
        EXPECT_EQ(frame_test::has_log(log, fn, "w", XN_ZLOG_WARN), r.warn) << r.module_level;
        EXPECT_EQ(frame_test::has_log(log, fn, "e", XN_ZLOG_ERROR), r.error) << r.module_level;
        EXPECT_EQ(frame_test::has_log(log, fn, "f", XN_ZLOG_FATAL), r.fatal) << r.module_level;
    }
}

TEST_F(Log, MessageCarriesFileFunctionLineAndIsCutAt1023) {
    g_udp_dpm_zlog_level = 1;
    const std::string long_text(1500, 'x');
    const long line = __LINE__ + 1;
    udp_dpm_log(XN_ZLOG_ERROR, __FILE__, "some_func", line, "%s-%d", long_text.c_str(), 7);
    auto log = platform::take_log();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].func, "some_func");
    EXPECT_EQ(log[0].file, __FILE__);
    EXPECT_EQ(log[0].line, line);
    EXPECT_EQ(log[0].level, XN_ZLOG_ERROR);
    EXPECT_EQ(log[0].text, std::string(1023, 'x'));

    // A '%' in an argument is text, not a format.
    DPM_ERR("%s", "50%d");
    log = platform::take_log();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].text, "50%d");
}

TEST_F(Log, NoCategoryNothingLogged) {
    void *cat = g_udp_dpm_zlog_category;
    g_udp_dpm_zlog_category = nullptr;
    DPM_FATAL("dropped");
    g_udp_dpm_zlog_category = cat;
    EXPECT_TRUE(platform::take_log().empty());
}

TEST_F(Log, FixedFilesLiveUnderTheRootWhenSet) {
    const char *saved = getenv("UDP_DPM_ROOT");
    std::string keep = saved != nullptr ? saved : "";
    setenv("UDP_DPM_ROOT", "/tmp/r", 1);
    EXPECT_STREQ(udp_dpm_path("/etc/pktdbg/udp_dpm"), "/tmp/r/etc/pktdbg/udp_dpm");
    unsetenv("UDP_DPM_ROOT");
    EXPECT_STREQ(udp_dpm_path("/etc/dpm_dbg_time"), "/etc/dpm_dbg_time");
    if (saved != nullptr) setenv("UDP_DPM_ROOT", keep.c_str(), 1);
}

TEST_F(Log, SetAndShowLevel) {
    run_cmd("set-log-level", {3});
    EXPECT_EQ(g_udp_dpm_zlog_level, 3U);
    EXPECT_EQ(run_cmd("show-log-level"), "log level: 3");
    run_cmd("set-log-level", {-1});
    EXPECT_EQ(g_udp_dpm_zlog_level, 0xFFFFFFFFU);
    EXPECT_TRUE(platform::take_log().empty());  // no message of its own
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

TEST_F(Log, RingHeaderAndNotInit) {
    ring(200);
    udp_dpm_time_record(DPM_T_DTM, 4);
    const std::string out = run_cmd("dump_time");
    char head[128];
    snprintf(head, sizeof head, "\n%-8s %-15s %-15s %-15s %-10s\n", "cnt", "event", "data",
             "input(s)", "(us)");
    EXPECT_EQ(out.rfind(head, 0), 0U);
    EXPECT_NE(out.find(ring_line(1, "dtm", 4)), std::string::npos);

    free(udp_dpm_dbg_time.entries);
    udp_dpm_dbg_time = {};
    udp_dpm_time_record(DPM_T_DTM, 0);  // off: no effect, no crash
    EXPECT_EQ(udp_dpm_dbg_time.count, 0U);
    EXPECT_EQ(run_cmd("dump_time"), "\nnot init");

    ring(10);
    udp_dpm_dbg_time.names = nullptr;
    EXPECT_EQ(run_cmd("dump_time"), "\nno name");
}

TEST_F(Log, SamplingStoresEveryPerCntThEvent) {
    ring(4);
    udp_dpm_dbg_time.per_cnt = 3;
    for (int i = 0; i < 7; ++i) udp_dpm_time_record(DPM_T_VSL, i);
    EXPECT_EQ(udp_dpm_dbg_time.count, 7U);
    EXPECT_EQ(udp_dpm_dbg_time.cur_idx, 2U);
    EXPECT_EQ(udp_dpm_dbg_time.entries[1].cnt, 3U);
    EXPECT_EQ(udp_dpm_dbg_time.entries[2].cnt, 6U);
    EXPECT_EQ(udp_dpm_dbg_time.entries[2].data, 5);
}

TEST_F(Log, DumpTimeFileAppends) {
    const std::string path = dpm_test::scratch_root() + "/etc/dpm_dbg_time";
    dpm_test::write_root_file("etc/dpm_dbg_time", "earlier\n");
    ring(200);
    udp_dpm_time_record(DPM_T_GROLE, 0);
    EXPECT_EQ(run_cmd("dump_time_file"), "");
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    const std::string text = s.str();
    EXPECT_EQ(text.rfind("earlier\n\ncnt ", 0), 0U) << text;
    EXPECT_NE(text.find(ring_line(1, "grole", 0)), std::string::npos);
    EXPECT_EQ(text.find("count      :"), std::string::npos);

    // No file possible there: the note, nothing else.
    dpm_test::remove_root_file("etc/dpm_dbg_time");
    std::filesystem::create_directories(path);
    EXPECT_EQ(run_cmd("dump_time_file"), "File open fail!");
    std::filesystem::remove(path);
}

TEST_F(Log, RecordLogRaisesForAtMost30MinutesThenBackTo1) {
    g_udp_dpm_zlog_level = 2;
    EXPECT_EQ(run_cmd("record_log", {45, 5}), "start recording log for 30 minutes, level:5. \n");
    EXPECT_EQ(g_udp_dpm_zlog_level, 5U);
    EXPECT_NE(s_udp_dpm_zlog_thread, nullptr);
    auto log = platform::take_log();
    EXPECT_TRUE(frame_test::has_log(log, "udp_dpm_record_log",
                                    "start recording log for 30 minutes, level:5.", XN_ZLOG_INFO));

    platform::advance_us(30ULL * 60 * 1000000 - 1);
    platform::run_until_idle();
    EXPECT_EQ(g_udp_dpm_zlog_level, 5U);
    platform::advance_us(1);
    platform::run_until_idle();
    EXPECT_EQ(g_udp_dpm_zlog_level, 1U);
    EXPECT_EQ(s_udp_dpm_zlog_thread, nullptr);
    log = platform::take_log();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].func, "udp_dpm_reset_zlog_thread");
    EXPECT_EQ(log[0].text.rfind("stop recording log, xn_thread", 0), 0U);
    EXPECT_NE(log[0].text.find(", log level:5->1"), std::string::npos);
}

TEST_F(Log, RecordLogStopsAPendingRecording) {
    struct row {
        int minutes, level;
        const char *out;
    };
    // Each of these only stops the recording started before it.
    const row rows[] = {
        {0, 5, "stop recording log, log level:4->1. \n"},
        {10, -1, "stop recording log, log level:4->1. \n"},
        {-3, 2, "stop recording log, log level:4->1. \n"},
    };
    for (const row &r : rows) {
        run_cmd("record_log", {10, 4});
        ASSERT_EQ(g_udp_dpm_zlog_level, 4U);
        EXPECT_EQ(run_cmd("record_log", {r.minutes, r.level}), r.out);
        EXPECT_EQ(g_udp_dpm_zlog_level, 1U);
        EXPECT_EQ(s_udp_dpm_zlog_thread, nullptr);
        // The cancelled timer never fires later.
        g_udp_dpm_zlog_level = 3;
        platform::advance_us(11ULL * 60 * 1000000);
        platform::run_until_idle();
        EXPECT_EQ(g_udp_dpm_zlog_level, 3U);
        g_udp_dpm_zlog_level = 4;
    }
    // Nothing pending: a negative level changes nothing at all.
    g_udp_dpm_zlog_level = 2;
    EXPECT_EQ(run_cmd("record_log", {5, -2}), "");
    EXPECT_EQ(g_udp_dpm_zlog_level, 2U);
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

TEST_F(Log, RecordLogPlatformFailures) {
    g_udp_dpm_zlog_level = 2;
    platform::fail("xn_mom_get_thread_local_global");
    EXPECT_EQ(run_cmd("record_log", {5, 5}), "failed to get thread global. ");
    EXPECT_EQ(g_udp_dpm_zlog_level, 2U);
    platform::fail("xn_thread_add_timer_timeval");
    EXPECT_EQ(run_cmd("record_log", {5, 5}), "start recording log failed. ");
    EXPECT_EQ(g_udp_dpm_zlog_level, 2U);
    EXPECT_EQ(s_udp_dpm_zlog_thread, nullptr);
}

}  // namespace
