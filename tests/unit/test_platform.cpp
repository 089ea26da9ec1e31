// The platform stand-in as the module and the host see it: ordering and form of
// database events, data-sync brackets, session loss, instance restarts, the
// agent and device-data replays, timers, faults, commands and the database file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "libddm.h"
#include "libxn_cap.h"
#include "ndm.h"
#include "p_dev.pb-c.h"
#include "platform_ctl.h"
#include "ssat.h"
#include "test_support.h"
#include "u_cluster.pb-c.h"
#include "xn_mom.h"
#include "xn_zlog.h"

namespace {

constexpr int kTopo = XN_MOM_TOPO_DB;
const std::string kUc = "u_cluster.kel_uc_balance";

// ---- records --------------------------------------------------------------------

// A unicast balance record (modid 0 means "no index" when with_index is false).
struct Uc {
    UCluster__ModidIdx idx = U_CLUSTER__MODID_IDX__INIT;
    UCluster__KelUcBalance rec = U_CLUSTER__KEL_UC_BALANCE__INIT;
    Uc(uint32_t modid, uint32_t local_modid) {
        idx.modid = modid;
        rec.index = &idx;
        rec.local_modid = local_modid;
    }
    Uc(const Uc &) = delete;
    const ProtobufCMessage *msg() const { return &rec.base; }
    std::string packed() const { return dpm_test::pack(msg()); }
};

// The template of a subscription or scan: index present, all zero.
struct UcTemplate : Uc {
    UcTemplate() : Uc(0, 0) {}
};

uint32_t modid_of(const std::string &packed) {
    UCluster__KelUcBalance *m = u_cluster__kel_uc_balance__unpack(
        nullptr, packed.size(), reinterpret_cast<const uint8_t *>(packed.data()));
    if (m == nullptr) return UINT32_MAX;
    uint32_t v = m->index != nullptr ? m->index->modid : 0;
    u_cluster__kel_uc_balance__free_unpacked(m, nullptr);
    return v;
}

// ---- what callbacks saw -----------------------------------------------------------

struct Seen {
    void *client;
    int cmd;
    uint32_t scan_over;
    bool has_record;
    uint32_t modid;
    uint32_t local_modid;
    int32_t status;
    bool operator==(const Seen &) const = default;
};

std::vector<Seen> g_seen;

Seen event(int cmd, uint32_t modid, uint32_t local_modid) {
    // Every subscription of these tests is made with the host handle as client.
    return Seen{platform::host_handle(), cmd, 0, true, modid, local_modid, 0};
}
Seen bare(int cmd, uint32_t scan_over = 0) {
    return Seen{platform::host_handle(), cmd, scan_over, false, 0, 0, 0};
}

int record_uc(void *client, xn_mom_msg_t *msg) {
    Seen s{client, msg->cmd, msg->scan_over, msg->data != nullptr, 0, 0, 0};
    const ProtobufCMessage *rec = nullptr;
    if (msg->cmd == XN_MOM_CMD_HMSET && msg->data != nullptr) {
        auto *entry = static_cast<xn_mom_entry_t *>(msg->data);
        rec = entry->msg;
        s.status = entry->status;
    } else {
        rec = static_cast<const ProtobufCMessage *>(msg->data);
    }
    if (rec != nullptr) {
        // Delivered with the subscriber's own descriptor, so it is safe to cast.
        EXPECT_EQ(rec->descriptor, &u_cluster__kel_uc_balance__descriptor);
        auto *uc = reinterpret_cast<const UCluster__KelUcBalance *>(rec);
        s.modid = uc->index != nullptr ? uc->index->modid : 0;
        s.local_modid = uc->local_modid;
    }
    g_seen.push_back(s);
    return 0;
}

class Platform : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset();
        g_seen.clear();
    }
    void TearDown() override { platform::reset(); }
    void *h() { return platform::host_handle(); }
    int subscribe(int db = kTopo) {
        UcTemplate t;
        return xn_mom_subscribe(h(), db, t.msg(), 0, record_uc, nullptr);
    }
};

// ---- object database ----------------------------------------------------------------

TEST_F(Platform, SubscribeDeliversStoredRecordsInKeyOrderThenDataSyncRequest) {
    // Module ids whose packed varints sort differently from their values.
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(300, 1).packed()), 0);
    ASSERT_EQ(platform::db_hmset(kTopo, kUc, Uc(2, 2).packed()), 0);
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(129, 3).packed()), 0);
    ASSERT_EQ(platform::db_set(kTopo, "u_cluster.vsl_srcmod_igr", ""), 0);  // another type
    ASSERT_EQ(platform::db_set(3, kUc, Uc(7, 7).packed()), 0);              // another database

    ASSERT_EQ(subscribe(), 0);
    EXPECT_TRUE(g_seen.empty()) << "nothing may be delivered from inside the call";
    EXPECT_EQ(platform::run_until_idle(), 4u);
    std::vector<Seen> want = {event(XN_MOM_CMD_HMSET, 2, 2), event(XN_MOM_CMD_SET, 129, 3),
                              event(XN_MOM_CMD_SET, 300, 1), bare(XN_MOM_CMD_DS)};
    EXPECT_EQ(g_seen, want);

    // The host's listing is in the same order.
    std::vector<uint32_t> listed;
    for (const auto &r : platform::db_records(kTopo, kUc)) listed.push_back(modid_of(r.packed));
    EXPECT_EQ(listed, (std::vector<uint32_t>{2, 129, 300}));
    EXPECT_EQ(platform::db_records(kTopo).size(), 4u);
}

