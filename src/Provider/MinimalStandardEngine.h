// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_PROVIDER_MINIMAL_STANDARD_ENGINE_H
#define LUMORA_COMMON_SRC_PROVIDER_MINIMAL_STANDARD_ENGINE_H

#include <cstdint>

/// The minimal standard generator (multiplier 16807, modulus 2^31 - 1), seeded with 1.
///
/// Canonical() returns what `std::generate_canonical` of the GNU C++ library returns. It is reimplemented here because
/// other standard libraries may compute other values.
class MinimalStandardEngine {
public:
    /// Takes two outputs of the generator.
    /// @return a uniform variate, at least 0 and below 1.
    constexpr double Canonical() {
        const std::uint32_t first = Next_();
        const std::uint32_t second = Next_();
        return CanonicalOf(first, second);
    }

    /// @return the variate computed from two successive outputs.
    static constexpr double CanonicalOf(std::uint32_t first, std::uint32_t second) {
        const double low = first - 1;
        const double high = second - 1;
        const double value = (low + high * kOutputs) / (kOutputs * kOutputs);
        return value < 1.0 ? value : kJustBelowOne;
    }

private:
    static constexpr std::uint32_t kModulus = 2147483647;
    static constexpr double kOutputs = 2147483646.0;  ///< number of possible outputs, which are 1 to kOutputs
    static constexpr double kJustBelowOne = 0x1.fffffffffffffp-1;

    constexpr std::uint32_t Next_() {
        m_state = static_cast<std::uint32_t>(std::uint64_t{m_state} * 16807 % kModulus);
        return m_state;
    }

    std::uint32_t m_state = 1;
};

#endif  // LUMORA_COMMON_SRC_PROVIDER_MINIMAL_STANDARD_ENGINE_H
