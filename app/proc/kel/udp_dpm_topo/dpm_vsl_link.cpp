// VSL link events and chip readiness. A VSL port is usable only once three
// facts have arrived, in any order and from three sources: its local link
// record says it is up (LOCAL_DB), the device-data library has announced the
// cards at both ends (module events, which make the chip lookups possible), and
// both chips are in the forwarding VSL chip list (dpm_vsl_chip.cpp). Ports wait
// in dpm_vslap_unused_cache until then and are handed to dpm_vsl_updown.cpp to
// enter dpm_vslap_cache.
#include "dpm_intake.h"
#include "udp_dpm.h"

namespace {

dpm_vsl_port port_of(const dpm_vsl_info *e) {
    return dpm_vsl_port{e->devid, e->slot, e->sslot, e->lport};
}

bool same_port(const dpm_vsl_info *e, const dpm_vsl_port *p) {
    return e->devid == p->devid && e->slot == p->slot && e->sslot == p->sslot &&
           e->lport == p->lport;
}

// A port end has a module event when the library announced its card.
bool card_has_mod_event(int32_t devid, int32_t slot, int32_t sslot) {
    dpm_mod_event *ev = nullptr;
    dpm_list_for_each_entry(ev, &dpm_gslot_head, link) {
        if (static_cast<int32_t>(dpm_gslot_devid(ev->gslot)) == devid &&
            static_cast<int32_t>(dpm_gslot_slot(ev->gslot)) == slot &&
            static_cast<int32_t>(dpm_gslot_sslot(ev->gslot)) == sslot)
            return true;
    }
    return false;
}

// Unlink and release the waiting entry of a port that has just been activated.
// Looked up again by key: the activation ran a lot of other code meanwhile.
bool release_unused(const dpm_vsl_port &port, int apid) {
    if (!dpm_apid_valid(apid)) return false;
    dpm_vslap_entry &ap = dpm_vslap_unused_cache.ap[apid];
    dpm_vsl_info *e = nullptr;
    dpm_list_for_each_entry(e, &ap.vsl_list, link) {
        if (same_port(e, &port)) {
            dpm_list_del(&e->link);
            if (ap.vsl_cnt > 0) ap.vsl_cnt--;
            free(e);
            return true;
        }
    }
    return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// Cache operations
// ---------------------------------------------------------------------------

dpm_vsl_info *dpm_get_vsl_info(dpm_vslap_cache_t *cache, const dpm_vsl_port *port, int apid) {
    DPM_INFO("enter");
    if (cache == nullptr || port == nullptr || !dpm_apid_valid(apid)) return nullptr;
    dpm_vsl_info *e = nullptr;
    dpm_list_for_each_entry(e, &cache->ap[apid].vsl_list, link) {
        if (same_port(e, port)) return e;
    }
    return nullptr;
}

dpm_vsl_info *dpm_add_vsl_info(dpm_vslap_cache_t *cache, const dpm_vsl_info *record, int apid) {
    DPM_INFO("enter");
    if (cache == nullptr || record == nullptr || !dpm_apid_valid(apid)) {
        DPM_ERR("vsl apid %d out of range!", apid);
        return nullptr;
    }
    dpm_vsl_port port = port_of(record);
    dpm_vsl_info *found = dpm_get_vsl_info(cache, &port, apid);
    if (found != nullptr) {
        // Known port: only its far end may have changed.
        found->peer_dev = record->peer_dev;
        found->peer_slot = record->peer_slot;
        found->peer_sslot = record->peer_sslot;
        found->peer_lport = record->peer_lport;
        found->peer_chip = record->peer_chip;
        found->peer_gphy = record->peer_gphy;
        return found;
    }
    auto *e = dpm_zalloc<dpm_vsl_info>();
    if (e == nullptr) {
        DPM_ERR("can't alloc!");
        return nullptr;
    }
    *e = *record;
    dpm_list_add_tail(&e->link, &cache->ap[apid].vsl_list);
    cache->ap[apid].vsl_cnt++;
    return e;
}

dpm_vsl_info *dpm_del_vsl_info(dpm_vslap_cache_t *cache, const dpm_vsl_port *port, int apid) {
    DPM_INFO("enter");
    dpm_vsl_info *e = dpm_get_vsl_info(cache, port, apid);
    if (e == nullptr) {
        if (port != nullptr) {
            DPM_ERR("can't find vslinfo, apid:%d, dev:%d, slot:%d, sslot:%d, lport:%d", apid,
                    port->devid, port->slot, port->sslot, port->lport);
        }
        return nullptr;
    }
    dpm_list_del(&e->link);
    if (cache->ap[apid].vsl_cnt > 0) cache->ap[apid].vsl_cnt--;
    return e;
}

dpm_mod_event *dpm_get_mod_event(uint32_t gslot) {
    DPM_INFO("enter");
    dpm_mod_event *ev = nullptr;
    dpm_list_for_each_entry(ev, &dpm_gslot_head, link) {
        if (ev->gslot == gslot) return ev;
    }
    return nullptr;
}

int dpm_get_vslmodid_by_vslinfo(uint32_t chipid) {
    // The library's chip id is the chip's module id.
    DPM_INFO("get modid %d", static_cast<int>(chipid));
    return static_cast<int>(chipid);
}

// ---------------------------------------------------------------------------
// Lookups
// ---------------------------------------------------------------------------

int dpm_get_chipid_by_vsl_port(int devid, int slot, int lport, uint32_t *chipid) {
    uint32_t id = 0;
    int rv = libddm_get_chipid_by_dev_slot_lport(&id, devid, slot, lport, 2);
    if (rv != 0) {
        DPM_ERR("get chipid by dev[%d] slot[%d] lport[%d ]fail", devid, slot, lport);
        return rv;
    }
    if (id >= DPM_MODID_MAX) {
        DPM_ERR("the modid of vsl is %d. out of range!", static_cast<int>(id));
        return DPM_ERR_FAIL;
    }
    *chipid = id;
    return DPM_OK;
}

int dpm_get_phyid_by_vsl_port(int devid, int slot, int lport, uint32_t *gphyid) {
    int rv = libddm_get_phyid_by_dev_slot_lport(devid, slot, lport, gphyid);
    if (rv != 0) DPM_ERR("get gphyid by dev[%d] slot[%d] lport[%d] fail", devid, slot, lport);
    return rv;
}

// Chip ids of both ends of a port, as the library knows them now; a failure
// is reported under the caller's name.
static int dpm_lookup_both_chipids(const char *func, const dpm_vsl_info *entry, uint32_t *chipid,
                                   uint32_t *peer_chip) {
    int rv = dpm_get_chipid_by_vsl_port(entry->devid, entry->slot, entry->lport, chipid);
    if (rv == 0)
        rv = dpm_get_chipid_by_vsl_port(entry->peer_dev, entry->peer_slot, entry->peer_lport,
                                        peer_chip);
    if (rv != 0) DPM_ERR_FN(func, "get chipid by dev/slot/lport fail");
    return rv;
}

int dpm_get_phyid_chipid_by_vsl(dpm_vsl_info *entry) {
    uint32_t gphyid = 0;
    if (dpm_get_phyid_by_vsl_port(entry->devid, entry->slot, entry->lport, &gphyid) != 0) {
        // Not fatal: the port can carry traffic without its physical id.
        DPM_ERR("get gphyid by dev/slot/lport fail");
        gphyid = 0;
    }
    entry->gphyid = gphyid;

    uint32_t chipid = 0;
    uint32_t peer_chip = 0;
    int rv = dpm_lookup_both_chipids(__func__, entry, &chipid, &peer_chip);
    if (rv != 0) return rv;
    DPM_INFO("vsl: chipid:%d, peer_chipid:%d, gphyid:%d", static_cast<int>(chipid),
             static_cast<int>(peer_chip), static_cast<int>(gphyid));
    entry->chipid = chipid;
    entry->peer_chip = peer_chip;
    return DPM_OK;
}

// ---------------------------------------------------------------------------
// Readiness
// ---------------------------------------------------------------------------

void dpm_one_end_is_ready(uint32_t chipid, bool *ready) {
    dpm_vsl_chip *c = nullptr;
    dpm_list_for_each_entry(c, &dpm_vsl_chip_head, link) {
        if (c->modid == chipid) {
            *ready = true;
            return;
        }
    }
}

void dpm_both_end_is_ready(const dpm_vsl_info *entry, bool *ready) {
    bool local = false;
    bool peer = false;
    dpm_one_end_is_ready(entry->chipid, &local);
    dpm_one_end_is_ready(entry->peer_chip, &peer);
    *ready = local && peer;
}

int dpm_proc_lvsl_up_by_mod_event(dpm_vsl_info *entry) {
    udp_dpm_time_record(DPM_T_PROC_VSL, 1);
    if (!card_has_mod_event(entry->devid, entry->slot, entry->sslot) ||
        !card_has_mod_event(entry->peer_dev, entry->peer_slot, entry->peer_sslot)) {
        DPM_INFO("two end chip don't has mod event for lvsl");
        return DPM_OK;
    }

    udp_dpm_time_record(DPM_T_LIBDDM_GET, 0);
    int rv = dpm_get_phyid_chipid_by_vsl(entry);
    if (rv != 0) {
        DPM_ERR("get gphyid and chipid by vsl fail");
        return rv;
    }
    udp_dpm_time_record(DPM_T_LIBDDM_GET, 1);

    if (!dpm_is_ds_ready()) {
        DPM_ERR("ds not end!");
        return DPM_OK;
    }

    int apid = entry->apid;
    if (!dpm_apid_valid(apid)) return DPM_OK;
    dpm_vsl_port port = port_of(entry);
    int up_rv = 0;
    if (dpm_vslap_cache.ap[apid].vsl_cnt == 0) {
        // The first port of an aggregate port does not wait for its chips.
        DPM_INFO("apid:%d, enable first lvsl", apid);
        up_rv = dpm_proc_lvsl_up_both_ready(entry, apid);
    } else {
        bool ready = false;
        dpm_both_end_is_ready(entry, &ready);
        if (!ready) {
            DPM_INFO("two end chip is not ready for lvsl");
            return DPM_OK;
        }
        DPM_INFO("two end chip is ready for lvsl");
        up_rv = dpm_proc_lvsl_up_both_ready(entry, apid);
    }
    if (up_rv == 0) release_unused(port, apid);
    return DPM_OK;
}

static int dpm_change_vsl_info_store(dpm_vsl_info *entry, int apid) {
    if (dpm_add_vsl_info(&dpm_vslap_cache, entry, apid) == nullptr) {
        DPM_ERR("add vsl info to cache fail! dev:%d, slot:%d, sslot:%d, lport:%d", entry->devid,
                entry->slot, entry->sslot, entry->lport);
        return DPM_ERR_FAIL;
    }
    release_unused(port_of(entry), apid);
    DPM_INFO("del lvsl from unused cache");
    return DPM_OK;
}

void dpm_proc_rdy_chip_in_unused(bool store_only) {
    DPM_INFO("enter");
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        dpm_vsl_info *e = nullptr;
        dpm_vsl_info *n = nullptr;
        dpm_list_for_each_entry_safe(e, n, &dpm_vslap_unused_cache.ap[apid].vsl_list, link) {
            DPM_INFO("check ready");
            bool ready = false;
            dpm_both_end_is_ready(e, &ready);
            if (!ready) {
                DPM_INFO("not ready. devid\xA3\xBA%d, slot:%d, sslot:%d, lport:%d", e->devid,
                         e->slot, e->sslot, e->lport);
                continue;
            }
            if (store_only) {
                // Chip id 0 means "not looked up yet" (the card had no module
                // event); matching it against a chip of module id 0 must not
                // put the port in use. The other path refuses it the same way.
                if (e->chipid == 0 || e->peer_chip == 0) {
                    DPM_INFO("chip ids unknown. devid:%d, slot:%d, sslot:%d, lport:%d", e->devid,
                             e->slot, e->sslot, e->lport);
                    continue;
                }
                dpm_change_vsl_info_store(e, apid);
                continue;
            }
            dpm_vsl_port port = port_of(e);
            if (dpm_proc_lvsl_up_both_ready(e, apid) == 0) {
                release_unused(port, apid);
                DPM_INFO("del lvsl from unused cache");
            }
        }
    }
}

int dpm_update_vsl_chipid(dpm_vsl_info *entry, bool reup) {
    // Copy first: taking the port down releases the entry.
    dpm_vsl_info copy{};
    copy.devid = entry->devid;
    copy.slot = entry->slot;
    copy.sslot = entry->sslot;
    copy.lport = entry->lport;
    copy.status = entry->status;
    copy.apid = entry->apid;
    copy.peer_dev = entry->peer_dev;
    copy.peer_slot = entry->peer_slot;
    copy.peer_sslot = entry->peer_sslot;
    copy.peer_lport = entry->peer_lport;
    int apid = copy.apid;
    dpm_vsl_port port = port_of(&copy);

    dpm_proc_lvsl_down(&port, apid);
    dpm_vsl_info *waiting = dpm_add_vsl_info(&dpm_vslap_unused_cache, &copy, apid);
    if (waiting == nullptr) {
        DPM_ERR("add vsl info to unused fail");
        return DPM_ERR_FAIL;
    }
    if (reup) dpm_proc_lvsl_up_by_mod_event(waiting);
    return DPM_OK;
}

// ---------------------------------------------------------------------------
// Local link records
// ---------------------------------------------------------------------------

static int dpm_local_vsl_ds(void *client) {
    DPM_INFO("enter");
    PDev__VslPortIndex idx = P_DEV__VSL_PORT_INDEX__INIT;
    PDev__VslLocalLink tmpl = P_DEV__VSL_LOCAL_LINK__INIT;
    tmpl.index = &idx;
    int rv = xn_mom_scan(client, XN_MOM_LOCAL_DB, &tmpl.base, 0, dpm_local_vsl_cb, nullptr);
    if (rv != 0) DPM_ERR("scan dtm info failed!");
    return rv;
}

static void dpm_proc_lvsl_up(const dpm_vsl_info *record) {
    udp_dpm_time_record(DPM_T_VSL, 1);
    // A port re-cabled into the other aggregate port leaves the old one first:
    // a port may carry traffic for one aggregate port only.
    int other = DPM_APID_MIN + DPM_APID_MAX - record->apid;
    dpm_vsl_port port = port_of(record);
    if (dpm_get_vsl_info(&dpm_vslap_cache, &port, other) != nullptr ||
        dpm_get_vsl_info(&dpm_vslap_unused_cache, &port, other) != nullptr) {
        // A change of configuration, not a fault: notice, not error.
        DPM_NOTICE("vsl port moves from apid %d to apid %d. dev:%d, slot:%d, sslot:%d, lport:%d",
                   other, record->apid, port.devid, port.slot, port.sslot, port.lport);
        dpm_proc_lvsl_down(&port, other);
    }
    dpm_vsl_info *waiting = dpm_add_vsl_info(&dpm_vslap_unused_cache, record, record->apid);
    if (waiting == nullptr) {
        DPM_ERR("add vsl info to unused fail");
        return;
    }
    dpm_proc_lvsl_up_by_mod_event(waiting);
}

int dpm_proc_lvsl(const PDev__VslLocalLink *record) {
    const PDev__VslPortIndex *idx = record->index;
    // The caches hold aggregate ports 1 and 2 only.
    if (!dpm_apid_valid(record->vsl_ap)) {
        DPM_ERR("vsl_ap %d out of range, dropped. dev:%d, slot:%d, sslot:%d, lport:%d",
                record->vsl_ap, idx->devid, idx->slotid, idx->subslot, idx->lport);
        return DPM_ERR_FAIL;
    }
    dpm_vsl_info e{};
    e.devid = idx->devid;
    e.slot = idx->slotid;
    e.sslot = idx->subslot;
    e.lport = idx->lport;
    e.status = record->status;
    e.apid = record->vsl_ap;
    e.peer_dev = record->peer_dev_id;
    e.peer_slot = record->peer_slot_id;
    e.peer_sslot = record->peer_sslot_id;
    e.peer_lport = record->peer_lport;

    DPM_ERR("dev:%d, slot:%d, sslot:%d, lport:%d", e.devid, e.slot, e.sslot, e.lport);
    DPM_ERR("peer_dev:%d, peer_slot:%d, peer_sslot:%d, peer_lport:%d", e.peer_dev, e.peer_slot,
            e.peer_sslot, e.peer_lport);

    if (e.status == 0) {
        udp_dpm_time_record(DPM_T_VSL, 0);
        dpm_vsl_port port = port_of(&e);
        dpm_proc_lvsl_down(&port, e.apid);
    } else {
        dpm_proc_lvsl_up(&e);
    }
    return DPM_OK;
}

int dpm_local_vsl_cb(void *client, xn_mom_msg_t *msg) {
    DPM_INFO("enter");
    if (int rv = dpm_event_check(__func__, msg); rv != DPM_OK) return rv;
    if (msg->cmd == XN_MOM_CMD_DS) {
        dpm_local_vsl_ds(client);
        return DPM_OK;
    }
    if (msg->scan_over == XN_MOM_SCAN_OVER) {
        dpm_vslap_cache.ds_end = 1;
        dpm_proc_ds_end(client);
        return DPM_OK;
    }
    if (msg->cmd != XN_MOM_CMD_HMSET) return DPM_OK;

    const auto *ent = static_cast<const xn_mom_entry_t *>(msg->data);
    if (ent == nullptr || ent->status != 0) {
        DPM_ERR("unexpected, error!");
        return DPM_ERR_FAIL;
    }
    const ProtobufCMessage *base = ent->msg;
    if (base == nullptr || base->descriptor != &p_dev__vsl_local_link__descriptor ||
        reinterpret_cast<const PDev__VslLocalLink *>(base)->index == nullptr) {
        DPM_ERR("local vsl record invalid, dropped");
        return DPM_ERR_FAIL;
    }
    return dpm_proc_lvsl(reinterpret_cast<const PDev__VslLocalLink *>(base));
}

// ---------------------------------------------------------------------------
// Module events of the device-data library
// ---------------------------------------------------------------------------

static void dpm_save_mod_event(uint32_t gslot) {
    DPM_INFO("gslot:%d", static_cast<int>(gslot));
    if (dpm_get_mod_event(gslot) != nullptr) {
        DPM_INFO("gslot exist");
        return;
    }
    auto *ev = dpm_zalloc<dpm_mod_event>();
    if (ev == nullptr) {
        DPM_ERR("can't alloc!");
        return;
    }
    ev->gslot = gslot;
    dpm_list_add_tail(&ev->link, &dpm_gslot_head);
}

// 0 when both chip ids still match what the library says.
int dpm_check_vsl_chipid(const dpm_vsl_info *entry) {
    uint32_t chipid = 0;
    uint32_t peer_chip = 0;
    int rv = dpm_lookup_both_chipids(__func__, entry, &chipid, &peer_chip);
    if (rv != 0) return rv;
    if (chipid != entry->chipid || peer_chip != entry->peer_chip) return DPM_ERR_FAIL;
    DPM_INFO("the chipid  of lvsl is right");
    return DPM_OK;
}

static void dpm_proc_mod_event_add(void) {
    // A newly announced card may complete any waiting port...
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        dpm_vsl_info *e = nullptr;
        dpm_vsl_info *n = nullptr;
        dpm_list_for_each_entry_safe(e, n, &dpm_vslap_unused_cache.ap[apid].vsl_list, link) {
            dpm_proc_lvsl_up_by_mod_event(e);
        }
    }
    // ...and may have changed the chips of active ones.
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        dpm_vsl_info *e = nullptr;
        dpm_vsl_info *n = nullptr;
        dpm_list_for_each_entry_safe(e, n, &dpm_vslap_cache.ap[apid].vsl_list, link) {
            if (dpm_check_vsl_chipid(e) != 0) {
                DPM_ERR("the chipid  of lvsl is wrong");
                dpm_update_vsl_chipid(e, true);
            }
        }
    }
}

