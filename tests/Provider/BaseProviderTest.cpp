// SPDX-License-Identifier: Apache-2.0
#include "Provider/BaseProvider.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "LogExpectation.h"

namespace {

/// @return an argument, a number or an address, as a value that can be compared.
std::intptr_t Word(int number) {
    return number;
}

std::intptr_t Word(const void* address) {
    return reinterpret_cast<std::intptr_t>(address);
}

std::intptr_t Word(timer_cb callback) {
    return reinterpret_cast<std::intptr_t>(callback);
}

/// A call of one operation of the handler, with its arguments.
struct Call {
    std::string operation;
    std::vector<std::intptr_t> arguments;

    template <class... Arguments>
    static Call Of(const char* operation, Arguments... arguments) {
        return {operation, {Word(arguments)...}};
    }

    bool operator==(const Call& other) const { return operation == other.operation && arguments == other.arguments; }
};

std::ostream& operator<<(std::ostream& out, const Call& call) {
    return out << call.operation << ::testing::PrintToString(call.arguments);
}

/// A handler that records every call and returns `m_result`.
class RecordingHandler : public IProvider {
public:
    int AddInSubject(CBaseProvider* provider, const char* subject) override {
        return Record(Call::Of("AddInSubject", provider, subject));
    }
    int ProviderRequest(const char* subject, const char* data, IProvider* provider, void* userData) override {
        return Record(Call::Of("ProviderRequest", subject, data, provider, userData));
    }
    int ProviderResponse(const char* subject, int code, const char* data, IProvider* provider,
                         void* userData) override {
        return Record(Call::Of("ProviderResponse text", subject, code, data, provider, userData));
    }
    int ProviderResponse(const char* subject, int code, void* data, IProvider* provider, void* userData) override {
        return Record(Call::Of("ProviderResponse pointer", subject, code, data, provider, userData));
    }
    int ProviderRead(const char* subject, const char* key, char** data) override {
        if (data != nullptr) {
            *data = m_written;
        }
        return Record(Call::Of("ProviderRead", subject, key, data));
    }
    int ProviderWrite(const char* subject, const char* data) override {
        return Record(Call::Of("ProviderWrite", subject, data));
    }
    void Publish(const char* subject, int code, const char* data, IProvider* provider) override {
        Record(Call::Of("Publish text", subject, code, data, provider));
    }
    void Publish(const char* subject, int code, void* data, IProvider* provider) override {
        Record(Call::Of("Publish pointer", subject, code, data, provider));
    }
    int SetTimer(int interval, timer_cb callback, void* userData) override {
        return Record(Call::Of("SetTimer", interval, callback, userData));
    }
    bool KillTimer(int timerId) override { return Record(Call::Of("KillTimer", timerId)) != 0; }

    std::vector<Call> m_calls;
    int m_result = 0;
    char* m_written = nullptr;  ///< the value that ProviderRead() writes to its output argument

private:
    int Record(Call call) {
        m_calls.push_back(std::move(call));
        return m_result;
    }
};

void OnTimer(int /*timerId*/, void* /*userData*/) {}

class BaseProviderTest : public ::testing::Test {
protected:
    /// One operation of the provider.
    struct Row {
        std::string name;
        std::string method;                       ///< the method, as the log names it
        std::function<int(CBaseProvider&)> call;  ///< calls it; returns its result, or 0 if it has none
        Call arrives;                             ///< the call that the handler must receive
        bool returnsNumber;                       ///< whether the method returns the handler's number unchanged
        int withoutHandler;                       ///< the result without a handler
    };

    void SetUp() override { CapturedLog::Clear(); }

