#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "sh_reference.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "vekr.h"

using namespace vekr::test;

namespace {

const float kY00 = bitsToFloat(0x3E906EBB);  // 1 / (2 sqrt(pi)) as the library holds it
const float kSentinel = bitsToFloat(0x7FC0DEAD);

// The state a transform evaluates the basis with.
struct StatePath {
    const char* name;
    int method;
    unsigned stateOrder;
};

void PrintTo(const StatePath& path, std::ostream* os)
{
    *os << path.name;
}

std::vector<float> randomFloats(size_t n, unsigned seed, float lo = -1, float hi = 1)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(lo, hi);
    std::vector<float> v(n);
    for (float& f : v)
        f = u(rng);
    return v;
}

std::unique_ptr<GuardedArray<float>> guarded(const float* values, size_t n, FlushEnd end)
{
    auto g = std::make_unique<GuardedArray<float>>(n, end);
    g->copyFrom(values);
    return g;
}

class ShTransform : public testing::TestWithParam<StatePath> {
protected:
    void SetUp() override
    {
        state_ = std::make_unique<ShStateBuffer>(GetParam().stateOrder, GetParam().method);
    }
    const SHState* state() { return state_->state(); }

private:
    std::unique_ptr<ShStateBuffer> state_;
};

}  // namespace

TEST_P(ShTransform, GivesTheDocumentedExamples)
{
    // One sample of 1 at the north pole, order 1, into zeros; a second call doubles it.
    const float x = 0, y = 0, z = 1, one = 1;
    float c[4] = {0, 0, 0, 0};
    ASSERT_EQ(vekrSHTFwd_32f_C1I(&x, &y, &z, &one, 1, c, 1, state()), StatusOk);
    EXPECT_EQ(floatBits(c[0]), floatBits(kY00));
    EXPECT_EQ(c[1], 0.0f);
    EXPECT_NEAR(c[2], 0.48860251f, 1.5e-7f);
    EXPECT_EQ(c[3], 0.0f);
    const std::vector<float> once(c, c + 4);
    ASSERT_EQ(vekrSHTFwd_32f_C1I(&x, &y, &z, &one, 1, c, 1, state()), StatusOk);
    for (int k = 0; k < 4; ++k)
        EXPECT_EQ(floatBits(c[k]), floatBits(2 * once[size_t(k)])) << "index " << k;

    // Order 0: n samples of v give n v Y00^2 = n v / (4 pi) anywhere. The n float additions,
    // the two products and Y00's own rounding (twice) stay within (n + 4) roundings.
    const Directions d = testDirections(23, 9);
    const int n = d.size();
    const float v = 0.75f;
    const std::vector<float> samples(size_t(n), v);
    float c0 = 0;
    ASSERT_EQ(
        vekrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), samples.data(), n, &c0, 0, state()),
        StatusOk);
    std::vector<float> back(static_cast<size_t>(n));
    ASSERT_EQ(
        vekrSHTInv_32f_C1(&c0, 0, d.x.data(), d.y.data(), d.z.data(), back.data(), n, state()),
        StatusOk);
    const long double expected = n * v / (4 * 3.141592653589793238L);
    for (int i = 0; i < n; ++i)
        EXPECT_NEAR(back[size_t(i)], double(expected), double(expected) * (n + 4) * 0x1p-24)
            << "direction " << i;
}

