// The socket on which hosts ask for downloads and people for the state. One thread of its own.
#ifndef TRANSFER_SERVER_H
#define TRANSFER_SERVER_H

#include <functional>
#include <memory>
#include <string>

#include "transfer/downloads.h"

struct server_hooks {
  std::function<void(download_order)> download;
  std::function<void()> queued;
  std::function<std::string()> status;  // JSON, of any length
};

class transfer_server {
 public:
  explicit transfer_server(server_hooks hooks);
  transfer_server(const transfer_server &) = delete;
  transfer_server &operator=(const transfer_server &) = delete;
  ~transfer_server();

  // Listens at `path`, mode 0660, and serves. Takes over a socket whose service is gone. Empty, or
  // one line: another service listens there, or why the socket cannot be made.
  std::string start(const std::string &path);
  void stop();  // closes all connections; removes the socket

 private:
  class engine;
  std::unique_ptr<engine> engine_;
};

#endif
