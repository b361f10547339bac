// The threads that upload and delete.
// Starts and ends them; what a job does is in upload.cpp and remove.cpp.
#include "transfer/uploads.h"

#include <thread>

#include "platform/base/diagnostics.h"
#include "platform/base/owner.h"
#include "transfer/feeder.h"
#include "transfer/remove.h"
#include "transfer/sweep.h"
#include "transfer/upload.h"

namespace {

using namespace std::chrono_literals;

// Deletions are small requests, and a prefix goes a thousand keys at a time.
constexpr int deletes_at_once = 4;
constexpr size_t most_told = 1000;
// Not at once: after a restart uploads in parts go on first.
constexpr auto first_sweep = 10min;
constexpr auto sweep_every = 24h;

}  // namespace

class transfer_workers::engine {
 public:
  explicit engine(const job_context &context) : context_(context) {}
  engine(const engine &) = delete;
  engine &operator=(const engine &) = delete;
  ~engine() { stop(); }

  void start(worker_settings settings) {
    const int uploads = settings.config.uploads;
    reconfigure(std::move(settings));
    // The number is that of the start: a reload does not change it.
    for (int i = 0; i < uploads; ++i) run([this] { work(queue_kind::uploads); });
    for (int i = 0; i < deletes_at_once; ++i) run([this] { work(queue_kind::deletes); });
    run([this] { feeder_.run(); });
    run([this] { sweep(); });
  }

  void reconfigure(worker_settings settings) {
    const auto now = std::make_shared<const worker_settings>(std::move(settings));
    {
      const std::lock_guard guard(lock_);
      settings_ = now;
    }
    feeder_.configure(*now);
  }

  void wake() { feeder_.wake(); }

  void stop() {
    {
      const std::lock_guard guard(lock_);
      is_ended_ = true;
    }
    ended_.notify_all();
    feeder_.stop();
    // Joins them. Running calls end by the stop flag of the control, which is up by now.
    threads_.clear();
  }

  std::vector<parked_member> parked() const { return feeder_.parked(most_told); }
  std::size_t parked_count() const { return feeder_.parked_count(); }
  std::size_t waiting() const { return feeder_.waiting(); }

  bool idle(const queue_summary &queued) const {
    // Deletions of other nodes are theirs to wait for.
    return queued.uploads == 0 && queued.own_deletes == 0 && !feeder_.is_working();
  }

 private:
  // A thread whose body ends by itself once stop() was called.
  template <class Body>
  void run(Body body) {
    threads_.emplace_back([this, body] {
      while (!no_throw(false, [&] { return body(), true; }) && !is_over_after_short_memory()) {
      }
    });
  }

  // Short memory ends one job, not the service.
  bool is_over_after_short_memory() const {
    QX_LOG(FR_LOG_ERROR, "memory is short\n");
    std::this_thread::sleep_for(1s);
    const std::lock_guard guard(lock_);
    return is_ended_;
  }

  std::shared_ptr<const worker_settings> settings() const {
    const std::lock_guard guard(lock_);
    return settings_;
  }

  // The body of a worker's thread. Whatever happens to a job, its end is reported.
  void work(queue_kind kind) {
    while (const auto item = feeder_.next(kind)) {
      job_result result{job_end::retry, "memory is short"};
      no_throw(0, [&] {
        result = work_on(*item);
        return 0;
      });
      count_failure(kind, result);
      feeder_.ended(*item, result);
    }
  }

  job_result work_on(const work_item &item) const {
    // For the whole job, whatever a reload brings meanwhile.
    const auto current = settings();
    const bool is_upload = item.kind == queue_kind::uploads;
    const transfer_state::ticket running(context_.state, is_upload ? "upload" : "delete",
                                         item.entry.member);
    return is_upload ? run_upload(context_, *current, item.entry)
                     : run_delete(context_, *current, item.entry);
  }

  // What waits for others, or for the DisDB, has not failed.
  void count_failure(queue_kind kind, const job_result &result) const {
    if (result.end != job_end::retry && result.end != job_end::parked) return;
    transfer_counters &counters = context_.state.counters;
    ++(kind == queue_kind::uploads ? counters.upload_failures : counters.delete_failures);
  }

  void sweep() {
    auto when = first_sweep;
    for (;;) {
      {
        std::unique_lock guard(lock_);
        if (ended_.wait_for(guard, when, [this] { return is_ended_; })) return;
      }
      // On a thread of its own, as listings of large buckets take long.
      sweep_forgotten_parts(context_, *settings());
      when = sweep_every;
    }
  }

  const job_context context_;
  work_feeder feeder_{context_};
  mutable std::mutex lock_;  // guards the two that follow
  std::shared_ptr<const worker_settings> settings_;
  bool is_ended_ = false;
  std::condition_variable ended_;
  std::vector<std::jthread> threads_;
};

transfer_workers::transfer_workers(transfer_queue &queue, transfer_locations &locations,
                                   transfer_state &state, s3_control &control)
    : engine_(std::make_unique<engine>(job_context{queue, locations, state, control})) {}

transfer_workers::~transfer_workers() = default;

void transfer_workers::start(worker_settings settings) {
  engine_->start(std::move(settings));
}

void transfer_workers::reconfigure(worker_settings settings) {
  engine_->reconfigure(std::move(settings));
}

void transfer_workers::wake() {
  engine_->wake();
}

void transfer_workers::stop() {
  engine_->stop();
}

std::vector<parked_member> transfer_workers::parked() const {
  return engine_->parked();
}

std::size_t transfer_workers::parked_count() const {
  return engine_->parked_count();
}

std::size_t transfer_workers::waiting() const {
  return engine_->waiting();
}

bool transfer_workers::idle(const queue_summary &queued) const {
  return engine_->idle(queued);
}
