// The dump line of a bitmap, shared by every dump that prints a set.
#include "dpm_bitmap.h"

#include <cinttypes>

std::string dpm_bmp_line(const uint32_t *words, uint32_t nbits) {
    std::string out;
    char buf[32];
    uint32_t v = 0;
    while (v < nbits) {
        if (((words[v / 32] >> (v % 32)) & 1U) == 0) {
            ++v;
            continue;
        }
        uint32_t last = v;
        while (last + 1 < nbits && ((words[(last + 1) / 32] >> ((last + 1) % 32)) & 1U) != 0) {
            ++last;
        }
        if (last > v) {
            snprintf(buf, sizeof buf, "%u-%u,", v, last);
        } else {
            snprintf(buf, sizeof buf, "%u,", v);
        }
        out += buf;
        v = last + 1;
    }
    out += '\n';
    return out;
}
