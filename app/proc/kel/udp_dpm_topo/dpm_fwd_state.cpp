// Member forwarding state (first version: entry points only).
#include "udp_dpm.h"

int dpm_dev_fwd_state_cb(void *, xn_mom_msg_t *) {
    return 0;
}
void dpm_update_my_fwd_state(int) {}
uint32_t dpm_get_my_fwd_state(void) {
    return 0;
}
int dpm_del_dev_fwd_state(uint32_t) {
    return 0;
}
