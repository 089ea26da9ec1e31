// Configuration application and write-back.
//
// Brings TOPO_DB in line with what the calculation and the balance decided:
// the member list of each VSL aggregate port, one kel_uc_balance record per
// destination module id, and the ingress-permit and egress-block filters of
// each aggregate port. Applied copies (the uc entries' apply flags and the
// *_applied filters) remember what TOPO_DB holds, so an unchanged
// configuration costs no write. The data-sync rewrite (is_exprire_mom_flag,
// dpm_topo_watch.cpp) bypasses every comparison so that every wanted record is
// confirmed inside the open brackets and the others expire.
#include <cstring>

#include "dpm_config_steps.h"
#include "udp_dpm.h"

namespace {

// Every write goes through the host handle. Records are protobuf-c structs on
// the stack whose repeated fields point straight into the caches.
int dpm_topo_set(const ProtobufCMessage *msg) {
    return xn_mom_set(g_udp_dpm_global, XN_MOM_TOPO_DB, msg, 0, 0);
}
int dpm_topo_del(const ProtobufCMessage *msg) {
    return xn_mom_del(g_udp_dpm_global, XN_MOM_TOPO_DB, msg, 0, 0);
}

// Calls fn(m) for every module id set in `bmp`, ascending.
template <class Fn>
void dpm_for_each_modid(const dpm_modid_bmp &bmp, Fn fn) {
    for (uint32_t w = 0; w < bmp.size(); ++w) {
        uint32_t word = bmp[w];
        while (word != 0) {
            uint32_t m = w * 32 + static_cast<uint32_t>(__builtin_ctz(word));
            word &= word - 1;
            fn(m);
        }
    }
}

// Module id -> its unicast entry during one rebuild. The list is also filled
// by the read-back of TOPO_DB, so the index is rebuilt from the list each time
// instead of being kept beside it.
dpm_uc_info *dpm_uc_index[DPM_MODID_MAX];

// The last rebuild of the unicast list, as the writes have left it since.
// A clean rebuild (every port's local module id known, every entry at hand,
// no module id claimed by two ports) leaves exactly one entry per claimed
// module id, already holding that port's values; run again over the same
// ports it would change nothing.
struct dpm_uc_rebuild {
    bool clean;
    uint32_t unwritten;  // entries whose apply flag is 0
};
dpm_uc_rebuild dpm_uc_last;

// One application pass (dpm_apply_kel_cfg) applies the devices one after the
// other, and nothing in between touches the VSL ports, the unicast list (but
// for the apply flags its writes set) or the module-id cache: no callback runs
// inside a pass. So within a pass a clean rebuild need not be repeated for the
// next device, and which module ids have an entry is worked out once.
struct dpm_apply_pass {
    bool active;
    bool uc_current;    // a clean rebuild ran in this pass
    bool cached_known;  // `cached` holds the module-id cache of this pass
    dpm_modid_bmp cached;
};
dpm_apply_pass dpm_pass;

// Module ids that have a module-id entry, one bit each.
void dpm_fill_cached_modids(dpm_modid_bmp &cached) {
    for (uint32_t w = 0; w < cached.size(); ++w) {
        uint32_t word = 0;
        for (uint32_t b = 0; b < 32; ++b) {
            if (dpm_modid_index[w * 32 + b] != nullptr) word |= 1U << b;
        }
        cached[w] = word;
    }
}

// The pass's bitmap of cached module ids; outside a pass it is made afresh.
const dpm_modid_bmp &dpm_cached_modids(dpm_modid_bmp &scratch) {
    if (!dpm_pass.active) {
        dpm_fill_cached_modids(scratch);
        return scratch;
    }
    if (!dpm_pass.cached_known) {
        dpm_fill_cached_modids(dpm_pass.cached);
        dpm_pass.cached_known = true;
    }
    return dpm_pass.cached;
}

int dpm_apply_ap_cfg(int apid) {
    udp_dpm_time_record(DPM_T_AP_CFG, apid);
    dpm_vslap_entry *ap = &dpm_vslap_cache.ap[apid];
    DPM_INFO("enter, apid:%d, chang_flag:%d", apid, ap->chang_flag);
    if (ap->chang_flag == 0 && is_exprire_mom_flag == 0) return DPM_OK;

    UCluster__VslApMember rec = U_CLUSTER__VSL_AP_MEMBER__INIT;
    UCluster__ApidIdx idx = U_CLUSTER__APID_IDX__INIT;
    idx.apid = static_cast<uint32_t>(apid);
    rec.index = &idx;

    // A partial member list would tell the hardware side that ports left the
    // aggregate port: when the array cannot be had, write nothing and keep
    // chang_flag so that the next application tries again.
    size_t n = ap->vsl_cnt;
    UCluster__Vslport *members = nullptr;
    UCluster__Vslport **ptrs = nullptr;
    if (n != 0) {
        members = static_cast<UCluster__Vslport *>(calloc(n, sizeof(*members)));
        ptrs = static_cast<UCluster__Vslport **>(calloc(n, sizeof(UCluster__Vslport *)));
        if (members == nullptr || ptrs == nullptr) {
            free(members);
            free(ptrs);
            DPM_ERR("can not alloc memory for ap member, apid:%d!", apid);
            DPM_ERR("apply ap %d cfg fail", apid);
            return DPM_ERR_FAIL;
        }
    }
    for (size_t i = 0; i < n; ++i) {
        members[i] = U_CLUSTER__VSLPORT__INIT;
        ptrs[i] = &members[i];
    }
    size_t i = 0;
    const dpm_vsl_info *vsl = nullptr;
    dpm_list_for_each_entry(vsl, &ap->vsl_list, link) {
        if (i >= n) break;
        members[i].devid = static_cast<uint32_t>(vsl->devid);
        members[i].slot = static_cast<uint32_t>(vsl->slot);
        members[i].sslot = static_cast<uint32_t>(vsl->sslot);
        members[i].lport = static_cast<uint32_t>(vsl->lport);
        members[i].gphyid = vsl->gphyid;
        ++i;
    }
    rec.n_member = n;
    rec.member = ptrs;

    int rv = dpm_topo_set(&rec.base);
    free(members);
    free(ptrs);
    if (rv != 0) {
        DPM_ERR("set ap mem to mom fail!");
        DPM_ERR("apply ap %d cfg fail", apid);
        return DPM_ERR_FAIL;
    }
    DPM_ERR("set ap mem to mom success!");
    ap->chang_flag = 0;
    return DPM_OK;
}

// Claim `m` for port `vsl` in the rebuilt unicast list.
void dpm_adjust_uc_by_vsllb(const dpm_vsl_info *vsl, uint32_t local) {
    DPM_INFO("enter");
    // The port's values, read once: the entries written below cannot be the
    // port, but the compiler cannot know that.
    const auto apid = static_cast<uint32_t>(vsl->apid);
    const auto lport = static_cast<uint32_t>(vsl->lport);
    const uint32_t peer = vsl->peer_chip;
    bool clean = true;
    bool linked = false;
    for (int w = static_cast<int>(vsl->modid_bmp.size()) - 1; w >= 0; --w) {
        uint32_t word = vsl->modid_bmp[static_cast<size_t>(w)];
        while (word != 0) {
            uint32_t bit = 31U - static_cast<uint32_t>(__builtin_clz(word));
            word &= ~(1U << bit);
            uint32_t m = static_cast<uint32_t>(w) * 32 + bit;
            dpm_uc_info *uc = dpm_uc_index[m];
            if (uc != nullptr) {
                // Already claimed in this rebuild: a second port holds it too.
                if (uc->expire == 0) clean = false;
                uc->expire = 0;
                if (uc->localmodid != local || uc->lport != lport || uc->apid != apid ||
                    uc->peer_modid != peer) {
                    uc->localmodid = local;
                    uc->lport = lport;
                    uc->apid = apid;
                    uc->peer_modid = peer;
                    uc->apply = 0;
                }
                continue;
            }
            uc = dpm_zalloc<dpm_uc_info>();
            if (uc == nullptr) {
                DPM_ERR("can not alloc memory, modid:%d!", m);
                clean = false;
                continue;
            }
            uc->dstmodid = m;
            uc->localmodid = local;
            uc->lport = lport;
            uc->apid = apid;
            uc->peer_modid = peer;
            dpm_list_add_tail(&uc->link, &dpm_uc_head);
            linked = true;
            dpm_uc_index[m] = uc;
        }
    }
    if (!clean) dpm_uc_last.clean = false;
    if (linked) dpm_uc_list_gen++;
}

void dpm_set_expire_uc_balance_flag(void) {
    DPM_INFO("enter");
    std::memset(dpm_uc_index, 0, sizeof dpm_uc_index);
    dpm_uc_info *uc = nullptr;
    dpm_list_for_each_entry(uc, &dpm_uc_head, link) {
        uc->expire = 1;
        // First entry of a module id wins, as a walk of the list would find.
        if (dpm_modid_valid(uc->dstmodid) && dpm_uc_index[uc->dstmodid] == nullptr) {
            dpm_uc_index[uc->dstmodid] = uc;
        }
    }
}

void dpm_convert_vsllb_to_uc_by_vsl(int apid) {
    dpm_vsl_info *vsl = nullptr;
    dpm_list_for_each_entry(vsl, &dpm_vslap_cache.ap[apid].vsl_list, link) {
        int local = dpm_get_vslmodid_by_vslinfo(vsl->chipid);
        if (local < 0) {
            DPM_ERR("get vsl modid fail, %d-%d-%d-%d", vsl->devid, vsl->slot, vsl->sslot,
                    vsl->lport);
            dpm_uc_last.clean = false;
            continue;
        }
        dpm_adjust_uc_by_vsllb(vsl, static_cast<uint32_t>(local));
    }
}

void dpm_convert_vsllb_to_uc(void) {
    DPM_INFO("enter");
    dpm_uc_last.clean = true;
    dpm_set_expire_uc_balance_flag();
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        if (dpm_vslap_cache.ap[apid].vsl_cnt != 0) dpm_convert_vsllb_to_uc_by_vsl(apid);
    }
}

