#include "kd_format.h"

#include <algorithm>

namespace vekr::accel {

bool encodeCompactLeaf(const int32_t* indices, int count, KdNode& out)
{
    for (int i = 0; i < count; ++i)
        if (indices[i] < 0) return false;
    switch (count) {
        case 1:
            out = KdNode{int32_t(kCompactFlag | uint32_t(indices[0])), kCompactFlag | 1u};
            return true;
        case 2: {
            // The index below the base limit goes into word 1, the first one if both qualify.
            int inWord1;
            if (uint32_t(indices[0]) < kCompactBaseLimit)
                inWord1 = 0;
            else if (uint32_t(indices[1]) < kCompactBaseLimit)
                inWord1 = 1;
            else
                return false;
            const uint32_t base = uint32_t(indices[inWord1]);
            const uint32_t other = uint32_t(indices[1 - inWord1]);
            out = KdNode{int32_t(kCompactFlag | other), kCompactFlag | base << 2 | 2u};
            return true;
        }
        case 3: {
            int32_t sorted[3] = {indices[0], indices[1], indices[2]};
            std::sort(sorted, sorted + 3);
            const int32_t lowSpread = sorted[1] - sorted[0];
            const int32_t highSpread = sorted[2] - sorted[1];
            if (uint32_t(sorted[1]) >= kCompactBaseLimit || lowSpread >= kCompactLowSpreadLimit ||
                highSpread >= kCompactHighSpreadLimit)
                return false;
            out = KdNode{int32_t(kCompactFlag | uint32_t(lowSpread) << 16 | uint32_t(highSpread)),
                         kCompactFlag | uint32_t(sorted[1]) << 2 | 3u};
            return true;
        }
        default:
            return false;
    }
}

}  // namespace vekr::accel