    /// @return every operation that checks the handler for null. Each argument has a different value.
    std::vector<Row> ForwardingOperations() {
        const auto withoutResult = [](auto publish) {
            return [publish](CBaseProvider& provider) {
                publish(provider);
                return 0;
            };
        };
        return {
            {"publishes a text", "Publish",
             withoutResult([this](CBaseProvider& provider) { provider.Publish(m_subject, 41, m_text, &m_other); }),
             Call::Of("Publish text", m_subject, 41, m_text, &m_other), false, 0},
            {"publishes a pointer", "Publish",
             withoutResult([this](CBaseProvider& provider) { provider.Publish(m_subject, -42, m_pointer, &m_other); }),
             Call::Of("Publish pointer", m_subject, -42, m_pointer, &m_other), false, 0},
            {"sends a request", "ProviderRequest",
             [this](CBaseProvider& provider) {
                 return provider.ProviderRequest(m_subject, m_text, &m_other, m_userData);
             },
             Call::Of("ProviderRequest", m_subject, m_text, &m_other, m_userData), true, -5},
            {"answers with a text", "ProviderResponse",
             [this](CBaseProvider& provider) {
                 return provider.ProviderResponse(m_subject, INT_MAX, m_text, &m_other, m_userData);
             },
             Call::Of("ProviderResponse text", m_subject, INT_MAX, m_text, &m_other, m_userData), true, -5},
            {"answers with a pointer", "ProviderResponse",
             [this](CBaseProvider& provider) {
                 return provider.ProviderResponse(m_subject, INT_MIN, m_pointer, &m_other, m_userData);
             },
             Call::Of("ProviderResponse pointer", m_subject, INT_MIN, m_pointer, &m_other, m_userData), true, -5},
            {"reads", "ProviderRead",
             [this](CBaseProvider& provider) { return provider.ProviderRead(m_subject, m_text, &m_read); },
             Call::Of("ProviderRead", m_subject, m_text, &m_read), true, -5},
            {"writes", "ProviderWrite",
             [this](CBaseProvider& provider) { return provider.ProviderWrite(m_subject, m_text); },
             Call::Of("ProviderWrite", m_subject, m_text), true, -5},
            {"sets a timer", "SetTimer",
             [this](CBaseProvider& provider) { return provider.SetTimer(43, OnTimer, m_userData); },
             Call::Of("SetTimer", 43, OnTimer, m_userData), true, -5},
            {"kills a timer", "KillTimer",
             [](CBaseProvider& provider) { return static_cast<int>(provider.KillTimer(7)); }, Call::Of("KillTimer", 7),
             false, 1},
        };
    }

    RecordingHandler m_handler;
    RecordingHandler m_other;  ///< only passed as an argument
    CBaseProvider m_provider{&m_handler};

