// SPDX-License-Identifier: Apache-2.0
#include "FailingAllocation.h"

#include <new>

namespace {

thread_local int t_failing = 0;

void* AllocateUnlessFailing(std::size_t size) noexcept {
    if (t_failing > 0) {
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return AllocateUnlessFailing(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return AllocateUnlessFailing(size);
}

FailingAllocation::FailingAllocation() {
    ++t_failing;
}

FailingAllocation::~FailingAllocation() {
    --t_failing;
}
