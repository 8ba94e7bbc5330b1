// SPDX-License-Identifier: Apache-2.0
#include "ContextData.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <climits>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "CapturedLog.h"

// The reader and the writer that every series of jsoncpp has; newer ones mark them as deprecated.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

// No test here depends on what differs between the series of jsoncpp, such as whether a whole number is a double, how
// a double is written, or what becomes of a key on an array.

namespace {

static_assert(!std::is_polymorphic_v<ContextData>, "a document has no virtual methods");

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
    return value;
}

/// @return compact text, without a line feed.
std::string Write(const Json::Value& value) {
    std::string text = Json::FastWriter().write(value);
    text.pop_back();
    return text;
}

std::string Write(ContextData document) {
    return Write(*document.GetValue());
}

Json::Value Unsigned(unsigned long long number) {
    return Json::Value(static_cast<Json::UInt64>(number));
}

/// How a document comes into being. The first two own their value.
enum class Origin { kDefault, kNullPointer, kPointer, kElement };

void PrintTo(Origin origin, std::ostream* out) {
    const char* names[] = {"Default", "NullPointer", "Pointer", "Element"};
    *out << names[static_cast<int>(origin)];
}

/// Runs the same checks on owning documents and on views.
class ContextDataTest : public ::testing::TestWithParam<Origin> {
protected:
    void SetUp() override { CapturedLog::Clear(); }

    void TearDown() override {
        EXPECT_TRUE(CapturedLog::Lines().empty());
        EXPECT_EQ(m_document.GetValue(), Target()) << "no method switches the mode";
        EXPECT_EQ(Write(m_holder["list"][0]), "\"beside\"");
    }

    static bool IsView() { return GetParam() == Origin::kPointer || GetParam() == Origin::kElement; }

    /// The value that the document works on, found without its help.
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

    /// Puts JSON text in the place of the target.
    void Given(const std::string& text) { *Target() = Parse(text); }

    /// What the target now is, as compact text.
    std::string Text() { return Write(*Target()); }

