// Engine S3: files in an object store, by way of the transfer service, the local cache and the
// queues. Internal to main/storage/.
#ifndef MAIN_STORAGE_S3_H
#define MAIN_STORAGE_S3_H

#include <optional>

#include "main/storage/session.h"

// Makes the session's temporary file; false, logged, when it cannot have it.
bool prepare_s3(qx_storage_session &session);

// Copies the temporary file into the cache and queues its upload. Nothing, logged, when it is not
// stored.
std::optional<stored_file> store_s3(const call_site &site, qx_storage_session &session,
                                    int file_id);

// Finishes the session with the file of the cache, or starts a download that does. False, logged,
// when neither can be; a download that the service refuses finishes the session as failed.
bool fetch_s3(const call_site &site, qx_storage_session &session, const char *name,
              const char *extra);

// 0, or the error number, logged.
int delete_s3(const call_site &site, const storage_config &config, const char *name,
              const char *location);

#endif
