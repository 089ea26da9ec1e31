// Writing the picture model out as DOT (see picture.h), in key order, so that
// the same records always give the same text.
#include <algorithm>
#include <sstream>

#include "p_dev.pb.h"
#include "picture.h"
#include "picture_model.h"

namespace host {

namespace pictures {

namespace {

// ---- text -----------------------------------------------------------------------

std::string html(const std::string &s) {
    std::string out;
    for (char ch : s) {
        switch (ch) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += static_cast<unsigned char>(ch) < 0x20 ? ' ' : ch;
        }
    }
    return out;
}

std::string num(int64_t v) {
    return std::to_string(v);
}

// Ports as the dumps write them, dev/slot/port; the sub-slot only when set.
std::string port_text(const Port &p) {
    const Card &c = p.card;
    return num(c.dev) + "/" + num(c.slot) + "/" + (c.sslot != 0 ? num(c.sslot) + "/" : "") +
           num(p.lport);
}
std::string card_text(const Card &c) {
    return num(c.dev) + "/" + num(c.slot) + (c.sslot != 0 ? "/" + num(c.sslot) : "");
}

std::string port_id(const Port &p) {
    return "\"port " + num(p.card.dev) + "/" + num(p.card.slot) + "/" + num(p.card.sslot) + "/" +
           num(p.lport) + "\"";
}

// "2-4, 7"
std::string devices_text(const std::set<int64_t> &devs) {
    std::string s;
    for (auto it = devs.begin(); it != devs.end();) {
        int64_t first = *it, last = *it;
        while (++it != devs.end() && *it == last + 1) last = *it;
        s += (s.empty() ? "" : ", ") + num(first) + (last > first ? "-" + num(last) : "");
    }
    return s;
}

std::string plural(int n, const char *one, const char *many) {
    return num(n) + " " + (n == 1 ? one : many);
}

// Fill colours of the forwarding-state words; anything else is shown as it is.
const char *state_colour(const std::string &s) {
    if (s == "forward") return "#d9f0d3";
    if (s == "part_forward") return "#fff7bc";
    if (s == "block") return "#fbb4ae";
    if (s == "timeout") return "#fdd0a2";
    return "#eeeeee";
}
std::string state_text(const std::string &s) {
    return s.empty() ? "no state" : html(s);
}

const char *const kMember = "#a6dba0";
const char *const kWaiting = "#fdd49e";
const char *const kDown = "#dddddd";
const char *const kOdd = "#f4a582";
const char *const kMainMc = "#2166ac";

// ---- drawing ---------------------------------------------------------------------

class Drawing {
  public:
    Drawing(Unit u, std::string title) : u_(std::move(u)), title_(std::move(title)) { index(); }
    std::string dot();

  private:
    struct OwnPort {
        int64_t apid;
        const Link *link;  // null: only in a member list
        bool listed;
        Load load;
        std::string mc;  // "", "confirmed", "waiting for confirmation"
    };
    struct Ap {
        std::map<Card, std::vector<Port>> cards;
        int listed = 0, waiting = 0, down = 0;
        Load load;
        int off_port = 0;  // balance records on a port that is not drawn
        std::vector<std::string> mc_lines;
    };

    void index();
    void index_member(const Member &m);
    std::string chips_of(const Card &c) const;
    std::pair<std::string, std::string> member_summary(int64_t dev) const;
    bool has_ports(int64_t dev) const;
    void other_members();
    void member_cluster(int64_t dev);
    void port_node(const Port &p, const OwnPort &o);
    void edges();

