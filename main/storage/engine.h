// The engines that keep stored files, as entries of a table. A session chooses its own once, when
// it starts. Internal to main/storage/.
#ifndef MAIN_STORAGE_ENGINE_H
#define MAIN_STORAGE_ENGINE_H

#include <optional>
#include <string>

#include <spoolcap/zarn_storage.h>
#include "platform/base/diagnostics.h"

struct storage_config;
struct storage_snapshot;

// A file that was stored: where it is, and the name that it goes by in its engine.
struct stored_file {
  std::string path;
  std::string name;
};

// Each operation logs its failures, unless it says otherwise.
struct storage_engine {
  const char *word;     // in the configuration, in rows, and from callers
  bool needs_location;  // a file without a location text cannot be stored, and never was
  bool is_name_in_row;  // its files are found through their rows

  // Makes what all sessions share. 0, or -1, not logged.
  int (*initialize)();

  // The engine that new files go to: this one, or the one that stands in while it is not usable.
  const storage_engine &(*choose)(const call_site &site, const storage_snapshot &now);

  // Makes the session's temporary file.
  bool (*prepare)(const call_site &site, qx_storage_session &session);

  // Brings the temporary file to its place. Nothing when it stays what it was.
  std::optional<stored_file> (*store)(const call_site &site, qx_storage_session &session,
                                      int file_id);

  // Finishes the session, or starts what will finish it. False when it can do neither.
  bool (*fetch)(const call_site &site, qx_storage_session &session, const char *name,
                const char *extra);

  // Removes a stored file. 0, or the error number.
  int (*remove)(const call_site &site, const storage_config &config, int type, const char *name,
                const char *location);
};

// The rows of the table, each defined in the source file of its engine.
extern const storage_engine posix_engine;
extern const storage_engine s3_engine;

// The engine of a caller's word, in any case; POSIX for NULL, null when there is none.
const storage_engine *engine_of(const char *word);

// The engine that the configuration names; POSIX unless it is the exact word of another one.
const storage_engine &configured_engine(const char *word);

#endif
