// First link-able version of the stand-in: every entry point with a trivial body.
#include <cstdarg>
#include <cstdio>

#include "libddm.h"
#include "libxn_cap.h"
#include "ndm.h"
#include "platform_ctl.h"
#include "ssat.h"
#include "xn_mom.h"
#include "xn_zlog.h"

namespace {
int g_handle_storage;
xn_mom_thread_global_t g_tg{nullptr, &g_handle_storage};
std::vector<platform::ModuleWrite> g_writes;
}  // namespace

extern "C" {
int xn_mom_client_connect_sync(void *, int) {
    return 0;
}
int xn_mom_client_connect(void *, int, xn_mom_conn_cb_t) {
    return 0;
}
int xn_mom_client_set_disconnect_cb(void *, int, xn_mom_disconn_cb_t) {
    return 0;
}
int xn_mom_client_set_reconnect_cb(void *, int, xn_mom_reconn_cb_t) {
    return 0;
}
int xn_mom_subscribe(void *, int, const ProtobufCMessage *, int, xn_mom_event_cb_t, void *) {
    return 0;
}
int xn_mom_scan(void *, int, const ProtobufCMessage *, int, xn_mom_event_cb_t, void *) {
    return 0;
}
int xn_mom_set(void *, int, const ProtobufCMessage *, int, int) {
    return 0;
}
int xn_mom_hmset(void *, int, const ProtobufCMessage *, int, int) {
    return 0;
}
int xn_mom_del(void *, int, const ProtobufCMessage *, int, int) {
    return 0;
}
int xn_mom_exists_sync(void *, int, const ProtobufCMessage *) {
    return -1;
}
int xn_mom_dsbegin_sync(void *, int, const ProtobufCMessage *, int, int, int) {
    return 0;
}
int xn_mom_dsend(void *, int, const ProtobufCMessage *, int, int, int) {
    return 0;
}
xn_mom_ab_t *xn_mom_ab_init(int, const char *, const uint32_t *) {
    static xn_mom_ab_t ab;
    return &ab;
}
int xn_mom_reg_ds(xn_mom_ab_t *, xn_mom_ds_reg_t *, int, int, int) {
    return 1;
}
int xn_mom_reg_key_event(xn_mom_ab_t *, xn_mom_ds_reg_t *, int, xn_mom_key_event_cb_t, void *) {
    return 0;
}
xn_mom_thread_global_t *xn_mom_get_thread_local_global(void) {
    return &g_tg;
}
void *xn_thread_add_timer_timeval(void *, xn_thread_func_t, void *, struct timeval) {
    return &g_handle_storage;
}
void xn_thread_cancel(void *) {}

void *xn_zlog_init(const char *) {
    return &g_handle_storage;
}
void xndf_zlog(void *, const char *, size_t, const char *, size_t, long, int, const char *, ...) {}
int at_vsnprintf(char *buf, size_t size, const char *format, va_list ap) {
    return vsnprintf(buf, size, format, ap);
}
int at_snprintf(char *buf, size_t size, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(buf, size, format, ap);
    va_end(ap);
    return n;
}

int libddm_notify_reg(int, libddm_notify_cb_t, void *) {
    return 0;
}
int libddm_init(void *, const char *) {
    return 0;
}
int libddm_get_chipid_by_dev_slot_lport(uint32_t *, int, int, int, int) {
    return -1;
}
int libddm_get_phyid_by_dev_slot_lport(int, int, int, uint32_t *) {
    return -1;
}
int libxn_cap_init(void *, const char *, void *) {
    return 0;
}
int libxn_cap_get_capacity_int32(void *, const char *, int32_t *value) {
    *value = 0;
    return 0;
}
int ssat_lib_init(void *, const char *) {
    return 0;
}
int ssat_reg_mod_cmd(const char *, const char *, int, const char *, ssat_cmd_fn) {
    return 0;
}
int ndm_card_is_online(int, int, int) {
    return 1;
}
}

namespace platform {
void reset() {}
void *host_handle() {
    return &g_handle_storage;
}
void drop_instance() {}
bool run_one() {
    return false;
}
size_t run_until_idle() {
    return 0;
}
size_t pending() {
    return 0;
}
int db_set(int, const std::string &, const std::string &) {
    return 0;
}
int db_hmset(int, const std::string &, const std::string &) {
    return 0;
}
int db_del(int, const std::string &, const std::string &) {
    return 0;
}
std::vector<StoredRecord> db_records(int, const std::string &) {
    return {};
}
std::optional<StoredRecord> db_get(int, const std::string &, const std::string &) {
    return std::nullopt;
}
bool known_type(const std::string &) {
    return false;
}
bool type_has_index(const std::string &) {
    return false;
}
void db_disconnect(int) {}
void db_reconnect(int, int) {}
bool db_connected(int) {
    return true;
}
int db_open_file(const std::string &) {
    return 0;
}
const std::vector<ModuleWrite> &module_writes() {
    return g_writes;
}
void clear_module_writes() {
    g_writes.clear();
}
int agent_set(const std::string &, const std::string &) {
    return 0;
}
int agent_del(const std::string &, const std::string &) {
    return 0;
}
void card_add(uint32_t) {}
void card_del(uint32_t) {}
void set_chipid(int, int, int, std::optional<uint32_t>) {}
void set_phyid(int, int, int, std::optional<uint32_t>) {}
void set_capacity(const std::string &, std::optional<int32_t>) {}
void set_card_online(int, int, int, bool) {}
void advance_us(uint64_t) {}
uint64_t now_us() {
    return 0;
}
void fail(const std::string &, int, int, int) {}
void clear_faults() {}
std::vector<LogLine> take_log() {
    return {};
}
void set_log_fd(int) {}
std::vector<Command> commands() {
    return {};
}
bool run_command(const std::string &, const std::vector<int> &, std::string *, int *) {
    return false;
}
void set_ssat_init_result(int) {}
}  // namespace platform
