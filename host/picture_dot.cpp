// Writing what the members' records say (picture_model.h) out as DOT, in key
// order, so that the same records always give the same text. One node per
// member, laid out top down in ring order folded in two columns (a ring of 8
// is five rows: 1; 2 and 8; 3 and 7; 4 and 6; 5), so that every ring or chain
// edge joins neighbouring rows and the width stays that of two members.
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
        const char *entity = ch == '&'   ? "&amp;"
                             : ch == '<' ? "&lt;"
                             : ch == '>' ? "&gt;"
                             : ch == '"' ? "&quot;"
                                         : nullptr;
        if (entity != nullptr) {
            out += entity;
        } else {
            out += static_cast<unsigned char>(ch) < 0x20 ? ' ' : ch;
        }
    }
    return out;
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

// "3, 2 in member list, 1 down": the non-zero counts, in the order given.
std::string counts_text(std::initializer_list<std::pair<int, const char *>> counts) {
    std::string s;
    for (const auto &[n, what] : counts) {
        if (n > 0) s += (s.empty() ? "" : ", ") + num(n) + " " + what;
    }
    return s;
}

std::string node_id(int64_t dev) {
    return "\"member " + num(dev) + "\"";
}
std::string port_name(const Port &p) {
    return "p" + num(p.card.dev) + "_" + num(p.card.slot) + "_" + num(p.card.sslot) + "_" +
           num(p.lport);
}

// Member headers: the forwarding state's colour only while the process is
// known to run; a record alone never paints a member "forward".
const char *fwd_colour(const std::string &s) {
    if (s == "forward") return "#a6dba0";
    if (s == "part_forward") return "#ffffb3";
    if (s == "block") return "#fb8072";
    if (s == "timeout") return "#fdb462";
    return "#eeeeee";
}
const char *const kStopped = "#bdbdbd";
const char *const kUnreachable = "#bc80bd";
const char *const kUnknown = "#ffffff";

// Ports and links.
const char *const kListed = "#1b7837";
const char *const kListedFill = "#d9f0d3";
const char *const kWaiting = "#e08214";
const char *const kWaitingFill = "#fdd49e";
const char *const kDown = "#999999";
const char *const kDownFill = "#eeeeee";
const char *const kFlag = "#d7301f";
const char *const kFlagFill = "#fee0d2";
const char *const kMainMc = "#2166ac";

// Text in the colour of flagged records.
std::string flag(const std::string &text) {
    return "<font color=\"" + std::string(kFlag) + "\">" + text + "</font>";
}

// The attributes of an edge: flagged, down, up but not listed, or listed.
std::string edge_style(bool flagged, bool up, bool listed) {
    return flagged   ? std::string("color=\"") + kFlag + "\""
           : !up     ? std::string("color=\"") + kDown + "\", style=dotted"
           : !listed ? std::string("color=\"") + kWaiting + "\", style=dashed"
                     : std::string("color=\"") + kListed + "\"";
}

// ---- drawing ---------------------------------------------------------------------

class Drawing {
  public:
    Drawing(const Unit &u, const Facts &f, PictureOptions o) : u_(u), f_(f), o_(std::move(o)) {}
    std::string dot();

  private:
    std::pair<std::string, const char *> header(int64_t dev) const;
    std::string chips_line(int64_t dev) const;
    std::string ap_cell(int64_t dev, int64_t apid, const ApFacts &ap) const;
    std::string port_row(const Port &p, const OwnPort &o) const;
    void member_node(int64_t dev);
    void other_devices();
    void legend();
    void layout();
    void bundle_edge(const Bundle &b);
    void link_edge(const LinkFacts &l);
    std::string port_end(const Port &p) const;
    bool before(int64_t a, int64_t b) const;

    const Unit &u_;
    const Facts &f_;
    PictureOptions o_;
    std::ostringstream out_;
    std::vector<std::vector<std::string>> rows_;          // node ids, top down, left to right
    std::map<int64_t, std::pair<size_t, size_t>> place_;  // member: row, column
};

