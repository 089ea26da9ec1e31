// TOPO_DB watchers, read-back scans and the expiry protocol.
//
// The module's output outlives the process. After a (re)start the watchers of
// the unicast balance, ingress permit and main multicast records answer their
// data-sync request with a scan that loads the earlier output back into the
// caches; the last of the three scan ends opens the LOCAL_DB gate
// (udp_dpm_session.cpp), so the inputs arrive only after the outputs are known.
//
// Once every intake is synchronised, data-sync end processing (dpm_ds_end.cpp)
// runs dpm_kel_set_expire: every output type is rewritten inside a data-sync
// bracket, so the database drops whatever the new configuration no longer
// contains.
#include <cstring>

#include "udp_dpm.h"

// ---------------------------------------------------------------------------
// Scan ends shared by the three watchers
// ---------------------------------------------------------------------------

// End of one read-back scan: mark it and try the LOCAL_DB gate.
static int dpm_watch_scan_over(uint8_t *flag, int32_t event) {
    *flag = 1;
    udp_dpm_time_record(event, 0);
    return dpm_conn_local_db_scanover_out();
}

// ---------------------------------------------------------------------------
// Unicast balance read-back
// ---------------------------------------------------------------------------

// Module id -> its first unicast entry. A restart reads back one record per
// destination, and a walk of the list for each would cost the square of their
// number. The index holds while the list is as the read-back last left it:
// the module's other changes bump dpm_uc_list_gen, and an entry linked at the
// tail by anyone else moves the tail.
namespace {

struct dpm_uc_lookup {
    bool valid;
    uint32_t gen;
    const dpm_list *tail;
    dpm_uc_info *first[DPM_MODID_MAX];
};
dpm_uc_lookup s_uc_lookup;

bool dpm_uc_lookup_holds(void) {
    return s_uc_lookup.valid && s_uc_lookup.gen == dpm_uc_list_gen &&
           s_uc_lookup.tail == dpm_uc_head.prev;
}

void dpm_uc_lookup_build(void) {
    dpm_uc_lookup &l = s_uc_lookup;
    std::memset(static_cast<void *>(l.first), 0, sizeof l.first);
    dpm_uc_info *uc = nullptr;
    dpm_list_for_each_entry(uc, &dpm_uc_head, link) {
        if (dpm_modid_valid(uc->dstmodid) && l.first[uc->dstmodid] == nullptr) {
            l.first[uc->dstmodid] = uc;
        }
    }
    l.valid = true;
    l.gen = dpm_uc_list_gen;
    l.tail = dpm_uc_head.prev;
}

}  // namespace

static dpm_uc_info *dpm_find_uc_info(uint32_t dstmodid) {
    if (dpm_modid_valid(dstmodid)) {
        if (!dpm_uc_lookup_holds()) dpm_uc_lookup_build();
        return s_uc_lookup.first[dstmodid];
    }
    dpm_uc_info *uc = nullptr;
    dpm_list_for_each_entry(uc, &dpm_uc_head, link) {
        if (uc->dstmodid == dstmodid) return uc;
    }
    return nullptr;
}

// A new entry at the tail: the index takes it if it held until now.
static void dpm_uc_lookup_add_tail(dpm_uc_info *uc) {
    const bool held = dpm_uc_lookup_holds();
    dpm_list_add_tail(&uc->link, &dpm_uc_head);
    if (!held) return;
    s_uc_lookup.tail = &uc->link;
    if (dpm_modid_valid(uc->dstmodid) && s_uc_lookup.first[uc->dstmodid] == nullptr) {
        s_uc_lookup.first[uc->dstmodid] = uc;
    }
}

static void dpm_proc_uc_balance_info(const UCluster__KelUcBalance *rec) {
    DPM_INFO("enter");
    // Any module id is taken: one that no module-id entry has (2048 and more
    // included) is reported at data-sync end and its record then expires.
    const uint32_t modid = rec->index != nullptr ? rec->index->modid : 0;
    dpm_uc_info *uc = dpm_find_uc_info(modid);
    if (uc == nullptr) {
        uc = dpm_zalloc<dpm_uc_info>();
        if (uc == nullptr) {
            DPM_ERR("can not alloc memory!");
            return;
        }
        uc->dstmodid = modid;
        dpm_uc_lookup_add_tail(uc);
    }
    // Held until the next rebuild of the unicast list confirms or deletes it.
    uc->expire = 1;
    uc->apply = 0;
    if (uc->localmodid != rec->local_modid || uc->lport != rec->lport || uc->apid != rec->apid ||
        uc->peer_modid != rec->peer_modid) {
        uc->localmodid = rec->local_modid;
        uc->lport = rec->lport;
        uc->apid = rec->apid;
        uc->peer_modid = rec->peer_modid;
    }
}

