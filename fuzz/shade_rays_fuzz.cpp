// Fuzzes the entry points that take lengths and planar arrays: eye, shadow and reflection ray
// generation, hit points, the three normal functions and the masked arithmetic. Every plane is
// exactly as long as the call's length, on a fuzz-chosen alignment (so the aligned fast paths
// and the general ones both run); a length of 0 or below gets empty blocks and sometimes null
// planes, which no call may touch.
#include <algorithm>
#include <climits>
#include <cstring>

#include "exact_buffers.h"
#include "fuzz_inputs.h"

using namespace vekr::fuzz;

namespace {

constexpr int kMaxLength = 70;
constexpr int kMaxMesh = 40;

enum class Call {
    CastEye,
    HitPointS0,
    HitPointM0,
    CastShadow,
    CastReflection,
    TriangleNormal,
    SurfFlatNormal,
    SurfSmoothNormal,
    MulC1,
    MulP3,
    Div,
    AddMulMul,
    Dot,
    DotChangeNorm,
    DistAttenuation,
    Count
};

// Planes of one call: each an exact block on its own alignment, filled with values in [-2, 2]
// with special values sprinkled in.
struct PlaneSource {
    FuzzedDataProvider& in;
    ExactBlocks& blocks;
    std::size_t n;
    bool nullPlanes;  // a length of 0 or below: the planes inside triples may be null

