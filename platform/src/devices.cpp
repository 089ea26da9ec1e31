// Device-data library, capacity library and card presence: what the member's
// hardware side tells a data-plane process about its cards and ports.
//
// The library remembers the cards it has announced and announces them again to
// a process that (re)initialises, as a member does for a restarted process;
// lookups answer from tables the host fills, and an unknown port is a failed
// lookup as on a member whose card has gone.
#include <algorithm>
#include <utility>

#include "libxn_cap.h"
#include "ndm.h"
#include "store.h"

namespace platform {
namespace {

void announce(const DdmReg &r, int op, uint32_t gslot) {
    enqueue([r, op, gslot] {
        uint32_t data = gslot;  // lives until the handler returns
        r.cb(r.ctx, LIBDDM_NOTIFY_MODULE, op, &data);
    });
}

void announce_all(int op, uint32_t gslot) {
    for (const DdmReg &r : st().ddm_regs) {
        if (r.kind == LIBDDM_NOTIFY_MODULE) announce(r, op, gslot);
    }
}

int lookup(const std::map<Port, std::optional<uint32_t>> &table, int devid, int slot, int lport,
           uint32_t *out) {
    auto it = table.find(Port{devid, slot, lport});
    if (it == table.end() || !it->second || out == nullptr) return -1;
    *out = *it->second;
    return 0;
}

}  // namespace
}  // namespace platform

using platform::st;

extern "C" {

int libddm_notify_reg(int notify_type, libddm_notify_cb_t cb, void *context) {
    if (auto rv = platform::fault("libddm_notify_reg")) return *rv;
    if (cb == nullptr) return -1;
    st().ddm_regs.push_back(platform::DdmReg{notify_type, cb, context});
    return 0;
}

int libddm_init(void *handle, const char *name) {
    (void)handle;
    (void)name;
    if (auto rv = platform::fault("libddm_init")) return *rv;
    for (const platform::DdmReg &r : st().ddm_regs) {
        if (r.kind != LIBDDM_NOTIFY_MODULE) continue;
        for (uint32_t gslot : st().cards) platform::announce(r, LIBDDM_OP_ADD, gslot);
    }
    return 0;
}

int libddm_get_chipid_by_dev_slot_lport(uint32_t *chipid, int devid, int slot, int lport,
                                        int id_type) {
    (void)id_type;
    if (auto rv = platform::fault("libddm_get_chipid_by_dev_slot_lport")) return *rv;
    return platform::lookup(st().chipids, devid, slot, lport, chipid);
}

int libddm_get_phyid_by_dev_slot_lport(int devid, int slot, int lport, uint32_t *gphyid) {
    if (auto rv = platform::fault("libddm_get_phyid_by_dev_slot_lport")) return *rv;
    return platform::lookup(st().phyids, devid, slot, lport, gphyid);
}

int libxn_cap_init(void *handle, const char *owner, void *category) {
    (void)handle;
    (void)owner;
    (void)category;
    if (auto rv = platform::fault("libxn_cap_init")) return *rv;
    return 0;
}

int libxn_cap_get_capacity_int32(void *handle, const char *key, int32_t *value) {
    (void)handle;
    if (auto rv = platform::fault("libxn_cap_get_capacity_int32")) return *rv;
    if (key == nullptr || value == nullptr) return -1;
    auto it = st().capacity.find(key);
    if (it == st().capacity.end()) {
        *value = 0;  // a product that does not name the limit has its default
        return 0;
    }
    if (!it->second) return -1;
    *value = *it->second;
    return 0;
}

int ndm_card_is_online(int devid, int slotid, int sslotid) {
    if (auto rv = platform::fault("ndm_card_is_online")) return *rv;
    return st().offline_cards.count(platform::Port{devid, slotid, sslotid}) ? 0 : 1;
}

}  // extern "C"

namespace platform {

void card_here(bool add, uint32_t gslot) {
    auto &cards = st().cards;
    if (add) {
        if (std::find(cards.begin(), cards.end(), gslot) == cards.end()) cards.push_back(gslot);
    } else {
        std::erase(cards, gslot);
    }
    announce_all(add ? LIBDDM_OP_ADD : LIBDDM_OP_DEL, gslot);
}

void card_online_here(int devid, int slot, int sslot, bool online) {
    if (online) {
        st().offline_cards.erase(Port{devid, slot, sslot});
    } else {
        st().offline_cards.insert(Port{devid, slot, sslot});
    }
}

// Cards are the unit's: on a shared server every member's library hears of them.
void card_add(uint32_t gslot) {
    platform::card_here(true, gslot);
    platform::store().share("card_add", 0, "", std::to_string(gslot));
}

void card_del(uint32_t gslot) {
    platform::card_here(false, gslot);
    platform::store().share("card_del", 0, "", std::to_string(gslot));
}

namespace {

// The unit's port lookups are shared like its cards: "DEV/SLOT/LPORT VALUE|fail".
void share_lookup(const char *kind, int devid, int slot, int lport, std::optional<uint32_t> v) {
    platform::store().share(kind, 0, "",
                            std::to_string(devid) + "/" + std::to_string(slot) + "/" +
                                std::to_string(lport) + " " +
                                (v ? std::to_string(*v) : std::string("fail")));
}

}  // namespace

void set_chipid(int devid, int slot, int lport, std::optional<uint32_t> chipid) {
    st().chipids[platform::Port{devid, slot, lport}] = chipid;
    share_lookup("chip", devid, slot, lport, chipid);
}

void set_phyid(int devid, int slot, int lport, std::optional<uint32_t> gphyid) {
    st().phyids[platform::Port{devid, slot, lport}] = gphyid;
    share_lookup("phy", devid, slot, lport, gphyid);
}

void set_capacity(const std::string &key, std::optional<int32_t> value) {
    st().capacity[key] = value;
}

void set_card_online(int devid, int slot, int sslot, bool online) {
    platform::card_online_here(devid, slot, sslot, online);
    platform::store().share(
        online ? "card_online" : "card_offline", 0, "",
        std::to_string(devid) + "/" + std::to_string(slot) + "/" + std::to_string(sslot));
}

}  // namespace platform
