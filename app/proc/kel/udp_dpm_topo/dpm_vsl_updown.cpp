// VSL up/down processing and aggregate-port membership.
//
// What follows when a VSL port enters or leaves the active cache: the load
// pointers are refreshed, the aggregate port's member list is marked for
// rewriting, the main multicast is settled, the unicast the port carried is
// moved to the remaining ports, and the configuration is recomputed and
// applied. An aggregate port that loses its last active port takes the oldest
// waiting one at once, so that it does not stay dark while a usable link is up.
#include "udp_dpm.h"

namespace {

// A released port must not stay reachable: every module id that still names
// it (one the move could not place, or all of them when the move was skipped)
// loses its placement, and the main multicast forgets it.
void dpm_forget_vsl(const dpm_vsl_info *gone) {
    dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        dpm_modid_info *e = nullptr;
        dpm_list_for_each_entry(e, &dev->modid_list, link) {
            if (e->uc_vsl != gone) continue;
            e->uc_vsl = nullptr;
            e->is_used = 0;
        }
    }
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        if (dpm_mmc[apid].vsl == gone) dpm_mmc[apid].vsl = nullptr;
        dpm_vslap_entry *ap = &dpm_vslap_cache.ap[apid];
        if (ap->max_uc_modid_vsl == gone || ap->min_uc_modid_vsl == gone) dpm_restore_vsl_lb_ptr();
    }
}

void dpm_release_vsl(dpm_vsl_info *gone) {
    dpm_forget_vsl(gone);
    free(gone);
}

}  // namespace

int dpm_set_ap_member_chg(int apid) {
    DPM_INFO("enter");
    if (!dpm_apid_valid(apid)) return DPM_ERR_FAIL;
    dpm_vslap_cache.ap[apid].chang_flag = 1;
    return DPM_OK;
}

int dpm_proc_lvsl_up_both_ready(dpm_vsl_info *entry, int apid) {
    DPM_INFO("process lvsl. devid\xA3\xBA%d, slot:%d, sslot:%d, lport:%d", entry->devid,
             entry->slot, entry->sslot, entry->lport);
    if (!dpm_apid_valid(apid)) {
        DPM_ERR("apid:%d", apid);
        return DPM_ERR_FAIL;
    }
    if (entry->chipid == 0 || entry->peer_chip == 0) {
        DPM_ERR("vsl chipid is invalid! devid:%d, slot:%d, sslot:%d, lport:%d", entry->devid,
                entry->slot, entry->sslot, entry->lport);
        return DPM_ERR_FAIL;
    }
    if (dpm_add_vsl_info(&dpm_vslap_cache, entry, apid) == nullptr) {
        DPM_ERR("add vsl info to cache fail! dev:%d, slot:%d, sslot:%d, lport:%d", entry->devid,
                entry->slot, entry->sslot, entry->lport);
        return DPM_ERR_FAIL;
    }
    dpm_restore_vsl_lb_ptr();
    dpm_set_ap_member_chg(apid);
    dpm_cal_mmc_by_apid(apid);
    if (!dpm_is_ds_ready()) {
        DPM_ERR("ds not end!");
        return DPM_OK;
    }
    // The first port of an aggregate port may make the map usable at all;
    // a further one only spreads the load that is already placed.
    if (dpm_vslap_cache.ap[apid].vsl_cnt == 1) dpm_calc_kel_cfg_by_dtm();
    dpm_restore_vsl_lb();
    dpm_apply_kel_cfg();
    return DPM_OK;
}

int dpm_proc_lvsl_down(const dpm_vsl_port *port, int apid) {
    udp_dpm_time_record(DPM_T_PROC_VSL, 0);
    if (!dpm_apid_valid(apid)) {
        DPM_ERR("apid:%d", apid);
        return DPM_ERR_FAIL;
    }
    dpm_vsl_info *waiting = dpm_del_vsl_info(&dpm_vslap_unused_cache, port, apid);
    if (waiting != nullptr) {
        free(waiting);
    } else {
        DPM_ERR("del vsl info from unused fail, dev:%d, slot:%d, sslot:%d, lport:%d", port->devid,
                port->slot, port->sslot, port->lport);
    }
    dpm_vsl_info *gone = dpm_del_vsl_info(&dpm_vslap_cache, port, apid);
    if (gone == nullptr) {
        DPM_ERR("del vsl info from cache fail, dev:%d, slot:%d, sslot:%d, lport:%d", port->devid,
                port->slot, port->sslot, port->lport);
        return DPM_ERR_FAIL;
    }
    dpm_restore_vsl_lb_ptr();
    dpm_set_ap_member_chg(apid);
    dpm_calc_mmc_by_vsldown(gone);
    if (!dpm_is_ds_ready()) {
        DPM_ERR("ds not end!");
        dpm_release_vsl(gone);
        return DPM_OK;
    }
    // Highest module ids first, the same order the rebalancing moves them in,
    // so that a link flap ends with the same placement it started from.
    for (int w = static_cast<int>(gone->modid_bmp.size()) - 1; w >= 0; --w) {
        uint32_t word = gone->modid_bmp[static_cast<size_t>(w)];
        while (word != 0) {
            uint32_t bit = 31U - static_cast<uint32_t>(__builtin_clz(word));
            word &= ~(1U << bit);
            uint32_t m = static_cast<uint32_t>(w) * 32 + bit;
            dpm_modid_info *e = dpm_find_modid_info(m);
            if (e == nullptr) {
                DPM_ERR("can't find modid %d info.", m);
                continue;
            }
            if (dpm_uc_balance_for_modid_add(e) != 0) {
                DPM_ERR("dpm_uc_balance_for_modid_add %d fail", m);
            }
        }
    }
    dpm_release_vsl(gone);
    dpm_apply_kel_cfg();
    if (dpm_vslap_cache.ap[apid].vsl_cnt == 0 && dpm_vslap_unused_cache.ap[apid].vsl_cnt != 0) {
        dpm_enable_first_vsl_by_apid(apid);
    }
    return DPM_OK;
}

void dpm_enable_first_vsl_by_apid(int apid) {
    if (!dpm_apid_valid(apid)) return;
    dpm_vslap_entry *ap = &dpm_vslap_unused_cache.ap[apid];
    if (dpm_list_empty(&ap->vsl_list)) return;
    // Only the oldest waiting port is tried: it has waited longest, and a
    // port without chip ids blocks the rest until its ids are learnt.
    dpm_vsl_info *entry = dpm_list_first_entry(&ap->vsl_list, dpm_vsl_info, link);
    if (dpm_proc_lvsl_up_both_ready(entry, apid) != 0) return;
    dpm_list_del(&entry->link);
    if (ap->vsl_cnt > 0) ap->vsl_cnt--;
    free(entry);
    DPM_INFO("apid:%d, enable first lvsl", apid);
}

void dpm_enable_first_vsl(void) {
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        if (dpm_vslap_cache.ap[apid].vsl_cnt == 0 && dpm_vslap_unused_cache.ap[apid].vsl_cnt != 0) {
            dpm_enable_first_vsl_by_apid(apid);
        }
    }
}
