// Makes room in the cache. What is known of its files is a histogram of bytes by age, so that the
// memory does not grow with the cache.
#include <spoolcap/zarn_str.h>

#include <array>
#include <cmath>

#include "transfer/keeper_look.h"
#include "transfer/tree_walk.h"

namespace {

// Seconds: a host may be about to open a file that it has just found.
constexpr double announced = 60;

// Ages grow by one part in 128 from step to step, up to 130 years.
constexpr std::size_t steps = std::size_t{32} * 128;

// By the logarithm: fine steps for young files, coarse ones for old files.
std::size_t step_of(double age) {
  const double step = age < 1 ? 0 : std::log2(age) * 128;
  return std::min(static_cast<std::size_t>(step), steps - 1);
}

bool is_file_of_key(const walked_file &found) {
  return !found.name.starts_with('.');
}

class room {
 public:
  room(const keeper_parts &parts, const keeper_settings &settings)
      : parts_(parts), settings_(settings) {}

  // Each round takes the longest unused of what no round has tried.
  // Several rounds, as some files of a round turn out to be in use or not stored.
  room_report make(std::int64_t wanted_free) {
    measure();
    result_.wanted = std::max(wanted_free, above_size());
    std::size_t end = steps;
    while (result_.freed < result_.wanted && end > 0 && !parts_.stop) {
      const std::size_t begin = begin_of(end, result_.wanted - result_.freed);
      remove_between(begin, end);
      end = begin;
    }
    result_.left -= result_.freed;
    return result_;
  }

 private:
  // Walks anew for each round: names of a large cache are not kept in memory.
  template <class Body>
  void each(Body body) {
    const auto visit = [&](const walked_file &found) {
      if (!is_file_of_key(found)) return true;
      auto file = cache_file::open(found.folder, found.name);
      if (file) body(*file, found.key);
      return !parts_.stop && !done_;
    };
    walk_tree(settings_.cache + "/main", {.visit = visit});
  }

  void measure() {
    each([this](const cache_file &file, const std::string & /*key*/) {
      const double age = now_ - file.last_use();
      // Files that were just used count for the size, but not as room that can be made.
      if (age > announced) bytes_[step_of(age)] += file.status().st_size;
      result_.left += file.status().st_size;
    });
  }

  // A little more than the limit asks for, so that the next file does not begin it all again.
  std::int64_t above_size() const {
    const std::int64_t limit = settings_.cache_size;
    return limit <= 0 || result_.left <= limit ? 0 : result_.left - limit / 20 * 19;
  }

  std::size_t begin_of(std::size_t end, std::int64_t wanted_bytes) const {
    std::int64_t sum = 0;
    while (end > 0 && sum < wanted_bytes) sum += bytes_[--end];
    return end;
  }

  void remove_between(std::size_t begin, std::size_t end) {
    each([&](cache_file &file, const std::string &key) {
      const double age = now_ - file.last_use();
      const std::size_t step = step_of(age);
      if (age <= announced || step < begin || step >= end) return;
      const bool young = age <= settings_.upload_interval * 2;
      if (judge_file(parts_, settings_, file, key, wanted::removal, young) == judgement::removed) {
        result_.freed += file.status().st_size;
        // Ends the walk: what is left of this age may stay.
        done_ = result_.freed >= result_.wanted;
      }
    });
  }

  const keeper_parts &parts_;
  const keeper_settings &settings_;
  const double now_ = qx_get_tstamp();
  std::array<std::int64_t, steps> bytes_{};
  room_report result_;
  bool done_ = false;
};

}  // namespace

room_report make_room(const keeper_parts &parts, const keeper_settings &settings,
                      std::int64_t wanted_free) {
  return room(parts, settings).make(wanted_free);
}