static int dpm_uc_balance_scan_cb(void * /*client*/, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    int rv = dpm_event_check(__func__, msg);
    if (rv != 0) return rv;
    if (msg->scan_over == XN_MOM_SCAN_OVER) {
        return dpm_watch_scan_over(&g_uc_ds_over, DPM_T_UCSCANOVER);
    }
    if (msg->cmd != XN_MOM_CMD_SET) return 0;
    if (msg->data == nullptr) {
        DPM_ERR("uc balance record missing, dropped");
        return 0;
    }
    dpm_proc_uc_balance_info(static_cast<const UCluster__KelUcBalance *>(msg->data));
    return 0;
}

static void dpm_uc_balance_ds(void *client) {
    DPM_INFO("enter");
    UCluster__ModidIdx idx = U_CLUSTER__MODID_IDX__INIT;
    UCluster__KelUcBalance tmpl = U_CLUSTER__KEL_UC_BALANCE__INIT;
    tmpl.index = &idx;
    int rv = xn_mom_scan(client, XN_MOM_TOPO_DB, &tmpl.base, 0, dpm_uc_balance_scan_cb, nullptr);
    if (rv != 0) DPM_ERR("scan uc_balance failed, rv is %d", rv);
}

int dpm_uc_balance_cb(void *client, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    int rv = dpm_event_check(__func__, msg);
    if (rv != 0) return rv;
    // Changes made by others outside a data sync are not followed.
    if (msg->cmd == XN_MOM_CMD_DS) dpm_uc_balance_ds(client);
    return 0;
}

// ---------------------------------------------------------------------------
// Ingress permit read-back
// ---------------------------------------------------------------------------

static void dpm_proc_igr_info(const UCluster__VslSrcmodIgr *rec) {
    const uint32_t apid = rec->index != nullptr ? rec->index->apid : 0;
    if (!dpm_apid_valid(apid)) {
        DPM_ERR_FN("dpm_igr_scan_cb", "igr record apid %u out of range [1-2], dropped", apid);
        return;
    }
    dpm_srcmod_filter &applied = dpm_igr_permit_applied[apid];
    // A shorter bitmap would leave part of the applied filter undefined.
    if (rec->n_permit_modid < applied.modid_bmp.size() || rec->permit_modid == nullptr) {
        DPM_ERR_FN("dpm_igr_scan_cb",
                   "igr record apid %u carries %u permit words, need %u, dropped", apid,
                   static_cast<unsigned>(rec->n_permit_modid),
                   static_cast<unsigned>(applied.modid_bmp.size()));
        return;
    }
    applied.apid = apid;
    memcpy(applied.modid_bmp.data(), rec->permit_modid,
           applied.modid_bmp.size() * sizeof(uint32_t));
}

static int dpm_igr_scan_cb(void * /*client*/, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    int rv = dpm_event_check(__func__, msg);
    if (rv != 0) return rv;
    if (msg->scan_over == XN_MOM_SCAN_OVER) {
        return dpm_watch_scan_over(&g_igr_ds_over, DPM_T_IGRSCANOVER);
    }
    if (msg->cmd != XN_MOM_CMD_SET) return 0;
    if (msg->data == nullptr) {
        DPM_ERR("igr record missing, dropped");
        return 0;
    }
    dpm_proc_igr_info(static_cast<const UCluster__VslSrcmodIgr *>(msg->data));
    return 0;
}

static void dpm_igr_ds(void *client) {
    DPM_INFO("enter");
    UCluster__ApidIdx idx = U_CLUSTER__APID_IDX__INIT;
    UCluster__VslSrcmodIgr tmpl = U_CLUSTER__VSL_SRCMOD_IGR__INIT;
    tmpl.index = &idx;
    int rv = xn_mom_scan(client, XN_MOM_TOPO_DB, &tmpl.base, 0, dpm_igr_scan_cb, nullptr);
    if (rv != 0) DPM_ERR("scan igr failed, rv is %d", rv);
}

