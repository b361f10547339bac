// Snapshots, and what the report makes of two and more of them.
#include <zstd.h>

#include "tests/e2e/report_fixture.h"

namespace {

class Diff : public Report {
 protected:
  // A snapshot of this document.
  std::string packed(const std::string &name, const std::string &document) {
    std::string content(ZSTD_compressBound(document.size()), '\0');
    content.resize(
        ZSTD_compress(content.data(), content.size(), document.data(), document.size(), 3));
    box.write_file(name, content);
    return box.path(name);
  }

  // The document of a snapshot of midnight of this day, with these objects as its accounts.
  static std::string document(const std::string &day, const std::string &accounts) {
    return R"({"accounts":[)" + accounts +
           R"(],"format":"spoolcap-report","host":"node1","taken":")" + day +
           R"(T00:00:00Z","version":1})";
  }

  std::string snapshot_of(const std::string &day, const std::string &accounts) {
    return packed(day, document(day, accounts));
  }

  // A snapshot of the platform as it is, said to be of midnight of this day.
  std::string snapshot_of(const std::string &day) {
    std::string document = report({"list", "--format", "json"});
    const std::string key = "\"taken\":\"";
    const std::string midnight = day + "T00:00:00";
    document.replace(document.find(key) + key.size(), midnight.size(), midnight);
    return packed(day, document);
  }

  std::string refusal(const std::vector<std::string> &arguments) const {
    const support::process_result result = box.run_report(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    return result.err;
  }
};

TEST_F(Diff, SnapshotsHoldTheListAndAreReadBack) {
  const std::string path = box.path("snapshot");
  report({"snapshot", path});
  EXPECT_EQ(report({"diff", path}),
            "change  growth  before  after  login  id  level  parent  age  state\n");
  const support::process_result piped =
      support::run_process({"sh", "-c", SPOOLCAP_REPORT_BINARY " diff - < " + path},
                           {.environment = {{"SPOOLCAP_SANDBOX", box.root().string()}}});
  EXPECT_EQ(piped.status, 0) << piped.err;
  const std::string content = box.read_file("snapshot").value();
  std::string document(1 << 20, '\0');
  document.resize(
      ZSTD_decompress(document.data(), document.size(), content.data(), content.size()));
  rapidjson::Document read;
  read.Parse(document.c_str());
  const rapidjson::Document listed = json({"list", "--format", "json"});
  ASSERT_EQ(read["accounts"].Size(), listed["accounts"].Size());
  for (unsigned i = 0; i < listed["accounts"].Size(); ++i) {
    EXPECT_EQ(read["accounts"][i]["used"], listed["accounts"][i]["used"]);
    EXPECT_EQ(read["accounts"][i]["name"], listed["accounts"][i]["name"]);
  }
  const std::string other = snapshot_of("2026-01-01", "");
  const rapidjson::Document changes = json({"diff", "--format", "json", other, path});
  EXPECT_STREQ(changes["from_host"].GetString(), "node1");
  EXPECT_EQ(changes["host"], listed["host"]);
}

