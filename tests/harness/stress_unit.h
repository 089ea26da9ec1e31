// Stress harness of the module: a copy of the module with the consistency
// oracle built in (oracle_module.cpp), the events of a small unit, member 1
// with its VSL ports towards members 2 and 3 (unit_events.cpp), and a driver
// that plays them (unit_driver.cpp).
//
// The copy is loaded once per process. A restart drops every registration the
// instance made, frees every block it still holds (the test builds' allocator
// knows them) and puts every writable byte of the copy back to its load value:
// what a new process would start from, with memory flat over any number of
// restarts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ce_dpm_dlib.h"
#include "platform_ctl.h"

namespace dpm_stress {

constexpr int kAsic = 0, kLocal = 3, kUdp = 8, kTopo = 14;

class OracleModule {
  public:
    explicit OracleModule(const std::string &so_path);
    // Globals back to their load values, then the entry point.
    int start(uint32_t devid = 1, uint32_t node_type = 1);
    // End the instance (its registrations) and start a fresh one.
    int restart(uint32_t devid = 1, uint32_t node_type = 1);

    static constexpr int kStructure = 1, kOutput = 2, kMemory = 4, kAll = 7;
    // Number of differences the oracle finds; the report lists them.
    int check(int flags, std::string *report) const;
    // The newest route map passes the calculation's test.
    bool map_usable() const { return (state_() & 2) != 0; }
    // The application holds configured devices back (see dpm_oracle_state).
    bool held() const { return (state_() & 4) != 0; }

  private:
    struct Range {
        uintptr_t start;
        std::vector<unsigned char> bytes;
    };
    std::vector<Range> ranges_;
    bool started_ = false;
    int (*init_)(ce_dpm_dlib_arg *) = nullptr;
    int (*check_)(int, char *, size_t) = nullptr;
    int (*state_)() = nullptr;
};

// The process's one copy of the oracle module the test build made.
OracleModule &oracle_module();

// ---- events -------------------------------------------------------------------------

// Record kinds come in pairs, the deletion odd; their databases: ASIC_DB
// (hmset), LOCAL_DB (hmset, set), UDP_DB, TOPO_DB (the hardware side's answer
// to a published main multicast choice). Then device-data module events, card
// presence, agent records, a chip-id lookup (or its failure), a database's
// session lost and resumed (or only lost), a restart, and failing callocs
// (inputs with faults only).
// clang-format off
enum class Kind : uint8_t {
    ModAlloc, ModAllocDel, VslLink, VslLinkDel, Map, MapDel, ChipState, ChipStateDel,
    DevState, DevStateDel, MmcConfirm, MmcConfirmDel, CardAdd, CardDel, CardOnline, Grole,
    CardInfo, ChipLookup, Reconnect, Disconnect, Restart, AllocFail, Count
};
// clang-format on

struct Event {
    Kind kind = Kind::Restart;
    int db = 0;
    std::string type;    // record events: full type name
    std::string packed;  // record events: the record
    uint32_t gslot = 0;  // card events
    int devid = 0, slot = 0, lport = 0;
    std::optional<uint32_t> value;  // modid, lookups, presence as 0/1, fault count
    uint32_t pick = 0;  // node type, which answer, fault skip, or 1 for a wiring-true event
};

// Events from bytes (ids mostly from the unit's own small world, with a share
// of values outside every range; failing callocs only with `faults`);
// exhausted input reads as zeros.
std::vector<Event> decode_events(const uint8_t *data, size_t size, size_t max_events,
                                 bool faults = false);
// One line for reports, and a run's baseline and events as lines.
std::string describe(const Event &e);
std::string trail(int baseline, const std::vector<Event> &events);

enum class Baseline : uint8_t {
    Empty,       // nothing stored, module started
    StoredUnit,  // a working two-member unit stored before the start
    LiveUnit,    // module started first, the unit's records arrive afterwards
};

class UnitDriver {
  public:
    explicit UnitDriver(OracleModule &module = oracle_module()) : module_(module) {}
    // Clean stand-in, lookup tables of the unit, the baseline, settled.
    void begin(Baseline baseline);
    // Apply one event and deliver everything it caused; what it logged.
    std::vector<platform::LogLine> apply(const Event &e);

  private:
    OracleModule &module_;
};

// The module id of the chip in member `devid`'s slot `slot` (unit u adds 3u),
// and the card's packed position in module events.
uint32_t chip_of(int devid, int slot);
uint32_t gslot_of(int devid, int slot);

// Packed records of the unit's inputs, as other components write them.
std::string mod_alloc(int devid, int slot, int unit, int modid, int node_type);
std::string vsl_link(int devid, int slot, int lport, int status, int apid, int pdev, int pslot,
                     int plport);
// The unit's route map: member 2 behind apid a2, member 3 behind apid a3.
std::string unit_map(int a2, int a3);
std::string chip_state(int devid, int slot, int unit, const char *word, uint32_t modid);
std::string dev_state(int devid, const char *word);

// One input of the event fuzzer: the first byte picks the baseline (and, from
// 128 on, allocation failures among the events), the rest is a sequence of at
// most 64 events; the oracle runs after the baseline and after every event
// (while an allocation failure's effects last, on the caches and memory only).
// Returns "" when every check held, else the events so far and the report.
std::string run_event_input(const uint8_t *data, size_t size);

// TOPO_DB as sorted text lines, one per record, member lists sorted, empty
// filters left out (they say what their absence says). `history_free` keeps
// only what must not depend on whether the process restarted on the way:
// which destinations have a unicast record and through which aggregate port,
// the member lists, which aggregate ports have a main multicast choice.
std::vector<std::string> topo_lines(bool history_free = false);
std::string join(const std::vector<std::string> &lines);

}  // namespace dpm_stress