    /// Takes the parse error that an owning document has logged.
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

INSTANTIATE_TEST_SUITE_P(From, ContextDataTest,
                         ::testing::Values(Origin::kDefault, Origin::kNullPointer, Origin::kPointer, Origin::kElement),
                         ::testing::PrintToStringParamName());

TEST_P(ContextDataTest, IsNullAtFirst) {
    EXPECT_EQ(Text(), "null");
    EXPECT_STREQ(m_document.MakeStr(), "null\n");
}

TEST_P(ContextDataTest, GivesAccessToItsTarget) {
    *m_document.GetValue() = Parse(R"({"a":1})");
    EXPECT_EQ(m_document.GetValue(), Target());
    EXPECT_EQ(Text(), R"({"a":1})");
    EXPECT_STREQ(m_document.MakeStr(), "{\"a\":1}\n");
}

// Writing by key.

TEST_P(ContextDataTest, AssignsEveryTypeOverWhateverThereWas) {
    using Assign = std::function<bool(ContextData&)>;
    constexpr unsigned long long kSmallestLong = sizeof(long) == 4 ? 0xffffffff80000000U : 0x8000000000000000U;
    const struct {
        const char* name;
        Assign assign;
        Json::Value member;
    } rows[] = {
        {"string", [](auto& to) { return to.SetValue("k", std::string("text")); }, Json::Value("text")},
        {"empty string", [](auto& to) { return to.SetValue("k", std::string()); }, Json::Value("")},
        {"characters", [](auto& to) { return to.SetValue("k", "text"); }, Json::Value("text")},
        {"no characters", [](auto& to) { return to.SetValue("k", ""); }, Json::Value("")},
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

TEST_P(ContextDataTest, AppendsDocumentsInTheOrderOfTheCalls) {
    ContextData first(Parse(R"({"n":1})"));
    ContextData second(Parse("[2,3]"));
    EXPECT_TRUE(m_document.SetValue("k", first));
    EXPECT_EQ(Text(), R"({"k":[{"n":1}]})");
    EXPECT_TRUE(m_document.SetValue("k", second));
    EXPECT_EQ(Text(), R"({"k":[{"n":1},[2,3]]})");
    EXPECT_EQ(Write(first), R"({"n":1})");
    EXPECT_EQ(Write(second), "[2,3]");
}

TEST_P(ContextDataTest, AppendsDocumentsToWhatAnArrayHolds) {
    ContextData other(Parse("true"));
    ContextData null;
    Given(R"({"a":1,"k":["x"],"n":null})");
    EXPECT_TRUE(m_document.SetValue("k", other));
    EXPECT_TRUE(m_document.SetValue("k", null));
    EXPECT_TRUE(m_document.SetValue("n", other));
    EXPECT_EQ(Text(), R"({"a":1,"k":["x",true,null],"n":[true]})");
}

TEST_P(ContextDataTest, ReplacesAMemberByADocument) {
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

TEST_P(ContextDataTest, TakesTheTargetOfAViewAndKeepsACopyOfIt) {
    Json::Value elsewhere = Parse(R"({"n":1})");
    ContextData other(&elsewhere);
    m_document.SetValue("appended", other);
    m_document.SetValueNoArry("assigned", other);
    elsewhere["n"] = 2;
    EXPECT_EQ(Text(), R"({"appended":[{"n":1}],"assigned":{"n":1}})");
    (*Target())["assigned"]["n"] = 3;
    EXPECT_EQ(Write(elsewhere), R"({"n":2})");
}

TEST_P(ContextDataTest, TakesAPartOfItself) {
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

TEST_P(ContextDataTest, MakesAnArrayForTheFirstAppendedString) {
    Given(R"({"a":null,"b":null,"c":[1]})");
    m_document.SetValueInArray("a", std::string("x"));
    m_document.SetValueInArray("b", static_cast<const char*>(nullptr));
    m_document.SetValueInArray("c", "y");
    m_document.SetValueInArray("d", "z");
    EXPECT_EQ(Text(), R"({"a":["x"],"b":[""],"c":[1,"y"],"d":["z"]})");
}

TEST_P(ContextDataTest, RemovesAMemberIfThereIsOne) {
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

// Reading by key.

TEST_P(ContextDataTest, TellsWhetherAMemberIsThereAndTakesANullOneAway) {
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

TEST_P(ContextDataTest, InsertsANullMemberUnderEveryKeyThatItReads) {
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

TEST_P(ContextDataTest, ChangesNoMemberThatItReads) {
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

TEST_P(ContextDataTest, TakesAKeyForOnePlainName) {
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

TEST_P(ContextDataTest, CountsWhatAMemberHolds) {
    Given(R"({"a":[1,[2,3],null],"b":true,"e":[],"n":null,"o":{"x":1,"y":2},"p":{},"s":"text","z":9})");
    const struct {
        const char* key;
        int size;
    } rows[] = {{"a", 3}, {"e", 0}, {"o", 2}, {"p", 0}, {"b", 0}, {"n", 0}, {"s", 0}, {"z", 0}, {"absent", 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(m_document.GetSize(row.key), row.size) << row.key;
    }
}

TEST_P(ContextDataTest, ReadsMembersOfTheirKind) {
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

TEST_P(ContextDataTest, ReadsZeroFromMembersOfAnotherKind) {
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

TEST_P(ContextDataTest, ReadsZeroFromAbsentMembers) {
    EXPECT_EQ(m_document.GetValueStr("a"), "");
    EXPECT_EQ(m_document.GetValueStr2("b"), "NULL");
    EXPECT_EQ(m_document.GetValueInt("c"), 0);
    EXPECT_EQ(m_document.GetValueUInt("d"), 0U);
    EXPECT_EQ(m_document.GetValueUInt64("e"), 0U);
    EXPECT_EQ(m_document.GetValueDouble("f"), 0.0);
    EXPECT_FALSE(m_document.GetValueBool("g"));
    EXPECT_EQ(Text(), R"({"a":null,"b":null,"c":null,"d":null,"e":null,"f":null,"g":null})");
}

TEST_P(ContextDataTest, ReadsAnEmptyStringAsNullText) {
    Given(R"({"blank":" ","empty":"","null":"NULL"})");
    EXPECT_EQ(m_document.GetValueStr("empty"), "");
    EXPECT_EQ(m_document.GetValueStr2("empty"), "NULL");
    EXPECT_EQ(m_document.GetValueStr2("blank"), " ");
    EXPECT_EQ(m_document.GetValueStr2("null"), "NULL");
    EXPECT_EQ(m_document.GetValueStr("null"), "NULL");
}

TEST_P(ContextDataTest, ReadsANegativeLongAsItsTwosComplement) {
    m_document.SetValue("n", -1L);
    EXPECT_EQ(m_document.GetValueUInt64("n"), 18446744073709551615U);
    EXPECT_EQ(m_document.GetValueInt("n"), 0);
    EXPECT_STREQ(m_document.MakeStr(), "{\"n\":18446744073709551615}\n");
}

TEST_P(ContextDataTest, ConvertsEveryMemberButNullTo64Bits) {
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

TEST_P(ContextDataTest, PassesThroughWhatJsoncppThrowsForAConversionThatItCannotMake) {
    const char* before = R"({"array":[1],"object":{},"text":"7"})";
    Given(before);
    for (const char* key : {"text", "array", "object"}) {
        EXPECT_THROW(m_document.GetValueUInt64(key), std::exception) << key;
    }
    EXPECT_EQ(Text(), before);
}

// Sub-documents.

TEST_P(ContextDataTest, GivesACopyOfAMemberOfWhatItOwnsButOfElementZeroOfWhatItViews) {
    const struct {
        const char* before;
        const char* ownersCopy;
        const char* viewsCopy;
        const char* afterView;
    } rows[] = {
        {R"({"k":[7,8]})", "[7,8]", "7", R"({"k":[7,8]})"},
        {R"({"k":[{"a":[1]}]})", R"([{"a":[1]}])", R"({"a":[1]})", R"({"k":[{"a":[1]}]})"},
        {R"({"k":[]})", "[]", "null", R"({"k":[null]})"},
        {R"({"k":null})", "null", "null", R"({"k":[null]})"},
    };
    for (const auto& row : rows) {
        Given(row.before);
        EXPECT_EQ(Write(m_document.GetValue("k")), IsView() ? row.viewsCopy : row.ownersCopy) << row.before;
        EXPECT_EQ(Text(), IsView() ? row.afterView : row.before);
    }
}

TEST_P(ContextDataTest, GivesACopyOfAnElement) {
    Given(R"({"k":[7,{"a":1}]})");
    EXPECT_EQ(Write(m_document.GetValue("k", 0)), "7");
    EXPECT_EQ(Write(m_document.GetValue("k", 1)), R"({"a":1})");
    EXPECT_EQ(Text(), R"({"k":[7,{"a":1}]})");
}

TEST_P(ContextDataTest, GrowsAnArrayUpToTheElementThatIsAskedFor) {
    for (const bool asView : {false, true}) {
        const auto at = [&](int index) {
            return asView ? m_document.GetValuePtr("k", index) : m_document.GetValue("k", index);
        };
        Given(R"({"k":[7]})");
        EXPECT_EQ(Write(at(2)), "null");
        EXPECT_EQ(Text(), R"({"k":[7,null,null]})");
        EXPECT_EQ(m_document.GetSize("k"), 3);
        EXPECT_EQ(Write(at(1)), "null");
        EXPECT_EQ(Text(), R"({"k":[7,null,null]})");
    }
}

TEST_P(ContextDataTest, GivesCopiesThatOwnTheirValue) {
    Given(R"({"k":[{"a":[1,2]}]})");
    ContextData element = m_document.GetValue("k", 0);
    ContextData member = m_document.GetValue("k");
    (*Target())["k"][0]["a"][0] = 9;
    EXPECT_EQ(Write(element), R"({"a":[1,2]})");
    EXPECT_EQ(Write(member), IsView() ? R"({"a":[1,2]})" : R"([{"a":[1,2]}])");

    element.SetValue("a", "changed");
    member.Clear();
    EXPECT_EQ(Text(), R"({"k":[{"a":[9,2]}]})");

    *Target() = Json::Value();
    EXPECT_EQ(Write(element), R"({"a":"changed"})");

    // Owning documents in their own right: a member is given whole.
    element.SetValueInArray("b", "x");
    EXPECT_EQ(Write(element.GetValue("b")), R"(["x"])");
}

TEST_P(ContextDataTest, GivesViewsThatWriteIntoIt) {
    Given(R"({"k":[7,{"a":1}]})");
    ContextData second = m_document.GetValuePtr("k", 1);
    EXPECT_EQ(second.GetValue(), &(*Target())["k"][1]);
    EXPECT_TRUE(second.SetValue("b", "x"));
    EXPECT_EQ(Text(), R"({"k":[7,{"a":1,"b":"x"}]})");

    (*Target())["k"][1]["a"] = 2;
    EXPECT_EQ(second.GetValueInt("a"), 2);

    ContextData added = m_document.GetValuePtr("new", 0);
    added.SetValue("c", 3);
    EXPECT_EQ(Text(), R"({"k":[7,{"a":2,"b":"x"}],"new":[{"c":3}]})");
    EXPECT_TRUE(second.MakeData("[]"));
    EXPECT_EQ(Text(), R"({"k":[7,[]],"new":[{"c":3}]})");
}

TEST_P(ContextDataTest, GivesViewsOfViews) {
    Given(R"({"k":[{"l":[{}]}]})");
    ContextData outer = m_document.GetValuePtr("k", 0);
    ContextData inner = outer.GetValuePtr("l", 0);
    inner.SetValue("n", 1);
    EXPECT_EQ(Text(), R"({"k":[{"l":[{"n":1}]}]})");
    EXPECT_EQ(Write(outer.GetValue("l")), R"({"n":1})");
}

TEST_P(ContextDataTest, KeepsViewsOfOtherElementsWhenAnArrayGrows) {
    ContextData first = m_document.GetValuePtr("k", 0);
    for (int i = 0; i < 1000; ++i) {
        m_document.SetValueInArray("k", "more");
    }
    first.SetValue("n", 1);
    EXPECT_EQ(Write((*Target())["k"][0]), R"({"n":1})");
    EXPECT_EQ(m_document.GetSize("k"), 1001);
}

// The whole document.

TEST_P(ContextDataTest, ClearsButKeepsItsKind) {
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

TEST_P(ContextDataTest, WritesCompactTextThatEndsInALineFeed) {
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

TEST_P(ContextDataTest, KeepsItsTextUntilItIsMadeAgain) {
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

TEST_P(ContextDataTest, ParsesTextInThePlaceOfWhatItHeld) {
    for (const char* text : {R"({"a":{"b":[1,"x",null,true]}})", "[]", "{}", "[1]", R"({"other":1})"}) {
        EXPECT_TRUE(m_document.MakeData(text)) << text;
        EXPECT_EQ(Text(), text);
    }
    EXPECT_TRUE(m_document.MakeData(" {\r\n\t\"k\" : -7 } "));
    EXPECT_EQ(m_document.GetValueInt("k"), -7);
    EXPECT_TRUE(m_document.MakeData(R"({"k":"\u00e9\t\"\/"})"));
    EXPECT_EQ(m_document.GetValueStr("k"), "\xc3\xa9\t\"/");
}

TEST_P(ContextDataTest, KeepsTheCommentsOfTheTextThatItParses) {
    EXPECT_TRUE(m_document.MakeData("// the reason\n{\"a\":1}"));
    ASSERT_TRUE(Target()->hasComment(Json::commentBefore));
    EXPECT_NE(Target()->getComment(Json::commentBefore).find("// the reason"), std::string::npos);
    EXPECT_EQ(m_document.GetValueInt("a"), 1);
    EXPECT_STREQ(m_document.MakeStr(), "{\"a\":1}\n");
}

TEST_P(ContextDataTest, ParsesItsOwnText) {
    const std::string text = R"({"a":[1,"\"\\\n",null,true,{"":""}],"b":{}})";
    Given(text);
    const Json::Value before = *Target();
    EXPECT_TRUE(m_document.MakeData(m_document.MakeStr()));
    EXPECT_EQ(*Target(), before);
    EXPECT_EQ(m_document.MakeStr(), text + "\n");
}

TEST_P(ContextDataTest, ParsesAPartOfItself) {
    const std::string message = R"({"a":1})" + std::string(5000, ' ') + "\n// read to the end";
    (*Target())["message"] = message;
    mallopt(M_PERTURB, 0xff);  // the parser releases what it replaces: it must not read from there
    EXPECT_TRUE(m_document.MakeData((*Target())["message"].asCString()));
    mallopt(M_PERTURB, 0);
    EXPECT_EQ(Text(), R"({"a":1})");
    ASSERT_TRUE(Target()->hasComment(Json::commentAfter));
    EXPECT_NE(Target()->getComment(Json::commentAfter).find("// read to the end"), std::string::npos);
}

TEST_P(ContextDataTest, LogsANullTextAndStaysAsItIs) {
    Given(R"({"a":1})");
    EXPECT_FALSE(m_document.MakeData(nullptr));
    EXPECT_EQ(Text(), R"({"a":1})");
    const std::vector<CapturedLog::Line> lines = TakeLog();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].buffer, 0);
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[0].tag, "LMR_COMMON");
    EXPECT_EQ(lines[0].file, "ContextData.cpp");
    EXPECT_EQ(lines[0].function, "MakeData");
    EXPECT_GT(lines[0].line, 0);
    EXPECT_EQ(lines[0].format, "input is null");
}

TEST_P(ContextDataTest, LogsATextThatCannotBeParsedOnlyWhenItOwnsItsValue) {
    for (const char* text : {"", "{", "}", "[1,2", "nonsense", R"({"a":})", R"({"a" 1})", "\"open", "{%s%n"}) {
        EXPECT_FALSE(m_document.MakeData(text)) << text;
        const std::vector<CapturedLog::Line> lines = TakeLog();
        ASSERT_EQ(lines.size(), IsView() ? 0U : 1U) << text;
        for (const CapturedLog::Line& line : lines) {
            char pointer[32];
            std::snprintf(pointer, sizeof(pointer), "%p", static_cast<const void*>(text));
            EXPECT_EQ(line.buffer, 0);
            EXPECT_EQ(line.priority, 6);
            EXPECT_EQ(line.tag, "LMR_COMMON");
            EXPECT_EQ(line.file, "ContextData.cpp");
            EXPECT_EQ(line.function, "MakeData");
            EXPECT_EQ(line.format, "m_reader paring error: [%p]=> %s");
            EXPECT_EQ(line.message, std::string("m_reader paring error: [") + pointer + "]=> " + text);
        }
    }
}

TEST_P(ContextDataTest, LogsTheWholeTextEvenWhenItWasAPartOfItself) {
    Given(R"({"message":"[1,2,3,4,5,6,7,8,9,{"})");
    EXPECT_FALSE(m_document.MakeData((*Target())["message"].asCString()));
    const std::vector<CapturedLog::Line> lines = TakeLog();
    ASSERT_EQ(lines.size(), IsView() ? 0U : 1U);
    for (const CapturedLog::Line& line : lines) {
        EXPECT_EQ(line.message.substr(line.message.find("=> ")), "=> [1,2,3,4,5,6,7,8,9,{");
    }
}

TEST_P(ContextDataTest, ParsesAgainAfterAFailure) {
    EXPECT_FALSE(m_document.MakeData(R"({"a":)"));
    EXPECT_EQ(TakeLog().size(), IsView() ? 0U : 1U);
    EXPECT_TRUE(m_document.MakeData(R"({"b":2})"));
    EXPECT_EQ(Text(), R"({"b":2})");
}

// Who owns what.

TEST(ContextDataOwnershipTest, OwnsACopyOfTheValueThatItIsMadeFrom) {
    Json::Value value = Parse(R"({"k":[7,8]})");
    ContextData document(value);
    EXPECT_NE(document.GetValue(), &value);
    value["k"][0] = 9;
    EXPECT_STREQ(document.MakeStr(), "{\"k\":[7,8]}\n");
    document.SetValue("k", 1);
    EXPECT_EQ(Write(value), R"({"k":[9,8]})");
    document.MakeData("[");
    EXPECT_EQ(Write(value), R"({"k":[9,8]})");
}

TEST(ContextDataOwnershipTest, IsAnOwnerWhenItIsMadeFromAValue) {
    ContextData document(Parse(R"({"k":[7,8]})"));
    EXPECT_EQ(Write(document.GetValue("k")), "[7,8]");
    CapturedLog::Clear();
    EXPECT_FALSE(document.MakeData("["));
    EXPECT_EQ(CapturedLog::Lines().size(), 1U);
}

TEST(ContextDataOwnershipTest, IsAViewWhenItIsMadeFromAPointer) {
    Json::Value value = Parse(R"({"k":[7,8]})");
    ContextData view(&value);
    EXPECT_EQ(view.GetValue(), &value);
    EXPECT_EQ(Write(view.GetValue("k")), "7");
    value = Parse("[true]");
    EXPECT_STREQ(view.MakeStr(), "[true]\n");
}

TEST(ContextDataOwnershipTest, LeavesTheViewedValueWhenTheViewEnds) {
    Json::Value value = Parse(R"({"k":[7,8]})");
    {
        ContextData view(&value);
        ContextData copy(view);
        copy.SetValue("n", 1);
        view.MakeStr();
    }
    EXPECT_EQ(Write(value), R"({"k":[7,8],"n":1})");
}

TEST(ContextDataOwnershipTest, SharesAValueBetweenItsViews) {
    ContextData owner(Parse(R"({"a":1})"));
    ContextData first(owner.GetValue());
    ContextData second(owner.GetValue());
    first.SetValue("a", 2);
    EXPECT_EQ(second.GetValueInt("a"), 2);
    second.RemoveMember("a");
    owner.SetValue("b", 3);
    EXPECT_STREQ(first.MakeStr(), "{\"b\":3}\n");
}

TEST(ContextDataOwnershipTest, CopiesTheValueOfAnOwner) {
    ContextData owner(Parse(R"({"k":[{"a":1}]})"));
    ContextData constructed(owner);
    ContextData assigned;
    assigned.SetValue("gone", 1);
    assigned = owner;
    owner.GetValuePtr("k", 0).SetValue("a", 2);
    for (ContextData* copy : {&constructed, &assigned}) {
        EXPECT_NE(copy->GetValue(), owner.GetValue());
        EXPECT_EQ(Write(*copy), R"({"k":[{"a":1}]})");
        EXPECT_EQ(Write(copy->GetValue("k")), R"([{"a":1}])");
        copy->Clear();
    }
    EXPECT_EQ(Write(owner), R"({"k":[{"a":2}]})");
}

TEST(ContextDataOwnershipTest, CopiesThePointerOfAView) {
    Json::Value value = Parse(R"({"k":[7,8]})");
    ContextData view(&value);
    ContextData constructed(view);
    ContextData assigned(Parse(R"({"owned":1})"));
    assigned = view;
    for (ContextData* copy : {&constructed, &assigned}) {
        EXPECT_EQ(copy->GetValue(), &value);
        EXPECT_EQ(Write(copy->GetValue("k")), "7");
    }
    assigned.SetValue("n", 1);
    EXPECT_EQ(Write(value), R"({"k":[7,8],"n":1})");
}

TEST(ContextDataOwnershipTest, AssignsAnOwnerToAViewWithoutTouchingTheViewedValue) {
    Json::Value value = Parse(R"({"a":1})");
    ContextData document(&value);
    const ContextData owner(Parse("[2]"));
    document = owner;
    EXPECT_NE(document.GetValue(), &value);
    EXPECT_STREQ(document.MakeStr(), "[2]\n");
    document.Clear();
    EXPECT_EQ(Write(value), R"({"a":1})");
    EXPECT_EQ(Write(owner), "[2]");
}

TEST(ContextDataOwnershipTest, AssignsADocumentToItself) {
    Json::Value value = Parse("[1]");
    ContextData owner(value);
    ContextData view(&value);
    for (ContextData* document : {&owner, &view}) {
        Json::Value* target = document->GetValue();
        *document = static_cast<const ContextData&>(*document);
        EXPECT_EQ(document->GetValue(), target);
        EXPECT_STREQ(document->MakeStr(), "[1]\n");
    }
}

TEST(ContextDataOwnershipTest, GivesEveryDocumentATextOfItsOwn) {
    Json::Value value = Parse("[1]");
    ContextData original(&value);
    const char* text = original.MakeStr();
    auto copy = std::make_unique<ContextData>(original);
    value.append(2);
    const char* ofCopy = copy->MakeStr();
    EXPECT_NE(ofCopy, text);
    EXPECT_STREQ(ofCopy, "[1,2]\n");
    EXPECT_STREQ(text, "[1]\n");
    copy.reset();
    EXPECT_STREQ(text, "[1]\n");
}

}  // namespace
