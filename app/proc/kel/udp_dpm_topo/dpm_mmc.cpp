// Main multicast selection and its confirmation.
//
// Multicast between the members crosses exactly one VSL port per aggregate
// port. This file chooses that port (the one active longest), publishes the
// choice as u_cluster.mainmc_vlan in TOPO_DB and follows the hardware side's
// answer, u_cluster.mainmc_vlan_st (mmc_back): set once the hardware carries
// the choice, deleted once it has dropped it. A new choice is published only
// after the old one is confirmed gone, unless the card that would confirm it
// has left, so that two ports never carry the same VLANs at once.
#include "ndm.h"
#include "udp_dpm.h"

namespace {

int dpm_set_mmc_to_db(int apid) {
    DPM_INFO("apid:%d", apid);
    const dpm_mmc_info &mmc = dpm_mmc[apid];
    const dpm_vsl_info *vsl = mmc.vsl;
    UCluster__MainmcVlan rec = U_CLUSTER__MAINMC_VLAN__INIT;
    UCluster__ModApidIdx idx = U_CLUSTER__MOD_APID_IDX__INIT;
    UCluster__Vslport peer = U_CLUSTER__VSLPORT__INIT;
    UCluster__Vslport local = U_CLUSTER__VSLPORT__INIT;
    idx.t_cfg_modid = mmc.modid;
    idx.apid = static_cast<uint32_t>(apid);
    rec.index = &idx;
    rec.n_vlan = mmc.vlan_bmp.size();
    rec.vlan = const_cast<uint32_t *>(mmc.vlan_bmp.data());
    peer.devid = static_cast<uint32_t>(vsl->peer_dev);
    peer.slot = static_cast<uint32_t>(vsl->peer_slot);
    peer.sslot = static_cast<uint32_t>(vsl->peer_sslot);
    peer.lport = static_cast<uint32_t>(vsl->peer_lport);
    local.devid = static_cast<uint32_t>(vsl->devid);
    local.slot = static_cast<uint32_t>(vsl->slot);
    local.sslot = static_cast<uint32_t>(vsl->sslot);
    local.lport = static_cast<uint32_t>(vsl->lport);
    rec.peer_vsl = &peer;
    rec.local_vsl = &local;
    int rv = xn_mom_set(g_udp_dpm_global, XN_MOM_TOPO_DB, &rec.base, 0, 0);
    if (rv != 0) {
        DPM_ERR("set apid %d mmc to mom fail, rv is %d", apid, rv);
    } else {
        udp_dpm_time_record(DPM_T_MMC_CFG, apid);
    }
    return rv;
}

void dpm_mmc_key(int apid, UCluster__ModApidIdx *idx) {
    idx->t_cfg_modid = dpm_mmc[apid].modid;
    idx->apid = static_cast<uint32_t>(apid);
}

// Drop the choice of an apid; its port reference goes with it so that a
// released port is never reached through the table.
void dpm_mmc_invalidate(dpm_mmc_info &mmc) {
    mmc.valid = 0;
    mmc.vsl = nullptr;
}

}  // namespace

int dpm_cal_mmc_by_apid(int apid) {
    if (!dpm_apid_valid(apid)) {
        DPM_ERR("apid:%d", apid);
        return DPM_ERR_FAIL;
    }
    dpm_mmc_info &mmc = dpm_mmc[apid];
    if (mmc.valid) {
        DPM_INFO("apid %d mmc valid!", apid);
        return DPM_OK;
    }
    dpm_vslap_entry *ap = &dpm_vslap_cache.ap[apid];
    if (dpm_list_empty(&ap->vsl_list)) {
        DPM_ERR("no new mmc!");
        dpm_mmc_invalidate(mmc);
        return DPM_ERR_FAIL;
    }
    // The port active longest: it is the one least likely to be on its way
    // out, and the choice stays put while later ports come and go.
    dpm_vsl_info *vsl = dpm_list_first_entry(&ap->vsl_list, dpm_vsl_info, link);
    mmc.modid = static_cast<uint32_t>(dpm_get_vslmodid_by_vslinfo(vsl->chipid));
    mmc.vlan_bmp.fill(0xFFFFFFFFU);
    mmc.valid = 1;
    mmc.lport = static_cast<uint32_t>(vsl->lport);
    mmc.devid = vsl->devid;
    mmc.slotid = vsl->slot;
    mmc.sslotid = vsl->sslot;
    mmc.wait_add = 1;
    mmc.vsl = vsl;
    dpm_set_mmc_to_db(apid);
    return DPM_OK;
}

