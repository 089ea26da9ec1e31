// VSL link events and readiness (first version: entry points only).
#include "udp_dpm.h"

int dpm_local_vsl_cb(void *, xn_mom_msg_t *) {
    return 0;
}
int udp_dpm_libddm_notify_cb(void *, int, int, void *) {
    return 0;
}
dpm_vsl_info *dpm_get_vsl_info(dpm_vslap_cache_t *, const dpm_vsl_port *, int) {
    return nullptr;
}
dpm_vsl_info *dpm_add_vsl_info(dpm_vslap_cache_t *, const dpm_vsl_info *, int) {
    return nullptr;
}
dpm_vsl_info *dpm_del_vsl_info(dpm_vslap_cache_t *, const dpm_vsl_port *, int) {
    return nullptr;
}
dpm_mod_event *dpm_get_mod_event(uint32_t) {
    return nullptr;
}
void dpm_one_end_is_ready(uint32_t, bool *) {}
void dpm_both_end_is_ready(const dpm_vsl_info *, bool *) {}
int dpm_proc_lvsl_up_by_mod_event(dpm_vsl_info *) {
    return 0;
}
int dpm_update_vsl_chipid(dpm_vsl_info *, bool) {
    return 0;
}
void dpm_proc_rdy_chip_in_unused(bool) {}
int dpm_get_vslmodid_by_vslinfo(uint32_t chipid) {
    return static_cast<int>(chipid);
}
