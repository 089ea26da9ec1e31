// The model a picture is drawn from, internal to the pictures. Two steps:
// gather (picture_model.cpp) decodes what each member's records say about its
// chips, forwarding states, links, member lists, balance and main multicast;
// examine (picture_check.cpp) puts the members side by side: ring order, each
// link with both of its ends, the links folded by pair of ends, and every
// record that is stale or contradicts another. picture_dot.cpp writes the
// result out as DOT.
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
    auto key() const { return std::tie(card, lport); }
    bool operator<(const Port &o) const { return key() < o.key(); }
    bool operator==(const Port &o) const { return key() == o.key(); }
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

using ChoiceKey = std::pair<int64_t, int64_t>;  // (apid, chip module id)

// What one member's own databases say about it.
struct Member {
    uint32_t devid = 0;
    ProcessState process = ProcessState::unknown;
    std::map<Port, Link> links;
    std::map<int64_t, std::set<Port>> ap_members;  // by apid
    std::vector<u_cluster::kel_uc_balance> balance;
    std::map<ChoiceKey, Choice> mmc;
    std::set<ChoiceKey> mmc_confirmed;
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
    std::map<int64_t, Member> members;  // those whose records were given, by device
};

// The unit as the given members' records say.
Unit gather(const std::vector<MemberView> &views);

// Texts shared by the notes and the drawing. Ports as the dumps write them,
// DEV/SLOT/LPORT, with the sub-slot (DEV/SLOT/SSLOT/LPORT) when it is not 0.
std::string num(int64_t v);
std::string port_text(const Port &p);
std::string plural(int n, const char *one, const char *many);

// ---- the members side by side ---------------------------------------------------

// A port of a member whose records were given, as those records say.
struct OwnPort {
    int64_t apid = 0;
    const Link *link = nullptr;  // null: only in a member list
    bool listed = false;
    Load load;
    std::string mc;     // main multicast on this port: "", "confirmed", "waiting ..."
    std::string issue;  // why this port's records are flagged; empty: they agree
};

struct ApFacts {
    int listed = 0, waiting = 0, down = 0;
    Load load;
    int min_load = -1, max_load = 0;  // over the ports in the member list
    // The main multicast choices and left-over confirmations, one line each;
    // true: the line is flagged.
    std::vector<std::pair<std::string, bool>> mc;
};

struct MemberFacts {
    bool read = false;               // its records were given
    std::map<Port, OwnPort> ports;   // read members
    std::set<Port> far_ports;        // members not read: ends others' links name
    std::map<int64_t, ApFacts> aps;  // by apid
    std::vector<std::string> notes;  // flagged records, one short note each
};

// One link, as one or both of its ends' records say.
struct LinkFacts {
    Port a, b;           // a on the side of its bundle's a; one names the other
    bool up = false;     // every end that has a record says up
    bool listed = true;  // every end that has a record is in its member list
    std::string issue;   // why the ends' records are flagged; empty: they agree
};

// One end of a folded edge: a member and the aggregate port its records put
// the links in (0: the far end's records do not say).
using End = std::pair<int64_t, int64_t>;

struct Bundle {
    End a, b;
    std::vector<LinkFacts> links;
};

// Members connected by links, in ring or chain order.
struct Strand {
    std::vector<int64_t> devs;
    bool ring = false;
};

struct Facts {
    std::map<int64_t, MemberFacts> members;  // every device drawn as a member
    std::map<std::pair<End, End>, Bundle> bundles;
    std::vector<Strand> strands;  // connected first, in order; then lone members
    int flagged = 0;              // notes and flagged links in all
};

Facts examine(const Unit &unit);

}  // namespace host::pictures
