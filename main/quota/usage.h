// What one account uses of a kind: by itself, and through the accounts below it. Internal to the
// engine.
#ifndef MAIN_QUOTA_USAGE_H
#define MAIN_QUOTA_USAGE_H

#include <cstdint>
#include <optional>

#include "main/quota/folder.h"
#include "main/sql/query.h"

// An account that a refresh is at, and the one above it in the walk. Ids are decimal text as
// statements take them; null where there is none.
struct tree_account {
  const char *id;
  const char *parent_id;
  const char *grandparent_id;
  int level;
  const tree_account *above;
};

// A figure, and whether it is all there is. What could not be read counts as nothing in it.
struct usage {
  int64_t bytes = 0;
  bool certain = true;
};

// Bytes that the account itself uses of one kind.
usage own_usage(const tree_account &self, unsigned kind);

// Adds the children's values of one kind, as their files in the account's folder have them, to
// *sum; children without a readable file add nothing, and *certain becomes false when a file is
// there that could not be read. 0, or -1 when the children cannot be listed to the end.
int grab_child_quotas(const char *id, const char *parent_id, const char *grandparent_id,
                      unsigned kind, const quota_folder &folder, int64_t *sum, bool *certain);

// All rows of a statement that takes one id; null, logged in the name of `site`, when it fails. The
// session goes back as soon as they are stored: a walk holds a result on every level it is in, and
// never more than one session.
sql_result rows_of(const call_site &site, const char *statement, const char *id);

#endif
