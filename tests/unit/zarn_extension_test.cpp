// Lookups of extensions by their full number: what is asked, what is cached and under which name,
// and what each lookup does differently.
#include <gtest/gtest.h>

#include <array>
#include <tuple>

#include <spoolcap/zarn_extension.h>
#include "tests/support/platform_test.h"

namespace {

using text = std::optional<std::string>;

const char number[] = "0002*101", absent_number[] = "0002*100";
const char info[] = "res:inf:ext:0002*101", prefs[] = "res:po:ext:0002*101";
const char sip[] = "res:sip:ext:0002*101", sip_session[] = "rtl:sipses:ext:0002*101";

class Extension : public platform_test {
 protected:
  Extension() : platform_test("../main/zarn_extension") {
    box.add_reseller(1, "reseller");
    box.add_client(2, 1, "client");
    box.add_owner(3, 2, "owner");
    box.add_owner(8, 2, "owner of no extension");
    box.add_extension(11, 3, "101");
    // Its owner is not there.
    box.sql("INSERT INTO extension VALUES(10, 7, '102', '0002*102', NULL, NULL)");
    box.sql("INSERT INTO misc VALUES('ext_length', '3'), ('ext_separator', '*')");
  }
};

TEST_F(Extension, FullNumberIsFoundByShortNumberAndParent) {
  const struct {
    const char *parent, *number;
    text expected;
  } rows[] = {{"2", "101", "0002*101"},       {"1", "101", std::nullopt},
              {"2", "102", std::nullopt},     {"2", "x' OR extension.number='101", "0002*101"},
              {nullptr, "101", std::nullopt}, {"2", nullptr, std::nullopt}};
  for (const auto &row : rows) {
    EXPECT_EQ(taken(qx_get_full_number(row.parent, row.number)), row.expected);
    EXPECT_EQ(taken(qx_get_full_number_sess(nullptr, row.parent, row.number)), row.expected);
  }
  EXPECT_EQ(told(), texts{});
}

TEST_F(Extension, NumberIsSplitByTheLengthAndSeparatorInForce) {
  const struct {
    const char *length, *separator, *number;
    text owner, shorter;
  } rows[] = {{"3", "'*'", "1*101", "1", "101"},
              {"3", "'*'", "0003-101", {}, {}},
              {"3", "'*'", "*101", {}, {}},
              {"3", "'*'", nullptr, {}, {}},
              {"3", "NULL", "0003*101", {}, {}},
              {"NULL", "'*'", "0003*101", {}, {}},
              {"-5", "''", "0003*101", {}, {}},
              {"0", "'*'", "0003*", "0003", ""},
              {"2", "'\xC3\xA9'", "3\xC3_1", "3", "_1"}};
  for (const auto &row : rows) {
    box.redis({"DEL", "system:pbx"});
    box.sql(std::string("UPDATE misc SET value=IF(param='ext_length',") + row.length + "," +
            row.separator + ")");
    char *owner = nullptr, *shorter = nullptr;
    const int status = qx_split_full_number(row.number, &owner, &shorter);
    EXPECT_EQ(status, row.owner ? 0 : -1) << row.length << row.separator;
    EXPECT_EQ(taken(owner), row.owner) << row.length << row.separator;
    EXPECT_EQ(taken(shorter), row.shorter) << row.length << row.separator;
  }
}

// Each id as it was asked for, -1 for unknown, 7 for not asked.
std::array<int, 3> ids_of(const char *of, bool with_organisation = true) {
  std::array<int, 3> id = {7, 7, 7};
  qx_get_extension_ids(of, &id[0], &id[1], with_organisation ? &id[2] : nullptr);
  return id;
}
using ids = std::array<int, 3>;

TEST_F(Extension, IdsAreCachedAsFarAsTheyWereRead) {
  cache(info, "extid", "99");
  EXPECT_EQ(ids_of(number, false), (ids{11, 3, 7})) << "half an answer of the cache is none";
  EXPECT_EQ(box.redis({"HLEN", info}), "2");
  EXPECT_EQ(qx_get_extension_owner(number), 2);
  EXPECT_EQ(box.redis({"HLEN", info}), "3");
  box.sql("UPDATE extension SET client_id=NULL");
  EXPECT_EQ(ids_of(number), (ids{11, 3, 2})) << "all are cached";
}

TEST_F(Extension, IdsOfAnExtensionThatIsNotWholeAreUnknownAndNotCached) {
  EXPECT_EQ(ids_of(absent_number), (ids{-1, -1, -1}));
  EXPECT_EQ(ids_of("0002*102"), (ids{-1, -1, -1})) << "with a user that is not there";
  EXPECT_EQ(qx_get_extension_id(absent_number), -1);
  box.sql("UPDATE extension SET client_id=NULL WHERE id=11");
  EXPECT_EQ(ids_of(number, false), (ids{-1, -1, 7})) << "without a user";
  EXPECT_EQ(box.redis({"DBSIZE"}), "0");
  box.sql("UPDATE extension SET client_id=3, extended_number='0002*\\'\"\\\\1' WHERE id=11");
  box.sql("UPDATE client SET parent_client_id=NULL");
  EXPECT_EQ(ids_of("0002*'\"\\1"), (ids{11, 3, -1})) << "escaped; without an organisation";
}

TEST_F(Extension, PreferencesHaveTheirPlacesInTheCache) {
  const struct {
    const char *name, *key, *field;
  } rows[] = {{"call_waiting", prefs, "cw"},
              {"credit_limit", "res:cc:ext:0002*101", "clim"},
              {"voicemail_autoans_time", prefs, "vmat"}};
  for (const auto &row : rows) {
    box.sql("INSERT extension_prefs VALUES(11,'" + std::string(row.name) + "','of it')");
    EXPECT_EQ(taken(qx_extension_get_pref(number, row.name)), "of it");
    EXPECT_EQ(cached(row.key, row.field), "of it");
    EXPECT_EQ(taken(qx_extension_get_pref(absent_number, row.name)), std::nullopt);
    EXPECT_EQ(taken(qx_extension_get_pref("0002*102", row.name)), std::nullopt);
  }
}

TEST_F(Extension, ParametersOfTheSystemHaveTheirPlacesInTheCache) {
  const std::pair<const char *, const char *> rows[] = {
      {"avgcall", "acd"}, {"billing_disabled", "chst"}, {"text2speach", "t2s"}};
  for (const auto &[name, field] : rows) {
    box.sql("INSERT misc VALUES('" + std::string(name) + "','of it')");
    EXPECT_EQ(taken(qx_misc_get_param(name)), "of it");
    EXPECT_EQ(cached("system:pbx", field), "of it") << name;
  }
  EXPECT_EQ(qx_billing_disabled(), 0);
  cache("system:pbx", "chst", "1");
  EXPECT_EQ(qx_billing_disabled(), 1);
}

// Each asks by the number or by the id, whichever it takes.
using str = const char *;
const auto user_name = [](str n, int) { return taken(qx_get_user_name_from_number(nullptr, n)); };
const auto type = [](str n, int) -> text { return std::to_string(qx_get_extension_type(n)); };
const auto codecs = [](str n, int) { return taken(qx_get_extension_codecs(n)); };
const auto ok = [](str n, int) -> text { return std::to_string(qx_extension_can_register({}, n)); };
const auto multi = [](str n, int) -> text { return std::to_string(qx_is_multiuser_aware(n)); };
const auto of_alias = [](str n, int) { return taken(qx_get_extension_from_alias_sess({}, n + 7)); };
const auto alias = [](str n, int) { return taken(qx_get_alias_from_full_number(nullptr, n)); };
const auto timezone = [](str, int id) { return taken(qx_get_extension_timezone(id)); };
const auto pref_by_id = [](str, int id) { return taken(qx_extension_get_pref_by_id(id, "dnd")); };

TEST_F(Extension, AnswersAndNegativeAnswersAreCachedAsEachLookupDoes) {
  box.sql("INSERT INTO timezone VALUES(4,'Oslo'),(5,'Rome')");
  const text none;
  using row = std::tuple<text (*)(str, int), str, text, std::string, std::string, text, text>;
  const row rows[] = {
      {of_alias, "UPDATE extension SET alias='1' WHERE id=11", number, "", "", none, number},
      {alias, "DO 0", "1", "", "", none, "1"},
      {timezone, "UPDATE client SET timezone_id=5", "Rome", "", "", none, "Rome"},
      {pref_by_id, "INSERT extension_prefs VALUES(11,'dnd',1),(12,'z',1)", "1", "", "", none, "1"},
      {user_name, "UPDATE client SET name='N'", "N", "res:cid:ext:0002*101", "ownona", "N", "N"},
      {type, "UPDATE extension SET type='QUEUE' WHERE id=11", "1", info, "typ", "QUEUE", "1"},
      {type, "UPDATE extension SET type=NULL", "-1", info, "typ", "_NL_", "-1"},
      {codecs, "INSERT INTO codec VALUES(1,'a'),(2,'b')", none, prefs, "cod", "_NR_", none},
      {codecs, "INSERT INTO extension_codec_rel VALUES(9,1,3),(11,1,2),(11,2,1)", "b,a,", prefs,
       "cod", "b,a,", "b,a,"},
      {ok, "INSERT INTO ser_subscriber VALUES(1,'0002*101',NULL)", "0", sip, "creg", none, "0"},
      {ok, "UPDATE ser_subscriber SET can_register=1", "1", sip, "creg", "1", "1"},
      {ok, "UPDATE ser_subscriber SET can_register=2", "0", sip, "creg", "2", "2"},
      {multi, "REPLACE client_prefs VALUES(3,'multi_user',0),(3,'z',1)", "0", prefs, "mu", "0",
       "0"},
      {multi, "REPLACE client_prefs VALUES(3,'multi_user','1')", "1", prefs, "mu", "1", "1"},
  };
  for (const auto &[ask, sql, first, key, field, written, later] : rows) {
    SCOPED_TRACE(sql);
    box.redis({"FLUSHDB"});
    if (written == "_NR_") cache(key, "other", "so that a marker may be written");
    box.sql(sql);
    EXPECT_EQ(ask(number, 11), first);
    EXPECT_EQ(cached(key, field), written);
    EXPECT_EQ(ask(number, 11), later);
    const text nobody = key == info ? text("-1") : key == sip || field == "mu" ? text("0") : none;
    EXPECT_EQ(ask(absent_number, 12), nobody);
    EXPECT_EQ(ask("0002*102", 10), nobody);
  }
}

TEST_F(Extension, TypesAreNumberedByTheirNames) {
  for (const auto &[name, value] : {std::pair("term", 0), {"conference", 4}, {"queuecenter", 8}}) {
    cache(info, "typ", name);
    EXPECT_EQ(qx_get_extension_type(number), value) << name;
  }
}

TEST_F(Extension, ScreeningComesFromTheProcedureOnceAndFromTheCacheLater) {
  box.sql("INSERT INTO screening VALUES(11,'deny','100,200','300')");
  char *behaviour, *allowed, *denied;
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(0, qx_screening_get_behaviour(number, &behaviour, &allowed, &denied));
    EXPECT_EQ(taken(behaviour), "deny");
    EXPECT_EQ(taken(allowed), "100,200");
    EXPECT_EQ(taken(denied), "300");
    EXPECT_EQ(qx_get_extension_usrid_from_extid(11), 3) << "on the connection of the call";
    EXPECT_EQ(qx_get_extension_usrid_from_extid(9), -1);
    box.sql("DELETE FROM screening");
  }
  EXPECT_EQ(log.count("searching for screening params in database ..."), 1U);
  EXPECT_EQ(qx_screening_get_behaviour(absent_number, &behaviour, nullptr, &denied), -1);
  EXPECT_EQ(behaviour, nullptr);
}

