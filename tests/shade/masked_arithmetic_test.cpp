#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include "shade/masked_arithmetic.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
// Every NaN of the inputs has the bits of the NaN the processor makes (0 * inf), so results
// never depend on which of two NaN operands an instruction passes on.
const float kNaN = bitsToFloat(0xFFC00000);
constexpr uint32_t kSentinelBits = 0x7F80DEAD;
constexpr float kColour[3] = {0.5f, -2.0f, 3.0f};
constexpr float kPoint[3] = {0.25f, -0.5f, 1.0f};

// The planes of one call: read-only planes, the mask, in-place planes and one output plane.
struct Planes {
    const float* in[6];
    const int32_t* mask;
    float* io[3];
    float* out;
};

// Runs a kernel or an export on the planes, with argument `nullArg` (-1: none) passed as null.
using Call = Status (*)(const Planes&, int length, int nullArg);

template <class T>
T pick(int arg, int nullArg, T p)
{
    return arg == nullArg ? nullptr : p;
}

template <class Fn, class... Args>
Status statusOf(Fn fn, Args... args)
{
    if constexpr (std::is_void_v<std::invoke_result_t<Fn, Args...>>) {
        fn(args...);
        return StatusOk;
    } else {
        return fn(args...);
    }
}

// Each family's call from the planes: in[] and io[] serve directly as plane triples.
template <auto Fn>
Status scaleVia(const Planes& p, int n, int nul)
{
    return statusOf(Fn, pick(0, nul, p.in[0]), pick(1, nul, p.mask), pick(2, nul, p.io[0]), n);
}
template <auto Fn>
Status scalePlanesVia(const Planes& p, int n, int nul)
{
    return statusOf(Fn, pick(0, nul, p.in[0]), pick(1, nul, p.mask), pick(2, nul, +p.io), n);
}
template <auto Fn>
Status accumulateVia(const Planes& p, int n, int nul)
{
    return statusOf(Fn, pick(0, nul, +kColour), pick(1, nul, p.in[0]), pick(2, nul, p.in + 1),
                    pick(3, nul, p.mask), pick(4, nul, +p.io), n);
}
template <auto Fn>
Status dotVia(const Planes& p, int n, int nul)
{
    return statusOf(Fn, pick(0, nul, +p.in), pick(1, nul, p.in + 3), pick(2, nul, p.mask),
                    pick(3, nul, p.out), n);
}
template <auto Fn>
Status faceVia(const Planes& p, int n, int nul)
{
    return statusOf(Fn, pick(0, nul, +p.in), pick(1, nul, p.mask), pick(2, nul, +p.io),
                    pick(3, nul, p.out), n);
}
template <auto Fn>
Status distanceVia(const Planes& p, int n, int nul)
{
    return statusOf(Fn, pick(0, nul, +kPoint), pick(1, nul, +p.in), pick(2, nul, p.mask),
                    pick(3, nul, p.out), n);
}

[[gnu::always_inline]] inline float andNot(float value, int32_t mask)  // as bitsToFloat
{
    return bitsToFloat(floatBits(value) & ~uint32_t(mask));
}

// References for one ray, written from the formulas: io holds the in-place values and is
// updated, out receives the output; the return value says whether the ray raises the warning.
// Products of two floats are exact in double, so float(double(a) * b) is the float product.
using Reference = bool (*)(const float* in, int32_t mask, float* io, float* out);

