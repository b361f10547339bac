// A platform of some hundred accounts, and the figures in its quota files.
#ifndef TESTS_CLUSTER_FIGURES_H
#define TESTS_CLUSTER_FIGURES_H

#include <gtest/gtest.h>

#include <map>

#include "tests/support/sandbox.h"

// Two resellers, ten clients and 600 users with a recording each.
inline constexpr int accounts = 612, first_user = 100, recording_size = 1000;
inline constexpr int64_t recordings_of_a_reseller = 300 * recording_size;

inline void fill(const support::sandbox &box) {
  box.sql(
      "INSERT INTO client(id, parent_client_id, level) VALUES (1, 0, 10), (2, 0, 10);"
      "INSERT INTO client(id, parent_client_id, level) SELECT seq, 1 + seq MOD 2, 50 FROM "
      "seq_10_to_19;"
      "INSERT INTO client(id, parent_client_id, level) SELECT seq, 10 + seq MOD 10, 100 FROM "
      "seq_100_to_699;"
      "INSERT INTO hs_account(userID, username) SELECT id, CONCAT('user', id) FROM client;"
      "INSERT INTO extension(id, client_id, number, extended_number) SELECT seq, seq, seq, "
      "CONCAT('x*', seq) FROM seq_100_to_699;"
      "INSERT INTO extension_recording(extension_id, filesize) SELECT seq, 1000 FROM "
      "seq_100_to_699");
}

using figures = std::map<std::string, int64_t>;  // by file: "1/10/100/fax"

inline figures figures_of(const support::sandbox &box, bool only_certain = false) {
  namespace fs = std::filesystem;
  const fs::path root = box.path("var/lib/quorvexquota");
  figures found;
  for (const auto &entry : fs::recursive_directory_iterator(root)) {
    const fs::path &file = entry.path();
    if (file.extension() != ".quota") continue;
    if (only_certain &&
        (fs::exists(file.string() + ".dirty") || fs::exists(file.parent_path() / "quota.redo"))) {
      continue;
    }
    const std::string name = fs::relative(file, root).replace_extension();
    found[name] = std::stoll(box.read_file(fs::relative(file, box.root()).string()).value());
  }
  return found;
}

// Those that no mark stands beside.
inline figures certain_figures_of(const support::sandbox &box) {
  return figures_of(box, true);
}

inline void set_all(const support::sandbox &box,
                    const std::vector<std::string> &more = {"--force"}) {
  std::vector<std::string> arguments = {"--action", "set", "--all", "--quiet"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  EXPECT_EQ(box.run_spoolcap(arguments).status, 0);
}

#endif
