// What the unit-wide check looks at: the unit's records indexed once (module
// ids by device, the chip of each card, the chips that forward, each member's
// links, member lists and routes), with the lookups its rules share.
#pragma once

#include <bitset>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>

#include "topology.h"
#include "unit_records.h"

namespace unit {

using Bits = std::bitset<2048>;
using Card = std::tuple<int, int, int>;  // device, slot, sub-slot
using Port = std::tuple<int, int, int, int>;

template <typename Words>
Bits bits_of(const Words &w) {
    Bits b;
    for (int i = 0; i < w.size() && i < 64; ++i) {
        for (int j = 0; j < 32; ++j) {
            if ((w.Get(i) >> j) & 1U) b.set(static_cast<size_t>(i) * 32 + static_cast<size_t>(j));
        }
    }
    return b;
}

// "3 module ids: 1-2, 7"
std::string ids_text(const Bits &b);
std::string port_text(const Port &p);
Port port_of(const p_dev::vsl_local_link &l);
Port port_of(const u_cluster::vslport &p);

// One member as the rules see it.
struct View {
    const MemberRecords *r = nullptr;
    std::map<Port, const p_dev::vsl_local_link *> links;
    std::map<int, std::set<Port>> ap;  // the member lists, by apid
    std::map<int, int> route;          // destination device -> out apid (first own route)
    bool map_valid = false;
};

struct UnitIndex {
    explicit UnitIndex(const UnitRecords &u);

    int chip(int dev, int slot, int sslot) const;
    int chip(const Port &p) const { return chip(std::get<0>(p), std::get<1>(p), std::get<2>(p)); }
    std::string link_text(const View &v, const Port &p) const;
    // The far end of a member's port, from its link record.
    std::optional<Port> peer(const View &v, const Port &p) const;
    // The member an aggregate port leads to, and the apid at that end.
    std::optional<std::pair<int, int>> across(const View &v, int apid) const;
    Bits igr(const View &v, int a) const;
    Bits egr(const View &v, int a) const;
    // The confirmation of a request: same key, same VLANs.
    const u_cluster::mainmc_vlan_st *confirmed(const View &v,
                                               const u_cluster::mainmc_vlan &r) const;

    const UnitRecords &u_;
    std::map<int, Bits> modids_;        // by device
    std::map<int, int> type_, dev_of_;  // by module id
    std::map<Card, int> chip_;
    std::set<Card> forwarding_;
    std::map<int, View> views_;
    Graph graph_;
};

}  // namespace unit
