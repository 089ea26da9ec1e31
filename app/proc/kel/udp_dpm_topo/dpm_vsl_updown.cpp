// VSL port activation and removal (work in progress).
#include "udp_dpm.h"

int dpm_set_ap_member_chg(int) {
    return 0;
}
int dpm_proc_lvsl_up_both_ready(dpm_vsl_info *, int) {
    return DPM_ERR_FAIL;
}
int dpm_proc_lvsl_down(const dpm_vsl_port *, int) {
    return DPM_ERR_FAIL;
}
void dpm_enable_first_vsl_by_apid(int) {}
void dpm_enable_first_vsl(void) {}
