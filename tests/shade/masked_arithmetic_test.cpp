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

template <auto Fn>
Status scaleVia(const Planes& p, int n, int nul)
{
    return statusOf(Fn, pick(0, nul, p.in[0]), pick(1, nul, p.mask), pick(2, nul, p.io[0]), n);
}
template <auto Fn>
Status scalePlanesVia(const Planes& p, int n, int nul)
{
    float* const dst[3] = {p.io[0], p.io[1], p.io[2]};
    return statusOf(Fn, pick(0, nul, p.in[0]), pick(1, nul, p.mask), pick(2, nul, &dst[0]), n);
}
template <auto Fn>
Status accumulateVia(const Planes& p, int n, int nul)
{
    const float* const src[3] = {p.in[1], p.in[2], p.in[3]};
    float* const dst[3] = {p.io[0], p.io[1], p.io[2]};
    return statusOf(Fn, pick(0, nul, &kColour[0]), pick(1, nul, p.in[0]), pick(2, nul, &src[0]),
                    pick(3, nul, p.mask), pick(4, nul, &dst[0]), n);
}
template <auto Fn>
Status dotVia(const Planes& p, int n, int nul)
{
    const float* const a[3] = {p.in[0], p.in[1], p.in[2]};
    const float* const b[3] = {p.in[3], p.in[4], p.in[5]};
    return statusOf(Fn, pick(0, nul, &a[0]), pick(1, nul, &b[0]), pick(2, nul, p.mask),
                    pick(3, nul, p.out), n);
}
template <auto Fn>
Status faceVia(const Planes& p, int n, int nul)
{
    const float* const dir[3] = {p.in[0], p.in[1], p.in[2]};
    float* const normal[3] = {p.io[0], p.io[1], p.io[2]};
    return statusOf(Fn, pick(0, nul, &dir[0]), pick(1, nul, p.mask), pick(2, nul, &normal[0]),
                    pick(3, nul, p.out), n);
}
template <auto Fn>
Status distanceVia(const Planes& p, int n, int nul)
{
    const float* const hit[3] = {p.in[0], p.in[1], p.in[2]};
    return statusOf(Fn, pick(0, nul, &kPoint[0]), pick(1, nul, &hit[0]), pick(2, nul, p.mask),
                    pick(3, nul, p.out), n);
}

inline float andNot(float value, int32_t mask)
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
    bool needsAligned4;  // only run where every plane is 16-byte aligned and length % 4 == 0
};

struct Family {
    const char* name;
    int inCount, ioCount, outCount;
    Reference reference;
    std::vector<Path> paths;   // the exported function last
    std::vector<bool> checked; // per pointer argument: does the export test it for null?
};

const Family kScale{"MulC1IM", 1, 1, 0, scaleReference,
                    {{"Scalar", scaleVia<shade::scaleBySignMaskScalar>, false},
                     {"Avx", scaleVia<shade::scaleBySignMaskAvx>, false},
                     {"Exported", scaleVia<vekrMul_32f_C1IM>, false}},
                    {false, false, false}};
const Family kScalePlanes{"MulC1P3IM", 1, 3, 0, scalePlanesReference,
                          {{"Scalar", scalePlanesVia<shade::scalePlanesMaskedScalar>, false},
                           {"Avx", scalePlanesVia<shade::scalePlanesMaskedAvx>, false},
                           {"Exported", scalePlanesVia<vekrMul_32f_C1P3IM>, false}},
                          {true, true, true}};
const Family kDivide{"DivC1IM", 1, 1, 0, divideReference,
                     {{"Scalar", scaleVia<shade::divideMaskedScalar>, false},
                      {"Avx", scaleVia<shade::divideMaskedAvx>, false},
                      {"Exported", scaleVia<vekrDiv_32f_C1IM>, false}},
                     {true, false, true}};