    std::size_t lead()
    {
        return n == 0 ? 0 : in.ConsumeBool() ? 0 : in.ConsumeIntegralInRange<std::size_t>(0, 7);
    }
    float* floats()
    {
        float* p = blocks.take<float>(n, lead());
        fillValues(in, p, n, [](uint64_t r) { return float(int(r % 4001) - 2000) * 1e-3f; });
        return p;
    }
    // A plane inside a triple, whose pointer no call checks.
    float* member() { return nullPlanes && in.ConsumeBool() ? nullptr : floats(); }
    // Mask words: 0 and -1 mostly, sometimes any value (sign-tested calls accept them).
    int32_t* mask()
    {
        int32_t* p = blocks.take<int32_t>(n, lead());
        const bool any = rarely(in);
        fillValues(in, p, n, [&](uint64_t r) {
            return any ? int32_t(r >> 7) : r % 3 == 0 ? -1 : 0;
        });
        return p;
    }
    float* fixed(std::size_t count)  // short vectors: points, colours, steps
    {
        float* p = blocks.take<float>(count);
        for (std::size_t i = 0; i < count; ++i)
            p[i] = pickReal(in, -4.0f, 4.0f);
        return p;
    }
};

// The index of the one checked pointer argument passed null, or -1.
int pickNullArgument(FuzzedDataProvider& in, int checkedPointers)
{
    return rarely(in) ? in.ConsumeIntegralInRange<int>(0, checkedPointers - 1) : -1;
}

template <class T>
T nullIf(bool condition, T p)
{
    return condition ? nullptr : p;
}

int checkedPointersOf(Call call)
{
    constexpr int kChecked[] = {1, 4, 5, 6, 4, 3, 2, 5, 0, 3, 2, 4, 4, 4, 3};
    return kChecked[int(call)];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const LibraryBlocksReturned noLeak;
    pickThreadCount(in);
    ExactBlocks blocks(pickFence(in));
    const auto call = Call(in.ConsumeIntegralInRange<int>(0, int(Call::Count) - 1));
    // Lengths of 0 or below (down to INT_MIN) must touch nothing.
    const int length = rarely(in) ? in.ConsumeIntegralInRange<int>(INT_MIN, 0)
                                  : in.ConsumeIntegralInRange<int>(1, kMaxLength);
    const int checked = checkedPointersOf(call);
    const int nullArg = checked > 0 ? pickNullArgument(in, checked) : -1;
    auto isNull = [&](int i) { return i == nullArg; };

    PlaneSource planes{in, blocks, std::size_t(std::max(length, 0)), length <= 0};
    Status status = StatusOk, expected = nullArg >= 0 ? StatusNullPointer : StatusOk;
    std::vector<std::vector<uint8_t>> before;
    auto run = [&](auto&& f) {
        before = blocks.snapshot();
        status = f();
    };

    switch (call) {
        case Call::CastEye: {
            // Rows of any width, wide ones (from 256) stored plane by plane; a width or height
            // below 1 writes nothing.
            Size2D blockSize{in.ConsumeIntegralInRange<int>(-3, 40),
                             in.ConsumeIntegralInRange<int>(-2, 9)};
            if (rarely(in)) blockSize.width = in.ConsumeIntegralInRange<int>(250, 300);
            const Size2D cell{pickCount(in, 64), pickCount(in, 64)};
            const int blockX = pickCount(in, 100), blockY = pickCount(in, 100);
            PlaneSource out{in, blocks,
                            blockSize.width > 0 && blockSize.height > 0
                                ? std::size_t(blockSize.width) * std::size_t(blockSize.height)
                                : 0,
                            blockSize.width < 1 || blockSize.height < 1};
            const float* origin = planes.fixed(3);
            const float* stepX = planes.fixed(3);
            const float* stepY = planes.fixed(3);
            float* const dir[3] = {out.member(), out.member(), out.member()};
            run([&] {
                return vekrCastEye_32f(origin, stepX, stepY, blockX, blockY, cell,
                                       nullIf(isNull(0), dir), blockSize);
            });
            if (blockSize.width < 1 || blockSize.height < 1)
                require(blocks.unchangedSince(before), "eye rays written for an empty block");
            break;
        }
        case Call::HitPointS0:
        case Call::HitPointM0: {
            const float* origin = planes.fixed(3);
            const float* const originPlanes[3] = {planes.member(), planes.member(),
                                                  planes.member()};
            const float* const dir[3] = {planes.member(), planes.member(), planes.member()};
            const float* dist = planes.floats();
            const int32_t* mask = planes.mask();
            float* const point[3] = {planes.member(), planes.member(), planes.member()};
            const float eps = pickReal(in, 0.9f, 1.0f);
            if (call == Call::HitPointS0)
                run([&] {
                    return vekrHitPoint3DEpsS0_32f_M(
                        origin, nullIf(isNull(2), dir), nullIf(isNull(0), dist),
                        nullIf(isNull(1), mask), nullIf(isNull(3), point), length, eps);
                });
            else
                run([&] {
                    return vekrHitPoint3DEpsM0_32f_M(
                        nullIf(isNull(4), originPlanes), nullIf(isNull(2), dir),
                        nullIf(isNull(0), dist), nullIf(isNull(1), mask), nullIf(isNull(3), point),
                        length, eps);
                });
            break;
        }
        case Call::CastShadow: {
            const float* light = planes.fixed(3);
            const float* eyeDot = planes.floats();
            const float* const normal[3] = {planes.member(), planes.member(), planes.member()};
            const float* const point[3] = {planes.member(), planes.member(), planes.member()};
            int32_t* mask = planes.mask();
            float* shadowDot = planes.floats();
            float* const shadowDir[3] = {planes.member(), planes.member(), planes.member()};
            run([&] {
                return vekrCastShadowSO_32f(light, nullIf(isNull(0), eyeDot),
                                            nullIf(isNull(1), normal), nullIf(isNull(2), point),
                                            nullIf(isNull(3), mask), nullIf(isNull(5), shadowDot),
                                            nullIf(isNull(4), shadowDir), length);
            });
            break;
        }
        case Call::CastReflection: {
            const float* const incident[3] = {planes.member(), planes.member(), planes.member()};
            const int32_t* mask = planes.mask();
            const float* const normal[3] = {planes.member(), planes.member(), planes.member()};
            float* const reflected[3] = {planes.member(), planes.member(), planes.member()};
            run([&] {
                return vekrCastReflectionRay_32f(nullIf(isNull(0), incident),
                                                 nullIf(isNull(1), mask), nullIf(isNull(2), normal),
                                                 nullIf(isNull(3), reflected), length);
            });
            break;
        }
        case Call::TriangleNormal: {
            // A mesh whose corners all name its vertices; length is the triangle count.
            const int vertexCount = in.ConsumeIntegralInRange<int>(1, kMaxMesh);
            const std::size_t triangles = std::size_t(std::max(length, 0));
            float* vertices = blocks.take<float>(3 * std::size_t(vertexCount));
            fillValues(in, vertices, 3 * std::size_t(vertexCount),
                       [](uint64_t r) { return float(r % 7); });
            int* corners = blocks.take<int>(4 * triangles);
            fillValues(in, corners, 4 * triangles,
                       [&](uint64_t r) { return int(r % uint64_t(vertexCount)); });
            for (std::size_t t = 0; t < triangles; ++t)
                for (int c = 0; c < 3; ++c)
                    corners[4 * t + c] = int(uint32_t(corners[4 * t + c]) % uint32_t(vertexCount));
            float* normals = blocks.take<float>(3 * triangles);
            run([&] {
                return vekrTriangleNormal_32f(nullIf(isNull(0), vertices),
                                              nullIf(isNull(1), corners),
                                              nullIf(isNull(2), normals), length);
            });
            break;
        }
        case Call::SurfFlatNormal:
        case Call::SurfSmoothNormal: {
            // Hits name a triangle of the mesh or are negative (a miss).
            const int triangleCount = in.ConsumeIntegralInRange<int>(0, kMaxMesh);
            int32_t* hits = blocks.take<int32_t>(planes.n, planes.lead());
            fillValues(in, hits, planes.n, [&](uint64_t r) {
                return triangleCount > 0 && r % 4 != 0 ? int32_t(r % uint64_t(triangleCount))
                                                       : -int32_t(r % 3) - 1;
            });
            for (std::size_t i = 0; i < planes.n; ++i)
                if (hits[i] >= triangleCount) hits[i] = -1;
            float* const normals[3] = {planes.member(), planes.member(), planes.member()};
            if (call == Call::SurfFlatNormal) {
                float* triangleNormals = blocks.take<float>(3 * std::size_t(triangleCount));
                fillValues(in, triangleNormals, 3 * std::size_t(triangleCount),
                           [](uint64_t r) { return float(int(r % 3) - 1); });
                run([&] {
                    return vekrSurfFlatNormal_32f(nullIf(isNull(0), triangleNormals),
                                                  nullIf(isNull(1), hits), normals, length);
                });
                break;
            }
            const int normalCount = in.ConsumeIntegralInRange<int>(1, kMaxMesh);
            const int indexStep = in.ConsumeIntegralInRange<int>(3, 6);
            const std::size_t indices =
                triangleCount > 0 ? std::size_t(triangleCount - 1) * std::size_t(indexStep) + 3 : 0;
            float* vertexNormals = blocks.take<float>(3 * std::size_t(normalCount));
            fillValues(in, vertexNormals, 3 * std::size_t(normalCount),
                       [](uint64_t r) { return float(int(r % 3) - 1); });
            int* normalIndices = blocks.take<int>(indices);
            fillValues(in, normalIndices, indices,
                       [&](uint64_t r) { return int(r % uint64_t(normalCount)); });
            for (std::size_t i = 0; i < indices; ++i)
                normalIndices[i] = int(uint32_t(normalIndices[i]) % uint32_t(normalCount));
            const float* const uv[2] = {planes.member(), planes.member()};
            run([&] {
                return vekrSurfSmoothNormal_32f(nullIf(isNull(0), vertexNormals),
                                                nullIf(isNull(1), normalIndices),
                                                nullIf(isNull(2), hits), nullIf(isNull(3), uv),
                                                nullIf(isNull(4), normals), length, indexStep);
            });
            break;
        }
        case Call::MulC1: {
            // Checks nothing: with a length of 0 or below every pointer may be null.
            const bool none = length <= 0 && in.ConsumeBool();
            const float* src = none ? nullptr : planes.floats();
            const int32_t* mask = none ? nullptr : planes.mask();
            float* srcDst = none ? nullptr : planes.floats();
            run([&] { return vekrMul_32f_C1IM(src, mask, srcDst, length); });
            break;
        }
        case Call::MulP3: {
            const float* src = planes.floats();
            const int32_t* mask = planes.mask();
            float* const srcDst[3] = {planes.member(), planes.member(), planes.member()};
            run([&] {
                return vekrMul_32f_C1P3IM(nullIf(isNull(0), src), nullIf(isNull(1), mask),
                                          nullIf(isNull(2), srcDst), length);
            });
            break;
        }
        case Call::Div: {
            float* src = planes.floats();
            const int32_t* mask = planes.mask();
            float* srcDst = planes.floats();
            bool plusZero = false;  // a divisor of +0.0 makes the call warn
            for (std::size_t i = 0; i < planes.n && src; ++i) {
                if (in.ConsumeIntegralInRange<int>(0, 63) == 63)
                    src[i] = in.ConsumeBool() ? 0.0f : -0.0f;
                uint32_t bits;
                std::memcpy(&bits, &src[i], 4);
                plusZero = plusZero || bits == 0;
            }
            run([&] {
                return vekrDiv_32f_C1IM(nullIf(isNull(0), src), mask, nullIf(isNull(1), srcDst),
                                        length);
            });
            if (expected == StatusOk && plusZero) expected = StatusWarnNoOperation;
            break;
        }
        case Call::AddMulMul: {
            const float* colour = planes.fixed(3);
            const float* factor = planes.floats();
            const float* const src[3] = {planes.member(), planes.member(), planes.member()};
            const int32_t* mask = planes.mask();
            float* const srcDst[3] = {planes.member(), planes.member(), planes.member()};
            run([&] {
                return vekrAddMulMul_32f_AC1P3IM(colour, nullIf(isNull(0), factor),
                                                 nullIf(isNull(1), src), nullIf(isNull(2), mask),
                                                 nullIf(isNull(3), srcDst), length);
            });
            break;
        }
        case Call::Dot: {
            const float* const a[3] = {planes.member(), planes.member(), planes.member()};
            const float* const b[3] = {planes.member(), planes.member(), planes.member()};
            const int32_t* mask = planes.mask();
            float* dst = planes.floats();
            run([&] {
                return vekrDot_32f_P3C1M(nullIf(isNull(0), a), nullIf(isNull(1), b),
                                         nullIf(isNull(2), mask), nullIf(isNull(3), dst), length);
            });
            break;
        }
        case Call::DotChangeNorm: {
            const float* const dir[3] = {planes.member(), planes.member(), planes.member()};
            const int32_t* mask = planes.mask();
            float* const normal[3] = {planes.member(), planes.member(), planes.member()};
            float* dot = planes.floats();
            run([&] {
                return vekrDotChangeNorm_32f_IM(nullIf(isNull(0), dir), nullIf(isNull(1), mask),
                                                nullIf(isNull(2), normal), nullIf(isNull(3), dot),
                                                length);
            });
            break;
        }
        default: {
            const float* point = planes.fixed(3);
            const float* const hit[3] = {planes.member(), planes.member(), planes.member()};
            const int32_t* mask = planes.mask();
            float* distance = planes.floats();
            run([&] {
                return vekrDistAttenuationSO_32f_M(point, nullIf(isNull(0), hit),
                                                   nullIf(isNull(1), mask),
                                                   nullIf(isNull(2), distance), length);
            });
            break;
        }
    }
    requireStatus(status, expected, "a ray or shading call");
    // The eye rays' extent is their block size, checked above.
    if (status == StatusNullPointer || (length <= 0 && call != Call::CastEye))
        require(blocks.unchangedSince(before), "a refused or empty call wrote");
    return 0;
}
