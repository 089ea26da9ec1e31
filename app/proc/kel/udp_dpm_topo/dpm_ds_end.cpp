// Data-sync end (work in progress).
#include "udp_dpm.h"

void dpm_proc_ds_end(void *) {}
