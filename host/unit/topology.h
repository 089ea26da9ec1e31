// What the topology producer computes: from the VSL links that are up at both
// ends and the members that are in the unit, each member's topology map (its
// unicast routes and multicast routes). The check computes the same maps to
// judge what the producer wrote.
//
// Rules:
// - A hop joins members M and N when at least one link is up at both ends,
//   each end's record naming the other end; M reaches N through the aggregate
//   port of M's end (all links of a hop share one aggregate port per end).
// - Unicast: each member routes to every member it can reach over the
//   shortest path; the route's out-interface is the aggregate port of the
//   first hop. Of equal paths, the one through the lower device id is taken.
//   Routes are listed nearest first.
// - Multicast: one loop-free tree per connected part of the unit: the
//   breadth-first tree from its lowest device id (a ring is cut at the hop
//   farthest from that member). A member's route for source S comes in through
//   the aggregate port toward S on the tree and goes out through its other tree
//   ports; a leaf lists the incoming port as its one out-interface.
// - A member alone in its part gets no map (a map without multicast routes is
//   refused by the module); its last map stays.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace unit {

struct Fib {
    int owner, dst, oif;
    bool operator==(const Fib &) const = default;
};
struct Mfib {
    int owner, src, iif;
    std::vector<int> oifs;
    bool operator==(const Mfib &) const = default;
};
struct Map {
    int owner = 0;
    int shape = 0;  // 0 a chain (a tree), 1 the part holds a ring
    std::vector<Fib> fibs;
    std::vector<Mfib> mfibs;
    bool operator==(const Map &) const = default;
};

// A member's link record as the producer reads it.
struct LinkEnd {
    int member, slot, sslot, port;
    bool up;
    int apid;
    int peer_member, peer_slot, peer_sslot, peer_port;
};

// Hops: for each member M, the members it reaches directly and through which
// of its aggregate ports.
struct Graph {
    std::set<int> members;
    std::map<int, std::map<int, int>> apid;  // apid[M][N]
};

Graph live_graph(const std::vector<LinkEnd> &links, const std::set<int> &present);
// The maps of every member that has at least one other member in its part.
std::map<int, Map> compute_maps(const Graph &g);

// The record's wire form (p_dev.dtm_route_info; p_dev.dtm_fiap_route_info has
// the same field numbers) and back. from_packed: false when it does not decode.
std::string map_packed(const Map &m);
bool map_from_packed(const std::string &packed, Map *out);
std::string map_record_type(int ring_cut);
std::string map_text(const Map &m);

}  // namespace unit