bool scaleReference(const float* in, int32_t mask, float* io, float*)
{
    const float p = float(double(io[0]) * in[0]);
    io[0] = mask >= 0 ? p : std::isfinite(p) ? std::copysign(0.0f, p) : kNaN;
    return false;
}
bool scalePlanesReference(const float* in, int32_t mask, float* io, float*)
{
    for (int k = 0; k < 3; ++k)
        io[k] = andNot(float(double(io[k]) * in[0]), mask);
    return false;
}
bool divideReference(const float* in, int32_t mask, float* io, float*)
{
    const float s = in[0] == 0.0f ? 1.0f : in[0], d = io[0];
    const float r = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(s)));
    const float e = 1.0f - s * r;
    float q = d * r + ((d * r) * e + d * r) * e;
    const bool plusZero = floatBits(in[0]) == 0;
    if (plusZero) q = std::isnan(d) || d == 0.0f ? bitsToFloat(0x7FBFFFFF) : d < 0 ? -kInf : kInf;
    io[0] = andNot(q, mask);
    return plusZero;
}
bool accumulateReference(const float* in, int32_t mask, float* io, float*)
{
    for (int k = 0; mask >= 0 && k < 3; ++k)
        io[k] = (kColour[k] * in[1 + k]) * in[0] + io[k];
    return false;
}
bool dotReference(const float* in, int32_t mask, float*, float* out)
{
    out[0] = andNot((in[0] * in[3] + in[1] * in[4]) + in[2] * in[5], mask);
    return false;
}
bool faceReference(const float* in, int32_t mask, float* io, float* out)
{
    const float d = (io[0] * in[0] + io[1] * in[1]) + io[2] * in[2];
    out[0] = mask < 0 ? 0.0f : d > 0.0f ? -d : d;
    for (int k = 0; mask >= 0 && d > 0.0f && k < 3; ++k)
        io[k] = -io[k];
    return false;
}
bool distanceReference(const float* in, int32_t mask, float*, float* out)
{
    float q = 0.0f;
    for (int k = 0; k < 3; ++k)
        q += (in[k] - kPoint[k]) * (in[k] - kPoint[k]);
    out[0] = mask < 0 || q < 1.0f ? 1.0f : float(std::sqrt(double(q)));
    return false;
}

struct Path {
    const char* name;
    Call call;
    bool needsAligned4 = false;  // every plane 16-byte aligned and length % 4 == 0
};

// Planes in call order: inCount read-only, ioCount in place, outCount written.
struct Family {
    const char* name;
    int inCount, ioCount, outCount;
    Reference reference;
    std::vector<Path> paths;    // the exported function last
    std::vector<bool> checked;  // per pointer argument: does the export test it for null?
    int planeCount() const { return inCount + ioCount + outCount; }
};

const Family kScale{"MulC1IM", 1, 1, 0, scaleReference,
                    {{"Scalar", scaleVia<shade::scaleBySignMaskScalar>},
                     {"Avx", scaleVia<shade::scaleBySignMaskAvx>},
                     {"Exported", scaleVia<vekrMul_32f_C1IM>}},
                    {false, false, false}};
const Family kScalePlanes{"MulC1P3IM", 1, 3, 0, scalePlanesReference,
                          {{"Scalar", scalePlanesVia<shade::scalePlanesMaskedScalar>},
                           {"Avx", scalePlanesVia<shade::scalePlanesMaskedAvx>},
                           {"Exported", scalePlanesVia<vekrMul_32f_C1P3IM>}},
                          {true, true, true}};
const Family kDivide{"DivC1IM", 1, 1, 0, divideReference,
                     {{"Scalar", scaleVia<shade::divideMaskedScalar>},
                      {"Avx", scaleVia<shade::divideMaskedAvx>},
                      {"Exported", scaleVia<vekrDiv_32f_C1IM>}},
                     {true, false, true}};
const Family kAccumulate{"AddMulMul", 4, 3, 0, accumulateReference,
                         {{"Scalar", accumulateVia<shade::accumulateColourScalar>},
                          {"Aligned4", accumulateVia<shade::accumulateColourAligned4>, true},
                          {"Avx", accumulateVia<shade::accumulateColourAvx>},
                          {"Exported", accumulateVia<vekrAddMulMul_32f_AC1P3IM>}},
                         {false, true, true, true, true}};
