// Members that are put aside until they are due again.
#include "transfer/backoff.h"

#include <gtest/gtest.h>

namespace {

TEST(TransferBackoff, MembersBeyondItsRoomWaitAndDelayNoOthers) {
  backoff_table table;
  const auto item = [](int i) {
    return work_item{queue_kind::uploads, {"eu@n1:" + std::to_string(i), "1000"}};
  };
  constexpr int count = 30'000;
  for (int i = 0; i < count; ++i) {
    table.put_aside(item(i), {job_end::parked, "lost"}, 1e9, 3600);
  }
  EXPECT_EQ(table.parked_count(), 10'000U);
  EXPECT_NEAR(static_cast<double>(table.waiting(1e9)), count - 10'000, 1000);
  int free = 0;
  for (int i = 0; i < count; ++i) {
    EXPECT_TRUE(table.holds(item(i), 1e9)) << i;
    free += table.holds(item(count + i), 1e9) ? 0 : 1;
  }
  EXPECT_GT(free, count * 9 / 10);
  EXPECT_FALSE(table.holds(item(count - 1), 1e9 + 3600));
  for (const double now : {1e9, 1e9 - 60}) table.see_time(now);
  EXPECT_EQ(table.take_due(queue_kind::uploads, 1e9 - 60, count).size(), 10'000U) << "set back";
}

}  // namespace
