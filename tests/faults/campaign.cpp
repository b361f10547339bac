// campaign                     every fault at every call that it can meet, in runs of the command
// campaign --spread COUNT      of each fault and kind of run only so many, spread over the run
// campaign FAULT RUN NUMBER    one of them; tells the calls and prints what the command printed
//
// After each faulted run a run without faults has to leave every file as it should be.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <list>
#include <stdexcept>

#include "tests/faults/laboratory.h"

namespace {

using namespace faults;

// The count of one cell of the table, shared by the workers.
struct tally {
  std::atomic<int> tried, failed;
};

class campaign {
 public:
  explicit campaign(int most)
      : most_(most),
        table_(
            static_cast<tally *>(mmap(nullptr, all_faults.size() * all_runs.size() * sizeof(tally),
                                      PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
  }

  // Every `of`-th case, beginning with `index`.
  void work(int index, int of) {
    laboratory place;
    int turn = 0;
    for (std::size_t r = 0; r < all_runs.size(); ++r) {
      const std::vector<int> chances = place.chances(all_runs[r]);
      for (std::size_t f = 0; f < all_faults.size(); ++f) {
        const int cases = std::min(chances[f], most_);
        for (int i = 0; i < cases; ++i) {
          const int number = 1 + static_cast<int>((i + 0.5) * chances[f] / cases);
          if (turn++ % of == index) try_one(place, f, r, number);
        }
      }
    }
  }

  // Prints the table; true when all was tried and nothing failed.
  bool report() const {
    std::printf("%-16s", "fault");
    for (const run_kind &one : all_runs) std::printf("%8s%8s", one.name, "failed");
    bool good = true;
    for (std::size_t f = 0; f < all_faults.size(); ++f) {
      std::printf("\n%-16s", all_faults[f].name);
      int tried = 0;
      for (std::size_t r = 0; r < all_runs.size(); ++r) {
        const tally &cell = table_[f * all_runs.size() + r];
        std::printf("%8d%8d", cell.tried.load(), cell.failed.load());
        tried += cell.tried;
        good = good && cell.failed == 0;
      }
      good = good && tried > 0;
    }
    std::puts("");
    return good;
  }

 private:
  void try_one(laboratory &place, std::size_t f, std::size_t r, int number) {
    tally &cell = table_[f * all_runs.size() + r];
    ++cell.tried;
    const std::string wrong = place.try_fault(all_faults[f], all_runs[r], number, false);
    if (wrong.empty()) return;
    ++cell.failed;
    std::printf("make faults CASE='%s %s %d'  # %s\n", all_faults[f].name, all_runs[r].name, number,
                wrong.c_str());
    std::fflush(stdout);
  }

  int most_;  // of one fault in one kind of run
  tally *table_;
};

int run_all(int most) {
  campaign whole(most);
  std::list<support::background_process> workers;
  const int of = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
  for (int index = 0; index < of; ++index) {
    workers.emplace_back([&whole, index, of]() noexcept {
      whole.work(index, of);
      return true;
    });
  }
  bool good = true;
  for (support::background_process &worker : workers) {
    good = worker.wait(std::chrono::hours(6)).value().status == 0 && good;
  }
  return whole.report() && good ? 0 : 1;
}

const auto &named(const auto &list, const std::string &name) {
  const auto found = std::find_if(std::begin(list), std::end(list),
                                  [&](const auto &one) { return one.name == name; });
  if (found == std::end(list)) throw std::runtime_error("there is no " + name);
  return *found;
}

int run_one(const std::string &what, const std::string &kind, int number) {
  laboratory place;
  place.chances(named(all_runs, kind));
  const std::string wrong =
      place.try_fault(named(all_faults, what), named(all_runs, kind), number, true);
  std::puts(wrong.empty() ? "good" : wrong.c_str());
  return wrong.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 3) return run_one(words[0], words[1], std::stoi(words[2]));
    return run_all(words.size() == 2 ? std::stoi(words[1]) : INT_MAX);
  } catch (const std::exception &failure) {
    std::fprintf(stderr, "campaign: %s\n", failure.what());
    return 1;
  }
}
