// Configuration calculation (work in progress).
#include "udp_dpm.h"

int dpm_calc_kel_cfg_by_dtm(void) {
    return DPM_ERR_FAIL;
}
