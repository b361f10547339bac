// Lets locations that fail rest, and keeps open connections to all.
// Called from every thread that talks to a store; sends nothing by itself.
#include "transfer/locations.h"

#include <spoolcap/zarn_str.h>
#include "platform/base/diagnostics.h"
#include "platform/base/owner.h"
#include "transfer/credentials.h"
#include "transfer/jitter.h"

namespace {

constexpr int failures_before_rest = 8;  // in a row
constexpr double first_rest = 1;         // seconds, as all below
constexpr double first_refused_rest = 30;
constexpr double longest_rest = 300;
// A store that refuses key after key may take the next one, behind which others wait.
constexpr double longest_doubtful_rest = 5;
// What a store may ask for; more would be a mistake of its own.
constexpr double longest_asked_rest = 3600;
constexpr size_t most_idle_clients = 64;

enum class health { up, resting, refusing };

const char *word_of(health state) {
  constexpr const char *words[] = {"up", "resting", "refusing"};
  return words[static_cast<size_t>(state)];
}

enum class meaning { works, nothing, failure, refusal };

// What an outcome says about the location.
meaning meaning_of(const s3_answer &answer) {
  switch (answer.outcome) {
    case s3_outcome::done:
    // The store answered as it should, whatever it said of the object.
    case s3_outcome::changed:
      return meaning::works;
    case s3_outcome::not_found:
    case s3_outcome::refused:
      if (is_about_location(answer)) return meaning::refusal;
      if (answer.outcome == s3_outcome::not_found) return meaning::works;
      // One key may be refused, or each: several failures in a row will show. Without a status, no
      // request was sent.
      return answer.status == 0 ? meaning::nothing : meaning::failure;
    case s3_outcome::busy:
    case s3_outcome::unreachable:
    case s3_outcome::unclear:
    // One object may be damaged; a store that answers so for each will not come right by itself.
    case s3_outcome::damaged:
      return meaning::failure;
    // Stopped, or an error of a file here.
    default:
      return meaning::nothing;
  }
}

using steady = std::chrono::steady_clock;

// On the wall clock as it is now, which may be set meanwhile.
double wall_time_of(steady::time_point when) {
  return qx_get_tstamp() + std::chrono::duration<double>(when - steady::now()).count();
}

// In seconds, after this many rests in a row.
double rest_after(const s3_answer &answer, int rests) {
  double rest = 0;
  if (answer.retry_after) {
    rest = std::min(static_cast<double>(answer.retry_after->count()), longest_asked_rest);
  }
  // Wrong keys do not come right within a second.
  if (meaning_of(answer) == meaning::refusal || answer.status == 403) {
    return std::max({rest, first_refused_rest, jittered(rests, first_refused_rest, longest_rest)});
  }
  const bool is_doubtful = answer.outcome == s3_outcome::refused;
  const double longest = is_doubtful ? longest_doubtful_rest : longest_rest;
  return std::max(rest, jittered(rests, first_rest, longest));
}

std::string describe(const s3_answer &answer) {
  if (!answer.text.empty()) return answer.text;
  return answer.code.empty() ? "status " + std::to_string(answer.status) : answer.code;
}

}  // namespace

bool is_about_location(const s3_answer &answer) {
  constexpr std::string_view codes[] = {"InvalidAccessKeyId",
                                        "SignatureDoesNotMatch",
                                        "NoSuchBucket",
                                        "RequestTimeTooSkewed",
                                        "AuthorizationHeaderMalformed",
                                        "PermanentRedirect",
                                        "InvalidBucketName",
                                        "ExpiredToken",
                                        "InvalidToken",
                                        "AccountProblem",
                                        "NotSignedUp"};
  return answer.status == 401 ||
         std::find(std::begin(codes), std::end(codes), answer.code) != std::end(codes);
}

struct transfer_locations::place {
  s3_place settings;
  health state = health::up;
  std::string reason;
  steady::time_point retry_at{};
  int failures = 0;  // in a row
  int rests = 0;     // in a row
  long probe = 0;    // the number of the one that runs
  std::vector<std::unique_ptr<s3_client>> idle;
};

transfer_locations::transfer_locations(s3_control &control) : control_(control) {}

transfer_locations::~transfer_locations() = default;

std::string transfer_locations::configure(const transfer_config &config) {
  // Read without the lock, and all is checked before anything is replaced.
  const credentials_reading reading = read_credentials(config.credentials_file);
  if (!reading.error.empty()) return reading.error;
  std::map<std::string, std::unique_ptr<place>, std::less<>> places;
  for (const transfer_location &location : config.locations) {
    const auto keys = reading.keys.find(location.name);
    if (keys == reading.keys.end() || keys->second.access_key.empty() ||
        keys->second.secret_key.empty()) {
      return config.credentials_file + ": no keys for the location " + location.name;
    }
    auto made = std::make_unique<place>();
    made->settings = {.endpoint = location.endpoint,
                      .region = location.region,
                      .bucket = location.bucket,
                      .virtual_host = location.virtual_host,
                      .prefix = location.prefix,
                      .ca_file = config.ca_file,
                      .credentials = keys->second};
    places.emplace(location.name, std::move(made));
  }
  const std::lock_guard guard(lock_);
  places_.swap(places);
  // Clients that are out were made with the old keys, and are not taken back. Rests are forgotten:
  // the new keys may be right.
  ++generation_;
  return "";
}

