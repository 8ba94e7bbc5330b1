// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_DOCUMENT_FIXTURE_H
#define LUMORA_COMMON_TESTS_DOCUMENT_FIXTURE_H

#include <gtest/gtest.h>
#include <json/json.h>

#include <ostream>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "ContextData.h"

// Json::Reader and Json::FastWriter exist in every version of jsoncpp; newer versions mark them as deprecated.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

inline Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
    return value;
}

/// @return compact text, without a line feed.
inline std::string Write(const Json::Value& value) {
    std::string text = Json::FastWriter().write(value);
    text.pop_back();
    return text;
}

#pragma GCC diagnostic pop

inline std::string Write(ContextData document) {
    return Write(*document.GetValue());
}

/// How a document is constructed. The first two own their value, the others are views.
enum class Origin { kDefault, kNullPointer, kPointer, kElement };

inline void PrintTo(Origin origin, std::ostream* out) {
    const char* names[] = {"Default", "NullPointer", "Pointer", "Element"};
    *out << names[static_cast<int>(origin)];
}

inline auto EveryOrigin() {
    return ::testing::Values(Origin::kDefault, Origin::kNullPointer, Origin::kPointer, Origin::kElement);
}

/// Runs the same tests on owning documents and on views. Expects after every test that nothing is left in the log, and
/// that the document still works on the same target.
class DocumentTest : public ::testing::TestWithParam<Origin> {
protected:
    void SetUp() override { CapturedLog::Clear(); }

    void TearDown() override {
        EXPECT_TRUE(CapturedLog::Lines().empty());
        EXPECT_EQ(m_document.GetValue(), Target()) << "the document no longer works on its target";
        EXPECT_EQ(Write(m_holder["list"][0]), "\"beside\"");
    }

    static bool IsView() { return GetParam() == Origin::kPointer || GetParam() == Origin::kElement; }

    /// @return the value that the document must work on: the viewed value, or an owning document's own value.
    Json::Value* Target() {
        switch (GetParam()) {
            case Origin::kPointer:
                return &m_external;
            case Origin::kElement:
                return &m_holder["list"][1];
            default:
                return m_document.GetValue();
        }
    }

    /// Replaces the target with parsed JSON text.
    void Given(const std::string& text) { *Target() = Parse(text); }

    /// @return the target as compact text.
    std::string Text() { return Write(*Target()); }

    /// @return the captured log lines, and clears the log.
    static std::vector<CapturedLog::Line> TakeLog() {
        std::vector<CapturedLog::Line> lines = CapturedLog::Lines();
        CapturedLog::Clear();
        return lines;
    }

private:
    ContextData Make() {
        switch (GetParam()) {
            case Origin::kNullPointer:
                return ContextData(static_cast<Json::Value*>(nullptr));
            case Origin::kPointer:
                return ContextData(&m_external);
            case Origin::kElement:
                return ContextData(&m_holder).GetValuePtr("list", 1);
            default:
                return ContextData();
        }
    }

    Json::Value m_external;
    Json::Value m_holder = Parse(R"({"list":["beside",null]})");

protected:
    ContextData m_document = Make();
};

#endif  // LUMORA_COMMON_TESTS_DOCUMENT_FIXTURE_H
