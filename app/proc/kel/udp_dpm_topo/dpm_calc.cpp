// Configuration calculation from the newest topology route map.
//
// From the map this member received last, work out which member devices take
// part, the source-module filters of each VSL aggregate port (ingress permit,
// egress block) and a VSL port for every remote module id. Nothing is written
// here: the application (dpm_apply.cpp) compares the result with what TOPO_DB
// holds and writes the differences. Placements already made survive as long as
// the module's route keeps leaving through the same aggregate port, so a new
// map moves only the destinations whose route really moved.
#include "dpm_config_steps.h"
#include "udp_dpm.h"

namespace {

bool dpm_fib_is_mine(const dpm_fib_entry &fib) {
    return fib.owner == g_mydevid;
}
bool dpm_mfib_is_mine(const dpm_mfib_entry &mfib) {
    return mfib.owner == g_mydevid;
}
uint32_t dpm_mfib_oif_cnt(const dpm_mfib_entry &mfib) {
    return mfib.oif_num < 2 ? mfib.oif_num : 2;
}

}  // namespace

void dpm_clear_used_flag(void) {
    DPM_INFO("enter");
    dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        if (dev->devid != g_mydevid) dev->is_dtm_used = 0;
        dpm_modid_info *mod = nullptr;
        dpm_list_for_each_entry(mod, &dev->modid_list, link) mod->is_used = 0;
    }
}

void dpm_set_dev_dtm_used(void) {
    DPM_INFO("ENTER");
    const dpm_dtm_info *dtm = dpm_dtm_cache.newest;
    if (dtm == nullptr) return;
    DPM_INFO("fibnum:%d!", dtm->fib_num);
    for (uint32_t i = 0; i < dtm->fib_num; ++i) {
        const dpm_fib_entry &fib = dtm->fibs[i];
        if (!dpm_fib_is_mine(fib)) continue;
        DPM_INFO("devid:%d dtm used!", fib.dst);
        if (!dpm_devid_valid(fib.dst)) {
            DPM_ERR("devid %d is out of range, route dropped", fib.dst);
            continue;
        }
        dpm_dev_head *dev = dpm_find_dev_head(fib.dst);
        // A failed creation has logged "can;t alloc!" itself.
        if (dev == nullptr) dev = dpm_alloc_dev_head(fib.dst);
        if (dev == nullptr) continue;
        dev->is_dtm_used = 1;
    }
}

// A map is usable when every aggregate port it sends through has a VSL port.
// Only out-interfaces count: traffic arriving on a port that has no link
// cannot arrive, but traffic sent to it would be lost.
int dpm_is_cur_dtm_valid(void) {
    dpm_dtm_info *dtm = dpm_dtm_cache.newest;
    if (dtm == nullptr) {
        DPM_ERR("dtm info is NULL!");
        return DPM_ERR_FAIL;
    }
    bool used[DPM_APID_SLOTS] = {false, false, false};
    for (uint32_t i = 0; i < dtm->fib_num; ++i) {
        const dpm_fib_entry &fib = dtm->fibs[i];
        if (dpm_fib_is_mine(fib) && dpm_apid_valid(fib.oif)) used[fib.oif] = true;
    }
    for (uint32_t i = 0; i < dtm->mfib_num; ++i) {
        const dpm_mfib_entry &mfib = dtm->mfibs[i];
        if (!dpm_mfib_is_mine(mfib)) continue;
        for (uint32_t k = 0; k < dpm_mfib_oif_cnt(mfib); ++k) {
            if (dpm_apid_valid(mfib.oif_id[k])) used[mfib.oif_id[k]] = true;
        }
    }
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        if (used[apid] && dpm_vslap_cache.ap[apid].vsl_cnt == 0) {
            DPM_INFO("not valid");
            return DPM_ERR_FAIL;
        }
    }
    DPM_INFO("valid");
    dtm->valid = 1;
    return DPM_OK;
}

// Traffic of `src` enters through `iif`: permit its module ids there.
void dpm_get_apigr_by_mfib(const dpm_mfib_entry &mfib) {
    DPM_INFO("enter");
    if (!dpm_apid_valid(mfib.iif)) {
        DPM_ERR("apid:%d", mfib.iif);
        return;
    }
    dpm_srcmod_filter &igr = dpm_igr_permit[mfib.iif];
    igr.apid = mfib.iif;
    if (!dpm_devid_valid(mfib.src)) {
        DPM_ERR("devid %d is out of range, apid:%d", mfib.src, mfib.iif);
        return;
    }
    dpm_word_set(igr.dev_bmp, mfib.src);
    DPM_INFO("add dev %d to igr apid:%d", mfib.src, mfib.iif);
    const dpm_dev_head *dev = dpm_find_dev_head(mfib.src);
    if (dev == nullptr) {
        DPM_ERR("can;t find dev %d info", mfib.src);
        return;
    }
    dpm_bmp_or(igr.modid_bmp, dev->modid_bmp);
}

// Traffic of `src` is replicated out of these ports: do not block it there.
void dpm_get_apegr_by_mfib(const dpm_mfib_entry &mfib) {
    DPM_INFO("enter");
    for (uint32_t k = 0; k < dpm_mfib_oif_cnt(mfib); ++k) {
        uint8_t apid = mfib.oif_id[k];
        if (!dpm_apid_valid(apid)) {
            DPM_ERR("apid:%d", apid);
            continue;
        }
        dpm_word_clear(dpm_egr_block[apid].dev_bmp, mfib.src);
    }
}

