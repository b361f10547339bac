// What follows from the figures of an account, and lookups in the collected accounts.
// In memory only; nothing here asks the database or the disk.
#include "report/platform.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "platform/base/utf8.h"

const char *name_of(figure_state state) {
  static constexpr const char *names[figure_states] = {"measured", "updated", "dirty",
                                                       "redo",     "missing", "unreadable"};
  return names[static_cast<size_t>(state)];
}

bool is_reported(std::int64_t level) {
  return level == LEVEL_RESELLER || level == LEVEL_CLIENT || level == LEVEL_OWNER;
}

std::string_view keep_text(report_platform &platform, std::string_view text) {
  const std::string valid = valid_utf8(text);
  // One byte more, so that an empty login has an address and is no null view.
  auto *const kept = static_cast<char *>(platform.texts->allocate(valid.size() + 1, 1));
  std::copy(valid.begin(), valid.end(), kept);
  return {kept, valid.size()};
}

std::int64_t sum_of(std::int64_t left, std::int64_t right) {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  std::int64_t sum = 0;
  // The lowest is the negated highest, so that a sign can always be turned.
  if (__builtin_add_overflow(left, right, &sum)) return left < 0 ? -most : most;
  return std::max(sum, -most);
}

std::int64_t total_of(const report_account &account, kind_set kinds) {
  std::int64_t total = -1;
  for_each_of(kinds, [&](unsigned kind) {
    if (account.used[kind] >= 0) {
      total = sum_of(std::max<std::int64_t>(total, 0), account.used[kind]);
    }
  });
  return total;
}

std::optional<double> percent_of_kind(const report_account &account, unsigned kind) {
  if (account.used[kind] < 0 || account.limit[kind] < 0) return std::nullopt;
  const auto limit = static_cast<double>(std::max<std::int64_t>(account.limit[kind], 1));
  return static_cast<double>(account.used[kind]) / limit * 100;
}

double shown_percent(double percent) {
  return std::round(percent * 10) / 10;
}

std::string percent_text(std::optional<double> percent) {
  return percent ? fmt::format("{:.1f}", shown_percent(*percent)) : "";
}

std::optional<unsigned> fullest_kind(const report_account &account, kind_set kinds) {
  std::optional<unsigned> fullest;
  for_each_of(kinds, [&](unsigned kind) {
    const std::optional<double> percent = percent_of_kind(account, kind);
    // The first of equal ones, in the order of the kinds.
    if (percent && (!fullest || *percent > *percent_of_kind(account, *fullest))) fullest = kind;
  });
  return fullest;
}

std::optional<double> percent_of(const report_account &account, kind_set kinds) {
  const std::optional<unsigned> kind = fullest_kind(account, kinds);
  return kind ? percent_of_kind(account, *kind) : std::nullopt;
}

figure_state state_of(const report_account &account, kind_set kinds) {
  figure_state worst = figure_state::measured;
  for_each_of(kinds, [&](unsigned kind) { worst = std::max(worst, account.states[kind]); });
  return worst;
}

std::int64_t age_of(const report_account &account, std::int64_t taken, kind_set kinds) {
  std::int64_t oldest = -1;
  for_each_of(kinds, [&](unsigned kind) {
    const std::int64_t time = account.modified[kind];
    // A missing file has no age; its state shows that.
    if (time >= 0 && (oldest < 0 || time < oldest)) oldest = time;
  });
  return oldest < 0 ? -1 : std::max<std::int64_t>(taken - oldest, 0);
}

std::optional<std::uint32_t> report_platform::place_of(std::uint32_t id) const {
  // By the order of the ids, which the statement or the reader of snapshots saw to.
  const auto found = std::lower_bound(
      accounts.begin(), accounts.end(), id,
      [](const report_account &account, std::uint32_t wanted) { return account.id < wanted; });
  if (found == accounts.end() || found->id != id) return std::nullopt;
  return static_cast<std::uint32_t>(found - accounts.begin());
}

const report_account *report_platform::find(std::uint32_t id) const {
  const std::optional<std::uint32_t> place = place_of(id);
  return place ? &accounts[*place] : nullptr;
}

report_account *report_platform::find(std::uint32_t id) {
  return const_cast<report_account *>(std::as_const(*this).find(id));
}

std::span<const std::uint32_t> report_platform::children_of(std::uint32_t id) const {
  const auto first =
      std::partition_point(by_above.begin(), by_above.end(),
                           [&](std::uint32_t place) { return accounts[place].above < id; });
  const auto last = std::partition_point(
      first, by_above.end(), [&](std::uint32_t place) { return accounts[place].above == id; });
  return {first, last};
}
