/* Device-data library: card (module) notifications and port lookups. */
#ifndef LIBDDM_H
#define LIBDDM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { LIBDDM_NOTIFY_MODULE = 8 };
enum { LIBDDM_OP_ADD = 0, LIBDDM_OP_DEL = 1 };

typedef int (*libddm_notify_cb_t)(void *context, int notify_type, int op_type, void *data);

int libddm_notify_reg(int notify_type, libddm_notify_cb_t cb, void *context);
int libddm_init(void *handle, const char *name);
int libddm_get_chipid_by_dev_slot_lport(uint32_t *chipid, int devid, int slot, int lport,
                                        int id_type);
int libddm_get_phyid_by_dev_slot_lport(int devid, int slot, int lport, uint32_t *gphyid);

#ifdef __cplusplus
}
#endif

#endif