int dpm_igr_cb(void *client, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    int rv = dpm_event_check(__func__, msg);
    if (rv != 0) return rv;
    if (msg->cmd == XN_MOM_CMD_DS) dpm_igr_ds(client);
    return 0;
}

// ---------------------------------------------------------------------------
// Main multicast read-back
// ---------------------------------------------------------------------------

static void dpm_proc_mmc_info(const UCluster__MainmcVlan *rec) {
    const uint32_t apid = rec->index != nullptr ? rec->index->apid : 0;
    const uint32_t modid = rec->index != nullptr ? rec->index->t_cfg_modid : 0;
    if (!dpm_apid_valid(apid)) {
        DPM_ERR_FN("dpm_mmc_scan_cb", "mmc record apid %u out of range [1-2], dropped", apid);
        return;
    }
    dpm_mmc_info &mmc = dpm_mmc[apid];
    mmc.valid = 1;
    // Comes back waiting for its confirmation, like a fresh request.
    mmc.wait_add = 1;
    mmc.modid = modid;
    mmc.vlan_bmp.fill(0);
    size_t words = rec->n_vlan < mmc.vlan_bmp.size() ? rec->n_vlan : mmc.vlan_bmp.size();
    if (rec->vlan == nullptr) words = 0;
    if (words != 0) memcpy(mmc.vlan_bmp.data(), rec->vlan, words * sizeof(uint32_t));
}

static int dpm_mmc_scan_cb(void * /*client*/, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    int rv = dpm_event_check(__func__, msg);
    if (rv != 0) return rv;
    if (msg->scan_over == XN_MOM_SCAN_OVER) {
        return dpm_watch_scan_over(&g_mmc_ds_over, DPM_T_MMCSCANOVER);
    }
    if (msg->cmd != XN_MOM_CMD_SET) return 0;
    if (msg->data == nullptr) {
        DPM_ERR("mmc record missing, dropped");
        return 0;
    }
    dpm_proc_mmc_info(static_cast<const UCluster__MainmcVlan *>(msg->data));
    return 0;
}

static void dpm_mmc_ds(void *client) {
    DPM_INFO("enter");
    UCluster__ModApidIdx idx = U_CLUSTER__MOD_APID_IDX__INIT;
    UCluster__MainmcVlan tmpl = U_CLUSTER__MAINMC_VLAN__INIT;
    tmpl.index = &idx;
    int rv = xn_mom_scan(client, XN_MOM_TOPO_DB, &tmpl.base, 0, dpm_mmc_scan_cb, nullptr);
    if (rv != 0) DPM_ERR("scan mmc failed, rv is %d", rv);
}

int dpm_mmc_cb(void *client, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    int rv = dpm_event_check(__func__, msg);
    if (rv != 0) return rv;
    if (msg->cmd == XN_MOM_CMD_DS) dpm_mmc_ds(client);
    return 0;
}

// ---------------------------------------------------------------------------
// Expiry protocol
//
// Brackets open in the order igr, egr, uc, ap-member and close in the order
// uc, igr, egr, ap-member. A bracket that does not open ends the protocol
// with nothing rewritten (those already open stay open); a bracket that does
// not close ends the closing. The expire flag is always cleared at the end.
// ---------------------------------------------------------------------------

static constexpr int DPM_DS_EXPIRE = 36000;

// Templates of the four output types: an empty index stands for every record.
struct dpm_expire_tmpls {
    UCluster__ApidIdx apid_idx = U_CLUSTER__APID_IDX__INIT;
    UCluster__ModidIdx modid_idx = U_CLUSTER__MODID_IDX__INIT;
    UCluster__VslSrcmodIgr igr = U_CLUSTER__VSL_SRCMOD_IGR__INIT;
    UCluster__VslSrcmodEgr egr = U_CLUSTER__VSL_SRCMOD_EGR__INIT;
    UCluster__KelUcBalance uc = U_CLUSTER__KEL_UC_BALANCE__INIT;
    UCluster__VslApMember apmbr = U_CLUSTER__VSL_AP_MEMBER__INIT;

    dpm_expire_tmpls() {
        igr.index = &apid_idx;
        egr.index = &apid_idx;
        uc.index = &modid_idx;
        apmbr.index = &apid_idx;
    }
    dpm_expire_tmpls(const dpm_expire_tmpls &) = delete;
    dpm_expire_tmpls &operator=(const dpm_expire_tmpls &) = delete;
};

