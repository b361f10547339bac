// Tries all that the service needs, and says what is wrong.
// Runs in a process of its own, beside the service; prints to standard output.
#include "transfer/check.h"

#include <sys/timex.h>
#include <unistd.h>

#include <cstdio>

#include "common/paths.h"
#include "transfer/probe.h"

namespace {

// Columns of fixed width, for people; nothing parses them.
void print(const char *verdict, const std::string &what, const std::string &detail) {
  std::printf("%-6s %-24s %s\n", verdict, what.c_str(), detail.c_str());
}

// The order of uploads and deletions of several nodes goes by their clocks. A virtual machine may
// have the time from its host; what counts is that it is that of the others, which is checked too.
void check_clock(check_report &report) {
  timex state{};
  // Called without a mode it only reads, and needs no rights.
  if (::adjtimex(&state) == TIME_ERROR) {
    report.note("clock", "not synchronised by a service of this machine: set up one, as chrony");
  } else {
    report.good("clock", "synchronised");
  }
}

}  // namespace

void check_report::good(const std::string &what, const std::string &detail) {
  print("ok", what, detail);
}

void check_report::note(const std::string &what, const std::string &detail) {
  print("note", what, detail);
}

void check_report::wrong(const std::string &what, const std::string &detail) {
  print("WRONG", what, detail);
  all_good_ = false;
}

int run_check(const service_settings &settings) {
  check_report report;
  report.good("configuration",
              std::string(qx_path(QX_PATH_TRANSFER_CONF)) + ", node " + settings.config.node);
  // What root may open says nothing about the service's user.
  if (::geteuid() == 0) {
    report.note("user", "this is root: run the check as the user of the service");
  }
  check_clock(report);
  check_folders(settings, report);
  check_cache_server(settings.config, report);
  check_locations(settings.config, report);
  // A report that could not be printed must not end with 0.
  return report.all_good() && std::fflush(stdout) == 0 ? 0 : 1;
}
