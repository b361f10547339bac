// The protections of the built files, as they are shipped.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/sandbox.h"

namespace {

support::process_result check(const std::string &file, const std::string &function) {
  return support::run_process({SPOOLCAP_SOURCE "/tests/e2e/check-hardening", file, function});
}

TEST(Hardening, IsWholeInTheCommandAndTheLibrary) {
#ifndef NDEBUG
  GTEST_SKIP() << "builds that debug do without";
#endif
  EXPECT_EQ(check(SPOOLCAP_BINARY, "main").out, "");
  EXPECT_EQ(check(SPOOLCAP_REPORT_BINARY, "main").out, "");
  EXPECT_EQ(check(SPOOLCAP_LIBRARY, "quota_verify").out, "");
}

TEST(Hardening, IsMissedByNameWhereItIsNot) {
  support::sandbox box({.use_database = false, .use_cache = false});
  box.write_file("bare.c", "int main(void) { return 0; }");
  const std::string bare = box.path("bare");
  const auto built =
      support::run_process({"cc", "-no-pie", "-fno-pie", "-fcf-protection=none",
                            "-fno-stack-protector", "-fno-stack-clash-protection", "-z", "norelro",
                            "-z", "lazy", "-z", "execstack", box.path("bare.c"), "-o", bare});
  ASSERT_EQ(built.status, 0) << built.err;
  const support::process_result result = check(bare, "main");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 9) << result.out;
}

}  // namespace
