// Debug commands: dumps of every cache, record injection, log and timing
// control.
//
// The commands are registered with the platform's debug framework under
// "udp_dpm". A handler takes exactly as many ints as its description has %d
// conversions. Dumps only read the caches; the three injection commands write
// records that then reach the module through its own subscriptions, exactly
// like records of the components that normally write them.
#include <cstdio>
#include <cstring>

#include "ssat.h"
#include "udp_dpm.h"

static constexpr const char *DPM_AT_MODULE = "udp_dpm";
static constexpr const char *DPM_INDENT = "         ";  // nine blanks

static void dpm_print_bmp(const uint32_t *words, uint32_t nbits) {
    fputs(dpm_bmp_line(words, nbits).c_str(), stdout);
}

static void dpm_print_dev_bmp(uint32_t dev_bmp) {
    dpm_print_bmp(&dev_bmp, DPM_DEV_DUMP_MAX);
}

static bool dpm_dump_apid_ok(int apid) {
    if (dpm_apid_valid(apid)) return true;
    puts("\nThe param of apid is illegal. The range of apid is[1-2]");
    return false;
}

// ---------------------------------------------------------------------------
// Route maps
// ---------------------------------------------------------------------------

static void dpm_dump_dtm_info(const dpm_dtm_info *info) {
    if (info == nullptr) {
        printf("info is NULL");
        return;
    }
    printf("local_id:%d, shape:%d, valid:%d\n", info->local_id, info->shape, info->valid);
    printf("fib_info: num=%d\n", static_cast<int>(info->fib_num));
    printf("%-8s %-8s %-8s\n", "owner", "dst", "oif");
    for (uint32_t i = 0; i < info->fib_num && info->fibs != nullptr; ++i) {
        const dpm_fib_entry &f = info->fibs[i];
        printf("%-8d %-8d %-8d\n", f.owner, f.dst, f.oif);
    }
    printf("mfib_info: num=%d\n", static_cast<int>(info->mfib_num));
    printf("%-8s %-8s %-8s %-8s %-8s\n", "owner", "src", "iif", "oif_num", "oif_id");
    for (uint32_t i = 0; i < info->mfib_num && info->mfibs != nullptr; ++i) {
        const dpm_mfib_entry &m = info->mfibs[i];
        printf("%-8d %-8d %-8d %-8d ", m.owner, m.src, m.iif, m.oif_num);
        for (uint32_t k = 0; k < m.oif_num && k < 2; ++k) printf("%-4d ", m.oif_id[k]);
        printf("\n");
    }
}

// The route-map dumps may be long: logging stays off while they print.
class dpm_log_off {
  public:
    dpm_log_off() : saved_(g_udp_dpm_zlog_category) { g_udp_dpm_zlog_category = nullptr; }
    ~dpm_log_off() { g_udp_dpm_zlog_category = saved_; }
    dpm_log_off(const dpm_log_off &) = delete;
    dpm_log_off &operator=(const dpm_log_off &) = delete;

  private:
    void *saved_;
};

static int dpm_dump_dtm_cache(void) {
    dpm_log_off off;
    printf("\ndtm_info_cnt:%d, ds_end:%d\n", static_cast<int>(dpm_dtm_cache.dtm_info_cnt),
           dpm_dtm_cache.ds_end);
    // hwcfg may point at a map that left the history; the history keeps such a
    // map alive until hwcfg moves on, so it is still readable here.
    puts("\nnewst_dtm_info:");
    dpm_dump_dtm_info(dpm_dtm_cache.newest);
    puts("\nhwcfg_dtm_info:");
    dpm_dump_dtm_info(dpm_dtm_cache.hwcfg);
    puts("\noldest_dtm_info:");
    dpm_dump_dtm_info(dpm_dtm_cache.oldest);
    fflush(stdout);
    return 0;
}

static int dpm_dump_dtm_history(void) {
    dpm_log_off off;
    int index = 0;
    dpm_dtm_info *info = nullptr;
    dpm_list_for_each_entry(info, &dpm_dtm_cache.history, link) {
        printf("\nindex:%d\n", index++);
        dpm_dump_dtm_info(info);
    }
    fflush(stdout);
    return 0;
}

