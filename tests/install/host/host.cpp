// SPDX-License-Identifier: Apache-2.0
#include <ContextData.h>
#include <ContextEventThread.h>
#include <LumoraApi.h>
#include <Provider/BaseProvider.h>
#include <Provider/CuratorAgent.h>
#include <Provider/RandomSampling.h>
#include <Provider/ReinforcementLearningAgent.h>
#include <SystemLog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

// Replaces the library's log call.
int lumora_log_print(int /*buffer*/, int priority, const char* tag, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    char text[256];
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const char* message = std::strstr(text, " > ");  // after the file, the function and the line
    std::printf("log %d %s%s\n", priority, tag, message != nullptr ? message : text);
    return length;
}

namespace {

class Host : public IProvider {
public:
    int AddInSubject(CBaseProvider* /*provider*/, const char* subject) override {
        std::printf("subject %s\n", subject);
        return 0;
    }
    int ProviderRequest(const char*, const char*, IProvider*, void*) override { return 0; }
    int ProviderResponse(const char*, int, const char*, IProvider*, void*) override { return 0; }
    int ProviderResponse(const char*, int, void*, IProvider*, void*) override { return 0; }
    int ProviderRead(const char*, const char*, char**) override { return 0; }
    int ProviderWrite(const char*, const char*) override { return 0; }
    void Publish(const char* subject, int code, const char* data, IProvider*) override {
        std::printf("published %s %d %s\n", subject, code, data);
    }
    void Publish(const char*, int, void*, IProvider*) override {}
    int SetTimer(int, timer_cb, void*) override { return 0; }
    bool KillTimer(int) override { return false; }
};

class Worker : public ContextEventThread {
public:
    void OnEvent(int eventId, void*) override { std::printf("event %d\n", eventId); }
};

// The library knows this class only by its base class.
class SecondAction : public ReinforcementLearningAgent {
public:
    SecondAction() : ReinforcementLearningAgent(2) {}
    int ChooseAction() override { return m_vecCount[1] > 0 ? 1 : 0; }
};

}  // namespace

int main() {
    std::printf("version %s\n", LUMORA_COMMON_VERSION);

    ContextData document;
    document.SetValue("name", "radio");
    std::printf("%s\n", document.GetValueStr("name").c_str());
    document.MakeData(nullptr);

    Host host;
    CBaseProvider provider(&host);
    provider.AddInSubject("usage");
    provider.Publish("usage", 1, "on", nullptr);

    Worker worker;
    worker.Start();
    worker.PushEvent(7, nullptr, 0);
    worker.Stop();  // after the event has been served

    CCuratorAgent curator(CURATOR_AGENT_MRU, 1, 0);
    CuratorBaseData record;
    record.SetUnitId("radio");
    record.m_nStartTime = 1700000000;
    record.m_nDuration = 60;
    curator.LearnHistorys(std::vector<CuratorBaseData>{record});
    std::printf("%s", CurationResult2JsonData(curator.RunCurate(), CuratorData2ContextData).c_str());

    std::vector<std::unique_ptr<ReinforcementLearningAgent>> agents;
    agents.push_back(std::make_unique<MFUAgent>(2));
    agents.push_back(std::make_unique<SecondAction>());
    for (const auto& agent : agents) {
        agent->UpdateQ(1, 1);
        std::printf("action %d, greedy %d\n", agent->ChooseAction(), dynamic_cast<MFUAgent*>(agent.get()) != nullptr);
    }
    const double variate = RandomBeta(2.0, 3.0);
    std::printf("variate %s\n", variate > 0 && variate < 1 ? "within bounds" : "out of bounds");
}
