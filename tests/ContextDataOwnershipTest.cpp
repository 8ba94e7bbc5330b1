// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "CapturedLog.h"
#include "ContextData.h"
#include "DocumentFixture.h"

namespace {

// Sub-documents

class ContextDataSubDocumentTest : public DocumentTest {};

INSTANTIATE_TEST_SUITE_P(From, ContextDataSubDocumentTest, EveryOrigin(), ::testing::PrintToStringParamName());

TEST_P(ContextDataSubDocumentTest, CopiesAMemberAsOwnerButElementZeroAsView) {
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

TEST_P(ContextDataSubDocumentTest, CopiesAnElement) {
    Given(R"({"k":[7,{"a":1}]})");
    EXPECT_EQ(Write(m_document.GetValue("k", 0)), "7");
    EXPECT_EQ(Write(m_document.GetValue("k", 1)), R"({"a":1})");
    EXPECT_EQ(Text(), R"({"k":[7,{"a":1}]})");
}

TEST_P(ContextDataSubDocumentTest, GrowsAnArrayToTheRequestedElement) {
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

TEST_P(ContextDataSubDocumentTest, ReturnsCopiesThatOwnTheirValue) {
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

    // The copy is an owning document, so GetValue(key) returns the whole member.
    element.SetValueInArray("b", "x");
    EXPECT_EQ(Write(element.GetValue("b")), R"(["x"])");
}

TEST_P(ContextDataSubDocumentTest, ReturnsViewsThatWriteIntoTheDocument) {
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

TEST_P(ContextDataSubDocumentTest, ReturnsViewsOfViews) {
    Given(R"({"k":[{"l":[{}]}]})");
    ContextData outer = m_document.GetValuePtr("k", 0);
    ContextData inner = outer.GetValuePtr("l", 0);
    inner.SetValue("n", 1);
    EXPECT_EQ(Text(), R"({"k":[{"l":[{"n":1}]}]})");
    EXPECT_EQ(Write(outer.GetValue("l")), R"({"n":1})");
}

TEST_P(ContextDataSubDocumentTest, KeepsViewsValidWhenAnArrayGrows) {
    ContextData first = m_document.GetValuePtr("k", 0);
    for (int i = 0; i < 1000; ++i) {
        m_document.SetValueInArray("k", "more");
    }
    first.SetValue("n", 1);
    EXPECT_EQ(Write((*Target())["k"][0]), R"({"n":1})");
    EXPECT_EQ(m_document.GetSize("k"), 1001);
}

// Owners and views

TEST(ContextDataOwnershipTest, ConstructsAnOwnerWithACopyOfAValue) {
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

TEST(ContextDataOwnershipTest, BehavesAsOwnerWhenConstructedFromAValue) {
    ContextData document(Parse(R"({"k":[7,8]})"));
    EXPECT_EQ(Write(document.GetValue("k")), "[7,8]");
    CapturedLog::Clear();
    EXPECT_FALSE(document.MakeData("["));
    EXPECT_EQ(CapturedLog::Lines().size(), 1U);
}

TEST(ContextDataOwnershipTest, BehavesAsViewWhenConstructedFromAPointer) {
    Json::Value value = Parse(R"({"k":[7,8]})");
    ContextData view(&value);
    EXPECT_EQ(view.GetValue(), &value);
    EXPECT_EQ(Write(view.GetValue("k")), "7");
    value = Parse("[true]");
    EXPECT_STREQ(view.MakeStr(), "[true]\n");
}

TEST(ContextDataOwnershipTest, LeavesTheViewedValueWhenAViewIsDestroyed) {
    Json::Value value = Parse(R"({"k":[7,8]})");
    {
        ContextData view(&value);
        ContextData copy(view);
        copy.SetValue("n", 1);
        view.MakeStr();
    }
    EXPECT_EQ(Write(value), R"({"k":[7,8],"n":1})");
}

TEST(ContextDataOwnershipTest, SharesOneValueBetweenSeveralViews) {
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

TEST(ContextDataOwnershipTest, AssigningAnOwnerKeepsTheViewedValue) {
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

TEST(ContextDataOwnershipTest, GivesEachDocumentItsOwnTextBuffer) {
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
