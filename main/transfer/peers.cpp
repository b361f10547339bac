// Asks the kernel which user is at the other end of a socket, and decides whether to trust it.
// Used by both ends before the first byte is believed.
#include "main/transfer/peers.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "platform/base/ids.h"

namespace {

// The supplementary groups of the process at the other end; none when they cannot be had.
std::vector<gid_t> groups_of_peer(int socket) {
  std::vector<gid_t> groups(64);
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    const int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    groups.resize(size / sizeof(gid_t));  // what they are, or what it takes
    if (result == 0) return groups;
  }
  return {};
}

}  // namespace

// Each by itself: a platform may have the user without the group.
trusted_peers::trusted_peers() {
  get_ids("asterisk", nullptr, &user_, nullptr);
  get_ids(nullptr, "asterisk", nullptr, &group_);
}

bool trusted_peers::trust(int socket) const {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  // The kernel noted these at connect or listen; a peer cannot change them afterwards.
  if (peer.uid == ::geteuid() || peer.uid == 0) return true;
  if (user_ != no_id && peer.uid == user_) return true;
  if (group_ == no_id) return false;
  if (peer.gid == group_) return true;
  const std::vector<gid_t> groups = groups_of_peer(socket);
  return std::find(groups.begin(), groups.end(), group_) != groups.end();
}
