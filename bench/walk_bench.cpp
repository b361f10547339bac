// Measuring directories: compute_quota beside the bare system calls, and beside du.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/ratio.h"
#include "bench/trees.h"
#include "main/quota/measure.h"
#include "tests/support/servers.h"

namespace {

struct tree {
  const char *name;
  void (*make)(const std::string &root);
  double over_bare;                          // at most this times the bare loop
  double over_du;                            // at least this much faster than du
  std::optional<ratio::gap> known_gap = {};  // in the row beside du
};

// The row beside the bare system calls proves it.
const char *const limit_of_kernel = "as fast as the bare calls; the rest is the kernel's";

const tree trees[] = {
    {"200,000 files in 2,000 directories",
     [](const std::string &root) { make_flat_tree(root, 2000, 100); }, 1.10, 1.35},
    {"100,000 files in one directory",
     [](const std::string &root) { make_flat_tree(root, 1, 100000); }, 1.10, 1.8,
     ratio::gap{1.7, limit_of_kernel}},
    {"50,000 directories of one file",
     [](const std::string &root) { make_flat_tree(root, 50000, 1); }, 1.10, 1.4},
    {"20 chains of 500 nested directories",
     [](const std::string &root) { make_chains(root, 20, 500); }, 1.15, 9.0,
     ratio::gap{7.6, limit_of_kernel}},
};

int64_t measure(const std::string &root) {
  int64_t total = 0;
  compute_quota(root.c_str(), &total, 1);
  return total;
}

}  // namespace

int main(int argc, char **argv) {
  const support::private_folder folder("bench-walk");
  for (const tree &one : trees) {
    const std::string root = folder.path() / std::to_string(&one - trees);
    one.make(root);
    if (measure(root) != bare_walk(root.c_str())) {
      std::fprintf(stderr, "bench: the two walks disagree on %s\n", one.name);
      return 1;
    }
    ratio::at_most(one.over_bare, one.name, "getdents64 + fstatat",
                   ratio::once([root] { benchmark::DoNotOptimize(measure(root)); }),
                   ratio::once([root] { benchmark::DoNotOptimize(bare_walk(root.c_str())); }));
    const std::string du = "du -sb -L " + root + " >/dev/null";
    ratio::at_least(one.over_du, one.name, "du -sb -L",
                    ratio::once([root] { benchmark::DoNotOptimize(measure(root)); }),
                    ratio::once([du] {
                      if (std::system(du.c_str()) != 0) std::abort();
                    }),
                    ratio::length::round, one.known_gap);
  }
  return ratio::run(argc, argv);
}
