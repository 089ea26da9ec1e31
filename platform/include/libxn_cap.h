/* Capacity library: per-product limits read by key. */
#ifndef LIBXN_CAP_H
#define LIBXN_CAP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int libxn_cap_init(void *handle, const char *owner, void *category);
int libxn_cap_get_capacity_int32(void *handle, const char *key, int32_t *value);

#ifdef __cplusplus
}
#endif

#endif
