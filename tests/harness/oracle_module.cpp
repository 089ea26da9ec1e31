// The stress harness's copy of the module with the oracle built in: loaded once
// per process, rewound to its load values at every start (see stress_unit.h).
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "alloc_track.h"
#include "stress_unit.h"

namespace dpm_stress {
namespace {

// Byte copies that neither the sanitizers nor the compiler's memcpy see: the
// module's globals sit between redzones that are part of the same segment.
__attribute__((no_sanitize("address", "undefined"))) void raw_copy(unsigned char *dst,
                                                                   const unsigned char *src,
                                                                   size_t n) {
    volatile unsigned char *d = dst;
    for (size_t i = 0; i < n; ++i) d[i] = src[i];
}

struct Segments {
    const char *path;
    std::vector<std::pair<uintptr_t, uintptr_t>> writable, keep;
    uintptr_t base;
};

// The copy's writable load segments, and what of them a restart keeps: the
// part made read-only after relocation, and the fuzzer's coverage counters.
int find_segments(struct dl_phdr_info *info, size_t, void *data) {
    auto *q = static_cast<Segments *>(data);
    if (info->dlpi_name == nullptr || std::strcmp(info->dlpi_name, q->path) != 0) return 0;
    q->base = info->dlpi_addr;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) &ph = info->dlpi_phdr[i];
        uintptr_t a = info->dlpi_addr + ph.p_vaddr;
        if (ph.p_type == PT_LOAD && (ph.p_flags & PF_W) != 0)
            q->writable.emplace_back(a, a + ph.p_memsz);
        if (ph.p_type == PT_GNU_RELRO) q->keep.emplace_back(a, a + ph.p_memsz);
    }
    return 1;
}

// The fuzzer's coverage counters in the copy's file (none outside a fuzzing
// build): they belong to the fuzzer, not to the module's state.
std::pair<uintptr_t, uintptr_t> counters(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    const std::string img((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    Elf64_Ehdr eh{};
    std::memcpy(&eh, img.data(), std::min(sizeof eh, img.size()));
    auto shdr = [&](size_t i) {
        Elf64_Shdr s{};
        if (eh.e_shoff + (i + 1) * sizeof s <= img.size())
            std::memcpy(&s, img.data() + eh.e_shoff + i * sizeof s, sizeof s);
        return s;
    };
    const Elf64_Shdr names = shdr(eh.e_shstrndx);
    for (size_t i = 0; i < eh.e_shnum; ++i) {
        const Elf64_Shdr s = shdr(i);
        if (names.sh_offset + s.sh_name < img.size() &&
            std::strcmp(img.c_str() + names.sh_offset + s.sh_name, "__sancov_cntrs") == 0)
            return {s.sh_addr, s.sh_addr + s.sh_size};
    }
    return {0, 0};
}

}  // namespace

OracleModule &oracle_module() {
    static auto *m = new OracleModule(DPM_ORACLE_MODULE_PATH);
    return *m;
}

OracleModule::OracleModule(const std::string &so_path) {
    namespace fs = std::filesystem;
    std::string dir = (fs::temp_directory_path() / "dpm-stress-XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr) throw std::runtime_error("mkdtemp");
    // The module's fixed files (level file, dumps) live here, never under /etc.
    setenv("UDP_DPM_ROOT", dir.c_str(), 1);
    const std::string path = dir + "/libdpm_oracle.so";
    fs::copy_file(so_path, path);
    void *h = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (h == nullptr) throw std::runtime_error(dlerror());
    auto sym = [&](auto &fn, const char *name) {
        fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(dlsym(h, name));
        if (fn == nullptr) throw std::runtime_error(std::string("oracle module lacks ") + name);
    };
    sym(init_, "ce_dpm_dlib_init");
    sym(check_, "dpm_oracle_check");
    sym(state_, "dpm_oracle_state");

    Segments q{path.c_str(), {}, {}, 0};
    dl_iterate_phdr(find_segments, &q);
    if (auto [a, b] = counters(path); b > a) q.keep.emplace_back(q.base + a, q.base + b);
    std::sort(q.keep.begin(), q.keep.end());
    for (auto [start, end] : q.writable) {
        for (auto [ka, kb] : q.keep) {
            if (kb <= start || ka >= end) continue;
            if (ka > start) ranges_.push_back({start, std::vector<unsigned char>(ka - start)});
            start = std::max(start, kb);
        }
        if (start < end) ranges_.push_back({start, std::vector<unsigned char>(end - start)});
    }
    for (Range &r : ranges_)
        raw_copy(r.bytes.data(), reinterpret_cast<unsigned char *>(r.start), r.bytes.size());
    fs::remove_all(dir);  // mapped; the copy's name stays known to the loader
}

int OracleModule::start(uint32_t devid, uint32_t node_type) {
    if (started_) {
        // What the old instance still holds goes back first: nothing points at
        // it once its globals are rewound.
        dpm_alloc_release_all();
        for (const Range &r : ranges_) {
            raw_copy(reinterpret_cast<unsigned char *>(r.start), r.bytes.data(), r.bytes.size());
        }
    }
    started_ = true;
    ce_dpm_dlib_arg arg{};
    arg.handle = platform::host_handle();
    arg.devid = devid;
    arg.node_type = node_type;
    return init_(&arg);
}

int OracleModule::restart(uint32_t devid, uint32_t node_type) {
    platform::drop_instance();
    return start(devid, node_type);
}

int OracleModule::check(int flags, std::string *report) const {
    std::vector<char> buf(16384);
    int n = check_(flags, buf.data(), buf.size());
    if (report != nullptr) *report = buf.data();
    return n;
}

}  // namespace dpm_stress
