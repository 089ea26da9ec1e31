// Topology map intake (first version: entry points only).
#include "udp_dpm.h"

int dpm_dtm_cb(void *, xn_mom_msg_t *) {
    return 0;
}
int dpm_del_state_by_dtm(void) {
    return 0;
}
void dpm_set_hwcfg(dpm_dtm_info *info) {
    dpm_dtm_cache.hwcfg = info;
}
