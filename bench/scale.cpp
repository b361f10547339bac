// What an account costs on a large platform, beside a small one: time, memory and inodes of the
// commands over all accounts. `scale [ACCOUNTS]` compares that many (50,000) with 10,000. It
// ends with 1 when an account of the large platform costs more than 1.3 times as much.
//
// Bare programs run beside the commands: the same statements and files, and no care. What an
// account costs more for them is the kernel's and the server's, and a command may grow as they do.
//
// With SCALE_GROUP, the folder of a control group, the programs run in that group, and each begins
// with empty caches of files: as on a machine whose memory does not hold all of them. Needs root.
//
// Of 10,000 accounts, one is a reseller and 100 are clients. A user has an extension, two
// recordings, a voicemail and a fax; one in 100 has a folder of sounds with two files.
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench/programs.h"
#include "bench/trees.h"

namespace {

constexpr long small_platform = 10'000;
constexpr long most_at_once = 200'000;  // rows of one statement
constexpr double most = 1.3;
constexpr double noise = 1.1;  // of two single runs

struct work {
  std::string name;
  command words;
  // The least that the works after it can be, up to the next one of this kind.
  bool is_bare = false;
};

struct cost {
  work of;
  double seconds;
  double processor;  // seconds, of the command and the database server
  double kib;
};

std::vector<work> all_work(const support::sandbox &box) {
  const command set = {"/usr/bin/env",
                       "LD_PRELOAD=libnss_wrapper.so",
                       SPOOLCAP_SANDBOX_BINARY,
                       "--action",
                       "set",
                       "--all",
                       "--force",
                       "--quiet"};
  return {
      {"set --all, its files new", set},
      {"a bare refresh", bare(SPOOLCAP_BARE_SET, box), true},
      {"set --all", set},
      {"a bare list", bare(SPOOLCAP_BARE_REPORT, box), true},
      {"show --all", {SPOOLCAP_SANDBOX_BINARY, "--action", "show", "--all"}},
      {"report list", {SPOOLCAP_REPORT_BINARY, "list"}},
      {"report metrics", {SPOOLCAP_REPORT_BINARY, "metrics"}},
      {"report page", {SPOOLCAP_REPORT_BINARY, "page", box.path("page.html")}},
      {"report check", {SPOOLCAP_REPORT_BINARY, "check"}},
  };
}

struct platform_cost {
  std::vector<cost> of_work;
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

command in_group(command words, const char *group) {
  if (group == nullptr) return words;
  ::sync();
  std::ofstream("/proc/sys/vm/drop_caches") << "3\n";
  const command enter = {"/bin/sh", "-ec", "echo $$ >$0/cgroup.procs; exec \"$@\"", group};
  words.insert(words.begin(), enter.begin(), enter.end());
  return words;
}

cost cost_of(const support::sandbox &box, const support::mariadb_server &server, const work &one) {
  cost result = {.of = one};
  const command words = in_group(one.words, std::getenv("SCALE_GROUP"));
  const double before = processor_seconds(server);
  result.seconds =
      support::seconds_of([&] { result.kib = static_cast<double>(run_silently(box, words)); });
  result.processor = processor_seconds(server) - before;
  std::fprintf(stderr, "%-25s %8.1f s, of a processor %8.1f s, %.0f KiB\n", one.name.c_str(),
               result.seconds, result.processor, result.kib);
  return result;
}

platform_cost measure(support::sandbox &box, const support::mariadb_server &server, long accounts) {
  std::fprintf(stderr, "%ld accounts\n", accounts);
  fill(box, accounts);
  platform_cost result = {};
  const double cached_before = memory_of_cache(box);
  for (const work &one : all_work(box)) result.of_work.push_back(cost_of(box, server, one));
  result.inodes = entries_below(box.path("var/lib/quorvexquota"));
  result.cached = memory_of_cache(box) - cached_before;
  std::fprintf(stderr, "%.0f inodes, %.0f bytes cached\n", result.inodes, result.cached);
  return result;
}

// Of some runs of a work, the middle one: a short run varies.
cost middle(const std::array<platform_cost, 3> &platforms, size_t which) {
  std::vector<cost> runs;
  runs.reserve(platforms.size());
  for (const platform_cost &one : platforms) runs.push_back(one.of_work[which]);
  std::sort(runs.begin(), runs.end(),
            [](const cost &one, const cost &other) { return one.processor < other.processor; });
  return runs[1];
}

class table {
 public:
  explicit table(long accounts) : accounts_(static_cast<double>(accounts)) {
    std::printf("| %-25s | %-17s | %10ld | %12ld | %-10s | %-5s |\n", "work", "accounts",
                small_platform, accounts, "an account", "ratio");
  }

  // How many times as much an account of the large platform costs.
  double show(const std::string &name, const char *unit, double small, double large) const {
    const double of_small = small / small_platform, of_large = large / accounts_;
    std::printf("| %-25s | %-17s | %10.2f | %12.2f | %10.4g | %5.2f |\n", name.c_str(), unit, small,
                large, of_large, of_large / of_small);
    return of_large / of_small;
  }

  void check(const std::string &name, const char *unit, double small, double large, double limit) {
    if (show(name, unit, small, large) <= limit) return;
    std::printf("  over %.2f\n", limit);
    good_ = false;
  }

  bool good() const { return good_; }

 private:
  double accounts_;
  bool good_ = true;
};

int run(long accounts) {
  support::mariadb_server server;
  {
    // Room for the tables of a large platform, which a server of the tests does not have.
    const support::sandbox box({.use_cache = false, .database = &server});
    box.sql("SET GLOBAL innodb_buffer_pool_size = 2147483648");
  }
  // All are kept to the end: ext4 makes files slowly for minutes after many were removed.
  std::vector<std::unique_ptr<support::sandbox>> boxes;
  const auto measured = [&](long size) {
    boxes.push_back(
        std::make_unique<support::sandbox>(support::sandbox_options{.database = &server}));
    return measure(*boxes.back(), server, size);
  };
  std::array<platform_cost, 3> small = {};
  for (platform_cost &one : small) one = measured(small_platform);
  const platform_cost large = measured(accounts);

  table rows(accounts);
  rows.check("quota root", "inodes", small[0].inodes, large.inodes, most);
  rows.check("cache", "bytes", small[0].cached, large.cached, most);
  double of_bare = 0;
  for (size_t i = 0; i < large.of_work.size(); ++i) {
    const cost before = middle(small, i), &after = large.of_work[i];
    const std::string &name = after.of.name;
    // Shown only: on a machine that others use as well it says little.
    rows.show(name, "seconds", before.seconds, after.seconds);
    if (after.of.is_bare) {
      of_bare = rows.show(name, "processor seconds", before.processor, after.processor);
    } else {
      rows.check(name, "processor seconds", before.processor, after.processor,
                 std::max(most, noise * of_bare));
      rows.check(name, "KiB", before.kib, after.kib, most);
    }
  }
  std::fflush(stdout);  // removing millions of files takes its time
  return rows.good() ? 0 : 1;
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
