// Steps of the forwarding configuration (calculation, balance, application)
// and of the restore at data-sync end that other subsystems do not call. They
// are declared here so that each step can be driven on its own; udp_dpm.h
// keeps the operations shared between subsystems, dpm_intake.h the steps of
// the intake handlers.
#pragma once

#include "udp_dpm.h"

// Calculation (dpm_calc.cpp): 0 when the newest map is usable.
int dpm_is_cur_dtm_valid(void);

// Unicast balance (dpm_balance.cpp).
void dpm_restore_vsl_lb_in_ap(int apid);

// Application and write-back (dpm_apply.cpp).
int dpm_apply_kel_cfg_by_devid(dpm_dev_head *dev);
int dpm_apply_egr_by_devid(dpm_dev_head *dev, int apid);

// Data-sync end and restore (dpm_ds_end.cpp).
dpm_vsl_info *dpm_get_vsl_info_by_modid_lport(uint32_t modid, uint32_t lport);
void dpm_restore_vsl_cache(void);
