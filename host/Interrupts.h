// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_INTERRUPTS_H
#define CONTEXT_HOST_INTERRUPTS_H

/// Handles SIGINT and SIGTERM, which the user sends to end the program.
///
/// Either ends the program at once, unless Catch() was called: what is stored is complete at any time. While the
/// program changes files it catches the signals, to finish the step and to report it.
///
/// **Threads.** One thread calls Catch(), Release() and Wait().
namespace Interrupts {

/// From now on the first signal is only noted. A second one ends the program at once.
void Catch();

/// Returns to the default. If a signal was noted, the program ends by it.
void Release();

/// @return whether a signal was noted.
bool IsNoted();

/// Blocks until a signal is noted.
void Wait();

}  // namespace Interrupts

#endif  // CONTEXT_HOST_INTERRUPTS_H
