/* File storage: sessions that keep one media file each, in a local directory (engine POSIX) or in
 * an object store (engine S3).
 *
 * To store: create a session, write the file that qx_storage_get_temp_file names, commit. To fetch:
 * retrieve, wait, read the file that qx_storage_get_file_path names. Then release the session.
 *
 * The object store is reached through a transfer service that the host registers, for instance by
 * <spoolcap/transfer.h>. A commit copies the file into a local cache and queues its upload in the
 * DisDB. docs/transfer.md has the protocol of the queues.
 *
 * A file is kept under two ids of its owner, the first and the second, and its own id. That is the
 * id of its row in extension_recording, extension_voicemail or extension_fax_center.
 *
 * Unless they say otherwise, functions return 0, or -1 after logging why (short memory not always).
 * For a NULL session they return -1 or NULL. A DisDB that comes back is noticed within a minute.
 * All may be called from several threads; one thread at a time writes and commits a session. */
#ifndef SPOOLCAP_ZARN_STORAGE_H
#define SPOOLCAP_ZARN_STORAGE_H

#include <spoolcap/declarations.h>
#include <spoolcap/kinds.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* Statuses of a session. */
enum { QX_STORAGE_PENDING = 1, QX_STORAGE_READY = 3, QX_STORAGE_FAILED = 4 };

typedef struct qx_storage_session qx_storage_session_t;

/* ---- The transfer service ---- */

/* What a location text is wanted for. Texts may be NULL, are borrowed for the call, and only the
 * service gives them a meaning. */
typedef struct qx_storage_location_query {
  int resource_type; /* 0 when all files of an owner are meant */
  int first_id;
  int second_id;
  const char *first_text; /* from the caller of qx_storage_delete_extension */
  const char *second_text;
  void *argument;
} qx_storage_location_query_t;

/* Ends a download. `status` is 3 when the whole file lies at `path`, else it failed; `cookie` is
 * that of the start. `path` is borrowed for the call. */
typedef void (*qx_storage_done_fn)(void *cookie, int status, const char *path);

/* The operations of a transfer service; registering copies the structure. `context` goes to every
 * call. It must live until the service is gone, no call into this module runs, and every request
 * was released. Calls come from any thread, several at once, never under a lock of this module. */
typedef struct qx_storage_api {
  void *context;

  /* Non-zero when the object store is configured and can be used; only sessions under S3 ask. */
  int (*s3_usable)(void *context);

  /* Where to keep a file (region, bucket; no meaning here): malloc'ed, freed by this module. NULL
   * when not known: only files under POSIX do without. */
  char *(*location)(void *context, const qx_storage_location_query_t *query);

  /* Starts to download an object into the empty file `path`. Returns a request, or NULL to refuse.
   * `engine` is "s3"; `extra`, from qx_storage_session_retrieve, may be NULL. Texts are borrowed
   * for the call. An accepted request calls `done` exactly once, also at shutdown, from any thread,
   * perhaps before this returns. A refused one never does. */
  void *(*download)(void *context, const char *stored_name, const char *shard, const char *engine,
                    const char *extra, const char *path, qx_storage_done_fn done, void *cookie);

  /* Frees a request that `download` returned. Called once for each, after its `done` was entered,
   * perhaps from within it. */
  void (*release)(void *context, void *request);

  /* Called after an upload or a deletion was queued: look at the queue now. Must not wait. May be
   * NULL. */
  void (*queued)(void *context);
} qx_storage_api_t;

/* Installs the table, in place of an earlier one; existing sessions keep theirs. -1 for a NULL
 * table or operation other than `queued`. */
int qx_storage_register_api(const qx_storage_api_t *api);

/* Removes it: S3 is not usable from then on. Downloads that run are still completed. */
void qx_storage_unregister_api(void);

/* ---- The process ---- */

/* Reads the node id and the configuration. Under S3 it also makes the process's cache client anew.
 * `monitor_dir` has the recordings; NULL or empty is "<base_dir>/monitor".
 *    0  ready
 *   -1  as qx_storage_load_config
 *   -1  no cache client can be made; the new configuration is in force
 *
 * The first call of this or the next function in a process seeds rand, which draws the names of
 * temporary files. So does the first session in a child of fork. */
int qx_storage_initialize(const char *base_dir, const char *monitor_dir);