int dpm_del_uc_in_db(uint32_t modid) {
    UCluster__KelUcBalance rec = U_CLUSTER__KEL_UC_BALANCE__INIT;
    UCluster__ModidIdx idx = U_CLUSTER__MODID_IDX__INIT;
    idx.modid = modid;
    rec.index = &idx;
    return dpm_topo_del(&rec.base);
}

// Destinations that no VSL port claims any more lose their record.
void dpm_expire_uc_balance(void) {
    DPM_INFO("enter");
    dpm_uc_info *uc = nullptr;
    dpm_uc_info *next = nullptr;
    dpm_uc_last.unwritten = 0;
    dpm_list_for_each_entry_safe(uc, next, &dpm_uc_head, link) {
        if (uc->expire == 0 && uc->apply == 0) dpm_uc_last.unwritten++;
        if (uc->expire == 0) continue;
        dpm_list_del(&uc->link);
        dpm_uc_list_gen++;
        if (dpm_modid_valid(uc->dstmodid) && dpm_uc_index[uc->dstmodid] == uc) {
            dpm_uc_index[uc->dstmodid] = nullptr;
        }
        DPM_INFO("del uc, modid:%d!", uc->dstmodid);
        if (dpm_del_uc_in_db(uc->dstmodid) != 0) DPM_ERR("del uc fail, modid:%d!", uc->dstmodid);
        free(uc);
    }
}

