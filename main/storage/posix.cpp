// Engine POSIX: files in local folders, one folder for each kind of media.
// Moves files within the base directory; asks neither service nor queue.
#include <strings.h>

#include <cerrno>
#include <cstring>

#include "main/storage/engine.h"
#include "main/storage/names.h"
#include "main/storage/session.h"
#include "platform/base/view.h"

namespace {

// What a file is called below its folder, compared as it always was: ignoring case, and without a
// look at where the folder's last component ends.
std::string name_below(const std::string &folder, const std::string &path) {
  if (::strncasecmp(path.c_str(), folder.c_str(), folder.size()) != 0) return path;
  const size_t start = folder.size();
  return path.substr(path.compare(start, 1, "/") == 0 ? start + 1 : start);
}

std::string final_path(const qx_storage_session &session, int file_id) {
  const std::string &name = session.posix.requested_name;
  // A caller that names a whole path chooses its place outside of the folders as well.
  if (name.starts_with('/')) return name;
  return session.posix.folder + "/" +
         (name.empty() ? owned_file(session.first_id, session.second_id, file_id, session.extension)
                       : name);
}

// Folders are made when the first file comes.
int initialize() {
  return 0;
}

const storage_engine &choose(const call_site & /*site*/, const storage_snapshot & /*now*/) {
  return posix_engine;
}

bool prepare(const call_site &site, qx_storage_session &session) {
  session.posix.folder = folder_of_type(session.config(), session.resource_type);
  if (session.posix.folder.empty()) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Requested to store unknown resource type [%d].\n\n",
              session.resource_type);
    return false;
  }
  auto made = make_temporary_file(session.posix.folder + "/tmp", session.extension);
  if (!made) return false;
  session.temporary = std::move(*made);
  return true;
}

std::optional<stored_file> store(const call_site &site, qx_storage_session &session, int file_id) {
  stored_file file;
  file.path = final_path(session, file_id);
  file.name = name_below(session.posix.folder, file.path);
  const int error = move_file(session.temporary.path(), file.path);
  if (error != 0) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Failed to move file [%s] to [%s]: %s.\n\n",
              session.temporary.path().c_str(), file.path.c_str(), std::strerror(error));
    return std::nullopt;
  }
  // Another session may draw the same name from now on.
  session.temporary.give_up();
  return file;
}

bool fetch(const call_site &site, qx_storage_session &session, const char *name,
           const char * /*extra*/) {
  const std::string folder = folder_of_type(session.config(), session.resource_type);
  if (folder.empty()) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Requested to retrieve unknown resource type [%d].\n\n",
              session.resource_type);
    return false;
  }
  std::string path = folder + "/" + (name == nullptr ? "" : name);
  const int error = is_empty(name) || has_parent_component(name) ? EINVAL : find_file(path);
  if (error != 0) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Cannot retrieve requested file from storage [%s]: %s.\n\n",
              path.c_str(), std::strerror(error));
    return false;
  }
  session.finish(QX_STORAGE_READY, std::move(path));
  return true;
}

int remove_file(const call_site &site, const storage_config &config, int type, const char *name,
                const char * /*location*/) {
  const std::string folder = folder_of_type(config, type);
  const std::string path = folder + "/" + (name == nullptr ? "" : name);
  int error = folder.empty() || is_empty(name) || has_parent_component(name) ? EINVAL : 0;
  if (error == 0 && ::unlink(path.c_str()) != 0) error = errno;
  if (error != 0) {
    QX_LOG_AT(site, FR_LOG_WARNING, "Could not remove file [%s]: %s.\n\n", path.c_str(),
              std::strerror(error));
  }
  return error;
}

}  // namespace

const storage_engine posix_engine = {.word = "posix",
                                     .needs_location = false,
                                     .is_name_in_row = false,
                                     .initialize = initialize,
                                     .choose = choose,
                                     .prepare = prepare,
                                     .store = store,
                                     .fetch = fetch,
                                     .remove = remove_file};