// ---------------------------------------------------------------------------
// VSL ports
// ---------------------------------------------------------------------------

static void dpm_dump_vsl_row(const dpm_vsl_info *v) {
    char port[10];
    char peer[10];
    snprintf(port, sizeof port, "%d/%d/%d", v->devid, v->slot, v->lport);
    snprintf(peer, sizeof peer, "%d/%d/%d", v->peer_dev, v->peer_slot, v->peer_lport);
    printf("%-10s %-10d %-10d 0x%-10x %-10s %-10d %-10d 0x%-10x %-10d ", port, v->apid,
           static_cast<int>(v->chipid), v->gphyid, peer, v->peer_ap, static_cast<int>(v->peer_chip),
           v->peer_gphy, static_cast<int>(v->modid_cnt));
    dpm_print_bmp(v->modid_bmp.data(), DPM_MODID_MAX);
}

static void dpm_dump_vslap_entry(const dpm_vslap_entry *ap) {
    printf("vsl_cnt:%d\n", static_cast<int>(ap->vsl_cnt));
    printf("%-8s %-10s %-10s %-10s %-12s %-10s %-10s %-10s %-12s %-10s %-10s\n", "load", "port",
           "apid", "chipid", "gphyid", "peer_port", "peer_ap", "peer_chip", "peer_gphy",
           "modid_cnt", "modid_bmp");
    const dpm_vsl_info *v = nullptr;
    dpm_list_for_each_entry(v, &ap->vsl_list, link) {
        if (v == ap->max_uc_modid_vsl) {
            printf("maxload  ");
        } else if (v == ap->min_uc_modid_vsl) {
            printf("minload  ");
        } else {
            printf("%s", DPM_INDENT);
        }
        dpm_dump_vsl_row(v);
    }
}

static int dpm_dump_vsl_cache(void) {
    printf("\nvsl ds_end:%d\n", dpm_vslap_cache.ds_end);
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        printf("apid:%d, ", apid);
        dpm_dump_vslap_entry(&dpm_vslap_cache.ap[apid]);
        printf("\n");
    }
    fflush(stdout);
    return 0;
}

static int dpm_dump_vsl_unused_cache(void) {
    printf("\n");
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        printf("apid:%d ", apid);
        dpm_dump_vslap_entry(&dpm_vslap_unused_cache.ap[apid]);
        printf("\n");
    }
    fflush(stdout);
    return 0;
}

static int dpm_dump_vslchip_ready(void) {
    printf("\n");
    const dpm_vsl_chip *c = nullptr;
    dpm_list_for_each_entry(c, &dpm_vsl_chip_head, link) {
        printf("devid:%d, slotid:%d, sslotid:%d, unit:%d, chipid:%d\n", static_cast<int>(c->devid),
               static_cast<int>(c->slot), static_cast<int>(c->sslot), static_cast<int>(c->unit),
               static_cast<int>(c->modid));
    }
    fflush(stdout);
    return 0;
}

// ---------------------------------------------------------------------------
// Devices and module ids
// ---------------------------------------------------------------------------

static const dpm_modid_info *dpm_dump_find_modid(int modid) {
    const dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        const dpm_modid_info *m = nullptr;
        dpm_list_for_each_entry(m, &dev->modid_list, link) {
            if (static_cast<int64_t>(m->modid) == modid) return m;
        }
    }
    return nullptr;
}

static int dpm_dump_modid_info(int modid) {
    const dpm_modid_info *m = dpm_dump_find_modid(modid);
    if (m == nullptr) {
        printf("can't find modid %d info\n", modid);
        fflush(stdout);
        return 0;
    }
    printf("modid:%d, devid:%d, slot:%d, sslot:%d, unit:%d, type:%d, is_used:%d\n",
           static_cast<int>(m->modid), m->devid, m->slot, m->sslot, m->unit, m->type, m->is_used);
    if (m->uc_vsl != nullptr) {
        printf("%s", DPM_INDENT);
        puts("uc balance to vsl:");
        printf("%s", DPM_INDENT);
        printf("%-10s %-10s %-10s %-12s %-10s %-10s %-10s %-12s %-10s %-10s\n", "port", "apid",
               "chipid", "gphyid", "peer_port", "peer_ap", "peer_chip", "peer_gphy", "modid_cnt",
               "modid_bmp");
        printf("%s", DPM_INDENT);
        dpm_dump_vsl_row(m->uc_vsl);
    }
    fflush(stdout);
    return 0;
}