// The member's process and forwarding state, and the header's colour.
std::pair<std::string, const char *> Drawing::header(int64_t dev) const {
    auto m = u_.members.find(dev);
    ProcessState ps = m == u_.members.end() ? ProcessState::unknown : m->second.process;
    auto fwd = u_.dev_fwd.find(dev);
    std::string state = fwd == u_.dev_fwd.end() ? "" : html(fwd->second);
    switch (ps) {
        case ProcessState::running:
            return {"running, " + (state.empty() ? "no forwarding state" : state),
                    fwd_colour(state)};
        case ProcessState::stopped:
            return {"stopped" + (state.empty() ? "" : ", " + state + " (stale record)"), kStopped};
        case ProcessState::unreachable:
            return {"unreachable" + (state.empty() ? "" : ", " + state + " (record)"),
                    kUnreachable};
        case ProcessState::unknown:
            break;
    }
    return {"process not known" + (state.empty() ? "" : ", record: " + state), kUnknown};
}

std::string Drawing::chips_line(int64_t dev) const {
    int chips = 0, main_boards = 0;
    std::map<std::string, int> vsl;
    for (const auto &[k, c] : u_.chips) {
        if (k.first.dev != dev) continue;
        ++chips;
        main_boards += c.node_type == p_dev::DM_TYPE_MB;
        if (!c.fwd.empty()) ++vsl[html(c.fwd)];
    }
    std::string s = plural(chips, "chip", "chips");
    if (main_boards > 0) s += " (" + num(main_boards) + " main board)";
    s += ", VSL chips:";
    if (vsl.empty()) s += " none";
    for (const auto &[state, n] : vsl) s += " " + num(n) + " " + state;
    return s;
}

std::string Drawing::ap_cell(int64_t dev, int64_t apid, const ApFacts &ap) const {
    std::string ports =
        counts_text({{ap.listed, "in member list"}, {ap.waiting, "waiting"}, {ap.down, "down"}});
    int n = ap.listed + ap.waiting + ap.down;
    std::string s = "<b>apid " + num(apid) +
                    "</b>: " + (n == 0 ? "no port" : plural(n, "port", "ports") + ": " + ports);
    s += "<br/>unicast: " + plural(ap.load.count, "module id", "module ids");
    if (ap.load.main_boards > 0) s += " +" + num(ap.load.main_boards) + " main board";
    if (ap.min_load >= 0 && ap.max_load > 0) {
        s += ", " + num(ap.min_load) + (ap.max_load > ap.min_load ? "-" + num(ap.max_load) : "") +
             " a port";
    }
    const Member &m = u_.members.at(dev);
    if (auto r = m.routes.find(apid); r != m.routes.end()) {
        const auto &[to, from] = r->second;
        std::string t = to.empty() ? "" : "unicast to " + devices_text(to);
        if (!from.empty())
            t += (t.empty() ? "" : ", ") + std::string("multicast in from ") + devices_text(from);
        s += "<br/>map: " + t;
    }
    if (auto fl = m.filters.find(apid); fl != m.filters.end()) {
        s += "<br/>filters: permit " + num(fl->second.first) + ", block " + num(fl->second.second);
    }
    if (ap.mc.empty()) s += "<br/>main multicast: none";
    for (const auto &[mc, flagged] : ap.mc) {
        s += "<br/>" + (flagged ? flag("main multicast: " + mc) : "main multicast: " + mc);
    }
    return s;
}

std::string Drawing::port_row(const Port &p, const OwnPort &o) const {
    const char *fill = kListedFill;
    std::string state = "member";
    if (!o.issue.empty()) {
        fill = kFlagFill;
        state = o.issue;
    } else if (o.link != nullptr && !o.link->up) {
        fill = kDownFill;
        state = "down";
    } else if (!o.listed) {
        fill = kWaitingFill;
        state = "waiting";
    }
    std::string text = port_text(p) + "  " + state + ", load " + num(o.load.count);
    if (!o.mc.empty())
        text += ", <font color=\"" + std::string(kMainMc) + "\">main multicast " + o.mc + "</font>";
    return "<tr><td port=\"" + port_name(p) + "\" bgcolor=\"" + fill + "\" align=\"left\">" + text +
           "</td></tr>";
}

