// SPDX-License-Identifier: Apache-2.0
#include "Provider/RandomSampling.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Provider/MinimalStandardEngine.h"
#include "Provider/RandSeed.h"
#include "Provider/Variates.h"
#include "RandState.h"
#include "TestClock.h"
#include "Vectors.h"

namespace {

constexpr int kLargest = 2147483647;  ///< largest result of rand_r
constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();

// The vectors were made with log and pow of the GNU C library. Its results are identical on all x86 processors, with 32
// and 64 bits, so the vectors are exact there. Elsewhere each function may be off by one unit in the last place, and a
// variate calls a few of them.
#if (defined(__x86_64__) || defined(__i386__)) && defined(__GLIBC__)
constexpr std::int64_t kLastPlaces = 0;
#else
constexpr std::int64_t kLastPlaces = 4;
#endif

std::int64_t Bits(double value) {
    std::int64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
}

/// A source of bits that returns chosen uniform variates, and throws after the last one.
class Script {
public:
    Script(std::initializer_list<double> uniforms) : m_uniforms(uniforms) {}

    std::uint64_t operator()() { return static_cast<std::uint64_t>(std::ldexp(m_uniforms.at(m_taken++), 53)); }

    std::size_t Left() const { return m_uniforms.size() - m_taken; }

private:
    std::vector<double> m_uniforms;
    std::size_t m_taken = 0;
};

/// A source that draws from the library's generator and throws after a bound: a loop that never ends becomes a failure.
class BoundedSource {
public:
    explicit BoundedSource(unsigned int seed) : m_state(seed) {}

    unsigned int State() const { return m_state; }

    std::uint64_t operator()() {
        constexpr int kMostDraws = 10000;
        if (++m_draws > kMostDraws) {
            throw std::runtime_error("no value was accepted");
        }
        return RandR(m_state)();
    }

private:
    unsigned int m_state;
    int m_draws = 0;
};

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kLargestDouble = std::numeric_limits<double>::max();
constexpr double kSmallestNormal = std::numeric_limits<double>::min();
constexpr double kSmallestDouble = std::numeric_limits<double>::denorm_min();

/// Parameters, also used negated, at which a method, its arithmetic or its comparisons change.
const double kEdges[] = {0.0,
                         kSmallestDouble,
                         1e-320,
                         3.8e-309,
                         3.9e-309,
                         5.5e-309,
                         5.7e-309,
                         kSmallestNormal,
                         1.1e-307,
                         1.2e-307,
                         1e-300,
                         1e-100,
                         1e-30,
                         1e-17,
                         1e-16,
                         1e-8,
                         1e-5,
                         9.3e-4,
                         9.31e-4,
                         0.001,
                         0.0268,
                         0.03,
                         0.1,
                         1.0 / 3.0,
                         0.5 - 0x1p-54,
                         0.5,
                         0.5 + 0x1p-53,
                         0.7,
                         0.9999,
                         1.0 - 0x1p-53,
                         1.0,
                         1.0 + 0x1p-52,
                         1.0001,
                         4.0 / 3.0,
                         1.5,
                         2.0,
                         10.0,
                         1e3,
                         1e6,
                         1e15,
                         0x1p53,
                         0x1p53 + 2.0,
                         1e17,
                         1e30,
                         1e154,
                         1e155,
                         1e300,
                         1e307,
                         kLargestDouble / 9.0,
                         kLargestDouble / 2.0,
                         kLargestDouble,
                         kInfinity,
                         kNotANumber};

std::vector<double> EdgeParameters() {
    std::vector<double> parameters;
    for (const double edge : kEdges) {
        parameters.push_back(edge);
        parameters.push_back(-edge);
    }
    return parameters;
}

/// The uniform variate from two draws of all ones.
constexpr double kHighest = 0.5 - (0x1p-27 - 0x1p-28) - 0x1p-53;

/// The uniform variate from two draws.
double UniformOf(int first, int second) {
    return (static_cast<double>(first >> 5) * 67108864.0 + static_cast<double>(second >> 6)) * 1.1102230246251565e-16;
}

class RandomSamplingTest : public ::testing::Test {
protected:
    void SetUp() override { RandState::Set(1); }

