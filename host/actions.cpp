// The actions of the scenario language: each changes the stand-in or the
// module's surroundings; the loop runs after it (loop.cpp) and its output and
// log are kept for the expectations that follow.
#include <dlfcn.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "arguments.h"
#include "host.h"
#include "output_capture.h"
#include "picture.h"
#include "record_text.h"
#include "responder.h"

namespace host {

namespace {

const char *const kRingCutKey = "u_cluster/dpm/dev_topo/kel_ring_cut_type";

// The module takes each record type it reads in one form only: the link and
// module-id records field by field (their components write them that way),
// the others whole. A write in the other form would reach it and be ignored,
// so the host refuses it and names the right command.
const std::set<std::string> kFieldForm = {"p_dev.vsl_local_link", "s_intf.evt_mod_alloc"};
const std::set<std::string> kWholeForm = {
    "p_dev.dtm_route_info",       "p_dev.dtm_fiap_route_info", "u_cluster.vsl_chip_fwdstate",
    "u_cluster.kel_dev_fwdstate", "u_cluster.kel_uc_balance",  "u_cluster.vsl_srcmod_igr",
    "u_cluster.mainmc_vlan",      "u_cluster.mainmc_vlan_st"};

}  // namespace

void Host::do_set(Cursor &c) {
    std::string what = c.word("setting");
    if (what == "devid") {
        devid_ = uint_arg(c, "device id");
    } else if (what == "node-type") {
        node_type_ = uint_arg(c, "node type");
    } else if (what == "ring-cut") {
        std::string w = c.word("ring-cut type or fail");
        platform::set_capacity(
            kRingCutKey, w == "fail" ? std::nullopt
                                     : std::optional<int32_t>(static_cast<int32_t>(
                                           parse_int(w, INT32_MIN, INT32_MAX, "ring-cut type"))));
    } else if (what == "cap-init") {
        if (c.word("fail") != "fail") throw ScriptError("set cap-init takes only 'fail'");
        platform::fail("libxn_cap_init", -1, -1);
    } else if (what == "ssat-init") {
        platform::set_ssat_init_result(int_arg(c, "result"));
    } else if (what == "level-file") {
        std::string file = scratch_.path() + "/etc/pktdbg/udp_dpm";
        bool quoted = c.next_is_quote();
        std::string text = c.rest();
        if (!quoted && text == "missing") {
            std::filesystem::remove(file);
        } else {
            std::ofstream out(file, std::ios::binary | std::ios::trunc);
            out << text;
            if (!out) throw ScriptError("cannot write " + file);
        }
        return;
    } else {
        throw ScriptError("unknown setting '" + what +
                          "' (devid, node-type, ring-cut, cap-init, ssat-init, level-file)");
    }
    c.end();
}

void Host::do_port(Cursor &c) {
    Position p = parse_position(c.word("port DEV/SLOT/LPORT"), 65535, "port");
    bool any = false;
    while (auto w = c.try_word()) {
        if (*w == "chip") {
            platform::set_chipid(p.dev, p.slot, p.third, value_or_fail(c, "chip id"));
        } else if (*w == "phy") {
            platform::set_phyid(p.dev, p.slot, p.third, value_or_fail(c, "physical id"));
        } else {
            throw ScriptError("expected chip or phy, found '" + *w + "'");
        }
        any = true;
    }
    c.end();
    if (!any) throw ScriptError("port needs chip N|fail and/or phy N|fail");
}

void Host::do_fail(Cursor &c) {
    std::string op = c.word("platform function");
    if (op == "clear") {
        c.end();
        platform::clear_faults();
        return;
    }
    // The stand-in takes any name; a misspelt one would silently never fail.
    // Every platform function is a symbol of the loaded platform library.
    if (dlsym(RTLD_DEFAULT, op.c_str()) == nullptr) {
        throw ScriptError("unknown platform function '" + op + "'");
    }
    int db = -1, count = 1, rv = -1, skip = 0;
    while (auto w = c.try_word()) {
        if (*w == "db") {
            db = parse_db(c.word("database"));
        } else if (*w == "count") {
            std::string n = c.word("count");
            count = n == "always" ? -1 : static_cast<int>(parse_int(n, -1, INT32_MAX, "count"));
        } else if (*w == "rv") {
            rv = int_arg(c, "failure result");
        } else if (*w == "after") {
            skip = static_cast<int>(parse_int(c.word("calls"), 0, INT32_MAX, "after"));
        } else {
            throw ScriptError("expected db, count, rv or after, found '" + *w + "'");
        }
    }
    c.end();
    platform::fail(op, db, count, rv, skip);
}

void Host::do_start(Cursor &c) {
    c.end();
    start_instance(false);
}

void Host::do_restart(Cursor &c) {
    c.end();
    start_instance(true);
}

void Host::start_instance(bool restart) {
    // A second start of a loaded instance calls its entry again, as a host
    // that repeats the call would; restart is a new process.
    if (restart) platform::drop_instance();
    if (restart || !loader_.loaded()) loader_.load_fresh(scratch_.path());
    ce_dpm_dlib_arg arg{platform::host_handle(), 0, node_type_, devid_};
    int rv = loader_.call_entry(&arg);
    started_ = true;
    emit("start: rv " + std::to_string(rv) + "\n");
}

void Host::do_advance(Cursor &c) {
    uint64_t us = parse_duration_us(c.word("duration"));
    c.end();
    platform::advance_us(us);
}

void Host::do_db(Cursor &c) {
    std::string op = c.word("db operation");
    if (op == "disconnect" || op == "reconnect") {
        int db = parse_db(c.word("database"));
        if (op == "disconnect") {
            c.end();
            platform::db_disconnect(db);
        } else {
            int type = int_arg(c, "reconnect type");
            c.end();
            platform::db_reconnect(db, type);
        }
        return;
    }
    if (op != "set" && op != "hmset" && op != "del") {
        throw ScriptError("unknown db operation '" + op +
                          "' (set, hmset, del, disconnect, reconnect)");
    }
    int db = parse_db(c.word("database"));
    RecordArg r = record_arg(c);
    if (op == "set" && kFieldForm.count(r.type) != 0)
        throw ScriptError(r.type +
                          " is stored field by field (the module reads it only in that form): "
                          "write it with db hmset");
    if (op == "hmset" && kWholeForm.count(r.type) != 0)
        throw ScriptError(r.type +
                          " is stored whole (the module reads it only in that form): write it "
                          "with db set");
    int rv = op == "set"     ? platform::db_set(db, r.type, r.packed)
             : op == "hmset" ? platform::db_hmset(db, r.type, r.packed)
                             : platform::db_del(db, r.type, r.packed);
    if (rv != 0)
        throw ScriptError("the store refused the " + r.type + " record (rv " + std::to_string(rv) +
                          ")");
}

void Host::do_agent(Cursor &c) {
    std::string op = c.word("agent operation");
    if (op != "set" && op != "del") throw ScriptError("agent takes set or del, not '" + op + "'");
    RecordArg r = record_arg(c);
    int rv =
        op == "set" ? platform::agent_set(r.type, r.packed) : platform::agent_del(r.type, r.packed);
    if (rv != 0)
        throw ScriptError("the agent refused the " + r.type + " record (rv " + std::to_string(rv) +
                          ")");
}

void Host::do_card(Cursor &c) {
    std::string op = c.word("card operation");
    if (op != "add" && op != "del" && op != "online") {
        throw ScriptError("card takes add, del or online, not '" + op + "'");
    }
    Position p = parse_position(c.word("card DEV/SLOT/SSLOT"), 31, "card");
    if (op == "online") {
        std::string yn = c.word("yes or no");
        if (yn != "yes" && yn != "no")
            throw ScriptError("card online takes yes or no, not '" + yn + "'");
        c.end();
        platform::set_card_online(p.dev, p.slot, p.third, yn == "yes");
        return;
    }
    c.end();
    if (op == "add") {
        platform::card_add(card_gslot(p));
    } else {
        platform::card_del(card_gslot(p));
    }
}

void Host::do_cmd(Cursor &c) {
    std::string name = c.word("debug command name");
    std::vector<int> args;
    while (!c.at_end()) args.push_back(int_arg(c, "command argument"));
    auto cmds = platform::commands();
    auto it = std::find_if(cmds.begin(), cmds.end(), [&](const auto &k) { return k.name == name; });
    if (it == cmds.end()) {
        throw ScriptError("no debug command '" + name + "'" +
                          (started_ ? "" : " (the module is not started)"));
    }
    if (static_cast<int>(args.size()) > it->nargs) {
        throw ScriptError(name + " takes " + std::to_string(it->nargs) + " number" +
                          (it->nargs == 1 ? "" : "s") + " (" + it->desc + ")");
    }
    std::string out;
    flush_module_stdout();
    if (!platform::run_command(name, args, &out))
        throw ScriptError("no debug command '" + name + "'");
    emit(out);
}

void Host::do_show(Cursor &c) {
    std::string word = c.word("database or store");
    if (word == "store") {
        c.end();
        emit(platform::db_status());
        return;
    }
    int db = parse_db(word);
    std::string type;
    if (auto w = c.try_word()) {
        type = *w;
        record_type(type);
    }
    c.end();
    std::string text;
    for (const auto &s : platform::db_records(db, type)) text += stored_text(s) + "\n";
    if (text.empty()) text = "(no records in " + db_name(db) + ")\n";
    emit(text);
}

// The unit as this member's databases say, drawn to a file (picture.h).
// "picture members 1,2,3 FILE": several members of a unit sharing the server,
// each through its own databases, drawn together with the links between them.
// "links" before FILE draws every link instead of one edge per pair of ends.
// Only this process's own module is known to run; the others are not known.
void Host::do_picture(Cursor &c) {
    std::string word = c.word("picture file (.svg, .png or .dot)");
    std::vector<MemberView> views;
    if (word == "members") {
        std::stringstream list(c.word("member list, e.g. 1,2,3"));
        const int in_view = platform::db_view_member();
        for (std::string m; std::getline(list, m, ',');) {
            const auto devid = static_cast<uint32_t>(parse_int(m, 1, 32, "member"));
            platform::db_view(static_cast<int>(devid));
            views.push_back(local_member_view(devid));
        }
        platform::db_view(in_view);
        word = c.word("picture file (.svg, .png or .dot)");
    } else {
        views.push_back(local_member_view(devid_));
    }
    for (auto &v : views) {
        if (started_ && v.devid == devid_) v.process = ProcessState::running;
    }
    PictureOptions options;
    if (word == "links") {
        options.links = true;
        word = c.word("picture file (.svg, .png or .dot)");
    }
    std::filesystem::path path = word;
    options.title = c.rest();
    if (path.is_relative() && !pictures_dir_.empty()) path = pictures_dir_ / path;
    std::error_code ec;
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ec);
    write_picture(unit_dot(views, options), path.string());
    emit("picture: " + std::filesystem::absolute(path).lexically_normal().string() + "\n");
}

void Host::do_member(Cursor &c) {
    int member = static_cast<int>(parse_int(c.word("member device id"), 0, 32, "member"));
    c.end();
    platform::db_view(member);
}

void Host::do_respond(Cursor &c) {
    int member = static_cast<int>(parse_int(c.word("member device id"), 0, 32, "member"));
    c.end();
    start_responder(member);
}

}  // namespace host
