// The command as a whole beside bare programs that do the same work, and what a run takes of the
// database's connections and of memory.
#include <string>
#include <vector>

#include "bench/programs.h"
#include "bench/ratio.h"
#include "bench/trees.h"
#include "tests/support/sandbox.h"

namespace {

// The command refreshing; it finds the user and group that own quota files, whatever machine it is.
command refreshing(const command &options) {
  command all = {"/usr/bin/env", "LD_PRELOAD=libnss_wrapper.so", SPOOLCAP_SANDBOX_BINARY,
                 "--action", "set"};
  all.insert(all.end(), options.begin(), options.end());
  return all;
}

constexpr int resellers = 50;
constexpr int clients = 500;
constexpr int owners = 5000;
constexpr int first_client = 100;
constexpr int first_owner = 1000;

void fill_accounts(support::sandbox &box) {
  box.sql("INSERT INTO client(id, parent_client_id, level) SELECT seq, 0, 10 FROM seq_1_to_50");
  box.sql(
      "INSERT INTO client(id, parent_client_id, level) SELECT seq, 1 + seq MOD 50, 50 FROM "
      "seq_100_to_599");
  box.sql(
      "INSERT INTO client(id, parent_client_id, level) SELECT seq, 100 + seq MOD 500, 100 FROM "
      "seq_1000_to_5999");
  box.sql("INSERT INTO hs_account(userID, username) SELECT id, CONCAT('user', id) FROM client");
  box.sql(
      "INSERT INTO extension(id, client_id, number, extended_number) SELECT id, id, id, "
      "CONCAT('x*', id) FROM client WHERE level = 100");
  box.sql(
      "INSERT INTO extension_recording(extension_id, filesize) SELECT 1000 + seq MOD 5000, seq "
      "FROM seq_1_to_50000");
  box.sql(
      "INSERT INTO extension_voicemail(extension_id, filesize) SELECT 1000 + seq MOD 5000, seq "
      "FROM seq_1_to_20000");
  box.sql(
      "INSERT INTO extension_fax_center(extension_id, filesize) SELECT 1000 + seq MOD 5000, seq "
      "FROM seq_1_to_10000");
  box.sql(
      "ANALYZE TABLE client, hs_account, extension, extension_recording, extension_voicemail, "
      "extension_fax_center");
}

void fill_media(support::sandbox &box) {
  for (int id = first_owner; id < first_owner + owners; ++id) {
    make_flat_tree(box.path(box.sound_folder(std::to_string(id))), 1, 5);
    make_flat_tree(box.path(box.music_folder(std::to_string(id))), 1, 3);
  }
}

void add_whole_platform(support::sandbox &box) {
  static_assert(resellers == 50 && clients == 500 && first_client == 100);
  fill_accounts(box);
  fill_media(box);
  const command set = refreshing({"--all", "--force", "--quiet"});
  run_silently(box, set);
  ratio::at_most(1.15, "set --all --force --quiet, 5,550 accounts", "a bare program doing the same",
                 running(box, set), running(box, bare(SPOOLCAP_BARE_SET, box)));
  // Two processors, which the database needs as well.
  const char *halves = R"(half() { "$0" --action set --force --quiet --uid $(seq -s, "$@"); }
                          half 1 25 &
                          half 26 50 && wait $!)";
  const command two_runs = {"/usr/bin/env", "LD_PRELOAD=libnss_wrapper.so", "sh", "-c",
                            halves,         SPOOLCAP_SANDBOX_BINARY};
  ratio::at_least(1.3, "two runs at once, half of the resellers each", "set --all --force --quiet",
                  running(box, two_runs), running(box, set));
}

void add_show(support::sandbox &box) {
  box.add_reseller(1, "reseller");
  box.add_client(2, 1, "client");
  box.add_owner(12, 2, "owner");
  run_silently(box, refreshing({"--uid", "1", "--force", "--quiet"}));
  const command show = {SPOOLCAP_SANDBOX_BINARY, "--action", "show", "--uid", "12"};
  run_silently(box, show);  // and its lookups are in the cache
  ratio::at_most(1.15, "show of one account", "connect, one query, three cached fields",
                 running(box, show), running(box, bare(SPOOLCAP_BARE_SHOW, box)));
}

long connections(const support::sandbox &box) {
  const auto rows = box.sql("SHOW GLOBAL STATUS LIKE 'Connections'");
  return std::stol(rows.at(0).at(1).value());
}

// 100,000 accounts and a million files.
void measure_memory() {
  support::sandbox box;
  box.sql("INSERT INTO client(id, parent_client_id, level) VALUES (1, 0, 10), (2, 1, 50)");
  box.sql(
      "INSERT INTO client(id, parent_client_id, level) SELECT 100 + seq, 2, 100 FROM "
      "seq_1_to_99998");
  box.sql("INSERT INTO hs_account(userID, username) SELECT id, CONCAT('user', id) FROM client");
  make_flat_tree(box.path(box.sound_folder("0001")), 1, 500000);
  make_flat_tree(box.path(box.music_folder("0001")), 5000, 100);
  const long before = connections(box);
  const long set = run_silently(box, refreshing({"--all", "--quiet"}));
  const long after_set = connections(box);
  const long show = run_silently(box, {SPOOLCAP_SANDBOX_BINARY, "--action", "show", "--all"});
  ratio::bound("peak memory of set, 100,000 accounts", "MiB", static_cast<double>(set) / 1024, 32);
  ratio::bound("peak memory of show, 100,000 accounts", "MiB", static_cast<double>(show) / 1024,
               32);
  ratio::bound("connections opened by one set", "as many as sessions held at once",
               static_cast<double>(after_set - before), 1);
  ratio::bound("connections opened by one show", "as many as sessions held at once",
               static_cast<double>(connections(box) - after_set), 2);
}

}  // namespace

int main(int argc, char **argv) {
  measure_memory();
  support::sandbox small;
  ratio::at_most(1.05, "spoolcap --help", "an empty program with the same libraries",
                 running(small, {SPOOLCAP_BINARY, "--help"}), running(small, {SPOOLCAP_EMPTY}),
                 ratio::length::calls);
  add_show(small);
  support::sandbox large;
  add_whole_platform(large);
  return ratio::run(argc, argv);
}