// A band-limited function sampled on the exact quadrature grid, with the weights folded into
// the samples: the forward transform returns its coefficients and the inverse its values.
// Forward: each coefficient sums 512 rounded products whose sizes add up to at most |c| (by
// Cauchy-Schwarz against a unit-norm basis function); the roundings add like a random walk,
// sqrt(512) x 2^-24 ~ 1.4e-6, and the basis errors average out over the grid: 2e-6 |c|. Inverse:
// every basis value within 1e-5 of its band's largest value (the reference bound) plus at most
// 256 roundings of the dot product: 3e-5 of the sum over k of |c_k| times that largest value.
TEST_P(ShTransform, RoundTripsABandLimitedFunctionOnAQuadratureGrid)
{
    const SphereGrid grid(16, 32);
    const int n = grid.dirs.size();
    for (unsigned order : {1u, 6u, 15u}) {
        const int count = shCount(order);
        const std::vector<float> c = randomFloats(size_t(count), order + 10);
        std::vector<float> samples(static_cast<size_t>(n));
        std::vector<long double> f(static_cast<size_t>(n)), scale(static_cast<size_t>(n));
        long double norm = 0;
        for (int k = 0; k < count; ++k)
            norm += c[size_t(k)] * c[size_t(k)];
        norm = std::sqrt(norm);
        for (int i = 0; i < n; ++i) {
            const auto y = referenceBasis(grid.dirs.x[size_t(i)], grid.dirs.y[size_t(i)],
                                          grid.dirs.z[size_t(i)], order);
            for (int l = 0; l <= int(order); ++l)
                for (int m = -l; m <= l; ++m) {
                    const size_t k = size_t(l * l + l + m);
                    f[size_t(i)] += c[k] * y[k];
                    scale[size_t(i)] += std::fabs(c[k]) * bandMax(y, l);
                }
            samples[size_t(i)] = float(grid.weight[size_t(i)] * f[size_t(i)]);
        }
        std::vector<float> coeffs(size_t(count), 0.0f);
        ASSERT_EQ(vekrSHTFwd_32f_C1I(grid.dirs.x.data(), grid.dirs.y.data(), grid.dirs.z.data(),
                                     samples.data(), n, coeffs.data(), order, state()),
                  StatusOk);
        for (int k = 0; k < count; ++k)
            EXPECT_NEAR(coeffs[size_t(k)], c[size_t(k)], double(2e-6L * norm))
                << "order " << order << " index " << k;

        std::vector<float> values(static_cast<size_t>(n));
        ASSERT_EQ(vekrSHTInv_32f_C1(c.data(), order, grid.dirs.x.data(), grid.dirs.y.data(),
                                    grid.dirs.z.data(), values.data(), n, state()),
                  StatusOk);
        for (int i = 0; i < n; ++i)
            ASSERT_NEAR(values[size_t(i)], double(f[size_t(i)]), double(3e-5L * scale[size_t(i)]))
                << "order " << order << " direction " << i;
    }
}

