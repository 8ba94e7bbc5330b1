// SPDX-License-Identifier: Apache-2.0
#include "Provider/CuratorBaseData.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <list>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "CapturedLog.h"

namespace {

using Ranking = std::list<CuratorBaseData>;

CuratorBaseData Ranked(const std::string& unitId, double score, const std::string& metaDataSrc = "") {
    CuratorBaseData record;
    record.SetUnitId(unitId);
    record.m_dScore = score;
    record.m_strMetaDataSrc = metaDataSrc;
    return record;
}

Ranking Units(const std::vector<std::string>& unitIds) {
    Ranking ranking;
    for (const std::string& unitId : unitIds) {
        ranking.push_back(Ranked(unitId, 0.0));
    }
    return ranking;
}

/// Returns a record in which every field has a different value.
CuratorBaseData Filled() {
    CuratorBaseData record;
    record.m_strMetaData = "meta";
    record.m_strMetaDataSrc = "source";
    record.m_nStartTime = 1;
    record.m_nAux = 2;
    record.m_nDuration = 3;
    record.m_dScore = 4.5;
    record.m_dAux[0] = 5.5;
    record.m_dAux[1] = 6.5;
    record.m_dAux[2] = 7.5;
    record.m_dAux[3] = 8.5;
    record.SetUnitId("id");
    record.SetUnitName("name");
    record.SetUnitDeviceName("device");
    return record;
}

void ExpectFilled(const CuratorBaseData& record) {
    EXPECT_EQ(record.m_strMetaData, "meta");
    EXPECT_EQ(record.m_strMetaDataSrc, "source");
    EXPECT_EQ(record.m_nStartTime, 1);
    EXPECT_EQ(record.m_nAux, 2);
    EXPECT_EQ(record.m_nDuration, 3U);
    EXPECT_EQ(record.m_dScore, 4.5);
    EXPECT_EQ(record.m_dAux[0], 5.5);
    EXPECT_EQ(record.m_dAux[1], 6.5);
    EXPECT_EQ(record.m_dAux[2], 7.5);
    EXPECT_EQ(record.m_dAux[3], 8.5);
    EXPECT_EQ(record.GetUnitId(), "id");
    EXPECT_EQ(record.GetUnitName(), "name");
    EXPECT_EQ(record.GetUnitDeviceName(), "device");
}

void ExpectDefaults(const CuratorBaseData& record) {
    EXPECT_EQ(record.m_strMetaData, "");
    EXPECT_EQ(record.m_strMetaDataSrc, "");
    EXPECT_EQ(record.m_nStartTime, 0);
    EXPECT_EQ(record.m_nAux, 0);
    EXPECT_EQ(record.m_nDuration, 0U);
    EXPECT_EQ(record.m_dScore, 0.0);
    for (const double aux : record.m_dAux) {
        EXPECT_EQ(aux, 0.0);
    }
    EXPECT_EQ(record.GetUnitId(), "");
    EXPECT_EQ(record.GetUnitName(), "");
    EXPECT_EQ(record.GetUnitDeviceName(), "");
}

// Records and grids.

TEST(CuratorBaseDataTest, StartsWithEmptyTextsAndZeros) {
    alignas(CuratorBaseData) unsigned char storage[sizeof(CuratorBaseData)];
    std::fill(std::begin(storage), std::end(storage), static_cast<unsigned char>(0xA5));
    auto* record = new (storage) CuratorBaseData();
    ExpectDefaults(*record);
    record->~CuratorBaseData();
}

TEST(CuratorBaseDataTest, ReturnsCopiesOfNamesAndId) {
    const CuratorBaseData record = Filled();
    EXPECT_TRUE((std::is_same_v<decltype(record.GetUnitId()), std::string>));
    EXPECT_TRUE((std::is_same_v<decltype(record.GetUnitName()), std::string>));
    EXPECT_TRUE((std::is_same_v<decltype(record.GetUnitDeviceName()), std::string>));
    ExpectFilled(record);
}

TEST(CuratorBaseDataTest, SetsNamesAndIdIndependently) {
    CuratorBaseData record;
    record.SetUnitName("name");
    EXPECT_EQ(record.GetUnitId(), "");
    EXPECT_EQ(record.GetUnitDeviceName(), "");
    record.SetUnitDeviceName("device");
    EXPECT_EQ(record.GetUnitId(), "");
    record.SetUnitId("id");
    record.SetUnitId("another id");
    EXPECT_EQ(record.GetUnitId(), "another id");
    EXPECT_EQ(record.GetUnitName(), "name");
    EXPECT_EQ(record.GetUnitDeviceName(), "device");
    record.SetUnitId("");
    EXPECT_EQ(record.GetUnitId(), "");
}

TEST(CuratorBaseDataTest, CopiesAndMovesEveryField) {
    CuratorBaseData original = Filled();
    const CuratorBaseData constructed(original);
    CuratorBaseData assigned;
    assigned = original;
    const Ranking listed(2, original);
    original.clear();
    ExpectFilled(constructed);
    ExpectFilled(assigned);
    ExpectFilled(listed.front());
    ExpectFilled(listed.back());
    const CuratorBaseData moved(std::move(assigned));
    ExpectFilled(moved);
    assigned = CuratorBaseData(moved);
    ExpectFilled(assigned);
}

TEST(CuratorBaseDataTest, ResetsEveryFieldOnClear) {
    CuratorBaseData record = Filled();
    record.clear();
    ExpectDefaults(record);
    record.clear();
    ExpectDefaults(record);
}

/// A derived record with one more field.
class HostRecord : public CuratorBaseData {
public:
    explicit HostRecord(int* destroyed) : m_destroyed(destroyed) {}
    ~HostRecord() override { ++*m_destroyed; }
    void clear() override {
        CuratorBaseData::clear();
        m_visits = 0;
    }

