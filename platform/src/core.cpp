// The stand-in's frame: its one state, the callback queue, faults, the virtual
// clock with its timers, and the split between what a module instance owns and
// what outlives it.
//
// The module relies on its callbacks arriving one at a time and never from
// inside a platform call, so every effect of a platform call is a closure put on
// one FIFO; the host drains it between its own steps.
#include <algorithm>
#include <cstdio>
#include <utility>

#include "store.h"

namespace platform {

State &st() {
    static State s;
    return s;
}

std::optional<int> fault(const char *op, int db) {
    auto &faults = st().faults;
    for (auto it = faults.begin(); it != faults.end(); ++it) {
        // A database filter only narrows calls that name a database.
        if (it->op != op || (db >= 0 && it->db >= 0 && it->db != db)) continue;
        // Calls before the fault's turn go through: the Nth call of a chain can fail.
        if (it->skip > 0) {
            --it->skip;
            return std::nullopt;
        }
        int rv = it->rv;
        if (it->count > 0 && --it->count == 0) faults.erase(it);
        return rv;
    }
    return std::nullopt;
}

void enqueue(std::function<void()> fn, uint64_t sub_id, uint64_t timer_id, bool front,
             bool deletion) {
    State &s = st();
    QueueItem item{std::move(fn), sub_id, timer_id, deletion};
    if (!front) {
        s.queue.push_back(std::move(item));
        return;
    }
    size_t at = std::min(s.front_next++, s.queue.size());
    s.queue.insert(s.queue.begin() + static_cast<std::ptrdiff_t>(at), std::move(item));
}

void drop_instance_state() {
    State &s = st();
    s.queue.clear();
    s.sessions.clear();
    s.subs.clear();
    s.watches.clear();
    store().drop_instance();
    s.open_brackets.clear();
    s.key_regs.clear();
    s.agents.clear();
    s.ddm_regs.clear();
    s.timers.clear();
    s.commands.clear();
}

}  // namespace platform

using platform::st;

namespace {

// The thread globals the module asks for; the event loop is never dereferenced.
int g_event_loop_tag;
int g_host_tag;
xn_mom_thread_global_t g_thread_global{&g_host_tag, &g_event_loop_tag};

void *timer_handle(uint64_t id) {
    return reinterpret_cast<void *>(static_cast<uintptr_t>(id));
}

}  // namespace

extern "C" {

xn_mom_thread_global_t *xn_mom_get_thread_local_global(void) {
    if (platform::fault("xn_mom_get_thread_local_global")) return nullptr;
    return &g_thread_global;
}

// Handles are ids, not addresses, so a handle kept after its timer fired can
// never name a later timer.
void *xn_thread_add_timer_timeval(void *event_loop, xn_thread_func_t func, void *arg,
                                  struct timeval delay) {
    (void)arg;
    if (platform::fault("xn_thread_add_timer_timeval")) return nullptr;
    if (event_loop == nullptr || func == nullptr || delay.tv_sec < 0 || delay.tv_usec < 0) {
        return nullptr;
    }
    platform::State &s = st();
    uint64_t id = s.next_id++;
    uint64_t delay_us =
        static_cast<uint64_t>(delay.tv_sec) * 1000000u + static_cast<uint64_t>(delay.tv_usec);
    s.timers.push_back(platform::Timer{id, s.now_us + delay_us, func});
    return timer_handle(id);
}

void xn_thread_cancel(void *thread) {
    if (platform::fault("xn_thread_cancel")) return;
    platform::State &s = st();
    auto id = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(thread));
    if (id == 0) return;  // 0 tags every queued item that is not a timer
    std::erase_if(s.timers, [id](const platform::Timer &t) { return t.id == id; });
    // Due but not yet delivered is still pending for the module.
    std::erase_if(s.queue, [id](const platform::QueueItem &item) { return item.timer_id == id; });
}

}  // extern "C"

namespace platform {

void reset() {
    platform::State &s = st();
    platform::drop_instance_state();
    s.dbs.clear();
    s.agent_records.clear();
    s.cards.clear();
    s.chipids.clear();
    s.phyids.clear();
    s.capacity.clear();
    s.offline_cards.clear();
    s.faults.clear();
    s.module_writes.clear();
    s.log.clear();
    s.db_path.clear();
    s.db_dirty = false;
    s.store.reset();  // back to the embedded store
    s.on_redis = false;
    s.module_member = s.view_member = 0;
    s.now_us = 0;
    s.ssat_init_result = 0;
}

void *host_handle() {
    return &g_host_tag;
}

void drop_instance() {
    platform::drop_instance_state();
}

bool run_one() {
    auto &q = st().queue;
    // While callbacks are queued, changes go out in whole calls and nothing
    // waits for the server; once the queue is empty, poll sends the rest and
    // reads the replies and what other processes wrote.
    if (q.empty()) {
        platform::store().poll(0);
    } else {
        platform::store().send_full();
    }
    if (q.empty()) return false;
    // Take the item out first: the callback may queue more or drop the instance.
    platform::QueueItem item = std::move(q.front());
    q.pop_front();
    platform::State &s = st();
    s.front_next = 0;
    s.callback_depth++;
    item.fn();
    s.callback_depth--;
    if (s.callback_depth == 0) platform::flush_dbs();
    return true;
}

size_t run_until_idle() {
    size_t n = 0;
    while (run_one()) n++;
    return n;
}

size_t pending() {
    return st().queue.size();
}

void advance_us(uint64_t us) {
    platform::State &s = st();
    uint64_t target = s.now_us + us;
    for (;;) {
        // Earliest due first; equal due times in the order they were added.
        auto next = s.timers.end();
        for (auto it = s.timers.begin(); it != s.timers.end(); ++it) {
            if (it->due_us <= target && (next == s.timers.end() || it->due_us < next->due_us)) {
                next = it;
            }
        }
        if (next == s.timers.end()) break;
        platform::Timer t = *next;
        s.timers.erase(next);
        if (t.due_us > s.now_us) s.now_us = t.due_us;
        platform::enqueue([t] { t.fn(timer_handle(t.id)); }, 0, t.id);
    }
    s.now_us = target;
}

uint64_t now_us() {
    return st().now_us;
}

void fail(const std::string &op, int db, int count, int rv, int skip) {
    if (count == 0) return;
    st().faults.push_back(platform::Fault{op, db, count, rv, skip < 0 ? 0 : skip});
}

void clear_faults() {
    st().faults.clear();
}

std::optional<int> take_fault(const char *op) {
    return platform::fault(op);
}

}  // namespace platform