int dpm_set_uc_to_db(const dpm_uc_info *uc) {
    UCluster__KelUcBalance rec = U_CLUSTER__KEL_UC_BALANCE__INIT;
    UCluster__ModidIdx idx = U_CLUSTER__MODID_IDX__INIT;
    idx.modid = uc->dstmodid;
    rec.index = &idx;
    rec.local_modid = uc->localmodid;
    rec.apid = uc->apid;
    rec.lport = uc->lport;
    rec.peer_modid = uc->peer_modid;
    return dpm_topo_set(&rec.base);
}

int dpm_apply_uc_by_devid(dpm_dev_head *dev) {
    DPM_INFO("enter, devid:%d", dev->devid);
    // The rebuild logs its steps at info level: with those messages on it
    // always runs, so that every device's application logs them.
    if (!dpm_pass.uc_current || udp_dpm_log_on(XN_ZLOG_INFO)) {
        dpm_convert_vsllb_to_uc();
        dpm_expire_uc_balance();
        dpm_pass.uc_current = dpm_pass.active && dpm_uc_last.clean;
    }
    // Only entries not yet written (or, under the expire flag, every entry)
    // are written: with none of them the walk would find nothing to do.
    if (dpm_uc_last.unwritten == 0 && is_exprire_mom_flag == 0) return DPM_OK;
    dpm_uc_info *uc = nullptr;
    dpm_list_for_each_entry(uc, &dpm_uc_head, link) {
        if (!dpm_bmp_test(dev->modid_bmp, uc->dstmodid)) continue;
        if (uc->apply != 0 && is_exprire_mom_flag == 0) continue;
        if (dpm_set_uc_to_db(uc) != 0) {
            // The rest of this device waits for the next application; their
            // apply flags are still clear, so it will pick them up.
            DPM_ERR("set uc to mom failed!");
            return DPM_ERR_FAIL;
        }
        DPM_INFO("set uc to mom, rv is 0!");
        if (uc->apply == 0) dpm_uc_last.unwritten--;
        uc->apply = 1;
    }
    return DPM_OK;
}

}  // namespace

