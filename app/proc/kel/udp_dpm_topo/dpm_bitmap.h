// Fixed-size bitmaps of 32-bit words: value v is bit v % 32 of word v / 32.
//
// Module-id sets are 2048 bits (64 words, the layout of the permit/block
// records), VLAN sets 4096 bits (128 words), device sets one word. Every helper
// checks its value against the width, so an id from the outside world can never
// touch memory beyond the array.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

inline constexpr uint32_t DPM_MODID_MAX = 2048;   // module ids 0..2047
inline constexpr uint32_t DPM_VLAN_MAX = 4096;    // VLAN ids 0..4095
inline constexpr uint32_t DPM_DEVID_MAX = 32;     // device ids 0..31 (one word)
inline constexpr uint32_t DPM_DEV_DUMP_MAX = 16;  // devices 0..15 are used by filters and dumps

template <uint32_t Bits>
using dpm_bmp = std::array<uint32_t, Bits / 32>;

using dpm_modid_bmp = dpm_bmp<DPM_MODID_MAX>;
using dpm_vlan_bmp = dpm_bmp<DPM_VLAN_MAX>;

template <size_t N>
inline bool dpm_bmp_test(const std::array<uint32_t, N> &b, uint32_t v) {
    return v < N * 32 && ((b[v / 32] >> (v % 32)) & 1U) != 0;
}
template <size_t N>
inline bool dpm_bmp_set(std::array<uint32_t, N> &b, uint32_t v) {
    if (v >= N * 32) return false;
    b[v / 32] |= 1U << (v % 32);
    return true;
}
template <size_t N>
inline bool dpm_bmp_clear(std::array<uint32_t, N> &b, uint32_t v) {
    if (v >= N * 32) return false;
    b[v / 32] &= ~(1U << (v % 32));
    return true;
}
template <size_t N>
inline bool dpm_bmp_empty(const std::array<uint32_t, N> &b) {
    for (uint32_t w : b)
        if (w != 0) return false;
    return true;
}
template <size_t N>
inline void dpm_bmp_or(std::array<uint32_t, N> &dst, const std::array<uint32_t, N> &src) {
    for (size_t i = 0; i < N; ++i) dst[i] |= src[i];
}

inline bool dpm_word_test(uint32_t w, uint32_t v) {
    return v < 32 && ((w >> v) & 1U) != 0;
}
inline void dpm_word_set(uint32_t &w, uint32_t v) {
    if (v < 32) w |= 1U << v;
}
inline void dpm_word_clear(uint32_t &w, uint32_t v) {
    if (v < 32) w &= ~(1U << v);
}

// The dump line of a bitmap: ascending runs, "a-b," for two or more
// consecutive values, "a," for a single one, then a newline. `nbits` limits
// the range shown (device bitmaps show 0..15).
std::string dpm_bmp_line(const uint32_t *words, uint32_t nbits);

template <size_t N>
inline std::string dpm_bmp_line(const std::array<uint32_t, N> &b) {
    return dpm_bmp_line(b.data(), static_cast<uint32_t>(N * 32));
}
