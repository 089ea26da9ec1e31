// The command table of the scenario language: every command once, with its
// arguments and help. The parser (Host::execute), the help, the shell's
// completion and the checks all read it; adding a command is one row here and
// one handler.
#include <iostream>

#include "host.h"

namespace host {

const std::vector<Command> &Host::commands() {
    static const std::vector<Command> table = {
        {"set",
         "  set devid N | set node-type N          argument block of the next start\n"
         "  set ring-cut N|fail | set cap-init fail capacity library\n"
         "  set ssat-init N                        result of the debug framework's init\n"
         "  set level-file TEXT | set level-file missing\n",
         &Host::do_set, true},
        {"port", "  port DEV/SLOT/LPORT chip N|fail [phy N|fail]\n", &Host::do_port, true},
        {"fail", "  fail OP [db N] [count N|always] [rv N] [after N] | fail clear\n",
         &Host::do_fail, true},
        {"start",
         "  start                                  load the module (or call its entry again)\n",
         &Host::do_start, true},
        {"restart", "  restart                                end the instance, load a fresh one\n",
         &Host::do_restart, true},
        {"advance", "  advance DURATION                       e.g. 500ms, 90s, 30m, 1h\n",
         &Host::do_advance, true},
        {"db",
         "  db set|hmset|del DB TYPE {RECORD}\n"
         "  db disconnect DB | db reconnect DB TYPE\n",
         &Host::do_db, true},
        {"agent", "  agent set|del TYPE {RECORD}\n", &Host::do_agent, true},
        {"card", "  card add|del DEV/SLOT/SSLOT | card online DEV/SLOT/SSLOT yes|no\n",
         &Host::do_card, true},
        {"cmd", "  cmd NAME [INT...]                      a debug command of the module\n",
         &Host::do_cmd, true, true},
        {"show",
         "  show DB [TYPE]\n"
         "  show store                             the store: changes acknowledged, waiting,\n"
         "                                         refused, dropped; events read\n",
         &Host::do_show, true},
        {"picture",
         "  picture FILE [TITLE]                   draw the unit as the databases say (.svg, "
         ".png:\n"
         "                                         Graphviz; .dot: the text) into --pictures DIR\n"
         "  picture members N,N,... FILE [TITLE]   the same for several members of a unit\n"
         "  picture [members N,...] links FILE ... every link on its own, not folded per hop\n",
         &Host::do_picture, true},
        {"member",
         "  member N                               look at member N's LOCAL_DB and TOPO_DB\n",
         &Host::do_member, true},
        {"respond",
         "  respond N                              confirm member N's main multicast requests\n"
         "                                         (on start: confirm what lacks it, withdraw the "
         "rest)\n",
         &Host::do_respond, true},
        {"expect",
         "  expect record|absent DB TYPE {RECORD} | expect count DB TYPE N\n"
         "      [within DURATION]                  wait (bounded) for another process to make it "
         "so\n"
         "  expect log|no-log [FUNC] TEXT           a line of the previous command's log\n"
         "  expect output|no-output TEXT | expect output-is TEXT | expect exit N\n",
         &Host::do_expect, false},
        {"print", "  print TEXT                             a line of output\n", &Host::do_print,
         false},
        {"help", "  help                                   this list\n", &Host::do_help, false},
    };
    return table;
}

const Command *Host::find_command(const std::string &name) {
    for (const auto &cmd : commands()) {
        if (name == cmd.name) return &cmd;
    }
    return nullptr;
}

std::vector<std::string> Host::command_words() {
    std::vector<std::string> words;
    for (const auto &cmd : commands()) words.emplace_back(cmd.name);
    return words;
}

std::vector<std::string> Host::debug_command_names() const {
    std::vector<std::string> names;
    for (const auto &k : platform::commands()) names.push_back(k.name);
    return names;
}

void Host::do_print(Cursor &c) {
    std::cout << c.rest() << '\n' << std::flush;
}

void Host::do_help(Cursor &c) {
    c.end();
    std::cout << help() << std::flush;
}

std::string Host::help() const {
    std::string h =
        "Scenario commands (one a line, '#' starts a comment, a record in braces may\n"
        "continue over several lines; DB is a number or ASIC_DB, LOCAL_DB, UDP_DB, TOPO_DB):\n";
    for (const auto &cmd : commands()) h += cmd.usage;
    auto cmds = platform::commands();
    if (cmds.empty()) {
        h += "Debug commands: none registered (start the module first).\n";
    } else {
        h += "Debug commands of the module:\n";
        for (const auto &k : cmds) {
            std::string line = "  " + k.name;
            if (line.size() < 24) line.resize(24, ' ');
            h += line + " " + k.desc + "\n";
        }
    }
    return h;
}

}  // namespace host
