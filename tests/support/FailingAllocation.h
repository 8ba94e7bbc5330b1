// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_FAILING_ALLOCATION_H
#define LUMORA_COMMON_TESTS_FAILING_ALLOCATION_H

#include <climits>

/// Makes one form of `new` fail on the thread that created it, while it lives: the first `allowed` calls succeed, the
/// next `failures` calls fail, later calls succeed again. By default every call fails.
///
/// A program that uses it replaces the non-throwing `operator new`, for the library too. To make the throwing form fail
/// as well, add support/FailingThrowingNew.cpp to the sources of the program. A thread should have at most one object
/// per form. Calls within the log call never fail, so that the log stays captured.
class FailingAllocation {
public:
    enum class Form {
        NonThrowing,  ///< `new (std::nothrow)`, which returns null
        Throwing,     ///< `new`, which throws `std::bad_alloc`; containers and strings use it
    };

    explicit FailingAllocation(int allowed = 0, int failures = INT_MAX, Form form = Form::NonThrowing);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;

    /// Counts one call of a form on this thread.
    /// @return true when the call has to fail.
    static bool Fails(Form form) noexcept;

    /// @return the calls of a form that have failed on this thread.
    static int Failures(Form form) noexcept;

private:
    Form m_form;
};

#endif  // LUMORA_COMMON_TESTS_FAILING_ALLOCATION_H
