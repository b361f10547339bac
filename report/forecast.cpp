// Fits a line to the figures of each account and kind, in seconds since the first state and bytes.
// In memory only; a figure that is not to be trusted takes no part.
#include "report/forecast.h"

#include <algorithm>

namespace {

constexpr std::int64_t a_day = 86400;
constexpr std::int64_t far_away = 36525 * a_day;  // a hundred years
// A line through two points fits them whatever they are.
constexpr std::uint32_t fewest_points = 3;

// States go from the best to the worst; what is behind `updated` is not to be trusted.
bool is_trusted(const report_account &account, unsigned kind) {
  return account.used[kind] >= 0 && account.states[kind] <= figure_state::updated;
}

// Whether one is the worse news.
bool is_sooner(const account_outlook &one, const account_outlook &other) {
  // The enum goes from the best to the worst news.
  if (one.outlook != other.outlook) return one.outlook > other.outlook;
  return one.outlook == outlook_kind::day && one.when < other.when;
}

}  // namespace

const char *name_of(outlook_kind outlook) {
  static constexpr const char *names[] = {"unknown", "does not grow", "beyond 100 years", "day",
                                          "reached"};
  return names[static_cast<size_t>(outlook)];
}

void line_fit::add(double x, double y) {
  // Means and sums are carried on point by point: large sums of squares would lose digits.
  ++count_;
  const double from_mean_x = x - mean_x_;
  mean_x_ += from_mean_x / count_;
  mean_y_ += (y - mean_y_) / count_;
  spread_ += from_mean_x * (x - mean_x_);
  common_ += from_mean_x * (y - mean_y_);
}

void forecast::add(const report_platform &state) {
  if (first_ < 0) first_ = state.taken;
  last_ = state.taken;
  const auto time = static_cast<double>(last_ - first_);
  for (const report_account &account : state.accounts) {
    account_lines &lines = lines_[account.id];
    for_each_of(all_kinds, [&](unsigned kind) {
      if (!is_trusted(account, kind)) return;
      lines.of_kind[kind].add(time, static_cast<double>(account.used[kind]));
    });
  }
}

account_outlook forecast::of_kind(const report_account &account, const line_fit &line,
                                  unsigned kind) const {
  const std::int64_t limit = account.limit[kind];
  if (limit < 0 || !is_trusted(account, kind)) return {};
  if (account.used[kind] >= limit) return {.outlook = outlook_kind::reached, .kind = kind};
  if (line.count() < fewest_points) return {};
  // Also keeps `meets` from dividing by zero.
  if (line.slope() <= 0) return {.outlook = outlook_kind::no_growth};
  // The line may say that it was yesterday, or long ago; the figure says that it was not.
  const double meets =
      std::max(line.meets(static_cast<double>(limit)), static_cast<double>(last_ - first_));
  if (meets > static_cast<double>(last_ - first_ + far_away)) return {.outlook = outlook_kind::far};
  return {.outlook = outlook_kind::day,
          .when = first_ + static_cast<std::int64_t>(meets),
          .kind = kind};
}

account_outlook forecast::of(const report_account &account, kind_set kinds) const {
  account_outlook soonest;
  const auto lines = lines_.find(account.id);
  if (lines == lines_.end()) return soonest;
  for_each_of(kinds, [&](unsigned kind) {
    const account_outlook outlook = of_kind(account, lines->second.of_kind[kind], kind);
    if (is_sooner(outlook, soonest)) soonest = outlook;
  });
  return soonest;
}
