// Reading stored values, and finding an account's place in the tree.
#include <spoolcap/quota.h>
#include "main/quota/kinds.h"
#include "main/quota/place.h"
#include "main/sql/query.h"
#include "tests/support/platform_test.h"

namespace {

class Reading : public platform_test {
 protected:
  Reading() {
    box.write_file(box.quota_path("1/music"), "100.1");
    box.write_file(box.quota_path("1/2/music"), "200.2");
    box.write_file(box.quota_path("1/2/3/music"), "300.3");
    box.write_file(box.quota_path("6/music"), "600.6");
  }
};

TEST_F(Reading, AnAncestryPicksTheFile) {
  const struct {
    const char *why;
    unsigned account, parent, grandparent, kind;
    int result, revision;
    int64_t value;
  } rows[] = {{"an owner", 3, 2, 1, QUOTA_MUSIC, 0, 3, 300},
              {"no file", 9, 0, 0, QUOTA_MUSIC, 0, -1, -1},
              {"an id beyond int", 4000000000U, 0, 0, QUOTA_MUSIC, 0, -1, -1},
              {"no such kind", 1, 0, 0, 6, -1, -78, -77},
              {"no account", 0, 0, 0, QUOTA_MUSIC, -1, -78, -77},
              {"a gap in the ancestry", 3, 0, 1, QUOTA_MUSIC, -1, -78, -77}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.why);
    int64_t value = -77;
    int revision = -78;
    EXPECT_EQ(quota_read(row.account, row.parent, row.grandparent, row.kind, &value, &revision),
              row.result);
    EXPECT_EQ(value, row.value);
    EXPECT_EQ(revision, row.revision);
  }
  EXPECT_EQ(quota_read(1, 0, 0, QUOTA_MUSIC, nullptr, nullptr), -1);
}

TEST_F(Reading, AllKindsFillFiveSlots) {
  box.write_file(box.quota_path("1/sound"), "-1.0");
  box.make_folder("var/lib/quorvexquota/1/recording.quota");
  std::vector<int64_t> values(6, -77);
  std::vector<int> revisions(6, -77);
  EXPECT_EQ(quota_read(1, 0, 0, QUOTA_ALL_KINDS, values.data(), revisions.data()), 0);
  EXPECT_EQ(values, (std::vector<int64_t>{-1, -1, -1, -1, 100, -77}));
  EXPECT_EQ(revisions, (std::vector<int>{-1, 0, -1, -1, 1, -77}));
}

TEST_F(Reading, TheRowsTellAnAccountsParentLevelAndFile) {
  box.add_account(7, std::nullopt, 0, "root");
  box.add_account(1, 7, 10, "reseller");
  box.add_client(2, 1, "client");
  box.add_owner(3, 2, "owner");
  box.add_owner(4, 99, "orphan");
  box.add_account(5, 1, 20, "odd");
  box.add_account(6, std::nullopt, 50, "unattached");
  const struct {
    const char *why;
    int account, result, parent, level, read_result;
    int64_t value;
  } rows[] = {{"a reseller", 1, 0, 7, 10, 0, 100},
              {"a client", 2, 0, 1, 50, 0, 200},
              {"an owner", 3, 0, 2, 100, 0, 300},
              {"its parent is nobody", 4, 0, 99, 100, -1, -77},
              {"no such level", 5, 0, 1, 20, -1, -77},
              {"without a parent it is read as a reseller", 6, 0, 0, 50, 0, 600},
              {"the root", 7, 0, -77, 0, -1, -77},
              {"nobody", 8, -2, -77, -77, -2, -77}};
  int64_t value = -77;
  qx_sql_pool_destroy();
  EXPECT_EQ(quota_read_sql(1, QUOTA_MUSIC, &value, nullptr), -1) << "no database yet";
  qx_sql_pool_init();
  const sql_session session;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.why);
    int parent = -77, level = -77;
    value = -77;
    EXPECT_EQ(get_parid_level(session.get(), row.account, &parent, nullptr, &level, nullptr),
              row.result);
    EXPECT_EQ(quota_read_sql(row.account, QUOTA_MUSIC, &value, nullptr), row.read_result);
    EXPECT_EQ(parent, row.parent);
    EXPECT_EQ(level, row.level);
    EXPECT_EQ(value, row.value);
  }
  // A cached level below 0 is no answer, whatever stands beside it.
  box.redis({"HSET", "res:inf:mng:3", "lvl", "-5"});
  std::string parent, level;
  EXPECT_EQ(get_parid_level(session.get(), 3, nullptr, &parent, nullptr, &level), 0);
  EXPECT_EQ(parent, "2");
  EXPECT_EQ(level, "100");
  EXPECT_EQ(get_parentid(session.get(), 6, nullptr, &parent), 0);
  EXPECT_EQ(parent, "");
  EXPECT_EQ(get_parentid(session.get(), 8, nullptr, &parent), -1);
}

}  // namespace
