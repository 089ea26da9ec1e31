// The common ground of the unit tests: a clean module (stand-in and globals as
// after a start-up that made no connection), readers for what it logged and
// wrote, caches filled by hand, database events, and records built from their
// text form.
#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "dpm_intake.h"
#include "platform_ctl.h"
#include "test_support.h"
#include "udp_dpm.h"
#include "xn_mom.h"
#include "xn_zlog.h"

// Steps of the forwarding configuration that the tests drive one by one.
void dpm_restore_vsl_lb_in_ap(int apid);
int dpm_is_cur_dtm_valid(void);
int dpm_apply_kel_cfg_by_devid(dpm_dev_head *dev);
int dpm_apply_egr_by_devid(dpm_dev_head *dev, int apid);
dpm_vsl_info *dpm_get_vsl_info_by_modid_lport(uint32_t modid, uint32_t lport);
void dpm_restore_vsl_cache(void);

namespace dpm_test {

inline const std::string kUc = "u_cluster.kel_uc_balance";
inline const std::string kIgr = "u_cluster.vsl_srcmod_igr";
inline const std::string kEgr = "u_cluster.vsl_srcmod_egr";
inline const std::string kMmc = "u_cluster.mainmc_vlan";
inline const std::string kMmcBack = "u_cluster.mainmc_vlan_st";
using Op = platform::ModuleWrite;

// Clean stand-in and module globals for member 1. `level` is the module log
// level (4 lets info lines through); `own_dev` allocates the own device entry.
inline void clean_module(uint32_t level = 4, bool own_dev = false) {
    platform::reset();
    g_udp_dpm_global = platform::host_handle();
    g_udp_dpm_zlog_category = xn_zlog_init("udp_dpm");
    g_udp_dpm_zlog_level = level;
    s_udp_dpm_zlog_thread = nullptr;
    g_mydevid = 1;
    g_my_grole = 0;
    g_kel_ring_cut_type = 0;
    inited = 0;
    dpm_cache_init();
    rdy_vsl_chip_ds_end = 0;
    g_uc_ds_over = 0;
    g_igr_ds_over = 0;
    g_mmc_ds_over = 0;
    is_exprire_mom_flag = 0;
    if (own_dev) {
        ASSERT_NE(dpm_alloc_dev_head(g_mydevid), nullptr);
    }
    platform::take_log();
    platform::clear_module_writes();
}

inline bool has_log(const std::vector<platform::LogLine> &log, const std::string &func,
                    const std::string &text, int level = -1) {
    for (const auto &l : log) {
        if (l.func == func && l.text == text && (level < 0 || l.level == level)) return true;
    }
    return false;
}

inline std::vector<platform::ModuleWrite> writes(const std::string &type = "") {
    std::vector<platform::ModuleWrite> out;
    for (const auto &w : platform::module_writes()) {
        if (type.empty() || w.type == type) out.push_back(w);
    }
    return out;
}

inline size_t count_writes(const std::string &type, platform::ModuleWrite::Op op) {
    size_t n = 0;
    for (const auto &w : platform::module_writes()) n += (w.type == type && w.op == op) ? 1 : 0;
    return n;
}

// The output of a debug command.
inline std::string run_cmd(const std::string &name, const std::vector<int> &args = {}) {
    std::string out;
    EXPECT_TRUE(platform::run_command(name, args, &out)) << name;
    return out;
}

inline std::string golden(const std::string &name) {
    std::ifstream in(std::string(DPM_SOURCE_DIR) + "/tests/module/golden/" + name,
                     std::ios::binary);
    EXPECT_TRUE(in.good()) << "golden file " << name;
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// printf-style text, for records whose fields come from a table row.
template <class... A>
std::string fmt(const char *format, A... args) {
    char buf[512];
    snprintf(buf, sizeof buf, format, args...);
    return buf;
}

// The wire form of a record of the named type given in text form.
inline std::string packed(const std::string &type, const std::string &text) {
    const auto *d = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(type);
    if (d == nullptr) {
        ADD_FAILURE() << "no record type " << type;
        return {};
    }
    std::unique_ptr<google::protobuf::Message> m(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(d)->New());
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, m.get())) << text;
    return m->SerializeAsString();
}

