// Compressed streams: what is written to one ends up in a file in the form of zstd, and the
// reverse.
#ifndef REPORT_COMPRESSED_H
#define REPORT_COMPRESSED_H

#include <zstd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/owner.h"

// A stream that compresses into `file`, which it borrows. Closing it writes what is left, and fails
// when not all was written. Throws bad_alloc.
c_file compress_into(FILE *file);

// The content of a compressed file, in the shape of an input stream of RapidJSON. All functions
// throw report_trouble, with the path: the file cannot be read, is no compressed file, or is
// damaged or cut off. Behind the content, which may hold NUL itself, stands a NUL.
class decompressed_file {
 public:
  // Names that RapidJSON prescribes.
  using Ch = char;
  explicit decompressed_file(const std::string &path);

  // The next byte without taking it; NUL at the end, as the parser expects.
  char Peek() {
    if (next_ < content_.size()) return content_[next_];
    return ended_ ? '\0' : fill();
  }
  char Take() {
    const char byte = Peek();
    if (!ended_) ++next_;
    return byte;
  }
  size_t Tell() const { return before_ + next_; }
  // Whether all of the content was taken, and its end looked at.
  bool has_ended() const { return ended_; }
  // Only for streams that are written to.
  char *PutBegin() { return nullptr; }
  void Put(char) {}
  size_t PutEnd(char *) { return 0; }

 private:
  // Unpacks the next piece and gives its first byte.
  char fill();
  // Bytes read from the file; 0 at its end.
  size_t read_more();
  [[noreturn]] void fail(const char *reason) const;

  std::string path_;
  c_file file_;
  std::unique_ptr<ZSTD_DCtx, call_to_release<ZSTD_freeDCtx>> context_;
  std::vector<char> compressed_, content_;
  ZSTD_inBuffer input_ = {};
  size_t next_ = 0;    // in the content
  size_t before_ = 0;  // bytes before the content
  size_t wanted_ = 1;  // more bytes until a whole frame; 0 between frames
  bool ended_ = false;
};

#endif
