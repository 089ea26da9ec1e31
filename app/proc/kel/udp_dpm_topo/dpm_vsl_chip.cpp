// VSL chip state: the switch chips that carry VSL links report their
// forwarding state in UDP_DB (u_cluster.vsl_chip_fwdstate). The chips that have
// reported "forward" are kept in dpm_vsl_chip_head; the VSL link readiness test
// looks a port's two chips up there, and a chip of this member in the list lets
// the member declare itself forwarding.
#include <cstring>

#include "dpm_intake.h"
#include "udp_dpm.h"

static bool dpm_vsl_chip_is(const dpm_vsl_chip *c, const UCluster__ChipIdx *idx) {
    return c->devid == idx->t_devid && c->slot == idx->slot && c->sslot == idx->sslot &&
           c->unit == idx->unit;
}

dpm_vsl_chip *dpm_get_vsl_chipst(const UCluster__ChipIdx *index) {
    dpm_vsl_chip *c = nullptr;
    dpm_list_for_each_entry(c, &dpm_vsl_chip_head, link) {
        if (dpm_vsl_chip_is(c, index)) return c;
    }
    return nullptr;
}

int dpm_vsl_chipst_ds(void *client) {
    DPM_ERR("enter");
    UCluster__ChipIdx idx = U_CLUSTER__CHIP_IDX__INIT;
    UCluster__VslChipFwdstate tmpl = U_CLUSTER__VSL_CHIP_FWDSTATE__INIT;
    tmpl.index = &idx;
    int rv = xn_mom_scan(client, XN_MOM_UDP_DB, &tmpl.base, 0, dpm_vsl_chipst_cb, nullptr);
    if (rv != 0) DPM_ERR("scan vsl_chip state failed!");
    return rv;
}

enum class chip_save { stored, not_forward, exists, failed };

static chip_save dpm_save_vsl_chipst(const UCluster__VslChipFwdstate *record) {
    DPM_INFO("enter");
    const UCluster__ChipIdx *idx = record->index;
    if (record->fwd_state == nullptr ||
        strcmp(record->fwd_state, dpm_fwd_state_tbl[DPM_FWD_FORWARD].name) != 0) {
        // A chip leaves the list only by the deletion of its record.
        DPM_INFO("vsl_chip state is not forward");
        return chip_save::not_forward;
    }
    DPM_INFO("vsl_chip forward.devid:%d, slot:%d, sslot:%d, unit:%d",
             static_cast<int>(idx->t_devid), static_cast<int>(idx->slot),
             static_cast<int>(idx->sslot), static_cast<int>(idx->unit));
    if (dpm_get_vsl_chipst(idx) != nullptr) {
        DPM_INFO("vsl_chip exist");
        return chip_save::exists;
    }
    auto *c = dpm_zalloc<dpm_vsl_chip>();
    if (c == nullptr) {
        DPM_ERR("can't alloc!");
        return chip_save::failed;
    }
    c->devid = idx->t_devid;
    c->slot = idx->slot;
    c->sslot = idx->sslot;
    c->unit = idx->unit;
    c->modid = record->modid;
    dpm_list_add_tail(&c->link, &dpm_vsl_chip_head);
    return chip_save::stored;
}

void dpm_proc_vsl_chipst_add(const UCluster__VslChipFwdstate *record) {
    DPM_INFO("enter");
    udp_dpm_time_record(DPM_T_CHIPST_ADD, static_cast<int32_t>(record->index->t_devid));

    chip_save saved = dpm_save_vsl_chipst(record);
    if (saved == chip_save::exists) return;
    if (saved == chip_save::failed) {
        DPM_ERR("add vsl_chip fail");
        return;
    }
    if (!dpm_is_ds_ready()) {
        DPM_ERR("ds not end!");
        return;
    }
    // Once a configuration is applied, an own chip in forwarding state is what
    // the member still waits for to declare itself forwarding.
    if (dpm_dtm_cache.hwcfg != nullptr) {
        int mine = 0;
        dpm_vsl_chip *c = nullptr;
        dpm_list_for_each_entry(c, &dpm_vsl_chip_head, link) {
            if (c->devid == g_mydevid) ++mine;
        }
        if (mine > 0) dpm_update_my_fwd_state(0);
    }
    dpm_proc_rdy_chip_in_unused(false);
    DPM_INFO("exit");
}

void dpm_proc_vsl_chipst_del(const UCluster__VslChipFwdstate *record) {
    DPM_INFO("enter");
    udp_dpm_time_record(DPM_T_CHIPST_DEL, static_cast<int32_t>(record->index->t_devid));
    dpm_vsl_chip *c = dpm_get_vsl_chipst(record->index);
    if (c == nullptr) {
        DPM_ERR("can't find vsl_chip");
        return;
    }
    dpm_list_del(&c->link);
    free(c);
}

int dpm_vsl_chipst_cb(void *client, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    if (int rv = dpm_event_check(__func__, msg); rv != DPM_OK) return rv;
    if (msg->cmd == XN_MOM_CMD_DS) {
        dpm_vsl_chipst_ds(client);
        return DPM_OK;
    }
    if (msg->scan_over == XN_MOM_SCAN_OVER) {
        DPM_INFO("scan over");
        rdy_vsl_chip_ds_end = 1;
        dpm_proc_ds_end(client);
        return DPM_OK;
    }
    if (msg->cmd != XN_MOM_CMD_SET && msg->cmd != XN_MOM_CMD_DEL) return DPM_OK;

    const auto *base = static_cast<const ProtobufCMessage *>(msg->data);
    if (base == nullptr || base->descriptor != &u_cluster__vsl_chip_fwdstate__descriptor ||
        reinterpret_cast<const UCluster__VslChipFwdstate *>(base)->index == nullptr) {
        DPM_ERR("vsl_chip state record invalid, cmd:%d, dropped", msg->cmd);
        return DPM_OK;
    }
    const auto *rec = reinterpret_cast<const UCluster__VslChipFwdstate *>(base);
    if (msg->cmd == XN_MOM_CMD_SET) {
        dpm_proc_vsl_chipst_add(rec);
    } else {
        dpm_proc_vsl_chipst_del(rec);
    }
    return DPM_OK;
}

int dpm_del_vsl_chipst_in_db(const dpm_vsl_chip *entry) {
    DPM_INFO("enter");
    UCluster__ChipIdx idx = U_CLUSTER__CHIP_IDX__INIT;
    idx.t_devid = entry->devid;
    idx.slot = entry->slot;
    idx.sslot = entry->sslot;
    idx.unit = entry->unit;
    UCluster__VslChipFwdstate rec = U_CLUSTER__VSL_CHIP_FWDSTATE__INIT;
    rec.index = &idx;
    int rv = xn_mom_del(g_udp_dpm_global, XN_MOM_UDP_DB, &rec.base, 0, 0);
    if (rv == 0) {
        udp_dpm_time_record(DPM_T_CHIPST_ME_DEL, static_cast<int32_t>(entry->devid));
    } else {
        DPM_ERR("del vsl_chip state failed, rv is %d", rv);
    }
    return rv;
}

void dpm_del_vsl_chipst(uint32_t devid) {
    dpm_vsl_chip *c = nullptr;
    dpm_vsl_chip *n = nullptr;
    dpm_list_for_each_entry_safe(c, n, &dpm_vsl_chip_head, link) {
        if (c->devid != devid) continue;
        // The entry goes even when its record could not be deleted.
        dpm_del_vsl_chipst_in_db(c);
        dpm_list_del(&c->link);
        free(c);
    }
}
