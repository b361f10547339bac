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

int qx_storage_session::status() {
  const std::lock_guard guard(lock_);
  return status_;
}

void qx_storage_session::finish(int result, std::string path) {
  const std::lock_guard guard(lock_);
  status_ = result;
  path_ = std::move(path);
  changed_.notify_all();
}

int qx_storage_session::wait() {
  std::unique_lock guard(lock_);
  changed_.wait(guard, [this] { return status_ != QX_STORAGE_PENDING; });
  return status_;
}

const char *qx_storage_session::file_path() {
  const std::lock_guard guard(lock_);
  return path_.empty() ? nullptr : path_.c_str();
}

void *qx_storage_session::request_started(void *started) {
  const std::lock_guard guard(lock_);
  if (done_) return started;
  request_ = started;
  return nullptr;
}

void *qx_storage_session::request_done() {
  const std::lock_guard guard(lock_);
  done_ = true;
  return std::exchange(request_, nullptr);
}

session_owner start_session(const call_site &site, qx_storage_session::purpose use, int type) {
  storage_snapshot now = take_snapshot();
  if (now.config == nullptr) {
    log_condition_failed(site);
    return nullptr;
  }
  return session_owner(new qx_storage_session(site, std::move(now), use, type));
}

const char *qx_storage_get_temp_file(const qx_storage_session_t *session) {
  if (session == nullptr || session->use != qx_storage_session::purpose::storing) return nullptr;
  return session->temporary.path().c_str();
}

const char *qx_storage_get_file_path(qx_storage_session_t *session) {
  return session == nullptr ? nullptr : session->file_path();
}

int qx_storage_get_session_status(qx_storage_session_t *session) {
  return session == nullptr ? -1 : session->status();
}

int qx_storage_wait_for_file(qx_storage_session_t *session) {
  if (session == nullptr) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  return session->wait();
}

void qx_storage_ref_session(qx_storage_session_t *session) {
  if (session != nullptr) session->reference();
}

void qx_storage_release_session(qx_storage_session_t *session) {
  if (session != nullptr) session->release();
}
