#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sh_reference.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "vekcore.h"
#include "vekr.h"

using namespace vekr::test;

namespace {

const float kY00 = bitsToFloat(0x3E906EBB);  // 1 / (2 sqrt(pi)) as the library holds it
const float kSentinel = bitsToFloat(0x7FC0DEAD);

enum class Eval { Direct, Recurrence, Band };

// One way to get the basis: vekrSH_32f on a state of the given order and method, or
// vekrSHBand_32f band by band.
struct BasisPath {
    const char* name;
    Eval eval;
    unsigned stateOrder;
};

void PrintTo(const BasisPath& path, std::ostream* os)
{
    *os << path.name;
}

// All bands 0 to order of n directions into dst, (order + 1)^2 values per direction.
Status evaluate(const BasisPath& path, const float* x, const float* y, const float* z, int n,
                unsigned order, float* dst)
{
    if (path.eval != Eval::Band) {
        ShStateBuffer state(path.stateOrder,
                            path.eval == Eval::Direct ? SHMethodDirect : SHMethodRecurrence);
        return vekrSH_32f(x, y, z, n, dst, order, state.state());
    }
    const int count = shCount(order);
    for (int l = 0; l <= int(order); ++l) {
        std::vector<float> band(size_t(n * (2 * l + 1)));
        const Status s = vekrSHBand_32f(x, y, z, n, band.data(), unsigned(l));
        if (s != StatusOk) return s;
        for (int i = 0; i < n; ++i)
            for (int m = -l; m <= l; ++m)
                dst[i * count + l * l + l + m] = band[size_t(i * (2 * l + 1) + l + m)];
    }
    return StatusOk;
}

std::vector<float> evaluateAll(const BasisPath& path, const Directions& d, unsigned order)
{
    std::vector<float> out(size_t(d.size() * shCount(order)), kSentinel);
    EXPECT_EQ(evaluate(path, d.x.data(), d.y.data(), d.z.data(), d.size(), order, out.data()),
              StatusOk);
    return out;
}

// Each value within 1e-5 of the largest reference value of its band at that direction, the
// natural scale where values cancel: the direct method rounds once (6e-8); the recurrence
// carries float rounding through 15 steps of two products and a sum, up to ~4e-6 at l = 15.
void expectNearReference(const std::vector<float>& actual, const Directions& d,
                         const std::string& what)
{
    int reported = 0;
    for (int i = 0; i < d.size(); ++i) {
        const auto ref = referenceBasis(d.x[size_t(i)], d.y[size_t(i)], d.z[size_t(i)], 15);
        for (int l = 0; l <= 15; ++l) {
            const long double bound = 1e-5L * bandMax(ref, l);
            for (int m = -l; m <= l; ++m) {
                const size_t k = size_t(l * l + l + m);
                const float v = actual[size_t(i) * kMaxShCount + k];
                if (std::fabs(v - ref[k]) <= bound || ++reported > 20) continue;
                ADD_FAILURE() << what << ": direction " << i << " (" << d.x[size_t(i)] << ", "
                              << d.y[size_t(i)] << ", " << d.z[size_t(i)] << ") l " << l << " m "
                              << m << ": " << v << " vs " << double(ref[k]);
            }
        }
    }
}

class ShBasis : public testing::TestWithParam<BasisPath> {};

}  // namespace

TEST_P(ShBasis, MatchesTheLongDoubleLegendreReference)
{
    const Directions d = testDirections(400, 1);
    expectNearReference(evaluateAll(GetParam(), d, 15), d, GetParam().name);
}

TEST_P(ShBasis, GivesTheDocumentedValuesAndExactZerosOnTheAxes)
{
    Directions d;
    d.add(0, 0, 1), d.add(1, 0, 0), d.add(0, 0, -1);
    const std::vector<float> v = evaluateAll(GetParam(), d, 15);
    const float* pole = v.data();
    const float* east = v.data() + kMaxShCount;
    // The decimals are documented to 8 digits; the recurrence rounds a product or two more.
    const float tol = 1.5e-7f;
    for (const float* y : {pole, east, v.data() + 2 * kMaxShCount})
        EXPECT_EQ(floatBits(y[0]), floatBits(kY00));
    EXPECT_NEAR(pole[2], 0.48860251f, tol);
    EXPECT_NEAR(pole[6], 0.63078313f, tol);
    EXPECT_NEAR(east[3], -0.48860251f, tol);
    EXPECT_NEAR(east[8], 0.54627422f, tol);
    EXPECT_NEAR(east[6], -0.31539157f, tol);
    // Every m != 0 term carries a factor x or y, every m < 0 term a factor y.
    for (int l = 1; l <= 15; ++l)
        for (int m = -l; m <= l; ++m) {
            const int k = l * l + l + m;
            const float south = v[size_t(2 * kMaxShCount + k)];
            EXPECT_TRUE(m == 0 || (pole[k] == 0 && south == 0)) << "pole, l " << l << " m " << m;
            EXPECT_TRUE(m >= 0 || east[k] == 0) << "(1,0,0) l " << l << " m " << m;
        }
}

