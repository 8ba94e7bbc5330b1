// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_PROVIDER_HIGHEST_FIRST_H
#define LUMORA_COMMON_SRC_PROVIDER_HIGHEST_FIRST_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <list>
#include <numeric>
#include <vector>

/// The order of a ranking: that of a stable merge sort of all scores, cut to the highest ones.
namespace Ranked {

using Score = std::vector<double>::const_iterator;

inline bool IsNaN(double score) {
    return std::isnan(score);
}

/// Sorts with the list's own merge sort. A NaN score has no place in an order, so the steps of this sort define it.
inline std::vector<Score> HighestFirstWithNaN(const std::vector<double>& scores, std::size_t count) {
    std::list<Score> all(scores.size());
    std::iota(all.begin(), all.end(), scores.begin());
    all.sort([](Score a, Score b) { return *a > *b; });
    all.resize(std::min(count, all.size()));
    return {all.begin(), all.end()};
}

/// @return the `count` highest scores, highest first; equal scores keep their order.
inline std::vector<Score> HighestFirst(const std::vector<double>& scores, std::size_t count) {
    const auto ranksBefore = [](Score a, Score b) { return *a > *b || (*a == *b && a < b); };
    std::vector<Score> highest(std::min(count, scores.size()));
    if (highest.empty()) {
        return highest;
    }
    std::iota(highest.begin(), highest.end(), scores.begin());
    const Score others = highest.back() + 1;
    if (std::any_of(scores.begin(), others, IsNaN)) {
        return HighestFirstWithNaN(scores, count);
    }

    // A heap with the lowest score at its front. Another score enters only if it is higher: an equal one comes later.
    // The negated comparison also finds a NaN.
    std::make_heap(highest.begin(), highest.end(), ranksBefore);
    double lowest = *highest.front();
    const auto enters = [&lowest](double score) { return !(score <= lowest); };
    for (Score next = std::find_if(others, scores.end(), enters); next != scores.end();
         next = std::find_if(next + 1, scores.end(), enters)) {
        if (IsNaN(*next)) {
            return HighestFirstWithNaN(scores, count);
        }
        std::pop_heap(highest.begin(), highest.end(), ranksBefore);
        highest.back() = next;
        std::push_heap(highest.begin(), highest.end(), ranksBefore);
        lowest = *highest.front();
    }
    std::sort_heap(highest.begin(), highest.end(), ranksBefore);
    return highest;
}

}  // namespace Ranked

#endif  // LUMORA_COMMON_SRC_PROVIDER_HIGHEST_FIRST_H
