// Database sessions and subscriptions.
//
// ASIC_DB, TOPO_DB and UDP_DB are connected at start-up. LOCAL_DB, where the
// module's inputs live, is connected only once the read-back scans of the
// module's own TOPO_DB output are over (dpm_conn_local_db_scanover_out), so a
// restarted module continues from what it wrote before instead of from
// nothing. Each connect callback subscribes its record types; a resumed
// session (reconnect type 2) subscribes again, any other reconnect type ends
// the process with status 77 so that the module starts afresh.
#include <cstdio>
#include <cstdlib>

#include "udp_dpm.h"

static constexpr int DPM_EXIT_RESTART = 77;

// ---------------------------------------------------------------------------
// Subscriptions: a template whose index is present and all zero stands for
// every record of the type; the handlers pick their keys themselves.
// ---------------------------------------------------------------------------

static int dpm_subscribe(void *client, int db, const ProtobufCMessage *tmpl, xn_mom_event_cb_t cb) {
    return xn_mom_subscribe(client, db, tmpl, 0, cb, nullptr);
}

int dpm_subscribe_modid_alloc(void *client) {
    DPM_INFO("enter");
    SIntf__ModAllocIndex idx = S_INTF__MOD_ALLOC_INDEX__INIT;
    SIntf__EvtModAlloc rec = S_INTF__EVT_MOD_ALLOC__INIT;
    rec.index = &idx;
    int rv = dpm_subscribe(client, XN_MOM_ASIC_DB, &rec.base, dpm_mod_alloc_cb);
    if (rv != 0) DPM_ERR("subscribe modid_alloc failed, rv is %d", rv);
    return rv;
}

int dpm_subscribe_uc_banlance(void *client) {
    DPM_INFO("enter");
    UCluster__ModidIdx idx = U_CLUSTER__MODID_IDX__INIT;
    UCluster__KelUcBalance rec = U_CLUSTER__KEL_UC_BALANCE__INIT;
    rec.index = &idx;
    int rv = dpm_subscribe(client, XN_MOM_TOPO_DB, &rec.base, dpm_uc_balance_cb);
    if (rv != 0) DPM_ERR("subscribe uc_balance failed, rv is %d", rv);
    return rv;
}

int dpm_subscribe_mmc(void *client) {
    DPM_INFO("enter");
    UCluster__ModApidIdx idx = U_CLUSTER__MOD_APID_IDX__INIT;
    UCluster__MainmcVlan rec = U_CLUSTER__MAINMC_VLAN__INIT;
    rec.index = &idx;
    int rv = dpm_subscribe(client, XN_MOM_TOPO_DB, &rec.base, dpm_mmc_cb);
    if (rv != 0) DPM_ERR("subscribe mmc failed, rv is %d", rv);
    return rv;
}

int dpm_subscribe_igr(void *client) {
    DPM_INFO("enter");
    UCluster__ApidIdx idx = U_CLUSTER__APID_IDX__INIT;
    UCluster__VslSrcmodIgr rec = U_CLUSTER__VSL_SRCMOD_IGR__INIT;
    rec.index = &idx;
    int rv = dpm_subscribe(client, XN_MOM_TOPO_DB, &rec.base, dpm_igr_cb);
    if (rv != 0) DPM_ERR("subscribe igr failed, rv is %d", rv);
    return rv;
}

int dpm_subscribe_dev_fwd_state(void *client) {
    DPM_INFO("enter");
    UCluster__DevIdx idx = U_CLUSTER__DEV_IDX__INIT;
    UCluster__KelDevFwdstate rec = U_CLUSTER__KEL_DEV_FWDSTATE__INIT;
    rec.index = &idx;
    int rv = dpm_subscribe(client, XN_MOM_UDP_DB, &rec.base, dpm_dev_fwd_state_cb);
    if (rv != 0) DPM_ERR("subscribe dev_fwd_state failed, rv is %d", rv);
    return rv;
}

int dpm_subscribe_vsl_chipst(void *client) {
    DPM_INFO("enter");
    UCluster__ChipIdx idx = U_CLUSTER__CHIP_IDX__INIT;
    UCluster__VslChipFwdstate rec = U_CLUSTER__VSL_CHIP_FWDSTATE__INIT;
    rec.index = &idx;
    int rv = dpm_subscribe(client, XN_MOM_UDP_DB, &rec.base, dpm_vsl_chipst_cb);
    if (rv != 0) DPM_ERR("subscribe vsl_chipst failed, rv is %d", rv);
    return rv;
}

int dpm_subscribe_dtm(void *client) {
    DPM_INFO("enter");
    PDev__DtmRouteInfo rec = P_DEV__DTM_ROUTE_INFO__INIT;
    int rv = dpm_subscribe(client, XN_MOM_LOCAL_DB, &rec.base, dpm_dtm_cb);
    if (rv != 0) DPM_ERR("subscribe dtm failed, rv is %d", rv);
    return rv;
}

