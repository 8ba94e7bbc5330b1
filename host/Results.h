// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_RESULTS_H
#define CONTEXT_HOST_RESULTS_H

#include "ExitStatus.h"
#include "Options.h"
#include "UsageStore.h"

/// Writes the page, if the options name one, then prints the ranking, the weekly grid or the evaluation.
///
/// The store is read once, whatever the options ask for. If the page cannot be written, nothing is printed.
/// @return EXIT_OK, EXIT_NO_PAGE or EXIT_NO_OUTPUT; an error message has been printed for the last two.
ExitStatus ShowResults(UsageStore& store, const Options& options);

#endif  // CONTEXT_HOST_RESULTS_H
