// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_TIMER_MATH_H
#define LUMORA_COMMON_SRC_TIMER_MATH_H

#include <cstdint>
#include <limits>

/// The arithmetic of the timer service: 32-bit seconds that wrap around without undefined behaviour.
namespace TimerMath {

constexpr std::int32_t NextTimerId(std::int32_t last) {
    return last == std::numeric_limits<std::int32_t>::max() ? 1 : last + 1;
}

constexpr std::int32_t Add(std::int32_t time, std::uint32_t seconds) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(time) + seconds);
}

constexpr std::int32_t Difference(std::int32_t later, std::int32_t earlier) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(later) - static_cast<std::uint32_t>(earlier));
}

}  // namespace TimerMath

#endif  // LUMORA_COMMON_SRC_TIMER_MATH_H
