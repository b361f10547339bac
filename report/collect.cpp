// Collects accounts and limits by one statement each, and then their quota files.
// The only code of the report that knows the tables of accounts.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <iterator>
#include <numeric>

#include "main/quota/limit.h"
#include "platform/base/utf8.h"
#include "report/platform.h"
#include "report/quota_files.h"
#include "report/statement.h"

namespace {

// In the order of the primary key, so that the server sorts nothing.
constexpr char select_accounts[] =
    "SELECT client.id, client.parent_client_id, client.level, acc.username FROM client LEFT JOIN "
    "hs_account acc ON acc.userID = client.id ORDER BY client.id";

// Sorted by account, so that each is looked up once.
std::string select_limits() {
  std::string names;
  for (const media_kind &kind : media_kinds) {
    if (!names.empty()) names += ", ";
    names += std::string("'") + kind.limit + "'";
  }
  return "SELECT client_id, param, value FROM client_prefs WHERE param IN (" + names +
         ") ORDER BY client_id";
}

void take_account(report_platform &platform, const sql_fields &row) {
  const auto id = static_cast<std::uint32_t>(number_of(row[0]));
  const std::int64_t level = number_of(row[2]);
  // Accounts of other levels have no quota files.
  if (id == 0 || !row[2] || !is_reported(level)) return;
  // The first of several logins counts.
  if (!platform.accounts.empty() && platform.accounts.back().id == id) return;
  report_account &account = platform.accounts.emplace_back();
  account.id = id;
  account.parent = static_cast<std::uint32_t>(number_of(row[1]));
  account.level = static_cast<int>(level);
  if (row[3]) account.login = keep_text(platform, *row[3]);
  // What no quota file says stays so: missing, and nothing known.
  std::fill(std::begin(account.states), std::end(account.states), figure_state::missing);
  for (auto *figures : {account.used, account.limit, account.modified}) {
    std::fill_n(figures, QUOTA_ALL_KINDS, -1);
  }
  std::fill(std::begin(account.updates), std::end(account.updates), -1);
}

void take_limit(report_account &account, const sql_fields &row) {
  if (!row[1] || !row[2]) return;
  const auto *const kind =
      std::find_if(std::begin(media_kinds), std::end(media_kinds),
                   [&](const media_kind &one) { return *row[1] == one.limit; });
  if (kind == std::end(media_kinds)) return;
  account.limit[kind - std::begin(media_kinds)] =
      // The client library puts a NUL behind each column. Any negative limit is none.
      std::max<std::int64_t>(limit_in_bytes(row[2]->data()), -1);
}

void read_limits(report_platform &platform, SessionHandle session) {
  report_account *account = nullptr;
  for_each_row(session, select_limits(), [&](const sql_fields &row) {
    const auto id = static_cast<std::uint32_t>(number_of(row[0]));
    // Skips preferences of accounts that are not reported.
    if (account == nullptr || account->id != id) account = platform.find(id);
    if (account != nullptr) take_limit(*account, row);
  });
}

// Levels rise on the way down; what says otherwise has nothing above it.
void arrange(report_platform &platform) {
  std::deque<report_account> &accounts = platform.accounts;
  for (report_account &account : accounts) {
    const report_account *parent = platform.find(account.parent);
    if (parent != nullptr && parent->level < account.level) account.above = account.parent;
  }
  platform.by_above.resize(accounts.size());
  std::iota(platform.by_above.begin(), platform.by_above.end(), 0);
  // Stable: children of one account stay sorted by their ids.
  std::stable_sort(platform.by_above.begin(), platform.by_above.end(),
                   [&](std::uint32_t left, std::uint32_t right) {
                     return accounts[left].above < accounts[right].above;
                   });
}

std::string name_of_host() {
  char name[HOST_NAME_MAX + 1] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? valid_utf8(name) : "";
}

}  // namespace

report_platform collect() {
  report_platform platform;
  platform.host = name_of_host();
  platform.texts = std::make_unique<std::pmr::monotonic_buffer_resource>();
  const report_session session;
  for_each_row(session.get(), select_accounts,
               [&](const sql_fields &row) { take_account(platform, row); });
  read_limits(platform, session.get());
  arrange(platform);
  read_quota_files(platform);
  // After the files, so that none of them is younger than the report.
  platform.taken = std::time(nullptr);
  return platform;
}
