// The names of stored files, and what they may have. Internal to main/storage/ and to the transfer
// service.
#ifndef MAIN_STORAGE_NAMES_H
#define MAIN_STORAGE_NAMES_H

#include <string>
#include <string_view>

#include "main/account/media.h"

// The part of the platform that all files belong to: a folder of the transfer-out directory and of
// the cache, and the end of the queues' names.
inline constexpr char storage_shard[] = "main";

// The word of the engine S3, which the names of its queues have, too.
inline constexpr char s3_word[] = "s3";

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
// "vm/7/112", without a slash at the end.
inline std::string prefix_key(int type, int first_id, int second_id) {
  return std::string(media_of_type(type).key_word) + "/" + owner_path(first_id, second_id);
}

// Whether a name leads out of the folder that it is taken to be in.
bool has_parent_component(std::string_view name);

// Whether it has a ":", which separates the parts of a queue's member, or a control byte.
bool has_reserved_byte(std::string_view name);

// Whether it can be the key of an object, and so the path of a file in the cache.
bool is_object_key(std::string_view name);

#endif
