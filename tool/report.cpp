// Reads the stored usage of the accounts and prints it.
// Reads by way of the engine; the texts are fixed, as programs read them.
#include "tool/report.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>

#include <spoolcap/quota.h>
#include "main/account/media.h"
#include "main/sql/query.h"
#include "platform/base/view.h"
#include "tool/notice.h"
#include "tool/output.h"
#include "tool/settings.h"
#include "tool/targets.h"

namespace {

// Without an order: the listing has always come as the database gives it.
constexpr char select_accounts[] =
    "SELECT client.id, acc.username FROM client, hs_account acc WHERE client.id = acc.userID";

// The longest display name is one longer and overflows the column; scripts know that form.
constexpr int name_width = 12;

// puts ends its line once more than the texts do: an empty line sets the next account off.
constexpr char no_quota[] = "Quota Not found\n";
constexpr char no_user[] = "User Not found\n";

void print_start(const char *login) {
  std::fputs("Quota for user ", stdout);
  print_login(login);
}

// Scales a byte count down by 1024 as often as it stays at least 1, and returns the result. Writes
// the unit to `unit`: at most two characters, "?B" from 1024 TB on.
float to_human_readable(char (&unit)[3], float bytes) {
  static constexpr const char *units[] = {"B", "KB", "MB", "GB", "TB", "?B"};
  unsigned scale = 0;
  for (; bytes / 1024.0F >= 1.0F; ++scale) bytes /= 1024.0F;
  std::snprintf(unit, sizeof unit, "%s", units[scale < 5 ? scale : 5]);
  return bytes;
}

// Counts go through single precision: 24 significant bits are plenty for two decimals of a unit.
void print_size(int64_t bytes) {
  if (run.human_flag != 0) {
    char unit[3];
    const float scaled = to_human_readable(unit, static_cast<float>(bytes));
    std::printf("%.2f %s\n", static_cast<double>(scaled), unit);
  } else {
    std::printf("%lld bytes\n", static_cast<long long>(bytes));
  }
}

// Display name of a kind; null for what is none.
const char *quota_get_target_name(unsigned kind) {
  return kind < QUOTA_ALL_KINDS ? media_kinds[kind].label : nullptr;
}

// Prints the total of the known counts of five kinds and then each kind, followed by an empty line;
// a negative count is not known. 0.
int print_quotas(const int64_t *quotas) {
  int64_t total = 0;
  for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
    // A damaged record may hold any number; the sum then wraps.
    if (quotas[kind] > 0) (void)__builtin_add_overflow(total, quotas[kind], &total);
  }
  print_size(total);
  for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
    std::printf("\t%-*s\t\t", name_width, quota_get_target_name(kind));
    if (quotas[kind] < 0) {
      std::puts("Not found");
    } else {
      print_size(quotas[kind]);
    }
  }
  std::putchar('\n');
  return 0;
}

// Programs that read the report know two forms. This listing puts one tab after the id, prints the
// id as the database has it, and reports an unknown account like one without quota. The listing of
// targets below differs in all three.
int show_all_accounts(SessionHandle session, fr_hash_t *targets) {
  sql_result rows;
  const call_site site = {QX_LOG_SOURCE, "show_quotas", __LINE__};
  if (sql_query(site, session, rows, select_accounts) != 0) {
    if (has_lacked_memory(session)) throw std::bad_alloc();
    return -1;
  }
  if (rows == nullptr) {
    log_condition_failed(site);
    return -1;
  }
  while (MYSQL_ROW row = mysql_fetch_row(rows.get())) {
    if (is_empty(row[0]) || is_empty(row[1])) continue;
    print_start(row[1]);
    std::printf(" (with id: %s)\t", row[0]);
    // Before the figures are read: a full disk or a closed pipe ends the run soon.
    if (has_lost_output()) break;
    int64_t quotas[QUOTA_ALL_KINDS];
    if (quota_read_sql(std::atoi(row[0]), QUOTA_ALL_KINDS, quotas, nullptr) < 0) {
      std::puts(no_quota);
    } else {
      count_shown(targets, std::atoi(row[0]), quotas);
      print_quotas(quotas);
    }
    if (has_lost_output()) break;
  }
  return 0;
}

void show_target(fr_hash_t *targets, int32_t id, const target_record &target) {
  if (has_lost_output()) return;
  print_start(target.login);
  std::printf(" (with id: %d)\t\t", id);
  if (has_lost_output()) return;
  int64_t quotas[QUOTA_ALL_KINDS];
  switch (quota_read_sql(id, QUOTA_ALL_KINDS, quotas, nullptr)) {
    case -1:
      std::puts(no_quota);
      break;
    case -2:
      std::puts(no_user);
      break;
    default:
      count_shown(targets, id, quotas);
      print_quotas(quotas);
  }
  has_lost_output();
}

}  // namespace

int show_quotas(fr_hash_t *targets) {
  errno = 0;
  const sql_session session;
  if (!session) {
    if (errno == ENOMEM) throw std::bad_alloc();
    return -1;
  }
  if (run.target_mode == TARGET_ALL) return show_all_accounts(session.get(), targets);
  for_each_target(targets, [targets](int32_t id, const target_record &target) {
    show_target(targets, id, target);
  });
  return 0;
}