    const Unit u_;
    std::string title_;
    std::ostringstream out_;
    std::map<int64_t, Card> modid_card_;
    std::set<int64_t> devs_;
    std::map<Port, OwnPort> own_;                            // every member's own ports
    std::map<int64_t, std::map<int64_t, Ap>> aps_;           // by member, apid
    std::map<int64_t, std::map<Card, std::set<Port>>> far_;  // far ends by member, card
};

void Drawing::index() {
    for (const auto &[k, c] : u_.chips) {
        devs_.insert(k.first.dev);
        if (c.modid >= 0) modid_card_.emplace(c.modid, k.first);
    }
    for (const auto &[dev, s] : u_.dev_fwd) devs_.insert(dev);
    for (const auto &m : u_.members) index_member(m);
    // Far ends: peers that no member draws as its own port.
    for (const auto &m : u_.members) {
        for (const auto &[p, l] : m.links) {
            if (!own_.count(l.peer)) far_[l.peer.card.dev][l.peer.card].insert(l.peer);
            devs_.insert(l.peer.card.dev);
        }
    }
}

void Drawing::index_member(const Member &m) {
    devs_.insert(m.devid);
    auto &aps = aps_[m.devid];
    std::map<Port, OwnPort> mine;
    for (const auto &[p, l] : m.links) {
        bool listed = m.ap_members.count(l.apid) && m.ap_members.at(l.apid).count(p);
        mine.emplace(p, OwnPort{l.apid, &l, listed, {}, ""});
    }
    for (const auto &[apid, ports] : m.ap_members) {
        for (const auto &p : ports) mine.emplace(p, OwnPort{apid, nullptr, true, {}, ""});
    }
    for (const auto &b : m.balance) {
        auto type = u_.modid_type.find(b.index().modid());
        bool main_board = type != u_.modid_type.end() && type->second == p_dev::DM_TYPE_MB;
        Ap &ap = aps[b.apid()];
        (main_board ? ap.load.main_boards : ap.load.count)++;
        auto card = modid_card_.find(b.local_modid());
        auto own = card == modid_card_.end() ? mine.end() : mine.find({card->second, b.lport()});
        if (own == mine.end() || own->second.apid != b.apid()) {
            ++ap.off_port;
            continue;
        }
        (main_board ? own->second.load.main_boards : own->second.load.count)++;
    }
    // The choice is keyed by its chip: the port it names stays as written when
    // another port of that chip takes over, so the port's link is shown beside it.
    for (const auto &[key, choice] : m.mmc) {
        bool confirmed = m.mmc_confirmed.count(key) > 0;
        std::string how = confirmed ? "confirmed" : "waiting for confirmation";
        auto own = mine.find(choice.local);
        bool up = own != mine.end() && own->second.link != nullptr && own->second.link->up;
        aps[key.first].mc_lines.push_back("main multicast: chip " + num(key.second) + ", " + how +
                                          "; names " + port_text(choice.local) + " to " +
                                          port_text(choice.peer) + (up ? "" : " (not up)"));
        if (own != mine.end()) own->second.mc = how;
    }
    for (const auto &key : m.mmc_confirmed) {
        if (m.mmc.count(key)) continue;
        aps[key.first].mc_lines.push_back("main multicast of chip " + num(key.second) +
                                          " withdrawn, its confirmation is still there");
    }
    for (const auto &[apid, f] : m.filters) (void)aps[apid];
    for (const auto &[apid, r] : m.routes) (void)aps[apid];
    for (auto &[p, o] : mine) {
        if (!own_.emplace(p, o).second) continue;  // another member drew it first
        Ap &ap = aps[o.apid];
        ap.cards[p.card].push_back(p);
        if (o.link != nullptr && !o.link->up) {
            ++ap.down;
        } else if (o.listed) {
            ++ap.listed;
        } else {
            ++ap.waiting;
        }
    }
    for (auto &[apid, ap] : aps) {
        if (ap.mc_lines.empty()) ap.mc_lines.emplace_back("main multicast: none");
    }
}

// "chip 3, forward" for the chips of one card.
std::string Drawing::chips_of(const Card &c) const {
    std::string s;
    for (auto it = u_.chips.lower_bound({c, INT64_MIN});
         it != u_.chips.end() && it->first.first == c; ++it) {
        const Chip &chip = it->second;
        if (!s.empty()) s += "; ";
        s += "chip " + (chip.modid >= 0 ? num(chip.modid) : "?");
        if (chip.node_type == p_dev::DM_TYPE_MB) s += ", main board";
        s += ", " + (chip.fwd.empty() ? std::string("no VSL chip state") : html(chip.fwd));
    }
    return s.empty() ? "no module id" : s;
}

void Drawing::port_node(const Port &p, const OwnPort &o) {
    const char *fill = kMember;
    std::string state = "member";
    if (o.link == nullptr) {
        fill = kOdd;
        state = "member, no link record";
    } else if (!o.link->up) {
        fill = o.listed ? kOdd : kDown;
        state = o.listed ? "member, link down" : "down";
    } else if (!o.listed) {
        fill = kWaiting;
        state = "waiting";
    }
    std::string load = "load " + num(o.load.count);
    if (o.load.main_boards > 0) load += " +" + num(o.load.main_boards) + " main board";
    bool mc = !o.mc.empty();
    out_ << "      " << port_id(p) << " [label=<<table border=\"" << (mc ? 3 : 1) << "\" color=\""
         << (mc ? kMainMc : "black") << "\" cellborder=\"0\" cellspacing=\"0\" cellpadding=\"3\""
         << " bgcolor=\"" << fill << "\"><tr><td><b>" << port_text(p) << "</b></td><td>" << state
         << "</td><td>" << load << "</td></tr>";
    if (mc) {
        out_ << "<tr><td colspan=\"3\" bgcolor=\"" << (o.mc == "confirmed" ? "#c6dbef" : "#fff7bc")
             << "\">main multicast, " << o.mc << "</td></tr>";
    }
    out_ << "</table>>];\n";
}

// The forwarding state of a member and a line that counts its chips.
std::pair<std::string, std::string> Drawing::member_summary(int64_t dev) const {
    auto fwd = u_.dev_fwd.find(dev);
    std::string state = fwd == u_.dev_fwd.end() ? "" : fwd->second;
    int chips = 0, main_boards = 0;
    std::map<std::string, int> vsl_chips;
    for (const auto &[k, c] : u_.chips) {
        if (k.first.dev != dev) continue;
        ++chips;
        if (c.node_type == p_dev::DM_TYPE_MB) ++main_boards;
        if (!c.fwd.empty()) ++vsl_chips[c.fwd];
    }
    std::string summary = plural(chips, "chip", "chips");
    if (main_boards > 0) summary += " (" + num(main_boards) + " main board)";
    summary += ", VSL chips:";
    if (vsl_chips.empty()) summary += " none";
    for (const auto &[s, n] : vsl_chips) summary += " " + num(n) + " " + html(s);
    return {state, summary};
}

bool Drawing::has_ports(int64_t dev) const {
    auto aps = aps_.find(dev);
    return (aps != aps_.end() && !aps->second.empty()) || far_.count(dev) > 0;
}

// Members without a port to draw: one box for all those that read the same,
// so that a large unit stays a short list.
void Drawing::other_members() {
    std::map<std::pair<std::string, std::string>, std::set<int64_t>> alike;
    for (int64_t dev : devs_) {
        if (!has_ports(dev)) alike[member_summary(dev)].insert(dev);
    }
    // Graphviz stacks the boxes of one column bottom up in the order they
    // come, so the lowest device ids come last to stand on top.
    std::map<int64_t, std::pair<std::string, std::string>, std::greater<>> by_first;
    for (const auto &[summary, devs] : alike) by_first.emplace(*devs.begin(), summary);
    for (const auto &[first, summary] : by_first) {
        const std::set<int64_t> &devs = alike.at(summary);
        const auto &[state, counts] = summary;
        std::string who = (devs.size() == 1 ? "member " : "members ") + devices_text(devs);
        out_ << "  \"" << who << "\" [shape=box, style=\"filled,rounded\", fillcolor=\""
             << state_colour(state) << "\", label=<<font point-size=\"14\"><b>" << who
             << "</b>: " << state_text(state) << "</font><br/>" << (devs.size() == 1 ? "" : "each ")
             << counts << ">];\n";
    }
}

void Drawing::member_cluster(int64_t dev) {
    auto [state, summary] = member_summary(dev);
    std::string label = "<font point-size=\"14\"><b>member " + num(dev) +
                        "</b>: " + state_text(state) + "</font><br/>" + summary;
    auto aps = aps_.find(dev);
    auto far = far_.find(dev);
    out_ << "  subgraph \"cluster member " << dev << "\" {\n"
         << "    label=<" << label << ">; style=\"filled,rounded\"; fillcolor=\""
         << state_colour(state) << "\";\n";
    if (aps != aps_.end()) {
        const Member *m = nullptr;
        for (const auto &x : u_.members) {
            if (x.devid == dev && m == nullptr) m = &x;
        }
        for (const auto &[apid, ap] : aps->second) {
            std::string ports;
            for (auto [n, what] :
                 {std::pair{ap.listed, " in member list"}, std::pair{ap.waiting, " waiting"},
                  std::pair{ap.down, " down"}}) {
                if (n > 0) ports += (ports.empty() ? "" : ", ") + num(n) + what;
            }
            std::string l =
                "<b>apid " + num(apid) + "</b>: " + (ports.empty() ? "no port" : ports) +
                "<br align=\"left\"/>unicast: " + plural(ap.load.count, "module id", "module ids");
            if (ap.load.main_boards > 0) l += " +" + num(ap.load.main_boards) + " main board";
            if (ap.off_port > 0) l += " (" + num(ap.off_port) + " on a port not drawn)";
            l += "<br align=\"left\"/>";
            if (m != nullptr && m->routes.count(apid)) {
                const auto &[to, from] = m->routes.at(apid);
                std::string r;
                if (!to.empty()) r += "unicast to " + devices_text(to);
                if (!from.empty()) {
                    r += std::string(r.empty() ? "" : ", ") + "multicast in from " +
                         devices_text(from);
                }
                l += "topology map: " + r + "<br align=\"left\"/>";
            }
            if (m != nullptr && m->filters.count(apid)) {
                const auto &f = m->filters.at(apid);
                l += "ingress permits " + num(f.first) + ", egress blocks " + num(f.second) +
                     " module ids<br align=\"left\"/>";
            }
            for (const auto &mc : ap.mc_lines) l += mc + "<br align=\"left\"/>";
            out_ << "    subgraph \"cluster member " << dev << " apid " << apid << "\" {\n"
                 << "      label=<" << l << ">; style=filled; fillcolor=white;\n";
            if (ap.cards.empty()) {
                out_ << "      \"member " << dev << " apid " << apid
                     << " no port\" [shape=box, style=dashed, label=\"no port\"];\n";
            }
            for (const auto &[card, ports] : ap.cards) {
                out_ << "      subgraph \"cluster member " << dev << " apid " << apid << " card "
                     << card_text(card) << "\" {\n"
                     << "      label=<card " << card_text(card) << ": " << chips_of(card)
                     << ">; style=dashed;\n";
                for (const auto &p : ports) port_node(p, own_.at(p));
                out_ << "      }\n";
            }
            out_ << "    }\n";
        }
    }
    if (far != far_.end()) {
        for (const auto &[card, ports] : far->second) {
            out_ << "    subgraph \"cluster member " << dev << " far card " << card_text(card)
                 << "\" {\n"
                 << "      label=<card " << card_text(card) << ": " << chips_of(card)
                 << ">; style=\"filled,dashed\"; fillcolor=white;\n";
            for (const auto &p : ports) {
                out_ << "      " << port_id(p) << " [label=<<table border=\"1\" cellborder=\"0\""
                     << " cellpadding=\"3\"><tr><td><b>" << port_text(p)
                     << "</b></td></tr></table>>];\n";
            }
            out_ << "    }\n";
        }
    }
    out_ << "  }\n";
}

void Drawing::edges() {
    std::set<std::pair<Port, Port>> drawn;
    for (const auto &m : u_.members) {
        std::set<Port> mc_ports;
        for (const auto &[key, choice] : m.mmc) mc_ports.insert(choice.local);
        for (const auto &[p, l] : m.links) {
            if (!drawn.insert(std::minmax(p, l.peer)).second) continue;
            const OwnPort &o = own_.at(p);
            std::string attrs;
            if (!l.up) {
                attrs = "color=\"#999999\", style=dotted";
            } else if (mc_ports.count(p)) {
                attrs = std::string("color=\"") + kMainMc + "\", penwidth=3";
            } else if (o.listed) {
                attrs = "color=\"#1b7837\", penwidth=1.5";
            } else {
                attrs = "color=\"#e08214\", style=dashed";
            }
            out_ << "  " << port_id(p) << " -> " << port_id(l.peer) << " [" << attrs << "];\n";
        }
    }
}

std::string Drawing::dot() {
    std::string who;
    int undecodable = 0;
    for (const auto &m : u_.members) {
        who += (who.empty() ? "" : ", ") + num(m.devid);
        undecodable += m.undecodable;
    }
    int main_boards = 0;
    for (const auto &[modid, type] : u_.modid_type) main_boards += type == p_dev::DM_TYPE_MB;
    // Graphviz refuses an empty <b></b>.
    std::string label =
        title_.empty() ? "" : "<font point-size=\"16\"><b>" + html(title_) + "</b></font><br/>";
    label += std::string("as the databases of member") + (u_.members.size() == 1 ? " " : "s ") +
             who +
             " say: " + plural(static_cast<int>(u_.modid_type.size()), "module id", "module ids") +
             " (" + num(main_boards) + " main board)";
    if (undecodable > 0) {
        label += "<br/><font color=\"red\">" +
                 plural(undecodable, "record does not decode", "records do not decode") +
                 " (left out)</font>";
    }
    label +=
        "<br/><font point-size=\"10\">ports: green in the member list, orange waiting (link up, "
        "not in the list), grey link down, red inconsistent; blue: main multicast</font>";

    out_ << "digraph unit {\n"
         << "  graph [rankdir=LR, newrank=true, ranksep=1.2, nodesep=0.12, labelloc=t,"
         << " fontname=\"Helvetica\", fontsize=11, label=<" << label << ">];\n"
         << "  node [shape=plain, fontname=\"Helvetica\", fontsize=10];\n"
         << "  edge [dir=none];\n";
    other_members();
    for (int64_t dev : devs_) {
        if (has_ports(dev)) member_cluster(dev);
    }
    edges();
    out_ << "}\n";
    return out_.str();
}

}  // namespace

}  // namespace pictures

std::string unit_dot(const std::vector<MemberView> &members, const std::string &title) {
    return pictures::Drawing(pictures::gather(members), title).dot();
}

}  // namespace host
