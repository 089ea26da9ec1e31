// Unicast balance over VSL ports.
//
// Traffic from this member towards a module id of another member leaves by
// the aggregate port that the member's own unicast route to that device names;
// inside the aggregate port exactly one VSL port carries it. A new module id
// goes to the least loaded port; when the loads of two ports of one aggregate
// port drift two or more apart, module ids move one at a time, highest first,
// from the most to the least loaded port. The load of a port is the number of
// module ids it carries, main boards not counted (their traffic is small and
// they must not push real line cards around).
//
// The result lives in the ports' bitmaps and in each module-id entry's uc_vsl;
// the application (dpm_apply.cpp) turns it into kel_uc_balance records.
#include "dpm_config_steps.h"
#include "udp_dpm.h"

namespace {

bool dpm_modid_counts(const dpm_modid_info *e) {
    return static_cast<uint32_t>(e->type) != DPM_NODE_MB;
}

// Most and least loaded port of an aggregate port. On equal loads the port
// that has been in the list longest keeps the role, so a quiet aggregate port
// keeps choosing the same port instead of flapping between equals.
void dpm_calc_lb_ptr(dpm_vslap_entry *ap, dpm_vsl_info **max, dpm_vsl_info **min) {
    dpm_vsl_info *vsl = nullptr;
    *max = nullptr;
    *min = nullptr;
    dpm_list_for_each_entry(vsl, &ap->vsl_list, link) {
        if (*max == nullptr || vsl->modid_cnt > (*max)->modid_cnt) *max = vsl;
        if (*min == nullptr || vsl->modid_cnt < (*min)->modid_cnt) *min = vsl;
    }
}

// Highest module id set in `bmp` below `below` (exclusive), or -1.
int dpm_bmp_prev(const dpm_modid_bmp &bmp, int below) {
    if (below <= 0) return -1;
    int v = below - 1;
    int w = v / 32;
    uint32_t word = bmp[w] & (0xFFFFFFFFU >> (31 - v % 32));
    while (true) {
        if (word != 0) return w * 32 + 31 - __builtin_clz(word);
        if (--w < 0) return -1;
        word = bmp[w];
    }
}

// Move one module id, the highest one of MAX that the cache knows, to MIN.
// False when MAX holds nothing movable (its bitmap disagrees with its count).
// One step of the rebalancing pass, so its messages carry the pass's name.
bool dpm_move_one_modid(dpm_vsl_info *max, dpm_vsl_info *min) {
    static constexpr const char *fn = "dpm_restore_vsl_lb_in_ap";
    for (int m = dpm_bmp_prev(max->modid_bmp, DPM_MODID_MAX); m >= 0;
         m = dpm_bmp_prev(max->modid_bmp, m)) {
        dpm_modid_info *e = dpm_find_modid_info(static_cast<uint32_t>(m));
        if (e == nullptr) {
            DPM_ERR_FN(fn, "can't find modid info:%d", m);
            continue;
        }
        DPM_INFO_FN(fn, "change uc modid info:%d", m);
        if (dpm_modid_counts(e) && max->modid_cnt > 0) max->modid_cnt--;
        dpm_bmp_clear(max->modid_bmp, static_cast<uint32_t>(m));
        dpm_bmp_set(min->modid_bmp, static_cast<uint32_t>(m));
        if (dpm_modid_counts(e)) min->modid_cnt++;
        e->uc_vsl = min;
        return true;
    }
    return false;
}

}  // namespace

void dpm_restore_vsl_lb_in_ap(int apid) {
    DPM_INFO("enter");
    if (!dpm_apid_valid(apid)) {
        DPM_ERR("apid:%d", apid);
        return;
    }
    dpm_vslap_entry *ap = &dpm_vslap_cache.ap[apid];
    // Every pass moves one module id; a port cannot hold more than all of
    // them, and a main board moves at most once between two counted moves,
    // so this bound is never reached by a consistent cache. It only stops a
    // cache whose counts and bitmaps disagree from spinning.
    const uint32_t max_pass = 2 * DPM_MODID_MAX * (ap->vsl_cnt + 1);
    uint32_t pass = 0;
    while (ap->max_uc_modid_vsl != nullptr && ap->min_uc_modid_vsl != nullptr) {
        dpm_vsl_info *max = ap->max_uc_modid_vsl;
        dpm_vsl_info *min = ap->min_uc_modid_vsl;
        if (max->modid_cnt - min->modid_cnt < 2) break;
        DPM_ERR("vsl restore is not balance!max:%d, min:%d", max->modid_cnt, min->modid_cnt);
        if (max == min || !dpm_move_one_modid(max, min)) {
            DPM_ERR("no modid can be moved, apid:%d, max:%d, min:%d", apid, max->modid_cnt,
                    min->modid_cnt);
            break;
        }
        dpm_calc_lb_ptr(ap, &ap->max_uc_modid_vsl, &ap->min_uc_modid_vsl);
        if (++pass >= max_pass) {
            DPM_ERR("vsl restore gives up, apid:%d", apid);
            break;
        }
    }
}