// Every layout against the basis of vekrSH_32f, for every length across the vector width
// with every buffer flush against a guard page at either end. The forward transforms add
// sample after sample into non-zero coefficients, so they equal that sum formed here in float,
// bit for bit, and a call split in two equals one call; P3 and C3 channels equal C1 calls on
// each channel; the inverse is a float dot product of (L + 1)^2 terms, within that many
// roundings of the sum of its |terms|.
TEST_P(ShTransform, AllLayoutsMatchTheBasisBetweenGuardPages)
{
    const Directions d = testDirections(20, 5);
    const std::vector<float> samples = randomFloats(60, 1, -2, 2);  // channel-major, 20 each
    for (unsigned order : {0u, 2u, 15u}) {
        const int count = shCount(order);
        std::vector<float> basis(size_t(20 * count));
        ASSERT_EQ(vekrSH_32f(d.x.data(), d.y.data(), d.z.data(), 20, basis.data(), order, state()),
                  StatusOk);
        const std::vector<float> start = randomFloats(size_t(3 * count), 2);
        const std::vector<float> coeffIn = randomFloats(size_t(3 * count), 3);
        for (int n = 1; n <= 20; ++n)
            for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                const std::string where = "order " + std::to_string(order) + " length " +
                                          std::to_string(n) +
                                          (end == FlushEnd::Back ? " back" : " front");
                const auto x = guarded(d.x.data(), size_t(n), end);
                const auto y = guarded(d.y.data(), size_t(n), end);
                const auto z = guarded(d.z.data(), size_t(n), end);
                std::vector<float> interleaved(size_t(3 * n));
                for (int i = 0; i < n; ++i)
                    for (int j = 0; j < 3; ++j)
                        interleaved[size_t(3 * i + j)] = samples[size_t(20 * j + i)];
                std::unique_ptr<GuardedArray<float>> plane[3], fresh[3][4];
                for (int j = 0; j < 3; ++j) {
                    plane[j] = guarded(&samples[size_t(20 * j)], size_t(n), end);
                    for (auto& f : fresh[j])
                        f = guarded(&start[size_t(j * count)], size_t(count), end);
                }
                const auto c3 = guarded(interleaved.data(), size_t(3 * n), end);
                auto planesOf = [&](int which) {
                    return std::vector<float*>{fresh[0][which]->data(), fresh[1][which]->data(),
                                               fresh[2][which]->data()};
                };
                // Forward: C1 per channel (set 0), P3 (set 1), C3 (set 2), P3 split (set 3).
                for (int j = 0; j < 3; ++j)
                    ASSERT_EQ(vekrSHTFwd_32f_C1I(x->data(), y->data(), z->data(), plane[j]->data(),
                                                 n, fresh[j][0]->data(), order, state()),
                              StatusOk);
                const float* const p3[3] = {plane[0]->data(), plane[1]->data(), plane[2]->data()};
                ASSERT_EQ(vekrSHTFwd_32f_P3I(x->data(), y->data(), z->data(), p3, n,
                                             planesOf(1).data(), order, state()),
                          StatusOk);
                ASSERT_EQ(vekrSHTFwd_32f_C3P3I(x->data(), y->data(), z->data(), c3->data(), n,
                                               planesOf(2).data(), order, state()),
                          StatusOk);
                const int half = n / 2;
                for (int part = 0; part < 2; ++part) {
                    const int first = part == 0 ? 0 : half, len = part == 0 ? half : n - half;
                    if (len == 0) continue;
                    const float* const p3Part[3] = {p3[0] + first, p3[1] + first, p3[2] + first};
                    ASSERT_EQ(
                        vekrSHTFwd_32f_P3I(x->data() + first, y->data() + first, z->data() + first,
                                           p3Part, len, planesOf(3).data(), order, state()),
                        StatusOk);
                }
                for (int j = 0; j < 3; ++j) {
                    std::vector<float> sum(&start[size_t(j * count)],
                                           &start[size_t(j * count)] + count);
                    for (int i = 0; i < n; ++i)
                        for (int k = 0; k < count; ++k) {
                            const float term =
                                samples[size_t(20 * j + i)] * basis[size_t(i * count + k)];
                            sum[size_t(k)] = sum[size_t(k)] + term;
                        }
                    for (int set = 0; set < 4; ++set)
                        for (int k = 0; k < count; ++k)
                            ASSERT_EQ(floatBits(fresh[j][set]->data()[k]),
                                      floatBits(sum[size_t(k)]))
                                << where << " layout " << set << " channel " << j << " index " << k;
                }

                // Inverse: C1 per channel, then P3 and P3C3 against it.
                std::unique_ptr<GuardedArray<float>> in[3], out[3], outP3[3];
                for (int j = 0; j < 3; ++j) {
                    in[j] = guarded(&coeffIn[size_t(j * count)], size_t(count), end);
                    out[j] = std::make_unique<GuardedArray<float>>(size_t(n), end);
                    outP3[j] = std::make_unique<GuardedArray<float>>(size_t(n), end);
                    ASSERT_EQ(vekrSHTInv_32f_C1(in[j]->data(), order, x->data(), y->data(),
                                                z->data(), out[j]->data(), n, state()),
                              StatusOk);
                    for (int i = 0; i < n; ++i) {
                        long double dot = 0, size = 0;
                        for (int k = 0; k < count; ++k) {
                            const long double t = (long double)coeffIn[size_t(j * count + k)] *
                                                  basis[size_t(i * count + k)];
                            dot += t, size += std::fabs(t);
                        }
                        ASSERT_NEAR(out[j]->data()[i], double(dot),
                                    double(size * (count + 1) * 0x1p-24L))
                            << where << " channel " << j << " direction " << i;
                    }
                }
                const float* const inPlanes[3] = {in[0]->data(), in[1]->data(), in[2]->data()};
                float* const outPlanes[3] = {outP3[0]->data(), outP3[1]->data(), outP3[2]->data()};
                GuardedArray<float> outC3(size_t(3 * n), end);
                ASSERT_EQ(vekrSHTInv_32f_P3(inPlanes, order, x->data(), y->data(), z->data(),
                                            outPlanes, n, state()),
                          StatusOk);
                ASSERT_EQ(vekrSHTInv_32f_P3C3(inPlanes, order, x->data(), y->data(), z->data(),
                                              outC3.data(), n, state()),
                          StatusOk);
                for (int i = 0; i < n; ++i)
                    for (int j = 0; j < 3; ++j) {
                        const uint32_t c1 = floatBits(out[j]->data()[i]);
                        ASSERT_EQ(floatBits(outPlanes[j][i]), c1) << where << " P3 " << j;
                        ASSERT_EQ(floatBits(outC3.data()[3 * i + j]), c1) << where << " C3 " << j;
                    }
            }
    }
}

INSTANTIATE_TEST_SUITE_P(States, ShTransform,
                         testing::Values(StatePath{"Direct", SHMethodDirect, 15},
                                         StatePath{"Recurrence", SHMethodRecurrence, 15},
                                         StatePath{"RecurrenceOnOrder20State", SHMethodRecurrence,
                                                   20}),
                         [](const auto& info) { return std::string(info.param.name); });

// --- Argument checks ------------------------------------------------------------------------