TEST_F(Platform, WriteFormDecidesTheEventCommand) {
    ASSERT_EQ(subscribe(), 0);
    platform::run_until_idle();
    g_seen.clear();

    struct Step {
        const char *what;
        std::function<int()> write;
        Seen want;
        bool module;
    };
    Uc a(5, 10), b(5, 11), c(5, 12), d(5, 13), e(6, 14);
    std::vector<Step> steps = {
        {"module set", [&] { return xn_mom_set(h(), kTopo, a.msg(), 0, 0); },
         event(XN_MOM_CMD_SET, 5, 10), true},
        {"module hmset", [&] { return xn_mom_hmset(h(), kTopo, b.msg(), 0, 0); },
         event(XN_MOM_CMD_HMSET, 5, 11), true},
        {"whole again", [&] { return xn_mom_set(h(), kTopo, c.msg(), 0, 0); },
         event(XN_MOM_CMD_SET, 5, 12), true},
        {"host hmset", [&] { return platform::db_hmset(kTopo, kUc, d.packed()); },
         event(XN_MOM_CMD_HMSET, 5, 13), false},
        {"host set", [&] { return platform::db_set(kTopo, kUc, e.packed()); },
         event(XN_MOM_CMD_SET, 6, 14), false},
    };
    size_t module_writes = 0;
    for (const auto &s : steps) {
        SCOPED_TRACE(s.what);
        g_seen.clear();
        ASSERT_EQ(s.write(), 0);
        EXPECT_EQ(platform::run_until_idle(), 1u);
        ASSERT_EQ(g_seen.size(), 1u);
        EXPECT_EQ(g_seen[0], s.want);
        if (s.module) module_writes++;
        EXPECT_EQ(platform::module_writes().size(), module_writes);
    }
    // One record per key, holding the latest write and its form.
    auto rec = platform::db_get(kTopo, kUc, Uc(5, 0).packed());
    ASSERT_TRUE(rec.has_value());
    EXPECT_EQ(rec->packed, d.packed());
    EXPECT_TRUE(rec->field_form);
    EXPECT_EQ(platform::module_writes()[1].op, platform::ModuleWrite::HmSet);
    EXPECT_EQ(platform::module_writes()[1].packed, b.packed());
}

TEST_F(Platform, DeleteDeliversTheStoredRecordAndMissingKeysAreSilent) {
    Uc stored(9, 42);
    ASSERT_EQ(xn_mom_set(h(), kTopo, stored.msg(), 0, 0), 0);
    ASSERT_EQ(subscribe(), 0);
    platform::run_until_idle();
    g_seen.clear();

    Uc key_only(9, 0), missing(10, 0);
    EXPECT_EQ(xn_mom_del(h(), kTopo, missing.msg(), 0, 0), 0);
    EXPECT_EQ(platform::db_del(kTopo, kUc, Uc(11, 0).packed()), 0);
    EXPECT_EQ(xn_mom_del(h(), kTopo, key_only.msg(), 0, 0), 0);
    platform::run_until_idle();
    // The delete carried no payload; the event shows what was stored.
    std::vector<Seen> want = {event(XN_MOM_CMD_DEL, 9, 42)};
    EXPECT_EQ(g_seen, want);
    EXPECT_FALSE(platform::db_get(kTopo, kUc, key_only.packed()).has_value());
    ASSERT_EQ(platform::module_writes().size(), 3u);
    EXPECT_EQ(platform::module_writes()[2].op, platform::ModuleWrite::Del);
}

TEST_F(Platform, ScanEndsWithScanOverAndDoesNotSubscribe) {
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(4, 1).packed()), 0);
    ASSERT_EQ(platform::db_hmset(kTopo, kUc, Uc(1, 2).packed()), 0);
    UcTemplate t;
    ASSERT_EQ(xn_mom_scan(h(), kTopo, t.msg(), 0, record_uc, nullptr), 0);
    platform::run_until_idle();
    std::vector<Seen> want = {event(XN_MOM_CMD_HMSET, 1, 2), event(XN_MOM_CMD_SET, 4, 1),
                              bare(0, XN_MOM_SCAN_OVER)};
    EXPECT_EQ(g_seen, want);

    g_seen.clear();
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(5, 1).packed()), 0);
    platform::run_until_idle();
    EXPECT_TRUE(g_seen.empty());

    // An empty type still ends its scan.
    ASSERT_EQ(xn_mom_scan(h(), 8, t.msg(), 0, record_uc, nullptr), 0);
    platform::run_until_idle();
    EXPECT_EQ(g_seen, std::vector<Seen>{bare(0, XN_MOM_SCAN_OVER)});
}

TEST_F(Platform, ExistsAnswersByKeyOnly) {
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(3, 77).packed()), 0);
    struct Case {
        int db;
        uint32_t modid;
        int want;
    } cases[] = {{kTopo, 3, 0}, {kTopo, 4, -1}, {8, 3, -1}};
    for (const auto &c : cases) {
        Uc probe(c.modid, 0);  // payload differs from what is stored
        EXPECT_EQ(xn_mom_exists_sync(h(), c.db, probe.msg()), c.want) << c.db << "/" << c.modid;
    }
}

