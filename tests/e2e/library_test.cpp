// The library as it is installed: what it exports, how it is found, and the example that uses it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/paths_sandbox.h"
#include "support/sandbox.h"

namespace {

class library : public testing::Test {
 protected:
  library() {
    const std::string prefix = box.path("usr");
    in_shell.environment = {
        {"PREFIX", prefix},
        {"PKG_CONFIG_PATH", prefix + "/" SPOOLCAP_LIBDIR "/pkgconfig"},
        {"LD_LIBRARY_PATH", prefix + "/" SPOOLCAP_LIBDIR},
        {"FLAGS", "-Wall -Wextra -Werror " SPOOLCAP_C_FLAGS},  // of the build: its sanitizer
        {"SOURCE", SPOOLCAP_SOURCE},
        {"BUILD", SPOOLCAP_BUILD}};
    shell("cmake --install $BUILD --prefix $PREFIX");
  }

  // Runs a command in the sandbox's folder; a failure is the test's.
  void shell(const std::string &command) {
    const support::process_result result =
        support::run_process({"sh", "-c", "cd " + box.path("") + " && " + command}, in_shell);
    EXPECT_EQ(result.status, 0) << command << "\n" << result.out << result.err;
  }

  support::sandbox box;
  support::process_options in_shell;
};

TEST_F(library, its_headers_stand_alone_and_declare_all_that_it_exports) {
  shell(R"(find $PREFIX/include -name '*.h' | grep -q /spoolcap/quota.h &&
      for header in $(cd $PREFIX/include && find * -name '*.h'); do
        for language in 'c -std=c11' 'c++ -std=c++20'; do
          echo "#include <$header>" |
            gcc $FLAGS -Wpedantic -fsyntax-only -I$PREFIX/include -x $language - || exit
        done
      done)");
  shell("$SOURCE/packaging/check-exports $PREFIX/" SPOOLCAP_LIBDIR
        "/libspoolcap.so $PREFIX/include/spoolcap");
}

TEST_F(library, cmake_finds_it) {
  box.write_file("CMakeLists.txt",
                 "cmake_minimum_required(VERSION 3.25)\n"
                 "project(component LANGUAGES C)\n"
                 "find_package(spoolcap 0.1 REQUIRED)\n"
                 "add_executable(store $ENV{SOURCE}/examples/store.c)\n"
                 "target_link_libraries(store PRIVATE spoolcap::spoolcap)\n");
  shell(R"(cmake -S . -B made -DCMAKE_PREFIX_PATH=$PREFIX -DCMAKE_C_FLAGS="$FLAGS" &&
      cmake --build made && { made/store; [ $? -eq 1 ]; })");
}

TEST_F(library, the_example_stores_until_the_account_is_full) {
  shell(
      "cc -std=c11 $FLAGS -o store $SOURCE/examples/store.c"
      " $(pkg-config --cflags --libs spoolcap)");
  box.add_reseller(1, "ann");
  box.add_client(2, 1, "bob");
  box.add_owner(12, 2, "cid");
  box.set_preference(12, "max_sound", "2");
  box.write_file("voice", 1500);

  support::process_options beside = in_shell;
  beside.environment[support::paths_root_variable] = box.root().string();
  beside.environment["LD_PRELOAD"] =
      std::string(SPOOLCAP_PATHS_MODULE) + ":" + std::getenv("LD_PRELOAD");
  const std::vector<std::string> stored = {"stored.1", "stored.2", "stored.3"};
  const struct {
    std::string account, kind, target;
    int status;
    std::string said;  // its last line
  } runs[] = {
      {"12", "tune", "stored.1", 1, "recording, voicemail or music\n"},
      {"99", "sound", "stored.1", 2, "Account 99, or one above it, is not known\n"},
      {"12", "sound", "nowhere/stored.1", 4, "nowhere/stored.1: No such file or directory\n"},
      {"12", "sound", "stored.1", 0, "stored.1: 1500 bytes for account 12\n"},
      {"12", "sound", "stored.1", 4, "stored.1: File exists\n"},
      {"12", "sound", "stored.2", 0, "stored.2: 1500 bytes for account 12\n"},
      {"12", "sound", "stored.3", 3, "No room: account 12 (level 100) is full\n"},
      {"2", "sound", "stored.3", 0, "stored.3: 1500 bytes for account 2\n"},
  };
  for (const auto &run : runs) {
    SCOPED_TRACE(run.account + " " + run.target + " " + run.said);
    const support::process_result result = support::run_process(
        {box.path("store"), run.account, run.kind, box.path("voice"), box.path(run.target)},
        beside);
    EXPECT_EQ(result.status, run.status);
    EXPECT_TRUE((result.out + result.err).ends_with(run.said)) << result.out << result.err;
  }
  EXPECT_EQ(box.read_file("stored.3"), box.read_file("voice"));
  // Each question about an account with a limit makes its file, as a first update.
  EXPECT_EQ(box.quota_file(1, 2, 12, "sound"), "3000.3");
  EXPECT_EQ(box.quota_file(1, 2, 0, "sound"), "4500.3");
  EXPECT_EQ(box.quota_file(1, 0, 0, "sound"), "4500.3");
  EXPECT_EQ(box.redis({"HGET", "res:inf:mng:12", "lvl"}), "100");
}

}  // namespace
