// The hardware side of a member, as a process of the unit: it confirms every
// main multicast request (u_cluster.mainmc_vlan in the member's TOPO_DB) with
// its state record (u_cluster.mainmc_vlan_st, same key and VLANs) and
// withdraws the confirmation when the request is deleted, so that the unit
// runs closed loop.
#include "responder.h"

#include <cstdio>

#include "platform_ctl.h"
#include "records.h"

namespace host {

void start_responder(int member) {
    constexpr int kTopoDb = 14;
    platform::db_watch(
        member, kTopoDb, "u_cluster.mainmc_vlan", [member](int cmd, const std::string &packed) {
            // The state record has the request's index and vlan fields under the
            // same numbers; the request's other fields are dropped.
            auto st = unpack_record(record_type("u_cluster.mainmc_vlan_st"), packed);
            if (st == nullptr) return;
            st->DiscardUnknownFields();
            std::string state;
            st->SerializeToString(&state);
            int saved = platform::db_view_member();
            platform::db_view(member);
            constexpr int kDeleted = 3;
            int rv = cmd == kDeleted ? platform::db_del(kTopoDb, "u_cluster.mainmc_vlan_st", state)
                                     : platform::db_set(kTopoDb, "u_cluster.mainmc_vlan_st", state);
            platform::db_view(saved);
            if (rv != 0)
                std::fprintf(stderr, "responder: member %d: the store refused the state\n", member);
        });
}

}  // namespace host
