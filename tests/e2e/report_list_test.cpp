// The list of accounts in all its formats, beside sums over the tables and the disk.
#include <cstring>

#include "tests/e2e/report_fixture.h"

namespace {

using rapidjson::Value;
using words = std::vector<std::string>;

// What a list in JSON says of an account.
const Value &account(const rapidjson::Document &document, int id) {
  for (const Value &one : document["accounts"].GetArray()) {
    if (one["id"].GetInt() == id) return one;
  }
  throw std::runtime_error("no account " + std::to_string(id));
}

// The bytes of the files below a folder of media, or of the rows of a table, of users.
std::int64_t bytes_below(const std::string &folder) {
  std::int64_t sum = 0;
  if (!std::filesystem::exists(folder)) return 0;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) sum += static_cast<std::int64_t>(entry.file_size());
  }
  return sum;
}

TEST_F(Report, FiguresAreTheSumsOverTablesAndDisk) {
  const rapidjson::Document document = json({"list", "--format", "json"});
  ASSERT_EQ(document["accounts"].Size(), 5U);
  const struct {
    int id;
    const char *users;  // the account's own, and those below it
    std::vector<std::string> media;
  } rows[] = {{1, "12,13", {"0001", "2", "12", "13"}},
              {2, "12,13", {"2", "12", "13"}},
              {3, "0", {"0003"}},
              {12, "12", {"12"}},
              {13, "13", {"13"}}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.id);
    const Value &used = account(document, row.id)["used"];
    std::int64_t sound = 0;
    std::int64_t music = 0;
    for (const std::string &id : row.media) {
      sound += bytes_below(box.path(box.sound_folder(id)));
      music += bytes_below(box.path(box.music_folder(id)));
    }
    EXPECT_EQ(used["sound"].GetInt64(), sound);
    EXPECT_EQ(used["music"].GetInt64(), music);
    std::int64_t total = sound + music;
    for (const auto &[kind, table] :
         {std::pair("fax", "fax_center"), {"recording", "recording"}, {"voicemail", "voicemail"}}) {
      const auto sum =
          box.sql_value(std::string("SELECT COALESCE(SUM(filesize), 0) FROM extension_") + table +
                        " f JOIN extension e ON e.id = f.extension_id WHERE "
                        "e.client_id IN (" +
                        row.users + ")");
      EXPECT_EQ(used[kind].GetInt64(), std::stoll(sum.value())) << kind;
      total += used[kind].GetInt64();
    }
    EXPECT_EQ(account(document, row.id)["total"].GetInt64(), total);
  }
}

