// Entry point of the module and its process-wide scalars.
//
// ce_dpm_dlib_init runs once on the host's thread: it reads the log level and
// the ring-cut capacity, sets up the timing ring and every cache, registers
// with the device-data library, opens ASIC_DB, TOPO_DB and UDP_DB (LOCAL_DB
// follows once the TOPO_DB read-back is over, udp_dpm_session.cpp), creates the
// data-sync agent for the role and card key events and registers the debug
// commands. After it returns, the module only runs inside callbacks.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libxn_cap.h"
#include "udp_dpm.h"

void *g_udp_dpm_global = nullptr;
uint32_t g_mydevid = 1;
uint32_t g_my_node_type = 0;
uint32_t g_my_grole = 0;
int32_t g_kel_ring_cut_type = 0;
uint8_t inited = 0;

static constexpr uint32_t DPM_TIME_RING_BOX = 200;
static constexpr uint32_t DPM_TIME_RING_OTHER = 500;

int udp_dpm_get_dev_kel_ring_cut_type(void) {
    return g_kel_ring_cut_type;
}

// Level from the level file; 1 when it is missing or empty. strtol rules: a
// file without digits gives 0, "-1" wraps to the largest unsigned level.
static uint32_t udp_dpm_read_level_file(void) {
    uint32_t level = 1;
    int fd = open(udp_dpm_path("/etc/pktdbg/udp_dpm"), O_RDONLY);
    if (fd < 0) return level;
    char buf[129];
    memset(buf, 0, sizeof buf);
    ssize_t n = read(fd, buf, 128);
    if (n > 0) level = static_cast<uint32_t>(strtol(buf, nullptr, 10));
    close(fd);
    return level;
}

static void udp_dpm_time_ring_init(void) {
    udp_dpm_dbg_time_t &t = udp_dpm_dbg_time;
    free(t.entries);  // NOLINT(cppcoreguidelines-no-malloc): a repeated start-up
    t.entries = nullptr;
    t.count = 0;
    t.cur_idx = 0;
    t.per_cnt = 1;
    t.size = 0;
    t.names = udp_dpm_dbg_time_str;
    const uint32_t size = g_my_node_type == DPM_NODE_BOX ? DPM_TIME_RING_BOX : DPM_TIME_RING_OTHER;
    auto *entries = static_cast<dpm_time_entry *>(
        calloc(size, sizeof(dpm_time_entry)));  // NOLINT(cppcoreguidelines-no-malloc)
    if (entries == nullptr) {
        printf("\nmalloc fail, size:%d\n", static_cast<int>(size));
        fflush(stdout);
        return;
    }
    t.entries = entries;
    t.size = size;
}

static void dpm_base_data_init(void) {
    DPM_INFO("enter");
    udp_dpm_time_ring_init();
    dpm_cache_init();
    // The own device takes part in every map; its entry exists from the start.
    (void)dpm_alloc_dev_head(g_mydevid);
}

// The data-sync agent lives as long as the process and keeps pointers to its
// registration entries and their templates.
static PDev__DpLibGrole s_grole_tmpl = P_DEV__DP_LIB_GROLE__INIT;
static PDev__CardInfoIndex s_card_idx_tmpl = P_DEV__CARD_INFO_INDEX__INIT;
static PDev__CardInfo s_card_tmpl = P_DEV__CARD_INFO__INIT;
static xn_mom_ds_reg_t s_ds_regs[2];
static const uint32_t s_ab_opts[2] = {1, 0};

static void udp_dpm_mom_init(void) {
    DPM_FATAL("enter pkt_frame_fe_mom_init");
    xn_mom_ab_t *agent = xn_mom_ab_init(0, "udp_dpm", s_ab_opts);
    if (agent == nullptr) {
        DPM_FATAL("xn_mom_ab_init failed.\n");
        return;
    }
    agent->client = g_udp_dpm_global;

    s_card_tmpl.index = &s_card_idx_tmpl;
    const ProtobufCMessage *tmpls[2] = {&s_grole_tmpl.base, &s_card_tmpl.base};
    for (int i = 0; i < 2; ++i) {
        s_ds_regs[i].tmpl = tmpls[i];
        s_ds_regs[i].mode = 1;
        s_ds_regs[i].flags = 1;
        s_ds_regs[i].rsv1 = 0;
        s_ds_regs[i].rsv2 = 0;
        s_ds_regs[i].owner = "udp_dpm";
    }
    int ds_id = xn_mom_reg_ds(agent, s_ds_regs, 2, 0, 0);
    if (ds_id < 1) {
        DPM_FATAL("dpm ds fail, ds_id:%d\n", ds_id);
        return;
    }
    xn_mom_reg_key_event(agent, &s_ds_regs[0], XN_MOM_KEY_SET, dpm_add_grole, nullptr);
    xn_mom_reg_key_event(agent, &s_ds_regs[0], XN_MOM_KEY_DEL, dpm_del_grole, nullptr);
    xn_mom_reg_key_event(agent, &s_ds_regs[1], XN_MOM_KEY_SET, dpm_add_card_info, nullptr);
    xn_mom_reg_key_event(agent, &s_ds_regs[1], XN_MOM_KEY_DEL, dpm_del_card_info, nullptr);
}

static int udp_dpm_libddm_init(void) {
    // Every registration is attempted; any failure fails the step.
    int rv1 = libddm_notify_reg(1, udp_dpm_libddm_notify_cb, nullptr);
    int rv2 = libddm_notify_reg(LIBDDM_NOTIFY_MODULE, udp_dpm_libddm_notify_cb, nullptr);
    int rv3 = libddm_init(g_udp_dpm_global, "ce_dpm");
    return (rv1 != 0 || rv2 != 0 || rv3 != 0) ? DPM_ERR_FAIL : DPM_OK;
}

static int udp_dpm_init(ce_dpm_dlib_arg *arg) {
    g_udp_dpm_global = arg->handle;
    if (g_udp_dpm_global == nullptr) return DPM_ERR_FAIL;
    g_my_node_type = arg->node_type;
    g_mydevid = arg->devid;

    g_udp_dpm_zlog_level = udp_dpm_read_level_file();
    g_udp_dpm_zlog_category = xn_zlog_init("udp_dpm");

    (void)udp_dpm_cap_init(g_udp_dpm_global, "udp_dpm", g_udp_dpm_zlog_category);

    dpm_base_data_init();

    if (udp_dpm_libddm_init() != 0) {
        DPM_ERR_FN("ce_dpm_dlib_init", "libddm_init failed.");
        return DPM_ERR_FAIL;
    }

    if (inited == 0) (void)dpm_conn_db();

    udp_dpm_mom_init();

    int rv = dpm_at_init();
    if (rv != 0) {
        DPM_ERR_FN("ce_dpm_dlib_init", "at init failed! rv is %d", rv);
        return rv;
    }
    return DPM_OK;
}

extern "C" int ce_dpm_dlib_init(ce_dpm_dlib_arg *arg) {
    if (arg == nullptr) return DPM_ERR_FAIL;
    // Nothing may unwind into the host.
    try {
        return udp_dpm_init(arg);
    } catch (...) {
        return DPM_ERR_FAIL;
    }
}
