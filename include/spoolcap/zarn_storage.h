/* File storage: sessions that keep one media file each, in a local directory (engine POSIX) or in
 * an object store (engine S3).
 *
 * To store: create a session, write the file that qx_storage_get_temp_file names, commit. To fetch:
 * retrieve, wait, read the file that qx_storage_get_file_path names. Then release the session.
 *
 * The object store is reached through a transfer service that the host registers. This module
 * copies a committed file into a local cache directory and queues its upload in the DisDB;
 * docs/transfer.md has the protocol of the queues, which the service works off.
 * <spoolcap/transfer.h> registers the service that comes with this library.
 *
 * Ids: a file is kept under two levels of its owner, the first and the second id, and its own id,
 * which is the id of its row in extension_recording, extension_voicemail or extension_fax_center.
 *
 * Functions that give an int give 0, or -1 after logging why, unless they say otherwise; that
 * memory is short is not always logged. For a NULL session, functions that give an int give -1,
 * those that give a text NULL. A DisDB that comes back may be noticed up to a minute later. All may
 * be called from several threads; a session may be shared, but is written and committed by one
 * thread at a time. */
#ifndef SPOOLCAP_ZARN_STORAGE_H
#define SPOOLCAP_ZARN_STORAGE_H

#include <spoolcap/declarations.h>
#include <spoolcap/kinds.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* Statuses of a session. */
enum { QX_STORAGE_PENDING = 1, QX_STORAGE_READY = 3, QX_STORAGE_FAILED = 4 };

typedef struct qx_storage_session qx_storage_session_t;

/* ---- The transfer service ---- */

/* What a location text is wanted for. Texts may be NULL, are borrowed for the call, and mean what
 * the service takes them for. */
typedef struct qx_storage_location_query {
  int resource_type; /* 0 when all files of an owner are meant */
  int first_id;
  int second_id;
  const char *first_text; /* qx_storage_delete_extension hands on what its caller gave */
  const char *second_text;
  void *argument;
} qx_storage_location_query_t;

/* Ends a download: `status` is 3 when the whole file lies at `path`, any other value when it could
 * not be had; `cookie` is what the download was started with. `path` is borrowed for the call. */
typedef void (*qx_storage_done_fn)(void *cookie, int status, const char *path);

/* The operations of a transfer service. The structure is copied when it is registered; `context` is
 * handed to every call and must live until the service is unregistered or replaced, no call into
 * this module is running, and every request was released. Calls come from any thread, several at
 * once, and never under a lock of this module. */
typedef struct qx_storage_api {
  void *context;

  /* Non-zero when the object store is configured and can be used; only sessions under S3 ask. */
  int (*s3_usable)(void *context);

  /* Where a file is to be kept (region, bucket; no meaning here), as a malloc'ed text that this
   * module frees; NULL when that is not known: only files under POSIX do without. */
  char *(*location)(void *context, const qx_storage_location_query_t *query);

  /* Starts to download one object into the file `path`, which exists and is empty, and returns a
   * request, or NULL when it refuses. `engine` is "s3", `extra` what the caller of
   * qx_storage_session_retrieve gave, may be NULL. All texts are borrowed for the call.
   *
   * A service that took the request calls `done` exactly once, from any thread, also when it is
   * shut down, and also before this call returned; one that refused never does. */
  void *(*download)(void *context, const char *stored_name, const char *shard, const char *engine,
                    const char *extra, const char *path, qx_storage_done_fn done, void *cookie);

  /* Ends the life of a request that `download` returned; called exactly once for each, after its
   * `done` was entered, perhaps from within it. */
  void (*release)(void *context, void *request);

  /* Told after an upload or a deletion was queued, so that the service need not wait for its next
   * look at the queue. It must not wait. May be NULL. */
  void (*queued)(void *context);
} qx_storage_api_t;

/* Installs the table, in place of an earlier one. A session keeps to the table that was installed
 * when it was made. -1 when the table is NULL, or one of its operations other than `queued`. */
int qx_storage_register_api(const qx_storage_api_t *api);

/* Removes it: S3 is not usable from then on. Downloads that run are still completed. */
void qx_storage_unregister_api(void);

/* ---- The process ---- */

/* Reads the node id and the configuration; where the engine is S3, also makes the cache client of
 * the process anew, so that it follows its configuration. `monitor_dir` is where recordings are
 * kept, NULL or empty for "<base_dir>/monitor". -1 where qx_storage_load_config gives it, and, with
 * the new configuration in force, when the cache client cannot be made.
 *
 * The first call of this or the next function in a process seeds rand, which draws the names of
 * temporary files, and so does the first session that a child of fork makes. */
int qx_storage_initialize(const char *base_dir, const char *monitor_dir);

