#include "stress_unit.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "alloc_track.h"
#include "ce_dpm_dlib.h"
#include "p_dev.pb-c.h"
#include "s_intf.pb-c.h"
#include "u_cluster.pb-c.h"

namespace dpm_stress {
namespace {

constexpr int kAsic = 0, kLocal = 3, kUdp = 8, kTopo = 14;

std::string pack(const ProtobufCMessage *msg) {
    std::string out(protobuf_c_message_get_packed_size(msg), '\0');
    if (!out.empty()) protobuf_c_message_pack(msg, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

const std::string &scratch_dir() {
    static const std::string dir = [] {
        std::string tmpl = (std::filesystem::temp_directory_path() / "dpm-stress-XXXXXX").string();
        if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp");
        // The module's fixed files (level file, dumps) live here, never under /etc.
        setenv("UDP_DPM_ROOT", tmpl.c_str(), 1);
        return tmpl;
    }();
    return dir;
}

// Sections of the copy whose bytes must not be rewound: the coverage counters
// of a fuzzing build belong to the fuzzer, not to the module's state.
std::vector<std::pair<uintptr_t, uintptr_t>> keep_sections(const std::string &path) {
    std::vector<std::pair<uintptr_t, uintptr_t>> out;
    std::ifstream f(path, std::ios::binary);
    std::string img((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    if (img.size() < sizeof(Elf64_Ehdr)) return out;
    Elf64_Ehdr eh;
    std::memcpy(&eh, img.data(), sizeof eh);
    if (eh.e_shoff == 0 || eh.e_shstrndx >= eh.e_shnum ||
        eh.e_shoff + eh.e_shnum * sizeof(Elf64_Shdr) > img.size()) {
        return out;
    }
    auto shdr = [&](size_t i) {
        Elf64_Shdr s;
        std::memcpy(&s, img.data() + eh.e_shoff + i * sizeof(Elf64_Shdr), sizeof s);
        return s;
    };
    Elf64_Shdr strtab = shdr(eh.e_shstrndx);
    for (size_t i = 0; i < eh.e_shnum; ++i) {
        Elf64_Shdr s = shdr(i);
        if (strtab.sh_offset + s.sh_name >= img.size()) continue;
        const char *name = img.data() + strtab.sh_offset + s.sh_name;
        if (std::strncmp(name, "__sancov", 8) == 0)
            out.emplace_back(s.sh_addr, s.sh_addr + s.sh_size);
    }
    return out;
}

struct PhdrQuery {
    const char *path;
    std::vector<std::pair<uintptr_t, uintptr_t>> writable;
    std::pair<uintptr_t, uintptr_t> relro{0, 0};
    uintptr_t base = 0;
    bool found = false;
};

int find_segments(struct dl_phdr_info *info, size_t, void *data) {
    auto *q = static_cast<PhdrQuery *>(data);
    if (info->dlpi_name == nullptr || std::strcmp(info->dlpi_name, q->path) != 0) return 0;
    q->found = true;
    q->base = info->dlpi_addr;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) &ph = info->dlpi_phdr[i];
        uintptr_t a = info->dlpi_addr + ph.p_vaddr;
        if (ph.p_type == PT_LOAD && (ph.p_flags & PF_W) != 0)
            q->writable.emplace_back(a, a + ph.p_memsz);
        if (ph.p_type == PT_GNU_RELRO) q->relro = {a, a + ph.p_memsz};
    }
    return 1;
}

// Byte copies that neither the sanitizers nor the compiler's memcpy see: the
// module's globals sit between redzones that are part of the same segment.
__attribute__((no_sanitize("address", "undefined"))) void raw_copy(unsigned char *dst,
                                                                   const unsigned char *src,
                                                                   size_t n) {
    volatile unsigned char *d = dst;
    for (size_t i = 0; i < n; ++i) d[i] = src[i];
}

}  // namespace

const std::string &oracle_module_path() {
    static const std::string p = DPM_ORACLE_MODULE_PATH;
    return p;
}

OracleModule::OracleModule(const std::string &so_path) {
    static std::atomic<int> seq{0};
    path_ = scratch_dir() + "/libdpm_oracle." + std::to_string(getpid()) + "." +
            std::to_string(seq++) + ".so";
    std::filesystem::copy_file(so_path, path_, std::filesystem::copy_options::overwrite_existing);
    handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) throw std::runtime_error(dlerror());
    init_ = reinterpret_cast<InitFn>(dlsym(handle_, "ce_dpm_dlib_init"));
    check_ = reinterpret_cast<CheckFn>(dlsym(handle_, "dpm_oracle_check"));
    ready_ = reinterpret_cast<ReadyFn>(dlsym(handle_, "dpm_oracle_ready"));
    summary_ = reinterpret_cast<SummaryFn>(dlsym(handle_, "dpm_oracle_summary"));
    map_usable_ = reinterpret_cast<ReadyFn>(dlsym(handle_, "dpm_oracle_map_usable"));
    held_ = reinterpret_cast<ReadyFn>(dlsym(handle_, "dpm_oracle_held"));
    if (init_ == nullptr || check_ == nullptr || ready_ == nullptr || summary_ == nullptr ||
        map_usable_ == nullptr || held_ == nullptr) {
        throw std::runtime_error("oracle module lacks its entry points");
    }
    snapshot();
}

OracleModule::~OracleModule() {
    platform::drop_instance();
    // Never unloaded: a fuzzer keeps pointers into the copy's coverage counters.
    std::filesystem::remove(path_);
}

void OracleModule::snapshot() {
    PhdrQuery q{path_.c_str(), {}, {}, 0, false};
    dl_iterate_phdr(find_segments, &q);
    if (!q.found) throw std::runtime_error("oracle module not mapped");
    std::vector<std::pair<uintptr_t, uintptr_t>> holes;
    if (q.relro.second > q.relro.first) holes.push_back(q.relro);
    for (auto [a, b] : keep_sections(path_)) holes.emplace_back(q.base + a, q.base + b);
    std::sort(holes.begin(), holes.end());
    for (auto [start, end] : q.writable) {
        uintptr_t cur = start;
        for (auto [ha, hb] : holes) {
            if (hb <= cur || ha >= end) continue;
            if (ha > cur) {
                ranges_.push_back(Range{cur, std::vector<unsigned char>(ha - cur)});
            }
            cur = std::max(cur, hb);
        }
        if (cur < end) ranges_.push_back(Range{cur, std::vector<unsigned char>(end - cur)});
    }
    for (Range &r : ranges_) {
        raw_copy(r.bytes.data(), reinterpret_cast<const unsigned char *>(r.start), r.bytes.size());
    }
}

void OracleModule::restore() {
    // What the old instance still holds goes back first: nothing else points
    // at it once its globals are rewound.
    dpm_alloc_release_all();
    for (const Range &r : ranges_) {
        raw_copy(reinterpret_cast<unsigned char *>(r.start), r.bytes.data(), r.bytes.size());
    }
}

int OracleModule::start(uint32_t devid, uint32_t node_type) {
    if (started_) restore();
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

bool OracleModule::map_usable() const {
    return map_usable_() != 0;
}

bool OracleModule::held() const {
    return held_() != 0;
}

bool OracleModule::ready() const {
    return ready_() != 0;
}

std::string OracleModule::summary() const {
    char buf[512];
    summary_(buf, sizeof buf);
    return buf;
}

// ---- the unit's world ---------------------------------------------------------------

namespace {

template <class T, size_t N>
T pick(ByteReader &in, const T (&table)[N]) {
    return table[in.u8() % N];
}

// Mostly the unit's own ids, some out of every range.
constexpr int kDevs[] = {1, 1, 2, 2, 3, 3, 1, 2, 0, 15, 31, 40, 255, 300};
constexpr int kPeerDevs[] = {2, 2, 3, 3, 2, 3, 1, 0, 40, 300};
constexpr int kSlots[] = {1, 2, 1, 2, 1, 2, 3, 0, 31};
constexpr int kLports[] = {1, 2, 3, 1, 2, 3, 4, 0, 300};
constexpr int kModids[] = {10, 11, 20, 21, 22, 23,   24,   30,   31, 32,
                           20, 30, 0,  12, 25, 2047, 2048, 4095, -1};
constexpr int kApids[] = {1, 2, 1, 2, 1, 2, 0, 3, 9};
constexpr int kNodeTypes[] = {3, 3, 1, 3, 2, 4, 6, 7, 5, 0, 99};
constexpr const char *kWords[] = {"forward", "forward", "forward", "block",   "part_forward",
                                  "timeout", "",        "Forward", "forward "};
constexpr int kDbs[] = {kAsic, kLocal, kUdp, kTopo};

}  // namespace

// The chip of a port in the unit: member d's slot s holds chip 10*d + s - 1.
uint32_t chip_of(int devid, int slot) {
    return static_cast<uint32_t>(10 * devid + slot - 1);
}

std::string mod_alloc(int devid, int slot, int unit, int modid, int node_type) {
    SIntf__ModAllocIndex idx = S_INTF__MOD_ALLOC_INDEX__INIT;
    SIntf__EvtModAlloc rec = S_INTF__EVT_MOD_ALLOC__INIT;
    idx.devid = devid;
    idx.slotid = slot;
    idx.unit = unit;
    rec.index = &idx;
    rec.modid = modid;
    rec.unit = unit;
    rec.node_type = static_cast<PDev__DmNodeTypeE>(node_type);
    rec.idnum_per_unit = 1;
    return pack(&rec.base);
}

std::string vsl_link(int devid, int slot, int lport, int status, int apid, int pdev, int pslot,
                     int plport) {
    PDev__VslPortIndex idx = P_DEV__VSL_PORT_INDEX__INIT;
    PDev__VslLocalLink rec = P_DEV__VSL_LOCAL_LINK__INIT;
    idx.devid = devid;
    idx.slotid = slot;
    idx.lport = lport;
    rec.index = &idx;
    rec.status = status;
    rec.vsl_ap = apid;
    rec.peer_dev_id = pdev;
    rec.peer_slot_id = pslot;
    rec.peer_lport = plport;
    return pack(&rec.base);
}

struct Fib {
    int owner, dst, oif;
};
struct Mfib {
    int owner, src, iif;
    std::vector<int> oifs;
};

std::string route_map(int local_id, const std::vector<Fib> &fibs, const std::vector<Mfib> &mfibs) {
    PDev__DtmRouteInfo rec = P_DEV__DTM_ROUTE_INFO__INIT;
    std::vector<PDev__DtmFibInfo> f(fibs.size());
    std::vector<PDev__DtmFibInfo *> fp;
    for (size_t i = 0; i < fibs.size(); ++i) {
        f[i] = P_DEV__DTM_FIB_INFO__INIT;
        f[i].owner_mid = fibs[i].owner;
        f[i].dst_id = fibs[i].dst;
        f[i].oif_id = fibs[i].oif;
        fp.push_back(&f[i]);
    }
    std::vector<PDev__DtmMfibInfo> m(mfibs.size());
    std::vector<PDev__DtmMfibInfo *> mp;
    std::vector<std::vector<int32_t>> oifs(mfibs.size());
    for (size_t i = 0; i < mfibs.size(); ++i) {
        m[i] = P_DEV__DTM_MFIB_INFO__INIT;
        m[i].owner_mid = mfibs[i].owner;
        m[i].src_id = mfibs[i].src;
        m[i].iif_id = mfibs[i].iif;
        oifs[i].assign(mfibs[i].oifs.begin(), mfibs[i].oifs.end());
        m[i].n_oif_id = oifs[i].size();
        m[i].oif_id = oifs[i].data();
        mp.push_back(&m[i]);
    }
    rec.local_id = local_id;
    rec.fib_num = static_cast<int32_t>(fibs.size());
    rec.n_fibs = fp.size();
    rec.fibs = fp.data();
    rec.mfib_num = static_cast<int32_t>(mfibs.size());
    rec.n_mfibs = mp.size();
    rec.mfibs = mp.data();
    return pack(&rec.base);
}

// Member 2 behind apid a2, member 3 behind apid a3.
std::string unit_map(int a2, int a3) {
    return route_map(1, {{1, 2, a2}, {1, 3, a3}, {2, 1, 1}, {3, 1, 2}, {2, 3, 2}},
                     {{1, 1, 0, {1, 2}}, {1, 2, a2, {a3}}});
}

std::string chip_state(int devid, int slot, int unit, const char *word, uint32_t modid) {
    UCluster__ChipIdx idx = U_CLUSTER__CHIP_IDX__INIT;
    UCluster__VslChipFwdstate rec = U_CLUSTER__VSL_CHIP_FWDSTATE__INIT;
    idx.t_devid = static_cast<uint32_t>(devid);
    idx.slot = static_cast<uint32_t>(slot);
    idx.unit = static_cast<uint32_t>(unit);
    rec.index = &idx;
    rec.fwd_state = const_cast<char *>(word);
    rec.modid = modid;
    return pack(&rec.base);
}

std::string dev_state(int devid, const char *word) {
    UCluster__DevIdx idx = U_CLUSTER__DEV_IDX__INIT;
    UCluster__KelDevFwdstate rec = U_CLUSTER__KEL_DEV_FWDSTATE__INIT;
    idx.devid = static_cast<uint32_t>(devid);
    rec.index = &idx;
    rec.fwd_state = const_cast<char *>(word);
    return pack(&rec.base);
}

std::string mmc_state(uint32_t modid, uint32_t apid, size_t words) {
    UCluster__ModApidIdx idx = U_CLUSTER__MOD_APID_IDX__INIT;
    UCluster__MainmcVlanSt rec = U_CLUSTER__MAINMC_VLAN_ST__INIT;
    idx.t_cfg_modid = modid;
    idx.apid = apid;
    rec.index = &idx;
    std::vector<uint32_t> vlan(words, 0xFFFFFFFFU);
    rec.n_vlan = vlan.size();
    rec.vlan = vlan.data();
    return pack(&rec.base);
}

std::string grole(int role) {
    PDev__DpLibGrole rec = P_DEV__DP_LIB_GROLE__INIT;
    rec.dev_num = 2;
    rec.my_grole = static_cast<PDev__DmRoleE>(role);
    return pack(&rec.base);
}

std::string card_info(int devid, int slot, int sslot, bool online) {
    PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
    PDev__CardInfo rec = P_DEV__CARD_INFO__INIT;
    idx.devid = devid;
    idx.slotid = slot;
    idx.sslotid = sslot;
    rec.index = &idx;
    rec.is_online = online;
    return pack(&rec.base);
}

namespace {

uint32_t gslot_of(int devid, int slot, int sslot) {
    return (static_cast<uint32_t>(slot) & 0x1FU) |
           ((static_cast<uint32_t>(devid - 1) & 0x1FU) << 5) |
           ((static_cast<uint32_t>(sslot) & 0x1FU) << 10);
}

std::string fmt(const char *f, auto... args) {
    char buf[256];
    std::snprintf(buf, sizeof buf, f, args...);
    return buf;
}

}  // namespace

Event decode_event(ByteReader &in) {
    Event e;
    e.kind = static_cast<Kind>(in.u8() % static_cast<uint8_t>(Kind::Count));
    switch (e.kind) {
        case Kind::ModAlloc:
        case Kind::ModAllocDel: {
            int dev = pick(in, kDevs), slot = pick(in, kSlots), unit = in.u8() % 3;
            int modid = (in.u8() & 1) != 0 ? static_cast<int>(chip_of(dev, slot)) + unit * 3
                                           : pick(in, kModids);
            int type = pick(in, kNodeTypes);
            e.db = kAsic;
            e.type = "s_intf.evt_mod_alloc";
            e.packed = mod_alloc(dev, slot, unit, modid, type);
            e.devid = dev;
            e.slot = slot;
            e.lport = unit;
            e.value = static_cast<uint32_t>(modid);
            e.pick = static_cast<uint32_t>(type);
            e.text = fmt("%s evt_mod_alloc %d/%d unit %d modid %d type %d",
                         e.kind == Kind::ModAlloc ? "hmset" : "del", dev, slot, unit, modid, type);
            break;
        }
        case Kind::VslLink:
        case Kind::VslLinkDel: {
            int dev = (in.u8() % 4) != 0 ? 1 : pick(in, kDevs);
            int slot = pick(in, kSlots), lport = pick(in, kLports),
                status = in.u8() % 3 == 0 ? 0 : 1;
            int apid = pick(in, kApids), pdev = pick(in, kPeerDevs), pslot = pick(in, kSlots),
                plport = pick(in, kLports);
            e.db = kLocal;
            e.type = "p_dev.vsl_local_link";
            e.packed = vsl_link(dev, slot, lport, status, apid, pdev, pslot, plport);
            // A port as the unit wires it: member 1's slot s joins apid s, and
            // member s+1 at the far end on the same slot and port.
            e.pick = dev == 1 && apid == slot && pdev == slot + 1 && pslot == 1 && plport == lport;
            e.text = fmt("%s vsl_local_link %d/%d/%d status %d apid %d peer %d/%d/%d",
                         e.kind == Kind::VslLink ? "hmset" : "del", dev, slot, lport, status, apid,
                         pdev, pslot, plport);
            break;
        }
        case Kind::Map: {
            e.db = kLocal;
            e.type = "p_dev.dtm_route_info";
            uint8_t mode = in.u8() % 4;
            if (mode != 0) {
                int a2 = pick(in, kApids), a3 = pick(in, kApids);
                e.packed = unit_map(a2, a3);
                e.pick = 1;  // a map the intake takes
                e.text =
                    fmt("set dtm_route_info unit map, member 2 on apid %d, member 3 on apid %d", a2,
                        a3);
            } else {
                std::vector<Fib> fibs(in.u8() % 7);
                std::string t = "set dtm_route_info fibs";
                for (Fib &f : fibs) {
                    f = {(in.u8() % 3) != 0 ? 1 : pick(in, kDevs), pick(in, kDevs),
                         pick(in, kApids)};
                    t += fmt(" %d>%d@%d", f.owner, f.dst, f.oif);
                }
                std::vector<Mfib> mfibs(in.u8() % 3);
                t += " mfibs";
                for (Mfib &m : mfibs) {
                    m.owner = 1;
                    m.src = pick(in, kDevs);
                    m.iif = pick(in, kApids);
                    m.oifs.resize(in.u8() % 4);
                    for (int &o : m.oifs) o = pick(in, kApids);
                    t += fmt(" %d<%d/%zu", m.src, m.iif, m.oifs.size());
                }
                e.packed = route_map(1, fibs, mfibs);
                e.text = t;
            }
            break;
        }
        case Kind::MapDel:
            e.db = kLocal;
            e.type = "p_dev.dtm_route_info";
            e.packed = route_map(1, {}, {});
            e.text = "del dtm_route_info";
            break;
        case Kind::ChipState:
        case Kind::ChipStateDel: {
            int dev = pick(in, kDevs), slot = pick(in, kSlots), unit = in.u8() % 4 == 0 ? 1 : 0;
            const char *word = pick(in, kWords);
            uint32_t modid =
                (in.u8() % 4) != 0 ? chip_of(dev, slot) : static_cast<uint32_t>(pick(in, kModids));
            e.db = kUdp;
            e.type = "u_cluster.vsl_chip_fwdstate";
            e.packed = chip_state(dev, slot, unit, word, modid);
            // The chip's own module id, reported forwarding.
            e.pick = std::strcmp(word, "forward") == 0 && unit == 0 && modid == chip_of(dev, slot);
            e.text = fmt("%s vsl_chip_fwdstate %d/%d unit %d \"%s\" modid %u",
                         e.kind == Kind::ChipState ? "set" : "del", dev, slot, unit, word, modid);
            break;
        }
        case Kind::DevState:
        case Kind::DevStateDel: {
            int dev = pick(in, kDevs);
            const char *word = pick(in, kWords);
            e.db = kUdp;
            e.type = "u_cluster.kel_dev_fwdstate";
            e.packed = dev_state(dev, word);
            e.text = fmt("%s kel_dev_fwdstate %d \"%s\"", e.kind == Kind::DevState ? "set" : "del",
                         dev, word);
            break;
        }
        case Kind::MmcConfirm:
        case Kind::MmcConfirmDel:
            e.db = kTopo;
            e.type = "u_cluster.mainmc_vlan_st";
            e.pick = in.u8();
            e.text = fmt("%s mainmc_vlan_st answer %u", e.kind == Kind::MmcConfirm ? "set" : "del",
                         e.pick);
            break;
        case Kind::CardAdd:
        case Kind::CardDel: {
            if ((in.u8() % 5) != 0) {
                e.devid = pick(in, kDevs);
                e.slot = pick(in, kSlots);
                e.gslot = gslot_of(e.devid, e.slot, 0);
            } else {
                e.gslot = in.u16();
            }
            e.text = fmt("card %s gslot %u", e.kind == Kind::CardAdd ? "add" : "del", e.gslot);
            break;
        }
        case Kind::CardOnline:
            e.devid = pick(in, kDevs);
            e.slot = pick(in, kSlots);
            e.value = in.u8() % 2;
            e.text = fmt("card online %d/%d/0 %s", e.devid, e.slot, *e.value ? "yes" : "no");
            break;
        case Kind::Grole: {
            int role = in.u8() % 6;
            e.type = "p_dev.dp_lib_grole";
            e.packed = grole(role);
            e.text = fmt("agent set dp_lib_grole role %d", role);
            break;
        }
        case Kind::CardInfo: {
            e.devid = pick(in, kDevs);
            e.slot = pick(in, kSlots);
            bool online = in.u8() % 3 != 0;
            e.type = "p_dev.card_info";
            e.packed = card_info(e.devid, e.slot, 0, online);
            e.text = fmt("agent set card_info %d/%d online %d", e.devid, e.slot, online);
            break;
        }
        case Kind::ChipLookup: {
            e.devid = pick(in, kDevs);
            e.slot = pick(in, kSlots);
            e.lport = pick(in, kLports);
            uint8_t v = in.u8() % 4;
            if (v == 1) e.value = chip_of(e.devid, e.slot);
            if (v == 2) e.value = static_cast<uint32_t>(pick(in, kModids));
            if (v == 3) e.value = chip_of(e.devid, e.slot);
            e.text = e.value ? fmt("port %d/%d/%d chip %u", e.devid, e.slot, e.lport, *e.value)
                             : fmt("port %d/%d/%d chip fail", e.devid, e.slot, e.lport);
            break;
        }
        case Kind::Reconnect:
        case Kind::Disconnect:
            e.db = pick(in, kDbs);
            e.text = fmt("db %s %d", e.kind == Kind::Reconnect ? "reconnect" : "disconnect", e.db);
            break;
        case Kind::Restart:
        case Kind::Count:
            e.kind = Kind::Restart;
            e.text = "restart";
            break;
    }
    return e;
}

std::vector<Event> decode_events(const uint8_t *data, size_t size, size_t max_events) {
    ByteReader in(data, size);
    std::vector<Event> out;
    while (!in.empty() && out.size() < max_events) out.push_back(decode_event(in));
    return out;
}

void UnitDriver::unit_records() {
    // Member 1 (slots 1 and 2), member 2 behind apid 1, member 3 behind apid 2.
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(1, 1, 0, 10, 3));
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(1, 2, 0, 11, 3));
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(2, 1, 0, 20, 3));
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(2, 2, 0, 21, 3));
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(2, 1, 1, 23, 3));
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(2, 3, 0, 22, 2));
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(3, 1, 0, 30, 3));
    platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(3, 2, 0, 31, 3));
    platform::db_hmset(kLocal, "p_dev.vsl_local_link", vsl_link(1, 1, 1, 1, 1, 2, 1, 1));
    platform::db_hmset(kLocal, "p_dev.vsl_local_link", vsl_link(1, 1, 2, 1, 1, 2, 1, 2));
    platform::db_hmset(kLocal, "p_dev.vsl_local_link", vsl_link(1, 2, 1, 1, 2, 3, 1, 1));
    platform::db_hmset(kLocal, "p_dev.vsl_local_link", vsl_link(1, 2, 2, 1, 2, 3, 1, 2));
    for (auto [d, s] : {std::pair{1, 1}, {1, 2}, {2, 1}, {3, 1}}) {
        platform::db_set(kUdp, "u_cluster.vsl_chip_fwdstate",
                         chip_state(d, s, 0, "forward", chip_of(d, s)));
        platform::card_add(gslot_of(d, s, 0));
    }
    platform::db_set(kUdp, "u_cluster.kel_dev_fwdstate", dev_state(2, "forward"));
    platform::db_set(kUdp, "u_cluster.kel_dev_fwdstate", dev_state(3, "forward"));
    platform::db_set(kLocal, "p_dev.dtm_route_info", unit_map(1, 2));
}

