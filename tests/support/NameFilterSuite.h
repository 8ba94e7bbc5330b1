// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_NAME_FILTER_SUITE_H
#define LUMORA_COMMON_TESTS_NAME_FILTER_SUITE_H

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "CapturedLog.h"

/// The common behaviour of the subject filter and the provider filter. A test program instantiates it for its class.
template <class Filter>
class NameFilterTest : public ::testing::Test {
protected:
    void SetUp() override { CapturedLog::Clear(); }
    void TearDown() override { EXPECT_TRUE(CapturedLog::Lines().empty()); }

    void Register(const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            m_filter.Register(name);
        }
    }

    Filter m_filter;
};

/// Names the one instance of the suite.
struct FilterName {
    template <class Filter>
    static std::string GetName(int /*index*/) {
        return "Filter";
    }
};

TYPED_TEST_SUITE_P(NameFilterTest);

TYPED_TEST_P(NameFilterTest, IsCompleteWithoutNames) {
    EXPECT_TRUE(this->m_filter.Check());
    this->m_filter.Clear();
    EXPECT_TRUE(this->m_filter.Check());
}

TYPED_TEST_P(NameFilterTest, IsCompleteOnceEveryNameIsSet) {
    this->Register({"a", "b"});
    EXPECT_FALSE(this->m_filter.Check());
    this->m_filter.Set("a");
    EXPECT_FALSE(this->m_filter.Check());
    this->m_filter.Set("b");
    EXPECT_TRUE(this->m_filter.Check());
}

TYPED_TEST_P(NameFilterTest, AcceptsNamesInAnyOrderAndRepeatedly) {
    this->Register({"a", "b", "c"});
    for (const char* name : {"c", "c", "a", "c"}) {
        this->m_filter.Set(name);
        EXPECT_FALSE(this->m_filter.Check());
    }
    this->m_filter.Set("b");
    EXPECT_TRUE(this->m_filter.Check());
}

TYPED_TEST_P(NameFilterTest, CheckDoesNotChangeMarks) {
    this->Register({"a"});
    this->m_filter.Set("a");
    EXPECT_TRUE(this->m_filter.Check());
    EXPECT_TRUE(this->m_filter.Check());
}

TYPED_TEST_P(NameFilterTest, ClearKeepsNames) {
    this->Register({"a", "b"});
    for (int batch = 0; batch < 3; ++batch) {
        EXPECT_FALSE(this->m_filter.Check());
        this->m_filter.Set("a");
        EXPECT_FALSE(this->m_filter.Check());
        this->m_filter.Set("b");
        EXPECT_TRUE(this->m_filter.Check());
        this->m_filter.Clear();
    }
}

TYPED_TEST_P(NameFilterTest, IgnoresUnregisteredName) {
    this->m_filter.Set("c");
    EXPECT_TRUE(this->m_filter.Check());
    this->m_filter.Clear();
    EXPECT_TRUE(this->m_filter.Check()) << "an unregistered name became registered";
    this->m_filter.Register("c");
    EXPECT_FALSE(this->m_filter.Check()) << "setting a name before its registration counted";
}

TYPED_TEST_P(NameFilterTest, RegisteringAgainResetsMark) {
    this->Register({"a", "b"});
    this->m_filter.Set("a");
    this->m_filter.Set("b");
    this->m_filter.Register("a");
    EXPECT_FALSE(this->m_filter.Check());
    this->m_filter.Set("a");
    EXPECT_TRUE(this->m_filter.Check());
}

TYPED_TEST_P(NameFilterTest, RegisteringTwiceNeedsOneSet) {
    this->Register({"a", "a", "a"});
    this->m_filter.Set("a");
    EXPECT_TRUE(this->m_filter.Check());
}

TYPED_TEST_P(NameFilterTest, ComparesNamesByteByByte) {
    const std::vector<std::string> names = {"",
                                            std::string(1, '\0'),
                                            "a",
                                            "A",
                                            std::string("a\0", 2),
                                            std::string("a\0b", 3),
                                            std::string("a\0c", 3),
                                            "ab",
                                            " a",
                                            "a ",
                                            "\xC3\xA4",
                                            "a\xCC\x88",
                                            "\xFF"};
    for (const std::string& name : names) {
        for (const std::string& other : names) {
            TypeParam filter;
            filter.Register(name);
            filter.Set(other);
            EXPECT_EQ(filter.Check(), name == other)
                << ::testing::PrintToString(name) << " against " << ::testing::PrintToString(other);
        }
    }
    this->Register(names);
    for (const std::string& name : names) {
        EXPECT_FALSE(this->m_filter.Check()) << "complete before " << ::testing::PrintToString(name);
        this->m_filter.Set(name);
    }
    EXPECT_TRUE(this->m_filter.Check());
}

TYPED_TEST_P(NameFilterTest, CopiesNamesAndMarks) {
    this->Register({"a"});
    TypeParam copy = this->m_filter;
    this->m_filter.Set("a");
    EXPECT_FALSE(copy.Check());
    copy = this->m_filter;
    EXPECT_TRUE(copy.Check());
}

TYPED_TEST_P(NameFilterTest, AgreesWithPlainMapOnRandomCalls) {
    std::mt19937 random(20240501);
    std::map<std::string, bool> expected;
    for (int step = 0; step < 20000; ++step) {
        const std::string name(1, static_cast<char>('a' + random() % 6));
        switch (random() % 16) {
            case 0:
                this->m_filter.Register(name);
                expected[name] = false;
                break;
            case 1:
                this->m_filter.Clear();
                for (auto& entry : expected) {
                    entry.second = false;
                }
                break;
            default:
                this->m_filter.Set(name);
                if (expected.count(name) != 0) {
                    expected[name] = true;
                }
        }
        bool isComplete = true;
        for (const auto& entry : expected) {
            isComplete = isComplete && entry.second;
        }
        ASSERT_EQ(this->m_filter.Check(), isComplete) << "at step " << step;
    }
}

REGISTER_TYPED_TEST_SUITE_P(NameFilterTest, IsCompleteWithoutNames, IsCompleteOnceEveryNameIsSet,
                            AcceptsNamesInAnyOrderAndRepeatedly, CheckDoesNotChangeMarks, ClearKeepsNames,
                            IgnoresUnregisteredName, RegisteringAgainResetsMark, RegisteringTwiceNeedsOneSet,
                            ComparesNamesByteByByte, CopiesNamesAndMarks, AgreesWithPlainMapOnRandomCalls);

#endif  // LUMORA_COMMON_TESTS_NAME_FILTER_SUITE_H
