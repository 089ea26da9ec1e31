// Logging and event timing of the module.
//
// Every subsystem logs through DPM_INFO/DPM_ERR/... (udp_dpm.h): the level gate
// is tested first, so a message below the module level costs one comparison.
// The module level can be raised for a limited time ("record_log"); a one-shot
// timer on the calling thread's event loop brings it back to 1.
//
// The timing ring samples the arrival of the main events; the debug commands
// "dump_time" and "dump_time_file" print it, oldest first.
#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "udp_dpm.h"

uint32_t g_udp_dpm_zlog_level = 1;
void *g_udp_dpm_zlog_category = nullptr;
void *s_udp_dpm_zlog_thread = nullptr;

// Level 1 after a temporary recording, whatever it was before.
static constexpr uint32_t DPM_LOG_LEVEL_DEFAULT = 1;
static constexpr int DPM_LOG_MINUTES_MAX = 30;
static constexpr size_t DPM_LOG_BUF = 1024;

// ---------------------------------------------------------------------------
// Leveled log
// ---------------------------------------------------------------------------

bool udp_dpm_log_on(int level) {
    // The module level is unsigned: a level file holding -1 opens every gate.
    const uint32_t cur = g_udp_dpm_zlog_level;
    if (level >= XN_ZLOG_FATAL) return true;
    if (level >= XN_ZLOG_ERROR) return cur > 0;
    if (level >= XN_ZLOG_WARN) return cur > 1;
    if (level >= XN_ZLOG_NOTICE) return cur > 2;
    return cur > 3;
}

void udp_dpm_log(int level, const char *file, const char *func, long line, const char *fmt, ...) {
    char buf[DPM_LOG_BUF];
    memset(buf, 0, sizeof buf);
    va_list ap;
    va_start(ap, fmt);
    at_vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    void *category = g_udp_dpm_zlog_category;
    if (category == nullptr) return;
    xndf_zlog(category, file, strlen(file), func, strlen(func), line, level, "%s", buf);
}

const char *udp_dpm_path(const char *real_path) {
    static char path[4096];
    const char *root = getenv("UDP_DPM_ROOT");
    if (root == nullptr || root[0] == '\0') {
        snprintf(path, sizeof path, "%s", real_path);
    } else {
        snprintf(path, sizeof path, "%s%s", root, real_path);
    }
    return path;
}

// ---------------------------------------------------------------------------
// Log level commands and the temporary level
// ---------------------------------------------------------------------------

int udp_dpm_set_log_level(int level) {
    g_udp_dpm_zlog_level = static_cast<uint32_t>(level);
    return 0;
}

int udp_dpm_show_log_level(void) {
    printf("log level: %d", static_cast<int>(g_udp_dpm_zlog_level));
    fflush(stdout);
    return 0;
}

void udp_dpm_reset_zlog_thread(void) {
    const int cur = static_cast<int>(g_udp_dpm_zlog_level);
    printf("stop recording log, log level:%d->%d. \n", cur,
           static_cast<int>(DPM_LOG_LEVEL_DEFAULT));
    fflush(stdout);
    if (g_udp_dpm_zlog_level != 0) {
        DPM_ERR("stop recording log, xn_thread%p, log level:%d->%d", s_udp_dpm_zlog_thread, cur,
                static_cast<int>(DPM_LOG_LEVEL_DEFAULT));
    }
    s_udp_dpm_zlog_thread = nullptr;
    g_udp_dpm_zlog_level = DPM_LOG_LEVEL_DEFAULT;
}

int udp_dpm_reset_zlog_tmp_cb(void * /*thread*/) {
    // The timer has fired and is gone: only the level needs to be put back.
    udp_dpm_reset_zlog_thread();
    return 0;
}

int udp_dpm_record_log(int minutes, int level) {
    if (s_udp_dpm_zlog_thread != nullptr) {
        xn_thread_cancel(s_udp_dpm_zlog_thread);
        udp_dpm_reset_zlog_thread();
    }
    // Such values only stop a running recording.
    if (minutes < 1 || level < 0) return 0;

    xn_mom_thread_global_t *tg = xn_mom_get_thread_local_global();
    if (tg == nullptr || tg->event_loop == nullptr) {
        printf("failed to get thread global. ");
        fflush(stdout);
        return 0;
    }
    if (minutes > DPM_LOG_MINUTES_MAX) minutes = DPM_LOG_MINUTES_MAX;

    struct timeval delay {};
    delay.tv_sec = static_cast<time_t>(minutes) * 60;
    delay.tv_usec = 0;
    void *timer =
        xn_thread_add_timer_timeval(tg->event_loop, udp_dpm_reset_zlog_tmp_cb, nullptr, delay);
    if (timer == nullptr) {
        printf("start recording log failed. ");
        fflush(stdout);
        return 0;
    }
    s_udp_dpm_zlog_thread = timer;
    g_udp_dpm_zlog_level = static_cast<uint32_t>(level);
    printf("start recording log for %d minutes, level:%d. \n", minutes, level);
    fflush(stdout);
    DPM_INFO("start recording log for %d minutes, level:%d.", minutes, level);
    return 0;
}

// ---------------------------------------------------------------------------
// Event timing ring
// ---------------------------------------------------------------------------

udp_dpm_dbg_time_t udp_dpm_dbg_time = {};

