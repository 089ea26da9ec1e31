// White-box fixture of the forwarding-configuration tests: a fresh set of
// caches for member 1, caches filled by hand, and readers for what the module
// logged and wrote through the platform stand-in.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "dpm_intake.h"
#include "platform_ctl.h"
#include "test_support.h"
#include "udp_dpm.h"
#include "xn_zlog.h"

// Steps of the forwarding configuration that the tests drive one by one.
void dpm_restore_vsl_lb_in_ap(int apid);
int dpm_is_cur_dtm_valid(void);
void dpm_get_filter_by_dtm(void);
void dpm_set_dev_dtm_used(void);
int dpm_apply_kel_cfg_by_devid(dpm_dev_head *dev);
int dpm_apply_igr_by_devid(dpm_dev_head *dev, int apid, int block);
int dpm_apply_egr_by_devid(dpm_dev_head *dev, int apid);
void dpm_apply_igr_for_del_modid(int apid);
dpm_vsl_info *dpm_get_vsl_info_by_modid_lport(uint32_t modid, uint32_t lport);
void dpm_restore_vsl_cache(void);
void dpm_restore_vsl_mmc_by_apid(int apid);

namespace fwd {

struct Fib {
    uint8_t owner, dst, oif;
};
struct Mfib {
    uint8_t owner, src, iif, oif_num, oif0, oif1;
};

class FwdTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset();
        dpm_cache_init();
        g_mydevid = 1;
        g_my_grole = 0;
        g_udp_dpm_global = platform::host_handle();
        g_udp_dpm_zlog_category = xn_zlog_init("udp_dpm");
        g_udp_dpm_zlog_level = 4;
        is_exprire_mom_flag = 0;
        rdy_vsl_chip_ds_end = 0;
        ASSERT_NE(dpm_alloc_dev_head(1), nullptr);
        platform::take_log();
    }
    void TearDown() override {
        dpm_cache_init();
        rdy_vsl_chip_ds_end = 0;
        is_exprire_mom_flag = 0;
    }

    static void ds_ready() {
        dpm_dtm_cache.ds_end = 1;
        dpm_vslap_cache.ds_end = 1;
        dpm_modid_dev_cache.ds_end = 1;
        rdy_vsl_chip_ds_end = 1;
    }

    // A module-id entry linked the way the allocation handler links it.
    static dpm_modid_info *add_mod(uint32_t devid, uint32_t modid, uint32_t type = 1) {
        dpm_dev_head *dev = dpm_find_dev_head(devid);
        if (dev == nullptr) dev = dpm_alloc_dev_head(devid);
        auto *e = dpm_zalloc<dpm_modid_info>();
        e->modid = modid;
        e->devid = static_cast<int32_t>(devid);
        e->slot = 1;
        e->type = static_cast<int32_t>(type);
        dpm_list_add_tail(&e->link, &dev->modid_list);
        dev->modid_cnt++;
        dpm_modid_dev_cache.mod_cnt++;
        dpm_bmp_set(dev->modid_bmp, modid);
        dpm_bmp_set(dpm_modid_dev_cache.mod_bmp, modid);
        dpm_modid_index[modid] = e;
        return e;
    }

    static dpm_vsl_info make_vsl(int apid, int lport, uint32_t chip, uint32_t peer_chip,
                                 int slot = 1) {
        dpm_vsl_info v{};
        v.devid = 1;
        v.slot = slot;
        v.lport = lport;
        v.status = 1;
        v.apid = apid;
        v.chipid = chip;
        v.gphyid = static_cast<uint32_t>(100 + lport);
        v.peer_dev = 2;
        v.peer_slot = slot;
        v.peer_lport = lport;
        v.peer_chip = peer_chip;
        return v;
    }
    static dpm_vsl_info *add_vsl(int apid, int lport, uint32_t chip = 10, uint32_t peer = 20,
                                 int slot = 1) {
        dpm_vsl_info v = make_vsl(apid, lport, chip, peer, slot);
        return dpm_add_vsl_info(&dpm_vslap_cache, &v, apid);
    }
    static dpm_vsl_info *add_waiting(int apid, int lport, uint32_t chip = 10, uint32_t peer = 20,
                                     int slot = 1) {
        dpm_vsl_info v = make_vsl(apid, lport, chip, peer, slot);
        return dpm_add_vsl_info(&dpm_vslap_unused_cache, &v, apid);
    }
    static dpm_vsl_port port_of(const dpm_vsl_info *v) {
        return dpm_vsl_port{v->devid, v->slot, v->sslot, v->lport};
    }

    // Put a module id on a port as the balance would.
    static void place(dpm_modid_info *e, dpm_vsl_info *v) {
        dpm_bmp_set(v->modid_bmp, e->modid);
        if (static_cast<uint32_t>(e->type) != DPM_NODE_MB) v->modid_cnt++;
        e->uc_vsl = v;
        e->is_used = 1;
    }

    static void set_dtm(const std::vector<Fib> &fibs, const std::vector<Mfib> &mfibs) {
        dpm_dtm_info *info = dpm_dtm_malloc_info(static_cast<uint32_t>(fibs.size()),
                                                 static_cast<uint32_t>(mfibs.size()));
        info->mfib_num = static_cast<uint32_t>(mfibs.size());
        info->mfibs = reinterpret_cast<dpm_mfib_entry *>(info->fibs + fibs.size());
        for (size_t i = 0; i < fibs.size(); ++i) {
            info->fibs[i] = dpm_fib_entry{fibs[i].owner, fibs[i].dst, fibs[i].oif};
        }
        for (size_t i = 0; i < mfibs.size(); ++i) {
            const Mfib &m = mfibs[i];
            info->mfibs[i] = dpm_mfib_entry{m.owner, m.src, m.iif, m.oif_num, {m.oif0, m.oif1}};
        }
        dpm_add_dtm_info(info);
    }

    // ---- what the module did ---------------------------------------------------

    std::vector<std::string> log_texts() {
        for (auto &l : platform::take_log()) log_.push_back(l.text);
        return log_;
    }
    bool logged(const std::string &text) {
        auto l = log_texts();
        return std::find(l.begin(), l.end(), text) != l.end();
    }
    size_t log_index(const std::string &text) {
        auto l = log_texts();
        return static_cast<size_t>(std::find(l.begin(), l.end(), text) - l.begin());
    }
    void clear_log() {
        platform::take_log();
        log_.clear();
    }

    static std::vector<platform::ModuleWrite> writes(const std::string &type = "") {
        std::vector<platform::ModuleWrite> out;
        for (const auto &w : platform::module_writes()) {
            if (type.empty() || w.type == type) out.push_back(w);
        }
        return out;
    }
    static size_t count(const std::string &type, platform::ModuleWrite::Op op) {
        size_t n = 0;
        for (const auto &w : platform::module_writes()) n += (w.type == type && w.op == op);
        return n;
    }

  private:
    std::vector<std::string> log_;
};

using dpm_test::Unpacked;

inline const std::string kUc = "u_cluster.kel_uc_balance";
inline const std::string kIgr = "u_cluster.vsl_srcmod_igr";
inline const std::string kEgr = "u_cluster.vsl_srcmod_egr";
inline const std::string kMember = "u_cluster.vsl_ap_member";
inline const std::string kMmc = "u_cluster.mainmc_vlan";
inline const std::string kMmcBack = "u_cluster.mainmc_vlan_st";

}  // namespace fwd
