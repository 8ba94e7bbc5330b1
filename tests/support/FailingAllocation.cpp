// SPDX-License-Identifier: Apache-2.0
#include "FailingAllocation.h"

#include <new>

#include "CapturedLog.h"

namespace {

struct Calls {
    int allowed;   ///< calls left that succeed before the first failure
    int failures;  ///< failures left
    int failed;
};

thread_local Calls t_calls[2];             ///< by form
thread_local bool t_isForwarding = false;  ///< the non-throwing form is calling the throwing form

Calls& CallsOf(FailingAllocation::Form form) {
    return t_calls[static_cast<int>(form)];
}

/// @param allocate  calls the throwing form of the same operator, so that `delete` and `delete[]` match it.
template <class Allocate>
void* AllocateUnlessFailing(Allocate allocate) noexcept {
    if (FailingAllocation::Fails(FailingAllocation::Form::NonThrowing)) {
        return nullptr;
    }
    t_isForwarding = true;
    void* memory = nullptr;
    try {
        memory = allocate();
    } catch (const std::bad_alloc&) {
        memory = nullptr;
    }
    t_isForwarding = false;
    return memory;
}

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return AllocateUnlessFailing([size] { return ::operator new(size); });
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return AllocateUnlessFailing([size] { return ::operator new[](size); });
}

FailingAllocation::FailingAllocation(int allowed, int failures, Form form) : m_form(form) {
    CallsOf(form) = {allowed, failures, 0};
}

FailingAllocation::~FailingAllocation() {
    CallsOf(m_form).failures = 0;
}

bool FailingAllocation::Fails(Form form) noexcept {
    Calls& calls = CallsOf(form);
    if (calls.failures == 0 || t_isForwarding || CapturedLog::IsCapturing()) {
        return false;
    }
    if (calls.allowed > 0) {
        --calls.allowed;
        return false;
    }
    --calls.failures;
    ++calls.failed;
    return true;
}

int FailingAllocation::Failures(Form form) noexcept {
    return CallsOf(form).failed;
}
