// Common ground of the intake tests: a clean stand-in and clean caches with the
// own device entry, logging switched on at info level so that messages can be
// checked, and small builders for the records the intake handlers read.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dpm_intake.h"
#include "platform_ctl.h"
#include "test_support.h"
#include "udp_dpm.h"

namespace intake_test {

constexpr uint32_t kMyDev = 1;
constexpr uint32_t kPeerDev = 2;

class IntakeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset();
        g_udp_dpm_global = platform::host_handle();
        g_udp_dpm_zlog_category = xn_zlog_init("udp_dpm");
        g_udp_dpm_zlog_level = 5;
        g_mydevid = kMyDev;
        g_my_grole = 0;
        g_kel_ring_cut_type = 0;
        dpm_cache_init();
        rdy_vsl_chip_ds_end = 0;
        ASSERT_NE(dpm_alloc_dev_head(g_mydevid), nullptr);
        platform::take_log();
        platform::clear_module_writes();
    }
    void TearDown() override {
        // Release what the test left in the caches.
        dpm_cache_init();
        rdy_vsl_chip_ds_end = 0;
    }

    // The four input syncs over; with_map also stores one route map.
    static void make_ready(bool with_map = true) {
        dpm_dtm_cache.ds_end = 1;
        dpm_vslap_cache.ds_end = 1;
        dpm_modid_dev_cache.ds_end = 1;
        rdy_vsl_chip_ds_end = 1;
        if (with_map) {
            dpm_dtm_info *info = dpm_dtm_malloc_info(0, 1);
            ASSERT_NE(info, nullptr);
            info->mfib_num = 1;
            info->mfibs = reinterpret_cast<dpm_mfib_entry *>(info->fibs);
            dpm_add_dtm_info(info);
        }
    }

    // Log lines since the last call.
    void grab_log() {
        auto lines = platform::take_log();
        log_.insert(log_.end(), lines.begin(), lines.end());
    }
    bool logged(const std::string &text, const std::string &func = "") {
        grab_log();
        for (const auto &l : log_) {
            if (l.text == text && (func.empty() || l.func == func)) return true;
        }
        return false;
    }
    int log_count(const std::string &text) {
        grab_log();
        int n = 0;
        for (const auto &l : log_) n += l.text == text ? 1 : 0;
        return n;
    }
    void clear_log() {
        platform::take_log();
        log_.clear();
    }

    std::vector<platform::LogLine> log_;
};

inline size_t count_writes(const std::string &type, platform::ModuleWrite::Op op) {
    size_t n = 0;
    for (const auto &w : platform::module_writes()) n += (w.type == type && w.op == op) ? 1 : 0;
    return n;
}

inline size_t list_len(const dpm_list *head) {
    return dpm_list_count(head);
}

}  // namespace intake_test
