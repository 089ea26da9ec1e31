// Module-id allocation: keeps dpm_modid_dev_cache in step with the
// s_intf.evt_mod_alloc records of ASIC_DB (one per switch chip), and once the
// input syncs are over adjusts the unicast balance and the source-module
// filters of the changed module id without waiting for a new topology map.
//
// Invariants kept on every path, a move between devices included: a device's
// modid_cnt is the length of its list and its modid_bmp holds exactly those
// module ids; the cache's mod_cnt/mod_bmp sum over devices; dev_cnt/dev_bmp
// cover the device entries; dpm_modid_index maps each module id to its one
// entry. A device entry goes with its last module id.
#include "dpm_intake.h"
#include "udp_dpm.h"

static void dpm_modid_index_set(uint32_t modid, dpm_modid_info *entry) {
    if (dpm_modid_valid(modid)) dpm_modid_index[modid] = entry;
}

static void dpm_modid_index_clear(const dpm_modid_info *entry) {
    if (dpm_modid_valid(entry->modid) && dpm_modid_index[entry->modid] == entry)
        dpm_modid_index[entry->modid] = nullptr;
}

dpm_dev_head *dpm_alloc_dev_head(uint32_t devid) {
    if (!dpm_devid_valid(devid)) {
        DPM_ERR("devid %d out of range, no dev head", static_cast<int>(devid));
        return nullptr;
    }
    auto *dev = dpm_zalloc<dpm_dev_head>();
    if (dev == nullptr) {
        DPM_ERR("can;t alloc!");
        return nullptr;
    }
    dpm_list_init(&dev->modid_list);
    dev->devid = devid;
    dpm_list_add_tail(&dev->link, &dpm_modid_dev_cache.dev_list);
    dpm_modid_dev_cache.dev_cnt++;
    dpm_word_set(dpm_modid_dev_cache.dev_bmp, devid);
    if (devid == g_mydevid) dev->is_dtm_used = 1;
    return dev;
}

// Remove a device entry that holds no module id any more. As global master
// this member also removes the records that describe the departed device.
static void dpm_free_empty_dev_head(dpm_dev_head *dev) {
    if (g_my_grole == DPM_ROLE_MASTER) {
        dpm_del_dev_fwd_state(dev->devid);
        dpm_del_vsl_chipst(dev->devid);
    }
    dpm_list_del(&dev->link);
    if (dpm_modid_dev_cache.dev_cnt > 0) dpm_modid_dev_cache.dev_cnt--;
    dpm_word_clear(dpm_modid_dev_cache.dev_bmp, dev->devid);
    free(dev);
}

// Unlink a module-id entry from its device and take it out of every count and
// bitmap; the caller owns the entry afterwards. The device entry is removed
// when this was its last module id.
static void dpm_unlink_modid_entry(dpm_dev_head *dev, dpm_modid_info *entry) {
    if (dev->modid_cnt > 0) dev->modid_cnt--;
    if (dpm_modid_dev_cache.mod_cnt > 0) dpm_modid_dev_cache.mod_cnt--;
    dpm_bmp_clear(dev->modid_bmp, entry->modid);
    dpm_bmp_clear(dpm_modid_dev_cache.mod_bmp, entry->modid);
    dpm_list_del(&entry->link);
    dpm_modid_index_clear(entry);
    if (dev->modid_cnt == 0) dpm_free_empty_dev_head(dev);
}

void dpm_calc_filter_for_modid_add(const dpm_modid_info *entry) {
    DPM_INFO("enter");
    auto devid = static_cast<uint32_t>(entry->devid);
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        if (dpm_word_test(dpm_igr_permit[apid].dev_bmp, devid))
            dpm_bmp_set(dpm_igr_permit[apid].modid_bmp, entry->modid);
        if (dpm_word_test(dpm_egr_block[apid].dev_bmp, devid))
            dpm_bmp_set(dpm_egr_block[apid].modid_bmp, entry->modid);
    }
}