TEST_F(Report, StatesLimitsAndAgesAreShown) {
  box.set_preference(12, "fax_storage", "2048");  // KiB
  box.set_preference(12, "max_record", "1");
  box.set_preference(12, "max_sound", "-1");
  box.set_preference(12, "max_voice", "8388608");
  box.set_preference(12, "max_moh", "2");
  write_quota("1/sound", "100.3");
  write_quota("1/fax", "1048576.4");
  write_quota("1/2/12/sound", "100.3");
  write_quota("1/2/12/music", "12 apes.0");
  write_quota("1/2/12/voicemail", "6442450944.0");
  write_quota("1/2/13/sound", "5.0..");  // a writer was killed
  box.write_file(box.quota_path("1/2/12/fax") + ".dirty", "");
  std::filesystem::remove(box.quota_path("1/2/13/fax"));
  std::filesystem::last_write_time(
      box.quota_path("1/2/12/voicemail"),
      std::filesystem::file_time_type::clock::now() - std::chrono::hours(2));
  box.write_file("var/lib/quorvexquota/3/quota.redo", "");
  const rapidjson::Document document = json({"--format", "json"});
  EXPECT_TRUE(follows(document, "report.schema.json"));

  const Value &cid = account(document, 12);
  EXPECT_EQ(cid["parent"].GetInt(), 2);
  EXPECT_EQ(cid["level"].GetInt(), 100);
  EXPECT_EQ(cid["limit"]["fax"].GetInt64(), 2097152);
  EXPECT_TRUE(cid["limit"]["sound"].IsNull());
  EXPECT_TRUE(cid["used"]["music"].IsNull());
  EXPECT_EQ(cid["limit"]["voicemail"].GetInt64(), 8589934592);
  EXPECT_EQ(cid["total"].GetInt64(), 1048576 + 100 + 2036 + 6442450944);
  EXPECT_EQ(cid["percent"].GetDouble(), 198.8);  // 2036 of 1024 bytes; the faxes are at 50
  EXPECT_STREQ(cid["state"].GetString(), "unreadable");
  EXPECT_STREQ(cid["states"]["fax"].GetString(), "dirty");
  EXPECT_STREQ(cid["states"]["sound"].GetString(), "updated");
  EXPECT_STREQ(cid["states"]["voicemail"].GetString(), "measured");
  EXPECT_EQ(cid["updates"]["sound"].GetInt(), 3);
  EXPECT_NEAR(cid["age"].GetInt(), 7200, 60);
  EXPECT_STREQ(account(document, 13)["state"].GetString(), "missing");
  EXPECT_STREQ(account(document, 13)["states"]["sound"].GetString(), "redo");
  EXPECT_STREQ(account(document, 3)["state"].GetString(), "redo");
  EXPECT_STREQ(account(document, 3)["name"].GetString(), "faÿ");
  EXPECT_TRUE(account(document, 1)["parent"].IsNull());
  EXPECT_TRUE(account(document, 1)["percent"].IsNull());

  EXPECT_EQ(report({"--over", "100", "--human"}),
            "login  id  level      fax  sound  recording  voicemail  music    total    limit  of"
            "         percent  age  state\n"
            "cid    12  user   1.00 MB  100 B    1.99 KB    6.00 GB      -  6.00 GB  1.00 KB  "
            "recording   198.8%  2 h  unreadable\n");
  EXPECT_NE(report({"--level", "reseller"}).find("updated (7)\n"), std::string::npos);
  EXPECT_NE(report({"--kind", "music"}).find("  2048  music        -  "), std::string::npos);
}

TEST_F(Report, HostileLoginsStayTheTextOfOneCell) {
  box.sql(
      "ALTER TABLE hs_account MODIFY username VARBINARY(191); ALTER TABLE client MODIFY name "
      "VARBINARY(255); SET NAMES binary");
  const char *logins[] = {"=1+1",
                          "-@SUM(A1)",
                          "'quoted",
                          "a,b;\"c\"\td",
                          "two\r\nlines\\n",
                          "\n=1+1",
                          "\xef\xbc\2351+1",
                          "</script>",
                          "\xe2\x80\xaegnp.exe",
                          "line\xe2\x80\xa8separator",
                          "bad\xff\xc3(\xed\xa0\x80"};
  int id = 100;
  for (const char *login : logins) box.add_owner(id++, 2, login);
  box.add_owner(id, 2, std::string_view("a\0b", 3));
  stop_ages();
  for (const std::string format : {"json", "jsonl", "csv", "tsv"}) {
    report({"-f", format, "--output", box.path("list." + format)});
  }
  const support::process_result compared =
      support::run_process({SPOOLCAP_SOURCE "/tests/e2e/compare-formats", box.root().string()});
  EXPECT_EQ(compared.out, "17\n") << compared.err;
  rapidjson::Document document;
  document.Parse(box.read_file("list.json").value().c_str());
  EXPECT_STREQ(account(document, 103)["name"].GetString(), logins[3]);
  EXPECT_STREQ(account(document, 110)["name"].GetString(),
               "bad\xef\xbf\xbd\xef\xbf\xbd(\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd");
  const std::string table = report({"list", "--sort", "login"});
  EXPECT_NE(table.find("\\xe2\\x80\\xaegnp.exe "), table.npos);
  EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 18) << "one line an account";
}

