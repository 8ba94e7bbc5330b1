// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_PROVIDER_RAND_SEED_H
#define LUMORA_COMMON_SRC_PROVIDER_RAND_SEED_H

/// The state of `rand_r` for every draw of the process: the variates' and the agents'. No lock guards it.
extern unsigned int rand_seed;

#endif  // LUMORA_COMMON_SRC_PROVIDER_RAND_SEED_H
