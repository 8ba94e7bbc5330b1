// SPDX-License-Identifier: Apache-2.0
#include "Provider/ProviderFilter.h"

#include "NameFilterSuite.h"

INSTANTIATE_TYPED_TEST_SUITE_P(ProviderFilterTest, NameFilterTest, ProviderFilter, FilterName);