const Family kAccumulate{"AddMulMul", 4, 3, 0, accumulateReference,
                         {{"Scalar", accumulateVia<shade::accumulateColourScalar>, false},
                          {"Aligned4", accumulateVia<shade::accumulateColourAligned4>, true},
                          {"Avx", accumulateVia<shade::accumulateColourAvx>, false},
                          {"Exported", accumulateVia<vekrAddMulMul_32f_AC1P3IM>, false}},
                         {false, true, true, true, true}};
const Family kDot{"DotP3C1M", 6, 0, 1, dotReference,
                  {{"Scalar", dotVia<shade::dotPlanesMaskedScalar>, false},
                   {"Avx", dotVia<shade::dotPlanesMaskedAvx>, false},
                   {"Exported", dotVia<vekrDot_32f_P3C1M>, false}},
                  {true, true, true, true}};
const Family kFace{"DotChangeNorm", 3, 3, 1, faceReference,
                   {{"Scalar", faceVia<shade::faceNormalsScalar>, false},
                    {"Aligned4", faceVia<shade::faceNormalsAligned4>, true},
                    {"Avx", faceVia<shade::faceNormalsAvx>, false},
                    {"Exported", faceVia<vekrDotChangeNorm_32f_IM>, false}},
                   {true, true, true, true}};
const Family kDistance{"DistAttenuation", 3, 0, 1, distanceReference,
                       {{"Scalar", distanceVia<shade::attenuationDistanceScalar>, false},
                        {"Aligned4", distanceVia<shade::attenuationDistanceAligned4>, true},
                        {"Avx", distanceVia<shade::attenuationDistanceAvx>, false},
                        {"Exported", distanceVia<vekrDistAttenuationSO_32f_M>, false}},
                       {false, true, true, true}};

// Inputs and expected outputs of one call. Values mix [-2, 2] with zeros of both signs,
// infinities, NaN and +-1; mask words are 0, -1 and 5, with every fourth group of eight all -1.
struct Case {
    std::vector<float> in[6], io[3], expectedIo[3], expectedOut;
    std::vector<int32_t> mask;
    Status expectedStatus = StatusOk;

