// Starting and stopping the unit's processes (processes.h).
#include "processes.h"

#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace unit {

namespace {

void sleep_ms(int ms) {
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

}  // namespace

Child spawn(const std::string &name, const std::vector<std::string> &argv,
            const std::string &out_path) {
    std::vector<char *> args;
    args.reserve(argv.size() + 1);
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("cannot start " + name + ": " + std::strerror(errno));
    if (pid == 0) {
        // End with dpm-unit, however it ends (a test's timeout kills it).
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(127);
        signal(SIGINT, SIG_IGN);  // Ctrl-C is dpm-unit's to handle
        int fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (fd >= 0) {
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
        }
        int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (null >= 0) dup2(null, STDIN_FILENO);
        execvp(args[0], args.data());
        std::fprintf(stderr, "cannot run %s: %s\n", args[0], std::strerror(errno));
        _exit(127);
    }
    return Child{pid, name};
}

Ended reap_one() {
    int status = 0;
    pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid <= 0) return {};
    return {pid, status};
}

int stop_child(pid_t pid, int sig, int grace_ms) {
    if (pid <= 0) return 0;
    kill(pid, sig);
    int status = 0;
    for (int waited = 0;; waited += 5) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid || (r < 0 && errno == ECHILD)) return status;
        if (waited >= grace_ms) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return status;
        }
        sleep_ms(5);
    }
}

std::string status_text(int status) {
    if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
    return "ended (wait status " + std::to_string(status) + ")";
}

void private_dir(const std::string &path) {
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw std::runtime_error(path + " is not a directory");
    if (st.st_uid != getuid())
        throw std::runtime_error(path + " belongs to another user: choose another --dir");
    if ((st.st_mode & 077) != 0)
        throw std::runtime_error(path + " may be entered by others (mode " +
                                 std::to_string(st.st_mode & 0777) + "): chmod 700 it");
}

std::string default_base_dir() {
    const char *tmp = std::getenv("TMPDIR");
    return std::string(tmp != nullptr && *tmp != 0 ? tmp : "/tmp") + "/dpm-unit-" +
           std::to_string(getuid());
}

Child start_redis(const std::string &dir, std::string *address) {
    const std::string sock = dir + "/redis.sock";
    unlink(sock.c_str());
    Child c = spawn("redis-server",
                    {"redis-server", "--port", "0", "--unixsocket", sock, "--unixsocketperm", "700",
                     "--save", "", "--appendonly", "no", "--dir", dir, "--daemonize", "no",
                     "--logfile", dir + "/redis.log"},
                    dir + "/redis.out");
    // Until it answers: at most 10 s.
    for (int i = 0; i < 2000; ++i) {
        redisContext *ctx = redisConnectUnix(sock.c_str());
        if (ctx != nullptr && ctx->err == 0) {
            auto *r = static_cast<redisReply *>(redisCommand(ctx, "PING"));
            bool ok = r != nullptr && r->type == REDIS_REPLY_STATUS;
            if (r != nullptr) freeReplyObject(r);
            redisFree(ctx);
            if (ok) {
                *address = "unix:" + sock;
                return c;
            }
        } else if (ctx != nullptr) {
            redisFree(ctx);
        }
        int status = 0;
        if (waitpid(c.pid, &status, WNOHANG) == c.pid)
            throw std::runtime_error("redis-server " + status_text(status) + " (see " + dir +
                                     "/redis.log)");
        sleep_ms(5);
    }
    stop_child(c.pid, SIGTERM, 1000);
    throw std::runtime_error("redis-server on " + sock + " did not answer within 10 s");
}

}  // namespace unit
