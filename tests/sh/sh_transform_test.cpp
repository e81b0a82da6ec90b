// The transforms against the basis and references, and the checks of all evaluating functions.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "sh_reference.h"
#include "support/argument_checks.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "support/random_floats.h"

using namespace vekr::test;

namespace {

// Every layout, every buffer flush against a guard page. Forward C1, P3, C3 and P3 in two calls
// equal the float sum of the start and the sample-by-basis products in order, bit for bit; the
// inverse C1 is within (L + 1)^2 + 1 roundings of the sum of its |terms|, P3 and P3C3 equal it.
void expectLayouts(const SHState* state, unsigned order, int n, FlushEnd end)
{
    const Directions d = testDirections(20, 5);
    const std::vector<float> samples = randomFloats(60, 1, -2, 2);  // channel-major, 20 each
    const int count = shCount(order);
    const auto start = randomFloats(size_t(3 * count), 2), in = randomFloats(size_t(3 * count), 3);
    std::vector<float> basis(size_t(n * count)), interleaved(size_t(3 * n));
    ASSERT_EQ(vekrSH_32f(d.x.data(), d.y.data(), d.z.data(), n, basis.data(), order, state),
              StatusOk);
    std::vector<std::unique_ptr<GuardedArray<float>>> keep;
    const auto g = [&](const float* values, int size) {
        keep.push_back(std::make_unique<GuardedArray<float>>(size_t(size), end));
        if (values) keep.back()->copyFrom(values);
        return keep.back()->data();
    };
    const float *x = g(d.x.data(), n), *y = g(d.y.data(), n), *z = g(d.z.data(), n);
    const float *plane[3], *coeffIn[3];
    float *fwd[4][3], *inv[2][3];  // [C1, P3, C3, P3 split][channel], [C1, P3][channel]
    for (int j = 0; j < 3; ++j) {
        plane[j] = g(&samples[size_t(20 * j)], n);
        for (int i = 0; i < n; ++i)
            interleaved[size_t(3 * i + j)] = samples[size_t(20 * j + i)];
        for (auto& set : fwd)
            set[j] = g(&start[size_t(j * count)], count);
        coeffIn[j] = g(&in[size_t(j * count)], count);
        inv[0][j] = g(nullptr, n), inv[1][j] = g(nullptr, n);
    }
    const float* c3 = g(interleaved.data(), 3 * n);
    float* outC3 = g(nullptr, 3 * n);
    for (int j = 0; j < 3; ++j)
        ASSERT_EQ(vekrSHTFwd_32f_C1I(x, y, z, plane[j], n, fwd[0][j], order, state), StatusOk);
    ASSERT_EQ(vekrSHTFwd_32f_P3I(x, y, z, plane, n, fwd[1], order, state), StatusOk);
    ASSERT_EQ(vekrSHTFwd_32f_C3P3I(x, y, z, c3, n, fwd[2], order, state), StatusOk);
    const int h = n / 2;
    const float* const rest[3] = {plane[0] + h, plane[1] + h, plane[2] + h};
    ASSERT_EQ(vekrSHTFwd_32f_P3I(x, y, z, plane, h, fwd[3], order, state),
              h > 0 ? StatusOk : StatusBadSize);
    ASSERT_EQ(vekrSHTFwd_32f_P3I(x + h, y + h, z + h, rest, n - h, fwd[3], order, state), StatusOk);
    ASSERT_EQ(vekrSHTInv_32f_P3(coeffIn, order, x, y, z, inv[1], n, state), StatusOk);
    ASSERT_EQ(vekrSHTInv_32f_P3C3(coeffIn, order, x, y, z, outC3, n, state), StatusOk);
    for (int j = 0; j < 3; ++j) {
        ASSERT_EQ(vekrSHTInv_32f_C1(coeffIn[j], order, x, y, z, inv[0][j], n, state), StatusOk);
        std::vector<float> sum(&start[size_t(j * count)], &start[size_t((j + 1) * count)]);
        for (int i = 0; i < n; ++i) {
            long double dot = 0, size = 0;
            for (int k = 0; k < count; ++k) {
                const float b = basis[size_t(i * count + k)];
                sum[size_t(k)] = sum[size_t(k)] + samples[size_t(20 * j + i)] * b;
                const long double t = (long double)in[size_t(j * count + k)] * b;
                dot += t, size += std::fabs(t);
            }
            ASSERT_NEAR(inv[0][j][i], double(dot), double(size * (count + 1) * 0x1p-24L))
                << "channel " << j << " direction " << i;
            ASSERT_EQ(floatBits(inv[1][j][i]), floatBits(inv[0][j][i])) << "P3, direction " << i;
            ASSERT_EQ(floatBits(outC3[3 * i + j]), floatBits(inv[0][j][i]))
                << "C3, direction " << i;
        }
        for (int set = 0; set < 4; ++set)
            for (int k = 0; k < count; ++k)
                ASSERT_EQ(floatBits(fwd[set][j][k]), floatBits(sum[size_t(k)]))
                    << "layout " << set << " channel " << j << " index " << k;
    }
}

class ShTransform : public testing::TestWithParam<StatePath> {
protected:
    const ShState state_ = makeState(GetParam().stateOrder, GetParam().method);
    const SHState* state() { return state_.get(); }
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

