// How the fuzzer reaches a target.
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  check({reinterpret_cast<const char *>(data), size});
  return 0;
}
