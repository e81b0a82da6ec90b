// The vector kernels of the spherical harmonics against their scalar twins, and the block
// clearing that initialises states.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "frame/clear_block.h"
#include "sh/sh_basis.h"
#include "sh/sh_state.h"
#include "sh/sh_transform.h"
#include "support/guard_buffer.h"
#include "vekcore.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

// Unit directions with the poles and an axis among them.
std::vector<float> directionPlane(int n, int axis, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<double> g;
    std::vector<float> out;
    for (int i = 0; i < n; ++i) {
        double v[3] = {g(rng), g(rng), g(rng)};
        if (i % 7 == 3) v[0] = v[1] = 0.0, v[2] = i % 2 ? 1.0 : -1.0;
        const double r = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        out.push_back(float(v[axis] / r));
    }
    return out;
}

struct RecurrenceState {
    std::vector<char> buffer;
    RecurrenceState(uint32_t order) : buffer(sh::recurrenceStateBytes(order) + 16)
    {
        sh::initRecurrenceState(buffer.data(), order);
    }
    const SHState& state() const { return *reinterpret_cast<const SHState*>(buffer.data()); }
};

// Every length across the vector groups, each output flush against a guard page at either end.
TEST(ShKernels, VectorBasisMatchesScalarTwinBitForBit)
{
    for (uint32_t order : {0u, 1u, 2u, 7u, 15u}) {
        const RecurrenceState recurrence(order);
        const sh::RecurrenceTables tables = sh::recurrenceTables(recurrence.state());
        const size_t perDirection = size_t(order + 1) * (order + 1);
        for (int n = 0; n <= 19; ++n) {
            const auto x = directionPlane(n, 0, uint32_t(n)), y = directionPlane(n, 1, uint32_t(n)),
                       z = directionPlane(n, 2, uint32_t(n));
            const sh::Directions dirs{x.data(), y.data(), z.data(), n};
            std::vector<float> expected(perDirection * size_t(n) + 1);  // never empty
            for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                GuardedArray<float> out(perDirection * size_t(n), end);
                sh::evalBasisDirectScalar(dirs, order, expected.data());
                sh::evalBasisDirectAvx(dirs, order, out.data());
                ASSERT_EQ(std::memcmp(out.data(), expected.data(), out.size() * 4), 0)
                    << "direct, order " << order << " length " << n;
                sh::evalBasisRecurrenceScalar(dirs, order, tables, expected.data());
                sh::evalBasisRecurrenceAvx(dirs, order, tables, out.data());
                ASSERT_EQ(std::memcmp(out.data(), expected.data(), out.size() * 4), 0)
                    << "recurrence, order " << order << " length " << n;
            }
        }
    }
}

TEST(ShKernels, DotProductTwinsAgreeBitForBit)
{
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    for (int n = 0; n <= 40; ++n) {
        GuardedArray<float> a(static_cast<size_t>(n)), b(static_cast<size_t>(n));
        for (int k = 0; k < n; ++k) {
            a.data()[k] = value(rng);
            b.data()[k] = value(rng) * 1000.0f;
        }
        EXPECT_EQ(sh::dotProductScalar(a.data(), b.data(), n),
                  sh::dotProductAvx(a.data(), b.data(), n))
            << "n " << n;
    }
}

// A block beyond the caches goes through streaming stores; both ends are unaligned.
TEST(ShKernels, ClearBlockZeroesExactlyTheBlock)
{
    const size_t large = size_t(std::max(vekGetMaxCacheSizeB(), 0x200000)) + 4096 + 13;
    for (size_t bytes : {size_t(0), size_t(1), size_t(100), size_t(0x200001), large}) {
        std::vector<unsigned char> buffer(bytes + 80, 0xAB);
        frame::clearBlock(buffer.data() + 7, bytes);
        for (size_t i = 0; i < buffer.size(); ++i) {
            const bool inside = i >= 7 && i < 7 + bytes;
            ASSERT_EQ(buffer[i], inside ? 0 : 0xAB) << "bytes " << bytes << " at " << i;
        }
    }
}

}  // namespace