TEST_F(Platform, DataSyncBracketDeletesWhatWasNotRewritten) {
    for (uint32_t m : {1u, 2u, 3u}) ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(m, m).packed()), 0);
    const std::string igr = "u_cluster.vsl_srcmod_igr";
    ASSERT_EQ(platform::db_set(kTopo, igr, ""), 0);  // other type, same database
    ASSERT_EQ(subscribe(), 0);
    platform::run_until_idle();
    g_seen.clear();

    UcTemplate t;
    ASSERT_EQ(xn_mom_dsbegin_sync(h(), kTopo, t.msg(), 0, 1, 0), 0);
    Uc again(2, 20), fresh(4, 40);
    ASSERT_EQ(xn_mom_set(h(), kTopo, again.msg(), 0, 0), 0);
    ASSERT_EQ(xn_mom_hmset(h(), kTopo, fresh.msg(), 0, 0), 0);
    ASSERT_EQ(xn_mom_dsend(h(), kTopo, t.msg(), 0, 0, 0), 0);
    platform::run_until_idle();

    std::vector<Seen> want = {event(XN_MOM_CMD_SET, 2, 20), event(XN_MOM_CMD_HMSET, 4, 40),
                              event(XN_MOM_CMD_DEL, 1, 1), event(XN_MOM_CMD_DEL, 3, 3)};
    EXPECT_EQ(g_seen, want);
    EXPECT_EQ(platform::db_records(kTopo, kUc).size(), 2u);
    EXPECT_EQ(platform::db_records(kTopo, igr).size(), 1u);

    // A closed bracket dooms nothing more.
    g_seen.clear();
    ASSERT_EQ(xn_mom_dsend(h(), kTopo, t.msg(), 0, 0, 0), 0);
    platform::run_until_idle();
    EXPECT_TRUE(g_seen.empty());
    EXPECT_EQ(platform::db_records(kTopo, kUc).size(), 2u);
}

TEST_F(Platform, HostWritesRejectUnknownTypesAndBadBytes) {
    EXPECT_EQ(platform::db_set(kTopo, "u_cluster.no_such", ""), -1);
    EXPECT_EQ(platform::db_set(kTopo, kUc, std::string("\x2a\xff", 2)), -1);
    EXPECT_EQ(platform::db_del(kTopo, "nope", ""), -1);
    EXPECT_EQ(platform::agent_set("nope", ""), -1);
    EXPECT_TRUE(platform::db_records(kTopo).empty());
    EXPECT_TRUE(platform::known_type(kUc));
    EXPECT_TRUE(platform::type_has_index(kUc));
    EXPECT_TRUE(platform::known_type("p_dev.dtm_route_info"));
    EXPECT_FALSE(platform::type_has_index("p_dev.dtm_route_info"));
    EXPECT_FALSE(platform::known_type("kel_uc_balance"));
}

TEST_F(Platform, TypeWithoutIndexHoldsOneRecord) {
    PDev__DtmRouteInfo a = P_DEV__DTM_ROUTE_INFO__INIT, b = P_DEV__DTM_ROUTE_INFO__INIT;
    a.local_id = 1;
    b.local_id = 2;
    const std::string t = "p_dev.dtm_route_info";
    ASSERT_EQ(xn_mom_set(h(), 3, &a.base, 0, 0), 0);
    ASSERT_EQ(platform::db_set(3, t, dpm_test::pack(&b.base)), 0);
    auto recs = platform::db_records(3, t);
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].packed, dpm_test::pack(&b.base));
    EXPECT_TRUE(recs[0].key.empty());
}

// ---- sessions ---------------------------------------------------------------------

int g_connects, g_disconnects;
std::vector<std::pair<int, int>> g_reconnects;
void *g_conn_client;

int on_connect(void *client) {
    g_connects++;
    g_conn_client = client;
    return 0;
}
int on_disconnect() {
    g_disconnects++;
    return 0;
}
int on_reconnect(void *client, int db, int type) {
    g_reconnects.emplace_back(db, type);
    // A resumed session subscribes again, as the module does.
    UcTemplate t;
    return xn_mom_subscribe(client, db, t.msg(), 0, record_uc, nullptr);
}

TEST_F(Platform, ReconnectDropsOldSubscriptionsSoNothingArrivesTwice) {
    g_connects = g_disconnects = 0;
    g_reconnects.clear();
    ASSERT_EQ(xn_mom_client_connect_sync(h(), kTopo), 0);
    ASSERT_EQ(xn_mom_client_connect(h(), kTopo, on_connect), 0);
    ASSERT_EQ(xn_mom_client_set_disconnect_cb(h(), kTopo, on_disconnect), 0);
    ASSERT_EQ(xn_mom_client_set_reconnect_cb(h(), kTopo, on_reconnect), 0);
    EXPECT_EQ(g_connects, 0);
    platform::run_until_idle();
    EXPECT_EQ(g_connects, 1);
    EXPECT_EQ(g_conn_client, h());
    EXPECT_TRUE(platform::db_connected(kTopo));

    ASSERT_EQ(subscribe(), 0);
    platform::run_until_idle();
    g_seen.clear();

    // A write whose event is still queued when the session goes.
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(8, 1).packed()), 0);
    platform::db_disconnect(kTopo);
    EXPECT_FALSE(platform::db_connected(kTopo));
    platform::db_reconnect(kTopo, XN_MOM_RECONN_RESUME);
    EXPECT_TRUE(platform::db_connected(kTopo));
    platform::run_until_idle();

    EXPECT_EQ(g_disconnects, 1);
    EXPECT_EQ(g_reconnects, (std::vector<std::pair<int, int>>{{kTopo, XN_MOM_RECONN_RESUME}}));
    std::vector<Seen> want = {event(XN_MOM_CMD_SET, 8, 1), bare(XN_MOM_CMD_DS)};
    EXPECT_EQ(g_seen, want);

    // Later writes reach the one new subscription once.
    g_seen.clear();
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(9, 1).packed()), 0);
    platform::run_until_idle();
    EXPECT_EQ(g_seen, std::vector<Seen>{event(XN_MOM_CMD_SET, 9, 1)});
}