static const dpm_dev_head *dpm_dump_find_dev(int devid) {
    const dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        if (static_cast<int64_t>(dev->devid) == devid) return dev;
    }
    return nullptr;
}

static int dpm_dump_modid_info_by_dev(int devid) {
    const dpm_dev_head *dev = dpm_dump_find_dev(devid);
    if (dev == nullptr) return 0;
    printf("\nthe information of dev %d\n", devid);
    printf("fwd_state:%d, isconfig:%d, is_dtm_used:%d, modid_cnt:%d, modid_bmp:",
           static_cast<int>(dev->fwd_state), dev->isconfig, dev->is_dtm_used,
           static_cast<int>(dev->modid_cnt));
    dpm_print_bmp(dev->modid_bmp.data(), DPM_MODID_MAX);
    for (uint32_t m = 0; m < DPM_MODID_MAX; ++m) {
        if (dpm_bmp_test(dev->modid_bmp, m)) dpm_dump_modid_info(static_cast<int>(m));
    }
    fflush(stdout);
    return 0;
}

static int dpm_dump_modid_dev_cache(void) {
    printf("\nds_end:%d\n", dpm_modid_dev_cache.ds_end);
    printf("dev_cnt:%d, dev_bmp:", static_cast<int>(dpm_modid_dev_cache.dev_cnt));
    dpm_print_dev_bmp(dpm_modid_dev_cache.dev_bmp);
    printf("mod_cnt:%d, mod_bmp:", static_cast<int>(dpm_modid_dev_cache.mod_cnt));
    dpm_print_bmp(dpm_modid_dev_cache.mod_bmp.data(), DPM_MODID_MAX);
    const dpm_dev_head *dev = nullptr;
    dpm_list_for_each_entry(dev, &dpm_modid_dev_cache.dev_list, link) {
        dpm_dump_modid_info_by_dev(static_cast<int>(dev->devid));
    }
    fflush(stdout);
    return 0;
}

// ---------------------------------------------------------------------------
// Unicast balance, filters, main multicast, module events, ring-cut type
// ---------------------------------------------------------------------------

static int dpm_dump_uc_balance(void) {
    printf("\n");
    const dpm_uc_info *uc = nullptr;
    dpm_list_for_each_entry(uc, &dpm_uc_head, link) {
        printf("dstmodid:%d, expire:%d, apply:%d\n", static_cast<int>(uc->dstmodid), uc->expire,
               uc->apply);
        printf("localmodid:%d, peer_modid:%d, apid:%d, lport:%d\n",
               static_cast<int>(uc->localmodid), static_cast<int>(uc->peer_modid),
               static_cast<int>(uc->apid), static_cast<int>(uc->lport));
        printf("\n");
    }
    fflush(stdout);
    return 0;
}

static void dpm_dump_filter(const char *title, const dpm_srcmod_filter &f) {
    puts(title);
    printf("dev_bmp:");
    dpm_print_dev_bmp(f.dev_bmp);
    printf("modid_bmp:");
    dpm_print_bmp(f.modid_bmp.data(), DPM_MODID_MAX);
}

static int dpm_dump_igr(int apid) {
    if (dpm_dump_apid_ok(apid)) {
        dpm_dump_filter("\ndpm_igr_permit", dpm_igr_permit[apid]);
        dpm_dump_filter("\ndpm_igr_permit_applied", dpm_igr_permit_applied[apid]);
    }
    fflush(stdout);
    return 0;
}

