// What an extension is and can do now: type, codecs, time zone, registration.
// From cache and database; registrations from the cache alone.
#include <strings.h>

#include <cstring>
#include <ctime>

#include <spoolcap/zarn_extension.h>
#include <spoolcap/zarn_str.h>
#include "main/extension/extension.h"
#include "platform/base/text.h"

namespace {

// A type's place in the list is its value.
constexpr const char *types[] = {"term",     "queue",    "ivr",      "voicecenter", "conference",
                                 "callback", "callcard", "intercom", "queuecenter"};

constexpr char timezone_statement[] =
    "SELECT timezone.name FROM extension,client,timezone WHERE extension.id='%d' AND "
    "extension.client_id=client.id AND client.timezone_id=timezone.id";

// All names, a comma after each, the last one too.
// Throws away a list that memory cut short: a part of the codecs must not be cached.
c_string joined_names(MYSQL_RES *rows) {
  char *names = nullptr;
  bool any = false, complete = true;
  while (const MYSQL_ROW row = next_row(rows)) {
    any = true;
    if (row[0] != nullptr) complete = zarn_str_append(&names, "%s,", row[0]) != nullptr && complete;
  }
  c_string joined(names != nullptr ? names : ::strdup(any ? QX_CACHE_NULL : QX_CACHE_NO_ROW));
  return complete ? std::move(joined) : nullptr;
}

c_string whether_any_row(MYSQL_RES *rows) {
  return c_string(::strdup(next_row(rows) != nullptr ? "1" : "0"));
}

constexpr field_lookup type_lookup = {
    .key_format = extension_info_key,
    .field = "typ",
    .statement = "SELECT type FROM extension WHERE extended_number='%s'",
    .value_of = column_or_marker};

constexpr field_lookup codecs_lookup = {
    .key_format = extension_prefs_key,
    .field = "cod",
    .statement =
        "SELECT uname FROM codec,extension_codec_rel,extension WHERE "
        "extension_codec_rel.codec_id=codec.id AND extension.id=extension_codec_rel.extension_id "
        "AND extension.extended_number='%s' ORDER BY priority ASC",
    .value_of = joined_names};

constexpr field_lookup can_register_lookup = {
    .key_format = registration_key,
    .field = "creg",
    .statement = "SELECT can_register FROM ser_subscriber WHERE username='%s'",
    .value_of = column_or_nothing,
    .unguarded = true};

constexpr field_lookup multiuser_lookup = {
    .key_format = extension_prefs_key,
    .field = "mu",
    .statement =
        "SELECT value FROM extension, client_prefs WHERE extended_number='%s' AND "
        "extension.client_id=client_prefs.client_id AND param='multi_user' AND value='1'",
    .value_of = whether_any_row,
    .unguarded = true};

// Whether the SIP session of a number lasts beyond now and its phone is reachable.
bool has_live_session(const call_site &site, const char *number) {
  const c_string key = lookup_argument(number).format(sip_session_key);
  if (!key) return false;
  const char *const fields[] = {"expires", "rch"};
  text_array found;
  // From the cache only: another service keeps the sessions there.
  if (!cache_hmget(site, 0, key.get(), fields, 2, found) || found.count() != 2) return false;
  const char *const expires = found[0];
  const char *const reachable = found[1];
  time_t end = 0;
  if (expires == nullptr || reachable == nullptr || redis_str2time(expires, &end) != 0) {
    return false;
  }
  return std::time(nullptr) < end && std::strncmp(reachable, "yes", 3) == 0;
}

}  // namespace

int qx_get_extension_type(const char *full_number) {
  const c_string text = read_extension(QX_HERE, type_lookup, full_number).value;
  if (!text) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  int value = 0;
  for (const char *const type : types) {
    if (::strcasecmp(type, text.get()) == 0) return value;
    ++value;
  }
  return -1;
}

char *qx_get_extension_codecs(const char *full_number) {
  return read_extension(QX_HERE, codecs_lookup, full_number).value.release();
}

char *qx_get_extension_timezone(int extension_id) {
  return sql_text(QX_HERE, nullptr, timezone_statement, extension_id).release();
}

// From the database only 1 means yes; from the cache any positive number does.
int qx_extension_can_register(SessionHandle session, const char *full_number) {
  const field_answer answer = read_extension(QX_HERE, can_register_lookup, full_number, session);
  const int number = number_or(0, answer.value);
  if (answer.source == answer_source::database) return number == 1 ? 1 : 0;
  return number > 0 ? number : 0;
}

int qx_is_multiuser_aware(const char *full_number) {
  return number_or(0, read_extension(QX_HERE, multiuser_lookup, full_number).value);
}

int qx_extension_expired(const char *full_number) {
  const call_site here = QX_HERE;
  if (!is_given(here, full_number)) return 1;
  return no_throw(1, [&] {
    // A virtual phone has no session of its own; the phone behind it counts.
    const c_string behind(qx_get_extension_virtphone(full_number));
    return has_live_session(here, behind ? behind.get() : full_number) ? 0 : 1;
  });
}

int redis_str2time(const char *text, time_t *time) {
  if (text == nullptr || time == nullptr) return -1;
  // Some writers put the time between quotes.
  const char *const format = *text == '\'' ? "'%Y-%m-%d %H:%M:%S'" : "%Y-%m-%d %H:%M:%S";
  struct tm broken_down = {};
  if (::strptime(text, format, &broken_down) == nullptr) return -1;
  broken_down.tm_isdst = -1;
  // The text is in UTC, whatever zone this process has.
  *time = ::timegm(&broken_down);
  return 0;
}
