// SPDX-License-Identifier: Apache-2.0
#include "Provider/HighestFirst.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <limits>
#include <list>
#include <random>
#include <vector>

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// @return the positions of all scores, ordered by the list's merge sort.
std::vector<std::size_t> Sorted(const std::vector<double>& scores) {
    std::list<std::size_t> positions;
    for (std::size_t i = 0; i < scores.size(); ++i) {
        positions.push_back(i);
    }
    positions.sort([&scores](std::size_t a, std::size_t b) { return scores[a] > scores[b]; });
    return {positions.begin(), positions.end()};
}

/// Compares every cut of a ranking with that of the sorted list.
void ExpectSortedAndCut(const std::vector<double>& scores) {
    const std::vector<std::size_t> sorted = Sorted(scores);
    for (std::size_t count = 0; count <= scores.size() + 1; ++count) {
        std::vector<std::size_t> highest;
        for (const Ranked::Score score : Ranked::HighestFirst(scores, count)) {
            highest.push_back(static_cast<std::size_t>(score - scores.begin()));
        }
        std::vector<std::size_t> expected = sorted;
        expected.resize(std::min(count, sorted.size()));
        ASSERT_EQ(highest, expected) << "at most " << count << " of " << ::testing::PrintToString(scores);
    }
}

TEST(HighestFirstTest, ScoresWithoutNaNAreSorted) {
    std::mt19937 random(41);
    const double few[] = {0.0, -0.0, 1.0, 2.0, -1.0, kInfinity, -kInfinity, 1e-320};
    for (int round = 0; round < 200; ++round) {
        std::vector<double> scores(random() % 40);
        for (double& score : scores) {
            score = round % 2 == 0 ? few[random() % std::size(few)] : static_cast<double>(random());
        }
        ASSERT_NO_FATAL_FAILURE(ExpectSortedAndCut(scores));
    }
}

TEST(HighestFirstTest, ScoresWithNaNAreInTheOrderOfTheMergeSort) {
    std::mt19937 random(42);
    const double few[] = {kNaN, -kNaN, 0.0, -0.0, 1.0, 2.0, 3.0, -1.0, kInfinity, -kInfinity};
    for (int round = 0; round < 400; ++round) {
        std::vector<double> scores(1 + random() % 40);
        for (double& score : scores) {
            score = round % 2 == 0 ? few[random() % std::size(few)] : static_cast<double>(random());
        }
        scores[random() % scores.size()] = kNaN;
        ASSERT_NO_FATAL_FAILURE(ExpectSortedAndCut(scores));
    }
}

TEST(HighestFirstTest, ANaNAtEachPositionIsFound) {
    for (std::size_t size = 1; size <= 20; ++size) {
        for (std::size_t position = 0; position < size; ++position) {
            std::vector<double> falling(size);
            for (std::size_t i = 0; i < size; ++i) {
                falling[i] = static_cast<double>(size - i);
            }
            std::vector<double> rising(falling.rbegin(), falling.rend());
            falling[position] = kNaN;
            rising[position] = kNaN;
            ASSERT_NO_FATAL_FAILURE(ExpectSortedAndCut(falling));
            ASSERT_NO_FATAL_FAILURE(ExpectSortedAndCut(rising));
        }
    }
}

}  // namespace