TEST_F(Platform, ReconnectLeavesOtherDatabasesSubscriptionsAlone) {
    ASSERT_EQ(subscribe(kTopo), 0);
    ASSERT_EQ(subscribe(8), 0);
    platform::run_until_idle();
    g_seen.clear();
    ASSERT_EQ(platform::db_set(8, kUc, Uc(1, 1).packed()), 0);
    platform::db_reconnect(kTopo, 1);  // no reconnect callback: only the drop
    platform::run_until_idle();
    EXPECT_EQ(g_seen, std::vector<Seen>{event(XN_MOM_CMD_SET, 1, 1)});
    g_seen.clear();
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(1, 1).packed()), 0);
    platform::run_until_idle();
    EXPECT_TRUE(g_seen.empty());
}

// ---- data-sync agent ------------------------------------------------------------

struct KeySeen {
    int event;
    int32_t slot;
    bool online;
    bool operator==(const KeySeen &) const = default;
};
std::vector<KeySeen> g_keys;
xn_mom_ds_reg_t *g_key_reg;

int on_card(int event, xn_mom_ds_reg_t *reg, const ProtobufCMessage *rec) {
    g_key_reg = reg;
    EXPECT_EQ(rec->descriptor, &p_dev__card_info__descriptor);
    auto *card = reinterpret_cast<const PDev__CardInfo *>(rec);
    g_keys.push_back(
        KeySeen{event, card->index != nullptr ? card->index->slotid : -1, card->is_online != 0});
    return 0;
}
int on_card_set(xn_mom_ab_t *, xn_mom_ds_reg_t *reg, const ProtobufCMessage *rec, void *) {
    return on_card(XN_MOM_KEY_SET, reg, rec);
}
int on_card_del(xn_mom_ab_t *, xn_mom_ds_reg_t *reg, const ProtobufCMessage *rec, void *) {
    return on_card(XN_MOM_KEY_DEL, reg, rec);
}

std::string card(int32_t slot, bool online) {
    PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
    PDev__CardInfo c = P_DEV__CARD_INFO__INIT;
    idx.devid = 1;
    idx.slotid = slot;
    c.index = &idx;
    c.is_online = online;
    return dpm_test::pack(&c.base);
}

struct CardAgent {
    PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
    PDev__CardInfo tmpl = P_DEV__CARD_INFO__INIT;
    xn_mom_ds_reg_t reg{};
    xn_mom_ab_t *ab = nullptr;
    int start() {
        tmpl.index = &idx;
        reg.tmpl = &tmpl.base;
        reg.mode = 1;
        reg.flags = 1;
        reg.owner = "udp_dpm";
        const uint32_t opts[2] = {1, 0};
        ab = xn_mom_ab_init(0, "udp_dpm", opts);
        if (ab == nullptr) return -100;
        ab->client = platform::host_handle();
        return xn_mom_reg_ds(ab, &reg, 1, 0, 0);
    }
};

TEST_F(Platform, AgentReplaysHeldRecordsToANewSetHandler) {
    g_keys.clear();
    const std::string t = "p_dev.card_info";
    ASSERT_EQ(platform::agent_set(t, card(7, true)), 0);
    ASSERT_EQ(platform::agent_set(t, card(2, false)), 0);
    ASSERT_EQ(platform::agent_set(t, card(7, false)), 0);  // replaces slot 7
    EXPECT_EQ(platform::pending(), 0u) << "no handler yet";

    CardAgent a;
    ASSERT_EQ(a.start(), 1);
    ASSERT_EQ(xn_mom_reg_key_event(a.ab, &a.reg, XN_MOM_KEY_DEL, on_card_del, nullptr), 0);
    EXPECT_EQ(platform::pending(), 0u) << "a delete handler is not replayed to";
    ASSERT_EQ(xn_mom_reg_key_event(a.ab, &a.reg, XN_MOM_KEY_SET, on_card_set, nullptr), 0);
    platform::run_until_idle();
    EXPECT_EQ(g_keys, (std::vector<KeySeen>{{0, 2, false}, {0, 7, false}}));
    EXPECT_EQ(g_key_reg, &a.reg);

    g_keys.clear();
    ASSERT_EQ(platform::agent_set(t, card(3, true)), 0);
    ASSERT_EQ(platform::agent_del(t, card(7, true)), 0);  // the record as it was is handed over
    ASSERT_EQ(platform::agent_del(t, card(9, true)), 0);  // never held: no event
    platform::run_until_idle();
    EXPECT_EQ(g_keys, (std::vector<KeySeen>{{0, 3, true}, {1, 7, false}}));

    // A restarted instance learns the current cards again.
    platform::drop_instance();
    g_keys.clear();
    CardAgent b;
    ASSERT_EQ(b.start(), 1);
    ASSERT_EQ(xn_mom_reg_key_event(b.ab, &b.reg, XN_MOM_KEY_SET, on_card_set, nullptr), 0);
    platform::run_until_idle();
    EXPECT_EQ(g_keys, (std::vector<KeySeen>{{0, 2, false}, {0, 3, true}}));
}