static int dpm_dump_egr(int apid) {
    if (dpm_dump_apid_ok(apid)) {
        dpm_dump_filter("\ndpm_egr_block", dpm_egr_block[apid]);
        dpm_dump_filter("\ndpm_egr_block_applied", dpm_egr_block_applied[apid]);
    }
    fflush(stdout);
    return 0;
}

static int udp_dpm_dump_mmc(int apid) {
    if (dpm_dump_apid_ok(apid)) {
        const dpm_mmc_info &m = dpm_mmc[apid];
        printf(
            "\nvalid:%d, modid:%d, devid:%d, slotid:%d, sslotid:%d, lport:%d, wait_add:%d, "
            "wait_del:%d, vlan_bmp:",
            m.valid, static_cast<int>(m.modid), m.devid, m.slotid, m.sslotid,
            static_cast<int>(m.lport), m.wait_add, m.wait_del);
        dpm_print_bmp(m.vlan_bmp.data(), DPM_VLAN_MAX);
    }
    fflush(stdout);
    return 0;
}

static int udp_dpm_dump_mmc_back(int apid) {
    if (dpm_dump_apid_ok(apid)) {
        const dpm_mmc_info &m = dpm_mmc_back[apid];
        printf("\nvalid:%d, modid:%d\n", m.valid, static_cast<int>(m.modid));
    }
    fflush(stdout);
    return 0;
}

static int udp_dpm_dump_mod_slot(void) {
    printf("\n");
    const dpm_mod_event *e = nullptr;
    dpm_list_for_each_entry(e, &dpm_gslot_head, link) {
        printf("gslot:%d, devid:%d, slotid:%d, sslotid:%d\n", static_cast<int>(e->gslot),
               static_cast<int>(dpm_gslot_devid(e->gslot)),
               static_cast<int>(dpm_gslot_slot(e->gslot)),
               static_cast<int>(dpm_gslot_sslot(e->gslot)));
    }
    fflush(stdout);
    return 0;
}

static int udp_dpm_dump_vsl_ring_cut_type(void) {
    printf("vsl ring cut type: %d\n", udp_dpm_get_dev_kel_ring_cut_type());
    fflush(stdout);
    return 0;
}

// ---------------------------------------------------------------------------
// Record injection
// ---------------------------------------------------------------------------

static int udp_dpm_dbg_mod_alloc(int modid, int sw, int slot, int unit) {
    SIntf__ModAllocIndex idx = S_INTF__MOD_ALLOC_INDEX__INIT;
    SIntf__EvtModAlloc rec = S_INTF__EVT_MOD_ALLOC__INIT;
    idx.devid = sw;
    idx.slotid = slot;
    idx.sslotid = 0;
    idx.unit = unit;
    rec.index = &idx;
    rec.modid = modid;
    rec.unit = unit;
    DPM_INFO("enter");
    int rv = xn_mom_hmset(g_udp_dpm_global, XN_MOM_ASIC_DB, &rec.base, 0, 0);
    printf("set mod alloc to mom, rv is %d\n", rv);
    fflush(stdout);
    return rv;
}

static int udp_dpm_dbg_lvsl(int dev, int slot, int lport, int status, int apid, int peer_dev,
                            int peer_slot, int peer_lport) {
    PDev__VslPortIndex idx = P_DEV__VSL_PORT_INDEX__INIT;
    PDev__VslLocalLink rec = P_DEV__VSL_LOCAL_LINK__INIT;
    idx.devid = dev;
    idx.slotid = slot;
    idx.subslot = 0;
    idx.lport = lport;
    rec.index = &idx;
    rec.status = status;
    rec.vsl_ap = apid;
    rec.peer_dev_id = peer_dev;
    rec.peer_slot_id = peer_slot;
    rec.peer_sslot_id = 0;
    rec.peer_lport = peer_lport;
    int rv = xn_mom_hmset(g_udp_dpm_global, XN_MOM_LOCAL_DB, &rec.base, 0, 0);
    printf("set lvsl to mom, rv is %d\n", rv);
    fflush(stdout);
    return rv;
}

static constexpr int DPM_DBG_DTM_MAX = 16;
static constexpr int DPM_DBG_LINE = 255;  // at most 254 characters a line

