// Topology map intake: the route map (DTM) that the unit's topology manager
// publishes for this member in LOCAL_DB, converted into a compact byte form and
// kept in a short history. A new map becomes `newest` at once; once the four
// input syncs are over it starts the chain chip readiness -> first VSL port ->
// calculation -> application.
//
// The two ring-cut record types carry the same fields under different names;
// both are read through one internal view so that the rest of this file sees
// one shape.
#include <cinttypes>

#include "dpm_intake.h"
#include "udp_dpm.h"

namespace {

// The fields of either route-map record type.
struct dtm_record_view {
    int32_t local_id;
    int32_t shape;
    size_t n_fibs;
    PDev__DtmFibInfo *const *fibs;
    size_t n_mfibs;
    PDev__DtmMfibInfo *const *mfibs;
};

bool dtm_view_of(const ProtobufCMessage *msg, dtm_record_view *view) {
    if (msg == nullptr) return false;
    if (msg->descriptor == &p_dev__dtm_route_info__descriptor) {
        const auto *r = reinterpret_cast<const PDev__DtmRouteInfo *>(msg);
        *view = {r->local_id, r->shape, r->n_fibs, r->fibs, r->n_mfibs, r->mfibs};
        return true;
    }
    if (msg->descriptor == &p_dev__dtm_fiap_route_info__descriptor) {
        const auto *r = reinterpret_cast<const PDev__DtmFiapRouteInfo *>(msg);
        *view = {r->local_id,  r->shape,        r->n_fiap_fibs,
                 r->fiap_fibs, r->n_fiap_mfibs, r->fiap_mfibs};
        return true;
    }
    return false;
}

// A list element that is missing, or a list longer than a map header can count,
// cannot be converted.
bool dtm_view_complete(const dtm_record_view &v) {
    if (v.n_fibs > UINT32_MAX || v.n_mfibs > UINT32_MAX) return false;
    if ((v.n_fibs != 0 && v.fibs == nullptr) || (v.n_mfibs != 0 && v.mfibs == nullptr))
        return false;
    for (size_t i = 0; i < v.n_fibs; ++i)
        if (v.fibs[i] == nullptr) return false;
    for (size_t i = 0; i < v.n_mfibs; ++i) {
        if (v.mfibs[i] == nullptr) return false;
        if (v.mfibs[i]->n_oif_id != 0 && v.mfibs[i]->oif_id == nullptr) return false;
    }
    return true;
}

// The applied map after it fell out of the history: kept allocated (and out of
// the list) so that `hwcfg` never designates freed memory, and freed as soon as
// `hwcfg` moves on.
dpm_dtm_info *s_dtm_retired_hwcfg = nullptr;

template <class T>
uint8_t dtm_byte(T v) {
    return static_cast<uint8_t>(static_cast<uint32_t>(v) & 0xFFU);
}

}  // namespace

int dpm_dtm_ds(void *client) {
    DPM_INFO("enter");
    PDev__DtmRouteInfo tmpl = P_DEV__DTM_ROUTE_INFO__INIT;
    int rv = xn_mom_scan(client, XN_MOM_LOCAL_DB, &tmpl.base, 0, dpm_dtm_cb, nullptr);
    if (rv != 0) DPM_ERR("scan dtm info failed!");
    return rv;
}

int dpm_dtm_ds_fiap(void *client) {
    DPM_INFO("enter");
    PDev__DtmFiapRouteInfo tmpl = P_DEV__DTM_FIAP_ROUTE_INFO__INIT;
    int rv = xn_mom_scan(client, XN_MOM_LOCAL_DB, &tmpl.base, 0, dpm_dtm_cb, nullptr);
    if (rv != 0) DPM_ERR("scan dtm info failed!");
    return rv;
}

