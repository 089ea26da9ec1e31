// Module-id allocation (first version: entry points only).
#include "udp_dpm.h"

int dpm_mod_alloc_cb(void *, xn_mom_msg_t *) {
    return 0;
}
dpm_dev_head *dpm_alloc_dev_head(uint32_t devid) {
    auto *dev = dpm_zalloc<dpm_dev_head>();
    if (dev == nullptr) return nullptr;
    dpm_list_init(&dev->modid_list);
    dev->devid = devid;
    dpm_list_add_tail(&dev->link, &dpm_modid_dev_cache.dev_list);
    dpm_modid_dev_cache.dev_cnt++;
    dpm_word_set(dpm_modid_dev_cache.dev_bmp, devid);
    if (devid == g_mydevid) dev->is_dtm_used = 1;
    return dev;
}
int dpm_set_modid_info_unused(uint32_t) {
    return DPM_ERR_NOMODID;
}