const Family kDot{"DotP3C1M", 6, 0, 1, dotReference,
                  {{"Scalar", dotVia<shade::dotPlanesMaskedScalar>},
                   {"Avx", dotVia<shade::dotPlanesMaskedAvx>},
                   {"Exported", dotVia<vekrDot_32f_P3C1M>}},
                  {true, true, true, true}};
const Family kFace{"DotChangeNorm", 3, 3, 1, faceReference,
                   {{"Scalar", faceVia<shade::faceNormalsScalar>},
                    {"Aligned4", faceVia<shade::faceNormalsAligned4>, true},
                    {"Avx", faceVia<shade::faceNormalsAvx>},
                    {"Exported", faceVia<vekrDotChangeNorm_32f_IM>}},
                   {true, true, true, true}};
const Family kDistance{"DistAttenuation", 3, 0, 1, distanceReference,
                       {{"Scalar", distanceVia<shade::attenuationDistanceScalar>},
                        {"Aligned4", distanceVia<shade::attenuationDistanceAligned4>, true},
                        {"Avx", distanceVia<shade::attenuationDistanceAvx>},
                        {"Exported", distanceVia<vekrDistAttenuationSO_32f_M>}},
                       {false, true, true, true}};

// Inputs and expected contents of every plane after one call (read-only planes unchanged). Values
// mix [-2, 2] with zeros of both signs, infinities, NaN and +-1; output planes start as the
// sentinel; mask words are 0, -1 and a positive word with exponent and mantissa bits set (a
// sign test must ignore them, a bitwise mask must clear them). Every fourth group of eight is all
// -1, and the group after it all -1 but its first word.
struct Case {
    std::array<std::vector<float>, 7> plane, expected;
    std::vector<int32_t> mask;
    Status expectedStatus = StatusOk;

    Case(const Family& f, int length, uint32_t seed)
    {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> uniform(-2.0f, 2.0f);
        std::uniform_int_distribution<int> kind(0, 19), word(0, 2);
        const float specials[7] = {0.0f, -0.0f, kInf, -kInf, kNaN, 1.0f, -1.0f};
        const int32_t words[3] = {0, -1, 0x00C00005};
        for (int i = 0; i < length; ++i) {
            for (int j = 0; j < f.planeCount(); ++j) {
                const int k = kind(rng);
                const bool output = j >= f.inCount + f.ioCount;
                plane[j].push_back(output ? bitsToFloat(kSentinelBits) : k < 7 ? specials[k] : uniform(rng));
            }
            const int group = (i / 8) % 4;
            mask.push_back(group == 2 || (group == 3 && i % 8 != 0) ? -1 : words[word(rng)]);
        }
        computeExpected(f);
    }
    void computeExpected(const Family& f)
    {
        expected = plane;
        expectedStatus = StatusOk;
        for (size_t i = 0; i < mask.size(); ++i) {
            float ray[7];
            for (int j = 0; j < f.planeCount(); ++j) ray[j] = plane[j][i];
            if (f.reference(ray, mask[i], ray + f.inCount, ray + f.inCount + f.ioCount))
                expectedStatus = StatusWarnNoOperation;
            for (int j = 0; j < f.planeCount(); ++j) expected[j][i] = ray[j];
        }
    }
};

// One plane: flush against a guard page (offset -1 at the back, -2 at the front), or `offset`
// floats past a 32-byte boundary inside a line of sentinels that must survive the call.
template <class T>
class SweepPlane {
public:
    SweepPlane(int length, int offset) : length_(length)
    {
        if (offset < 0) {
            guarded_ = std::make_unique<GuardedArray<T>>(
                size_t(length), offset == -1 ? FlushEnd::Back : FlushEnd::Front);
            view_ = guarded_->data();
            return;
        }
        line_.resize(size_t(length) + 24);
        for (T& x : line_) std::memcpy(&x, &kSentinelBits, sizeof x);  // bits, not a float copy
        const uintptr_t address = reinterpret_cast<uintptr_t>(line_.data());
        view_ = line_.data() + (32 - address % 32) % 32 / 4 + offset;
    }
    T* data() const { return view_; }
    bool sentinelsIntact() const
    {
        for (const T& x : line_)
            if ((&x < view_ || &x >= view_ + length_) && std::bit_cast<uint32_t>(x) != kSentinelBits)
                return false;
        return true;
    }

private:
    int length_;
    std::unique_ptr<GuardedArray<T>> guarded_;
    std::vector<T> line_;
    T* view_ = nullptr;
};

