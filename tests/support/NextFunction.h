// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_NEXT_FUNCTION_H
#define LUMORA_COMMON_TESTS_NEXT_FUNCTION_H

#include <dlfcn.h>

/// @return the function that the test program replaces: the definition in the libraries loaded after it.
template <class Function>
Function* NextFunction(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

#endif  // LUMORA_COMMON_TESTS_NEXT_FUNCTION_H