const udp_dpm_time_name udp_dpm_dbg_time_str[DPM_T_COUNT] = {
    {DPM_T_LIBDDM_INIT, "libddm_init"},
    {DPM_T_MOD_SLOT_ADD, "mod_slot_add"},
    {DPM_T_MOD_SLOT_DEL, "mod_slot_del"},
    {DPM_T_LIBDDM_GET, "libddm_get"},
    {DPM_T_LOCAL_CONN, "local_conn"},
    {DPM_T_ASIC_CONN, "asic_conn"},
    {DPM_T_UDP_CONN, "udp_conn"},
    {DPM_T_TOPO_CONN, "topo_conn"},
    {DPM_T_LOCAL_MASTER, "local_master"},
    {DPM_T_GROLE, "grole"},
    {DPM_T_DEVST_ADD, "devst_add"},
    {DPM_T_DEVST_ME_ADD, "devst_me_add"},
    {DPM_T_DEVST_DEL, "devst_del"},
    {DPM_T_DEVST_ME_DEL, "devst_me_del"},
    {DPM_T_MODID_ADD, "modid_add"},
    {DPM_T_MODID_DEL, "modid_del"},
    {DPM_T_DTM, "dtm"},
    {DPM_T_VSL, "vsl"},
    {DPM_T_PROC_VSL, "proc_vsl"},
    {DPM_T_CHIPST_ADD, "chipst_add"},
    {DPM_T_CHIPST_DEL, "chipst_del"},
    {DPM_T_CHIPST_ME_DEL, "chipst_me_del"},
    {DPM_T_APPLY_CFG, "apply_cfg"},
    {DPM_T_AP_CFG, "ap_cfg"},
    {DPM_T_UC_CFG, "uc_cfg"},
    {DPM_T_CFG_END, "cfg_end"},
    {DPM_T_MMC_CFG, "mmc_cfg"},
    {DPM_T_MMC_BACK_ADD, "mmc_back_add"},
    {DPM_T_MMC_BACK_DEL, "mmc_back_del"},
    {DPM_T_MMCB_ME_DEL, "mmcb_me_del"},
    {DPM_T_MMCSCANOVER, "mmcscanover"},
    {DPM_T_UCSCANOVER, "ucscanover"},
    {DPM_T_IGRSCANOVER, "igrscanover"},
    {DPM_T_DELEXPIRE, "delexpire"},
    {DPM_T_SETEXPIRE, "setexpire"},
    {DPM_T_DS_END, "ds_end"},
    {DPM_T_ONLINE, "online"},
    {DPM_T_NOT_ONLINE, "not_online"},
};

void udp_dpm_time_record(int32_t event, int32_t data) {
    udp_dpm_dbg_time_t &t = udp_dpm_dbg_time;
    if (t.per_cnt == 0 || t.size == 0 || t.entries == nullptr) return;
    ++t.count;
    if (t.count % t.per_cnt != 0) return;
    t.cur_idx = (t.cur_idx + 1) % t.size;
    dpm_time_entry &e = t.entries[t.cur_idx];
    e.cnt = t.count;
    e.event = event;
    e.data = data;
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    e.tv_sec = tv.tv_sec;
    e.tv_usec = tv.tv_usec;
}

static const char *dpm_time_event_name(int32_t event) {
    const udp_dpm_time_name *names = udp_dpm_dbg_time.names;
    for (int i = 0; i < DPM_T_COUNT; ++i) {
        if (names[i].event == event) return names[i].name;
    }
    return "unknown";
}

// False (with the note printed on standard output) when the ring cannot be shown.
static bool dpm_time_ring_usable(void) {
    const udp_dpm_dbg_time_t &t = udp_dpm_dbg_time;
    if (t.size == 0 || t.entries == nullptr) {
        printf("\nnot init");
        return false;
    }
    if (t.names == nullptr) {
        printf("\nno name");
        return false;
    }
    return true;
}

static void dpm_time_ring_print(FILE *out) {
    const udp_dpm_dbg_time_t &t = udp_dpm_dbg_time;
    fprintf(out, "\n%-8s %-15s %-15s %-15s %-10s\n", "cnt", "event", "data", "input(s)", "(us)");
    // Wide arithmetic: count may sit at the top of its range.
    const uint64_t count = t.count;
    const uint64_t first = count >= t.size ? count - t.size + 1 : 1;
    for (uint64_t c = first; c <= count; ++c) {
        const dpm_time_entry &e = t.entries[c % t.size];
        fprintf(out, "%-8d %-15s %-15d %-15ld %-10ld\n", static_cast<int>(e.cnt),
                dpm_time_event_name(e.event), e.data, static_cast<long>(e.tv_sec),
                static_cast<long>(e.tv_usec));
    }
}

int udp_dpm_dbg_dump_time(void) {
    if (dpm_time_ring_usable()) {
        const udp_dpm_dbg_time_t &t = udp_dpm_dbg_time;
        dpm_time_ring_print(stdout);
        printf("count      :%d\n", static_cast<int>(t.count));
        printf("per cnt    :%d\n", static_cast<int>(t.per_cnt));
        printf("size       :%d\n", static_cast<int>(t.size));
        printf("cur_idx    :%d\n", static_cast<int>(t.cur_idx));
    }
    fflush(stdout);
    return 0;
}

int udp_dpm_dbg_dump_time_file(void) {
    FILE *f = fopen(udp_dpm_path("/etc/dpm_dbg_time"), "a+");
    if (f == nullptr) {
        printf("File open fail!");
        fflush(stdout);
        return 0;
    }
    if (dpm_time_ring_usable()) dpm_time_ring_print(f);
    fflush(f);
    fclose(f);
    fflush(stdout);
    return 0;
}
