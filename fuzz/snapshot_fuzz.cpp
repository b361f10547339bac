// Snapshots: whatever the file holds, it is refused in words, or gives accounts that all of `diff`
// can work with.
#include <zstd.h>

#include <array>
#include <span>

#include "fuzz/fuzz.h"
#include "platform/base/utf8.h"
#include "report/changes.h"
#include "report/command.h"
#include "report/snapshot.h"

namespace {

std::string compressed(std::string_view document) {
  std::string content(ZSTD_compressBound(document.size()), '\0');
  content.resize(
      ZSTD_compress(content.data(), content.size(), document.data(), document.size(), 1));
  return content;
}

void check_accounts(const report_platform &platform) {
  const report_account *previous = nullptr;
  for (const report_account &account : platform.accounts) {
    REQUIRE(account.id > (previous == nullptr ? 0 : previous->id));
    REQUIRE(platform.find(account.id) == &account);
    REQUIRE(is_reported(account.level) && valid_utf8(account.login) == account.login);
    REQUIRE(age_of(account, platform.taken) >= -1);
    for_each_of(all_kinds, [&](unsigned kind) {
      REQUIRE(account.used[kind] >= -1 && account.limit[kind] >= -1 && account.updates[kind] >= 0);
    });
    previous = &account;
  }
}

// Of the same accounts on three days, which had half of it on the first.
void check_changes(std::span<report_platform> states) {
  for (report_account &account : states[0].accounts) {
    for (std::int64_t &used : account.used) used = used < 0 ? used : used / 2;
  }
  states[1].taken += 86400;
  states[2].taken += 172800;
  for (const account_change &one : compare(states[0], states[2], all_kinds)) {
    REQUIRE(one.change == change_kind::grew && one.growth > 0);
    const account_outlook outlook = outlook_of(one.account().id, states, all_kinds);
    REQUIRE(outlook.outlook != outlook_kind::day || outlook.when >= states[2].taken);
  }
  REQUIRE(compare(states[2], states[1], all_kinds).empty());
}

}  // namespace

// The file as it is, and as the document of one.
void check(std::string_view bytes) {
  static const fuzz::memory_file file;
  for (const std::string &content : {std::string(bytes), compressed(bytes)}) {
    file.assign(content);
    try {
      std::array<report_platform, 3> states;
      for (report_platform &state : states) state = read_snapshot(file.path());
      check_accounts(states[0]);
      check_changes(states);
    } catch (const report_trouble &trouble) {
      REQUIRE(std::string_view(trouble.what()).starts_with(file.path() + ": "));
    }
  }
}