static int dpm_ds_begin(void *client, const ProtobufCMessage *tmpl) {
    return xn_mom_dsbegin_sync(client, XN_MOM_TOPO_DB, tmpl, 0, DPM_DS_EXPIRE, 0);
}

static int dpm_ds_end(void *client, const ProtobufCMessage *tmpl) {
    return xn_mom_dsend(client, XN_MOM_TOPO_DB, tmpl, 0, 0, 0);
}

// Closes the brackets in order and returns how many closed: after a return
// of n, the first n of uc, igr, egr, ap-member dropped their expired records.
static int dpm_kel_del_expire_all(void *client, const dpm_expire_tmpls &t) {
    DPM_INFO("enter");
    if (dpm_ds_end(client, &t.uc.base) != 0) {
        DPM_ERR("dsend keluc failed!");
        return 0;
    }
    if (dpm_ds_end(client, &t.igr.base) != 0) {
        DPM_ERR("dsend igr failed!");
        return 1;
    }
    if (dpm_ds_end(client, &t.egr.base) != 0) {
        DPM_ERR("dsend egr failed!");
        return 2;
    }
    if (dpm_ds_end(client, &t.apmbr.base) != 0) {
        DPM_ERR("dsend apmbr failed!");
        return 3;
    }
    udp_dpm_time_record(DPM_T_DELEXPIRE, 0);
    return 4;
}

// Without a route map the application writes nothing, so every bracket that
// closed dropped all records of its type. What was dropped no longer counts
// as written: the filters' applied copies are emptied, and an aggregate port
// with active ports owes its member list, so that the first map writes them
// again instead of finding them unchanged. An aggregate port without links
// owes nothing.
static void dpm_kel_forget_dropped(int closed) {
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        if (closed >= 2) dpm_igr_permit_applied[apid].modid_bmp.fill(0);
        if (closed >= 3) dpm_egr_block_applied[apid].modid_bmp.fill(0);
        if (closed >= 4 && dpm_vslap_cache.ap[apid].vsl_cnt != 0)
            dpm_vslap_cache.ap[apid].chang_flag = 1;
    }
}

static void dpm_kel_expire_finish(void *client, const dpm_expire_tmpls &t) {
    DPM_INFO("enter");
    // Under the flag every wanted record is written, unchanged ones included,
    // so that it is confirmed inside its bracket.
    (void)dpm_apply_kel_cfg();
    dpm_update_my_fwd_state(1);
    const int closed = dpm_kel_del_expire_all(client, t);
    if (!dpm_is_ds_ready()) dpm_kel_forget_dropped(closed);
}

static void dpm_kel_expire_uc_finish(void *client, const dpm_expire_tmpls &t) {
    DPM_INFO("enter");
    if (dpm_ds_begin(client, &t.apmbr.base) != 0) {
        DPM_ERR("xn_mom_dsbegin keluc fail!");
        return;
    }
    is_exprire_mom_flag = 1;
    dpm_kel_expire_finish(client, t);
}

static void dpm_kel_expire_egr_finish(void *client, const dpm_expire_tmpls &t) {
    DPM_INFO("enter");
    if (dpm_ds_begin(client, &t.uc.base) != 0) {
        DPM_ERR("xn_mom_dsbegin keluc fail!");
        return;
    }
    dpm_kel_expire_uc_finish(client, t);
}

static void dpm_kel_expire_igr_finish(void *client, const dpm_expire_tmpls &t) {
    DPM_INFO("enter");
    if (dpm_ds_begin(client, &t.egr.base) != 0) {
        DPM_ERR("xn_mom_dsbegin egr fail!");
        return;
    }
    dpm_kel_expire_egr_finish(client, t);
}

void dpm_kel_set_expire(void *client) {
    DPM_INFO("enter");
    udp_dpm_time_record(DPM_T_SETEXPIRE, 0);
    const dpm_expire_tmpls t;
    if (dpm_ds_begin(client, &t.igr.base) != 0) {
        DPM_ERR("xn_mom_dsbegin igr fail!");
    } else {
        dpm_kel_expire_igr_finish(client, t);
    }
    is_exprire_mom_flag = 0;
}
