// What hosts and the transfer service say to each other: datagrams of a Unix SOCK_SEQPACKET socket,
// each one a head of fixed size and the texts behind it. Both ends run on one machine.
#ifndef MAIN_TRANSFER_PROTOCOL_H
#define MAIN_TRANSFER_PROTOCOL_H

#include <cstdint>

// Numbers are part of the protocol: an old host may meet a new service.
enum class transfer_word : std::uint32_t {
  // Host to service.
  download = 1,  // `id` is the host's own; texts location and key; one descriptor, open for writing
  queued = 2,    // something was queued just now; no answer
  status = 3,    // asks for the state; answered by `report`, in pieces
  // Service to host.
  done = 16,    // the download `id` ended; `status` is that of qx_storage_done_fn
  report = 17,  // a piece of the state, JSON; an empty piece ends it
};

struct transfer_head {
  std::uint32_t magic;    // transfer_magic
  std::uint32_t version;  // transfer_version
  transfer_word word;
  std::int32_t status;
  std::uint64_t id;
  std::uint32_t first_length;  // bytes of the two texts that follow
  std::uint32_t second_length;
};

// "SPLT" as a number. A datagram of another magic or version ends the connection.
inline constexpr std::uint32_t transfer_magic = 0x53504c54;
inline constexpr std::uint32_t transfer_version = 1;
inline constexpr std::uint32_t longest_datagram = 32'768;

#endif
