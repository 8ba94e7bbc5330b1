// SPDX-License-Identifier: Apache-2.0
#include <ContextData.h>
#include <ContextSubjectFilter.h>
#include <Provider/BaseProvider.h>
#include <Provider/CuratorAgent.h>

#include <cstdio>

enum UsageCode : int { USAGE_RECORD = 0, USAGE_END = 1 };

/// A module that reports how long one unit was used each day.
class UsageProvider : public CBaseProvider {
public:
    UsageProvider(IProvider* host, const char* subject) : CBaseProvider(host), m_subject(subject) {
        AddInSubject(subject);
    }

    void PublishDays(int days, int seconds) {
        for (int day = 0; day < days; ++day) {
            ContextData use;
            use.SetValue("start", 1700000000 + day * 86400);
            use.SetValue("seconds", seconds);
            Publish(m_subject, USAGE_RECORD, use.MakeStr(), nullptr);
        }
        Publish(m_subject, USAGE_END, "", nullptr);
    }

private:
    const char* m_subject;
};

/// Learns what its providers publish, on the thread that publishes.
class Host : public IProvider {
public:
    bool HasEverythingArrived() { return m_arrivals.Check(); }
    std::list<CuratorBaseData> Rank() { return m_agent.RunCurate(); }

    int AddInSubject(CBaseProvider* /*provider*/, const char* subject) override {
        m_arrivals.Register(subject);
        return 0;
    }

    void Publish(const char* subject, int code, const char* data, IProvider* /*provider*/) override {
        if (code == USAGE_END) {
            m_arrivals.Set(subject);
            return;
        }
        ContextData use;
        if (!use.MakeData(data)) {
            return;  // MakeData() has logged it
        }
        CuratorBaseData record;
        record.SetUnitId(subject);
        record.m_nStartTime = use.GetValueInt("start");
        record.m_nDuration = use.GetValueUInt("seconds");
        m_agent.LearnHistory(record);
    }

    // This host offers nothing else.
    void Publish(const char*, int, void*, IProvider*) override {}
    int ProviderRequest(const char*, const char*, IProvider*, void*) override { return -1; }
    int ProviderResponse(const char*, int, const char*, IProvider*, void*) override { return -1; }
    int ProviderResponse(const char*, int, void*, IProvider*, void*) override { return -1; }
    int ProviderRead(const char*, const char*, char**) override { return -1; }
    int ProviderWrite(const char*, const char*) override { return -1; }
    int SetTimer(int, timer_cb, void*) override { return 0; }
    bool KillTimer(int) override { return false; }

private:
    ContextSubjectFilter m_arrivals;
    CCuratorAgent m_agent{CURATOR_AGENT_MFU, /*maxResult=*/10, /*minDuration=*/60};
};

int main() {
    Host host;
    UsageProvider radio(&host, "radio");
    UsageProvider camera(&host, "camera");
    radio.PublishDays(7, 1800);
    std::printf("everything has arrived: %s\n", host.HasEverythingArrived() ? "yes" : "no");
    camera.PublishDays(3, 5400);
    std::printf("everything has arrived: %s\n", host.HasEverythingArrived() ? "yes" : "no");
    std::fputs(CurationResult2JsonData(host.Rank(), CuratorData2ContextData).c_str(), stdout);
}