// ---- device-data library -----------------------------------------------------------

struct Note {
    void *ctx;
    int kind;
    int op;
    uint32_t gslot;
    bool operator==(const Note &) const = default;
};
std::vector<Note> g_notes;
int on_note(void *ctx, int kind, int op, void *data) {
    g_notes.push_back(Note{ctx, kind, op, *static_cast<uint32_t *>(data)});
    return 0;
}

TEST_F(Platform, LibddmAnnouncesKnownCardsAgainAfterInit) {
    g_notes.clear();
    platform::card_add(0x10203);
    platform::card_add(0x10101);
    platform::card_add(0x10203);  // already known: announced, not remembered twice
    platform::card_add(0x10405);
    platform::card_del(0x10405);
    EXPECT_EQ(platform::pending(), 0u);

    int ctx8 = 0, ctx1 = 0;
    ASSERT_EQ(libddm_notify_reg(1, on_note, &ctx1), 0);
    ASSERT_EQ(libddm_notify_reg(LIBDDM_NOTIFY_MODULE, on_note, &ctx8), 0);
    EXPECT_EQ(platform::pending(), 0u) << "announced on init, not on registration";
    ASSERT_EQ(libddm_init(h(), "ce_dpm"), 0);
    platform::run_until_idle();
    EXPECT_EQ(g_notes, (std::vector<Note>{{&ctx8, 8, LIBDDM_OP_ADD, 0x10203},
                                          {&ctx8, 8, LIBDDM_OP_ADD, 0x10101}}));

    g_notes.clear();
    platform::card_del(0x10203);
    platform::card_add(0x20101);
    platform::run_until_idle();
    EXPECT_EQ(g_notes, (std::vector<Note>{{&ctx8, 8, LIBDDM_OP_DEL, 0x10203},
                                          {&ctx8, 8, LIBDDM_OP_ADD, 0x20101}}));
}

TEST_F(Platform, LookupsCapacityAndPresenceAnswerFromTheirTables) {
    platform::set_chipid(1, 2, 3, 44);
    platform::set_chipid(1, 2, 4, std::nullopt);
    platform::set_phyid(1, 2, 3, 555);
    uint32_t v = 7;
    EXPECT_EQ(libddm_get_chipid_by_dev_slot_lport(&v, 1, 2, 3, 0), 0);
    EXPECT_EQ(v, 44u);
    v = 7;
    EXPECT_EQ(libddm_get_chipid_by_dev_slot_lport(&v, 1, 2, 4, 0), -1);
    EXPECT_EQ(libddm_get_chipid_by_dev_slot_lport(&v, 9, 2, 3, 0), -1);
    EXPECT_EQ(v, 7u);
    EXPECT_EQ(libddm_get_phyid_by_dev_slot_lport(1, 2, 3, &v), 0);
    EXPECT_EQ(v, 555u);
    EXPECT_EQ(libddm_get_phyid_by_dev_slot_lport(1, 2, 4, &v), -1);

    const char *key = "u_cluster/dpm/dev_topo/kel_ring_cut_type";
    int32_t cap = 9;
    EXPECT_EQ(libxn_cap_get_capacity_int32(h(), key, &cap), 0);
    EXPECT_EQ(cap, 0);
    platform::set_capacity(key, 1);
    EXPECT_EQ(libxn_cap_get_capacity_int32(h(), key, &cap), 0);
    EXPECT_EQ(cap, 1);
    platform::set_capacity(key, std::nullopt);
    cap = 9;
    EXPECT_EQ(libxn_cap_get_capacity_int32(h(), key, &cap), -1);
    EXPECT_EQ(cap, 9);

    EXPECT_EQ(ndm_card_is_online(1, 2, 0), 1);
    platform::set_card_online(1, 2, 0, false);
    EXPECT_EQ(ndm_card_is_online(1, 2, 0), 0);
    EXPECT_EQ(ndm_card_is_online(1, 2, 1), 1);
    platform::set_card_online(1, 2, 0, true);
    EXPECT_EQ(ndm_card_is_online(1, 2, 0), 1);
}

// ---- instance restart -------------------------------------------------------------

int g_timer_fired;
std::vector<void *> g_timer_args;
int on_timer(void *thread) {
    g_timer_fired++;
    g_timer_args.push_back(thread);
    return 0;
}
int cmd_noop() {
    return 0;
}