TEST_F(Extension, ExistsWhenIndexed) {
  EXPECT_EQ(qx_extension_exists(number), 0);
  cache("res:ind:2:ext", "101", "11");
  EXPECT_EQ(qx_extension_exists(number), 1);
}

TEST_F(Extension, ExpiresUnlessItsSessionLastsAndIsReachable) {
  EXPECT_EQ(qx_extension_expired(number), 1);
  cache("res:ind:vext", "900", number);
  const struct {
    const char *expires, *reachable;
    int expected;
  } rows[] = {{"2999-01-01 00:00:00", "yes", 0},
              {"'2999-01-01 00:00:00'", "yes,udp", 0},
              {"2999-01-01 00:00:00", "ye", 1},
              {"2001-01-01 00:00:00", "yes", 1},
              {"'2999-01-01 00:00:00", "yes", 1}};
  for (const auto &row : rows) {
    box.redis({"HSET", sip_session, "expires", row.expires, "rch", row.reachable});
    EXPECT_EQ(qx_extension_expired(number), row.expected) << row.expires << row.reachable;
    EXPECT_EQ(qx_extension_expired("900"), row.expected) << "as the number behind it";
  }
}

TEST(CachedTime, IsInUtc) {
  setenv("TZ", "America/New_York", 1);
  time_t time = 0;
  EXPECT_EQ(redis_str2time("2024-07-29 12:00:00", &time), 0);
  EXPECT_EQ(time, 1722254400);
}

TEST_F(Extension, AccountsBelowAnAccountAreThoseThatOwnExtensions) {
  box.add_account(9, std::nullopt, 0, "root");
  box.add_client(4, 1, "other client");
  box.add_owner(5, 4, "other owner");
  box.add_reseller(6, "reseller without clients");
  using list = std::vector<int>;
  const struct {
    int account, flag;
    std::optional<list> expected;
  } rows[] = {{9, 0, list{3, 5, 8}}, {9, 1, list{1, 6, 2, 4, 3, 5, 8}},
              {1, 0, list{3, 8, 5}}, {1, 1, list{2, 4, 3, 8, 5}},
              {3, 0, list{3}},       {6, 1, list{}},
              {77, 0, std::nullopt}};
  for (const auto &row : rows) {
    const c_memory<int> found(qx_get_extensions_of(row.account, row.flag));
    std::optional<list> accounts;
    if (found) accounts.emplace();
    for (const int *id = found.get(); id != nullptr && *id != -1; ++id) accounts->push_back(*id);
    EXPECT_EQ(accounts, row.expected) << row.account << " " << row.flag;
  }
}

}  // namespace
