#include <gtest/gtest.h>

#include <cstdint>

#include "ray/eye_rays.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

const float kCorner[3] = {-0.8312f, 0.4137f, -1.0f};
const float kStepX[3] = {0.00313f, -0.0000917f, 0.0001234f};
const float kStepY[3] = {0.0000711f, -0.00291f, -0.0003377f};

struct BlockCase {
    int blockX, blockY;
    Size2D cell;
};

// Blocks near the origin, far out, and with block * cell products that wrap in 32 bits.
const BlockCase kBlocks[] = {{0, 0, {16, 16}},
                             {3, 7, {13, 5}},
                             {4000, 90000, {64, 64}},
                             {100000, 50000, {50000, 100000}},
                             {-3, -70000, {40000, 3}}};

// The documented evaluation, written independently: the column enters as the float of its
// integer, exact below 2^24, where the library carries it by repeated addition.
float expected(int k, const BlockCase& b, int column, int row)
{
    const float offX = float(int32_t(uint32_t(b.blockX) * uint32_t(b.cell.width)));
    const float offY = float(int32_t(uint32_t(b.blockY) * uint32_t(b.cell.height)));
    float rowStart = (kStepY[k] * offY + kCorner[k]) + kStepX[k] * offX;
    for (int r = 0; r < row; ++r)
        rowStart += kStepY[k];
    return rowStart + kStepX[k] * float(column);
}

using CastFn = void (*)(const ray::ImagePlane&, const ray::EyeRayBlockOut&);

struct CastPath {
    const char* name;
    CastFn fn;  // null: the exported function
};

void castThrough(const CastPath& path, const BlockCase& b, int width, int height,
                 float* const planes[3])
{
    if (path.fn == nullptr) {
        ASSERT_EQ(vekrCastEye_32f(kCorner, kStepX, kStepY, b.blockX, b.blockY, b.cell, planes,
                                  Size2D{width, height}),
                  StatusOk);
        return;
    }
    path.fn({kCorner, kStepX, kStepY}, {b.blockX,
                                        b.blockY,
                                        b.cell.width,
                                        b.cell.height,
                                        width,
                                        height,
                                        {planes[0], planes[1], planes[2]}});
}

void PrintTo(const CastPath& path, std::ostream* os)
{
    *os << path.name;
}

class CastEye : public testing::TestWithParam<CastPath> {};

// Every width across the 8-lane groups and the 4/2/1 tail pieces, then wide and tall blocks
// whose rows and columns carry many additions, each plane flush against a guard page at either
// end: bit-exact values and nothing touched past the row.
TEST_P(CastEye, MatchesTheDocumentedOrderBitForBitWithinTheBlock)
{
    for (const BlockCase& b : kBlocks)
        for (int width :
             {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 255, 256, 263, 1003})
            for (int height : {1, 3, 37})
                for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                    const size_t n = size_t(width * height);
                    GuardedArray<float> x(n, end), y(n, end), z(n, end);
                    float* const planes[3] = {x.data(), y.data(), z.data()};
                    castThrough(GetParam(), b, width, height, planes);
                    for (int r = 0; r < height; ++r)
                        for (int c = 0; c < width; ++c)
                            for (int k = 0; k < 3; ++k)
                                ASSERT_EQ(floatBits(planes[k][r * width + c]),
                                          floatBits(expected(k, b, c, r)))
                                    << "block " << b.blockX << "," << b.blockY << " width " << width
                                    << " pixel " << c << "," << r << " axis " << k;
                }
}

INSTANTIATE_TEST_SUITE_P(Paths, CastEye,
                         testing::Values(CastPath{"Scalar", ray::castEyeRaysScalar},
                                         CastPath{"Avx", ray::castEyeRaysAvx},
                                         CastPath{"Exported", nullptr}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(CastEyeChecks, NullOutputFirstThenEmptyHeights)
{
    const Size2D cell{8, 8};
    EXPECT_EQ(vekrCastEye_32f(kCorner, kStepX, kStepY, 0, 0, cell, nullptr, Size2D{8, 0}),
              StatusNullPointer);
    // A height below 1 reads nothing, not even the planes.
    float* const nullPlanes[3] = {nullptr, nullptr, nullptr};
    for (int height : {0, -1, INT32_MIN})
        EXPECT_EQ(
            vekrCastEye_32f(nullptr, nullptr, nullptr, 0, 0, cell, nullPlanes, Size2D{8, height}),
            StatusOk);
    // A width of 0 writes nothing.
    GuardedArray<float> none(0);
    float* const emptyPlanes[3] = {none.data(), none.data(), none.data()};
    EXPECT_EQ(vekrCastEye_32f(kCorner, kStepX, kStepY, 0, 0, cell, emptyPlanes, Size2D{0, 5}),
              StatusOk);
    // Nor does a negative one: -1 once stored seven floats before each plane, row after row.
    for (int width : {-1, -7, -8, -9, INT32_MIN})
        EXPECT_EQ(vekrCastEye_32f(kCorner, kStepX, kStepY, 0, 0, cell, nullPlanes, Size2D{width, 3}),
                  StatusOk)
            << "width " << width;
}

}  // namespace
