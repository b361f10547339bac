// Work that is killed, before each of its calls that change the disk in turn.
#include <fcntl.h>

#include <spoolcap/quota.h>
#include "main/quota/record.h"
#include "tests/faults/traced.h"
#include "tests/unit/storage_fixture.h"

namespace {

using namespace faults;

class Killed : public storage_test {
 protected:
  Killed() : storage_test("s3") { service.emplace(box); }

  // One round for each change: `prepare`, the work as far as the change, `check`.
  void kill_at_each_change(const std::function<void()> &prepare, const std::function<void()> &work,
                           const std::function<void()> &check) const {
    int changes = 0;
    for (int chosen = 1; changes == chosen - 1; ++chosen) {
      SCOPED_TRACE(chosen);
      changes = 0;
      prepare();
      run_traced(work, box.path(""), [&](const call &one) {
        changes += (one.traits & CHANGES) != 0 ? 1 : 0;
        return fate{changes == chosen ? fate::KILL : fate::GO};
      });
      check();
    }
    EXPECT_GT(changes, 0);
  }
};

TEST_F(Killed, AFastUpdateWasDoneOrNot) {
  const std::string path = box.quota_path("1/2/21/fax");
  for (const std::string before : {"7.7", "993.9"}) {
    kill_at_each_change([&] { box.write_file(path, before); },
                        [&] { quota_upd_fast_internal(path.c_str(), 7, 0); },
                        [&] {
                          const int now = quota_upd_fast_internal(path.c_str(), 7, 0);
                          const int added = now - std::stoi(before);
                          EXPECT_TRUE(added == 7 || added == 14) << added;
                          EXPECT_EQ(box.read_file(path + ".dirty"), std::nullopt);
                        });
  }
}

TEST_F(Killed, AWriteNeverMakesARecordOfANumberWithoutADot) {
  constexpr int64_t written_value = 123'456'789'012;
  const auto opened = [&] {
    return unique_fd(::open(box.path("record").c_str(), O_RDWR | O_CLOEXEC));
  };
  kill_at_each_change([&] { box.write_file("record", "7000"); },
                      [&] { quota_write_internal(opened().get(), written_value, 0); },
                      [&] {
                        int64_t value = written_value;
                        quota_read_internal(opened().get(), &value, nullptr);
                        EXPECT_EQ(value, written_value);
                      });
}

TEST_F(Killed, ACommitLeavesAWholeFileOrNone) {
  const std::string content(300'000, 'x');
  storage_session made;
  kill_at_each_change(
      [&] {
        std::filesystem::remove_all(box.path(scache));
        made = written(QX_STORAGE_RECORDING, "wav", content);
      },
      [&] { qx_storage_commit_file(made.get(), 7); },
      [&] { EXPECT_EQ(box.read_file(scache + "rc/1/2/7.wav").value_or(content), content); });
}

}  // namespace