int dpm_mmc_back_isexist_mom(int apid) {
    DPM_INFO("apid:%d", apid);
    UCluster__MainmcVlanSt rec = U_CLUSTER__MAINMC_VLAN_ST__INIT;
    UCluster__ModApidIdx idx = U_CLUSTER__MOD_APID_IDX__INIT;
    dpm_mmc_key(apid, &idx);
    rec.index = &idx;
    return xn_mom_exists_sync(g_udp_dpm_global, XN_MOM_TOPO_DB, &rec.base);
}

int dpm_del_mmc_in_db(int apid) {
    DPM_INFO("apid:%d", apid);
    if (!dpm_apid_valid(apid)) return DPM_ERR_FAIL;
    UCluster__MainmcVlan rec = U_CLUSTER__MAINMC_VLAN__INIT;
    UCluster__ModApidIdx idx = U_CLUSTER__MOD_APID_IDX__INIT;
    dpm_mmc_key(apid, &idx);
    rec.index = &idx;
    int rv = xn_mom_del(g_udp_dpm_global, XN_MOM_TOPO_DB, &rec.base, 0, 0);
    if (rv != 0) {
        DPM_ERR("del mmc fail. apid:%d modid:%d, rv:%d", apid, dpm_mmc[apid].modid, rv);
    } else {
        udp_dpm_time_record(DPM_T_MMC_CFG, 0);
    }
    return rv;
}

int dpm_del_mmc_back_in_db(int apid) {
    DPM_INFO("apid:%d", apid);
    if (!dpm_apid_valid(apid)) return DPM_ERR_FAIL;
    UCluster__MainmcVlanSt rec = U_CLUSTER__MAINMC_VLAN_ST__INIT;
    UCluster__ModApidIdx idx = U_CLUSTER__MOD_APID_IDX__INIT;
    dpm_mmc_key(apid, &idx);
    rec.index = &idx;
    int rv = xn_mom_del(g_udp_dpm_global, XN_MOM_TOPO_DB, &rec.base, 0, 0);
    if (rv != 0) {
        DPM_ERR("del mmc_back fail. apid:%d, modid:%d. rv:%d", apid, dpm_mmc[apid].modid, rv);
    } else {
        udp_dpm_time_record(DPM_T_MMCB_ME_DEL, apid);
    }
    return rv;
}

void dpm_calc_mmc_by_vsldown(dpm_vsl_info *entry) {
    int a = entry->apid;
    if (!dpm_apid_valid(a) || entry != dpm_mmc[a].vsl) {
        DPM_INFO("not mmc vsl down!");
        return;
    }
    DPM_ERR("mmc vsl down!");
    dpm_mmc_info &mmc = dpm_mmc[a];

    // The record names the chip, not the port: another port of the same chip
    // takes over without touching TOPO_DB or the hardware.
    dpm_vsl_info *vsl = nullptr;
    dpm_list_for_each_entry(vsl, &dpm_vslap_cache.ap[a].vsl_list, link) {
        if (vsl->chipid != entry->chipid) continue;
        mmc.lport = static_cast<uint32_t>(vsl->lport);
        mmc.devid = vsl->devid;
        mmc.slotid = vsl->slot;
        mmc.sslotid = vsl->sslot;
        mmc.vsl = vsl;
        DPM_INFO("mmc not change!");
        return;
    }

    DPM_INFO("mmc need change!");
    dpm_del_mmc_in_db(a);
    int rv = 0;
    if (!ndm_card_is_online(entry->devid, entry->slot, entry->sslot)) {
        // Nobody is left to withdraw the confirmation: do it ourselves and
        // choose again at once.
        DPM_WARN("card[devid:%d, slotid:%d, sslotid:%d] is not online. don't wait del mmc_back:%d",
                 entry->devid, entry->slot, entry->sslot, mmc.wait_del);
        dpm_mmc_invalidate(mmc);
        mmc.wait_del = 0;
        rv = dpm_del_mmc_back_in_db(a);
        DPM_INFO("del mmc_back[apid:%d modid%d]. rv is %d", a, mmc.modid, rv);
        rv = dpm_cal_mmc_by_apid(a);
        DPM_INFO("recalculate mmc[apid:%d modid%d]. rv is %d", a, mmc.modid, rv);
        return;
    }
    if (dpm_mmc_back_isexist_mom(a) == 0) {
        // The hardware still carries the old choice: wait for it to let go
        // before another port takes the VLANs.
        mmc.wait_del = 1;
        mmc.vsl = nullptr;
        return;
    }
    DPM_ERR("mmc_back not exist in mom. apid:%d, modid:%d", a, mmc.modid);
    dpm_mmc_invalidate(mmc);
    mmc.wait_add = 0;
    mmc.wait_del = 0;
    rv = dpm_cal_mmc_by_apid(a);
    DPM_INFO("recalculate mmc[apid:%d modid%d]. rv is %d", a, mmc.modid, rv);
}

