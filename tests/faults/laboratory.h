// The faults of the campaign, and the platform on which runs of the command meet them.
#ifndef FAULTS_LABORATORY_H
#define FAULTS_LABORATORY_H

#include <map>
#include <string>
#include <vector>

#include "tests/faults/traced.h"
#include "tests/unit/refresh_fixture.h"

namespace faults {

struct fault {
  const char *name;
  unsigned meets;  // calls with one of these traits; none: the n-th allocation fails
  fate first;      // of the n-th of them
  fate later;      // of those after it
  unsigned later_meets;
};

// A kind of run: the command, over what it finds.
struct run_kind {
  const char *name;
  std::vector<const char *> command;
};

extern const std::vector<fault> all_faults;
extern const std::vector<run_kind> all_runs;

class laboratory {
 public:
  laboratory();

  // How many chances each fault has in a run. To be asked before faults are tried in such runs.
  std::vector<int> chances(const run_kind &kind);

  // One run with a fault at its `number`-th chance, and one without that heals. Gives what is wrong
  // then, or nothing. `tell` prints the calls, and what the command printed.
  std::string try_fault(const fault &what, const run_kind &kind, int number, bool tell);

 private:
  using environment = std::map<std::string, std::string>;

  int run(const run_kind &kind, const environment &variables, const decision &decide);
  std::string result_of(const fault &what, int status, bool forbidden_media);
  void prepare(const run_kind &kind);
  void make_all_due();
  // What of the store is not as it should be, or nothing.
  std::string difference() const;
  std::string malformed() const;
  std::string strange(const std::filesystem::path &path) const;

  support::sandbox box;
  small_platform platform{box};
  uid_t uid_;
  gid_t gid_;
  bool exact_ = false;  // the store, before the next run
  std::string right_report_;
};

}  // namespace faults

#endif