    // Order 0: n samples of v give n v Y00^2 = n v / (4 pi) anywhere, within (n + 4) roundings
    // (the n additions, the two products and Y00's own rounding twice).
    const Directions d = testDirections(23, 9);
    const int n = d.size();
    const std::vector<float> samples(size_t(n), 0.75f);
    float c0 = 0;
    std::vector<float> back(static_cast<size_t>(n));
    ASSERT_EQ(
        vekrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), samples.data(), n, &c0, 0, state()),
        StatusOk);
    ASSERT_EQ(
        vekrSHTInv_32f_C1(&c0, 0, d.x.data(), d.y.data(), d.z.data(), back.data(), n, state()),
        StatusOk);
    const double expected = double(n * 0.75L / (4 * 3.141592653589793238L));
    for (int i = 0; i < n; ++i)
        EXPECT_NEAR(back[size_t(i)], expected, expected * (n + 4) * 0x1p-24) << "direction " << i;
}

// A band-limited function on the exact grid, weights in the samples. Forward: 512 roundings of
// products summing to <= |c| add like a random walk, ~1.4e-6: 2e-6 |c|. Inverse: the reference
// bound 1e-5 plus 256 roundings: 3e-5 of the sum of |c_k| times the band's largest value.
TEST_P(ShTransform, RoundTripsABandLimitedFunctionOnAQuadratureGrid)
{
    const SphereGrid grid(16, 32);
    const Directions& d = grid.dirs;
    const int n = d.size();
    for (unsigned order : {1u, 6u, 15u}) {
        const int count = shCount(order);
        const std::vector<float> c = randomFloats(size_t(count), order + 10);
        std::vector<float> samples(static_cast<size_t>(n)), values = samples, coeffs(c.size());
        std::vector<long double> f(static_cast<size_t>(n)), scale = f;
        long double norm = 0;
        for (float ck : c)
            norm += ck * ck;
        for (size_t i = 0; i < size_t(n); ++i) {
            const auto y = referenceBasis(d.x[i], d.y[i], d.z[i], order);
            for (int l = 0; l <= int(order); ++l)
                for (int k = l * l; k <= l * l + 2 * l; ++k) {
                    f[i] += c[size_t(k)] * y[size_t(k)];
                    scale[i] += std::fabs(c[size_t(k)]) * bandMax(y, l);
                }
            samples[i] = float(grid.weight[i] * f[i]);
        }
        ASSERT_EQ(vekrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), samples.data(), n,
                                     coeffs.data(), order, state()),
                  StatusOk);
        for (int k = 0; k < count; ++k)
            EXPECT_NEAR(coeffs[size_t(k)], c[size_t(k)], double(2e-6L * std::sqrt(norm)))
                << "order " << order << " index " << k;
        ASSERT_EQ(vekrSHTInv_32f_C1(c.data(), order, d.x.data(), d.y.data(), d.z.data(),
                                    values.data(), n, state()),
                  StatusOk);
        for (size_t i = 0; i < size_t(n); ++i)
            ASSERT_NEAR(values[i], double(f[i]), double(3e-5L * scale[i]))
                << "order " << order << " direction " << i;
    }
}

TEST_P(ShTransform, AllLayoutsMatchTheBasisBetweenGuardPages)
{
    for (unsigned order : {0u, 2u, 15u})
        for (int n = 1; n <= 20; ++n)
            for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                SCOPED_TRACE("order " + std::to_string(order) + " length " + std::to_string(n) +
                             (end == FlushEnd::Back ? " back" : " front"));
                expectLayouts(state(), order, n, end);
                if (HasFatalFailure()) return;
            }
}

