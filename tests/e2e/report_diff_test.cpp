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

  // A snapshot of the platform as it is, said to be of this day.
  std::string snapshot_of(const std::string &day) {
    std::string document = report({"list", "--format", "json"});
    const std::string key = "\"taken\":\"";
    document.replace(document.find(key) + key.size(), day.size(), day);
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
  EXPECT_EQ(report({"diff", path}), "change  growth  before  after  login  id  level  parent\n");
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
}

TEST_F(Diff, ListsWhatGrewShrankCameWentAndMovedByGrowth) {
  box.add_owner(14, 2, "gil");
  write_quota("1/2/14/fax", "400.0");
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
  EXPECT_EQ(report({"diff", old}), "");
  EXPECT_EQ(report({"diff", "--format", "csv", "--level", "user", "--kind", "fax,sound", old}), "");
  EXPECT_EQ(report({"diff", "--top", "1", "--human", old, "now"}), "");
}

TEST_F(Diff, TellsTheDayOnWhichALimitIsReached) {
  for (const char *id : {"1", "2", "12", "13"})
    box.set_preference(std::stoi(id), "fax_storage", "1");
  const auto set = [&](int ann, int bob, int cid, int dan) {
    write_quota("1/fax", std::to_string(ann) + ".0");
    write_quota("1/2/fax", std::to_string(bob) + ".0");
    write_quota("1/2/12/fax", std::to_string(cid) + ".0");
    write_quota("1/2/13/fax", std::to_string(dan) + ".0");
  };
  std::vector<std::string> arguments = {"diff", "--format", "csv"};
  set(100, 500, 500, 10);
  arguments.push_back(snapshot_of("2026-01-01"));
  set(210, 400, 500, 10);
  arguments.push_back(snapshot_of("2026-01-02"));
  set(290, 300, 1100, 11);
  arguments.push_back(snapshot_of("2026-01-03"));
  EXPECT_EQ(report(arguments), "");
}

TEST_F(Diff, TellsWhatIsWrongWithASnapshot) {
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
  for (const auto &[name, reason] : {std::pair("text", "is no snapshot"),
                                     {"empty", "is no snapshot"},
                                     {"foreign", "is no snapshot"},
                                     {"scalar", "is no snapshot"},
                                     {"cut", "is cut off"},
                                     {"damaged", "is damaged"},
                                     {"newer", "was written by a newer version"},
                                     {"missing", "No such file or directory"}}) {
    EXPECT_EQ(refusal({"diff", box.path(name)}),
              "spoolcap-report: " + box.path(name) + ": " + reason + "\n");
  }
  EXPECT_EQ(refusal({"diff", "now", whole}),
            "spoolcap-report: " + whole + ": is older than the one before it\n");
  EXPECT_EQ(refusal({"diff"}), "spoolcap-report: diff needs the name of a snapshot\n");
  EXPECT_EQ(refusal({"snapshot", "/dev/full"}),
            "spoolcap-report: /dev/full could not be written: No space left on device\n");
  EXPECT_EQ(refusal({"page", box.path("no/such/page")}),
            "spoolcap-report: " + box.path("no/such/page") +
                " could not be written: No such file or directory\n");
}

}  // namespace
