// SPDX-License-Identifier: Apache-2.0
#include "FailingMemory.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

#include "NextFunction.h"

namespace {

thread_local int t_allowed = 0;        ///< allocations left that succeed before the first failure
thread_local int t_failures = 0;       ///< failures left
thread_local int t_failed = 0;         ///< failures so far
thread_local int t_failedInScope = 0;  ///< failures since the last Scope began
thread_local bool t_isNewing = false;  ///< inside `new`, whose call of malloc() is not counted again
thread_local int t_blocks = 0;

bool TakeFailure() {
    if (t_isNewing || t_failures == 0 || t_allowed-- > 0) {
        return false;
    }
    --t_failures;
    ++t_failed;
    ++t_failedInScope;
    errno = ENOMEM;
    return true;
}

[[maybe_unused]] void* Counted(void* block) {
    t_blocks += block != nullptr ? 1 : 0;
    return block;
}

/// Calls an operator `new` of the C++ library, or of a sanitizer.
void* NewUnlessFailing(void* (*allocate)(std::size_t), std::size_t size) {
    if (TakeFailure()) {
        throw std::bad_alloc();
    }
    const bool wasNewing = t_isNewing;
    t_isNewing = true;
    void* block = allocate(size);
    t_isNewing = wasNewing;
    return block;
}

constexpr bool kIs32Bit = sizeof(std::size_t) == 4;

}  // namespace

// AddressSanitizer allocates before this program's code can run, so that its functions cannot be replaced.
#ifndef __SANITIZE_ADDRESS__

extern "C" void* malloc(std::size_t size) noexcept {
    static const auto original = NextFunction<void*(std::size_t)>("malloc");
    return TakeFailure() ? nullptr : Counted(original(size));
}

extern "C" void* calloc(std::size_t count, std::size_t size) noexcept {
    static const auto original = NextFunction<void*(std::size_t, std::size_t)>("calloc");
    return TakeFailure() ? nullptr : Counted(original(count, size));
}

extern "C" void* realloc(void* block, std::size_t size) noexcept {
    static const auto original = NextFunction<void*(void*, std::size_t)>("realloc");
    if (TakeFailure()) {
        return nullptr;
    }
    void* moved = original(block, size);
    return block == nullptr ? Counted(moved) : moved;
}

extern "C" void free(void* block) noexcept {
    static const auto original = NextFunction<void(void*)>("free");
    t_blocks -= block != nullptr ? 1 : 0;
    original(block);
}

#endif  // __SANITIZE_ADDRESS__

// NOLINTBEGIN(misc-new-delete-overloads): the blocks come from the original operators, whose `delete` fits
void* operator new(std::size_t size) {
    static const auto original = NextFunction<void*(std::size_t)>(kIs32Bit ? "_Znwj" : "_Znwm");
    return NewUnlessFailing(original, size);
}

void* operator new[](std::size_t size) {
    static const auto original = NextFunction<void*(std::size_t)>(kIs32Bit ? "_Znaj" : "_Znam");
    return NewUnlessFailing(original, size);
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    try {
        return ::operator new[](size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// NOLINTEND(misc-new-delete-overloads)

FailingMemory::Scope::Scope(int allowed, int failures) {
    t_failedInScope = 0;
    t_allowed = allowed;
    t_failures = failures;
}

FailingMemory::Scope::~Scope() {
    t_failures = 0;
}

bool FailingMemory::Scope::HasFailed() {
    return t_failedInScope > 0;
}

FailingMemory::Pause::Pause() : m_failures(std::exchange(t_failures, 0)) {}

FailingMemory::Pause::~Pause() {
    t_failures = m_failures;
}

int FailingMemory::Failures() {
    return t_failed;
}

int FailingMemory::BlocksInUse() {
    return t_blocks;
}
