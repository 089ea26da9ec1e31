// The common ground of the module tests: a clean module for each test (made
// by tests/support, shared with the benchmarks), readers for what it logged,
// wrote and printed, golden files, and the module's fixed files.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "module_state.h"
#include "platform_ctl.h"
#include "record_builders.h"

namespace dpm_test {

inline const std::string kUc = "u_cluster.kel_uc_balance";
inline const std::string kIgr = "u_cluster.vsl_srcmod_igr";
inline const std::string kEgr = "u_cluster.vsl_srcmod_egr";
inline const std::string kMmc = "u_cluster.mainmc_vlan";
inline const std::string kMmcBack = "u_cluster.mainmc_vlan_st";
using Op = platform::ModuleWrite;

// A line of `text` logged by `func` (empty: any function) at `level` (-1: any).
inline bool has_log(const std::vector<platform::LogLine> &log, const std::string &func,
                    const std::string &text, int level = -1) {
    for (const auto &l : log) {
        if ((func.empty() || l.func == func) && l.text == text && (level < 0 || l.level == level))
            return true;
    }
    return false;
}

inline std::vector<platform::ModuleWrite> writes(const std::string &type = "") {
    std::vector<platform::ModuleWrite> out;
    for (const auto &w : platform::module_writes()) {
        if (type.empty() || w.type == type) out.push_back(w);
    }
    return out;
}

inline size_t count_writes(const std::string &type, platform::ModuleWrite::Op op) {
    size_t n = 0;
    for (const auto &w : writes(type)) n += w.op == op ? 1 : 0;
    return n;
}

// The output of a debug command.
inline std::string run_cmd(const std::string &name, const std::vector<int> &args = {}) {
    std::string out;
    EXPECT_TRUE(platform::run_command(name, args, &out)) << name;
    return out;
}

inline std::string golden(const std::string &name) {
    std::ifstream in(std::string(DPM_SOURCE_DIR) + "/tests/module/golden/" + name,
                     std::ios::binary);
    EXPECT_TRUE(in.good()) << "golden file " << name;
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Write a file under the module's root directory (UDP_DPM_ROOT, a scratch
// directory made once per process), such as "etc/pktdbg/fib"; empty content
// removes it.
inline void root_file(const std::string &rel, const std::string &content) {
    static const std::filesystem::path root = [] {
        std::string tmpl = (std::filesystem::temp_directory_path() / "dpm-test-XXXXXX").string();
        if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp");
        setenv("UDP_DPM_ROOT", tmpl.c_str(), 1);
        return tmpl;
    }();
    if (content.empty()) {
        std::filesystem::remove(root / rel);
        return;
    }
    std::filesystem::create_directories((root / rel).parent_path());
    std::ofstream(root / rel, std::ios::binary | std::ios::trunc) << content;
}

// A clean module for each test; the caches are emptied again afterwards.
class ModuleTest : public ::testing::Test {
  protected:
    // `commands`: the debug commands registered, as the start-up does.
    explicit ModuleTest(uint32_t level = 4, bool own_dev = true, bool commands = false)
        : level_(level), own_dev_(own_dev), commands_(commands) {}
    void SetUp() override {
        clean_module(level_, own_dev_);
        if (commands_) {
            ASSERT_EQ(dpm_at_init(), 0);
            platform::take_log();
        }
    }
    void TearDown() override {
        dpm_cache_init();
        rdy_vsl_chip_ds_end = 0;
        is_exprire_mom_flag = 0;
    }

    // ---- what the module logged --------------------------------------------------

    // Log lines since the last clear_log().
    const std::vector<platform::LogLine> &log() {
        auto lines = platform::take_log();
        log_.insert(log_.end(), lines.begin(), lines.end());
        return log_;
    }
    bool logged(const std::string &text, const std::string &func = "") {
        return has_log(log(), func, text);
    }
    int log_count(const std::string &text) {
        int n = 0;
        for (const auto &l : log()) n += l.text == text ? 1 : 0;
        return n;
    }
    void clear_log() {
        platform::take_log();
        log_.clear();
    }

  private:
    uint32_t level_;
    bool own_dev_, commands_;
    std::vector<platform::LogLine> log_;
};

}  // namespace dpm_test