namespace {

void dpm_mmc_back_ds(void *client) {
    DPM_INFO("enter");
    UCluster__MainmcVlanSt tmpl = U_CLUSTER__MAINMC_VLAN_ST__INIT;
    UCluster__ModApidIdx idx = U_CLUSTER__MOD_APID_IDX__INIT;
    tmpl.index = &idx;
    int rv = xn_mom_scan(client, XN_MOM_TOPO_DB, &tmpl.base, 0, dpm_mmc_back_cb, nullptr);
    if (rv != 0) DPM_ERR("scan mmc_back failed, rv is %d", rv);
}

void dpm_proc_mmc_back_add(int apid, uint32_t modid) {
    udp_dpm_time_record(DPM_T_MMC_BACK_ADD, apid);
    dpm_mmc_info &mmc = dpm_mmc[apid];
    if (mmc.modid != modid) {
        DPM_ERR("mmc_back is not same as added mmc");
    } else if (mmc.wait_add) {
        mmc.wait_add = 0;
        dpm_mmc_back[apid].valid = 1;
        dpm_mmc_back[apid].modid = modid;
        DPM_INFO("mmc[apid:%d, modid:%d] has been set to hardware", apid, modid);
    } else {
        DPM_INFO("mmc_back[apid:%d] is not waiting for harware config", apid);
    }
}

void dpm_proc_mmc_back_del(int apid, uint32_t modid) {
    udp_dpm_time_record(DPM_T_MMC_BACK_DEL, apid);
    dpm_mmc_info &mmc = dpm_mmc[apid];
    if (mmc.modid != modid) {
        DPM_ERR("mmc_back is not same as del mmc");
    } else if (mmc.wait_del) {
        mmc.wait_del = 0;
        dpm_mmc_back[apid].valid = 0;
        dpm_mmc_back[apid].modid = 0;
        DPM_INFO("mmc[apid:%d] has been del on hardware", apid);
        dpm_mmc_invalidate(mmc);
        int rv = dpm_cal_mmc_by_apid(apid);
        DPM_INFO("recalculate mmc[apid:%d]. rv is %d", apid, rv);
    } else {
        DPM_INFO("mmc_back[apid:%d] is not waiting for harware config", apid);
    }
    // Awaited or not, the hardware no longer holds what a deleted record
    // confirmed: a confirmation kept for it would claim a state that is gone.
    dpm_mmc_info &back = dpm_mmc_back[apid];
    if (back.valid && back.modid == modid) back = dpm_mmc_info{};
}

}  // namespace

int dpm_mmc_back_cb(void *client, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    if (int rv = dpm_event_check(__func__, msg); rv != DPM_OK) return rv;
    if (msg->cmd == XN_MOM_CMD_DS) {
        dpm_mmc_back_ds(client);
        return DPM_OK;
    }
    if (msg->scan_over == XN_MOM_SCAN_OVER) {
        DPM_ERR("scan mmc_back over");
        return DPM_OK;
    }
    if (msg->cmd != XN_MOM_CMD_SET && msg->cmd != XN_MOM_CMD_DEL) return DPM_OK;
    const auto *rec = reinterpret_cast<const UCluster__MainmcVlanSt *>(msg->data);
    if (rec == nullptr || rec->base.descriptor != &u_cluster__mainmc_vlan_st__descriptor ||
        rec->index == nullptr) {
        DPM_ERR("mmc_back record is NULL!");
        return DPM_OK;
    }
    // The tables have a slot for apid 0 too; only larger apids cannot be held.
    uint32_t apid = rec->index->apid;
    if (apid >= static_cast<uint32_t>(DPM_APID_SLOTS)) {
        DPM_ERR("mmc_back apid %u is out of range, ignored", apid);
        return DPM_OK;
    }
    if (msg->cmd == XN_MOM_CMD_SET) {
        dpm_proc_mmc_back_add(static_cast<int>(apid), rec->index->t_cfg_modid);
    } else {
        dpm_proc_mmc_back_del(static_cast<int>(apid), rec->index->t_cfg_modid);
    }
    return DPM_OK;
}
