// Reading a unit file (unit_file.h) with yaml-cpp. Every mistake is refused
// with the file and line of the node that holds it: a unit that starts half
// right costs more than a message.
#include "unit_file.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <tuple>

namespace unit {

namespace {

constexpr std::array<const char *, 8> kNodeTypes = {"UNKNOWN", "BOX", "MB",  "LC",
                                                    "SUB_LC",  "SFC", "MSC", "HPSC"};
constexpr std::array<const char *, 4> kRoles = {"none", "master", "slave", "candidate"};

class Reader {
  public:
    explicit Reader(std::string name) : name_(std::move(name)) {}

    [[noreturn]] void fail(const YAML::Node &n, const std::string &what) const {
        throw FileError(name_ + ":" + std::to_string(n.Mark().line + 1) + ": " + what);
    }

    // Every key of a map must be one of `known`: a misspelt key would
    // otherwise be silently ignored.
    void keys(const YAML::Node &n, const char *what, std::initializer_list<const char *> known) {
        if (!n.IsMap()) fail(n, std::string(what) + " must be a map of keys");
        for (const auto &kv : n) {
            auto k = kv.first.as<std::string>();
            if (std::none_of(known.begin(), known.end(), [&](const char *x) { return k == x; })) {
                std::string list;
                for (const char *x : known) list += std::string(list.empty() ? "" : ", ") + x;
                std::string msg = "unknown key '" + k + "' in ";
                msg += what;
                msg += " (known: " + list + ")";
                fail(kv.first, msg);
            }
        }
    }

    int integer(const YAML::Node &n, const char *what, int lo, int hi) {
        int v = 0;
        try {
            v = n.as<int>();
        } catch (const YAML::Exception &) {
            fail(n, std::string(what) + " must be a number");
        }
        if (v < lo || v > hi) {
            fail(n, std::string(what) + " " + std::to_string(v) + " is out of range " +
                        std::to_string(lo) + ".." + std::to_string(hi));
        }
        return v;
    }

    int named(const YAML::Node &n, const char *what, const char *prefix, const char *const *names,
              size_t count) {
        if (!n.IsScalar()) fail(n, std::string(what) + " must be a name or a number");
        std::string s = n.as<std::string>();
        if (!s.empty() && std::isdigit(static_cast<unsigned char>(s[0])))
            return integer(n, what, 0, static_cast<int>(count) - 1);
        if (s.rfind(prefix, 0) == 0) s = s.substr(std::string(prefix).size());
        for (size_t i = 0; i < count; ++i) {
            if (s == names[i]) return static_cast<int>(i);
        }
        std::string list;
        for (size_t i = 0; i < count; ++i) list += std::string(i ? ", " : "") + names[i];
        fail(n, "unknown " + std::string(what) + " '" + n.as<std::string>() + "' (" + list + ")");
    }

    // "1-62" or a number: module ids 1..2047.
    void modids(const YAML::Node &n, std::vector<int> *out) {
        if (!n.IsSequence() || n.size() == 0)
            fail(n, "modids must be a list of module ids or ranges (e.g. [1, 5-9])");
        for (const auto &item : n) {
            std::string s = item.as<std::string>();
            int lo = 0, hi = 0;
            char dash = 0, extra = 0;
            std::istringstream in(s);
            if (s.find('-') != std::string::npos) {
                if (!(in >> lo >> dash >> hi) || dash != '-' || (in >> extra))
                    fail(item, "module id range '" + s + "' is not of the form A-B");
            } else {
                lo = hi = integer(item, "module id", 1, 2047);
            }
            if (lo < 1 || hi > 2047 || lo > hi)
                fail(item, "module id range '" + s + "' is not within 1..2047");
            for (int m = lo; m <= hi; ++m) out->push_back(m);
        }
    }

    // "M/S/SS/P" (a port) or "M/S/SS" (a card).
    std::vector<int> position(const YAML::Node &n, size_t parts, const char *what) {
        std::string s = n.as<std::string>();
        std::vector<int> v;
        std::stringstream in(s);
        for (std::string part; std::getline(in, part, '/');) {
            if (part.empty() || part.find_first_not_of("0123456789") != std::string::npos ||
                part.size() > 5)
                fail(n, std::string(what) + " '" + s + "' is not " +
                            (parts == 4 ? "MEMBER/SLOT/SUBSLOT/PORT" : "MEMBER/SLOT/SUBSLOT"));
            v.push_back(std::stoi(part));
        }
        if (v.size() != parts)
            fail(n, std::string(what) + " '" + s + "' is not " +
                        (parts == 4 ? "MEMBER/SLOT/SUBSLOT/PORT" : "MEMBER/SLOT/SUBSLOT"));
        return v;
    }

