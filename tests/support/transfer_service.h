// The transfer service of file storage for tests: real threads that download from a folder and
// upload to it, which plays the object store.
#ifndef TESTS_SUPPORT_TRANSFER_SERVICE_H
#define TESTS_SUPPORT_TRANSFER_SERVICE_H

#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <spoolcap/zarn_storage.h>
#include "tests/support/sandbox.h"

namespace support {

class transfer_service {
 public:
  enum class outcome {
    whole,
    cut_off,  // the first half arrives, then the download fails
    failed,   // before anything arrived
    refused   // no request at all
  };
  enum class moment {
    later,    // from a thread of its own
    at_once,  // before download() returned
    held      // from a thread of its own, not before let_go()
  };

  // Registers itself, in place of an earlier service.
  explicit transfer_service(const sandbox &box);
  // Completes what still runs; the test fails here for a request that was not released exactly
  // once, after its completion had begun. All sessions are released by then.
  ~transfer_service();

  // Switches for what is asked from now on.
  std::atomic<bool> usable{true};
  std::atomic<outcome> result{outcome::whole};
  std::atomic<moment> when{moment::later};
  std::atomic<int> slowness{0};                       // milliseconds between the halves of a file
  std::optional<std::string> location = "eu:bucket";  // change it while no call runs
  void let_go();

  // The last location query, "<type> <first id> <second id> <first text> <second text>", or
  // download, "<stored name> <shard> <engine> <extra>"; "-" for NULL.
  std::string last_asked() const;

  // Works off all uploads, then all deletions, each by its score; how many members it took.
  int work_off();
  std::atomic<int> told{0};  // how often it heard that something was queued
  std::function<void()> when_told = [] {};
  // An object of the store, by its key.
  std::string object(const std::string &key) const { return box_.path("store/" + key); }

 private:
  struct request {
    std::string object, path;
    qx_storage_done_fn done;
    void *cookie;
    bool completed = false;  // under mutex_, as the next
    int released = 0;
  };
  void complete(request &one, outcome how, bool held);

  const sandbox &box_;
  mutable std::mutex mutex_;
  std::promise<void> let_go_;
  std::shared_future<void> gone_on_ = let_go_.get_future().share();
  std::string last_asked_;
  std::deque<request> requests_;
  std::vector<std::thread> threads_;
};

}  // namespace support

#endif
