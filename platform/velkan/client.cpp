// Clients: creating them and telling them of servers, keys and databases.
// Settings only; nothing is sent before the first command.
#include "platform/velkan/group.h"

namespace {

// Runs a change of the client's settings under its lock.
template <class Change>
int change(vk_client_t *client, Change &&body) noexcept {
  if (client == nullptr) return VK_ERR_CLIENT;
  vk_state &state = *client->state;
  return no_throw<int>(VK_ERR_MEMORY, [&state, &body] {
    const std::lock_guard guard(state.lock);
    return body(state);
  });
}

}  // namespace

// All that a client hands out comes from malloc whatever the handle was made of.
struct vk_mm {};

vk_mm_t *vk_mm_create(void *(*allocate)(size_t), void *(*allocate_cleared)(size_t, size_t),
                      void *(*resize)(void *, size_t), void (*release)(void *)) {
  if (allocate == nullptr || allocate_cleared == nullptr || resize == nullptr ||
      release == nullptr) {
    return nullptr;
  }
  return no_throw<vk_mm_t *>(nullptr, [] { return new vk_mm; });
}

void vk_mm_destroy(vk_mm_t *mm) {
  delete mm;
}

vk_client_t *vk_client_create(int, int, const vk_mm_t *mm, const void *reserved) {
  if (mm == nullptr || reserved != nullptr) return nullptr;
  return no_throw<vk_client_t *>(nullptr, [] {
    auto *state = new vk_state;
    // The secondary handle points at itself, so that callers need not know which one they hold.
    state->main = {&state->secondary, state};
    state->secondary = {&state->secondary, state};
    return &state->main;
  });
}

void vk_client_destroy(vk_client_t *client) {
  if (client != nullptr) delete client->state;
}

int vk_enable_syslog(vk_client_t *client, unsigned mask) {
  return change(client, [mask](vk_state &state) {
    state.log_mask = mask;
    return VK_OK;
  });
}

int vk_server_add(vk_client_t *client, const char *host, int port, const char *name) {
  if (host == nullptr || *host == '\0') return VK_ERR_ARGUMENT;
  if (*host != '/' && (port < 1 || port > 65535)) return VK_ERR_ARGUMENT;
  return change(client, [=](vk_state &state) {
    // Addresses are looked up at the first command, not here: a name may take long.
    state.servers.push_back({host, port, name == nullptr ? "" : name, {}, true});
    return VK_OK;
  });
}

int vk_set_database_key(vk_client_t *client, int database, const char *key, size_t key_length) {
  if (key == nullptr || database < 0) return VK_ERR_ARGUMENT;
  return change(client, [=](vk_state &state) {
    state.keys.insert_or_assign(database, std::string(key, key_length));
    return VK_OK;
  });
}

int vk_set_patient(vk_client_t *client) {
  return change(client, [](vk_state &state) {
    state.is_patient = true;
    return VK_OK;
  });
}

int vk_select(vk_client_t *client, int database, int flags) {
  if (database < 0 || flags != 0) return VK_ERR_ARGUMENT;
  return change(client, [database](vk_state &state) {
    // An open connection keeps the database that it selected when it was made.
    state.database = database;
    return VK_OK;
  });
}
