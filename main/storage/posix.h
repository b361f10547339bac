// Engine POSIX: files in local folders, one folder for each kind of media. Internal to
// main/storage/.
#ifndef MAIN_STORAGE_POSIX_H
#define MAIN_STORAGE_POSIX_H

#include <optional>
#include <string>

#include "main/storage/session.h"

// The folder of a kind, empty when it has none. New files grow in its sub-folder "tmp".
std::string posix_folder(const storage_config &config, int type);

// Sets the session's folder and temporary file; false, logged, when it cannot have them.
bool prepare_posix(const call_site &site, qx_storage_session &session);

// Moves the temporary file to its place. Nothing, logged, when it stays what it was.
std::optional<stored_file> store_posix(const call_site &site, qx_storage_session &session,
                                       int file_id);

// Finishes the session when the file is there; else false, logged.
bool fetch_posix(const call_site &site, qx_storage_session &session, const char *name);

// 0, or the error number, logged.
int delete_posix(const call_site &site, const storage_config &config, int type, const char *name);

#endif
