// Compares two states of the platform account by account.
#include "report/changes.h"

#include <algorithm>

namespace {

constexpr std::int64_t a_day = 86400;
constexpr std::int64_t far_away = 36525 * a_day;  // a hundred years
constexpr size_t fewest_points = 3;

change_kind kind_of(const account_change &change) {
  if (change.before == nullptr) return change_kind::came;
  if (change.after == nullptr) return change_kind::went;
  if (change.before->parent != change.after->parent) return change_kind::moved;
  return change.growth > 0 ? change_kind::grew : change_kind::shrank;
}

// Sums for a line through points, by least squares.
class line_fit {
 public:
  void add(double x, double y) {
    ++count_;
    x_ += x;
    y_ += y;
    xx_ += x * x;
    xy_ += x * y;
  }
  size_t count() const { return count_; }
  double slope() const {
    const double spread = n() * xx_ - x_ * x_;
    return spread > 0 ? (n() * xy_ - x_ * y_) / spread : 0;
  }
  // Where the line, which rises, is at this height.
  double meets(double y) const { return (y - (y_ - slope() * x_) / n()) / slope(); }

 private:
  double n() const { return static_cast<double>(count_); }
  size_t count_ = 0;
  double x_ = 0, y_ = 0, xx_ = 0, xy_ = 0;
};

account_outlook outlook_of_kind(std::span<const report_account *const> accounts,
                                std::span<const report_platform> states, unsigned kind) {
  const report_account &last = *accounts.back();
  const std::int64_t limit = last.limit[kind];
  if (limit < 0 || last.used[kind] < 0) return {};
  if (last.used[kind] >= limit) return {.outlook = outlook_kind::reached, .kind = kind};
  line_fit line;
  const std::int64_t start = states.front().taken;
  for (size_t i = 0; i < states.size(); ++i) {
    if (accounts[i] == nullptr || accounts[i]->used[kind] < 0) continue;
    line.add(static_cast<double>(states[i].taken - start),
             static_cast<double>(accounts[i]->used[kind]));
  }
  if (line.count() < fewest_points) return {};
  if (line.slope() <= 0) return {.outlook = outlook_kind::no_growth};
  const std::int64_t now = states.back().taken;
  // The line may say that it was yesterday, or long ago; the figure says that it was not.
  const double meets =
      std::max(line.meets(static_cast<double>(limit)), static_cast<double>(now - start));
  if (meets > static_cast<double>(now - start + far_away)) return {.outlook = outlook_kind::far};
  return {
      .outlook = outlook_kind::day, .when = start + static_cast<std::int64_t>(meets), .kind = kind};
}

// Whether one is the worse news.
bool is_sooner(const account_outlook &one, const account_outlook &other) {
  if (one.outlook != other.outlook) return one.outlook > other.outlook;
  return one.outlook == outlook_kind::day && one.when < other.when;
}

}  // namespace

const char *name_of(change_kind change) {
  static constexpr const char *names[] = {"came", "went", "moved", "grew", "shrank"};
  return names[static_cast<size_t>(change)];
}

const char *name_of(outlook_kind outlook) {
  static constexpr const char *names[] = {"unknown", "does not grow", "beyond 100 years", "day",
                                          "reached"};
  return names[static_cast<size_t>(outlook)];
}

std::optional<std::int64_t> growth_of(const account_change &change, unsigned kind) {
  const std::int64_t before = change.before == nullptr ? 0 : change.before->used[kind];
  const std::int64_t after = change.after == nullptr ? 0 : change.after->used[kind];
  if (before < 0 || after < 0) return std::nullopt;
  return after - before;
}

std::vector<account_change> compare(const report_platform &before, const report_platform &after,
                                    kind_set kinds) {
  std::vector<account_change> changes;
  const auto add = [&](const report_account *old_one, const report_account *new_one) {
    account_change change = {.before = old_one, .after = new_one};
    for_each_of(kinds, [&](unsigned kind) {
      change.growth = sum_of(change.growth, growth_of(change, kind).value_or(0));
    });
    change.change = kind_of(change);
    if (change.change != change_kind::shrank || change.growth < 0) changes.push_back(change);
  };
  auto old_one = before.accounts.begin();
  for (const report_account &account : after.accounts) {
    for (; old_one != before.accounts.end() && old_one->id < account.id; ++old_one) {
      add(&*old_one, nullptr);
    }
    const bool was = old_one != before.accounts.end() && old_one->id == account.id;
    add(was ? &*old_one++ : nullptr, &account);
  }
  for (; old_one != before.accounts.end(); ++old_one) add(&*old_one, nullptr);
  std::stable_sort(
      changes.begin(), changes.end(),
      [](const account_change &a, const account_change &b) { return a.growth > b.growth; });
  return changes;
}

account_outlook outlook_of(std::uint32_t id, std::span<const report_platform> states,
                           kind_set kinds) {
  std::vector<const report_account *> accounts;
  for (const report_platform &state : states) accounts.push_back(state.find(id));
  account_outlook soonest;
  if (accounts.back() == nullptr) return soonest;
  for_each_of(kinds, [&](unsigned kind) {
    const account_outlook outlook = outlook_of_kind(accounts, states, kind);
    if (is_sooner(outlook, soonest)) soonest = outlook;
  });
  return soonest;
}
