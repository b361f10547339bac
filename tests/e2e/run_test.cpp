// Whole runs on a real platform: which accounts a run is about, what it writes and what it prints.
#include <map>
#include <regex>

#include "tests/e2e/small_platform.h"
#include "tests/support/paths_sandbox.h"

namespace {

// Beside the small platform user 12345 (dan).
class Run : public SmallPlatform {
 protected:
  Run() : SmallPlatform({"administrator.md"}) { box.add_owner(12345, 2, "dan"); }

  // Runs a command line of the shell, where $spoolcap is the command.
  support::process_result shell(const std::string &line) {
    return support::run_process(
        {"sh", "-c", line}, {.environment = {{"spoolcap", SPOOLCAP_SANDBOX_BINARY},
                                             {support::paths_root_variable, box.root().string()}}});
  }
  std::string quota(const std::string &place_and_kind) const {
    return box.read_file(box.quota_path(place_and_kind)).value_or("missing");
  }
  // What a run logs at notice priority, with a word for its seconds.
  std::string noticed(const std::string &arguments) {
    const std::string log = box.path("log");
    std::filesystem::remove(log);
    shell(std::string("export ") + support::log_variable + "=" + log + "; $spoolcap " + arguments);
    const std::string notices = shell("grep '^5 ' " + log).out;
    return std::regex_replace(notices, std::regex("[0-9]+\\.[0-9] s\n"), "SECONDS\n");
  }
  // Runs at the same time, forced, and then all that is in the quota root.
  std::map<std::string, std::string> tree_after(const std::vector<std::string> &targets) const {
    std::vector<std::unique_ptr<support::background_process>> runs;
    runs.reserve(targets.size());
    for (const std::string &target : targets) {
      runs.push_back(box.start_spoolcap({"-A", "set", "-q", "-f", target}));
    }
    for (const auto &run : runs) EXPECT_EQ(run->wait(std::chrono::seconds(60)).value().status, 0);
    return tree();
  }
  std::map<std::string, std::string> tree() const {
    std::map<std::string, std::string> files;
    const std::filesystem::path root = box.path("var/lib/quorvexquota");
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root)) {
      const std::string name = std::filesystem::relative(entry.path(), box.root());
      if (entry.is_regular_file()) files[name] = box.read_file(name).value();
    }
    return files;
  }
};

TEST_F(Run, SetWritesTheWholeTree) {
  const support::process_result result = box.run_spoolcap({"--action", "set", "--all"});
  EXPECT_EQ(result.status, 0);
  const std::string first =
      "Quota for user ann (with id: 1)\t1051745 bytes\n"
      "\tFax         \t\t1048576 bytes\n"
      "\tSounds      \t\t100 bytes\n"
      "\tRecording   \t\t2036 bytes\n"
      "\tVoicemail   \t\t1023 bytes\n"
      "\tMusic on hold\t\t10 bytes\n"
      "\n"
      "Quota for user bob (with id: 2)\t";
  EXPECT_EQ(result.out.substr(0, first.size()), first);
  EXPECT_NE(result.out.find("Quota for user dan (with id: 12345)\t0 bytes\n"), std::string::npos);
  EXPECT_EQ(quota("1/fax"), "1048576.0");
  EXPECT_EQ(quota("1/2/12/sound"), "100.0");
  EXPECT_EQ(quota("1/2/12345/music"), "0.0");
}