INSTANTIATE_TEST_SUITE_P(States, ShTransform, testing::ValuesIn(kStatePaths),
                         [](const auto& info) { return std::string(info.param.name); });

// --- Argument checks of the basis and transform functions ----------------------------------

namespace {

// A valid call of any of them on three directions to order 2 (band 2), outputs holding a
// sentinel; checks spoil it. Every buffer has room for three channels of order 15.
struct ShCall {
    static constexpr int kN = 3;
    const ShState small, wide = makeState(20, SHMethodRecurrence);
    SHState patched{};
    float xs[kN] = {0.6f, 0, -1}, ys[kN] = {0.8f, 0, 0}, zs[kN] = {0, 1, 0};
    std::vector<float> in = std::vector<float>(3 * kN * kMaxShCount, 0.25f);
    std::vector<float> out = std::vector<float>(3 * kN * kMaxShCount, kSentinel);
    const float *x = xs, *y = ys, *z = zs;
    const float* src = in.data();  // C1 or C3 samples, C1 coefficients of the inverse
    const float* inPlanes[3] = {&in[0], &in[kN * kMaxShCount], &in[2 * kN * kMaxShCount]};
    float* outPlanes[3] = {&out[0], &out[kN * kMaxShCount], &out[2 * kN * kMaxShCount]};
    const float* const* inP3 = inPlanes;  // P3 samples, P3 coefficients of the inverse
    float* const* outP3 = outPlanes;      // P3 coefficients of the forward, P3 dst
    float* dst = out.data();              // basis, C1 coefficients of the forward, C1 or C3 dst
    int length = kN;
    unsigned order = 2;
    const SHState* state;

