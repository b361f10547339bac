// The report reads the trees of several resellers at a time.
#include "tests/support/platform_test.h"

namespace {

class ReportThreads : public platform_test {};

TEST_F(ReportThreads, TreesOfResellersAreReadSideBySide) {
  std::string expected;
  for (int id = 1; id <= 20; ++id) {
    box.add_reseller(id, "reseller");
    for (int user = 1; user <= 5; ++user) box.add_client(100 * id + user, id, "client");
    box.write_file(box.quota_path(std::to_string(id) + "/fax"), std::to_string(1000 + id) + ".0");
    expected += std::to_string(1000 + id) + "\n";
  }
  const support::process_result result =
      box.run_report({"list", "--level", "reseller", "--kind", "fax", "--format", "tsv"});
  EXPECT_EQ(result.status, 0) << result.err;
  std::string figures;
  std::istringstream lines(result.out);
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line)) figures += line.substr(line.find("reseller\t") + 9, 4) + "\n";
  EXPECT_EQ(figures, expected);
}

}  // namespace