// The unicast route of this member towards `devid`: its out-interface.
int dpm_get_uc_oif_by_devid(uint32_t modid, uint32_t devid) {
    DPM_ERR("devid:%d", devid);
    const dpm_dtm_info *dtm = dpm_dtm_cache.newest;
    if (dtm == nullptr) {
        DPM_ERR("no dtm info now");
        DPM_ERR("can't find uc oif for modid:%d, devid:%d!", modid, devid);
        return DPM_ERR_FAIL;
    }
    for (uint32_t i = 0; i < dtm->fib_num; ++i) {
        const dpm_fib_entry &fib = dtm->fibs[i];
        if (fib.owner != g_mydevid || fib.dst != devid) continue;
        // The map stores any byte; only a real aggregate port may pick a
        // port list, anything else leaves the module id unplaced.
        if (!dpm_apid_valid(fib.oif)) {
            DPM_ERR("uc oif %d is not a vsl ap, modid:%d, devid:%d!", fib.oif, modid, devid);
            return DPM_ERR_FAIL;
        }
        return fib.oif;
    }
    DPM_ERR("can't find uc oif for modid:%d, devid:%d!", modid, devid);
    return DPM_ERR_FAIL;
}

int dpm_get_uc_oif_by_modid(uint32_t modid) {
    dpm_modid_info *e = dpm_modid_valid(modid) ? dpm_find_modid_info(modid) : nullptr;
    if (e == nullptr) {
        DPM_ERR("can't find modid %d info!", modid);
        return DPM_ERR_NOMODID;
    }
    return dpm_get_uc_oif_by_devid(modid, static_cast<uint32_t>(e->devid));
}

int dpm_uc_balance_for_modid_add(dpm_modid_info *entry) {
    DPM_INFO("enter, modid:%d", entry->modid);
    uint32_t type = static_cast<uint32_t>(entry->type);
    if (type == DPM_NODE_SFC) {
        DPM_NOTICE("fabric card modid, skip it");
        return DPM_OK;
    }
    if (type == DPM_NODE_UNKNOWN) {
        DPM_NOTICE("unkown type modid, skip it");
        return DPM_OK;
    }
    int apid = dpm_get_uc_oif_by_modid(entry->modid);
    if (apid < 0) {
        DPM_ERR("cant find oif for modid %d!", entry->modid);
        return DPM_ERR_FAIL;
    }
    DPM_INFO("uc oif is %d", apid);
    // The least loaded port as last computed: each placement refreshes the
    // pointers below, so consecutive additions spread over the ports.
    dpm_vsl_info *vsl = dpm_vslap_cache.ap[apid].min_uc_modid_vsl;
    if (vsl == nullptr) {
        entry->is_used = 0;
        entry->uc_vsl = nullptr;
        DPM_ERR("min uc vsl is NULL!");
        return DPM_OK;
    }
    if (dpm_modid_counts(entry)) vsl->modid_cnt++;
    dpm_bmp_set(vsl->modid_bmp, entry->modid);
    entry->is_used = 1;
    entry->uc_vsl = vsl;
    dpm_restore_vsl_lb_ptr();
    dpm_restore_vsl_lb();
    return DPM_OK;
}

int dpm_uc_balance_for_modid_del(dpm_modid_info *entry) {
    DPM_INFO("enter");
    dpm_vsl_info *vsl = entry->uc_vsl;
    if (vsl != nullptr) {
        if (dpm_modid_counts(entry) && vsl->modid_cnt > 0) vsl->modid_cnt--;
        dpm_bmp_clear(vsl->modid_bmp, entry->modid);
    }
    entry->is_used = 0;
    entry->uc_vsl = nullptr;
    dpm_restore_vsl_lb_ptr();
    dpm_restore_vsl_lb();
    return DPM_OK;
}

void dpm_restore_vsl_lb_ptr(void) {
    DPM_INFO("enter");
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        dpm_vslap_entry *ap = &dpm_vslap_cache.ap[apid];
        if (ap->vsl_cnt == 0) {
            ap->max_uc_modid_vsl = nullptr;
            ap->min_uc_modid_vsl = nullptr;
            continue;
        }
        dpm_calc_lb_ptr(ap, &ap->max_uc_modid_vsl, &ap->min_uc_modid_vsl);
        if (ap->max_uc_modid_vsl == nullptr || ap->min_uc_modid_vsl == nullptr) {
            DPM_ERR("apid:%d, max_uc_modid_vsl or min_uc_modid_vsl is NULL", apid);
        } else if (ap->max_uc_modid_vsl->modid_cnt - ap->min_uc_modid_vsl->modid_cnt > 1) {
            DPM_ERR("vsl restore is not balance! apid:%d, max:%d, min:%d", apid,
                    ap->max_uc_modid_vsl->modid_cnt, ap->min_uc_modid_vsl->modid_cnt);
        }
    }
}

void dpm_restore_vsl_lb(void) {
    DPM_INFO("enter");
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        if (dpm_vslap_cache.ap[apid].vsl_cnt == 0) continue;
        DPM_INFO("apid:%d", apid);
        dpm_restore_vsl_lb_in_ap(apid);
    }
}
