#include "float_keys.h"

#include <algorithm>

namespace vekr::accel {

namespace {

// Below this count a comparison sort beats four histograms of 256 buckets.
constexpr int32_t kRadixMinKeys = 96;
constexpr int kRadixBuckets = 256;

}  // namespace

void sortKeys(uint32_t* keys, uint32_t* buffer, int32_t n)
{
    if (n < kRadixMinKeys) {
        std::sort(keys, keys + n);
        return;
    }
    int32_t counts[4][kRadixBuckets] = {};
    for (int32_t i = 0; i < n; ++i) {
        const uint32_t key = keys[i];
        ++counts[0][key & 0xFF];
        ++counts[1][key >> 8 & 0xFF];
        ++counts[2][key >> 16 & 0xFF];
        ++counts[3][key >> 24];
    }
    uint32_t* from = keys;
    uint32_t* to = buffer;
    for (int pass = 0; pass < 4; ++pass) {
        const int shift = 8 * pass;
        int32_t* count = counts[pass];
        if (count[from[0] >> shift & 0xFF] == n) continue;  // one bucket holds every key
        int32_t offset = 0;
        for (int b = 0; b < kRadixBuckets; ++b) {
            const int32_t c = count[b];
            count[b] = offset;
            offset += c;
        }
        for (int32_t i = 0; i < n; ++i) {
            const uint32_t key = from[i];
            to[count[key >> shift & 0xFF]++] = key;
        }
        std::swap(from, to);
    }
    if (from != keys) std::copy(from, from + n, keys);
}

}  // namespace vekr::accel
