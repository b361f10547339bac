// The servers of a client as one replicated group: finding its master, keeping the connection to
// it, and keeping the time bounded that a cache in trouble can cost. Internal to platform/velkan.
//
// One budget of the process (budget.h) pays for everything that commands wait for: the resolver,
// connecting, sending and receiving. A command takes 2 s at most and no longer than the budget
// lasts; when it is spent, commands fail at once. A failure is followed by a pause of 5 s without
// any attempt. So a cache that refuses, or answers garbage, costs next to nothing either. Where
// a replica answers and no master does, a fail-over is under way, and the pause is 1 s.
#ifndef PLATFORM_VELKAN_GROUP_H
#define PLATFORM_VELKAN_GROUP_H

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/velkan/budget.h"
#include "platform/velkan/connection.h"
#include "platform/velkan/velkan.h"

// A server of the group in the order of the configuration; the first master found is used.
struct vk_server {
  std::string host;
  int port;
  std::string name;

  // Kept from the last look-up, so that a reconnect does not wait for the resolver.
  std::vector<vk_address> addresses;
  bool look_up = true;  // the addresses did not serve, or there are none yet
};

// What both handles of a client share.
struct vk_state {
  vk_client main;
  vk_client secondary;

  std::mutex lock;  // guards all that follows; held for the length of a command
  unsigned log_mask = 0;
  std::vector<vk_server> servers;
  std::map<int, std::string> keys;  // by database
  // Taken at the next connect; an open connection keeps the one it has.
  int database = 0;
  bool is_patient = false;

  // At most one, to the master. Empty before the first command and after a failure.
  std::optional<vk_connection> connection;
  long connected_by = 0;  // process generation
  // Commands before this moment fail at once, without asking a server.
  vk_clock::time_point paused_until;
};

// The budget of this process, whatever clients it has.
inline constinit vk_budget the_vk_budget;

// Runs one command on the group's master. VK_OK with a reply that is no error, or an error code.
int run_command(vk_state &state, const vk_command &command, vk_reply &reply);

#endif
