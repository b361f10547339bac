// What an account costs on a large platform, beside a small one: time, memory and inodes of the
// commands over all accounts. `scale [ACCOUNTS]` compares that many (50,000) with 10,000. It
// ends with 1 when an account of the large platform costs more than 1.3 times as much.
//
// Of 10,000 accounts, one is a reseller and 100 are clients. A user has an extension, two
// recordings, a voicemail and a fax; one in 100 has a folder of sounds with two files.
#include <sys/resource.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include "bench/programs.h"
#include "bench/trees.h"

namespace {

constexpr long small_platform = 10'000;
constexpr long most_at_once = 200'000;  // rows of one statement
constexpr double most = 1.3;

struct cost {
  double seconds;
  double processor;  // seconds, of the command and the database server
  double kib;
};

struct work {
  const char *name;
  command words;
};

const std::array<work, 4> all_work = {{
    {"set --all --force --quiet",
     {"/usr/bin/env", "LD_PRELOAD=libnss_wrapper.so", SPOOLCAP_SANDBOX_BINARY, "--action", "set",
      "--all", "--force", "--quiet"}},
    {"show --all", {SPOOLCAP_SANDBOX_BINARY, "--action", "show", "--all"}},
    {"report list", {SPOOLCAP_REPORT_BINARY, "list"}},
    {"report metrics", {SPOOLCAP_REPORT_BINARY, "metrics"}},
}};

struct platform_cost {
  std::array<cost, all_work.size()> of_work;
  double inodes = 0;  // of the quota root
  double cached = 0;  // bytes of the cache
};

// Ends what `select` gives with each range of the sequence from `first` to `last`.
void insert_ranges(const support::sandbox &box, const std::string &select, long first, long last) {
  for (long from = first; from <= last; from += most_at_once) {
    const long to = std::min(from + most_at_once - 1, last);
    box.sql(select + " FROM seq_" + std::to_string(from) + "_to_" + std::to_string(to));
  }
}

// Neighbours in the tree lie far apart in the tables, as accounts that came one by one do.
void fill(support::sandbox &box, long accounts) {
  const long resellers = accounts / small_platform, clients = accounts / 100;
  const long first_user = resellers + clients + 1;
  const std::string r = std::to_string(resellers), c = std::to_string(clients);
  const std::string client = "INSERT INTO client(id, parent_client_id, level) SELECT seq, ";
  insert_ranges(box, client + "0, 10", 1, resellers);
  insert_ranges(box, client + "1 + seq MOD " + r + ", 50", resellers + 1, first_user - 1);
  insert_ranges(box, client + r + " + 1 + seq MOD " + c + ", 100", first_user, accounts);
  insert_ranges(box, "INSERT INTO hs_account(userID, username) SELECT seq, CONCAT('user', seq)", 1,
                accounts);
  insert_ranges(box,
                "INSERT INTO extension(id, client_id, number, extended_number) SELECT seq, seq, "
                "seq, CONCAT('x*', seq)",
                first_user, accounts);
  for (const char *table : {"recording", "recording", "voicemail", "fax_center"}) {
    insert_ranges(box,
                  std::string("INSERT INTO extension_") + table +
                      "(extension_id, filesize) SELECT seq, 1000 + seq MOD 1000",
                  first_user, accounts);
  }
  box.sql(
      "ANALYZE TABLE client, hs_account, extension, extension_recording, extension_voicemail, "
      "extension_fax_center");
  for (long id = first_user; id <= accounts; id += 100) {
    make_flat_tree(box.path(box.sound_folder(std::to_string(id))), 1, 2);
  }
}

double memory_of_cache(const support::sandbox &box) {
  const std::string text = box.redis({"INFO", "memory"}).value();
  return std::strtod(text.c_str() + text.find("used_memory:") + std::strlen("used_memory:"),
                     nullptr);
}

double entries_below(const std::string &folder) {
  double count = 0;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
    static_cast<void>(entry);
    ++count;
  }
  return count;
}

