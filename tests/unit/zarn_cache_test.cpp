// The cache layer against real servers: markers, write-back, several parameters at once, and what
// each step tells.
#include <spoolcap/zarn_cache.h>

#include "tests/support/platform_test.h"

namespace {

constexpr char key_format[] = "res:t:%s";
constexpr char statement[] = "SELECT value FROM t WHERE name='%s'";

class CacheLayer : public platform_test {
 protected:
  CacheLayer() : platform_test("../main/zarn_cache") {
    box.sql("CREATE TABLE t (id INT, name VARCHAR(40), value VARCHAR(40))");
    box.sql("INSERT INTO t VALUES (1,'full','v1'), (2,'null',NULL), (3,'empty','')");
  }

  std::optional<std::string> get(const char *name, int keep = 0, int persistent = 0) {
    return taken(drget_hash(persistent, "f", statement, key_format, name, keep));
  }
};

TEST_F(CacheLayer, AnswersAreCachedWithMarkersAndMarkersAreHiddenUnlessKept) {
  const struct {
    const char *name;
    int keep;
    std::optional<std::string> answer, written;
  } rows[] = {{"full", 0, "v1", "v1"},
              {"empty", 0, "", ""},
              {"null", QX_KEEP_NULL, "_NL_", "_NL_"},
              {"null", QX_KEEP_NO_ROW, std::nullopt, "_NL_"},
              {"none", QX_KEEP_NO_ROW, "_NR_", "_NR_"},
              {"none", QX_KEEP_NULL, std::nullopt, "_NR_"}};
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.name << " keeping " << row.keep);
    const std::string key = std::string("res:t:") + row.name;
    box.redis({"DEL", key});
    cache(key, "other", "x");
    EXPECT_EQ(get(row.name, row.keep), row.answer);
    EXPECT_EQ(cached(key, "f"), row.written);
    box.sql("RENAME TABLE t TO hidden");
    EXPECT_EQ(get(row.name, row.keep), row.answer) << "the second answer is the cache's";
    box.sql("RENAME TABLE hidden TO t");
  }
  cache("res:t:full", "f", "_NR_1");
  EXPECT_EQ(get("full"), "_NR_1") << "no marker, only the beginning of one";
}

TEST_F(CacheLayer, AbsentRowMarkerIsNeverTheFirstEntryOfANonPersistentHash) {
  EXPECT_EQ(get("none", QX_KEEP_NO_ROW), "_NR_");
  EXPECT_EQ(box.redis({"EXISTS", "res:t:none"}), "0");
  get("none", 0, 1);
  EXPECT_EQ(cached("res:t:none", "f"), "_NR_") << "a persistent hash may begin with it";
  get("null");
  EXPECT_EQ(cached("res:t:null", "f"), "_NL_") << "and any hash with a NULL column";
  EXPECT_NE(check_add_norows_to_missing_persistent("absent", 0, "_NR_"), 0);
  EXPECT_EQ(check_add_norows_to_missing_persistent("absent", 0, "_NR_1"), 0);
  EXPECT_EQ(check_add_norows_to_missing_persistent("absent", 0, nullptr), 0);
}

TEST_F(CacheLayer, FailedStatementIsCachedLikeAMissingRow) {
  cache("res:t:full", "other", "x");
  EXPECT_EQ(drget_hash(0, "f", "SELECT nothing FROM t WHERE name='%s'", key_format, "full", 0),
            nullptr);
  EXPECT_EQ(cached("res:t:full", "f"), "_NR_");
  EXPECT_TRUE(log.has("../main/zarn_cache:drget_hash:"));
}

