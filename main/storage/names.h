// How a stored file is named after its owner. Internal to main/storage/.
#ifndef MAIN_STORAGE_NAMES_H
#define MAIN_STORAGE_NAMES_H

#include <string>

#include "main/account/media.h"

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
  return std::string(media_of_type(type).key_word) + "/" + owner_path(first_id, second_id);
}

#endif
