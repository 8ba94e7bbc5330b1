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

/// Measures how well the rankings predict the next use.
///
/// Replays a history. Before it learns a tested record, it looks up the place of the record's unit in every ranking, as
/// learnt from all earlier records.
///
/// Each bandit agent chooses one of the rankings before every tested record. Its reward is 1 if the record's unit is
/// among the first three of the chosen ranking, else 0.
///
/// Equal scores keep the order of first appearance, as in the curation engine.
class Evaluation {
public:
    static constexpr std::size_t kRankings = 3;

    /// How often the next unit was predicted.
    struct Result {
        std::string name;
        int tries = 0;
        int first = 0;        ///< tries in which the unit was at the top
        int amongThree = 0;   ///< tries in which it was among the first three
        int amongFive = 0;    ///< tries in which it was among the first five
        double inverses = 0;  ///< sum of 1 / place; an unknown unit adds 0

        /// Counts one try.
        /// @param place  from 1; 0 for an unknown unit.
        void Count(std::size_t place);
    };

    Evaluation();

    /// Tests the rankings and agents with the next record of the history, then learns the record.
    /// @param isTested  false skips the test.
    void Take(const CuratorBaseData& record, bool isTested);

    /// @return the result of each ranking, then of each bandit agent.
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
    std::unordered_map<std::string, std::size_t> m_order;  ///< from a unit's id to its index in Ranking::units
};

#endif  // CONTEXT_HOST_EVALUATION_H