TEST_F(CacheLayer, EachStepIsLogged) {
  get("none");
  const std::string refused = "error Trying to add NOROWS to nonexistent hash";
  EXPECT_EQ(told(), (texts{"rget_hash_str(res:t:none,f): (null)", "cache_exists(res:t:none): 0",
                           "rset_hash_str(res:t:none,f,_NR_): " + refused}));
  get("full");
  get("full");
  EXPECT_EQ(told(),
            (texts{"rget_hash_str(res:t:full,f): (null)", "rset_hash_str(res:t:full,f,v1): success",
                   "rget_hash_str(res:t:full,f): v1"}));
  EXPECT_EQ(last_line.function, "drget_hash");
  const char *const fields[] = {"a"};
  rmset_hash(0, 1, fields, fields, "h");
  taken(1, rmget_hash(0, 1, fields, "h"));
  taken(rgetall_hash_comma(0, "h"));
  EXPECT_EQ(told(), (texts{"cache_hmset(h,1X): success", "rmset_hash(h,X1): success",
                           "cache_hmget(h,1X): 1 entries retrieved", "rmget_hash(h,X1): success",
                           "cache_hgetall(h): 1X", "rgetall_hash_comma(h): 1 memberss"}));
}

TEST_F(CacheLayer, AFailedReadOrWriteIsOnlyLogged) {
  box.redis({"SET", "res:t:full", "no hash"});
  const char *const fields[] = {"a"};
  EXPECT_EQ(get("full"), "v1");
  EXPECT_EQ(rmset_hash(0, 1, fields, fields, "res:t:full"), 0);
  EXPECT_EQ(rmget_hash(0, 1, fields, "res:t:full"), nullptr);
  for (const char *failed : {"rget_hash_str(res:t:full,f)", "rset_hash_str(res:t:full,f,v1)",
                             "rmset_hash(res:t:full,X1)", "rmget_hash(res:t:full,X1)"}) {
    EXPECT_TRUE(log.has(std::string(failed) + ": error ")) << failed;
  }
}

TEST_F(CacheLayer, LookupWithoutAnArgumentAsksNoServer) {
  constexpr char by_id[] = "SELECT value FROM t WHERE id=%d";
  EXPECT_EQ(get(nullptr), std::nullopt);
  for (const int id : {0, -1}) {
    EXPECT_EQ(drget_hash_by_id(0, "f", by_id, "k:%d", id, 0), nullptr) << id;
  }
  EXPECT_EQ(told(), texts(3, "condition failed"));
  EXPECT_EQ(taken(drget_hash_by_id(0, "f", by_id, "k:%d", 1, 0)), "v1");
  EXPECT_EQ(cached("k:1", "f"), "v1");
}

TEST_F(CacheLayer, ArgumentIsNeitherEscapedNorUsedAsAFormat) {
  box.sql("INSERT INTO t VALUES (9, '100%s%n%', 'percent')");
  EXPECT_EQ(get("x' OR name='100%s%n%"), "percent");
  EXPECT_EQ(cached("res:t:x' OR name='100%s%n%", "f"), "percent");
}

TEST_F(CacheLayer, WholeHashesAreWrittenReadAndJoined) {
  const char *const fields[] = {"a", "b", "gone"};
  const char *const contents[] = {"1", "", "x"};
  EXPECT_EQ(rmset_hash(0, 2, fields, contents, "h:%d:%s", 7, "k"), 0);
  EXPECT_EQ(taken(3, rmget_hash(1, 3, fields, "h:%d:%s", 7, "k")), (values{"1", "", std::nullopt}));
  EXPECT_EQ(taken(rgetall_hash_comma(0, "h:%d:%s", 7, "k")), "1,");
  EXPECT_EQ(taken(rgetall_hash_comma(0, "absent")), std::nullopt);
}

TEST(Bindings, AreFoundByNameIgnoringCase) {
  const cache_binding table[] = {{"Alpha", "k", 0, "a"}, {"beta", "k", 0, "b"}};
  EXPECT_EQ(get_binding(2, table, "alpha"), &table[0]);
  EXPECT_EQ(get_binding(2, table, "BETA"), &table[1]);
  EXPECT_EQ(get_binding(1, table, "beta"), nullptr);
  EXPECT_EQ(get_binding(2, table, nullptr), nullptr);
}

