// Tells the service manager of the service's state.
// Sends datagrams to the socket that the manager named, if there is one.
#include "transfer/notify.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdint>
#include <ctime>

void notify_ready(const std::string &status) {
  ::sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
}

void notify_status(const std::string &status) {
  ::sd_notify(0, ("STATUS=" + status).c_str());
}

void notify_alive() {
  ::sd_notify(0, "WATCHDOG=1");
}

void notify_reloading() {
  timespec now{};
  // By this time the manager knows which reload the next "ready" belongs to.
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const long long microseconds = now.tv_sec * 1'000'000LL + now.tv_nsec / 1000;
  ::sd_notify(0, ("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds)).c_str());
}

void notify_stopping() {
  ::sd_notify(0, "STOPPING=1");
}

std::chrono::milliseconds alive_interval(std::chrono::milliseconds otherwise) {
  std::uint64_t microseconds = 0;
  if (::sd_watchdog_enabled(0, &microseconds) <= 0) return otherwise;
  // Half of what the manager allows, as it recommends.
  const auto half = std::chrono::milliseconds(microseconds / 2000);
  return std::clamp(half, std::chrono::milliseconds(1), otherwise);
}