// Every plane of a family's call; a staggered layout puts plane j at offset (offset + 3 j) % 8,
// so the planes never share an alignment.
struct SweepBuffers {
    const Family& f;
    const int length;
    const bool aligned4;  // what the Aligned4 kernels need
    std::vector<std::unique_ptr<SweepPlane<float>>> plane;
    SweepPlane<int32_t> mask;

    SweepBuffers(const Family& family, int n, int offset, bool staggered)
        : f(family), length(n),
          aligned4(n % 4 == 0 && (offset < 0 || (!staggered && offset % 4 == 0))),
          mask(n, offset < 0 || !staggered ? offset : (offset + 3 * 7) % 8)
    {
        for (int j = 0; j < f.planeCount(); ++j)
            plane.push_back(std::make_unique<SweepPlane<float>>(
                n, offset < 0 || !staggered ? offset : (offset + 3 * j) % 8));
    }
    Planes planes() const
    {
        Planes p{};
        for (int j = 0; j < f.inCount; ++j) p.in[j] = plane[size_t(j)]->data();
        for (int k = 0; k < f.ioCount; ++k) p.io[k] = plane[size_t(f.inCount + k)]->data();
        p.out = f.outCount ? plane.back()->data() : nullptr;
        p.mask = mask.data();
        return p;
    }
    void load(const Case& c)
    {
        if (length == 0) return;  // memcpy from an empty vector's null data() is undefined
        for (int j = 0; j < f.planeCount(); ++j)
            std::memcpy(plane[size_t(j)]->data(), c.plane[j].data(), size_t(length) * 4);
        std::memcpy(mask.data(), c.mask.data(), size_t(length) * 4);
    }
    // Every plane against the case's expectation bit for bit, and nothing written around them.
    testing::AssertionResult matches(const Case& c, Status status) const
    {
        if (status != c.expectedStatus) return testing::AssertionFailure() << "status " << status;
        for (int j = 0; j < f.planeCount(); ++j)
            for (int i = 0; i < length; ++i)
                if (floatBits(plane[size_t(j)]->data()[i]) != floatBits(c.expected[j][i]))
                    return testing::AssertionFailure() << "plane " << j << " ray " << i << ": "
                                                       << plane[size_t(j)]->data()[i] << " vs "
                                                       << c.expected[j][i];
        bool intact = mask.sentinelsIntact();
        for (const auto& p : plane) intact = intact && p->sentinelsIntact();
        return intact ? testing::AssertionSuccess()
                      : testing::AssertionFailure() << "wrote outside the planes";
    }
};

class MaskedArithmetic : public testing::TestWithParam<const Family*> {};

TEST_P(MaskedArithmetic, EveryPathMatchesTheReferenceAtEveryLengthAndAlignment)
{
    const Family& f = *GetParam();
    for (int length = 0; length <= 71; ++length) {
        const int n = length == 71 ? 1000 : length;
        const Case c(f, n, uint32_t(n) + 7);
        // Layouts: guard pages at the back and the front, then each float offset within a 32-byte
        // line for all planes together (2..9) and staggered (10..17).
        for (int layout = 0; layout < 18; ++layout) {
            SweepBuffers b(f, n, layout < 2 ? -1 - layout : (layout - 2) % 8, layout >= 10);
            for (const Path& path : f.paths) {
                if (path.needsAligned4 && !b.aligned4) continue;
                b.load(c);
                ASSERT_TRUE(b.matches(c, path.call(b.planes(), n, -1)))
                    << path.name << " length " << n << " layout " << layout;
            }
        }
    }
}