/* Reads storage.conf again: STORAGE_SYSTEM ("s3", or anything else for POSIX),
 * STORAGE_TRANSFERIN_D, STORAGE_TRANSFEROUT_D, STORAGE_CACHE_D, STORAGE_CACHE_EXPIRE (48),
 * STORAGE_TRASH_EXPIRE (1), S3_UPL_INTERVAL (120). A missing file means the defaults. Existing
 * sessions keep theirs. -1 for a NULL or empty base directory, a directory of more than 4095 bytes,
 * or an unreadable file; the configuration is then unchanged. */
int qx_storage_load_config(const char *base_dir, const char *monitor_dir);

/* Frees the node id. */
void qx_storage_cleanup(void);

/* ---- Storing ---- */

/* A session for one new file, whose empty temporary file exists. The extension is cut to 15 bytes;
 * NULL for none. While S3 is not usable, the file is stored under POSIX. The caller releases it.
 * NULL, with nothing left behind, in these cases:
 * - the type has no folder, or the extension has a "/", a ":" or a control byte;
 * - the temporary file cannot be made, or under S3 the location is not known. */
qx_storage_session_t *qx_storage_session_create(int resource_type, int first_id, int second_id,
                                                const char *extension);

/* The file that the caller writes; NULL for a session that fetches. Borrowed until the session is
 * released. */
const char *qx_storage_get_temp_file(const qx_storage_session_t *session);

/* POSIX: the name that a commit gives the file, below the type's folder, or a path that begins with
 * "/". Default and NULL: <first id>/<second id>/<file id>.<extension>. -1, with the name unchanged,
 * for an empty name and a relative one with a component "..". */
int qx_storage_set_posix_filename(qx_storage_session_t *session, const char *name);

/* Stores the written file under the id of its row, and writes into the row where it is.
 *    0  the file is at its place (POSIX), or in the cache and queued (S3); a row that could not be
 *       written is only logged
 *   -1  not stored: the temporary file stays, call again or release the session
 *   -1  the session has stored already; nothing changes */
int qx_storage_commit_file(qx_storage_session_t *session, int file_id);

/* ---- Fetching ---- */

/* A session for a stored file; `engine` is "s3", or "posix" or NULL for POSIX, in any case. Ready
 * at once when the file is local; else wait for the download. `extra` goes to the service
 * unchanged. The caller releases the session at any time. NULL in these cases:
 * - any engine: the engine is not known, or the name leaves its folder;
 * - POSIX: the file does not exist;
 * - S3: the name begins or ends with "/", or has a ":" or a control byte;
 * - S3 is not usable, or the download target cannot be made.
 * A download keeps a file that a commit put into the cache meanwhile. If its object is deleted
 * meanwhile, the copy stays in the cache until it expires. */
qx_storage_session_t *qx_storage_session_retrieve(int resource_type, const char *stored_name,
                                                  const char *engine, const char *extra);

/* Waits until the session is no longer pending, when storing until its commit; returns its status.
 * Has no time limit: the service ends each request that it accepted. */
int qx_storage_wait_for_file(qx_storage_session_t *session);

/* ---- Any session ---- */

/* Where the file is, once it is committed or fetched; NULL before that and when it failed. Borrowed
 * until the session is released. */
const char *qx_storage_get_file_path(qx_storage_session_t *session);

int qx_storage_get_session_status(qx_storage_session_t *session);

/* One more holder, and one less. The last release removes a temporary file that was not stored and
 * frees the session; NULL is ignored. */
void qx_storage_ref_session(qx_storage_session_t *session);
void qx_storage_release_session(qx_storage_session_t *session);

/* ---- Deleting ---- */

/* Removes one stored file: under POSIX at once, under S3 from the cache and by the delete queue.
 *    0  done; also S3 with a NULL location or name, with nothing done
 *   -1  EINVAL: engine or type not known, or a name that qx_storage_session_retrieve refuses
 *   -1  EIO: the queue cannot be written; otherwise the error of unlink */
int qx_storage_delete(int resource_type, const char *stored_name, const char *engine,
                      const char *location);

/* Queues all of an owner's voicemail, fax and recordings in the object store for deletion. `text`,
 * `other_text` and `argument` become first_text, second_text and argument of the query. Copies in
 * caches stay for up to a day. -1 with errno: ENOBUFS without a location, ENOMEM, or EIO when the
 * queue cannot be written; what was queued before stays. */
int qx_storage_delete_extension(int second_id, const char *text, int first_id,
                                const char *other_text, void *argument);

SPOOLCAP_END_DECLARATIONS

#endif