// The next line of a route file; an empty string once the file is exhausted,
// so that routes without a line stay all zero. The rest of an over-long line is
// skipped so that the next read starts on the next line.
static void dpm_dbg_read_line(FILE *f, char *line) {
    line[0] = '\0';
    if (fgets(line, DPM_DBG_LINE, f) == nullptr) {
        line[0] = '\0';
        return;
    }
    if (strchr(line, '\n') == nullptr) {
        int c = 0;
        while ((c = fgetc(f)) != EOF && c != '\n') {
        }
    }
}

static int dpm_dbg_route_count(int requested) {
    if (requested < 0) return 0;
    return requested > DPM_DBG_DTM_MAX ? DPM_DBG_DTM_MAX : requested;
}

static int udp_dpm_dbg_dtm(int local_id, int shape, int fib_num, int mfib_num) {
    FILE *ffib = fopen(udp_dpm_path("/etc/pktdbg/fib"), "r");
    if (ffib == nullptr) {
        printf("fib file not ok");
        fflush(stdout);
        return 0;
    }
    FILE *fmfib = fopen(udp_dpm_path("/etc/pktdbg/mfib"), "r");
    if (fmfib == nullptr) {
        printf("mfib file not ok");
        fflush(stdout);
        fclose(ffib);
        return 0;
    }

    PDev__DtmFibInfo fibs[DPM_DBG_DTM_MAX];
    PDev__DtmFibInfo *fib_ptrs[DPM_DBG_DTM_MAX];
    PDev__DtmMfibInfo mfibs[DPM_DBG_DTM_MAX];
    PDev__DtmMfibInfo *mfib_ptrs[DPM_DBG_DTM_MAX];
    int32_t oifs[DPM_DBG_DTM_MAX][2] = {};
    char line[DPM_DBG_LINE];

    // The record carries the routes read (at most 16 of each kind); its
    // counts are the operator's, as given.
    const int nfib = dpm_dbg_route_count(fib_num);
    const int nmfib = dpm_dbg_route_count(mfib_num);

    for (int i = 0; i < nfib; ++i) {
        fibs[i] = P_DEV__DTM_FIB_INFO__INIT;
        fib_ptrs[i] = &fibs[i];
        dpm_dbg_read_line(ffib, line);
        int owner = 0;
        int dst = 0;
        int oif = 0;
        (void)sscanf(line, "owner:%d,dst:%d,oif:%d", &owner, &dst, &oif);
        fibs[i].owner_mid = owner;
        fibs[i].dst_id = dst;
        fibs[i].oif_id = oif;
    }
    for (int i = 0; i < nmfib; ++i) {
        mfibs[i] = P_DEV__DTM_MFIB_INFO__INIT;
        mfib_ptrs[i] = &mfibs[i];
        dpm_dbg_read_line(fmfib, line);
        int iif = 0;
        int oif1 = 0;
        int oif2 = 0;
        int own = 0;
        int src = 0;
        (void)sscanf(line, "iif:%d,oif1:%d,oif2:%d,own:%d,src:%d", &iif, &oif1, &oif2, &own, &src);
        oifs[i][0] = oif1;
        oifs[i][1] = oif2;
        mfibs[i].iif_id = iif;
        mfibs[i].n_oif_id = 2;
        mfibs[i].oif_id = oifs[i];
        mfibs[i].owner_mid = own;
        mfibs[i].src_id = src;
    }
    fclose(ffib);
    fclose(fmfib);

    PDev__DtmRouteInfo rec = P_DEV__DTM_ROUTE_INFO__INIT;
    rec.local_id = local_id;
    rec.shape = shape;
    rec.fib_num = fib_num;
    rec.n_fibs = static_cast<size_t>(nfib);
    rec.fibs = nfib != 0 ? fib_ptrs : nullptr;
    rec.mfib_num = mfib_num;
    rec.n_mfibs = static_cast<size_t>(nmfib);
    rec.mfibs = nmfib != 0 ? mfib_ptrs : nullptr;
    int rv = xn_mom_set(g_udp_dpm_global, XN_MOM_LOCAL_DB, &rec.base, 0, 0);
    printf("set dtm rv is %d\n", rv);
    fflush(stdout);
    return rv;
}

