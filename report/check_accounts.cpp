// Findings that need nothing but the collected accounts.
// Reads nothing by itself.
#include "report/checks.h"

namespace {

// A refresh takes the last four digits of a reseller's id, and finds another account.
constexpr std::uint32_t highest_of_four_digits = 9999;

void check_kind(const report_account &account, unsigned kind, findings_writer &out) {
  finding one = {.name = "", .account = &account, .kind = kind};
  if (account.states[kind] == figure_state::missing) one.name = "account_without_file";
  if (account.states[kind] == figure_state::unreadable) one.name = "no_record";
  if (*one.name != '\0') out.add(one);
  // An unknown figure is -1 and above no limit.
  if (account.limit[kind] < 0 || account.used[kind] <= account.limit[kind]) return;
  one.name = "over_limit";
  one.found = account.used[kind];
  one.expected = account.limit[kind];
  out.add(one);
}

}  // namespace

void check_accounts(const report_platform &platform, findings_writer &out) {
  for (const report_account &account : platform.accounts) {
    const bool is_reseller = account.level == LEVEL_RESELLER;
    if (is_reseller && account.id > highest_of_four_digits) {
      out.add({.name = "id_is_cut", .account = &account});
    }
    if (!is_reseller && account.above == 0) {
      out.add({.name = "account_out_of_place", .account = &account});
      continue;  // it can have no files
    }
    for_each_of(all_kinds, [&](unsigned kind) { check_kind(account, kind, out); });
  }
}
