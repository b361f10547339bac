// Faults of each sort are planted, and found; a platform without faults has no findings.
#include "tests/e2e/report_fixture.h"

namespace {

class Check : public Report {
 protected:
  // Findings in JSON, each as "<finding> <account> <kind>", or with where it is for one without an
  // account; sorted.
  std::vector<std::string> findings(std::vector<std::string> options = {}) const {
    options.insert(options.begin(), {"check", "--format", "json"});
    const support::process_result result = box.run_report(options);
    EXPECT_EQ(result.err, "");
    document_.Parse(result.out.c_str());
    EXPECT_TRUE(follows(document_, "check.schema.json"));
    std::vector<std::string> found;
    for (const rapidjson::Value &one : document_["findings"].GetArray()) {
      std::string text = one["finding"].GetString();
      if (!one["account"].IsNull()) text += " " + std::to_string(one["account"].GetInt());
      if (!one["kind"].IsNull()) text += std::string(" ") + one["kind"].GetString();
      if (one["account"].IsNull()) text += std::string(" ") + one["where"].GetString();
      found.push_back(text);
    }
    std::sort(found.begin(), found.end());
    EXPECT_EQ(result.status, found.empty() ? 0 : 1);
    return found;
  }

  using texts = std::vector<std::string>;

  mutable rapidjson::Document document_;
};

TEST_F(Check, ACleanPlatformHasNoFindings) {
  EXPECT_EQ(findings({"--deep"}), texts{});
  EXPECT_EQ(report({"check", "--deep"}), "0 findings\n");
  const std::string master = box.read_file("etc/quorvex/sqldbase.conf").value();
  box.write_file("etc/quorvex/sqldbase.conf",
                 "DB_MASTER main:/nowhere:0\nDB_SLAVE" + master.substr(master.find(' ')));
  EXPECT_EQ(box.run_report({"list"}).status, 0);
  EXPECT_EQ(box.run_report({"check"}).status, 2) << "a replica may lag";
}

TEST_F(Check, FiguresAreComparedWithTablesDiskAndChildren) {
  write_quota("1/2/12/recording", "2037.0");
  write_quota("1/2/12/sound", "90.0");
  write_quota("1/music", "11.0");
  EXPECT_EQ(findings(), (texts{"figure_differs 12 recording", "parent_differs 2 recording"}))
      << "sounds of a parent may be its own";
  EXPECT_EQ(document_["findings"][0]["found"].GetInt64(), 2037);
  EXPECT_EQ(document_["findings"][0]["expected"].GetInt64(), 2036);
  EXPECT_EQ(findings({"--deep"}), (texts{"figure_differs 1 music", "figure_differs 12 recording",
                                         "figure_differs 12 sound", "parent_differs 1 music",
                                         "parent_differs 2 recording", "parent_differs 2 sound"}));
  write_quota("1/2/12/sound", "110.0");
  EXPECT_EQ(findings().back(), "parent_differs 2 sound") << "less than its children have";
}

TEST_F(Check, MediaThatCannotBeReadWholeAreNamed) {
  // Each folder leads to the next by two links: more ways in all than a walk follows.
  const std::string folder = box.path(box.sound_folder("12")) + "/";
  for (int depth = 0; depth < 17; ++depth) {
    const std::string next = std::to_string(depth + 1);
    for (const std::string &place : {std::to_string(depth), next}) {
      std::filesystem::create_directories(folder + place);
    }
    for (const char *link : {"/a", "/b"}) {
      std::filesystem::create_directory_symlink("../" + next,
                                                folder + std::to_string(depth) + link);
    }
  }
  EXPECT_EQ(findings({"--deep"}), texts{"media_not_readable 12 sound"});
}

TEST_F(Check, QuotaFoldersAndAccountsAreCompared) {
  box.write_file(box.quota_path("1/2/12/fax") + ".dirty", "");
  std::filesystem::last_write_time(
      box.quota_path("1/2/12/fax") + ".dirty",
      std::filesystem::file_time_type::clock::now() - std::chrono::hours(2));
  box.write_file("var/lib/quorvexquota/3/quota.redo", "");
  box.write_file("var/lib/quorvexquota/1/12/fax.quota", "7.0");  // where it was once
  box.write_file("var/lib/quorvexquota/99/fax.quota", "7.0");
  write_quota("1/2/13/fax", "7");
  std::filesystem::remove(box.quota_path("1/2/13/music"));
  box.set_preference(12, "max_record", "1");
  box.set_preference(12, "fax_storage", "1024");  // all of it is used
  box.add_client(14, 98, "eve");
  box.add_owner(16, 14, "joe");
  box.sql("INSERT INTO extension (id, client_id) VALUES (8, 98)");  // of nobody
  box.add_fax(8, 5);
  box.add_owner(15, 3, "gil");  // with files, right below a reseller
  for (const char *kind : {"fax", "sound", "recording", "voicemail", "music"}) {
    write_quota(std::string("3/15/") + kind, "0.0");
  }
  box.write_file("var/lib/quorvexquota/0003/fax.quota.dirty", "");
  box.sql("UPDATE hs_account SET username = 'c\\nid' WHERE userID = 12");
  box.add_reseller(12345, "long");
  const std::string root = box.path("var/lib/quorvexquota/");
  EXPECT_EQ(findings(),
            (texts{"account_out_of_place 14", "account_out_of_place 15",
                   "account_without_file 12345 fax", "account_without_file 12345 music",
                   "account_without_file 12345 recording", "account_without_file 12345 sound",
                   "account_without_file 12345 voicemail", "account_without_file 13 music",
                   "dirty_mark 12 fax", "file_without_account " + root + "0003",
                   "file_without_account " + root + "1/12", "file_without_account " + root + "99",
                   "file_without_account fax extension_fax_center of account 98", "id_is_cut 12345",
                   "no_record 13 fax", "over_limit 12 recording", "redo_mark 3"}));
  for (const rapidjson::Value &one : document_["findings"].GetArray()) {
    const bool is_dirty = one["finding"] == "dirty_mark";
    EXPECT_NEAR(is_dirty ? one["age"].GetInt() : 7200, 7200, 60);
  }
  const std::string text = box.run_report({"check"}).out;
  EXPECT_NE(text.find("over_limit account 12 c\\x0aid recording found 2036 expected 1024\n"),
            text.npos);
  EXPECT_NE(text.find("\n17 findings\n"), text.npos);
}

TEST_F(Check, StoredFilesAndRowsAreCompared) {
  box.sql("UPDATE extension_recording SET id = id + 100");
  box.sql("UPDATE extension_recording SET se = 'Posix'");
  box.sql("UPDATE extension_voicemail SET se = 's3', filename = 'vm/2/12/1.wav'");
  box.write_file("files/monitor/2/12/101.wav", 1536);
  box.write_file("files/monitor/2/12/777.wav", 1);
  box.write_file("files/monitor/tmp/888.wav", 1);
  box.write_file("files/monitor/2/12/102/888.wav", 1);
  box.write_file("etc/quorvex/storage.conf", "STORAGE_CACHE_D " + box.path("cache") + "\n");
  box.write_file("cache/main/vm/2/12/1.wav", 1023);
  box.write_file("cache/main/vm/2/12/8.wav", 1);  // the service may be about to remove it
  box.write_file("cache/main/vm/2/12/9.wav", 1);
  support::run_process({"touch", "--date=3 days ago", box.path("cache/main/vm/2/12/9.wav")});
  EXPECT_EQ(findings({"--storage", box.path("files")}),
            (texts{"file_without_row recording " + box.path("files/monitor/2/12/777.wav"),
                   "file_without_row voicemail " + box.path("cache/main/vm/2/12/9.wav"),
                   "row_without_file recording extension_recording 102"}));
  std::filesystem::create_symlink("fax", box.path("files/fax"));
  const support::process_result unreadable =
      box.run_report({"check", "--storage", box.path("files")});
  EXPECT_EQ(unreadable.status, 2);
  EXPECT_NE(unreadable.err.find("/fax: Too many levels of symbolic links\n"), std::string::npos);
}

TEST_F(Check, MissingIndexesAreNamed) {
  box.sql("ALTER TABLE extension_fax_center DROP KEY sum_of_sizes, ADD KEY half (extension_id)");
  // These serve as well.
  box.sql("ALTER TABLE client_prefs DROP PRIMARY KEY, ADD PRIMARY KEY (param, client_id)");
  box.sql("ALTER TABLE hs_account CHANGE userID USERID INT UNSIGNED");
  EXPECT_EQ(findings(), texts{"index_missing extension_fax_center (extension_id, filesize)"});
  box.sql(document_["findings"][0]["statement"].GetString());
  EXPECT_EQ(findings(), texts{});
}

}  // namespace
