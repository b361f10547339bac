// Whom hosts and the transfer service speak to. Internal to main/transfer/ and transfer/.
#ifndef MAIN_TRANSFER_PEERS_H
#define MAIN_TRANSFER_PEERS_H

#include <sys/types.h>

class trusted_peers {
 public:
  // Looks the user and the group "asterisk" up, which may wait for a directory service.
  trusted_peers();

  // Whether the process at the other end of a Unix socket may be trusted. It must run as this
  // process's user, root, user asterisk, or a member of group asterisk.
  bool trust(int socket) const;

 private:
  uid_t user_ = no_id;
  gid_t group_ = no_id;
  static constexpr unsigned no_id = -1U;  // no user or group has it
};

#endif
