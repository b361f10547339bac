// Files on the way to their place. Paths are whole; errors are error numbers, 0 is success.
// Internal to main/storage/.
#ifndef MAIN_STORAGE_FILES_H
#define MAIN_STORAGE_FILES_H

#include <unistd.h>

#include <optional>
#include <string>
#include <utility>

#include "platform/base/owner.h"

// A file on its way out of the cache has this in front of its name. One that is found later was
// left by a process that was killed; it may be a file that had just taken the name.
inline constexpr const char *removing_prefix = ".removing-";

// The attribute of a cached file that says that the object store has it.
inline constexpr const char *receipt_attribute = "user.spoolcap.stored";

// Of stored files and of folders made here, whatever the umask is; a temporary file has it less the
// umask.
inline constexpr mode_t storage_mode = 0770;

// A file that is removed at the end, unless its name was given up before. The name can be read for
// as long as this lives.
class temporary_file {
 public:
  temporary_file() = default;
  explicit temporary_file(std::string path) : path_(std::move(path)), owned_(true) {}
  temporary_file(temporary_file &&other) noexcept
      : path_(std::move(other.path_)), owned_(std::exchange(other.owned_, false)) {}
  temporary_file &operator=(temporary_file &&other) noexcept {
    std::swap(path_, other.path_);
    std::swap(owned_, other.owned_);
    return *this;
  }
  ~temporary_file() { remove(); }

  // Whole, as it was made.
  const std::string &path() const noexcept { return path_; }
  // Forgets the file without removing it: the name is not ours any more.
  void give_up() noexcept { owned_ = false; }
  void remove() noexcept {
    if (std::exchange(owned_, false)) ::unlink(path_.c_str());
  }

 private:
  std::string path_;
  bool owned_ = false;
};

// Seeds rand, which draws the names of temporary files, unless that was done in this process.
void seed_names() noexcept;

// Makes a folder and all above it.
int make_folder(const std::string &folder);

// A new, empty file of a random name in a folder, which is made when it is not there. Nothing, with
// the reason logged, when there can be none.
std::optional<temporary_file> make_temporary_file(const std::string &folder,
                                                  const std::string &extension);

// A file of the cache, from before it gets its name until its commit is queued. While this lives,
// neither a deletion nor the transfer service removes the file; it ends with the process.
class committed_file {
 public:
  committed_file() = default;
  // Another descriptor of an open file. Without one, nothing protects the file.
  explicit committed_file(int fd);
  committed_file(committed_file &&) = default;
  committed_file &operator=(committed_file &&) = default;
  ~committed_file();

 private:
  unique_fd fd_;
};

// Brings a file to a place whose folder is made when it is not there. What is at that place is
// replaced, and is never half a file. On an error the place and the source are as they were.
int copy_file(const std::string &from, const std::string &to, committed_file &copy);
int move_file(const std::string &from, const std::string &to);
// EEXIST, in place of replacing what is there. The receipt of a download stays with it.
int move_new_file(const std::string &from, const std::string &to);

// The file that a path names now. No other file is taken for it while this lives.
class held_file {
 public:
  // A file that is not there, or a folder, gives the error number of a removal. Follows no link.
  explicit held_file(std::string path);
  // Whether its commit was not queued yet when this was made.
  bool is_being_committed() const { return is_being_committed_; }
  // Removes the file unless another one has its name by now. A file that is not there is success.
  int remove() const;

 private:
  // Whether the path names the file that is held, by device and inode.
  bool is_at(const std::string &path) const;

  std::string path_;
  unique_fd fd_;
  int error_ = 0;
  bool is_being_committed_ = false;
};

// 0 when the path names a file that is no folder, else an error number.
int find_file(const std::string &path);

#endif
