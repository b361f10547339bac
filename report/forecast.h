// Where the use of accounts leads, judged by their figures in several states of the platform.
#ifndef REPORT_FORECAST_H
#define REPORT_FORECAST_H

#include <cstdint>
#include <unordered_map>

#include "report/platform.h"

// A straight line through points, by least squares. It keeps their means and not the points, so a
// line of equal heights is level to the last digit.
class line_fit {
 public:
  // One point. The order of points does not matter.
  void add(double x, double y);
  std::uint32_t count() const { return count_; }
  // 0 where all points are of one time.
  double slope() const { return spread_ > 0 ? common_ / spread_ : 0; }
  // Where the line, which rises, is at this height.
  double meets(double y) const { return mean_x_ + (y - mean_y_) / slope(); }

 private:
  double mean_x_ = 0, mean_y_ = 0;
  double spread_ = 0;  // sum of the squares of x, from the mean
  double common_ = 0;  // sum of the products of x and y, from their means
  std::uint32_t count_ = 0;
};

// From the best news to the worst; changes.cpp and forecast.cpp compare by this order.
enum class outlook_kind {
  unknown,    // no limit, or too few figures
  no_growth,  // the line through the figures does not rise
  far,        // not within a hundred years
  day,
  reached
};
const char *name_of(outlook_kind outlook);

// Of the kind that is the worst news: reached, then the earliest day, then the rest.
struct account_outlook {
  outlook_kind outlook = outlook_kind::unknown;
  std::int64_t when = -1;  // seconds since the epoch, for `day`
  unsigned kind = 0;       // the first kind to reach its limit, for `day` and `reached`
};

// Takes states one by one and keeps the sums of their figures only. Figures that are not to be
// trusted, dirty ones and those that a refresh is to measure again, are left out.
class forecast {
 public:
  // No state may be older than the one before it.
  void add(const report_platform &state);

  // When the account, with the limits of the last state, reaches the first of them. There the line
  // through its figures meets the limit. Takes three figures or more, of which the last state has
  // one.
  account_outlook of(const report_account &account, kind_set kinds) const;

 private:
  // Some 200 bytes for each account, however many states are added.
  struct account_lines {
    line_fit of_kind[QUOTA_ALL_KINDS];
  };
  // The outlook of one kind alone.
  account_outlook of_kind(const report_account &account, const line_fit &line, unsigned kind) const;

  std::unordered_map<std::uint32_t, account_lines> lines_;  // by the account's id
  std::int64_t first_ = -1;                                 // times of the first and the last state
  std::int64_t last_ = -1;
};

#endif