int dpm_subscribe_dtm_fiap(void *client) {
    DPM_INFO("enter");
    PDev__DtmFiapRouteInfo rec = P_DEV__DTM_FIAP_ROUTE_INFO__INIT;
    int rv = dpm_subscribe(client, XN_MOM_LOCAL_DB, &rec.base, dpm_dtm_cb);
    if (rv != 0) DPM_ERR("subscribe dtm failed, rv is %d", rv);
    return rv;
}

int dpm_subscribe_vsl(void *client) {
    DPM_INFO("enter");
    PDev__VslPortIndex idx = P_DEV__VSL_PORT_INDEX__INIT;
    PDev__VslLocalLink rec = P_DEV__VSL_LOCAL_LINK__INIT;
    rec.index = &idx;
    int rv = dpm_subscribe(client, XN_MOM_LOCAL_DB, &rec.base, dpm_local_vsl_cb);
    if (rv != 0) DPM_ERR("subscribe local_vsl failed, rv is %d", rv);
    return rv;
}

int dpm_subscribe_mmc_back(void *client) {
    DPM_INFO("enter");
    UCluster__ModApidIdx idx = U_CLUSTER__MOD_APID_IDX__INIT;
    UCluster__MainmcVlanSt rec = U_CLUSTER__MAINMC_VLAN_ST__INIT;
    rec.index = &idx;
    int rv = dpm_subscribe(client, XN_MOM_TOPO_DB, &rec.base, dpm_mmc_back_cb);
    if (rv != 0) DPM_ERR("subscribe mmc_back failed, rv is %d", rv);
    return rv;
}

// ---------------------------------------------------------------------------
// Connect callbacks
// ---------------------------------------------------------------------------

int dpm_asic_db_conn_cb(void *client) {
    DPM_INFO("connect asic");
    udp_dpm_time_record(DPM_T_ASIC_CONN, 0);
    (void)dpm_subscribe_modid_alloc(client);
    return 0;
}

int dpm_topo_db_conn_cb(void *client) {
    DPM_INFO("connect topo_db");
    udp_dpm_time_record(DPM_T_TOPO_CONN, 0);
    (void)dpm_subscribe_uc_banlance(client);
    (void)dpm_subscribe_mmc(client);
    (void)dpm_subscribe_igr(client);
    return 0;
}

int dpm_udp_db_conn_cb(void *client) {
    udp_dpm_time_record(DPM_T_UDP_CONN, 0);
    (void)dpm_subscribe_dev_fwd_state(client);
    (void)dpm_subscribe_vsl_chipst(client);
    return 0;
}

int dpm_local_db_conn_cb(void *client) {
    DPM_INFO("connect local_db");
    const int cut_type = udp_dpm_get_dev_kel_ring_cut_type();
    DPM_INFO("dpm_local_db_conn_cb, kel_cut_type:%d", cut_type);
    udp_dpm_time_record(DPM_T_LOCAL_CONN, 0);
    switch (cut_type) {
        case 0:
            (void)dpm_subscribe_dtm(client);
            break;
        case 1:
            (void)dpm_subscribe_dtm_fiap(client);
            break;
        default:
            DPM_ERR("unknown kel cut type:%d", cut_type);
            break;
    }
    (void)dpm_subscribe_vsl(client);
    return 0;
}

// ---------------------------------------------------------------------------
// Start-up connections and the deferred LOCAL_DB gate
// ---------------------------------------------------------------------------

static int dpm_connect(int db, xn_mom_conn_cb_t cb) {
    int rv = xn_mom_client_connect_sync(g_udp_dpm_global, db);
    rv |= xn_mom_client_connect(g_udp_dpm_global, db, cb);
    return rv;
}

int dpm_conn_db(void) {
    void *client = g_udp_dpm_global;
    int rv = dpm_connect(XN_MOM_ASIC_DB, dpm_asic_db_conn_cb);
    if (rv != 0) {
        DPM_ERR("conn asic db failed! rv is %d", rv);
        return rv;
    }
    rv = dpm_connect(XN_MOM_TOPO_DB, dpm_topo_db_conn_cb);
    if (rv != 0) {
        DPM_ERR("conn topo db failed! rv is %d", rv);
        return rv;
    }
    rv = dpm_connect(XN_MOM_UDP_DB, dpm_udp_db_conn_cb);
    if (rv != 0) {
        DPM_ERR("conn udp db failed! rv is %d", rv);
        return rv;
    }
    rv = xn_mom_client_set_disconnect_cb(client, XN_MOM_ASIC_DB, dpm_asic_db_disconn_cb);
    if (rv != 0) {
        DPM_ERR("set disconn asic db failed! rv is %d", rv);
        return rv;
    }
    rv = xn_mom_client_set_disconnect_cb(client, XN_MOM_TOPO_DB, dpm_topo_db_disconn_cb);
    if (rv != 0) {
        DPM_ERR("set disconn TOPO db failed! rv is %d", rv);
        return rv;
    }
    rv = xn_mom_client_set_disconnect_cb(client, XN_MOM_UDP_DB, dpm_udp_db_disconn_cb);
    if (rv != 0) {
        DPM_ERR("set disconn udp db failed! rv is %d", rv);
        return rv;
    }
    rv = xn_mom_client_set_reconnect_cb(client, XN_MOM_ASIC_DB, dpm_asic_db_reconn_cb);
    if (rv != 0) {
        DPM_ERR("set reconn ASIC db failed! rv is %d", rv);
        return rv;
    }
    rv = xn_mom_client_set_reconnect_cb(client, XN_MOM_TOPO_DB, dpm_topo_db_reconn_cb);
    if (rv != 0) {
        DPM_ERR("set reconn TOPO db failed! rv is %d", rv);
        return rv;
    }
    rv = xn_mom_client_set_reconnect_cb(client, XN_MOM_UDP_DB, dpm_udp_db_reconn_cb);
    if (rv != 0) {
        DPM_ERR("set reconn udp db failed! rv is %d", rv);
        return rv;
    }
    inited = 1;
    return 0;
}

