// SPDX-License-Identifier: Apache-2.0
#include "Provider/CuratorUnit.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace {

constexpr unsigned int kMaxLearntSeconds = 12000;
constexpr std::int64_t kSecondsPerHour = 3600;

/// Whether a usage ends before its first full hour, in an hour without a clock change up to that end. This is the
/// common case, and it needs none of the slower calls that find the next full hour.
bool EndsWithinItsHour(const tm& first, time_t start, unsigned int seconds) {
    const std::int64_t end = static_cast<std::int64_t>(start) + seconds;
    if (first.tm_min * 60 + first.tm_sec + std::int64_t{seconds} >= kSecondsPerHour ||
        end > std::numeric_limits<time_t>::max()) {
        return false;
    }
    const auto endTime = static_cast<time_t>(end);
    tm last{};
    return localtime_r(&endTime, &last) != nullptr && last.tm_gmtoff == first.tm_gmtoff &&
           last.tm_isdst == first.tm_isdst;
}

}  // namespace

CCuratorBaseUnit::CCuratorBaseUnit(const std::string& unitId) : m_strUnitId(unitId), m_dScore(0.0) {}

CCuratorBaseUnit::~CCuratorBaseUnit() = default;

CCuratorMRUUnit::CCuratorMRUUnit(const std::string& unitId) : CCuratorBaseUnit(unitId) {}

void CCuratorMRUUnit::LearnHistory(const CuratorBaseData& record, double /*weight*/) {
    m_dScore = static_cast<unsigned int>(record.m_nStartTime);
}

double CCuratorMRUUnit::GetScore() {
    return m_dScore;
}

double CCuratorMRUUnit::GetScore(const int& /*dayOfWeek*/, const int& /*hour*/) {
    return m_dScore;
}

CCuratorMFUUnit::CCuratorMFUUnit(const std::string& unitId) : CCuratorBaseUnit(unitId) {}

void CCuratorMFUUnit::LearnHistory(const CuratorBaseData& record, double /*weight*/) {
    m_dScore += record.m_nDuration;
}

double CCuratorMFUUnit::GetScore() {
    return m_dScore;
}

double CCuratorMFUUnit::GetScore(const int& /*dayOfWeek*/, const int& /*hour*/) {
    return m_dScore;
}

CCuratorDateUnit::CCuratorDateUnit(const std::string& unitId)
    : CCuratorBaseUnit(unitId), m_dHour{}, m_dDay{}, m_dDayHour{}, m_dWeight{0.1, 1.0, 6.0, 11.0} {}

void CCuratorDateUnit::LearnHistory(const CuratorBaseData& record, double weight) {
    const unsigned int seconds = std::min(record.m_nDuration, kMaxLearntSeconds);
    const time_t start = record.m_nStartTime;
    tm current{};
    if (seconds == 0 || localtime_r(&start, &current) == nullptr) {
        return;
    }
    if (EndsWithinItsHour(current, start, seconds)) {
        Credit_(current, weight * seconds);
        return;
    }
    double remaining = seconds;
    while (remaining > 0.0) {
        tm next = current;
        ++next.tm_hour;
        next.tm_min = 0;
        next.tm_sec = 0;
        // Each call normalises its argument and leaves behind the offset from which the next resolves an ambiguous
        // local time: neither their number nor their order is free.
        mktime(&next);
        const time_t currentTime = mktime(&current);
        const time_t nextTime = mktime(&next);
        const double piece = difftime(nextTime, currentTime);
        const bool isLast = piece > remaining || !(piece > 0.0);
        Credit_(current, weight * (isLast ? remaining : piece));
        if (isLast) {
            return;
        }
        current = next;
        remaining -= piece;
    }
}

double CCuratorDateUnit::GetScore() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    return GetScore(local.tm_wday, local.tm_hour);
}

double CCuratorDateUnit::GetScore(const int& dayOfWeek, const int& hour) {
    double score = m_dScore * m_dWeight[0];
    score += m_dHour[hour] * m_dWeight[1];
    score += m_dDay[dayOfWeek] * m_dWeight[2];
    score += m_dDayHour[dayOfWeek][hour] * m_dWeight[3];
    return score;
}

void CCuratorDateUnit::Credit_(const tm& hour, double seconds) {
    m_dScore += seconds;
    m_dHour[hour.tm_hour] += seconds;
    m_dDay[hour.tm_wday] += seconds;
    m_dDayHour[hour.tm_wday][hour.tm_hour] += seconds;
}
