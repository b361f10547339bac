// Lookups of extensions by their full number: what is asked, what is cached and under which name,
// and what each lookup does differently.
#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include <spoolcap/zarn_extension.h>
#include "tests/unit/lookup_fixture.h"

namespace {

using text = std::optional<std::string>;

const char number[] = "0002*101", absent_number[] = "0002*100";
const char info[] = "res:inf:ext:0002*101", prefs[] = "res:po:ext:0002*101";
const char sip[] = "res:sip:ext:0002*101", sip_session[] = "rtl:sipses:ext:0002*101";

class Extension : public lookup_test {
 protected:
  Extension() : lookup_test("../main/zarn_extension") {
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
    std::optional<std::string> expected;
  } rows[] = {
      {"2", "101", "0002*101"},       {"1", "101", std::nullopt},
      {"2", "102", std::nullopt},     {"", "101", std::nullopt},
      {nullptr, "101", std::nullopt}, {"2", "x' OR extension.number='101", "0002*101"},
      {"2", nullptr, std::nullopt},   {"2", "100", std::nullopt},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.expected, taken(qx_get_full_number(row.parent, row.number)));
    EXPECT_EQ(row.expected, taken(qx_get_full_number_sess(nullptr, row.parent, row.number)));
  }
  EXPECT_EQ(texts{}, told());
}

TEST_F(Extension, NullColumnAndFailedStatementAreTold) {
  const SessionHandle session = sess_init();
  box.sql("ALTER TABLE extension MODIFY extended_number VARCHAR(40) NULL");
  box.sql("UPDATE extension SET extended_number=NULL");
  EXPECT_EQ(std::nullopt, taken(qx_get_full_number_sess(session, "2", "101")));
  EXPECT_EQ(texts{"condition failed"}, told());

  box.sql("ALTER TABLE extension DROP COLUMN extended_number");
  EXPECT_EQ(std::nullopt, taken(qx_get_full_number_sess(session, "2", "101")));
  const texts lines = told();
  ASSERT_EQ(1U, lines.size());
  EXPECT_TRUE(lines[0].starts_with("../main/zarn_extension:qx_get_full_number_sess:" +
                                   std::to_string(last_line.line) + " -MySQL error: "))
      << lines[0];
  sess_destroy(session);
}

TEST_F(Extension, WithoutADatabaseThereIsNoFullNumber) {
  qx_sql_pool_destroy();
  EXPECT_EQ(std::nullopt, taken(qx_get_full_number("2", "101")));
  EXPECT_EQ(std::nullopt, taken(qx_get_full_number_sess(nullptr, "2", "101")));
  EXPECT_EQ((texts{"condition failed", "condition failed"}), told());
}

TEST_F(Extension, NumberIsSplitByTheLengthAndSeparatorInForce) {
  const char *const rows[][4] = {
      {"3", "'*'", "0003*101", "0003 101"},
      {"3", "'*'", "1*101", "1 101"},
      {"3", "'*'", "0003-101", ""},
      {"3", "'*'", "*101", ""},
      {"3", "'*'", nullptr, ""},
      {"3", "NULL", "0003*101", ""},
      {"NULL", "'*'", "0003*101", ""},
      {"-5", "''", "0003*101", ""},
      {"0", "'*'", "0003*", "0003 "},
      {"2", "'\xC3\xA9'", "3\xC3_1", "3 _1"},
  };
  for (const auto &[length, separator, of, parts] : rows) {
    box.redis({"DEL", "system:pbx"});
    box.sql(std::string("UPDATE misc SET value=IF(param='ext_length',") + length + "," + separator +
            ")");
    char *owner = nullptr, *shorter = nullptr;
    const int status = qx_split_full_number(of, &owner, &shorter);
    const c_string owned[] = {c_string(owner), c_string(shorter)};
    EXPECT_EQ(parts, status == 0 ? std::string(owner) + " " + shorter : "") << length << separator;
  }
}