namespace {

// A valid call of any transform that a check then spoils; outputs hold a sentinel.
struct TransformCall {
    static constexpr int kLength = 4;
    ShStateBuffer small;
    ShStateBuffer wide{20, SHMethodRecurrence};
    std::vector<float> xs{0.6f, 0.0f, 0.0f, 1.0f}, ys{0.8f, 0.0f, 1.0f, 0.0f},
        zs{0.0f, 1.0f, 0.0f, 0.0f};
    std::vector<float> sampleValues = std::vector<float>(3 * kLength, 0.5f);
    std::vector<float> coeffValues = std::vector<float>(3 * kMaxShCount, 0.25f);
    std::vector<float> coeffOut = std::vector<float>(3 * kMaxShCount, kSentinel);
    std::vector<float> dstOut = std::vector<float>(3 * kLength, kSentinel);
    std::vector<float> dstC3Out = std::vector<float>(3 * kLength, kSentinel);

    const float* x = xs.data();
    const float* y = ys.data();
    const float* z = zs.data();
    const float* samples = sampleValues.data();  // C1 or C3
    const float* samplePlanes[3] = {&sampleValues[0], &sampleValues[kLength],
                                    &sampleValues[2 * kLength]};
    const float* const* samplesP3 = samplePlanes;
    float* coeffs = coeffOut.data();  // forward C1
    float* coeffPlanes[3] = {&coeffOut[0], &coeffOut[kMaxShCount], &coeffOut[2 * kMaxShCount]};
    float* const* coeffsP3 = coeffPlanes;
    const float* coeffsIn = coeffValues.data();  // inverse C1
    const float* coeffInPlanes[3] = {&coeffValues[0], &coeffValues[kMaxShCount],
                                     &coeffValues[2 * kMaxShCount]};
    const float* const* coeffsInP3 = coeffInPlanes;
    float* dst = dstOut.data();  // inverse C1
    float* dstPlanes[3] = {&dstOut[0], &dstOut[kLength], &dstOut[2 * kLength]};
    float* const* dstP3 = dstPlanes;
    float* dstC3 = dstC3Out.data();
    int length = kLength;
    unsigned order = 2;
    const SHState* state = small.state();

