// Unicast balance (work in progress).
#include "udp_dpm.h"

int dpm_get_uc_oif_by_modid(uint32_t) {
    return DPM_ERR_FAIL;
}
int dpm_uc_balance_for_modid_add(dpm_modid_info *) {
    return DPM_ERR_FAIL;
}
int dpm_uc_balance_for_modid_del(dpm_modid_info *) {
    return 0;
}
void dpm_restore_vsl_lb_ptr(void) {}
void dpm_restore_vsl_lb(void) {}
