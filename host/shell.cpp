// Interactive shell (see shell.h).
#include "shell.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#ifdef DPM_HAVE_READLINE
#include <readline/history.h>
#include <readline/readline.h>
#endif

namespace host {

namespace {

Host *g_shell_host = nullptr;

#ifdef DPM_HAVE_READLINE
// Completion candidates for the word being typed: scenario commands as the
// first word, the module's debug commands after the command that runs one.
std::vector<std::string> g_candidates;
size_t g_next_candidate = 0;

char *next_candidate(const char *text, int state) {
    if (state == 0) g_next_candidate = 0;
    size_t len = strlen(text);
    while (g_next_candidate < g_candidates.size()) {
        const std::string &c = g_candidates[g_next_candidate++];
        if (c.compare(0, len, text) == 0) return strdup(c.c_str());
    }
    return nullptr;
}

char **complete(const char *text, int start, int) {
    rl_attempted_completion_over = 1;  // no file names
    std::string before(rl_line_buffer, static_cast<size_t>(start));
    size_t b = before.find_first_not_of(" \t");
    before = b == std::string::npos ? "" : before.substr(b);
    const size_t end = before.find_first_of(" \t");
    const Command *cmd =
        end == std::string::npos ? nullptr : Host::find_command(before.substr(0, end));
    if (before.empty()) {
        g_candidates = Host::command_words();
    } else if (cmd != nullptr && cmd->names_debug_command &&
               before.find_first_not_of(" \t", end) == std::string::npos) {
        g_candidates = g_shell_host->debug_command_names();
    } else {
        return nullptr;
    }
    return rl_completion_matches(text, next_candidate);
}

bool read_line(const char *prompt, std::string *line) {
    char *l = readline(prompt);
    if (l == nullptr) return false;
    *line = l;
    if (*l != '\0') add_history(l);
    free(l);
    return true;
}
#else
bool read_line(const char *prompt, std::string *line) {
    if (isatty(STDIN_FILENO)) {
        std::cout << prompt << std::flush;
    }
    return static_cast<bool>(std::getline(std::cin, *line));
}
#endif

}  // namespace

int run_shell(Host &h) {
    g_shell_host = &h;
#ifdef DPM_HAVE_READLINE
    rl_readline_name = "dpm-host";
    rl_attempted_completion_function = complete;
#endif
    std::cout << "dpm-host shell; 'help' lists the commands, end of input leaves.\n";
    StatementReader reader;
    std::string line;
    int lineno = 0;
    while (read_line(reader.open() ? "...> " : "dpm> ", &line)) {
        ++lineno;
        try {
            if (!reader.feed(line, lineno)) continue;
            h.execute(reader.take(), "shell:" + std::to_string(reader.first_line()));
        } catch (const ScriptError &e) {
            std::cout << std::flush;
            std::cerr << "error: " << e.what() << std::endl;
        } catch (const ExpectFailure &e) {
            std::cout << std::flush;
            std::cerr << "failed: " << e.what() << std::endl;
        } catch (const std::exception &e) {
            std::cout << std::flush;
            std::cerr << "error: " << e.what() << std::endl;
        }
    }
    std::cout << std::endl;
    return 0;
}

}  // namespace host
