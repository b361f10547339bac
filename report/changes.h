// What became of the accounts between two states of the platform.
#ifndef REPORT_CHANGES_H
#define REPORT_CHANGES_H

#include <cstdint>
#include <vector>

#include "report/forecast.h"
#include "report/platform.h"

// Each account counts once: `moved` goes before growth.
enum class change_kind { came, went, moved, grew, shrank, same };
const char *name_of(change_kind change);

// The growth of a kind is known where its figure is known on both sides. An account that came or
// went has all of its use as its growth.
struct account_change {
  change_kind change = change_kind::same;
  const report_account *before = nullptr;  // null for one that came
  const report_account *after = nullptr;   // null for one that went
  std::int64_t growth = 0;                 // of all kinds together, in bytes
  account_outlook outlook = {};
  const report_account &account() const { return after != nullptr ? *after : *before; }
};

// The growth of one kind; nothing where it is not known.
std::optional<std::int64_t> growth_of(const account_change &change, unsigned kind);

// All accounts that changed, and those that reach a limit by the forecast, which may be null; the
// greatest growth first. One that moved, so that another account is its parent, counts as moved
// whatever it grew. The same is one whose kinds changed against each other, or not at all. The
// accounts of both sides are borrowed.
std::vector<account_change> compare(const report_platform &before, const report_platform &after,
                                    kind_set kinds, const forecast *outlooks = nullptr);

#endif
