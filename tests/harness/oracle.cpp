// Consistency oracle, linked into a test-only copy of the module so that it
// reads the very caches the module keeps. At a quiet moment (no callback
// pending) it compares TOPO_DB with those caches and walks the caches' own
// invariants, and reports every difference as one line.
//
// Three groups of checks:
// - structure: list counts, bitmaps and indexes agree with the lists, load
//   pointers and main multicast ports point into the active cache, and the
//   unicast balance invariants hold. They hold at any quiet moment.
// - output: TOPO_DB holds exactly what the applied caches say. They are only
//   meaningful once the four input syncs are over (before that, the records of
//   an earlier run are still being taken over).
// - memory: the caches link exactly the blocks the module holds (test builds'
//   allocator, one module instance per process).
#include <cstdio>
#include <set>

#include "alloc_track.h"
#include "oracle_checks.h"

namespace dpm_oracle {
namespace {

bool ready() {
    return dpm_is_ds_end() && g_uc_ds_over && g_igr_ds_over && g_mmc_ds_over;
}

void check_vsl_cache(const dpm_vslap_cache_t &cache, const char *name, Report &r,
                     std::set<const dpm_vsl_info *> &out) {
    for (int apid = 0; apid < DPM_APID_SLOTS; ++apid) {
        const dpm_vslap_entry &ap = cache.ap[apid];
        if (!live(&ap.vsl_list)) continue;
        uint32_t n = 0;
        std::set<const dpm_vsl_info *> here;
        std::set<std::array<int32_t, 4>> keys;
        walk<dpm_vsl_info>(&ap.vsl_list, name, r, [&](const dpm_vsl_info *v) {
            ++n;
            here.insert(v);
            const std::string port = port_name(v);
            const char *pb = port.c_str();
            if (v->apid != apid) r.add("%s apid %d: port %s says apid %d", name, apid, pb, v->apid);
            if (!out.insert(v).second) r.add("%s: port %s linked twice", name, pb);
            if (!keys.insert({v->devid, v->slot, v->sslot, v->lport}).second)
                r.add("%s apid %d: port %s listed twice", name, apid, pb);
        });
        if (apid == 0 && n != 0) r.add("%s: %u ports under apid 0", name, n);
        if (n != ap.vsl_cnt)
            r.add("%s apid %d: vsl_cnt %u, list holds %u", name, apid, ap.vsl_cnt, n);
        if (&cache != &dpm_vslap_cache) continue;  // loads are kept for active ports only
        for (const dpm_vsl_info *p : {ap.max_uc_modid_vsl, ap.min_uc_modid_vsl}) {
            if (p != nullptr && here.count(p) == 0) {
                r.add("%s apid %d: a load pointer names a port outside the aggregate port", name,
                      apid);
            }
        }
    }
}

// The calculation's own test of the newest map: every aggregate port that an
// own unicast route or one of the first two out-interfaces of an own multicast
// route sends through has an active port.
bool newest_map_usable() {
    const dpm_dtm_info *dtm = dpm_dtm_cache.newest;
    if (dtm == nullptr) return false;
    bool used[DPM_APID_SLOTS] = {false, false, false};
    for (uint32_t i = 0; i < dtm->fib_num; ++i) {
        const dpm_fib_entry &f = dtm->fibs[i];
        if (f.owner == g_mydevid && dpm_apid_valid(f.oif)) used[f.oif] = true;
    }
    for (uint32_t i = 0; i < dtm->mfib_num; ++i) {
        const dpm_mfib_entry &m = dtm->mfibs[i];
        if (m.owner != g_mydevid) continue;
        for (uint32_t k = 0; k < m.oif_num && k < 2; ++k) {
            if (dpm_apid_valid(m.oif_id[k])) used[m.oif_id[k]] = true;
        }
    }
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        if (used[apid] && dpm_vslap_cache.ap[apid].vsl_cnt == 0) return false;
    }
    return true;
}

void check_structure(Report &r) {
    // Module-id cache.
    const dpm_modid_dev_cache_t &mc = dpm_modid_dev_cache;
    std::map<uint32_t, const dpm_modid_info *> modids;
    uint32_t devs = 0, dev_bmp = 0, mods = 0;
    dpm_modid_bmp mod_bmp{};
    std::set<uint32_t> devids;
    walk<dpm_dev_head>(&mc.dev_list, "device list", r, [&](const dpm_dev_head *d) {
        ++devs;
        if (!devids.insert(d->devid).second) r.add("device %u has two entries", d->devid);
        dpm_word_set(dev_bmp, d->devid);
        uint32_t n = 0;
        dpm_modid_bmp own{};
        walk<dpm_modid_info>(&d->modid_list, "modid list", r, [&](const dpm_modid_info *m) {
            ++n;
            ++mods;
            if (!dpm_modid_valid(m->modid)) {
                r.add("module id %u out of range cached on device %u", m->modid, d->devid);
                return;
            }
            if (!modids.emplace(m->modid, m).second) {
                r.add("module id %u has two entries", m->modid);
            }
            dpm_bmp_set(own, m->modid);
            dpm_bmp_set(mod_bmp, m->modid);
            if (static_cast<uint32_t>(m->devid) != d->devid) {
                r.add("module id %u on device %u says device %d", m->modid, d->devid, m->devid);
            }
            if (dpm_modid_index[m->modid] != m)
                r.add("module id %u: index points elsewhere", m->modid);
        });
        if (n != d->modid_cnt)
            r.add("device %u: modid_cnt %u, list holds %u", d->devid, d->modid_cnt, n);
        if (own != d->modid_bmp) {
            r.add("device %u: modid_bmp %s, list %s", d->devid, bits(d->modid_bmp).c_str(),
                  bits(own).c_str());
        }
    });
    if (live(&mc.dev_list)) {
        if (devs != mc.dev_cnt) r.add("dev_cnt %u, list holds %u", mc.dev_cnt, devs);
        if (dev_bmp != mc.dev_bmp) r.add("dev_bmp %#x, list %#x", mc.dev_bmp, dev_bmp);
        if (mods != mc.mod_cnt) r.add("mod_cnt %u, lists hold %u", mc.mod_cnt, mods);
        if (mod_bmp != mc.mod_bmp) {
            r.add("mod_bmp %s, lists %s", bits(mc.mod_bmp).c_str(), bits(mod_bmp).c_str());
        }
        for (uint32_t m = 0; m < DPM_MODID_MAX; ++m) {
            if (dpm_modid_index[m] != nullptr && modids.count(m) == 0) {
                r.add("module id %u: index holds an entry that is in no list", m);
            }
        }
    }

    // VSL caches. A port may be active and waiting at once (an up record for
    // an active port waits until its gate passes again), and the caches are
    // kept per apid, so only a port twice in one list is wrong.
    std::set<const dpm_vsl_info *> active, waiting;
    check_vsl_cache(dpm_vslap_cache, "vsl cache", r, active);
    check_vsl_cache(dpm_vslap_unused_cache, "unused vsl cache", r, waiting);

    // Unicast balance: a module id on at most one port, that port is its
    // uc_vsl, and a port's load counts its module ids except main boards.
    std::map<uint32_t, const dpm_vsl_info *> placed;
    const bool map_usable = newest_map_usable();
    for (const dpm_vsl_info *v : active) {
        const std::string port = port_name(v);
        const char *pb = port.c_str();
        uint32_t load = 0;
        for (uint32_t m = 0; m < DPM_MODID_MAX; ++m) {
            if (!dpm_bmp_test(v->modid_bmp, m)) continue;
            auto [it, fresh] = placed.emplace(m, v);
            if (!fresh) r.add("module id %u is on two ports", m);
            auto e = modids.find(m);
            if (e == modids.end()) {
                r.add("port %s carries module id %u, which has no entry", pb, m);
                continue;
            }
            if (e->second->uc_vsl != v)
                r.add("module id %u is on port %s but uc_vsl points elsewhere", m, pb);
            // A map that sends through an aggregate port without ports stops
            // the calculation after it has cleared every is_used and before it
            // sets them again; placements stay. Only a usable map owes the flag.
            if (e->second->is_used != 1 && map_usable)
                r.add("module id %u is on port %s but is_used is %u", m, pb, e->second->is_used);
            if (static_cast<uint32_t>(e->second->type) != DPM_NODE_MB) ++load;
        }
        if (load != v->modid_cnt) r.add("port %s: modid_cnt %u, counts %u", pb, v->modid_cnt, load);
    }
    for (const auto &[m, e] : modids) {
        if (e->uc_vsl != nullptr && active.count(e->uc_vsl) == 0) {
            r.add("module id %u: uc_vsl points at a port that is not active", m);
        } else if (e->uc_vsl != nullptr && placed.count(m) == 0) {
            r.add("module id %u: uc_vsl set but no port carries it", m);
        }
        if (e->uc_vsl == nullptr && e->is_used) r.add("module id %u: is_used without uc_vsl", m);
    }

    // Main multicast ports.
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        const dpm_mmc_info &mmc = dpm_mmc[apid];
        if (mmc.vsl != nullptr && active.count(mmc.vsl) == 0) {
            r.add("main multicast of apid %d points at a port that is not active", apid);
        } else if (mmc.vsl != nullptr && !mmc.valid) {
            r.add("main multicast of apid %d holds a port without a choice", apid);
        } else if (mmc.vsl != nullptr && mmc.vsl->apid != apid) {
            r.add("main multicast of apid %d is bound to a port of apid %d", apid, mmc.vsl->apid);
        }
    }

