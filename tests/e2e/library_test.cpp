// The library as it is installed: what it exports, how it is found, and the example that uses it;
// with the command, how it is protected.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "tests/support/sandbox.h"

namespace {

class Library : public testing::Test {
 protected:
  Library() { shell("cmake --install " SPOOLCAP_BUILD " --prefix $PWD/usr"); }

  // Runs a command in the sandbox's folder; what is said on either output is in `out`.
  support::process_result shell(const std::string &command) const {
    const std::string libraries = box.path("usr/" SPOOLCAP_LIBDIR);
    return support::run_process({"sh", "-c", "exec 2>&1; cd " + box.path("") + "; " + command},
                                {.environment = {{"PKG_CONFIG_PATH", libraries + "/pkgconfig"},
                                                 {"LD_LIBRARY_PATH", libraries},
                                                 {"FLAGS", SPOOLCAP_C_FLAGS}}});
  }

  support::sandbox box{{.guides = {"administrator.md", "report.md"}}};
};

TEST_F(Library, ExportsWhatItsHeadersDeclare) {
  const auto made = shell("cmake -S " SPOOLCAP_SOURCE
                          "/examples -B made"
                          " -DCMAKE_PREFIX_PATH=$PWD/usr -DCMAKE_C_FLAGS=\"$FLAGS\""
                          " && cmake --build made && { made/store; made/recording; }");
  EXPECT_NE(made.out.find("usage: store"), std::string::npos) << made.out;
  EXPECT_NE(made.out.find("usage: recording"), std::string::npos) << made.out;
  const auto checked = shell(SPOOLCAP_SOURCE
                             "/tests/e2e/check-exports "
                             "$LD_LIBRARY_PATH/libspoolcap.so $PWD/usr/include/spoolcap");
  EXPECT_EQ(checked.status, 0) << checked.out;
}

TEST_F(Library, ServesTheExampleUntilTheAccountIsFull) {
  const auto made = shell("cc -std=c11 -Wall -Wextra -Werror $FLAGS " SPOOLCAP_SOURCE
                          "/examples/store.c -o store $(pkg-config --cflags --libs spoolcap)");
  ASSERT_EQ(made.status, 0) << made.out;
  box.add_reseller(1, "ann");
  box.add_client(2, 1, "bob");
  box.set_preference(2, "max_sound", "2");
  box.write_file("voice", 1500);
  const std::tuple<std::string, int, std::string> runs[] = {
      {"99 sound voice one", 2, "Account 99, or one above it, is not known\n"},
      {"2 sound voice one", 0, "one: 1500 bytes for account 2\n"},
      {"2 sound voice one", 4, "one: File exists\n"},
      {"2 sound voice two", 0, "two: 1500 bytes for account 2\n"},
      {"2 sound voice three", 3, "No room: account 2 (level 50) is full\n"},
      {"1 sound voice three", 0, "three: 1500 bytes for account 1\n"}};
  for (const auto &[arguments, status, said] : runs) {
    const auto run = shell("SPOOLCAP_SANDBOX=$PWD LD_PRELOAD=" SPOOLCAP_PATHS_MODULE
                           ":$LD_PRELOAD exec ./store " +
                           arguments);
    EXPECT_EQ(run.status, status) << run.out;
    EXPECT_NE(run.out.find(said), std::string::npos) << run.out;
  }
  EXPECT_EQ(box.read_file("three"), box.read_file("voice"));
  // The first question about an account with a limit makes its file, as an update of 0 bytes.
  EXPECT_EQ(box.read_file(box.quota_path("1/2/sound")), "3000.3");
  EXPECT_EQ(box.redis({"HGET", "res:inf:mng:2", "lvl"}), "50");
}

TEST_F(Library, SharesNoFunctionsWithAHostThatHasTheSameNames) {
  const auto made = shell("cc -std=c11 -Wall -Wextra -Werror -rdynamic $FLAGS " SPOOLCAP_SOURCE
                          "/tests/e2e/namesake_host.c -o host"
                          " $(pkg-config --cflags --libs spoolcap)");
  ASSERT_EQ(made.status, 0) << made.out;
  box.add_reseller(1, "ann");
  box.set_preference(1, "max_sound", "2");
  box.write_file(box.sound_folder("0001") + "/hello.wav", 100);
  const auto run =
      shell("SPOOLCAP_SANDBOX=$PWD LD_PRELOAD=" SPOOLCAP_PATHS_MODULE ":$LD_PRELOAD exec ./host 1");
  EXPECT_EQ(run.out,
            "library: limit 2, refresh 0 of 100 bytes, 0 calls of the host\n"
            "host: ast_pad_id 6, get_binding 97\n");
}

TEST(Hardening, IsWholeInTheCommandAndTheLibrary) {
#ifndef NDEBUG
  GTEST_SKIP() << "builds that debug do without";
#endif
  for (const auto &[file, function] :
       {std::pair(SPOOLCAP_BINARY, "main"), std::pair(SPOOLCAP_REPORT_BINARY, "main"),
        std::pair(SPOOLCAP_LIBRARY, "quota_verify")}) {
    EXPECT_EQ(
        support::run_process({SPOOLCAP_SOURCE "/tests/e2e/check-hardening", file, function}).out,
        "");
  }
}

}  // namespace