    Case(const Family& f, int length, uint32_t seed)
    {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> uniform(-2.0f, 2.0f);
        std::uniform_int_distribution<int> kind(0, 19), word(0, 2);
        const float specials[7] = {0.0f, -0.0f, kInf, -kInf, kNaN, 1.0f, -1.0f};
        auto value = [&] { const int k = kind(rng); return k < 7 ? specials[k] : uniform(rng); };
        for (int i = 0; i < length; ++i) {
            for (int j = 0; j < f.inCount; ++j) in[j].push_back(value());
            for (int k = 0; k < f.ioCount; ++k) io[k].push_back(value());
            const int32_t words[3] = {0, -1, 5};
            mask.push_back((i / 8) % 4 == 2 ? -1 : words[word(rng)]);
        }
        computeExpected(f);
    }
    void computeExpected(const Family& f)
    {
        for (int k = 0; k < 3; ++k) expectedIo[k] = io[k];
        expectedOut.assign(mask.size(), 0.0f);
        for (size_t i = 0; i < mask.size(); ++i) {
            float ray[6], rayIo[3];
            for (int j = 0; j < f.inCount; ++j) ray[j] = in[j][i];
            for (int k = 0; k < f.ioCount; ++k) rayIo[k] = io[k][i];
            if (f.reference(ray, mask[i], rayIo, &expectedOut[i])) expectedStatus = StatusWarnNoOperation;
            for (int k = 0; k < f.ioCount; ++k) expectedIo[k][i] = rayIo[k];
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
        line_.assign(size_t(length) + 24, std::bit_cast<T>(kSentinelBits));
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

// Every plane of a family's call; a staggered layout puts plane j at offset (offset + 3 j) % 8.
struct SweepBuffers {
    std::vector<std::unique_ptr<SweepPlane<float>>> in, io, out;
    SweepPlane<int32_t> mask;

    SweepBuffers(const Family& f, int length, int offset, bool staggered)
        : mask(length, offset < 0 || !staggered ? offset : (offset + 3) % 8)
    {
        int plane = 2;
        auto add = [&](auto& list, int count) {
            for (int j = 0; j < count; ++j, ++plane)
                list.push_back(std::make_unique<SweepPlane<float>>(
                    length, offset < 0 || !staggered ? offset : (offset + 3 * plane) % 8));
        };
        add(in, f.inCount), add(io, f.ioCount), add(out, f.outCount);
    }
    Planes planes() const
    {
        Planes p{};
        for (size_t j = 0; j < in.size(); ++j) p.in[j] = in[j]->data();
        for (size_t k = 0; k < io.size(); ++k) p.io[k] = io[k]->data();
        p.out = out.empty() ? nullptr : out[0]->data();
        p.mask = mask.data();
        return p;
    }
    void load(const Case& c, int length)
    {
        const size_t bytes = size_t(length) * sizeof(float);
        for (size_t j = 0; j < in.size(); ++j) std::memcpy(in[j]->data(), c.in[j].data(), bytes);
        for (size_t k = 0; k < io.size(); ++k) std::memcpy(io[k]->data(), c.io[k].data(), bytes);
        std::memcpy(mask.data(), c.mask.data(), bytes);
        for (auto& plane : out)
            for (int i = 0; i < length; ++i) plane->data()[i] = bitsToFloat(kSentinelBits);
    }
    bool sentinelsIntact() const
    {
        bool intact = mask.sentinelsIntact();
        for (auto* list : {&in, &io, &out})
            for (auto& plane : *list) intact = intact && plane->sentinelsIntact();
        return intact;
    }
    bool aligned4(int length) const
    {
        const Planes p = planes();
        auto ok = [](const void* q) { return q == nullptr || reinterpret_cast<uintptr_t>(q) % 16 == 0; };
        bool all = length % 4 == 0 && ok(p.mask) && ok(p.out);
        for (int j = 0; j < 6; ++j) all = all && ok(p.in[j]);
        for (int k = 0; k < 3; ++k) all = all && ok(p.io[k]);
        return all;
    }
};

// Compares a path's outputs and status with the case, bit for bit.
testing::AssertionResult matches(const Family& f, const SweepBuffers& b, const Case& c,
                                 Status status, int length)
{
    if (status != c.expectedStatus) return testing::AssertionFailure() << "status " << status;
    for (int i = 0; i < length; ++i) {
        for (int k = 0; k < f.ioCount; ++k)
            if (floatBits(b.io[k]->data()[i]) != floatBits(c.expectedIo[k][i]))
                return testing::AssertionFailure() << "ray " << i << " plane " << k << ": "
                                                   << b.io[k]->data()[i] << " vs " << c.expectedIo[k][i];
        if (f.outCount && floatBits(b.out[0]->data()[i]) != floatBits(c.expectedOut[i]))
            return testing::AssertionFailure() << "ray " << i << " out: " << b.out[0]->data()[i]
                                               << " vs " << c.expectedOut[i];
    }
    if (!b.sentinelsIntact()) return testing::AssertionFailure() << "wrote outside the planes";
    return testing::AssertionSuccess();
}

class MaskedArithmetic : public testing::TestWithParam<const Family*> {};

TEST_P(MaskedArithmetic, EveryPathMatchesTheReferenceAtEveryLengthAndAlignment)
{
    const Family& f = *GetParam();
    std::vector<int> lengths;
    for (int n = 0; n <= 70; ++n) lengths.push_back(n);
    lengths.push_back(1000);
    for (int length : lengths) {
        const Case c(f, length, uint32_t(length) + 7);
        // Guard pages at the back and the front, then every offset, with all planes at it or
        // staggered.
        for (int layout = 0; layout < 18; ++layout) {
            const int offset = layout < 2 ? -1 - layout : (layout - 2) % 8;
            SweepBuffers b(f, length, offset, layout >= 10);
            for (const Path& path : f.paths) {
                if (path.needsAligned4 && !b.aligned4(length)) continue;
                b.load(c, length);
                ASSERT_TRUE(matches(f, b, c, path.call(b.planes(), length, -1), length))
                    << path.name << " length " << length << " layout " << layout;
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
    const Case c(f, 9, 1);
    SweepBuffers b(f, 9, 0, false);
    for (int arg = -1; arg < int(f.checked.size()); ++arg)
        for (int length : {INT_MIN, -1, 0, 9}) {
            const bool checked = arg >= 0 && f.checked[size_t(arg)];
            if (length > 0 && !checked) continue;  // runs, or faults on the caller's null
            b.load(c, 9);
            for (auto* list : {&b.io, &b.out})
                for (auto& plane : *list)
                    for (int i = 0; i < 9; ++i) plane->data()[i] = bitsToFloat(kSentinelBits);
            const Status status = f.paths.back().call(b.planes(), length, arg);
            EXPECT_EQ(status, checked ? StatusNullPointer : StatusOk) << "arg " << arg << " length " << length;
            for (auto* list : {&b.io, &b.out})
                for (auto& plane : *list)
                    for (int i = 0; i < 9; ++i)
                        ASSERT_EQ(floatBits(plane->data()[i]), kSentinelBits) << "arg " << arg << " ray " << i;
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

// Single rays with known answers, each repeated 17 times so vector lanes and tails all see it.
struct KnownRay {
    const char* what;
    const Family* family;
    int32_t mask;
    std::array<float, 6> in;
    std::array<float, 3> io, ioAfter;
    float out;
    Status status;
};

const KnownRay kKnownRays[] = {
    {"1 / +0", &kDivide, 0, {0.0f}, {1.0f}, {kInf}, 0, StatusWarnNoOperation},
    {"-1 / +0", &kDivide, 0, {0.0f}, {-1.0f}, {-kInf}, 0, StatusWarnNoOperation},
    {"0 / +0", &kDivide, 0, {0.0f}, {0.0f}, {bitsToFloat(0x7FBFFFFF)}, 0, StatusWarnNoOperation},
    {"NaN / +0", &kDivide, 0, {0.0f}, {kNaN}, {bitsToFloat(0x7FBFFFFF)}, 0, StatusWarnNoOperation},
    {"5 / -0 passes 5", &kDivide, 0, {-0.0f}, {5.0f}, {5.0f}, 0, StatusOk},
    {"disabled 1 / +0", &kDivide, -1, {0.0f}, {1.0f}, {0.0f}, 0, StatusWarnNoOperation},
    {"disabled +inf product", &kScale, -1, {2.0f}, {kInf}, {kNaN}, 0, StatusOk},
    {"disabled negative product", &kScale, -1, {2.0f}, {-3.0f}, {-0.0f}, 0, StatusOk},
    {"sign test: 5 enables", &kScale, 5, {2.0f}, {3.0f}, {6.0f}, 0, StatusOk},
    {"bitwise: 5 clears bits 0 and 2", &kScalePlanes, 5, {1.0f},
     {bitsToFloat(0x3F800007), -1.0f, 2.0f}, {bitsToFloat(0x3F800002), -1.0f, 2.0f}, 0, StatusOk},
    {"disabled planes give +0", &kScalePlanes, -1, {-2.0f}, {1.0f, kInf, -0.0f}, {}, 0, StatusOk},
    {"5 enables the colour", &kAccumulate, 5, {2.0f, 2.0f, 1.0f, 1.0f}, {1, 1, 1}, {3, -3, 7}, 0, StatusOk},
    {"disabled colour unchanged", &kAccumulate, -1, {2.0f, 2.0f, 1.0f, 1.0f}, {1, 1, 1}, {1, 1, 1}, 0, StatusOk},
    {"dot, bitwise 5", &kDot, 5, {1, 0, 0, bitsToFloat(0x40000007), 9, 9}, {}, {}, bitsToFloat(0x40000002), StatusOk},
    {"disabled dot", &kDot, -1, {1, 2, 3, -4, 5, -6}, {}, {}, 0.0f, StatusOk},
    {"normal along the direction turns", &kFace, 0, {0, 0, 1}, {0, 0, 1}, {-0.0f, -0.0f, -1}, -1.0f, StatusOk},
    {"normal against the direction stays", &kFace, 0, {0, 0, -1}, {0, 0, 1}, {0, 0, 1}, -1.0f, StatusOk},
    {"perpendicular normal stays", &kFace, 0, {1, 0, 0}, {0, 0, 1}, {0, 0, 1}, 0.0f, StatusOk},
    {"disabled normal stays, dot 0", &kFace, -1, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}, 0.0f, StatusOk},
    {"light 0.5 away clamps to 1", &kDistance, 0, {0.75f, -0.5f, 1.0f}, {}, {}, 1.0f, StatusOk},
    {"light 3 away", &kDistance, 0, {0.25f, 2.5f, 1.0f}, {}, {}, 3.0f, StatusOk},
    {"disabled distance", &kDistance, -1, {9, 9, 9}, {}, {}, 1.0f, StatusOk},
};

TEST(MaskedArithmeticKnownRays, GiveTheirDocumentedResultsOnEveryPath)
{
    constexpr int kLength = 17;
    for (const KnownRay& ray : kKnownRays) {
        const Family& f = *ray.family;
        Case c(f, 0, 0);
        for (int i = 0; i < kLength; ++i) {
            for (int j = 0; j < f.inCount; ++j) c.in[j].push_back(ray.in[size_t(j)]);
            for (int k = 0; k < f.ioCount; ++k) c.io[k].push_back(ray.io[size_t(k)]);
            c.mask.push_back(ray.mask);
        }
        c.computeExpected(f);
        for (int k = 0; k < f.ioCount; ++k)
            ASSERT_EQ(floatBits(c.expectedIo[k][0]), floatBits(ray.ioAfter[size_t(k)])) << ray.what;
        if (f.outCount) {
            ASSERT_EQ(floatBits(c.expectedOut[0]), floatBits(ray.out)) << ray.what;
        }
        ASSERT_EQ(c.expectedStatus, ray.status) << ray.what;
        SweepBuffers b(f, kLength, 1, false);
        for (const Path& path : f.paths) {
            if (path.needsAligned4) continue;  // length 17
            b.load(c, kLength);
            EXPECT_TRUE(matches(f, b, c, path.call(b.planes(), kLength, -1), kLength))
                << ray.what << " on " << path.name;
        }
    }
}

TEST(MaskedDivide, RefinedQuotientIsWithinTwoUlpsOfTheTrueQuotient)
{
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> mantissa(1.0f, 2.0f);
    std::uniform_int_distribution<int> exponent(-60, 60);
    std::vector<float> s(4096), d(4096);
    std::vector<int32_t> mask(4096, 0);
    for (size_t i = 0; i < s.size(); ++i) {
        s[i] = std::ldexp(mantissa(rng), exponent(rng)) * (i % 2 ? -1.0f : 1.0f);
        d[i] = std::ldexp(mantissa(rng), exponent(rng));
    }
    const std::vector<float> dividend = d;
    ASSERT_EQ(vekrDiv_32f_C1IM(s.data(), mask.data(), d.data(), int(d.size())), StatusOk);
    for (size_t i = 0; i < d.size(); ++i) {
        const double exact = double(dividend[i]) / s[i];
        EXPECT_LE(std::fabs(d[i] - exact), std::ldexp(std::fabs(exact), -22)) << "ray " << i;
    }
}

}  // namespace