transfer_locations::place *transfer_locations::find(const std::string &location) const {
  const auto found = places_.find(location);
  return found == places_.end() ? nullptr : found->second.get();
}

bool transfer_locations::might_start(const std::string &location) const {
  const std::lock_guard guard(lock_);
  const place *where = find(location);
  if (where == nullptr) return false;
  return where->state == health::up || (where->probe == 0 && steady::now() >= where->retry_at);
}

transfer_locations::permit transfer_locations::start(const std::string &location) {
  permit made;
  made.location_ = location;
  const std::lock_guard guard(lock_);
  place *where = find(location);
  if (where == nullptr) return made;
  if (where->state != health::up) {
    if (where->probe != 0 || steady::now() < where->retry_at) return made;
    made.probe_ = where->probe = ++probes_;
  }
  made.owner_ = this;
  return made;
}

void transfer_locations::end_probe(const std::string &location, long probe) noexcept {
  const std::lock_guard guard(lock_);
  place *where = find(location);
  if (where != nullptr && where->probe == probe) where->probe = 0;
}

bool transfer_locations::is_known(const std::string &location) const {
  const std::lock_guard guard(lock_);
  return find(location) != nullptr;
}

double transfer_locations::next_retry() const {
  const std::lock_guard guard(lock_);
  double first = 0;
  for (const auto &[name, where] : places_) {
    if (where->state == health::up) continue;
    const double when = where->probe != 0 ? qx_get_tstamp() + 1 : wall_time_of(where->retry_at);
    if (first == 0 || when < first) first = when;
  }
  return first;
}

transfer_locations::lease transfer_locations::client(const std::string &location) {
  lease made;
  const std::lock_guard guard(lock_);
  place *where = find(location);
  if (where == nullptr) return made;
  // Making a client opens no connection; the first request does.
  if (where->idle.empty()) {
    made.client_ = std::make_unique<s3_client>(where->settings, control_);
  } else {
    made.client_ = std::move(where->idle.back());
    where->idle.pop_back();
  }
  made.owner_ = this;
  made.location_ = location;
  made.generation_ = generation_;
  return made;
}

void transfer_locations::give_back(lease &what) noexcept {
  no_throw(0, [&] {
    const std::lock_guard guard(lock_);
    place *where = what.generation_ == generation_ ? find(what.location_) : nullptr;
    if (where != nullptr && where->idle.size() < most_idle_clients) {
      where->idle.push_back(std::move(what.client_));
    }
    return 0;
  });
  // A client that is not kept closes its connection, outside of the lock.
  what.client_.reset();
}

transfer_locations::lease &transfer_locations::lease::operator=(lease &&other) noexcept {
  if (this != &other) {
    if (client_) owner_->give_back(*this);
    owner_ = other.owner_;
    location_ = std::move(other.location_);
    generation_ = other.generation_;
    client_ = std::move(other.client_);
  }
  return *this;
}

transfer_locations::lease::~lease() {
  if (client_) owner_->give_back(*this);
}

bool transfer_locations::fail(place &where, const std::string &name, const s3_answer &answer) {
  const bool is_refusal = meaning_of(answer) == meaning::refusal;
  ++where.failures;
  if (where.state != health::up && where.probe == 0) return true;  // began before the rest
  const bool is_patient = where.state == health::up && !is_refusal && !answer.retry_after;
  if (is_patient && where.failures < failures_before_rest) return false;

  const health before = where.state;
  const bool is_refused = answer.outcome == s3_outcome::refused || is_refusal;
  where.state = is_refused ? health::refusing : health::resting;
  where.probe = 0;
  where.reason = describe(answer);
  ++where.rests;
  const std::chrono::duration<double> rest(rest_after(answer, where.rests));
  where.retry_at = steady::now() + std::chrono::ceil<steady::duration>(rest);
  // Once for each change of state; the status has the reason of now.
  if (before != where.state) {
    QX_LOG(FR_LOG_WARNING, "location %s is %s: %s\n", name.c_str(), word_of(where.state),
           where.reason.c_str());
  }
  return true;
}

bool transfer_locations::tell(const lease &by, const s3_answer &answer) {
  const meaning what = meaning_of(answer);
  const std::string &location = by.location_;
  const std::lock_guard guard(lock_);
  // From before a reload: it says nothing about the new keys, and no job may use the old.
  place *where = by.generation_ == generation_ ? find(location) : nullptr;
  if (where == nullptr) return true;
  if (what == meaning::failure || what == meaning::refusal) return fail(*where, location, answer);
  where->probe = 0;
  if (what == meaning::nothing) return false;
  where->failures = where->rests = 0;
  if (where->state != health::up) {
    where->state = health::up;
    where->reason.clear();
    QX_LOG(FR_LOG_NOTICE, "location %s is up again\n", location.c_str());
  }
  return false;
}

std::vector<std::string> transfer_locations::names() const {
  const std::lock_guard guard(lock_);
  std::vector<std::string> names;
  for (const auto &[name, where] : places_) names.push_back(name);
  return names;
}

std::vector<location_report> transfer_locations::report() const {
  const std::lock_guard guard(lock_);
  std::vector<location_report> lines;
  for (const auto &[name, where] : places_) {
    const double retry_at = where->state == health::up ? 0 : wall_time_of(where->retry_at);
    lines.push_back({name, word_of(where->state), where->reason, retry_at, where->failures});
  }
  return lines;
}
