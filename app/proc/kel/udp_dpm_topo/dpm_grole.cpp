// Global role and card events, delivered as key events of the data-sync
// agent. The role decides who cleans the state records of departed members
// (only the global master does); the removal of a card ends an awaited main
// multicast removal whose confirmation that card would have given.
#include "dpm_intake.h"
#include "udp_dpm.h"

void dpm_proc_grole_chg(uint32_t role) {
    if (role == g_my_grole) {
        DPM_INFO("global role is mot change");
        return;
    }
    g_my_grole = role;
    // A new master removes what the current topology no longer reaches, but
    // only once it has a configuration to judge that by.
    if (role == DPM_ROLE_MASTER && dpm_dtm_cache.hwcfg != nullptr) {
        DPM_INFO("del dev_st and vsl_chipst");
        dpm_del_state_by_dtm();
    }
}

int dpm_add_grole(xn_mom_ab_t *, xn_mom_ds_reg_t *, const ProtobufCMessage *record, void *) {
    if (record == nullptr || record->descriptor != &p_dev__dp_lib_grole__descriptor) {
        DPM_ERR("grole record invalid, dropped");
        return 0;
    }
    const auto *rec = reinterpret_cast<const PDev__DpLibGrole *>(record);
    DPM_INFO("DEV_MSG_GROLE_CHANGE: ");
    DPM_INFO("my_grole: %d", static_cast<int>(rec->my_grole));
    udp_dpm_time_record(DPM_T_GROLE, static_cast<int32_t>(rec->my_grole));
    dpm_proc_grole_chg(static_cast<uint32_t>(rec->my_grole));
    return 0;
}

int dpm_del_grole(xn_mom_ab_t *, xn_mom_ds_reg_t *, const ProtobufCMessage *, void *) {
    return 0;
}

uint32_t dpm_card_code(int32_t devid, int32_t slotid, int32_t sslotid) {
    uint32_t code = (static_cast<uint32_t>(sslotid) & 0x1FU) << 10;
    if (devid >= 1 && devid <= 16) code |= (static_cast<uint32_t>(devid - 1) & 0xFU) << 5;
    code |= static_cast<uint32_t>(slotid) & 0x1FU;
    return code;
}

void dpm_proc_mmc_wait_config(int32_t devid, int32_t slotid, int32_t sslotid) {
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        dpm_mmc_info &mmc = dpm_mmc[apid];
        if (mmc.wait_del != 1) continue;
        DPM_INFO("mmc slot:%d/%d/%d, removed slot:%d/%d/%d", mmc.devid, mmc.slotid, mmc.sslotid,
                 devid, slotid, sslotid);
        if (mmc.devid != devid || mmc.slotid != slotid || mmc.sslotid != sslotid) continue;
        // The card that would confirm the removal is gone: nobody else will
        // delete its confirmation record, and a new choice can be made now.
        mmc.valid = 0;
        mmc.wait_del = 0;
        int rv = dpm_del_mmc_back_in_db(apid);
        DPM_INFO("del mmc_back[apid:%d modid%d]. rv is %d", apid, static_cast<int>(mmc.modid), rv);
        rv = dpm_cal_mmc_by_apid(apid);
        DPM_INFO("recalculate mmc[apid:%d modid%d]. rv is %d", apid, static_cast<int>(mmc.modid),
                 rv);
    }
}

void dpm_proc_card_info(const PDev__CardInfoIndex *index, bool is_online) {
    uint32_t code = dpm_card_code(index->devid, index->slotid, index->sslotid);
    if (is_online) {
        udp_dpm_time_record(DPM_T_ONLINE, static_cast<int32_t>(code));
        DPM_INFO("card_online:[devid:%d, slotid:%d, sslotid:%d]", index->devid, index->slotid,
                 index->sslotid);
        return;
    }
    udp_dpm_time_record(DPM_T_NOT_ONLINE, static_cast<int32_t>(code));
    DPM_INFO("card_remove:[devid:%d, slotid:%d, sslotid:%d]", index->devid, index->slotid,
             index->sslotid);
    dpm_proc_mmc_wait_config(index->devid, index->slotid, index->sslotid);
}

int dpm_add_card_info(xn_mom_ab_t *, xn_mom_ds_reg_t *, const ProtobufCMessage *record, void *) {
    if (record == nullptr || record->descriptor != &p_dev__card_info__descriptor ||
        reinterpret_cast<const PDev__CardInfo *>(record)->index == nullptr) {
        DPM_ERR("card info record invalid, dropped");
        return 0;
    }
    const auto *rec = reinterpret_cast<const PDev__CardInfo *>(record);
    dpm_proc_card_info(rec->index, rec->is_online != 0);
    return 0;
}

int dpm_del_card_info(xn_mom_ab_t *, xn_mom_ds_reg_t *, const ProtobufCMessage *, void *) {
    return 0;
}