TEST_F(Platform, DropInstanceDropsRegistrationsButKeepsTheUnit) {
    g_timer_fired = 0;
    g_notes.clear();
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(1, 1).packed()), 0);
    ASSERT_EQ(platform::agent_set("p_dev.card_info", card(4, true)), 0);
    platform::card_add(0x10101);
    platform::set_chipid(1, 1, 1, 5);

    ASSERT_EQ(xn_mom_client_connect(h(), kTopo, on_connect), 0);
    ASSERT_EQ(subscribe(), 0);
    ASSERT_EQ(libddm_notify_reg(LIBDDM_NOTIFY_MODULE, on_note, nullptr), 0);
    ASSERT_EQ(ssat_reg_mod_cmd("udp_dpm", "noop", 0, "noop", cmd_noop), 0);
    auto *tg = xn_mom_get_thread_local_global();
    ASSERT_NE(tg, nullptr);
    ASSERT_NE(xn_thread_add_timer_timeval(tg->event_loop, on_timer, nullptr, {1, 0}), nullptr);
    CardAgent a;
    ASSERT_EQ(a.start(), 1);
    ASSERT_EQ(xn_mom_reg_key_event(a.ab, &a.reg, XN_MOM_KEY_SET, on_card_set, nullptr), 0);
    EXPECT_GT(platform::pending(), 0u);

    platform::drop_instance();
    EXPECT_EQ(platform::pending(), 0u);
    EXPECT_TRUE(platform::commands().empty());
    EXPECT_FALSE(platform::db_connected(kTopo));
    g_seen.clear();
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(2, 2).packed()), 0);
    ASSERT_EQ(platform::agent_set("p_dev.card_info", card(5, true)), 0);
    platform::card_add(0x10202);
    platform::advance_us(5'000'000);
    EXPECT_EQ(platform::run_until_idle(), 0u);
    EXPECT_TRUE(g_seen.empty());
    EXPECT_TRUE(g_notes.empty());
    EXPECT_EQ(g_timer_fired, 0);

    // What the rest of the unit holds is still there for the next instance.
    EXPECT_EQ(platform::db_records(kTopo, kUc).size(), 2u);
    uint32_t chip = 0;
    EXPECT_EQ(libddm_get_chipid_by_dev_slot_lport(&chip, 1, 1, 1, 0), 0);
    ASSERT_EQ(libddm_notify_reg(LIBDDM_NOTIFY_MODULE, on_note, nullptr), 0);
    ASSERT_EQ(libddm_init(h(), "ce_dpm"), 0);
    platform::run_until_idle();
    EXPECT_EQ(g_notes, (std::vector<Note>{{nullptr, 8, 0, 0x10101}, {nullptr, 8, 0, 0x10202}}));
}

// ---- timers ---------------------------------------------------------------------

TEST_F(Platform, TimersFireOnlyWhenTheClockPassesThem) {
    g_timer_fired = 0;
    g_timer_args.clear();
    void *loop = xn_mom_get_thread_local_global()->event_loop;
    void *late = xn_thread_add_timer_timeval(loop, on_timer, nullptr, {10, 0});
    void *early = xn_thread_add_timer_timeval(loop, on_timer, nullptr, {5, 0});
    void *tie = xn_thread_add_timer_timeval(loop, on_timer, nullptr, {0, 5'000'000});
    ASSERT_NE(late, nullptr);
    ASSERT_NE(early, nullptr);
    ASSERT_NE(early, late);

    platform::advance_us(4'999'999);
    EXPECT_EQ(platform::run_until_idle(), 0u);
    platform::advance_us(1);
    EXPECT_EQ(platform::now_us(), 5'000'000u);
    EXPECT_EQ(g_timer_fired, 0) << "due timers are queued, not called";
    EXPECT_EQ(platform::run_until_idle(), 2u);
    EXPECT_EQ(g_timer_args, (std::vector<void *>{early, tie}));

    xn_thread_cancel(late);
    ASSERT_EQ(subscribe(), 0);  // something else queued that a cancel must not touch
    xn_thread_cancel(early);    // already fired
    xn_thread_cancel(nullptr);  // never a timer
    platform::advance_us(60'000'000);
    EXPECT_EQ(platform::run_until_idle(), 1u);
    EXPECT_EQ(g_timer_fired, 2);

    // Due but not yet delivered still counts as pending for a cancel.
    void *t = xn_thread_add_timer_timeval(loop, on_timer, nullptr, {1, 0});
    platform::advance_us(1'000'000);
    xn_thread_cancel(t);
    EXPECT_EQ(platform::run_until_idle(), 0u);
    EXPECT_EQ(g_timer_fired, 2);
}

// ---- faults ---------------------------------------------------------------------

