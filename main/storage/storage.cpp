// The public operations: each checks what it was given and hands it to the session or its engine.
// Nothing here touches a file, a row or a queue by itself.
#include <cerrno>
#include <cstring>

#include <spoolcap/zarn_str.h>
#include "main/storage/engine.h"
#include "main/storage/names.h"
#include "main/storage/queue.h"
#include "main/storage/row.h"
#include "main/storage/session.h"
#include "platform/base/view.h"

namespace {

using purpose = qx_storage_session::purpose;

// Bytes; the rest of a longer one is cut off in silence.
constexpr size_t longest_extension = 15;

// -1 with this error, or 0.
int result_of(int error) noexcept {
  if (error == 0) return 0;
  errno = error;
  return -1;
}

// Where the session's file belongs; false when the engine needs a location and there is none.
bool take_location(const call_site &site, qx_storage_session &session) {
  const c_string text = session.made_with.location({.resource_type = session.resource_type,
                                                    .first_id = session.first_id,
                                                    .second_id = session.second_id});
  if (text) session.location = text.get();
  if (text || !session.engine->needs_location) return true;
  log_condition_failed(site);
  return false;
}

session_owner create_session(const call_site &site, int type, int first_id, int second_id,
                             const char *extension) {
  // A slash would lead elsewhere; a colon would break the member of the queue.
  if (extension != nullptr &&
      (std::strchr(extension, '/') != nullptr || has_reserved_byte(extension))) {
    log_condition_failed(site);
    return nullptr;
  }
  session_owner session = start_session(site, purpose::storing, type);
  if (!session) return nullptr;
  session->first_id = first_id;
  session->second_id = second_id;
  if (extension != nullptr) {
    session->extension.assign(extension, ::strnlen(extension, longest_extension));
  }
  // Before `prepare`: the temporary file lies where the engine wants it.
  session->engine = &session->engine->choose(site, session->made_with);
  if (!session->engine->prepare(site, *session) || !take_location(site, *session)) return nullptr;
  return session;
}

bool commit(const call_site &site, qx_storage_session &session, int file_id) {
  std::optional<stored_file> file = session.engine->store(site, session, file_id);
  if (!file) return false;
  // After the file is in place: a row must not name a file that is not there.
  record_location(session, file_id, file->name);
  session.finish(QX_STORAGE_READY, std::move(file->path));
  return true;
}

session_owner retrieve_session(const call_site &site, int type, const char *name,
                               const char *engine_word, const char *extra) {
  const storage_engine *const engine = engine_of(engine_word);
  if (engine == nullptr) {
    QX_LOG_AT(site, FR_LOG_WARNING,
              "Invalid storage engine specified [%s]. Cannot retrieve file.\n\n", engine_word);
    return nullptr;
  }
  session_owner session = start_session(site, purpose::fetching, type);
  if (!session) return nullptr;
  // Fetching goes by the word of the row: the configuration may have changed since.
  session->engine = engine;
  return engine->fetch(site, *session, name, extra) ? std::move(session) : nullptr;
}

int delete_file(const call_site &site, int type, const char *name, const char *engine_word,
                const char *location) {
  const storage_engine *const engine = engine_of(engine_word);
  // What has no name or place in the object store was never there.
  if (engine != nullptr && engine->needs_location && (name == nullptr || location == nullptr)) {
    return 0;
  }
  const auto config = take_snapshot().config;
  if (engine == nullptr || config == nullptr) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Could not remove file [%s]: %s.\n\n",
              name == nullptr ? "" : name, std::strerror(EINVAL));
    return EINVAL;
  }
  return engine->remove(site, *config, type, name, location);
}

int delete_owner(const call_site &site, const qx_storage_location_query_t &query) {
  const c_string location = take_snapshot().location(query);
  if (!location) {
    log_condition_failed(site);
    return ENOBUFS;
  }
  for (const int type : stored_types) {
    const int error =
        queue_owner_deletion(site, location.get(), type, query.first_id, query.second_id);
    if (error != 0) return error;
  }
  take_snapshot().tell_queued();
  return 0;
}

}  // namespace

