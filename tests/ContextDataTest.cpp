// SPDX-License-Identifier: Apache-2.0
#include "ContextData.h"

#include <gtest/gtest.h>

#include <climits>
#include <exception>
#include <functional>
#include <string>
#include <utility>

#include "CapturedLog.h"
#include "DocumentFixture.h"

namespace {

using namespace std::string_literals;

// The tests avoid behaviour that differs between versions of jsoncpp: whether a whole number is a double, how a double
// is written, what a key on an array does. Only the tests of zero bytes need a version that stores the length of a
// string.

Json::Value Unsigned(unsigned long long number) {
    return Json::Value(static_cast<Json::UInt64>(number));
}

class ContextDataTest : public DocumentTest {};

INSTANTIATE_TEST_SUITE_P(From, ContextDataTest, EveryOrigin(), ::testing::PrintToStringParamName());

TEST_P(ContextDataTest, IsNullAtFirst) {
    EXPECT_EQ(Text(), "null");
    EXPECT_STREQ(m_document.MakeStr(), "null\n");
}

TEST_P(ContextDataTest, ReturnsItsTarget) {
    *m_document.GetValue() = Parse(R"({"a":1})");
    EXPECT_EQ(m_document.GetValue(), Target());
    EXPECT_EQ(Text(), R"({"a":1})");
    EXPECT_STREQ(m_document.MakeStr(), "{\"a\":1}\n");
}

TEST_P(ContextDataTest, ClearKeepsTheType) {
    for (const auto& [before, after] : {std::pair(R"({"a":1,"b":[2]})", "{}"), std::pair("{}", "{}"),
                                        std::pair(R"([1,{"a":2}])", "[]"), std::pair("[]", "[]")}) {
        Given(before);
        EXPECT_TRUE(m_document.Clear());
        EXPECT_EQ(Text(), after) << before;
    }
    Given("null");
    EXPECT_TRUE(m_document.Clear());
    EXPECT_TRUE(Target()->isNull());
}

// Writing by key

TEST_P(ContextDataTest, AssignsEveryTypeOverAnyMember) {
    using Assign = std::function<bool(ContextData&)>;
    constexpr unsigned long long kSmallestLong = sizeof(long) == 4 ? 0xffffffff80000000U : 0x8000000000000000U;
    const struct {
        const char* name;
        Assign assign;
        Json::Value member;
    } rows[] = {
        {"string", [](auto& to) { return to.SetValue("k", std::string("text")); }, Json::Value("text")},
        {"empty string", [](auto& to) { return to.SetValue("k", std::string()); }, Json::Value("")},
        {"C string", [](auto& to) { return to.SetValue("k", "text"); }, Json::Value("text")},
        {"empty C string", [](auto& to) { return to.SetValue("k", ""); }, Json::Value("")},
        {"null pointer", [](auto& to) { return to.SetValue("k", static_cast<const char*>(nullptr)); }, Json::Value("")},
        {"int", [](auto& to) { return to.SetValue("k", 5); }, Json::Value(5)},
        {"zero", [](auto& to) { return to.SetValue("k", 0); }, Json::Value(0)},
        {"smallest int", [](auto& to) { return to.SetValue("k", INT_MIN); }, Json::Value(INT_MIN)},
        {"bool", [](auto& to) { return to.SetValue("k", true); }, Json::Value(1)},
        {"unsigned int", [](auto& to) { return to.SetValue("k", 5U); }, Unsigned(5)},
        {"largest unsigned int", [](auto& to) { return to.SetValue("k", UINT_MAX); }, Unsigned(UINT_MAX)},
        {"unsigned long long", [](auto& to) { return to.SetValue("k", 5ULL); }, Unsigned(5)},
        {"largest number", [](auto& to) { return to.SetValue("k", ULLONG_MAX); }, Unsigned(ULLONG_MAX)},
        {"long", [](auto& to) { return to.SetValue("k", 5L); }, Unsigned(5)},
        {"negative long", [](auto& to) { return to.SetValue("k", -1L); }, Unsigned(18446744073709551615U)},
        {"smallest long", [](auto& to) { return to.SetValue("k", LONG_MIN); }, Unsigned(kSmallestLong)},
        {"double", [](auto& to) { return to.SetValue("k", 2.1); }, Json::Value(2.1)},
        {"whole double", [](auto& to) { return to.SetValue("k", 3.0); }, Json::Value(3.0)},
        {"float", [](auto& to) { return to.SetValue("k", 0.25F); }, Json::Value(0.25)},
    };
    for (const auto& row : rows) {
        for (const char* before : {"null", "{}", R"({"k":null})", R"({"k":"old"})", R"({"k":[1,2]})",
                                   R"({"k":{"m":1}})", R"({"a":[true],"k":7})"}) {
            SCOPED_TRACE(std::string(row.name) + " over " + before);
            Given(before);
            const bool hadAnother = Target()->isObject() && Target()->isMember("a");
            EXPECT_TRUE(row.assign(m_document));
            ASSERT_TRUE(Target()->isObject());
            EXPECT_EQ((*Target())["k"], row.member);
            EXPECT_EQ((*Target())["k"].type(), row.member.type());
            EXPECT_EQ(Target()->size(), hadAnother ? 2U : 1U);
            EXPECT_EQ(Write((*Target())["a"]), hadAnother ? "[true]" : "null");
        }
    }
}

TEST_P(ContextDataTest, AppendsDocumentsInCallOrder) {
    ContextData first(Parse(R"({"n":1})"));
    ContextData second(Parse("[2,3]"));
    EXPECT_TRUE(m_document.SetValue("k", first));
    EXPECT_EQ(Text(), R"({"k":[{"n":1}]})");
    EXPECT_TRUE(m_document.SetValue("k", second));
    EXPECT_EQ(Text(), R"({"k":[{"n":1},[2,3]]})");
    EXPECT_EQ(Write(first), R"({"n":1})");
    EXPECT_EQ(Write(second), "[2,3]");
}

TEST_P(ContextDataTest, AppendsDocumentsToAnExistingArray) {
    ContextData other(Parse("true"));
    ContextData null;
    Given(R"({"a":1,"k":["x"],"n":null})");
    EXPECT_TRUE(m_document.SetValue("k", other));
    EXPECT_TRUE(m_document.SetValue("k", null));
    EXPECT_TRUE(m_document.SetValue("n", other));
    EXPECT_EQ(Text(), R"({"a":1,"k":["x",true,null],"n":[true]})");
}

TEST_P(ContextDataTest, ReplacesAMemberWithADocument) {
    ContextData first(Parse(R"({"n":1})"));
    ContextData second(Parse("[2,3]"));
    EXPECT_TRUE(m_document.SetValueNoArry("k", first));
    EXPECT_EQ(Text(), R"({"k":{"n":1}})");
    EXPECT_TRUE(m_document.SetValueNoArry("k", second));
    EXPECT_EQ(Text(), R"({"k":[2,3]})");
    m_document.SetValue("k", first);
    EXPECT_TRUE(m_document.SetValueNoArry("k", first));
    EXPECT_EQ(Text(), R"({"k":{"n":1}})");
    EXPECT_EQ(Write(first), R"({"n":1})");
}

TEST_P(ContextDataTest, StoresACopyOfTheTargetOfAView) {
    Json::Value elsewhere = Parse(R"({"n":1})");
    ContextData other(&elsewhere);
    m_document.SetValue("appended", other);
    m_document.SetValueNoArry("assigned", other);
    elsewhere["n"] = 2;
    EXPECT_EQ(Text(), R"({"appended":[{"n":1}],"assigned":{"n":1}})");
    (*Target())["assigned"]["n"] = 3;
    EXPECT_EQ(Write(elsewhere), R"({"n":2})");
}

TEST_P(ContextDataTest, StoresAPartOfItself) {
    Given(R"({"k":[7,[8]]})");
    ContextData part = m_document.GetValuePtr("k", 1);
    m_document.SetValue("k", part);
    EXPECT_EQ(Text(), R"({"k":[7,[8],[8]]})");
    m_document.SetValueNoArry("k", part);
    EXPECT_EQ(Text(), R"({"k":[8]})");
}

TEST_P(ContextDataTest, AppendsStrings) {
    EXPECT_TRUE(m_document.SetValueInArray("k", std::string("a")));
    EXPECT_EQ(Text(), R"({"k":["a"]})");
    EXPECT_TRUE(m_document.SetValueInArray("k", "b"));
    EXPECT_TRUE(m_document.SetValueInArray("k", ""));
    EXPECT_TRUE(m_document.SetValueInArray("k", static_cast<const char*>(nullptr)));
    EXPECT_TRUE(m_document.SetValueInArray("k", std::string()));
    EXPECT_EQ(Text(), R"({"k":["a","b","","",""]})");
}

TEST_P(ContextDataTest, CreatesAnArrayForTheFirstAppendedString) {
    Given(R"({"a":null,"b":null,"c":[1]})");
    m_document.SetValueInArray("a", std::string("x"));
    m_document.SetValueInArray("b", static_cast<const char*>(nullptr));
    m_document.SetValueInArray("c", "y");
    m_document.SetValueInArray("d", "z");
    EXPECT_EQ(Text(), R"({"a":["x"],"b":[""],"c":[1,"y"],"d":["z"]})");
}

TEST_P(ContextDataTest, RemovesAMemberIfPresent) {
    const struct {
        const char* before;
        const char* after;
    } rows[] = {
        {R"({"a":1,"k":2})", R"({"a":1})"},
        {R"({"k":{"k":[1]}})", "{}"},
        {R"({"k":null})", "{}"},
        {R"({"a":1})", R"({"a":1})"},
        {"{}", "{}"},
        {"null", "{}"},
    };
    for (const auto& row : rows) {
        Given(row.before);
        EXPECT_TRUE(m_document.RemoveMember("k")) << row.before;
        EXPECT_EQ(Text(), row.after) << row.before;
    }
}

// Reading by key

TEST_P(ContextDataTest, IsValidRemovesANullMember) {
    const struct {
        const char* before;
        bool isValid;
        const char* after;
    } rows[] = {
        {"null", false, "{}"},
        {"{}", false, "{}"},
        {R"({"k":null})", false, "{}"},
        {R"({"a":null,"k":null})", false, R"({"a":null})"},
        {R"({"a":1})", false, R"({"a":1})"},
        {R"({"k":0})", true, R"({"k":0})"},
        {R"({"k":false})", true, R"({"k":false})"},
        {R"({"k":""})", true, R"({"k":""})"},
        {R"({"k":[]})", true, R"({"k":[]})"},
        {R"({"k":{}})", true, R"({"k":{}})"},
        {R"({"k":[null]})", true, R"({"k":[null]})"},
    };
    for (const auto& row : rows) {
        Given(row.before);
        EXPECT_EQ(m_document.IsValid("k"), row.isValid) << row.before;
        EXPECT_EQ(Text(), row.after) << row.before;
    }
}

TEST_P(ContextDataTest, GettersInsertANullMemberWhenAbsent) {
    const struct {
        const char* name;
        std::function<void(ContextData&)> read;
        const char* member;
    } rows[] = {
        {"GetSize", [](auto& from) { from.GetSize("k"); }, "null"},
        {"GetValue", [](auto& from) { from.GetValue("k"); }, IsView() ? "[null]" : "null"},
        {"GetValue at 0", [](auto& from) { from.GetValue("k", 0); }, "[null]"},
        {"GetValue at 2", [](auto& from) { from.GetValue("k", 2); }, "[null,null,null]"},
        {"GetValuePtr at 0", [](auto& from) { from.GetValuePtr("k", 0); }, "[null]"},
        {"GetValuePtr at 2", [](auto& from) { from.GetValuePtr("k", 2); }, "[null,null,null]"},
        {"GetValueStr", [](auto& from) { from.GetValueStr("k"); }, "null"},
        {"GetValueStr2", [](auto& from) { from.GetValueStr2("k"); }, "null"},
        {"GetValueInt", [](auto& from) { from.GetValueInt("k"); }, "null"},
        {"GetValueUInt", [](auto& from) { from.GetValueUInt("k"); }, "null"},
        {"GetValueUInt64", [](auto& from) { from.GetValueUInt64("k"); }, "null"},
        {"GetValueDouble", [](auto& from) { from.GetValueDouble("k"); }, "null"},
        {"GetValueBool", [](auto& from) { from.GetValueBool("k"); }, "null"},
    };
    for (const auto& row : rows) {
        const std::string member = std::string(R"("k":)") + row.member + "}";
        for (const char* before : {"null", "{}", R"({"k":null})"}) {
            Given(before);
            row.read(m_document);
            EXPECT_EQ(Text(), "{" + member) << row.name << " of " << before;
            EXPECT_EQ(m_document.MakeStr(), "{" + member + "\n") << row.name << " of " << before;
        }
        Given(R"({"a":{"k":1}})");
        row.read(m_document);
        EXPECT_EQ(Text(), R"({"a":{"k":1},)" + member) << row.name;
    }
}

TEST_P(ContextDataTest, GettersLeavePresentMembersUnchanged) {
    const char* before = R"({"a":[1,[2]],"b":true,"i":-1,"n":1,"o":{"m":1},"s":"x"})";
    Given(before);
    m_document.IsValid("s");
    m_document.GetSize("o");
    m_document.GetValue("a");
    m_document.GetValue("a", 1);
    m_document.GetValuePtr("a", 0);
    m_document.GetValueStr("s");
    m_document.GetValueStr2("b");
    m_document.GetValueInt("i");
    m_document.GetValueUInt("n");
    m_document.GetValueUInt64("n");
    m_document.GetValueDouble("s");
    m_document.GetValueBool("b");
    m_document.MakeStr();
    EXPECT_EQ(Text(), before);
}

TEST_P(ContextDataTest, TreatsAKeyAsOnePlainName) {
    for (const char* key : {"a.b", "a/b", "list[0]", ".", "[", "", " ", "%s", "\"", "\xc3\xa9"}) {
        Given(R"({"a":{"b":1},"list":[1]})");
        EXPECT_EQ(m_document.GetValueInt(key), 0) << key;
        EXPECT_EQ(Target()->size(), 3U) << key;
        EXPECT_TRUE(Target()->isMember(key)) << key;
        m_document.SetValue(key, 2);
        EXPECT_EQ(m_document.GetValueInt(key), 2) << key;
        EXPECT_TRUE(m_document.RemoveMember(key));
        EXPECT_EQ(Text(), R"({"a":{"b":1},"list":[1]})") << key;
    }
}

TEST_P(ContextDataTest, CountsElementsAndMembers) {
    Given(R"({"a":[1,[2,3],null],"b":true,"e":[],"n":null,"o":{"x":1,"y":2},"p":{},"s":"text","z":9})");
    const struct {
        const char* key;
        int size;
    } rows[] = {{"a", 3}, {"e", 0}, {"o", 2}, {"p", 0}, {"b", 0}, {"n", 0}, {"s", 0}, {"z", 0}, {"absent", 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(m_document.GetSize(row.key), row.size) << row.key;
    }
}

TEST_P(ContextDataTest, ReadsMembersOfTheMatchingType) {
    Given(R"({"no":false,"s":"a \"text\"\n","yes":true})");
    m_document.SetValue("int", -5);
    m_document.SetValue("smallest", INT_MIN);
    m_document.SetValue("largest", INT_MAX);
    m_document.SetValue("unsigned", 5U);
    m_document.SetValue("largest unsigned", UINT_MAX);
    m_document.SetValue("double", -2.1);
    EXPECT_EQ(m_document.GetValueStr("s"), "a \"text\"\n");
    EXPECT_EQ(m_document.GetValueStr2("s"), "a \"text\"\n");
    EXPECT_EQ(m_document.GetValueInt("int"), -5);
    EXPECT_EQ(m_document.GetValueInt("smallest"), INT_MIN);
    EXPECT_EQ(m_document.GetValueInt("largest"), INT_MAX);
    EXPECT_EQ(m_document.GetValueUInt("unsigned"), 5U);
    EXPECT_EQ(m_document.GetValueUInt("largest unsigned"), UINT_MAX);
    EXPECT_EQ(m_document.GetValueDouble("double"), -2.1);
    EXPECT_TRUE(m_document.GetValueBool("yes"));
    EXPECT_FALSE(m_document.GetValueBool("no"));
}

TEST_P(ContextDataTest, ReadsDefaultsFromMembersOfAnotherType) {
    const std::string document = R"({"array":[1],"false":false,"int":-5,"null":null,"object":{"m":1},"real":2.5,)"
                                 R"("text":"7","true":true})";
    Given(document);
    for (const char* key : {"null", "false", "true", "int", "real", "array", "object"}) {
        EXPECT_EQ(m_document.GetValueStr(key), "") << key;
        EXPECT_EQ(m_document.GetValueStr2(key), "NULL") << key;
    }
    for (const char* key : {"null", "false", "true", "real", "text", "array", "object"}) {
        EXPECT_EQ(m_document.GetValueInt(key), 0) << key;
    }
    for (const char* key : {"null", "false", "true", "int", "real", "text", "array", "object"}) {
        EXPECT_EQ(m_document.GetValueUInt(key), 0U) << key;
    }
    for (const char* key : {"null", "false", "true", "text", "array", "object"}) {
        EXPECT_EQ(m_document.GetValueDouble(key), 0.0) << key;
    }
    for (const char* key : {"null", "int", "real", "text", "array", "object"}) {
        EXPECT_FALSE(m_document.GetValueBool(key)) << key;
    }
    EXPECT_EQ(*Target(), Parse(document));
}

TEST_P(ContextDataTest, ReadsDefaultsFromAbsentMembers) {
    EXPECT_EQ(m_document.GetValueStr("a"), "");
    EXPECT_EQ(m_document.GetValueStr2("b"), "NULL");
    EXPECT_EQ(m_document.GetValueInt("c"), 0);
    EXPECT_EQ(m_document.GetValueUInt("d"), 0U);
    EXPECT_EQ(m_document.GetValueUInt64("e"), 0U);
    EXPECT_EQ(m_document.GetValueDouble("f"), 0.0);
    EXPECT_FALSE(m_document.GetValueBool("g"));
    EXPECT_EQ(Text(), R"({"a":null,"b":null,"c":null,"d":null,"e":null,"f":null,"g":null})");
}

TEST_P(ContextDataTest, GetValueStr2ReadsAnEmptyStringAsNULL) {
    Given(R"({"blank":" ","empty":"","null":"NULL"})");
    EXPECT_EQ(m_document.GetValueStr("empty"), "");
    EXPECT_EQ(m_document.GetValueStr2("empty"), "NULL");
    EXPECT_EQ(m_document.GetValueStr2("blank"), " ");
    EXPECT_EQ(m_document.GetValueStr2("null"), "NULL");
    EXPECT_EQ(m_document.GetValueStr("null"), "NULL");
}

TEST_P(ContextDataTest, KeepsZeroBytesWithinStrings) {
    for (const std::string& text : {"a\0b"s, "\0a"s, "a\0"s, "\0"s, "a\0\0b\0"s}) {
        m_document.SetValue("k", text);
        EXPECT_EQ((*Target())["k"].asString(), text);
        EXPECT_EQ(m_document.GetValueStr("k"), text);
        EXPECT_EQ(m_document.GetValueStr2("k"), text);
        m_document.SetValueInArray("l", text);
        EXPECT_EQ((*Target())["l"][m_document.GetSize("l") - 1].asString(), text);
    }
}

TEST_P(ContextDataTest, ReadsANegativeLongAsItsTwosComplement) {
    m_document.SetValue("n", -1L);
    EXPECT_EQ(m_document.GetValueUInt64("n"), 18446744073709551615U);
    EXPECT_EQ(m_document.GetValueInt("n"), 0);
    EXPECT_STREQ(m_document.MakeStr(), "{\"n\":18446744073709551615}\n");
}

TEST_P(ContextDataTest, GetValueUInt64ConvertsNumbersAndBooleans) {
    Given(R"({"false":false,"int":5,"null":null,"real":3.0,"true":true})");
    m_document.SetValue("large", 1ULL << 63);
    m_document.SetValue("unsigned", UINT_MAX);
    const struct {
        const char* key;
        unsigned long long number;
    } rows[] = {{"null", 0}, {"false", 0},          {"true", 1},           {"int", 5},
                {"real", 3}, {"large", 1ULL << 63}, {"unsigned", UINT_MAX}};
    for (const auto& row : rows) {
        EXPECT_EQ(m_document.GetValueUInt64(row.key), row.number) << row.key;
    }
}

TEST_P(ContextDataTest, PropagatesConversionExceptionsOfJsoncpp) {
    const char* before = R"({"array":[1],"object":{},"text":"7"})";
    Given(before);
    for (const char* key : {"text", "array", "object"}) {
        EXPECT_THROW(m_document.GetValueUInt64(key), std::exception) << key;
    }
    EXPECT_EQ(Text(), before);
}

}  // namespace
