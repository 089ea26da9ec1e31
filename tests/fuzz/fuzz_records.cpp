// Record fuzzer: bytes of every record type, well formed or not, written by
// other components into every database the module reads (and handed to the
// data-sync agent). The stand-in must refuse bytes that do not decode without
// storing or delivering anything; what decodes is delivered whole, and the
// module must take it or drop it with its caches intact.
//
// Input: one byte for the baseline, then chunks of
//   [target] [flags] [length] [length bytes]
// where target picks a (database, type), flags bit 0 the field form (hmset),
// bit 1 a deletion, bit 2 a restart after the write.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "p_dev.pb-c.h"
#include "s_intf.pb-c.h"
#include "stress_unit.h"
#include "u_cluster.pb-c.h"

namespace {

using dpm_stress::OracleModule;

// (database, type); -1 is the data-sync agent. The last two write a type into
// a database where the module does not expect it. From index 7 to 11: TOPO_DB
// records the module itself owns.
const std::pair<int, const ProtobufCMessageDescriptor *> kTargets[] = {
    {0, &s_intf__evt_mod_alloc__descriptor},       {3, &p_dev__dtm_route_info__descriptor},
    {3, &p_dev__dtm_fiap_route_info__descriptor},  {3, &p_dev__vsl_local_link__descriptor},
    {8, &u_cluster__kel_dev_fwdstate__descriptor}, {8, &u_cluster__vsl_chip_fwdstate__descriptor},
    {14, &u_cluster__mainmc_vlan_st__descriptor},  {14, &u_cluster__kel_uc_balance__descriptor},
    {14, &u_cluster__vsl_srcmod_igr__descriptor},  {14, &u_cluster__vsl_srcmod_egr__descriptor},
    {14, &u_cluster__vsl_ap_member__descriptor},   {14, &u_cluster__mainmc_vlan__descriptor},
    {-1, &p_dev__dp_lib_grole__descriptor},        {-1, &p_dev__card_info__descriptor},
    {0, &p_dev__vsl_local_link__descriptor},       {8, &s_intf__evt_mod_alloc__descriptor},
};

bool decodes(const ProtobufCMessageDescriptor *d, const std::string &bytes) {
    ProtobufCMessage *m = protobuf_c_message_unpack(
        d, nullptr, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data()));
    if (m == nullptr) return false;
    protobuf_c_message_free_unpacked(m, nullptr);
    return true;
}

[[noreturn]] void fail(const std::string &what, const std::string &trail) {
    std::fprintf(stderr, "%s\nafter:\n%s", what.c_str(), trail.c_str());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    dpm_stress::oracle_module();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    dpm_stress::UnitDriver unit;
    unit.begin(static_cast<dpm_stress::Baseline>(data[0] % 3));
    size_t pos = 1;
    bool foreign_output = false;  // records the module owns, written by someone else
    std::string trail;
    for (int n = 0; n < 16 && pos + 3 <= size; ++n) {
        const size_t target = data[pos] % std::size(kTargets);
        const auto [db, desc] = kTargets[target];
        const uint8_t flags = data[pos + 1];
        const size_t len = std::min<size_t>(data[pos + 2], size - pos - 3);
        const std::string bytes(reinterpret_cast<const char *>(data + pos + 3), len);
        pos += 3 + len;
        const std::string type = desc->name;
        trail += "  " + type + " db " + std::to_string(db) + " flags " + std::to_string(flags) +
                 " " + std::to_string(len) + " bytes\n";
        const bool ok = decodes(desc, bytes);
        const size_t queued = platform::pending();
        int rv;
        if (db < 0) {
            rv = (flags & 2) != 0 ? platform::agent_del(type, bytes)
                                  : platform::agent_set(type, bytes);
        } else if ((flags & 2) != 0) {
            rv = platform::db_del(db, type, bytes);
        } else {
            rv = (flags & 1) != 0 ? platform::db_hmset(db, type, bytes)
                                  : platform::db_set(db, type, bytes);
        }
        if (!ok) {
            // Bytes that do not decode are refused whole: nothing stored,
            // nothing queued for any subscriber.
            if (rv == 0) fail("undecodable " + type + " accepted", trail);
            if (platform::pending() != queued)
                fail("undecodable " + type + " queued an event", trail);
            continue;
        }
        if (db >= 0 && rv != 0) fail("decodable " + type + " refused", trail);
        foreign_output = foreign_output || (target >= 7 && target <= 11 && (flags & 2) == 0);
        platform::run_until_idle();
        platform::take_log();
        if ((flags & 4) != 0) {
            dpm_stress::oracle_module().restart();
            platform::run_until_idle();
            platform::take_log();
        }
        // Records of its own output written by others are not followed (only
        // read back at a restart), so TOPO_DB may then disagree with the caches
        // by design; the caches' own structure must hold whatever arrives.
        std::string report;
        const int flags_to_check =
            foreign_output ? OracleModule::kStructure | OracleModule::kMemory : OracleModule::kAll;
        if (dpm_stress::oracle_module().check(flags_to_check, &report) != 0) fail(report, trail);
    }
    return 0;
}
