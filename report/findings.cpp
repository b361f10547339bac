// Writes findings as lines of text or as a document.
// Called by the parts of `check`; keeps nothing but a count.
#include "report/findings.h"

#include <fmt/format.h>

#include "report/output.h"
#include "report/table.h"

findings_writer::findings_writer(FILE *stream, bool as_json, const report_platform &platform)
    : stream_(stream) {
  if (!as_json) return;
  json_ = std::make_unique<json_stream>(stream);
  json_->json.StartObject();
  write_document_head(json_->json, "spoolcap-check", platform);
  json_->json.Key("findings");
  json_->json.StartArray();
  // A line for each finding makes the document readable without tools.
  json_->out.Put('\n');
}

void findings_writer::add(const finding &one) {
  ++count_;
  if (json_) {
    add_json(one);
  } else {
    add_text(one);
  }
}

void findings_writer::end() {
  if (!json_) {
    write_text(stream_, fmt::format("{} finding{}\n", count_, count_ == 1 ? "" : "s"));
    return;
  }
  json_->json.EndArray();
  json_->json.EndObject();
  json_->out.Put('\n');
  json_->out.Flush();
}

void findings_writer::add_text(const finding &one) {
  std::string line = one.name;
  if (one.account != nullptr) {
    line += fmt::format(" account {} {}", one.account->id, shown_login(one.account->login));
  }
  if (one.kind) line += std::string(" ") + media_kinds[*one.kind].name;
  const auto add_number = [&](const char *name, std::optional<std::int64_t> number) {
    if (number) line += fmt::format(" {} {}", name, *number);
  };
  add_number("found", one.found);
  add_number("expected", one.expected);
  add_number("age", one.age);
  // A path may hold what disturbs a terminal, as a login may.
  if (!one.where.empty()) line += " in " + shown_login(one.where);
  if (!one.statement.empty()) line += ": " + one.statement;
  line += '\n';
  write_text(stream_, line);
}

void findings_writer::add_json(const finding &one) {
  json_writer &json = json_->json;
  json.StartObject();
  write_member(json, "finding", std::string_view(one.name));
  write_member(json, "account", one.account == nullptr ? -1 : std::int64_t{one.account->id});
  write_member(json, "name", one.account == nullptr ? std::string_view() : one.account->login);
  write_member(json, "kind",
               one.kind ? std::string_view(media_kinds[*one.kind].name) : std::string_view());
  write_member(json, "found", one.found.value_or(-1));
  write_member(json, "expected", one.expected.value_or(-1));
  write_member(json, "age", one.age.value_or(-1));
  const auto write_text = [&](const char *name, const std::string &text) {
    write_member(json, name, text.empty() ? std::string_view() : std::string_view(text));
  };
  write_text("where", one.where);
  write_text("statement", one.statement);
  json.EndObject();
  json_->out.Put('\n');
}