int dpm_event_check(const char *func, const xn_mom_msg_t *msg) {
    if (msg == nullptr) {
        DPM_ERR_FN(func, "msg is NULL!");
        return DPM_ERR_EVENT;
    }
    if (msg->err != 0) {
        DPM_ERR_FN(func, "msg error is %d!", static_cast<int>(msg->err));
        return DPM_ERR_EVENT;
    }
    return DPM_OK;
}

int dpm_conn_local_db_scanover_out(void) {
    if (g_mmc_ds_over == 0 || g_uc_ds_over == 0 || g_igr_ds_over == 0) return 0;
    int rv = xn_mom_client_connect(g_udp_dpm_global, XN_MOM_LOCAL_DB, dpm_local_db_conn_cb);
    if (rv != 0) {
        DPM_ERR("conn local db failed! rv is %d", rv);
        return rv;
    }
    rv = xn_mom_client_set_reconnect_cb(g_udp_dpm_global, XN_MOM_LOCAL_DB, dpm_local_db_reconn_cb);
    if (rv != 0) DPM_ERR("set reconn local db failed! rv is %d", rv);
    return rv;
}

// ---------------------------------------------------------------------------
// Disconnect and reconnect: a lost session keeps every cache; only a session
// that comes back resumable (type 2) is subscribed again.
// ---------------------------------------------------------------------------

int dpm_asic_db_disconn_cb(void) {
    DPM_INFO("disconnect asic_db");
    return 0;
}

int dpm_topo_db_disconn_cb(void) {
    DPM_INFO("disconnect topo_db");
    return 0;
}

int dpm_udp_db_disconn_cb(void) {
    DPM_INFO("disconnect udp_db");
    return 0;
}

int dpm_asic_db_reconn_cb(void *client, int /*db*/, int type) {
    DPM_ERR("reconnect asic_db");
    if (type == XN_MOM_RECONN_RESUME) return dpm_asic_db_conn_cb(client);
    DPM_ERR("Process restart. type = %d", type);
    exit(DPM_EXIT_RESTART);
}

int dpm_local_db_reconn_cb(void *client, int /*db*/, int type) {
    DPM_ERR("reconnect local_db");
    if (type == XN_MOM_RECONN_RESUME) return dpm_local_db_conn_cb(client);
    DPM_ERR("Process restart. type = %d", type);
    exit(DPM_EXIT_RESTART);
}

int dpm_topo_db_reconn_cb(void *client, int /*db*/, int type) {
    DPM_INFO("reconnect topo_db");
    if (type != XN_MOM_RECONN_RESUME) exit(DPM_EXIT_RESTART);
    DPM_ERR("reconn topo db");
    return dpm_topo_db_conn_cb(client);
}

int dpm_udp_db_reconn_cb(void *client, int /*db*/, int type) {
    DPM_INFO("reconnect udp_db");
    if (type != XN_MOM_RECONN_RESUME) exit(DPM_EXIT_RESTART);
    DPM_ERR("reconn udp_db");
    return dpm_udp_db_conn_cb(client);
}

// Repeats the subscriptions of a session; it never connects.
int udp_dpm_dbg_db_reconn(int db) {
    int rv = 0;
    switch (db) {
        case XN_MOM_UDP_DB:
            rv = dpm_udp_db_conn_cb(g_udp_dpm_global);
            break;
        case XN_MOM_ASIC_DB:
            rv = dpm_asic_db_conn_cb(g_udp_dpm_global);
            break;
        case XN_MOM_LOCAL_DB:
            rv = dpm_local_db_conn_cb(g_udp_dpm_global);
            break;
        case XN_MOM_TOPO_DB:
            rv = dpm_topo_db_conn_cb(g_udp_dpm_global);
            break;
        default:
            printf("process does not connect with the db %d\n", db);
            break;
    }
    fflush(stdout);
    return rv;
}
