// Streams JSON: nothing of it is held but a buffer.
// Used by every command that writes JSON; the schemas are in this folder.
#include "report/json.h"

#include <ctime>

namespace {

template <class Value>
// An object with a member for each kind, whatever it holds.
void write_kinds(json_writer &json, const char *name, kind_set kinds, Value write_value) {
  json.Key(name);
  json.StartObject();
  for_each_of(kinds, [&](unsigned kind) { write_value(media_kinds[kind].name, kind); });
  json.EndObject();
}

void write_percent(json_writer &json, std::optional<double> percent) {
  json.Key("percent");
  if (percent) {
    json.Double(shown_percent(*percent));
  } else {
    json.Null();
  }
}

}  // namespace

void write_member(json_writer &json, const char *name, std::int64_t number) {
  json.Key(name);
  // Nothing that is written here can be negative when it is known.
  if (number < 0) {
    json.Null();
  } else {
    json.Int64(number);
  }
}

void write_member(json_writer &json, const char *name, std::string_view text) {
  json.Key(name);
  // An empty text is a value; a view without data is none.
  if (text.data() == nullptr) {
    json.Null();
  } else {
    json.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  }
}

std::string iso_time(std::int64_t seconds) {
  tm parts = {};
  char text[32];
  // In UTC, so that reports of several nodes compare.
  ::gmtime_r(&seconds, &parts);
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

void write_account(json_writer &json, const report_account &account, std::int64_t taken,
                   kind_set kinds) {
  json.StartObject();
  write_member(json, "id", std::int64_t{account.id});
  // The parent as the database has it, also where it is out of place.
  write_member(json, "parent", account.parent == 0 ? -1 : std::int64_t{account.parent});
  write_member(json, "level", std::int64_t{account.level});
  write_member(json, "name", account.login);
  const auto figures = [&](const char *name, const auto &values) {
    write_kinds(json, name, kinds, [&](const char *kind_name, unsigned kind) {
      write_member(json, kind_name, std::int64_t{values[kind]});
    });
  };
  figures("used", account.used);
  figures("limit", account.limit);
  write_member(json, "total", total_of(account, kinds));
  write_percent(json, percent_of(account, kinds));
  write_member(json, "state", std::string_view(name_of(state_of(account, kinds))));
  write_kinds(json, "states", kinds, [&](const char *kind_name, unsigned kind) {
    write_member(json, kind_name, std::string_view(name_of(account.states[kind])));
  });
  figures("updates", account.updates);
  write_member(json, "age", age_of(account, taken, kinds));
  json.EndObject();
}

void write_document_head(json_writer &json, const char *format, const report_platform &platform) {
  write_member(json, "format", std::string_view(format));
  write_member(json, "version", std::int64_t{1});
  write_member(json, "taken", std::string_view(iso_time(platform.taken)));
  write_member(json, "host", std::string_view(platform.host));
}

void write_document(FILE *stream, const report_platform &platform, const account_source &source,
                    kind_set kinds) {
  json_stream to(stream);
  to.json.StartObject();
  write_document_head(to.json, "spoolcap-report", platform);
  to.json.Key("accounts");
  to.json.StartArray();
  to.out.Put('\n');
  source([&](const report_account &account) {
    write_account(to.json, account, platform.taken, kinds);
    to.out.Put('\n');
  });
  to.json.EndArray();
  to.json.EndObject();
  to.out.Put('\n');
  to.out.Flush();
}

void write_lines(FILE *stream, const report_platform &platform, const account_source &source,
                 kind_set kinds) {
  json_stream to(stream);
  source([&](const report_account &account) {
    // The writer takes only one document; each line is one of its own.
    to.json.Reset(to.out);
    write_account(to.json, account, platform.taken, kinds);
    to.out.Put('\n');
  });
  to.out.Flush();
}
