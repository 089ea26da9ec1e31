// Driving the stress harness's unit: its baselines, one event applied and
// everything it caused delivered, a whole fuzzer input checked by the oracle
// after every event, and TOPO_DB as text lines for comparing runs.
#include <algorithm>

#include "alloc_track.h"
#include "record_builders.h"
#include "stress_unit.h"
#include "u_cluster.pb.h"

namespace dpm_stress {
namespace {

std::string mmc_state(uint32_t modid, uint32_t apid, size_t words) {
    u_cluster::mainmc_vlan_st rec;
    rec.mutable_index()->set_t_cfg_modid(modid);
    rec.mutable_index()->set_apid(apid);
    for (size_t i = 0; i < words; ++i) rec.add_vlan(0xFFFFFFFFU);
    return rec.SerializeAsString();
}

// No bit set in any repeated word (a filter that says what its absence says).
bool no_bits(const google::protobuf::Message &m) {
    const auto *rf = m.GetReflection();
    for (int i = 0; i < m.GetDescriptor()->field_count(); ++i) {
        const auto *f = m.GetDescriptor()->field(i);
        const int n =
            f->is_repeated() && f->cpp_type() == f->CPPTYPE_UINT32 ? rf->FieldSize(m, f) : 0;
        for (int k = 0; k < n; ++k) {
            if (rf->GetRepeatedUInt32(m, f, k) != 0) return false;
        }
    }
    return true;
}

}  // namespace

void UnitDriver::begin(Baseline baseline) {
    platform::reset();
    platform::set_log_fd(-1);
    for (int d = 0; d <= 3; ++d) {
        for (int s = 0; s <= 3; ++s) {
            for (int l = 0; l <= 4; ++l) {
                platform::set_chipid(d, s, l, chip_of(d, s));
                platform::set_phyid(d, s, l, static_cast<uint32_t>(100 * d + 10 * s + l));
            }
        }
    }
    // Member 1 (slots 1 and 2), member 2 behind apid 1, member 3 behind apid 2.
    auto unit_records = [] {
        for (auto [d, s, u, m, t] : {std::array{1, 1, 0, 10, 3},
                                     {1, 2, 0, 11, 3},
                                     {2, 1, 0, 20, 3},
                                     {2, 2, 0, 21, 3},
                                     {2, 1, 1, 23, 3},
                                     {2, 3, 0, 22, 2},
                                     {3, 1, 0, 30, 3},
                                     {3, 2, 0, 31, 3}}) {
            platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(d, s, u, m, t));
        }
        for (auto [s, l] : {std::pair{1, 1}, {1, 2}, {2, 1}, {2, 2}}) {
            platform::db_hmset(kLocal, "p_dev.vsl_local_link",
                               vsl_link(1, s, l, 1, s, s + 1, 1, l));
        }
        for (auto [d, s] : {std::pair{1, 1}, {1, 2}, {2, 1}, {3, 1}}) {
            platform::db_set(kUdp, "u_cluster.vsl_chip_fwdstate",
                             chip_state(d, s, 0, "forward", chip_of(d, s)));
            platform::card_add(gslot_of(d, s));
        }
        platform::db_set(kUdp, "u_cluster.kel_dev_fwdstate", dev_state(2, "forward"));
        platform::db_set(kUdp, "u_cluster.kel_dev_fwdstate", dev_state(3, "forward"));
        platform::db_set(kLocal, "p_dev.dtm_route_info", unit_map(1, 2));
    };
    if (baseline == Baseline::StoredUnit) unit_records();
    platform::drop_instance();
    module_.start();
    platform::run_until_idle();
    if (baseline == Baseline::LiveUnit) {
        unit_records();
        platform::run_until_idle();
    }
    platform::take_log();
}

