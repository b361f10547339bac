// Internal to main/storage/.
#ifndef MAIN_STORAGE_ROW_H
#define MAIN_STORAGE_ROW_H

#include <string>

#include "main/storage/session.h"

// Says in the row of a stored file where the file is. A failure, also that there is no such row, is
// logged, and no more: the file is stored.
void record_location(const qx_storage_session &session, int file_id, const std::string &name);

#endif