void UnitDriver::begin(Baseline baseline) {
    platform::reset();
    platform::set_log_fd(-1);
    for (int d = 0; d <= 3; ++d) {
        for (int s = 0; s <= 3; ++s) {
            for (int l = 0; l <= 4; ++l) {
                platform::set_chipid(d, s, l, chip_of(d, s));
                platform::set_phyid(d, s, l, static_cast<uint32_t>(100 * d + 10 * s + l));
            }
        }
    }
    if (baseline == Baseline::StoredUnit) unit_records();
    platform::drop_instance();
    module_.start();
    platform::run_until_idle();
    if (baseline == Baseline::LiveUnit) {
        unit_records();
        platform::run_until_idle();
    }
    platform::take_log();
}

void UnitDriver::apply(const Event &e) {
    switch (e.kind) {
        case Kind::ModAlloc:
        case Kind::VslLink:
            platform::db_hmset(e.db, e.type, e.packed);
            break;
        case Kind::Map:
        case Kind::ChipState:
        case Kind::DevState:
            platform::db_set(e.db, e.type, e.packed);
            break;
        case Kind::ModAllocDel:
        case Kind::VslLinkDel:
        case Kind::MapDel:
        case Kind::ChipStateDel:
        case Kind::DevStateDel:
            platform::db_del(e.db, e.type, e.packed);
            break;
        case Kind::MmcConfirm:
        case Kind::MmcConfirmDel: {
            // The hardware side answers what the module published (or, now and
            // then, something it never published).
            auto published = platform::db_records(kTopo, "u_cluster.mainmc_vlan");
            auto answers = platform::db_records(kTopo, "u_cluster.mainmc_vlan_st");
            const auto &from = e.kind == Kind::MmcConfirm ? published : answers;
            std::string rec;
            if (!from.empty() && e.pick % 8 != 7) {
                const auto &r = from[e.pick % from.size()];
                ProtobufCMessage *m = protobuf_c_message_unpack(
                    &u_cluster__mainmc_vlan__descriptor, nullptr, r.packed.size(),
                    reinterpret_cast<const uint8_t *>(r.packed.data()));
                if (m != nullptr) {
                    auto *v = reinterpret_cast<UCluster__MainmcVlan *>(m);
                    if (v->index != nullptr) {
                        rec = mmc_state(v->index->t_cfg_modid, v->index->apid, 128);
                    }
                    protobuf_c_message_free_unpacked(m, nullptr);
                }
            }
            if (rec.empty()) rec = mmc_state(e.pick % 40, e.pick % 4, e.pick % 130);
            if (e.kind == Kind::MmcConfirm) {
                platform::db_set(kTopo, e.type, rec);
            } else {
                platform::db_del(kTopo, e.type, rec);
            }
            break;
        }
        case Kind::CardAdd:
            platform::card_add(e.gslot);
            break;
        case Kind::CardDel:
            platform::card_del(e.gslot);
            break;
        case Kind::CardOnline:
            platform::set_card_online(e.devid, e.slot, 0, e.value.value_or(1) != 0);
            break;
        case Kind::Grole:
        case Kind::CardInfo:
            platform::agent_set(e.type, e.packed);
            break;
        case Kind::ChipLookup:
            platform::set_chipid(e.devid, e.slot, e.lport, e.value);
            break;
        case Kind::Reconnect:
            platform::db_disconnect(e.db);
            platform::run_until_idle();
            platform::db_reconnect(e.db, 2);
            break;
        case Kind::Disconnect:
            platform::db_disconnect(e.db);
            break;
        case Kind::Restart:
        case Kind::Count:
            module_.restart();
            break;
    }
    platform::run_until_idle();
    platform::take_log();
}

