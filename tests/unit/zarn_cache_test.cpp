// The cache layer against real servers: markers, write-back, several parameters at once, and what
// each step tells.
#include <spoolcap/zarn_cache.h>

#include "tests/unit/lookup_fixture.h"

namespace {

constexpr char key_format[] = "res:t:%s";
constexpr char statement[] = "SELECT value FROM t WHERE name='%s'";

class CacheLayer : public lookup_test {
 protected:
  CacheLayer() : lookup_test("../main/zarn_cache") {
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
              {"null", 0, std::nullopt, "_NL_"},
              {"null", QX_KEEP_NULL, "_NL_", "_NL_"},
              {"null", QX_KEEP_NO_ROW, std::nullopt, "_NL_"},
              {"none", QX_KEEP_NO_ROW, "_NR_", "_NR_"},
              {"none", QX_KEEP_NULL, std::nullopt, "_NR_"}};
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.name << " keeping " << row.keep);
    const std::string key = std::string("res:t:") + row.name;
    box.redis({"DEL", key});
    cache(key, "other", "x");
    EXPECT_EQ(row.answer, get(row.name, row.keep));
    EXPECT_EQ(row.written, cached(key, "f"));
    box.sql("RENAME TABLE t TO hidden");
    EXPECT_EQ(row.answer, get(row.name, row.keep)) << "the second answer is the cache's";
    box.sql("RENAME TABLE hidden TO t");
  }
}