// A protobuf-c record of the type `d` describes, built from its text form.
template <class T>
struct Record : Unpacked<T> {
    Record(const ProtobufCMessageDescriptor *d, const std::string &text)
        : Unpacked<T>(d, packed(d->name, text)) {}
    ProtobufCMessage *base() const { return &this->msg->base; }
};

// A database event as the client delivers it.
struct Event {
    xn_mom_msg_t msg{};
    xn_mom_entry_t entry{};
    static Event with(int cmd, ProtobufCMessage *rec = nullptr) {
        Event e;
        e.msg.cmd = cmd;
        e.msg.data = rec;
        return e;
    }
    static Event set(ProtobufCMessage *rec) { return with(XN_MOM_CMD_SET, rec); }
    static Event del(ProtobufCMessage *rec) { return with(XN_MOM_CMD_DEL, rec); }
    static Event ds_request() { return with(XN_MOM_CMD_DS); }
    // Field-by-field form: the record travels in an entry.
    static Event hmset(ProtobufCMessage *rec, int status = 0) {
        Event e = with(XN_MOM_CMD_HMSET);
        e.entry.msg = rec;
        e.entry.status = status;
        return e;
    }
    static Event error(int err) {
        Event e;
        e.msg.err = static_cast<uint32_t>(err);
        return e;
    }
    xn_mom_msg_t *get() {
        if (msg.cmd == XN_MOM_CMD_HMSET && msg.data == nullptr && entry.msg != nullptr) {
            msg.data = &entry;
        }
        return &msg;
    }
};

// Write a file under the module's root directory (UDP_DPM_ROOT, a scratch
// directory made once per process), such as "etc/pktdbg/fib"; empty content
// removes it.
inline void root_file(const std::string &rel, const std::string &content) {
    static const std::filesystem::path root = [] {
        std::string tmpl = (std::filesystem::temp_directory_path() / "dpm-test-XXXXXX").string();
        if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp");
        setenv("UDP_DPM_ROOT", tmpl.c_str(), 1);
        return tmpl;
    }();
    if (content.empty()) {
        std::filesystem::remove(root / rel);
        return;
    }
    std::filesystem::create_directories((root / rel).parent_path());
    std::ofstream(root / rel, std::ios::binary | std::ios::trunc) << content;
}

struct Fib {
    uint8_t owner, dst, oif;
};
struct Mfib {
    uint8_t owner, src, iif, oif_num, oif0, oif1;
};

// A clean module for each test; the caches are emptied again afterwards.
class ModuleTest : public ::testing::Test {
  protected:
    explicit ModuleTest(uint32_t level = 4, bool own_dev = true)
        : level_(level), own_dev_(own_dev) {}
    void SetUp() override { clean_module(level_, own_dev_); }
    void TearDown() override {
        dpm_cache_init();
        rdy_vsl_chip_ds_end = 0;
        is_exprire_mom_flag = 0;
    }

    // ---- what the module logged --------------------------------------------------

    // Log lines since the last clear_log().
    const std::vector<platform::LogLine> &log() {
        auto lines = platform::take_log();
        log_.insert(log_.end(), lines.begin(), lines.end());
        return log_;
    }
    bool logged(const std::string &text, const std::string &func = "") {
        for (const auto &l : log()) {
            if (l.text == text && (func.empty() || l.func == func)) return true;
        }
        return false;
    }
    int log_count(const std::string &text) {
        int n = 0;
        for (const auto &l : log()) n += l.text == text ? 1 : 0;
        return n;
    }
    void clear_log() {
        platform::take_log();
        log_.clear();
    }

    // ---- caches filled by hand ---------------------------------------------------