    int m_visits = 0;

private:
    int* m_destroyed;
};

TEST(CuratorBaseDataTest, CallsDerivedClearAndDestructorThroughBase) {
    int destroyed = 0;
    auto* derived = new HostRecord(&destroyed);
    CuratorBaseData* base = derived;
    *base = Filled();
    derived->m_visits = 7;
    base->clear();
    EXPECT_EQ(derived->m_visits, 0);
    ExpectDefaults(*base);
    delete base;
    EXPECT_EQ(destroyed, 1);
}

TEST(CuratorBaseData7x24Test, HasAnEmptyListForEachHourOfTheWeek) {
    const CuratorBaseData7x24 grid;
    EXPECT_TRUE((std::is_same_v<decltype(grid.m_listData), std::list<CuratorBaseData>[7][24]>));
    for (const auto& day : grid.m_listData) {
        for (const Ranking& hour : day) {
            EXPECT_TRUE(hour.empty());
        }
    }
}

// Comparing.

struct SequenceRow {
    const char* name;
    std::vector<std::string> first;
    std::vector<std::string> second;
    bool isEqual;
};

const std::vector<SequenceRow>& SequenceRows() {
    static const std::vector<SequenceRow> rows = {
        {"both empty", {}, {}, true},
        {"one empty", {}, {"a"}, false},
        {"the same one", {"a"}, {"a"}, true},
        {"a different one", {"a"}, {"b"}, false},
        {"the same three", {"a", "b", "c"}, {"a", "b", "c"}, true},
        {"a different order", {"a", "b", "c"}, {"a", "c", "b"}, false},
        {"reversed", {"a", "b"}, {"b", "a"}, false},
        {"a different first", {"x", "b", "c"}, {"a", "b", "c"}, false},
        {"a different last", {"a", "b", "x"}, {"a", "b", "c"}, false},
        {"a prefix of the other", {"a", "b"}, {"a", "b", "c"}, false},
        {"the same twice", {"a", "a"}, {"a", "a"}, true},
        {"once and twice", {"a"}, {"a", "a"}, false},
        {"empty ids", {"", ""}, {"", ""}, true},
        {"an empty id and another", {""}, {"a"}, false},
        {"a different case", {"a"}, {"A"}, false},
        {"a longer id", {"a"}, {"aa"}, false},
        {"a zero byte at the end", {"a"}, {std::string("a\0", 2)}, false},
        {"equal with zero bytes", {std::string("a\0b", 3)}, {std::string("a\0b", 3)}, true},
        {"different after a zero byte", {std::string("a\0b", 3)}, {std::string("a\0c", 3)}, false},
    };
    return rows;
}

TEST(IsSequenceEqualTest, ComparesIdsAndTheirOrder) {
    for (const SequenceRow& row : SequenceRows()) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(IsSequenceEqual(Units(row.first), Units(row.second)), row.isEqual);
        EXPECT_EQ(IsSequenceEqual(Units(row.second), Units(row.first)), row.isEqual);
    }
}