    const char* const m_subject = "subject";
    const char* const m_text = "text";
    char m_block[2] = {};
    void* const m_pointer = &m_block[0];
    void* const m_userData = &m_block[1];
    char* m_read = nullptr;
};

TEST_F(BaseProviderTest, ForwardsArgumentsInOrder) {
    for (const Row& row : ForwardingOperations()) {
        SCOPED_TRACE(row.name);
        m_handler.m_calls.clear();
        row.call(m_provider);
        EXPECT_EQ(m_handler.m_calls, std::vector<Call>{row.arrives});
    }
    EXPECT_TRUE(m_other.m_calls.empty());
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(BaseProviderTest, ReturnsHandlerResultUnchanged) {
    for (const Row& row : ForwardingOperations()) {
        SCOPED_TRACE(row.name);
        for (const int result : {0, 1, -1, -5, 77, INT_MAX, INT_MIN}) {
            m_handler.m_result = result;
            const int expected = row.method == "KillTimer" ? int{result != 0} : row.returnsNumber ? result : 0;
            EXPECT_EQ(row.call(m_provider), expected);
        }
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(BaseProviderTest, ForwardsNullArguments) {
    constexpr const char* kNoText = nullptr;
    constexpr void* kNoPointer = nullptr;
    m_provider.Publish(nullptr, 0, kNoText, nullptr);
    m_provider.Publish(nullptr, 0, kNoPointer, nullptr);
    m_provider.ProviderRequest(nullptr, nullptr, nullptr, nullptr);
    m_provider.ProviderResponse(nullptr, 0, kNoText, nullptr, nullptr);
    m_provider.ProviderResponse(nullptr, 0, kNoPointer, nullptr, nullptr);
    m_provider.ProviderRead(nullptr, nullptr, nullptr);
    m_provider.ProviderWrite(nullptr, nullptr);
    m_provider.SetTimer(0, nullptr, nullptr);
    m_provider.KillTimer(0);
    const std::vector<Call> expected = {
        {"Publish text", {0, 0, 0, 0}},
        {"Publish pointer", {0, 0, 0, 0}},
        {"ProviderRequest", {0, 0, 0, 0}},
        {"ProviderResponse text", {0, 0, 0, 0, 0}},
        {"ProviderResponse pointer", {0, 0, 0, 0, 0}},
        {"ProviderRead", {0, 0, 0}},
        {"ProviderWrite", {0, 0}},
        {"SetTimer", {0, 0, 0}},
        {"KillTimer", {0}},
    };
    EXPECT_EQ(m_handler.m_calls, expected);
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(BaseProviderTest, ReturnsTextThatHandlerReads) {
    m_handler.m_written = m_block;
    EXPECT_EQ(m_provider.ProviderRead("subject", "key", &m_read), 0);
    EXPECT_EQ(m_read, m_block);
}

TEST_F(BaseProviderTest, LogsCalledMethodWithoutHandler) {
    CBaseProvider withoutHandler;
    for (const Row& row : ForwardingOperations()) {
        SCOPED_TRACE(row.name);
        CapturedLog::Clear();
        EXPECT_EQ(row.call(withoutHandler), row.withoutHandler);
        ExpectOneLogLine(/*priority=*/6, "BaseProvider.cpp", row.method, "m_pIProviderHandler is NULL");
    }
    EXPECT_TRUE(m_handler.m_calls.empty());
}

TEST_F(BaseProviderTest, ReadWithoutHandlerLeavesOutputUntouched) {
    CBaseProvider withoutHandler;
    char* data = m_block;
    EXPECT_EQ(withoutHandler.ProviderRead("subject", "key", &data), -5);
    EXPECT_EQ(data, m_block);
}

TEST_F(BaseProviderTest, AddInSubjectPassesProviderItself) {
    class Module : public CBaseProvider {
    public:
        using CBaseProvider::CBaseProvider;
    };
    Module module(&m_handler);
    for (const int result : {0, 3, -1, -5, INT_MIN}) {
        m_handler.m_calls.clear();
        m_handler.m_result = result;
        EXPECT_EQ(module.AddInSubject(m_subject), result);
        EXPECT_EQ(m_handler.m_calls,
                  std::vector<Call>{Call::Of("AddInSubject", static_cast<CBaseProvider*>(&module), m_subject)});
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(BaseProviderTest, AddInSubjectForwardsEmptySubject) {
    m_handler.m_result = 9;
    EXPECT_EQ(m_provider.AddInSubject(""), 9);
    EXPECT_EQ(m_handler.m_calls.size(), 1U);
}

TEST_F(BaseProviderTest, AddInSubjectRefusesNullSubject) {
    m_handler.m_result = 9;
    EXPECT_EQ(m_provider.AddInSubject(nullptr), -5);
    EXPECT_TRUE(m_handler.m_calls.empty());
    ExpectOneLogLine(/*priority=*/6, "BaseProvider.cpp", "AddInSubject", "subject is NULL");
}

TEST_F(BaseProviderTest, AddInSubjectChecksSubjectWithoutHandler) {
    CBaseProvider withoutHandler;
    EXPECT_EQ(withoutHandler.AddInSubject(nullptr), -5);
    ExpectOneLogLine(/*priority=*/6, "BaseProvider.cpp", "AddInSubject", "subject is NULL");
}

// The caller must set a handler first: a null check here would change the promised behaviour.
TEST_F(BaseProviderTest, AddInSubjectCrashesWithoutHandler) {
    CBaseProvider withoutHandler;
    EXPECT_DEATH(withoutHandler.AddInSubject("subject"), "");
}

TEST_F(BaseProviderTest, SetProviderHandlerReplacesAndRemovesHandler) {
    CBaseProvider provider;
    EXPECT_EQ(provider.ProviderWrite("subject", "data"), -5);
    provider.SetProviderHandler(&m_handler);
    EXPECT_EQ(provider.ProviderWrite("subject", "data"), 0);
    provider.SetProviderHandler(&m_other);
    EXPECT_EQ(provider.ProviderWrite("subject", "data"), 0);
    EXPECT_EQ(m_handler.m_calls.size(), 1U);
    EXPECT_EQ(m_other.m_calls.size(), 1U);
    provider.SetProviderHandler(nullptr);
    EXPECT_EQ(provider.ProviderWrite("subject", "data"), -5);
    EXPECT_EQ(CapturedLog::Count("m_pIProviderHandler is NULL"), 2);
}

}  // namespace
