// Metrics beside the list, and as promtool takes them.
#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "tests/e2e/report_fixture.h"

namespace {

// How many samples of a metric there are, with labels that begin like this.
std::ptrdiff_t samples(const std::string &text, const std::string &beginning) {
  std::ptrdiff_t count = text.starts_with(beginning) ? 1 : 0;
  for (size_t at = 0; (at = text.find("\n" + beginning, at)) != text.npos; ++at) ++count;
  return count;
}

TEST_F(Report, MetricsSayWhatTheListSays) {
  box.set_preference(12, "fax_storage", "1024");
  box.sql("UPDATE hs_account SET username = 'a\\\\b\"c\\nd' WHERE userID = 3");
  write_quota("1/2/13/fax", "5000000.2");
  std::filesystem::remove(box.quota_path("3/music"));
  const std::string all = report({"metrics", "--all"});
  const rapidjson::Document list = json({"--format", "json"});
  std::ptrdiff_t figures = 0;
  for (const rapidjson::Value &account : list["accounts"].GetArray()) {
    const std::string id = std::to_string(account["id"].GetInt());
    const std::string name = id == "3" ? "a\\\\b\\\"c\\nd" : account["name"].GetString();
    const std::string level = id == "2" ? "client" : id.size() == 1 ? "reseller" : "user";
    for (const std::string figure : {"used", "limit"}) {
      for (const auto &[kind, value] : account[figure.c_str()].GetObject()) {
        if (value.IsNull()) continue;
        ++figures;
        std::ostringstream line;
        line << "spoolcap_account_" << figure << "_bytes{account=\"" << id << "\",name=\"" << name
             << "\",level=\"" << level << "\",kind=\"" << kind.GetString() << "\"} "
             << value.GetInt64() << "\n";
        EXPECT_EQ(samples(all, line.str()), 1) << line.str();
      }
    }
  }
  EXPECT_EQ(figures, 25);  // one of 25 is not known, and there is one limit
  EXPECT_EQ(samples(all, "spoolcap_account_used_bytes{"), 24);
  EXPECT_EQ(samples(all, "spoolcap_account_age_seconds{"), 5);
  for (const char *line : {"spoolcap_account_state{account=\"3\",state=\"missing\"} 1\n",
                           "spoolcap_account_state{account=\"1\",state=\"missing\"} 0\n",
                           "spoolcap_accounts{level=\"user\",state=\"updated\"} 1\n",
                           "spoolcap_accounts{level=\"user\",state=\"measured\"} 1\n"}) {
    EXPECT_EQ(samples(all, line), 1) << line;
  }
  const std::string one = report({"metrics", "--top", "1"});
  EXPECT_EQ(samples(one, "spoolcap_account_age_seconds{account=\"13\""), 1) << "uses the most";
  EXPECT_EQ(samples(one, "spoolcap_account_age_seconds{"), 4);

  report({"metrics", "--output", box.path("spoolcap.prom")});
  if (support::run_process({"promtool", "--version"}).status == 127) {
    if (std::getenv("CI") != nullptr) FAIL() << "promtool is not installed";
    GTEST_SKIP() << "promtool is not installed";
  }
  const support::process_result checked =
      support::run_process({"sh", "-c", "promtool check metrics < " + box.path("spoolcap.prom")});
  EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
  EXPECT_EQ(checked.out + checked.err, "");
}

TEST_F(Report, MetricsTellWhenTheLastRefreshWas) {
  const auto now = std::filesystem::file_time_type::clock::now();
  for (const auto &entry :
       std::filesystem::recursive_directory_iterator(box.path("var/lib/quorvexquota"))) {
    if (!entry.is_regular_file()) continue;
    // User 12 was refreshed a day before all others, and an update came an hour after the rest.
    const bool is_old = entry.path().string().find("/12/") != std::string::npos;
    const bool is_last = entry.path().string().ends_with("/2/fax.quota");
    const auto age = std::chrono::seconds(is_old ? 90000 : is_last ? 3570 : 3600);
    std::filesystem::last_write_time(entry.path(), now - age);
  }
  write_quota("3/fax", "0.1");
  const std::string text = report({"metrics"});
  EXPECT_EQ(samples(text, "spoolcap_refresh_duration_seconds 30\n"), 1) << text;
  const size_t at = text.find("\nspoolcap_refresh_timestamp_seconds ");
  ASSERT_NE(at, text.npos);
  EXPECT_NEAR(std::stod(text.substr(at + 36)), static_cast<double>(std::time(nullptr)) - 3570, 30);
}

}  // namespace