int dpm_set_igr_to_db(uint32_t devid, int apid, const dpm_modid_bmp &bmp) {
    UCluster__VslSrcmodIgr rec = U_CLUSTER__VSL_SRCMOD_IGR__INIT;
    UCluster__ApidIdx idx = U_CLUSTER__APID_IDX__INIT;
    idx.apid = static_cast<uint32_t>(apid);
    rec.index = &idx;
    rec.n_permit_modid = bmp.size();
    rec.permit_modid = const_cast<uint32_t *>(bmp.data());
    int rv = dpm_topo_set(&rec.base);
    if (rv != 0) {
        DPM_ERR("set igr failed!, apid:%d, devid:%d", apid, devid);
    } else {
        DPM_INFO("set igr success!, apid:%d, devid:%d", apid, devid);
    }
    return rv;
}

namespace {

// The write step of the egress application, logged under its name.
int dpm_set_egr_to_db(uint32_t devid, int apid, const dpm_modid_bmp &bmp) {
    static constexpr const char *fn = "dpm_apply_egr_by_devid";
    UCluster__VslSrcmodEgr rec = U_CLUSTER__VSL_SRCMOD_EGR__INIT;
    UCluster__ApidIdx idx = U_CLUSTER__APID_IDX__INIT;
    idx.apid = static_cast<uint32_t>(apid);
    rec.index = &idx;
    rec.n_block_modid = bmp.size();
    rec.block_modid = const_cast<uint32_t *>(bmp.data());
    int rv = dpm_topo_set(&rec.base);
    if (rv != 0) {
        DPM_ERR_FN(fn, "set egr failed!, apid:%d, devid:%d", apid, devid);
    } else {
        DPM_INFO_FN(fn, "set egr success!, apid:%d, devid:%d", apid, devid);
    }
    return rv;
}

}  // namespace

// A module id that left the cache must not stay permitted: withdraw it, one
// write per module id, before any device looks at its own module ids.
void dpm_apply_igr_for_del_modid(int apid) {
    dpm_modid_bmp &permit = dpm_igr_permit[apid].modid_bmp;
    dpm_modid_bmp &applied = dpm_igr_permit_applied[apid].modid_bmp;
    // Only the module ids without an entry matter: the bitmap of those that
    // have one leaves exactly them to walk, in ascending order.
    dpm_modid_bmp scratch;
    const dpm_modid_bmp &cached = dpm_cached_modids(scratch);
    dpm_modid_bmp gone;
    for (size_t w = 0; w < gone.size(); ++w) gone[w] = (permit[w] | applied[w]) & ~cached[w];
    // Logged under this function's name: inside the lambda __func__ would
    // name the call operator.
    static constexpr const char *fn = "dpm_apply_igr_for_del_modid";
    dpm_for_each_modid(gone, [&](uint32_t m) {
        DPM_ERR_FN(fn, "can't find modid %d info!", m);
        dpm_bmp_clear(permit, m);
        if (!dpm_bmp_test(applied, m)) return;
        dpm_bmp_clear(applied, m);
        dpm_set_igr_to_db(0, apid, applied);
        DPM_INFO_FN(fn, "del modid:%d in apid:%d", m, apid);
    });
}

