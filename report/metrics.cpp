// The command `metrics`: what Prometheus reads, as the textfile collector of its node exporter
// takes it. There are no timestamps, with which the whole file would be refused.
#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "report/choice.h"
#include "report/command.h"
#include "report/options.h"
#include "report/output.h"

namespace {

// Each account makes some eleven series, which the monitoring keeps for long.
constexpr size_t default_users = 20;
// Files that were written further apart are taken for the work of two refreshes.
constexpr std::int64_t longest_pause = 60;

int all_users = 0;

const poptOption options[] = {top_row("So many users, those that use the most; 20"),
                              {"all", 'a', POPT_ARG_NONE, &all_users, 0, "All users", nullptr},
                              output_row,
                              POPT_TABLEEND};

// A label with its value: name="value".
std::string label(const char *name, std::string_view value) {
  std::string escaped;
  for (const char byte : value) {
    if (byte == '\\' || byte == '"') escaped += '\\';
    escaped += byte == '\n' ? "\\n" : std::string(1, byte);
  }
  return fmt::format("{}=\"{}\"", name, escaped);
}

class metrics_writer {
 public:
  explicit metrics_writer(FILE *stream) : stream_(stream) {}

  // All samples of a metric follow its head.
  void begin(const char *name, const char *help) {
    name_ = name;
    write_text(stream_, fmt::format("# HELP {0} {1}\n# TYPE {0} gauge\n", name, help));
  }
  void add(const std::string &labels, std::int64_t value) const {
    const std::string braced = labels.empty() ? "" : "{" + labels + "}";
    write_text(stream_, fmt::format("{}{} {}\n", name_, braced, value));
  }

 private:
  FILE *stream_;
  const char *name_ = "";
};

using shown_accounts = std::vector<const report_account *>;

shown_accounts accounts_to_show(const report_platform &platform, size_t users) {
  shown_accounts shown;
  const auto add = [&](const list_choice &choice) {
    for (const chosen_account &one : choose(platform, choice)) {
      shown.push_back(&platform.accounts[one.place]);
    }
  };
  // Always all of these: alarms go by them.
  add({.levels = {LEVEL_RESELLER, LEVEL_CLIENT}});
  if (users != 0) add({.levels = {LEVEL_OWNER}, .sort = sort_key::used, .top = users});
  return shown;
}

std::string labels_of(const report_account &account) {
  return fmt::format("{},{},{}", label("account", std::to_string(account.id)),
                     label("name", account.login), label("level", name_of_level(account.level)));
}

// One sample for each account and kind with a figure.
void write_figures(metrics_writer &out, const shown_accounts &accounts,
                   std::int64_t (report_account::*figures)[QUOTA_ALL_KINDS]) {
  for (const report_account *account : accounts) {
    const std::string labels = labels_of(*account);
    for_each_of(all_kinds, [&](unsigned kind) {
      const std::int64_t figure = (account->*figures)[kind];
      // In this format, no sample means an unknown value.
      if (figure >= 0) out.add(labels + "," + label("kind", media_kinds[kind].name), figure);
    });
  }
}

// Visits the states from the best to the worst.
template <class Visit>
void for_each_state(Visit visit) {
  for (size_t i = 0; i < figure_states; ++i) visit(static_cast<figure_state>(i));
}

void write_states(metrics_writer &out, const report_platform &platform) {
  out.begin("spoolcap_account_state",
            "1 for the worst state of the figures of a reseller, else 0.");
  for (const report_account &account : platform.accounts) {
    // A series for each state: too many for all accounts, which are counted below.
    if (account.level != LEVEL_RESELLER) continue;
    for_each_state([&](figure_state state) {
      out.add(label("account", std::to_string(account.id)) + "," + label("state", name_of(state)),
              state_of(account) == state ? 1 : 0);
    });
  }
  out.begin("spoolcap_accounts", "Accounts of a level by the worst state of their figures.");
  for (const int level : {LEVEL_RESELLER, LEVEL_CLIENT, LEVEL_OWNER}) {
    std::int64_t counts[figure_states] = {};
    for (const report_account &account : platform.accounts) {
      if (account.level == level) ++counts[static_cast<size_t>(state_of(account))];
    }
    for_each_state([&](figure_state state) {
      out.add(label("level", name_of_level(level)) + "," + label("state", name_of(state)),
              counts[static_cast<size_t>(state)]);
    });
  }
}

// When files that no update has touched since were written, for each account the latest, newest
// first.
std::vector<std::int64_t> times_of_refreshes(const report_platform &platform) {
  std::vector<std::int64_t> times;
  for (const report_account &account : platform.accounts) {
    std::int64_t latest = -1;
    for_each_of(all_kinds, [&](unsigned kind) {
      // An update renews the time of a file, which then no longer shows the refresh.
      if (account.updates[kind] == 0) latest = std::max(latest, account.modified[kind]);
    });
    if (latest >= 0) times.push_back(latest);
  }
  std::sort(times.rbegin(), times.rend());
  return times;
}

void write_refresh(metrics_writer &out, const report_platform &platform) {
  const std::vector<std::int64_t> times = times_of_refreshes(platform);
  if (times.empty()) return;
  // Newest first: the first long gap is where the last refresh began.
  const auto pause = std::adjacent_find(
      times.begin(), times.end(),
      [](std::int64_t later, std::int64_t earlier) { return later - earlier > longest_pause; });
  const std::int64_t first = pause == times.end() ? times.back() : *pause;
  out.begin("spoolcap_refresh_timestamp_seconds",
            "When a figure was measured last. A refresh measures fresh figures only by force.");
  out.add("", times.front());
  out.begin("spoolcap_refresh_duration_seconds",
            "From the first to the last file that the last refresh wrote.");
  out.add("", times.front() - first);
}

report_status run(const std::vector<std::string> &words) {
  take_no_words(words);
  const std::optional<size_t> top = typed_top(0);
  if (top && all_users != 0) throw report_trouble("--top and --all exclude each other");
  const report_platform platform = collect();
  const size_t users =
      all_users != 0 ? std::numeric_limits<size_t>::max() : top.value_or(default_users);
  const shown_accounts accounts = accounts_to_show(platform, users);
  report_output file(typed.output);
  metrics_writer out(file.stream());
  out.begin("spoolcap_account_used_bytes", "Storage that an account and all below it use.");
  write_figures(out, accounts, &report_account::used);
  out.begin("spoolcap_account_limit_bytes", "Storage that an account may use.");
  write_figures(out, accounts, &report_account::limit);
  out.begin("spoolcap_account_age_seconds", "Time since the oldest figure was written.");
  for (const report_account *account : accounts) {
    const std::int64_t age = age_of(*account, platform.taken);
    if (age >= 0) out.add(labels_of(*account), age);
  }
  write_states(out, platform);
  write_refresh(out, platform);
  file.commit();
  return REPORT_OK;
}

}  // namespace

const report_command metrics_command = {
    .name = "metrics",
    .arguments = "",
    .summary = "Writes metrics for Prometheus",
    .details =
        "\n"
        "For the textfile collector of the node exporter, write a file that ends in .prom.\n"
        "Shows resellers, clients, and the users that use the most.\n",
    .options = options,
    .run = run,
};
