// Runs that get no memory, at each of their allocations in turn.
#include <gtest/gtest.h>

#include "tests/support/paths_sandbox.h"
#include "tests/support/sandbox.h"

namespace {

class memory : public testing::Test {
 protected:
  memory() {
    box.add_reseller(1, "ann");
    box.add_client(2, 1, "bob");
    for (const char *kind : {"fax", "sound", "recording", "voicemail", "music"})
      box.write_quota_file(1, 2, 0, kind, "1000.0");
  }

  // Allocation `number` fails, 0 being none; with `on`, all after it as well.
  support::process_result run(std::vector<std::string> line, int number, bool on) {
    line.insert(line.begin(), SPOOLCAP_SANDBOX_BINARY);
    std::map<std::string, std::optional<std::string>> environment = {
        {support::paths_root_variable, box.root().string()},
        {"LD_PRELOAD", SPOOLCAP_FAILING_ALLOCATION},
        {"FAIL_AT", std::to_string(number)},
        {"FAIL_COUNT", box.path("count")}};
    if (on) environment["FAIL_ON"] = "1";
    return support::run_process(line, {.environment = environment});
  }

  support::sandbox box;
};

TEST_F(memory, that_runs_out_ends_the_run_with_a_reason_or_shows_as_figures_that_are_missing) {
  for (const bool on : {false, true}) {
    const std::vector<std::string> line = {"-A", "show", on ? "-a" : "-u2"};
    const support::process_result healthy = run(line, 0, false);
    ASSERT_EQ(healthy.status, 0) << healthy.err;
    const int allocations = std::stoi(box.read_file("count").value());
    ASSERT_GT(allocations, 100);
    for (int number = 1; number <= allocations; ++number) {
      const support::process_result result = run(line, number, on);
      const bool has_gap = result.out.find("ot found") != std::string::npos ||
                           result.out.find("ot Found") != std::string::npos;
      EXPECT_TRUE(result.status == 0 ? result.out == healthy.out || has_gap
                                     : result.status > 0 && !result.err.empty())
          << line[2] << ", allocation " << number << ": " << result.out << result.err << "status "
          << result.status << ", signal " << result.signal;
    }
  }
}

}  // namespace