TEST_F(Diff, ListsWhatGrewShrankCameWentAndMovedByGrowth) {
  box.add_owner(14, 2, "gil");
  write_quota("1/2/14/fax", "400.0");
  stop_ages();
  const std::string old = snapshot_of("2026-01-01");
  box.sql("DELETE FROM client WHERE id = 14");
  box.add_owner(15, 2, "=hal");
  write_quota("1/2/15/sound", "70.0");
  box.add_client(4, 3, "ivy");
  box.sql("UPDATE client SET parent_client_id = 4 WHERE id = 13");
  write_quota("3/4/13/fax", "30.0");
  write_quota("1/2/12/fax", "1048500.0");
  write_quota("1/music", "1010.3");
  // A figure that is not known on one side is no growth.
  write_quota("1/2/fax", "broken");
  stop_ages();
  EXPECT_EQ(
      report({"diff", old}),
      "change  growth   before    after  login  id  level     parent  age  state\n"
      "grew     +1000  1051745  1052745  ann     1  reseller  -         0  measured -> updated\n"
      "came       +70        -       70  =hal   15  user      2         0  missing\n"
      "moved      +30        0       30  dan    13  user      2 -> 4    0  measured -> missing\n"
      "same         0  1051735     3159  bob     2  client    1         0  measured -> unreadable\n"
      "came         0        -        -  ivy     4  client    3         -  missing\n"
      "shrank     -76  1051735  1051659  cid    12  user      2         0  measured\n"
      "went      -400      400        -  gil    14  user      2         0  missing\n");
  EXPECT_EQ(report({"diff", "--format", "csv", "--level", "user", "--kind", "fax,sound", old}),
            "change,id,name,level,parent_before,parent_after,growth,growth_fax,growth_sound,"
            "total_before,total_after,state_before,state_after,age_before,age_after\r\n"
            "came,15,'=hal,100,,2,70,,70,,70,,missing,,0\r\n"
            "moved,13,dan,100,2,4,30,30,,0,30,measured,missing,0,0\r\n"
            "shrank,12,cid,100,2,2,-76,-76,0,1048676,1048600,measured,measured,0,0\r\n"
            "went,14,gil,100,2,,-400,-400,,400,,missing,,0,\r\n");
  EXPECT_EQ(report({"diff", "--top", "1", "--human", old, "now"}),
            "change   growth   before    after  login  id  level     parent  age  state\n"
            "grew    +1000 B  1.00 MB  1.00 MB  ann     1  reseller  -       0 s  measured -> "
            "updated\n");
  const rapidjson::Document document = json({"diff", "--format", "json", "--top", "3", old});
  EXPECT_TRUE(follows(document, "diff.schema.json"));
  EXPECT_STREQ(document["from"].GetString(), "2026-01-01T00:00:00Z");
  const auto &moved = document["changes"][2];
  EXPECT_STREQ(moved["change"].GetString(), "moved");
  EXPECT_EQ(moved["parent_before"].GetInt(), 2);
  EXPECT_EQ(moved["parent_after"].GetInt(), 4);
  EXPECT_EQ(moved["growths"]["fax"].GetInt(), 30);
  EXPECT_TRUE(moved["growths"]["sound"].IsNull());
}

TEST_F(Diff, ShowsTheDayOnWhichALimitIsReached) {
  for (const int id : {1, 2, 12, 13}) box.set_preference(id, "fax_storage", "1");
  const auto set = [&](int ann, int bob, int cid, int dan) {
    write_quota("1/fax", std::to_string(ann) + ".0");
    write_quota("1/2/fax", std::to_string(bob) + ".0");
    write_quota("1/2/12/fax", std::to_string(cid) + ".0");
    write_quota("1/2/13/fax", std::to_string(dan) + ".0");
    stop_ages();
  };
  std::vector<std::string> arguments = {"diff", "--format", "csv", "--kind", "fax"};
  set(100, 500, 500, 10);
  arguments.push_back(snapshot_of("2026-01-01"));
  set(210, 400, 500, 10);
  arguments.push_back(snapshot_of("2026-01-02"));
  set(290, 300, 1100, 11);
  arguments.push_back(snapshot_of("2026-01-03"));
  // Of ann, the line is 200 + 95 a day around the second day, and 1,024 is its height on the tenth.
  EXPECT_EQ(report(arguments),
            "change,id,name,level,parent_before,parent_after,growth,growth_fax,total_before,"
            "total_after,state_before,state_after,age_before,age_after,outlook,limit_day,limit_kind"
            "\r\n"
            "grew,12,cid,100,2,2,600,600,500,1100,measured,measured,0,0,reached,,fax\r\n"
            "grew,1,ann,10,,,190,190,100,290,measured,measured,0,0,day,2026-01-10,fax\r\n"
            "grew,13,dan,100,2,2,1,1,10,11,measured,measured,0,0,day,2031-07-22,fax\r\n"
            "shrank,2,bob,50,1,1,-200,-200,500,300,measured,measured,0,0,does not grow,,\r\n");
  arguments[2] = "json";
  EXPECT_TRUE(follows(json(arguments), "diff.schema.json"));
}