// ---------------------------------------------------------------------------
// Registration
// ---------------------------------------------------------------------------

struct dpm_at_cmd {
    const char *name;
    const char *desc;
    ssat_cmd_fn fn;
};

template <class F>
static ssat_cmd_fn dpm_at_fn(F *fn) {
    // The framework calls each handler back with its own arity; the detour
    // through the generic function type says the cast is deliberate.
    return reinterpret_cast<ssat_cmd_fn>(reinterpret_cast<void (*)(void)>(fn));
}

int dpm_at_init(void) {
    const dpm_at_cmd cmds[] = {
        {"set-log-level", "%d", dpm_at_fn(udp_dpm_set_log_level)},
        {"show-log-level", "NULL", dpm_at_fn(udp_dpm_show_log_level)},
        {"dump_dtm_cache", "NULL", dpm_at_fn(dpm_dump_dtm_cache)},
        {"dump_dtm_history", "NULL", dpm_at_fn(dpm_dump_dtm_history)},
        {"dump_vsl_cache", "NULL", dpm_at_fn(dpm_dump_vsl_cache)},
        {"dump_vsl_unused_cache", "NULL", dpm_at_fn(dpm_dump_vsl_unused_cache)},
        {"dump_vslchip_rdy", "NULL", dpm_at_fn(dpm_dump_vslchip_ready)},
        {"dump_modid_info", "modid:%d", dpm_at_fn(dpm_dump_modid_info)},
        {"dump_modid_by_dev", "dev:%d", dpm_at_fn(dpm_dump_modid_info_by_dev)},
        {"dump_modid_cache", "NULL", dpm_at_fn(dpm_dump_modid_dev_cache)},
        {"dump_uc_balance", "NULL", dpm_at_fn(dpm_dump_uc_balance)},
        {"dump_igr", "apid:%d", dpm_at_fn(dpm_dump_igr)},
        {"dump_egr", "apid:%d", dpm_at_fn(dpm_dump_egr)},
        {"dbg_modalloc", "modid:%d, sw:%d, slot%d, unit%d", dpm_at_fn(udp_dpm_dbg_mod_alloc)},
        {"dbg_lvsl", "dev:%d, slot:%d, lport%d, status%d, apid:%d, peer:%d-%d-%d",
         dpm_at_fn(udp_dpm_dbg_lvsl)},
        {"dump_vsl_cut_type", "NULL", dpm_at_fn(udp_dpm_dump_vsl_ring_cut_type)},
        {"dbg_dtm", "local_id:%d, shape:%d, fib_num%d, mfib_num%d", dpm_at_fn(udp_dpm_dbg_dtm)},
        {"dbg_db_reconn", "db%d(0-ASIC_DB, 3-LOCAL_DB, 8-UDP_DB, 14-TOPO_DB)",
         dpm_at_fn(udp_dpm_dbg_db_reconn)},
        {"dump_mmc", "apid:%d", dpm_at_fn(udp_dpm_dump_mmc)},
        {"dump_time", "void", dpm_at_fn(udp_dpm_dbg_dump_time)},
        {"dump_time_file", "void", dpm_at_fn(udp_dpm_dbg_dump_time_file)},
        {"dump_mmc_back", "apid:%d", dpm_at_fn(udp_dpm_dump_mmc_back)},
        {"dump_mod_slot", "void", dpm_at_fn(udp_dpm_dump_mod_slot)},
        {"record_log", "minutes=%d, level=%d", dpm_at_fn(udp_dpm_record_log)},
    };
    static_assert(sizeof cmds / sizeof cmds[0] == 24);

    int rv = ssat_lib_init(g_udp_dpm_global, DPM_AT_MODULE);
    DPM_ERR("at init %d", rv);
    for (const dpm_at_cmd &c : cmds) {
        (void)ssat_reg_mod_cmd(DPM_AT_MODULE, c.name, 0, c.desc, c.fn);
    }
    return rv;
}
