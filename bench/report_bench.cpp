// The report beside a bare program that runs the same statements and reads the same files, and what
// it takes of memory.
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <fstream>

#include "bench/page.h"
#include "bench/programs.h"
#include "bench/ratio.h"
#include "tests/support/sandbox.h"

namespace {

// 100 resellers, 1,000 clients and 98,900 users, with a limit each.
void fill_accounts(support::sandbox &box) {
  box.sql(
      "INSERT INTO client(id, parent_client_id, level) SELECT seq, 0, 10 FROM seq_1_to_100;"
      "INSERT INTO client(id, parent_client_id, level) SELECT seq, 1 + seq MOD 100, 50 FROM "
      "seq_101_to_1100;"
      "INSERT INTO client(id, parent_client_id, level) SELECT seq, 101 + seq MOD 1000, 100 FROM "
      "seq_1101_to_100000;"
      "INSERT INTO hs_account(userID, username) SELECT id, CONCAT('user', id) FROM client;"
      "INSERT INTO client_prefs SELECT id, 'max_voice', 1048576 FROM client;"
      "ANALYZE TABLE client, hs_account, client_prefs");
}

void write_figures(const std::string &folder, const char *id) {
  ::mkdir(folder.c_str(), 0770);
  for (const char *kind : {"fax", "sound", "recording", "voicemail", "music"}) {
    std::ofstream(folder + "/" + kind + ".quota") << id << "000.0";
  }
}

void fill_figures(support::sandbox &box) {
  box.make_folder("var/lib/quorvexquota");
  const auto rows = box.sql(
      "SELECT CONCAT_WS('/', p.parent_client_id, c.parent_client_id, c.id), c.id FROM client c "
      "LEFT JOIN client p ON p.id = c.parent_client_id ORDER BY c.id");
  for (const support::sql_row &row : rows) {
    std::string place = row.at(0).value();
    while (place.starts_with("0/")) place.erase(0, 2);
    write_figures(box.path("var/lib/quorvexquota/" + place), row.at(1)->c_str());
  }
}

// The median of three runs: whatever else the machine does makes some of them longer.
double seconds_of(const support::sandbox &box, const command &arguments) {
  std::array<double, 3> runs = {};
  for (double &run : runs) run = support::seconds_of([&] { run_silently(box, arguments); });
  std::sort(runs.begin(), runs.end());
  return runs[1];
}

void add_list(support::sandbox &box) {
  fill_accounts(box);
  fill_figures(box);
  const command list = {SPOOLCAP_REPORT_BINARY, "list"};
  const long memory = run_silently(box, list);
  ratio::at_most(1.5, "spoolcap-report list, 100,000 accounts", "the same statements and files",
                 running(box, list), running(box, bare(SPOOLCAP_BARE_REPORT, box)));
  ratio::bound("peak memory of the list, 100,000 accounts", "MiB",
               static_cast<double>(memory) / 1024, 32 + 100'000 * 300.0 / 1024 / 1024);
  const double show = seconds_of(box, {SPOOLCAP_SANDBOX_BINARY, "--action", "show", "--all"});
  // How long the kernel takes to open, read and close 500,000 files varies with what it has cached.
  const double reading = seconds_of(box, bare(SPOOLCAP_BARE_REPORT, box));
  ratio::bound(
      "time of the list", "% of spoolcap --action show --all", 100 * seconds_of(box, list) / show,
      5, ratio::gap{100 * reading / show, "a bare program that reads the files takes as long"});
}

// Accounts alone: what their figures take is there without files, too.
void measure_memory_of_a_million() {
  support::sandbox box;
  box.sql("INSERT INTO client(id, parent_client_id, level) VALUES (1, 0, 10), (2, 1, 50)");
  // In parts, each of which ends within the time of a statement.
  for (const char *range : {"seq_100001_to_300000", "seq_300001_to_500000", "seq_500001_to_700000",
                            "seq_700001_to_900000", "seq_900001_to_1099998"}) {
    box.sql(
        std::string("INSERT INTO client(id, parent_client_id, level) SELECT seq, 2, 100 FROM ") +
        range);
    box.sql(std::string("INSERT INTO hs_account(userID, username) SELECT seq, CONCAT('user', seq) "
                        "FROM ") +
            range);
  }
  command list = {SPOOLCAP_REPORT_BINARY, "list", "--format", "json"};
  const long all = run_silently(box, list);
  ratio::bound("peak memory of the list, a million accounts", "MiB",
               static_cast<double>(all) / 1024, 32 + 1'000'000 * 300.0 / 1024 / 1024);
  list.insert(list.end(), {"--top", "1"});
  ratio::bound("of it for the JSON", "MiB",
               static_cast<double>(all - run_silently(box, list)) / 1024, 16);
}

}  // namespace

int main(int argc, char **argv) {
  measure_memory_of_a_million();
  support::sandbox box;
  add_list(box);
  add_page(box);
  return ratio::run(argc, argv);
}