dpm_dtm_info *dpm_dtm_malloc_info(uint32_t fib_num, uint32_t mfib_num) {
    DPM_INFO("enter");
    size_t hdr = sizeof(dpm_dtm_info);
    size_t fib_size = sizeof(dpm_fib_entry) * static_cast<size_t>(fib_num);
    size_t mfib_size = sizeof(dpm_mfib_entry) * static_cast<size_t>(mfib_num);
    DPM_INFO("dtm_info_size:%d, fib_size:%d, mfib_size:%d", static_cast<int>(hdr),
             static_cast<int>(fib_size), static_cast<int>(mfib_size));
    // One zeroed block: header, then the fib entries, then the mfib entries.
    auto *block = static_cast<char *>(calloc(1, hdr + fib_size + mfib_size));  // NOLINT
    if (block == nullptr) {
        DPM_ERR("can't malloc!");
        return nullptr;
    }
    auto *info = reinterpret_cast<dpm_dtm_info *>(block);
    info->fib_num = fib_num;
    info->fibs = reinterpret_cast<dpm_fib_entry *>(block + hdr);
    DPM_INFO("info :%p\n", static_cast<void *>(info));
    DPM_INFO("%p\n", static_cast<void *>(info->fibs));
    return info;
}

static dpm_dtm_info *dpm_save_dtm_info(const dtm_record_view &rec) {
    DPM_INFO("enter");
    DPM_INFO("%p, fibbnum:%d, mfib_num:%d", static_cast<const void *>(rec.fibs),
             static_cast<int>(rec.n_fibs), static_cast<int>(rec.n_mfibs));
    auto fib_num = static_cast<uint32_t>(rec.n_fibs);
    auto mfib_num = static_cast<uint32_t>(rec.n_mfibs);
    dpm_dtm_info *info = dpm_dtm_malloc_info(fib_num, mfib_num);
    if (info == nullptr) {
        DPM_ERR("can not alloc memory!");
        return nullptr;
    }
    info->shape = dtm_byte(rec.shape);
    info->local_id = dtm_byte(rec.local_id);
    info->mfib_num = mfib_num;
    info->mfibs = reinterpret_cast<dpm_mfib_entry *>(reinterpret_cast<char *>(info->fibs) +
                                                     sizeof(dpm_fib_entry) * fib_num);

    DPM_INFO("fib start, fib_num:%d", static_cast<int>(fib_num));
    for (uint32_t i = 0; i < fib_num; ++i) {
        const PDev__DtmFibInfo *f = rec.fibs[i];
        dpm_fib_entry *e = &info->fibs[i];
        e->owner = dtm_byte(f->owner_mid);
        e->dst = dtm_byte(f->dst_id);
        e->oif = dtm_byte(f->oif_id);
        DPM_INFO("%p", static_cast<void *>(e));
        DPM_INFO("owner:%d", e->owner);
        DPM_INFO("dst:%d", e->dst);
        DPM_INFO("oif:%d", e->oif);
    }

    DPM_INFO("mfib start");
    for (uint32_t i = 0; i < mfib_num; ++i) {
        const PDev__DtmMfibInfo *m = rec.mfibs[i];
        dpm_mfib_entry *e = &info->mfibs[i];
        e->owner = dtm_byte(m->owner_mid);
        e->src = dtm_byte(m->src_id);
        e->iif = dtm_byte(m->iif_id);
        // The true count is kept; only two ports fit in the entry.
        e->oif_num = dtm_byte(m->n_oif_id);
        for (size_t k = 0; k < m->n_oif_id; ++k) {
            DPM_INFO("oif_id:%d", m->oif_id[k]);
            if (k < 2) e->oif_id[k] = dtm_byte(m->oif_id[k]);
        }
        DPM_INFO("owner:%d", e->owner);
        DPM_INFO("src:%d", e->src);
        DPM_INFO("iif_id:%d", e->iif);
    }
    return info;
}

void dpm_add_dtm_info(dpm_dtm_info *info) {
    DPM_INFO("enter");
    dpm_dtm_cache_t &c = dpm_dtm_cache;
    dpm_list_add_tail(&info->link, &c.history);
    c.dtm_info_cnt++;
    c.newest = info;
    if (c.oldest == nullptr) c.oldest = info;

    // The counter is never decremented, so the list length decides eviction.
    while (dpm_list_count(&c.history) > DPM_DTM_HISTORY_MAX) {
        dpm_dtm_info *old = dpm_list_first_entry(&c.history, dpm_dtm_info, link);
        dpm_list_del(&old->link);
        if (old == c.hwcfg) {
            // Still the applied map: readers of `hwcfg` may look at it.
            if (s_dtm_retired_hwcfg != nullptr && s_dtm_retired_hwcfg != old)
                free(s_dtm_retired_hwcfg);
            s_dtm_retired_hwcfg = old;
        } else {
            free(old);
        }
        c.oldest = dpm_list_empty(&c.history)
                       ? nullptr
                       : dpm_list_first_entry(&c.history, dpm_dtm_info, link);
    }
}

