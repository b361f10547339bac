// The listening socket of the service, as a file.
#ifndef TRANSFER_LISTENER_H
#define TRANSFER_LISTENER_H

#include <sys/types.h>

#include <string>

#include "platform/base/owner.h"

// Made and closed by the server. The lock is held for as long as this lives.
class listening_socket {
 public:
  listening_socket() = default;
  listening_socket(const listening_socket &) = delete;
  listening_socket &operator=(const listening_socket &) = delete;
  // Removes the file, unless it is another one by now.
  ~listening_socket();

  // Empty, or one line that says why it cannot be had. A file "<path>.lock" beside it, which is
  // locked from then on, keeps a second service away.
  std::string open(const std::string &path);
  // Non-blocking and close-on-exec; borrowed.
  int get() const { return socket_.get(); }

 private:
  // Device and inode tell our socket's file from one that was made later under its name.
  std::string path_;
  unique_fd lock_, socket_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

#endif
