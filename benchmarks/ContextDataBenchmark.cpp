// SPDX-License-Identifier: Apache-2.0
#include "ContextData.h"

#include <cstring>
#include <list>
#include <string>

#include "Comparison.h"
#include "Provider/CuratorBaseData.h"

// The document uses Json::Reader and Json::FastWriter; newer versions of jsoncpp mark them as deprecated.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

constexpr double kBound = 1.10;
constexpr const char* kDirect = "Json::Value";

// One usage as a provider publishes it.
const std::string kName = "Tyler, The Creator";  // too long for the small-string buffer
int g_start = 1620479930;
unsigned int g_duration = 190;
unsigned long long g_size = 5368709120;
double g_score = 4096.5;

void Fill(ContextData& document) {
    document.SetValue("Id", "artist-8b6cae39");
    document.SetValue("Name", kName);
    document.SetValue("Start", g_start);
    document.SetValue("Duration", g_duration);
    document.SetValue("Size", g_size);
    document.SetValue("Score", g_score);
}

void Fill(Json::Value& value) {
    value["Id"] = "artist-8b6cae39";
    value["Name"] = kName;
    value["Start"] = g_start;
    value["Duration"] = g_duration;
    value["Size"] = static_cast<Json::UInt64>(g_size);
    value["Score"] = g_score;
}

/// JSON text of a ranking of ten units.
std::string RankingText() {
    std::list<CuratorBaseData> ranking;
    for (int i = 0; i < 10; ++i) {
        ranking.emplace_back().SetUnitId("artist-8b6cae3" + std::to_string(i));
        ranking.back().m_dScore = 40961.7 / (i + 1);
    }
    return CurationResult2JsonData(ranking, CuratorData2ContextData);
}

/// Compares a call on a document with the same call on a Json::Value with the same members.
template <typename OnDocument, typename OnValue>
void CompareCalls(const std::string& what, OnDocument onDocument, OnValue onValue) {
    Comparison(what)
        .Ours([onDocument](benchmark::State& state) {
            ContextData document;
            Fill(document);
            for ([[maybe_unused]] auto _ : state) {
                onDocument(document);
            }
        })
        .Direct(kDirect, kBound, [onValue](benchmark::State& state) {
            Json::Value value;
            Fill(value);
            for ([[maybe_unused]] auto _ : state) {
                onValue(value);
            }
        });
}

void CompareWriting() {
    CompareCalls(
        "set a text (std::string, moved)", [](ContextData& document) { document.SetValue("Name", std::string(kName)); },
        [](Json::Value& value) { value["Name"] = std::string(kName); });
    CompareCalls(
        "set a text (std::string, copied)", [](ContextData& document) { document.SetValue("Name", kName); },
        [](Json::Value& value) { value["Name"] = kName; });
    CompareCalls(
        "set a text (const char*)", [](ContextData& document) { document.SetValue("Name", kName.c_str()); },
        [](Json::Value& value) { value["Name"] = kName.c_str(); });
    CompareCalls(
        "set an int", [](ContextData& document) { document.SetValue("Start", g_start); },
        [](Json::Value& value) { value["Start"] = g_start; });
    CompareCalls(
        "set an unsigned int", [](ContextData& document) { document.SetValue("Duration", g_duration); },
        [](Json::Value& value) { value["Duration"] = g_duration; });
    CompareCalls(
        "set an unsigned long long", [](ContextData& document) { document.SetValue("Size", g_size); },
        [](Json::Value& value) { value["Size"] = static_cast<Json::UInt64>(g_size); });
    CompareCalls(
        "set a double", [](ContextData& document) { document.SetValue("Score", g_score); },
        [](Json::Value& value) { value["Score"] = g_score; });
    CompareCalls(
        "fill a document (6 members)",
        [](ContextData& /*document*/) {
            ContextData fresh;
            Fill(fresh);
            benchmark::DoNotOptimize(fresh);
        },
        [](Json::Value& /*value*/) {
            Json::Value fresh;
            Fill(fresh);
            benchmark::DoNotOptimize(fresh);
        });
}

void CompareReading() {
    CompareCalls(
        "get a text",
        [](ContextData& document) {
            std::string text = document.GetValueStr("Name");
            benchmark::DoNotOptimize(text);
        },
        [](Json::Value& value) {
            const Json::Value& member = value["Name"];
            std::string text = member.isString() ? member.asString() : std::string();
            benchmark::DoNotOptimize(text);
        });
    CompareCalls(
        "get an int", [](ContextData& document) { benchmark::DoNotOptimize(document.GetValueInt("Start")); },
        [](Json::Value& value) {
            const Json::Value& member = value["Start"];
            benchmark::DoNotOptimize(member.isInt() ? member.asInt() : 0);
        });
    CompareCalls(
        "get an unsigned int",
        [](ContextData& document) { benchmark::DoNotOptimize(document.GetValueUInt("Duration")); },
        [](Json::Value& value) {
            const Json::Value& member = value["Duration"];
            benchmark::DoNotOptimize(member.isUInt() ? member.asUInt() : 0);
        });
    CompareCalls(
        "get an unsigned long long",
        [](ContextData& document) { benchmark::DoNotOptimize(document.GetValueUInt64("Size")); },
        [](Json::Value& value) {
            const Json::Value& member = value["Size"];
            benchmark::DoNotOptimize(member.isNull() ? 0 : member.asUInt64());
        });
    CompareCalls(
        "get a double", [](ContextData& document) { benchmark::DoNotOptimize(document.GetValueDouble("Score")); },
        [](Json::Value& value) {
            const Json::Value& member = value["Score"];
            benchmark::DoNotOptimize(member.isDouble() ? member.asDouble() : 0.0);
        });
}

void CompareTexts() {
    Comparison("MakeStr, a ranking of 10")
        .Ours([](benchmark::State& state) {
            ContextData document;
            document.MakeData(RankingText().c_str());
            for ([[maybe_unused]] auto _ : state) {
                benchmark::DoNotOptimize(document.MakeStr());
            }
        })
        .Direct("Json::FastWriter", kBound, [](benchmark::State& state) {
            Json::Value value;
            Json::Reader().parse(RankingText(), value);
            std::string text;
            for ([[maybe_unused]] auto _ : state) {
                Json::FastWriter writer;
                text = writer.write(value);
                benchmark::DoNotOptimize(text.c_str());
            }
        });
    Comparison("MakeData, a ranking of 10")
        .Ours([](benchmark::State& state) {
            const std::string text = RankingText();
            ContextData document;
            for ([[maybe_unused]] auto _ : state) {
                benchmark::DoNotOptimize(document.MakeData(text.c_str()));
            }
        })
        .Direct("Json::Reader", kBound, [](benchmark::State& state) {
            const std::string text = RankingText();
            Json::Value value;
            for ([[maybe_unused]] auto _ : state) {
                Json::Reader reader;
                const char* begin = text.c_str();
                benchmark::DoNotOptimize(reader.parse(begin, begin + std::strlen(begin), value));
            }
        });
}

}  // namespace

void RegisterComparisons() {
    CompareWriting();
    CompareReading();
    CompareTexts();
}
