// SPDX-License-Identifier: Apache-2.0
#include "Provider/CuratorUnit.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace {

constexpr int kSecondsPerHour = 3600;

/// A free function: an exported member could be interposed, which prevents inlining. The terms are added in a fixed
/// order, because scores are exact to the last bit.
double Weigh(const double (&weights)[4], double total, double hour, double day, double dayHour) {
    double score = total * weights[0];
    score += hour * weights[1];
    score += day * weights[2];
    score += dayHour * weights[3];
    return score;
}

}  // namespace

CCuratorBaseUnit::CCuratorBaseUnit(const std::string& unitId) : m_strUnitId(unitId), m_dScore(0.0) {}

CCuratorBaseUnit::~CCuratorBaseUnit() = default;

CCuratorBaseUnit& CCuratorBaseUnit::operator=(const CCuratorBaseUnit& other) {
    std::string unitId = other.m_strUnitId;
    std::string metaDataSrc = other.m_strMetaDataSrc;
    std::string metaData = other.m_strMetaData;  // nothing below throws
    m_strMetaData.swap(metaData);
    m_strMetaDataSrc.swap(metaDataSrc);
    m_strUnitId.swap(unitId);
    m_dScore = other.m_dScore;
    return *this;
}

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
    tzset();  // localtime_r may miss a change of the time zone
    LocalHour unknown;
    Learn_(record, weight, unknown);
}

double CCuratorDateUnit::GetScore() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    return GetScore(local.tm_wday, local.tm_hour);
}

double CCuratorDateUnit::GetScore(const int& dayOfWeek, const int& hour) {
    return ScoreOf_(dayOfWeek, hour);
}

// Most usages end in the same hour as the previous one and then need no calendar call. `lastHour` caches that hour; it
// is valid until the time zone changes.
void CCuratorDateUnit::Learn_(const CuratorBaseData& record, double weight, LocalHour& lastHour) {
    const unsigned int seconds = std::min(record.m_nDuration, unsigned{kMaxLearntSeconds});
    const time_t start = record.m_nStartTime;
    if (seconds == 0) {
        return;
    }
    const auto endsWithin = [&](const LocalHour& hour) {
        return start >= hour.begin && std::int64_t{start} + seconds < hour.end;
    };
    if (endsWithin(lastHour)) {
        Credit_(lastHour.local, weight * seconds);
        return;
    }
    tm local{};
    if (localtime_r(&start, &local) == nullptr) {
        return;
    }
    if (FindHour_(start, local, lastHour) && endsWithin(lastHour)) {
        Credit_(local, weight * seconds);
        return;
    }
    LearnAcrossHours_(local, seconds, weight);
}

void CCuratorDateUnit::LearnAcrossHours_(tm current, double remaining, double weight) {
    while (remaining > 0.0) {
        tm next = current;
        ++next.tm_hour;
        next.tm_min = 0;
        next.tm_sec = 0;
        // mktime normalises its argument and remembers the offset that it used; the next call resolves an ambiguous
        // local time with that offset. The number and the order of the calls affect the result.
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

void CCuratorDateUnit::Credit_(const tm& hour, double seconds) {
    m_dScore += seconds;
    m_dHour[hour.tm_hour] += seconds;
    m_dDay[hour.tm_wday] += seconds;
    m_dDayHour[hour.tm_wday][hour.tm_hour] += seconds;
}

double CCuratorDateUnit::ScoreOf_(int dayOfWeek, int hour) const {
    return Weigh(m_dWeight, m_dScore, m_dHour[hour], m_dDay[dayOfWeek], m_dDayHour[dayOfWeek][hour]);
}

void CCuratorDateUnit::GetScores_(int dayOfWeek, double (&scores)[24]) const {
    for (int hour = 0; hour < 24; ++hour) {
        scores[hour] = Weigh(m_dWeight, m_dScore, m_dHour[hour], m_dDay[dayOfWeek], m_dDayHour[dayOfWeek][hour]);
    }
}

bool CCuratorDateUnit::FindHour_(time_t start, const tm& local, LocalHour& hour) {
    const std::int64_t end = std::int64_t{start} + kSecondsPerHour - (local.tm_min * 60 + local.tm_sec);
    if (end > std::numeric_limits<time_t>::max()) {
        return false;
    }
    const auto lastSecond = static_cast<time_t>(end - 1);
    tm last{};
    if (localtime_r(&lastSecond, &last) == nullptr || last.tm_gmtoff != local.tm_gmtoff ||
        last.tm_isdst != local.tm_isdst) {
        return false;
    }
    hour = {start, static_cast<time_t>(end), local};
    return true;
}
