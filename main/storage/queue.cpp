// Adds members to the queues of the transfer service.
// Writes to the DisDB through the cache client; reads nothing from it.
#include "main/storage/queue.h"

#include <cerrno>

#include <spoolcap/zarn_str.h>
#include "main/cache/client.h"
#include "main/storage/names.h"
#include "platform/base/text.h"

namespace {

// The engine's word and the shard make the names: "storage:upqueue:s3:main".
constexpr char upload_queue[] = "storage:upqueue:%s:%s";
constexpr char delete_queue[] = "storage:delqueue:%s:%s";

int add_to_queue(const call_site &site, const char *queue, const char *member) {
  const c_string key = format_text(queue, s3_word, storage_shard);
  if (!key) return ENOMEM;
  const bool is_queued =
      static_cast<bool>(cache_zaddval(site, key.get(), member, qx_get_tstamp(), QX_CACHE_NULL));
  return is_queued ? 0 : EIO;
}

}  // namespace

int queue_upload(const call_site &site, const char *location, const std::string &object_key) {
  const c_string member = format_text("%s:%s", location, object_key.c_str());
  if (!member) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Failed to allocate memory for member_key\n\n");
    return ENOMEM;
  }
  return add_to_queue(site, upload_queue, member.get());
}

int queue_deletion(const call_site &site, const char *location, const char *stored_name) {
  const c_string member = format_text("%s:o:%s", location, stored_name);
  if (!member) return ENOMEM;
  CACHE_LOG(site, "Adding member [%s] to delete queue.", member.get());
  return add_to_queue(site, delete_queue, member.get());
}

int queue_owner_deletion(const call_site &site, const char *location, int type, int first_id,
                         int second_id) {
  const std::string prefix = prefix_key(type, first_id, second_id);
  const c_string member = format_text("%s:r:%s", location, prefix.c_str());
  if (!member) return ENOMEM;
  CACHE_LOG(site, "Adding %s recursive member [%s] to delete queue.", media_of_type(type).name,
            member.get());
  return add_to_queue(site, delete_queue, member.get());
}
