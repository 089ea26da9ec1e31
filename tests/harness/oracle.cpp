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
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "alloc_track.h"
#include "platform_ctl.h"
#include "test_support.h"
#include "udp_dpm.h"

namespace {

struct Report {
    std::string text;
    int count = 0;
    std::map<const void *, const char *> elems;  // every element walked, and its list
    void add(const char *fmt, ...) __attribute__((format(printf, 2, 3))) {
        char buf[512];
        va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(buf, sizeof buf, fmt, ap);
        va_end(ap);
        text += std::string(buf) + "\n";
        ++count;
    }
};

bool ready() {
    return dpm_is_ds_end() && g_uc_ds_over && g_igr_ds_over && g_mmc_ds_over;
}

// A list head the module has not set up yet (before its first start) is all zero.
bool live(const dpm_list *head) {
    return head->next != nullptr && head->prev != nullptr;
}

// Walk a list defensively: a broken link ends the walk with a report instead of
// a crash in the oracle itself.
template <class T, class F>
bool walk(const dpm_list *head, const char *what, Report &r, F &&fn) {
    if (!live(head)) return true;
    size_t guard = 0;
    const dpm_list *prev = head;
    for (const dpm_list *p = head->next; p != head; p = p->next) {
        if (p == nullptr || reinterpret_cast<uintptr_t>(p) == DPM_LIST_POISON1 ||
            reinterpret_cast<uintptr_t>(p) == DPM_LIST_POISON2) {
            r.add("%s: broken link after %zu elements", what, guard);
            return false;
        }
        if (p->prev != prev) r.add("%s: element %zu has a wrong prev link", what, guard);
        if (++guard > 1000000) {
            r.add("%s: list does not close", what);
            return false;
        }
        const T *elem =
            reinterpret_cast<const T *>(reinterpret_cast<const char *>(p) - offsetof(T, link));
        r.elems.emplace(elem, what);
        fn(elem);
        prev = p;
    }
    if (head->prev != prev) r.add("%s: head prev is not the last element", what);
    return true;
}

template <size_t N>
std::string bits(const std::array<uint32_t, N> &b) {
    std::string out = "-";
    for (uint32_t v = 0; v < N * 32; ++v) out += dpm_bmp_test(b, v) ? std::to_string(v) + "," : "";
    return out;
}

std::string fmt(const char *f, auto... args) {
    char buf[256];
    std::snprintf(buf, sizeof buf, f, args...);
    return buf;
}

std::string port_name(const dpm_vsl_info *v) {
    return fmt("%d/%d/%d/%d", v->devid, v->slot, v->sslot, v->lport);
}

// ---- structure --------------------------------------------------------------------

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

// ---- TOPO_DB against the applied caches ------------------------------------------------

using dpm_test::Unpacked;

constexpr int kTopo = 14;

// Each record of `type` in TOPO_DB, decoded.
template <class Rec, class F>
void each_record(Report &r, const char *type, const ProtobufCMessageDescriptor *d, F &&fn) {
    for (const auto &rec : platform::db_records(kTopo, type)) {
        Unpacked<Rec> u(d, rec.packed);
        if (u.msg == nullptr) r.add("%s: a stored record does not decode", type);
        if (u.msg != nullptr) fn(*u.msg);
    }
}

void check_uc(Report &r) {
    std::map<uint32_t, const dpm_uc_info *> entries;
    walk<dpm_uc_info>(&dpm_uc_head, "unicast list", r,
                      [&](const dpm_uc_info *u) { entries.emplace(u->dstmodid, u); });
    std::set<uint32_t> recorded;
    each_record<UCluster__KelUcBalance>(
        r, "u_cluster.kel_uc_balance", &u_cluster__kel_uc_balance__descriptor, [&](const auto &u) {
            const uint32_t m = u.index != nullptr ? u.index->modid : 0;
            recorded.insert(m);
            auto it = entries.find(m);
            const dpm_uc_info *e = it != entries.end() ? it->second : nullptr;
            if (e == nullptr) r.add("kel_uc_balance %u: record without unicast entry", m);
            if (e != nullptr && e->apply == 1 && e->expire == 0 &&
                (u.local_modid != e->localmodid || u.apid != e->apid || u.lport != e->lport ||
                 u.peer_modid != e->peer_modid))
                r.add("kel_uc_balance %u: record differs from the applied entry", m);
        });
    for (const auto &[m, e] : entries) {
        if (e->apply == 1 && e->expire == 0 && recorded.count(m) == 0) {
            r.add("kel_uc_balance %u: applied entry without record", m);
        }
    }
}

template <class Rec>
void check_filter(Report &r, const char *type, const ProtobufCMessageDescriptor *d,
                  const dpm_srcmod_filter *applied, size_t Rec::*n, uint32_t *Rec::*words) {
    each_record<Rec>(r, type, d, [&](const Rec &u) {
        const uint32_t apid = u.index != nullptr ? u.index->apid : 0;
        if (!dpm_apid_valid(apid) || u.*n != 64) {
            r.add("%s: record for apid %u with %zu words", type, apid, u.*n);
            return;
        }
        dpm_modid_bmp got{};
        std::memcpy(got.data(), u.*words, sizeof got);
        if (got != applied[apid].modid_bmp) {
            r.add("%s apid %u: record %s, applied %s", type, apid, bits(got).c_str(),
                  bits(applied[apid].modid_bmp).c_str());
        }
    });
}

void check_ap_member(Report &r) {
    std::map<uint32_t, std::vector<std::string>> recorded;
    each_record<UCluster__VslApMember>(
        r, "u_cluster.vsl_ap_member", &u_cluster__vsl_ap_member__descriptor, [&](const auto &u) {
            auto &list = recorded[u.index != nullptr ? u.index->apid : 0];
            for (size_t i = 0; i < u.n_member; ++i) {
                const UCluster__Vslport *p = u.member[i];
                list.push_back(
                    fmt("%u/%u/%u/%u@%u", p->devid, p->slot, p->sslot, p->lport, p->gphyid));
            }
        });
    for (const auto &[apid, list] : recorded) {
        if (!dpm_apid_valid(apid)) r.add("vsl_ap_member: record for apid %u", apid);
    }
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        const dpm_vslap_entry &ap = dpm_vslap_cache.ap[apid];
        if (ap.chang_flag) continue;  // a write is still owed; the next application makes it
        std::vector<std::string> want;
        walk<dpm_vsl_info>(&ap.vsl_list, "vsl cache", r, [&](const dpm_vsl_info *v) {
            want.push_back(fmt("%d/%d/%d/%d@%u", v->devid, v->slot, v->sslot, v->lport, v->gphyid));
        });
        auto it = recorded.find(static_cast<uint32_t>(apid));
        if (it == recorded.end()) {
            if (!want.empty())
                r.add("vsl_ap_member apid %d: %zu active ports, no record", apid, want.size());
            continue;
        }
        if (it->second != want) {
            r.add("vsl_ap_member apid %d: record of %zu members, %zu active ports, %s first", apid,
                  it->second.size(), want.size(), want.empty() ? "-" : want[0].c_str());
        }
    }
}

