// The fast update of a quota file beside the bare system calls, alone and against others. Also the
// verification of an account beside the reads that it cannot do without.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <spoolcap/quota.h>
#include <spoolcap/sqlsession.h>
#include "bench/bare_cache.h"
#include "bench/ratio.h"
#include "platform/base/ids.h"
#include "platform/base/owner.h"
#include "tests/support/sandbox.h"

namespace {

constexpr int owner_id = 12;

void bare_update(const std::string &path) {
  const unique_fd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  char record[32] = {};
  if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0 ||
      ::read(file.get(), record, sizeof record - 1) <= 0 || ::lseek(file.get(), 0, SEEK_SET) != 0 ||
      ::ftruncate(file.get(), 0) != 0) {
    std::abort();
  }
  const int length = std::snprintf(record, sizeof record, "%lld.%d", std::atoll(record) + 1, 1);
  if (::write(file.get(), record, static_cast<size_t>(length)) != length) std::abort();
}

// The owner's, as the engine leaves its files: root looks twice at a file that is its own.
void write_record(const std::string &path, const char *record) {
  const c_file file(std::fopen(path.c_str(), "w"));
  std::fputs(record, file.get());
  uid_t user = 0;
  gid_t group = 0;
  if (get_ids("asterisk", "asterisk", &user, &group) != 0 ||
      ::fchown(::fileno(file.get()), user, group) != 0) {
    std::abort();
  }
}

void compare_updates(double target, const std::string &folder, const std::string &where) {
  const std::string path = folder + "/update.quota";
  const std::string bare = folder + "/bare.quota";
  write_record(path, "1000.1");
  write_record(bare, "1000.1");
  if (quota_upd_fast_internal(path.c_str(), 1, 0) != 1001) std::abort();  // and all is set up
  ratio::at_most(target, "fast update of one file, " + where,
                 "open, lock, read, truncate, write, close",
                 ratio::once([path] { quota_upd_fast_internal(path.c_str(), 1, 0); }),
                 ratio::once([bare] { bare_update(bare); }), ratio::length::calls);
}

// Four processes on one file, with random pauses of 10 ms on average. What gave up left a mark,
// which is taken away at once so that the next attempts count as well.
void measure_give_ups(double target, const std::string &folder, const std::string &where) {
  constexpr int attempts = 500;
  const std::string path = folder + "/shared.quota";
  write_record(path, "1000.1");
  std::vector<pid_t> children;
  for (unsigned seed = 0; seed < 4; ++seed) {
    children.push_back(::fork());
    if (children.back() != 0) continue;
    std::mt19937 random(seed);
    std::uniform_int_distribution<useconds_t> pauses(0, 20'000);
    int gave_up = 0;
    for (int i = 0; i < attempts; ++i) {
      ::usleep(pauses(random));
      // A mark that another process has just left is a refusal too: it is not an attempt.
      while (::access((path + ".dirty").c_str(), F_OK) == 0) ::usleep(100);
      if (quota_upd_fast_internal(path.c_str(), 1, 30) == -1) {
        ++gave_up;
        ::unlink((path + ".dirty").c_str());
      }
    }
    ::_exit(gave_up > 255 ? 255 : gave_up);
  }
  int gave_up = 0;
  for (const pid_t child : children) {
    int status = 0;
    ::waitpid(child, &status, 0);
    gave_up += WEXITSTATUS(status);
  }
  const int done = static_cast<int>(children.size()) * attempts - gave_up;
  const int lost = 1000 + done - quota_upd_fast_internal(path.c_str(), 0, 30);
  ratio::bound("updates that give up, 4 processes, " + where, "% of 2,000 attempts",
               100.0 * gave_up / (4 * attempts), target);
  ratio::bound("updates that are lost among those, " + where, "updates", lost, 0);
}

// Place and limit of three accounts are a read each: the place is two fields of one hash.
void bare_verify(redisContext *connection, const std::vector<std::string> &records) {
  static constexpr const char *places[] = {"res:inf:mng:12", "res:inf:mng:2", "res:inf:mng:1"};
  static constexpr const char *limits[] = {"res:pre:mng:12", "res:pre:mng:2", "res:pre:mng:1"};
  for (int i = 0; i < 3; ++i) {
    bare_hget(connection, places[i], "lvl");
    bare_hget(connection, limits[i], "mrec");
  }
  for (const std::string &path : records) {
    const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char record[32] = {};
    if (::read(file.get(), record, sizeof record - 1) <= 0) std::abort();
  }
}

// The call prints its result, which is not for this table.
template <class Body>
void unprinted(Body &&body) {
  const c_file nowhere(std::fopen("/dev/null", "w"));
  FILE *const printed = std::exchange(stdout, nowhere.get());
  body();
  stdout = printed;
}

void verify() {
  if (quota_verify(owner_id, QUOTA_RECORDING) != 0) std::abort();
}

void verify_unprinted(benchmark::State &state) {
  unprinted([&state] { ratio::once(verify)(state); });
}

}  // namespace

int main(int argc, char **argv) {
  support::sandbox box;
  box.add_reseller(1, "reseller");
  box.add_client(2, 1, "client");
  box.add_owner(owner_id, 2, "owner");
  std::vector<std::string> records;
  for (const int account : {1, 2, owner_id}) box.set_preference(account, "max_record", "1000");
  const std::string below_client = "1/2/" + std::to_string(owner_id) + "/recording";
  for (const std::string &file :
       {std::string("1/recording"), std::string("1/2/recording"), below_client}) {
    records.push_back(box.quota_path(file));
    box.write_file(records.back(), "");
    write_record(box.path(records.back()), "5.1");
  }
  const support::private_folder on_disk("bench-update");
  ::setenv(support::folder_variable, "/dev/shm", 1);
  const support::private_folder in_memory("bench-update");

  measure_give_ups(8, on_disk.path(), "ext4");
  measure_give_ups(2, in_memory.path(), "tmpfs");
  compare_updates(0.20, on_disk.path(), "ext4");
  compare_updates(1.15, in_memory.path(), "tmpfs");

  qx_sql_pool_init();
  const vk_context redis = connect_redis(box);
  unprinted(verify);  // and the caches are warm
  ratio::at_most(1.25, "verification of an account of three levels",
                 "6 HGET and 3 reads of records", verify_unprinted,
                 ratio::once([&] { bare_verify(redis.get(), records); }), ratio::length::calls);
  return ratio::run(argc, argv);
}
