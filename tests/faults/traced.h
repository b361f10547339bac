// Runs work in a process of its own and decides, before each of its system calls on files below one
// folder, what becomes of that call. Linux on x86-64 only.
//
// The kernel stops the process at the call itself, so that no way into the kernel is missed. While
// it stands there the caller may do what an unlucky neighbour would: fail the call, end the
// process, or change the files under its feet.
#ifndef TESTS_FAULTS_TRACED_H
#define TESTS_FAULTS_TRACED_H

#include <functional>
#include <string>

namespace faults {

// What a call does, as far as faults choose by it.
enum trait : unsigned {
  OPENS = 1,     // gives a descriptor
  BY_NAME = 2,   // looks a name up
  READS = 4,     // content, entries or status of what is open
  WRITES = 8,    // content
  CREATES = 16,  // an entry that is not there yet
  CHANGES = 32,  // anything on the disk
  LOCKS = 64,
  CLOSES = 128,
};

struct call {
  const char *name;
  std::string path;  // of what it names or has open
  unsigned traits;
};

// What becomes of a call: it goes on, it fails with an errno, it writes only the first half, or the
// process is killed before it.
struct fate {
  enum { GO, FAIL, SHORTEN, KILL } what = GO;
  int error = 0;
};

using decision = std::function<fate(const call &)>;

// Runs `work` in a child, which ends with it; gives the child's status as waitpid does. SIGALRM
// ends a child that hangs. `folder` has no links in it.
int run_traced(const std::function<void()> &work, const std::string &folder,
               const decision &decide);

}  // namespace faults

#endif
