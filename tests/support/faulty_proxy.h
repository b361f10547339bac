// haproxy in front of a store: it answers some requests with 503 and leaves some without an answer.
#ifndef TESTS_SUPPORT_FAULTY_PROXY_H
#define TESTS_SUPPORT_FAULTY_PROXY_H

#include <string>

#include "tests/support/servers.h"

namespace support {

struct fault_shares {
  int refused = 20;                        // of a hundred requests: 503, SlowDown
  int dropped = 2;                         // without a word
  int closed = 0;                          // the connection ends without an answer
  std::string poisoned = "/no-such-name";  // what ends so is refused always: 400
};

class faulty_proxy : public server {
 public:
  explicit faulty_proxy(const std::string &endpoint, const fault_shares &shares = {});
  std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port()); }
};

}  // namespace support

#endif
