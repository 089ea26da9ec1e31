#include "stress_unit.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <google/protobuf/text_format.h>

#include "alloc_track.h"
#include "p_dev.pb.h"
#include "s_intf.pb.h"
#include "u_cluster.pb.h"

namespace dpm_stress {
namespace {

constexpr int kAsic = 0, kLocal = 3, kUdp = 8, kTopo = 14;

std::string fmt(const char *f, auto... args) {
    char buf[1024];
    std::snprintf(buf, sizeof buf, f, args...);
    return buf;
}

// An empty record of `type`.
std::unique_ptr<google::protobuf::Message> new_record(const std::string &type) {
    static const bool linked = (p_dev::vsl_local_link::descriptor() != nullptr &&
                                s_intf::evt_mod_alloc::descriptor() != nullptr &&
                                u_cluster::vsl_ap_member::descriptor() != nullptr);
    const auto *d = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(type);
    if (!linked || d == nullptr) throw std::logic_error("unknown record type " + type);
    return std::unique_ptr<google::protobuf::Message>(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(d)->New());
}

// A record of `type` from its text form, packed.
std::string pack(const std::string &type, const std::string &text) {
    const auto m = new_record(type);
    if (!google::protobuf::TextFormat::ParseFromString(text, m.get()))
        throw std::logic_error("bad " + type + " text: " + text);
    return m->SerializeAsString();
}

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

std::string oracle_module_path() {
    return DPM_ORACLE_MODULE_PATH;
}

OracleModule &oracle_module() {
    static auto *m = new OracleModule(oracle_module_path());
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

// ---- the unit's world ---------------------------------------------------------------

namespace {

// Reads an event sequence from bytes; exhausted input reads as zeros.
class ByteReader {
  public:
    ByteReader(const uint8_t *data, size_t size) : p_(data), n_(size) {}
    bool empty() const { return n_ == 0; }
    uint8_t u8() {
        if (n_ == 0) return 0;
        --n_;
        return *p_++;
    }
    uint32_t u16() { return static_cast<uint32_t>(u8()) | static_cast<uint32_t>(u8()) << 8; }

  private:
    const uint8_t *p_;
    size_t n_;
};

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

uint32_t gslot_of(int devid, int slot) {
    return (static_cast<uint32_t>(slot) & 0x1FU) |
           ((static_cast<uint32_t>(devid - 1) & 0x1FU) << 5);
}

std::string mmc_state(uint32_t modid, uint32_t apid, size_t words) {
    u_cluster::mainmc_vlan_st rec;
    rec.mutable_index()->set_t_cfg_modid(modid);
    rec.mutable_index()->set_apid(apid);
    for (size_t i = 0; i < words; ++i) rec.add_vlan(0xFFFFFFFFU);
    return rec.SerializeAsString();
}

// A record event from the record's text form.
void record(Event &e, int db, const char *type, const std::string &text) {
    e.db = db;
    e.type = type;
    e.packed = pack(type, text);
}

constexpr const char *kKindNames[] = {
    "mod_alloc",  "mod_alloc del", "vsl_link",    "vsl_link del", "map",        "map del",
    "chip state", "chip del",      "dev state",   "dev del",      "mmc answer", "mmc answer del",
    "card add",   "card del",      "card online", "grole",        "card info",  "chip lookup",
    "reconnect",  "disconnect",    "restart",     "fail calloc"};

}  // namespace

std::string describe(const Event &e) {
    std::string out = fmt("%s db %d dev %d/%d/%d gslot %u pick %u", kKindNames[int(e.kind)], e.db,
                          e.devid, e.slot, e.lport, e.gslot, e.pick);
    if (e.value) out += fmt(" value %u", *e.value);
    if (e.packed.empty()) return out;
    const auto m = new_record(e.type);
    m->ParseFromString(e.packed);
    return out + " " + e.type + " {" + m->ShortDebugString() + "}";
}

uint32_t chip_of(int devid, int slot) {
    return static_cast<uint32_t>(10 * devid + slot - 1);
}

std::string mod_alloc(int devid, int slot, int unit, int modid, int node_type) {
    s_intf::evt_mod_alloc rec;
    rec.mutable_index()->set_devid(devid);
    rec.mutable_index()->set_slotid(slot);
    rec.mutable_index()->set_unit(unit);
    rec.set_modid(modid);
    rec.set_unit(unit);
    rec.set_node_type(static_cast<p_dev::dm_node_type_e>(node_type));
    rec.set_idnum_per_unit(1);
    return rec.SerializeAsString();
}

std::string vsl_link(int devid, int slot, int lport, int status, int apid, int pdev, int pslot,
                     int plport) {
    return pack("p_dev.vsl_local_link",
                fmt("index {devid: %d slotid: %d lport: %d} status: %d vsl_ap: %d peer_dev_id: %d "
                    "peer_slot_id: %d peer_lport: %d",
                    devid, slot, lport, status, apid, pdev, pslot, plport));
}

std::string unit_map(int a2, int a3) {
    return pack("p_dev.dtm_route_info",
                fmt("local_id: 1 fib_num: 5 mfib_num: 2 fibs {owner_mid: 1 dst_id: 2 oif_id: %d} "
                    "fibs {owner_mid: 1 dst_id: 3 oif_id: %d} fibs {owner_mid: 2 dst_id: 1 oif_id: "
                    "1} fibs {owner_mid: 3 dst_id: 1 oif_id: 2} fibs {owner_mid: 2 dst_id: 3 "
                    "oif_id: 2} mfibs {owner_mid: 1 src_id: 1 iif_id: 0 oif_id: 1 oif_id: 2} "
                    "mfibs {owner_mid: 1 src_id: 2 iif_id: %d oif_id: %d}",
                    a2, a3, a2, a3));
}

std::string chip_state(int devid, int slot, int unit, const char *word, uint32_t modid) {
    return pack("u_cluster.vsl_chip_fwdstate",
                fmt("index {t_devid: %u slot: %u unit: %u} fwd_state: \"%s\" modid: %u",
                    static_cast<uint32_t>(devid), static_cast<uint32_t>(slot),
                    static_cast<uint32_t>(unit), word, modid));
}

std::string dev_state(int devid, const char *word) {
    return pack("u_cluster.kel_dev_fwdstate",
                fmt("index {devid: %u} fwd_state: \"%s\"", static_cast<uint32_t>(devid), word));
}

// The byte layout of each kind is what the stored corpus and regression
// inputs were written in: reads stay in this order.
Event decode_event(ByteReader &in, bool faults) {
    Event e;
    const auto kinds = static_cast<uint8_t>(faults ? Kind::Count : Kind::AllocFail);
    e.kind = static_cast<Kind>(in.u8() % kinds);
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
            break;
        }
        case Kind::Map:
        case Kind::MapDel: {
            record(e, kLocal, "p_dev.dtm_route_info", "local_id: 1");
            if (e.kind == Kind::MapDel) break;
            if (in.u8() % 4 != 0) {
                const int a2 = pick(in, kApids);
                e.packed = unit_map(a2, pick(in, kApids));
                e.pick = 1;  // a map the intake takes
                break;
            }
            std::string routes;
            const int fibs = in.u8() % 7;
            for (int i = 0; i < fibs; ++i) {
                const int owner = (in.u8() % 3) != 0 ? 1 : pick(in, kDevs), dst = pick(in, kDevs);
                routes += fmt(" fibs {owner_mid: %d dst_id: %d oif_id: %d}", owner, dst,
                              pick(in, kApids));
            }
            const int mfibs = in.u8() % 3;
            for (int i = 0; i < mfibs; ++i) {
                const int src = pick(in, kDevs), iif = pick(in, kApids), oifs = in.u8() % 4;
                routes += fmt(" mfibs {owner_mid: 1 src_id: %d iif_id: %d", src, iif);
                for (int k = 0; k < oifs; ++k) routes += fmt(" oif_id: %d", pick(in, kApids));
                routes += "}";
            }
            record(e, kLocal, "p_dev.dtm_route_info",
                   fmt("local_id: 1 fib_num: %d mfib_num: %d", fibs, mfibs) + routes);
            break;
        }
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
            break;
        }
        case Kind::DevState:
        case Kind::DevStateDel: {
            const int dev = pick(in, kDevs);
            e.db = kUdp;
            e.type = "u_cluster.kel_dev_fwdstate";
            e.packed = dev_state(dev, pick(in, kWords));
            break;
        }
        case Kind::MmcConfirm:
        case Kind::MmcConfirmDel:
            e.db = kTopo;
            e.type = "u_cluster.mainmc_vlan_st";
            e.pick = in.u8();
            break;
        case Kind::CardAdd:
        case Kind::CardDel:
            if ((in.u8() % 5) != 0) {
                e.devid = pick(in, kDevs);
                e.slot = pick(in, kSlots);
                e.gslot = gslot_of(e.devid, e.slot);
            } else {
                e.gslot = in.u16();
            }
            break;
        case Kind::CardOnline:
            e.devid = pick(in, kDevs);
            e.slot = pick(in, kSlots);
            e.value = in.u8() % 2;
            break;
        case Kind::Grole: {
            p_dev::dp_lib_grole rec;
            rec.set_dev_num(2);
            rec.set_my_grole(static_cast<p_dev::dm_role_e>(in.u8() % 6));
            e.type = "p_dev.dp_lib_grole";
            e.packed = rec.SerializeAsString();
            break;
        }
        case Kind::CardInfo: {
            e.devid = pick(in, kDevs);
            e.slot = pick(in, kSlots);
            record(e, 0, "p_dev.card_info",
                   fmt("index {devid: %d slotid: %d} is_online: %s", e.devid, e.slot,
                       in.u8() % 3 != 0 ? "true" : "false"));
            break;
        }
        case Kind::ChipLookup: {
            e.devid = pick(in, kDevs);
            e.slot = pick(in, kSlots);
            e.lport = pick(in, kLports);
            const uint8_t v = in.u8() % 4;
            if (v == 1 || v == 3) e.value = chip_of(e.devid, e.slot);
            if (v == 2) e.value = static_cast<uint32_t>(pick(in, kModids));
            break;
        }
        case Kind::Reconnect:
        case Kind::Disconnect:
            e.db = pick(in, kDbs);
            break;
        case Kind::AllocFail:
            e.value = 1 + in.u8() % 3;
            e.pick = in.u8() % 16;
            break;
        case Kind::Restart:
        case Kind::Count:
            e.kind = Kind::Restart;
            break;
    }
    return e;
}

