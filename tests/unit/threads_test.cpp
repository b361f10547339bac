// Several threads at once on one platform, as a component that serves many calls has them: each
// gets its own right answers, and what they change together adds up. The thread sanitizer runs
// these.
#include <sys/stat.h>

#include <functional>
#include <thread>

#include "lookup_fixture.h"
#include "quota/quota.h"
#include "zarn_db_files.h"
#include "zarn_extension.h"
#include "zarn_user.h"

namespace {

constexpr int owner_count = 8;  // 20 to 27, of client 2, of reseller 1; each with one extension
constexpr int first_owner = 20;

class Threads : public lookup_test {
 protected:
  Threads() : lookup_test("threads") {
    box.add_reseller(1, "reseller");
    box.add_client(2, 1, "client");
    // Were they missing, one thread could find the file that another has just made still empty, and
    // would leave it with a dirty mark.
    box.write_quota_file(1, 0, 0, "fax", "0.0");
    box.write_quota_file(1, 2, 0, "fax", "0.0");
    for (int id = first_owner; id < first_owner + owner_count; ++id) {
      box.add_owner(id, 2, std::to_string(id));
      box.add_extension(id * 10, id, std::to_string(id * 10));
      box.add_recording(id * 10, id * 100);
      box.set_preference(id, "fax_storage", "1");
      box.set_preference(id, "max_sound", std::to_string(id * 7));
      box.write_quota_file(1, 2, id, "music", std::to_string(id * 3) + ".5");
    }
  }

  // Runs the work for every owner at once, in a thread each.
  static void for_each_owner(const std::function<void(int id)> &work) {
    std::vector<std::jthread> threads(owner_count);
    for (int id = first_owner; std::jthread & thread : threads) thread = std::jthread(work, id++);
  }
};

TEST_F(Threads, UpdatesOfOneTreeAddUpAndEachAccountFillsAlone) {
  constexpr int rounds = 25;
  const mode_t before = ::umask(022);
  log.expect(FR_LOG_ERROR, "returned:1000000027");
  for (int id = first_owner; id < first_owner + owner_count; ++id)
    log.expect(FR_LOG_ERROR, "extid:" + std::to_string(id));
  for_each_owner([](int id) {
    for (int round = 1; round <= rounds; ++round) {
      EXPECT_EQ(quota_update(id, QUOTA_FAX, 100, 60'000), 0);
      int64_t value = 0;
      EXPECT_EQ(quota_read_sql(id, QUOTA_FAX, &value, nullptr), 0);
      EXPECT_EQ(value, round * 100);
      EXPECT_EQ(quota_verify(id, QUOTA_FAX), value < 1024 ? 0 : id + 1'000'000'000);
    }
  });
  EXPECT_EQ(::umask(before), 022U) << "is the caller's again";
  const std::string sum = std::to_string(owner_count * rounds * 100) + "." +
                          std::to_string(owner_count * rounds);  // each update is a revision
  EXPECT_EQ(box.quota_file(1, 2, 0, "fax"), sum);
  EXPECT_EQ(box.quota_file(1, 0, 0, "fax"), sum);
  EXPECT_EQ(box.quota_file(1, 2, first_owner, "fax"), "2500.25");
}

TEST_F(Threads, EveryLookupAnswersForTheAccountThatItsThreadAskedFor) {
  using lookup = std::function<std::optional<std::string>(int id)>;
  const struct {
    const char *name;
    lookup asked, expected;
  } rows[] = {
      {"parent", [](int id) { return taken(qx_account_get_parent_str_sess(nullptr, id)); },
       [](int) { return "2"; }},
      {"level", [](int id) { return std::to_string(qx_account_get_level(id)); },
       [](int) { return "100"; }},
      {"name", [](int id) { return taken(qx_account_get_name(id)); },
       [](int id) { return "Name of " + std::to_string(id); }},
      {"limit", [](int id) { return taken(qx_account_get_pref(id, "max_sound")); },
       [](int id) { return std::to_string(id * 7); }},
      {"extensions",
       [](int id) {
         size_t count = 0;
         char **numbers = qx_user_get_extensions_sess(nullptr, "2", id, 0, &count);
         return taken(static_cast<int>(count), numbers).at(0);
       },
       [](int id) { return "0002*" + std::to_string(id * 10); }},
      {"full number",
       [](int id) { return taken(qx_get_full_number("2", std::to_string(id * 10).c_str())); },
       [](int id) { return "0002*" + std::to_string(id * 10); }},
      {"cache",
       [](int id) {
         return taken(
             drget_hash_by_id(0, "n", "SELECT id * 9 FROM client WHERE id = %d", "t:%d", id, 0));
       },
       [](int id) { return std::to_string(id * 9); }},
      {"recordings",
       [](int id) {
         return std::to_string(
             qx_get_db_files_quota("extension_recording", 100, std::to_string(id).c_str()));
       },
       [](int id) { return std::to_string(id * 100); }},
      {"stored value",
       [](int id) {
         int64_t value = 0;
         EXPECT_EQ(quota_read(static_cast<unsigned>(id), 2, 1, QUOTA_MUSIC, &value, nullptr), 0);
         return std::to_string(value);
       },
       [](int id) { return std::to_string(id * 3); }},
  };
  // Each thread begins with another account, so that the database's and the cache's answers mix.
  for_each_owner([&rows](int start) {
    for (int i = 0; i < 3 * owner_count; ++i) {
      const int id = first_owner + (start + i) % owner_count;
      for (const auto &row : rows) EXPECT_EQ(row.asked(id), row.expected(id)) << row.name;
    }
  });
}

}  // namespace
