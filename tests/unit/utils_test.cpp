// Commands for a running Asterisk, the bounded input and output that they stand on, and checks of
// files and names.
#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <thread>

#include <spoolcap/utils.h>
#include "platform/base/nb_io.h"
#include "tests/support/sandbox.h"

using std::string, support::seconds_of, std::this_thread::sleep_for;
using namespace std::literals;

TEST(Console, ACommandIsSentAfterTheGreetingAndItsOutputComesAsItIsWithinLimits) {
  const support::sandbox box({.use_database = false, .use_cache = false});
  sockaddr_un address{AF_UNIX, ""};
  box.path("console").copy(address.sun_path, sizeof address.sun_path - 1);
  const unique_fd listening(socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(0, bind(listening.get(), reinterpret_cast<sockaddr *>(&address), sizeof address));
  ASSERT_EQ(0, listen(listening.get(), 0));
  // A greeting takes 80 bytes; later output comes after longer than finished output may pause; a
  // failure is a hang-up.
  const struct {
    string at_once, later;
    int wait, result;
  } rows[] = {{"100%s%n ", "in parts\n\0"s, 1, 0},
              {"half a ", "li", 1, -1},
              {"", "", 1, 0},
              {"line\n", "", 0, 0}};
  for (const auto &row : rows) {
    std::thread console([&] {
      const unique_fd client(accept(listening.get(), nullptr, nullptr));
      const string start = string(80, '.') + row.at_once;
      char got[10] = {};
      fr_write_nb_full(client.get(), start.data(), start.size(), 1);
      recv(client.get(), got, 10, MSG_WAITALL);
      EXPECT_EQ("core show\0"s, string(got, 10));
      sleep_for(150ms);
      fr_write_nb_full(client.get(), row.later.data(), row.later.size(), 1);
      EXPECT_TRUE(row.result != 0 || recv(client.get(), got, 1, 0) < 1);
    });
    unique_fd fd(ast_connect(address.sun_path));
    testing::internal::CaptureStdout();
    EXPECT_EQ(row.result, ast_runcmd(fd.get(), "core show", row.wait));
    EXPECT_EQ(row.wait == 0 ? "" : row.at_once + row.later, testing::internal::GetCapturedStdout());
    fd.reset();
    console.join();
  }
  EXPECT_GT(0, ast_connect(box.path("absent").c_str()));
  const unique_fd left(ast_connect(address.sun_path));  // by a console that only greets
  write_safe(unique_fd(accept(listening.get(), nullptr, nullptr)).get(), "greeting", 8);
  EXPECT_EQ(-1, ast_runcmd(left.get(), "core show", 0));  // and no signal ends the test

  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  const unique_fd writing(ends[1]);
  char last = 0;
  EXPECT_EQ(0, fr_write_nb_full(writing.get(), "\n", 1, 1) + ast_el_read_char(ends[0], &last));
  EXPECT_EQ(4, last);
  std::thread slow_reader([reading = unique_fd(ends[0])] {
    char part[512];
    for (int i = 0; i < 100 && read(reading.get(), part, sizeof part) > 0; ++i) sleep_for(20ms);
  });
  const auto ends_early = [](const auto &wait) {
    EXPECT_NEAR(0.8, seconds_of([&] { EXPECT_EQ(ETIMEDOUT, wait() == -1 ? errno : 0); }), 0.6);
  };
  ends_early([&] {
    return fr_write_nb_full(writing.get(), string(5'000'000, 'x').data(), 5'000'000, 0.3F);
  });
  const unique_fd first(ast_connect(address.sun_path));  // fills the queue
  ends_early([&] { return fr_connect_nb_unix(address.sun_path, 0.3F); });
  EXPECT_EQ(0, fcntl(writing.get(), F_GETFL) & O_NONBLOCK);
  slow_reader.join();
  EXPECT_EQ(-1, fr_write_nb_full(writing.get(), "x", 1, 1));  // and no signal ends the test
}

TEST(Console, ARemoteAsteriskGetsItsArgumentsAndLeavesNoZombie) {
  support::sandbox box({.use_database = false, .use_cache = false});
  const string binary = box.path("asterisk");
  box.write_file("asterisk", R"(#!/bin/sh
[ "$2" = hang ] && exec sleep 9
{ while read -r name set; do case $name in Sig[BI]*) printf '%s ' ${set#?????????};; esac; done
  printf '%s|' "$@"; echo $(ls /proc/self/fd); } < /proc/$$/status > $0.argv; seq 99999)");
  chmod(binary.c_str(), 0700);
  const unique_fd not_for_it(open("/dev/null", O_RDONLY));
  signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigfillset(&blocked);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  EXPECT_EQ(0, rasterisk(binary.c_str(), "'a b'; $HOME"));
  // Which of the first 28 signals it blocks and ignores, its arguments, and its descriptors and the
  // one that ls has.
  EXPECT_EQ("0000000 0000000 -rx|'a b'; $HOME|0 1 2 3\n", box.read_file("asterisk.argv"));
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));  // no child is left, alive or dead

  EXPECT_LT(seconds_of([&] { EXPECT_EQ(0, rasterisk(binary.c_str(), "hang")); }), 8.9);
  siginfo_t end{};
  ASSERT_EQ(0, waitid(P_ALL, 0, &end, WEXITED | WNOWAIT));
  EXPECT_EQ(CLD_EXITED, end.si_code) << "it was left to its end";
  EXPECT_EQ(-1, rasterisk(box.path("absent").c_str(), "x"));
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "and the next call reaped it";
}

