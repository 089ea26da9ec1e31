// Events of the stress harness's unit (member 1 with its VSL ports towards
// members 2 and 3): the records other components write, decoded from bytes
// (the fuzzers' and the restart properties' inputs) and described as lines for
// reports.
#include <cstring>

#include "p_dev.pb.h"
#include "record_builders.h"
#include "s_intf.pb.h"
#include "stress_unit.h"

namespace dpm_stress {

using dpm_test::fmt;
using dpm_test::packed;

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

// A record event from the record's text form.
void record(Event &e, int db, const char *type, const std::string &text) {
    e.db = db;
    e.type = type;
    e.packed = packed(type, text);
}

constexpr const char *kKindNames[] = {
    "mod_alloc",  "mod_alloc del", "vsl_link",    "vsl_link del", "map",        "map del",
    "chip state", "chip del",      "dev state",   "dev del",      "mmc answer", "mmc answer del",
    "card add",   "card del",      "card online", "grole",        "card info",  "chip lookup",
    "reconnect",  "disconnect",    "restart",     "fail calloc"};

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

}  // namespace

std::string describe(const Event &e) {
    std::string out = fmt("%s db %d dev %d/%d/%d gslot %u pick %u", kKindNames[int(e.kind)], e.db,
                          e.devid, e.slot, e.lport, e.gslot, e.pick);
    if (e.value) out += fmt(" value %u", *e.value);
    if (e.packed.empty()) return out;
    const auto m = host::new_record(host::record_type(e.type));
    m->ParseFromString(e.packed);
    return out + " " + e.type + " {" + m->ShortDebugString() + "}";
}

uint32_t chip_of(int devid, int slot) {
    return static_cast<uint32_t>(10 * devid + slot - 1);
}

uint32_t gslot_of(int devid, int slot) {
    return (static_cast<uint32_t>(slot) & 0x1FU) |
           ((static_cast<uint32_t>(devid - 1) & 0x1FU) << 5);
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
    return packed(
        "p_dev.vsl_local_link",
        fmt("index {devid: %d slotid: %d lport: %d} status: %d vsl_ap: %d peer_dev_id: %d "
            "peer_slot_id: %d peer_lport: %d",
            devid, slot, lport, status, apid, pdev, pslot, plport));
}

std::string unit_map(int a2, int a3) {
    return packed(
        "p_dev.dtm_route_info",
        fmt("local_id: 1 fib_num: 5 mfib_num: 2 fibs {owner_mid: 1 dst_id: 2 oif_id: %d} "
            "fibs {owner_mid: 1 dst_id: 3 oif_id: %d} fibs {owner_mid: 2 dst_id: 1 oif_id: "
            "1} fibs {owner_mid: 3 dst_id: 1 oif_id: 2} fibs {owner_mid: 2 dst_id: 3 "
            "oif_id: 2} mfibs {owner_mid: 1 src_id: 1 iif_id: 0 oif_id: 1 oif_id: 2} "
            "mfibs {owner_mid: 1 src_id: 2 iif_id: %d oif_id: %d}",
            a2, a3, a2, a3));
}

std::string chip_state(int devid, int slot, int unit, const char *word, uint32_t modid) {
    return packed("u_cluster.vsl_chip_fwdstate",
                  fmt("index {t_devid: %u slot: %u unit: %u} fwd_state: \"%s\" modid: %u",
                      static_cast<uint32_t>(devid), static_cast<uint32_t>(slot),
                      static_cast<uint32_t>(unit), word, modid));
}

std::string dev_state(int devid, const char *word) {
    return packed("u_cluster.kel_dev_fwdstate",
                  fmt("index {devid: %u} fwd_state: \"%s\"", static_cast<uint32_t>(devid), word));
}

std::vector<Event> decode_events(const uint8_t *data, size_t size, size_t max_events, bool faults) {
    ByteReader in(data, size);
    std::vector<Event> out;
    while (!in.empty() && out.size() < max_events) out.push_back(decode_event(in, faults));
    return out;
}

std::string trail(int baseline, const std::vector<Event> &events) {
    std::string out = fmt("baseline %d\n", baseline);
    for (const Event &e : events) out += "  " + describe(e) + "\n";
    return out;
}

}  // namespace dpm_stress