// JSON readers hand out numbers by their size: beyond 32 bits, and beyond what a double holds.
TEST_F(Diff, KeepsLargeFiguresToTheByte) {
  std::vector<std::string> arguments = {"diff", "--format", "csv", "--kind", "fax,sound"};
  for (std::int64_t day = 1; day <= 3; ++day) {
    std::string account = R"({"id":1,"level":10,"name":"ann","limit":{"fax":1101659111424},)";
    account += R"("states":{"fax":"measured","sound":"measured"},"age":0,"used":{"fax":)";
    account += std::to_string(day * 4294967296) + R"(,"sound":)";
    account += std::to_string(9007199254740992 + day) + "}}";
    arguments.push_back(snapshot_of("2026-01-0" + std::to_string(day), account));
  }
  const std::string changes = report(arguments);
  EXPECT_EQ(changes.substr(changes.find('\n') + 1),
            "grew,1,ann,10,,,8589934594,8589934592,2,9007203549708289,9007212139642883,"
            "measured,measured,0,0,day,2026-09-13,fax\r\n");
}

TEST_F(Diff, ShowsLoginsOfASnapshotThatDisturb) {
  const std::string none = snapshot_of("2026-01-01", "");
  const std::string one =
      snapshot_of("2026-01-02", R"({"id":1,"level":10,"name":"=\u0000\u3164\n","used":{"fax":7}})");
  EXPECT_EQ(
      report({"diff", "--kind", "fax", none, one}),
      "change  growth  before  after  login               id  level     parent  age  state\n"
      "came        +7       -      7  =\ufffd\\xe3\\x85\\xa4\\x0a   1  reseller  -         -  "
      "missing\n");
  const std::string lines = report({"diff", "--format", "csv", none, one});
  EXPECT_NE(lines.find(",\"'=\ufffd\u3164\n\","), lines.npos);
}

TEST_F(Diff, NamesWhatIsWrongWithASnapshot) {
  const std::string whole = box.path("whole");
  report({"snapshot", whole});
  const std::string content = box.read_file("whole").value();
  std::string damaged = content;
  damaged[content.size() / 2] ^= 1;
  const std::string newer =
      R"({"format":"spoolcap-report","version":2,"taken":"2026-01-31T02:00:07Z","accounts":7})";
  box.write_file("text", "no snapshot");
  box.write_file("empty", "");
  box.write_file("cut", content.substr(0, content.size() - 9));
  box.write_file("damaged", damaged);
  packed("newer", newer);
  packed("foreign", R"({"format":"something","version":1})");
  packed("scalar", "12");
  packed("deep", std::string(300000, '['));
  const std::string empty = document("2026-01-01", "");
  packed("unlisted", "{" + empty.substr(empty.find("\"format\"")));
  packed("rubbish", empty + std::string("\0[", 2));
  for (const auto &[name, reason] : {std::pair("text", "is no snapshot"),
                                     {"empty", "is no snapshot"},
                                     {"foreign", "is no snapshot"},
                                     {"scalar", "is no snapshot"},
                                     {"deep", "is no snapshot"},
                                     {"unlisted", "is no snapshot"},
                                     {"rubbish", "is no snapshot"},
                                     {"cut", "is cut off"},
                                     {"damaged", "is damaged"},
                                     {"newer", "was written by a newer version"},
                                     {"missing", "No such file or directory"}}) {
    EXPECT_EQ(refusal({"diff", box.path(name)}),
              "spoolcap-report: " + box.path(name) + ": " + reason + "\n");
  }
  const std::string old = snapshot_of("2001-01-01");
  EXPECT_EQ(refusal({"diff", "now", old}),
            "spoolcap-report: " + old + ": is older than the one before it\n");
  EXPECT_EQ(refusal({"diff"}), "spoolcap-report: diff needs the name of a snapshot\n");
  EXPECT_EQ(refusal({"snapshot", "/dev/full"}),
            "spoolcap-report: /dev/full could not be written: No space left on device\n");
  EXPECT_EQ(refusal({"page", box.path("no/such/page")}),
            "spoolcap-report: " + box.path("no/such/page") +
                " could not be written: No such file or directory\n");
}

