// Where a report goes: to standard output, to a file that it replaces, or to what is no file.
#include <sys/stat.h>
#include <unistd.h>

#include "tests/e2e/report_fixture.h"

namespace {

TEST_F(Report, OutputThatCannotBeWrittenIsReported) {
  const support::process_result closed =
      support::run_process({"sh", "-c", SPOOLCAP_REPORT_BINARY " >&-"},
                           {.environment = {{"SPOOLCAP_SANDBOX", box.root().string()}}});
  EXPECT_EQ(closed.status, 2);
  EXPECT_EQ(closed.err,
            "spoolcap-report: Standard output could not be written: Bad file descriptor\n");
  stop_ages();
  box.write_file("list", "old");
  constexpr auto mode = std::filesystem::perms::owner_all;
  std::filesystem::permissions(box.path("list"), mode);
  std::filesystem::create_symlink(box.path("list"), box.path("link"));
  report({"-o", box.path("link")});
  EXPECT_TRUE(std::filesystem::is_symlink(box.path("link")));
  EXPECT_EQ(box.read_file("list"), report({"-o", "/dev/stdout"}));
  EXPECT_EQ(std::filesystem::status(box.path("list")).permissions(), mode);
  box.make_folder("emptied");
  box.sql("LOCK TABLES extension_fax_center WRITE");
  constexpr char script[] =
      "$0 check -o $1/report & while kill -0 $! && [ -z \"$(ls -A $1)\" ]; do sleep 0.1; done;"
      "kill $!; wait $!; echo $?; ls -A $1";
  const support::process_result ended =
      support::run_process({"sh", "-c", script, SPOOLCAP_REPORT_BINARY, box.path("emptied")},
                           {.environment = {{"SPOOLCAP_SANDBOX", box.root().string()}}});
  EXPECT_EQ(ended.out, "143\n") << "by the signal, with nothing left behind";
  std::ofstream(box.path("etc/quorvex/sqldbase.conf")) << "DB_MASTER main:/nowhere:1\n";
  const support::process_result unreachable = box.run_report({"-o", box.path("list")});
  EXPECT_EQ(unreachable.status, 2);
  EXPECT_EQ(unreachable.err, "spoolcap-report: The database cannot be reached\n");
  EXPECT_NE(box.read_file("list"), "") << "stays as it was";
}

TEST_F(Report, OnlyARegularFileIsReplaced) {
  report({"snapshot", box.path("snapshot")});
  const std::string fifo = box.path("fifo");
  const std::string link = box.path("link");
  const std::string output = box.path("output");
  const std::string trap = box.path("shared/trap");
  box.write_file("shared/trap", "");
  // As anybody may leave one in /tmp.
  ASSERT_EQ(::chmod(box.path("shared").c_str(), 01777), 0);
  if (::chown(trap.c_str(), 1, 1) == 0) {
    EXPECT_NE(box.run_report({"-o", trap}).err.find("Permission denied\n"), trap.npos);
  }
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::vector<std::string> rows[] = {{"list", "-o"},  {"metrics", "-o"},
                                           {"check", "-o"}, {"diff", box.path("snapshot"), "-o"},
                                           {"page"},        {"snapshot"}};
  for (std::vector<std::string> row : rows) {
    SCOPED_TRACE(row[0]);
    row.emplace_back("/dev/full");
    EXPECT_EQ(box.run_report(row).err,
              "spoolcap-report: /dev/full could not be written: No space left on device\n");
    row.back() = box.root().string();
    EXPECT_NE(box.run_report(row).err.find(" could not be written: Is a directory\n"), row[0].npos);
    std::string call = SPOOLCAP_REPORT_BINARY;
    for (size_t i = 0; i + 1 < row.size(); ++i) call += " " + row[i];
    // To a fifo, through a link to nothing, to a descriptor whose file has no name any more, and to
    // the end of a file that is open.
    constexpr char script[] =
        "cat $1 > $2 & $0 $1 && wait && ln -sf $4 $3 && $0 $3 && "
        "ln -sf /proc/self/fd/1 $3 && exec > $5 && rm $5 && $0 $3 && "
        "echo first > $5 && exec 3>> $5 && $0 /dev/fd/3";
    const support::process_result result = support::run_process(
        {"sh", "-c", script, call, fifo, output, link, box.path("new-" + row[0]), box.path("gone")},
        {.environment = {{"SPOOLCAP_SANDBOX", box.root().string()}}});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(std::filesystem::is_fifo(fifo));
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_NE(box.read_file("output").value_or(""), "");
    EXPECT_NE(box.read_file("new-" + row[0]).value_or(""), "");
    EXPECT_TRUE(box.read_file("gone").value().starts_with("first\n"));
  }
}

}  // namespace