// Gauss-Legendre in z with 16 nodes is exact to degree 31 and 32 angles resolve |m1 +- m2| up
// to 30, so the quadrature of every product of two bands up to 15 is exact but for the data.
// Float nodes a rounding off the exact ones move an entry by up to ~6e-7; basis values off by
// up to a few 1e-6 of their band's scale at l = 15 (far less below), weighted against functions
// of unit norm, add about as much again: 2e-5 leaves room without hiding a wrong constant.
TEST_P(ShBasis, IsOrthonormalUnderAnExactQuadrature)
{
    const SphereGrid grid(16, 32);
    const std::vector<float> v = evaluateAll(GetParam(), grid.dirs, 15);
    double worst = 0;
    int worstA = 0, worstB = 0;
    for (int a = 0; a < kMaxShCount; ++a)
        for (int b = a; b < kMaxShCount; ++b) {
            double sum = 0;
            for (int i = 0; i < grid.dirs.size(); ++i)
                sum += double(grid.weight[size_t(i)]) * v[size_t(i * kMaxShCount + a)] *
                       v[size_t(i * kMaxShCount + b)];
            const double err = std::fabs(sum - (a == b ? 1.0 : 0.0));
            if (err > worst) worst = err, worstA = a, worstB = b;
        }
    EXPECT_LE(worst, 2e-5) << "entry (" << worstA << ", " << worstB << ")";
}

