// Pictures of a unit, drawn from the databases alone: the members in ring (or
// chain) order, each with its process state and forwarding state, its VSL
// ports by aggregate port, unicast load, filters and main multicast choice;
// the links between two members folded into one edge with a count and a state
// summary (or, on request, drawn one by one); and every record that is stale or
// contradicts another flagged in red with a short note.
//
// The drawing is a pure function of the records and of what the caller knows
// about the processes, so it works for any member on any store: the caller
// hands over what each member's databases hold (a member whose records are
// given is drawn in full; the others appear as far ends and as the owners of
// chips and states). Graphviz turns the DOT text into SVG or PNG; the text
// itself is stable (the same input always gives the same text), so it can be
// compared in tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform_ctl.h"

namespace host {

// Whether a member's process runs. The records cannot tell: a stopped member's
// forwarding state stays "forward" in UDP_DB. Only whoever started the process
// knows; a picture drawn without that knowledge says so.
enum class ProcessState { unknown, running, stopped, unreachable };

// What one member's databases hold: its ASIC_DB, LOCAL_DB and TOPO_DB and the
// unit's UDP_DB, records of any other type or database are ignored.
struct MemberView {
    uint32_t devid;
    std::vector<platform::Record> records;
    ProcessState process = ProcessState::unknown;
};

// The view of the member whose module runs in this process (device `devid`);
// its process state is left unknown for the caller to fill.
MemberView local_member_view(uint32_t devid);

struct PictureOptions {
    std::string title;   // heads the picture; empty: no title
    bool links = false;  // every link on its own instead of one edge per pair of ends
};

// DOT text of the unit as the given members see it.
std::string unit_dot(const std::vector<MemberView> &members, const PictureOptions &options);
inline std::string unit_dot(const std::vector<MemberView> &members, const std::string &title) {
    return unit_dot(members, PictureOptions{title, false});
}

// Write `dot` to `path`: ".dot" as text, ".svg" and ".png" rendered by
// Graphviz. ScriptError for another suffix, a missing or failing dot, or a file
// that cannot be written. The file appears whole or not at all.
void write_picture(const std::string &dot, const std::string &path);

}  // namespace host