  private:
    std::string name_;
};

void read_members(Reader &r, const YAML::Node &list, Unit *u) {
    if (!list.IsSequence() || list.size() == 0) r.fail(list, "members must be a non-empty list");
    std::set<int> modids_seen;
    for (const auto &m : list) {
        r.keys(m, "a member", {"id", "node_type", "ring_cut", "role", "cards"});
        if (!m["id"]) r.fail(m, "a member needs an id (its device id)");
        Member mem;
        // Device ids beyond 15 cannot be held in the module's source filters.
        mem.id = r.integer(m["id"], "member id", 1, 15);
        if (u->member(mem.id) != nullptr)
            r.fail(m["id"], "member " + std::to_string(mem.id) + " is described twice");
        if (m["node_type"])
            mem.node_type = r.named(m["node_type"], "node type", "DM_TYPE_", kNodeTypes.data(),
                                    kNodeTypes.size());
        if (m["ring_cut"]) mem.ring_cut = r.integer(m["ring_cut"], "ring-cut type", 0, 1);
        if (m["role"]) mem.role = r.named(m["role"], "role", "", kRoles.data(), kRoles.size());
        if (!m["cards"] || !m["cards"].IsSequence())
            r.fail(m, "member " + std::to_string(mem.id) + " needs a list of cards");
        for (const auto &c : m["cards"]) {
            r.keys(c, "a card", {"slot", "sslot", "type", "modids"});
            Card card;
            card.member = mem.id;
            if (!c["slot"] || !c["modids"]) r.fail(c, "a card needs a slot and its modids");
            card.slot = r.integer(c["slot"], "slot", 0, 31);
            if (c["sslot"]) card.sslot = r.integer(c["sslot"], "sub-slot", 0, 31);
            if (c["type"])
                card.node_type = r.named(c["type"], "card type", "DM_TYPE_", kNodeTypes.data(),
                                         kNodeTypes.size());
            for (const auto &other : mem.cards) {
                if (other.slot == card.slot && other.sslot == card.sslot)
                    r.fail(c, "card " + card_text(card) + " is described twice");
            }
            r.modids(c["modids"], &card.modids);
            for (int id : card.modids) {
                if (!modids_seen.insert(id).second)
                    r.fail(c["modids"], "module id " + std::to_string(id) +
                                            " is given to two chips (module ids are unique in "
                                            "a unit)");
            }
            mem.cards.push_back(card);
        }
        u->members.push_back(mem);
    }
}

End read_end(Reader &r, const Unit &u, const YAML::Node &n, int apid) {
    std::vector<int> v = r.position(n, 4, "link end");
    End e{v[0], v[1], v[2], v[3], apid};
    if (u.member(e.member) == nullptr)
        r.fail(n, "link end " + end_text(e) + ": there is no member " + std::to_string(e.member));
    const Card *c = u.card(e.member, e.slot, e.sslot);
    if (c == nullptr)
        r.fail(n, "link end " + end_text(e) + ": member " + std::to_string(e.member) +
                      " has no card in slot " + std::to_string(e.slot) + "/" +
                      std::to_string(e.sslot));
    if (e.port < 1 || e.port > 999) r.fail(n, "link end " + end_text(e) + ": port is not 1..999");
    return e;
}

void read_links(Reader &r, const YAML::Node &list, Unit *u) {
    if (!list.IsSequence()) r.fail(list, "links must be a list");
    // (member, slot, port): the device-data library finds a port without its
    // sub-slot, so two sub-slots cannot share a port number.
    std::map<std::tuple<int, int, int>, End> used;
    // (member, apid) -> the member the aggregate port leads to.
    std::map<std::pair<int, int>, int> neighbour;
    for (const auto &l : list) {
        r.keys(l, "a link", {"a", "b", "apid", "count"});
        if (!l["a"] || !l["b"] || !l["apid"]) r.fail(l, "a link needs a, b and apid");
        int apid_a = 0, apid_b = 0;
        if (l["apid"].IsSequence()) {
            if (l["apid"].size() != 2) r.fail(l["apid"], "apid is one number or [A-END, B-END]");
            apid_a = r.integer(l["apid"][0], "apid", 1, 2);
            apid_b = r.integer(l["apid"][1], "apid", 1, 2);
        } else {
            apid_a = apid_b = r.integer(l["apid"], "apid", 1, 2);
        }
        int count = l["count"] ? r.integer(l["count"], "count", 1, 256) : 1;
        End a = read_end(r, *u, l["a"], apid_a);
        End b = read_end(r, *u, l["b"], apid_b);
        if (a.member == b.member)
            r.fail(l, "a link joins two members, not member " + std::to_string(a.member) +
                          " to itself");
        for (int i = 0; i < count; ++i) {
            Link link{a, b};
            link.a.port += i;
            link.b.port += i;
            for (const End *e : {&link.a, &link.b}) {
                if (e->port > 999) r.fail(l, "link end " + end_text(*e) + ": port is not 1..999");
                auto [it, fresh] = used.emplace(std::make_tuple(e->member, e->slot, e->port), *e);
                if (!fresh)
                    r.fail(l, "port " + end_text(*e) + " is already the end of a link" +
                                  (it->second.sslot != e->sslot
                                       ? " (ports are looked up by member, slot and port)"
                                       : ""));
                int peer = e == &link.a ? link.b.member : link.a.member;
                auto [nb, first] = neighbour.emplace(std::make_pair(e->member, e->apid), peer);
                if (!first && nb->second != peer)
                    r.fail(l, "aggregate port " + std::to_string(e->apid) + " of member " +
                                  std::to_string(e->member) + " already leads to member " +
                                  std::to_string(nb->second) + ", not " + std::to_string(peer));
            }
            u->links.push_back(link);
        }
    }
    for (auto &m : u->members) {
        for (auto &c : m.cards) {
            for (const auto &l : u->links) {
                for (const End *e : {&l.a, &l.b}) {
                    if (e->member == c.member && e->slot == c.slot && e->sslot == c.sslot)
                        c.has_vsl_ports = true;
                }
            }
        }
    }
}

void read_phases(Reader &r, const YAML::Node &list, Unit *u) {
    if (!list.IsSequence()) r.fail(list, "phases must be a list");
    for (const auto &p : list) {
        r.keys(p, "a phase", {"name", "do"});
        Phase phase;
        phase.name = p["name"] ? p["name"].as<std::string>() : "";
        if (!p["do"] || !p["do"].IsSequence()) r.fail(p, "a phase needs a list 'do' of faults");
        for (const auto &f : p["do"]) {
            try {
                phase.faults.push_back(parse_fault(*u, f.as<std::string>()));
            } catch (const FileError &e) {
                r.fail(f, e.what());
            }
        }
        u->phases.push_back(phase);
    }
}

}  // namespace

const Member *Unit::member(int id) const {
    for (const auto &m : members) {
        if (m.id == id) return &m;
    }
    return nullptr;
}

const Card *Unit::card(int m, int slot, int sslot) const {
    const Member *mem = member(m);
    if (mem == nullptr) return nullptr;
    for (const auto &c : mem->cards) {
        if (c.slot == slot && c.sslot == sslot) return &c;
    }
    return nullptr;
}

int Unit::chip_of(const End &e) const {
    const Card *c = card(e.member, e.slot, e.sslot);
    return c != nullptr && !c->modids.empty() ? c->modids[0] : 0;
}

uint32_t Unit::phy_of(const End &e) {
    // Readable in pictures and dumps: member, slot, sub-slot, port.
    return static_cast<uint32_t>(e.member * 1000000 + e.slot * 10000 + e.sslot * 1000 + e.port);
}

const Link *Unit::link_at(const End &e) const {
    for (const auto &l : links) {
        if (l.a == e || l.b == e) return &l;
    }
    return nullptr;
}

std::string end_text(const End &e) {
    return std::to_string(e.member) + "/" + std::to_string(e.slot) + "/" + std::to_string(e.sslot) +
           "/" + std::to_string(e.port);
}

std::string card_text(const Card &c) {
    return std::to_string(c.member) + "/" + std::to_string(c.slot) + "/" + std::to_string(c.sslot);
}

Fault parse_fault(const Unit &u, const std::string &text) {
    std::istringstream in(text);
    std::string what, how, where, extra;
    in >> what >> how >> where >> extra;
    Fault f{};
    f.text = text;
    auto bad = [&](const std::string &why) -> FileError {
        return FileError("fault '" + text + "': " + why);
    };
    auto numbers = [&](const std::string &s, size_t parts) {
        std::vector<int> v;
        std::stringstream ss(s);
        for (std::string p; std::getline(ss, p, '/');) {
            if (p.empty() || p.find_first_not_of("0123456789") != std::string::npos || p.size() > 5)
                throw bad("'" + s + "' is not a position");
            v.push_back(std::stoi(p));
        }
        if (v.size() != parts) throw bad("'" + s + "' is not a position");
        return v;
    };
    if (what == "link" && (how == "down" || how == "up") && extra.empty() && !where.empty()) {
        auto v = numbers(where, 4);
        f.kind = how == "down" ? Fault::LinkDown : Fault::LinkUp;
        f.port = End{v[0], v[1], v[2], v[3], 0};
        if (u.link_at(f.port) == nullptr) throw bad("no link ends at " + where);
    } else if (what == "card" && (how == "out" || how == "in") && extra.empty() && !where.empty()) {
        auto v = numbers(where, 3);
        f.kind = how == "out" ? Fault::CardOut : Fault::CardIn;
        const Card *c = u.card(v[0], v[1], v[2]);
        if (c == nullptr) throw bad("there is no card " + where);
        f.card = *c;
    } else if (what == "hop" && (how == "down" || how == "up") && !where.empty() &&
               !extra.empty()) {
        f.kind = how == "down" ? Fault::HopDown : Fault::HopUp;
        f.member = numbers(where, 1)[0];
        f.other = numbers(extra, 1)[0];
        bool joined = std::any_of(u.links.begin(), u.links.end(), [&](const Link &l) {
            return (l.a.member == f.member && l.b.member == f.other) ||
                   (l.a.member == f.other && l.b.member == f.member);
        });
        if (!joined) throw bad("no link joins members " + where + " and " + extra);
    } else if (what == "member" && (how == "restart" || how == "stop" || how == "start") &&
               !where.empty() && extra.empty()) {
        f.kind = how == "restart" ? Fault::MemberRestart
                 : how == "stop"  ? Fault::MemberStop
                                  : Fault::MemberStart;
        f.member = numbers(where, 1)[0];
        if (u.member(f.member) == nullptr) throw bad("there is no member " + where);
    } else if (what == "responder" && how == "restart" && where.empty()) {
        f.kind = Fault::ResponderRestart;
    } else if (what == "redis" && how == "kill" && where.empty()) {
        f.kind = Fault::RedisKill;
    } else {
        throw bad(
            "not one of: link down|up M/S/SS/P, card out|in M/S/SS, hop down|up M N, "
            "member restart|stop|start M, responder restart, redis kill");
    }
    return f;
}

Unit parse_unit(const std::string &text, const std::string &name) {
    Reader r(name);
    YAML::Node root;
    try {
        root = YAML::Load(text);
    } catch (const YAML::ParserException &e) {
        throw FileError(name + ":" + std::to_string(e.mark.line + 1) + ": " + e.msg);
    }
    if (!root.IsMap()) throw FileError(name + ":1: a unit file is a map (name, members, links)");
    r.keys(root, "the unit", {"name", "members", "links", "phases"});
    Unit u;
    if (!root["members"]) throw FileError(name + ":1: the unit has no members");
    try {
        u.name = root["name"] ? root["name"].as<std::string>()
                              : std::filesystem::path(name).stem().string();
        read_members(r, root["members"], &u);
        if (root["links"]) read_links(r, root["links"], &u);
        if (root["phases"]) read_phases(r, root["phases"], &u);
    } catch (const YAML::Exception &e) {
        // A value of the wrong shape (a list where a name belongs, ...).
        throw FileError(name + ":" + std::to_string(e.mark.line + 1) + ": " + e.msg);
    }
    return u;
}

Unit load_unit(const std::string &path) {
    std::ifstream in(path);
    if (!in) throw FileError(path + ": cannot open the unit file");
    std::stringstream text;
    text << in.rdbuf();
    return parse_unit(text.str(), path);
}

}  // namespace unit
