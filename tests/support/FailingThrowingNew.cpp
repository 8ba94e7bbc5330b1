// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>
#include <new>

#include "FailingAllocation.h"

// The throwing `operator new` of a program whose FailingAllocation objects make it fail. Not in the support library:
// there it would replace the operator in every test, and hide mismatched deallocations from AddressSanitizer.

namespace {

void* Allocate(std::size_t size) {
    void* memory = FailingAllocation::Fails(FailingAllocation::Form::Throwing) ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

void* operator new(std::size_t size) {
    return Allocate(size);
}

void* operator new[](std::size_t size) {
    return Allocate(size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