int qx_storage_load_config(const char *base_dir, const char *monitor_dir) {
  const call_site here = QX_HERE;
  seed_names();
  return no_throw(-1, [=] { return load_config(here, base_dir, monitor_dir); });
}

int qx_storage_initialize(const char *base_dir, const char *monitor_dir) {
  // A node without an id has a storage all the same: nothing here depends on it.
  set_node_id(c_string(get_nodeid()));
  if (qx_storage_load_config(base_dir, monitor_dir) != 0) {
    QX_LOG(FR_LOG_ERROR, "FATAL: Failed to initialize the storage system.\n\n");
    return -1;
  }
  if (no_throw(-1, [] { return take_snapshot().config->engine->initialize(); }) != 0) {
    QX_LOG(FR_LOG_ERROR, "Failed to initialize connection to the DisDB server.\n\n");
    return -1;
  }
  return 0;
}

void qx_storage_cleanup(void) {
  set_node_id(nullptr);
}

int qx_storage_register_api(const qx_storage_api_t *api) {
  if (api == nullptr || api->s3_usable == nullptr || api->location == nullptr ||
      api->download == nullptr || api->release == nullptr) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  return no_throw(-1, [api] {
    set_service(std::make_shared<const qx_storage_api_t>(*api));
    return 0;
  });
}

void qx_storage_unregister_api(void) {
  set_service(nullptr);
}

qx_storage_session_t *qx_storage_session_create(int resource_type, int first_id, int second_id,
                                                const char *extension) {
  const call_site here = QX_HERE;
  return no_throw<qx_storage_session *>(nullptr, [&] {
    return create_session(here, resource_type, first_id, second_id, extension).release();
  });
}

int qx_storage_set_posix_filename(qx_storage_session_t *session, const char *name) {
  const call_site here = QX_HERE;
  return no_throw(-1, [=] {
    const bool is_absolute = name != nullptr && *name == '/';
    if (session == nullptr ||
        (name != nullptr && !is_absolute && (*name == '\0' || has_parent_component(name)))) {
      log_condition_failed(here);
      return -1;
    }
    session->posix.requested_name = name == nullptr ? "" : name;
    return 0;
  });
}

int qx_storage_commit_file(qx_storage_session_t *session, int file_id) {
  const call_site here = QX_HERE;
  // A file is stored once: after that, there is nothing under the temporary name, or not ours.
  if (session == nullptr || session->use != purpose::storing ||
      session->status() == QX_STORAGE_READY) {
    log_condition_failed(here);
    return -1;
  }
  if (no_throw(false, [&] { return commit(here, *session, file_id); })) return 0;
  // Wakes the waiters. The session can be committed again.
  session->finish(QX_STORAGE_FAILED, {});
  return -1;
}

qx_storage_session_t *qx_storage_session_retrieve(int resource_type, const char *stored_name,
                                                  const char *engine, const char *extra) {
  const call_site here = QX_HERE;
  return no_throw<qx_storage_session *>(nullptr, [&] {
    return retrieve_session(here, resource_type, stored_name, engine, extra).release();
  });
}

int qx_storage_delete(int resource_type, const char *stored_name, const char *engine,
                      const char *location) {
  const call_site here = QX_HERE;
  return result_of(no_throw(
      ENOMEM, [&] { return delete_file(here, resource_type, stored_name, engine, location); }));
}

int qx_storage_delete_extension(int second_id, const char *text, int first_id,
                                const char *other_text, void *argument) {
  const call_site here = QX_HERE;
  return result_of(no_throw(ENOMEM, [&] {
    return delete_owner(here, {.first_id = first_id,
                               .second_id = second_id,
                               .first_text = text,
                               .second_text = other_text,
                               .argument = argument});
  }));
}

const char *qx_storage_get_temp_file(const qx_storage_session_t *session) {
  if (session == nullptr || session->use != purpose::storing) return nullptr;
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
