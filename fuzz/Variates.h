// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_FUZZ_VARIATES_H
#define LUMORA_COMMON_FUZZ_VARIATES_H

/// The variates, computed plainly from the C library's rand_r().
namespace Variates {

/// The state of rand_r(). Give it the library's state before comparing.
extern unsigned int state;

double Uniform();
double Exponential();
double Normal();
double Gamma(double shape);
double Beta(double a, double b);

}  // namespace Variates

#endif  // LUMORA_COMMON_FUZZ_VARIATES_H
