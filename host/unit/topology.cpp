// The topology producer's computation (topology.h): the hop graph from the
// link records, then per member breadth-first unicast routes and the routes of
// one multicast tree per part of the unit.
#include "topology.h"

#include <algorithm>
#include <deque>
#include <sstream>
#include <tuple>

#include "p_dev.pb.h"

namespace unit {

namespace {

// Breadth-first order from `from`, neighbours in ascending device id; with
// each member's predecessor on its path.
std::vector<int> bfs(const Graph &g, int from, std::map<int, int> *parent) {
    std::vector<int> order{from};
    std::deque<int> queue{from};
    (*parent)[from] = from;
    while (!queue.empty()) {
        int m = queue.front();
        queue.pop_front();
        auto it = g.apid.find(m);
        if (it == g.apid.end()) continue;
        for (const auto &[n, apid] : it->second) {  // std::map: ascending ids
            (void)apid;
            if (parent->count(n) != 0) continue;
            (*parent)[n] = m;
            order.push_back(n);
            queue.push_back(n);
        }
    }
    return order;
}

// The neighbour of `from` on its path to `to` (parent map of a search from `from`).
int first_hop(const std::map<int, int> &parent, int from, int to) {
    int m = to;
    while (parent.at(m) != from) m = parent.at(m);
    return m;
}

}  // namespace

Graph live_graph(const std::vector<LinkEnd> &links, const std::set<int> &present) {
    Graph g;
    g.members = present;
    std::map<std::tuple<int, int, int, int>, const LinkEnd *> by_port;
    for (const auto &l : links) by_port[{l.member, l.slot, l.sslot, l.port}] = &l;
    for (const auto &l : links) {
        if (!l.up || present.count(l.member) == 0 || present.count(l.peer_member) == 0) continue;
        if (l.apid != 1 && l.apid != 2) continue;
        auto it = by_port.find({l.peer_member, l.peer_slot, l.peer_sslot, l.peer_port});
        if (it == by_port.end()) continue;
        const LinkEnd &p = *it->second;
        if (!p.up || p.peer_member != l.member || p.peer_slot != l.slot ||
            p.peer_sslot != l.sslot || p.peer_port != l.port)
            continue;
        // The first live link of the hop names its aggregate port.
        g.apid[l.member].emplace(l.peer_member, l.apid);
    }
    return g;
}

std::map<int, Map> compute_maps(const Graph &g) {
    std::map<int, Map> maps;
    std::set<int> done;
    for (int root : g.members) {
        if (done.count(root) != 0) continue;
        // One part of the unit: its multicast tree is the breadth-first tree
        // from its lowest member.
        std::map<int, int> tree_parent;
        std::vector<int> part = bfs(g, root, &tree_parent);
        done.insert(part.begin(), part.end());
        if (part.size() < 2) continue;
        std::map<int, std::set<int>> tree;
        size_t hops = 0;
        for (int m : part) {
            if (tree_parent[m] != m) {
                tree[m].insert(tree_parent[m]);
                tree[tree_parent[m]].insert(m);
            }
            hops += g.apid.at(m).size();
        }
        const bool ring = hops / 2 >= part.size();
        Graph tree_graph;
        for (const auto &[m, ns] : tree) {
            for (int n : ns) tree_graph.apid[m][n] = g.apid.at(m).at(n);
        }
        for (int m : part) {
            Map map;
            map.owner = m;
            map.shape = ring ? 1 : 0;
            std::map<int, int> parent;
            for (int d : bfs(g, m, &parent)) {
                if (d != m) map.fibs.push_back({m, d, g.apid.at(m).at(first_hop(parent, m, d))});
            }
            std::map<int, int> tparent;
            for (int s : bfs(tree_graph, m, &tparent)) {
                if (s == m) continue;
                int toward = first_hop(tparent, m, s);
                Mfib f{m, s, tree_graph.apid.at(m).at(toward), {}};
                for (int n : tree[m]) {
                    if (n != toward) f.oifs.push_back(tree_graph.apid.at(m).at(n));
                }
                if (f.oifs.empty()) f.oifs.push_back(f.iif);  // a leaf
                map.mfibs.push_back(f);
            }
            maps[m] = map;
        }
    }
    return maps;
}

std::string map_packed(const Map &m) {
    p_dev::dtm_route_info r;
    r.set_local_id(m.owner);
    r.set_shape(m.shape);
    r.set_fib_num(static_cast<int>(m.fibs.size()));
    r.set_mfib_num(static_cast<int>(m.mfibs.size()));
    for (const auto &f : m.fibs) {
        auto *x = r.add_fibs();
        x->set_owner_mid(f.owner);
        x->set_dst_id(f.dst);
        x->set_oif_id(f.oif);
    }
    for (const auto &f : m.mfibs) {
        auto *x = r.add_mfibs();
        x->set_owner_mid(f.owner);
        x->set_src_id(f.src);
        x->set_iif_id(f.iif);
        for (int o : f.oifs) x->add_oif_id(o);
    }
    return r.SerializeAsString();
}

bool map_from_packed(const std::string &packed, Map *out) {
    p_dev::dtm_route_info r;
    if (!r.ParseFromString(packed)) return false;
    *out = Map{};
    out->owner = r.local_id();
    out->shape = r.shape();
    for (const auto &f : r.fibs()) out->fibs.push_back({f.owner_mid(), f.dst_id(), f.oif_id()});
    for (const auto &f : r.mfibs()) {
        out->mfibs.push_back(
            {f.owner_mid(), f.src_id(), f.iif_id(), {f.oif_id().begin(), f.oif_id().end()}});
    }
    return true;
}

std::string map_record_type(int ring_cut) {
    return ring_cut == 1 ? "p_dev.dtm_fiap_route_info" : "p_dev.dtm_route_info";
}

std::string map_text(const Map &m) {
    std::ostringstream os;
    os << "{ local_id: " << m.owner << " shape: " << m.shape;
    for (const auto &f : m.fibs)
        os << " fibs { owner_mid: " << f.owner << " dst_id: " << f.dst << " oif_id: " << f.oif
           << " }";
    for (const auto &f : m.mfibs) {
        os << " mfibs { owner_mid: " << f.owner << " src_id: " << f.src << " iif_id: " << f.iif;
        for (int o : f.oifs) os << " oif_id: " << o;
        os << " }";
    }
    os << " }";
    return os.str();
}

}  // namespace unit
