// The command line of the transfer service.
#ifndef TRANSFER_OPTIONS_H
#define TRANSFER_OPTIONS_H

#include <cstdio>
#include <optional>

// One option each; without one the service serves.
enum class transfer_task { serve, status, check, drain, help, version };

struct transfer_options {
  transfer_task task = transfer_task::serve;
  bool json = false;           // of status
  std::optional<int> seconds;  // of drain; without a number it waits without limit
};

// Nothing when the command line is wrong; standard error has the reason.
std::optional<transfer_options> parse_options(int argc, const char **argv);

void print_usage(FILE *stream);

#endif
