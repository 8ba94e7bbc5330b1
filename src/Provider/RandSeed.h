// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_PROVIDER_RAND_SEED_H
#define LUMORA_COMMON_SRC_PROVIDER_RAND_SEED_H

#include <cstdint>
#include <cstdlib>

/// The state of `rand_r` for every draw of the process: the variates' and the agents'. No lock guards it.
extern unsigned int rand_seed;

/// Draws from `rand_r`, two at a time, what uniform variates are made of. It takes the state for its scope and then
/// leaves it where `rand_r` does.
///
/// For a draw, the GNU C library goes three steps of a linear congruential generator, each of which waits for the one
/// before. Here all six are calculated from the first state, side by side: the same to the last bit, in a fraction of
/// the time. Any other C library is asked itself.
class RandR {
public:
    explicit RandR(unsigned int& state) : m_origin(state), m_state(state) {}
    ~RandR() { m_origin = m_state; }

    RandR(const RandR&) = delete;
    RandR& operator=(const RandR&) = delete;

    /// @return 52 bits: 26 of one draw, one that is always 0, and 25 of the next draw.
    std::uint64_t operator()() {
#ifdef __GLIBC__
        // Of the three states of a draw the bits from the 16th on: 11, 10 and 10.
        const std::uint64_t high = std::uint64_t{Bits_<1>(0x07FF0000)} << 25 |
                                   std::uint64_t{Bits_<2>(0x03FF0000)} << 15 | std::uint64_t{Bits_<3>(0x03E00000)} << 5;
        const std::uint32_t low = Bits_<4>(0x07FF0000) >> 2 | Bits_<5>(0x03FF0000) >> 12 | Bits_<6>(0x03C00000) >> 22;
        m_state = After_<6>();
        return high | low;
#else
        const auto high = static_cast<std::uint64_t>(rand_r(&m_state) >> 5);
        const auto low = static_cast<std::uint64_t>(rand_r(&m_state) >> 6);
        return high << 26 | low;
#endif
    }

private:
#ifdef __GLIBC__
    struct Jump {
        std::uint32_t multiplier;
        std::uint32_t increment;
    };

    static constexpr Jump JumpBy_(int steps) {
        Jump jump{1, 0};
        for (int i = 0; i < steps; ++i) {
            jump.multiplier = jump.multiplier * 1103515245U;
            jump.increment = jump.increment * 1103515245U + 12345U;
        }
        return jump;
    }

    /// @return the state some steps on.
    template <int kSteps>
    std::uint32_t After_() const {
        constexpr Jump kJump = JumpBy_(kSteps);
        return m_state * kJump.multiplier + kJump.increment;
    }

    template <int kSteps>
    std::uint32_t Bits_(std::uint32_t mask) const {
        return After_<kSteps>() & mask;
    }
#endif

    unsigned int& m_origin;
    unsigned int m_state;
};

#endif  // LUMORA_COMMON_SRC_PROVIDER_RAND_SEED_H
