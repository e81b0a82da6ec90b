// A float sample stored as a voxel of type T, the one rounding every volume function uses.
#pragma once

#include <cmath>
#include <limits>
#include <type_traits>

namespace vekr::volume {

// Clamp, then round to nearest in the current mode (ties to even), as _mm256_max_ps /
// _mm256_min_ps / _mm256_cvtps_epi32 do: a NaN fails the first comparison and gives 0. A float
// voxel takes the sample as it is.
template <class T>
inline T roundToVoxel(float v)
{
    if constexpr (std::is_same_v<T, float>) {
        return v;
    } else {
        constexpr float kMax = float(std::numeric_limits<T>::max());
        float c = v > 0.0f ? v : 0.0f;
        c = c < kMax ? c : kMax;
        return T(std::nearbyint(c));
    }
}

}  // namespace vekr::volume
