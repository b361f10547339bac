// The kinds of media, and what each is called by the parts of the platform that deal with it.
#ifndef MAIN_ACCOUNT_MEDIA_H
#define MAIN_ACCOUNT_MEDIA_H

#include <algorithm>
#include <iterator>

#include <spoolcap/kinds.h>

// The rows of stored files. Null texts for a kind that lies on disk only.
struct media_rows {
  const char *table = nullptr;
  const char *extension = nullptr;  // an expression that gives the file's extension
  const char *filename = nullptr;   // the column of the file's name
};

// All texts are static. Other modules index the table with the kind as a number.
struct media_kind {
  const char *name;
  const char *quota_file;         // of an account's usage, in the account's quota directory
  const char *limit;              // preference with the limit in KiB
  const char *label;              // in the report
  const char *folder;             // of the files on disk
  int storage_type = 0;           // QX_STORAGE_..., 0 for a kind that file storage does not keep
  const char *key_word = "misc";  // the first word of an object key
  media_rows rows = {};
};

// In the order of QUOTA_FAX to QUOTA_MUSIC.
inline constexpr media_kind media_kinds[QUOTA_ALL_KINDS] = {
    {.name = "fax",
     .quota_file = "fax.quota",
     .limit = "fax_storage",
     .label = "Fax",
     .folder = "fax",
     .storage_type = QX_STORAGE_FAX,
     .key_word = "fx",
     .rows = {"extension_fax_center", "\"pdf\"", "file_name"}},
    {.name = "sound",
     .quota_file = "sound.quota",
     .limit = "max_sound",
     .label = "Sounds",
     .folder = "sounds"},
    {.name = "recording",
     .quota_file = "recording.quota",
     .limit = "max_record",
     .label = "Recording",
     .folder = "monitor",
     .storage_type = QX_STORAGE_RECORDING,
     .key_word = "rc",
     .rows = {"extension_recording", "ext", "filename"}},
    {.name = "voicemail",
     .quota_file = "voicemail.quota",
     .limit = "max_voice",
     .label = "Voicemail",
     .folder = "voicemail",
     .storage_type = QX_STORAGE_VOICEMAIL,
     .key_word = "vm",
     .rows = {"extension_voicemail", "ext", "filename"}},
    {.name = "music",
     .quota_file = "music.quota",
     .limit = "max_moh",
     .label = "Music on hold",
     .folder = "music"},
};

// The types that file storage keeps, in the order in which an owner's files are deleted.
inline constexpr int stored_types[] = {QX_STORAGE_VOICEMAIL, QX_STORAGE_FAX, QX_STORAGE_RECORDING};
static_assert(std::ranges::all_of(media_kinds, [](const media_kind &kind) {
  return kind.storage_type == 0 ||
         std::ranges::find(stored_types, kind.storage_type) != std::end(stored_types);
}));

// The kind of a resource type of file storage; for any other value one without folder and rows.
const media_kind &media_of_type(int storage_type);

// The rows of a table, compared ignoring case; those of most tables for one that is not known.
media_rows rows_of_table(const char *table);

#endif
