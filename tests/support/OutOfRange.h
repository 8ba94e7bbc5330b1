// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_OUT_OF_RANGE_H
#define LUMORA_COMMON_TESTS_OUT_OF_RANGE_H

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

/// Expects the std::out_of_range that std::string::substr() throws for a start beyond the end. `name` names the call in
/// the messages of a failure.
inline void ExpectOutOfRange(const std::function<void()>& call, const std::string& name) {
    try {
        call();
        ADD_FAILURE() << name << " threw nothing";
    } catch (const std::out_of_range& error) {
        EXPECT_EQ(std::string(error.what()).find("basic_string::substr"), 0U) << name << ": " << error.what();
    }
}

#endif  // LUMORA_COMMON_TESTS_OUT_OF_RANGE_H
