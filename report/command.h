// A command of the program, and what it throws when it cannot go on.
#ifndef REPORT_COMMAND_H
#define REPORT_COMMAND_H

#include <popt.h>

#include <stdexcept>
#include <string>
#include <vector>

// The statuses of the program.
enum report_status {
  REPORT_OK = 0,
  REPORT_FINDINGS = 1,  // of `check` only
  REPORT_TROUBLE = 2    // bad input, no platform to be read, output not written
};

// Ends the command with status 2; the text is one line on standard error.
class report_trouble : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The texts are static. popt keeps what it parses in variables of the command's file.
struct report_command {
  const char *name;
  const char *arguments;  // in the help, after the options: "FILE"; empty for a command with none
  const char *summary;    // one line in the help of the program
  const char *details;    // the help of the command, in whole lines
  const poptOption *options;  // ends with POPT_TABLEEND; fills what the command reads in `run`
  // Takes the words that are no options; throws report_trouble.
  report_status (*run)(const std::vector<std::string> &words);
};

// Each command is a row of its own file, listed in main.cpp.
extern const report_command list_command;
extern const report_command diff_command;
extern const report_command page_command;
extern const report_command snapshot_command;
extern const report_command metrics_command;
extern const report_command check_command;

#endif
