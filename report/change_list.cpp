// Prints the list of changes in each format.
// Takes what changes.cpp found, and writes to the stream that it is given.
#include "report/change_list.h"

#include "report/options.h"
#include "report/table.h"

namespace {

// -1 is what the writers show as null or leave empty.
std::int64_t parent_of(const report_account *account) {
  return account == nullptr || account->parent == 0 ? -1 : std::int64_t{account->parent};
}

std::int64_t use_of(const report_account *account, kind_set kinds) {
  return account == nullptr ? -1 : total_of(*account, kinds);
}

// A null view where the account is not there.
std::string_view state_name_of(const report_account *account, kind_set kinds) {
  return account == nullptr ? std::string_view() : name_of(state_of(*account, kinds));
}

// At the time of the state that it is in.
std::int64_t age_in(const report_platform &state, const report_account *account, kind_set kinds) {
  return account == nullptr ? -1 : age_of(*account, state.taken, kinds);
}

std::string day_of(const account_outlook &outlook) {
  return outlook.outlook == outlook_kind::day ? iso_time(outlook.when).substr(0, 10) : "";
}

// The kind that reaches its limit first; a null view when none does.
std::string_view kind_name_of(const account_outlook &outlook) {
  const bool has_kind =
      outlook.outlook == outlook_kind::day || outlook.outlook == outlook_kind::reached;
  return has_kind ? std::string_view(media_kinds[outlook.kind].name) : std::string_view();
}

// Not write_member: a growth below zero is a number like any other.
void write_growth(json_writer &json, const char *name, std::optional<std::int64_t> growth) {
  json.Key(name);
  if (growth) {
    json.Int64(*growth);
  } else {
    json.Null();
  }
}

void write_outlook(json_writer &json, const account_outlook &outlook) {
  const std::string day = day_of(outlook);
  write_member(json, "outlook", std::string_view(name_of(outlook.outlook)));
  write_member(json, "limit_day", day.empty() ? std::string_view() : std::string_view(day));
  write_member(json, "limit_kind", kind_name_of(outlook));
}

void write_change(json_writer &json, const account_change &change, const change_list &list) {
  const report_account &account = change.account();
  json.StartObject();
  write_member(json, "change", std::string_view(name_of(change.change)));
  write_member(json, "id", std::int64_t{account.id});
  write_member(json, "name", account.login);
  write_member(json, "level", std::int64_t{account.level});
  write_member(json, "parent_before", parent_of(change.before));
  write_member(json, "parent_after", parent_of(change.after));
  write_growth(json, "growth", change.growth);
  json.Key("growths");
  json.StartObject();
  for_each_of(list.kinds, [&](unsigned kind) {
    write_growth(json, media_kinds[kind].name, growth_of(change, kind));
  });
  json.EndObject();
  write_member(json, "total_before", use_of(change.before, list.kinds));
  write_member(json, "total_after", use_of(change.after, list.kinds));
  write_member(json, "state_before", state_name_of(change.before, list.kinds));
  write_member(json, "state_after", state_name_of(change.after, list.kinds));
  write_member(json, "age_before", age_in(list.before, change.before, list.kinds));
  write_member(json, "age_after", age_in(list.after, change.after, list.kinds));
  if (list.has_outlook) write_outlook(json, change.outlook);
  json.EndObject();
}

std::string signed_text(std::int64_t growth, bool human) {
  const char *sign = growth > 0 ? "+" : growth < 0 ? "-" : "";
  // std::to_string writes the minus by itself.
  if (!human) return (growth > 0 ? sign : "") + std::to_string(growth);
  return sign + human_size(growth < 0 ? -growth : growth);
}

std::string parents_text(const account_change &change) {
  std::string now = number_text(parent_of(&change.account()));
  if (change.change != change_kind::moved) return now;
  return number_text(parent_of(change.before)) + " -> " + now;
}

// One word where both states are alike, as most are.
std::string states_text(const account_change &change, kind_set kinds) {
  const std::string before(state_name_of(change.before, kinds));
  std::string after(state_name_of(change.after, kinds));
  if (before == after || before.empty()) return after;
  return after.empty() ? before : before + " -> " + after;
}

// Of the last state in which the account is there.
std::int64_t last_age_of(const account_change &change, const change_list &list) {
  return change.after != nullptr ? age_in(list.after, change.after, list.kinds)
                                 : age_in(list.before, change.before, list.kinds);
}

std::string outlook_text(const account_outlook &outlook) {
  if (outlook.outlook == outlook_kind::unknown) return "-";
  const std::string kind(kind_name_of(outlook));
  std::string text =
      outlook.outlook == outlook_kind::day ? day_of(outlook) : name_of(outlook.outlook);
  return kind.empty() ? text : text + " (" + kind + ")";
}

std::vector<std::string> cells_of(const account_change &change, const change_list &list,
                                  bool human) {
  const report_account &account = change.account();
  std::vector<std::string> cells = {name_of(change.change),
                                    signed_text(change.growth, human),
                                    size_text(use_of(change.before, list.kinds), human),
                                    size_text(use_of(change.after, list.kinds), human),
                                    shown_login(account.login),
                                    std::to_string(account.id),
                                    name_of_level(account.level),
                                    parents_text(change),
                                    age_text(last_age_of(change, list), human),
                                    states_text(change, list.kinds)};
  if (list.has_outlook) cells.push_back(outlook_text(change.outlook));
  return cells;
}

}  // namespace

