// Owner of an array of heap strings as C callers expect it: array and strings from malloc.
#ifndef PLATFORM_BASE_TEXT_ARRAY_H
#define PLATFORM_BASE_TEXT_ARRAY_H

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

#include "platform/base/owner.h"

// A fixed number of slots, each a string or NULL. An empty owner holds no array at all.
class text_array {
 public:
  text_array() noexcept = default;
  // All slots NULL; throws std::bad_alloc. An array without a slot is an array all the same.
  explicit text_array(size_t count)
      : slots_(static_cast<char **>(std::calloc(std::max<size_t>(count, 1), sizeof(char *)))),
        count_(count) {
    if (slots_ == nullptr) throw std::bad_alloc();
  }
  // Takes over an array; NULL gives an empty owner.
  text_array(char **slots, size_t count) noexcept
      : slots_(slots), count_(slots == nullptr ? 0 : count) {}
  text_array(text_array &&other) noexcept
      : slots_(std::exchange(other.slots_, nullptr)), count_(std::exchange(other.count_, 0)) {}
  text_array &operator=(text_array &&other) noexcept {
    std::swap(slots_, other.slots_);
    std::swap(count_, other.count_);
    return *this;
  }
  ~text_array() {
    for (size_t slot = 0; slot < count_; ++slot) std::free(slots_[slot]);
    std::free(slots_);
  }

  // Takes over an array that ends with a NULL slot, which is not counted.
  static text_array of_list(char **list) noexcept {
    size_t count = 0;
    while (list != nullptr && list[count] != nullptr) ++count;
    return {list, count};
  }

  explicit operator bool() const noexcept { return slots_ != nullptr; }
  size_t count() const noexcept { return count_; }
  // Borrowed; the owner still frees array and strings.
  char **data() const noexcept { return slots_; }
  char *operator[](size_t slot) const noexcept { return slots_[slot]; }
  // Hands one string over and leaves NULL in its slot.
  c_string take(size_t slot) noexcept { return c_string(std::exchange(slots_[slot], nullptr)); }
  // Frees what the slot held before.
  void set(size_t slot, c_string value) noexcept {
    std::free(std::exchange(slots_[slot], value.release()));
  }
  // Hands everything over to the caller.
  char **release() noexcept {
    count_ = 0;
    return std::exchange(slots_, nullptr);
  }

 private:
  char **slots_ = nullptr;
  size_t count_ = 0;
};

// The string of an array that has one slot; null for NULL.
inline c_string only_text(char **array) noexcept {
  text_array texts(array, 1);
  return texts ? texts.take(0) : nullptr;
}

#endif
