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

// Users must be below clients, clients below resellers, and resellers below no account.
bool is_in_place(const report_platform &platform, const report_account &account) {
  const report_account *const parent = platform.find(account.parent);
  switch (account.level) {
    case LEVEL_RESELLER:
      return parent == nullptr;
    case LEVEL_CLIENT:
      return parent != nullptr && parent->level == LEVEL_RESELLER;
    default:
      return parent != nullptr && parent->level == LEVEL_CLIENT;
  }
}

// Quota files are found from the resellers down.
bool can_have_files(const report_platform &platform, const report_account &account) {
  const report_account *top = &account;
  while (top->above != 0) top = platform.find(top->above);
  return top->level == LEVEL_RESELLER;
}

}  // namespace

void check_accounts(const report_platform &platform, findings_writer &out) {
  for (const report_account &account : platform.accounts) {
    if (account.level == LEVEL_RESELLER && account.id > highest_of_four_digits) {
      out.add({.name = "id_is_cut", .account = &account});
    }
    if (!is_in_place(platform, account)) {
      out.add({.name = "account_out_of_place", .account = &account});
    }
    if (!can_have_files(platform, account)) continue;
    for_each_of(all_kinds, [&](unsigned kind) { check_kind(account, kind, out); });
  }
}
