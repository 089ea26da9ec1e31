// Data-sync agent: the records other components publish to this process (the
// member's global role, the cards) and the key events that hand them over.
//
// The agent outlives a module instance and keeps the current record of every
// key, so a module that registers its set handler again learns the present
// state at once instead of waiting for the next change.
#include <cstdio>
#include <utility>

#include "store.h"

namespace platform {
namespace {

void queue_key_event(const KeyEventReg &r, const std::string &packed) {
    enqueue([r, packed] {
        ProtobufCMessage *rec = protobuf_c_message_unpack(
            r.desc, nullptr, packed.size(), reinterpret_cast<const uint8_t *>(packed.data()));
        if (rec == nullptr) {
            std::fprintf(stderr, "xn_mom: %s record does not decode, key event %d dropped\n",
                         r.desc->name, r.event);
            return;
        }
        r.cb(r.agent, r.reg, rec, r.user);
        protobuf_c_message_free_unpacked(rec, nullptr);
    });
}

void raise(const std::string &type, int event, const std::string &packed) {
    for (const KeyEventReg &r : st().key_regs) {
        if (r.type == type && r.event == event) queue_key_event(r, packed);
    }
}

bool known_agent(const xn_mom_ab_t *ab) {
    for (const auto &a : st().agents) {
        if (a->ab.get() == ab) return true;
    }
    return false;
}

}  // namespace
}  // namespace platform

using platform::st;

extern "C" {

xn_mom_ab_t *xn_mom_ab_init(int flags, const char *owner, const uint32_t *opts) {
    (void)flags;
    (void)owner;
    (void)opts;
    if (platform::fault("xn_mom_ab_init")) return nullptr;
    auto agent = std::make_unique<platform::Agent>();
    agent->ab = std::make_unique<xn_mom_ab_t>();
    xn_mom_ab_t *ab = agent->ab.get();
    st().agents.push_back(std::move(agent));
    return ab;
}

int xn_mom_reg_ds(xn_mom_ab_t *agent, xn_mom_ds_reg_t *regs, int cnt, int a, int b) {
    (void)a;
    (void)b;
    if (auto rv = platform::fault("xn_mom_reg_ds")) return *rv < 1 ? *rv : 0;
    if (!platform::known_agent(agent) || (regs == nullptr && cnt > 0) || cnt < 0) return 0;
    for (auto &owned : st().agents) {
        if (owned->ab.get() != agent) continue;
        for (int i = 0; i < cnt; i++) {
            if (regs[i].tmpl == nullptr || regs[i].tmpl->descriptor == nullptr) return 0;
            owned->types.emplace_back(regs[i].tmpl->descriptor->name);
        }
    }
    return 1;
}

int xn_mom_reg_key_event(xn_mom_ab_t *agent, xn_mom_ds_reg_t *reg, int event,
                         xn_mom_key_event_cb_t cb, void *user) {
    if (auto rv = platform::fault("xn_mom_reg_key_event")) return *rv;
    if (!platform::known_agent(agent) || reg == nullptr || reg->tmpl == nullptr ||
        reg->tmpl->descriptor == nullptr || cb == nullptr) {
        return -1;
    }
    platform::KeyEventReg r{agent, reg, reg->tmpl->descriptor->name, reg->tmpl->descriptor, event,
                            cb,    user};
    st().key_regs.push_back(r);
    if (event == XN_MOM_KEY_SET) {
        const auto &kept = st().agent_records;
        for (auto it = kept.lower_bound(platform::Record{.type = r.type});
             it != kept.end() && it->type == r.type; ++it) {
            platform::queue_key_event(r, it->packed);
        }
    }
    return 0;
}

}  // extern "C"

namespace platform {

int agent_here(bool set, const std::string &type, const std::string &packed) {
    std::optional<Record> rec = make_record(0, type, packed);
    if (!rec) return -1;
    auto &kept = st().agent_records;
    auto it = kept.find(*rec);
    if (set) {
        if (it != kept.end()) kept.erase(it);
        kept.insert(std::move(*rec));
        raise(type, XN_MOM_KEY_SET, packed);
        return 0;
    }
    if (it == kept.end()) return 0;  // like the databases: nothing to delete, no event
    std::string was = it->packed;
    kept.erase(it);
    raise(type, XN_MOM_KEY_DEL, was);
    return 0;
}

// On a shared server the agent of the member in view hears of it too (every
// member's when no member is in view).
int agent_set(const std::string &type, const std::string &packed) {
    int rv = platform::agent_here(true, type, packed);
    if (rv == 0) platform::store().share("agent_set", st().view_member, type, packed);
    return rv;
}

int agent_del(const std::string &type, const std::string &packed) {
    int rv = platform::agent_here(false, type, packed);
    if (rv == 0) platform::store().share("agent_del", st().view_member, type, packed);
    return rv;
}

}  // namespace platform
