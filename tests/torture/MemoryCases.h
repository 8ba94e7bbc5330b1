// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TORTURE_MEMORY_CASES_H
#define LUMORA_COMMON_TESTS_TORTURE_MEMORY_CASES_H

#include <chrono>
#include <exception>
#include <functional>
#include <iterator>
#include <new>
#include <string>
#include <vector>

#include "Allocations.h"

/// One try of a case: one call in which one allocation, or all from it on, fail.
///
/// A case prepares its objects, makes one Call(), and says with Holds() what must be true afterwards.
class Try {
public:
    explicit Try(const Allocations::Plan& plan) : m_plan(plan) {}

    /// Makes the call under torture. Only the calling thread's allocations fail.
    template <class Function>
    void Call(Function function) {
        Allocations::Arm(m_plan);
        try {
            m_hasPassed = false;
            function();
            m_hasPassed = true;
        } catch (const std::bad_alloc&) {
            m_isOther = false;
        } catch (const std::exception& exception) {
            m_failed += Allocations::Disarm();
            m_isOther = true;
            m_other.assign(exception.what(), 0, m_other.capacity());
        }
        m_failed += Allocations::Disarm();
    }

    /// Makes the call under torture, for every thread of the process.
    template <class Function>
    void CallEverywhere(Function function) {
        m_plan.isOnEveryThread = true;
        Call(function);
    }

    /// Returns whether the call returned; otherwise it threw.
    bool HasPassed() const { return m_hasPassed; }

    /// Returns whether no allocation of the call has failed.
    bool IsUntouched() const { return m_failed == 0; }

    /// Demands what the header promises.
    void Holds(bool condition, const char* what) {
        if (!condition && m_problem == nullptr) {
            m_problem = what;
        }
    }

    /// Demands that the call returned.
    void Returns() { Holds(m_hasPassed, "must not throw"); }

    /// jsoncpp reports a text that it cannot allocate by an exception of its own.
    void AllowJsonError() { m_isOther = false; }

    /// Runs a function on another thread, which waits for ever where the call has left a lock taken.
    void Elsewhere(const std::function<void()>& function);

    /// Returns what does not hold, or "".
    std::string Problem() const {
        if (m_problem != nullptr) {
            return m_problem;
        }
        if (m_isOther) {
            return "threw another exception: " + m_other;
        }
        return IsUntouched() && !m_hasPassed ? "threw though no allocation failed" : "";
    }

private:
    Allocations::Plan m_plan;
    bool m_hasPassed = false;
    bool m_isOther = false;
    long m_failed = 0;
    const char* m_problem = nullptr;
    std::string m_other = std::string(100, ' ');
};

/// One public function under torture.
struct Case {
    const char* function;  ///< as tests/torture/cases_test.py names it
    void (*body)(Try&);
    const char* assertion = nullptr;  ///< the stated assertion that ends the process, for a try in a child process
};

using Cases = std::vector<Case>;

Cases BaseCases();
Cases DocumentCases();
Cases ThreadCases();
Cases DatabaseCases();
Cases NetworkCases();
Cases ProviderCases();
Cases CurationCases();
Cases BanditCases();

/// The lines that the library has logged, without an allocation.
namespace MemoryLog {

void Clear();

/// Returns whether a line ends with this text.
bool Has(const char* text);

}  // namespace MemoryLog

#endif  // LUMORA_COMMON_TESTS_TORTURE_MEMORY_CASES_H