void Drawing::member_node(int64_t dev) {
    const MemberFacts &mf = f_.members.at(dev);
    auto [state, colour] = header(dev);
    out_ << "  " << node_id(dev) << " [label=<<table border=\"0\" cellborder=\"1\""
         << " cellspacing=\"0\" cellpadding=\"4\" bgcolor=\"white\">"
         << "<tr><td bgcolor=\"" << colour << "\" align=\"left\"><font point-size=\"14\"><b>member "
         << dev << "</b></font>  " << state << "</td></tr><tr><td align=\"left\">"
         << chips_line(dev) << "</td></tr>";
    if (!mf.read) {
        out_ << "<tr><td align=\"left\" balign=\"left\">its records not read<br/>"
             << plural(static_cast<int>(mf.far_ports.size()), "port", "ports")
             << " named by others' links</td></tr>";
        if (o_.links) {
            for (const auto &p : mf.far_ports) {
                out_ << "<tr><td port=\"" << port_name(p) << "\" align=\"left\">" << port_text(p)
                     << "</td></tr>";
            }
        }
    }
    for (const auto &[apid, ap] : mf.aps) {
        out_ << "<tr><td port=\"a" << apid << "\" align=\"left\" balign=\"left\">"
             << ap_cell(dev, apid, ap) << "</td></tr>";
        if (!o_.links) continue;
        for (const auto &[p, o] : mf.ports) {
            if (o.apid == apid) out_ << port_row(p, o);
        }
    }
    if (!mf.notes.empty()) {
        out_ << "<tr><td bgcolor=\"" << kFlagFill
             << "\" align=\"left\" balign=\"left\"><font color=\"" << kFlag << "\">";
        for (size_t i = 0; i < mf.notes.size(); ++i)
            out_ << (i ? "<br/>" : "") << html(mf.notes[i]);
        out_ << "</font></td></tr>";
    }
    out_ << "</table>>];\n";
}

// Devices that only own chips or a forwarding state: one box for all those
// that read the same, so that a large unit stays a short list.
void Drawing::other_devices() {
    std::set<int64_t> devs;
    for (const auto &[k, c] : u_.chips) devs.insert(k.first.dev);
    for (const auto &[dev, s] : u_.dev_fwd) devs.insert(dev);
    std::map<std::pair<std::string, std::string>, std::set<int64_t>> alike;
    for (int64_t dev : devs) {
        if (!f_.members.count(dev)) alike[{header(dev).first, chips_line(dev)}].insert(dev);
    }
    std::map<int64_t, const std::pair<std::string, std::string> *> by_first;
    for (const auto &[summary, ds] : alike) by_first.emplace(*ds.begin(), &summary);
    size_t first_row = rows_.size();
    for (const auto &[first, summary] : by_first) {
        const auto &ds = alike.at(*summary);
        std::string who = (ds.size() == 1 ? "member " : "members ") + devices_text(ds);
        out_ << "  \"" << who << "\" [shape=box, style=\"rounded\", label=<<b>" << who
             << "</b>: " << summary->first << "<br/>" << (ds.size() == 1 ? "" : "each ")
             << summary->second << ">];\n";
        if (rows_.size() == first_row || rows_.back().size() == 2) rows_.emplace_back();
        rows_.back().push_back("\"" + who + "\"");
    }
}

