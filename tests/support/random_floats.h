// Uniform random floats from a fixed seed.
#pragma once

#include <cstddef>
#include <random>
#include <vector>

namespace vekr::test {

inline std::vector<float> randomFloats(size_t count, unsigned seed, float lo = -1, float hi = 1)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(lo, hi);
    std::vector<float> v(count);
    for (float& x : v)
        x = dist(rng);
    return v;
}

}  // namespace vekr::test
