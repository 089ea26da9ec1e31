// A picture to a file (see picture.h): DOT as it is, SVG and PNG rendered by
// Graphviz's dot, the file appearing whole or not at all.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "lexer.h"
#include "picture.h"

extern char **environ;

namespace host {

namespace {

// Runs dot on `in`, writing `out`; the first line of its complaints on failure.
void run_dot(const std::string &format, const std::string &in, const std::string &out,
             const std::string &errors) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, STDERR_FILENO, errors.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::string fmt = "-T" + format;
    std::string dst = "-o" + out;
    char *argv[] = {const_cast<char *>("dot"), fmt.data(), dst.data(),
                    const_cast<char *>(in.c_str()), nullptr};
    pid_t pid = 0;
    int rc = posix_spawnp(&pid, "dot", &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        throw ScriptError("cannot run Graphviz's dot (" + std::string(strerror(rc)) +
                          "): install the graphviz package (scripts/setup.sh does)");
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
    std::ifstream err(errors);
    std::string first;
    std::getline(err, first);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
        first = "not found; install the graphviz package (scripts/setup.sh does)";
    }
    throw ScriptError("Graphviz's dot failed (" +
                      (WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                                         : "signal " + std::to_string(WTERMSIG(status))) +
                      ")" + (first.empty() ? "" : ": " + first));
}

}  // namespace

void write_picture(const std::string &dot, const std::string &path) {
    namespace fs = std::filesystem;
    std::string format = fs::path(path).extension().string();
    if (format != ".dot" && format != ".svg" && format != ".png") {
        throw ScriptError("picture " + path + ": the name must end in .svg, .png or .dot");
    }
    format.erase(0, 1);
    // Written beside the target and renamed, so a reader never sees half a file.
    std::string tmp = path + ".tmp";
    std::string text = format == "dot" ? tmp : path + ".dot.tmp";
    {
        std::ofstream f(text, std::ios::binary | std::ios::trunc);
        f << dot;
        if (!f.flush()) throw ScriptError("picture: cannot write " + text);
    }
    struct Cleanup {
        std::vector<std::string> files;
        ~Cleanup() {
            std::error_code ec;
            for (const auto &f : files) fs::remove(f, ec);
        }
    } cleanup{{tmp, text, path + ".err.tmp"}};
    if (format != "dot") run_dot(format, text, tmp, path + ".err.tmp");
    std::error_code ec;
    fs::rename(tmp, path, ec);
    if (ec) throw ScriptError("picture: cannot write " + path + ": " + ec.message());
}

}  // namespace host
