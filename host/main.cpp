// dpm-host: loads the data-plane management module and plays the rest of the
// unit around it from scenario scripts or an interactive shell.
//
// Exit status: 0 every expectation held; 1 the first that did not; 2 a script
// error; any other status is the module's own (it ends the process on a lost
// database session).
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "host.h"
#include "shell.h"

namespace {

constexpr int kFailed = 1;
constexpr int kScriptError = 2;

void usage(std::ostream &os) {
    os << "usage: dpm-host [--db PATH] [--log PATH|-] [--module PATH] [--pictures DIR] [--oracle]"
          " SCRIPT...\n"
          "       dpm-host [--db PATH] [--log PATH|-] [--module PATH] [--pictures DIR] --shell\n";
}

int run_script(host::Host &h, const std::string &path) {
    std::ifstream in(path);
    if (!in) {
        std::cerr << path << ": cannot open the script\n";
        return kScriptError;
    }
    host::StatementReader reader;
    std::string line;
    int lineno = 0;
    auto where = [&](int l) { return path + ":" + std::to_string(l); };
    try {
        while (std::getline(in, line)) {
            ++lineno;
            try {
                if (!reader.feed(line, lineno)) continue;
            } catch (const host::ScriptError &e) {
                throw host::ScriptError(where(lineno) + ": " + e.what());
            }
            int first = reader.first_line();
            try {
                h.execute(reader.take(), where(first));
            } catch (const host::ScriptError &e) {
                throw host::ScriptError(where(first) + ": " + e.what());
            } catch (const host::ExpectFailure &e) {
                throw host::ExpectFailure(where(first) + ": " + e.what());
            }
        }
        if (reader.open()) {
            throw host::ScriptError(where(reader.first_line()) +
                                    ": the record's braces are not closed by the end of the file");
        }
        try {
            h.end_of_script();
        } catch (const host::ExpectFailure &e) {
            throw host::ExpectFailure(where(lineno) + ": " + e.what());
        }
    } catch (const host::ScriptError &e) {
        std::cout << std::flush;
        std::cerr << e.what() << std::endl;
        return kScriptError;
    } catch (const host::ExpectFailure &e) {
        std::cout << std::flush;
        std::cerr << e.what() << std::endl;
        return kFailed;
    } catch (const std::exception &e) {
        std::cout << std::flush;
        std::cerr << where(lineno) << ": " << e.what() << std::endl;
        return kScriptError;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    host::Options opt;
    bool shell = false;
    std::vector<std::string> scripts;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char *name) -> std::string {
            std::string prefix = std::string(name) + "=";
            if (a.rfind(prefix, 0) == 0) return a.substr(prefix.size());
            if (i + 1 >= argc) {
                std::cerr << "dpm-host: " << name << " needs a value\n";
                usage(std::cerr);
                exit(kScriptError);
            }
            return argv[++i];
        };
        if (a == "--shell") {
            shell = true;
        } else if (a == "--db" || a.rfind("--db=", 0) == 0) {
            opt.db_path = value("--db");
        } else if (a == "--log" || a.rfind("--log=", 0) == 0) {
            opt.log_path = value("--log");
        } else if (a == "--module" || a.rfind("--module=", 0) == 0) {
            opt.module_path = value("--module");
        } else if (a == "--pictures" || a.rfind("--pictures=", 0) == 0) {
            opt.pictures_dir = value("--pictures");
        } else if (a == "--oracle") {
            opt.oracle = true;
        } else if (a == "--help" || a == "-h") {
            usage(std::cout);
            return 0;
        } else if (a.size() > 1 && a[0] == '-' && a != "-") {
            std::cerr << "dpm-host: unknown option " << a << "\n";
            usage(std::cerr);
            return kScriptError;
        } else {
            scripts.push_back(a);
        }
    }
    if (shell == !scripts.empty()) {
        usage(std::cerr);
        return kScriptError;
    }

    try {
        host::Host h(opt);
        if (shell) return host::run_shell(h);
        for (const auto &s : scripts) {
            int rc = run_script(h, s);
            if (rc != 0) return rc;
        }
    } catch (const std::exception &e) {
        std::cerr << "dpm-host: " << e.what() << std::endl;
        return kScriptError;
    }
    return 0;
}
