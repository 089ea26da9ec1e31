// Process-wide caches of the module and their start-up state.
//
// Every handler reads and changes these tables directly; they live as long as
// the process. Start-up empties them (a repeated start-up frees what an earlier
// one collected, so nothing is lost track of) and the lookups here are the ones
// every subsystem shares.
#include <cstring>

#include "udp_dpm.h"

dpm_modid_dev_cache_t dpm_modid_dev_cache;
dpm_vslap_cache_t dpm_vslap_cache;
dpm_vslap_cache_t dpm_vslap_unused_cache;
dpm_dtm_cache_t dpm_dtm_cache;
dpm_list dpm_uc_head;
uint32_t dpm_uc_list_gen;
dpm_srcmod_filter dpm_igr_permit[DPM_APID_SLOTS];
dpm_srcmod_filter dpm_egr_block[DPM_APID_SLOTS];
dpm_srcmod_filter dpm_igr_permit_applied[DPM_APID_SLOTS];
dpm_srcmod_filter dpm_egr_block_applied[DPM_APID_SLOTS];
dpm_mmc_info dpm_mmc[DPM_APID_SLOTS];
dpm_mmc_info dpm_mmc_back[DPM_APID_SLOTS];
dpm_list dpm_vsl_chip_head;
dpm_list dpm_gslot_head;
uint8_t rdy_vsl_chip_ds_end;
uint8_t g_uc_ds_over;
uint8_t g_igr_ds_over;
uint8_t g_mmc_ds_over;
uint8_t is_exprire_mom_flag;

dpm_modid_info *dpm_modid_index[DPM_MODID_MAX];

const dpm_fwd_state_name dpm_fwd_state_tbl[4] = {
    {DPM_FWD_BLOCK, "block"},
    {DPM_FWD_PART_FORWARD, "part_forward"},
    {DPM_FWD_FORWARD, "forward"},
    {DPM_FWD_TIMEOUT, "timeout"},
};

// A list head still holding its load-time zeros has never been initialised:
// there is nothing in it to free or walk.
static bool dpm_list_live(const dpm_list *head) {
    return head->next != nullptr && head->prev != nullptr;
}

// Free every element of a list whose elements begin with their link and were
// allocated with dpm_zalloc (calloc), then leave the head empty.
template <class T>
static void dpm_list_free_all(dpm_list *head) {
    static_assert(offsetof(T, link) == 0);
    if (dpm_list_live(head)) {
        // The analyzer loses track of the unlink and reports the next head->next
        // as freed; every element is unlinked before it is freed.
        while (!dpm_list_empty(head)) {
            dpm_list *node = head->next;
            dpm_list_del(node);                   // NOLINT(clang-analyzer-unix.Malloc)
            free(dpm_list_entry(node, T, link));  // NOLINT(cppcoreguidelines-no-malloc)
        }
    }
    dpm_list_init(head);
}

void dpm_vslap_cache_init(dpm_vslap_cache_t *cache) {
    for (dpm_vslap_entry &ap : cache->ap) {
        dpm_list_free_all<dpm_vsl_info>(&ap.vsl_list);
        ap.vsl_cnt = 0;
        ap.max_uc_modid_vsl = nullptr;
        ap.min_uc_modid_vsl = nullptr;
        ap.chang_flag = 0;
    }
    cache->ds_end = 0;
}

static void dpm_dtm_cache_init(void) {
    // The applied map may be held outside the history (evicted while applied):
    // moving hwcfg off it lets the history release it.
    if (dpm_dtm_cache.hwcfg != nullptr) dpm_set_hwcfg(nullptr);
    dpm_list_free_all<dpm_dtm_info>(&dpm_dtm_cache.history);
    dpm_dtm_cache.dtm_info_cnt = 0;
    dpm_dtm_cache.newest = nullptr;
    dpm_dtm_cache.hwcfg = nullptr;
    dpm_dtm_cache.oldest = nullptr;
    dpm_dtm_cache.ds_end = 0;
}

static void dpm_modid_dev_cache_init(void) {
    dpm_list *head = &dpm_modid_dev_cache.dev_list;
    if (dpm_list_live(head)) {
        while (!dpm_list_empty(head)) {
            dpm_list *node = head->next;
            dpm_dev_head *dev = dpm_list_entry(node, dpm_dev_head, link);
            dpm_list_del(node);  // NOLINT(clang-analyzer-unix.Malloc): as above
            if (dpm_list_live(&dev->modid_list)) {
                dpm_list_free_all<dpm_modid_info>(&dev->modid_list);
            }
            free(dev);  // NOLINT(cppcoreguidelines-no-malloc)
        }
    }
    dpm_list_init(head);
    dpm_modid_dev_cache.dev_cnt = 0;
    dpm_modid_dev_cache.mod_cnt = 0;
    dpm_modid_dev_cache.dev_bmp = 0;
    dpm_modid_dev_cache.mod_bmp.fill(0);
    dpm_modid_dev_cache.ds_end = 0;
    for (dpm_modid_info *&slot : dpm_modid_index) slot = nullptr;
}

void dpm_cache_init(void) {
    dpm_vslap_cache_init(&dpm_vslap_unused_cache);
    dpm_dtm_cache_init();
    dpm_vslap_cache_init(&dpm_vslap_cache);

    dpm_modid_dev_cache_init();

    dpm_list_free_all<dpm_uc_info>(&dpm_uc_head);
    dpm_uc_list_gen++;
    dpm_list_free_all<dpm_vsl_chip>(&dpm_vsl_chip_head);
    dpm_list_free_all<dpm_mod_event>(&dpm_gslot_head);

    memset(static_cast<void *>(dpm_igr_permit), 0, sizeof dpm_igr_permit);
    memset(static_cast<void *>(dpm_egr_block), 0, sizeof dpm_egr_block);
    memset(static_cast<void *>(dpm_igr_permit_applied), 0, sizeof dpm_igr_permit_applied);
    memset(static_cast<void *>(dpm_egr_block_applied), 0, sizeof dpm_egr_block_applied);
    memset(static_cast<void *>(dpm_mmc), 0, sizeof dpm_mmc);
    memset(static_cast<void *>(dpm_mmc_back), 0, sizeof dpm_mmc_back);
}

bool dpm_is_ds_end(void) {
    return dpm_dtm_cache.ds_end != 0 && dpm_vslap_cache.ds_end != 0 &&
           dpm_modid_dev_cache.ds_end != 0 && rdy_vsl_chip_ds_end != 0;
}

bool dpm_is_ds_ready(void) {
    return dpm_is_ds_end() && dpm_dtm_cache.dtm_info_cnt != 0;
}

dpm_dev_head *dpm_find_dev_head(uint32_t devid) {
    const dpm_list *head = &dpm_modid_dev_cache.dev_list;
    if (!dpm_list_live(head)) return nullptr;
    dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, head, link) {
        if (dev->devid == devid) return dev;
    }
    return nullptr;
}

dpm_modid_info *dpm_find_modid_info(uint32_t modid) {
    if (modid >= DPM_MODID_MAX) return nullptr;
    return dpm_modid_index[modid];
}
