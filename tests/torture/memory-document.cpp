// SPDX-License-Identifier: Apache-2.0
#include "ContextData.h"
#include "MemoryCases.h"

namespace {

constexpr const char* kLong = "a text that does not fit into the string object itself";
constexpr const char* kDocument =
    R"({"array":["first element of the array","second"],"bool":true,"double":2.5,"int":-7,"text":"a text that is long enough to be allocated","uint":7})";

/// Calls a method of a document. Without a throw, `check` must hold; then the document must still be usable.
template <class Function, class Check>
void TryDocument(Try& tried, Function function, Check check) {
    ContextData data;
    data.MakeData(kDocument);
    tried.Call([&] { function(data); });
    tried.AllowJsonError();
    tried.Holds(!tried.HasPassed() || check(data), "wrong result");
    data.SetValue("later", 1);
    tried.Holds(data.GetValueInt("later") == 1 && data.GetValueInt("int") == -7, "not usable any more");
    tried.Holds(std::string(data.MakeStr()).find(R"("later":1)") != std::string::npos, "not writable any more");
}

/// Calls a method that writes the member "new"; `text` is the member as it is then written.
template <class Function>
void TryWriting(Try& tried, Function function, const char* text) {
    TryDocument(tried, function, [&](ContextData& data) {
        return std::string(data.MakeStr()).find(std::string(R"("new":)") + text) != std::string::npos;
    });
}

/// Calls a method that returns a value.
template <class Function, class Result>
void TryReading(Try& tried, Function function, const Result& expected) {
    Result result{};
    TryDocument(
        tried, [&](ContextData& data) { result = function(data); },
        [&](ContextData& /*data*/) { return result == expected; });
}

constexpr Case kCases[] = {
    {"ContextData::ContextData()",
     [](Try& tried) {
         tried.Call([] { const ContextData data; });
         tried.Returns();
     }},
    {"ContextData::ContextData(Json::Value)",
     [](Try& tried) {
         const Json::Value value(kLong);
         tried.Call([&] {
             ContextData data(value);
             tried.Holds(data.GetValue()->asString() == kLong, "wrong value");
         });
         tried.AllowJsonError();
     }},
    {"ContextData::ContextData(Json::Value*)",
     [](Try& tried) {
         Json::Value value(kLong);
         tried.Call([&] {
             ContextData data(&value);
             tried.Holds(data.GetValue() == &value, "wrong value");
         });
         tried.Returns();
     }},
    {"ContextData::SetValue(char const*, std::string)",
     [](Try& tried) {
         const std::string text(kLong);
         TryWriting(
             tried, [&](ContextData& data) { data.SetValue("new", text); }, R"("a text that does not)");
     }},
    {"ContextData::SetValue(char const*, char const*)",
     [](Try& tried) {
         TryWriting(
             tried, [](ContextData& data) { data.SetValue("new", kLong); }, R"("a text that does not)");
     }},
    {"ContextData::SetValue(char const*, int)",
     [](Try& tried) {
         TryWriting(
             tried, [](ContextData& data) { data.SetValue("new", -1); }, "-1");
     }},
    {"ContextData::SetValue(char const*, unsigned int)",
     [](Try& tried) {
         TryWriting(
             tried, [](ContextData& data) { data.SetValue("new", 4294967295U); }, "4294967295");
     }},
    {"ContextData::SetValue(char const*, unsigned long long)",
     [](Try& tried) {
         TryWriting(
             tried, [](ContextData& data) { data.SetValue("new", 18446744073709551615ULL); }, "18446744073709551615");
     }},
    {"ContextData::SetValue(char const*, long)",
     [](Try& tried) {
         TryWriting(
             tried, [](ContextData& data) { data.SetValue("new", 5L); }, "5");
     }},
    {"ContextData::SetValue(char const*, double)",
     [](Try& tried) {
         TryWriting(
             tried, [](ContextData& data) { data.SetValue("new", 0.5); }, "0.5");
     }},
    {"ContextData::SetValue(char const*, ContextData&)",
     [](Try& tried) {
         ContextData other{Json::Value(kLong)};
         TryWriting(
             tried, [&](ContextData& data) { data.SetValue("new", other); }, R"(["a text that does not)");
     }},
    {"ContextData::SetValueNoArry(char const*, ContextData&)",
     [](Try& tried) {
         ContextData other{Json::Value(kLong)};
         TryWriting(
             tried, [&](ContextData& data) { data.SetValueNoArry("new", other); }, R"("a text that does not)");
     }},
    {"ContextData::SetValueInArray(char const*, std::string)",
     [](Try& tried) {
         const std::string text(kLong);
         TryWriting(
             tried, [&](ContextData& data) { data.SetValueInArray("new", text); }, R"(["a text that does not)");
     }},
    {"ContextData::SetValueInArray(char const*, char const*)",
     [](Try& tried) {
         TryWriting(
             tried, [](ContextData& data) { data.SetValueInArray("new", kLong); }, R"(["a text that does not)");
     }},
    {"ContextData::RemoveMember(char const*)",
     [](Try& tried) {
         TryDocument(
             tried, [](ContextData& data) { data.RemoveMember("array"); },
             [](ContextData& data) { return data.GetSize("array") == 0; });
     }},
    {"ContextData::Clear()",
     [](Try& tried) {
         ContextData data;
         data.MakeData(kDocument);
         tried.Call([&] { data.Clear(); });
         tried.Returns();
         tried.Holds(std::string(data.MakeStr()) == "{}\n", "not empty");
     }},
    {"ContextData::MakeData(char const*)",
     [](Try& tried) {
         ContextData data;
         bool isParsed = false;
         tried.Call([&] { isParsed = data.MakeData(kDocument); });
         tried.AllowJsonError();
         tried.Holds(!isParsed || std::string(data.MakeStr()) == std::string(kDocument) + "\n", "wrong content");
         tried.Holds(isParsed || !tried.HasPassed() || MemoryLog::Has("paring error"), "fails without a log line");
         tried.Holds(data.MakeData(kDocument) && data.GetValueInt("int") == -7, "not usable any more");
     }},
    {"ContextData::MakeStr()",
     [](Try& tried) {
         ContextData data;
         data.MakeData(R"({"old":1})");
         data.MakeStr();
         data.MakeData(kDocument);
         const char* text = nullptr;
         tried.Call([&] { text = data.MakeStr(); });
         tried.AllowJsonError();
         const std::string expected = std::string(kDocument) + "\n";
         tried.Holds(!tried.HasPassed() || text == expected, "wrong text");
         tried.Holds(data.MakeStr() == expected, "wrong text later");
     }},
    {"ContextData::GetValue()",
     [](Try& tried) {
         ContextData data;
         Json::Value* value = nullptr;
         tried.Call([&] { value = data.GetValue(); });
         tried.Returns();
         tried.Holds(value != nullptr, "null");
     }},
    {"ContextData::IsValid(char const*)",
     [](Try& tried) {
         TryReading(
             tried, [](ContextData& data) { return !data.IsValid("new"); }, true);
     }},
    {"ContextData::GetSize(char const*)",
     [](Try& tried) {
         TryReading(
             tried, [](ContextData& data) { return data.GetSize("array"); }, 2);
     }},
    {"ContextData::GetValue(char const*)",
     [](Try& tried) {
         ContextData part;
         TryDocument(
             tried, [&](ContextData& data) { part = data.GetValue("array"); },
             [&](ContextData& /*data*/) { return part.GetValue()->size() == 2; });
     }},
    {"ContextData::GetValue(char const*, int)",
     [](Try& tried) {
         ContextData part;
         TryDocument(
             tried, [&](ContextData& data) { part = data.GetValue("array", 0); },
             [&](ContextData& /*data*/) { return part.GetValue()->asString() == "first element of the array"; });
     }},
    {"ContextData::GetValuePtr(char const*, int)",
     [](Try& tried) {
         TryDocument(
             tried, [](ContextData& data) { *data.GetValuePtr("array", 2).GetValue() = 5; },
             [](ContextData& data) { return data.GetSize("array") == 3; });
     }},
    {"ContextData::GetValueStr(char const*)",
     [](Try& tried) {
         TryReading(
             tried, [](ContextData& data) { return data.GetValueStr("text"); },
             std::string("a text that is long enough to be allocated"));
     }},
    {"ContextData::GetValueStr2(char const*)",
     [](Try& tried) {
         TryReading(
             tried, [](ContextData& data) { return data.GetValueStr2("text"); },
             std::string("a text that is long enough to be allocated"));
     }},
    {"ContextData::GetValueInt(char const*)",
     [](Try& tried) {
         TryReading(
             tried, [](ContextData& data) { return data.GetValueInt("int"); }, -7);
     }},
    {"ContextData::GetValueUInt(char const*)",
     [](Try& tried) {
         TryReading(
             tried, [](ContextData& data) { return data.GetValueUInt("uint"); }, 7U);
     }},
    {"ContextData::GetValueUInt64(char const*)",
     [](Try& tried) {
         TryReading(
             tried, [](ContextData& data) { return data.GetValueUInt64("uint"); }, 7ULL);
     }},
    {"ContextData::GetValueDouble(char const*)",
     [](Try& tried) {
         TryReading(
             tried, [](ContextData& data) { return data.GetValueDouble("double"); }, 2.5);
     }},
    {"ContextData::GetValueBool(char const*)",
     [](Try& tried) {
         TryReading(
             tried, [](ContextData& data) { return data.GetValueBool("bool"); }, true);
     }},
};

}  // namespace

Cases DocumentCases() {
    return {std::begin(kCases), std::end(kCases)};
}
