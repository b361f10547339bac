// Rewriting a quota record: over the old one, beside truncating the file first.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/ratio.h"
#include "main/quota/record.h"
#include "platform/base/owner.h"
#include "tests/support/servers.h"

namespace {

constexpr long ext4_magic = 0xEF53;

// Values of changing length, as they are in life.
int64_t next_value() {
  static int64_t value = 1;
  value = value > 1000000000000 ? 1 : value * 7;
  return value;
}

void truncate_and_write(const std::string &path) {
  const unique_fd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  char record[32];
  const int length =
      std::snprintf(record, sizeof record, "%lld.0", static_cast<long long>(next_value()));
  if (::flock(file.get(), LOCK_EX) != 0 || ::ftruncate(file.get(), 0) != 0 ||
      ::write(file.get(), record, static_cast<size_t>(length)) != length) {
    std::abort();
  }
}

}  // namespace

int main(int argc, char **argv) {
  const support::private_folder folder("bench-record");
  struct statfs file_system;
  if (::statfs(folder.path().c_str(), &file_system) != 0 || file_system.f_type != ext4_magic) {
    std::printf("(the next figure has its target on ext4; this file system is another)\n");
  }
  const std::string truncated = folder.path() / "sound.quota";
  quota_folder account(folder.path());
  if (!account.open() || quota_real_update(account, "fax.quota", 1, 0) != 0 ||
      quota_real_update(account, "sound.quota", 1, 0) != 0) {
    return 1;
  }
  ratio::at_most(
      0.15, "rewriting a quota record", "open, lock, truncate to 0, write, close",
      ratio::once([&account] { quota_real_update(account, "fax.quota", next_value(), 0); }),
      ratio::once([truncated] { truncate_and_write(truncated); }), ratio::length::calls);
  return ratio::run(argc, argv);
}
