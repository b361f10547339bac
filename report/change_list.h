// A list of changes as a table, as JSON, or as lines of separated values.
#ifndef REPORT_CHANGE_LIST_H
#define REPORT_CHANGE_LIST_H

#include <cstdio>
#include <span>

#include "report/changes.h"
#include "report/separated.h"

// Borrows everything; the states must outlive it, as changes point into them.
struct change_list {
  const report_platform &before, &after;
  std::span<const account_change> changes;  // between the two
  kind_set kinds = all_kinds;
  bool has_outlook = false;
};

// docs/report.md has the members and columns; the outlook is among them if there is one.
void write_changes_json(FILE *stream, const change_list &list);
void write_changes_lines(FILE *stream, const change_list &list);  // one change object a line
void write_changes_separated(FILE *stream, separated_format format, const change_list &list);
// With `human`, sizes and ages in units.
void write_changes_table(FILE *stream, const change_list &list, bool human);

#endif
