// What the engine's numbers stand for: levels of accounts, kinds of media. Internal to the engine.
#ifndef MAIN_QUOTA_KINDS_H
#define MAIN_QUOTA_KINDS_H

#include <spoolcap/quota.h>

// Levels of an account.
enum account_level { LEVEL_ROOT = 0, LEVEL_RESELLER = 10, LEVEL_CLIENT = 50, LEVEL_OWNER = 100 };

// One up to this level is the top when the tree is climbed.
inline constexpr int highest_top_level = 10;

// Names by kind: of the quota file, and of the limit preference (KiB).
inline constexpr const char *quota_kind_names[QUOTA_ALL_KINDS] = {"fax", "sound", "recording",
                                                                  "voicemail", "music"};
inline constexpr const char *quota_limit_names[QUOTA_ALL_KINDS] = {
    "fax_storage", "max_sound", "max_record", "max_voice", "max_moh"};

// By kind: the file of an account's usage in the account's quota directory.
inline constexpr const char *quota_file_names[QUOTA_ALL_KINDS] = {
    "fax.quota", "sound.quota", "recording.quota", "voicemail.quota", "music.quota"};

// A set of kinds, one bit each.
using kind_set = unsigned;

constexpr kind_set set_of(unsigned kind) {
  return kind == QUOTA_ALL_KINDS ? (1U << QUOTA_ALL_KINDS) - 1 : 1U << kind;
}

// Visits one kind, or all in their order, until a visit gives false; then false.
template <class Visit>
bool for_each_kind(unsigned kind, Visit visit) {
  const bool all = kind == QUOTA_ALL_KINDS;
  for (unsigned one = all ? 0 : kind; one < (all ? kind : kind + 1); ++one) {
    if (!visit(one)) return false;
  }
  return true;
}

#endif
