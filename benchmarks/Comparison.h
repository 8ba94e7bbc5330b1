// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_BENCHMARKS_COMPARISON_H
#define LUMORA_COMMON_BENCHMARKS_COMPARISON_H

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

/// One row of the table that scripts/bench prints: a call of ours beside the direct use of what lies below it, and
/// beside what a user would pick instead. All of them run in one program and, repetition by repetition, in random
/// order.
///
/// Each body is run once for every repetition: what stands before its loop is not measured. Times are those of the
/// processor, in the thread that measures, unless the row says otherwise.
class Comparison {
public:
    using Body = std::function<void(benchmark::State&)>;

    /// @param what  names the row; holds neither '|' nor '/'.
    explicit Comparison(std::string what) : m_what(std::move(what)) {}

    /// Measures by the clock on the wall: for threads that wait for each other. Stands before the bodies.
    Comparison& InRealTime();

    /// Counts the time of all threads: for threads that take turns on one processor. Stands before the bodies.
    Comparison& OfAllThreads();

    /// Fixes how often a repetition runs the loop: for work that leaves something behind. Stands before the bodies.
    Comparison& Iterations(benchmark::IterationCount count);

    /// Fixes the number of repetitions: for work that takes long. Stands before the bodies.
    Comparison& Repetitions(int count);

    Comparison& Ours(Body body);

    /// @param bound  the largest ratio of ours to this that is in order.
    Comparison& Direct(const std::string& name, double bound, Body body);

    Comparison& Peer(const std::string& name, Body body);

private:
    void Register_(const std::string& role, const std::string& name, Body body);

    std::string m_what;
    bool m_isInRealTime = false;
    bool m_isOfAllThreads = false;
    benchmark::IterationCount m_iterations = 0;  ///< 0 leaves it to the measured time
    int m_repetitions = 0;                       ///< 0 leaves it to the command line
};

/// Makes a row that shows bytes and a limit for them, not a time.
/// @param measure  returns the bytes.
void CompareBytes(const std::string& what, double limit, const std::function<double()>& measure);

/// Registers the rows of a program, which defines this. **Called by** `main`, once.
void RegisterComparisons();

#endif  // LUMORA_COMMON_BENCHMARKS_COMPARISON_H
