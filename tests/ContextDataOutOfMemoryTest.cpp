// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "ContextData.h"
#include "FailingMemory.h"
#include "UnfailingLog.h"

namespace {

using FailingMemory::Scope;

/// Longer than what std::string holds without an allocation.
const std::string kLong(40, 'x');

/// The parameter says whether the document views its value.
class ContextDataOutOfMemoryTest : public ::testing::TestWithParam<bool> {
protected:
    void Given(const std::string& text) {
        ContextData source;
        ASSERT_TRUE(source.MakeData(text.c_str()));
        m_external = *source.GetValue();
        m_document = GetParam() ? ContextData(&m_external) : ContextData(m_external);
    }

    /// Calls `test` as FailingMemory does, and releases the document after each call.
    template <class Test>
    void ForEveryAllocation(Test test) {
        FailingMemory::ForEveryAllocation([&](int allowed, int failures) {
            test(allowed, failures);
            m_document.reset();
            m_external = Json::Value();
        });
    }

    /// @return false when the call ran out of memory.
    template <class Call>
    bool Finishes(int allowed, int failures, Call call) {
        try {
            const Scope scope(allowed, failures);
            call(*m_document);
            return true;
        } catch (const std::bad_alloc&) {
        } catch (const Json::RuntimeError&) {  // where jsoncpp calls malloc()
        }
        EXPECT_TRUE(Scope::HasFailed());
        return false;
    }

    Json::Value m_external;
    std::optional<ContextData> m_document;
};

INSTANTIATE_TEST_SUITE_P(Views, ContextDataOutOfMemoryTest, ::testing::Bool(),
                         [](const auto& row) { return row.param ? "View" : "Owner"; });

TEST_P(ContextDataOutOfMemoryTest, KeepsEveryOtherMember) {
    const std::string others = R"("a":[1,")" + kLong + R"("],"b":{"c":true})";
    ContextData other(Json::Value{kLong});
    const struct {
        const char* name;
        std::function<void(ContextData&)> call;
    } rows[] = {
        {"SetValue with a string", [](ContextData& to) { to.SetValue("k", kLong); }},
        {"SetValue with a C string", [](ContextData& to) { to.SetValue("k", kLong.c_str()); }},
        {"SetValue with an int", [](ContextData& to) { to.SetValue("k", 1); }},
        {"SetValue with a document", [&](ContextData& to) { to.SetValue("k", other); }},
        {"SetValueNoArry", [&](ContextData& to) { to.SetValueNoArry("k", other); }},
        {"SetValueInArray", [](ContextData& to) { to.SetValueInArray("k", kLong); }},
        {"SetValueInArray with a C string", [](ContextData& to) { to.SetValueInArray("k", kLong.c_str()); }},
        {"RemoveMember", [](ContextData& to) { to.RemoveMember("k"); }},
        {"IsValid", [](ContextData& to) { to.IsValid("k"); }},
        {"GetSize", [](ContextData& to) { to.GetSize("k"); }},
        {"GetValue", [](ContextData& to) { to.GetValue("k"); }},
        {"GetValue of an element", [](ContextData& to) { to.GetValue("k", 3); }},
        {"GetValuePtr", [](ContextData& to) { to.GetValuePtr("k", 3); }},
        {"GetValueStr", [](ContextData& to) { to.GetValueStr("k"); }},
        {"GetValueStr2", [](ContextData& to) { to.GetValueStr2("k"); }},
        {"GetValueInt", [](ContextData& to) { to.GetValueInt("k"); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ForEveryAllocation([&](int allowed, int failures) {
            Given("{" + others + "}");
            if (!Finishes(allowed, failures, row.call)) {
                const std::string member = m_document->GetValue()->isMember("k") ? m_document->MakeStr() : "";
                EXPECT_TRUE(member.empty() || member == "{" + others + ",\"k\":null}\n" ||
                            member == "{" + others + ",\"k\":[]}\n")
                    << member;
                m_document->RemoveMember("k");
                EXPECT_EQ(m_document->MakeStr(), "{" + others + "}\n");
            }
            EXPECT_TRUE(m_document->SetValue("k", kLong));
            EXPECT_EQ(m_document->GetValueStr("k"), kLong);
        });
    }
}

TEST_P(ContextDataOutOfMemoryTest, KeepsTheMemberThatItCannotReplace) {
    const std::string before = R"({"k":["first"]})";
    ContextData other(Json::Value{kLong});
    const struct {
        const char* name;
        std::function<void(ContextData&)> call;
    } rows[] = {
        {"SetValue with a string", [](ContextData& to) { to.SetValue("k", kLong); }},
        {"SetValue with a C string", [](ContextData& to) { to.SetValue("k", kLong.c_str()); }},
        {"SetValue with a document", [&](ContextData& to) { to.SetValue("k", other); }},
        {"SetValueNoArry", [&](ContextData& to) { to.SetValueNoArry("k", other); }},
        {"SetValueInArray", [](ContextData& to) { to.SetValueInArray("k", kLong); }},
        {"MakeData before it parses", [](ContextData& to) { to.MakeData((std::string(5000, ' ') + "!").c_str()); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ForEveryAllocation([&](int allowed, int failures) {
            Given(before);
            const bool isFinished = Finishes(allowed, failures, row.call);
            EXPECT_TRUE(isFinished || allowed > 1 || m_document->MakeStr() == before + "\n");
            UnfailingLog::Take();
        });
    }
}

TEST_P(ContextDataOutOfMemoryTest, MakeStrLeavesNoOldText) {
    ForEveryAllocation([&](int allowed, int failures) {
        Given(R"({"k":1})");
        const char* text = m_document->MakeStr();
        m_document->SetValue("k", kLong);
        if (!Finishes(allowed, failures, [](ContextData& from) { from.MakeStr(); })) {
            EXPECT_STREQ(text, "");
        }
        EXPECT_EQ(m_document->MakeStr(), "{\"k\":\"" + kLong + "\"}\n");
    });
}

TEST_P(ContextDataOutOfMemoryTest, ParsesAgainAfterRunningOutOfMemory) {
    const std::string text = R"({"a":[1,")" + kLong + R"("],"b":{"c":true}})";
    const std::string commented = "// " + kLong + "\n" + text;
    ForEveryAllocation([&](int allowed, int failures) {
        Given("[]");
        bool isParsed = false;
        const auto parse = [&](ContextData& to) { isParsed = to.MakeData(commented.c_str()); };
        if (Finishes(allowed, failures, parse)) {
            EXPECT_TRUE(isParsed);
            EXPECT_EQ(m_document->MakeStr(), text + "\n");
        }
        EXPECT_TRUE(m_document->MakeData(text.c_str()));
        EXPECT_EQ(m_document->MakeStr(), text + "\n");
    });
    EXPECT_TRUE(UnfailingLog::Take().empty());
}

TEST_P(ContextDataOutOfMemoryTest, AssignsWholeValuesOnly) {
    const std::string before = R"({"k":["first"]})";
    const std::string after = R"({"a":[1,")" + kLong + R"("]})";
    ForEveryAllocation([&](int allowed, int failures) {
        Given(before);
        ContextData other;
        other.MakeData(after.c_str());
        other.MakeStr();
        const bool isFinished = Finishes(allowed, failures, [&](ContextData& to) { to = std::as_const(other); });
        const std::string text = m_document->MakeStr();
        EXPECT_TRUE(text == after + "\n" || (!isFinished && text == before + "\n")) << text;
    });
}

}  // namespace
