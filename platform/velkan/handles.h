// Owners of what hiredis hands out.
#ifndef PLATFORM_VELKAN_HANDLES_H
#define PLATFORM_VELKAN_HANDLES_H

#include <hiredis/hiredis.h>

#include "platform/base/owner.h"

using vk_context = std::unique_ptr<redisContext, call_to_release<redisFree>>;
using vk_reply = std::unique_ptr<redisReply, call_to_release<freeReplyObject>>;
using vk_reader = std::unique_ptr<redisReader, call_to_release<redisReaderFree>>;
using vk_command_text = std::unique_ptr<char, call_to_release<redisFreeCommand>>;

// The reply of hiredis's own commands, which give it as a plain pointer.
inline vk_reply own_reply(void *reply) noexcept {
  return vk_reply(static_cast<redisReply *>(reply));
}

#endif