TEST_F(Platform, FaultsFailTheNamedCallOnceNTimesOrAlways) {
    struct Case {
        const char *what;
        int fault_db;
        int count;
        int rv;
        std::vector<int> call_dbs;
        std::vector<int> want;
        int skip = 0;
    };
    const std::vector<Case> cases = {
        {"once", -1, 1, -1, {kTopo, kTopo}, {-1, 0}},
        {"twice", -1, 2, -5, {kTopo, kTopo, kTopo}, {-5, -5, 0}},
        {"always", -1, -1, 3, {kTopo, kTopo, kTopo, kTopo}, {3, 3, 3, 3}},
        {"db filter", 8, 1, -1, {kTopo, 8, 8}, {0, -1, 0}},
        {"no count", -1, 0, -1, {kTopo}, {0}},
        {"third call", -1, 1, -2, {kTopo, kTopo, kTopo, kTopo}, {0, 0, -2, 0}, 2},
        {"skip counts matching db only", 8, 1, -1, {kTopo, 8, kTopo, 8}, {0, 0, 0, -1}, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        platform::reset();
        platform::fail("xn_mom_set", c.fault_db, c.count, c.rv, c.skip);
        Uc rec(1, 1);
        for (size_t i = 0; i < c.call_dbs.size(); i++) {
            EXPECT_EQ(xn_mom_set(h(), c.call_dbs[i], rec.msg(), 0, 0), c.want[i]) << "call " << i;
        }
        // A failed write stores nothing and is not counted as made.
        size_t ok = 0;
        for (int w : c.want) ok += w == 0;
        EXPECT_EQ(platform::module_writes().size(), ok);
    }

    // Other functions are untouched, and pointer results become null.
    platform::reset();
    platform::fail("xn_mom_ab_init");
    platform::fail("xn_zlog_init");
    platform::fail("xn_mom_get_thread_local_global");
    platform::fail("xn_thread_add_timer_timeval");
    platform::fail("libddm_init", 3);  // a db filter on a call without a database still applies
    Uc rec(1, 1);
    EXPECT_EQ(xn_mom_set(h(), kTopo, rec.msg(), 0, 0), 0);
    EXPECT_EQ(xn_mom_ab_init(0, "udp_dpm", nullptr), nullptr);
    EXPECT_NE(xn_mom_ab_init(0, "udp_dpm", nullptr), nullptr);
    EXPECT_EQ(xn_zlog_init("udp_dpm"), nullptr);
    EXPECT_NE(xn_zlog_init("udp_dpm"), nullptr);
    EXPECT_EQ(xn_mom_get_thread_local_global(), nullptr);
    void *loop = xn_mom_get_thread_local_global()->event_loop;
    EXPECT_EQ(xn_thread_add_timer_timeval(loop, on_timer, nullptr, {1, 0}), nullptr);
    EXPECT_NE(xn_thread_add_timer_timeval(loop, on_timer, nullptr, {1, 0}), nullptr);
    EXPECT_EQ(libddm_init(h(), "ce_dpm"), -1);

    platform::fail("xn_mom_reg_ds");
    platform::fail("xn_mom_subscribe", -1, -1, -9);
    CardAgent a;
    EXPECT_LT(a.start(), 1);
    EXPECT_EQ(subscribe(), -9);
    platform::clear_faults();
    EXPECT_EQ(subscribe(), 0);

    platform::set_ssat_init_result(-3);
    EXPECT_EQ(ssat_lib_init(h(), "udp_dpm"), -3);
    platform::fail("ssat_lib_init", -1, 1, -8);
    EXPECT_EQ(ssat_lib_init(h(), "udp_dpm"), -8);
}

// ---- debug commands ----------------------------------------------------------------

std::vector<int> g_args;
int cmd0() {
    std::printf("zero");
    return 10;
}
int cmd1(int a) {
    g_args = {a};
    std::printf("one %d\n", a);
    return 11;
}
int cmd3(int a, int b, int c) {
    g_args = {a, b, c};
    std::printf("three %d %d %d", a, b, c);
    return 13;
}

ssat_cmd_fn as_cmd(auto fn) {
    return reinterpret_cast<ssat_cmd_fn>(reinterpret_cast<void (*)()>(fn));
}

TEST_F(Platform, CommandsGetTheirIntsAndTheirOutputIsCaptured) {
    ASSERT_EQ(ssat_reg_mod_cmd("udp_dpm", "c0", 0, "show it", cmd0), 0);
    ASSERT_EQ(ssat_reg_mod_cmd("udp_dpm", "c1", 0, "set-log-level %d", as_cmd(cmd1)), 0);
    ASSERT_EQ(ssat_reg_mod_cmd("udp_dpm", "c3", 0, "x %d y %d z %d", as_cmd(cmd3)), 0);

    struct Case {
        const char *name;
        std::vector<int> args;
        std::vector<int> want_args;
        std::string want_out;
        int want_rv;
    } cases[] = {
        {"c0", {5}, {}, "zero", 10},
        {"c1", {-4}, {-4}, "one -4\n", 11},
        {"c3", {1, 2}, {1, 2, 0}, "three 1 2 0", 13},
        {"c3", {7, 8, 9, 10}, {7, 8, 9}, "three 7 8 9", 13},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        g_args.clear();
        std::string out;
        int rv = 0;
        ASSERT_TRUE(platform::run_command(c.name, c.args, &out, &rv));
        EXPECT_EQ(out, c.want_out);
        EXPECT_EQ(rv, c.want_rv);
        EXPECT_EQ(g_args, c.want_args);
    }
    std::string out;
    EXPECT_FALSE(platform::run_command("nope", {}, &out));

    auto cmds = platform::commands();
    ASSERT_EQ(cmds.size(), 3u);
    for (const auto &c : cmds) {
        EXPECT_EQ(c.module, "udp_dpm");
        EXPECT_EQ(c.nargs, c.name == "c0" ? 0 : c.name == "c1" ? 1 : 3) << c.name;
    }
}

// ---- logging ---------------------------------------------------------------------

TEST_F(Platform, LogLinesAreKeptAndMirroredToTheLogFd) {
    void *cat = xn_zlog_init("udp_dpm");
    ASSERT_NE(cat, nullptr);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    platform::set_log_fd(fds[1]);
    const char file[] = "dpm_x.cpp";
    const char func[] = "dpm_func";
    xndf_zlog(cat, file, sizeof file - 1, func, sizeof func - 1, 12, XN_ZLOG_ERROR, "%s", "boom 1");
    xndf_zlog(cat, file, sizeof file - 1, func, 4, 13, XN_ZLOG_INFO, "v=%d", 2);
    xndf_zlog(nullptr, file, 3, func, 3, 14, XN_ZLOG_FATAL, "no category");
    platform::set_log_fd(-1);
    close(fds[1]);
    std::string written;
    char buf[256];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) written.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    EXPECT_EQ(written, "ERROR dpm_func:12 boom 1\nINFO dpm_:13 v=2\n");

    auto lines = platform::take_log();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, XN_ZLOG_ERROR);
    EXPECT_EQ(lines[0].file, "dpm_x.cpp");
    EXPECT_EQ(lines[0].func, "dpm_func");
    EXPECT_EQ(lines[0].line, 12);
    EXPECT_EQ(lines[0].text, "boom 1");
    EXPECT_TRUE(platform::take_log().empty());

    char small[6];
    EXPECT_EQ(at_snprintf(small, sizeof small, "%s", "truncated"), 9);
    EXPECT_STREQ(small, "trunc");
}

