// Messages to the service manager. Without one, nothing happens here.
#ifndef TRANSFER_NOTIFY_H
#define TRANSFER_NOTIFY_H

#include <chrono>
#include <string>

// Texts are one line, shown by the manager beside the service's state.
void notify_ready(const std::string &status);
void notify_status(const std::string &status);
// For the watchdog: the manager restarts a service that leaves it out.
void notify_alive();
// To be followed by `notify_ready` in any case, or the manager waits for the end of it.
void notify_reloading();
// The manager then waits for the end, and takes it for no failure.
void notify_stopping();

// How often the manager wants to hear that the service lives, or `otherwise`.
std::chrono::milliseconds alive_interval(std::chrono::milliseconds otherwise);

#endif