// Pointer checks come in argument order and before the length test; a failing check, or a
// length of 0 or below, writes nothing. Unchecked pointers (colour, point, Div's mask, all of
// Mul_C1IM's) pass when the length leaves nothing to do.
TEST_P(MaskedArithmetic, ChecksPointersBeforeLengthAndWritesNothingOnFailure)
{
    const Family& f = *GetParam();
    Case c(f, 9, 1);
    for (int j = f.inCount; j < f.planeCount(); ++j)
        c.plane[j].assign(9, bitsToFloat(kSentinelBits));
    c.expected = c.plane;  // nothing written
    SweepBuffers b(f, 9, 0, false);
    for (int arg = -1; arg < int(f.checked.size()); ++arg)
        for (int length : {INT_MIN, -1, 0, 9}) {
            const bool checked = arg >= 0 && f.checked[size_t(arg)];
            if (length > 0 && !checked) continue;  // runs, or faults on the caller's null
            c.expectedStatus = checked ? StatusNullPointer : StatusOk;
            b.load(c);
            EXPECT_TRUE(b.matches(c, f.paths.back().call(b.planes(), length, arg)))
                << "null argument " << arg << " length " << length;
        }
    // Every plane is a guard page itself: any access faults.
    SweepBuffers empty(f, 0, -1, false);
    for (const Path& path : f.paths)
        for (int length : {0, -1, INT_MIN})
            EXPECT_EQ(path.call(empty.planes(), length, -1), StatusOk) << path.name;
}

INSTANTIATE_TEST_SUITE_P(Families, MaskedArithmetic,
                         testing::Values(&kScale, &kScalePlanes, &kDivide, &kAccumulate, &kDot,
                                         &kFace, &kDistance),
                         [](const auto& info) { return std::string(info.param->name); });

// Rays with documented answers: the input planes (read-only, then in place) and the in-place
// and output planes after the call.
struct KnownRay {
    const char* what;
    const Family* family;
    int32_t mask;
    std::array<float, 7> before;
    std::array<float, 4> after;
    Status status;
};

const float kDivNaN = bitsToFloat(0x7FBFFFFF);
const KnownRay kKnownRays[] = {
    {"1 / +0", &kDivide, 0, {0.0f, 1}, {kInf}, StatusWarnNoOperation},
    {"-1 / +0", &kDivide, 0, {0.0f, -1}, {-kInf}, StatusWarnNoOperation},
    {"0 / +0", &kDivide, 0, {0.0f, 0}, {kDivNaN}, StatusWarnNoOperation},
    {"NaN / +0", &kDivide, 0, {0.0f, kNaN}, {kDivNaN}, StatusWarnNoOperation},
    {"5 / -0 passes 5", &kDivide, 0, {-0.0f, 5}, {5}, StatusOk},
    {"disabled 1 / +0", &kDivide, -1, {0.0f, 1}, {0.0f}, StatusWarnNoOperation},
    {"disabled +inf product", &kScale, -1, {2, kInf}, {kNaN}, StatusOk},
    {"disabled negative product", &kScale, -1, {2, -3}, {-0.0f}, StatusOk},
    {"sign test: 5 enables", &kScale, 5, {2, 3}, {6}, StatusOk},
    {"bitwise: 5 clears bits 0 and 2", &kScalePlanes, 5, {1, bitsToFloat(0x3F800007), -1, 2},
     {bitsToFloat(0x3F800002), -1, 2}, StatusOk},
    {"disabled planes give +0", &kScalePlanes, -1, {-2, 1, kInf, -0.0f}, {0, 0, 0}, StatusOk},
    {"5 enables the colour", &kAccumulate, 5, {2, 2, 1, 1, 1, 1, 1}, {3, -3, 7}, StatusOk},
    {"disabled colour unchanged", &kAccumulate, -1, {2, 2, 1, 1, 1, 1, 1}, {1, 1, 1}, StatusOk},
    {"dot, bitwise 5", &kDot, 5, {1, 0, 0, bitsToFloat(0x40000007), 9, 9},
     {bitsToFloat(0x40000002)}, StatusOk},
    {"disabled dot", &kDot, -1, {1, 2, 3, -4, 5, -6}, {0}, StatusOk},
    {"normal along the direction turns", &kFace, 0, {0, 0, 1, 0, 0, 1}, {-0.0f, -0.0f, -1, -1},
     StatusOk},
    {"normal against the direction stays", &kFace, 0, {0, 0, -1, 0, 0, 1}, {0, 0, 1, -1}, StatusOk},
    {"perpendicular normal stays", &kFace, 0, {1, 0, 0, 0, 0, 1}, {0, 0, 1, 0}, StatusOk},
    {"disabled normal stays, dot 0", &kFace, -1, {0, 0, 1, 0, 0, 1}, {0, 0, 1, 0}, StatusOk},
    {"light 0.5 away clamps to 1", &kDistance, 0, {0.75f, -0.5f, 1}, {1}, StatusOk},
    {"light 3 away", &kDistance, 0, {0.25f, 2.5f, 1}, {3}, StatusOk},
    {"disabled distance", &kDistance, -1, {9, 9, 9}, {1}, StatusOk},
};

