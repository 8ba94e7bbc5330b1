// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_RANDOM_SAMPLING_H
#define LUMORA_COMMON_PROVIDER_RANDOM_SAMPLING_H

#include "LumoraApi.h"

/// @addtogroup bandits
/// @{

/// @name Random variates
/// What the bandit agents draw.
///
/// All draws of a process, the agents' too, advance one state of the C library's `rand_r`, which is 1 at the start and
/// cannot be set: a process that makes the same draws gets the same variates. The state of the C library's `rand` is
/// not touched.
///
/// **Range.** RandomDouble() delivers the *lower half* of the unit interval, and so all that is made of it differs
/// from the textbook's: see each function. Agents and hosts rely on these sequences, so the ranges are promises.
/// **Threads.** One at a time in the whole process: the state is shared and has no lock.
/// **Errors.** None; nothing is logged.
/// @{

/// A uniform variate of 53 bits, made of two draws.
/// @return at least 0 and below 0.5, where the textbook has 1: `rand_r` gives 31 bits at a time, not 32.
LUMORA_API double RandomDouble();

/// An exponential variate, by inversion of one RandomDouble().
/// @return 0 to log 2, where the textbook's has mean 1 and no upper end.
LUMORA_API double StandardExponential();

/// A normal variate, by the polar method (Marsaglia and Bray, 1964). The second value of each pair is discarded.
/// @return below 0, where the textbook's is as often above.
LUMORA_API double Gauss();

/// A gamma variate of scale 1.
///
/// A shape of 1 is a StandardExponential(); a lower one takes the rejection method of Ahrens and Dieter (1974), a
/// higher one that of Marsaglia and Tsang (2000).
/// @tparam T     double; the library has no other.
/// @param shape  0 or more.
/// @return 0 or more; below `shape - 1/3` where the shape is above 1, and below 1 elsewhere, where the textbook's have
///         no upper end. Not a number, without a draw, when the shape is negative or not a number.
template <typename T>
T StandardGamma(T shape);

/// A beta variate.
///
/// Where neither parameter is above 1 it takes Jöhnk's method (1964), else the ratio of two StandardGamma(), that of
/// `a` drawn first.
/// @tparam T  double; the library has no other.
/// @param a   0 or more.
/// @param b   0 or more.
/// @return 0 to 1. RandomBeta(1.0, 1.0) is not the textbook's uniform variate but favours the middle. Not a number when
///         a parameter is negative or not a number, or when both are 0.
template <typename T>
T RandomBeta(const T& a, const T& b);

extern template LUMORA_API double StandardGamma<double>(double shape);
extern template LUMORA_API double RandomBeta<double>(const double& a, const double& b);

/// @}
/// @}

#endif  // LUMORA_COMMON_PROVIDER_RANDOM_SAMPLING_H
