// Main multicast selection (work in progress).
#include "udp_dpm.h"

int dpm_cal_mmc_by_apid(int) {
    return DPM_ERR_FAIL;
}
void dpm_calc_mmc_by_vsldown(dpm_vsl_info *) {}
int dpm_mmc_back_isexist_mom(int) {
    return -1;
}
int dpm_del_mmc_in_db(int) {
    return 0;
}
int dpm_del_mmc_back_in_db(int) {
    return 0;
}
int dpm_mmc_back_cb(void *, xn_mom_msg_t *) {
    return 0;
}