// Parameters of owners; `asked` gets a row for each statement that reaches the database.
class Parameters : public CacheLayer {
 protected:
  Parameters() {
    box.sql("CREATE TABLE p (owner VARCHAR(40), param VARCHAR(40), value VARCHAR(40))");
    box.sql(R"(INSERT INTO p VALUES ('7','alpha','A'), ('7','beta',NULL), ('7','delta','D'),
               ('7','free','F'), ('a\'b\\c"','alpha','quoted'))");
    box.sql("CREATE TABLE wide (owner VARCHAR(40), alpha VARCHAR(9), beta VARCHAR(9))");
    box.sql("INSERT INTO wide VALUES ('7', 'wa', NULL)");
    box.sql("CREATE TABLE asked (n INT)");
    box.sql("CREATE FUNCTION ask() RETURNS INT BEGIN INSERT INTO asked VALUES (1); RETURN 1; END");
  }

  values get(const std::vector<const char *> &names, const char *argument = "7", int numeric = 0,
             int keep = 3, const char *sql = rows_statement) {
    const int count = static_cast<int>(names.size());
    return taken(count,
                 drmget_hash(4, bindings, count, names.data(), sql, argument, numeric, 0, keep));
  }
  int statements() const { return std::stoi(*box.sql_value("SELECT COUNT(*) FROM asked")); }

  static constexpr char rows_statement[] =
      "SELECT param, value FROM (SELECT ask()) AS once, p WHERE owner='%s' AND param IN(%s)";
  static constexpr cache_binding bindings[] = {{"alpha", "one:%s", 0, "al"},
                                               {"beta", "one:%s", 0, "be"},
                                               {"delta", "two:%s", 0, "de"},
                                               {"gamma", "one:%s", 0, "ga"}};
};

TEST_F(Parameters, MissingOnesAreAskedInOneStatementAndWrittenBack) {
  cache("one:7", "al", "cached");
  EXPECT_EQ(get({"beta", "alpha", "delta", "gamma", "free", "nowhere"}),
            (values{"_NL_", "cached", "D", "_NR_", "F", "_NR_"}));
  EXPECT_EQ(statements(), 1);
  EXPECT_TRUE(log.has("rmget_hash(one:7,X2): success"))
      << "names that share a key are read at once";
  EXPECT_EQ(get({"alpha", "beta", "gamma", "delta"}, "7", 0, 0),
            (values{"cached", std::nullopt, std::nullopt, "D"}));
  EXPECT_EQ(statements(), 1) << "all were in the cache";
  get({"free", "alpha"});
  EXPECT_EQ(statements(), 2) << "a name without a binding is asked every time";
}

TEST_F(Parameters, ArgumentIsEscapedInTheStatementAndRawInTheKey) {
  EXPECT_EQ(get({"alpha"}, "a'b\\c\""), values{"quoted"});
  EXPECT_EQ(cached("one:a'b\\c\"", "al"), "quoted");
}

TEST_F(Parameters, KeyIsBuiltFromTheNumberTheTextOrNothing) {
  const char *const names[] = {"alpha"};
  const struct {
    const char *format, *key, *sql, *argument;
  } rows[] = {{"n:%d", "n:7", rows_statement, "7"},
              {"fixed", "fixed", "SELECT param, value FROM p WHERE param IN(%s)", nullptr}};
  for (const auto &row : rows) {
    const cache_binding binding[] = {{"alpha", row.format, 0, "al"}};
    taken(1, drmget_hash(1, binding, 1, names, row.sql, row.argument, 1, 0, 0));
    EXPECT_NE(cached(row.key, "al"), std::nullopt) << row.key;
  }
}

