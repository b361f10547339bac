// The command `page`: all accounts as one HTML file, with a map and a table.
// Reads the platform; the page without its data comes from report/page.
#include <algorithm>

#include "report/command.h"
#include "report/json.h"
#include "report/output.h"
#include "report/page_text.h"
#include "report/table.h"

namespace {

// The data stands in an element of the page, which ends at the first "</script" and must not hold
// "<!--": in JSON, a "<" stands in texts only, where it can be written as an escape.
class escaping_stream {
 public:
  using Ch = char;
  explicit escaping_stream(rapidjson::FileWriteStream &out) : out_(out) {}
  void Put(char byte) {
    if (byte != '<') {
      out_.Put(byte);
      return;
    }
    for (const char escaped : std::string_view("\\u003c")) out_.Put(escaped);
  }
  void Flush() { out_.Flush(); }

 private:
  rapidjson::FileWriteStream &out_;
};

using page_json = rapidjson::Writer<escaping_stream>;

// The page makes no difference between an empty text and none.
void write_text(page_json &json, std::string_view text) {
  json.String(text.data() == nullptr ? "" : text.data(),
              static_cast<rapidjson::SizeType>(text.size()));
}

void write_number(page_json &json, std::int64_t number) {
  if (number < 0) {
    json.Null();
  } else {
    json.Int64(number);
  }
}

template <class Text>
void write_texts(page_json &json, const char *name, unsigned count, Text text) {
  json.Key(name);
  json.StartArray();
  for (unsigned i = 0; i < count; ++i) write_text(json, text(i));
  json.EndArray();
}

template <class Number>
void write_numbers(page_json &json, const Number (&numbers)[QUOTA_ALL_KINDS]) {
  json.StartArray();
  for (const Number number : numbers) write_number(json, number);
  json.EndArray();
}

// Without any they are left out of the row, which makes the page smaller.
bool has_updates(const report_account &account) {
  return std::any_of(std::begin(account.updates), std::end(account.updates),
                     [](std::int32_t updates) { return updates > 0; });
}

// One account as an array, in the order that the page's model.js reads.
void write_row(page_json &json, const report_account &account, std::int64_t taken) {
  // One digit for each kind; `states` of the page has their names.
  std::string states;
  for (const figure_state state : account.states) {
    states += static_cast<char>('0' + static_cast<int>(state));
  }
  json.StartArray();
  json.Uint(account.id);
  write_number(json, account.parent == 0 ? -1 : std::int64_t{account.parent});
  json.Int(account.level);
  write_text(json, account.login);
  write_numbers(json, account.used);
  write_numbers(json, account.limit);
  write_text(json, states);
  write_number(json, age_of(account, taken));
  if (has_updates(account)) write_numbers(json, account.updates);
  json.EndArray();
}

void write_data(rapidjson::FileWriteStream &out, const report_platform &platform) {
  escaping_stream escaping(out);
  page_json json(escaping);
  json.StartObject();
  json.Key("taken");
  write_text(json, iso_time(platform.taken));
  json.Key("host");
  write_text(json, platform.host);
  write_texts(json, "kinds", QUOTA_ALL_KINDS, [](unsigned i) { return media_kinds[i].name; });
  write_texts(json, "labels", QUOTA_ALL_KINDS, [](unsigned i) { return media_kinds[i].label; });
  write_texts(json, "states", figure_states,
              [](unsigned i) { return name_of(static_cast<figure_state>(i)); });
  json.Key("disturbing");
  json.StartArray();
  for (const character_range &range : disturbing) {
    json.StartArray();
    json.Uint(range.first);
    json.Uint(range.last);
    json.EndArray();
  }
  json.EndArray();
  json.Key("accounts");
  json.StartArray();
  for (const report_account &account : platform.accounts) {
    write_row(json, account, platform.taken);
    out.Put('\n');
  }
  json.EndArray();
  json.EndObject();
}

void write_page(FILE *stream, const report_platform &platform) {
  char buffer[65536];
  rapidjson::FileWriteStream out(stream, buffer, sizeof buffer);
  // Parts of the page itself hold "<", so they go past the escaping stream.
  for (const char byte : page_before_data) out.Put(byte);
  write_data(out, platform);
  for (const char byte : page_after_data) out.Put(byte);
  out.Flush();
}

const poptOption no_options[] = {POPT_TABLEEND};

report_status run(const std::vector<std::string> &words) {
  if (words.size() != 1) throw report_trouble("page needs the name of one file to write");
  const report_platform platform = collect();
  report_output out(words[0].c_str());
  write_page(out.stream(), platform);
  out.commit();
  return REPORT_OK;
}

}  // namespace

const report_command page_command = {
    .name = "page",
    .arguments = "FILE",
    .summary = "Writes one HTML file with a map and a table of all accounts",
    .details =
        "\n"
        "The file needs nothing beside it and asks no network for anything. \"-\" is standard\n"
        "output.\n",
    .options = no_options,
    .run = run,
};