    using Variate = std::function<double(const std::vector<double>& parameters)>;

    /// Repeats every recorded series of a name. The final state shows that the number of draws is the same.
    static void ExpectVectors(const std::string& name, const Variate& variate, std::int64_t lastPlaces) {
        for (const Vectors::Record& record : Vectors::Read(LUMORA_TEST_DATA "/vectors/sampling.txt", name)) {
            const std::vector<double> parameters = record.Doubles("parameters");
            const std::vector<double> values = record.Doubles("values");
            ASSERT_GE(values.size(), 40U);
            RandState::Set(record.Unsigned("seed"));
            for (std::size_t i = 0; i < values.size(); ++i) {
                EXPECT_LE(std::abs(Bits(variate(parameters)) - Bits(values[i])), lastPlaces)
                    << name << "(" << ::testing::PrintToString(parameters) << ") number " << i;
            }
            EXPECT_EQ(RandState::Get(), record.Unsigned("end")) << name << ::testing::PrintToString(parameters);
        }
    }
};

TEST_F(RandomSamplingTest, StartsWithAStateOfOneAtAnyTime) {
    EXPECT_EQ(RandState::First(), 1U);
    for (const time_t now : {time_t{0}, time_t{1700000000}}) {
        const TestClock::Frozen clock(now);
        RandState::Set(1);
        EXPECT_EQ(RandomDouble(), 0x1.c69fb88d6a5b8p-4);
    }
}

TEST_F(RandomSamplingTest, DoesNotTouchTheStateOfRand) {
    const TestClock::Frozen clock(1700000000);
    srand(42);
    const int first = rand();
    srand(42);
    RandomDouble();
    StandardExponential();
    Gauss();
    StandardGamma(2.5);
    RandomBeta(1.5, 0.5);
    EXPECT_EQ(rand(), first);
}

TEST_F(RandomSamplingTest, DrawsTheBitsOfTheCLibrarysRandR) {
    constexpr int kSteps = 500;
    std::vector<unsigned int> seeds = {0, 1, 0xFFFFFFFF, 0x7FFFFFFF, 0xAAAAAAAA, 0x55555555};
    for (int bit = 0; bit < 32; ++bit) {
        seeds.push_back(1U << bit);
        seeds.push_back((1U << bit) - 1);
    }
    std::mt19937 chance(8);
    for (int i = 0; i < 2000; ++i) {
        seeds.push_back(static_cast<unsigned int>(chance()));
    }
    for (const unsigned int seed : seeds) {
        unsigned int state = seed;
        unsigned int ours = seed;
        for (int i = 0; i < kSteps; ++i) {
            const int first = rand_r(&state);
            const int second = rand_r(&state);
            const std::uint64_t bits = RandR(ours)();
            ASSERT_EQ(bits >> 26, static_cast<unsigned int>(first) >> 5) << seed << ", step " << i;
            ASSERT_EQ(bits & 0x3FFFFFF, static_cast<unsigned int>(second) >> 6) << seed << ", step " << i;
            ASSERT_EQ(ours, state) << seed << ", step " << i;
        }
    }
}

TEST_F(RandomSamplingTest, MakesADoubleFromTwoDraws) {
    unsigned int seed = 77;
    RandState::Set(seed);
    for (int i = 0; i < 1000; ++i) {
        const int first = rand_r(&seed);
        const int second = rand_r(&seed);
        ASSERT_EQ(RandomDouble(), UniformOf(first, second));
        ASSERT_EQ(RandState::Get(), seed);
    }
}

TEST_F(RandomSamplingTest, StaysInTheLowerHalfOfTheUnitInterval) {
    const struct {
        const char* name;
        int first, second;
        double expected;
    } rows[] = {
        {"the lowest", 0, 0, 0.0},
        {"only bits that are shifted out", 31, 63, 0.0},
        {"the lowest bit of the second draw", 0, 64, 0x1p-53},
        {"the lowest bit of the first draw", 32, 0, 0x1p-27},
        {"the highest", kLargest, kLargest, kHighest},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(UniformOf(row.first, row.second), row.expected) << row.name;
        Script draw = {row.expected};
        EXPECT_EQ(Variates::Uniform(draw), row.expected) << row.name;
    }
    EXPECT_LT(kHighest, 0.5);
}

TEST_F(RandomSamplingTest, DrawsUniformVariatesExactly) {
    ExpectVectors(
        "uniform", [](const auto&) { return RandomDouble(); }, 0);
}

TEST_F(RandomSamplingTest, DrawsExponentialVariates) {
    ExpectVectors(
        "exponential", [](const auto&) { return StandardExponential(); }, kLastPlaces);
}

TEST_F(RandomSamplingTest, DrawsNormalVariates) {
    ExpectVectors(
        "normal", [](const auto&) { return Gauss(); }, kLastPlaces);
}

TEST_F(RandomSamplingTest, DrawsGammaVariates) {
    ExpectVectors(
        "gamma", [](const auto& parameters) { return StandardGamma(parameters.at(0)); }, kLastPlaces);
}

TEST_F(RandomSamplingTest, DrawsBetaVariates) {
    ExpectVectors(
        "beta", [](const auto& parameters) { return RandomBeta(parameters.at(0), parameters.at(1)); }, kLastPlaces);
}

TEST_F(RandomSamplingTest, ExponentialVariatesEndAtTheLogarithmOfTwo) {
    Script draw = {0.0, kHighest};
    EXPECT_EQ(Variates::Exponential(draw), 0.0);
    const double highest = Variates::Exponential(draw);
    EXPECT_LE(highest, std::log(2.0));
    EXPECT_GT(highest, std::log(2.0) - 1e-8);
}

TEST_F(RandomSamplingTest, NormalVariatesAreNeverPositive) {
    double highest = -1.0;
    for (int i = 0; i < 100000; ++i) {
        highest = std::max(highest, Gauss());
    }
    EXPECT_LT(highest, 0.0);
    EXPECT_GT(highest, -1e-3);
}

TEST_F(RandomSamplingTest, RedrawsNormalVariatesOutsideTheUnitCircle) {
    Script inside = {0.4, 0.3};  // the point (-0.2, -0.4)
    const double expected = Variates::Normal(inside);
    EXPECT_NEAR(expected, -0.4 * std::sqrt(-2.0 * std::log(0.2) / 0.2), 1e-14);

    const struct {
        const char* name;
        double first, second;
    } rows[] = {
        {"the corner, with a squared radius of 2", 0.0, 0.0},
        {"on an axis", 0.0, 0.5 - 0x1p-53},
        {"so near an axis that the square rounds to 1.0", 0.0, kHighest},
        {"the same at the other axis", kHighest, 0.0},
    };
    for (const auto& row : rows) {
        Script draw = {row.first, row.second, 0.4, 0.3};
        EXPECT_EQ(Variates::Normal(draw), expected) << row.name;
        EXPECT_EQ(draw.Left(), 0U) << row.name;
    }
    Script within = {0x1p-53, kHighest, 0.4, 0.3};
    EXPECT_LT(Variates::Normal(within), 0.0);
    EXPECT_EQ(within.Left(), 2U);
}

TEST_F(RandomSamplingTest, NormalVariatesAreNotCached) {
    Script draw = {0.4, 0.3, 0.4, 0.3};
    const double first = Variates::Normal(draw);
    EXPECT_EQ(Variates::Normal(draw), first);
    EXPECT_EQ(draw.Left(), 0U);
}

TEST_F(RandomSamplingTest, GammaOfShapeOneIsOneExponentialVariate) {
    const double gamma = StandardGamma(1.0);
    EXPECT_EQ(RandState::Draws(), 2);
    RandState::Set(1);
    EXPECT_EQ(gamma, StandardExponential());
}

TEST_F(RandomSamplingTest, GammaBelowOneBranchesAtOneMinusTheShape) {
    // For shape 0.75, the first branch includes 0.25. Both scripts give the same exponential variate.
    Script first = {0.25, 0.375};
    EXPECT_EQ(Variates::Gamma(first, 0.75), std::pow(0.25, 1.0 / 0.75));
    EXPECT_EQ(first.Left(), 0U);
    Script second = {0.25 + 0x1p-53, 0.375};
    const double y = -std::log((0.75 - 0x1p-53) / 0.75);
    EXPECT_EQ(Variates::Gamma(second, 0.75), std::pow(0.25 + 0.75 * y, 1.0 / 0.75));
    EXPECT_EQ(second.Left(), 0U);
}

TEST_F(RandomSamplingTest, GammaBelowOneAcceptsAValueEqualToItsBound) {
    Script draw = {0.0, 0.0};  // the value is 0, and so is the exponential variate
    EXPECT_EQ(Variates::Gamma(draw, 0.5), 0.0);
    EXPECT_EQ(draw.Left(), 0U);
}

TEST_F(RandomSamplingTest, GammaBelowOneAcceptsEqualityInBothBranches) {
    constexpr double kShape = 0.75;
    for (int step = 0; step < 100000; ++step) {
        const double u = 0.3125 + step * 0x1p-20;
        const double y = -std::log((1.0 - u) / kShape);
        const double x = std::pow(1.0 - kShape + kShape * y, 1.0 / kShape);
        const double other = std::floor(-std::expm1(y - x) * 0x1p53) * 0x1p-53;
        if (-std::log(1.0 - other) + y == x) {
            Script draw = {u, other};
            EXPECT_EQ(Variates::Gamma(draw, kShape), x);
            EXPECT_EQ(draw.Left(), 0U);
            return;
        }
    }
    FAIL() << "no draws lead to equality";
}

/// @return what the method for shapes above 1 computes from a normal variate; it redraws unless this is above 0.
double CandidateOf(double shape, double normal) {
    return 1.0 + 1.0 / std::sqrt(9.0 * (shape - 0.3333333333333333)) * normal;
}

TEST_F(RandomSamplingTest, GammaAboveOneRedrawsUpToZero) {
    constexpr double kFirst = 0.495;
    double second = 0.45;
    double shape = 0.0;
    do {  // until some shape gives a candidate of exactly 0
        second -= 0x1p-30;
        Script draw = {kFirst, second};
        const double normal = Variates::Normal(draw);
        shape = normal * normal / 9.0 + 0.3333333333333333 - 1e-14;
        while (CandidateOf(shape, normal) < 0.0) {
            shape = std::nextafter(shape, 2.0);
        }
        if (CandidateOf(shape, normal) == 0.0) {
            Script redraws = {kFirst, second, 0.4, 0.3, 0.25};
            Script accepts = {0.4, 0.3, 0.25};
            EXPECT_EQ(Variates::Gamma(redraws, shape), Variates::Gamma(accepts, shape));
            EXPECT_EQ(redraws.Left(), 0U);
            while (CandidateOf(shape, normal) == 0.0) {
                shape = std::nextafter(shape, 2.0);
            }
            Script rejects = {kFirst, second, 0.4, 0.4, 0.3, 0.25};  // a uniform variate follows the candidate
            Script acceptsToo = {0.4, 0.3, 0.25};
            EXPECT_EQ(Variates::Gamma(rejects, shape), Variates::Gamma(acceptsToo, shape));
            EXPECT_EQ(rejects.Left(), 0U);
            return;
        }
    } while (second > 0.4499);
    FAIL() << "no shape leads to 0";
}

TEST_F(RandomSamplingTest, GammaVariatesStayBelowTheirBound) {
    for (const double shape : {0.01, 0.5, 0.99, 1.0, 1.01, 2.0, 30.0}) {
        const double bound = shape > 1.0 ? shape - 0.3333333333333333 : 1.0;
        for (int i = 0; i < 20000; ++i) {
            const double gamma = StandardGamma(shape);
            ASSERT_GE(gamma, 0.0) << shape;
            ASSERT_LT(gamma, bound) << shape;
        }
    }
}

TEST_F(RandomSamplingTest, GammaVariatesOfShapeZeroAreZero) {
    EXPECT_EQ(StandardGamma(0.0), 0.0);
}

TEST_F(RandomSamplingTest, GammaOfInvalidShapesIsNaNWithoutADraw) {
    for (const double shape : {-1e-300, -1.0, -std::numeric_limits<double>::infinity(), kNotANumber}) {
        EXPECT_TRUE(std::isnan(StandardGamma(shape))) << shape;
    }
    EXPECT_EQ(RandState::Draws(), 0);
}

TEST_F(RandomSamplingTest, BetaOfOnesIsTheRatioOfUniformVariates) {
    Script draw = {0.125, 0.375};
    EXPECT_EQ(Variates::Beta(draw, 1.0, 1.0), 0.25);
    EXPECT_EQ(draw.Left(), 0U);
}

TEST_F(RandomSamplingTest, BetaUsesLogarithmsWhenBothPowersUnderflow) {
    constexpr double kTiny = 1e-5;
    Script draw = {0.25, 0.25, 0.25, 0.25 + 0x1p-52};
    EXPECT_EQ(Variates::Beta(draw, kTiny, kTiny), 0.5);
    const double ratio = std::exp((std::log(0.25) - std::log(0.25 + 0x1p-52)) / kTiny);
    EXPECT_NEAR(Variates::Beta(draw, kTiny, kTiny), ratio / (1.0 + ratio), 1e-12);
    EXPECT_LT(ratio, 1.0);
    EXPECT_EQ(draw.Left(), 0U);
}

TEST_F(RandomSamplingTest, BetaUsesLogarithmsAsStated) {
    constexpr double kTiny = 1e-5;
    for (int step = 1; step < 100; ++step) {
        const double u = 0.25 + step * 0x1p-27;
        const double v = 0.25 + step * step * 0x1p-30;
        double lx = std::log(u) / kTiny;
        double ly = std::log(v) / kTiny;
        const double m = std::max(lx, ly);
        lx -= m;
        ly -= m;
        Script draw = {u, v};
        ASSERT_EQ(Variates::Beta(draw, kTiny, kTiny), std::exp(lx - std::log(std::exp(lx) + std::exp(ly)))) << step;
    }
}

TEST_F(RandomSamplingTest, BetaUsesPowersUnlessBothUnderflow) {
    const struct {
        const char* name;
        double u, v, parameter;
    } rows[] = {
        {"nearly 1", 0.46875, 0.484375, 1.0},
        {"denormal powers", 0.25, 0.2578125, 1.0 / 514.0},
        {"the first underflows", 0.25, 0.25 + 0x1p-13, 1.0 / 537.6},
        {"the second underflows", 0.25 + 0x1p-13, 0.25, 1.0 / 537.6},
    };
    for (const auto& row : rows) {
        const double x = std::pow(row.u, 1.0 / row.parameter);
        const double y = std::pow(row.v, 1.0 / row.parameter);
        ASSERT_GT(x + y, 0.0) << row.name;
        Script draw = {row.u, row.v};
        EXPECT_EQ(Variates::Beta(draw, row.parameter, row.parameter), x / (x + y)) << row.name;
        EXPECT_EQ(draw.Left(), 0U) << row.name;
    }
    EXPECT_EQ(std::pow(0.25, 537.6), 0.0);
}

TEST_F(RandomSamplingTest, BetaAboveOneIsTheRatioOfGammaVariates) {
    const struct {
        double a, b;
    } rows[] = {{1.5, 0.5}, {0.5, 1.5}, {1.0, 1.0000000000000002}, {1.0000000000000002, 1.0}, {4.0, 2.0}};
    for (const auto& row : rows) {
        RandState::Set(9);
        const double ga = StandardGamma(row.a);
        const double gb = StandardGamma(row.b);
        const unsigned int end = RandState::Get();
        RandState::Set(9);
        EXPECT_EQ(RandomBeta(row.a, row.b), ga / (ga + gb)) << row.a << " " << row.b;
        EXPECT_EQ(RandState::Get(), end) << row.a << " " << row.b;
    }
}

TEST_F(RandomSamplingTest, BetaVariatesStayInTheUnitInterval) {
    for (const double parameter : {1e-5, 1e-3, 0.4, 1.0, 3.0}) {
        for (int i = 0; i < 5000; ++i) {
            const double beta = RandomBeta(parameter, parameter);
            ASSERT_GE(beta, 0.0) << parameter;
            ASSERT_LE(beta, 1.0) << parameter;
        }
    }
}

TEST_F(RandomSamplingTest, BetaVariatesOfOnesFavourTheMiddle) {
    constexpr int kCount = 100000;
    int middle = 0;
    for (int i = 0; i < kCount; ++i) {
        const double beta = RandomBeta(1.0, 1.0);
        middle += beta > 0.25 && beta < 0.75;
    }
    EXPECT_NEAR(middle, kCount * 2.0 / 3.0, kCount * 0.01);  // a uniform distribution would have half of them there
}

TEST_F(RandomSamplingTest, BetaOfAZeroParameterIsZeroOrOne) {
    EXPECT_EQ(RandomBeta(0.0, 0.5), 0.0);
    EXPECT_EQ(RandomBeta(0.5, 0.0), 1.0);
    EXPECT_EQ(RandomBeta(0.0, 2.0), 0.0);
    EXPECT_TRUE(std::isnan(RandomBeta(0.0, 0.0)));
}

TEST_F(RandomSamplingTest, BetaOfInvalidParametersIsNaN) {
    const struct {
        double a, b;
    } rows[] = {{-1.0, 0.5}, {0.5, -1.0},        {-1.0, -1.0},      {-1.0, 2.0},
                {2.0, -1.0}, {kNotANumber, 1.0}, {0.5, kNotANumber}};
    for (const auto& row : rows) {
        EXPECT_TRUE(std::isnan(RandomBeta(row.a, row.b))) << row.a << " " << row.b;
    }
}

TEST_F(RandomSamplingTest, MinusZeroIsZero) {
    const auto expectEqual = [](const auto& variate) {
        for (const unsigned int seed : {1U, 99U, 12345U}) {
            BoundedSource zero(seed);
            BoundedSource minusZero(seed);
            EXPECT_EQ(variate(minusZero, -0.0), variate(zero, 0.0));
            EXPECT_EQ(minusZero.State(), zero.State());
        }
    };
    expectEqual([](BoundedSource& draw, double zero) { return Variates::Gamma(draw, zero); });
    for (const double other : {0.5, 1.0, 2.0}) {
        expectEqual([other](BoundedSource& draw, double zero) { return Variates::Beta(draw, zero, other); });
        expectEqual([other](BoundedSource& draw, double zero) { return Variates::Beta(draw, other, zero); });
    }
    BoundedSource draw(1);
    EXPECT_TRUE(std::isnan(Variates::Beta(draw, -0.0, -0.0)));
    EXPECT_TRUE(std::isnan(Variates::Beta(draw, -0.0, 0.0)));
}

TEST_F(RandomSamplingTest, GammaEndsAsStatedForAnyShape) {
    for (const double shape : EdgeParameters()) {
        for (unsigned int seed = 0; seed < 300; ++seed) {
            BoundedSource draw(seed * 14316557U + 1U);
            const double gamma = Variates::Gamma(draw, shape);
            ASSERT_EQ(std::isnan(gamma), std::isnan(shape) || shape < 0.0) << shape;
            ASSERT_EQ(std::isinf(gamma), std::isinf(shape) && shape > 0.0) << shape;
            if (shape >= 0.0 && shape <= 0.00093) {
                ASSERT_EQ(gamma, 0.0) << shape;
            } else if (shape > 0.0268) {
                ASSERT_GT(gamma, 0.0) << shape;
            }
        }
    }
}

/// What the header promises of a beta variate.
bool IsPromised(double a, double b, double beta) {
    const bool isValid = a >= 0.0 && b >= 0.0;
    const bool isNaN = !isValid || std::isinf(a) || std::max(a, b) < 3.8e-309;
    const bool mayBeNaN = isNaN || std::max(a, b) < 1.2e-307;
    if (std::isnan(beta)) {
        return mayBeNaN;
    }
    const bool isZero = a == 0.0 || std::isinf(b) || std::isinf(a + b);
    return !isNaN && beta >= 0.0 && beta <= 1.0 && (!isZero || beta == 0.0);
}

TEST_F(RandomSamplingTest, BetaEndsAsStatedForAnyParameters) {
    for (const double a : EdgeParameters()) {
        for (const double b : EdgeParameters()) {
            for (unsigned int seed = 0; seed < 30; ++seed) {
                BoundedSource draw(seed * 143165577U + 1U);
                const double beta = Variates::Beta(draw, a, b);
                ASSERT_TRUE(IsPromised(a, b, beta)) << a << " " << b << ": " << beta;
            }
        }
    }
}

TEST_F(RandomSamplingTest, VariatesEndAsStatedForRandomParameters) {
    std::mt19937_64 random(12);
    for (int round = 0; round < 100000; ++round) {
        double parameters[2];
        for (double& parameter : parameters) {
            const std::uint64_t bits = random() >> (round % 3);  // small exponents, and the other half
            std::memcpy(&parameter, &bits, sizeof(parameter));
        }
        BoundedSource draw(static_cast<unsigned int>(random()));
        const double beta = Variates::Beta(draw, parameters[0], parameters[1]);
        ASSERT_TRUE(IsPromised(parameters[0], parameters[1], beta)) << parameters[0] << " " << parameters[1];
        const double gamma = Variates::Gamma(draw, parameters[0]);
        ASSERT_EQ(std::isnan(gamma), !(parameters[0] >= 0.0)) << parameters[0];
    }
}

TEST_F(RandomSamplingTest, UniformVariatesEndWhereStated) {
#ifdef __GLIBC__
    // The states before the lowest and the highest variate of all 2^32 states.
    RandState::Set(102081559);
    EXPECT_EQ(RandomDouble(), 20031234 * 0x1p-53);
    EXPECT_GT(20031234 * 0x1p-53, 2.2e-9);
    RandState::Set(86179032);
    EXPECT_EQ(RandomDouble(), 4503599586336602 * 0x1p-53);
    EXPECT_LT(4503599586336602 * 0x1p-53, 0.4999999955);
#endif
}

TEST(MinimalStandardEngineTest, MatchesGenerateCanonical) {
    MinimalStandardEngine engine;
    std::minstd_rand0 standard(1);
    EXPECT_EQ(MinimalStandardEngine().Canonical(), 0.13153778773876065);
    for (int i = 0; i < 100000; ++i) {
        ASSERT_EQ(engine.Canonical(), (std::generate_canonical<double, 53>(standard))) << i;
    }
}

TEST(MinimalStandardEngineTest, StaysBelowOne) {
    EXPECT_EQ(MinimalStandardEngine::CanonicalOf(1, 1), 0.0);
    EXPECT_EQ(MinimalStandardEngine::CanonicalOf(2147483646, 2147483646), std::nextafter(1.0, 0.0));
}

}  // namespace
