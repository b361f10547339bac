// Walks the files of a folder and of the folders in it. Follows no link, keeps one folder open for
// each level, and makes no list of names.
#ifndef TRANSFER_TREE_WALK_H
#define TRANSFER_TREE_WALK_H

#include <functional>
#include <string>

// Borrowed for the length of the visit. It need not be a regular file: whoever opens it looks.
struct walked_file {
  int folder;  // that it is in
  const std::string &name;
  const std::string &key;  // its path from the root of the walk
};

// The visit may remove or rename the file that it was given.
struct walk_options {
  // Called for each file; false ends the walk.
  std::function<bool(const walked_file &)> visit;
  // Empty folders below the root that nothing entered or left since then are removed; 0 for none.
  double remove_empty_before = 0;
};

// False when the walk was ended, or the root cannot be read (errno).
bool walk_tree(const std::string &root, const walk_options &options);

#endif
