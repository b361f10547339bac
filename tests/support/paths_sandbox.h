// The provider of fixed paths in tests and the demo: the platform's paths with a folder in front.
#ifndef TESTS_SUPPORT_PATHS_SANDBOX_H
#define TESTS_SUPPORT_PATHS_SANDBOX_H

#include <string>

namespace support {

// The environment variable that names the folder for a program that never calls set_paths_root.
inline constexpr const char *paths_root_variable = "SPOOLCAP_SANDBOX";
// The one that names a file for the log of the sandboxed command: priority and text, line by line.
inline constexpr const char *log_variable = "SPOOLCAP_SANDBOX_LOG";

// Puts `root` (absolute, no slash at its end) in front of every path from now on. Texts that
// qx_path gave before must not be used any more.
void set_paths_root(const std::string &root);

}  // namespace support

#endif