    // Unicast list: one entry per destination.
    std::set<uint32_t> dsts;
    walk<dpm_uc_info>(&dpm_uc_head, "unicast list", r, [&](const dpm_uc_info *u) {
        if (!dsts.insert(u->dstmodid).second) r.add("unicast entry %u twice", u->dstmodid);
    });

    // Route-map history.
    uint32_t kept = 0;
    walk<dpm_dtm_info>(&dpm_dtm_cache.history, "map history", r,
                       [&](const dpm_dtm_info *) { ++kept; });
    if (kept > DPM_DTM_HISTORY_MAX) r.add("map history keeps %u maps", kept);
}

// ---- memory: the caches own exactly the blocks the module holds ----------------------

// Every element linked in a cache is a block the module holds (nothing freed is
// still linked), and every block it holds is linked somewhere (nothing leaked),
// after an allocation failure as after anything else. Runs after the structure
// walks, which collected the other lists' elements.
void check_memory(Report &r) {
    walk<dpm_vsl_chip>(&dpm_vsl_chip_head, "vsl chip list", r, [](const dpm_vsl_chip *) {});
    walk<dpm_mod_event>(&dpm_gslot_head, "module event list", r, [](const dpm_mod_event *) {});
    r.elems.emplace(dpm_dtm_cache.hwcfg, "applied map");  // may have left the history
    r.elems.emplace(udp_dpm_dbg_time.entries, "timing ring");
    r.elems.erase(nullptr);
    for (const auto &[p, what] : r.elems) {
        if (dpm_alloc_held(p) == 0) r.add("%s: an element that is not a held block", what);
    }
    if (dpm_alloc_held_count() != r.elems.size()) {
        r.add("the module holds %zu blocks, its caches %zu", dpm_alloc_held_count(),
              r.elems.size());
    }
}

}  // namespace

