// The socket on which hosts ask for downloads and people for the state: protocol.h of
// main/transfer.
//
// One thread serves all connections and waits for none of them. A wrong datagram, or a sender
// that is not trusted, ends the connection with one line in the log.
#ifndef TRANSFER_SERVER_H
#define TRANSFER_SERVER_H

#include <functional>
#include <memory>
#include <string>

#include "transfer/downloads.h"

// `download` and `queued` are called on the server's thread and must not wait. `status` may: it is
// called on a thread of its own, once at a time.
struct server_hooks {
  std::function<void(download_order)> download;
  std::function<void()> queued;
  std::function<std::string()> status;  // JSON, of any length
};

// Started and stopped by the main thread. `start` is called once.
class transfer_server {
 public:
  explicit transfer_server(server_hooks hooks);
  transfer_server(const transfer_server &) = delete;
  transfer_server &operator=(const transfer_server &) = delete;
  ~transfer_server();  // as stop()

  // Listens at `path`, mode 0660, and serves. Takes over a socket whose service is gone, and makes
  // the directory. Empty, or one line: another service listens there, or why the socket cannot be
  // made.
  std::string start(const std::string &path);
  void stop();  // closes all connections; removes the socket

 private:
  class engine;
  std::unique_ptr<engine> engine_;
};

#endif
