// The accounts of the platform at one moment: what they use, what they may use, and how far to
// trust the figures.
//
// Figures are bytes and times are seconds since the epoch; -1 stands for what is not known, and for
// no limit. Arrays are in the order of the kinds of media: QUOTA_FAX to QUOTA_MUSIC.
#ifndef REPORT_PLATFORM_H
#define REPORT_PLATFORM_H

#include <cstdint>
#include <deque>
#include <memory>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "main/quota/kinds.h"

// From the best to the worst.
enum class figure_state : std::uint8_t {
  measured,   // by a refresh, and not touched since
  updated,    // by quick updates since the refresh
  dirty,      // a quick update went wrong: not to be trusted
  redo,       // the refresh did not know all
  missing,    // there is no quota file
  unreadable  // there is one, but it holds no record or cannot be read
};
// For arrays with a slot for each state.
inline constexpr size_t figure_states = 6;

// As all formats write it; static.
const char *name_of(figure_state state);

// Whether the report is about accounts of this level.
bool is_reported(std::int64_t level);

// With its login and its place in `by_above`, some 200 bytes.
struct report_account {
  std::uint32_t id = 0;
  std::uint32_t parent = 0;  // as the database has it; 0 for none
  std::uint32_t above = 0;   // the parent if it is an account of a higher place, else 0
  int level = 0;             // LEVEL_RESELLER, LEVEL_CLIENT or LEVEL_OWNER
  figure_state states[QUOTA_ALL_KINDS] = {};
  std::string_view login;  // valid UTF-8 without NUL; a null view for an account without a login
  std::int64_t used[QUOTA_ALL_KINDS];
  std::int64_t limit[QUOTA_ALL_KINDS];
  std::int64_t modified[QUOTA_ALL_KINDS];  // when the quota file was written last
  std::int32_t updates[QUOTA_ALL_KINDS];   // quick updates since the last refresh
};

inline constexpr kind_set all_kinds = set_of(QUOTA_ALL_KINDS);

// Visits the kinds of a set in their order.
template <class Visit>
void for_each_of(kind_set kinds, Visit visit) {
  for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
    if ((kinds & set_of(kind)) != 0) visit(kind);
  }
}

// A sum of two figures that are known, or of two growths. Ends at the highest number there is, and
// at the lowest that has a positive one beside it.
std::int64_t sum_of(std::int64_t left, std::int64_t right);

// What follows is about the kinds of a set.

// The sum of what is known; -1 when nothing is.
std::int64_t total_of(const report_account &account, kind_set kinds = all_kinds);

// What is used of a limit, in percent. A limit of 0 counts as one byte. Nothing without a figure or
// a limit.
std::optional<double> percent_of_kind(const report_account &account, unsigned kind);

// Rounded to the one decimal that is shown: 100.04 is above a limit, and appears as 100.0.
double shown_percent(double percent);

// With one decimal; empty for nothing.
std::string percent_text(std::optional<double> percent);

// The kind with the highest percentage; nothing when there is none with a limit and a figure.
std::optional<unsigned> fullest_kind(const report_account &account, kind_set kinds = all_kinds);

// The highest percentage.
std::optional<double> percent_of(const report_account &account, kind_set kinds = all_kinds);

// The worst state.
figure_state state_of(const report_account &account, kind_set kinds = all_kinds);

// Seconds since the oldest file was written, at the time `taken`; -1 when there is no file. Not
// below 0, whatever the clocks say.
std::int64_t age_of(const report_account &account, std::int64_t taken, kind_set kinds = all_kinds);

// Collected once and then only read. It can be moved, not copied: logins point into `texts`.
struct report_platform {
  std::string host;
  std::int64_t taken = 0;
  std::deque<report_account> accounts;  // in the order of their ids
  std::vector<std::uint32_t> by_above;  // places in `accounts`, by `above` and then by id
  // Holds the logins.
  std::unique_ptr<std::pmr::monotonic_buffer_resource> texts;

  // The place in `accounts`; nothing when there is no such account.
  std::optional<std::uint32_t> place_of(std::uint32_t id) const;
  // Null when there is no such account.
  report_account *find(std::uint32_t id);
  const report_account *find(std::uint32_t id) const;

  // Places of the accounts right below one, by id; for 0 those with nothing above them, which are
  // the resellers and what is out of place. Going down from there meets each account once, on three
  // levels at most.
  std::span<const std::uint32_t> children_of(std::uint32_t id) const;
};

// Keeps a login in the platform, as it has to be: U+FFFD stands for NUL and for what is no UTF-8.
std::string_view keep_text(report_platform &platform, std::string_view text);

// Reads accounts, limits and quota files. Throws report_trouble when the platform cannot be read.
report_platform collect();

#endif
