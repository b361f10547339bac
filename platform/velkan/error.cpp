// Texts of the error codes.
// Static, in English, and part of fixed log lines.
#include "platform/velkan/velkan.h"

const char *vk_strerror(int code) {
  switch (code) {
    case VK_OK:
      return "success";
    case VK_ERR_CLIENT:
      return "no client or no server";
    case VK_ERR_DOWN:
      return "no server answers";
    case VK_ERR_IO:
      return "connection lost or timed out";
    case VK_ERR_REPLY:
      return "error reply";
    case VK_ERR_NOT_FOUND:
      return "not found";
    case VK_ERR_ARGUMENT:
      return "invalid argument";
    case VK_ERR_MEMORY:
      return "out of memory";
    default:
      return "unknown error";
  }
}
