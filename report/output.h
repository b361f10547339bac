// Where a command writes: standard output, or a file that appears whole or not at all.
#ifndef REPORT_OUTPUT_H
#define REPORT_OUTPUT_H

#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "platform/base/owner.h"

// Call first of all. Opens standard descriptors that are closed. Otherwise the first file or
// connection would get their number, and the report with it. A reader that goes away
// becomes an error of writing, and a signal that ends the process removes what is not complete.
void prepare_standard_streams();

// What cannot be written shows later, in the state of the stream.
void write_text(FILE *stream, std::string_view text);

// Write to stream(), then commit(). A file is written beside its place under another name, and
// renamed when it is complete; without a commit nothing is left of it. A file that is replaced
// hands on its mode and, where this process may give it away, its owner. A device,
// a fifo or a link to nothing is never replaced. Neither is a file that the caller has open for
// this process. These are written to at their end. All functions throw report_trouble.
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
  void open_beside(const struct stat *old);
  void remove_temporary();
  void forget_temporary();

  std::string path_;       // where the content ends up; empty for standard output
  std::string temporary_;  // where it is as yet; empty when it is in its place
  c_file file_;
};

#endif