void dpm_set_hwcfg(dpm_dtm_info *info) {
    dpm_dtm_info *prev = dpm_dtm_cache.hwcfg;
    dpm_dtm_cache.hwcfg = info;
    if (prev != info && prev != nullptr && prev == s_dtm_retired_hwcfg) {
        free(s_dtm_retired_hwcfg);
        s_dtm_retired_hwcfg = nullptr;
    }
}

static int dpm_proc_dtm_info(const dtm_record_view &rec) {
    DPM_INFO("enter");
    udp_dpm_time_record(DPM_T_DTM, 0);

    dpm_dtm_info *info = dpm_save_dtm_info(rec);
    if (info == nullptr) {
        DPM_ERR("dpm_convert_dtm_info failed!");
        return DPM_ERR_FAIL;
    }
    dpm_add_dtm_info(info);

    if (!dpm_is_ds_ready()) {
        DPM_ERR("ds not end!");
        return DPM_OK;
    }
    dpm_proc_rdy_chip_in_unused(false);
    dpm_enable_first_vsl();
    if (dpm_calc_kel_cfg_by_dtm() != 0) {
        DPM_ERR("dpm_calc_kel_cfg failed!");
        return DPM_ERR_FAIL;
    }
    if (dpm_apply_kel_cfg() != 0) {
        DPM_ERR("dpm_apply_kel_cfg failed!");
        return DPM_ERR_FAIL;
    }
    return DPM_OK;
}

int dpm_dtm_cb(void *client, xn_mom_msg_t *msg) {
    DPM_ERR("enter");
    if (int rv = dpm_event_check(__func__, msg); rv != DPM_OK) return rv;
    if (msg->cmd == XN_MOM_CMD_DS) {
        int type = udp_dpm_get_dev_kel_ring_cut_type();
        DPM_INFO("dpm_dtm_cb, kel_cut_type:%d", type);
        if (type == 0) {
            dpm_dtm_ds(client);
        } else if (type == 1) {
            dpm_dtm_ds_fiap(client);
        } else {
            DPM_ERR("unknown kel cut type:%d", type);
        }
        return DPM_OK;
    }
    if (msg->scan_over == XN_MOM_SCAN_OVER) {
        DPM_INFO("XN_MOM_SCAN_OVER enter");
        dpm_dtm_cache.ds_end = 1;
        dpm_proc_ds_end(client);
        return DPM_OK;
    }
    // The database never shortens the history: only set events are taken.
    if (msg->cmd != XN_MOM_CMD_SET) {
        DPM_ERR("dtm route info invalid cmd:%d", msg->cmd);
        return DPM_ERR_EVENT;
    }
    dtm_record_view rec{};
    if (!dtm_view_of(static_cast<const ProtobufCMessage *>(msg->data), &rec)) {
        DPM_ERR("dtm_info error is %d!", 0);
        return DPM_ERR_EVENT;
    }
    if (!dtm_view_complete(rec)) {
        DPM_ERR("dtm route info malformed, fib_num:%d, mfib_num:%d", static_cast<int>(rec.n_fibs),
                static_cast<int>(rec.n_mfibs));
        return DPM_ERR_EVENT;
    }
    if (rec.n_mfibs == 0) {
        DPM_ERR("DTM mfib_num err:%d", 0);
        return DPM_ERR_EVENT;
    }
    int rv = dpm_proc_dtm_info(rec);
    if (rv != 0) {
        DPM_ERR("dpm_dtm_info_proc failed, rv is %d!", rv);
        return DPM_ERR_EVENT;
    }
    return DPM_OK;
}

int dpm_del_state_by_dtm(void) {
    dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        if (dev->devid == g_mydevid || dev->is_dtm_used == 1) continue;
        // Only the global master cleans the records of departed members.
        if (g_my_grole == DPM_ROLE_MASTER) {
            dpm_del_dev_fwd_state(dev->devid);
            dpm_del_vsl_chipst(dev->devid);
        }
        dev->fwd_state = DPM_FWD_BLOCK;
        dev->isconfig = 0;
    }
    return DPM_OK;
}
