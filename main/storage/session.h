// A storage session. Internal to main/storage/.
#ifndef MAIN_STORAGE_SESSION_H
#define MAIN_STORAGE_SESSION_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "main/storage/config.h"
#include "main/storage/files.h"
#include "main/storage/posix_part.h"
#include "main/storage/s3_part.h"

struct qx_storage_session {
  enum class purpose { storing, fetching };

  // Logged in the name of `site`.
  qx_storage_session(const call_site &site, storage_snapshot start, purpose wanted, int type);

  // A reload or a new service does not change a session that has begun.
  const storage_snapshot made_with;
  const purpose use;
  // The configured engine at first; the caller may choose another one before it uses the session.
  const storage_engine *engine;
  const int resource_type;
  // Set before the session is handed out, and only read after that.
  int first_id = 0;
  int second_id = 0;
  std::string extension;
  std::string location;
  // Storing: what the caller writes. Fetching: what the service downloads into.
  temporary_file temporary;
  posix_part posix;
  s3_fetch s3;

  const storage_config &config() const { return *made_with.config; }

  // QX_STORAGE_...; safe from any thread, as are the three below.
  int status() noexcept;
  // Ends waiting. The path is where the file is, empty when there is none.
  void finish(int result, std::string path) noexcept;
  // Without a limit: a service ends each download that it took.
  int wait() noexcept;
  // NULL while there is no file.
  const char *file_path() noexcept;

  // Of the C face. The last release deletes the session and its temporary file.
  void reference() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 private:
  ~qx_storage_session() = default;

  std::atomic<int> references_{1};
  std::mutex lock_;  // guards all that follows
  std::condition_variable changed_;
  int status_ = QX_STORAGE_PENDING;
  std::string path_;
};

// One reference.
using session_owner =
    std::unique_ptr<qx_storage_session, call_to_release<qx_storage_release_session>>;

// A new session under the current configuration and its engine; null, logged, while there is no
// configuration.
session_owner start_session(const call_site &site, qx_storage_session::purpose use, int type);

#endif
