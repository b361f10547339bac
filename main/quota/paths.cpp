#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "base/view.h"
#include "quota/store.h"
#include "zarn_str.h"
#include "zarn_user.h"

namespace {

// An account's directory or, but for "all kinds", its quota file of one kind.
c_string quota_path(const char *root, std::initializer_list<int> ids, unsigned kind) {
  char *text = nullptr;
  bool complete = zarn_str_append(&text, "%s", root) != nullptr;
  for (const int id : ids) complete = complete && zarn_str_append(&text, "/%d", id) != nullptr;
  if (kind != QUOTA_ALL_KINDS) {
    complete = complete && zarn_str_append(&text, "/%s.quota", quota_kind_names[kind]) != nullptr;
  }
  c_string path(text);
  return complete ? std::move(path) : nullptr;
}

void hand_over(c_string &path, char **output) {
  if (path) *output = path.release();
}

// A growing list of formatted paths that is handed over as a C array.
class path_list {
 public:
  bool add(const char *format, ...) __attribute__((format(printf, 2, 3))) {
    char *text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = ::vasprintf(&text, format, arguments);
    va_end(arguments);
    c_string path(length < 0 ? nullptr : text);
    if (!path) return false;
    paths_.push_back(std::move(path));
    return true;
  }

  int hand_over(char ***paths, size_t *count) {
    auto *array = static_cast<char **>(std::calloc(paths_.size() + 1, sizeof(char *)));
    if (array == nullptr) return -1;
    for (size_t i = 0; i < paths_.size(); ++i) array[i] = paths_[i].release();
    *paths = array;
    *count = paths_.size();
    return 0;
  }

 private:
  std::vector<c_string> paths_;
};

// The numbers of an owner's extensions; empty when there are none.
std::vector<c_string> extensions_of(const char *client_id, const char *owner_id,
                                    bool numbers_only) {
  size_t count = 0;
  using array = std::unique_ptr<char *, call_to_release<std::free>>;
  const array numbers(qx_user_get_extensions_sess(nullptr, client_id, std::atoi(owner_id),
                                                  numbers_only ? 1 : 0, &count));
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
bool add_extension_paths(path_list &list, unsigned kind, const char *spool, const char *client_id,
                         const char *owner_id) {
  const bool mailboxes = kind == QUOTA_VOICEMAIL;
  if (mailboxes && client_id == nullptr) return false;
  for (const c_string &extension : extensions_of(client_id, owner_id, mailboxes)) {
    const bool added = mailboxes ? list.add("%s/voicemail/%s/%s", spool, client_id, extension.get())
                                 : list.add("%s/%s/%s", spool,
                                            kind == QUOTA_FAX ? "fax" : "monitor", extension.get());
    if (!added) return false;
  }
  return true;
}

}  // namespace

int make_qpaths(unsigned kind, int reseller_id, int client_id, int owner_id, char **reseller_path,
                char **client_path, char **owner_path) {
  if (kind > QUOTA_ALL_KINDS || reseller_id < 1) return -1;
  const quota_settings *settings = loaded_settings();
  if (settings == nullptr) return -1;
  const char *root = settings->quota_root.get();

  const bool want_owner = owner_path != nullptr && client_id != 0 && owner_id != 0;
  const bool want_client = client_path != nullptr && client_id != 0;
  const bool want_reseller = reseller_path != nullptr;
  c_string owner;
  c_string client;
  c_string reseller;
  if (want_owner) owner = quota_path(root, {reseller_id, client_id, owner_id}, kind);
  if (want_client) client = quota_path(root, {reseller_id, client_id}, kind);
  if (want_reseller) reseller = quota_path(root, {reseller_id}, kind);
  if ((want_owner && !owner) || (want_client && !client) || (want_reseller && !reseller)) return -1;

  hand_over(owner, owner_path);
  hand_over(client, client_path);
  hand_over(reseller, reseller_path);
  return 0;
}

bool ancestry_paths::make(unsigned kind, int reseller_id, int client_id, int owner_id) {
  char *made[] = {nullptr, nullptr, nullptr};
  const int status =
      make_qpaths(kind, reseller_id, client_id, owner_id, &made[0], &made[1], &made[2]);
  reseller.reset(made[0]);
  client.reset(made[1]);
  owner.reset(made[2]);
  return status == 0;
}

int make_dpath(unsigned kind, int level, const char *reseller_id, const char *client_id,
               const char *owner_id, char ***paths, size_t *count) {
  const char *account = nullptr;
  if (level == LEVEL_RESELLER) account = reseller_id;
  if (level == LEVEL_CLIENT) account = client_id;
  if (level == LEVEL_OWNER) account = owner_id;
  const quota_settings *settings = is_empty(account) ? nullptr : loaded_settings();
  if (settings == nullptr) return -1;

  path_list list;
  bool complete = false;
  switch (kind) {
    case QUOTA_SOUND:
      complete = list.add("%s/sounds/.%s", settings->ast_var_lib_dir.get(), account);
      break;
    case QUOTA_MUSIC:
      complete = list.add("%s/music/%s", settings->ast_var_lib_dir.get(), account);
      break;
    case QUOTA_FAX:
    case QUOTA_RECORDING:
    case QUOTA_VOICEMAIL:
      complete =
          level == LEVEL_OWNER &&
          add_extension_paths(list, kind, settings->ast_spool_dir.get(), client_id, owner_id);
      break;
    default:
      break;
  }
  return complete ? list.hand_over(paths, count) : -1;
}

void free_dpath(char **paths, size_t count) {
  for (size_t i = 0; i < count; ++i) std::free(paths[i]);
  std::free(paths);
}

char *quota_str_append(char **path, int number, ...) {
  if (path == nullptr) return nullptr;
  const size_t length = *path == nullptr ? 0 : std::strlen(*path);
  if ((length == 0 || (*path)[length - 1] != '/') && zarn_str_append(path, "/") == nullptr) {
    return nullptr;
  }
  if (number != 0) return zarn_str_append(path, "%d", number);

  va_list arguments;
  va_start(arguments, number);
  const char *text = va_arg(arguments, const char *);
  const int keep_zeros = va_arg(arguments, int);
  va_end(arguments);
  if (text == nullptr) return nullptr;
  if (keep_zeros == 0) text += std::strspn(text, "0");
  return zarn_str_append(path, "%s", text);
}
