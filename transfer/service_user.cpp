// The shipped program: no service by root.
// The tests link another file in its place, as they run as root.
#include "transfer/process.h"

bool root_may_serve() {
  return false;
}
