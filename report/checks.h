// The parts of `check`. Each compares the collected accounts with one source of truth, reports
// what differs, and changes nothing. All throw report_trouble when the source cannot be read.
#ifndef REPORT_CHECKS_H
#define REPORT_CHECKS_H

#include <cstdint>
#include <filesystem>
#include <functional>

#include "report/findings.h"

// What the collected accounts say by themselves: accounts out of place, without files, with files
// that are no records, above a limit, and with an id that the four-digit rule cuts.
void check_accounts(const report_platform &platform, findings_writer &out);

// Figures beside sums over the tables, and those of a parent beside those of its children; and
// stored rows of no account. With `deep`, figures beside the disk, too, as
// `spoolcap --action set --all` measures it.
void check_figures(const report_platform &platform, bool deep, findings_writer &out);

// The quota directories: those of no account, and marks.
void check_quota_folders(const report_platform &platform, findings_writer &out);

// Rows of stored files beside the files, which are below `storage` and in the cache of the object
// store. What is in the object store only is not looked at.
void check_stored_files(const char *storage, findings_writer &out);

// The indexes that the statements of the command need.
void check_indexes(findings_writer &out);

// Visits what lies in a folder; nothing when there is no such folder.
void for_each_entry(
    const std::filesystem::path &folder,
    const std::function<void(const std::filesystem::directory_entry &entry)> &visit);

// Whether the master has an account of this id now: one that was made since the accounts were read
// is not missing.
bool exists_now(std::uint64_t id);

#endif
