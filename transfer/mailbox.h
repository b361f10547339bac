// What the threads of the service have for the connections of its server.
#ifndef TRANSFER_MAILBOX_H
#define TRANSFER_MAILBOX_H

#include <sys/eventfd.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/owner.h"

// Outlives the server for as long as one of them may write.
struct mailbox {
  struct letter {
    std::uint64_t connection;
    std::vector<std::string> datagrams;
    bool ends_download;
  };

  mailbox() : wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  void put(letter what) {
    {
      const std::lock_guard guard(lock);
      letters.push_back(std::move(what));
    }
    ::eventfd_write(wake.get(), 1);
  }
  std::vector<letter> take() {
    eventfd_t count = 0;
    ::eventfd_read(wake.get(), &count);
    const std::lock_guard guard(lock);
    return std::exchange(letters, {});
  }

  const unique_fd wake;
  std::mutex lock;  // guards all that follows
  std::vector<letter> letters;
};

#endif
