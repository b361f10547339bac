// A platform of one's own for one test: folder, configuration files, database and cache.
//
// The helpers below add rows and files. The code under test, in this process or in the sandboxed
// command, sees only what is in here. Failures of the helpers throw.
#ifndef TESTS_SUPPORT_SANDBOX_H
#define TESTS_SUPPORT_SANDBOX_H

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sql/handles.h"
#include "platform/velkan/handles.h"
#include "tests/support/process.h"
#include "tests/support/servers.h"

namespace support {

struct sandbox_options {
  bool use_database = true;  // false: no server is named, and none is needed
  bool use_cache = true;
  mariadb_server *database = nullptr;  // a server of the test's own instead of the shared one
  redis_server *cache = nullptr;
  // Guides in docs/: the code under test connects as the user that they make, with no other rights.
  std::vector<std::string> guides = {};  // none: a user with all rights
};

using sql_row = std::vector<std::optional<std::string>>;  // nullopt is NULL

class sandbox {
 public:
  explicit sandbox(const sandbox_options &options = {});
  sandbox(const sandbox &) = delete;
  sandbox &operator=(const sandbox &) = delete;
  ~sandbox();

  // Files. Relative names are below the sandbox's root: "etc/quorvex/pbx.conf".
  const std::filesystem::path &root() const { return folder_.path(); }
  std::string path(std::string_view relative) const;
  // Missing folders on the way are made.
  void write_file(std::string_view relative, std::string_view text);
  void write_file(std::string_view relative, int size);  // of so many bytes, whichever
  std::optional<std::string> read_file(std::string_view relative) const;  // nullopt: not there
  void make_folder(std::string_view relative);

  // The quota file of an account's place and a kind: "1/2/21/fax", "1/music".
  std::string quota_path(const std::string &place_and_kind) const;

  // Media folders, relative to the root; `id` as the engine spells it ("12", or "0012").
  static std::string sound_folder(std::string_view id);
  static std::string music_folder(std::string_view id);

  // Database.
  const std::string &database() const { return database_; }
  const std::string &mariadb_socket() const { return mariadb_socket_; }
  std::vector<sql_row> sql(const std::string &statement) const;
  // First column of the first row; nullopt for NULL and for no row.
  std::optional<std::string> sql_value(const std::string &statement) const;

  // Cache, in the database of this sandbox. The reply as text: integers in decimal, nullopt for
  // nil; an error reply throws.
  int cache_database() const { return cache_database_; }
  const std::string &redis_socket() const { return redis_socket_; }
  std::optional<std::string> redis(const std::vector<std::string> &command) const;

  // Accounts: a row of client and one of hs_account.
  void add_account(int id, std::optional<int> parent, int level, std::string_view login);
  void add_reseller(int id, std::string_view login) { add_account(id, 0, 10, login); }
  void add_client(int id, int reseller, std::string_view login) {
    add_account(id, reseller, 50, login);
  }
  void add_owner(int id, int client, std::string_view login) {
    add_account(id, client, 100, login);
  }
  void set_preference(int account, std::string_view name, std::string_view value);

  // An extension of an owner; its extended number is "<owner's parent, 4 digits>*<number>".
  void add_extension(int id, int owner, std::string_view number);
  // Rows of stored files.
  void add_recording(int extension, std::int64_t size) {
    add_stored_file("recording", extension, size);
  }
  void add_voicemail(int extension, std::int64_t size) {
    add_stored_file("voicemail", extension, size);
  }
  void add_fax(int extension, std::int64_t size) { add_stored_file("fax_center", extension, size); }

  // The command in this sandbox.
  process_result run_spoolcap(const std::vector<std::string> &arguments) const;
  std::unique_ptr<background_process> start_spoolcap(
      const std::vector<std::string> &arguments) const;
  // The report in it.
  process_result run_report(const std::vector<std::string> &arguments) const;

 private:
  void make_database(const sandbox_options &options);
  void make_user(const std::vector<std::string> &guides);
  void make_cache_database(const sandbox_options &options);
  void write_configuration(const sandbox_options &options);
  void add_stored_file(const std::string &table, int extension, std::int64_t size);
  std::string quoted(std::string_view text) const;
  std::unique_ptr<background_process> start(const char *program,
                                            const std::vector<std::string> &arguments) const;

  private_folder folder_;
  std::string mariadb_socket_, redis_socket_, redis_password_;
  std::string database_;
  std::string user_ = database_user;  // of the code under test
  int cache_database_ = 0;
  mysql_handle sql_;
  vk_context redis_;
};

}  // namespace support

#endif
