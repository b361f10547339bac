// Lookups of accounts: what is asked, what is cached, and what each lookup does differently.
#include <spoolcap/zarn_user.h>

#include <sys/wait.h>

#include <array>

#include <spoolcap/zarn_extension.h>
#include "tests/support/platform_test.h"

namespace {

class Account : public platform_test {
 protected:
  Account() : platform_test("../main/zarn_user") {
    box.add_reseller(1, "reseller");
    box.add_client(2, 1, "client");
    box.add_owner(3, 2, "owner");
    box.sql(
        "ALTER TABLE client MODIFY parent_client_id INT NULL, MODIFY level VARCHAR(9) NULL, "
        "MODIFY status VARCHAR(9) NULL, MODIFY phonestatus VARCHAR(9) NULL, "
        "MODIFY name VARCHAR(99) NULL");
    box.sql("UPDATE client SET status='1', phonestatus='1205', name='The Owner' WHERE id=3");
  }

  void set(const std::string &column, const std::optional<std::string> &value) {
    box.sql("UPDATE client SET " + column + "=" + (value ? "'" + *value + "'" : "NULL") +
            " WHERE id=3");
  }
};

// One answer as text, whatever the lookup's type; nullopt for no text.
using answer = std::optional<std::string>;
struct lookup_case {
  const char *column, *field;
  answer (*ask)(int id);
};
template <auto lookup>
answer number(int id) {
  return std::to_string(lookup(id));
}
answer parent_text(int id) {
  return taken(qx_account_get_parent_str_sess(nullptr, id));
}
answer parent_number(int id) {
  return std::to_string(qx_account_get_parent_sess(nullptr, id));
}
const lookup_case parent{"parent_client_id", "pid", parent_text};
const lookup_case parent_id{"parent_client_id", "pid", parent_number};
const lookup_case level{"level", "lvl", number<qx_account_get_level>};
const lookup_case status{"status", "st", number<qx_user_get_status>};
const lookup_case phone_status{"phonestatus", "pst", number<qx_user_get_phonestatus>};
const lookup_case name{"name", "nam", [](int id) { return taken(qx_account_get_name(id)); }};

TEST_F(Account, FirstAnswerIsTheDatabasesAndLaterOnesTheCaches) {
  const struct {
    const lookup_case &lookup;
    answer column, first, written, later;
  } rows[] = {{parent, "2", "2", "2", "2"},
              {parent, std::nullopt, "", "", ""},
              {parent_id, std::nullopt, "-1", "", "-1"},
              {level, "100", "100", "100", "100"},
              {level, "", "-1", std::nullopt, "-1"},
              {status, "", "0", "", "0"},
              {status, std::nullopt, "-1", std::nullopt, "-1"},
              {phone_status, "-1205", "-5", "-1205", "-1205"},
              {phone_status, std::nullopt, "-1", std::nullopt, "-1"},
              {name, "The Owner", "The Owner", "The Owner", "The Owner"},
              {name, "", "", "", ""},
              {name, std::nullopt, std::nullopt, std::nullopt, std::nullopt}};
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.lookup.column << " " << row.column.value_or("NULL"));
    box.redis({"DEL", "res:inf:mng:3"});
    set(row.lookup.column, row.column);
    EXPECT_EQ(row.lookup.ask(3), row.first);
    EXPECT_EQ(cached("res:inf:mng:3", row.lookup.field), row.written);
    if (row.written) set(row.lookup.column, "77");
    EXPECT_EQ(row.lookup.ask(3), row.later);
  }
}

TEST_F(Account, CachedTextIsUsedUnlessItIsNoAnswerForThisLookup) {
  const struct {
    const lookup_case &lookup;
    const char *in_cache;
    answer column, expected;
  } rows[] = {{parent, "_NR_", "2", "_NR_"},      {parent_id, "_NR_", "2", "0"},
              {parent_id, "", "2", "-1"},         {name, "_NL_", "n", "_NL_"},
              {level, "0", "100", "0"},           {level, "_NR_", "100", "0"},
              {level, "-1", "100", "100"},        {level, "-7", std::nullopt, "-7"},
              {status, "-1", "4", "4"},           {status, "-7", "4", "-7"},
              {status, "-1", std::nullopt, "-1"}, {phone_status, "-1", "1205", "5"},
              {phone_status, "-2", "1205", "-2"}, {phone_status, "1305", "1205", "1305"}};
  for (const auto &row : rows) {
    cache("res:inf:mng:3", row.lookup.field, row.in_cache);
    set(row.lookup.column, row.column);
    EXPECT_EQ(row.lookup.ask(3), row.expected)
        << row.lookup.field << " " << row.in_cache << " " << row.column.value_or("NULL");
  }
}

TEST_F(Account, UnknownOneIsNotKnownAndNothingIsCached) {
  EXPECT_EQ(parent.ask(77), std::nullopt);
  EXPECT_EQ(parent_id.ask(77), "-2");
  for (const lookup_case &lookup : {level, status, phone_status}) {
    EXPECT_EQ(lookup.ask(77), "-1") << lookup.column;
  }
  EXPECT_EQ(name.ask(77), std::nullopt);
  EXPECT_EQ(told().back(), "Could not query for client name with id 77");
  EXPECT_EQ(last_line.priority, FR_LOG_WARNING);
  EXPECT_EQ(box.redis({"EXISTS", "res:inf:mng:77"}), "0");
}