TEST(IsSequenceEqualTest, IgnoresAllFieldsExceptTheId) {
    CuratorBaseData bare;
    bare.SetUnitId("id");
    EXPECT_TRUE(IsSequenceEqual(Ranking{Filled()}, Ranking{bare}));
    CuratorBaseData same = Filled();
    same.SetUnitId("another id");
    EXPECT_FALSE(IsSequenceEqual(Ranking{Filled()}, Ranking{same}));
}

TEST(IsSequenceEqualTest, ComparesEveryCellOfGrids) {
    CuratorBaseData7x24 first;
    CuratorBaseData7x24 second;
    EXPECT_TRUE(IsSequenceEqual(first, second));
    for (int day = 0; day < 7; ++day) {
        for (int hour = 0; hour < 24; ++hour) {
            SCOPED_TRACE(testing::Message() << "day " << day << ", hour " << hour);
            first.m_listData[day][hour] = Units({"a", "b"});
            EXPECT_FALSE(IsSequenceEqual(first, second));
            EXPECT_FALSE(IsSequenceEqual(second, first));
            second.m_listData[day][hour] = Units({"b", "a"});
            EXPECT_FALSE(IsSequenceEqual(first, second));
            second.m_listData[day][hour] = {Ranked("a", 1.0, "x"), Ranked("b", 2.0)};
            EXPECT_TRUE(IsSequenceEqual(first, second));
        }
    }
}

TEST(IsSequenceEqualTest, DistinguishesCellsWithTheSameList) {
    CuratorBaseData7x24 first;
    CuratorBaseData7x24 second;
    first.m_listData[1][8] = Units({"a"});
    second.m_listData[1][9] = Units({"a"});
    EXPECT_FALSE(IsSequenceEqual(first, second));
}

// Writing a record.

TEST(CuratorData2ContextDataTest, WritesIdScoreAndNonEmptySource) {
    ContextData out;
    CuratorData2ContextData(Filled(), out);
    EXPECT_STREQ(out.MakeStr(), "{\"Id\":\"id\",\"MetaDataSrc\":\"source\",\"Score\":4.5}\n");
}

TEST(CuratorData2ContextDataTest, OmitsAnEmptySource) {
    CuratorBaseData record = Filled();
    record.m_strMetaDataSrc.clear();
    ContextData out;
    CuratorData2ContextData(record, out);
    EXPECT_STREQ(out.MakeStr(), "{\"Id\":\"id\",\"Score\":4.5}\n");
}

TEST(CuratorData2ContextDataTest, WritesAnEmptyId) {
    ContextData out;
    CuratorData2ContextData(CuratorBaseData(), out);
    EXPECT_STREQ(out.MakeStr(), "{\"Id\":\"\",\"Score\":0.0}\n");
}

TEST(CuratorData2ContextDataTest, WritesStringsAndARealScore) {
    ContextData out;
    CuratorData2ContextData(Filled(), out);
    const Json::Value& item = *out.GetValue();
    EXPECT_EQ(item["Id"].type(), Json::stringValue);
    EXPECT_EQ(item["Score"].type(), Json::realValue);
    EXPECT_EQ(item["MetaDataSrc"].type(), Json::stringValue);
}

TEST(CuratorData2ContextDataTest, WritesTheScoreExactly) {
    for (const double score : {0.0, 0.1, 1.0 / 3.0, -1.5, 4294967295.0, 18060.000000000004, 1e300,
                               std::numeric_limits<double>::denorm_min(), std::numeric_limits<double>::max()}) {
        ContextData out;
        CuratorData2ContextData(Ranked("a", score), out);
        ContextData readBack;
        ASSERT_TRUE(readBack.MakeData(out.MakeStr()));
        EXPECT_EQ(readBack.GetValueDouble("Score"), score);
    }
}

