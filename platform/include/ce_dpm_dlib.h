/* Argument block the data-plane host passes to a module's entry point. */
#ifndef CE_DPM_DLIB_H
#define CE_DPM_DLIB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ce_dpm_dlib_arg {
    void *handle;       /* host handle */
    uint32_t rsv;       /* not read by the module */
    uint32_t node_type; /* p_dev.dm_node_type_e */
    uint32_t devid;     /* this member's device id */
} ce_dpm_dlib_arg;

typedef int (*ce_dpm_dlib_init_fn)(ce_dpm_dlib_arg *arg);

int ce_dpm_dlib_init(ce_dpm_dlib_arg *arg);

#ifdef __cplusplus
}
#endif

#endif
