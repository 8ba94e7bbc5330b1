// SPDX-License-Identifier: Apache-2.0
#include "FailingAllocation.h"

#include <new>

namespace {

thread_local int t_allowed = 0;   ///< calls left that succeed before the first failure
thread_local int t_failures = 0;  ///< failures left

/// @param allocate  calls the throwing form of the same operator, so that `delete` and `delete[]` match it.
template <class Allocate>
void* AllocateUnlessFailing(Allocate allocate) noexcept {
    if (t_failures > 0 && t_allowed-- <= 0) {
        --t_failures;
        return nullptr;
    }
    try {
        return allocate();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return AllocateUnlessFailing([size] { return ::operator new(size); });
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return AllocateUnlessFailing([size] { return ::operator new[](size); });
}

FailingAllocation::FailingAllocation(int allowed, int failures) {
    t_allowed = allowed;
    t_failures = failures;
}

FailingAllocation::~FailingAllocation() {
    t_failures = 0;
}