TEST_F(Diff, ListsLimitsByFiguresThatCount) {
  struct figures {
    std::int64_t fax, sound;
    const char *state;
  };
  const auto account = [](int id, const figures &has) {
    const std::string number = std::to_string(id);
    return R"({"id":)" + number + R"(,"level":100,"name":"a)" + number +
           R"(","limit":{"fax":8000000000000000},"used":{"fax":)" + std::to_string(has.fax) +
           R"(,"sound":)" + std::to_string(has.sound) +
           R"(},"states":{"sound":"measured","fax":")" + has.state + "\"}}";
  };
  constexpr std::int64_t limit = 8000000000000000;
  constexpr std::int64_t a_step = 200000000000000;
  std::vector<std::string> arguments = {"diff", "--format", "csv", "--kind", "fax,sound"};
  for (int day = 1; day <= 9; ++day) {
    const auto rising = figures{a_step / 2 + day * a_step, 0, "measured"};
    arguments.push_back(
        snapshot_of("2026-01-0" + std::to_string(day),
                    // Its kinds change against each other.
                    account(1, {100 - day, 100 + day, "updated"}) + "," +
                        // Nothing changes, with and without reason to tell.
                        account(2, {limit, 0, "measured"}) + "," +
                        account(3, {limit - 1, 0, "measured"}) + "," +
                        // A sum of rounded products would let this line rise.
                        account(4, {7000000000000001, day, "measured"}) + "," +
                        // A figure that is not to be trusted, among others and in the end.
                        account(5, day == 5 ? figures{limit, 0, "dirty"} : rising) + "," +
                        account(6, {limit, day, day == 9 ? "redo" : "measured"})));
  }
  const std::string changes = report(arguments);
  EXPECT_EQ(changes.substr(changes.find('\n') + 1),
            "grew,5,a5,100,,,1600000000000000,1600000000000000,0,300000000000000,1900000000000000,"
            "measured,measured,,,day,2026-02-08,fax\r\n"
            "grew,4,a4,100,,,8,0,8,7000000000000002,7000000000000010,measured,measured,,,"
            "does not grow,,\r\n"
            "grew,6,a6,100,,,8,0,8,8000000000000001,8000000000000009,measured,redo,,,unknown,,\r\n"
            "same,1,a1,100,,,0,-8,8,200,200,updated,updated,,,does not grow,,\r\n"
            "same,2,a2,100,,,0,0,0,8000000000000000,8000000000000000,measured,measured,,,reached,,"
            "fax\r\n");
}

// Small files can stand for any number of bytes, and numbers for what no account has.
TEST_F(Diff, RefusesSnapshotsOfNoPlatform) {
  const std::string account = R"({"id":5,"level":10,"more":)";
  const std::string twice = account + "1}," + account + "1}";
  const std::string nested = std::string(20, '[') + std::string(20, ']');
  for (const std::string &accounts :
       {std::string("{}"), std::string("7"), std::string("[]"), std::string(R"({"id":5})"),
        std::string(R"({"id":0,"level":10})"), std::string(R"({"id":4294967297,"level":10})"),
        std::string(R"({"id":5,"level":11})"), twice, account + nested + "}",
        account + '"' + std::string(10000, 'x') + "\"}", account + R"(1,"used":{"fax":1.5}})",
        account + R"(1,"used":{"fax":"1"}})", account + R"(1,"limit":{"fax":-1}})",
        account + R"(1,"limit":{"fax":9223372036854775808}})", account + R"(1,"used":[1]})",
        account + R"(1,"states":{"fax":"fresh"}})"}) {
    const std::string path = snapshot_of("2026-01-01", accounts);
    EXPECT_EQ(refusal({"diff", path, path}), "spoolcap-report: " + path + ": is no snapshot\n")
        << accounts.substr(0, 99);
  }
  const std::string path =
      snapshot_of("2026-01-01", account + R"([{"id":9}],"used":{"tape":"x"}})");
  EXPECT_NE(report({"diff", path, path}), "");
}

}  // namespace
