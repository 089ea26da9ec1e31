// VSL chip state (first version: entry points only).
#include "udp_dpm.h"

int dpm_vsl_chipst_cb(void *, xn_mom_msg_t *) {
    return 0;
}
void dpm_del_vsl_chipst(uint32_t) {}
