// The queues of the transfer service, sorted sets of the cache scored by the time of queueing. The
// caller notifies the service of what it queued. Errors are error numbers: 0 success, EIO when the
// queue cannot be written, ENOMEM. Internal to main/storage/.
#ifndef MAIN_STORAGE_QUEUE_H
#define MAIN_STORAGE_QUEUE_H

#include <string>

#include "platform/base/diagnostics.h"

// Member "<location>:<key>". A second call renews its time and adds no second one.
int queue_upload(const call_site &site, const char *location, const std::string &object_key);

// One file.
int queue_deletion(const call_site &site, const char *location, const char *stored_name);

// All files of an owner that are of one kind.
int queue_owner_deletion(const call_site &site, const char *location, int type, int first_id,
                         int second_id);

#endif