void dpm_calc_filter_for_modid_del(const dpm_modid_info *entry) {
    DPM_INFO("enter");
    auto devid = static_cast<uint32_t>(entry->devid);
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        if (dpm_word_test(dpm_igr_permit[apid].dev_bmp, devid)) {
            dpm_bmp_clear(dpm_igr_permit[apid].modid_bmp, entry->modid);
        } else {
            DPM_ERR("devid %d is not in current igr filter, apid:%d!", entry->devid, apid);
        }
        if (dpm_word_test(dpm_egr_block[apid].dev_bmp, devid)) {
            dpm_bmp_clear(dpm_egr_block[apid].modid_bmp, entry->modid);
        } else {
            DPM_ERR("devid %d is not in current egr filter, apid:%d!", entry->devid, apid);
        }
    }
}

// A module id that leaves its old device for another one: its old placement on
// a VSL port and its bits in the old device's filters go with it, so that the
// add that follows starts from a clean state.
static void dpm_release_moved_modid(dpm_modid_info *old) {
    dpm_vsl_info *port = old->uc_vsl;
    if (port != nullptr) {
        if (static_cast<uint32_t>(old->type) != DPM_NODE_MB && port->modid_cnt > 0)
            port->modid_cnt--;
        dpm_bmp_clear(port->modid_bmp, old->modid);
    }
    old->is_used = 0;
    old->uc_vsl = nullptr;
    if (!dpm_is_ds_ready()) return;
    auto devid = static_cast<uint32_t>(old->devid);
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        if (dpm_word_test(dpm_igr_permit[apid].dev_bmp, devid))
            dpm_bmp_clear(dpm_igr_permit[apid].modid_bmp, old->modid);
        if (dpm_word_test(dpm_egr_block[apid].dev_bmp, devid))
            dpm_bmp_clear(dpm_egr_block[apid].modid_bmp, old->modid);
    }
}

// Returns the new entry, or null when the add is refused.
static dpm_modid_info *dpm_add_modid_info(const SIntf__EvtModAlloc *record) {
    const SIntf__ModAllocIndex *idx = record->index;
    auto modid = static_cast<uint32_t>(record->modid);
    DPM_INFO("modid %d, devid:%d, slot:%d, unit:%d!", record->modid, idx->devid, idx->slotid,
             idx->unit);

    dpm_modid_info *old = dpm_find_modid_info(modid);
    dpm_dev_head *old_dev = nullptr;
    if (old != nullptr) {
        DPM_NOTICE("modid %d exist, devid:%d, slot:%d, unit:%d!", record->modid, old->devid,
                   old->slot, old->unit);
        if (old->devid == idx->devid) return nullptr;
        old_dev = dpm_find_dev_head(static_cast<uint32_t>(old->devid));
    }

    auto *entry = dpm_zalloc<dpm_modid_info>();
    if (entry == nullptr) {
        DPM_ERR("cant malloc!");
        return nullptr;
    }
    entry->modid = modid;
    entry->devid = idx->devid;
    entry->slot = idx->slotid;
    entry->sslot = idx->sslotid;
    entry->unit = idx->unit;
    entry->type = static_cast<int32_t>(record->node_type);
    entry->node = record->node;
    entry->idnum_per_unit = record->idnum_per_unit;

    dpm_dev_head *dev = dpm_find_dev_head(static_cast<uint32_t>(idx->devid));
    // A failed creation has logged "can;t alloc!" itself.
    if (dev == nullptr) dev = dpm_alloc_dev_head(static_cast<uint32_t>(idx->devid));
    if (dev == nullptr) {
        free(entry);
        return nullptr;
    }

    // Only now, with the new entry certain, does the old one go: a refused add
    // leaves the cache as it was. A move is a delete followed by an add, so
    // that counts, filters, port placement and (as master) an emptied
    // device's state records stay true.
    if (old != nullptr) {
        dpm_release_moved_modid(old);
        if (old_dev != nullptr) {
            dpm_unlink_modid_entry(old_dev, old);
        } else {
            dpm_list_del(&old->link);
            dpm_modid_index_clear(old);
        }
        free(old);
    }

    dpm_list_add_tail(&entry->link, &dev->modid_list);
    dev->modid_cnt++;
    dpm_modid_dev_cache.mod_cnt++;
    dpm_bmp_set(dev->modid_bmp, modid);
    dpm_bmp_set(dpm_modid_dev_cache.mod_bmp, modid);
    dpm_modid_index_set(modid, entry);
    return entry;
}

