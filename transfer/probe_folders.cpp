// Whether the folders can be written, lie on one disk, and keep what the service needs.
// Makes a file in each folder, and removes it.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/base/owner.h"
#include "transfer/probe.h"
#include "transfer/receipt.h"

namespace {

// The folder, or the nearest one above it that is there.
// Folders are made at first use; the one above decides whether they can be.
std::string nearest(std::string folder) {
  while (folder.size() > 1 && ::access(folder.c_str(), F_OK) != 0 && errno == ENOENT) {
    folder.resize(std::max<std::size_t>(folder.rfind('/'), 1));
  }
  return folder;
}

// A file that is gone with this.
struct probe_file {
  // A name that begins with a dot is no key, so the keeper passes over a leftover.
  explicit probe_file(const std::string &folder) : path(folder + "/.checking-XXXXXX") {
    fd.reset(::mkostemp(path.data(), O_CLOEXEC));
    made = static_cast<bool>(fd);
  }
  probe_file(const probe_file &) = delete;
  probe_file &operator=(const probe_file &) = delete;
  ~probe_file() {
    if (made) ::unlink(path.c_str());
  }
  std::string path;
  unique_fd fd;
  bool made = false;
};

// Its device, or nothing when it cannot be written.
std::optional<dev_t> check_folder(const char *what, const std::string &folder,
                                  check_report &report) {
  const std::string there = nearest(folder);
  const probe_file file(there);
  struct stat status {};
  if (!file.fd || ::fstat(file.fd.get(), &status) != 0) {
    report.wrong(what, there + " cannot be written: " + std::strerror(errno) +
                           "; give it to the user of the service and the hosts");
    return std::nullopt;
  }
  report.good(what, folder + (there == folder ? "" : ", to be made at first use"));
  return status.st_dev;
}

// The descriptor that made the file would count as use.
bool gives_leases(probe_file &file) {
  const unique_fd reader(::open(file.path.c_str(), O_RDONLY | O_CLOEXEC));
  file.fd.reset();
  return reader && ::fcntl(reader.get(), F_SETLEASE, F_WRLCK) == 0;
}

void check_features(const std::string &cache, check_report &report) {
  probe_file file(nearest(cache));
  if (!file.fd) return;
  // The same call that stores a real receipt: it finds whatever that would meet.
  const int error = write_receipt(file.fd.get(), {.etag = "probe", .length = 0});
  if (error == 0) {
    report.good("extended attributes", "kept, so that stored files are known without asking");
  } else {
    report.wrong("extended attributes",
                 std::string("not kept (") + std::strerror(error) +
                     "): the store is asked once a day for each cached file; use a file system "
                     "with user attributes");
  }
  if (gives_leases(file)) {
    report.good("leases", "given, so that files in use are known");
  } else {
    report.wrong("leases", std::string("not given (") + std::strerror(errno) +
                               "): nothing can be removed from the cache; use a local file system");
  }
}

}  // namespace

void check_folders(const service_settings &settings, check_report &report) {
  const auto cache = check_folder("cache", settings.cache, report);
  const auto in = check_folder("transfer in", settings.transfer_in, report);
  check_folder("transfer out", settings.transfer_out, report);
  // Out does not matter: what leaves it is copied in any case.
  if (cache && in && *cache != *in) {
    report.wrong("one file system",
                 "cache and transfer in are on two: each download is copied once more; put them "
                 "on one");
  } else if (cache && in) {
    report.good("one file system", "cache and transfer in are on one");
  }
  if (cache) check_features(settings.cache, report);
  const std::string &socket = settings.config.socket;
  check_folder("folder of the socket", socket.substr(0, socket.rfind('/')), report);
  const std::string &metrics = settings.config.metrics_file;
  if (metrics.empty()) return;
  check_folder("folder of the metrics", metrics.substr(0, metrics.rfind('/')), report);
}
