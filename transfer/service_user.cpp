// The shipped program: no service by root.
#include "transfer/process.h"

bool root_may_serve() {
  return false;
}
