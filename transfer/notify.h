// What the service manager is told. Without one, nothing happens here.
#ifndef TRANSFER_NOTIFY_H
#define TRANSFER_NOTIFY_H

#include <chrono>
#include <string>

void notify_ready(const std::string &status);
void notify_status(const std::string &status);
void notify_alive();
void notify_reloading();
void notify_stopping();

// How often the manager wants to be told that the service lives, or `otherwise`.
std::chrono::milliseconds alive_interval(std::chrono::milliseconds otherwise);

#endif