// Every length across the vector width, each plane flush against a guard page at either end;
// each direction's values equal a call for that direction alone, and an evaluation to a lower
// order equals the start of the full one, bit for bit.
TEST_P(ShBasis, LengthSweepBetweenGuardPagesMatchesSingleDirections)
{
    const BasisPath& path = GetParam();
    const Directions d = testDirections(20, 2);
    const bool band = path.eval == Eval::Band;
    for (unsigned order : {0u, 1u, 2u, 15u}) {
        const int width = band ? int(2 * order + 1) : shCount(order);
        std::vector<std::vector<float>> single;
        for (int i = 0; i < 20; ++i) {
            std::vector<float> one(kMaxShCount, kSentinel);
            const float* p[3] = {&d.x[size_t(i)], &d.y[size_t(i)], &d.z[size_t(i)]};
            EXPECT_EQ(band ? vekrSHBand_32f(p[0], p[1], p[2], 1, one.data(), order)
                           : evaluate(path, p[0], p[1], p[2], 1, 15, one.data()),
                      StatusOk);
            single.push_back(one);
        }
        for (int n = 1; n <= 20; ++n)
            for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                GuardedArray<float> x(size_t(n), end), y(size_t(n), end), z(size_t(n), end);
                GuardedArray<float> dst(size_t(n * width), end);
                x.copyFrom(d.x.data()), y.copyFrom(d.y.data()), z.copyFrom(d.z.data());
                const Status s =
                    band ? vekrSHBand_32f(x.data(), y.data(), z.data(), n, dst.data(), order)
                         : evaluate(path, x.data(), y.data(), z.data(), n, order, dst.data());
                ASSERT_EQ(s, StatusOk);
                for (int i = 0; i < n; ++i)
                    for (int k = 0; k < width; ++k)
                        ASSERT_EQ(floatBits(dst.data()[i * width + k]),
                                  floatBits(single[size_t(i)][size_t(k)]))
                            << "order " << order << " length " << n << " direction " << i
                            << " index " << k << (end == FlushEnd::Front ? " front" : " back");
            }
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, ShBasis,
                         testing::Values(BasisPath{"Direct", Eval::Direct, 15},
                                         BasisPath{"Recurrence", Eval::Recurrence, 15},
                                         BasisPath{"RecurrenceOnOrder20State", Eval::Recurrence,
                                                   20},
                                         BasisPath{"Band", Eval::Band, 0}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ShBasisMethods, AgreeWithinTheReferenceBound)
{
    const Directions d = testDirections(400, 3);
    const auto direct = evaluateAll({"Direct", Eval::Direct, 15}, d, 15);
    const auto recurrence = evaluateAll({"Recurrence", Eval::Recurrence, 15}, d, 15);
    for (int i = 0; i < d.size(); ++i) {
        const auto ref = referenceBasis(d.x[size_t(i)], d.y[size_t(i)], d.z[size_t(i)], 15);
        for (int l = 0; l <= 15; ++l)
            for (int m = -l; m <= l; ++m) {
                const size_t k = size_t(i * kMaxShCount + l * l + l + m);
                ASSERT_LE(std::fabs(double(direct[k]) - recurrence[k]),
                          1e-5 * double(bandMax(ref, l)))
                    << "direction " << i << " l " << l << " m " << m;
            }
    }
}

// --- State ----------------------------------------------------------------------------------

namespace {

int recurrenceCount(unsigned order)
{
    return int((order + 1) * (order + 2) / 2);
}

uint32_t roundUp16(uint32_t bytes)
{
    return (bytes + 15) & ~15u;
}

// a(l, m) and b(l, m) of the recurrence, in long double and rounded once.
float coefficientA(int l, int m)
{
    const long double ll = l, mm = m;
    if (m == l) return float(-std::sqrt((2 * ll + 1) / (2 * ll)));
    return float(std::sqrt((4 * ll * ll - 1) / (ll * ll - mm * mm)));
}

float coefficientB(int l, int m)
{
    const long double ll = l, mm = m;
    return float(-std::sqrt((2 * ll + 1) * ((ll - 1) * (ll - 1) - mm * mm) /
                            ((2 * ll - 3) * (ll * ll - mm * mm))));
}

}  // namespace

TEST(ShStateSize, DocumentedSizesAndStatusesInOrder)
{
    struct SizeCase {
        bool nullSize;
        unsigned order;
        int method;
        Status expected;
        int size;
    };
    std::vector<SizeCase> cases = {
        {false, 0, SHMethodDirect, StatusOk, 16},
        {false, 15, SHMethodDirect, StatusOk, 16},
        {false, 16, SHMethodDirect, StatusBadSize, 0},
        {false, UINT_MAX, SHMethodDirect, StatusBadSize, 0},
        {false, 2, SHMethodRecurrence, StatusOk, 80},
        {false, 0, 2, StatusOutOfRange, 0},
        {false, 16, 2, StatusOutOfRange, 0},
        {false, 0, -1, StatusOutOfRange, 0},
        {false, 3, INT_MIN, StatusOutOfRange, 0},
        {true, 16, SHMethodDirect, StatusNullPointer, 0},
        {true, 0, 2, StatusNullPointer, 0},
        {true, 3, SHMethodRecurrence, StatusNullPointer, 0},
    };
    for (unsigned order : {0u, 1u, 3u, 15u, 16u, 20u, 100u, 1000u, 4000u})
        cases.push_back({false, order, SHMethodRecurrence, StatusOk,
                         ((8 * recurrenceCount(order) + 30) & ~31) + 16});
    for (const SizeCase& c : cases) {
        int size = -12345;
        EXPECT_EQ(vekrSHGetSize_32f(c.order, c.method, c.nullSize ? nullptr : &size), c.expected)
            << "order " << c.order << " method " << c.method << " null " << c.nullSize;
        EXPECT_EQ(size, c.expected == StatusOk ? c.size : -12345) << "order " << c.order;
    }
}

TEST(ShStateInit, StatusesInOrderAndNothingWrittenOnFailure)
{
    struct InitCase {
        bool nullState;
        unsigned order;
        int method;
        Status expected;
    };
    const InitCase cases[] = {
        {true, 16, 2, StatusNullPointer},
        {true, 0, SHMethodDirect, StatusNullPointer},
        {false, 16, SHMethodDirect, StatusBadSize},
        {false, UINT_MAX, SHMethodDirect, StatusBadSize},
        {false, 0, 2, StatusOutOfRange},
        {false, 16, -1, StatusOutOfRange},
        {false, 2, INT_MAX, StatusOutOfRange},
    };
    for (const InitCase& c : cases) {
        std::vector<unsigned char> buffer(1024, 0xAB);
        EXPECT_EQ(vekrSHInit_32f(c.nullState ? nullptr : buffer.data(), c.order, c.method),
                  c.expected)
            << "order " << c.order << " method " << c.method << " null " << c.nullState;
        EXPECT_EQ(buffer, std::vector<unsigned char>(1024, 0xAB)) << "order " << c.order;
    }
}

// The state fills exactly its reported size (a guard page on either side): header, table A at
// offset 16, table B at the next 16-byte boundary after A, both band by band with
// l(l + 1) / 2 + m as the index of (l, m), and zero bytes everywhere else.
TEST(ShStateInit, LaysOutTheRecurrenceTablesAndClearsTheRest)
{
    for (unsigned order : {0u, 1u, 2u, 3u, 4u, 7u, 15u, 16u, 20u, 33u})
        for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
            int size = 0;
            ASSERT_EQ(vekrSHGetSize_32f(order, SHMethodRecurrence, &size), StatusOk);
            GuardedArray<unsigned char> buffer(size_t(size), end);
            std::memset(buffer.data(), 0xAB, size_t(size));
            ASSERT_EQ(vekrSHInit_32f(buffer.data(), order, SHMethodRecurrence), StatusOk);
            SHState header;
            std::memcpy(&header, buffer.data(), sizeof header);
            const int n = recurrenceCount(order);
            EXPECT_EQ(header.order, order);
            EXPECT_EQ(header.method, SHMethodRecurrence);
            ASSERT_EQ(header.coeffA, 16u) << "order " << order;
            ASSERT_EQ(header.coeffB, roundUp16(16 + 4 * uint32_t(n))) << "order " << order;
            ASSERT_LE(header.coeffB + 4 * uint32_t(n), uint32_t(size)) << "order " << order;

            // Expected bytes of the whole buffer past the header: zero but for the tables.
            std::vector<float> expected(size_t(size - 16) / 4, 0.0f);
            float* a = expected.data() + (header.coeffA - 16) / 4;
            float* b = expected.data() + (header.coeffB - 16) / 4;
            // Bands 0 and 1 of A are filled for every order (for order 0 in the padding).
            a[0] = kY00, a[1] = float(0.4886025119029199), a[2] = -float(0.4886025119029199);
            for (int l = 2; l <= int(order); ++l)
                for (int m = 0; m <= l; ++m) {
                    a[l * (l + 1) / 2 + m] = coefficientA(l, m);
                    if (m <= l - 2) b[l * (l + 1) / 2 + m] = coefficientB(l, m);
                }
            const float* actual = reinterpret_cast<const float*>(buffer.data() + 16);
            for (size_t i = 0; i < expected.size(); ++i)
                ASSERT_EQ(floatBits(actual[i]), floatBits(expected[i]))
                    << "order " << order << ", byte offset " << 16 + 4 * i;
        }
    for (unsigned order : {0u, 15u}) {
        GuardedArray<unsigned char> buffer(16);
        std::memset(buffer.data(), 0xAB, 16);
        ASSERT_EQ(vekrSHInit_32f(buffer.data(), order, SHMethodDirect), StatusOk);
        const uint32_t expected[4] = {order, SHMethodDirect, 0, 0};
        EXPECT_EQ(std::memcmp(buffer.data(), expected, 16), 0) << "order " << order;
    }
}

