// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdio>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "ContextData.h"
#include "DocumentFixture.h"
#include "LogExpectation.h"

namespace {

using namespace std::string_literals;

class ContextDataTextTest : public DocumentTest {};

INSTANTIATE_TEST_SUITE_P(From, ContextDataTextTest, EveryOrigin(), ::testing::PrintToStringParamName());

// MakeStr

TEST_P(ContextDataTextTest, WritesCompactTextThatEndsInALineFeed) {
    const struct {
        const char* loose;
        const char* compact;
    } rows[] = {
        {"null", "null\n"},
        {"true", "true\n"},
        {" -12 ", "-12\n"},
        {"\"\"", "\"\"\n"},
        {"[ ]", "[]\n"},
        {"{ }", "{}\n"},
        {"{ \"b\" : [ 1 , false ,\n null ],\t\"a\" : { \"c\" : \"d e\" } }",
         "{\"a\":{\"c\":\"d e\"},\"b\":[1,false,null]}\n"},
        {R"(["quote \" backslash \\ line\nfeed"])", "[\"quote \\\" backslash \\\\ line\\nfeed\"]\n"},
        {"// a comment\n[1 /* another */]", "[1]\n"},
    };
    for (const auto& row : rows) {
        Given(row.loose);
        EXPECT_STREQ(m_document.MakeStr(), row.compact);
    }
}

TEST_P(ContextDataTextTest, EscapesZeroBytesWithinStrings) {
    m_document.SetValue("k", "a\0b"s);
    EXPECT_STREQ(m_document.MakeStr(), "{\"k\":\"a\\u0000b\"}\n");
    EXPECT_TRUE(m_document.MakeData(m_document.MakeStr()));
    EXPECT_EQ(m_document.GetValueStr("k"), "a\0b"s);
}

TEST_P(ContextDataTextTest, KeepsItsTextUntilTheNextMakeStr) {
    m_document.SetValue("a", 1);
    const char* text = m_document.MakeStr();
    m_document.SetValue("a", std::string(1000, 'x'));
    m_document.GetValueInt("b");
    m_document.MakeData("[true]");
    m_document.GetValue()->append(false);
    EXPECT_STREQ(text, "{\"a\":1}\n");
    EXPECT_STREQ(m_document.MakeStr(), "[true,false]\n");
    EXPECT_STREQ(m_document.MakeStr(), "[true,false]\n");
}

// MakeData

TEST_P(ContextDataTextTest, ReplacesItsContentWithParsedText) {
    for (const char* text : {R"({"a":{"b":[1,"x",null,true]}})", "[]", "{}", "[1]", R"({"other":1})"}) {
        EXPECT_TRUE(m_document.MakeData(text)) << text;
        EXPECT_EQ(Text(), text);
    }
    EXPECT_TRUE(m_document.MakeData(" {\r\n\t\"k\" : -7 } "));
    EXPECT_EQ(m_document.GetValueInt("k"), -7);
    EXPECT_TRUE(m_document.MakeData(R"({"k":"\u00e9\t\"\/"})"));
    EXPECT_EQ(m_document.GetValueStr("k"), "\xc3\xa9\t\"/");
}

TEST_P(ContextDataTextTest, KeepsTheCommentsOfParsedText) {
    EXPECT_TRUE(m_document.MakeData("// the reason\n{\"a\":1}"));
    ASSERT_TRUE(Target()->hasComment(Json::commentBefore));
    EXPECT_NE(Target()->getComment(Json::commentBefore).find("// the reason"), std::string::npos);
    EXPECT_EQ(m_document.GetValueInt("a"), 1);
    EXPECT_STREQ(m_document.MakeStr(), "{\"a\":1}\n");
}

TEST_P(ContextDataTextTest, ParsesItsOwnText) {
    const std::string text = R"({"a":[1,"\"\\\n",null,true,{"":""}],"b":{}})";
    Given(text);
    const Json::Value before = *Target();
    EXPECT_TRUE(m_document.MakeData(m_document.MakeStr()));
    EXPECT_EQ(*Target(), before);
    EXPECT_EQ(m_document.MakeStr(), text + "\n");
}

TEST_P(ContextDataTextTest, ParsesAPartOfItself) {
    const std::string message = R"({"a":1})" + std::string(5000, ' ') + "\n// read to the end";
    (*Target())["message"] = message;
    mallopt(M_PERTURB, 0xff);  // fills freed memory: the parser must not read the value that it replaces
    EXPECT_TRUE(m_document.MakeData((*Target())["message"].asCString()));
    mallopt(M_PERTURB, 0);
    EXPECT_EQ(Text(), R"({"a":1})");
    ASSERT_TRUE(Target()->hasComment(Json::commentAfter));
    EXPECT_NE(Target()->getComment(Json::commentAfter).find("// read to the end"), std::string::npos);
}

TEST_P(ContextDataTextTest, LogsANullTextAndChangesNothing) {
    Given(R"({"a":1})");
    EXPECT_FALSE(m_document.MakeData(nullptr));
    EXPECT_EQ(Text(), R"({"a":1})");
    ExpectOneLogLine(/*priority=*/6, "ContextData.cpp", "MakeData", "input is null");
    CapturedLog::Clear();
}

TEST_P(ContextDataTextTest, LogsAParseErrorOnlyAsOwner) {
    for (const char* text : {"", "{", "}", "[1,2", "nonsense", R"({"a":})", R"({"a" 1})", "\"open", "{%s%n"}) {
        EXPECT_FALSE(m_document.MakeData(text)) << text;
        if (IsView()) {
            EXPECT_TRUE(CapturedLog::Lines().empty()) << text;
        } else {
            char pointer[32];
            std::snprintf(pointer, sizeof(pointer), "%p", static_cast<const void*>(text));
            ExpectOneLogLine(/*priority=*/6, "ContextData.cpp", "MakeData", "m_reader paring error: [%p]=> %s",
                             std::string("m_reader paring error: [") + pointer + "]=> " + text);
        }
        CapturedLog::Clear();
    }
}

TEST_P(ContextDataTextTest, LogsTheWholeTextOfAPartOfItself) {
    Given(R"({"message":"[1,2,3,4,5,6,7,8,9,{"})");
    EXPECT_FALSE(m_document.MakeData((*Target())["message"].asCString()));
    const std::vector<CapturedLog::Line> lines = TakeLog();
    ASSERT_EQ(lines.size(), IsView() ? 0U : 1U);
    for (const CapturedLog::Line& line : lines) {
        EXPECT_EQ(line.message.substr(line.message.find("=> ")), "=> [1,2,3,4,5,6,7,8,9,{");
    }
}

TEST_P(ContextDataTextTest, ParsesAgainAfterAFailure) {
    EXPECT_FALSE(m_document.MakeData(R"({"a":)"));
    EXPECT_EQ(TakeLog().size(), IsView() ? 0U : 1U);
    EXPECT_TRUE(m_document.MakeData(R"({"b":2})"));
    EXPECT_EQ(Text(), R"({"b":2})");
}

}  // namespace