TEST_F(Parameters, RowsMatchByCaseAndOddRowsAreHarmless) {
  const struct {
    const char *why;
    std::vector<const char *> names;
    const char *sql;
    values expected;
  } rows[] = {
      {"the database finds 'alpha', which was not asked", {"ALPHA"}, rows_statement, {"_NR_"}},
      {"of equal names only the first takes the row",
       {"free", "alpha", "free"},
       rows_statement,
       {"F", "A", "_NR_"}},
      {"the last row counts",
       {"free"},
       "SELECT 'free', '%s' UNION ALL SELECT %s, 'last'",
       {"last"}},
      {"no name", {"free"}, "SELECT NULL, CONCAT('%s', %s)", {"_NR_"}},
      {"no second column", {"free"}, "SELECT CONCAT('%s', %s)", {"_NR_"}}};
  for (const auto &row : rows) {
    box.redis({"DEL", "one:7", "two:7"});
    EXPECT_EQ(get(row.names, "7", 0, 3, row.sql), row.expected) << row.why;
  }
}

TEST_F(Parameters, ColumnModeTakesTheColumnsOfOneRowInOrder) {
  const char *const names[] = {"beta", "delta", "alpha"};
  for (const auto &[owner, expected] :
       {std::pair("7", values{"_NL_", "cached", "wa"}), {"8", {"_NR_", "cached", "_NR_"}}}) {
    cache(std::string("two:") + owner, "de", "cached");
    EXPECT_EQ(taken(3, drmget_hash(4, bindings, 3, names, "SELECT %s FROM wide WHERE owner='%s'",
                                   owner, 0, 1, 3)),
              expected)
        << owner;
  }
  EXPECT_EQ(cached("one:7", "al"), "wa");
  EXPECT_EQ(cached("one:8", "al"), std::nullopt) << "markers do not begin a hash";
}

TEST_F(Parameters, FailureOfTheDatabaseDropsWhatTheCacheHad) {
  cache("one:7", "al", "cached");
  for (const char *failing : {"SELECT nothing FROM p WHERE '%s' IN(%s)", "DO CONCAT('%s', %s)"}) {
    EXPECT_EQ(get({"alpha", "beta"}, "7", 0, 3, failing), values{}) << failing;
  }
  EXPECT_TRUE(log.has(" -MySQL error: Unknown column 'nothing'"));
  EXPECT_EQ(told().back(), "condition failed") << "a statement without a result set";
  EXPECT_EQ(cached("one:7", "be"), std::nullopt);
  EXPECT_EQ(get({"alpha"}, "7", 0, 3, "not asked %s %s"), values{"cached"});
  qx_sql_pool_destroy();
  EXPECT_EQ(get({"alpha", "beta"}), values{});
}

TEST_F(Parameters, BadArgumentsAreRefusedInSilence) {
  const char *const names[] = {"alpha"}, *const holes[] = {nullptr};
  for (const char *const *bad : {static_cast<const char *const *>(nullptr), holes}) {
    EXPECT_EQ(drmget_hash(4, bindings, 1, bad, rows_statement, "7", 0, 0, 0), nullptr);
    EXPECT_EQ(rmget_hash(0, 1, bad, "h"), nullptr);
    EXPECT_EQ(rmset_hash(0, 1, bad, names, "h"), -1);
    EXPECT_EQ(rmset_hash(0, 1, names, bad, "h"), -1);
  }
  EXPECT_EQ(drmget_hash(4, bindings, 0, names, rows_statement, "7", 0, 0, 0), nullptr);
  EXPECT_EQ(drmget_hash(4, nullptr, 1, names, rows_statement, "7", 0, 0, 0), nullptr);
  EXPECT_EQ(rmget_hash(0, -1, names, "h"), nullptr);
  EXPECT_EQ(rmset_hash(0, 0, names, names, "h"), 0) << "nothing to write is no failure";
  EXPECT_EQ(rmset_hash(0, -1, names, names, "h"), -1);
  EXPECT_EQ(told(), texts{});
}

}  // namespace
