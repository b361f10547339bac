// What a session under engine S3 knows: files go to an object store and come from there by way of
// the transfer service, the local cache and the queues. Internal to main/storage/.
#ifndef MAIN_STORAGE_S3_PART_H
#define MAIN_STORAGE_S3_PART_H

#include <mutex>
#include <string>
#include <utility>

// A request and its completion meet here, in either order; the second one gets the request, and
// ends it.
class fetch_request {
 public:
  // The request to release now, when its download has ended already; else null, and it is kept.
  void *started(void *request) {
    const std::lock_guard guard(lock_);
    if (done_) return request;
    request_ = request;
    return nullptr;
  }

  // The request to release now; null when `started` has yet to come with it.
  void *done() {
    const std::lock_guard guard(lock_);
    done_ = true;
    return std::exchange(request_, nullptr);
  }

 private:
  std::mutex lock_;  // guards all that follows
  void *request_ = nullptr;
  bool done_ = false;
};

// Shared by the caller's thread and the service's; see `download_request` for the meeting.
struct s3_fetch {
  std::string cache_path;  // where a download goes in the end
  fetch_request request;
};

#endif