TEST(CuratorData2ContextDataTest, WritesAnyIdReadably) {
    for (const std::string& id : {std::string("a\"b\\c/d\n\t\x01"), std::string("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xB5"),
                                  std::string("a\0b", 3), std::string(" ")}) {
        ContextData out;
        CuratorData2ContextData(Ranked(id, 1.0, id), out);
        ContextData readBack;
        ASSERT_TRUE(readBack.MakeData(out.MakeStr()));
        EXPECT_EQ(readBack.GetValueStr("Id"), id);
        EXPECT_EQ(readBack.GetValueStr("MetaDataSrc"), id);
    }
}

// Writing results.

/// Arguments of one call of RecordingWriter().
struct WriterCall {
    const CuratorBaseData* record;
    std::string document;
    bool ownsItsDocument;
};

std::vector<WriterCall> g_writerCalls;

/// A host's writer: records its arguments and writes only the id.
void RecordingWriter(const CuratorBaseData& record, ContextData& out) {
    WriterCall call{&record, out.MakeStr(), false};
    // GetValue() of a view would return the element; of an owning document it returns the array.
    out.SetValueInArray("probe", "x");
    call.ownsItsDocument = out.GetValue("probe").GetValue()->isArray();
    out.RemoveMember("probe");
    out.SetValue("n", record.GetUnitId());
    g_writerCalls.push_back(call);
}

void WriteNothing(const CuratorBaseData& /*record*/, ContextData& /*out*/) {}

void WriteANestedItem(const CuratorBaseData& record, ContextData& out) {
    ContextData inner;
    inner.SetValue("list", record.GetUnitId());
    inner.SetValue("Size", -1);
    out.SetValueNoArry("list", inner);
    out.SetValue("Size", "own");
}

void WriteAScalar(const CuratorBaseData& record, ContextData& out) {
    *out.GetValue() = record.m_nAux;
}

class CurationResult2JsonDataTest : public ::testing::Test {
protected:
    void SetUp() override {
        CapturedLog::Clear();
        g_writerCalls.clear();
    }
    void TearDown() override { EXPECT_TRUE(CapturedLog::Lines().empty()); }

    static std::string Text(const Ranking& ranking) {
        return CurationResult2JsonData(ranking, CuratorData2ContextData);
    }
    static std::string Text(const CuratorBaseData7x24& grid) {
        return CurationResult2JsonData(grid, CuratorData2ContextData);
    }
};

TEST_F(CurationResult2JsonDataTest, WritesOnlyTheSizeOfAnEmptyList) {
    EXPECT_EQ(Text(Ranking()), "{\"Size\":0}\n");
    EXPECT_EQ(CurationResult2JsonData(Ranking(), WriteNothing), "{\"Size\":0}\n");
}

TEST_F(CurationResult2JsonDataTest, WritesAListInOrder) {
    EXPECT_EQ(Text(Ranking{Ranked("b", 2.5)}), "{\"Size\":1,\"list\":[{\"Id\":\"b\",\"Score\":2.5}]}\n");
    EXPECT_EQ(Text(Ranking{Ranked("b", 1.0, "web"), Ranked("a", 7.25), Ranked("", 0.0), Ranked("b", 1.0)}),
              "{\"Size\":4,\"list\":["
              "{\"Id\":\"b\",\"MetaDataSrc\":\"web\",\"Score\":1.0},"
              "{\"Id\":\"a\",\"Score\":7.25},"
              "{\"Id\":\"\",\"Score\":0.0},"
              "{\"Id\":\"b\",\"Score\":1.0}]}\n");
}

TEST_F(CurationResult2JsonDataTest, WritesTheSizeOfALongList) {
    ContextData document;
    ASSERT_TRUE(document.MakeData(Text(Ranking(1000, Ranked("a", 1.0))).c_str()));
    EXPECT_EQ(document.GetValueUInt("Size"), 1000U);
    EXPECT_EQ(document.GetSize("list"), 1000);
}

