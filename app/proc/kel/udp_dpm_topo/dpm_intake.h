// Steps of the intake handlers (topology map, module ids, forwarding states,
// VSL chips, role and card events, VSL links) that other subsystems do not
// call. They are declared here so that each handler's branches can be driven
// one by one; udp_dpm.h keeps the operations shared between subsystems.
#pragma once

#include "udp_dpm.h"

// Topology map intake (dpm_dtm.cpp).
int dpm_dtm_ds(void *client);
int dpm_dtm_ds_fiap(void *client);
dpm_dtm_info *dpm_dtm_malloc_info(uint32_t fib_num, uint32_t mfib_num);
void dpm_add_dtm_info(dpm_dtm_info *info);

// Module-id allocation (dpm_modid.cpp).
int dpm_mod_alloc_ds(void *client);
int dpm_proc_modid_add(const SIntf__EvtModAlloc *record);
int dpm_proc_modid_del(const SIntf__EvtModAlloc *record);
dpm_modid_info *dpm_find_modid_info_in_dev_with_no_modid(const SIntf__ModAllocIndex *index,
                                                         dpm_dev_head **dev_out);
void dpm_calc_filter_for_modid_add(const dpm_modid_info *entry);
void dpm_calc_filter_for_modid_del(const dpm_modid_info *entry);

// Member forwarding state (dpm_fwd_state.cpp).
int dpm_dev_fwd_state_ds(void *client);
void dpm_proc_dev_fwd_state_add(const UCluster__KelDevFwdstate *record);
void dpm_proc_dev_fwd_state_del(const UCluster__KelDevFwdstate *record);
int dpm_set_dev_fwd_state(void);

// VSL chip state (dpm_vsl_chip.cpp).
int dpm_vsl_chipst_ds(void *client);
void dpm_proc_vsl_chipst_add(const UCluster__VslChipFwdstate *record);
void dpm_proc_vsl_chipst_del(const UCluster__VslChipFwdstate *record);
dpm_vsl_chip *dpm_get_vsl_chipst(const UCluster__ChipIdx *index);
int dpm_del_vsl_chipst_in_db(const dpm_vsl_chip *entry);

// Global role and card events (dpm_grole.cpp).
void dpm_proc_grole_chg(uint32_t role);
uint32_t dpm_card_code(int32_t devid, int32_t slotid, int32_t sslotid);
void dpm_proc_card_info(const PDev__CardInfoIndex *index, bool is_online);
void dpm_proc_mmc_wait_config(int32_t devid, int32_t slotid, int32_t sslotid);

// VSL link events and readiness (dpm_vsl_link.cpp).
int dpm_get_chipid_by_vsl_port(int devid, int slot, int lport, uint32_t *chipid);
int dpm_get_phyid_by_vsl_port(int devid, int slot, int lport, uint32_t *gphyid);
int dpm_get_phyid_chipid_by_vsl(dpm_vsl_info *entry);
int dpm_proc_lvsl(const PDev__VslLocalLink *record);
int dpm_check_vsl_chipid(const dpm_vsl_info *entry);
