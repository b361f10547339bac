// Commands for a running Asterisk, the bounded input and output that they stand on, and checks of
// files and names.
#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <thread>

#include <spoolcap/utils.h>
#include "platform/base/nb_io.h"
#include "tests/support/sandbox.h"
#include "tests/support/scripted_peer.h"

namespace {

using std::string, support::seconds_of, std::this_thread::sleep_for;
using namespace std::literals;

class Console : public testing::Test {
 protected:
  unique_fd accepted() const { return unique_fd(accept(listening.get(), nullptr, nullptr)); }

  support::sandbox box{{.use_database = false, .use_cache = false}};
  const string path = box.path("console");
  const unique_fd listening = support::listening_at(path, 0);
};

// Expects a failure for want of time, after 0.3 seconds and not without end.
void expect_time_is_up(const auto &call) {
  const double spent = seconds_of([&] {
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
  });
  EXPECT_GE(spent, 0.2);
  EXPECT_LT(spent, 20);
}

TEST_F(Console, ACommandIsSentAfterTheGreetingAndItsOutputIsCopied) {
  // Later output comes after longer than finished output may pause; a failure is a hang-up.
  const struct {
    string at_once, later;
    int wait, result;
  } rows[] = {{.at_once = "100%s%n ", .later = "in parts\n\0"s, .wait = 1, .result = 0},
              {.at_once = "half a ", .later = "li", .wait = 1, .result = -1},
              {.at_once = "", .later = "", .wait = 1, .result = 0},
              {.at_once = "line\n", .later = "", .wait = 0, .result = 0}};
  for (const auto &row : rows) {
    std::thread console([&] {
      const unique_fd client = accepted();
      const string start = string(80, '.') + row.at_once;  // a greeting takes 80 bytes
      char got[10] = {};
      fr_write_nb_full(client.get(), start.data(), start.size(), 1);
      recv(client.get(), got, 10, MSG_WAITALL);
      EXPECT_EQ(string(got, 10), "core show\0"s);
      sleep_for(150ms);
      fr_write_nb_full(client.get(), row.later.data(), row.later.size(), 1);
      EXPECT_TRUE(row.result != 0 || recv(client.get(), got, 1, 0) < 1);
    });
    unique_fd fd(ast_connect(path.c_str()));
    testing::internal::CaptureStdout();
    EXPECT_EQ(ast_runcmd(fd.get(), "core show", row.wait), row.result);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), row.wait == 0 ? "" : row.at_once + row.later);
    fd.reset();
    console.join();
  }
}

TEST_F(Console, OneThatIsNotThereOrLeavesIsAFailureWithoutASignal) {
  EXPECT_LT(ast_connect(box.path("absent").c_str()), 0);
  const unique_fd left(ast_connect(path.c_str()));
  write_safe(accepted().get(), "greeting", 8);
  EXPECT_EQ(ast_runcmd(left.get(), "core show", 0), -1);
}

TEST_F(Console, ConnectingEndsWithItsTime) {
  const unique_fd fills_the_queue(ast_connect(path.c_str()));
  expect_time_is_up([&] { return fr_connect_nb_unix(path.c_str(), 0.3F); });
}

TEST(BoundedOutput, NoReaderOrASlowOneHoldsAWriterNoLongerThanItsTime) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const unique_fd writing(ends[1]);
  const string much(5'000'000, 'x');
  const auto write_much = [&] {
    return fr_write_nb_full(writing.get(), much.data(), much.size(), 0.3F);
  };
  expect_time_is_up(write_much);  // no reader yet
  std::thread slow_reader([reading = unique_fd(ends[0])] {
    char part[512];
    for (int i = 0; i < 100 && read(reading.get(), part, sizeof part) > 0; ++i) sleep_for(20ms);
  });
  expect_time_is_up(write_much);
  EXPECT_EQ(fcntl(writing.get(), F_GETFL) & O_NONBLOCK, 0);
  slow_reader.join();
  EXPECT_EQ(fr_write_nb_full(writing.get(), "x", 1, 1), -1) << "and no signal ends the test";
}

TEST(BoundedOutput, AChunkThatEndsALineIsCopiedUpToItsEnd) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const unique_fd reading(ends[0]), writing(ends[1]);
  char last = 0;
  ASSERT_EQ(fr_write_nb_full(writing.get(), "\n", 1, 1), 0);
  EXPECT_EQ(ast_el_read_char(reading.get(), &last), 0);
  EXPECT_EQ(last, 4);
}

TEST(RemoteAsterisk, GetsItsArgumentsAndNothingOfItsCallersState) {
  support::sandbox box({.use_database = false, .use_cache = false});
  const string binary = box.path("asterisk");
  box.write_file("asterisk", R"(#!/bin/sh
{ while read -r name set; do case $name in Sig[BI]*) printf '%s ' ${set#?????????};; esac; done
  printf '%s|' "$@"; echo $(ls /proc/self/fd); } < /proc/$$/status > $0.argv; seq 99999)");
  chmod(binary.c_str(), 0700);
  const unique_fd not_for_it(open("/dev/null", O_RDONLY));
  signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigfillset(&blocked);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  EXPECT_EQ(rasterisk(binary.c_str(), "'a b'; $HOME"), 0);
  // Which of the first 28 signals it blocks and ignores, its arguments, and its descriptors and the
  // one that ls has.
  EXPECT_EQ(box.read_file("asterisk.argv"), "0000000 0000000 -rx|'a b'; $HOME|0 1 2 3\n");
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left, alive or dead";
}

