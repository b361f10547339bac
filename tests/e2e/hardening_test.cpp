// The protections of the built files, as they are shipped.
#include <gtest/gtest.h>

#include "tests/support/process.h"

namespace {

TEST(Hardening, IsWholeInTheCommandAndTheLibrary) {
#ifndef NDEBUG
  GTEST_SKIP() << "builds that debug do without";
#endif
  for (const auto &[file, function] :
       {std::pair(SPOOLCAP_BINARY, "main"), std::pair(SPOOLCAP_LIBRARY, "quota_verify")}) {
    EXPECT_EQ(
        support::run_process({SPOOLCAP_SOURCE "/tests/e2e/check-hardening", file, function}).out,
        "");
  }
}

}  // namespace
