// Snapshots: whatever the file holds, it is refused in words, or gives accounts that all of `diff`
// can work with.
#include <zstd.h>

#include <array>
#include <span>

#include "fuzz/fuzz.h"
#include "platform/base/utf8.h"
#include "report/changes.h"
#include "report/command.h"
#include "report/json.h"
#include "report/snapshot.h"

namespace {

std::string compressed(std::string_view document) {
  std::string content(ZSTD_compressBound(document.size()), '\0');
  content.resize(
      ZSTD_compress(content.data(), content.size(), document.data(), document.size(), 1));
  return content;
}

std::string document_of(const report_platform &platform) {
  char *text = nullptr;
  size_t size = 0;
  c_file stream(::open_memstream(&text, &size));
  write_document(stream.get(), platform, [&](const auto &visit) {
    for (const report_account &account : platform.accounts) visit(account);
  });
  stream.reset();
  const c_string owned(text);
  return {text, size};
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

// A snapshot of what was read is the same.
void check_copy(const report_platform &platform, const fuzz::memory_file &file) {
  const std::string document = document_of(platform);
  file.assign(compressed(document));
  REQUIRE(document_of(read_snapshot(file.path())) == document);
}

// Of the same accounts on three days, which had half of it on the first.
void check_changes(std::span<report_platform> states) {
  for (report_account &account : states[0].accounts) {
    for (std::int64_t &used : account.used) used = used < 0 ? used : used / 2;
  }
  states[1].taken += 86400;
  states[2].taken += 172800;
  forecast outlooks;
  for (const report_platform &state : states) outlooks.add(state);
  for (const account_change &one : compare(states[0], states[2], all_kinds, &outlooks)) {
    const account_outlook &outlook = one.outlook;
    REQUIRE(one.growth > 0 || outlook.outlook >= outlook_kind::day);
    REQUIRE(one.change == (one.growth > 0 ? change_kind::grew : change_kind::same));
    REQUIRE(outlook.outlook != outlook_kind::day || outlook.when >= states[2].taken);
  }
  REQUIRE(compare(states[2], states[1], all_kinds).empty());
}

}  // namespace

// The input as a whole file, and as the document of one.
void check(std::string_view bytes) {
  static const fuzz::memory_file file;
  for (const std::string &content : {std::string(bytes), compressed(bytes)}) {
    file.assign(content);
    try {
      std::array<report_platform, 3> states;
      for (report_platform &state : states) state = read_snapshot(file.path());
      check_accounts(states[0]);
      check_copy(states[0], file);
      check_changes(states);
    } catch (const report_trouble &trouble) {
      REQUIRE(std::string_view(trouble.what()).starts_with(file.path() + ": "));
    }
  }
}
