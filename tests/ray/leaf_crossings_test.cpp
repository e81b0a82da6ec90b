// The eight-wide leaf test against the scalar loop: the same crossings, in the same order, with
// the same bits, stopping at the same call; records sit against guard pages on either side.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "ray/leaf_crossings.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

struct Seen {
    int32_t index;
    uint32_t num, den, beta, gamma;
    bool operator==(const Seen&) const = default;
};

// Triangles near the unit cube, a tenth of them with two vertices alike (degenerate) and a
// tenth lying in a plane of an axis.
std::vector<TriangleAccel> makeRecords(int count, std::mt19937& rng)
{
    std::uniform_real_distribution<float> coord(-1.0f, 1.0f);
    std::vector<float> vertices;
    std::vector<int32_t> triangles;
    for (int t = 0; t < count; ++t) {
        float p[3][3];
        for (auto& v : p)
            for (float& c : v)
                c = coord(rng);
        if (t % 10 == 3)
            for (int k = 0; k < 3; ++k)
                p[1][k] = p[0][k];
        if (t % 10 == 7) p[1][t % 3] = p[2][t % 3] = p[0][t % 3];
        for (int i = 0; i < 3; ++i) {
            triangles.push_back(int32_t(vertices.size() / 3));
            vertices.insert(vertices.end(), p[i], p[i] + 3);
        }
        triangles.push_back(0);
    }
    std::vector<TriangleAccel> records(static_cast<size_t>(count));
    EXPECT_EQ(vekrTriangleAccelInit(records.data(), vertices.data(), triangles.data(), count),
              StatusOk);
    return records;
}

}  // namespace

TEST(LeafCrossings, EightWideMatchesTheScalarLoopCallForCall)
{
    std::mt19937 rng(7);
    const int count = 40;
    const std::vector<TriangleAccel> source = makeRecords(count, rng);
    std::uniform_real_distribution<float> coord(-1.0f, 1.0f);
    for (FlushEnd flush : {FlushEnd::Back, FlushEnd::Front}) {
        GuardedArray<TriangleAccel> records(size_t(count), flush);
        records.copyFrom(source.data());
        for (int trial = 0; trial < 400; ++trial) {
            // Lists of 1 to 20 entries, repeats allowed, the first and last record included.
            std::vector<int32_t> list(size_t(1 + trial % 20));
            for (int32_t& index : list)
                index = int32_t(rng() % count);
            list.front() = trial % 2 == 0 ? 0 : count - 1;
            accel::LeafTriangles leaf;
            leaf.count = int(list.size());
            leaf.list = list.data();
            // Rays from outside the cube toward a point inside; every fifth aims at a vertex
            // of a listed triangle's record so the edge rules are exercised.
            float origin[3], dir[3];
            for (int k = 0; k < 3; ++k) {
                origin[k] = 3.0f * coord(rng);
                dir[k] = 0.5f * coord(rng) - origin[k];
            }
            if (trial % 5 == 0) {
                const TriangleAccel& rec = source[size_t(list.back())];
                const ray::RecordAxes a = ray::recordAxes(rec.axes);
                if (rec.axes != 0) {
                    dir[a.u] = rec.pu - origin[a.u];
                    dir[a.v] = rec.pv - origin[a.v];
                }
            }
            const int stopAt = trial % 3 == 0 ? 1 + trial % 4 : 1000;
            auto record = [&](std::vector<Seen>& seen) {
                return [&seen, stopAt](int32_t index, const ray::Crossing& c) {
                    seen.push_back({index, floatBits(c.num), floatBits(c.den),
                                    floatBits(c.beta), floatBits(c.gamma)});
                    return int(seen.size()) == stopAt;
                };
            };
            std::vector<Seen> scalar, wide;
            const bool scalarStopped = ray::forEachLeafCrossingScalar(records.data(), leaf, origin,
                                                                      dir, record(scalar));
            const bool wideStopped = ray::forEachLeafCrossing(
                records.data(), leaf, ray::prepareLeafRay(origin, dir), record(wide));
            ASSERT_EQ(wide, scalar) << "trial " << trial;
            ASSERT_EQ(wideStopped, scalarStopped) << "trial " << trial;
        }
    }
}