TEST_F(Run, ShowScalesSizesForPeople) {
  box.write_file(box.quota_path("1/2/12/fax"), "1023.0");
  box.write_file(box.quota_path("1/2/12/sound"), "1536.4");
  box.write_file(box.quota_path("1/2/12/recording"), "no record");
  box.write_file(box.quota_path("1/2/12/music"), "1152921504606846976.0");
  const support::process_result result = box.run_spoolcap({"-A", "show", "-u", "12", "-h"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "Quota for user cid (with id: 12)\t\t1.00 ?B\n"
            "\tFax         \t\t1023.00 B\n"
            "\tSounds      \t\t1.50 KB\n"
            "\tRecording   \t\tNot found\n"
            "\tVoicemail   \t\tNot found\n"
            "\tMusic on hold\t\t1.00 ?B\n"
            "\n");
}

TEST_F(Run, ShowNamesTheAccountsThatCannotBeRead) {
  box.add_account(3, 0, 0, "root");
  const std::string all = box.run_spoolcap({"-A", "show", "-a"}).out;
  EXPECT_NE(all.find("Quota for user root (with id: 3)\tQuota Not found\n\n"), std::string::npos);
  // The cache says of 12 that it lies at no known level, and of 2 that it is not there.
  box.redis({"HSET", "res:inf:mng:12", "lvl", "20", "pid", "2"});
  box.redis({"HSET", "res:inf:mng:2", "lvl", "-5"});
  EXPECT_EQ(box.run_spoolcap({"-A", "show", "-u", "12"}).out,
            "Quota for user cid (with id: 12)\t\tQuota Not found\n\n");
}

TEST_F(Run, ALoginWritesNoControlCharactersToATerminal) {
  const std::string raw = "\x1b[2J\x7f\xc2\x9b\xc3\x9b\xc2\xa0\t";
  const std::string shown = "\\x1b[2J\\x7f\\xc2\\x9b\xc3\x9b\xc2\xa0\\x09";
  box.sql("UPDATE hs_account SET username = '" + raw + "' WHERE userID = 12");
  for (const std::string target : {"-a", "-u 12"}) {
    EXPECT_NE(shell("$spoolcap -A show " + target).out.find("user " + raw + " ("),
              std::string::npos);
    const std::string terminal = shell("script -qc \"$spoolcap -A show " + target + "\" -").out;
    EXPECT_NE(terminal.find("user " + shown + " ("), std::string::npos) << terminal;
  }
}

TEST_F(Run, OutputThatIsNotWrittenWholeIsReported) {
  const struct {
    const char *command, *reason;
  } rows[] = {
      {"$spoolcap -A show -a > /dev/full", "No space left on device"},
      {"$spoolcap -A show -u 12 >&-", "Bad file descriptor"},
      {"$spoolcap --help <&- >&-", "Bad file descriptor"},
      // Writes on until the reader has gone.
      {"{ (while echo 2> /dev/null; do :; done); $spoolcap -A show -a; } | true", "Broken pipe"}};
  for (const auto &row : rows) {
    const support::process_result result = shell(row.command);
    EXPECT_EQ(result.err,
              std::string("Standard output could not be written to its end: ") + row.reason + "\n");
    EXPECT_EQ(result.status, 0);
  }
  EXPECT_EQ(shell("$spoolcap -A set -a -q >&-").err, "") << "nothing was to be written";
  EXPECT_EQ(quota("1/2/12/fax"), "1048576.0");
}

TEST_F(Run, TargetsAreWhatTheListSelects) {
  const struct {
    const char *why;
    std::vector<std::string> line;
    int status = 0;
    std::vector<std::string> printed = {};  // logins, in order
    std::vector<std::string> written = {};  // quota directories
  } rows[] = {
      {.why = "an id named twice counts once",
       .line = {"-A", "set", "-u", "12,12"},
       .printed = {"cid"},
       .written = {"1/2/12"}},
      {.why = "show writes nothing",
       .line = {"-A", "show", "-u", "1,2"},
       .printed = {"ann", "bob"}},
      {.why = "logins are SQL literals",
       .line = {"-A", "set", "-l", "'bob','cid'"},
       .printed = {"bob", "cid"},
       .written = {"1/2", "1/2/12", "1/2/12345"}},
      {.why = "a percent sign in a login is only that",
       .line = {"-A", "show", "-l", "'%s%n'"},
       .status = 10},
      {.why = "logins without quotes fail in the server", .line = {"-A", "set", "-l", "bob"}},
      {.why = "unknown ids are no targets", .line = {"-A", "set", "-u", "99"}, .status = 10},
      {.why = "a long id is kept",
       .line = {"-A", "set", "-u", "12345"},
       .printed = {"dan"},
       .written = {"1/2/12345"}},
      {.why = "quiet prints nothing",
       .line = {"-A", "set", "-c", "-q", "-u", "12"},
       .written = {"1/2/12"}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.why);
    std::filesystem::remove_all(box.path("var/lib/quorvexquota"));
    const support::process_result result = box.run_spoolcap(row.line);
    EXPECT_EQ(result.status, row.status);
    std::vector<std::string> printed;
    for (const char *login : {"ann", "bob", "cid", "dan"}) {
      if (result.out.find("Quota for user " + std::string(login) + " ") != std::string::npos) {
        printed.emplace_back(login);
      }
    }
    EXPECT_EQ(printed, row.printed) << result.out;
    std::vector<std::string> written;
    for (const char *directory : {"1", "1/2", "1/2/12", "1/2/12345"}) {
      if (box.read_file("var/lib/quorvexquota/" + std::string(directory) + "/fax.quota")) {
        written.emplace_back(directory);
      }
    }
    EXPECT_EQ(written, row.written);
  }
}

TEST_F(Run, OnlyForceRewritesCleanFiles) {
  box.run_spoolcap({"-A", "set", "-a", "-q"});
  box.write_file(box.quota_path("1/2/12/fax"), "5.7");
  box.run_spoolcap({"-A", "set", "-a", "-q"});
  EXPECT_EQ(quota("1/2/12/fax"), "5.7");
  box.run_spoolcap({"-A", "set", "-a", "-q", "--force"});
  EXPECT_EQ(quota("1/2/12/fax"), "1048576.0");
}

TEST_F(Run, RunsSideBySideWriteWhatOneRunWrites) {
  for (const int reseller : {20, 30}) {
    box.add_reseller(reseller, "reseller" + std::to_string(reseller));
    box.add_client(reseller + 1, reseller, "client" + std::to_string(reseller));
    for (int id = 100 * reseller; id < 100 * reseller + 40; ++id) {
      box.add_owner(id, reseller + 1, "owner" + std::to_string(id));
      box.add_extension(id, id, std::to_string(id));
      box.add_fax(id, id);
      box.write_file(box.music_folder(std::to_string(id)) + "/song.mp3", id % 50);
    }
  }
  const auto one_run = tree_after({"--all"});
  EXPECT_EQ(one_run.size(), 88U * 5);
  EXPECT_EQ(quota("20/fax"), "80780.0");
  // Figures that no run may keep, below and at the top.
  for (const char *place : {"20/21/2003/fax", "20/fax", "30/31/music", "1/2/sound"}) {
    box.write_file(box.quota_path(place), "5.7");
  }
  tree_after({"--all", "--all"});
  // A run that met the other one may leave a mark, and the next run refreshes what is marked.
  box.run_spoolcap({"-A", "set", "-a", "-q"});
  EXPECT_EQ(tree(), one_run) << "they overlap";
  std::filesystem::remove_all(box.path("var/lib/quorvexquota"));
  EXPECT_EQ(tree_after({"--uid=1", "--uid=20", "--uid=30"}), one_run) << "one per reseller";
}

TEST_F(Run, EndsWithOneNotice) {
  const std::string most = "fax 1048576, sound 100, recording 2036, voicemail 1023, music ";
  const std::string bytes = most + "10 bytes; SECONDS\n";
  EXPECT_EQ(noticed("-A set -a -q"), "5 set: 4 accounts refreshed, 0 failed, 0 skipped; " + bytes);
  EXPECT_EQ(noticed("-A show -a"), "5 show: 0 accounts refreshed, 0 failed, 0 skipped; " + bytes);
  box.add_owner(13, 99, "eve");  // whose parent is in no table
  std::filesystem::rename(box.path("var/lib/quorvexquota/1/2/12345"), box.path("12345"));
  std::filesystem::create_symlink(box.path("12345"), box.path("var/lib/quorvexquota/1/2/12345"));
  std::filesystem::permissions(box.path("var/lib/quorvexquota/1/2"), std::filesystem::perms(0770));
  EXPECT_EQ(noticed("-A set -q -u 12,13,12345"),
            "5 set: 1 accounts refreshed, 1 failed, 1 skipped; " + most + "0 bytes; SECONDS\n");
  EXPECT_EQ(noticed("-A show -u 99"),
            "5 show: 0 accounts refreshed, 0 failed, 0 skipped; "
            "fax 0, sound 0, recording 0, voicemail 0, music 0 bytes; SECONDS\n");
}

TEST_F(Run, FailedRefreshesShowInTheStatus) {
  // The parent of 13 is in no table, so that the place of its files cannot be found.
  box.add_owner(13, 99, "eve");
  support::process_result result = box.run_spoolcap({"-A", "set", "-u", "13"});
  EXPECT_EQ(result.status, 5);
  EXPECT_EQ(result.out + result.err, "No quota file could be updated!\n");
  result = box.run_spoolcap({"-A", "set", "-u", "12,13"});
  EXPECT_EQ(result.status, 6);
  EXPECT_NE(result.out.find("Quota for user eve (with id: 13)\t\tQuota Not found\n\n"),
            std::string::npos);
  EXPECT_EQ(quota("1/2/12/fax"), "1048576.0");
}

}  // namespace