void write_changes_json(FILE *stream, const change_list &list) {
  json_stream to(stream);
  to.json.StartObject();
  write_member(to.json, "format", std::string_view("spoolcap-diff"));
  write_member(to.json, "version", std::int64_t{1});
  write_member(to.json, "host", std::string_view(list.after.host));
  write_member(to.json, "from_host", std::string_view(list.before.host));
  write_member(to.json, "from", std::string_view(iso_time(list.before.taken)));
  write_member(to.json, "to", std::string_view(iso_time(list.after.taken)));
  to.json.Key("changes");
  to.json.StartArray();
  for (const account_change &change : list.changes) {
    // One change a line, so that texts of two reports can be compared.
    to.out.Put('\n');
    write_change(to.json, change, list);
  }
  to.json.EndArray();
  to.json.EndObject();
  to.out.Put('\n');
  to.out.Flush();
}

void write_changes_lines(FILE *stream, const change_list &list) {
  json_stream to(stream);
  for (const account_change &change : list.changes) {
    // The writer takes only one document; each line is one of its own.
    to.json.Reset(to.out);
    write_change(to.json, change, list);
    to.out.Put('\n');
  }
  to.out.Flush();
}

void write_changes_separated(FILE *stream, separated_format format, const change_list &list) {
  separated_line line(stream, format);
  for (const char *name :
       {"change", "id", "name", "level", "parent_before", "parent_after", "growth"}) {
    line.add(name);
  }
  for_each_of(list.kinds,
              [&](unsigned kind) { line.add(std::string("growth_") + media_kinds[kind].name); });
  for (const char *name :
       {"total_before", "total_after", "state_before", "state_after", "age_before", "age_after"}) {
    line.add(name);
  }
  if (list.has_outlook) {
    for (const char *name : {"outlook", "limit_day", "limit_kind"}) line.add(name);
  }
  line.end();
  for (const account_change &change : list.changes) {
    const report_account &account = change.account();
    line.add(name_of(change.change));
    line.add_number(account.id);
    line.add_login(account.login);
    line.add_number(account.level);
    line.add_number(parent_of(change.before));
    line.add_number(parent_of(change.after));
    // Not add_number, which leaves what is below zero empty.
    line.add(std::to_string(change.growth));
    for_each_of(list.kinds, [&](unsigned kind) {
      const std::optional<std::int64_t> growth = growth_of(change, kind);
      line.add(growth ? std::to_string(*growth) : "");
    });
    line.add_number(use_of(change.before, list.kinds));
    line.add_number(use_of(change.after, list.kinds));
    line.add(state_name_of(change.before, list.kinds));
    line.add(state_name_of(change.after, list.kinds));
    line.add_number(age_in(list.before, change.before, list.kinds));
    line.add_number(age_in(list.after, change.after, list.kinds));
    if (list.has_outlook) {
      line.add(name_of(change.outlook.outlook));
      line.add(day_of(change.outlook));
      line.add(kind_name_of(change.outlook));
    }
    line.end();
  }
}

void write_changes_table(FILE *stream, const change_list &list, bool human) {
  std::vector<std::pair<std::string, bool>> heads = {
      {"change", true}, {"growth", false}, {"before", false}, {"after", false}, {"login", true},
      {"id", false},    {"level", true},   {"parent", true},  {"age", false},   {"state", true}};
  if (list.has_outlook) heads.emplace_back("limit reached", true);
  table_columns columns(heads);
  // Made twice: holding all cells would take several times the accounts' memory.
  for (const account_change &change : list.changes) columns.measure(cells_of(change, list, human));
  columns.print_head(stream);
  for (const account_change &change : list.changes) {
    columns.print(stream, cells_of(change, list, human));
  }
}
