// Reads the document of a snapshot as it streams by; only the accounts are held.
#include <rapidjson/reader.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "report/command.h"
#include "report/compressed.h"
#include "report/snapshot.h"

namespace {

constexpr std::int64_t known_version = 1;

std::int64_t time_of(std::string_view iso) {
  tm parts = {};
  const std::string text(iso);
  const char *end = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return end != nullptr && *end == '\0' ? ::timegm(&parts) : -1;
}

// What an account has before its members are read: nothing is known.
report_account unknown_account() {
  report_account account;
  std::fill_n(account.used, QUOTA_ALL_KINDS, -1);
  std::fill_n(account.limit, QUOTA_ALL_KINDS, -1);
  std::fill_n(account.modified, QUOTA_ALL_KINDS, -1);
  std::fill_n(account.updates, QUOTA_ALL_KINDS, 0);
  std::fill_n(account.states, QUOTA_ALL_KINDS, figure_state::missing);
  return account;
}

// The events of the parser. Members that it does not know are passed over, whatever they hold. A
// false ends the parse: the document is no snapshot.
class document_reader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, document_reader> {
 public:
  explicit document_reader(report_platform &platform) : platform_(platform) {
    platform_.texts = std::make_unique<std::pmr::monotonic_buffer_resource>();
  }

  bool StartObject() {
    ++depth_;
    if (is_account()) platform_.accounts.push_back(unknown_account());
    return true;
  }
  bool EndObject(rapidjson::SizeType) {
    const bool is_sound = !is_account() || (account().id != 0 && is_reported(account().level));
    --depth_;
    return is_sound;
  }
  bool StartArray() {
    in_list_ = in_list_ || (arrays_ == 0 && depth_ == 1 && keys_[0] == "accounts");
    ++arrays_;
    return true;
  }
  bool EndArray(rapidjson::SizeType) {
    --arrays_;
    in_list_ = in_list_ && arrays_ > 0;
    return true;
  }
  bool Key(const char *text, rapidjson::SizeType size, bool) {
    keys_.resize(depth_);
    keys_.back().assign(text, size);
    return true;
  }
  bool Int(int value) { return number(value); }
  bool Uint(unsigned value) { return number(value); }
  bool Int64(std::int64_t value) { return number(value); }
  // What is above the numbers of 32 bits and not negative comes here.
  bool Uint64(std::uint64_t value) {
    return std::in_range<std::int64_t>(value) && number(static_cast<std::int64_t>(value));
  }
  bool String(const char *text, rapidjson::SizeType size, bool) {
    const std::string_view value(text, size);
    if (arrays_ == 0 && depth_ == 1) return head_text(value);
    if (in_accounts() && depth_ == 2 && keys_[1] == "name")
      account().login = keep_text(platform_, value);
    if (in_accounts() && depth_ == 3 && keys_[1] == "states") set_state(value);
    return true;
  }

  bool is_complete() const {
    return is_report_ && version_ == known_version && platform_.taken >= 0;
  }
  bool is_newer() const { return is_report_ && version_ > known_version; }

 private:
  // Whether this is an account or a part of one, but not in an array of its own.
  bool in_accounts() const { return in_list_ && arrays_ == 1 && depth_ >= 2; }
  bool is_account() const { return in_accounts() && depth_ == 2; }
  report_account &account() { return platform_.accounts.back(); }

  bool head_text(std::string_view value) {
    if (keys_[0] == "format") is_report_ = value == "spoolcap-report";
    if (keys_[0] == "taken") platform_.taken = time_of(value);
    if (keys_[0] == "host") platform_.host = value;
    return keys_[0] != "format" || is_report_;
  }

  bool number(std::int64_t value) {
    if (arrays_ == 0 && depth_ == 1 && keys_[0] == "version") {
      version_ = value;
      return value <= known_version;
    }
    if (in_accounts() && depth_ == 2) return set_member(value);
    if (in_accounts() && depth_ == 3) return set_figure(value);
    return true;
  }

  // Whether the number is one that the member can have.
  template <class Number>
  static bool set(Number &member, std::int64_t value) {
    if (value < 0 || !std::in_range<Number>(value)) return false;
    member = static_cast<Number>(value);
    return true;
  }

  bool set_member(std::int64_t value) {
    if (keys_[1] == "id") return set(account().id, value);
    if (keys_[1] == "parent") return set(account().parent, value);
    if (keys_[1] == "level") return set(account().level, value);
    if (keys_[1] != "age") return true;
    std::fill_n(account().modified, QUOTA_ALL_KINDS,
                platform_.taken - std::max(value, std::int64_t{0}));
    return value >= 0 && value <= platform_.taken;
  }

  // The place of the member's kind; QUOTA_ALL_KINDS for none that this version has.
  size_t kind() const {
    const auto *const found =
        std::find_if(std::begin(media_kinds), std::end(media_kinds),
                     [&](const media_kind &one) { return keys_[2] == one.name; });
    return static_cast<size_t>(found - std::begin(media_kinds));
  }

  bool set_figure(std::int64_t value) {
    const size_t place = kind();
    if (place == QUOTA_ALL_KINDS) return true;
    if (keys_[1] == "used") return set(account().used[place], value);
    if (keys_[1] == "limit") return set(account().limit[place], value);
    return keys_[1] != "updates" || set(account().updates[place], value);
  }

  void set_state(std::string_view name) {
    const size_t place = kind();
    if (place == QUOTA_ALL_KINDS) return;
    for (size_t state = 0; state < figure_states; ++state) {
      if (name == name_of(static_cast<figure_state>(state))) {
        account().states[place] = static_cast<figure_state>(state);
      }
    }
  }

  report_platform &platform_;
  std::vector<std::string> keys_;  // of the objects around, the outermost first
  size_t depth_ = 0;               // of objects
  size_t arrays_ = 0;              // around the value
  bool in_list_ = false;           // of the accounts
  bool is_report_ = false;
  std::int64_t version_ = 0;
};

}  // namespace

report_platform read_snapshot(const std::string &path) {
  decompressed_file content(path);
  report_platform platform;
  platform.taken = -1;
  document_reader document(platform);
  rapidjson::Reader reader;
  constexpr unsigned careful =
      rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag;
  const bool read = !reader.Parse<careful>(content, document).IsError();
  if (document.is_newer()) throw report_trouble(path + ": was written by a newer version");
  if (!read || !document.is_complete()) throw report_trouble(path + ": is no snapshot");
  std::sort(platform.accounts.begin(), platform.accounts.end(),
            [](const report_account &a, const report_account &b) { return a.id < b.id; });
  const auto twice = std::adjacent_find(
      platform.accounts.begin(), platform.accounts.end(),
      [](const report_account &a, const report_account &b) { return a.id == b.id; });
  if (twice != platform.accounts.end()) throw report_trouble(path + ": is no snapshot");
  return platform;
}
