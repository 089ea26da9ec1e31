// Shared declarations of the data-plane management module: the process-wide
// caches and flags, the logging and timing idiom, and the operations that one
// subsystem calls in another. Each subsystem file keeps its own helpers static
// and declares here only what others call.
//
// All state is process-wide and touched only from platform callbacks, which are
// delivered one at a time; nothing here is locked.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <type_traits>

#include "ce_dpm_dlib.h"
#include "dpm_bitmap.h"
#include "dpm_list.h"
#include "libddm.h"
#include "p_dev.pb-c.h"
#include "s_intf.pb-c.h"
#include "u_cluster.pb-c.h"
#include "xn_mom.h"
#include "xn_zlog.h"

// ============================================================================
// Status codes and small constants
// ============================================================================

inline constexpr int DPM_OK = 0;
inline constexpr int DPM_ERR_EVENT = -4;    // database event missing or in error
inline constexpr int DPM_ERR_NOMODID = -7;  // module id not cached
inline constexpr int DPM_ERR_FAIL = -11;    // refused or failed step

inline constexpr int DPM_APID_MIN = 1;
inline constexpr int DPM_APID_MAX = 2;
inline constexpr int DPM_APID_SLOTS = 3;  // per-apid tables, slot 0 unused

inline constexpr uint32_t DPM_DTM_HISTORY_MAX = 10;

inline constexpr uint32_t DPM_NODE_UNKNOWN = 0;
inline constexpr uint32_t DPM_NODE_BOX = 1;
inline constexpr uint32_t DPM_NODE_MB = 2;   // main board: placed without load
inline constexpr uint32_t DPM_NODE_SFC = 5;  // fabric card: never placed

inline constexpr uint32_t DPM_ROLE_MASTER = 1;

inline bool dpm_apid_valid(int64_t apid) {
    return apid >= DPM_APID_MIN && apid <= DPM_APID_MAX;
}
inline bool dpm_modid_valid(int64_t modid) {
    return modid >= 0 && modid < DPM_MODID_MAX;
}
inline bool dpm_devid_valid(int64_t devid) {
    return devid >= 0 && devid < DPM_DEVID_MAX;
}

// ============================================================================
// Logging (udp_dpm_log.cpp)
// ============================================================================

extern uint32_t g_udp_dpm_zlog_level;
extern void *g_udp_dpm_zlog_category;
extern void *s_udp_dpm_zlog_thread;