dpm_modid_info *dpm_find_modid_info_in_dev_with_no_modid(const SIntf__ModAllocIndex *index,
                                                         dpm_dev_head **dev_out) {
    dpm_dev_head *dev = dpm_find_dev_head(static_cast<uint32_t>(index->devid));
    if (dev == nullptr) {
        DPM_ERR("can;t find dev %d head", index->devid);
        return nullptr;
    }
    dpm_modid_info *entry = nullptr;
    dpm_list_for_each_entry(entry, &dev->modid_list, link) {
        if (entry->slot == index->slotid && entry->sslot == index->sslotid &&
            entry->unit == index->unit) {
            if (dev_out != nullptr) *dev_out = dev;
            return entry;
        }
    }
    return nullptr;
}

// Returns the unlinked entry (the caller frees it), or null.
static dpm_modid_info *dpm_del_modid_info(const SIntf__EvtModAlloc *record) {
    const SIntf__ModAllocIndex *idx = record->index;
    DPM_INFO("modid %d, devid:%d, slot:%d, unit:%d!", record->modid, idx->devid, idx->slotid,
             idx->unit);
    dpm_dev_head *dev = nullptr;
    dpm_modid_info *entry = dpm_find_modid_info_in_dev_with_no_modid(idx, &dev);
    if (entry == nullptr) {
        DPM_ERR("not find modid info devid:%d, slot:%d, unit:%d", idx->devid, idx->slotid,
                idx->unit);
        return nullptr;
    }
    dpm_unlink_modid_entry(dev, entry);
    return entry;
}

int dpm_proc_modid_add(const SIntf__EvtModAlloc *record) {
    DPM_INFO("enter, modid:%d", record->modid);
    udp_dpm_time_record(DPM_T_MODID_ADD, record->modid);

    dpm_modid_info *entry = dpm_add_modid_info(record);
    if (entry == nullptr) {
        DPM_WARN("add modid info failed! modid:%d", record->modid);
        return DPM_ERR_FAIL;
    }
    if (!dpm_is_ds_ready()) {
        DPM_ERR("ds not end!");
        return DPM_OK;
    }
    if (static_cast<uint32_t>(entry->devid) == g_mydevid) {
        DPM_ERR("my modid!");
        // No balance for the own chips, but their ids belong in the filters
        // whose device set holds the own device (the egress blocks): without
        // this an own chip added after the calculation (a card inserted
        // again) stayed out of them until an unrelated full calculation.
        dpm_calc_filter_for_modid_add(entry);
        return DPM_OK;
    }
    dpm_uc_balance_for_modid_add(entry);
    dpm_calc_filter_for_modid_add(entry);
    return DPM_OK;
}

int dpm_proc_modid_del(const SIntf__EvtModAlloc *record) {
    DPM_INFO("enter");
    dpm_modid_info *entry = dpm_del_modid_info(record);
    if (entry == nullptr) {
        DPM_ERR("del modid info failed! modid:%d", record->modid);
        return DPM_ERR_FAIL;
    }
    udp_dpm_time_record(DPM_T_MODID_DEL, static_cast<int32_t>(entry->modid));
    if (!dpm_is_ds_ready()) {
        DPM_ERR("ds not end!");
        // No balance runs, but a port may still carry the id from an earlier
        // placement: it leaves that port, so the port's load never goes stale
        // and never names freed memory.
        if (entry->uc_vsl != nullptr) {
            if (static_cast<uint32_t>(entry->type) != DPM_NODE_MB && entry->uc_vsl->modid_cnt > 0)
                entry->uc_vsl->modid_cnt--;
            dpm_bmp_clear(entry->uc_vsl->modid_bmp, entry->modid);
        }
    } else {
        dpm_uc_balance_for_modid_del(entry);
        dpm_calc_filter_for_modid_del(entry);
    }
    free(entry);
    return DPM_OK;
}

