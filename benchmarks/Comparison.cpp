// SPDX-License-Identifier: Apache-2.0
#include "Comparison.h"

#include <malloc.h>

#include <cstdlib>
#include <limits>
#include <random>
#include <utility>

Comparison& Comparison::InRealTime() {
    m_isInRealTime = true;
    return *this;
}

Comparison& Comparison::OfAllThreads() {
    m_isOfAllThreads = true;
    return *this;
}

Comparison& Comparison::Iterations(benchmark::IterationCount count) {
    m_iterations = count;
    return *this;
}

Comparison& Comparison::Repetitions(int count) {
    m_repetitions = count;
    return *this;
}

Comparison& Comparison::Ours(Body body) {
    Register_("ours", "", std::move(body));
    return *this;
}

Comparison& Comparison::Direct(const std::string& name, double bound, Body body) {
    Register_("direct", name, [bound, body = std::move(body)](benchmark::State& state) {
        body(state);
        state.counters["bound"] = bound;
    });
    return *this;
}

Comparison& Comparison::Peer(const std::string& name, Body body) {
    Register_("peer", name, std::move(body));
    return *this;
}

void Comparison::Register_(const std::string& role, const std::string& name, Body body) {
    auto* registered = benchmark::RegisterBenchmark((m_what + "|" + role + "|" + name).c_str(), std::move(body));
    if (m_isInRealTime) {
        registered->UseRealTime();
    }
    if (m_isOfAllThreads) {
        registered->MeasureProcessCPUTime();
    }
    if (m_iterations != 0) {
        registered->Iterations(m_iterations);
    }
    if (m_repetitions != 0) {
        registered->Repetitions(m_repetitions);
    }
}

void CompareBytes(const std::string& what, double limit, const std::function<double()>& measure) {
    benchmark::RegisterBenchmark((what + "|bytes|").c_str(), [limit, measure](benchmark::State& state) {
        double bytes = 0.0;
        for ([[maybe_unused]] auto _ : state) {
            bytes = measure();
        }
        state.counters["bytes"] = bytes;
        state.counters["limit"] = limit;
    })->Iterations(1);
}

namespace {

void PrepareHeap() {
    // Keep freed memory: page faults on first use would distort every comparison.
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    mallopt(M_MMAP_MAX, 0);
    // Start the heap at a random offset in a page: which data share a cache line can change a comparison by a tenth for
    // the whole run. Every process gets another offset.
    constexpr unsigned int kPageSize = 4096;
    benchmark::DoNotOptimize(std::malloc(std::random_device()() % kPageSize));
}

}  // namespace

int main(int argc, char** argv) {
    PrepareHeap();
    RegisterComparisons();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