TEST_F(Extension, IdsAreCachedAsFarAsTheyWereRead) {
  const auto ids = [](const char *of, bool with_organisation = true) {
    int id[3] = {7, 7, 7};
    qx_get_extension_ids(of, &id[0], &id[1], with_organisation ? &id[2] : nullptr);
    return std::to_string(id[0]) + " " + std::to_string(id[1]) + " " + std::to_string(id[2]);
  };
  EXPECT_EQ("-1 -1 -1", ids(absent_number));
  EXPECT_EQ("-1 -1 -1", ids("0002*102")) << "with a user that is not there";
  EXPECT_EQ(-1, qx_get_extension_id(absent_number));
  EXPECT_EQ("0", box.redis({"DBSIZE"}));
  cache(info, "extid", "99");
  EXPECT_EQ("11 3 7", ids(number, false)) << "half an answer of the cache is none";
  EXPECT_EQ("2", box.redis({"HLEN", info}));
  EXPECT_EQ(2, qx_get_extension_owner(number));
  EXPECT_EQ("3", box.redis({"HLEN", info}));
  box.sql("UPDATE extension SET client_id=NULL");
  EXPECT_EQ("11 3 2", ids(number)) << "all are cached";

  box.redis({"DEL", info});
  EXPECT_EQ("-1 -1 7", ids(number, false)) << "without a user";
  EXPECT_EQ("0", box.redis({"DBSIZE"}));
  box.sql("UPDATE extension SET client_id=3, extended_number='0002*\\'\"\\\\1' WHERE id=11");
  box.sql("UPDATE client SET parent_client_id=NULL");
  EXPECT_EQ("11 3 -1", ids("0002*'\"\\1")) << "escaped; without an organisation";
}

TEST_F(Extension, PreferencesAndParametersHaveTheirPlacesInTheCache) {
  for (const char *row :
       {"res:po:ext:0002*101 call_waiting cw chat_status cst conf conf conf_size confs dir dir dnd "
        "dnd dnd_sound dndso dnd_sound_active dndsa encryption enc fax fx fax_active fxa "
        "fax_attach fxatt fax_autoans_time fxat fax_redirect_to_voicemail fxrv hotdesk hdsk "
        "no_answer noans rec rec record_always recal record_sound_active recsa voicemail vm "
        "voicemail_active vma voicemail_autoans_time vmat",
        "res:cb:ext:0002*101 callreturn crt", "res:cc:ext:0002*101 credit_limit clim",
        "system:pbx avgcall acd billing_disabled chst currency cur diagnostic_passwd dp "
        "elocal_calls_cost ecc ext_length extlen ext_separator extsep language pln "
        "local_calls_cost lcc snd_currency sndc text2speach t2s"}) {
    std::istringstream words(row);
    std::string key, name, field;
    for (words >> key; words >> name >> field;) {
      const bool of_system = key == "system:pbx";
      std::string statement =
          of_system ? "REPLACE misc SELECT p" : "REPLACE extension_prefs SELECT 11, p";
      statement.append(", CONCAT('of ', p) FROM (SELECT '").append(name).append("' p) named");
      box.sql(statement);
      EXPECT_EQ("of " + name, of_system ? taken(qx_misc_get_param(name.c_str()))
                                        : taken(qx_extension_get_pref(number, name.c_str())));
      EXPECT_EQ("of " + name, cached(key, field));
      for (const char *of : {absent_number, "0002*102"}) {
        EXPECT_EQ(std::nullopt, taken(qx_extension_get_pref(of, name.c_str()))) << name;
      }
    }
  }
  EXPECT_EQ(0, qx_billing_disabled());
  cache("system:pbx", "chst", "1");
  EXPECT_EQ(1, qx_billing_disabled());
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
    box.redis({"FLUSHDB"});
    if (written == "_NR_") cache(key, "other", "so that a marker may be written");
    box.sql(sql);
    EXPECT_EQ(first, ask(number, 11)) << sql;
    EXPECT_EQ(written, cached(key, field)) << sql;
    EXPECT_EQ(later, ask(number, 11)) << sql;
    const text nobody = key == info ? text("-1") : key == sip || field == "mu" ? text("0") : none;
    EXPECT_EQ(nobody, ask(absent_number, 12)) << sql;
    EXPECT_EQ(nobody, ask("0002*102", 10)) << sql;
  }
  for (int value = 0; str name : {"term", "queue", "ivr", "voicecenter", "conference", "callback",
                                  "callcard", "intercom", "queuecenter"}) {
    cache(info, "typ", name);
    EXPECT_EQ(value++, qx_get_extension_type(number)) << name;
  }
}

