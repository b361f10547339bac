// Engine S3: files in an object store, by way of the transfer service, the local cache and the
// queues.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "main/cache/client.h"
#include "main/storage/engine.h"
#include "main/storage/names.h"
#include "main/storage/queue.h"
#include "main/storage/session.h"
#include "platform/base/view.h"

namespace {

// Where the cache has the file of an object key.
std::string cache_path(const storage_config &config, const std::string &key) {
  return config.cache + "/" + storage_shard + "/" + key;
}

// Whether the cache has the file. Its time of last write tells the service that it was used now.
bool find_cached(const std::string &path) {
  if (find_file(path) != 0) return false;
  // The service may have removed it between the two calls.
  return ::utimensat(AT_FDCWD, path.c_str(), nullptr, 0) == 0 || errno != ENOENT;
}

// Moves what was downloaded into the cache; false, logged, when that fails.
bool keep_download(qx_storage_session &session, const char *path) {
  const int error = move_new_file(path, session.s3.cache_path);
  // A commit or another download was faster, and what it brought is no older than this.
  if (error == EEXIST && find_file(session.s3.cache_path) == 0) {
    ::unlink(path);
  } else if (error != 0) {
    QX_LOG(FR_LOG_WARNING, "Failed to move file [%s] to [%s]: %s.\n\n", path,
           session.s3.cache_path.c_str(), std::strerror(error));
    return false;
  }
  if (session.temporary.path() == path) session.temporary.give_up();
  return true;
}

// The end of a download, on a thread of the service's. The cookie is the reference that was taken
// for it.
void finish_download(void *cookie, int status, const char *path) {
  const session_owner session(static_cast<qx_storage_session *>(cookie));
  const bool kept = status == QX_STORAGE_READY && path != nullptr &&
                    no_throw(false, [&] { return keep_download(*session, path); });
  // `path` belongs to the request and goes with it. The temporary file is removed before finish()
  // wakes the waiters, as they may assume that it is gone.
  session->temporary.remove();
  const qx_storage_api_t &service = *session->made_with.service;
  if (void *request = session->s3.request.done()) service.release(service.context, request);
  if (kept) {
    session->finish(QX_STORAGE_READY, std::move(session->s3.cache_path));
  } else {
    session->finish(QX_STORAGE_FAILED, "");
  }
}

bool start_download(qx_storage_session &session, const char *name, const char *extra) {
  // Made here: it belongs to the host's user, and the service is only handed it open.
  auto target = make_temporary_file(session.config().transfer_in, "");
  if (!target) return false;
  session.temporary = std::move(*target);

  const qx_storage_api_t &service = *session.made_with.service;
  // The download may end before the next line, on another thread, and drop this reference.
  session.reference();
  void *request = service.download(service.context, name, storage_shard, s3_word, extra,
                                   session.temporary.path().c_str(), finish_download, &session);
  // Refused at once: the session is finished, and `done` will not be called.
  if (request == nullptr) {
    session.temporary.remove();
    session.finish(QX_STORAGE_FAILED, "");
    session.release();
    return true;
  }
  // The download may be over by now; our caller's reference has kept the session.
  if (void *ended = session.s3.request.started(request)) service.release(service.context, ended);
  return true;
}

int initialize() {
  // The queues lie in the cache.
  return recreate_cache_client() ? 0 : -1;
}

const storage_engine &choose(const call_site &site, const storage_snapshot &now) {
  if (now.s3_usable()) return s3_engine;
  QX_LOG_AT(site, FR_LOG_WARNING,
            "S3 engine is disabled due to a configuration error. Storing file to POSIX\n");
  return posix_engine;
}

bool prepare(const call_site & /*site*/, qx_storage_session &session) {
  auto made =
      make_temporary_file(session.config().transfer_out + "/" + storage_shard, session.extension);
  if (!made) return false;
  session.temporary = std::move(*made);
  return true;
}

std::optional<stored_file> store(const call_site &site, qx_storage_session &session, int file_id) {
  stored_file file;
  file.name = std::string(media_of_type(session.resource_type).key_word) + "/" +
              owned_file(session.first_id, session.second_id, file_id, session.extension);
  file.path = cache_path(session.config(), file.name);
  // A copy, not a move: a commit that fails leaves the temporary file for another try.
  committed_file copy;
  const int error = copy_file(session.temporary.path(), file.path, copy);
  if (error != 0) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Failed to copy file [%s] to [%s]: %s.\n\n",
              session.temporary.path().c_str(), file.path.c_str(), std::strerror(error));
    return std::nullopt;
  }
  if (queue_upload(site, session.location.c_str(), file.name) != 0) {
    // The copy stays: if only the reply was lost, the queue has the member and the service needs
    // the file. Otherwise the service finds it in the cache one day.
    QX_LOG_AT(site, FR_LOG_WARNING, "Failed to queue file [%s].\n\n", file.name.c_str());
    return std::nullopt;
  }
  take_snapshot().tell_queued();
  return file;
}

bool fetch(const call_site &site, qx_storage_session &session, const char *name,
           const char *extra) {
  if (!session.made_with.s3_usable()) {
    QX_LOG_AT(site, FR_LOG_WARNING,
              "The S3 storage engine is disabled due to a configuration error. Cannot retrieve "
              "file from S3.\n");
    return false;
  }
  if (is_empty(name) || !is_object_key(name)) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Cannot retrieve requested file from storage [%s]: %s.\n\n",
              name == nullptr ? "" : name, std::strerror(EINVAL));
    return false;
  }
  session.s3.cache_path = cache_path(session.config(), name);
  if (!find_cached(session.s3.cache_path)) return start_download(session, name, extra);
  session.finish(QX_STORAGE_READY, session.s3.cache_path);
  return true;
}

int remove_file(const call_site &site, const storage_config &config, int /*type*/, const char *name,
                const char *location) {
  if (!is_object_key(name)) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Could not remove file [%s]: %s.\n\n", name,
              std::strerror(EINVAL));
    return EINVAL;
  }
  const std::string cached = cache_path(config, name);
  // A commit that is queued after this brings another file, or holds this one: it stays.
  const held_file deleted(cached);
  // Queued before the cached file goes: otherwise a kill between both would forget it.
  const int error = queue_deletion(site, location, name);
  if (error != 0) return error;
  // A copy left in the cache would keep serving a deleted file. The service removes it where this
  // process is killed first. Notify it only now: it takes a file that is still there for a commit
  // of the same moment.
  const int cause = deleted.is_being_committed() ? 0 : deleted.remove();
  take_snapshot().tell_queued();
  if (cause != 0) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Failed to remove file from storage cache [%s]: %d %s.\n\n",
              cached.c_str(), cause, std::strerror(cause));
  }
  return 0;
}

}  // namespace

const storage_engine s3_engine = {.word = s3_word,
                                  .needs_location = true,
                                  .is_name_in_row = true,
                                  .initialize = initialize,
                                  .choose = choose,
                                  .prepare = prepare,
                                  .store = store,
                                  .fetch = fetch,
                                  .remove = remove_file};
