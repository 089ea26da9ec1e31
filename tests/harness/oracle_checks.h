// The consistency oracle's checks and what they share: the report of
// differences, a defensive walk over the module's lists, and bitmaps and ports
// as text. oracle.cpp walks the caches' structure and memory, oracle_output.cpp
// compares TOPO_DB with the applied caches.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <map>
#include <string>

#include "record_builders.h"
#include "udp_dpm.h"

namespace dpm_oracle {

using dpm_test::fmt;

struct Report {
    std::string text;
    int count = 0;
    std::map<const void *, const char *> elems;  // every element walked, and its list
    void add(const char *fmt, ...) __attribute__((format(printf, 2, 3))) {
        char buf[512];
        va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(buf, sizeof buf, fmt, ap);
        va_end(ap);
        text += std::string(buf) + "\n";
        ++count;
    }
};

// A list head the module has not set up yet (before its first start) is all zero.
inline bool live(const dpm_list *head) {
    return head->next != nullptr && head->prev != nullptr;
}

// Walk a list defensively: a broken link ends the walk with a report instead of
// a crash in the oracle itself.
template <class T, class F>
bool walk(const dpm_list *head, const char *what, Report &r, F &&fn) {
    if (!live(head)) return true;
    size_t guard = 0;
    const dpm_list *prev = head;
    for (const dpm_list *p = head->next; p != head; p = p->next) {
        if (p == nullptr || reinterpret_cast<uintptr_t>(p) == DPM_LIST_POISON1 ||
            reinterpret_cast<uintptr_t>(p) == DPM_LIST_POISON2) {
            r.add("%s: broken link after %zu elements", what, guard);
            return false;
        }
        if (p->prev != prev) r.add("%s: element %zu has a wrong prev link", what, guard);
        if (++guard > 1000000) {
            r.add("%s: list does not close", what);
            return false;
        }
        const T *elem =
            reinterpret_cast<const T *>(reinterpret_cast<const char *>(p) - offsetof(T, link));
        r.elems.emplace(elem, what);
        fn(elem);
        prev = p;
    }
    if (head->prev != prev) r.add("%s: head prev is not the last element", what);
    return true;
}

template <size_t N>
std::string bits(const std::array<uint32_t, N> &b) {
    std::string out = "-";
    for (uint32_t v = 0; v < N * 32; ++v) out += dpm_bmp_test(b, v) ? std::to_string(v) + "," : "";
    return out;
}

inline std::string port_name(const dpm_vsl_info *v) {
    return fmt("%d/%d/%d/%d", v->devid, v->slot, v->sslot, v->lport);
}

// TOPO_DB holds exactly what the applied caches say (oracle_output.cpp).
void check_output(Report &r);

}  // namespace dpm_oracle
