// Where a command writes: standard output, or a file that appears whole or not at all.
#ifndef REPORT_OUTPUT_H
#define REPORT_OUTPUT_H

#include <cstdio>
#include <string>

#include "platform/base/owner.h"

// Call first of all. Takes the place of standard descriptors that are closed, as the first file or
// connection that is opened would get their number and the report with it. A reader that goes away
// becomes an error of writing.
void prepare_standard_streams();

// Write to stream(), then commit(). A file is written beside its place under another name, and
// renamed when it is complete; without a commit nothing is left of it. What is there and no regular
// file, like a device, a fifo or a link to nothing, is written to as it is and never replaced. All
// functions throw report_trouble.
class report_output {
 public:
  // Without a path, with "-" or "/dev/stdout", standard output.
  explicit report_output(const char *path = nullptr);
  report_output(const report_output &) = delete;
  report_output &operator=(const report_output &) = delete;
  ~report_output();

  // Borrowed, until `commit`.
  FILE *stream() const { return file_ ? file_.get() : stdout; }
  // Sees to it that everything was written.
  void commit();

 private:
  // Throws with the path and the error's text.
  [[noreturn]] void fail(int error) const;
  // In the same folder, as a rename works within one file system only.
  void open_beside();

  std::string path_;       // where the content is to be in the end; empty for standard output
  std::string temporary_;  // where it is as yet; empty when it is in its place
  c_file file_;
};

#endif