/* Reads storage.conf again: STORAGE_SYSTEM ("s3", or anything else for POSIX),
 * STORAGE_TRANSFERIN_D, STORAGE_TRANSFEROUT_D, STORAGE_CACHE_D, STORAGE_CACHE_EXPIRE (48),
 * STORAGE_TRASH_EXPIRE (1), S3_UPL_INTERVAL (120). A file that is not there means the defaults.
 * Sessions that exist keep what they were made with. -1, with the configuration as it was, for a
 * NULL or empty base directory, a directory of more than 4095 bytes, and a file that is there and
 * cannot be read. */
int qx_storage_load_config(const char *base_dir, const char *monitor_dir);

/* Frees the node id. */
void qx_storage_cleanup(void);

/* ---- Storing ---- */

/* A session for one new file, with its temporary file already there, empty. The extension is cut to
 * 15 bytes; NULL for none. While S3 is not usable, the file is stored under POSIX. NULL, with
 * nothing left behind, when the type has no folder, the extension has a "/", a ":" or a control
 * byte, or the temporary file or, under S3, the location cannot be had. The caller releases it. */
qx_storage_session_t *qx_storage_session_create(int resource_type, int first_id, int second_id,
                                                const char *extension);

/* The file that the caller writes; NULL for a session that fetches. Borrowed until the session is
 * released. */
const char *qx_storage_get_temp_file(const qx_storage_session_t *session);

/* POSIX: the name that a commit gives the file, below the type's folder, or exactly this path when
 * it begins with "/". Without one it is <first id>/<second id>/<file id>.<extension>. NULL takes it
 * back. -1, with the name as it was, when it is empty, or relative with a component "..". */
int qx_storage_set_posix_filename(qx_storage_session_t *session, const char *name);

/* Stores the written file under the id of its row, and says in the row where it is. 0 when the file
 * is at its place (POSIX), or complete in the cache and queued for upload (S3); that the row could
 * not be written is then only logged. -1 when the file could not be stored: it is still the
 * temporary file, and the call may be made again; releasing the session removes it. A session
 * stores once: -1, with nothing changed, after that. */
int qx_storage_commit_file(qx_storage_session_t *session, int file_id);

/* ---- Fetching ---- */

/* A session for a stored file; `engine` is "s3", or "posix" or NULL for POSIX, in any case. Ready
 * at once when the file is local. Otherwise the download was started, or failed already: wait for
 * it. `extra` goes to the service as it is. NULL when the engine is not known, the name leaves its
 * folder or, under S3, begins or ends with "/" or has a ":" or a control byte, the file is not
 * there (POSIX), S3 is not usable, or the download target cannot be made. The caller releases it,
 * whenever it likes. A download keeps the file that a commit put into the cache meanwhile; one that
 * runs while its object is deleted brings it back into the cache, until the service's expiry ends
 * it there. */
qx_storage_session_t *qx_storage_session_retrieve(int resource_type, const char *stored_name,
                                                  const char *engine, const char *extra);

/* Waits until the session is no longer pending; its status. Has no time limit: a service that took
 * a request ends it. For a session that stores, until its commit. */
int qx_storage_wait_for_file(qx_storage_session_t *session);

/* ---- Any session ---- */

/* Where the file is: of a stored one after its commit, of a fetched one once it is ready. NULL
 * before that, and when it failed. Borrowed until the session is released. */
const char *qx_storage_get_file_path(qx_storage_session_t *session);

int qx_storage_get_session_status(qx_storage_session_t *session);

/* One more holder, and one less. The last release removes a temporary file that was not stored and
 * frees the session; NULL is ignored. */
void qx_storage_ref_session(qx_storage_session_t *session);
void qx_storage_release_session(qx_storage_session_t *session);

/* ---- Deleting ---- */

/* Removes one stored file: POSIX at once; S3 by a place in the delete queue, and from the cache. A
 * NULL location or name under S3 is success with nothing done. -1 with errno: EINVAL for an engine
 * or type that is not known or a name that qx_storage_session_retrieve refuses, EIO when the queue
 * cannot be written, else what unlink gave. */
int qx_storage_delete(int resource_type, const char *stored_name, const char *engine,
                      const char *location);

/* Queues all that an owner has in the object store for deletion: voicemail, fax, recordings.
 * `text`, `other_text` and `argument` go into the service's location query, as its first and second
 * text and its argument. -1 with errno: ENOBUFS without a location, ENOMEM, or EIO when the queue
 * cannot be written; what was queued before stays. Copies in the caches stay for up to a day, until
 * the service meets the deletion. */
int qx_storage_delete_extension(int second_id, const char *text, int first_id,
                                const char *other_text, void *argument);

SPOOLCAP_END_DECLARATIONS

#endif
