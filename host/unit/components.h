// The components of a unit around the data-plane module, played by dpm-unit
// through the object-database client: the hardware that announces cards
// (module events), their module ids (ASIC_DB) and the forwarding state of the
// VSL chips (UDP_DB), and the link monitor that writes each member's VSL link
// states (LOCAL_DB). Faults are changes of these records, as a real unit makes
// them: a card taken out takes its links down at both ends first.
#pragma once

#include <set>
#include <string>
#include <tuple>

#include "unit_file.h"

namespace unit {

class Components {
  public:
    explicit Components(const Unit &u) : u_(u) {}

    // The port table, every card, module id, VSL chip state and link, all
    // present and up.
    void bring_up();
    void set_link(const End &one_end, bool up);
    void set_hop(int m, int n, bool up);
    void set_card(const Card &c, bool in);
    // A member starting again: its VSL chips announce their state again (a
    // master may have deleted them while the member was away).
    void announce_chips(int member);

    bool link_up(const Link &l) const;
    bool card_in(int member, int slot, int sslot) const;

  private:
    void write_links();
    void write_end(const End &e, const End &peer, bool up);

    const Unit &u_;
    std::set<std::tuple<int, int, int, int>> links_down_;  // by the link's a end
    std::set<std::pair<int, int>> hops_down_;              // (lower id, higher id)
    std::set<std::tuple<int, int, int>> cards_out_;
    std::set<std::tuple<int, int, int, int>> written_up_;  // ends last written up
    std::set<std::tuple<int, int, int, int>> written_;     // ends written at all
};

// The script each member's dpm-host plays before it serves: the log level,
// the ring-cut type, the node type, the role, then the module's start. The
// port table is the unit's, shared through the server (bring_up).
std::string member_script(const Unit &u, int member, int log_level);

}  // namespace unit