TEST(RemoteAsterisk, OneThatHangsIsLeftToItsEndAndReapedByTheNextCall) {
  support::sandbox box({.use_database = false, .use_cache = false});
  box.write_file("asterisk", "#!/bin/sh\nexec sleep 9\n");
  chmod(box.path("asterisk").c_str(), 0700);
  EXPECT_LT(seconds_of([&] { EXPECT_EQ(rasterisk(box.path("asterisk").c_str(), "hang"), 0); }),
            8.9);
  siginfo_t end{};
  ASSERT_EQ(waitid(P_ALL, 0, &end, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(end.si_code, CLD_EXITED) << "it was not left to its end";
  EXPECT_EQ(rasterisk(box.path("absent").c_str(), "x"), -1);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "the next call did not reap it";
}

string shown(safestr_t text) {
  const safestr_owner owned(text);
  return owned ? string(owned.get(), safestr_length(owned.get())) : "none";
}

TEST(Names, NumbersArePaddedToAWidth) {
  EXPECT_EQ(shown(pad(7, 3)), "007");
  EXPECT_EQ(shown(pad(1234, 3)), "1234");
  EXPECT_EQ(shown(pad(-1, 3)), "none");
  EXPECT_EQ(shown(pad(7, 0)), "none");
}

TEST(Names, ExtensionsAreWhatFollowsTheLastDot) {
  const char *const allowed[] = {"gsm", "wav", nullptr};
  const struct {
    const char *name, *extension;
    int exact, any_case;
  } rows[] = {{"a.tar.gz", "gz", 0, 0}, {"A.WAV", "WAV", 0, 1},   {"ab_1.wav", "wav", 1, 1},
              {"name.", "none", 0, 0},  {"a.wavx", "wavx", 0, 0}, {"ab_1", "none", 0, 0}};
  for (const auto &row : rows) {
    const safestr_owner name(safestr_dup(row.name));
    EXPECT_EQ(shown(get_extension(name.get())), row.extension);
    EXPECT_EQ(validate_file_ext(name.get(), allowed, 1), row.exact) << row.name;
    EXPECT_EQ(validate_file_ext(name.get(), allowed, 0), row.any_case) << row.name;
  }
}

TEST(Names, AlphanumericOnesHaveUnderscoresAndTheGivenLength) {
  const struct {
    const char *name;
    int length, expected;
  } rows[] = {{"ab_1", 4, 1}, {"ab_1", 0, 1}, {"ab_1", 5, 0},
              {"a-b", 3, 0},  {"a.b", 0, 0},  {"", -1, 1}};
  for (const auto &row : rows) {
    const safestr_owner name(safestr_dup(row.name));
    EXPECT_EQ(validate_alnum(name.get(), row.length), row.expected) << row.name << row.length;
  }
}

TEST(Files, AFolderIsInsideAnotherByTheTextOfItsRealPath) {
  support::sandbox box({.use_database = false, .use_cache = false});
  for (const char *name : {"a", "ab", "c"}) box.make_folder(name);
  std::filesystem::create_symlink(box.path("a"), box.path("c/link"));
  for (const auto &[path, expected] :
       {std::pair("a/none", 0), {"c", 0}, {"c/link", 1}, {"ab", 1}, {"a", 1}}) {
    EXPECT_EQ(check_subdir_of(box.path(path).c_str(), box.path("a").c_str()), expected) << path;
  }
}

TEST(Files, BothSafeCallsWrite) {
  support::sandbox box({.use_database = false, .use_cache = false});
  const c_file file(std::fopen(box.path("f").c_str(), "w"));
  EXPECT_EQ(write_safe(fileno(file.get()), "one", 3), 3);
  EXPECT_EQ(read_safe(fileno(file.get()), "two", 2), 2);
  EXPECT_EQ(box.read_file("f"), "onetw");
}

TEST(Files, CopiedEntriesAreFreedWhole) {
  const auto text = [] { return strdup("text"); };
  auto *const user = static_cast<passwd *>(calloc(1, sizeof(passwd)));
  *user = {text(), text(), 0, 0, text(), text(), text()};
  free_pw_nam(user);
  auto *const some = static_cast<group *>(calloc(1, sizeof(group)));
  *some = {text(), text(), 0, static_cast<char **>(calloc(2, sizeof(char *)))};
  some->gr_mem[0] = text();
  free_gr_nam(some);
}

TEST(Files, TheVersionBeginsWithTheName) {
  EXPECT_TRUE(string(c_string(get_version_string()).get()).starts_with("spoolcap "));
}

}  // namespace
