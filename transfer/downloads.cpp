// Keeps the orders of hosts, one transfer for all orders of an object.
// Threads of its own; writes into the files that hosts have opened.
#include "transfer/downloads.h"

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <list>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "main/storage/copy_content.h"
#include "main/storage/names.h"
#include "platform/base/diagnostics.h"
#include "transfer/fetch.h"

namespace {

// One object for all orders of it; it grows in the file of the first.
// A thread has it while it tries; between tries it is in `due_`. The orders are under the lock.
struct transfer {
  std::string name;  // "<location text>:<key>"
  object_fetch fetch;
  int target;  // of the first order
  std::list<download_order> orders;
  bool is_joined = false;  // by another order since the last try
};

}  // namespace

class transfer_downloads::engine {
 public:
  engine(transfer_queue &queue, transfer_locations &locations, transfer_state &state,
         s3_control &control)
      : queue_(queue), locations_(locations), state_(state), control_(control) {}

  void start(int at_once, int wait);
  void order(download_order what);
  void stop();

 private:
  using transfer_pointer = std::shared_ptr<transfer>;

  void work();
  transfer_pointer next();
  void run(const transfer_pointer &what);
  void fail(const transfer_pointer &what, const char *reason);
  bool prepare(const transfer_pointer &what);
  std::list<download_order> close(const transfer_pointer &what);
  void deliver(transfer &what, const std::list<download_order> &orders);

  transfer_queue &queue_;
  transfer_locations &locations_;
  transfer_state &state_;
  s3_control &control_;
  std::vector<std::thread> threads_;

  std::mutex lock_;  // guards all that follows, and the orders of the transfers
  std::condition_variable changed_;
  bool is_open_ = false;
  std::chrono::seconds wait_{0};
  std::map<std::string, transfer_pointer> transfers_;             // by name
  std::multimap<fetch_clock::time_point, transfer_pointer> due_;  // those that no thread runs
};

// Threads are started under the lock: the first one waits until the rest is set up.
void transfer_downloads::engine::start(int at_once, int wait) {
  const std::lock_guard guard(lock_);
  wait_ = std::chrono::seconds(wait);
  is_open_ = true;
  for (int i = 0; i < at_once; ++i) threads_.emplace_back(&engine::work, this);
}

void transfer_downloads::engine::order(download_order what) {
  {
    const std::lock_guard guard(lock_);
    if (is_open_ && is_object_key(what.key)) {
      const std::string name = what.location_text + ":" + what.key;
      const auto found = transfers_.find(name);
      // The same object is on its way: one more target for it.
      if (found != transfers_.end()) {
        found->second->orders.push_back(std::move(what));
        found->second->is_joined = true;
        return;
      }
      const auto one = std::make_shared<transfer>(
          transfer{name,
                   object_fetch(queue_, locations_, control_, what.location_text, what.key, wait_),
                   what.target.get(),
                   {},
                   false});
      one->orders.push_back(std::move(what));
      // Without memory in between it runs for itself; the other way round it would never run.
      due_.emplace(fetch_clock::now(), one);
      changed_.notify_one();
      transfers_.emplace(name, one);
      return;
    }
  }
  // Without the lock, as `done` writes to the host's socket.
  what.done(false);
}

// `control.stop` is up, so running tries end within moments.
void transfer_downloads::engine::stop() {
  std::map<std::string, transfer_pointer> rest;
  {
    const std::lock_guard guard(lock_);
    is_open_ = false;
    changed_.notify_all();
  }
  for (std::thread &one : threads_) one.join();
  threads_.clear();
  due_.clear();
  // No thread is left, and `order` lets nothing in any more. Each host gets exactly one answer.
  for (const auto &[name, one] : std::exchange(transfers_, {})) {
    for (const download_order &order : one->orders) order.done(false);
  }
}

