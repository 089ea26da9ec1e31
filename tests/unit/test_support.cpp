#include "test_support.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "ce_dpm_dlib.h"
#include "platform_ctl.h"

namespace dpm_test {

std::string pack(const ProtobufCMessage *msg) {
    std::string out(protobuf_c_message_get_packed_size(msg), '\0');
    protobuf_c_message_pack(msg, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

const std::string &scratch_root() {
    static const std::string root = [] {
        std::string tmpl = (std::filesystem::temp_directory_path() / "dpm-test-XXXXXX").string();
        if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp");
        setenv("UDP_DPM_ROOT", tmpl.c_str(), 1);
        return tmpl;
    }();
    return root;
}

void write_root_file(const std::string &rel, const std::string &content) {
    std::filesystem::path p = std::filesystem::path(scratch_root()) / rel;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary | std::ios::trunc) << content;
}

void remove_root_file(const std::string &rel) {
    std::filesystem::remove(std::filesystem::path(scratch_root()) / rel);
}

ModuleInstance::ModuleInstance() {
    static std::atomic<int> seq{0};
    path_ = scratch_root() + "/libkel.dpm.dp." + std::to_string(getpid()) + "." +
            std::to_string(seq++) + ".so";
    std::filesystem::copy_file(DPM_MODULE_PATH, path_,
                               std::filesystem::copy_options::overwrite_existing);
    // The module has no shutdown entry: its caches live as long as the process.
    // Keeping each copy mapped keeps them reachable, as they are on a member.
    handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle_ == nullptr) throw std::runtime_error(dlerror());
}

ModuleInstance::~ModuleInstance() {
    // The platform may still hold callbacks into this copy: drop them first.
    platform::drop_instance();
    if (handle_ != nullptr) dlclose(handle_);
    std::filesystem::remove(path_);
}

int ModuleInstance::start(unsigned node_type, unsigned devid, bool null_handle) {
    auto init = reinterpret_cast<ce_dpm_dlib_init_fn>(dlsym(handle_, "ce_dpm_dlib_init"));
    if (init == nullptr) throw std::runtime_error("no ce_dpm_dlib_init");
    ce_dpm_dlib_arg arg{};
    arg.handle = null_handle ? nullptr : platform::host_handle();
    arg.node_type = node_type;
    arg.devid = devid;
    return init(&arg);
}

}  // namespace dpm_test
