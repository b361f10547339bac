// A list of changes as a table, as JSON, or as lines of separated values.
#ifndef REPORT_CHANGE_LIST_H
#define REPORT_CHANGE_LIST_H

#include <cstdio>
#include <span>

#include "report/changes.h"
#include "report/separated.h"

struct change_list {
  std::span<const report_platform> states;  // two or more, the oldest first
  std::span<const account_change> changes;  // between the first and the last of them
  kind_set kinds = all_kinds;
  const report_platform &before() const { return states.front(); }
  const report_platform &after() const { return states.back(); }
  bool has_outlook() const { return states.size() > 2; }
};

// docs/report.md has the members and columns; the outlook is among them with three states or more.
void write_changes_json(FILE *stream, const change_list &list);
void write_changes_lines(FILE *stream, const change_list &list);  // one change object a line
void write_changes_separated(FILE *stream, separated_format format, const change_list &list);
void write_changes_table(FILE *stream, const change_list &list, bool human);

#endif
