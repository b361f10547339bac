// What became of the accounts between two states of the platform, and where it leads.
#ifndef REPORT_CHANGES_H
#define REPORT_CHANGES_H

#include <cstdint>
#include <span>
#include <vector>

#include "report/platform.h"

enum class change_kind { came, went, moved, grew, shrank };
const char *name_of(change_kind change);

// The growth of a kind is known where its figure is known on both sides. An account that came or
// went has all of its use as its growth.
struct account_change {
  change_kind change = change_kind::grew;
  const report_account *before = nullptr;  // null for one that came
  const report_account *after = nullptr;   // null for one that went
  std::int64_t growth = 0;                 // of all kinds together, in bytes
  const report_account &account() const { return after != nullptr ? *after : *before; }
};

// The growth of one kind; nothing where it is not known.
std::optional<std::int64_t> growth_of(const account_change &change, unsigned kind);

// All accounts that changed, the greatest growth first. One that moved, so that another account is
// its parent, counts as moved whatever it grew; one whose use is the same is left out. The accounts
// of both sides are borrowed.
std::vector<account_change> compare(const report_platform &before, const report_platform &after,
                                    kind_set kinds);

enum class outlook_kind {
  unknown,    // no limit, or too few figures
  no_growth,  // the line through the figures does not rise
  far,        // not within a hundred years
  day,
  reached
};
const char *name_of(outlook_kind outlook);

struct account_outlook {
  outlook_kind outlook = outlook_kind::unknown;
  std::int64_t when = -1;  // seconds since the epoch, for `day`
  unsigned kind = 0;       // the first kind to reach its limit, for `day` and `reached`
};

// When the account reaches the first of its limits: where a straight line through its figures, by
// least squares, meets the limit that it has in the last state. Takes three states or more with a
// known figure. The states are in the order of their time.
account_outlook outlook_of(std::uint32_t id, std::span<const report_platform> states,
                           kind_set kinds);

#endif
