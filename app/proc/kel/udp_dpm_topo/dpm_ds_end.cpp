// Data-sync end and restore.
//
// When the last of the four input syncs (route map, module ids, local VSL
// links, VSL chip states) ends, the module takes over what its previous run
// left in TOPO_DB instead of starting from nothing: ports are activated, the
// old unicast placements are laid back onto the ports that still exist, the
// old main multicast choices are kept where their chip is still active, and
// only then is the configuration recomputed and rewritten inside data-sync
// brackets, so that whatever the new run does not want expires. Keeping the
// old placements avoids moving traffic that does not need to move.
#include "dpm_config_steps.h"
#include "udp_dpm.h"

// The active port carrying `lport` on chip `modid`, apid 1 first. The
// restored entry's own apid is not trusted: a port is known by chip and port.
dpm_vsl_info *dpm_get_vsl_info_by_modid_lport(uint32_t modid, uint32_t lport) {
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        dpm_vsl_info *vsl = nullptr;
        dpm_list_for_each_entry(vsl, &dpm_vslap_cache.ap[apid].vsl_list, link) {
            if (static_cast<uint32_t>(vsl->lport) == lport && vsl->chipid == modid) return vsl;
        }
    }
    DPM_ERR("can't find vsl_port with modid:%d, lport:%d", modid, lport);
    return nullptr;
}

void dpm_restore_vsl_cache(void) {
    DPM_INFO("enter");
    dpm_uc_info *uc = nullptr;
    dpm_list_for_each_entry(uc, &dpm_uc_head, link) {
        dpm_modid_info *e =
            dpm_modid_valid(uc->dstmodid) ? dpm_find_modid_info(uc->dstmodid) : nullptr;
        if (e == nullptr) {
            DPM_ERR("dst modid %d is not exist!", uc->dstmodid);
            continue;
        }
        dpm_vsl_info *vsl = dpm_get_vsl_info_by_modid_lport(uc->localmodid, uc->lport);
        if (vsl == nullptr) {
            DPM_ERR("can't find vsl port with modid:%d, lport:%d", uc->localmodid, uc->lport);
            continue;
        }
        if (dpm_bmp_test(vsl->modid_bmp, uc->dstmodid)) {
            DPM_INFO("uc has beed in vsl info");
            continue;
        }
        bool counts = static_cast<uint32_t>(e->type) != DPM_NODE_MB;
        // A later data-sync end finds the module placed already: take it off
        // its current port first, a module id is carried by one port only.
        dpm_vsl_info *old = e->uc_vsl;
        if (old != nullptr && dpm_bmp_test(old->modid_bmp, uc->dstmodid)) {
            if (counts && old->modid_cnt > 0) old->modid_cnt--;
            dpm_bmp_clear(old->modid_bmp, uc->dstmodid);
        }
        if (counts) vsl->modid_cnt++;
        dpm_bmp_set(vsl->modid_bmp, uc->dstmodid);
        e->is_used = 1;
        e->uc_vsl = vsl;
    }
}

void dpm_restore_vsl_mmc_by_apid(int apid) {
    if (!dpm_apid_valid(apid)) return;
    dpm_mmc_info &mmc = dpm_mmc[apid];
    dpm_vsl_info *vsl = nullptr;
    dpm_list_for_each_entry(vsl, &dpm_vslap_cache.ap[apid].vsl_list, link) {
        if (!mmc.valid || mmc.lport != 0) return;
        if (static_cast<uint32_t>(dpm_get_vslmodid_by_vslinfo(vsl->chipid)) != mmc.modid) continue;
        mmc.lport = static_cast<uint32_t>(vsl->lport);
        mmc.devid = vsl->devid;
        mmc.slotid = vsl->slot;
        mmc.sslotid = vsl->sslot;
        mmc.vsl = vsl;
        DPM_INFO("apid %d mmc restore! mmc_modid:%d, lport:%d", apid, mmc.modid, mmc.lport);
        return;
    }
}

namespace {

void dpm_settle_mmc(int apid) {
    dpm_mmc_info &mmc = dpm_mmc[apid];
    if (!mmc.valid) {
        dpm_cal_mmc_by_apid(apid);
    } else if (mmc.vsl == nullptr) {
        // The restored choice names a chip without an active port: withdraw
        // its record and choose among the ports that are there.
        mmc.valid = 0;
        mmc.wait_add = 0;
        dpm_del_mmc_in_db(apid);
        dpm_cal_mmc_by_apid(apid);
    }
}

}  // namespace

void dpm_proc_ds_end(void *client) {
    DPM_INFO("enter");
    if (!dpm_is_ds_end()) {
        DPM_ERR("ds not end!");
        return;
    }
    udp_dpm_time_record(DPM_T_DS_END, 0);
    dpm_proc_rdy_chip_in_unused(true);
    dpm_enable_first_vsl();
    dpm_restore_vsl_cache();
    dpm_restore_vsl_lb_ptr();
    dpm_calc_kel_cfg_by_dtm();
    dpm_restore_vsl_mmc_by_apid(1);
    dpm_restore_vsl_mmc_by_apid(2);
    dpm_settle_mmc(1);
    dpm_settle_mmc(2);
    dpm_subscribe_mmc_back(client);
    dpm_kel_set_expire(client);
}
