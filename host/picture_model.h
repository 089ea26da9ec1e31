// The model a picture is drawn from: what the records of a unit's members say
// about its chips, forwarding states and, per member, links, member lists,
// balance and main multicast. Gathered from records (picture_model.cpp) and
// written out as DOT (picture_dot.cpp); internal to the pictures.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "picture.h"
#include "u_cluster.pb.h"

namespace host::pictures {

// Positions keep the records' values as they are (some fields are signed).
struct Card {
    int64_t dev, slot, sslot;
    auto key() const { return std::tie(dev, slot, sslot); }
    bool operator<(const Card &o) const { return key() < o.key(); }
    bool operator==(const Card &o) const { return key() == o.key(); }
};
struct Port {
    Card card;
    int64_t lport;
    bool operator<(const Port &o) const {
        return std::tie(card, lport) < std::tie(o.card, o.lport);
    }
};

struct Chip {
    int64_t modid = -1;
    int node_type = -1;
    std::string fwd;  // VSL chip forwarding state; empty: no record
};

struct Link {
    bool up;
    int64_t apid;
    Port peer;
};

struct Choice {
    Port local, peer;
};

struct Load {
    int count = 0;        // what the balance counts
    int main_boards = 0;  // placed, but not counted
};

// What one member's own databases say about it.
struct Member {
    uint32_t devid = 0;
    std::map<Port, Link> links;
    std::map<int64_t, std::set<Port>> ap_members;  // by apid
    std::vector<u_cluster::kel_uc_balance> balance;
    std::map<std::pair<int64_t, int64_t>, Choice> mmc;  // by (apid, chip module id)
    std::set<std::pair<int64_t, int64_t>> mmc_confirmed;
    std::map<int64_t, std::pair<int, int>> filters;  // apid: permitted, blocked module ids
    // The member's own routes of its topology map, by apid: the devices its
    // unicast goes to, the devices whose multicast comes in.
    std::map<int64_t, std::pair<std::set<int64_t>, std::set<int64_t>>> routes;
    int undecodable = 0;
};

struct Unit {
    std::map<std::pair<Card, int64_t>, Chip> chips;  // by card and unit
    std::map<int64_t, int> modid_type;
    std::map<int64_t, std::string> dev_fwd;
    std::vector<Member> members;
};

// The unit as the given members' records say.
Unit gather(const std::vector<MemberView> &views);

}  // namespace host::pictures
