// The kinds of media, and how a file is named after its owner. Internal to main/storage/.
#ifndef MAIN_STORAGE_KINDS_H
#define MAIN_STORAGE_KINDS_H

#include <string>

#include <spoolcap/zarn_storage.h>

struct resource_kind {
  int type;
  const char *name;
  const char *key_word;  // the first word of an object key
  const char *table;     // NULL for a kind that has no rows
  const char *column;    // of the file's name
};

inline constexpr resource_kind resource_kinds[] = {
    {QX_STORAGE_RECORDING, "recording", "rc", "extension_recording", "filename"},
    {QX_STORAGE_VOICEMAIL, "voicemail", "vm", "extension_voicemail", "filename"},
    {QX_STORAGE_FAX, "fax", "fx", "extension_fax_center", "file_name"},
};
inline constexpr resource_kind misc_kind = {0, "misc", "misc", nullptr, nullptr};

constexpr const resource_kind &kind_of(int type) {
  for (const resource_kind &kind : resource_kinds) {
    if (kind.type == type) return kind;
  }
  return misc_kind;
}

// "<first id>/<second id>", and below it "<file id>.<extension>", which keeps its dot when there is
// no extension.
inline std::string owner_path(int first_id, int second_id) {
  return std::to_string(first_id) + "/" + std::to_string(second_id);
}
inline std::string owned_file(int first_id, int second_id, int file_id,
                              const std::string &extension) {
  return owner_path(first_id, second_id) + "/" + std::to_string(file_id) + "." + extension;
}

// Key of an owner's files in the object store.
inline std::string prefix_key(int type, int first_id, int second_id) {
  return std::string(kind_of(type).key_word) + "/" + owner_path(first_id, second_id);
}

#endif
