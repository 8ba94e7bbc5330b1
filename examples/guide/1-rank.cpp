// SPDX-License-Identifier: Apache-2.0
#include <Provider/CuratorAgent.h>

#include <cstdio>

CuratorBaseData Use(const char* unit, int start, unsigned int seconds) {
    CuratorBaseData record;
    record.SetUnitId(unit);
    record.m_nStartTime = start;  // seconds since the epoch
    record.m_nDuration = seconds;
    return record;
}

int main() {
    CCuratorAgent agent(CURATOR_AGENT_MFU, /*maxResult=*/10, /*minDuration=*/0);
    agent.LearnHistorys(
        {Use("radio", 1700000000, 600), Use("camera", 1700003600, 900), Use("radio", 1700007200, 1200)});
    for (const CuratorBaseData& unit : agent.RunCurate()) {
        std::printf("%6.0f s  %s\n", unit.m_dScore, unit.GetUnitId().c_str());
    }
}
