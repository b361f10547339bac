// Tells a process from its children after fork.
// For whoever keeps connections, which a child must not share.
#include "platform/base/process.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace {

// Grows in each child from its parent's value, so parent and child never have the same one.
// Siblings may; they share nothing that their parent did not have.
std::atomic<long> forks{0};

}  // namespace

long process_generation() noexcept {
  static const bool counted = ::pthread_atfork(nullptr, nullptr, [] { ++forks; }) == 0;
  // Without memory for the handler there is only the costlier way.
  return counted ? forks.load(std::memory_order_relaxed) : ::getpid();
}
