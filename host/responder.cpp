// The hardware side of a member, as a process of the unit: it confirms every
// main multicast request (u_cluster.mainmc_vlan in the member's TOPO_DB) with
// its state record (u_cluster.mainmc_vlan_st, same key and VLANs) and
// withdraws the confirmation when the request is deleted, so that the unit
// runs closed loop.
//
// It reconciles on start, since requests and deletions made while it was away
// reached nobody: every stored request without its confirmation is confirmed,
// every stored confirmation without a request is withdrawn (the module waits
// for that withdrawal before it chooses again).
#include "responder.h"

#include <cstdio>
#include <map>
#include <memory>

#include "platform_ctl.h"
#include "record_text.h"

namespace host {

namespace {

constexpr int kTopoDb = 14;
constexpr int kDeleted = 3;
const char *const kState = "u_cluster.mainmc_vlan_st";

// What the hardware side knows of one member: the requests and the
// confirmations it has written, by the records' index.
struct Side {
    int member;
    std::map<std::string, std::string> requests, confirmed;
    size_t confirmed_now = 0;
};

std::string index_of(const google::protobuf::Message &m) {
    const auto *f = m.GetDescriptor()->FindFieldByName("index");
    return m.GetReflection()->GetMessage(m, f).SerializeAsString();
}

int write_state(int member, bool del, const std::string &state) {
    int saved = platform::db_view_member();
    platform::db_view(member);
    int rv =
        del ? platform::db_del(kTopoDb, kState, state) : platform::db_set(kTopoDb, kState, state);
    platform::db_view(saved);
    if (rv != 0)
        std::fprintf(stderr, "responder: member %d: the store refused the state\n", member);
    return rv;
}

}  // namespace

void start_responder(int member) {
    auto side = std::make_shared<Side>();
    side->member = member;
    int saved = platform::db_view_member();
    platform::db_view(member);
    for (const auto &s : platform::db_records(kTopoDb, kState)) {
        auto st = unpack_record(record_type(kState), s.packed);
        if (st != nullptr) side->confirmed[index_of(*st)] = st->SerializeAsString();
    }
    platform::db_view(saved);
    const size_t stored = side->confirmed.size();
    platform::db_watch(member, kTopoDb, "u_cluster.mainmc_vlan",
                       [side](int cmd, const std::string &packed) {
                           // The state record has the request's index and vlan fields
                           // under the same numbers; the request's other fields are
                           // dropped.
                           auto st = unpack_record(record_type(kState), packed);
                           if (st == nullptr) return;
                           st->DiscardUnknownFields();
                           std::string state = st->SerializeAsString();
                           std::string key = index_of(*st);
                           if (cmd == kDeleted) {
                               side->requests.erase(key);
                               side->confirmed.erase(key);
                               write_state(side->member, true, state);
                               return;
                           }
                           side->requests[key] = state;
                           auto it = side->confirmed.find(key);
                           if (it != side->confirmed.end() && it->second == state) return;
                           if (write_state(side->member, false, state) == 0) {
                               side->confirmed[key] = state;
                               ++side->confirmed_now;
                           }
                       });
    // The stored requests come first: once they are in, a confirmation that
    // answers none of them is stale.
    platform::run_until_idle();
    size_t withdrawn = 0;
    for (auto it = side->confirmed.begin(); it != side->confirmed.end();) {
        if (side->requests.count(it->first) != 0) {
            ++it;
            continue;
        }
        write_state(member, true, it->second);
        it = side->confirmed.erase(it);
        ++withdrawn;
    }
    std::printf(
        "responder: member %d: %zu request(s), %zu confirmation(s) stored; %zu "
        "confirmed, %zu withdrawn\n",
        member, side->requests.size(), stored, side->confirmed_now, withdrawn);
    std::fflush(stdout);
}

}  // namespace host
