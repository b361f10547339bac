// Filters and sorts places, not accounts.
// In memory only: places are four bytes each, accounts much more.
#include "report/choice.h"

#include <algorithm>
#include <functional>

#include "report/command.h"

namespace {

using less_account = std::function<bool(const report_account &, const report_account &)>;

// Ids and logins begin with the lowest, all else with the highest.
less_account order_of(const list_choice &choice) {
  const kind_set kinds = choice.kinds;
  const auto highest_first = [](auto value) -> less_account {
    return [value](const report_account &left, const report_account &right) {
      const auto left_value = value(left);
      const auto right_value = value(right);
      // The id decides between equals, so that two runs give one order.
      return left_value != right_value ? left_value > right_value : left.id < right.id;
    };
  };
  switch (choice.sort) {
    case sort_key::login:
      return [](const report_account &left, const report_account &right) {
        return left.login != right.login ? left.login < right.login : left.id < right.id;
      };
    case sort_key::used:
      return highest_first([kinds](const report_account &one) { return total_of(one, kinds); });
    case sort_key::percent:
      return highest_first([kinds](const report_account &one) { return percent_of(one, kinds); });
    case sort_key::age: {
      // The highest age at any one moment.
      constexpr std::int64_t late = std::int64_t{1} << 60U;
      return highest_first([kinds](const report_account &one) { return age_of(one, late, kinds); });
    }
    case sort_key::id:
      break;
  }
  return [](const report_account &left, const report_account &right) { return left.id < right.id; };
}

bool passes(const report_account &account, const list_choice &choice) {
  const std::vector<int> &levels = choice.levels;
  if (!levels.empty() && std::find(levels.begin(), levels.end(), account.level) == levels.end()) {
    return false;
  }
  // No percentage is less than any.
  return !choice.over || percent_of(account, choice.kinds) > choice.over;
}

// Siblings in their order, each with all below it.
void add_tree(const report_platform &platform, const less_account &less,
              std::span<const std::uint32_t> places, std::uint32_t depth,
              std::vector<chosen_account> &found) {
  std::vector<std::uint32_t> siblings(places.begin(), places.end());
  std::sort(siblings.begin(), siblings.end(), [&](std::uint32_t left, std::uint32_t right) {
    return less(platform.accounts[left], platform.accounts[right]);
  });
  for (const std::uint32_t place : siblings) {
    // Three levels at most, so the recursion is not deep.
    found.push_back({place, depth});
    add_tree(platform, less, platform.children_of(platform.accounts[place].id), depth + 1, found);
  }
}

}  // namespace

std::vector<chosen_account> choose(const report_platform &platform, const list_choice &choice) {
  const auto &accounts = platform.accounts;
  const less_account less = order_of(choice);
  std::vector<chosen_account> found;
  if (choice.under != 0) {
    const std::optional<std::uint32_t> place = platform.place_of(choice.under);
    if (!place) throw report_trouble("There is no account " + std::to_string(choice.under));
    add_tree(platform, less, {&*place, 1}, 0, found);
  } else if (choice.tree) {
    add_tree(platform, less, platform.children_of(0), 0, found);
  } else {
    for (std::uint32_t place = 0; place < accounts.size(); ++place) found.push_back({place, 0});
  }
  // After the tree was made: a parent that is filtered out does not take its children along.
  std::erase_if(found,
                [&](const chosen_account &one) { return !passes(accounts[one.place], choice); });
  if (choice.tree) return found;
  std::sort(found.begin(), found.end(),
            [&](const chosen_account &left, const chosen_account &right) {
              return less(accounts[left.place], accounts[right.place]);
            });
  if (choice.top != 0 && found.size() > choice.top) found.resize(choice.top);
  return found;
}
