// Figures as ratios: each piece of work runs beside its limit, in rounds that Google Benchmark
// interleaves at random. The medians of the two are compared with a target.
#ifndef BENCH_RATIO_H
#define BENCH_RATIO_H

#include <benchmark/benchmark.h>

#include <functional>
#include <optional>
#include <string>

namespace ratio {

using body = std::function<void(benchmark::State &)>;

enum class length {
  once,   // work of minutes: one pass, no more
  round,  // long work: a round is one pass
  calls,  // short work: a round is as many calls as fill its time
  // The same, but the time counts in which a processor works for this process. For work that waits
  // for a server in a thread here, since that time says more about the machine.
  calls_by_processor_time
};

// A target that is out of reach on this kind of machine. The row stands in the table as a known
// gap, and is missed only when the result falls clearly behind the one that is known.
struct gap {
  double known_result;
  const char *reason;
};

// The work takes at most `target` times what the limit takes.
void at_most(double target, const std::string &work, const std::string &limit_name,
             const body &measured, const body &limit, length rounds = length::round);

// The work is at least `target` times faster than the limit.
void at_least(double target, const std::string &work, const std::string &limit_name,
              const body &measured, const body &limit, length rounds = length::round,
              std::optional<gap> known_gap = {});

// A row for a figure that was not timed: a count or a size against its bound.
void bound(const std::string &work, const std::string &unit, double measured, double target,
           std::optional<gap> known_gap = {});

// Runs everything that was registered and prints the table. 0 when no target is missed, else 1.
int run(int argc, char **argv);

// A round that is one call.
inline body once(std::function<void()> call) {
  return [call = std::move(call)](benchmark::State &state) {
    for (auto _ : state) call();
  };
}

}  // namespace ratio

#endif
