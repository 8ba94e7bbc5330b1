// SPDX-License-Identifier: Apache-2.0
#include <Provider/CuratorAgent.h>

#include <cstdio>

// Learns three uses of two units and ranks the units by total time of use.
int main() {
    CCuratorAgent agent(CURATOR_AGENT_MFU, /*maxResult=*/10, /*minDuration=*/0);
    const struct {
        const char* unit;
        int start;  // seconds since the epoch
        unsigned int seconds;
    } uses[] = {{"radio", 1700000000, 600}, {"camera", 1700003600, 900}, {"radio", 1700007200, 1200}};
    for (const auto& use : uses) {
        CuratorBaseData record;
        record.SetUnitId(use.unit);
        record.m_nStartTime = use.start;
        record.m_nDuration = use.seconds;
        agent.LearnHistory(record);
    }
    std::fputs(CurationResult2JsonData(agent.RunCurate(), CuratorData2ContextData).c_str(), stdout);
}