TEST_F(Report, OptionsChooseAndSort) {
  box.set_preference(2, "max_voice", "1");
  box.set_preference(12, "fax_storage", "1024");
  box.set_preference(1, "fax_storage", "1024");
  write_quota("1/fax", "1048577.0");  // shown as 100.0 percent
  box.add_account(4, std::nullopt, 50, "lost");
  const struct {
    words options;
    const char *ids;
  } rows[] = {{{}, "1 2 3 4 12 13 "},
              {{"--sort", "login"}, "1 2 12 13 3 4 "},
              {{"--top", "2", "--level", "user,10"}, "1 12 "},
              {{"--sort", "percent", "--over", "99"}, "1 12 2 "},
              {{"--over", "100"}, "1 "},
              {{"--kind", "voicemail", "--over", "99.8"}, "2 "},
              {{"--under", "2", "--sort", "used"}, "2 12 13 "},
              {{"--tree", "--sort", "used"}, "1 2 12 13 3 4 "},
              {{"--level", "client", "--tree"}, "2 4 "}};
  for (const auto &row : rows) {
    words line = {"list", "--format", "tsv"};
    line.insert(line.end(), row.options.begin(), row.options.end());
    std::istringstream lines(report(line));
    std::string ids;
    for (std::string text; std::getline(lines, text);) ids += text.substr(0, text.find('\t')) + " ";
    EXPECT_EQ(ids, std::string("id ") + row.ids) << testing::PrintToString(row.options);
  }
  EXPECT_NE(report({"--tree"}).find("\n  bob"), std::string::npos);
}

TEST_F(Report, BadInputIsOneLineAndStatusTwo) {
  const words rows[] = {{"lists"},
                        {"list", "more"},
                        {"--sort", "two\nlines\x1b[2J\u202e"},
                        {"--top", "0"},
                        {"--over", "nan"},
                        {"--level", "10,"},
                        {"--kind", "faxes"},
                        {"--under", "99"},
                        {"--format", "json", "--human"},
                        {"--nonsense"},
                        {"--top", "1", "--tree"},
                        {"--over", "-1"},
                        {"metrics", "--top", "-1"},
                        {"metrics", "--top", "1", "--all"},
                        {"check", "--storage", box.path("no/folder")},
                        {"page", ""},
                        {"check", "--format", "csv"},
                        {"-o", box.path("no/folder")}};
  for (const words &row : rows) {
    const support::process_result result = box.run_report(row);
    EXPECT_EQ(result.status, 2) << testing::PrintToString(row);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.find("spoolcap-report: "), 0U);
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
    EXPECT_EQ(result.err.find("\u202e"), result.err.npos);
  }
}

// A text with one space between words, without what a manual page is marked up with.
std::string plain(const std::string &text) {
  std::string found;
  for (const char byte : text) {
    if (std::strchr("*_`", byte) != nullptr) continue;
    const bool is_space = byte == ' ' || byte == '\n' || byte == '\t';
    if (!is_space) found += byte;
    if (is_space && !found.empty() && found.back() != ' ') found += ' ';
  }
  return found;
}

TEST_F(Report, HelpOfACommandIsItsPartOfTheManualPage) {
  const auto file = [](const std::string &path) {
    return support::run_process({"cat", std::string(SPOOLCAP_SOURCE "/") + path}).out;
  };
  const std::string manual = file("docs/man/spoolcap-report.8.scd");
  const std::string completions[] = {file("debian/spoolcap-report.bash-completion"),
                                     file("debian/zsh/_spoolcap-report")};
  for (const std::string call :
       {"list", "metrics", "page FILE", "check", "snapshot FILE", "diff OLD... [NEW]"}) {
    const std::string head = "\n## " + call + "\n";
    const size_t begin = manual.find(head);
    ASSERT_NE(begin, manual.npos) << call;
    const std::string part = manual.substr(begin + head.size());
    const std::string command = call.substr(0, call.find(' '));
    std::string help = plain(report({command, "--help"}));
    for (const std::string &label :
         {"Usage: spoolcap-report " + command + " [options]" + call.substr(command.size()) + " ",
          std::string("Options: "), std::string("Help: ")}) {
      if (const size_t at = help.find(label); at != help.npos) help.erase(at, label.size());
    }
    EXPECT_EQ(plain(part.substr(0, part.find("\n#"))), help);
    for (size_t at = 0; (at = help.find("--", at)) != help.npos; ++at) {
      const std::string option = help.substr(at, help.find_first_of(" =", at) - at);
      for (const std::string &known : completions) {
        EXPECT_NE(known.find(option), known.npos) << option;
      }
    }
  }
  EXPECT_NE(report({"--help"}).find("Status: 0 done;"), std::string::npos);
}

}  // namespace
