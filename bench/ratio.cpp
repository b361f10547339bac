// Takes times in turns and prints their ratio beside its limit.
#include "bench/ratio.h"

#include <cstdio>
#include <map>
#include <vector>

namespace ratio {
namespace {

constexpr int rounds_of_long_work = 9;
constexpr int rounds_of_short_work = 15;
// Results of the same program vary by less than this from run to run.
constexpr double clearly_behind = 0.85;

enum class sense { at_most, at_least };

struct row {
  sense direction;
  double target;
  std::string work;
  std::string limit_name;
  std::optional<gap> known_gap;
};

struct fixed_row {
  std::string work;
  std::string unit;
  double measured;
  double target;
};

std::vector<row> rows;
std::vector<fixed_row> fixed_rows;

std::string measured_key(size_t index) {
  return std::to_string(index) + "/measured";
}
std::string limit_key(size_t index) {
  return std::to_string(index) + "/limit";
}

void add_benchmark(const std::string &key, const body &work, length rounds) {
  auto *added = benchmark::RegisterBenchmark(key.c_str(), work);
  added->ReportAggregatesOnly(true);
  if (rounds == length::calls_by_processor_time) {
    added->MeasureProcessCPUTime();
  } else {
    added->UseRealTime();
  }
  if (rounds == length::once) {
    added->Iterations(1)->Repetitions(1);
  } else if (rounds == length::round) {
    added->Iterations(1)->Repetitions(rounds_of_long_work);
  } else {
    added->MinTime(0.05)->Repetitions(rounds_of_short_work);
  }
}

void add(row description, const body &measured, const body &limit, length rounds) {
  const size_t index = rows.size();
  rows.push_back(std::move(description));
  add_benchmark(measured_key(index), measured, rounds);
  add_benchmark(limit_key(index), limit, rounds);
}

// Keeps the medians, and prints nothing of its own.
class median_collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context & /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &one : runs) {
      if (one.error_occurred) failure = one.error_message;
      if (one.aggregate_name == "median" || one.repetitions == 1) {
        const bool real = one.run_name.time_type == "real_time";
        medians[one.run_name.function_name] =
            (real ? one.GetAdjustedRealTime() : one.GetAdjustedCPUTime()) /
            benchmark::GetTimeUnitMultiplier(one.time_unit);
      }
    }
  }

  std::map<std::string, double> medians;
  std::string failure;
};

const char *verdict(bool met) {
  return met ? "met" : "MISSED";
}

// Prints one row; whether its target counts as met.
bool report(const row &one, double measured, double limit) {
  const bool slower_counts = one.direction == sense::at_most;
  const double result = slower_counts ? measured / limit : limit / measured;
  const bool met = slower_counts ? result <= one.target : result >= one.target;
  const bool as_known =
      !met && one.known_gap && result >= one.known_gap->known_result * clearly_behind;
  std::printf("| %-46s | %-46s | %s %5.2fx | %6.3fx | ", one.work.c_str(), one.limit_name.c_str(),
              slower_counts ? "at most" : "faster ", one.target, result);
  if (as_known) {
    std::printf("known gap of %.0f %%: %s |\n", 100 * (1 - result / one.target),
                one.known_gap->reason);
  } else {
    std::printf("%-6s |\n", verdict(met));
  }
  return met || as_known;
}

}  // namespace

void at_most(double target, const std::string &work, const std::string &limit_name,
             const body &measured, const body &limit, length rounds) {
  add({sense::at_most, target, work, limit_name, {}}, measured, limit, rounds);
}

void at_least(double target, const std::string &work, const std::string &limit_name,
              const body &measured, const body &limit, length rounds,
              std::optional<gap> known_gap) {
  add({sense::at_least, target, work, limit_name, known_gap}, measured, limit, rounds);
}

void bound(const std::string &work, const std::string &unit, double measured, double target) {
  fixed_rows.push_back({work, unit, measured, target});
}

int run(int argc, char **argv) {
  std::vector<char *> arguments(argv, argv + argc);
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  arguments.push_back(interleave);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  median_collector collector;
  if (!rows.empty()) benchmark::RunSpecifiedBenchmarks(&collector);
  if (!collector.failure.empty()) {
    std::fprintf(stderr, "bench: %s\n", collector.failure.c_str());
    return 1;
  }

  bool all_met = true;
  for (size_t i = 0; i < rows.size(); ++i) {
    all_met &= report(rows[i], collector.medians[measured_key(i)], collector.medians[limit_key(i)]);
  }
  for (const fixed_row &one : fixed_rows) {
    const bool met = one.measured <= one.target;
    all_met = all_met && met;
    std::printf("| %-46s | %-46s | at most %6g | %7g | %-6s |\n", one.work.c_str(),
                one.unit.c_str(), one.target, one.measured, verdict(met));
  }
  std::fflush(stdout);
  return all_met ? 0 : 1;
}

}  // namespace ratio