TEST_F(Account, FailedStatementIsLogged) {
  box.sql("RENAME TABLE client TO elsewhere, extension TO elsewhere_too");
  size_t count = 0;
  EXPECT_EQ(name.ask(3), std::nullopt);
  EXPECT_TRUE(log.has("Could not query for client name with id 3 (Table "));
  EXPECT_EQ(qx_user_get_extensions_sess(nullptr, "2", 3, 1, &count), nullptr);
  EXPECT_TRUE(log.has("../main/zarn_user:qx_user_get_extensions_sess:"));
}

class AccountExtensions : public Account {
 protected:
  AccountExtensions() {
    box.add_extension(11, 3, "101");
    box.add_extension(12, 3, "102");
  }

  values extensions(const char *above, int short_numbers) {
    size_t count = 99;
    char **numbers = qx_user_get_extensions_sess(nullptr, above, 3, short_numbers, &count);
    return taken(static_cast<int>(count), numbers);
  }
};

TEST_F(AccountExtensions, AreIndexedOnTheFirstCallAndReadFromTheIndexLater) {
  EXPECT_EQ(extensions("2", 1), (values{"101", "102"}));
  EXPECT_EQ(cached("res:ind:3:ext", "102"), "12");
  const texts lines = told();
  EXPECT_TRUE(lines.at(0).starts_with("cache_hgetall(res:ind:3:ext): error ")) << lines[0];
  EXPECT_EQ(lines.at(1), "cache_hset(res:ind:3:ext,101,11): success");
  EXPECT_EQ(last_line.function, "qx_user_get_extensions_sess");
  cache("res:ind:3:ext", "103", "13");
  EXPECT_EQ(extensions("2", 0), (values{"0002*101", "0002*102", std::nullopt}))
      << "the one that only the cache knows has no full number";
}

TEST_F(AccountExtensions, FullNumbersAreThoseUnderTheGivenParent) {
  EXPECT_EQ(extensions("2", 0), (values{"0002*101", "0002*102"}));
  EXPECT_EQ(cached("res:ind:3:ext", "101"), "11") << "the index has short numbers";
  EXPECT_EQ(extensions("5", 0), (values{std::nullopt, std::nullopt}));
}

TEST_F(AccountExtensions, AreReadWithoutAnIndex) {
  box.redis({"SET", "res:ind:3:ext", "no hash"});
  EXPECT_EQ(extensions("2", 1), (values{"101", "102"}));
  EXPECT_TRUE(log.has(":cache_hset(res:ind:3:ext,101,11): error "));
}

TEST_F(AccountExtensions, AreNoneWhereTheDatabaseHasNone) {
  size_t count = 99;
  EXPECT_EQ(qx_user_get_extensions_sess(nullptr, "1", 2, 1, &count), nullptr);
  EXPECT_EQ(count, 0U) << "as the read of the absent index left it";
}

TEST_F(Account, PreferencesAreCachedUnderTheirShortNames) {
  const struct {
    const char *name, *key, *field;
  } rows[] = {{"fax_storage", "res:pre:mng:3", "fax"},
              {"max_maxconcurent", "res:inf:mng:3", "ecc"},
              {"max_voice", "res:pre:mng:3", "mvoc"}};
  for (const auto &row : rows) {
    box.set_preference(3, row.name, row.field);
    EXPECT_EQ(taken(1, qx_account_get_prefs(3, 1, &row.name)), values{row.field});
    EXPECT_EQ(cached(row.key, row.field), row.field) << row.name;
  }
  box.sql("DELETE FROM client_prefs");
  EXPECT_EQ(taken(qx_account_get_pref(3, "max_voice")), "mvoc");
  box.set_preference(3, "other", "there");
  EXPECT_EQ(taken(qx_account_get_pref(3, "other")), std::nullopt) << "it has no place in the cache";
  EXPECT_EQ(taken(qx_account_get_pref(2, "max_moh")), std::nullopt);
  EXPECT_EQ(taken(qx_account_get_pref(3, nullptr)), std::nullopt);
}

TEST_F(Account, ChildrenOfForkKeepOutOfTheConversationsOfTheirParent) {
  const auto all_right = [] {
    for (int i = 0; i < 200; ++i) {
      if (qx_account_get_level(3) != 100 || taken(qx_get_full_number("2", "31")) != "0002*31") {
        return false;
      }
    }
    return true;
  };
  box.add_extension(31, 3, "31");
  EXPECT_TRUE(all_right());
  std::array<pid_t, 3> children;
  for (pid_t &child : children) {
    child = ::fork();
    if (child != 0) continue;
    const bool good = all_right();
    qx_sql_pool_destroy();
    ::_exit(good ? 0 : 1);
  }
  EXPECT_TRUE(all_right());
  for (const pid_t child : children) {
    int ended = -1;
    ::waitpid(child, &ended, 0);
    EXPECT_EQ(ended, 0);
  }
  EXPECT_TRUE(all_right());
  EXPECT_FALSE(log.has("error"));
}

}  // namespace