TEST_F(CurationResult2JsonDataTest, CallsTheWriterForEachRecordOfAList) {
    const Ranking ranking = Units({"c", "a", "b"});
    EXPECT_EQ(CurationResult2JsonData(ranking, RecordingWriter),
              "{\"Size\":3,\"list\":[{\"n\":\"c\"},{\"n\":\"a\"},{\"n\":\"b\"}]}\n");
    ASSERT_EQ(g_writerCalls.size(), ranking.size());
    auto call = g_writerCalls.begin();
    for (const CuratorBaseData& record : ranking) {
        EXPECT_EQ(call->record, &record);
        EXPECT_EQ(call->document, "null\n");
        EXPECT_TRUE(call->ownsItsDocument);
        ++call;
    }
}

TEST_F(CurationResult2JsonDataTest, AppendsAnyValueThatTheWriterMakes) {
    Ranking ranking = Units({"a", "b"});
    ranking.front().m_nAux = 1;
    ranking.back().m_nAux = -2;
    EXPECT_EQ(CurationResult2JsonData(ranking, WriteNothing), "{\"Size\":2,\"list\":[null,null]}\n");
    EXPECT_EQ(CurationResult2JsonData(ranking, WriteAScalar), "{\"Size\":2,\"list\":[1,-2]}\n");
    EXPECT_EQ(CurationResult2JsonData(ranking, WriteANestedItem),
              "{\"Size\":2,\"list\":["
              "{\"Size\":\"own\",\"list\":{\"Size\":-1,\"list\":\"a\"}},"
              "{\"Size\":\"own\",\"list\":{\"Size\":-1,\"list\":\"b\"}}]}\n");
}

TEST_F(CurationResult2JsonDataTest, WritesOnlyTheSizeOfAnEmptyGrid) {
    EXPECT_EQ(Text(CuratorBaseData7x24()), "{\"Size\":0}\n");
}

TEST_F(CurationResult2JsonDataTest, WrapsDaysAndHoursInArraysOfOneElement) {
    CuratorBaseData7x24 grid;
    grid.m_listData[1][8] = {Ranked("a", 2.0, "web"), Ranked("b", 1.0)};
    EXPECT_EQ(Text(grid),
              "{\"Mon\":[{\"8\":[{\"Size\":2,\"list\":["
              "{\"Id\":\"a\",\"MetaDataSrc\":\"web\",\"Score\":2.0},{\"Id\":\"b\",\"Score\":1.0}]}]}],\"Size\":1}\n");
}

TEST_F(CurationResult2JsonDataTest, CountsOnlyTheDaysOfAGrid) {
    CuratorBaseData7x24 grid;
    grid.m_listData[0][0] = {Ranked("a", 1.0)};
    grid.m_listData[0][9] = {Ranked("b", 1.0), Ranked("c", 0.5)};
    grid.m_listData[0][10] = {Ranked("d", 1.0)};
    grid.m_listData[6][23] = {Ranked("e", 1.0)};
    EXPECT_EQ(Text(grid),
              "{\"Sat\":[{\"23\":[{\"Size\":1,\"list\":[{\"Id\":\"e\",\"Score\":1.0}]}]}],"
              "\"Size\":2,"
              "\"Sun\":[{"
              "\"0\":[{\"Size\":1,\"list\":[{\"Id\":\"a\",\"Score\":1.0}]}],"
              "\"10\":[{\"Size\":1,\"list\":[{\"Id\":\"d\",\"Score\":1.0}]}],"
              "\"9\":[{\"Size\":2,\"list\":[{\"Id\":\"b\",\"Score\":1.0},{\"Id\":\"c\",\"Score\":0.5}]}]}]}\n");
}

