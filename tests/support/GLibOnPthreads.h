// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_GLIB_ON_PTHREADS_H
#define LUMORA_COMMON_TESTS_GLIB_ON_PTHREADS_H

#include <glib.h>

// The bodies of g_mutex_init() and g_mutex_clear() in GLibOnPthreads.cpp, for a test that replaces these two
// functions itself. Weak: null in a program that is linked without that file.
extern "C" {

[[gnu::weak]] void GLibOnPthreads_mutex_init(GMutex* mutex);
[[gnu::weak]] void GLibOnPthreads_mutex_clear(GMutex* mutex);

}  // extern "C"

#endif  // LUMORA_COMMON_TESTS_GLIB_ON_PTHREADS_H
