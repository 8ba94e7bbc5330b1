// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_ASSERTION_H
#define LUMORA_COMMON_SRC_ASSERTION_H

// <cassert> declares __assert_fail() only when assertions are enabled.
#undef NDEBUG
#include <cassert>

/// Aborts through the C library with exactly `text` as the failed expression, in release builds too.
#define LMR_ASSERT(condition, text) \
    (static_cast<bool>(condition) ? static_cast<void>(0) : __assert_fail(text, __FILE_NAME__, __LINE__, __func__))

#endif  // LUMORA_COMMON_SRC_ASSERTION_H