// Differences found, 0 when everything agrees. `flags` bit 0: check the caches'
// structure; bit 1: check TOPO_DB against the caches (skipped, without a
// report, until the four input syncs are over); bit 2: check the module's heap
// blocks against the caches (with the structure). One report line a difference.
extern "C" __attribute__((visibility("default"))) int dpm_oracle_check(int flags, char *out,
                                                                       size_t len) {
    Report r;
    if ((flags & 5) != 0) check_structure(r);
    if ((flags & 4) != 0) check_memory(r);
    if ((flags & 2) != 0 && ready()) check_output(r);
    std::snprintf(out, len, "%s", r.text.c_str());
    return r.count;
}

// Bit 0: the four input syncs are over (the output checks apply). Bit 1: the
// newest route map passes the calculation's own test; otherwise the
// calculation stops early and the output keeps what an earlier map made of
// it. Bit 2: the application holds configured devices back (the own member
// forwards and another device of the map does not); what a held device's
// records say then depends on when it was last applied.
extern "C" __attribute__((visibility("default"))) int dpm_oracle_state(void) {
    int held = 0;
    const dpm_dev_head *me =
        live(&dpm_modid_dev_cache.dev_list) ? dpm_find_dev_head(g_mydevid) : nullptr;
    if (me != nullptr && me->fwd_state == DPM_FWD_FORWARD) {
        const dpm_dev_head *d = nullptr;
        dpm_list_for_each_entry(d, &dpm_modid_dev_cache.dev_list, link) {
            if (d->devid != g_mydevid && d->is_dtm_used && d->fwd_state != DPM_FWD_FORWARD)
                held = 4;
        }
    }
    return (ready() ? 1 : 0) | (newest_map_usable() ? 2 : 0) | held;
}

}  // namespace dpm_oracle