// The tables are found by offset, so a state moved to a block aligned differently and the
// original overwritten still evaluates as before.
TEST(ShStateInit, ACopiedRecurrenceStateEvaluatesLikeTheOriginal)
{
    const Directions d = testDirections(40, 4);
    for (unsigned order : {2u, 15u, 20u}) {
        ShStateBuffer original(order, SHMethodRecurrence);
        std::vector<float> before(size_t(d.size() * kMaxShCount), kSentinel), after = before;
        ASSERT_EQ(vekrSH_32f(d.x.data(), d.y.data(), d.z.data(), d.size(), before.data(),
                             std::min(order, 15u), original.state()),
                  StatusOk);
        std::unique_ptr<unsigned char, void (*)(void*)> block(
            static_cast<unsigned char*>(vekMalloc(original.size() + 16)), vekFree);
        std::memcpy(block.get() + 16, original.bytes(), original.size());
        std::memset(original.bytes(), 0xFF, original.size());
        ASSERT_EQ(
            vekrSH_32f(d.x.data(), d.y.data(), d.z.data(), d.size(), after.data(),
                       std::min(order, 15u), reinterpret_cast<const SHState*>(block.get() + 16)),
            StatusOk);
        EXPECT_EQ(std::memcmp(before.data(), after.data(), before.size() * 4), 0)
            << "order " << order;
    }
}

// --- Argument checks ------------------------------------------------------------------------

