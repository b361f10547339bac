// Snapshots: the document of all accounts, as json.h writes it, in a compressed file.
#ifndef REPORT_SNAPSHOT_H
#define REPORT_SNAPSHOT_H

#include <string>

#include "report/platform.h"

// Reads one back. Times of files are known as their age only, so `modified` is the same for all
// kinds of an account, and `by_above` stays empty. Throws report_trouble, with the path and what
// is wrong: no snapshot, cut off, damaged, or of a newer version.
report_platform read_snapshot(const std::string &path);

#endif