std::vector<Event> decode_events(const uint8_t *data, size_t size, size_t max_events) {
    ByteReader in(data, size);
    std::vector<Event> out;
    while (!in.empty() && out.size() < max_events) out.push_back(decode_event(in, false));
    return out;
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
    // Member 1 (slots 1 and 2), member 2 behind apid 1, member 3 behind apid 2.
    auto unit_records = [] {
        for (auto [d, s, u, m, t] : {std::array{1, 1, 0, 10, 3},
                                     {1, 2, 0, 11, 3},
                                     {2, 1, 0, 20, 3},
                                     {2, 2, 0, 21, 3},
                                     {2, 1, 1, 23, 3},
                                     {2, 3, 0, 22, 2},
                                     {3, 1, 0, 30, 3},
                                     {3, 2, 0, 31, 3}}) {
            platform::db_hmset(kAsic, "s_intf.evt_mod_alloc", mod_alloc(d, s, u, m, t));
        }
        for (auto [s, l] : {std::pair{1, 1}, {1, 2}, {2, 1}, {2, 2}}) {
            platform::db_hmset(kLocal, "p_dev.vsl_local_link",
                               vsl_link(1, s, l, 1, s, s + 1, 1, l));
        }
        for (auto [d, s] : {std::pair{1, 1}, {1, 2}, {2, 1}, {3, 1}}) {
            platform::db_set(kUdp, "u_cluster.vsl_chip_fwdstate",
                             chip_state(d, s, 0, "forward", chip_of(d, s)));
            platform::card_add(gslot_of(d, s));
        }
        platform::db_set(kUdp, "u_cluster.kel_dev_fwdstate", dev_state(2, "forward"));
        platform::db_set(kUdp, "u_cluster.kel_dev_fwdstate", dev_state(3, "forward"));
        platform::db_set(kLocal, "p_dev.dtm_route_info", unit_map(1, 2));
    };
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

std::vector<platform::LogLine> UnitDriver::apply(const Event &e) {
    if (e.kind <= Kind::DevStateDel) {  // the input records; deletions are the odd kinds
        if (static_cast<int>(e.kind) % 2 == 1) {
            platform::db_del(e.db, e.type, e.packed);
        } else if (e.kind < Kind::Map) {
            platform::db_hmset(e.db, e.type, e.packed);
        } else {
            platform::db_set(e.db, e.type, e.packed);
        }
    }
    switch (e.kind) {
        case Kind::MmcConfirm:
        case Kind::MmcConfirmDel: {
            // The hardware side answers what the module published (or, now and
            // then, something it never published).
            const bool set = e.kind == Kind::MmcConfirm;
            auto from = platform::db_records(kTopo, set ? "u_cluster.mainmc_vlan" : e.type);
            std::string rec;
            u_cluster::mainmc_vlan v;
            if (!from.empty() && e.pick % 8 != 7 &&
                v.ParseFromString(from[e.pick % from.size()].packed) && v.has_index()) {
                rec = mmc_state(v.index().t_cfg_modid(), v.index().apid(), 128);
            }
            if (rec.empty()) rec = mmc_state(e.pick % 40, e.pick % 4, e.pick % 130);
            set ? platform::db_set(kTopo, e.type, rec) : platform::db_del(kTopo, e.type, rec);
            break;
        }
        case Kind::CardAdd:
        case Kind::CardDel:
            e.kind == Kind::CardAdd ? platform::card_add(e.gslot) : platform::card_del(e.gslot);
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
        case Kind::AllocFail:
            platform::fail("calloc", -1, static_cast<int>(e.value.value_or(1)), -1,
                           static_cast<int>(e.pick));
            break;
        case Kind::Restart:
            module_.restart();
            break;
        default:
            break;
    }
    platform::run_until_idle();
    return platform::take_log();
}

std::string trail(int baseline, const std::vector<Event> &events) {
    std::string out = fmt("baseline %d\n", baseline);
    for (const Event &e : events) out += "  " + describe(e) + "\n";
    return out;
}

std::string run_event_input(const uint8_t *data, size_t size) {
    if (size == 0) return "";
    ByteReader in(data, size);
    UnitDriver unit;
    const uint8_t first = in.u8();
    const bool faults = first >= 128;
    unit.begin(static_cast<Baseline>(first % 3));
    std::vector<Event> events;
    std::string report;
    // While an allocation failure's effects last (until a restart without one),
    // TOPO_DB may lag behind the caches; the caches and memory must hold.
    bool failed = false;
    for (size_t n = 0; n <= 64; ++n) {
        const int flags =
            failed ? OracleModule::kStructure | OracleModule::kMemory : OracleModule::kAll;
        if (oracle_module().check(flags, &report) != 0) return trail(first, events) + report;
        if (n == 64 || in.empty()) break;
        events.push_back(decode_event(in, faults));
        const size_t failures = dpm_alloc_failures();
        unit.apply(events.back());
        if (events.back().kind == Kind::Restart) failed = false;
        failed = failed || dpm_alloc_failures() != failures;
    }
    return "";
}

// ---- TOPO_DB as text ----------------------------------------------------------------

namespace {

// No bit set in any repeated word (a filter that says what its absence says).
bool no_bits(const google::protobuf::Message &m) {
    const auto *rf = m.GetReflection();
    for (int i = 0; i < m.GetDescriptor()->field_count(); ++i) {
        const auto *f = m.GetDescriptor()->field(i);
        const int n =
            f->is_repeated() && f->cpp_type() == f->CPPTYPE_UINT32 ? rf->FieldSize(m, f) : 0;
        for (int k = 0; k < n; ++k) {
            if (rf->GetRepeatedUInt32(m, f, k) != 0) return false;
        }
    }
    return true;
}

}  // namespace

std::vector<std::string> topo_lines(bool history_free) {
    std::vector<std::string> out;
    for (const auto &r : platform::db_records(kTopo)) {
        const auto m = new_record(r.type);
        if (!m->ParseFromString(r.packed)) {
            out.push_back(r.type + " (does not decode)");
            continue;
        }
        if (auto *ap = dynamic_cast<u_cluster::vsl_ap_member *>(m.get())) {
            if (ap->member_size() == 0) continue;
            std::sort(ap->mutable_member()->begin(), ap->mutable_member()->end(),
                      [](const auto &a, const auto &b) {
                          return a.ShortDebugString() < b.ShortDebugString();
                      });
        } else if (auto *uc = dynamic_cast<u_cluster::kel_uc_balance *>(m.get());
                   uc && history_free) {
            uc->clear_local_modid();
            uc->clear_lport();
            uc->clear_peer_modid();
        } else if (auto *mmc = dynamic_cast<u_cluster::mainmc_vlan *>(m.get());
                   mmc && history_free) {
            const uint32_t apid = mmc->index().apid();
            mmc->Clear();
            mmc->mutable_index()->set_apid(apid);
        } else if (history_free || (r.type.find("srcmod") != std::string::npos && no_bits(*m))) {
            continue;
        }
        out.push_back(r.type + " " + m->ShortDebugString());
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::string join(const std::vector<std::string> &lines) {
    std::string out;
    for (const auto &l : lines) out += "  " + l + "\n";
    return out;
}

}  // namespace dpm_stress