    explicit ShCall(int method) : small(makeState(2, method)), state(small.get()) {}
    bool outputsUntouched() const
    {
        return std::all_of(out.begin(), out.end(),
                           [](float f) { return floatBits(f) == floatBits(kSentinel); });
    }
    void patchMethod(int method) { patched = *state, patched.method = method, state = &patched; }
};

struct ShCheck {
    std::string what;
    void (*spoil)(ShCall&);
    Status expected;
};

template <auto Member>
ShCheck null()
{
    return {"", [](ShCall& c) { c.*Member = nullptr; }, StatusNullPointer};
}
template <auto Planes, int J>
ShCheck nullPlane()
{
    return {"", [](ShCall& c) { (c.*Planes)[J] = nullptr; }, StatusNullPointer};
}

// Every check by name: null members, planes in[j] of inP3 and out[j] of outP3, and values.
std::map<std::string, ShCheck> checkTable()
{
    using C = ShCall;
    std::map<std::string, ShCheck> table = {
        {"x", null<&C::x>()},
        {"y", null<&C::y>()},
        {"z", null<&C::z>()},
        {"src", null<&C::src>()},
        {"dst", null<&C::dst>()},
        {"state", null<&C::state>()},
        {"inP3", null<&C::inP3>()},
        {"outP3", null<&C::outP3>()},
        {"in[0]", nullPlane<&C::inPlanes, 0>()},
        {"in[1]", nullPlane<&C::inPlanes, 1>()},
        {"in[2]", nullPlane<&C::inPlanes, 2>()},
        {"out[0]", nullPlane<&C::outPlanes, 0>()},
        {"out[1]", nullPlane<&C::outPlanes, 1>()},
        {"out[2]", nullPlane<&C::outPlanes, 2>()},
        {"len0", {"", [](C& c) { c.length = 0; }, StatusBadSize}},
        {"len-5", {"", [](C& c) { c.length = -5; }, StatusOk}},
        {"lenMin", {"", [](C& c) { c.length = INT_MIN; }, StatusOk}},
        {"order>state", {"", [](C& c) { c.order = c.state->order + 1; }, StatusOutOfRange}},
        {"method2", {"", [](C& c) { c.patchMethod(2); }, StatusOutOfRange}},
        {"method-1", {"", [](C& c) { c.patchMethod(-1); }, StatusOutOfRange}},
        {"band16", {"", [](C& c) { c.order = 16; }, StatusOutOfRange}},
        {"bandMax", {"", [](C& c) { c.order = UINT_MAX; }, StatusOutOfRange}},
        // A recurrence state of order 20 serves orders up to 15 only.
        {"wide16", {"", [](C& c) { c.state = c.wide.get(), c.order = 16; }, StatusOutOfRange}},
        {"wideMax",
         {"", [](C& c) { c.state = c.wide.get(), c.order = UINT_MAX; }, StatusOutOfRange}},
        {"wide15", {"", [](C& c) { c.state = c.wide.get(), c.order = 15; }, StatusOk}}};
    for (auto& [name, check] : table)
        check.what = name;
    return table;
}

std::vector<ShCheck> checks(const std::string& names)
{
    static const std::map<std::string, ShCheck> table = checkTable();
    std::istringstream in(names);
    std::vector<ShCheck> out;
    for (std::string name; in >> name;)
        out.push_back(table.at(name));
    return out;
}

// The checks in their documented order, and others each on an otherwise valid call.
struct Contract {
    const char* name;
    Status (*run)(ShCall&);
    const char* inOrder;
    const char* alone;
    friend void PrintTo(const Contract& c, std::ostream* os) { *os << c.name; }
};

const char* const kAlone = "wide16 wideMax wide15 lenMin";
using C = ShCall;
const Contract kContracts[] = {
    {"SH", [](C& c) { return vekrSH_32f(c.x, c.y, c.z, c.length, c.dst, c.order, c.state); },
     "x y z dst state len0 order>state method2 wide16 len-5",
     "wide16 wideMax wide15 lenMin method-1"},
    {"SHBand", [](C& c) { return vekrSHBand_32f(c.x, c.y, c.z, c.length, c.dst, c.order); },
     "x y z dst band16 len0 len-5", "bandMax lenMin"},
    {"FwdC1I",
     [](C& c) {
         return vekrSHTFwd_32f_C1I(c.x, c.y, c.z, c.src, c.length, c.dst, c.order, c.state);
     },
     "x y z src dst state len0 order>state len-5", kAlone},
    {"FwdP3I",
     [](C& c) {
         return vekrSHTFwd_32f_P3I(c.x, c.y, c.z, c.inP3, c.length, c.outP3, c.order, c.state);
     },
     "x y z inP3 outP3 state in[0] in[1] in[2] out[0] out[1] out[2] len0 order>state len-5",
     kAlone},
    {"FwdC3P3I",
     [](C& c) {
         return vekrSHTFwd_32f_C3P3I(c.x, c.y, c.z, c.src, c.length, c.outP3, c.order, c.state);
     },
     "x y z src outP3 state out[0] out[1] out[2] len0 order>state len-5", kAlone},
    {"InvC1",
     [](C& c) {
         return vekrSHTInv_32f_C1(c.src, c.order, c.x, c.y, c.z, c.dst, c.length, c.state);
     },
     "src x y z dst state len0 order>state len-5", kAlone},
    {"InvP3",
     [](C& c) {
         return vekrSHTInv_32f_P3(c.inP3, c.order, c.x, c.y, c.z, c.outP3, c.length, c.state);
     },
     "inP3 x y z outP3 state in[0] in[1] in[2] out[0] out[1] out[2] len0 order>state len-5",
     kAlone},
    {"InvP3C3",
     [](C& c) {
         return vekrSHTInv_32f_P3C3(c.inP3, c.order, c.x, c.y, c.z, c.dst, c.length, c.state);
     },
     "inP3 x y z dst state in[0] in[1] in[2] len0 order>state len-5", kAlone}};

class ShChecks : public testing::TestWithParam<Contract> {};

}  // namespace

// A failing call, or one with a negative length, writes nothing.
TEST_P(ShChecks, FirstFailingCheckInOrderWinsAndNothingIsWritten)
{
    const auto mayWrite = [](const ShCall& c, Status s) { return s == StatusOk && c.length >= 0; };
    for (int method : {SHMethodDirect, SHMethodRecurrence}) {
        SCOPED_TRACE("method " + std::to_string(method));
        const auto makeCall = [method] { return ShCall(method); };
        expectChecksInOrder(checks(GetParam().inOrder), makeCall, GetParam().run, mayWrite);
        for (const ShCheck& c : checks(GetParam().alone))
            expectChecksInOrder(std::vector<ShCheck>{c}, makeCall, GetParam().run, mayWrite);
    }
}

INSTANTIATE_TEST_SUITE_P(Functions, ShChecks, testing::ValuesIn(kContracts),
                         [](const auto& info) { return std::string(info.param.name); });
