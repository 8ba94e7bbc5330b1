// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_RANDOM_SAMPLING_H
#define LUMORA_COMMON_PROVIDER_RANDOM_SAMPLING_H

#include "LumoraApi.h"

/// @addtogroup bandits
/// @{

/// @name Random variates
/// Random numbers for the bandit agents.
///
/// All draws by these functions, EpsilonGreedyAgent and ThomsonSamplingAgent advance one state of the C library's
/// `rand_r`, which the whole process shares. It is initially 1 and cannot be set: processes that make the same draws
/// get the same variates. The functions do not touch the state of the C library's `rand`.
///
/// **Range.** RandomDouble() returns values in the *lower half* of the unit interval only. All other variates derive
/// from it and therefore differ from the textbook distributions, as each function states. Agents and hosts rely on
/// these sequences, so the ranges are guaranteed.
/// **Threads.** Not thread-safe: the state is shared by the whole process and has no lock.
/// **Errors.** None: nothing is logged, thrown or allocated. Each function returns for every argument; -0.0 counts as
/// 0.0.
/// @{

/// Returns a uniform variate, a multiple of 2^-53, made from two draws.
/// @return at least 0 and below 0.5; with the GNU C library never below 2.2e-9 or above 0.4999999955. The textbook
///         range ends at 1; a draw has only 31 of the 32 bits that the method expects.
LUMORA_API double RandomDouble();

/// Returns an exponential variate, by inversion of one RandomDouble().
/// @return 0 to log 2, and never 0 with the GNU C library. The textbook variate has mean 1 and no upper limit.
LUMORA_API double StandardExponential();

/// Returns a normal variate, by the polar method (Marsaglia and Bray, 1964). One value of each pair is discarded.
/// @return below 0 and finite. The textbook variate is positive half of the time.
LUMORA_API double Gauss();

/// Returns a gamma variate of scale 1.
///
/// Uses the rejection method of Ahrens and Dieter (1974) for shapes below 1, StandardExponential() for a shape of 1,
/// and the rejection method of Marsaglia and Tsang (2000) for shapes above 1.
/// @tparam T     double; no other type is instantiated.
/// @param shape  0 or more, and finite.
/// @return at most `shape - 1/3` for shapes above 1, below 1 for other shapes. The textbook variate has no upper limit.
///         - 0 if the shape is 0, and where the power underflows: always for shapes up to 0.00093, for some draws for
///           shapes up to 0.0268 (with the GNU C library), never for greater shapes.
///         - Infinity if the shape is infinity, otherwise never.
///         - NaN, without a draw, if the shape is negative or NaN, otherwise never.
template <typename T>
T StandardGamma(T shape);

/// Returns a beta variate.
///
/// If neither parameter is above 1, uses the method of Jöhnk (1964). Otherwise draws x = StandardGamma(a), then
/// y = StandardGamma(b), and returns x / (x + y).
/// @tparam T  double; no other type is instantiated.
/// @param a   0 or more, and finite.
/// @param b   0 or more, and finite.
/// @return 0 to 1, never infinity. The textbook RandomBeta(1.0, 1.0) is uniform; this one favours the middle.
///         - 0 if `a` is 0 and `b` is 1.2e-307 or more, if only `b` is infinity, and if `x + y` overflows, which takes
///           parameters with a sum of about 1.8e308; otherwise only where rounding gives it, as for an `a` that is tiny
///           or far below `b`.
///         - NaN if a parameter is negative or NaN, if both are 0, and if `a` is infinity. Also where the logarithms of
///           the method of Jöhnk overflow: always if both parameters are below 3.8e-309, for some draws if both are
///           below 1.2e-307. Otherwise never.
template <typename T>
T RandomBeta(const T& a, const T& b);

extern template LUMORA_API double StandardGamma<double>(double shape);
extern template LUMORA_API double RandomBeta<double>(const double& a, const double& b);

/// @}
/// @}

#endif  // LUMORA_COMMON_PROVIDER_RANDOM_SAMPLING_H
