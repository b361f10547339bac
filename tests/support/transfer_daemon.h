// The transfer service as a process of its own, in a sandbox, with a service manager that listens.
#ifndef TESTS_SUPPORT_TRANSFER_DAEMON_H
#define TESTS_SUPPORT_TRANSFER_DAEMON_H

#include <memory>
#include <string>
#include <vector>

#include "platform/s3/client.h"
#include "tests/support/sandbox.h"

namespace support {

class transfer_daemon {
 public:
  // Configures one location, "eu", and the node "n1", which looks at an idle queue each second;
  // `more` goes to the end of transfer.conf.
  transfer_daemon(sandbox &box, const s3_place &place, const std::string &more = "");

  process_result run(const std::vector<std::string> &arguments) const;

  // Starts the service and waits until it says that it is ready. False when it ended instead.
  bool start();
  // Ends it with this signal; its result, which must come within half a minute.
  process_result stop(int signal = SIGTERM);
  background_process &process() { return *process_; }

  // Waits until the service tells its manager a message that begins so; nullopt after 20 seconds.
  std::optional<std::string> told(std::string_view begin);

  std::string cached(const std::string &key) const { return "cache/main/" + key; }
  // As a host does it: puts a file into the cache and its member into the queue.
  void commit(const std::string &key, std::string_view content);

 private:
  std::unique_ptr<background_process> start_with(const std::vector<std::string> &arguments) const;

  sandbox &box_;
  unique_fd manager_;
  std::unique_ptr<background_process> process_;
};

}  // namespace support

#endif
