// An HTTP server for what no real one can be made to do: it answers with the bytes of its script.
#ifndef TESTS_SUPPORT_SCRIPTED_SERVER_H
#define TESTS_SUPPORT_SCRIPTED_SERVER_H

#include <atomic>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "platform/base/owner.h"

namespace support {

class scripted_server {
 public:
  enum class then { closes, keeps_open };

  // From the whole request, its head first.
  using answer_maker = std::function<std::string(std::string_view request)>;

  explicit scripted_server(answer_maker answer, then what = then::keeps_open);
  // The same to each request.
  explicit scripted_server(const std::string &answer, then what = then::keeps_open)
      : scripted_server([answer](std::string_view) { return answer; }, what) {}
  scripted_server(const scripted_server &) = delete;
  scripted_server &operator=(const scripted_server &) = delete;
  ~scripted_server();

  std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port_); }
  int connections() const { return connections_; }

 private:
  void serve();

  answer_maker answer_;
  then then_;
  int port_ = 0;
  unique_fd listening_;
  std::atomic<int> connections_ = 0, open_ = -1;
  std::atomic<bool> ends_ = false;
  std::thread thread_;
};

// Status line, lines of headers with their ends, Content-Length, body.
std::string http_answer(const std::string &status, const std::string &headers = "",
                        const std::string &body = "");

}  // namespace support

#endif
