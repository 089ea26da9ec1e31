// Pictures of a unit, drawn from the databases alone: each member's VSL ports
// grouped by aggregate port and card, the far end each link reaches, the
// unicast load of every port, the main multicast choice of each aggregate port
// and its confirmation, and the forwarding state of every member and VSL chip.
//
// The drawing is a pure function of the records, so it works for any member on
// any store: the caller hands over what each member's databases hold (a member
// whose links are known is drawn in full; the others appear as the far ends
// and as the owners of chips and states). Graphviz turns the DOT text into SVG
// or PNG; the text itself is stable (the same records always give the same
// text), so it can be compared in tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform_ctl.h"

namespace host {

// What one member's databases hold: its ASIC_DB, LOCAL_DB and TOPO_DB and the
// unit's UDP_DB, records of any other type or database are ignored.
struct MemberView {
    uint32_t devid;
    std::vector<platform::StoredRecord> records;
};

// The view of the member whose module runs in this process (device `devid`).
MemberView local_member_view(uint32_t devid);

// DOT text of the unit as the given members see it. `title` heads the picture.
std::string unit_dot(const std::vector<MemberView> &members, const std::string &title);

// Write `dot` to `path`: ".dot" as text, ".svg" and ".png" rendered by
// Graphviz. ScriptError for another suffix, a missing or failing dot, or a file
// that cannot be written. The file appears whole or not at all.
void write_picture(const std::string &dot, const std::string &path);

}  // namespace host
