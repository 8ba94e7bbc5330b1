// SPDX-License-Identifier: Apache-2.0
#include "Evaluation.h"

#include <ctime>

namespace {

// Common values, not tuned to any history.
constexpr double kEpsilon = 0.1;
constexpr double kTemperature = 0.1;
constexpr double kPrior = 1.0;
constexpr double kObservationNoise = 1.0;
constexpr double kProcessNoise = 0.001;
constexpr double kInitialMean = 0.0;
constexpr double kInitialVariance = 1.0;

constexpr std::size_t kRewarded = 3;

/// @return the place of a unit, from 1. Counting the units that rank higher is cheaper than sorting.
std::size_t PlaceOf(std::size_t unit, const std::vector<std::unique_ptr<CCuratorBaseUnit>>& units, int day, int hour) {
    const double score = units[unit]->GetScore(day, hour);
    std::size_t place = 1;
    for (std::size_t other = 0; other < units.size(); ++other) {
        const double otherScore = units[other]->GetScore(day, hour);
        place += (otherScore > score || (otherScore == score && other < unit)) ? 1 : 0;
    }
    return place;
}

}  // namespace

void Evaluation::Result::Count(std::size_t place) {
    ++tries;
    if (place == 0) {
        return;
    }
    first += place <= 1 ? 1 : 0;
    amongThree += place <= 3 ? 1 : 0;
    amongFive += place <= 5 ? 1 : 0;
    inverses += 1.0 / static_cast<double>(place);
}

Evaluation::Evaluation() {
    const char* const names[] = {"recency", "total use", "week pattern"};
    for (std::size_t ranking = 0; ranking < kRankings; ++ranking) {
        m_rankings[ranking].result.name = names[ranking];
    }
    const int n = static_cast<int>(kRankings);
    const auto add = [this](const char* name, std::unique_ptr<ReinforcementLearningAgent> agent) {
        Bandit bandit;
        bandit.result.name = name;
        bandit.agent = std::move(agent);
        m_bandits.push_back(std::move(bandit));
    };
    add("epsilon-greedy", std::make_unique<EpsilonGreedyAgent>(n, kEpsilon));
    add("softmax", std::make_unique<SoftmaxAgent>(n, kTemperature));
    add("most chosen", std::make_unique<MFUAgent>(n));
    add("Thompson", std::make_unique<ThomsonSamplingAgent>(n, kPrior, kPrior));
    add("Kalman",
        std::make_unique<KalmanFilterAgent>(n, kObservationNoise, kProcessNoise, kInitialMean, kInitialVariance));
}

void Evaluation::Take(const CuratorBaseData& record, bool isTested) {
    if (isTested) {
        Test_(record);
    }
    Learn_(record);
}

std::vector<Evaluation::Result> Evaluation::Results() const {
    std::vector<Result> results;
    for (const Ranking& ranking : m_rankings) {
        results.push_back(ranking.result);
    }
    for (const Bandit& bandit : m_bandits) {
        results.push_back(bandit.result);
    }
    return results;
}

void Evaluation::Test_(const CuratorBaseData& record) {
    const time_t start = record.m_nStartTime;
    tm local{};
    localtime_r(&start, &local);
    const auto known = m_order.find(record.GetUnitId());
    std::array<std::size_t, kRankings> places{};
    for (std::size_t ranking = 0; ranking < kRankings; ++ranking) {
        if (known != m_order.end()) {
            places[ranking] = PlaceOf(known->second, m_rankings[ranking].units, local.tm_wday, local.tm_hour);
        }
        m_rankings[ranking].result.Count(places[ranking]);
    }
    for (Bandit& bandit : m_bandits) {
        const int choice = bandit.agent->ChooseAction();
        const std::size_t place = places[static_cast<std::size_t>(choice)];
        bandit.result.Count(place);
        bandit.agent->UpdateQ(choice, place > 0 && place <= kRewarded ? 1 : 0);
    }
}

void Evaluation::Learn_(const CuratorBaseData& record) {
    const std::string id = record.GetUnitId();
    const auto [entry, isNew] = m_order.emplace(id, m_order.size());
    if (isNew) {
        m_rankings[0].units.push_back(std::make_unique<CCuratorMRUUnit>(id));
        m_rankings[1].units.push_back(std::make_unique<CCuratorMFUUnit>(id));
        m_rankings[2].units.push_back(std::make_unique<CCuratorDateUnit>(id));
    }
    for (Ranking& ranking : m_rankings) {
        ranking.units[entry->second]->LearnHistory(record, /*weight=*/1.0);
    }
}