std::vector<platform::LogLine> UnitDriver::apply(const Event &e) {
    if (e.kind <= Kind::DevStateDel) {  // the input records; deletions are the odd kinds
        if (static_cast<int>(e.kind) % 2 == 1) {
            platform::db_del(e.db, e.type, e.packed);
        } else if (e.kind < Kind::Map) {
            platform::db_hmset(e.db, e.type, e.packed);
        } else {
            platform::db_set(e.db, e.type, e.packed);
        }
    }
    switch (e.kind) {
        case Kind::MmcConfirm:
        case Kind::MmcConfirmDel: {
            // The hardware side answers what the module published (or, now and
            // then, something it never published).
            const bool set = e.kind == Kind::MmcConfirm;
            auto from = platform::db_records(kTopo, set ? "u_cluster.mainmc_vlan" : e.type);
            std::string rec;
            u_cluster::mainmc_vlan v;
            if (!from.empty() && e.pick % 8 != 7 &&
                v.ParseFromString(from[e.pick % from.size()].packed) && v.has_index()) {
                rec = mmc_state(v.index().t_cfg_modid(), v.index().apid(), 128);
            }
            if (rec.empty()) rec = mmc_state(e.pick % 40, e.pick % 4, e.pick % 130);
            set ? platform::db_set(kTopo, e.type, rec) : platform::db_del(kTopo, e.type, rec);
            break;
        }
        case Kind::CardAdd:
        case Kind::CardDel:
            e.kind == Kind::CardAdd ? platform::card_add(e.gslot) : platform::card_del(e.gslot);
            break;
        case Kind::CardOnline:
            platform::set_card_online(e.devid, e.slot, 0, e.value.value_or(1) != 0);
            break;
        case Kind::Grole:
        case Kind::CardInfo:
            platform::agent_set(e.type, e.packed);
            break;
        case Kind::ChipLookup:
            platform::set_chipid(e.devid, e.slot, e.lport, e.value);
            break;
        case Kind::Reconnect:
            platform::db_disconnect(e.db);
            platform::run_until_idle();
            platform::db_reconnect(e.db, 2);
            break;
        case Kind::Disconnect:
            platform::db_disconnect(e.db);
            break;
        case Kind::AllocFail:
            platform::fail("calloc", -1, static_cast<int>(e.value.value_or(1)), -1,
                           static_cast<int>(e.pick));
            break;
        case Kind::Restart:
            module_.restart();
            break;
        default:
            break;
    }
    platform::run_until_idle();
    return platform::take_log();
}

std::string run_event_input(const uint8_t *data, size_t size) {
    if (size == 0) return "";
    const uint8_t first = data[0];
    const std::vector<Event> events = decode_events(data + 1, size - 1, 64, first >= 128);
    UnitDriver unit;
    unit.begin(static_cast<Baseline>(first % 3));
    std::string report;
    // While an allocation failure's effects last (until a restart without one),
    // TOPO_DB may lag behind the caches; the caches and memory must hold.
    bool failed = false;
    for (size_t n = 0;; ++n) {
        const int flags =
            failed ? OracleModule::kStructure | OracleModule::kMemory : OracleModule::kAll;
        if (oracle_module().check(flags, &report) != 0) {
            return trail(first, {events.begin(), events.begin() + static_cast<long>(n)}) + report;
        }
        if (n == events.size()) return "";
        const size_t failures = dpm_alloc_failures();
        unit.apply(events[n]);
        if (events[n].kind == Kind::Restart) failed = false;
        failed = failed || dpm_alloc_failures() != failures;
    }
}

std::vector<std::string> topo_lines(bool history_free) {
    std::vector<std::string> out;
    for (const auto &r : platform::db_records(kTopo)) {
        const auto m = host::new_record(host::record_type(r.type));
        if (!m->ParseFromString(r.packed)) {
            out.push_back(r.type + " (does not decode)");
            continue;
        }
        if (auto *ap = dynamic_cast<u_cluster::vsl_ap_member *>(m.get())) {
            if (ap->member_size() == 0) continue;
            std::sort(ap->mutable_member()->begin(), ap->mutable_member()->end(),
                      [](const auto &a, const auto &b) {
                          return a.ShortDebugString() < b.ShortDebugString();
                      });
        } else if (auto *uc = dynamic_cast<u_cluster::kel_uc_balance *>(m.get());
                   uc && history_free) {
            uc->clear_local_modid();
            uc->clear_lport();
            uc->clear_peer_modid();
        } else if (auto *mmc = dynamic_cast<u_cluster::mainmc_vlan *>(m.get());
                   mmc && history_free) {
            const uint32_t apid = mmc->index().apid();
            mmc->Clear();
            mmc->mutable_index()->set_apid(apid);
        } else if (history_free || (r.type.find("srcmod") != std::string::npos && no_bits(*m))) {
            continue;
        }
        out.push_back(r.type + " " + m->ShortDebugString());
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::string join(const std::vector<std::string> &lines) {
    std::string out;
    for (const auto &l : lines) out += "  " + l + "\n";
    return out;
}

}  // namespace dpm_stress
