// The servers of a client as one replicated group: finding its master, keeping the connection to
// it, and keeping the time bounded that a dead cache can cost. Internal to platform/velkan.
//
// What a cache that answers nothing, or only some commands, costs at most: a command never takes
// longer than its deadline: 2 s while the group is trusted, 200 ms in all, connecting included,
// from the first failure on. Each failure is followed by a pause: 1, 2, 4, 8, 16, 32 and then 60 s.
// Commands that succeed in between change neither, until a minute has passed since the last pause
// without another failure. In ten minutes that is one command of 2 s and at most fourteen of
// 200 ms: 4.8 s.
#ifndef PLATFORM_VELKAN_GROUP_H
#define PLATFORM_VELKAN_GROUP_H

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "connection.h"
#include "velkan.h"

struct vk_mm {
  void *(*allocate)(size_t);
  void *(*allocate_cleared)(size_t, size_t);
  void (*release)(void *);
};

struct vk_server {
  std::string host;
  int port;
  std::string name;

  // Kept from the last look-up, so that a reconnect does not wait for the resolver.
  std::vector<vk_address> addresses;
  bool look_up = true;  // the addresses did not serve, or there are none yet
  vk_clock::time_point next_look_up;
};

// What both handles of a client share.
struct vk_state {
  vk_client main;
  vk_client secondary;
  vk_mm memory;

  std::mutex lock;  // guards all that follows; held for the length of a command
  unsigned log_mask = 0;
  std::vector<vk_server> servers;
  std::map<int, std::string> keys;  // by database
  int database = 0;

  std::optional<vk_connection> connection;
  pid_t connected_by = 0;
  int failures = 0;  // since the group was last trusted
  vk_clock::time_point paused_until;
};

// Runs one command on the group's master. VK_OK with a reply that is no error, or an error code.
int run_command(vk_state &state, const vk_command &command, vk_reply &reply);

#endif
