#ifndef TESTS_UNIT_LOOKUP_FIXTURE_H
#define TESTS_UNIT_LOOKUP_FIXTURE_H

#include "tests/support/platform_test.h"

using lookup_test = platform_test;

#endif