static void dpm_proc_mod_event_del(uint32_t gslot) {
    dpm_mod_event *ev = dpm_get_mod_event(gslot);
    if (ev == nullptr) {
        DPM_ERR("can't find vsl_chip");
        return;
    }
    dpm_list_del(&ev->link);
    free(ev);

    auto devid = static_cast<int32_t>(dpm_gslot_devid(gslot));
    auto slot = static_cast<int32_t>(dpm_gslot_slot(gslot));
    auto sslot = static_cast<int32_t>(dpm_gslot_sslot(gslot));
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        dpm_vsl_info *e = nullptr;
        dpm_vsl_info *n = nullptr;
        dpm_list_for_each_entry_safe(e, n, &dpm_vslap_cache.ap[apid].vsl_list, link) {
            bool local = e->devid == devid && e->slot == slot && e->sslot == sslot;
            bool peer = e->peer_dev == devid && e->peer_slot == slot && e->peer_sslot == sslot;
            if (local || peer) dpm_update_vsl_chipid(e, false);
        }
    }
}

static void dpm_proc_modid_event(int op_type, const void *data) {
    if (data == nullptr) {
        DPM_ERR("gslot is NULL");
        return;
    }
    uint32_t gslot = *static_cast<const uint32_t *>(data);
    DPM_INFO("gslot is %d", static_cast<int>(gslot));
    if (op_type == LIBDDM_OP_ADD) {
        udp_dpm_time_record(DPM_T_MOD_SLOT_ADD, static_cast<int32_t>(gslot));
        dpm_save_mod_event(gslot);
        dpm_proc_mod_event_add();
    } else if (op_type == LIBDDM_OP_DEL) {
        udp_dpm_time_record(DPM_T_MOD_SLOT_DEL, static_cast<int32_t>(gslot));
        dpm_proc_mod_event_del(gslot);
    }
}

int udp_dpm_libddm_notify_cb(void *, int notify_type, int op_type, void *data) {
    DPM_INFO("libddm notify_type:%d, op_type:%d", notify_type, op_type);
    if (notify_type == LIBDDM_NOTIFY_MODULE) dpm_proc_modid_event(op_type, data);
    return 0;
}
