// What the tests lean on: a fault here would make others pass for nothing.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

using support::log_capture;

TEST(LogCapture, FailsTheTestForErrorsNotAnnounced) {
  EXPECT_NONFATAL_FAILURE(
      {
        log_capture log;
        log.expect(FR_LOG_ERROR, "known");
        for (const char *text : {"a known error", "a surprise"}) {
          fr_log_impl("here", 1, "f", FR_LOG_MESSAGE, FR_LOG_ERROR, "%s", text);
        }
        log.clear();
      },
      "a surprise");
  EXPECT_NONFATAL_FAILURE({ log_capture().expect(FR_LOG_ERROR, "never"); }, "never");
}
