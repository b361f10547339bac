// Builds paths; touches no file. Extensions of an owner come from the account lookups.
// Ids and settings go in, texts come out.
#include "main/quota/tree_paths.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include <spoolcap/zarn_user.h>
#include "main/quota/kinds.h"
#include "main/quota/settings.h"
#include "platform/base/owner.h"
#include "platform/base/view.h"

namespace {

// An account's directory or, but for "all kinds", its quota file of one kind.
std::string quota_path(std::initializer_list<int> ids, unsigned kind) {
  std::string path = loaded_settings()->quota_root;
  for (const int id : ids) path += "/" + std::to_string(id);
  if (kind != QUOTA_ALL_KINDS) path += std::string("/") + media_kinds[kind].quota_file;
  return path;
}

// The numbers of an owner's extensions; empty when there are none.
std::vector<c_string> extensions_of(const char *client_id, const char *owner_id,
                                    bool numbers_only) {
  size_t count = 0;
  // The array is the caller's, and so is each string in it.
  const c_memory<char *> numbers(qx_user_get_extensions_sess(
      nullptr, client_id, std::atoi(owner_id), numbers_only ? 1 : 0, &count));
  std::vector<c_string> extensions;
  if (!numbers) return extensions;
  extensions.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    c_string number(numbers.get()[i]);
    if (number) extensions.push_back(std::move(number));
  }
  return extensions;
}

// Mailboxes lie below their client and go by the short number; recordings and faxes of all clients
// lie side by side and go by the full one.
bool add_extension_paths(std::vector<std::string> &paths, unsigned kind, const char *client_id,
                         const char *owner_id) {
  const bool mailboxes = kind == QUOTA_VOICEMAIL;
  if (mailboxes && client_id == nullptr) return false;
  std::string folder = loaded_settings()->ast_spool_dir;
  folder += std::string("/") + media_kinds[kind].folder;
  if (mailboxes) folder += std::string("/") + client_id;
  for (const c_string &extension : extensions_of(client_id, owner_id, mailboxes)) {
    paths.push_back(folder + "/" + extension.get());
  }
  return true;
}

}  // namespace

int make_qpaths(unsigned kind, int reseller_id, int client_id, int owner_id,
                std::string *reseller_path, std::string *client_path, std::string *owner_path) {
  if (kind > QUOTA_ALL_KINDS || reseller_id < 1 || loaded_settings() == nullptr) return -1;
  // Outputs without ids stay untouched, as the contract says.
  if (owner_path != nullptr && client_id != 0 && owner_id != 0) {
    *owner_path = quota_path({reseller_id, client_id, owner_id}, kind);
  }
  if (client_path != nullptr && client_id != 0) {
    *client_path = quota_path({reseller_id, client_id}, kind);
  }
  if (reseller_path != nullptr) *reseller_path = quota_path({reseller_id}, kind);
  return 0;
}

int make_dpath(unsigned kind, int level, const char *reseller_id, const char *client_id,
               const char *owner_id, std::vector<std::string> &paths) {
  const char *account = nullptr;
  if (level == LEVEL_RESELLER) account = reseller_id;
  if (level == LEVEL_CLIENT) account = client_id;
  if (level == LEVEL_OWNER) account = owner_id;
  const quota_settings *settings = is_empty(account) ? nullptr : loaded_settings();
  if (settings == nullptr) return -1;

  switch (kind) {
    // The dot is the platform's: folders of sounds are hidden ones.
    case QUOTA_SOUND:
      paths.push_back(settings->ast_var_lib_dir + "/" + media_kinds[kind].folder + "/." + account);
      return 0;
    case QUOTA_MUSIC:
      paths.push_back(settings->ast_var_lib_dir + "/" + media_kinds[kind].folder + "/" + account);
      return 0;
    case QUOTA_FAX:
    case QUOTA_RECORDING:
    case QUOTA_VOICEMAIL:
      return level == LEVEL_OWNER && add_extension_paths(paths, kind, client_id, owner_id) ? 0 : -1;
    default:
      return -1;
  }
}

bool quota_str_append(std::string &path, int number, const char *text, bool keep_zeros) {
  if (!path.ends_with('/')) path += '/';
  if (number != 0) {
    path += std::to_string(number);
    return true;
  }
  if (text == nullptr) return false;
  // An id of zeros only leaves nothing behind the slash.
  if (!keep_zeros) text += std::strspn(text, "0");
  path += text;
  return true;
}