void dpm_get_filter_by_dtm(void) {
    DPM_INFO("enter");
    for (int apid = 0; apid < DPM_APID_SLOTS; ++apid) {
        dpm_igr_permit[apid] = dpm_srcmod_filter{};
        dpm_egr_block[apid] = dpm_srcmod_filter{};
    }
    // Start by blocking every used device on both ports; each multicast
    // route of ours then opens the ports it leaves through for its source.
    uint32_t used = 0;
    const dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        if (dev->is_dtm_used) dpm_word_set(used, dev->devid);
    }
    dpm_egr_block[1].dev_bmp = used;
    dpm_egr_block[2].dev_bmp = used;

    const dpm_dtm_info *dtm = dpm_dtm_cache.newest;
    for (uint32_t i = 0; dtm != nullptr && i < dtm->mfib_num; ++i) {
        const dpm_mfib_entry &mfib = dtm->mfibs[i];
        if (!dpm_mfib_is_mine(mfib)) continue;
        dpm_get_apigr_by_mfib(mfib);
        dpm_get_apegr_by_mfib(mfib);
    }

    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        dpm_srcmod_filter &egr = dpm_egr_block[apid];
        for (uint32_t devid = 0; devid < DPM_DEV_DUMP_MAX; ++devid) {
            if (!dpm_word_test(egr.dev_bmp, devid)) continue;
            const dpm_dev_head *d = dpm_find_dev_head(devid);
            if (d == nullptr) {
                DPM_ERR("can't find dev %d info", devid);
                continue;
            }
            dpm_bmp_or(egr.modid_bmp, d->modid_bmp);
        }
    }
}

int dpm_set_modid_info_used(uint32_t modid) {
    DPM_INFO("enter");
    dpm_modid_info *e = dpm_find_modid_info(modid);
    if (e == nullptr) {
        DPM_ERR("can't find modid %d info!", modid);
        return DPM_ERR_NOMODID;
    }
    e->is_used = 1;
    return DPM_OK;
}

namespace {

// dpm_set_modid_info_used for an entry already at hand (the walk below has
// just looked it up, and the second lookup would find the same entry).
void dpm_set_modid_entry_used(dpm_modid_info *e) {
    DPM_INFO_FN("dpm_set_modid_info_used", "enter");
    e->is_used = 1;
}

}  // namespace

// Keep the module ids of one aggregate port whose route still leaves through
// it; take off the ones whose route moved away or vanished.
void dpm_adjust_cur_uc_in_ap(int apid) {
    DPM_INFO("enter, apid:%d", apid);
    if (!dpm_apid_valid(apid)) return;
    // The map does not change during the walk: each device's route is looked
    // up in it once.
    dpm_uc_route_memo routes;
    dpm_vsl_info *vsl = nullptr;
    dpm_list_for_each_entry(vsl, &dpm_vslap_cache.ap[apid].vsl_list, link) {
        for (uint32_t w = 0; w < vsl->modid_bmp.size(); ++w) {
            uint32_t word = vsl->modid_bmp[w];
            while (word != 0) {
                uint32_t m = w * 32 + static_cast<uint32_t>(__builtin_ctz(word));
                word &= word - 1;
                dpm_modid_info *e = dpm_find_modid_info(m);
                if (e == nullptr) {
                    DPM_ERR("can't find modid %d info!", m);
                    dpm_bmp_clear(vsl->modid_bmp, m);
                    continue;
                }
                bool counts = static_cast<uint32_t>(e->type) != DPM_NODE_MB;
                int oif = dpm_get_uc_oif_by_entry(m, e, &routes);
                if (oif < 0) {
                    DPM_ERR("can't find uc oif for modid:%d", m);
                    if (counts && vsl->modid_cnt > 0) vsl->modid_cnt--;
                    dpm_bmp_clear(vsl->modid_bmp, m);
                    dpm_set_modid_info_unused(m);
                } else if (oif != vsl->apid) {
                    dpm_set_modid_info_unused(m);
                    if (counts && vsl->modid_cnt > 0) vsl->modid_cnt--;
                    dpm_bmp_clear(vsl->modid_bmp, m);
                } else {
                    dpm_set_modid_entry_used(e);
                }
            }
        }
    }
}

void dpm_adjust_cur_uc_by_dtm(void) {
    DPM_INFO("enter");
    dpm_adjust_cur_uc_in_ap(1);
    dpm_adjust_cur_uc_in_ap(2);
}

void dpm_get_uc_by_dtm(void) {
    DPM_INFO("enter");
    dpm_adjust_cur_uc_by_dtm();
    dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        if (dev->devid == g_mydevid) continue;
        dpm_modid_info *e = nullptr;
        dpm_list_for_each_entry(e, &dev->modid_list, link) {
            if (e->is_used) continue;
            if (dpm_uc_balance_for_modid_add(e) != 0) DPM_ERR("dpm_modid_uc_balance failed!");
        }
    }
    dpm_restore_vsl_lb();
}

int dpm_calc_kel_cfg_by_dtm(void) {
    DPM_INFO("enter");
    dpm_clear_used_flag();
    dpm_set_dev_dtm_used();
    dpm_del_state_by_dtm();
    if (dpm_is_cur_dtm_valid() != 0) {
        DPM_ERR("apid not ready!");
        return DPM_ERR_FAIL;
    }
    dpm_get_filter_by_dtm();
    dpm_get_uc_by_dtm();
    return DPM_OK;
}
