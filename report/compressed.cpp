// Compresses and unpacks files of snapshots.
// A stream of the C library to write, one of RapidJSON to read.
#include "report/compressed.h"

#include <endian.h>

#include <cstring>
#include <new>
#include <utility>

#include "report/command.h"

namespace {

// What the stream carries around; freed when it is closed.
struct compression {
  explicit compression(FILE *to) : file(to) {}
  FILE *file;
  std::unique_ptr<ZSTD_CCtx, call_to_release<ZSTD_freeCCtx>> context{ZSTD_createCCtx()};
  std::vector<char> out = std::vector<char>(ZSTD_CStreamOutSize());
};

// Compresses all of the input; with ZSTD_e_end also what is held back, and ends the frame.
bool compress(compression &to, ZSTD_inBuffer input, ZSTD_EndDirective how) {
  for (;;) {
    ZSTD_outBuffer output = {to.out.data(), to.out.size(), 0};
    const size_t left = ZSTD_compressStream2(to.context.get(), &output, &input, how);
    if (ZSTD_isError(left) != 0) {
      // The library fails at nothing else here: its input cannot be wrong.
      errno = ENOMEM;
      return false;
    }
    if (std::fwrite(to.out.data(), 1, output.pos, to.file) != output.pos) return false;
    if (how == ZSTD_e_end ? left == 0 : input.pos == input.size) return true;
  }
}

ssize_t write_part(void *cookie, const char *bytes, size_t size) {
  const bool done =
      compress(*static_cast<compression *>(cookie), {bytes, size, 0}, ZSTD_e_continue);
  // A cookie stream reports an error of writing as 0.
  return done ? static_cast<ssize_t>(size) : 0;
}

int end_stream(void *cookie) {
  const std::unique_ptr<compression> to(static_cast<compression *>(cookie));
  return compress(*to, {}, ZSTD_e_end) ? 0 : EOF;
}

}  // namespace

c_file compress_into(FILE *file) {
  auto made = std::make_unique<compression>(file);
  if (!made->context) throw std::bad_alloc();
  // What is damaged later is then found when it is read.
  ZSTD_CCtx_setParameter(made->context.get(), ZSTD_c_checksumFlag, 1);
  cookie_io_functions_t functions = {};
  functions.write = write_part;
  functions.close = end_stream;
  c_file stream(::fopencookie(made.get(), "w", functions));
  if (!stream) throw std::bad_alloc();
  [[maybe_unused]] const auto *const owned_by_stream = made.release();
  return stream;
}

decompressed_file::decompressed_file(const std::string &path)
    : path_(path),
      file_(std::fopen(path == "-" ? "/dev/stdin" : path.c_str(), "re")),
      context_(ZSTD_createDCtx()),
      compressed_(ZSTD_DStreamInSize()) {
  if (!file_) fail(std::strerror(errno));
  if (!context_) throw std::bad_alloc();
  // Looked at first, so that a wrong file is called by its name, not "damaged".
  std::uint32_t magic = 0;
  if (read_more() >= sizeof magic) std::memcpy(&magic, compressed_.data(), sizeof magic);
  if (le32toh(magic) != ZSTD_MAGICNUMBER) fail("is no snapshot");
}

size_t decompressed_file::read_more() {
  const size_t size = std::fread(compressed_.data(), 1, compressed_.size(), file_.get());
  if (std::ferror(file_.get()) != 0) fail(std::strerror(errno));
  input_ = {compressed_.data(), size, 0};
  return size;
}

char decompressed_file::fill() {
  // For the position in the parser's errors.
  before_ += std::exchange(next_, 0);
  content_.resize(ZSTD_DStreamOutSize());
  ZSTD_outBuffer output = {content_.data(), content_.size(), 0};
  while (output.pos == 0) {
    if (input_.pos == input_.size && read_more() == 0) {
      // In the middle of a frame; a file that ends between two is whole.
      if (wanted_ != 0) fail("is cut off");
      ended_ = true;
      break;
    }
    wanted_ = ZSTD_decompressStream(context_.get(), &output, &input_);
    if (ZSTD_isError(wanted_) != 0) fail("is damaged");
  }
  content_.resize(output.pos);
  return ended_ ? '\0' : content_[0];
}

void decompressed_file::fail(const char *reason) const {
  throw report_trouble(path_ + ": " + reason);
}