int dpm_apply_igr_by_devid(dpm_dev_head *dev, int apid, int block) {
    DPM_INFO("enter, devid:%d, apid:%d, block:%d", dev->devid, apid, block);
    const dpm_srcmod_filter &want = dpm_igr_permit[apid];
    dpm_modid_bmp &applied = dpm_igr_permit_applied[apid].modid_bmp;
    if (want.modid_bmp == applied && is_exprire_mom_flag == 0) {
        DPM_INFO("modbmp is not changed! return");
        return DPM_OK;
    }
    bool changed = false;
    bool outside = false;
    for (size_t w = 0; w < applied.size(); ++w) {
        uint32_t mine = dev->modid_bmp[w];
        uint32_t diff = 0;
        if (block != 0) {
            // Withdraw first, grant later: a device whose module ids left
            // this port stops entering before another one starts.
            if (dpm_word_test(want.dev_bmp, dev->devid)) {
                diff = applied[w] & ~want.modid_bmp[w] & mine;
            } else {
                outside = true;
                diff = applied[w] & mine;
            }
            applied[w] &= ~diff;
        } else {
            diff = want.modid_bmp[w] & ~applied[w] & mine;
            applied[w] |= diff;
        }
        if (diff != 0) changed = true;
    }
    if (outside) DPM_ERR("devid %d is not in igr apid %d", dev->devid, apid);
    if (changed || is_exprire_mom_flag != 0) {
        DPM_INFO("need_set_flag %d, exprire_mom_flag %d", changed ? 1 : 0, is_exprire_mom_flag);
        dpm_set_igr_to_db(dev->devid, apid, applied);
        return DPM_OK;
    }
    if (outside) {
        DPM_INFO("devid %d, apid %d. return", dev->devid, apid);
    } else {
        DPM_INFO("dev %d do not need set. return", dev->devid);
    }
    return DPM_OK;
}

int dpm_apply_egr_by_devid(dpm_dev_head *dev, int apid) {
    DPM_INFO("enter, devid:%d, apid:%d", dev->devid, apid);
    const dpm_srcmod_filter &want = dpm_egr_block[apid];
    dpm_modid_bmp &applied = dpm_egr_block_applied[apid].modid_bmp;
    if (is_exprire_mom_flag != 0) {
        applied = want.modid_bmp;
        dpm_set_egr_to_db(dev->devid, apid, applied);
        return DPM_OK;
    }
    if (want.modid_bmp == applied) {
        DPM_INFO("modbmp is not changed!");
        return DPM_OK;
    }
    bool changed = false;
    if (!dpm_word_test(want.dev_bmp, dev->devid)) {
        for (size_t w = 0; w < applied.size(); ++w) {
            if ((applied[w] & dev->modid_bmp[w]) != 0) changed = true;
            applied[w] &= ~dev->modid_bmp[w];
        }
        DPM_ERR("devid %d is not in egr apid %d", dev->devid, apid);
        if (!changed) return DPM_OK;
    }
    // The egress block is one record per port: the first device that finds
    // a difference brings the whole bitmap up to date.
    dpm_modid_bmp either = want.modid_bmp;
    dpm_bmp_or(either, applied);
    dpm_modid_bmp scratch;
    const dpm_modid_bmp &cached = dpm_cached_modids(scratch);
    dpm_for_each_modid(either, [&](uint32_t m) {
        if (!dpm_bmp_test(cached, m)) {
            dpm_bmp_clear(applied, m);
            changed = true;
            return;
        }
        bool on = dpm_bmp_test(want.modid_bmp, m);
        if (on == dpm_bmp_test(applied, m)) return;
        if (on) {
            dpm_bmp_set(applied, m);
        } else {
            dpm_bmp_clear(applied, m);
        }
        changed = true;
    });
    if (!changed) {
        DPM_INFO("dev %d do not need set", dev->devid);
        return DPM_OK;
    }
    dpm_set_egr_to_db(dev->devid, apid, applied);
    return DPM_OK;
}