void check_mmc(Report &r) {
    std::map<uint32_t, std::vector<std::pair<uint32_t, bool>>>
        recorded;  // apid -> (modid, all vlans)
    each_record<UCluster__MainmcVlan>(
        r, "u_cluster.mainmc_vlan", &u_cluster__mainmc_vlan__descriptor, [&](const auto &u) {
            bool full = u.n_vlan == 128;
            for (size_t i = 0; full && i < u.n_vlan; ++i) full = u.vlan[i] == 0xFFFFFFFFU;
            recorded[u.index != nullptr ? u.index->apid : 0].emplace_back(
                u.index != nullptr ? u.index->t_cfg_modid : 0, full);
        });
    for (const auto &[apid, list] : recorded) {
        if (!dpm_apid_valid(apid)) r.add("mainmc_vlan: %zu records for apid %u", list.size(), apid);
    }
    std::set<std::pair<uint32_t, uint32_t>> answers;  // (apid, modid) of mainmc_vlan_st
    each_record<UCluster__MainmcVlanSt>(
        r, "u_cluster.mainmc_vlan_st", &u_cluster__mainmc_vlan_st__descriptor, [&](const auto &u) {
            if (u.index != nullptr) answers.emplace(u.index->apid, u.index->t_cfg_modid);
        });
    for (int apid = DPM_APID_MIN; apid <= DPM_APID_MAX; ++apid) {
        const dpm_mmc_info &mmc = dpm_mmc[apid];
        // A choice bound to a port is published, also one made while the
        // deletion of the previous one is still awaited; an unbound choice
        // that awaits its deletion has none.
        const bool want = mmc.valid && (mmc.vsl != nullptr || !mmc.wait_del);
        const auto &list = recorded[static_cast<uint32_t>(apid)];
        for (const auto &[modid, full] : list) {
            if (!want || modid != mmc.modid) {
                r.add("mainmc_vlan apid %d modid %u: record, choice valid %u wait_del %u modid %u",
                      apid, modid, mmc.valid, mmc.wait_del, mmc.modid);
            } else if (!full) {
                r.add("mainmc_vlan apid %d modid %u: record does not carry every vlan", apid,
                      modid);
            }
        }
        if (want && list.empty()) {
            r.add("mainmc_vlan apid %d: choice modid %u has no record", apid, mmc.modid);
        }
        // A confirmation the module holds is in TOPO_DB.
        const dpm_mmc_info &back = dpm_mmc_back[apid];
        if (back.valid && answers.count({static_cast<uint32_t>(apid), back.modid}) == 0) {
            r.add("mainmc_vlan_st apid %d: confirmed modid %u has no record", apid, back.modid);
        }
    }
}

void check_output(Report &r) {
    check_uc(r);
    check_filter<UCluster__VslSrcmodIgr>(
        r, "u_cluster.vsl_srcmod_igr", &u_cluster__vsl_srcmod_igr__descriptor,
        dpm_igr_permit_applied, &UCluster__VslSrcmodIgr::n_permit_modid,
        &UCluster__VslSrcmodIgr::permit_modid);
    check_filter<UCluster__VslSrcmodEgr>(
        r, "u_cluster.vsl_srcmod_egr", &u_cluster__vsl_srcmod_egr__descriptor,
        dpm_egr_block_applied, &UCluster__VslSrcmodEgr::n_block_modid,
        &UCluster__VslSrcmodEgr::block_modid);
    check_ap_member(r);
    check_mmc(r);
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
