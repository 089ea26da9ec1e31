// Global role and card events (first version: entry points only).
#include "udp_dpm.h"

int dpm_add_grole(xn_mom_ab_t *, xn_mom_ds_reg_t *, const ProtobufCMessage *, void *) {
    return 0;
}
int dpm_del_grole(xn_mom_ab_t *, xn_mom_ds_reg_t *, const ProtobufCMessage *, void *) {
    return 0;
}
int dpm_add_card_info(xn_mom_ab_t *, xn_mom_ds_reg_t *, const ProtobufCMessage *, void *) {
    return 0;
}
int dpm_del_card_info(xn_mom_ab_t *, xn_mom_ds_reg_t *, const ProtobufCMessage *, void *) {
    return 0;
}
