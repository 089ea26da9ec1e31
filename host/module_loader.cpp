// Scratch directory and module loading (see module_loader.h).
#include "module_loader.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "lexer.h"

namespace host {

namespace fs = std::filesystem;

void Scratch::create() {
    const char *tmp = getenv("TMPDIR");
    std::string tmpl =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/dpm-host.XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr) {
        throw std::runtime_error("cannot create a scratch directory from " + tmpl);
    }
    path_ = tmpl;
    std::error_code ec;
    fs::create_directories(fs::path(path_) / "etc" / "pktdbg", ec);
    if (ec) throw std::runtime_error("cannot create " + path_ + "/etc/pktdbg: " + ec.message());
}

void Scratch::remove() {
    if (path_.empty()) return;
    std::error_code ec;
    fs::remove_all(path_, ec);
    path_.clear();
}

void ModuleLoader::load_fresh(const std::string &dir) {
    fs::path copy = fs::path(dir) / ("libkel.dpm.dp." + std::to_string(++copies_) + ".so");
    std::error_code ec;
    fs::copy_file(path_, copy, fs::copy_options::overwrite_existing, ec);
    if (ec) throw ScriptError("cannot copy the module " + path_ + ": " + ec.message());
    void *h = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (h == nullptr) {
        const char *why = dlerror();
        throw ScriptError("cannot load the module: " + std::string(why != nullptr ? why : "?"));
    }
    auto fn = reinterpret_cast<ce_dpm_dlib_init_fn>(dlsym(h, "ce_dpm_dlib_init"));
    if (fn == nullptr) {
        dlclose(h);
        throw ScriptError("the module " + path_ + " has no ce_dpm_dlib_init");
    }
    entry_ = fn;
    oracle_ = reinterpret_cast<OracleFn>(dlsym(h, "dpm_oracle_check"));
}

}  // namespace host
