// Helpers of the module-frame tests: a clean module state for white-box tests
// that call the module's functions directly, and log-line searches.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform_ctl.h"
#include "udp_dpm.h"

namespace frame_test {

// Clean stand-in and clean module globals, as after a start-up that made no
// connection. `level` is the module log level (4 lets info lines through).
inline void clean_module(uint32_t level = 4) {
    platform::reset();
    g_udp_dpm_global = platform::host_handle();
    g_udp_dpm_zlog_category = xn_zlog_init("udp_dpm");
    g_udp_dpm_zlog_level = level;
    s_udp_dpm_zlog_thread = nullptr;
    g_mydevid = 1;
    g_my_grole = 0;
    g_kel_ring_cut_type = 0;
    inited = 0;
    dpm_cache_init();
    rdy_vsl_chip_ds_end = 0;
    g_uc_ds_over = 0;
    g_igr_ds_over = 0;
    g_mmc_ds_over = 0;
    is_exprire_mom_flag = 0;
    platform::take_log();
}

inline bool has_log(const std::vector<platform::LogLine> &log, const std::string &func,
                    const std::string &text, int level = -1) {
    for (const auto &l : log) {
        if (l.func == func && l.text == text && (level < 0 || l.level == level)) return true;
    }
    return false;
}

inline size_t count_log(const std::vector<platform::LogLine> &log, const std::string &func,
                        const std::string &text) {
    size_t n = 0;
    for (const auto &l : log) n += (l.func == func && l.text == text) ? 1 : 0;
    return n;
}

inline std::string run_cmd(const std::string &name, const std::vector<int> &args = {}) {
    std::string out;
    EXPECT_TRUE(platform::run_command(name, args, &out)) << name;
    return out;
}

inline std::string golden(const std::string &name) {
    std::ifstream in(std::string(DPM_SOURCE_DIR) + "/tests/unit/golden/" + name, std::ios::binary);
    EXPECT_TRUE(in.good()) << "golden file " << name;
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace frame_test
