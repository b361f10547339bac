// Directory trees to measure, and the least that any program must do to measure one.
#ifndef BENCH_TREES_H
#define BENCH_TREES_H

#include <cstdint>
#include <string>

// `directories` directories below `root` with `files` files each, of 1 to 64 bytes.
void make_flat_tree(const std::string &root, int directories, int files);

// `chains` chains of `depth` nested directories with one file each.
void make_chains(const std::string &root, int chains, int depth);

// Bytes of all files below a directory: getdents64 and fstatat, and nothing else.
int64_t bare_walk(const char *path);

#endif
