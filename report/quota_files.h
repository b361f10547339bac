// Reads the quota files of the collected accounts, as the engine places and reads them.
#ifndef REPORT_QUOTA_FILES_H
#define REPORT_QUOTA_FILES_H

#include "report/platform.h"

// Fills figures, states and times of the accounts that have files; the others stay unchanged. An
// account without a reseller above it has no place in the tree, and so no files. Throws
// report_trouble when the quota root cannot be read.
void read_quota_files(report_platform &platform);

#endif
