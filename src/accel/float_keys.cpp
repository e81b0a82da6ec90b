#include "float_keys.h"

#include <algorithm>

namespace vekr::accel {

namespace {

// Below this count a comparison sort beats the histograms.
constexpr int64_t kRadixMinItems = 96;
// Two passes of 16 bits cover a 32-bit key and leave the items where they started.
constexpr int kRadixPasses = 2;
constexpr int kRadixBits = 16;
constexpr int kRadixBuckets = 1 << kRadixBits;

inline uint32_t digitOf(uint64_t item, int pass)
{
    return uint32_t(item >> (32 + kRadixBits * pass)) & (kRadixBuckets - 1);
}

}  // namespace

void sortByUpperKey(uint64_t* items, uint64_t* buffer, uint32_t* counts, int64_t n)
{
    if (n < kRadixMinItems) {
        std::stable_sort(items, items + n,
                         [](uint64_t a, uint64_t b) { return a >> 32 < b >> 32; });
        return;
    }
    static_assert(kRadixPasses * kRadixBits >= 32 &&
                  kRadixPasses * kRadixBuckets == kSortCountWords);
    std::fill(counts, counts + kSortCountWords, 0u);
    for (int64_t i = 0; i < n; ++i)
        for (int pass = 0; pass < kRadixPasses; ++pass)
            ++counts[pass * kRadixBuckets + digitOf(items[i], pass)];
    uint64_t* from = items;
    uint64_t* to = buffer;
    for (int pass = 0; pass < kRadixPasses; ++pass) {
        uint32_t* count = counts + pass * kRadixBuckets;
        if (count[digitOf(from[0], pass)] == uint32_t(n)) continue;  // one bucket holds all
        uint32_t offset = 0;
        for (int b = 0; b < kRadixBuckets; ++b) {
            const uint32_t c = count[b];
            count[b] = offset;
            offset += c;
        }
        for (int64_t i = 0; i < n; ++i) {
            const uint64_t item = from[i];
            to[count[digitOf(item, pass)]++] = item;
        }
        std::swap(from, to);
    }
    if (from != items) std::copy(from, from + n, items);
}

}  // namespace vekr::accel