string shown(safestr_t text) {
  const safestr_owner owned(text);
  return owned ? string(owned.get(), safestr_length(owned.get())) : "none";
}

TEST(Files, NumbersArePaddedAndNamesAndFoldersCheckedAndBothSafeCallsWrite) {
  EXPECT_EQ("007 1234 none none", shown(pad(7, 3)) + " " + shown(pad(1234, 3)) + " " +
                                      shown(pad(-1, 3)) + " " + shown(pad(7, 0)));
  const char *const allowed[] = {"gsm", "wav", nullptr};
  const struct {
    const char *name, *extension;
    int exact, any_case, length, alphanumeric;
  } rows[] = {
      {"a.tar.gz", "gz", 0, 0, 0, 0},  {"name.", "none", 0, 0, 5, 0},  {"A.WAV", "WAV", 0, 1, 5, 0},
      {"ab_1.wav", "wav", 1, 1, 0, 0}, {"a.wavx", "wavx", 0, 0, 0, 0}, {"ab_1", "none", 0, 0, 4, 1},
      {"ab_1", "none", 0, 0, 5, 0},    {"a-b", "none", 0, 0, 3, 0},    {"", "none", 0, 0, -1, 1},
      {"ab_1", "none", 0, 0, 0, 1},
  };
  for (const auto &row : rows) {
    const safestr_owner name(safestr_dup(row.name));
    EXPECT_EQ(row.extension, shown(get_extension(name.get())));
    EXPECT_EQ(row.exact, validate_file_ext(name.get(), allowed, 1)) << row.name;
    EXPECT_EQ(row.any_case, validate_file_ext(name.get(), allowed, 0)) << row.name;
    EXPECT_EQ(row.alphanumeric, validate_alnum(name.get(), row.length)) << row.name;
  }

  support::sandbox box({.use_database = false, .use_cache = false});
  for (const char *name : {"a", "ab", "c"}) box.make_folder(name);
  std::filesystem::create_symlink(box.path("a"), box.path("c/link"));
  int inside = 0;
  for (const char *path : {"a/none", "c", "c/link", "ab", "a"}) {
    inside = 2 * inside + check_subdir_of(box.path(path).c_str(), box.path("a").c_str());
  }
  EXPECT_EQ(0b00111, inside);
  const c_file file(std::fopen(box.path("f").c_str(), "w"));
  EXPECT_EQ(5, write_safe(fileno(file.get()), "one", 3) + read_safe(fileno(file.get()), "two", 2));
  EXPECT_EQ("onetw", box.read_file("f"));
}

TEST(Files, TheVersionAndCopiedEntriesAreTheCallersAndAreFreedWhole) {
  EXPECT_TRUE(string(c_string(get_version_string()).get()).starts_with("spoolcap "));
  const auto text = [] { return strdup("text"); };
  auto *const user = static_cast<passwd *>(calloc(1, sizeof(passwd)));
  *user = {text(), text(), 0, 0, text(), text(), text()};
  free_pw_nam(user);
  auto *const some = static_cast<group *>(calloc(1, sizeof(group)));
  *some = {text(), text(), 0, static_cast<char **>(calloc(2, sizeof(char *)))};
  some->gr_mem[0] = text();
  free_gr_nam(some);
}
