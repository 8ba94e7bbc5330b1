// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_EVALUATION_H
#define CONTEXT_HOST_EVALUATION_H

#include <Provider/CuratorUnit.h>
#include <Provider/ReinforcementLearningAgent.h>

#include <array>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

/// How well rankings foresee the next use: replays a history and asks, before each record of its last part, where every
/// ranking has the unit that is used next, given all that came before.
///
/// Beside the rankings, each bandit agent chooses before every record which ranking to trust, and is rewarded with 1
/// when the next unit is among the first three of that ranking, else with 0.
///
/// A unit's place is found by counting the units that score higher, which takes no sorting; equal scores keep the order
/// of first appearance, as the curation engine does.
class Evaluation {
public:
    static constexpr std::size_t kRankings = 3;

    /// How often the next unit was found, and where.
    struct Result {
        std::string name;
        int tries = 0;
        int first = 0;        ///< times it was at the top
        int amongThree = 0;   ///< times it was among the first three
        int amongFive = 0;    ///< times it was among the first five
        double inverses = 0;  ///< sum of 1 / place; a unit that was never seen before has no place and adds 0

        void Count(std::size_t place);
    };

    Evaluation();

    /// Takes the next record of the history.
    /// @param isTested  false only learns it.
    void Take(const CuratorBaseData& record, bool isTested);

    /// One result for each ranking, then one for each bandit agent.
    std::vector<Result> Results() const;

private:
    struct Ranking {
        Result result;
        std::vector<std::unique_ptr<CCuratorBaseUnit>> units;  ///< in the order of first appearance
    };

    struct Bandit {
        Result result;
        std::unique_ptr<ReinforcementLearningAgent> agent;
    };

    void Test_(const CuratorBaseData& record);
    void Learn_(const CuratorBaseData& record);

    std::array<Ranking, kRankings> m_rankings;
    std::vector<Bandit> m_bandits;
    std::unordered_map<std::string, std::size_t> m_order;  ///< from a unit's id to its index in every ranking
};

#endif  // CONTEXT_HOST_EVALUATION_H