TEST_F(CurationResult2JsonDataTest, WritesEveryDayAndHourKey) {
    const char* const days[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    for (int day = 0; day < 7; ++day) {
        for (int hour = 0; hour < 24; ++hour) {
            CuratorBaseData7x24 grid;
            grid.m_listData[day][hour] = Units({"a"});
            const std::string item = "[{\"" + std::to_string(hour) + "\":[{\"Size\":1,\"list\":[null]}]}]";
            const std::string dayMember = "\"" + std::string(days[day]) + "\":" + item;
            // Members are sorted by name: "Sun", "Thu", "Tue" and "Wed" come after "Size".
            const bool isBeforeSize = std::string(days[day]) < "Size";
            EXPECT_EQ(CurationResult2JsonData(grid, WriteNothing),
                      isBeforeSize ? "{" + dayMember + ",\"Size\":1}\n" : "{\"Size\":1," + dayMember + "}\n");
        }
    }
}

TEST_F(CurationResult2JsonDataTest, WritesAFullGrid) {
    CuratorBaseData7x24 grid;
    for (int day = 0; day < 7; ++day) {
        for (int hour = 0; hour < 24; ++hour) {
            grid.m_listData[day][hour] = Ranking(static_cast<std::size_t>(1 + (day + hour) % 3),
                                                 Ranked("u" + std::to_string(day * 24 + hour), 1));
        }
    }
    ContextData document;
    ASSERT_TRUE(document.MakeData(Text(grid).c_str()));
    EXPECT_EQ(document.GetValue()->size(), 8U);
    EXPECT_EQ(document.GetValueInt("Size"), 7);
    const char* const days[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    for (int day = 0; day < 7; ++day) {
        ASSERT_EQ(document.GetSize(days[day]), 1);
        ContextData dayDocument = document.GetValue(days[day], 0);
        EXPECT_EQ(dayDocument.GetValue()->size(), 24U) << "not one member for each hour, without a size";
        for (int hour = 0; hour < 24; ++hour) {
            const std::string key = std::to_string(hour);
            ASSERT_EQ(dayDocument.GetSize(key.c_str()), 1);
            ContextData hourDocument = dayDocument.GetValue(key.c_str(), 0);
            EXPECT_EQ(hourDocument.GetValueInt("Size"), 1 + (day + hour) % 3);
            EXPECT_EQ(hourDocument.GetSize("list"), 1 + (day + hour) % 3);
            EXPECT_EQ(hourDocument.GetValue("list", 0).GetValueStr("Id"), "u" + std::to_string(day * 24 + hour));
        }
    }
}

TEST_F(CurationResult2JsonDataTest, CallsTheWriterForEachRecordOfAGrid) {
    CuratorBaseData7x24 grid;
    grid.m_listData[3][5] = Units({"d", "c"});
    grid.m_listData[0][7] = Units({"a"});
    grid.m_listData[3][4] = Units({"b"});
    EXPECT_EQ(CurationResult2JsonData(grid, RecordingWriter),
              "{\"Size\":2,"
              "\"Sun\":[{\"7\":[{\"Size\":1,\"list\":[{\"n\":\"a\"}]}]}],"
              "\"Wed\":[{\"4\":[{\"Size\":1,\"list\":[{\"n\":\"b\"}]}],"
              "\"5\":[{\"Size\":2,\"list\":[{\"n\":\"d\"},{\"n\":\"c\"}]}]}]}\n");
    const std::vector<const CuratorBaseData*> expected = {
        &grid.m_listData[0][7].front(), &grid.m_listData[3][4].front(), &grid.m_listData[3][5].front(),
        &grid.m_listData[3][5].back()};
    ASSERT_EQ(g_writerCalls.size(), expected.size());
    for (std::size_t call = 0; call < expected.size(); ++call) {
        EXPECT_EQ(g_writerCalls[call].record, expected[call]);
        EXPECT_EQ(g_writerCalls[call].document, "null\n");
        EXPECT_TRUE(g_writerCalls[call].ownsItsDocument);
    }
}

TEST_F(CurationResult2JsonDataTest, KeepsMembersOfItemsWithTheKeysOfTheGrid) {
    CuratorBaseData7x24 grid;
    grid.m_listData[5][0] = Units({"a"});
    EXPECT_EQ(CurationResult2JsonData(grid, WriteANestedItem),
              "{\"Fri\":[{\"0\":[{\"Size\":1,\"list\":["
              "{\"Size\":\"own\",\"list\":{\"Size\":-1,\"list\":\"a\"}}]}]}],\"Size\":1}\n");
}

}  // namespace
