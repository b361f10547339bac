// The commands that ask the running service.
#ifndef TRANSFER_COMMANDS_H
#define TRANSFER_COMMANDS_H

#include <optional>
#include <string>

// `--status`: prints the state as JSON or for people; the exit status.
int show_status(const std::string &socket_path, bool json);

// `--drain`: waits until the service is idle; 0, or 1 after `seconds`. A service
// that is away is waited for.
int drain(const std::string &socket_path, std::optional<int> seconds);

#endif