// True when a message of this level number passes the module level.
bool udp_dpm_log_on(int level);
// Format into a zeroed 1024-byte buffer and hand it to the platform logger.
void udp_dpm_log(int level, const char *file, const char *func, long line, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

// Level 0 lets only fatal messages through. That much of the gate is tested
// in place, so that a quiet module pays no call for each message it drops.
inline bool udp_dpm_log_quiet(void) {
    return g_udp_dpm_zlog_level == 0;
}

#define DPM_LOG_AT(level, func, ...)                                                     \
    do {                                                                                 \
        if (((level) >= XN_ZLOG_FATAL || !udp_dpm_log_quiet()) && udp_dpm_log_on(level)) \
            udp_dpm_log(level, __FILE__, func, __LINE__, __VA_ARGS__);                   \
    } while (0)

#define DPM_INFO(...) DPM_LOG_AT(XN_ZLOG_INFO, __func__, __VA_ARGS__)
#define DPM_NOTICE(...) DPM_LOG_AT(XN_ZLOG_NOTICE, __func__, __VA_ARGS__)
#define DPM_WARN(...) DPM_LOG_AT(XN_ZLOG_WARN, __func__, __VA_ARGS__)
#define DPM_ERR(...) DPM_LOG_AT(XN_ZLOG_ERROR, __func__, __VA_ARGS__)
#define DPM_FATAL(...) DPM_LOG_AT(XN_ZLOG_FATAL, __func__, __VA_ARGS__)
// The same, logged under another function's name.
#define DPM_INFO_FN(fn, ...) DPM_LOG_AT(XN_ZLOG_INFO, fn, __VA_ARGS__)
#define DPM_ERR_FN(fn, ...) DPM_LOG_AT(XN_ZLOG_ERROR, fn, __VA_ARGS__)
#define DPM_FATAL_FN(fn, ...) DPM_LOG_AT(XN_ZLOG_FATAL, fn, __VA_ARGS__)

// Debug commands of the log level.
int udp_dpm_set_log_level(int level);
int udp_dpm_show_log_level(void);
int udp_dpm_record_log(int minutes, int level);
int udp_dpm_reset_zlog_tmp_cb(void *thread);
void udp_dpm_reset_zlog_thread(void);

// Where a fixed file of the module lives: under $UDP_DPM_ROOT when set.
// Returns a pointer to a static buffer valid until the next call.
const char *udp_dpm_path(const char *real_path);

// ============================================================================
// Event timing ring (udp_dpm_log.cpp)
// ============================================================================

enum udp_dpm_time_event : int32_t {
    DPM_T_LIBDDM_INIT = 0,
    DPM_T_MOD_SLOT_ADD,
    DPM_T_MOD_SLOT_DEL,
    DPM_T_LIBDDM_GET,
    DPM_T_LOCAL_CONN,
    DPM_T_ASIC_CONN,
    DPM_T_UDP_CONN,
    DPM_T_TOPO_CONN,
    DPM_T_LOCAL_MASTER,
    DPM_T_GROLE,
    DPM_T_DEVST_ADD,
    DPM_T_DEVST_ME_ADD,
    DPM_T_DEVST_DEL,
    DPM_T_DEVST_ME_DEL,
    DPM_T_MODID_ADD,
    DPM_T_MODID_DEL,
    DPM_T_DTM,
    DPM_T_VSL,
    DPM_T_PROC_VSL,
    DPM_T_CHIPST_ADD,
    DPM_T_CHIPST_DEL,
    DPM_T_CHIPST_ME_DEL,
    DPM_T_APPLY_CFG,
    DPM_T_AP_CFG,
    DPM_T_UC_CFG,
    DPM_T_CFG_END,
    DPM_T_MMC_CFG,
    DPM_T_MMC_BACK_ADD,
    DPM_T_MMC_BACK_DEL,
    DPM_T_MMCB_ME_DEL,
    DPM_T_MMCSCANOVER,
    DPM_T_UCSCANOVER,
    DPM_T_IGRSCANOVER,
    DPM_T_DELEXPIRE,
    DPM_T_SETEXPIRE,
    DPM_T_DS_END,
    DPM_T_ONLINE,
    DPM_T_NOT_ONLINE,
    DPM_T_COUNT
};

struct dpm_time_entry {
    int64_t tv_sec;
    int64_t tv_usec;
    uint32_t cnt;
    int32_t event;
    int32_t data;
};

struct udp_dpm_time_name {
    int32_t event;
    const char *name;
};

struct udp_dpm_dbg_time_t {
    uint32_t count;
    uint32_t per_cnt;
    uint32_t size;
    uint32_t cur_idx;
    dpm_time_entry *entries;
    const udp_dpm_time_name *names;
};

extern udp_dpm_dbg_time_t udp_dpm_dbg_time;
extern const udp_dpm_time_name udp_dpm_dbg_time_str[DPM_T_COUNT];

void udp_dpm_time_record(int32_t event, int32_t data);
int udp_dpm_dbg_dump_time(void);
int udp_dpm_dbg_dump_time_file(void);

// ============================================================================
// Process-wide scalars (udp_dpm_main.cpp)
// ============================================================================

extern void *g_udp_dpm_global;  // host handle, client of every write
extern uint32_t g_mydevid;
extern uint32_t g_my_node_type;
extern uint32_t g_my_grole;
extern int32_t g_kel_ring_cut_type;
extern uint8_t inited;

extern "C" __attribute__((visibility("default"))) int ce_dpm_dlib_init(ce_dpm_dlib_arg *arg);
int udp_dpm_get_dev_kel_ring_cut_type(void);
int udp_dpm_cap_init(void *handle, const char *owner, void *category);

// ============================================================================
// Caches (dpm_cache.cpp)
// ============================================================================

// Device entry of dpm_modid_dev_cache.
struct dpm_dev_head {
    dpm_list link;
    dpm_list modid_list;
    uint32_t devid;
    uint32_t modid_cnt;
    uint32_t fwd_state;
    uint8_t isconfig;
    dpm_modid_bmp modid_bmp;
    uint8_t is_dtm_used;
};

struct dpm_vsl_info;

// Module-id entry, in its device entry's modid_list.
struct dpm_modid_info {
    dpm_list link;
    uint32_t modid;
    int32_t devid;  // devid..unit copied as one block from the record's index
    int32_t slot;
    int32_t sslot;
    int32_t unit;
    uint8_t is_used;
    dpm_vsl_info *uc_vsl;
    int32_t type;
    int32_t node;
    uint32_t idnum_per_unit;
};

struct dpm_modid_dev_cache_t {
    dpm_list dev_list;
    uint32_t dev_cnt;
    uint32_t mod_cnt;
    uint32_t dev_bmp;
    dpm_modid_bmp mod_bmp;
    uint8_t ds_end;
};

// The four key values of a local VSL port.
struct dpm_vsl_port {
    int32_t devid;
    int32_t slot;
    int32_t sslot;
    int32_t lport;
};

// VSL port entry; a fixed-size record copied whole between the two caches.
struct dpm_vsl_info {
    dpm_list link;
    int32_t devid;
    int32_t slot;
    int32_t sslot;
    int32_t lport;
    int32_t status;
    int32_t apid;
    uint32_t chipid;
    uint32_t gphyid;
    int32_t peer_dev;
    int32_t peer_slot;
    int32_t peer_sslot;
    int32_t peer_lport;
    int32_t peer_ap;
    uint32_t peer_chip;
    uint32_t peer_gphy;
    uint32_t modid_cnt;
    dpm_modid_bmp modid_bmp;
};

struct dpm_vslap_entry {
    dpm_list vsl_list;
    uint32_t vsl_cnt;
    dpm_vsl_info *max_uc_modid_vsl;
    dpm_vsl_info *min_uc_modid_vsl;
    uint8_t chang_flag;
};

struct dpm_vslap_cache_t {
    dpm_vslap_entry ap[DPM_APID_SLOTS];
    uint8_t ds_end;  // used in dpm_vslap_cache only
};

// Compact route map. The header, the fib entries and the mfib entries are one
// zeroed allocation.
struct dpm_fib_entry {
    uint8_t owner;
    uint8_t dst;
    uint8_t oif;
};
struct dpm_mfib_entry {
    uint8_t owner;
    uint8_t src;
    uint8_t iif;
    uint8_t oif_num;
    uint8_t oif_id[2];
};
static_assert(sizeof(dpm_fib_entry) == 3 && sizeof(dpm_mfib_entry) == 6);

struct dpm_dtm_info {
    dpm_list link;
    uint8_t local_id;
    uint8_t shape;
    uint32_t fib_num;
    dpm_fib_entry *fibs;
    uint32_t mfib_num;
    dpm_mfib_entry *mfibs;
    uint8_t valid;
};

struct dpm_dtm_cache_t {
    dpm_list history;
    uint32_t dtm_info_cnt;
    dpm_dtm_info *newest;
    dpm_dtm_info *hwcfg;
    dpm_dtm_info *oldest;
    uint8_t ds_end;
};

// Unicast balance entry; fields 2..6 are exactly a u_cluster.kel_uc_balance.
struct dpm_uc_info {
    dpm_list link;
    uint32_t dstmodid;
    uint32_t localmodid;
    uint32_t peer_modid;
    uint32_t apid;
    uint32_t lport;
    uint8_t expire;
    uint8_t apply;
};

// Source-module filter of one apid.
struct dpm_srcmod_filter {
    uint32_t apid;
    uint32_t dev_bmp;
    dpm_modid_bmp modid_bmp;
};

// Main multicast entry of one apid.
struct dpm_mmc_info {
    uint8_t valid;
    uint32_t lport;
    uint8_t wait_add;
    uint8_t wait_del;
    uint32_t modid;
    int32_t devid;
    int32_t slotid;
    int32_t sslotid;
    dpm_vlan_bmp vlan_bmp;
    dpm_vsl_info *vsl;
};

struct dpm_vsl_chip {
    dpm_list link;
    uint32_t devid;
    uint32_t slot;
    uint32_t sslot;
    uint32_t unit;
    uint32_t modid;
};

struct dpm_mod_event {
    dpm_list link;
    uint32_t gslot;
    uint32_t rsv;
};

extern dpm_modid_dev_cache_t dpm_modid_dev_cache;
extern dpm_vslap_cache_t dpm_vslap_cache;
extern dpm_vslap_cache_t dpm_vslap_unused_cache;
extern dpm_dtm_cache_t dpm_dtm_cache;
extern dpm_list dpm_uc_head;
// Bumped whenever the module links or unlinks a unicast entry outside the
// read-back (dpm_topo_watch.cpp keeps an index over the list while it holds).
extern uint32_t dpm_uc_list_gen;
extern dpm_srcmod_filter dpm_igr_permit[DPM_APID_SLOTS];
extern dpm_srcmod_filter dpm_egr_block[DPM_APID_SLOTS];
extern dpm_srcmod_filter dpm_igr_permit_applied[DPM_APID_SLOTS];
extern dpm_srcmod_filter dpm_egr_block_applied[DPM_APID_SLOTS];
extern dpm_mmc_info dpm_mmc[DPM_APID_SLOTS];
extern dpm_mmc_info dpm_mmc_back[DPM_APID_SLOTS];
extern dpm_list dpm_vsl_chip_head;
extern dpm_list dpm_gslot_head;
extern uint8_t rdy_vsl_chip_ds_end;
extern uint8_t g_uc_ds_over;
extern uint8_t g_igr_ds_over;
extern uint8_t g_mmc_ds_over;
extern uint8_t is_exprire_mom_flag;

// Forwarding-state words.
struct dpm_fwd_state_name {
    uint32_t state;
    char name[20];
};
inline constexpr uint32_t DPM_FWD_BLOCK = 0;
inline constexpr uint32_t DPM_FWD_PART_FORWARD = 1;
inline constexpr uint32_t DPM_FWD_FORWARD = 2;
inline constexpr uint32_t DPM_FWD_TIMEOUT = 3;
extern const dpm_fwd_state_name dpm_fwd_state_tbl[4];

// Allocation of zero-filled cache elements (elements are plain records).
template <class T>
inline T *dpm_zalloc() {
    static_assert(std::is_trivially_copyable_v<T>);
    return static_cast<T *>(calloc(1, sizeof(T)));  // NOLINT(cppcoreguidelines-no-malloc)
}

// Empty every list, zero every table (start-up, steps 6.2 to 6.5 without the
// own device entry, which the caller creates).
void dpm_vslap_cache_init(dpm_vslap_cache_t *cache);
void dpm_cache_init(void);

// The four data-sync-end flags are set.
bool dpm_is_ds_end(void);
// ... and at least one route map was received.
bool dpm_is_ds_ready(void);

// gslot: slot bits 0-4, devid-1 bits 5-9, sslot bits 10-14.
inline uint32_t dpm_gslot_slot(uint32_t gslot) {
    return gslot & 0x1FU;
}
inline uint32_t dpm_gslot_devid(uint32_t gslot) {
    return ((gslot >> 5) & 0x1FU) + 1;
}
inline uint32_t dpm_gslot_sslot(uint32_t gslot) {
    return (gslot >> 10) & 0x1FU;
}
inline uint32_t dpm_gslot_make(uint32_t devid, uint32_t slot, uint32_t sslot) {
    return (slot & 0x1FU) | (((devid - 1) & 0x1FU) << 5) | ((sslot & 0x1FU) << 10);
}

// Lookups in dpm_modid_dev_cache, first match in list order.
dpm_dev_head *dpm_find_dev_head(uint32_t devid);
dpm_modid_info *dpm_find_modid_info(uint32_t modid);

// Module id -> its entry. A module id has at most one entry in the whole cache
// (an add for another device moves it), so this index answers exactly what the
// first-match walk answers. Kept by the module-id add and delete paths; cleared
// by dpm_cache_init.
extern dpm_modid_info *dpm_modid_index[DPM_MODID_MAX];

// ============================================================================
// Sessions and subscriptions (udp_dpm_session.cpp)
// ============================================================================

int dpm_conn_db(void);
// The first checks of every database handler: -4 with "msg is NULL!" or
// "msg error is %d!" (logged under the handler's name) for an event that cannot
// be used, 0 otherwise.
int dpm_event_check(const char *func, const xn_mom_msg_t *msg);
int dpm_asic_db_conn_cb(void *client);
int dpm_topo_db_conn_cb(void *client);
int dpm_udp_db_conn_cb(void *client);
int dpm_local_db_conn_cb(void *client);
int dpm_asic_db_disconn_cb(void);
int dpm_topo_db_disconn_cb(void);
int dpm_udp_db_disconn_cb(void);
int dpm_asic_db_reconn_cb(void *client, int db, int type);
int dpm_topo_db_reconn_cb(void *client, int db, int type);
int dpm_udp_db_reconn_cb(void *client, int db, int type);
int dpm_local_db_reconn_cb(void *client, int db, int type);
int dpm_conn_local_db_scanover_out(void);
int udp_dpm_dbg_db_reconn(int db);
int dpm_subscribe_mmc_back(void *client);

// ============================================================================
// Topology map intake (dpm_dtm.cpp)
// ============================================================================

int dpm_dtm_cb(void *client, xn_mom_msg_t *msg);
int dpm_del_state_by_dtm(void);
// The application makes `info` (normally `newest`) the applied map. The history
// owns map lifetimes, so a map evicted while it is the applied one stays
// readable until hwcfg moves on.
void dpm_set_hwcfg(dpm_dtm_info *info);

// ============================================================================
// Module-id allocation (dpm_modid.cpp)
// ============================================================================

int dpm_mod_alloc_cb(void *client, xn_mom_msg_t *msg);
dpm_dev_head *dpm_alloc_dev_head(uint32_t devid);
int dpm_set_modid_info_unused(uint32_t modid);

// ============================================================================
// Member forwarding state (dpm_fwd_state.cpp)
// ============================================================================

int dpm_dev_fwd_state_cb(void *client, xn_mom_msg_t *msg);
void dpm_update_my_fwd_state(int is_ds);
uint32_t dpm_get_my_fwd_state(void);
int dpm_del_dev_fwd_state(uint32_t devid);

// ============================================================================
// VSL chip state (dpm_vsl_chip.cpp)
// ============================================================================

int dpm_vsl_chipst_cb(void *client, xn_mom_msg_t *msg);
void dpm_del_vsl_chipst(uint32_t devid);

// ============================================================================
// Global role and card events (dpm_grole.cpp)
// ============================================================================

int dpm_add_grole(xn_mom_ab_t *agent, xn_mom_ds_reg_t *reg, const ProtobufCMessage *record,
                  void *user);
int dpm_del_grole(xn_mom_ab_t *agent, xn_mom_ds_reg_t *reg, const ProtobufCMessage *record,
                  void *user);
int dpm_add_card_info(xn_mom_ab_t *agent, xn_mom_ds_reg_t *reg, const ProtobufCMessage *record,
                      void *user);
int dpm_del_card_info(xn_mom_ab_t *agent, xn_mom_ds_reg_t *reg, const ProtobufCMessage *record,
                      void *user);

// ============================================================================
// VSL link events and readiness (dpm_vsl_link.cpp)
// ============================================================================

int dpm_local_vsl_cb(void *client, xn_mom_msg_t *msg);
int udp_dpm_libddm_notify_cb(void *context, int notify_type, int op_type, void *data);
dpm_vsl_info *dpm_get_vsl_info(dpm_vslap_cache_t *cache, const dpm_vsl_port *port, int apid);
dpm_vsl_info *dpm_add_vsl_info(dpm_vslap_cache_t *cache, const dpm_vsl_info *record, int apid);
dpm_vsl_info *dpm_del_vsl_info(dpm_vslap_cache_t *cache, const dpm_vsl_port *port, int apid);
dpm_mod_event *dpm_get_mod_event(uint32_t gslot);
void dpm_one_end_is_ready(uint32_t chipid, bool *ready);
void dpm_both_end_is_ready(const dpm_vsl_info *entry, bool *ready);
int dpm_proc_lvsl_up_by_mod_event(dpm_vsl_info *entry);
int dpm_update_vsl_chipid(dpm_vsl_info *entry, bool reup);
void dpm_proc_rdy_chip_in_unused(bool store_only);
int dpm_get_vslmodid_by_vslinfo(uint32_t chipid);

// ============================================================================
// VSL up/down and AP membership (dpm_vsl_updown.cpp)
// ============================================================================

int dpm_set_ap_member_chg(int apid);
int dpm_proc_lvsl_up_both_ready(dpm_vsl_info *entry, int apid);
int dpm_proc_lvsl_down(const dpm_vsl_port *port, int apid);
void dpm_enable_first_vsl_by_apid(int apid);
void dpm_enable_first_vsl(void);

// ============================================================================
// Main multicast (dpm_mmc.cpp)
// ============================================================================

int dpm_cal_mmc_by_apid(int apid);
void dpm_calc_mmc_by_vsldown(dpm_vsl_info *entry);
int dpm_mmc_back_isexist_mom(int apid);
int dpm_del_mmc_in_db(int apid);
int dpm_del_mmc_back_in_db(int apid);
int dpm_mmc_back_cb(void *client, xn_mom_msg_t *msg);

// ============================================================================
// Data-sync end and restore (dpm_ds_end.cpp)
// ============================================================================

void dpm_proc_ds_end(void *client);

// ============================================================================
// Calculation (dpm_calc.cpp)
// ============================================================================

int dpm_calc_kel_cfg_by_dtm(void);

// ============================================================================
// Unicast balance (dpm_balance.cpp)
// ============================================================================

int dpm_get_uc_oif_by_modid(uint32_t modid);
// The route lookup of that module id's device; `modid` only names it in the
// messages.
int dpm_get_uc_oif_by_devid(uint32_t modid, uint32_t devid);
// The lookups of a walk over many module ids under one map, by device.
struct dpm_uc_route_memo {
    bool known[DPM_DEVID_MAX] = {};
    int oif[DPM_DEVID_MAX] = {};
};
// dpm_get_uc_oif_by_modid for module id `modid` whose entry `e` is at hand.
// Every message of the lookup is at error level and its answer depends on the
// device alone: while error messages are off, a device looked up before in
// the walk gives its answer again without the lookup.
inline int dpm_get_uc_oif_by_entry(uint32_t modid, const dpm_modid_info *e,
                                   dpm_uc_route_memo *memo) {
    const auto devid = static_cast<uint32_t>(e->devid);
    if (devid >= DPM_DEVID_MAX) return dpm_get_uc_oif_by_devid(modid, devid);
    if (memo->known[devid] && udp_dpm_log_quiet()) return memo->oif[devid];
    memo->oif[devid] = dpm_get_uc_oif_by_devid(modid, devid);
    memo->known[devid] = true;
    return memo->oif[devid];
}
int dpm_uc_balance_for_modid_add(dpm_modid_info *entry);
int dpm_uc_balance_for_modid_del(dpm_modid_info *entry);
void dpm_restore_vsl_lb_ptr(void);
void dpm_restore_vsl_lb(void);

// ============================================================================
// Application and write-back (dpm_apply.cpp)
// ============================================================================

int dpm_apply_kel_cfg(void);

// ============================================================================
// TOPO_DB watchers and expiry (dpm_topo_watch.cpp)
// ============================================================================

int dpm_uc_balance_cb(void *client, xn_mom_msg_t *msg);
int dpm_igr_cb(void *client, xn_mom_msg_t *msg);
int dpm_mmc_cb(void *client, xn_mom_msg_t *msg);
void dpm_kel_set_expire(void *client);

// ============================================================================
// Debug commands (udp_dpm_debug.cpp)
// ============================================================================

// Register the 24 commands under "udp_dpm" (always, whatever rv is).
int dpm_at_init(void);