void transfer_downloads::engine::work() {
  while (const transfer_pointer one = next()) {
    const bool went_well = no_throw(false, [&] {
      run(one);
      return true;
    });
    if (!went_well) fail(one, "out of memory");
  }
}

void transfer_downloads::engine::fail(const transfer_pointer &what, const char *reason) {
  ++state_.counters.download_failures;
  QX_LOG(FR_LOG_WARNING, "cannot fetch %s: %s", what->name.c_str(), reason);
  for (const download_order &one : close(what)) one.done(false);
}

// The transfer whose time has come; null at the end.
transfer_downloads::engine::transfer_pointer transfer_downloads::engine::next() {
  std::unique_lock guard(lock_);
  while (is_open_) {
    if (due_.empty()) {
      changed_.wait(guard);
    } else if (const auto time = due_.begin()->first; time > fetch_clock::now()) {
      // An order that comes meanwhile is due now, and wakes a thread.
      changed_.wait_until(guard, time);
    } else {
      return std::move(due_.extract(due_.begin()).mapped());
    }
  }
  return nullptr;
}

// False when no host waits for it any more: it has no owner then.
bool transfer_downloads::engine::prepare(const transfer_pointer &what) {
  std::list<download_order> left;  // ended without the lock, as all are
  {
    const std::lock_guard guard(lock_);
    // The host that ordered the object last has the full time.
    if (std::exchange(what->is_joined, false)) what->fetch.begin_anew();
    const auto is_wanted = [](const download_order &one) {
      return !one.is_wanted || one.is_wanted();
    };
    if (std::ranges::any_of(what->orders, is_wanted)) return true;
    transfers_.erase(what->name);
    left.swap(what->orders);
  }
  for (const download_order &one : left) one.done(false);
  return false;
}

void transfer_downloads::engine::run(const transfer_pointer &what) {
  if (!prepare(what)) return;
  fetch_step step{fetch_step::kind::failed};
  {
    const transfer_state::ticket ticket(state_, "download", what->name);
    step = what->fetch.attempt(what->target);
  }
  if (step.what == fetch_step::kind::again) {
    const std::lock_guard guard(lock_);
    // The thread is free for others while the transfer waits.
    due_.emplace(fetch_clock::now() + step.delay, what);
    changed_.notify_one();
    return;
  }
  if (step.what == fetch_step::kind::failed) return fail(what, step.reason.c_str());
  deliver(*what, close(what));
}

// A later order of the object begins a transfer of its own.
std::list<download_order> transfer_downloads::engine::close(const transfer_pointer &what) {
  const std::lock_guard guard(lock_);
  transfers_.erase(what->name);
  return std::move(what->orders);
}

void transfer_downloads::engine::deliver(transfer &what, const std::list<download_order> &orders) {
  const receipt &object = what.fetch.got();
  for (const download_order &one : orders) {
    const int target = one.target.get();
    // Each copy reads the first one's file from its start.
    ::lseek(what.target, 0, SEEK_SET);
    const int error = target == what.target ? 0 : copy_content(what.target, target, &control_.stop);
    // Without a receipt the store is asked instead.
    if (error == 0) no_throw([&] { write_receipt(target, object); });
    ++(error == 0 ? state_.counters.downloads : state_.counters.download_failures);
    one.done(error == 0);
  }
  // Once for the object: copies on this disk were not fetched.
  state_.counters.download_bytes += static_cast<std::uint64_t>(object.length);
}

transfer_downloads::transfer_downloads(transfer_queue &queue, transfer_locations &locations,
                                       transfer_state &state, s3_control &control)
    : engine_(std::make_unique<engine>(queue, locations, state, control)) {}

transfer_downloads::~transfer_downloads() {
  stop();
}

void transfer_downloads::start(int at_once, int wait) {
  engine_->start(at_once, wait);
}

void transfer_downloads::order(download_order what) {
  engine_->order(std::move(what));
}

void transfer_downloads::stop() {
  engine_->stop();
}
