// Configuration application (work in progress).
#include "udp_dpm.h"

int dpm_apply_kel_cfg(void) {
    return 0;
}
