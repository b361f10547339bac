// Which of the accounts a list has, and in which order.
#ifndef REPORT_CHOICE_H
#define REPORT_CHOICE_H

#include "report/platform.h"

// In the order of the words of --sort; equal ones are sorted by their ids.
enum class sort_key { id, login, used, percent, age };

// What the options of `list` say; the default is all accounts by id.
struct list_choice {
  kind_set kinds = all_kinds;  // used, percentage and age are about these
  std::vector<int> levels;     // empty for all
  std::uint32_t under = 0;     // this account and all below it; 0 for all
  std::optional<double> over;  // a percentage above this one
  sort_key sort = sort_key::id;
  bool tree = false;  // children behind their parents, siblings sorted
  size_t top = 0;     // only the first N; 0 for all
};

struct chosen_account {
  std::uint32_t place;  // in the accounts of the platform
  std::uint32_t depth;  // below the first of its tree; means nothing without a tree
};

// Throws report_trouble when there is no account to be under.
std::vector<chosen_account> choose(const report_platform &platform, const list_choice &choice);

#endif
