// Extensions by number: full numbers, their parts, aliases, names and virtual phones.
// Parts of a number by the platform's parameters; the rest from the database.
#include <spoolcap/zarn_extension.h>

#include <cstdlib>
#include <cstring>

#include "main/extension/extension.h"
#include "platform/base/text.h"

namespace {

constexpr char full_number_statement[] =
    "SELECT extended_number FROM extension,client WHERE extension.number='%s' AND "
    "extension.client_id=client.id AND client.parent_client_id='%s'";
constexpr char from_alias_statement[] = "SELECT extended_number FROM extension WHERE alias='%s'";
constexpr char alias_statement[] = "SELECT alias FROM extension WHERE extended_number='%s'";

// The name of the account that owns the extension.
constexpr field_lookup user_name_lookup = {
    .key_format = owner_name_key,
    .field = "ownona",
    .statement =
        "SELECT client.name FROM client,extension WHERE extended_number='%s' AND "
        "client.id=extension.client_id ",
    .value_of = column_or_marker};

}  // namespace

char *qx_get_full_number(const char *parent_id, const char *number) {
  if (parent_id == nullptr || number == nullptr) return nullptr;
  const sql_session session;
  if (!session) {
    log_condition_failed(QX_HERE);
    return nullptr;
  }
  return qx_get_full_number_sess(session.get(), parent_id, number);
}

// The arguments go into the statement unescaped, which is kept: they are an id and a short number
// that came from the database, and escaping would change what a number with a quote finds.
char *qx_get_full_number_sess(SessionHandle session, const char *parent_id, const char *number) {
  if (parent_id == nullptr || number == nullptr) return nullptr;
  return sql_text(QX_HERE, session, full_number_statement, number, parent_id).release();
}

int qx_split_full_number(const char *full_number, char **owner, char **number) {
  if (!is_given(QX_HERE, full_number)) return -1;
  const int configured = qx_get_extlen();
  const int separator = qx_get_extsep();
  if (configured < 0) return -1;  // nothing is that short
  const size_t number_length = static_cast<size_t>(configured);
  const size_t length = std::strlen(full_number);
  if (length <= number_length + 1) return -1;
  // A full number is the owner, one separator byte, and a short number of fixed length.
  const size_t owner_length = length - number_length - 1;
  if (static_cast<unsigned char>(full_number[owner_length]) != separator) return -1;

  c_string owner_part(::strndup(full_number, owner_length));
  c_string number_part(::strdup(full_number + owner_length + 1));
  if (!owner_part || !number_part) return -1;
  if (owner != nullptr) *owner = owner_part.release();
  if (number != nullptr) *number = number_part.release();
  return 0;
}

char *qx_get_extension_owner_str(const char *full_number) {
  char *owner = nullptr;
  return qx_split_full_number(full_number, &owner, nullptr) == 0 ? owner : nullptr;
}

// Four digits at least; a longer id keeps all its digits, unlike with ast_pad_id.
char *qx_get_padded_account_id(int account_id) {
  return format_text("%04d", account_id).release();
}

char *qx_get_extension_from_alias_sess(SessionHandle session, const char *alias) {
  if (!is_given(QX_HERE, alias)) return nullptr;
  return sql_text(QX_HERE, session, from_alias_statement, alias).release();
}

char *qx_get_alias_from_full_number(SessionHandle session, const char *full_number) {
  if (!is_given(QX_HERE, full_number)) return nullptr;
  return sql_text(QX_HERE, session, alias_statement, full_number).release();
}

char *qx_get_extension_virtphone(const char *number) {
  if (!is_given(QX_HERE, number)) return nullptr;
  // From the cache only: another service writes this hash, and no table has it.
  c_string behind = rget_hash_str(QX_HERE, 0, virtual_phones_key, number);
  hide_marker(behind, 0);
  return behind.release();
}

// By the index in the cache: an extension that is not in there yet does not exist here.
int qx_extension_exists(const char *full_number) {
  char *owner = nullptr;
  char *number = nullptr;
  if (qx_split_full_number(full_number, &owner, &number) != 0) return 0;
  const c_string owner_part(owner);
  const c_string number_part(number);
  const c_string key = lookup_argument(std::atoi(owner)).format(extension_index_key);
  return key && rget_hash_str(QX_HERE, 0, key.get(), number) ? 1 : 0;
}

char *qx_get_user_name_from_number(SessionHandle session, const char *full_number) {
  return read_extension(QX_HERE, user_name_lookup, full_number, session).value.release();
}
