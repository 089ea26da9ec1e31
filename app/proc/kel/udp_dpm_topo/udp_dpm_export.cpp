// Link anchor of libkel.dpm.dp.so. The module's code comes whole from the
// udp_dpm library; the version script keeps ce_dpm_dlib_init as the only
// exported symbol.
#include "udp_dpm.h"
