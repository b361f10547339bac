// The cache layer against real servers: markers, write-back, several parameters at once, and what
// each step tells.
#include "zarn_cache.h"

#include <gtest/gtest.h>

#include <thread>

#include "lookup_fixture.h"

namespace {

constexpr char key_format[] = "res:t:%s";
constexpr char statement[] = "SELECT value FROM t WHERE name='%s'";

class CacheLayer : public lookup_test {
 protected:
  explicit CacheLayer(const support::sandbox_options &options = {})
      : lookup_test("../main/zarn_cache", options) {
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
  } rows[] = {
      {"full", 0, "v1", "v1"},
      {"empty", 0, "", ""},
      {"null", 0, std::nullopt, "_NL_"},
      {"null", QX_KEEP_NULL, "_NL_", "_NL_"},
      {"null", QX_KEEP_NO_ROW, std::nullopt, "_NL_"},
      {"none", 0, std::nullopt, "_NR_"},
      {"none", QX_KEEP_NO_ROW, "_NR_", "_NR_"},
      {"none", QX_KEEP_NULL, std::nullopt, "_NR_"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.name << " keeping " << row.keep);
    const std::string key = std::string("res:t:") + row.name;
    box.redis({"DEL", key});
    cache(key, "other", "x");
    EXPECT_EQ(row.answer, get(row.name, row.keep));
    EXPECT_EQ(row.written, cached(key, "f"));
    box.sql("UPDATE t SET value=CONCAT('new', COALESCE(value, ''))");
    EXPECT_EQ(row.answer, get(row.name, row.keep)) << "the second answer is the cache's";
    box.sql("UPDATE t SET value=IF(name='null', NULL, SUBSTR(value, 4))");
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
  EXPECT_EQ(FR_LOG_MESSAGE, last_line.channel);
  EXPECT_EQ(FR_LOG_DEBUG, last_line.priority);

  get("none", 0, 1);
  EXPECT_EQ("_NR_", cached("res:t:none", "f")) << "a persistent hash may begin with it";
  get("null");
  EXPECT_EQ("_NL_", cached("res:t:null", "f")) << "and any hash with a NULL column";
  EXPECT_NE(0, check_add_norows_to_missing_persistent("absent", 0, "_NR_"));
  EXPECT_EQ(0, check_add_norows_to_missing_persistent("absent", 0, "_NR_1"));
  EXPECT_EQ(0, check_add_norows_to_missing_persistent("absent", 0, nullptr));
}

TEST_F(CacheLayer, FailedStatementIsCachedLikeAMissingRow) {
  cache("res:t:full", "other", "x");
  EXPECT_EQ(std::nullopt, taken(drget_hash(0, "f", "SELECT nothing FROM t WHERE name='%s'",
                                           key_format, "full", 0)));
  EXPECT_EQ("_NR_", cached("res:t:full", "f"));
  const texts lines = told();
  ASSERT_EQ(4U, lines.size());
  const std::string place =
      "../main/zarn_cache:drget_hash:" + std::to_string(last_line.line) + " -MySQL error: ";
  EXPECT_TRUE(lines[1].starts_with(place + "Unknown column 'nothing'")) << lines[1];
  EXPECT_EQ("rset_hash_str(res:t:full,f,_NR_): success", lines[3]);
}

TEST_F(CacheLayer, HitAndWriteBackAreTold) {
  get("full");
  EXPECT_EQ(
      (texts{"rget_hash_str(res:t:full,f): (null)", "rset_hash_str(res:t:full,f,v1): success"}),
      told());
  get("full");
  EXPECT_EQ(texts{"rget_hash_str(res:t:full,f): v1"}, told());
  cache("res:t:full", "f", "_NR_1");
  EXPECT_EQ("_NR_1", get("full")) << "no marker, only the beginning of one";
}

TEST_F(CacheLayer, LookupWithoutAnArgumentAsksNobody) {
  EXPECT_EQ(std::nullopt, get(nullptr));
  EXPECT_EQ(texts{"condition failed"}, told());
  for (const int id : {0, -1}) {
    EXPECT_EQ(nullptr, drget_hash_by_id(0, "f", "SELECT value FROM t WHERE id=%d", "k:%d", id, 0));
    EXPECT_EQ(texts{"condition failed"}, told()) << id;
    EXPECT_EQ("drget_hash_by_id", last_line.function);
  }
  EXPECT_EQ("v1", taken(drget_hash_by_id(0, "f", "SELECT value FROM t WHERE id=%d", "k:%d", 1, 0)));
  EXPECT_EQ("v1", cached("k:1", "f"));
}

TEST_F(CacheLayer, ArgumentIsNeitherEscapedNorUsedAsAFormat) {
  EXPECT_EQ("v1", get("x' OR id='1"));
  EXPECT_EQ("v1", cached("res:t:x' OR id='1", "f"));

  box.sql("INSERT INTO t VALUES (9, '100%s%n%', 'percent')");
  EXPECT_EQ("percent", get("100%s%n%"));
  EXPECT_EQ("percent", cached("res:t:100%s%n%", "f"));
}

TEST_F(CacheLayer, WholeHashesAreWrittenReadAndJoined) {
  const char *const fields[] = {"a", "b", "gone"};
  const char *const contents[] = {"1", "", "x"};
  EXPECT_EQ(0, rmset_hash(0, 2, fields, contents, "h:%d:%s", 7, "k"));
  EXPECT_EQ((texts{"cache_hmset(h:7:k,2X): success", "rmset_hash(h:7:k,X2): success"}), told());

  EXPECT_EQ((values{"1", "", std::nullopt}), taken(3, rmget_hash(1, 3, fields, "h:%d:%s", 7, "k")));
  EXPECT_EQ((texts{"cache_hmget(h:7:k,3X): 3 entries retrieved", "rmget_hash(h:7:k,X3): success"}),
            told());

  EXPECT_EQ("1,", taken(rgetall_hash_comma(0, "h:%d:%s", 7, "k")));
  EXPECT_EQ((texts{"cache_hgetall(h:7:k): 2X", "rgetall_hash_comma(h:7:k): 2 memberss"}), told());

  EXPECT_EQ(std::nullopt, taken(rgetall_hash_comma(0, "absent")));
  EXPECT_EQ(2U, log.count("error ")) << "an absent hash cannot be read whole";

  box.redis({"SET", "text", "no hash"});
  EXPECT_EQ(0, rmset_hash(0, 1, fields, contents, "text")) << "a lost write is only told";
  EXPECT_TRUE(log.has("rmset_hash(text,X1): error "));
  EXPECT_EQ(nullptr, rmget_hash(0, 1, fields, "text"));
  EXPECT_TRUE(log.has("rmget_hash(text,X1): error "));
}

TEST(Bindings, AreFoundByNameIgnoringCase) {
  const cache_binding table[] = {
      {"Alpha", "k", 0, "a"}, {"beta", "k", 0, "b"}, {"Gamma", "k", 0, "c"}};
  EXPECT_EQ(&table[0], get_binding(3, table, "alpha"));
  EXPECT_EQ(&table[1], get_binding(3, table, "BETA"));
  EXPECT_EQ(&table[2], get_binding(3, table, "Gamma"));
  EXPECT_EQ(nullptr, get_binding(2, table, "Gamma"));
  EXPECT_EQ(nullptr, get_binding(3, table, "alph"));
  EXPECT_EQ(nullptr, get_binding(0, table, "alpha"));
  EXPECT_EQ(nullptr, get_binding(3, table, nullptr));
}

// Parameters of owners; `asked` gets a row for each statement that reaches the database.
class Parameters : public CacheLayer {
 protected:
  explicit Parameters(const support::sandbox_options &options = {}) : CacheLayer(options) {
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
  const std::vector<const char *> names = {"beta", "alpha", "delta", "gamma", "free", "nowhere"};
  const values expected = {"_NL_", "A", "D", "_NR_", "F", "_NR_"};
  cache("one:7", "al", "cached");
  EXPECT_EQ((values{"_NL_", "cached", "D", "_NR_", "F", "_NR_"}), get(names));
  EXPECT_EQ(1, statements());
  EXPECT_EQ((texts{"cache_hmget(one:7,2X): 2 entries retrieved", "rmget_hash(one:7,X2): success",
                   "cache_hmget(two:7,1X): 1 entries retrieved", "rmget_hash(two:7,X1): success",
                   "cache_hmget(one:7,1X): 1 entries retrieved", "rmget_hash(one:7,X1): success",
                   "rset_hash_str(one:7,be,_NL_): success", "rset_hash_str(two:7,de,D): success",
                   "cache_exists(one:7): 1", "rset_hash_str(one:7,ga,_NR_): success"}),
            told());

  box.redis({"HDEL", "one:7", "al"});
  EXPECT_EQ(expected, get(names));
  EXPECT_EQ(2, statements());

  EXPECT_EQ((values{"A", std::nullopt, std::nullopt, "D"}),
            get({"alpha", "beta", "gamma", "delta"}, "7", 0, 0));
  EXPECT_EQ(2, statements()) << "all were in the cache";
  EXPECT_EQ("rmget_hash(two:7,X1): success", told().back());
  EXPECT_EQ("rmget_hash", last_line.function);
  get({"free", "alpha"});
  get({"free", "alpha"});
  EXPECT_EQ(4, statements()) << "a name without a binding is asked every time";
  EXPECT_EQ("3", box.redis({"HLEN", "one:7"}));
}

TEST_F(Parameters, ArgumentIsEscapedInTheStatementAndRawInTheKey) {
  EXPECT_EQ(values{"quoted"}, get({"alpha"}, "a'b\\c\""));
  EXPECT_EQ("quoted", cached("one:a'b\\c\"", "al"));
}

TEST_F(Parameters, KeyIsBuiltFromTheNumberTheTextOrNothing) {
  static constexpr cache_binding by_number[] = {{"alpha", "n:%d", 0, "al"}};
  static constexpr cache_binding fixed[] = {{"alpha", "fixed", 0, "al"}};
  const char *const names[] = {"alpha"};
  EXPECT_EQ(values{"A"},
            taken(1, drmget_hash(1, by_number, 1, names, rows_statement, "7", 1, 0, 0)));
  EXPECT_EQ("A", cached("n:7", "al"));
  EXPECT_EQ(values{"A"},
            taken(1, drmget_hash(1, fixed, 1, names,
                                 "SELECT param, value FROM p WHERE owner='7' AND param IN(%s)",
                                 nullptr, 1, 0, 0)));
  EXPECT_EQ("A", cached("fixed", "al"));
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
      {{"delta", "delta"}, rows_statement, {"D", "_NR_"}},
      {{"free"}, "SELECT 'free', '%s' UNION ALL SELECT %s, 'last'", {"last"}},
      {{"free"}, "SELECT NULL, CONCAT('%s', %s)", {"_NR_"}},
      {{"free"}, "SELECT CONCAT('%s', %s)", {"_NR_"}},
  };
  for (const auto &row : rows) {
    box.redis({"DEL", "one:7", "two:7"});
    EXPECT_EQ(row.expected, get(row.names, "7", 0, 3, row.sql)) << row.names[0] << " " << row.sql;
  }
}

TEST_F(Parameters, ColumnModeTakesTheColumnsOfOneRowInOrder) {
  const char *const names[] = {"beta", "delta", "alpha"};
  cache("two:7", "de", "cached");
  for (const char *owner : {"7", "8"}) {
    const bool there = *owner == '7';
    cache(std::string("two:") + owner, "de", "cached");
    EXPECT_EQ(there ? (values{"_NL_", "cached", "wa"}) : (values{"_NR_", "cached", "_NR_"}),
              taken(3, drmget_hash(4, bindings, 3, names, "SELECT %s FROM wide WHERE owner='%s'",
                                   owner, 0, 1, 3)))
        << owner;
  }
  EXPECT_EQ("wa", cached("one:7", "al"));
  EXPECT_EQ(std::nullopt, cached("one:8", "al")) << "markers do not begin a hash";
  EXPECT_EQ((values{"wa"}), taken(1, drmget_hash(4, bindings, 1, &names[2], "SELECT %s FROM wide",
                                                 nullptr, 0, 1, 3)));
}

TEST_F(Parameters, FailureOfTheDatabaseDropsWhatTheCacheHad) {
  cache("one:7", "al", "cached");
  told();
  EXPECT_EQ(values{}, get({"alpha", "beta"}, "7", 0, 3, "SELECT nothing FROM p WHERE '%s' IN(%s)"));
  EXPECT_TRUE(log.has("../main/zarn_cache:drmget_hash:"));
  EXPECT_TRUE(log.has(" -MySQL error: Unknown column 'nothing'"));
  told();
  EXPECT_EQ(values{}, get({"alpha", "beta"}, "7", 0, 3, "DO CONCAT('%s', %s)"));
  EXPECT_EQ("condition failed", told().back()) << "a statement without a result set";
  EXPECT_EQ(std::nullopt, cached("one:7", "be"));
  EXPECT_EQ(values{"cached"}, get({"alpha"}, "7", 0, 3, "not asked %s %s"));

  const int no_result = last_line.line;
  qx_sql_pool_destroy();
  EXPECT_EQ(values{}, get({"alpha", "beta"}));
  EXPECT_EQ("condition failed", told().back()) << "no session";
  EXPECT_NE(no_result, last_line.line);
}

TEST_F(Parameters, BadArgumentsAreRefusedInSilence) {
  const char *const names[] = {"alpha"};
  const char *const holes[] = {nullptr};
  const char *const no_format = nullptr;
  const auto read = [](int rows, const cache_binding *table, int count, const char *const *asked) {
    return drmget_hash(rows, table, count, asked, rows_statement, "7", 0, 0, 0);
  };
  for (char **array :
       {read(0, bindings, 1, names), read(4, nullptr, 1, names), read(4, bindings, 0, names),
        read(4, bindings, -1, names), read(4, bindings, 1, nullptr), read(4, bindings, 1, holes),
        rmget_hash(0, 0, names, "h"), rmget_hash(0, -1, names, "h"), rmget_hash(0, 1, nullptr, "h"),
        rmget_hash(0, 1, holes, "h"), rmget_hash(0, 1, names, no_format)})
    EXPECT_EQ(nullptr, array);
  for (const int status :
       {rmset_hash(0, -1, names, names, "h"), rmset_hash(0, 1, nullptr, names, "h"),
        rmset_hash(0, 0, names, nullptr, "h"), rmset_hash(0, 1, names, holes, "h"),
        rmset_hash(0, 1, names, names, no_format)})
    EXPECT_EQ(-1, status);
  EXPECT_EQ(0, rmset_hash(0, 0, names, names, "h"));
  EXPECT_EQ(nullptr, rgetall_hash_comma(0, no_format));
  EXPECT_EQ(texts{}, told());
  EXPECT_EQ(0, statements());
}

TEST_F(Parameters, FirstUseByManyThreadsMakesOneClient) {
  std::vector<std::thread> threads;
  std::vector<values> answers(8);
  threads.reserve(answers.size());
  for (values &answer : answers) threads.emplace_back([&] { answer = get({"alpha", "delta"}); });
  for (std::thread &thread : threads) thread.join();
  for (const values &answer : answers) EXPECT_EQ((values{"A", "D"}), answer);
  EXPECT_EQ(1U, log.count("Adding vk server ["));
}

using DeadCache = beside_dead_cache<Parameters>;

TEST_F(DeadCache, AnswersAreThoseOfAnEmptyCache) {
  const char *const fields[] = {"a"};
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ("v1", CacheLayer::get("full"));
    EXPECT_EQ("_NR_", CacheLayer::get("none", QX_KEEP_NO_ROW));
    EXPECT_EQ((values{"A", "_NL_", "F", "_NR_"}), get({"alpha", "beta", "free", "gamma"}));
    EXPECT_EQ(round + 1, statements());
    EXPECT_EQ(nullptr, rmget_hash(0, 1, fields, "h"));
    EXPECT_EQ(nullptr, rgetall_hash_comma(0, "h"));
    EXPECT_EQ(0, rmset_hash(0, 1, fields, fields, "h"));
  }
  EXPECT_TRUE(log.has(":rget_hash_str(res:t:full,f): error "));
  EXPECT_TRUE(log.has(":rset_hash_str(res:t:full,f,v1): error "));
  EXPECT_TRUE(log.has(":rset_hash_str(res:t:none,f,_NR_): error "));
  EXPECT_FALSE(log.has("Trying to add NOROWS")) << "nobody could say that the hash is not there";
}

}  // namespace