// Each ray is repeated 17 times, so that vector lanes, masked tails and scalar ends all see it;
// the reference is held to the documented answer first.
TEST(MaskedArithmeticKnownRays, GiveTheirDocumentedResultsOnEveryPath)
{
    for (const KnownRay& ray : kKnownRays) {
        const Family& f = *ray.family;
        Case c(f, 17, 0);
        for (int j = 0; j < f.inCount + f.ioCount; ++j) c.plane[j].assign(17, ray.before[size_t(j)]);
        c.mask.assign(17, ray.mask);
        c.computeExpected(f);
        for (int j = f.inCount; j < f.planeCount(); ++j)
            ASSERT_EQ(floatBits(c.expected[j][0]), floatBits(ray.after[size_t(j - f.inCount)]))
                << ray.what << ", plane " << j;
        ASSERT_EQ(c.expectedStatus, ray.status) << ray.what;
        SweepBuffers b(f, 17, 1, false);
        for (const Path& path : f.paths) {
            if (path.needsAligned4) continue;
            b.load(c);
            EXPECT_TRUE(b.matches(c, path.call(b.planes(), 17, -1))) << ray.what << " on " << path.name;
        }
    }
}

// The refined reciprocal estimate stays within two units in the last place of the quotient.
TEST(MaskedDivide, RefinedQuotientIsWithinTwoUlpsOfTheTrueQuotient)
{
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> mantissa(1.0f, 2.0f);
    std::uniform_int_distribution<int> exponent(-60, 60);
    std::vector<float> s(4096), d(4096);
    for (size_t i = 0; i < s.size(); ++i) {
        s[i] = std::ldexp(mantissa(rng), exponent(rng)) * (i % 2 ? -1.0f : 1.0f);
        d[i] = std::ldexp(mantissa(rng), exponent(rng));
    }
    const std::vector<float> dividend = d;
    const std::vector<int32_t> mask(4096, 0);
    ASSERT_EQ(vekrDiv_32f_C1IM(s.data(), mask.data(), d.data(), int(d.size())), StatusOk);
    for (size_t i = 0; i < d.size(); ++i) {
        const double exact = double(dividend[i]) / s[i];
        EXPECT_LE(std::fabs(d[i] - exact), std::ldexp(std::fabs(exact), -22)) << "ray " << i;
    }
}

}  // namespace