namespace {

bool dpm_dev_has_applied_uc(const dpm_dev_head *dev) {
    const dpm_uc_info *uc = nullptr;
    dpm_list_for_each_entry(uc, &dpm_uc_head, link) {
        if (uc->apply == 1 && uc->expire == 0 && dpm_bmp_test(dev->modid_bmp, uc->dstmodid)) {
            return true;
        }
    }
    return false;
}

}  // namespace

int dpm_apply_kel_cfg_by_devid(dpm_dev_head *dev) {
    DPM_INFO("enter, devid:%d", dev->devid);
    udp_dpm_time_record(DPM_T_APPLY_CFG, static_cast<int32_t>(dev->devid));
    if (dpm_apply_uc_by_devid(dev) != 0) {
        DPM_ERR("apply uc failed, devid:%d, rv is %d!", dev->devid, DPM_ERR_FAIL);
    }
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        dpm_apply_igr_for_del_modid(apid);
        dpm_apply_igr_by_devid(dev, apid, 1);
        dpm_apply_egr_by_devid(dev, apid);
    }
    dpm_apply_igr_by_devid(dev, 1, 0);
    dpm_apply_igr_by_devid(dev, 2, 0);

    if (dev->is_dtm_used && dev->modid_cnt != 0 && dev->fwd_state == DPM_FWD_FORWARD) {
        if (dev->devid == g_mydevid || dpm_dev_has_applied_uc(dev)) dev->isconfig = 1;
    }
    return DPM_OK;
}

namespace {

// While this member forwards, a member that was configured already is held
// back as long as another used member has not reached forwarding: its records
// would otherwise change under traffic that still depends on the old ones.
bool dpm_other_dev_not_forward(void) {
    const dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        if (dev->devid != g_mydevid && dev->is_dtm_used && dev->fwd_state != DPM_FWD_FORWARD) {
            return true;
        }
    }
    return false;
}

bool dpm_have_my_vsl_chip(void) {
    const dpm_vsl_chip *chip = nullptr;
    dpm_list_for_each_entry(chip, &dpm_vsl_chip_head, link) {
        if (chip->devid == g_mydevid) return true;
    }
    return false;
}

}  // namespace

int dpm_apply_kel_cfg(void) {
    DPM_INFO("enter");
    if (!dpm_is_ds_ready()) {
        DPM_ERR("ds not end!");
        return DPM_OK;
    }
    udp_dpm_time_record(DPM_T_APPLY_CFG, 0);
    dpm_apply_ap_cfg(1);
    dpm_apply_ap_cfg(2);
    dpm_pass = dpm_apply_pass{};
    dpm_pass.active = true;

    uint32_t my_state = dpm_get_my_fwd_state();
    udp_dpm_time_record(DPM_T_UC_CFG, static_cast<int32_t>(my_state));
    dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        if (my_state == DPM_FWD_FORWARD && dev->isconfig && dpm_other_dev_not_forward()) {
            if (is_exprire_mom_flag == 0) continue;
            DPM_ERR("DS, apply configed, dev:%d", dev->devid);
        }
        dpm_apply_kel_cfg_by_devid(dev);
    }
    dpm_pass = dpm_apply_pass{};

    if (dpm_dtm_cache.hwcfg == nullptr && dpm_have_my_vsl_chip()) dpm_update_my_fwd_state(0);
    dpm_set_hwcfg(dpm_dtm_cache.newest);
    udp_dpm_time_record(DPM_T_CFG_END, 0);
    return DPM_OK;
}