void Drawing::legend() {
    auto swatch = [](const char *fill, const char *what) {
        return std::string("<td bgcolor=\"") + fill + "\" border=\"1\">&#160;&#160;&#160;</td>" +
               "<td align=\"left\">" + what + "</td>";
    };
    auto line = [](const char *colour, const char *dash, const char *what) {
        return std::string("<td><font color=\"") + colour + "\"><b>" + dash + "</b></font></td>" +
               "<td align=\"left\">" + what + "</td>";
    };
    out_ << "  legend [label=<<table border=\"1\" cellborder=\"0\" cellspacing=\"2\""
         << " cellpadding=\"2\"><tr><td colspan=\"6\" align=\"left\"><b>member: process, "
         << "forwarding state</b></td></tr><tr>"
         << swatch(fwd_colour("forward"), "running, forward")
         << swatch(fwd_colour("part_forward"), "running, part_forward")
         << swatch(fwd_colour("block"), "running, block") << "</tr><tr>"
         << swatch(fwd_colour("timeout"), "running, timeout") << swatch(kStopped, "stopped")
         << swatch(kUnreachable, "unreachable") << "</tr><tr>"
         << swatch(fwd_colour(""), "running, no state") << swatch(kUnknown, "process not known")
         << swatch(kFlagFill, "stale or contradicting")
         << "</tr><tr><td colspan=\"6\" align=\"left\"><b>"
         << (o_.links ? "links" : "links between two aggregate ports, folded (width: links up)")
         << "</b></td></tr><tr>" << line(kListed, "&#8212;&#8212;", "up, in member list")
         << line(kWaiting, "- - -", "up, not in member list")
         << line(kDown, "&#183; &#183; &#183;", "down") << "</tr><tr>"
         << line(kFlag, "&#8212;&#8212;", "ends disagree")
         << "<td></td><td></td><td></td><td></td></tr></table>>];\n";
    rows_.push_back({"legend"});
}

// Rows of at most two members: a ring's first member alone on top, then the
// rest folded (second and last side by side, and so on); a chain folded from
// both ends; members without links two by two.
void Drawing::layout() {
    auto row = [&](const std::vector<int64_t> &devs) {
        for (size_t c = 0; c < devs.size(); ++c) place_[devs[c]] = {rows_.size(), c};
        rows_.emplace_back();
        for (int64_t d : devs) rows_.back().push_back(node_id(d));
    };
    std::vector<int64_t> lone;
    auto flush_lone = [&] {
        for (size_t i = 0; i < lone.size(); i += 2) {
            row({lone.begin() + static_cast<long>(i),
                 lone.begin() + static_cast<long>(std::min(i + 2, lone.size()))});
        }
        lone.clear();
    };
    for (const auto &s : f_.strands) {
        if (s.devs.size() == 1) {
            lone.push_back(s.devs[0]);
            continue;
        }
        flush_lone();
        size_t i = 0, j = s.devs.size() - 1;
        if (s.ring) row({s.devs[i++]});
        for (; i < j; ++i, --j) row({s.devs[i], s.devs[j]});
        if (i == j) row({s.devs[i]});
    }
    flush_lone();
}

// Edges run from the upper row down (or left to right within a row), so that
// the ranks are the rows.
bool Drawing::before(int64_t a, int64_t b) const {
    return place_.at(a) <= place_.at(b);
}

void Drawing::bundle_edge(const Bundle &b) {
    int up = 0, listed = 0;
    std::vector<std::string> issues;
    for (const auto &l : b.links) {
        up += l.up;
        listed += l.up && l.listed;
        if (!l.issue.empty()) issues.push_back(l.issue);
    }
    int n = static_cast<int>(b.links.size());
    const End &from = before(b.a.first, b.b.first) ? b.a : b.b;
    const End &to = &from == &b.a ? b.b : b.a;
    // Which aggregate port at each end whose records say; once when they agree.
    std::string aps;
    for (const End *e : {&from, &to}) {
        if (e->second == 0) continue;
        aps += (aps.empty() ? "apid " : ", apid ") + num(e->second) + " at " + num(e->first);
    }
    if (from.second == to.second) aps = "apid " + num(from.second);
    std::string label = "<b>" + aps + "</b>: " + plural(n, "link", "links") + ": " +
                        counts_text({{up, "up"}, {n - up, "down"}}) + "<br/>" + num(listed) +
                        " in member list";
    for (size_t i = 0; i < issues.size() && i < 3; ++i) label += "<br/>" + flag(html(issues[i]));
    if (issues.size() > 3)
        label += "<br/>" + flag("and " + num(static_cast<int64_t>(issues.size() - 3)) + " more");
    out_ << "  " << node_id(from.first) << " -> " << node_id(to.first) << " ["
         << edge_style(!issues.empty(), up > 0, listed > 0)
         << ", penwidth=" << 1 + std::min(up, 16) / 4 << ", label=<" << label << ">];\n";
}

