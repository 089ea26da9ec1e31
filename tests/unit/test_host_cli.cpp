// dpm-host as a program: exit statuses, the messages that say where and what,
// the process-exit watch, the shell, and the scratch directory's lifetime.
// Each case runs the real host on a small script with its own TMPDIR.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

namespace fs = std::filesystem;

struct HostRun {
    int status = -1;
    std::string out;
    std::string err;
};

std::string slurp(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class HostCli : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/dpm-host-test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        tmp_ = dir_ / "tmp";
        fs::create_directory(tmp_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    fs::path write(const std::string &name, const std::string &text) {
        fs::path p = dir_ / name;
        std::ofstream(p, std::ios::binary) << text;
        return p;
    }

    // Runs dpm-host with `args`, standard input from `input`, TMPDIR = tmp_.
    HostRun run(std::vector<std::string> args, const std::string &input = "") {
        fs::path in = write("stdin", input);
        fs::path out = dir_ / "stdout", err = dir_ / "stderr";
        pid_t pid = fork();
        if (pid == 0) {
            int i = open(in.c_str(), O_RDONLY);
            int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(i, 0);
            dup2(o, 1);
            dup2(e, 2);
            setenv("TMPDIR", tmp_.c_str(), 1);
            std::vector<char *> argv{const_cast<char *>(DPM_HOST_PATH)};
            for (auto &a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(DPM_HOST_PATH, argv.data());
            _exit(127);
        }
        HostRun r;
        int ws = 0;
        waitpid(pid, &ws, 0);
        r.status = WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws);
        r.out = slurp(out);
        r.err = slurp(err);
        return r;
    }

    HostRun run_script(const std::string &text) { return run({write("s.dpm", text).string()}); }

    bool scratch_left() const { return !fs::is_empty(tmp_); }

    fs::path dir_, tmp_;
};

// Status and the one line that tells where and what. A script stops at its
// first error or failure, so nothing after it is printed.
TEST_F(HostCli, StatusAndMessageOfEachOutcome) {
    struct Case {
        const char *name;
        const char *script;
        int status;
        const char *err;  // substring of standard error ("" : must be empty)
    } cases[] = {
        {"all held", "print a\nexpect count TOPO_DB u_cluster.kel_uc_balance 0\n", 0, ""},
        {"unknown command", "print a\n\nfrob 1\nprint after\n", 2,
         "s.dpm:3: unknown command 'frob'"},
        {"record error names the statement's first line",
         "print a\ndb set 14 u_cluster.kel_uc_balance {\n  index { modid: 1 }\n  oops: 2\n}\n"
         "print after\n",
         2, "s.dpm:2: malformed u_cluster.kel_uc_balance record: line 3 column"},
        {"unknown type", "db del 14 p_dev.nothing { }\nprint after\n", 2,
         "s.dpm:1: unknown record type 'p_dev.nothing'"},
        {"unknown database", "expect count 99 u_cluster.kel_uc_balance 0\nprint after\n", 2,
         "s.dpm:1: database 99 is out of range"},
        {"misspelt fault", "fail libddm_int\nprint after\n", 2,
         "s.dpm:1: unknown platform function 'libddm_int'"},
        {"bad position", "card online 1/2 yes\nprint after\n", 2, "s.dpm:1: bad card '1/2'"},
        {"bad port", "port 1/2/x chip 4\nprint after\n", 2, "s.dpm:1: bad port '1/2/x'"},
        {"unclosed record", "print a\ndb set 14 u_cluster.kel_uc_balance {\n", 2,
         "s.dpm:2: the record's braces are not closed"},
        {"stray brace", "print a }\nprint after\n", 2, "s.dpm:1: '}' without a matching '{'"},
        {"debug command before start", "cmd show-log-level\nprint after\n", 2,
         "no debug command 'show-log-level' (the module is not started)"},
        {"failed record expectation",
         "db set 14 u_cluster.kel_uc_balance { index { modid: 1 } apid: 1 }\n"
         "expect record 14 u_cluster.kel_uc_balance { index { modid: 1 } apid: 2 }\nprint after\n",
         1,
         "s.dpm:2: expected u_cluster.kel_uc_balance { index { modid: 1 } apid: 2 } in TOPO_DB, "
         "got u_cluster.kel_uc_balance { index { modid: 1 } apid: 1 }"},
        {"missing record",
         "expect record UDP_DB u_cluster.kel_dev_fwdstate { index { devid: 4 } }\nprint after\n", 1,
         "in UDP_DB, got no record"},
        {"record that should be absent",
         "db set 8 u_cluster.kel_dev_fwdstate { index { devid: 4 } fwd_state: \"block\" }\n"
         "expect absent 8 u_cluster.kel_dev_fwdstate { index { devid: 4 } }\nprint after\n",
         1, "got u_cluster.kel_dev_fwdstate { index { devid: 4 } fwd_state: \"block\" }"},
        {"count", "expect count 14 u_cluster.kel_uc_balance 2\nprint after\n", 1,
         "expected 2 u_cluster.kel_uc_balance records in TOPO_DB, got 0"},
        {"output of the previous command only",
         "show 14\nexpect output no records\nadvance 1s\nexpect output no records\nprint after\n",
         1, "s.dpm:4: expected output containing \"no records\", got no output"},
        {"no-output", "show 14\nexpect no-output TOPO_DB\nprint after\n", 1,
         "expected no output containing \"TOPO_DB\", got \"(no records in TOPO_DB)\""},
        {"log without a module", "show 14\nexpect log enter\nprint after\n", 1,
         "expected a log line containing \"enter\", got 0 log lines"},
        {"awaited exit never came", "expect exit 77\nprint x\nprint after\n", 1,
         "s.dpm:2: expected exit 77, got no exit (the command returned)"},
        {"awaited exit at the end", "print a\nexpect exit 77\n", 1,
         "expected exit 77, got the end of the script"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        HostRun r = run_script(c.script);
        EXPECT_EQ(r.status, c.status) << r.err;
        if (*c.err == '\0') {
            EXPECT_EQ(r.err, "");
        } else {
            EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
        }
        EXPECT_EQ(r.out.find("after"), std::string::npos) << r.out;
        EXPECT_FALSE(scratch_left());
    }
}

// The module ends the process on a session that cannot be resumed: the status
// is the module's, checked against an awaited exit, and the scratch directory
// goes all the same.
TEST_F(HostCli, ModuleEndsTheProcess) {
    struct Case {
        const char *name;
        const char *script;
        int status;
        const char *err;
    } cases[] = {
        {"awaited", "start\nexpect exit 77\ndb reconnect TOPO_DB 1\nprint after\n", 77, ""},
        {"other status awaited", "start\nexpect exit 3\ndb reconnect TOPO_DB 1\nprint after\n", 1,
         "s.dpm:3: expected exit 3, got exit 77"},
        {"not awaited", "start\ndb reconnect UDP_DB 0\nprint after\n", 77,
         "s.dpm:2: the module ended the process with status 77"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        HostRun r = run_script(c.script);
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_NE(r.out.find("start: rv 0\n"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("exit: 77\n"), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("after"), std::string::npos) << r.out;
        if (*c.err == '\0') {
            EXPECT_EQ(r.err, "");
        } else {
            EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
        }
        EXPECT_FALSE(scratch_left());
    }
}

TEST_F(HostCli, CommandLineMistakes) {
    struct Case {
        std::vector<std::string> args;
        const char *err;
    } cases[] = {
        {{}, "usage: dpm-host"},
        {{"--shell", "x.dpm"}, "usage: dpm-host"},
        {{"--frob", "x.dpm"}, "unknown option --frob"},
        {{"x.dpm", "--db"}, "--db needs a value"},
        {{"/nonexistent/x.dpm"}, "/nonexistent/x.dpm: cannot open the script"},
        {{"--log", "/nonexistent/dir/log", "x.dpm"}, "cannot open the log file"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.err);
        HostRun r = run(c.args);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
        EXPECT_FALSE(scratch_left());
    }
}

// Scripts given together run in one process, in order; the first failure ends it.
TEST_F(HostCli, SeveralScriptsShareTheUnit) {
    fs::path a = write("a.dpm", "db set 14 u_cluster.kel_uc_balance { index { modid: 2 } }\n");
    fs::path b = write("b.dpm", "expect count 14 u_cluster.kel_uc_balance 1\nprint b done\n");
    fs::path bad = write("bad.dpm", "expect count 14 u_cluster.kel_uc_balance 0\n");
    HostRun r = run({a.string(), b.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("b done"), std::string::npos);
    r = run({a.string(), bad.string(), b.string()});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("bad.dpm:1: expected 0"), std::string::npos) << r.err;
    EXPECT_EQ(r.out.find("b done"), std::string::npos);
}

// A mistake in the shell prints one line and the shell goes on.
TEST_F(HostCli, ShellKeepsGoingAfterMistakes) {
    HostRun r = run({"--shell"},
                    "frob\n"
                    "expect count 14 u_cluster.kel_uc_balance 3\n"
                    "db set 14 u_cluster.kel_uc_balance {\n"
                    "  index { modid: 8 } apid: 2\n"
                    "}\n"
                    "show 14\n"
                    "expect exit 5\n"
                    "print still here\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("error: unknown command 'frob'"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("failed: expected 3 u_cluster.kel_uc_balance records"), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("failed: expected exit 5, got no exit"), std::string::npos) << r.err;
    EXPECT_NE(r.out.find("u_cluster.kel_uc_balance { index { modid: 8 } apid: 2 }"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("still here"), std::string::npos) << r.out;
    EXPECT_FALSE(scratch_left());
}

// The module's log goes where --log says, and the level file is read from the
// scratch directory the host points UDP_DPM_ROOT at.
TEST_F(HostCli, LogFileAndLevelFile) {
    fs::path log = dir_ / "module.log";
    fs::path s = write("s.dpm",
                       "set level-file 5\nstart\nexpect log connect asic\n"
                       "cmd show-log-level\nexpect output \"log level: 5\"\n");
    HostRun r = run({"--log", log.string(), s.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    std::string text = slurp(log);
    EXPECT_NE(text.find("connect asic"), std::string::npos) << text;

    // Level 1 (no level file): info lines are not logged, so not seen either.
    s = write("s.dpm", "set level-file missing\nstart\nexpect no-log connect asic\n");
    r = run({"--log", log.string(), s.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(slurp(log).find("connect asic"), std::string::npos);
}

// With --db the records outlive the process.
TEST_F(HostCli, DatabaseFileKeepsRecords) {
    fs::path db = dir_ / "store.db";
    fs::path w = write("w.dpm",
                       "db set 8 u_cluster.kel_dev_fwdstate { index { devid: 3 } "
                       "fwd_state: \"forward\" }\n");
    fs::path c = write("c.dpm",
                       "expect record UDP_DB u_cluster.kel_dev_fwdstate { index { devid: "
                       "3 } fwd_state: \"forward\" }\n");
    EXPECT_EQ(run({"--db", db.string(), w.string()}).status, 0);
    HostRun r = run({"--db", db.string(), c.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    r = run({c.string()});
    EXPECT_EQ(r.status, 1) << "without --db the store starts empty";
}

}  // namespace