TEST_F(Extension, ScreeningComesFromTheProcedureOnceAndFromTheCacheLater) {
  box.sql("INSERT INTO screening VALUES(11,'deny','100,200','300')");
  char *behaviour, *allowed, *denied;
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(0, qx_screening_get_behaviour(number, &behaviour, &allowed, &denied));
    EXPECT_EQ((values{"deny", "100,200", "300"}),
              (values{taken(behaviour), taken(allowed), taken(denied)}));
    EXPECT_EQ(3, qx_get_extension_usrid_from_extid(11)) << "on the connection of the call";
    EXPECT_EQ(-1, qx_get_extension_usrid_from_extid(9));
    box.sql("DELETE FROM screening");
  }
  EXPECT_EQ(1U, log.count("searching for screening params in database ..."));
  EXPECT_EQ(-1, qx_screening_get_behaviour(absent_number, &behaviour, nullptr, &denied));
  EXPECT_EQ(nullptr, behaviour);
}

TEST_F(Extension, ExistsWhenIndexedAndExpiresUnlessItsSessionLastsAndIsReachable) {
  EXPECT_EQ(1, qx_extension_expired(number));
  EXPECT_EQ(0, qx_extension_exists(number));
  cache("res:ind:2:ext", "101", "11");
  EXPECT_EQ(1, qx_extension_exists(number));
  cache("res:ind:vext", "900", number);
  const std::tuple<const char *, const char *, int> rows[] = {
      {"2999-01-01 00:00:00", "yes", 0}, {"'2999-01-01 00:00:00'", "yes,udp", 0},
      {"2999-01-01 00:00:00", "ye", 1},  {"2999-01-01 00:00:00", "no", 1},
      {"2001-01-01 00:00:00", "yes", 1}, {"'2999-01-01 00:00:00", "yes", 1},
  };
  for (const auto &[expires, reachable, expected] : rows) {
    box.redis({"HSET", sip_session, "expires", expires, "rch", reachable});
    EXPECT_EQ(expected, qx_extension_expired(number)) << expires << reachable;
    EXPECT_EQ(expected, qx_extension_expired("900")) << "as the number behind it";
  }
  setenv("TZ", "America/New_York", 1);
  time_t time = 0;
  EXPECT_EQ(0, redis_str2time("2024-07-29 12:00:00", &time));
  EXPECT_EQ(1722254400, time) << "in UTC";
}

TEST_F(Extension, AccountsBelowAnAccountAreThoseThatOwnExtensions) {
  box.add_account(9, std::nullopt, 0, "root");
  box.add_client(4, 1, "other client");
  box.add_owner(5, 4, "other owner");
  box.add_reseller(6, "reseller without clients");
  const std::tuple<int, int, std::string> rows[] = {{9, 0, "3 5 8 "},     {9, 1, "1 6 2 4 3 5 8 "},
                                                    {1, 0, "3 8 5 "},     {2, 1, "3 8 "},
                                                    {1, 1, "2 4 3 8 5 "}, {3, 0, "3 "},
                                                    {6, 1, ""},           {77, 0, "NULL"}};
  for (const auto &[account, flag, expected] : rows) {
    const std::unique_ptr<int, call_to_release<std::free>> ids(qx_get_extensions_of(account, flag));
    std::string found = ids ? "" : "NULL";
    for (const int *id = ids.get(); id && *id != -1; ++id) found += std::to_string(*id) + " ";
    EXPECT_EQ(expected, found) << account << " " << flag;
  }
}

}  // namespace
