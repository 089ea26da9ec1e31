// Stress harness of the module: a copy of the module with the consistency
// oracle built in, and a driver that turns bytes into events of a small
// unit (member 1 with its VSL ports towards members 2 and 3).
//
// The copy is loaded once per process. A restart drops every registration
// the instance made and puts every writable byte of the copy back to its load
// value, which is what a new process would start from; the caches the old
// instance allocated stay behind, as they would in a dead process.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ce_dpm_dlib.h"
#include "platform_ctl.h"

namespace dpm_stress {

class OracleModule {
  public:
    // Loads a private copy of the shared object at `so_path`.
    explicit OracleModule(const std::string &so_path);
    ~OracleModule();
    OracleModule(const OracleModule &) = delete;
    OracleModule &operator=(const OracleModule &) = delete;

    // Globals back to their load values, then the entry point.
    int start(uint32_t devid = 1, uint32_t node_type = 1);
    // End the instance (its registrations) and start a fresh one.
    int restart(uint32_t devid = 1, uint32_t node_type = 1);

    static constexpr int kStructure = 1;
    static constexpr int kOutput = 2;
    static constexpr int kMemory = 4;
    static constexpr int kAll = 7;
    // Number of differences; the report lists them.
    int check(int flags, std::string *report) const;
    bool ready() const;
    // The newest route map passes the calculation's test.
    bool map_usable() const;
    // The application holds configured devices back (see dpm_oracle_held).
    bool held() const;
    std::string summary() const;

  private:
    struct Range {
        uintptr_t start;
        std::vector<unsigned char> bytes;
    };
    void snapshot();
    void restore();

    void *handle_ = nullptr;
    std::string path_;
    std::vector<Range> ranges_;
    bool started_ = false;
    using CheckFn = int (*)(int, char *, size_t);
    using ReadyFn = int (*)();
    using SummaryFn = void (*)(char *, size_t);
    using InitFn = int (*)(ce_dpm_dlib_arg *);
    ReadyFn map_usable_ = nullptr;
    ReadyFn held_ = nullptr;
    CheckFn check_ = nullptr;
    ReadyFn ready_ = nullptr;
    SummaryFn summary_ = nullptr;
    InitFn init_ = nullptr;
};

// Where the test build put the oracle module.
const std::string &oracle_module_path();

// ---- events -------------------------------------------------------------------------

enum class Kind : uint8_t {
    ModAlloc,  // ASIC_DB s_intf.evt_mod_alloc (hmset)
    ModAllocDel,
    VslLink,  // LOCAL_DB p_dev.vsl_local_link (hmset)
    VslLinkDel,
    Map,  // LOCAL_DB p_dev.dtm_route_info (set)
    MapDel,
    ChipState,  // UDP_DB u_cluster.vsl_chip_fwdstate
    ChipStateDel,
    DevState,  // UDP_DB u_cluster.kel_dev_fwdstate
    DevStateDel,
    MmcConfirm,  // TOPO_DB u_cluster.mainmc_vlan_st for a published choice
    MmcConfirmDel,
    CardAdd,  // device-data module events
    CardDel,
    CardOnline,  // card presence
    Grole,       // agent p_dev.dp_lib_grole
    CardInfo,    // agent p_dev.card_info
    ChipLookup,  // chip-id lookup table entry (or its failure)
    Reconnect,   // disconnect and resumed reconnect of one database
    Disconnect,  // disconnect only (the reconnect comes with a later event)
    Restart,
    Count
};

struct Event {
    Kind kind = Kind::Restart;
    int db = 0;
    std::string type;    // record events: full type name
    std::string packed;  // record events: the record
    uint32_t gslot = 0;  // card events
    int devid = 0, slot = 0, sslot = 0, lport = 0;
    std::optional<uint32_t> value;  // lookups; presence as 0/1
    uint32_t pick = 0;              // which published choice a confirmation answers
    std::string text;               // one line for reports
};

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

// One event from the reader (ids mostly from the unit's own small world, with
// a share of values outside every range).
Event decode_event(ByteReader &in);
std::vector<Event> decode_events(const uint8_t *data, size_t size, size_t max_events = 64);

// How a run begins.
enum class Baseline : uint8_t {
    Empty,       // nothing stored, module started
    StoredUnit,  // a working two-member unit stored before the start
    LiveUnit,    // module started first, the unit's records arrive afterwards
};

class UnitDriver {
  public:
    explicit UnitDriver(OracleModule &module) : module_(module) {}
    // Clean stand-in, lookup tables of the unit, the baseline, settled.
    void begin(Baseline baseline);
    // Apply one event and deliver everything it caused.
    void apply(const Event &e);
    OracleModule &module() { return module_; }

  private:
    void unit_records();
    OracleModule &module_;
};

// The module id of the chip in member `devid`'s slot `slot` (unit 0; unit u
// adds 3u).
uint32_t chip_of(int devid, int slot);

// Packed records of the unit's inputs, as other components write them.
std::string mod_alloc(int devid, int slot, int unit, int modid, int node_type);
std::string vsl_link(int devid, int slot, int lport, int status, int apid, int pdev, int pslot,
                     int plport);
// The unit's route map: member 2 behind apid a2, member 3 behind apid a3.
std::string unit_map(int a2, int a3);
std::string chip_state(int devid, int slot, int unit, const char *word, uint32_t modid);
std::string dev_state(int devid, const char *word);
std::string mmc_state(uint32_t modid, uint32_t apid, size_t words);

// One input of the event-sequence fuzzer: the first byte picks the baseline,
// the rest is a sequence of at most 64 events; the oracle runs after the
// baseline and after every event. Returns "" when every check held, else the
// events so far and the oracle's report.
std::string run_event_input(OracleModule &module, const uint8_t *data, size_t size);

// TOPO_DB in a comparable form: one line per record, text of its fields.
// `member_order` false sorts the members of u_cluster.vsl_ap_member;
// `empty_as_absent` leaves out member lists without members and filters
// without bits.
std::vector<std::string> topo_lines(bool member_order = true, bool empty_as_absent = false);
std::string join(const std::vector<std::string> &lines);

}  // namespace dpm_stress
