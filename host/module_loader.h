// Loading the module. Every start takes a fresh copy of the shared object under
// a name of its own, so the dynamic loader maps it anew and every global of the
// module starts at its load value, as in a new process. Old copies stay mapped:
// their memory may still be reachable from the stand-in's view of past
// instances, and unloading buys nothing in a short-lived host.
#pragma once

#include <string>

#include "ce_dpm_dlib.h"

namespace host {

// A private directory for the run (the module's fixed files live under it),
// removed when the process ends.
class Scratch {
  public:
    // mkdtemp under $TMPDIR (or /tmp); throws std::runtime_error.
    void create();
    void remove();
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

class ModuleLoader {
  public:
    void set_path(std::string path) { path_ = std::move(path); }
    const std::string &path() const { return path_; }
    // Copy the module into `dir`, load the copy and find its entry point.
    // Throws ScriptError with the loader's message.
    void load_fresh(const std::string &dir);
    bool loaded() const { return entry_ != nullptr; }
    int call_entry(ce_dpm_dlib_arg *arg) const { return entry_(arg); }
    // The consistency oracle of a test build of the module (null otherwise):
    // the number of differences between TOPO_DB and the caches, one report
    // line each in `out`.
    using OracleFn = int (*)(int flags, char *out, size_t len);
    OracleFn oracle() const { return oracle_; }

  private:
    std::string path_;
    int copies_ = 0;
    ce_dpm_dlib_init_fn entry_ = nullptr;
    OracleFn oracle_ = nullptr;
};

}  // namespace host
