// Compares two states of the platform account by account.
// In memory only; both states are borrowed.
#include "report/changes.h"

#include <algorithm>

namespace {

change_kind kind_of(const account_change &change) {
  if (change.before == nullptr) return change_kind::came;
  if (change.after == nullptr) return change_kind::went;
  // Its figure counts elsewhere now, which matters more than what it grew.
  if (change.before->parent != change.after->parent) return change_kind::moved;
  if (change.growth == 0) return change_kind::same;
  return change.growth > 0 ? change_kind::grew : change_kind::shrank;
}

// Also what stayed the same in sum, if its kinds changed, became known or unknown, or it reaches a
// limit. The account is there on both sides.
bool is_listed(const account_change &change, kind_set kinds) {
  if (change.change != change_kind::same) return true;
  bool listed = change.outlook.outlook >= outlook_kind::day;
  for_each_of(kinds, [&](unsigned kind) {
    listed = listed || change.before->used[kind] != change.after->used[kind];
  });
  return listed;
}

}  // namespace

const char *name_of(change_kind change) {
  static constexpr const char *names[] = {"came", "went", "moved", "grew", "shrank", "same"};
  return names[static_cast<size_t>(change)];
}

std::optional<std::int64_t> growth_of(const account_change &change, unsigned kind) {
  const std::int64_t before = change.before == nullptr ? 0 : change.before->used[kind];
  const std::int64_t after = change.after == nullptr ? 0 : change.after->used[kind];
  if (before < 0 || after < 0) return std::nullopt;
  return after - before;
}

std::vector<account_change> compare(const report_platform &before, const report_platform &after,
                                    kind_set kinds, const forecast *outlooks) {
  std::vector<account_change> changes;
  const auto add = [&](const report_account *old_one, const report_account *new_one) {
    account_change change = {.before = old_one, .after = new_one};
    for_each_of(kinds, [&](unsigned kind) {
      // A kind that is unknown on one side is left out, or it would look like growth.
      change.growth = sum_of(change.growth, growth_of(change, kind).value_or(0));
    });
    change.change = kind_of(change);
    if (outlooks != nullptr && new_one != nullptr) change.outlook = outlooks->of(*new_one, kinds);
    if (is_listed(change, kinds)) changes.push_back(change);
  };
  // Both lists are sorted by id, so one pass over both finds the pairs.
  auto old_one = before.accounts.begin();
  for (const report_account &account : after.accounts) {
    for (; old_one != before.accounts.end() && old_one->id < account.id; ++old_one) {
      add(&*old_one, nullptr);
    }
    const bool was = old_one != before.accounts.end() && old_one->id == account.id;
    add(was ? &*old_one++ : nullptr, &account);
  }
  for (; old_one != before.accounts.end(); ++old_one) add(&*old_one, nullptr);
  // Stable: what grew alike stays in the order of the ids.
  std::stable_sort(
      changes.begin(), changes.end(),
      [](const account_change &a, const account_change &b) { return a.growth > b.growth; });
  return changes;
}