double seconds_in(const timespec &time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// What the server and all children that have ended took of the processors.
double processor_seconds(const support::mariadb_server &server) {
  clockid_t clock = 0;
  timespec of_server = {};
  struct rusage children = {};
  if (::clock_getcpuclockid(server.pid(), &clock) != 0 || ::clock_gettime(clock, &of_server) != 0 ||
      ::getrusage(RUSAGE_CHILDREN, &children) != 0) {
    std::perror("scale");
    std::exit(1);
  }
  timespec user = {}, kernel = {};
  TIMEVAL_TO_TIMESPEC(&children.ru_utime, &user);
  TIMEVAL_TO_TIMESPEC(&children.ru_stime, &kernel);
  return seconds_in(of_server) + seconds_in(user) + seconds_in(kernel);
}

cost cost_of(const support::sandbox &box, const support::mariadb_server &server, const work &one) {
  cost result = {};
  const double before = processor_seconds(server);
  result.seconds =
      support::seconds_of([&] { result.kib = static_cast<double>(run_silently(box, one.words)); });
  result.processor = processor_seconds(server) - before;
  std::fprintf(stderr, "%-25s %8.1f s, of a processor %8.1f s, %.0f KiB\n", one.name,
               result.seconds, result.processor, result.kib);
  return result;
}

platform_cost measure(support::mariadb_server &server, long accounts) {
  support::sandbox box({.database = &server});
  std::fprintf(stderr, "%ld accounts\n", accounts);
  fill(box, accounts);
  platform_cost result = {};
  const double cached_before = memory_of_cache(box);
  for (size_t i = 0; i < all_work.size(); ++i) {
    result.of_work[i] = cost_of(box, server, all_work[i]);
  }
  result.inodes = entries_below(box.path("var/lib/quorvexquota"));
  result.cached = memory_of_cache(box) - cached_before;
  std::fprintf(stderr, "%.0f inodes, %.0f bytes cached\n", result.inodes, result.cached);
  return result;
}

// One row of the table; whether an account costs no more than it may.
bool compare(const char *name, const char *unit, double small, double large, long accounts) {
  const double of_small = small / small_platform, of_large = large / static_cast<double>(accounts);
  const bool good = of_large <= most * of_small;
  std::printf("| %-25s | %-17s | %10.2f | %12.2f | %10.4g | %5.2f |%s\n", name, unit, small, large,
              of_large, of_large / of_small, good ? "" : " over 1.3");
  return good;
}

int run(long accounts) {
  support::mariadb_server server;
  {
    // Room for the tables of a large platform, which a server of the tests does not have.
    const support::sandbox box({.use_cache = false, .database = &server});
    box.sql("SET GLOBAL innodb_buffer_pool_size = 2147483648");
  }
  const platform_cost small = measure(server, small_platform);
  const platform_cost large = measure(server, accounts);
  std::printf("| %-25s | %-17s | %10ld | %12ld | %-10s | %-5s |\n", "work", "accounts",
              small_platform, accounts, "an account", "ratio");
  bool good = compare("quota root", "inodes", small.inodes, large.inodes, accounts);
  good &= compare("cache", "bytes", small.cached, large.cached, accounts);
  for (size_t i = 0; i < all_work.size(); ++i) {
    const cost &before = small.of_work[i], &after = large.of_work[i];
    // Shown only: on a machine that others use as well it says little.
    compare(all_work[i].name, "seconds", before.seconds, after.seconds, accounts);
    good &=
        compare(all_work[i].name, "processor seconds", before.processor, after.processor, accounts);
    good &= compare(all_work[i].name, "KiB", before.kib, after.kib, accounts);
  }
  return good ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  const long accounts = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 50'000;
  if (argc > 2 || accounts < small_platform || accounts % small_platform != 0) {
    std::fputs("usage: scale [ACCOUNTS]: a multiple of 10,000\n", stderr);
    return 2;
  }
  return run(accounts);
}