std::string run_event_input(OracleModule &module, const uint8_t *data, size_t size) {
    if (size == 0) return "";
    ByteReader in(data, size);
    UnitDriver unit(module);
    const auto baseline = static_cast<Baseline>(in.u8() % 3);
    unit.begin(baseline);
    std::string trail = "baseline " + std::to_string(static_cast<int>(baseline)) + "\n";
    std::string report;
    if (module.check(OracleModule::kAll, &report) != 0) return trail + report;
    for (size_t n = 0; n < 64 && !in.empty(); ++n) {
        Event e = decode_event(in);
        trail += "  " + e.text + "\n";
        unit.apply(e);
        if (module.check(OracleModule::kAll, &report) != 0) {
            return trail + report + module.summary() + "\n";
        }
    }
    return "";
}

// ---- TOPO_DB as text ----------------------------------------------------------------

namespace {

std::string words_text(const uint32_t *w, size_t n) {
    std::string out = fmt("%zu words", n);
    for (size_t i = 0; i < n; ++i) {
        if (w[i] != 0) out += fmt(" [%zu]=%08x", i, w[i]);
    }
    return out;
}

std::string port_text(const UCluster__Vslport *p) {
    if (p == nullptr) return "-";
    return fmt("%u/%u/%u/%u@%u", p->devid, p->slot, p->sslot, p->lport, p->gphyid);
}

std::string record_text(const platform::StoredRecord &r, bool member_order) {
    const ProtobufCMessageDescriptor *d = nullptr;
    for (const auto *c :
         {&u_cluster__kel_uc_balance__descriptor, &u_cluster__vsl_srcmod_igr__descriptor,
          &u_cluster__vsl_srcmod_egr__descriptor, &u_cluster__vsl_ap_member__descriptor,
          &u_cluster__mainmc_vlan__descriptor, &u_cluster__mainmc_vlan_st__descriptor}) {
        if (r.type == c->name) d = c;
    }
    if (d == nullptr) return r.type + " (not shown)";
    ProtobufCMessage *m = protobuf_c_message_unpack(
        d, nullptr, r.packed.size(), reinterpret_cast<const uint8_t *>(r.packed.data()));
    if (m == nullptr) return r.type + " (does not decode)";
    std::string out = r.type + " ";
    if (d == &u_cluster__kel_uc_balance__descriptor) {
        auto *u = reinterpret_cast<UCluster__KelUcBalance *>(m);
        out += fmt("modid %u local %u apid %u lport %u peer %u", u->index ? u->index->modid : 0,
                   u->local_modid, u->apid, u->lport, u->peer_modid);
    } else if (d == &u_cluster__vsl_srcmod_igr__descriptor) {
        auto *u = reinterpret_cast<UCluster__VslSrcmodIgr *>(m);
        out += fmt("apid %u ", u->index ? u->index->apid : 0) +
               words_text(u->permit_modid, u->n_permit_modid);
    } else if (d == &u_cluster__vsl_srcmod_egr__descriptor) {
        auto *u = reinterpret_cast<UCluster__VslSrcmodEgr *>(m);
        out += fmt("apid %u ", u->index ? u->index->apid : 0) +
               words_text(u->block_modid, u->n_block_modid);
    } else if (d == &u_cluster__vsl_ap_member__descriptor) {
        auto *u = reinterpret_cast<UCluster__VslApMember *>(m);
        std::vector<std::string> ms;
        for (size_t i = 0; i < u->n_member; ++i) ms.push_back(port_text(u->member[i]));
        if (!member_order) std::sort(ms.begin(), ms.end());
        out += fmt("apid %u members", u->index ? u->index->apid : 0);
        for (const auto &s : ms) out += " " + s;
    } else if (d == &u_cluster__mainmc_vlan__descriptor) {
        auto *u = reinterpret_cast<UCluster__MainmcVlan *>(m);
        out += fmt("modid %u apid %u local %s peer %s ", u->index ? u->index->t_cfg_modid : 0,
                   u->index ? u->index->apid : 0, port_text(u->local_vsl).c_str(),
                   port_text(u->peer_vsl).c_str()) +
               fmt("%zu vlan words", u->n_vlan);
    } else {
        auto *u = reinterpret_cast<UCluster__MainmcVlanSt *>(m);
        out += fmt("modid %u apid %u %zu vlan words", u->index ? u->index->t_cfg_modid : 0,
                   u->index ? u->index->apid : 0, u->n_vlan);
    }
    protobuf_c_message_free_unpacked(m, nullptr);
    return out;
}

}  // namespace

std::vector<std::string> topo_lines(bool member_order, bool empty_as_absent) {
    std::vector<std::string> out;
    for (const auto &r : platform::db_records(kTopo)) {
        std::string line = record_text(r, member_order);
        // A member list without members and a filter without bits say what
        // their absence says.
        if (empty_as_absent && (line.ends_with(" members") || line.ends_with(" 64 words")))
            continue;
        out.push_back(std::move(line));
    }
    return out;
}

std::string join(const std::vector<std::string> &lines) {
    std::string out;
    for (const auto &l : lines) out += "  " + l + "\n";
    return out;
}

}  // namespace dpm_stress
