// Member forwarding state: each member announces in UDP_DB whether it
// forwards (u_cluster.kel_dev_fwdstate). Peers' states are cached in their
// device entries for the application; this member writes its own record
// ("forward", once its configuration is applied and a VSL chip forwards) and,
// as global master, deletes the records of members that left the topology.
#include <cstring>

#include "dpm_intake.h"
#include "udp_dpm.h"

// The state number of a forwarding-state word, or -1 when it names none.
static int dpm_fwd_state_by_name(const char *name) {
    if (name == nullptr) return -1;
    for (const dpm_fwd_state_name &e : dpm_fwd_state_tbl) {
        if (strcmp(e.name, name) == 0) return static_cast<int>(e.state);
    }
    return -1;
}

int dpm_dev_fwd_state_ds(void *client) {
    DPM_ERR("enter");
    UCluster__DevIdx idx = U_CLUSTER__DEV_IDX__INIT;
    UCluster__KelDevFwdstate tmpl = U_CLUSTER__KEL_DEV_FWDSTATE__INIT;
    tmpl.index = &idx;
    int rv = xn_mom_scan(client, XN_MOM_UDP_DB, &tmpl.base, 0, dpm_dev_fwd_state_cb, nullptr);
    if (rv != 0) DPM_ERR("scan dev fwd state info failed!");
    return rv;
}

void dpm_proc_dev_fwd_state_add(const UCluster__KelDevFwdstate *record) {
    uint32_t devid = record->index->devid;
    const char *word = record->fwd_state != nullptr ? record->fwd_state : "";
    DPM_INFO("enter, dev:%d, state:%s", static_cast<int>(devid), word);
    udp_dpm_time_record(DPM_T_DEVST_ADD, static_cast<int32_t>(devid));

    dpm_dev_head *dev = dpm_find_dev_head(devid);
    if (dev == nullptr) {
        DPM_ERR("can't find dev %d", static_cast<int>(devid));
        dev = dpm_alloc_dev_head(devid);
        if (dev == nullptr) {
            DPM_ERR("can't alloc!");
            return;
        }
    }

    int state = dpm_fwd_state_by_name(word);
    if (state >= 0) {
        // The own state is this module's to decide, never the database's.
        if (devid == g_mydevid) {
            DPM_ERR("my state is %d in cache! my state is %d in mom!",
                    static_cast<int>(dev->fwd_state), state);
            return;
        }
        dev->fwd_state = static_cast<uint32_t>(state);
    }

    if (!dpm_is_ds_ready()) {
        DPM_ERR("ds not end!");
        return;
    }
    dpm_apply_kel_cfg();
}

void dpm_proc_dev_fwd_state_del(const UCluster__KelDevFwdstate *record) {
    DPM_INFO("del dev_st. dev:%d", static_cast<int>(record->index->devid));
    udp_dpm_time_record(DPM_T_DEVST_DEL, static_cast<int32_t>(record->index->devid));
}

int dpm_dev_fwd_state_cb(void *client, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    if (int rv = dpm_event_check(__func__, msg); rv != DPM_OK) return rv;
    if (msg->cmd == XN_MOM_CMD_DS) {
        dpm_dev_fwd_state_ds(client);
        return DPM_OK;
    }
    if (msg->scan_over == XN_MOM_SCAN_OVER) {
        DPM_INFO("scan over");
        return DPM_OK;
    }
    if (msg->cmd != XN_MOM_CMD_SET && msg->cmd != XN_MOM_CMD_DEL) return DPM_OK;

    const auto *base = static_cast<const ProtobufCMessage *>(msg->data);
    if (base == nullptr || base->descriptor != &u_cluster__kel_dev_fwdstate__descriptor ||
        reinterpret_cast<const UCluster__KelDevFwdstate *>(base)->index == nullptr) {
        DPM_ERR("dev fwd state record invalid, cmd:%d, dropped", msg->cmd);
        return DPM_OK;
    }
    const auto *rec = reinterpret_cast<const UCluster__KelDevFwdstate *>(base);
    if (!dpm_devid_valid(rec->index->devid)) {
        DPM_ERR("dev fwd state devid %d out of range, dropped",
                static_cast<int>(rec->index->devid));
        return DPM_OK;
    }
    if (msg->cmd == XN_MOM_CMD_SET) {
        dpm_proc_dev_fwd_state_add(rec);
    } else {
        dpm_proc_dev_fwd_state_del(rec);
    }
    return DPM_OK;
}

int dpm_set_dev_fwd_state(void) {
    DPM_INFO("enter");
    UCluster__DevIdx idx = U_CLUSTER__DEV_IDX__INIT;
    idx.devid = g_mydevid;
    UCluster__KelDevFwdstate rec = U_CLUSTER__KEL_DEV_FWDSTATE__INIT;
    rec.index = &idx;
    rec.fwd_state = const_cast<char *>(dpm_fwd_state_tbl[DPM_FWD_FORWARD].name);
    int rv = xn_mom_set(g_udp_dpm_global, XN_MOM_UDP_DB, &rec.base, 0, 0);
    if (rv == 0) {
        udp_dpm_time_record(DPM_T_DEVST_ME_ADD, static_cast<int32_t>(g_mydevid));
    } else {
        DPM_ERR("set dev_fwd_state failed, rv is %d", rv);
    }
    return rv;
}

void dpm_update_my_fwd_state(int is_ds) {
    dpm_dev_head *me = dpm_find_dev_head(g_mydevid);
    if (me == nullptr) {
        DPM_ERR("can;t find my_dev %d head", static_cast<int>(g_mydevid));
        return;
    }
    if (me->fwd_state == DPM_FWD_FORWARD) {
        // Only a data-sync end writes an unchanged state again.
        if (is_ds == 0) {
            DPM_ERR("my fwd state is %d. not change, return", static_cast<int>(DPM_FWD_FORWARD));
            return;
        }
    } else if (is_ds != 0) {
        DPM_ERR("my fwd state is not forward when ds, return");
        return;
    }
    me->fwd_state = DPM_FWD_FORWARD;
    int rv = dpm_set_dev_fwd_state();
    if (rv != 0) DPM_ERR("set state fwd fail, rv is %d", rv);
}

uint32_t dpm_get_my_fwd_state(void) {
    dpm_dev_head *me = dpm_find_dev_head(g_mydevid);
    if (me == nullptr) {
        DPM_ERR("can't find dev %d", static_cast<int>(g_mydevid));
        return 0;
    }
    return me->fwd_state;
}

int dpm_del_dev_fwd_state(uint32_t devid) {
    DPM_INFO("enter");
    UCluster__DevIdx idx = U_CLUSTER__DEV_IDX__INIT;
    idx.devid = devid;
    UCluster__KelDevFwdstate rec = U_CLUSTER__KEL_DEV_FWDSTATE__INIT;
    rec.index = &idx;
    int rv = xn_mom_del(g_udp_dpm_global, XN_MOM_UDP_DB, &rec.base, 0, 0);
    if (rv == 0) {
        udp_dpm_time_record(DPM_T_DEVST_ME_DEL, static_cast<int32_t>(devid));
    } else {
        DPM_ERR("del dev_fwd_state failed, rv is %d", rv);
    }
    return rv;
}