    explicit TransformCall(int method) : small(2, method) {}
    bool outputsUntouched() const
    {
        for (const std::vector<float>* v : {&coeffOut, &dstOut, &dstC3Out})
            for (float f : *v)
                if (floatBits(f) != floatBits(kSentinel)) return false;
        return true;
    }
};

using TransformCheck = CallCheck<TransformCall>;

const std::vector<TransformCheck> kNullXyz = {
    {"null x", [](TransformCall& c) { c.x = nullptr; }, StatusNullPointer},
    {"null y", [](TransformCall& c) { c.y = nullptr; }, StatusNullPointer},
    {"null z", [](TransformCall& c) { c.z = nullptr; }, StatusNullPointer}};
const TransformCheck kNullState = {"null state", [](TransformCall& c) { c.state = nullptr; },
                                   StatusNullPointer};

// The three plane pointers of a P3 argument, one after the other.
template <auto Planes>
std::vector<TransformCheck> nullPlanes(const char* what0, const char* what1, const char* what2)
{
    return {{what0, [](TransformCall& c) { (c.*Planes)[0] = nullptr; }, StatusNullPointer},
            {what1, [](TransformCall& c) { (c.*Planes)[1] = nullptr; }, StatusNullPointer},
            {what2, [](TransformCall& c) { (c.*Planes)[2] = nullptr; }, StatusNullPointer}};
}
const auto kCoeffPlanes =
    nullPlanes<&TransformCall::coeffPlanes>("null coeffs[0]", "null coeffs[1]", "null coeffs[2]");
const auto kCoeffInPlanes =
    nullPlanes<&TransformCall::coeffInPlanes>("null coeffs[0]", "null coeffs[1]", "null coeffs[2]");
// The checks after the pointers, the same in every transform.
const std::vector<TransformCheck> kSizeChecks = {
    {"length 0", [](TransformCall& c) { c.length = 0; }, StatusBadSize},
    {"order above the state's", [](TransformCall& c) { c.order = c.state->order + 1; },
     StatusOutOfRange},
    {"length -5", [](TransformCall& c) { c.length = -5; }, StatusOk}};
// Each alone on an otherwise valid call.
const std::vector<TransformCheck> kAlone = {
    {"order 16 on an order-20 state",
     [](TransformCall& c) { c.state = c.wide.state(), c.order = 16; }, StatusOutOfRange},
    {"order UINT_MAX on an order-20 state",
     [](TransformCall& c) { c.state = c.wide.state(), c.order = UINT_MAX; }, StatusOutOfRange},
    {"order 15 on an order-20 state",
     [](TransformCall& c) { c.state = c.wide.state(), c.order = 15; }, StatusOk},
    {"length INT_MIN", [](TransformCall& c) { c.length = INT_MIN; }, StatusOk}};

std::vector<TransformCheck> concat(std::initializer_list<std::vector<TransformCheck>> parts)
{
    std::vector<TransformCheck> all;
    for (const auto& p : parts)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}

struct TransformContract {
    const char* name;
    Status (*run)(TransformCall&);
    std::vector<TransformCheck> checks;  // in the documented order
};

void PrintTo(const TransformContract& c, std::ostream* os)
{
    *os << c.name;
}

std::vector<TransformContract> transformContracts()
{
    using C = TransformCall;
    const TransformCheck nullSamples = {"null samples", [](C& c) { c.samples = nullptr; },
                                        StatusNullPointer};
    const TransformCheck nullCoeffs = {"null coeffs", [](C& c) { c.coeffsP3 = nullptr; },
                                       StatusNullPointer};
    const TransformCheck nullCoeffsIn = {"null coeffs", [](C& c) { c.coeffsInP3 = nullptr; },
                                         StatusNullPointer};
    return {
        {"FwdC1I",
         [](C& c) {
             return vekrSHTFwd_32f_C1I(c.x, c.y, c.z, c.samples, c.length, c.coeffs, c.order,
                                       c.state);
         },
         concat({kNullXyz,
                 {nullSamples,
                  {"null coeffs", [](C& c) { c.coeffs = nullptr; }, StatusNullPointer},
                  kNullState},
                 kSizeChecks})},
        {"FwdP3I",
         [](C& c) {
             return vekrSHTFwd_32f_P3I(c.x, c.y, c.z, c.samplesP3, c.length, c.coeffsP3, c.order,
                                       c.state);
         },
         concat(
             {kNullXyz,
              {{"null samples", [](C& c) { c.samplesP3 = nullptr; }, StatusNullPointer},
               nullCoeffs,
               kNullState},
              nullPlanes<&C::samplePlanes>("null samples[0]", "null samples[1]", "null samples[2]"),
              kCoeffPlanes,
              kSizeChecks})},
        {"FwdC3P3I",
         [](C& c) {
             return vekrSHTFwd_32f_C3P3I(c.x, c.y, c.z, c.samples, c.length, c.coeffsP3, c.order,
                                         c.state);
         },
         concat({kNullXyz, {nullSamples, nullCoeffs, kNullState}, kCoeffPlanes, kSizeChecks})},
        {"InvC1",
         [](C& c) {
             return vekrSHTInv_32f_C1(c.coeffsIn, c.order, c.x, c.y, c.z, c.dst, c.length, c.state);
         },
         concat({{{"null coeffs", [](C& c) { c.coeffsIn = nullptr; }, StatusNullPointer}},
                 kNullXyz,
                 {{"null dst", [](C& c) { c.dst = nullptr; }, StatusNullPointer}, kNullState},
                 kSizeChecks})},
        {"InvP3",
         [](C& c) {
             return vekrSHTInv_32f_P3(c.coeffsInP3, c.order, c.x, c.y, c.z, c.dstP3, c.length,
                                      c.state);
         },
         concat({{nullCoeffsIn},
                 kNullXyz,
                 {{"null dst", [](C& c) { c.dstP3 = nullptr; }, StatusNullPointer}, kNullState},
                 kCoeffInPlanes,
                 nullPlanes<&C::dstPlanes>("null dst[0]", "null dst[1]", "null dst[2]"),
                 kSizeChecks})},
        {"InvP3C3",
         [](C& c) {
             return vekrSHTInv_32f_P3C3(c.coeffsInP3, c.order, c.x, c.y, c.z, c.dstC3, c.length,
                                        c.state);
         },
         concat({{nullCoeffsIn},
                 kNullXyz,
                 {{"null dst", [](C& c) { c.dstC3 = nullptr; }, StatusNullPointer}, kNullState},
                 kCoeffInPlanes,
                 kSizeChecks})},
    };
}

class ShTransformChecks : public testing::TestWithParam<TransformContract> {};

}  // namespace

TEST_P(ShTransformChecks, FirstFailingCheckInOrderWinsAndNothingIsWritten)
{
    for (int method : {SHMethodDirect, SHMethodRecurrence}) {
        expectChecksInOrder(GetParam().checks, method, GetParam().run);
        for (const TransformCheck& c : kAlone)
            expectChecksInOrder(std::vector<TransformCheck>{c}, method, GetParam().run);
    }
}

INSTANTIATE_TEST_SUITE_P(Functions, ShTransformChecks, testing::ValuesIn(transformContracts()),
                         [](const auto& info) { return std::string(info.param.name); });
