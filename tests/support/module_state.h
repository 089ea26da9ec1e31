// Module state for tests and benchmarks, made by hand: a clean module (stand-in
// and globals as after a start-up that made no connection), cache entries
// linked the way the module's own handlers link them, route maps, and database
// events as the client delivers them.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "dpm_config_steps.h"
#include "dpm_intake.h"
#include "platform_ctl.h"
#include "udp_dpm.h"
#include "xn_mom.h"

namespace dpm_test {

// Clean stand-in and module globals for member 1. `level` is the module log
// level (4 lets info lines through); `own_dev` allocates the own device entry.
inline void clean_module(uint32_t level = 4, bool own_dev = false) {
    platform::reset();
    g_udp_dpm_global = platform::host_handle();
    g_udp_dpm_zlog_category = xn_zlog_init("udp_dpm");
    g_udp_dpm_zlog_level = level;
    s_udp_dpm_zlog_thread = nullptr;
    g_mydevid = 1;
    g_my_grole = 0;
    g_kel_ring_cut_type = 0;
    inited = 0;
    dpm_cache_init();
    rdy_vsl_chip_ds_end = 0;
    g_uc_ds_over = 0;
    g_igr_ds_over = 0;
    g_mmc_ds_over = 0;
    is_exprire_mom_flag = 0;
    if (own_dev && dpm_alloc_dev_head(g_mydevid) == nullptr)
        throw std::runtime_error("no own device entry");
    platform::take_log();
    platform::clear_module_writes();
}

// The four input syncs over.
inline void ds_ready() {
    dpm_dtm_cache.ds_end = 1;
    dpm_vslap_cache.ds_end = 1;
    dpm_modid_dev_cache.ds_end = 1;
    rdy_vsl_chip_ds_end = 1;
}

// A chip of member `devid` in the forwarding list, as its state record makes it.
inline dpm_vsl_chip *add_chip(uint32_t devid, uint32_t modid, uint32_t slot = 1) {
    auto *c = dpm_zalloc<dpm_vsl_chip>();
    c->devid = devid;
    c->slot = slot;
    c->modid = modid;
    dpm_list_add_tail(&c->link, &dpm_vsl_chip_head);
    return c;
}

// A module-id entry linked the way the allocation handler links it.
inline dpm_modid_info *add_mod(uint32_t devid, uint32_t modid, uint32_t type = DPM_NODE_BOX,
                               int32_t slot = 1, int32_t unit = 0) {
    dpm_dev_head *dev = dpm_find_dev_head(devid);
    if (dev == nullptr) dev = dpm_alloc_dev_head(devid);
    auto *e = dpm_zalloc<dpm_modid_info>();
    e->modid = modid;
    e->devid = static_cast<int32_t>(devid);
    e->slot = slot;
    e->unit = unit;
    e->type = static_cast<int32_t>(type);
    dpm_list_add_tail(&e->link, &dev->modid_list);
    dev->modid_cnt++;
    dpm_modid_dev_cache.mod_cnt++;
    dpm_bmp_set(dev->modid_bmp, modid);
    dpm_bmp_set(dpm_modid_dev_cache.mod_bmp, modid);
    dpm_modid_index[modid] = e;
    return e;
}

// A port of device 1 slot `slot` facing the same port of device 2.
inline dpm_vsl_info make_vsl(int apid, int lport, uint32_t chip, uint32_t peer_chip, int slot = 1) {
    dpm_vsl_info v{};
    v.devid = 1;
    v.slot = slot;
    v.lport = lport;
    v.status = 1;
    v.apid = apid;
    v.chipid = chip;
    v.gphyid = static_cast<uint32_t>(100 + lport);
    v.peer_dev = 2;
    v.peer_slot = slot;
    v.peer_lport = lport;
    v.peer_chip = peer_chip;
    return v;
}
// The same port, active or waiting for its gate.
inline dpm_vsl_info *add_vsl(int apid, int lport, uint32_t chip = 10, uint32_t peer = 20,
                             int slot = 1) {
    dpm_vsl_info v = make_vsl(apid, lport, chip, peer, slot);
    return dpm_add_vsl_info(&dpm_vslap_cache, &v, apid);
}
inline dpm_vsl_info *add_waiting(int apid, int lport, uint32_t chip = 10, uint32_t peer = 20,
                                 int slot = 1) {
    dpm_vsl_info v = make_vsl(apid, lport, chip, peer, slot);
    return dpm_add_vsl_info(&dpm_vslap_unused_cache, &v, apid);
}

// Put a module id on a port as the balance would.
inline void place(dpm_modid_info *e, dpm_vsl_info *v) {
    dpm_bmp_set(v->modid_bmp, e->modid);
    if (static_cast<uint32_t>(e->type) != DPM_NODE_MB) v->modid_cnt++;
    e->uc_vsl = v;
    e->is_used = 1;
}

// A route map made the newest.
struct Fib {
    uint8_t owner, dst, oif;
};
struct Mfib {
    uint8_t owner, src, iif, oif_num, oif0, oif1;
};
inline void set_dtm(const std::vector<Fib> &fibs, const std::vector<Mfib> &mfibs) {
    dpm_dtm_info *info = dpm_dtm_malloc_info(static_cast<uint32_t>(fibs.size()),
                                             static_cast<uint32_t>(mfibs.size()));
    if (info == nullptr) throw std::runtime_error("no route map");
    info->mfib_num = static_cast<uint32_t>(mfibs.size());
    info->mfibs = reinterpret_cast<dpm_mfib_entry *>(info->fibs + fibs.size());
    for (size_t i = 0; i < fibs.size(); ++i) {
        info->fibs[i] = dpm_fib_entry{fibs[i].owner, fibs[i].dst, fibs[i].oif};
    }
    for (size_t i = 0; i < mfibs.size(); ++i) {
        const Mfib &m = mfibs[i];
        info->mfibs[i] = dpm_mfib_entry{m.owner, m.src, m.iif, m.oif_num, {m.oif0, m.oif1}};
    }
    dpm_add_dtm_info(info);
}

// The syncs over and one empty route map stored.
inline void make_ready() {
    ds_ready();
    set_dtm({}, {{}});
}

// A database event as the client delivers it.
struct Event {
    xn_mom_msg_t msg{};
    xn_mom_entry_t entry{};
    static Event with(int cmd, ProtobufCMessage *rec = nullptr) {
        Event e;
        e.msg.cmd = cmd;
        e.msg.data = rec;
        return e;
    }
    static Event set(ProtobufCMessage *rec) { return with(XN_MOM_CMD_SET, rec); }
    static Event del(ProtobufCMessage *rec) { return with(XN_MOM_CMD_DEL, rec); }
    static Event ds_request() { return with(XN_MOM_CMD_DS); }
    // Field-by-field form: the record travels in an entry.
    static Event hmset(ProtobufCMessage *rec, int status = 0) {
        Event e = with(XN_MOM_CMD_HMSET);
        e.entry.msg = rec;
        e.entry.status = status;
        return e;
    }
    static Event error(int err) {
        Event e;
        e.msg.err = static_cast<uint32_t>(err);
        return e;
    }
    xn_mom_msg_t *get() {
        if (msg.cmd == XN_MOM_CMD_HMSET && msg.data == nullptr && entry.msg != nullptr) {
            msg.data = &entry;
        }
        return &msg;
    }
};

}  // namespace dpm_test
