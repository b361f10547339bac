// Any command of the cache server, for C++ callers whose needs the calls of velkan.h do not meet.
#ifndef PLATFORM_VELKAN_COMMAND_H
#define PLATFORM_VELKAN_COMMAND_H

#include <span>
#include <string_view>

#include "platform/velkan/handles.h"
#include "platform/velkan/velkan.h"

// Sends the words, counted byte strings of which the first is the verb. VK_OK with the reply, of
// any type but an error; or an error code. With VK_ERR_REPLY the reply holds the server's text,
// with all others it is null. A server that ends the connection during the command is asked once
// more, so that a command that changes something must bear being run twice.
int vk_run(vk_client_t *client, std::span<const std::string_view> words, vk_reply &reply);

#endif
