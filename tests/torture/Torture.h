// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TORTURE_H
#define LUMORA_COMMON_TESTS_TORTURE_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>

/// What the torture programs share: their options and their closing line.
class Torture {
public:
    /// Reads `--minutes N`, `--seed N` and `--only TEXT`, and prints the seed. Anything else ends the program with
    /// status 2.
    Torture(std::string name, int argc, char** argv) : m_name(std::move(name)), m_seed(std::random_device{}()) {
        for (int i = 1; i < argc; i += 2) {
            const std::string option = argv[i];
            const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
            if (value != nullptr && option == "--minutes") {
                m_minutes = std::atof(value);
            } else if (value != nullptr && option == "--seed") {
                m_seed = static_cast<std::uint32_t>(std::strtoul(value, nullptr, 10));
            } else if (value != nullptr && option == "--only") {
                m_only = value;
            } else {
                std::fprintf(stderr, "usage: torture-%s [--minutes N] [--seed N] [--only TEXT]\n", m_name.c_str());
                std::exit(2);
            }
        }
        m_random.seed(m_seed);
        std::setvbuf(stdout, nullptr, _IOLBF, 0);  // a program that is killed has printed what it tried
        std::printf("seed %u\n", static_cast<unsigned int>(m_seed));
    }

    /// Returns whether `--minutes` was given.
    bool IsLong() const { return m_minutes > 0; }

    /// Returns whether a try of this name is wanted: it contains the text of `--only`.
    bool IsWanted(const std::string& what) const { return what.find(m_only) != std::string::npos; }

    /// Returns whether the program should try more: until `--minutes` have passed, or `shortForm` without them.
    bool HasTime(std::chrono::milliseconds shortForm) const {
        const std::chrono::duration<double, std::ratio<60>> longForm(m_minutes);
        const auto used = std::chrono::steady_clock::now() - m_start;
        return IsLong() ? used < longForm : used < shortForm;
    }

    std::uint32_t Seed() const { return m_seed; }

    /// Returns the generator of every random choice, which `--seed` repeats.
    std::mt19937& Random() { return m_random; }

    /// Counts one try. A try that was not as promised is printed at once.
    void Count(bool isAsPromised, const std::string& what) {
        ++m_tried;
        if (isAsPromised) {
            ++m_asPromised;
            return;
        }
        std::printf("NOT AS PROMISED: %s\n", what.c_str());
    }

    /// Prints the closing line.
    /// @return the exit status.
    int End() const {
        std::printf("%s: %ld tried, %ld as promised\n", m_name.c_str(), m_tried, m_asPromised);
        return m_tried == m_asPromised && m_tried != 0 ? 0 : 1;
    }

private:
    std::string m_name;
    std::string m_only;
    double m_minutes = 0;
    std::uint32_t m_seed = 0;
    std::mt19937 m_random;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    long m_tried = 0;
    long m_asPromised = 0;
};

#endif  // LUMORA_COMMON_TESTS_TORTURE_H