// ---- database file ------------------------------------------------------------------

TEST_F(Platform, DatabaseFileSurvivesTheProcess) {
    const std::string path = dpm_test::scratch_root() + "/plat-db-" + std::to_string(getpid());
    std::filesystem::remove(path);
    ASSERT_EQ(platform::db_open_file(path), 0);
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(300, 1).packed()), 0);
    ASSERT_EQ(platform::db_hmset(kTopo, kUc, Uc(2, 2).packed()), 0);
    PDev__DtmRouteInfo dtm = P_DEV__DTM_ROUTE_INFO__INIT;  // no index, empty key
    ASSERT_EQ(xn_mom_set(h(), 3, &dtm.base, 0, 0), 0);
    ASSERT_EQ(platform::db_del(kTopo, kUc, Uc(300, 0).packed()), 0);
    ASSERT_EQ(platform::db_set(kTopo, kUc, Uc(129, 3).packed()), 0);
    auto before = platform::db_records(kTopo);
    auto before3 = platform::db_records(3);

    platform::reset();  // as a new process: nothing in memory, no file attached
    EXPECT_TRUE(platform::db_records(kTopo).empty());
    ASSERT_EQ(platform::db_open_file(path), 0);
    auto after = platform::db_records(kTopo);
    auto after3 = platform::db_records(3);
    ASSERT_EQ(after.size(), 2u);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); i++) {
        EXPECT_EQ(after[i].type, before[i].type);
        EXPECT_EQ(after[i].key, before[i].key);
        EXPECT_EQ(after[i].packed, before[i].packed);
        EXPECT_EQ(after[i].field_form, before[i].field_form);
    }
    ASSERT_EQ(after3.size(), 1u);
    EXPECT_EQ(after3[0].packed, before3[0].packed);
    // The loaded records are keyed as before: a subscription sees them in order.
    ASSERT_EQ(subscribe(), 0);
    platform::run_until_idle();
    std::vector<Seen> want = {event(XN_MOM_CMD_HMSET, 2, 2), event(XN_MOM_CMD_SET, 129, 3),
                              bare(XN_MOM_CMD_DS)};
    EXPECT_EQ(g_seen, want);

    // A file that is not ours is refused and left alone.
    platform::reset();
    { std::ofstream(path, std::ios::trunc) << "garbage\n"; }
    EXPECT_EQ(platform::db_open_file(path), -1);
    EXPECT_EQ(platform::db_set(kTopo, kUc, Uc(1, 1).packed()), 0);
    std::ifstream in(path);
    std::string first;
    std::getline(in, first);
    EXPECT_EQ(first, "garbage");
    std::filesystem::remove(path);
}

int write_then_exit(void *client) {
    Uc rec(55, 5);
    xn_mom_set(client, kTopo, rec.msg(), 0, 0);
    std::exit(77);  // how the module ends a session it cannot resume
}

TEST_F(Platform, DatabaseFileKeepsWritesOfACallbackThatEndsTheProcess) {
    const std::string path = dpm_test::scratch_root() + "/plat-exit-" + std::to_string(getpid());
    std::filesystem::remove(path);
    std::fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        platform::reset();
        if (platform::db_open_file(path) != 0) _exit(1);
        xn_mom_client_connect(platform::host_handle(), kTopo, write_then_exit);
        platform::run_until_idle();
        _exit(2);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 77);
    ASSERT_EQ(platform::db_open_file(path), 0);
    auto recs = platform::db_records(kTopo, kUc);
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(modid_of(recs[0].packed), 55u);
    platform::db_open_file("");
    std::filesystem::remove(path);
}

TEST_F(Platform, UndecodableRecordsAreNeverDelivered) {
    // Only a damaged database file can hold such bytes: writes are checked.
    const std::string path = dpm_test::scratch_root() + "/plat-bad-" + std::to_string(getpid());
    {
        std::ofstream out(path, std::ios::trunc);
        // kel_uc_balance key {modid 1}, then a field 6 varint cut short.
        out << "14 u_cluster.kel_uc_balance 0 0801 - 2a0208013080\n";
        out << "14 u_cluster.kel_uc_balance 0 0802 - 2a020802300c\n";
    }
    ASSERT_EQ(platform::db_open_file(path), 0);
    ASSERT_EQ(platform::db_records(kTopo, kUc).size(), 2u);
    ASSERT_EQ(subscribe(), 0);
    platform::run_until_idle();
    EXPECT_EQ(g_seen, (std::vector<Seen>{event(XN_MOM_CMD_SET, 2, 12), bare(XN_MOM_CMD_DS)}));
    platform::db_open_file("");
    std::filesystem::remove(path);
}

}  // namespace
