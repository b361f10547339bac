// Compares figures with the sizes of rows and files.
// Rows come from the database, sizes of media from the disk.
#include <fmt/format.h>

#include <vector>

#include "main/quota/usage.h"
#include "report/checks.h"
#include "report/statement.h"

namespace {

// What an account uses by itself, or nothing when that is not known.
// For each account at the same place as in the platform. All zero at first: nothing is known.
struct own_figures {
  std::int64_t bytes[QUOTA_ALL_KINDS];
  bool is_known[QUOTA_ALL_KINDS];
};

// Stored rows whose account is not there; the id is 0 where their extension names none.
struct rows_of_nobody {
  std::uint32_t id;
  std::int64_t bytes;
};

class figure_check {
 public:
  figure_check(const report_platform &platform, bool deep, findings_writer &out)
      : platform_(platform), out_(out), own_(platform.accounts.size()) {
    for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
      if (media_kinds[kind].rows.table != nullptr) {
        sum_rows(kind);
      } else if (deep) {
        measure(kind);
      }
    }
  }

  // Kind by kind, from each reseller down.
  void run() {
    for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
      for (const std::uint32_t place : platform_.children_of(0)) {
        if (platform_.accounts[place].level == LEVEL_RESELLER) compare(place, kind);
      }
    }
  }

 private:
  // What the tree below a place amounts to.
  struct subtree {
    std::int64_t bytes;
    bool is_known;
  };

  // Users have stored files; what is above them has none of its own.
  void sum_rows(unsigned kind) {
    // An account without rows uses nothing, which is known.
    for (own_figures &own : own_) own.is_known[kind] = true;
    const report_session session(server_choice::master);
    std::vector<rows_of_nobody> homeless;
    for_each_row(session.get(),
                 std::string("SELECT e.client_id, SUM(f.filesize) FROM ") +
                     media_kinds[kind].rows.table +
                     " f, extension e WHERE e.id = f.extension_id GROUP BY e.client_id",
                 [&](const sql_fields &row) {
                   const auto id = static_cast<std::uint32_t>(number_of(row[0]));
                   const std::int64_t bytes = std::max<std::int64_t>(number_of(row[1]), 0);
                   const std::optional<std::uint32_t> place = platform_.place_of(id);
                   if (!place) return homeless.push_back({id, bytes});
                   if (platform_.accounts[*place].level != LEVEL_OWNER) return;
                   own_[*place].bytes[kind] = bytes;
                 });
    for (const rows_of_nobody &rows : homeless) tell_homeless(rows, kind);
  }

  void tell_homeless(const rows_of_nobody &rows, unsigned kind) {
    if (exists_now(rows.id)) return;
    const std::string whose = rows.id == 0 ? "no account" : fmt::format("account {}", rows.id);
    out_.add({.name = "file_without_account",
              .kind = kind,
              .found = rows.bytes,
              .where = fmt::format("{} of {}", media_kinds[kind].rows.table, whose)});
  }

  // By the engine's own measure, so that both count the same files.
  void measure(unsigned kind) {
    for (std::uint32_t place = 0; place < own_.size(); ++place) {
      const report_account &account = platform_.accounts[place];
      // As a refresh of all resellers spells them.
      const std::string id = account.level == LEVEL_RESELLER
                                 ? fmt::format("{:04}", account.id % 10000)
                                 : std::to_string(account.id);
      const usage found = own_usage({id.c_str(), nullptr, nullptr, account.level, nullptr}, kind);
      own_[place].bytes[kind] = found.bytes;
      own_[place].is_known[kind] = found.certain;
      if (!found.certain) {
        out_.add({.name = "media_not_readable", .account = &account, .kind = kind});
      }
    }
  }

  // Compares the account and all below it.
  subtree compare(std::uint32_t place, unsigned kind) {
    const report_account &account = platform_.accounts[place];
    const own_figures &own = own_[place];
    subtree truth = {own.bytes[kind], own.is_known[kind]};
    std::int64_t children = 0;
    const auto below = platform_.children_of(account.id);
    for (const std::uint32_t child : below) {
      const subtree found = compare(child, kind);
      truth = {sum_of(truth.bytes, found.bytes), truth.is_known && found.is_known};
      // As a refresh adds them: a child without a figure adds nothing.
      children = sum_of(children, std::max<std::int64_t>(platform_.accounts[child].used[kind], 0));
    }
    const std::int64_t figure = account.used[kind];
    // A missing file is a finding of its own.
    if (figure < 0) return truth;
    if (truth.is_known && figure != truth.bytes) tell("figure_differs", account, kind, truth.bytes);
    const std::int64_t sum = sum_of(children, own.bytes[kind]);
    // Without --deep the account's own media are not known, so it may only have more.
    if (!below.empty() && (own.is_known[kind] ? figure != sum : figure < sum)) {
      tell("parent_differs", account, kind, sum);
    }
    return truth;
  }

  void tell(const char *name, const report_account &account, unsigned kind, std::int64_t expected) {
    out_.add({.name = name,
              .account = &account,
              .kind = kind,
              .found = account.used[kind],
              .expected = expected});
  }

  const report_platform &platform_;
  findings_writer &out_;
  std::vector<own_figures> own_;
};

}  // namespace

void check_figures(const report_platform &platform, bool deep, findings_writer &out) {
  figure_check(platform, deep, out).run();
}
