// The consistency oracle's output checks: TOPO_DB holds exactly what the
// applied caches say (unicast balance, source-module filters, aggregate-port
// members, main multicast choices and the confirmations the module holds).
#include <cstring>
#include <set>
#include <vector>

#include "oracle_checks.h"
#include "platform_ctl.h"

namespace dpm_oracle {
namespace {

using dpm_test::Unpacked;

// Each record of `type` in TOPO_DB, decoded.
template <class Rec, class F>
void each_record(Report &r, const char *type, const ProtobufCMessageDescriptor *d, F &&fn) {
    for (const auto &rec : platform::db_records(XN_MOM_TOPO_DB, type)) {
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
        // A confirmation the module holds is in TOPO_DB, as far as the module
        // can know: while its TOPO_DB session is down, no deletion reaches it.
        const dpm_mmc_info &back = dpm_mmc_back[apid];
        if (back.valid && platform::db_connected(XN_MOM_TOPO_DB) &&
            answers.count({static_cast<uint32_t>(apid), back.modid}) == 0) {
            r.add("mainmc_vlan_st apid %d: confirmed modid %u has no record", apid, back.modid);
        }
    }
}

}  // namespace

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

}  // namespace dpm_oracle