TEST_F(CacheLayer, AbsentRowMarkerIsNeverTheFirstEntryOfANonPersistentHash) {
  EXPECT_EQ("_NR_", get("none", QX_KEEP_NO_ROW));
  EXPECT_EQ("0", box.redis({"EXISTS", "res:t:none"}));
  EXPECT_EQ((texts{"rget_hash_str(res:t:none,f): (null)", "cache_exists(res:t:none): 0",
                   "rset_hash_str(res:t:none,f,_NR_): error Trying to add NOROWS to nonexistent "
                   "hash"}),
            told());
  EXPECT_EQ("drget_hash", last_line.function);
  get("none", 0, 1);
  EXPECT_EQ("_NR_", cached("res:t:none", "f")) << "a persistent hash may begin with it";
  get("null");
  EXPECT_EQ("_NL_", cached("res:t:null", "f")) << "and any hash with a NULL column";
  EXPECT_NE(0, check_add_norows_to_missing_persistent("absent", 0, "_NR_"));
  for (const char *other : {"_NR_1", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(0, check_add_norows_to_missing_persistent("absent", 0, other));
  }
}

TEST_F(CacheLayer, FailedStatementIsCachedLikeAMissingRow) {
  cache("res:t:full", "other", "x");
  EXPECT_EQ(std::nullopt, taken(drget_hash(0, "f", "SELECT nothing FROM t WHERE name='%s'",
                                           key_format, "full", 0)));
  EXPECT_EQ("_NR_", cached("res:t:full", "f"));
  const texts lines = told();
  EXPECT_EQ("rset_hash_str(res:t:full,f,_NR_): success", lines.back());
  const std::string place =
      "../main/zarn_cache:drget_hash:" + std::to_string(last_line.line) + " -MySQL error: ";
  EXPECT_TRUE(lines.at(1).starts_with(place + "Unknown column 'nothing'")) << lines[1];
}

TEST_F(CacheLayer, HitAndWriteBackAreTold) {
  get("full");
  get("full");
  EXPECT_EQ((texts{"rget_hash_str(res:t:full,f): (null)", "rset_hash_str(res:t:full,f,v1): success",
                   "rget_hash_str(res:t:full,f): v1"}),
            told());
  cache("res:t:full", "f", "_NR_1");
  EXPECT_EQ("_NR_1", get("full")) << "no marker, only the beginning of one";
}

TEST_F(CacheLayer, LookupWithoutAnArgumentAsksNobody) {
  EXPECT_EQ(std::nullopt, get(nullptr));
  EXPECT_EQ(texts{"condition failed"}, told());
  for (const int id : {0, -1}) {
    EXPECT_EQ(nullptr, drget_hash_by_id(0, "f", "SELECT value FROM t WHERE id=%d", "k:%d", id, 0));
    EXPECT_EQ(texts{"condition failed"}, told()) << id;
  }
  EXPECT_EQ("v1", taken(drget_hash_by_id(0, "f", "SELECT value FROM t WHERE id=%d", "k:%d", 1, 0)));
  EXPECT_EQ("v1", cached("k:1", "f"));
}

TEST_F(CacheLayer, ArgumentIsNeitherEscapedNorUsedAsAFormat) {
  box.sql("INSERT INTO t VALUES (9, '100%s%n%', 'percent')");
  EXPECT_EQ("percent", get("x' OR name='100%s%n%"));
  EXPECT_EQ("percent", cached("res:t:x' OR name='100%s%n%", "f"));
}

TEST_F(CacheLayer, WholeHashesAreWrittenReadAndJoined) {
  const char *const fields[] = {"a", "b", "gone"};
  const char *const contents[] = {"1", "", "x"};
  EXPECT_EQ(0, rmset_hash(0, 2, fields, contents, "h:%d:%s", 7, "k"));
  EXPECT_EQ((values{"1", "", std::nullopt}), taken(3, rmget_hash(1, 3, fields, "h:%d:%s", 7, "k")));
  EXPECT_EQ("1,", taken(rgetall_hash_comma(0, "h:%d:%s", 7, "k")));
  EXPECT_EQ((texts{"cache_hmset(h:7:k,2X): success", "rmset_hash(h:7:k,X2): success",
                   "cache_hmget(h:7:k,3X): 3 entries retrieved", "rmget_hash(h:7:k,X3): success",
                   "cache_hgetall(h:7:k): 2X", "rgetall_hash_comma(h:7:k): 2 memberss"}),
            told());
  EXPECT_EQ(std::nullopt, taken(rgetall_hash_comma(0, "absent")));

  box.redis({"SET", "text", "no hash"});
  EXPECT_EQ(0, rmset_hash(0, 1, fields, contents, "text")) << "a lost write is only told";
  EXPECT_EQ(nullptr, rmget_hash(0, 1, fields, "text"));
  for (const char *failed : {"rmset_hash(text,X1): error ", "rmget_hash(text,X1): error "}) {
    EXPECT_TRUE(log.has(failed)) << failed;
  }
}

TEST(Bindings, AreFoundByNameIgnoringCase) {
  const cache_binding table[] = {
      {"Alpha", "k", 0, "a"}, {"beta", "k", 0, "b"}, {"Gamma", "k", 0, "c"}};
  EXPECT_EQ(&table[0], get_binding(3, table, "alpha"));
  EXPECT_EQ(&table[1], get_binding(3, table, "BETA"));
  for (const char *none : {"alph", "Gamma", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(nullptr, get_binding(2, table, none));
  }
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

TEST_F(Parameters, MissingOnesAreAskedInOneStatementAndWrittenBackOneByOne) {
  cache("one:7", "al", "cached");
  EXPECT_EQ((values{"_NL_", "cached", "D", "_NR_", "F", "_NR_"}),
            get({"beta", "alpha", "delta", "gamma", "free", "nowhere"}));
  EXPECT_EQ(1, statements());
  EXPECT_EQ((texts{"cache_hmget(one:7,2X): 2 entries retrieved", "rmget_hash(one:7,X2): success",
                   "cache_hmget(two:7,1X): 1 entries retrieved", "rmget_hash(two:7,X1): success",
                   "cache_hmget(one:7,1X): 1 entries retrieved", "rmget_hash(one:7,X1): success",
                   "rset_hash_str(one:7,be,_NL_): success", "rset_hash_str(two:7,de,D): success",
                   "cache_exists(one:7): 1", "rset_hash_str(one:7,ga,_NR_): success"}),
            told());

  EXPECT_EQ((values{"cached", std::nullopt, std::nullopt, "D"}),
            get({"alpha", "beta", "gamma", "delta"}, "7", 0, 0));
  EXPECT_EQ(1, statements()) << "all were in the cache";
  get({"free", "alpha"});
  EXPECT_EQ(2, statements()) << "a name without a binding is asked every time";
}

TEST_F(Parameters, ArgumentIsEscapedInTheStatementAndRawInTheKey) {
  EXPECT_EQ(values{"quoted"}, get({"alpha"}, "a'b\\c\""));
  EXPECT_EQ("quoted", cached("one:a'b\\c\"", "al"));
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
    EXPECT_NE(std::nullopt, cached(row.key, "al")) << row.key;
  }
}

TEST_F(Parameters, RowsMatchByCaseAndOddRowsAreHarmless) {
  const struct {
    std::vector<const char *> names;
    const char *sql;
    values expected;
  } rows[] = {
      // The database finds 'alpha' for 'ALPHA'; the row answers neither spelling that was asked.
      {{"ALPHA"}, rows_statement, {"_NR_"}},
      // Of equal names only the first takes the row.
      {{"free", "alpha", "free"}, rows_statement, {"F", "A", "_NR_"}},
      {{"free"}, "SELECT 'free', '%s' UNION ALL SELECT %s, 'last'", {"last"}},
      {{"free"}, "SELECT NULL, CONCAT('%s', %s)", {"_NR_"}},
      {{"free"}, "SELECT CONCAT('%s', %s)", {"_NR_"}}};
  for (const auto &row : rows) {
    box.redis({"DEL", "one:7", "two:7"});
    EXPECT_EQ(row.expected, get(row.names, "7", 0, 3, row.sql)) << row.names[0] << " " << row.sql;
  }
}

TEST_F(Parameters, ColumnModeTakesTheColumnsOfOneRowInOrder) {
  const char *const names[] = {"beta", "delta", "alpha"};
  for (const auto &[owner, expected] :
       {std::pair("7", values{"_NL_", "cached", "wa"}), {"8", {"_NR_", "cached", "_NR_"}}}) {
    cache(std::string("two:") + owner, "de", "cached");
    EXPECT_EQ(expected,
              taken(3, drmget_hash(4, bindings, 3, names, "SELECT %s FROM wide WHERE owner='%s'",
                                   owner, 0, 1, 3)))
        << owner;
  }
  EXPECT_EQ("wa", cached("one:7", "al"));
  EXPECT_EQ(std::nullopt, cached("one:8", "al")) << "markers do not begin a hash";
}

TEST_F(Parameters, FailureOfTheDatabaseDropsWhatTheCacheHad) {
  cache("one:7", "al", "cached");
  EXPECT_EQ(values{}, get({"alpha", "beta"}, "7", 0, 3, "SELECT nothing FROM p WHERE '%s' IN(%s)"));
  EXPECT_TRUE(log.has(" -MySQL error: Unknown column 'nothing'"));
  EXPECT_EQ(values{}, get({"alpha", "beta"}, "7", 0, 3, "DO CONCAT('%s', %s)"));
  EXPECT_EQ("condition failed", told().back()) << "a statement without a result set";
  EXPECT_EQ(std::nullopt, cached("one:7", "be"));
  EXPECT_EQ(values{"cached"}, get({"alpha"}, "7", 0, 3, "not asked %s %s"));
  qx_sql_pool_destroy();
  EXPECT_EQ(values{}, get({"alpha", "beta"}));
  EXPECT_EQ("condition failed", told().back()) << "no session";
}

TEST_F(Parameters, BadArgumentsAreRefusedInSilence) {
  const char *const names[] = {"alpha"};
  const char *const holes[] = {nullptr};
  const char *const no_format = nullptr;
  for (const auto &[count, asked] : {std::pair(0, names),
                                     {-1, names},
                                     {1, static_cast<const char *const *>(nullptr)},
                                     {1, holes}}) {
    EXPECT_EQ(nullptr, drmget_hash(4, bindings, count, asked, rows_statement, "7", 0, 0, 0));
    EXPECT_EQ(nullptr, rmget_hash(0, count, asked, "h"));
    EXPECT_EQ(count == 0 ? 0 : -1, rmset_hash(0, count, names, asked, "h"));
  }
  EXPECT_EQ(nullptr, drmget_hash(0, bindings, 1, names, rows_statement, "7", 0, 0, 0));
  EXPECT_EQ(nullptr, drmget_hash(4, nullptr, 1, names, rows_statement, "7", 0, 0, 0));
  EXPECT_EQ(nullptr, rmget_hash(0, 1, names, no_format));
  EXPECT_EQ(-1, rmset_hash(0, 1, names, names, no_format));
  EXPECT_EQ(nullptr, rgetall_hash_comma(0, no_format));
  EXPECT_EQ(texts{}, told());
  EXPECT_EQ(0, statements());
}

TEST_F(Parameters, AnswersBesideADeadCacheAreThoseOfAnEmptyOne) {
  box.write_file("etc/quorvex/disdbase.conf", "DISDBASE_HOST main:cache:one:/nowhere:6379\n");
  const char *const fields[] = {"a"};
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ("v1", CacheLayer::get("full"));
    EXPECT_EQ("_NR_", CacheLayer::get("none", QX_KEEP_NO_ROW));
    EXPECT_EQ((values{"A", "_NL_", "F", "_NR_"}), get({"alpha", "beta", "free", "gamma"}));
    EXPECT_EQ(round + 1, statements());
    EXPECT_EQ(nullptr, rmget_hash(0, 1, fields, "h"));
    EXPECT_EQ(0, rmset_hash(0, 1, fields, fields, "h"));
  }
  for (const char *failed : {"rget_hash_str(res:t:full,f)", "rset_hash_str(res:t:none,f,_NR_)"}) {
    EXPECT_TRUE(log.has(std::string(failed) + ": error ")) << failed;
  }
  EXPECT_FALSE(log.has("Trying to add NOROWS")) << "nobody could say that the hash is not there";
}

}  // namespace
