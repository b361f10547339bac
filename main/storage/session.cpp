// A session: its status, and the threads that wait for it.
// Shared by the caller's thread and that of a download; the last one frees it.
#include "main/storage/session.h"

qx_storage_session::qx_storage_session(const call_site &site, storage_snapshot start,
                                       purpose wanted, int type)
    : made_with(std::move(start)),
      use(wanted),
      engine(made_with.config->engine),
      resource_type(type) {
  QX_LOG_AT(site, FR_LOG_DEBUG, "%s:%d:Storage session [%p] created.\n\n", site.source, site.line,
            static_cast<void *>(this));
}

int qx_storage_session::status() noexcept {
  const std::lock_guard guard(lock_);
  return status_;
}

void qx_storage_session::finish(int result, std::string path) noexcept {
  const std::lock_guard guard(lock_);
  // Path and status change together: a thread that sees the session ready finds its file.
  status_ = result;
  path_ = std::move(path);
  changed_.notify_all();
}

int qx_storage_session::wait() noexcept {
  std::unique_lock guard(lock_);
  changed_.wait(guard, [this] { return status_ != QX_STORAGE_PENDING; });
  return status_;
}

const char *qx_storage_session::file_path() noexcept {
  const std::lock_guard guard(lock_);
  // Borrowed; it does not change any more once the session is ready.
  return path_.empty() ? nullptr : path_.c_str();
}

session_owner start_session(const call_site &site, qx_storage_session::purpose use, int type) {
  storage_snapshot now = take_snapshot();
  if (now.config == nullptr) {
    log_condition_failed(site);
    return nullptr;
  }
  return session_owner(new qx_storage_session(site, std::move(now), use, type));
}