// The port's row in its member's node; the node itself when it has none.
std::string Drawing::port_end(const Port &p) const {
    const MemberFacts &mf = f_.members.at(p.card.dev);
    bool row = mf.ports.count(p) || mf.far_ports.count(p);
    return node_id(p.card.dev) + (row ? ":" + port_name(p) : "");
}

void Drawing::link_edge(const LinkFacts &l) {
    bool forward = before(l.a.card.dev, l.b.card.dev);
    const Port &from = forward ? l.a : l.b;
    const Port &to = forward ? l.b : l.a;
    std::string style = edge_style(!l.issue.empty(), l.up, l.listed);
    if (!l.issue.empty()) style += ", label=<" + html(l.issue) + ">";
    out_ << "  " << port_end(from) << " -> " << port_end(to) << " [" << style << "];\n";
}

std::string Drawing::dot() {
    std::set<int64_t> read;
    for (const auto &[dev, m] : u_.members) read.insert(dev);
    int main_boards = 0;
    for (const auto &[modid, type] : u_.modid_type) main_boards += type == p_dev::DM_TYPE_MB;
    // Graphviz refuses an empty <b></b>.
    std::string label =
        o_.title.empty() ? "" : "<font point-size=\"16\"><b>" + html(o_.title) + "</b></font><br/>";
    label += read.empty() ? std::string("no member's records given: ")
                          : std::string("as the records of member") +
                                (read.size() == 1 ? " " : "s ") + devices_text(read) + " say: ";
    label += plural(static_cast<int>(u_.modid_type.size()), "module id", "module ids") + " (" +
             num(main_boards) + " main board)";
    if (f_.flagged > 0) {
        label += "<br/>" + flag(plural(f_.flagged, "stale or contradicting record",
                                       "stale or contradicting records") +
                                " flagged");
    }
    out_ << "digraph unit {\n"
         << "  graph [newrank=true, nodesep=0.5, ranksep=0.4, labelloc=t, fontname=\"Helvetica\","
         << " fontsize=12, label=<" << label << ">];\n"
         << "  node [shape=plain, fontname=\"Helvetica\", fontsize=10];\n"
         << "  edge [dir=none, fontname=\"Helvetica\", fontsize=10];\n";
    layout();
    for (const auto &[dev, mf] : f_.members) member_node(dev);
    other_devices();
    legend();
    // The rows: side by side in order, and each below the one before.
    for (size_t r = 0; r < rows_.size(); ++r) {
        const auto &row = rows_[r];
        out_ << "  { rank=same; ";
        for (const auto &id : row) out_ << id << "; ";
        if (row.size() == 2) out_ << row[0] << " -> " << row[1] << " [style=invis]; ";
        out_ << "}\n";
        if (r > 0) out_ << "  " << rows_[r - 1][0] << " -> " << row[0] << " [style=invis];\n";
    }
    for (const auto &[key, b] : f_.bundles) {
        if (!o_.links) {
            bundle_edge(b);
            continue;
        }
        for (const auto &l : b.links) link_edge(l);
    }
    out_ << "}\n";
    return out_.str();
}

}  // namespace

}  // namespace pictures

std::string unit_dot(const std::vector<MemberView> &members, const PictureOptions &options) {
    pictures::Unit unit = pictures::gather(members);
    pictures::Facts facts = pictures::examine(unit);
    return pictures::Drawing(unit, facts, options).dot();
}

}  // namespace host