    // The four input syncs over.
    static void ds_ready() {
        dpm_dtm_cache.ds_end = 1;
        dpm_vslap_cache.ds_end = 1;
        dpm_modid_dev_cache.ds_end = 1;
        rdy_vsl_chip_ds_end = 1;
    }
    // The syncs over and one empty route map stored.
    static void make_ready() {
        ds_ready();
        set_dtm({}, {{}});
    }

    // A module-id entry linked the way the allocation handler links it.
    static dpm_modid_info *add_mod(uint32_t devid, uint32_t modid, uint32_t type = 1) {
        dpm_dev_head *dev = dpm_find_dev_head(devid);
        if (dev == nullptr) dev = dpm_alloc_dev_head(devid);
        auto *e = dpm_zalloc<dpm_modid_info>();
        e->modid = modid;
        e->devid = static_cast<int32_t>(devid);
        e->slot = 1;
        e->type = static_cast<int32_t>(type);
        dpm_list_add_tail(&e->link, &dev->modid_list);
        dev->modid_cnt++;
        dpm_modid_dev_cache.mod_cnt++;
        dpm_bmp_set(dev->modid_bmp, modid);
        dpm_bmp_set(dpm_modid_dev_cache.mod_bmp, modid);
        dpm_modid_index[modid] = e;
        return e;
    }

    // A port of device 1 slot `slot` facing the same port of device 2.
    static dpm_vsl_info make_vsl(int apid, int lport, uint32_t chip, uint32_t peer_chip,
                                 int slot = 1) {
        dpm_vsl_info v{};
        v.devid = 1;
        v.slot = slot;
        v.lport = lport;
        v.status = 1;
        v.apid = apid;
        v.chipid = chip;
        v.gphyid = static_cast<uint32_t>(100 + lport);
        v.peer_dev = 2;
        v.peer_slot = slot;
        v.peer_lport = lport;
        v.peer_chip = peer_chip;
        return v;
    }
    static dpm_vsl_info *add_vsl(int apid, int lport, uint32_t chip = 10, uint32_t peer = 20,
                                 int slot = 1) {
        dpm_vsl_info v = make_vsl(apid, lport, chip, peer, slot);
        return dpm_add_vsl_info(&dpm_vslap_cache, &v, apid);
    }
    static dpm_vsl_info *add_waiting(int apid, int lport, uint32_t chip = 10, uint32_t peer = 20,
                                     int slot = 1) {
        dpm_vsl_info v = make_vsl(apid, lport, chip, peer, slot);
        return dpm_add_vsl_info(&dpm_vslap_unused_cache, &v, apid);
    }

    // Put a module id on a port as the balance would.
    static void place(dpm_modid_info *e, dpm_vsl_info *v) {
        dpm_bmp_set(v->modid_bmp, e->modid);
        if (static_cast<uint32_t>(e->type) != DPM_NODE_MB) v->modid_cnt++;
        e->uc_vsl = v;
        e->is_used = 1;
    }

    static void set_dtm(const std::vector<Fib> &fibs, const std::vector<Mfib> &mfibs) {
        dpm_dtm_info *info = dpm_dtm_malloc_info(static_cast<uint32_t>(fibs.size()),
                                                 static_cast<uint32_t>(mfibs.size()));
        ASSERT_NE(info, nullptr);
        info->mfib_num = static_cast<uint32_t>(mfibs.size());
        info->mfibs = reinterpret_cast<dpm_mfib_entry *>(info->fibs + fibs.size());
        for (size_t i = 0; i < fibs.size(); ++i) {
            info->fibs[i] = dpm_fib_entry{fibs[i].owner, fibs[i].dst, fibs[i].oif};
        }
        for (size_t i = 0; i < mfibs.size(); ++i) {
            const Mfib &m = mfibs[i];
            info->mfibs[i] = dpm_mfib_entry{m.owner, m.src, m.iif, m.oif_num, {m.oif0, m.oif1}};
        }
        dpm_add_dtm_info(info);
    }

  private:
    uint32_t level_;
    bool own_dev_;
    std::vector<platform::LogLine> log_;
};

}  // namespace dpm_test