int dpm_set_modid_info_unused(uint32_t modid) {
    dpm_modid_info *entry = dpm_find_modid_info(modid);
    if (entry == nullptr) {
        DPM_ERR("can't find modid %d info!", static_cast<int>(modid));
        return DPM_ERR_NOMODID;
    }
    entry->is_used = 0;
    entry->uc_vsl = nullptr;
    return DPM_OK;
}

int dpm_mod_alloc_ds(void *client) {
    DPM_ERR("enter");
    SIntf__ModAllocIndex idx = S_INTF__MOD_ALLOC_INDEX__INIT;
    SIntf__EvtModAlloc tmpl = S_INTF__EVT_MOD_ALLOC__INIT;
    tmpl.index = &idx;
    int rv = xn_mom_scan(client, XN_MOM_ASIC_DB, &tmpl.base, 0, dpm_mod_alloc_cb, nullptr);
    if (rv != 0) DPM_ERR("scan modid info failed!");
    return rv;
}

// A record the bitmaps cannot hold (or without its key) is dropped before it
// touches any cache; the drop is reported by the callback that received it.
static const SIntf__EvtModAlloc *dpm_modid_record_usable(const ProtobufCMessage *msg) {
    static constexpr const char *fn = "dpm_mod_alloc_cb";
    if (msg == nullptr || msg->descriptor != &s_intf__evt_mod_alloc__descriptor) {
        DPM_ERR_FN(fn, "mod alloc record invalid, dropped");
        return nullptr;
    }
    const auto *rec = reinterpret_cast<const SIntf__EvtModAlloc *>(msg);
    if (rec->index == nullptr) {
        DPM_ERR_FN(fn, "mod alloc record without index, modid:%d, dropped", rec->modid);
        return nullptr;
    }
    if (!dpm_devid_valid(rec->index->devid) || !dpm_modid_valid(rec->modid)) {
        DPM_ERR_FN(fn, "mod alloc out of range, devid:%d, modid:%d, dropped", rec->index->devid,
                   rec->modid);
        return nullptr;
    }
    return rec;
}

int dpm_mod_alloc_cb(void *client, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    if (int rv = dpm_event_check(__func__, msg); rv != DPM_OK) return rv;
    if (msg->cmd == XN_MOM_CMD_DS) {
        dpm_mod_alloc_ds(client);
        return DPM_OK;
    }
    if (msg->scan_over == XN_MOM_SCAN_OVER) {
        DPM_INFO("scan over");
        dpm_modid_dev_cache.ds_end = 1;
        dpm_proc_ds_end(client);
        return DPM_OK;
    }
    if (msg->cmd == XN_MOM_CMD_DEL) {
        const SIntf__EvtModAlloc *rec =
            dpm_modid_record_usable(static_cast<const ProtobufCMessage *>(msg->data));
        if (rec == nullptr) return DPM_ERR_FAIL;
        int rv = dpm_proc_modid_del(rec);
        if (rv != 0) {
            DPM_ERR("dpm_proc_modid_del, modid:%d, rv:%d", rec->modid, rv);
            return DPM_ERR_FAIL;
        }
    } else if (msg->cmd == XN_MOM_CMD_HMSET) {
        const auto *ent = static_cast<const xn_mom_entry_t *>(msg->data);
        if (ent == nullptr || ent->status != 0) {
            DPM_ERR("unexpected, error!");
            return DPM_ERR_FAIL;
        }
        const SIntf__EvtModAlloc *rec = dpm_modid_record_usable(ent->msg);
        if (rec == nullptr) return DPM_ERR_FAIL;
        int rv = dpm_proc_modid_add(rec);
        if (rv != 0) {
            DPM_ERR("dpm_proc_modid_add, modid:%d, rv:%d", rec->modid, rv);
            return DPM_ERR_FAIL;
        }
    } else {
        return DPM_OK;
    }
    dpm_apply_kel_cfg();
    return DPM_OK;
}
