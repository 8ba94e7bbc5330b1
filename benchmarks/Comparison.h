// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_BENCHMARKS_COMPARISON_H
#define LUMORA_COMMON_BENCHMARKS_COMPARISON_H

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

/// One row of the table that scripts/bench prints. Compares a call of the library with direct use of its dependencies,
/// and with alternatives that a user could choose. All of them run in one program, and their repetitions run in random
/// order.
///
/// Each repetition calls the body once; only the loop in the body is measured. Times are processor time of the
/// measuring thread, unless the row is set up otherwise.
class Comparison {
public:
    using Body = std::function<void(benchmark::State&)>;

    /// @param what  name of the row, without '|' and '/'.
    explicit Comparison(std::string what) : m_what(std::move(what)) {}

    /// Measures wall-clock time: for threads that wait for each other. Call before adding bodies.
    Comparison& InRealTime();

    /// Measures the processor time of all threads: for threads that share one processor. Call before adding bodies.
    Comparison& OfAllThreads();

    /// Fixes the number of loop iterations per repetition: for work with side effects. Call before adding bodies.
    Comparison& Iterations(benchmark::IterationCount count);

    /// Fixes the number of repetitions: for slow work. Call before adding bodies.
    Comparison& Repetitions(int count);

    /// Adds the call of the library. Must be the first body.
    Comparison& Ours(Body body);

    /// Adds direct use of a dependency.
    /// @param bound  largest acceptable ratio of our time to this one.
    Comparison& Direct(const std::string& name, double bound, Body body);

    /// Adds an alternative, without a bound.
    Comparison& Peer(const std::string& name, Body body);

private:
    void Register_(const std::string& role, const std::string& name, Body body);

    std::string m_what;
    bool m_isInRealTime = false;
    bool m_isOfAllThreads = false;
    benchmark::IterationCount m_iterations = 0;  ///< 0: until the minimum time has passed
    int m_repetitions = 0;                       ///< 0: as the command line says
};

/// Adds a row that shows a number of bytes and its limit instead of times.
/// @param measure  returns the number of bytes.
void CompareBytes(const std::string& what, double limit, const std::function<double()>& measure);

/// Registers the rows of a program. Each benchmark program defines it. **Called by** `main`, once.
void RegisterComparisons();

#endif  // LUMORA_COMMON_BENCHMARKS_COMPARISON_H
