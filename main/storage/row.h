// The database row of a stored file. Internal to main/storage/.
#ifndef MAIN_STORAGE_ROW_H
#define MAIN_STORAGE_ROW_H

#include <string>

#include "main/storage/session.h"

// Writes into the row of a stored file where the file is. A failure or a missing row is only
// logged, as the file itself is stored.
void record_location(const qx_storage_session &session, int file_id, const std::string &name);

#endif