namespace {

// A valid call of either basis function that a check then spoils.
struct BasisCall {
    static constexpr int kLength = 3;
    ShStateBuffer small;
    ShStateBuffer wide{20, SHMethodRecurrence};
    SHState patched{};
    float xs[kLength] = {0.6f, 0.0f, -1.0f}, ys[kLength] = {0.8f, 0.0f, 0.0f},
          zs[kLength] = {0.0f, 1.0f, 0.0f};
    std::vector<float> out = std::vector<float>(kLength * kMaxShCount, kSentinel);
    const float* x = xs;
    const float* y = ys;
    const float* z = zs;
    float* dst = out.data();
    int length = kLength;
    unsigned order = 2;
    unsigned band = 2;
    const SHState* state = small.state();

    explicit BasisCall(int method) : small(2, method) {}
    bool outputsUntouched() const
    {
        const std::vector<float> fresh(out.size(), kSentinel);
        return std::memcmp(out.data(), fresh.data(), out.size() * 4) == 0;
    }
    void patchMethod(int method)
    {
        patched = *state;
        patched.method = method;
        state = &patched;
    }
};

using BasisCheck = CallCheck<BasisCall>;

struct BasisContract {
    const char* name;
    Status (*run)(BasisCall&);
    std::vector<BasisCheck> checks;  // in the documented order
    std::vector<BasisCheck> alone;   // each on an otherwise valid call
};

void PrintTo(const BasisContract& c, std::ostream* os)
{
    *os << c.name;
}

const BasisCheck kNullX = {"null x", [](BasisCall& c) { c.x = nullptr; }, StatusNullPointer};
const BasisCheck kNullY = {"null y", [](BasisCall& c) { c.y = nullptr; }, StatusNullPointer};
const BasisCheck kNullZ = {"null z", [](BasisCall& c) { c.z = nullptr; }, StatusNullPointer};
const BasisCheck kNullDst = {"null dst", [](BasisCall& c) { c.dst = nullptr; }, StatusNullPointer};
const BasisCheck kLength0 = {"length 0", [](BasisCall& c) { c.length = 0; }, StatusBadSize};
const BasisCheck kNegative = {"length -5", [](BasisCall& c) { c.length = -5; }, StatusOk};

class ShBasisChecks : public testing::TestWithParam<BasisContract> {};

}  // namespace

TEST_P(ShBasisChecks, FirstFailingCheckInOrderWinsAndNothingIsWritten)
{
    for (int method : {SHMethodDirect, SHMethodRecurrence}) {
        expectChecksInOrder(GetParam().checks, method, GetParam().run);
        for (const BasisCheck& c : GetParam().alone)
            expectChecksInOrder(std::vector<BasisCheck>{c}, method, GetParam().run);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Functions, ShBasisChecks,
    testing::Values(
        BasisContract{
            "SH",
            [](BasisCall& c) {
                return vekrSH_32f(c.x, c.y, c.z, c.length, c.dst, c.order, c.state);
            },
            {kNullX,
             kNullY,
             kNullZ,
             kNullDst,
             {"null state", [](BasisCall& c) { c.state = nullptr; }, StatusNullPointer},
             kLength0,
             {"order above the state's", [](BasisCall& c) { c.order = c.state->order + 1; },
              StatusOutOfRange},
             {"unknown method", [](BasisCall& c) { c.patchMethod(2); }, StatusOutOfRange},
             {"order 16 on an order-20 state",
              [](BasisCall& c) { c.state = c.wide.state(), c.order = 16; }, StatusOutOfRange},
             kNegative},
            {{"method -1", [](BasisCall& c) { c.patchMethod(-1); }, StatusOutOfRange},
             {"length INT_MIN", [](BasisCall& c) { c.length = INT_MIN; }, StatusOk},
             {"order UINT_MAX on an order-20 state",
              [](BasisCall& c) { c.state = c.wide.state(), c.order = UINT_MAX; },
              StatusOutOfRange}}},
        BasisContract{
            "SHBand",
            [](BasisCall& c) { return vekrSHBand_32f(c.x, c.y, c.z, c.length, c.dst, c.band); },
            {kNullX,
             kNullY,
             kNullZ,
             kNullDst,
             {"band 16", [](BasisCall& c) { c.band = 16; }, StatusOutOfRange},
             kLength0,
             kNegative},
            {{"band UINT_MAX", [](BasisCall& c) { c.band = UINT_MAX; }, StatusOutOfRange},
             {"length INT_MIN", [](BasisCall& c) { c.length = INT_MIN; }, StatusOk}}}),
    [](const auto& info) { return std::string(info.param.name); });
