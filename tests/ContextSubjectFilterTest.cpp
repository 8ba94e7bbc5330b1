// SPDX-License-Identifier: Apache-2.0
#include "ContextSubjectFilter.h"

#include "NameFilterSuite.h"

INSTANTIATE_TYPED_TEST_SUITE_P(ContextSubjectFilterTest, NameFilterTest, ContextSubjectFilter, FilterName);
