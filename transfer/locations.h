// The places in object stores that are configured, and how each of them is doing.
//
// A location where call after call fails is given rest: exponentially longer, with full jitter, up
// to five minutes, or as long as the store asks for. A single failure is not the location's, as one
// in many is ordinary. While it rests only one probe at a time goes there. What the outcomes of all
// jobs say comes together here; a change of state is logged once, in one line.
#ifndef TRANSFER_LOCATIONS_H
#define TRANSFER_LOCATIONS_H

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "main/transfer/config.h"
#include "platform/s3/client.h"

// For the status. `retry_at` is in seconds since the epoch, 0 when up.
struct location_report {
  std::string name;
  std::string state;   // "up", "resting", "refusing"
  std::string reason;  // empty when up
  double retry_at = 0;
  int failures = 0;  // in a row
};

// Whether a refusal says something about the location or its keys, whatever object was asked for.
bool is_about_location(const s3_answer &answer);

class transfer_locations {
 public:
  // `control` must live longer.
  explicit transfer_locations(s3_control &control);
  transfer_locations(const transfer_locations &) = delete;
  transfer_locations &operator=(const transfer_locations &) = delete;
  ~transfer_locations();

  // Takes locations and keys; running calls finish with what they have. Empty, or one line that
  // says what is wrong with the keys (absent, readable by others, none for a location); then
  // nothing changes.
  std::string configure(const transfer_config &config);

  // The leave to use a location, which may make its holder the probe of one that rests. Another
  // probe may follow after `tell`, or when this goes.
  class permit {
   public:
    permit() = default;
    permit(permit &&other) noexcept : owner_(std::exchange(other.owner_, nullptr)) {
      location_.swap(other.location_);
      probe_ = other.probe_;
    }
    permit &operator=(permit &&) = delete;
    ~permit() {
      if (owner_ != nullptr && probe_ != 0) owner_->end_probe(location_, probe_);
    }
    explicit operator bool() const { return owner_ != nullptr; }

   private:
    friend class transfer_locations;
    transfer_locations *owner_ = nullptr;
    std::string location_;
    long probe_ = 0;  // its number; 0 for a location that is up
  };
  // Empty while the location rests, or is not configured.
  permit start(const std::string &location);
  bool is_known(const std::string &location) const;
  // Whether `start` would give leave.
  bool might_start(const std::string &location) const;
  // When the first location that rests may be tried, in seconds since the epoch; 0 when none rests.
  // While one is probed, a time soon from now.
  double next_retry() const;

  // A client for one call or several in a row, from a pool of open connections; null when the
  // location is not configured.
  class lease {
   public:
    lease() = default;
    lease(lease &&) noexcept = default;
    lease &operator=(lease &&) noexcept;
    ~lease();
    s3_client *operator->() const { return client_.get(); }
    s3_client &operator*() const { return *client_; }
    explicit operator bool() const { return client_ != nullptr; }
    // What came of a call. True when the location is not to be asked again now, false when a
    // failure is the key's own.
    bool tell(const s3_answer &answer) const { return owner_->tell(*this, answer); }

   private:
    friend class transfer_locations;
    transfer_locations *owner_ = nullptr;
    std::string location_;
    long generation_ = 0;  // of the configuration
    std::unique_ptr<s3_client> client_;
  };
  lease client(const std::string &location);

  // All that are configured.
  std::vector<std::string> names() const;
  std::vector<location_report> report() const;

 private:
  // A location with its keys, its health and its idle clients.
  struct place;
  // These run under the lock, but for those that take a lease, which take it.
  place *find(const std::string &location) const;
  // Keeps the client for the next lease, unless the configuration changed or there are enough.
  void give_back(lease &what) noexcept;
  bool tell(const lease &by, const s3_answer &answer);
  void end_probe(const std::string &location, long probe) noexcept;
  bool fail(place &where, const std::string &name, const s3_answer &answer);

  s3_control &control_;
  mutable std::mutex lock_;  // guards all that follows
  std::map<std::string, std::unique_ptr<place>, std::less<>> places_;
  long generation_ = 0;
  long probes_ = 0;  // how many there were
};

#endif
