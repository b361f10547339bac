// Several threads at once on one platform, as a component that serves many calls has them: each
// gets its own right answers, and what they change together adds up.
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include <spoolcap/quota.h>
#include <spoolcap/zarn_db_files.h>
#include <spoolcap/zarn_extension.h>
#include <spoolcap/zarn_user.h>
#include "main/quota/folder.h"
#include "tests/support/platform_test.h"

namespace {

using std::to_string;

// Owners 20 to 27 of client 2 of reseller 1, with one extension each, and a thread for each.
class Threads : public platform_test {
 protected:
  Threads() {
    box.add_client(2, 1, "client");
    box.add_reseller(1, "reseller");
    // Were they missing, one thread could find the file that another has just made still empty, and
    // would leave it with a dirty mark.
    for (const char *file : {"1/fax", "1/2/fax"}) box.write_file(box.quota_path(file), "0.0");
    for (int id = 20; id < 28; ++id) {
      box.add_owner(id, 2, to_string(id));
      box.add_extension(id * 10, id, to_string(id * 10));
      box.add_recording(id * 10, id * 100);
      box.set_preference(id, "fax_storage", "1");
    }
  }

  static void for_each_owner(const std::function<void(int id)> &work) {
    std::vector<std::jthread> threads(8);
    for (int id = 20; std::jthread & thread : threads) thread = std::jthread(work, id++);
  }
};

TEST_F(Threads, UpdatesOfOneTreeAddUp) {
  const mode_t before = ::umask(022);
  log.expect(FR_LOG_ERROR, " + quota_verify(target:0, resid:1, clid:2, extid:2");
  for_each_owner([](int id) {
    for (int64_t sum = 100, value = 0; sum <= 2500; sum += 100) {
      EXPECT_EQ(quota_update(id, QUOTA_FAX, 100, 60'000), 0);
      EXPECT_EQ(quota_read_sql(id, QUOTA_FAX, &value, nullptr), 0);
      EXPECT_EQ(value, sum);
      EXPECT_EQ(quota_verify(id, QUOTA_FAX), sum < 1024 ? 0 : id + 1'000'000'000);
    }
  });
  EXPECT_EQ(::umask(before), 022U) << "is the caller's again";
  for (const char *file : {"1/fax", "1/2/fax"}) {
    EXPECT_EQ(box.read_file(box.quota_path(file)), "20000.200");
  }
}

TEST_F(Threads, LookupsAnswerForTheAccountThatTheirThreadAskedFor) {
  // Each begins with another account, so that the database's and the cache's answers mix.
  for_each_owner([](int start) {
    for (int i = 0; i < 24; ++i) {
      const int id = 20 + (start + i) % 8;
      const std::string n = to_string(id), short_number = n + "0", full = "0002*" + short_number;
      const values expected = {"2", "Name of " + n, "1", full, n, "100", n, n + "00"};
      const values answers = {
          taken(qx_account_get_parent_str_sess(nullptr, id)),
          taken(qx_account_get_name(id)),
          taken(qx_account_get_pref(id, "fax_storage")),
          taken(qx_get_full_number("2", short_number.c_str())),
          taken(drget_hash_by_id(0, "n", "SELECT id FROM client WHERE id=%d", "t:%d", id, 0)),
          to_string(qx_account_get_level(id)),
          to_string(qx_get_extension_usrid(full.c_str())),
          to_string(qx_get_db_files_quota("extension_recording", 100, n.c_str()))};
      EXPECT_EQ(answers, expected);
    }
  });
  EXPECT_EQ(log.count("Adding vk server ["), 1U) << "one client for all";
}

TEST_F(Threads, MayMakeOneDirectoryAtOnce) {
  for_each_owner([&](int) {
    for (int i = 0; i < 60; ++i) {
      const std::string folder = box.path(to_string(i)) + "/a/b/c/d/e/f";
      EXPECT_EQ(make_dirs(folder.c_str(), 0770, ::getuid(), ::getgid()), 0);
    }
  });
}

}  // namespace
