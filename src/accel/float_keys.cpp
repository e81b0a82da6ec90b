#include "float_keys.h"

#include <algorithm>

namespace vekr::accel {

namespace {

// Below this count a comparison sort beats four histograms of 256 buckets.
constexpr int64_t kRadixMinItems = 96;
constexpr int kRadixBuckets = 256;

}  // namespace

void sortByUpperKey(uint64_t* items, uint64_t* buffer, int64_t n)
{
    if (n < kRadixMinItems) {
        std::stable_sort(items, items + n,
                         [](uint64_t a, uint64_t b) { return a >> 32 < b >> 32; });
        return;
    }
    int64_t counts[4][kRadixBuckets] = {};
    for (int64_t i = 0; i < n; ++i) {
        const uint32_t key = uint32_t(items[i] >> 32);
        ++counts[0][key & 0xFF];
        ++counts[1][key >> 8 & 0xFF];
        ++counts[2][key >> 16 & 0xFF];
        ++counts[3][key >> 24];
    }
    uint64_t* from = items;
    uint64_t* to = buffer;
    for (int pass = 0; pass < 4; ++pass) {
        const int shift = 32 + 8 * pass;
        int64_t* count = counts[pass];
        if (count[from[0] >> shift & 0xFF] == n) continue;  // one bucket holds every item
        int64_t offset = 0;
        for (int b = 0; b < kRadixBuckets; ++b) {
            const int64_t c = count[b];
            count[b] = offset;
            offset += c;
        }
        for (int64_t i = 0; i < n; ++i) {
            const uint64_t item = from[i];
            to[count[item >> shift & 0xFF]++] = item;
        }
        std::swap(from, to);
    }
    if (from != items) std::copy(from, from + n, items);
}

}  // namespace vekr::accel
